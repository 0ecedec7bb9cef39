#include "melvo/app/preferences.h"

#include <memory>

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

std::filesystem::path Preferences::lockPath() const {
  std::filesystem::path p = path_;
  p += ".lock";
  return p;
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

Json Preferences::update(std::string_view key,
                         const std::function<Json(const Json& stored)>& change) {
  std::unique_ptr<FileLock> lock;
  try {
    std::filesystem::create_directories(path_.parent_path());
    lock = std::make_unique<FileLock>(lockPath());
  } catch (const std::exception& e) {
    // Without the lock the change is still worth making; only a race could lose it.
    log::write("Preferences", std::string("cannot lock preferences.json: ") + e.what());
  }
  reload();
  const Json* stored = values_.find(key);
  Json next = change(stored ? *stored : Json(nullptr));
  if (next.isNull()) {
    values_.asObject().erase(std::string(key));
  } else {
    values_[key] = next;
  }
  write();
  return next;
}

void Preferences::set(std::string_view key, Json value) {
  update(key, [&](const Json&) { return value; });
}

void Preferences::remove(std::string_view key) {
  update(key, [](const Json&) { return Json(nullptr); });
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
