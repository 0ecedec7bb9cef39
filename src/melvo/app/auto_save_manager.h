// Rolling copies of the song, one folder per project (or per unsaved session), written on a
// timer while there are unsaved edits, so that work survives a crash. Named snapshots are kept
// forever; automatic ones are pruned to the newest `maxGenerations`.
//
// Every copy records, beside it, the run (session) that wrote it and its date in UTC. A run
// that ends cleanly settles its own copies (endCleanly), unless the song still holds unsaved
// edits; a copy of a run that was never settled is the work of a session that died, and
// findRecoverable offers it until the user restores or discards it. A run that is still going
// (in another process) holds a lock that tells it apart from a dead one.
//
// The timer's copies are encoded and written on a worker thread: the main thread only takes
// the document (a cheap copy-on-write value) and later hears how the write went.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "melvo/editing/observable.h"
#include "melvo/model/music_document.h"
#include "melvo/platform/event_loop.h"

namespace melvo {

class FileLock;

struct AutoSaveSettings {
  enum class Interval { off = 0, sec30 = 30, min1 = 60, min3 = 180, min5 = 300, min10 = 600 };
  Interval interval = Interval::min1;
  int maxGenerations = 50;

  bool operator==(const AutoSaveSettings&) const = default;
  static std::filesystem::path defaultPath();  // configDir()/autosave.json
  // Defaults when the file is missing or unreadable.
  static AutoSaveSettings load(const std::filesystem::path& path = defaultPath());
  void save(const std::filesystem::path& path = defaultPath()) const;  // throws FileError
};

struct AutoSaveSnapshot {
  std::filesystem::path url;  // the .nsproj file
  double date = 0;            // seconds since 2001-01-01
  std::optional<std::string> label;
  bool manual = false;
  std::int64_t noteCount = 0;
  std::string title;
  std::optional<std::string> projectPath;
  std::string session;  // the run that wrote it; empty for a copy without a readable sidecar

  bool operator==(const AutoSaveSnapshot&) const = default;
  std::string key() const { return url.parent_path().filename().string(); }
  std::filesystem::path sidecar() const;
};

class AutoSaveManager : public Observable {
 public:
  using DocumentProvider = std::function<std::optional<std::pair<MusicDocument, bool>>()>;

  // `root` is the AutoSaves folder; settings come from `settingsPath`.
  explicit AutoSaveManager(EventLoop& loop, std::filesystem::path root = defaultRoot(),
                           std::filesystem::path settingsPath = AutoSaveSettings::defaultPath());
  ~AutoSaveManager();
  AutoSaveManager(const AutoSaveManager&) = delete;
  AutoSaveManager& operator=(const AutoSaveManager&) = delete;
  static std::filesystem::path defaultRoot();  // paths::autoSaveDir()
  // This run's name in the sidecars.
  const std::string& sessionId() const { return sessionId_; }

  // The folder name of a saved project: 40 hex digits of the SHA-256 of its path.
  static std::string projectKey(const std::string& path);
  static std::string newSessionKey();

  const AutoSaveSettings& settings() const { return _settings; }
  // Stores the settings and restarts the timer.
  void setSettings(AutoSaveSettings settings);
  void startTimer();
  bool timerRunning() const { return _timer.isActive(); }

  void bind(DocumentProvider provider) { _documentProvider = std::move(provider); }
  // A new path gets its own folder; no path starts a fresh unsaved session.
  void setProject(std::optional<std::string> path);
  const std::string& currentKey() const { return _currentKey; }
  const std::optional<std::string>& currentProjectPath() const { return _currentProjectPath; }
  const std::optional<std::string>& lastSaveError() const { return _lastSaveError; }
  std::optional<double> lastSaveDate() const { return _lastSaveDate; }

  // Takes the document and hands encoding and writing to a worker; a tick that comes while
  // the previous copy is still being written is skipped.
  void autoSaveTick();
  // Waits for a copy being written and takes its result (before a quit, and in tests).
  void flush();
  bool writing() const { return writing_; }
  // Writes on the calling thread and returns the copy.
  std::optional<AutoSaveSnapshot> writeSnapshot(const MusicDocument& document,
                                                std::optional<std::string> label, bool manual);
  std::optional<AutoSaveSnapshot> saveManualSnapshot(std::optional<std::string> label);

  std::vector<AutoSaveSnapshot> listSnapshots() const;  // current key, newest first
  std::vector<AutoSaveSnapshot> listUnsavedSessionSnapshots() const;
  // Reads and decodes. Throws FileError or ProjectDecodeError.
  static MusicDocument restore(const AutoSaveSnapshot& snapshot);
  // Moves the file and its sidecar to the trash; false (and the file stays) on failure.
  static bool moveToTrash(const AutoSaveSnapshot& snapshot);
  // The copy at `file` when it is one of the copies in this manager's folders, else nothing:
  // whatever a command line names, nothing outside the autosave folders is touched.
  std::optional<AutoSaveSnapshot> snapshotAt(const std::filesystem::path& file) const;

  // The newest unsettled automatic copy of each folder that is newer than its project file.
  std::vector<AutoSaveSnapshot> findRecoverable() const;
  // The candidates' sessions stop being offered in their folders: an unsaved song's automatic
  // copies are deleted, a project's history stays and its session is marked settled.
  void discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots);
  // The same for every folder that holds copies of `session`; returns how many folders.
  int discardSession(const std::string& session);
  // The copy was restored or discarded: its session is settled in its folder.
  void settle(const AutoSaveSnapshot& snapshot);
  // On an orderly quit: settles what this run wrote, except the current song's copies while
  // it still has unsaved edits (a last copy is written for those first).
  void endCleanly();

  // Every snapshot in one key folder, newest first.
  std::vector<AutoSaveSnapshot> listFolder(const std::string& key) const;
  static std::optional<AutoSaveSnapshot> readSnapshot(const std::filesystem::path& file);

 private:
  struct WriteJob;
  struct WriteOutcome;
  WriteJob makeJob(MusicDocument document, std::optional<std::string> label, bool manual);
  static WriteOutcome performWrite(const WriteJob& job);
  void deliver(WriteOutcome outcome);
  void collect();
  void recordError(const char* reason, const std::string& detail);
  void settleSession(const std::string& key, const std::string& session);
  std::filesystem::path sessionLockPath(const std::string& session) const;
  bool sessionRunning(const std::string& session) const;

  EventLoop& loop_;
  std::filesystem::path root_;
  std::filesystem::path settingsPath_;
  AutoSaveSettings _settings;
  std::string _currentKey;
  std::optional<double> _lastSaveDate;
  std::optional<std::string> _lastSaveError;
  std::optional<std::string> _currentProjectPath;
  DocumentProvider _documentProvider;
  RepeatingTimer _timer;
  std::set<std::string> keysWritten_;  // what endCleanly has to settle
  std::string sessionId_;
  // Held from this run's first copy to its end: while it is held, another process knows the
  // copies are a live run's, not a crashed one's.
  std::unique_ptr<FileLock> sessionLock_;
  // The worker of the timer's copies and the result it leaves for the main thread.
  std::thread worker_;
  std::mutex pendingMutex_;
  std::unique_ptr<WriteOutcome> pending_;
  bool writing_ = false;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace melvo
