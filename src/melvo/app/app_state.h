// The root object of a running Melvo: one instance owns the editor model, the autosave
// manager, the engine settings and the lists that outlive a song (recent files, takes). Every
// song-wide flow (new, open, save, snapshots) starts here.
//
// No window is needed: the questions a flow asks go through FrontEnd, a record of callbacks
// that a window, the command line or a test fills in. An unanswered question is a cancel.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "melvo/app/auto_save_manager.h"
#include "melvo/app/preferences.h"
#include "melvo/editing/observable.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/uuid.h"
#include "melvo/synthesis/neutrino_config.h"

namespace melvo {

// Stand-in until the mixdown work defines the kinds of render.
enum class MixdownKind { all, selectedTrack, range, selectedTrackRange };

struct FrontEnd {
  enum class Answer { primary, secondary, cancel };
  struct Question {
    std::string title;
    std::string text;
    std::string primary;
    std::string secondary;  // empty: a two-way question (primary or cancel)
  };
  struct OpenRequest {
    std::string title;
    std::vector<std::string> extensions;  // lower case, no dot
  };
  struct SaveRequest {
    std::string title;
    std::string suggestedName;
    std::string type;  // "melvo.project"
  };

  std::function<Answer(const Question&)> ask;
  std::function<std::optional<std::filesystem::path>(const OpenRequest&)> chooseFileToOpen;
  std::function<std::optional<std::filesystem::path>(const SaveRequest&)> chooseFileToSave;
  std::function<void(const std::string& text)> alert;
};

class AppState : public Observable {
 public:
  struct RecentFile {
    Uuid id;
    std::string path;
    std::string title;
    double lastOpened = 0;  // seconds since 2001-01-01
    std::int64_t totalNotes = 0;
    bool operator==(const RecentFile&) const = default;
  };
  struct Take {
    Uuid id;
    double createdAt = 0;
    std::string wavPath;
    std::optional<std::string> characterName;
    std::string title;
    std::int64_t noteCount = 0;
    double durationSec = 0;
    bool operator==(const Take&) const = default;
  };
  // The lender's token lets a closing front end withdraw only its own record.
  struct HomeActions {
    Uuid token = Uuid::random();
    std::function<void()> newProject, importScore;
    std::function<void(const std::filesystem::path&)> open;
  };
  struct EditorCommands {
    Uuid token = Uuid::random();
    std::function<void()> newProject;
    std::function<void(const std::filesystem::path&)> open, openRecent;
    std::function<void()> save, snapshot, history, exportMusicXML, exportMIDI;
  };
  struct MixdownActions {
    Uuid token = Uuid::random();
    std::function<void(MixdownKind)> run;
  };

  enum class FlowResult { done, cancelled, refused, failed };

  static constexpr std::size_t kRecentLimit = 25;
  static constexpr std::size_t kTakeLimit = 10;
  static constexpr const char* kRecentFilesKey = "melvo.recentFiles";
  static constexpr const char* kTakeHistoryKey = "melvo.takeHistory";

  // Loads the settings, recent files and takes, and binds autosave to the editor model. The
  // timer and the recovery scan wait for start().
  explicit AppState(EventLoop& loop, FrontEnd frontEnd = {});
  ~AppState();
  AppState(const AppState&) = delete;
  AppState& operator=(const AppState&) = delete;

  // Starts the autosave timer, shows home and looks for the work of a session that died.
  void start();
  // On an orderly quit.
  void endCleanly();

  FrontEnd frontEnd;
  std::optional<HomeActions> homeActions;
  std::optional<EditorCommands> editorCommands;
  std::optional<MixdownActions> mixdownActions;
  std::function<void(const std::string&)> songSwapRefusalShown;

  PianoRollViewModel& pianoRollVM() { return pianoRollVM_; }
  AutoSaveManager& autoSave() { return autoSave_; }
  Preferences& preferences() { return preferences_; }

  // ---- Song flows ----
  FlowResult newProject();
  FlowResult open(const std::filesystem::path& url);
  FlowResult openRecent(const std::filesystem::path& url) { return open(url); }
  FlowResult importScore();
  FlowResult save();
  FlowResult saveAs();
  std::optional<AutoSaveSnapshot> snapshot(std::optional<std::string> label = std::nullopt);
  // What the history window lists: this song's copies, newest first.
  std::vector<AutoSaveSnapshot> showHistory() const { return autoSave_.listSnapshots(); }
  FlowResult restoreSnapshot(const AutoSaveSnapshot& snapshot);

  // Why a render of `kind` cannot run now, or nothing.
  std::optional<std::string> mixdownRefusal(MixdownKind kind) const;
  // The check a render request makes first: a running render is refused with an alert.
  bool refuseRenderWhileRendering();

  // ---- Settings ----
  const NEUTRINOConfig& config() const { return _config; }
  void setConfig(NEUTRINOConfig config);  // saves
  void loadConfig();
  void saveConfig();

  // ---- Recent files and takes ----
  const std::vector<RecentFile>& recentFiles() const { return _recentFiles; }
  void addRecent(const std::string& path, const std::string& title, std::int64_t totalNotes);
  void removeRecent(const std::string& path);
  void loadRecents();
  void saveRecents();
  const std::vector<Take>& takeHistory() const { return _takeHistory; }
  void addTake(Take take);
  void loadTakes();
  void saveTakes();

  // ---- State ----
  const std::optional<std::string>& projectFilePath() const { return _projectFilePath; }
  bool isSynthesizing() const { return _isSynthesizing; }
  void setIsSynthesizing(bool on) { assign(_isSynthesizing, on, "isSynthesizing"); }
  bool showHome() const { return _showHome; }
  void setShowHome(bool on) { assign(_showHome, on, "showHome"); }
  const std::vector<AutoSaveSnapshot>& recoverableSnapshots() const {
    return _recoverableSnapshots;
  }
  bool recoveryDismissed() const { return _recoveryDismissed; }
  void dismissRecovery() { assign(_recoveryDismissed, true, "recoveryDismissed"); }
  void discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots);
  std::vector<std::filesystem::path>& pendingOpenURLs() { return _pendingOpenURLs; }

  // "a/b:c" becomes "a_b_c"; nothing left gives the file's name.
  static std::string cleanTitle(const std::string& title, const std::filesystem::path& file);

 private:
  bool refuseSongSwap();
  // The three-way question before a dirty song is replaced; true when the flow may go on.
  bool settleDirtySong(const char* text, const char* saveAndGo, const char* discardAndGo);
  bool writeTo(const std::filesystem::path& path);
  void alert(const std::string& text);

  EventLoop& loop_;
  Preferences preferences_;
  std::vector<std::filesystem::path> _pendingOpenURLs;
  NEUTRINOConfig _config;
  PianoRollViewModel pianoRollVM_;
  AutoSaveManager autoSave_;
  std::optional<std::string> _projectFilePath;
  std::optional<std::string> _lastSynthesizedWAV;
  std::vector<Take> _takeHistory;
  std::vector<RecentFile> _recentFiles;
  bool _isSynthesizing = false;
  bool _showHome = false;
  std::vector<AutoSaveSnapshot> _recoverableSnapshots;
  bool _recoveryDismissed = false;
};

}  // namespace melvo
