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
// An empty file per settled session in a project's folder: ".settled-<session>".
constexpr const char* kSettledPrefix = ".settled-";

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

fs::path settledMarker(const fs::path& folder, const std::string& session) {
  return folder / (kSettledPrefix + (session.empty() ? std::string("unknown") : session));
}

bool isSettled(const fs::path& folder, const std::string& session) {
  std::error_code ec;
  return fs::exists(settledMarker(folder, session), ec);
}

// Every snapshot in one folder, newest first.
std::vector<AutoSaveSnapshot> listFolderAt(const fs::path& folder) {
  std::vector<AutoSaveSnapshot> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    if (entry.path().extension() != ".nsproj") continue;
    if (auto s = AutoSaveManager::readSnapshot(entry.path())) out.push_back(std::move(*s));
  }
  std::sort(out.begin(), out.end(), newestFirst);
  return out;
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

struct AutoSaveManager::WriteJob {
  fs::path folder;
  MusicDocument document;
  std::optional<std::string> label;
  bool manual = false;
  std::optional<std::string> projectPath;
  std::string session;
  int maxGenerations = 50;
};

struct AutoSaveManager::WriteOutcome {
  std::optional<AutoSaveSnapshot> snapshot;
  const char* reason = nullptr;  // set on failure
  std::string error;
};

AutoSaveManager::AutoSaveManager(EventLoop& loop, fs::path root, fs::path settingsPath)
    : loop_(loop),
      root_(std::move(root)),
      settingsPath_(std::move(settingsPath)),
      _settings(AutoSaveSettings::load(settingsPath_)),
      _currentKey(newSessionKey()),
      sessionId_(Uuid::random().toString()) {}

AutoSaveManager::~AutoSaveManager() {
  alive_.reset();
  if (worker_.joinable()) worker_.join();
  if (sessionLock_) {
    // Unlinked before the lock goes, so nobody sees the file of a run that has ended.
    std::error_code ec;
    fs::remove(sessionLockPath(sessionId_), ec);
    sessionLock_.reset();
  }
}

fs::path AutoSaveManager::sessionLockPath(const std::string& session) const {
  return root_ / (".session-" + session + ".lock");
}

bool AutoSaveManager::sessionRunning(const std::string& session) const {
  return !session.empty() && FileLock::isHeld(sessionLockPath(session));
}

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

AutoSaveManager::WriteJob AutoSaveManager::makeJob(MusicDocument document,
                                                   std::optional<std::string> label, bool manual) {
  keysWritten_.insert(_currentKey);
  if (!sessionLock_) {
    try {
      std::error_code ec;
      fs::create_directories(root_, ec);
      sessionLock_ = std::make_unique<FileLock>(sessionLockPath(sessionId_));
    } catch (const FileError& e) {
      // Without it another process may offer this run's copies as a crash's: worth a log
      // line, not worth losing the copy.
      log::write("AutoSaveManager", std::string("session lock not taken: ") + e.what());
    }
  }
  return WriteJob{root_ / _currentKey, std::move(document), std::move(label),        manual,
                  _currentProjectPath, sessionId_,          _settings.maxGenerations};
}

void AutoSaveManager::autoSaveTick() {
  if (!_documentProvider || writing_) return;
  auto provided = _documentProvider();
  if (!provided || !provided->second) return;
  if (worker_.joinable()) worker_.join();  // finished: its result was delivered
  writing_ = true;
  worker_ = std::thread([this, job = makeJob(std::move(provided->first), std::nullopt, false),
                         alive = std::weak_ptr<int>(alive_)]() mutable {
    auto outcome = std::make_unique<WriteOutcome>(performWrite(job));
    // The copy's notes go with the worker, not with the main thread's next edit.
    job.document = MusicDocument();
    {
      std::lock_guard lock(pendingMutex_);
      pending_ = std::move(outcome);
    }
    loop_.post([this, alive] {
      if (alive.lock()) collect();
    });
  });
}

void AutoSaveManager::collect() {
  std::unique_ptr<WriteOutcome> outcome;
  {
    std::lock_guard lock(pendingMutex_);
    outcome = std::move(pending_);
  }
  if (outcome) deliver(std::move(*outcome));
}

void AutoSaveManager::flush() {
  if (worker_.joinable()) worker_.join();
  collect();
}

void AutoSaveManager::deliver(WriteOutcome outcome) {
  writing_ = false;
  if (outcome.reason) {
    recordError(outcome.reason, outcome.error);
    return;
  }
  if (_lastSaveError) {
    _lastSaveError.reset();
    notify("lastSaveError");
  }
  _lastSaveDate = referenceSecondsNow();
  notify("lastSaveDate");
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
  flush();
  WriteOutcome outcome = performWrite(makeJob(document, std::move(label), manual));
  std::optional<AutoSaveSnapshot> snap = outcome.snapshot;
  deliver(std::move(outcome));
  return snap;
}

// Runs on the worker for the timer's copies: touches nothing of the manager.
AutoSaveManager::WriteOutcome AutoSaveManager::performWrite(const WriteJob& job) {
  WriteOutcome out;
  std::error_code ec;
  fs::create_directories(job.folder, ec);
  if (ec) {
    out.reason = tr("書き込みに失敗");
    out.error = job.folder.string() + ": " + ec.message();
    return out;
  }
  // Two copies in the same millisecond would overwrite each other: step past a taken name.
  auto when = std::chrono::system_clock::now();
  fs::path file;
  for (;;) {
    file = job.folder / (fileStem(when) + ".nsproj");
    if (!fs::exists(file, ec)) break;
    when += std::chrono::milliseconds(1);
  }
  std::string bytes;
  try {
    bytes = encodeProject(job.document);
  } catch (const std::exception& e) {
    out.reason = tr("符号化に失敗");
    out.error = e.what();
    return out;
  }
  try {
    writeFileAtomically(file, bytes);
  } catch (const std::exception& e) {
    out.reason = tr("書き込みに失敗");
    out.error = e.what();
    return out;
  }
  bytes = std::string();

  AutoSaveSnapshot snap;
  snap.url = file;
  snap.date = referenceSeconds(when);
  snap.label = job.label;
  snap.manual = job.manual;
  snap.noteCount = static_cast<std::int64_t>(job.document.totalNoteCount());
  snap.title = job.document.title;
  snap.projectPath = job.projectPath;
  snap.session = job.session;
  Json meta = Json::object();
  meta["manual"] = snap.manual;
  meta["label"] = snap.label ? Json(*snap.label) : Json(nullptr);
  meta["noteCount"] = snap.noteCount;
  meta["title"] = snap.title;
  meta["projectPath"] = snap.projectPath ? Json(*snap.projectPath) : Json(nullptr);
  // The date in UTC (seconds since 2001): a name in local time reads differently elsewhere.
  meta["date"] = snap.date;
  meta["session"] = snap.session;
  try {
    writeFileAtomically(snap.sidecar(), meta.dump(JsonStyle::Pretty) + "\n");
  } catch (const std::exception& e) {
    // The copy itself is safe; the list falls back to what the file says.
    log::write("AutoSaveManager", std::string("sidecar not written: ") + e.what());
  }
  if (!job.manual) {
    int kept = 0;
    for (const auto& s : listFolderAt(job.folder)) {
      if (s.manual) continue;  // named copies are never counted nor deleted
      if (++kept <= job.maxGenerations) continue;
      fs::remove(s.url, ec);
      fs::remove(s.sidecar(), ec);
    }
  }
  out.snapshot = readSnapshot(file);
  return out;
}

std::optional<AutoSaveSnapshot> AutoSaveManager::readSnapshot(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) return std::nullopt;
  AutoSaveSnapshot s;
  s.url = file;
  // File attributes are in UTC; the local-time name is the last resort.
  if (auto m = modificationDate(file)) {
    s.date = *m;
  } else if (auto d = dateFromStem(file.stem().string())) {
    s.date = *d;
  }
  bool haveMeta = false;
  try {
    Json meta = Json::parse(readFile(s.sidecar()));
    s.manual = meta.find("manual") && meta.find("manual")->asBool();
    if (const Json* l = meta.find("label"); l && l->isString()) s.label = l->asString();
    if (const Json* n = meta.find("noteCount"); n) s.noteCount = n->asInt();
    if (const Json* t = meta.find("title"); t && t->isString()) s.title = t->asString();
    if (const Json* p = meta.find("projectPath"); p && p->isString()) s.projectPath = p->asString();
    if (const Json* d = meta.find("date"); d && d->isNumber()) s.date = d->asDouble();
    if (const Json* r = meta.find("session"); r && r->isString()) s.session = r->asString();
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
  return listFolderAt(root_ / key);
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

std::optional<AutoSaveSnapshot> AutoSaveManager::snapshotAt(const fs::path& file) const {
  std::error_code ec;
  // The name itself must be a plain file: a link could lead anywhere.
  if (!fs::is_regular_file(fs::symlink_status(file, ec))) return std::nullopt;
  if (file.extension() != ".nsproj") return std::nullopt;
  const fs::path folder = fs::canonical(fs::absolute(file, ec).parent_path(), ec);
  if (ec) return std::nullopt;
  const fs::path root = fs::canonical(root_, ec);
  if (ec || folder.parent_path() != root) return std::nullopt;
  return readSnapshot(folder / file.filename());
}

std::vector<AutoSaveSnapshot> AutoSaveManager::findRecoverable() const {
  std::vector<AutoSaveSnapshot> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root_, ec)) {
    if (!entry.is_directory()) continue;
    std::optional<AutoSaveSnapshot> newest;
    for (auto& s : listFolderAt(entry.path())) {
      // This run's own copies are not leftovers of a crash.
      if (s.manual || s.session == sessionId_ || isSettled(entry.path(), s.session)) continue;
      // A run still going in another process has not lost anything yet.
      if (sessionRunning(s.session)) continue;
      newest = std::move(s);
      break;
    }
    if (!newest) continue;
    if (newest->projectPath) {
      auto projectDate = modificationDate(*newest->projectPath);
      if (projectDate && *projectDate >= newest->date) continue;  // saved after the copy
    }
    out.push_back(std::move(*newest));
  }
  std::sort(out.begin(), out.end(), newestFirst);
  return out;
}

void AutoSaveManager::settleSession(const std::string& key, const std::string& session) {
  const fs::path folder = root_ / key;
  std::error_code ec;
  // A dead run's lock file has told all it can.
  if (session != sessionId_ && !session.empty() && !sessionRunning(session))
    fs::remove(sessionLockPath(session), ec);
  if (isSessionKey(key)) {
    // An unsaved song has no history worth keeping: its automatic copies go.
    for (const auto& s : listFolderAt(folder)) {
      if (s.manual || s.session != session) continue;
      fs::remove(s.url, ec);
      fs::remove(s.sidecar(), ec);
    }
    if (fs::is_empty(folder, ec)) fs::remove(folder, ec);
    return;
  }
  try {
    writeFileAtomically(settledMarker(folder, session), "");
  } catch (const std::exception& e) {
    log::write("AutoSaveManager", std::string("cannot settle a session: ") + e.what());
  }
}

void AutoSaveManager::settle(const AutoSaveSnapshot& snapshot) {
  if (snapshot.manual || snapshot.session == sessionId_) return;
  // The copy itself may be in the trash by now; its folder must be one of ours.
  std::error_code ec;
  const fs::path folder = fs::canonical(fs::absolute(snapshot.url, ec).parent_path(), ec);
  if (ec || folder.parent_path() != fs::canonical(root_, ec) || ec) return;
  settleSession(folder.filename().string(), snapshot.session);
}

void AutoSaveManager::discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots) {
  std::set<std::pair<std::string, std::string>> settled;
  for (const auto& s : snapshots) {
    if (s.manual) continue;
    if (settled.insert({s.key(), s.session}).second) settleSession(s.key(), s.session);
  }
}

int AutoSaveManager::discardSession(const std::string& session) {
  int folders = 0;
  std::error_code ec;
  std::vector<std::string> keys;
  for (const auto& entry : fs::directory_iterator(root_, ec)) {
    if (!entry.is_directory()) continue;
    const std::string key = entry.path().filename().string();
    // A session is named by its run, or by the folder of the unsaved song it wrote.
    const bool wholeFolder = key == session && isSessionKey(key);
    if (!wholeFolder && !isSessionKey(key) && isSettled(entry.path(), session)) continue;
    for (const auto& s : listFolderAt(entry.path())) {
      if (s.manual) continue;
      if (wholeFolder || s.session == session) {
        keys.push_back(key);
        break;
      }
    }
  }
  for (const auto& key : keys) {
    if (key == session) {
      for (const auto& s : listFolder(key))
        if (!s.manual) settleSession(key, s.session);
    } else {
      settleSession(key, session);
    }
    ++folders;
  }
  return folders;
}

void AutoSaveManager::endCleanly() {
  flush();
  _timer.cancel();
  bool dirty = false;
  if (_documentProvider) {
    if (auto provided = _documentProvider(); provided && provided->second) {
      dirty = true;
      // The edits since the last tick would be lost with this run: one last copy holds them.
      if (_settings.interval != AutoSaveSettings::Interval::off)
        writeSnapshot(provided->first, std::nullopt, false);
    }
  }
  for (const auto& key : keysWritten_) {
    if (dirty && key == _currentKey) continue;  // still the only place of unsaved work
    settleSession(key, sessionId_);
  }
}

}  // namespace melvo
