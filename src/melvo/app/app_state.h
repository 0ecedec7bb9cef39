// The root object of a running Melvo: one instance owns the editor model, the autosave
// manager, the engine settings and the lists that outlive a song (recent files, takes). Every
// song-wide flow (new, open, save, snapshots) starts here.
//
// No window is needed: the questions a flow asks go through FrontEnd, a record of callbacks
// that a window, the command line or a test fills in. An unanswered question is a cancel.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "melvo/app/auto_save_manager.h"
#include "melvo/app/preferences.h"
#include "melvo/editing/observable.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/model/validation_issue.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/uuid.h"
#include "melvo/synthesis/diagnosis.h"
#include "melvo/synthesis/installation_finder.h"
#include "melvo/synthesis/mixdown_kind.h"
#include "melvo/synthesis/neutrino_config.h"

namespace melvo {

class NEUTRINOEngine;
class MultiTrackSynthesizer;

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

  // How a render or a re-render ended, for whoever started it.
  struct SynthesisOutcome {
    // refused: the engine check or a check after it said no; nothing was started.
    enum class Ending { succeeded, refused, failed, cancelled };
    Ending ending = Ending::failed;
    bool success = false;
    bool revocode = false;
    std::optional<std::string> wavPath;  // the mix (or the re-rendered voice's new mix)
    std::string message;                 // what the log ended with
    std::optional<Diagnosis> diagnosis;  // a failure the log explains
    std::vector<int> renderedTracks;
    // After a failure: the notes the engine's log names, as rows that jump to them.
    std::vector<ValidationIssue> engineRows;
  };

  static constexpr std::size_t kRecentLimit = 25;
  static constexpr std::size_t kTakeLimit = 10;
  static constexpr const char* kRecentFilesKey = "melvo.recentFiles";
  static constexpr const char* kTakeHistoryKey = "melvo.takeHistory";
  // Silence this long from a running engine earns a word in the progress panel.
  static constexpr double kStallSeconds = 25.0;

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
  // Takes a song that a front end has already read (the command line), without the questions
  // and the recent-files entry of open().
  void adoptDocument(MusicDocument document, const std::filesystem::path& file);

  // Why a render of `kind` cannot run now, or nothing.
  std::optional<std::string> mixdownRefusal(MixdownKind kind) const;
  // The check a render request makes first: a running render is refused with an alert.
  bool refuseRenderWhileRendering();

  // ---- Rendering ----
  // Starts a render of `kind` after the last checks. What can be refused at once is returned
  // (and alerted), leaving everything as it was. Then the engine's start check runs off the main
  // queue; a refusal after it (folder health, voice, notes, the gate) and every end of a run
  // comes through synthesisEnded, always from the main queue, never from inside this call.
  std::optional<std::string> startSynthesis(MixdownKind kind);
  // Stops the start check or the running series (no further track starts); the run ends as
  // cancelled and its files stay. A second cancel does not wait for the engine's grace time.
  void cancelSynthesis();
  bool canCancelSynthesis() const { return static_cast<bool>(_cancelSynthesis); }
  // The engine's start check is running: a render was asked for and is not yet refused or begun.
  bool isCheckingEngine() const { return static_cast<bool>(startCheck_); }
  // Runs the engine's late stage again in the folder of the loaded curve, after the curve
  // (skipF0) or the timing was edited. A refusal is returned; the end comes as above.
  std::optional<std::string> startRevocode(bool skipF0);
  // The re-render of a run folder written by a render (or of one track's folder in it), without
  // the song: the tracks whose timing.lab or output.f0 is newer than their voice, or all.
  struct FolderRevocode {
    struct Track {
      std::filesystem::path dir;
      std::string voice;
    };
    std::filesystem::path runDir;
    std::vector<Track> tracks;  // empty: nothing was edited
    bool mixAgain = false;      // a run folder: its voices are mixed again afterwards
    std::optional<std::string> refusal;
  };
  // `voice` (may be empty) replaces the voices the run was sung with.
  FolderRevocode planFolderRevocode(const std::filesystem::path& folder, bool all,
                                    const std::string& voice) const;
  // Each track goes the way of startRevocode: its curve and timing are read by the same readers
  // (what they repaired is logged, and written back for the engine), then the late stage runs;
  // then the voices are mixed again as the render mixed them. A refusal is returned; the end
  // comes through synthesisEnded.
  std::optional<std::string> startFolderRevocode(const FolderRevocode& plan, bool skipF0);
  // Mixes the voices of the last render again with the current volume, pan, mute and solo.
  void remixVoices();
  std::function<void(const SynthesisOutcome&)> synthesisEnded;
  // Where the next render's files go instead of a new folder under the Music folder.
  std::optional<std::filesystem::path> runFolderOverride;
  // How long the start waits for the engine to show a loader failure.
  double engineCheckTimeoutSec = 8.0;

  double synthesisProgress() const { return _synthesisProgress; }
  std::optional<double> synthesisETA() const { return _synthesisETA; }
  const std::string& synthesisStage() const { return _synthesisStage; }
  const std::vector<std::string>& synthesisLog() const { return _synthesisLog; }
  const std::optional<std::string>& synthesisStalledMessage() const {
    return _synthesisStalledMessage;
  }
  const std::optional<std::string>& lastSynthesizedWAV() const { return _lastSynthesizedWAV; }
  const std::optional<Diagnosis>& lastDiagnosis() const { return _lastDiagnosis; }
  bool autoPlayAfterSynthesis() const { return _autoPlayAfterSynthesis; }
  void setAutoPlayAfterSynthesis(bool on) {
    assign(_autoPlayAfterSynthesis, on, "autoPlayAfterSynthesis");
  }
  // The memory of the last mix (track id to voice file), and what a re-mix made of it.
  const std::map<Uuid, std::string>& trackVoiceWAVs() const { return trackVoiceWAVs_; }
  const std::optional<std::string>& lastLiveMixPath() const { return lastLiveMixPath_; }
  float voiceRemixScale() const { return voiceRemixScale_; }
  // Audible voiced tracks with notes that the live mix lacks: only a new render brings them.
  const std::vector<Uuid>& tracksNeedingSynthesis() const { return _tracksNeedingSynthesis; }
  // Waits for a running re-mix (tests, and the end of a command).
  void waitForRemix();

  // ---- Settings ----
  const NEUTRINOConfig& config() const { return _config; }
  void setConfig(NEUTRINOConfig config);  // saves
  // For this session only: a command's --engine must not change the user's settings.
  void overrideConfig(NEUTRINOConfig config) {
    configOverridden_ = true;
    assign(_config, std::move(config), "config");
  }
  // The voices of the engine folder. A scan keeps the voice of the settings, or else takes the
  // first voice, whose name then becomes the setting.
  const std::vector<CharacterModel>& characters() const { return _characters; }
  bool charactersLoaded() const { return _charactersLoaded; }
  const std::optional<CharacterModel>& selectedCharacter() const { return _selectedCharacter; }
  void scanCharacters();
  // An engine shipped with Melvo is unpacked once (progress in the bundled-setup fields), and
  // the settings point at the engine to use; the voices are scanned when the folder changed.
  void setUpEngineFolder();
  void setUpEngineFolder(const std::optional<std::filesystem::path>& resources);
  double bundledSetupProgress() const { return _bundledSetupProgress; }
  const std::string& bundledSetupStage() const { return _bundledSetupStage; }
  bool bundledSetupRunning() const { return _bundledSetupRunning; }
  bool bundledSetupDone() const { return _bundledSetupDone; }
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
  // Turning it on starts the stall watch, turning it off ends it.
  void setIsSynthesizing(bool on);
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
  // Changes the stored recent list under the preferences lock; `change` says whether it
  // changed anything.
  void changeRecents(const std::function<bool(std::vector<RecentFile>&)>& change);
  void alert(const std::string& text);
  // Rendering.
  std::optional<std::string> refuseSynthesis(std::string text, bool toLog);
  void resetSynthesisFields(const std::string& stage);
  void synthesisProgressed(double percentage, const std::string& stage, std::optional<double> eta);
  void appendSynthesisLog(const std::string& line);
  void markSynthesisAlive();
  void stallTick();
  struct RenderStart;
  void synthesisFinished(const RenderStart& start, bool success, std::optional<std::string> mix,
                         std::vector<std::pair<int, std::string>> rendered, float scale);
  void loadRenderedData(const std::filesystem::path& trackDir, const Uuid& trackID);
  void revocodeFinished(bool ok, bool skipF0, const std::filesystem::path& dir,
                        std::uint64_t swapSeq,
                        const std::optional<std::vector<float>>& curveAtStart);
  void endSynthesis(SynthesisOutcome outcome);
  std::vector<ValidationIssue> engineLogRows(
      const RenderStart& start, const std::vector<std::pair<int, std::string>>& rendered);
  struct StartCheck;
  struct FolderRun;
  void startCheckDone(const StartCheck* check, MixdownKind kind,
                      const NEUTRINOInstallationFinder::ConfiguredPathHealth& health);
  std::optional<std::string> beginSynthesis(MixdownKind kind);
  void endWithRefusal(const std::string& text);
  void runRevocode(const std::filesystem::path& dir, const NEUTRINOConfig& config, bool skipF0,
                   std::function<void(bool ok)> onDone);
  void folderRevocodeStep(std::shared_ptr<FolderRun> run, std::size_t i);
  void folderRevocodeFinished(std::shared_ptr<FolderRun> run, bool ok);
  void recomputeTracksNeedingSynthesis();
  void remixFinished(std::uint64_t seq, bool ok, const std::string& path);
  void mixMayHaveChanged();

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
  double _synthesisProgress = 0;
  std::optional<double> _synthesisETA;
  std::string _synthesisStage;
  std::vector<std::string> _synthesisLog;
  std::optional<Clock::time_point> _synthesisLastProgressAt;
  std::optional<std::string> _synthesisStalledMessage;
  RepeatingTimer _stallTimer;
  std::function<void()> _cancelSynthesis;
  std::optional<Diagnosis> _lastDiagnosis;
  bool _autoPlayAfterSynthesis = false;
  std::vector<Uuid> _tracksNeedingSynthesis;
  // The last mix.
  std::map<Uuid, std::string> trackVoiceWAVs_;
  std::map<Uuid, std::string> trackVoiceVoices_;  // the voice each was sung with
  std::optional<std::string> voiceRemixDir_;
  std::optional<std::string> voiceBaseWAV_;
  float voiceRemixScale_ = 1.0f;
  std::uint64_t voiceRemixSeq_ = 0;
  std::optional<std::string> lastLiveMixPath_;
  std::vector<std::string> staleLiveMixes_;
  std::uint64_t voiceMixSwapSeq_ = 0;  // the song the memory belongs to
  std::string voiceMixSignature_;      // the mixer settings the live mix was made with
  std::thread voiceRemixWork_;
  bool remixPending_ = false;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  std::unique_ptr<NEUTRINOEngine> engine_;
  std::unique_ptr<MultiTrackSynthesizer> synthesizer_;
  // Engine settings state.
  std::vector<CharacterModel> _characters;
  bool _charactersLoaded = false;
  std::optional<CharacterModel> _selectedCharacter;
  std::string charactersFolder_;  // the folder of the last scan
  double _bundledSetupProgress = 0;
  std::string _bundledSetupStage;
  bool _bundledSetupRunning = false;
  bool _bundledSetupDone = false;
  bool configOverridden_ = false;
  bool cancelRequested_ = false;            // during the current run
  std::shared_ptr<StartCheck> startCheck_;  // stops and joins its thread when dropped
  bool _showHome = false;
  std::vector<AutoSaveSnapshot> _recoverableSnapshots;
  bool _recoveryDismissed = false;
};

}  // namespace melvo
