#include "melvo/synthesis/neutrino_config.h"

#include <limits>

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"

namespace melvo {
namespace {

bool readString(const Json& j, const char* key, std::string& out) {
  const Json* v = j.find(key);
  if (!v || !v->isString()) return false;
  out = v->asString();
  return true;
}

bool readBool(const Json& j, const char* key, bool& out) {
  const Json* v = j.find(key);
  if (!v || !v->isBool()) return false;
  out = v->asBool();
  return true;
}

bool readInt(const Json& j, const char* key, int& out) {
  const Json* v = j.find(key);
  if (!v || !v->isNumber()) return false;
  try {
    std::int64_t i = v->asInt();  // rejects 2.5
    if (i < std::numeric_limits<int>::min() || i > std::numeric_limits<int>::max()) return false;
    out = static_cast<int>(i);
    return true;
  } catch (const JsonError&) {
    return false;
  }
}

}  // namespace

Json NEUTRINOConfig::toJson() const {
  Json j = Json::object();
  j["neutrinoDirectory"] = neutrinoDirectory;
  j["selectedCharacterName"] = selectedCharacterName;
  j["numThreads"] = numThreads;
  j["transposeKey"] = transposeKey;
  j["supportModel"] = supportModel;
  j["useGpu"] = useGpu;
  j["gpuId"] = gpuId;
  j["useBestGpu"] = useBestGpu;
  j["singlePhraseMode"] = singlePhraseMode;
  j["singlePhraseNumber"] = singlePhraseNumber;
  j["skipTiming"] = skipTiming;
  j["skipF0"] = skipF0;
  j["skipMelspec"] = skipMelspec;
  j["skipWav"] = skipWav;
  return j;
}

std::optional<NEUTRINOConfig> NEUTRINOConfig::fromJson(const Json& j) {
  if (!j.isObject()) return std::nullopt;
  NEUTRINOConfig c;
  bool ok = readString(j, "neutrinoDirectory", c.neutrinoDirectory) &&
            readString(j, "selectedCharacterName", c.selectedCharacterName) &&
            readInt(j, "numThreads", c.numThreads) && readInt(j, "transposeKey", c.transposeKey) &&
            readString(j, "supportModel", c.supportModel) && readBool(j, "useGpu", c.useGpu) &&
            readInt(j, "gpuId", c.gpuId) && readBool(j, "useBestGpu", c.useBestGpu) &&
            readBool(j, "singlePhraseMode", c.singlePhraseMode) &&
            readInt(j, "singlePhraseNumber", c.singlePhraseNumber) &&
            readBool(j, "skipTiming", c.skipTiming) && readBool(j, "skipF0", c.skipF0) &&
            readBool(j, "skipMelspec", c.skipMelspec) && readBool(j, "skipWav", c.skipWav);
  if (!ok) return std::nullopt;
  return c;
}

std::filesystem::path NEUTRINOConfig::defaultPath() {
  return paths::configDir() / "config.json";
}

std::optional<NEUTRINOConfig> NEUTRINOConfig::load(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return std::nullopt;  // a fresh install: no message
  try {
    auto c = fromJson(Json::parse(readFile(path)));
    if (!c) log::write("NEUTRINOConfig", "config.json rejected: a key is missing or mistyped");
    return c;
  } catch (const std::exception& e) {
    log::write("NEUTRINOConfig", std::string("config.json unreadable: ") + e.what());
    return std::nullopt;
  }
}

void NEUTRINOConfig::save(const std::filesystem::path& path) const {
  std::filesystem::create_directories(path.parent_path());
  writeFileAtomically(path, toJson().dump(JsonStyle::Pretty) + "\n");
}

}  // namespace melvo
