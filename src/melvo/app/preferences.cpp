#include "melvo/app/preferences.h"

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"

namespace melvo {

Preferences::Preferences(std::filesystem::path path) : path_(std::move(path)) {
  reload();
}

std::filesystem::path Preferences::defaultPath() {
  return paths::configDir() / "preferences.json";
}

void Preferences::reload() {
  values_ = Json::object();
  std::error_code ec;
  if (!std::filesystem::exists(path_, ec)) return;
  try {
    Json j = Json::parse(readFile(path_));
    if (j.isObject()) {
      values_ = std::move(j);
    } else {
      log::write("Preferences", "preferences.json is not an object; starting empty");
    }
  } catch (const std::exception& e) {
    log::write("Preferences", std::string("preferences.json unreadable: ") + e.what());
  }
}

bool Preferences::boolValue(std::string_view key, bool fallback) const {
  const Json* v = get(key);
  return v && v->isBool() ? v->asBool() : fallback;
}

void Preferences::set(std::string_view key, Json value) {
  values_[key] = std::move(value);
  write();
}

void Preferences::remove(std::string_view key) {
  if (values_.asObject().erase(std::string(key))) write();
}

void Preferences::write() {
  try {
    std::filesystem::create_directories(path_.parent_path());
    writeFileAtomically(path_, values_.dump(JsonStyle::Pretty) + "\n");
  } catch (const std::exception& e) {
    log::write("Preferences", std::string("cannot write preferences.json: ") + e.what());
  }
}

}  // namespace melvo
