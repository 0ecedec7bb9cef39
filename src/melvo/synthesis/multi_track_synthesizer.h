// From a song to one stereo file: one engine run per sung track, in track order, each in its
// own folder of the run, then the mix of their voices with the mixer's gain and pan.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "melvo/model/music_document.h"
#include "melvo/platform/event_loop.h"
#include "melvo/synthesis/mixdown_kind.h"
#include "melvo/synthesis/neutrino_config.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace melvo {

class MultiTrackSynthesizer {
 public:
  struct TrackPlan {
    int trackIndex = 0;
    std::string trackName;
    std::string characterName;
    std::filesystem::path outputDir;
    std::filesystem::path xmlPath;  // <outputDir>/score.musicxml
    std::filesystem::path wavPath;  // <outputDir>/output.wav
    double volume = 1.0;
    double pan = 0.0;
  };

  struct RenderedTrack {
    int trackIndex = 0;
    std::string trackName;
    std::filesystem::path wavPath;
  };

  struct Result {
    bool success = false;
    std::optional<std::filesystem::path> mixPath;
    std::vector<RenderedTrack> rendered;
    std::vector<Uuid> renderedTrackIDs;
    float scale = 1.0f;
    bool cancelled = false;  // ended by cancel(), during a track or between two
  };

  // What a run's mix was made of, kept beside mix.wav as mix.json so that a later re-render
  // of the run's folder can mix its voices again as the render did, without the song.
  struct MixRecipe {
    struct Voice {
      std::string folder;  // the track's folder, relative to the run folder
      std::string characterName;
      float gain = 1.0f;
      float pan = 0.0f;
    };
    std::vector<Voice> voices;
    float scale = 1.0f;  // the render's scale: a re-mix may not come out louder
  };
  static constexpr const char* kMixRecipeFile = "mix.json";
  // Throws FileError.
  static void writeMixRecipe(const std::filesystem::path& runDir, const MixRecipe& recipe);
  // Nothing when the file is missing or not a recipe.
  static std::optional<MixRecipe> readMixRecipe(const std::filesystem::path& runDir);

  using ProgressHandler = NEUTRINOEngine::ProgressHandler;
  using LogHandler = NEUTRINOEngine::LogHandler;
  // Called once, on the main queue.
  using DoneHandler = std::function<void(Result)>;

  MultiTrackSynthesizer(EventLoop& mainQueue, NEUTRINOEngine& engine);
  ~MultiTrackSynthesizer();
  MultiTrackSynthesizer(const MultiTrackSynthesizer&) = delete;
  MultiTrackSynthesizer& operator=(const MultiTrackSynthesizer&) = delete;

  // Tracks with a voice and notes, in order; unless `includingMuted`, only the audible ones.
  static std::vector<int> singableTracks(const MusicDocument& document, bool includingMuted);
  // <Music>/Melvo/<project>_<local time>, with ":", "/" and " " made safe.
  static std::filesystem::path runFolder(const std::string& projectName,
                                         std::chrono::system_clock::time_point when);
  // "/" and " " become "_", and a long name is cut (at a character's edge) so that the
  // track's folder name stays within what a file system takes.
  static std::string safeName(std::string name);
  static constexpr std::size_t kMaxNameBytes = 200;
  // Makes each track's folder and writes its score (a one-track copy keeping the song's tempo
  // and meter). Throws FileError when a folder or score cannot be written.
  static std::vector<TrackPlan> plan(const MusicDocument& document,
                                     const std::vector<int>& trackIndices,
                                     const std::filesystem::path& runDir);
  // Track `i` of `n` at `percentage` of its own run. Held below 100 until the mix is done, so
  // a bar at 100 always means a file to play.
  static double overallProgress(std::size_t i, std::size_t n, double percentage);
  // The mixer's gain of a track: 0 when silenced or out of range, else its volume in 0..1.5.
  static float mixGain(const MusicDocument& document, int trackIndex);
  // The mixer's pan in -1..1; a pan that is not a number (it would turn the whole mix into
  // NaN) is centre.
  static float mixPan(double pan);

  // Renders `trackIndices` (the audible singable tracks when empty) into `runDir`, which is
  // made with its parents. `config` gives the engine; each track sings with its own voice.
  void render(const MusicDocument& document, const std::filesystem::path& runDir,
              const NEUTRINOConfig& config, std::vector<int> trackIndices,
              ProgressHandler onProgress, LogHandler onLog, DoneHandler onDone);
  // Stops the running track, or keeps the next one from starting; the series ends without a
  // mix, its result marked cancelled. Dropping the synthesizer
  // mid-series cancels it too, and its callbacks are not called any more.
  void cancel();
  bool isRunning() const { return running_; }

 private:
  struct Run;
  void runTrack(std::shared_ptr<Run> run, std::size_t i);
  void mixAll(std::shared_ptr<Run> run);
  void finish(const std::shared_ptr<Run>& run, Result result);

  EventLoop& loop_;
  NEUTRINOEngine& engine_;
  bool running_ = false;
  std::weak_ptr<Run> current_;
  std::thread mixer_;
  // Jobs the mixer posts check this, so a result never reaches a synthesizer that is gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace melvo
