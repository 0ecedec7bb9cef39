// Rolling copies of the song, one folder per project (or per unsaved session), written on a
// timer while there are unsaved edits, so that work survives a crash. Named snapshots are kept
// forever; automatic ones are pruned to the newest `maxGenerations`.
//
// A session that ends cleanly says so (endCleanly); whatever is left unmarked at the next
// start is the work of a session that died, and findRecoverable offers it.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "melvo/editing/observable.h"
#include "melvo/model/music_document.h"
#include "melvo/platform/event_loop.h"

namespace melvo {

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
  static std::filesystem::path defaultRoot();  // paths::autoSaveDir()

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

  void autoSaveTick();
  std::optional<AutoSaveSnapshot> writeSnapshot(const MusicDocument& document,
                                                std::optional<std::string> label, bool manual);
  std::optional<AutoSaveSnapshot> saveManualSnapshot(std::optional<std::string> label);

  std::vector<AutoSaveSnapshot> listSnapshots() const;  // current key, newest first
  std::vector<AutoSaveSnapshot> listUnsavedSessionSnapshots() const;
  // Reads and decodes. Throws FileError or ProjectDecodeError.
  static MusicDocument restore(const AutoSaveSnapshot& snapshot);
  // Moves the file and its sidecar to the trash; false (and the file stays) on failure.
  static bool moveToTrash(const AutoSaveSnapshot& snapshot);

  std::vector<AutoSaveSnapshot> findRecoverable() const;
  // The candidates stop being offered: an unsaved session's automatic copies are deleted, a
  // project's history stays but is marked as seen.
  void discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots);
  // On an orderly quit.
  void endCleanly();

  // Every snapshot in one key folder, newest first.
  std::vector<AutoSaveSnapshot> listFolder(const std::string& key) const;
  static std::optional<AutoSaveSnapshot> readSnapshot(const std::filesystem::path& file);

 private:
  void recordError(const char* reason, const std::string& detail);
  void prune(const std::string& key);
  void markSeen(const std::string& key, const std::string& newestName);

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
};

}  // namespace melvo
