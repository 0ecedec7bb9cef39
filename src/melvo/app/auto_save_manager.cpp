#include "melvo/app/auto_save_manager.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/reference_date.h"
#include "melvo/platform/trash.h"
#include "melvo/platform/uuid.h"

namespace melvo {
namespace fs = std::filesystem;

namespace {

constexpr const char* kSessionPrefix = "session-";
constexpr const char* kSeenMarker = ".clean-end";  // names the newest copy a clean end saw

bool isSessionKey(const std::string& key) {
  return key.rfind(kSessionPrefix, 0) == 0;
}

// "yyyy-MM-ddTHH-mm-ss-SSS" in local time: sortable, and readable in a file manager.
std::string fileStem(std::chrono::system_clock::time_point t) {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
  std::time_t secs = static_cast<std::time_t>(ms / 1000);
  std::tm local{};
  localtime_r(&secs, &local);
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d-%02d-%02d-%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(ms % 1000));
  return buf;
}

std::optional<double> dateFromStem(const std::string& stem) {
  std::tm local{};
  int ms = 0;
  if (std::sscanf(stem.c_str(), "%4d-%2d-%2dT%2d-%2d-%2d-%3d", &local.tm_year, &local.tm_mon,
                  &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &ms) != 7)
    return std::nullopt;
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  local.tm_isdst = -1;
  std::time_t secs = std::mktime(&local);
  if (secs == -1) return std::nullopt;
  return static_cast<double>(secs) + ms / 1000.0 - kReferenceDateOffset;
}

std::optional<double> modificationDate(const fs::path& p) {
  struct stat st;
  if (::stat(p.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9 - kReferenceDateOffset;
}

bool newestFirst(const AutoSaveSnapshot& a, const AutoSaveSnapshot& b) {
  if (a.date != b.date) return a.date > b.date;
  return a.url.filename() > b.url.filename();
}

std::string readMarker(const fs::path& folder) {
  try {
    std::string s = readFile(folder / kSeenMarker);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    return s;
  } catch (const FileError&) {
    return {};
  }
}

}  // namespace

// ---- Settings ----

fs::path AutoSaveSettings::defaultPath() {
  return paths::configDir() / "autosave.json";
}

AutoSaveSettings AutoSaveSettings::load(const fs::path& path) {
  AutoSaveSettings s;
  std::error_code ec;
  if (!fs::exists(path, ec)) return s;
  try {
    Json j = Json::parse(readFile(path));
    const Json* interval = j.find("interval");
    const Json* generations = j.find("maxGenerations");
    if (!interval || !generations) throw JsonError("a key is missing");
    std::int64_t seconds = interval->asInt();
    std::int64_t keep = generations->asInt();
    switch (seconds) {
      case 0:
      case 30:
      case 60:
      case 180:
      case 300:
      case 600:
        break;
      default:
        throw JsonError("unknown interval " + std::to_string(seconds));
    }
    if (keep < 1 || keep > 100000) throw JsonError("maxGenerations out of range");
    s.interval = static_cast<Interval>(seconds);
    s.maxGenerations = static_cast<int>(keep);
  } catch (const std::exception& e) {
    log::write("AutoSaveManager", std::string("autosave.json unreadable, defaults: ") + e.what());
    return AutoSaveSettings{};
  }
  return s;
}

void AutoSaveSettings::save(const fs::path& path) const {
  fs::create_directories(path.parent_path());
  Json j = Json::object();
  j["interval"] = static_cast<int>(interval);
  j["maxGenerations"] = maxGenerations;
  writeFileAtomically(path, j.dump(JsonStyle::Pretty) + "\n");
}

fs::path AutoSaveSnapshot::sidecar() const {
  fs::path p = url;
  p.replace_extension(".meta");
  return p;
}

// ---- Manager ----

AutoSaveManager::AutoSaveManager(EventLoop& loop, fs::path root, fs::path settingsPath)
    : loop_(loop),
      root_(std::move(root)),
      settingsPath_(std::move(settingsPath)),
      _settings(AutoSaveSettings::load(settingsPath_)),
      _currentKey(newSessionKey()) {}

fs::path AutoSaveManager::defaultRoot() {
  return paths::autoSaveDir();
}

std::string AutoSaveManager::projectKey(const std::string& path) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(path.data(), path.size(), md, &len, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len && out.size() < 40; ++i) {
    out += hex[md[i] >> 4];
    out += hex[md[i] & 15];
  }
  return out;
}

std::string AutoSaveManager::newSessionKey() {
  return kSessionPrefix + Uuid::random().toString();
}

void AutoSaveManager::setSettings(AutoSaveSettings settings) {
  _settings = settings;
  try {
    _settings.save(settingsPath_);
  } catch (const std::exception& e) {
    log::write("AutoSaveManager", std::string("cannot write autosave.json: ") + e.what());
  }
  notify("settings");
  startTimer();
}

void AutoSaveManager::startTimer() {
  _timer.cancel();
  if (_settings.interval == AutoSaveSettings::Interval::off) return;
  _timer = loop_.scheduleRepeating(std::chrono::seconds(static_cast<int>(_settings.interval)),
                                   [this] { autoSaveTick(); });
}

void AutoSaveManager::setProject(std::optional<std::string> path) {
  _currentProjectPath = std::move(path);
  _currentKey = _currentProjectPath ? projectKey(*_currentProjectPath) : newSessionKey();
  notify("currentKey");
}

void AutoSaveManager::autoSaveTick() {
  if (!_documentProvider) return;
  auto provided = _documentProvider();
  if (!provided || !provided->second) return;
  writeSnapshot(provided->first, std::nullopt, false);
}

std::optional<AutoSaveSnapshot> AutoSaveManager::saveManualSnapshot(
    std::optional<std::string> label) {
  if (!_documentProvider) return std::nullopt;
  auto provided = _documentProvider();
  if (!provided) return std::nullopt;
  if (label && label->empty()) label.reset();
  return writeSnapshot(provided->first, std::move(label), true);
}

void AutoSaveManager::recordError(const char* reason, const std::string& detail) {
  _lastSaveError = detail;
  log::write("AutoSaveManager", trf("自動保存が%@: %@", {reason, detail}));
  notify("lastSaveError");
}

std::optional<AutoSaveSnapshot> AutoSaveManager::writeSnapshot(const MusicDocument& document,
                                                               std::optional<std::string> label,
                                                               bool manual) {
  const fs::path folder = root_ / _currentKey;
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) {
    recordError(tr("書き込みに失敗"), folder.string() + ": " + ec.message());
    return std::nullopt;
  }
  // Two copies in the same millisecond would overwrite each other: step past a taken name.
  auto when = std::chrono::system_clock::now();
  fs::path file;
  for (;;) {
    file = folder / (fileStem(when) + ".nsproj");
    if (!fs::exists(file, ec)) break;
    when += std::chrono::milliseconds(1);
  }
  std::string bytes;
  try {
    bytes = encodeProject(document);
  } catch (const std::exception& e) {
    recordError(tr("符号化に失敗"), e.what());
    return std::nullopt;
  }
  try {
    writeFileAtomically(file, bytes);
  } catch (const std::exception& e) {
    recordError(tr("書き込みに失敗"), e.what());
    return std::nullopt;
  }
  if (_lastSaveError) {
    _lastSaveError.reset();
    notify("lastSaveError");
  }
  keysWritten_.insert(_currentKey);

  AutoSaveSnapshot snap;
  snap.url = file;
  snap.date = referenceSeconds(when);
  snap.label = std::move(label);
  snap.manual = manual;
  snap.noteCount = static_cast<std::int64_t>(document.totalNoteCount());
  snap.title = document.title;
  snap.projectPath = _currentProjectPath;
  Json meta = Json::object();
  meta["manual"] = snap.manual;
  meta["label"] = snap.label ? Json(*snap.label) : Json(nullptr);
  meta["noteCount"] = snap.noteCount;
  meta["title"] = snap.title;
  meta["projectPath"] = snap.projectPath ? Json(*snap.projectPath) : Json(nullptr);
  try {
    writeFileAtomically(snap.sidecar(), meta.dump(JsonStyle::Pretty) + "\n");
  } catch (const std::exception& e) {
    // The copy itself is safe; the list falls back to what the file says.
    log::write("AutoSaveManager", std::string("sidecar not written: ") + e.what());
  }
  _lastSaveDate = referenceSecondsNow();
  notify("lastSaveDate");
  if (!manual) prune(_currentKey);
  return readSnapshot(file);
}

void AutoSaveManager::prune(const std::string& key) {
  int kept = 0;
  for (const auto& s : listFolder(key)) {
    if (s.manual) continue;  // named copies are never counted nor deleted
    if (++kept <= _settings.maxGenerations) continue;
    std::error_code ec;
    fs::remove(s.url, ec);
    fs::remove(s.sidecar(), ec);
  }
}

std::optional<AutoSaveSnapshot> AutoSaveManager::readSnapshot(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) return std::nullopt;
  AutoSaveSnapshot s;
  s.url = file;
  if (auto d = dateFromStem(file.stem().string())) {
    s.date = *d;
  } else if (auto m = modificationDate(file)) {
    s.date = *m;
  }
  bool haveMeta = false;
  try {
    Json meta = Json::parse(readFile(s.sidecar()));
    s.manual = meta.find("manual") && meta.find("manual")->asBool();
    if (const Json* l = meta.find("label"); l && l->isString()) s.label = l->asString();
    if (const Json* n = meta.find("noteCount"); n) s.noteCount = n->asInt();
    if (const Json* t = meta.find("title"); t && t->isString()) s.title = t->asString();
    if (const Json* p = meta.find("projectPath"); p && p->isString()) s.projectPath = p->asString();
    haveMeta = true;
  } catch (const std::exception&) {
    AutoSaveSnapshot bare;
    bare.url = s.url;
    bare.date = s.date;
    s = std::move(bare);
  }
  if (!haveMeta) {
    // No sidecar: what the file itself says.
    try {
      MusicDocument d = readProject(file);
      s.title = d.title;
      s.noteCount = static_cast<std::int64_t>(d.totalNoteCount());
    } catch (const std::exception&) {
      s.title = file.stem().string();
    }
  }
  return s;
}

std::vector<AutoSaveSnapshot> AutoSaveManager::listFolder(const std::string& key) const {
  std::vector<AutoSaveSnapshot> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root_ / key, ec)) {
    if (entry.path().extension() != ".nsproj") continue;
    if (auto s = readSnapshot(entry.path())) out.push_back(std::move(*s));
  }
  std::sort(out.begin(), out.end(), newestFirst);
  return out;
}

std::vector<AutoSaveSnapshot> AutoSaveManager::listSnapshots() const {
  return listFolder(_currentKey);
}

std::vector<AutoSaveSnapshot> AutoSaveManager::listUnsavedSessionSnapshots() const {
  std::vector<AutoSaveSnapshot> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root_, ec)) {
    const std::string key = entry.path().filename().string();
    if (!entry.is_directory() || !isSessionKey(key)) continue;
    for (auto& s : listFolder(key))
      if (s.manual) out.push_back(std::move(s));
  }
  std::sort(out.begin(), out.end(), newestFirst);
  return out;
}

MusicDocument AutoSaveManager::restore(const AutoSaveSnapshot& snapshot) {
  return readProject(snapshot.url);
}

bool AutoSaveManager::moveToTrash(const AutoSaveSnapshot& snapshot) {
  try {
    trash::moveToTrash(snapshot.url);
  } catch (const std::exception& e) {
    log::write("AutoSaveManager", std::string("trash: ") + e.what());
    return false;
  }
  std::error_code ec;
  if (fs::exists(snapshot.sidecar(), ec)) {
    try {
      trash::moveToTrash(snapshot.sidecar());
    } catch (const std::exception&) {
      fs::remove(snapshot.sidecar(), ec);  // a sidecar alone is worthless
    }
  }
  return true;
}

std::vector<AutoSaveSnapshot> AutoSaveManager::findRecoverable() const {
  std::vector<AutoSaveSnapshot> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root_, ec)) {
    if (!entry.is_directory()) continue;
    const std::string key = entry.path().filename().string();
    std::optional<AutoSaveSnapshot> newest;
    for (auto& s : listFolder(key)) {
      if (!s.manual) {
        newest = std::move(s);
        break;
      }
    }
    if (!newest) continue;
    if (readMarker(entry.path()) == newest->url.stem().string()) continue;  // ended cleanly
    if (newest->projectPath) {
      auto projectDate = modificationDate(*newest->projectPath);
      if (projectDate && *projectDate >= newest->date) continue;  // saved after the copy
    }
    out.push_back(std::move(*newest));
  }
  std::sort(out.begin(), out.end(), newestFirst);
  return out;
}

void AutoSaveManager::markSeen(const std::string& key, const std::string& newestName) {
  try {
    writeFileAtomically(root_ / key / kSeenMarker, newestName + "\n");
  } catch (const std::exception& e) {
    log::write("AutoSaveManager", std::string("cannot mark a clean end: ") + e.what());
  }
}

void AutoSaveManager::discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots) {
  std::set<std::string> keys;
  for (const auto& s : snapshots) keys.insert(s.key());
  for (const auto& key : keys) {
    auto all = listFolder(key);
    if (isSessionKey(key)) {
      std::error_code ec;
      for (const auto& s : all) {
        if (s.manual) continue;
        fs::remove(s.url, ec);
        fs::remove(s.sidecar(), ec);
      }
      if (fs::is_empty(root_ / key, ec)) fs::remove(root_ / key, ec);
    } else {
      auto newest = std::find_if(all.begin(), all.end(), [](const auto& s) { return !s.manual; });
      if (newest != all.end()) markSeen(key, newest->url.stem().string());
    }
  }
}

void AutoSaveManager::endCleanly() {
  _timer.cancel();
  std::vector<AutoSaveSnapshot> mine;
  std::set<std::string> keys = keysWritten_;
  keys.insert(_currentKey);
  for (const auto& key : keys) {
    auto all = listFolder(key);
    auto newest = std::find_if(all.begin(), all.end(), [](const auto& s) { return !s.manual; });
    if (newest != all.end()) mine.push_back(*newest);
  }
  discardRecoverable(mine);
}

}  // namespace melvo
