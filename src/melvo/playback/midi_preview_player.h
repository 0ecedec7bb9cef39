// The instrument preview: sounds a song's notes with a sampled instrument before anything has
// been rendered, so that a user hears the notes, not the voice.
//
// A run is built once on the main thread: a list of tempo segments (the clocks between ticks
// and seconds) and a time-ordered list of note events. A poll on a thread of its own then
// walks the list every 5 ms and hands each due event to its sampler, so no note is late by
// more than one poll however busy the main thread is. The playhead, the loop and the end are
// the main thread's display step. An offline render drives both steps itself, on a clock that
// advances by the frames it has rendered (Drive::manual).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "melvo/model/music_document.h"
#include "melvo/platform/event_loop.h"
#include "melvo/playback/preview_engine.h"
#include "melvo/playback/preview_instrument.h"

namespace melvo {

struct TempoSegment {
  std::int64_t startTick = 0;
  double startSeconds = 0;
  double bpm = 120;
  std::int64_t ppq = 480;
};

struct AudioEvent {
  enum class Kind : std::uint8_t { noteOff, noteOn };  // an off sorts before an on at one time
  Kind kind = Kind::noteOn;
  double time = 0;  // seconds from the song's start
  int pitch = 60;
  int velocity = 0;  // noteOn only
  int slot = 0;
};

// Counts beats along the playhead; the player only tells it where the run stands.
class Metronome {
 public:
  virtual ~Metronome() = default;
  virtual void follow(std::int64_t tick, double bpm, std::int64_t ppq, int beatsPerBar) = 0;
};

class MIDIPreviewPlayer {
 public:
  // Builds the sound engine on the first run; nothing and the reason when it cannot.
  using EngineFactory = std::function<std::unique_ptr<PreviewEngine>(std::string& error)>;
  enum class Drive {
    realTime,  // the poll thread and the display timer run the run
    manual,    // the caller calls pollStep() and displayStep() on the loop's clock
  };

  static constexpr std::chrono::milliseconds pollInterval{5};
  static constexpr std::chrono::milliseconds displayInterval{30};

  MIDIPreviewPlayer(EventLoop& loop, EngineFactory makeEngine, Drive drive = Drive::realTime);
  ~MIDIPreviewPlayer();
  MIDIPreviewPlayer(const MIDIPreviewPlayer&) = delete;
  MIDIPreviewPlayer& operator=(const MIDIPreviewPlayer&) = delete;

  // The whole entry of a run, on the main thread. Returns why there is no sound: no engine
  // could be built (then nothing runs), or the output did not start (then the run goes on
  // silently, as a window's playhead would).
  std::optional<std::string> play(const MusicDocument& document, std::int64_t fromTick,
                                  std::optional<std::int64_t> loopStart = std::nullopt,
                                  std::optional<std::int64_t> loopEnd = std::nullopt);
  // Ends the run, silences every sampler and cancels both timers; the playhead stays.
  void stop();

  // The two clocks of the run.
  double seconds(std::int64_t tick) const;
  std::int64_t tick(double elapsed) const;

  // One poll: sends every event whose time has passed. Runs on the poll thread.
  void pollStep();
  // Playhead, metronome, loop restart and end. Main thread.
  void displayStep();

  bool isPlaying() const { return isPlaying_; }
  bool isSetup() const { return isSetup_; }
  std::int64_t playheadTick() const { return playheadTick_; }
  std::int64_t startTick() const { return startTick_; }
  std::int64_t endTick() const { return endTick_; }
  std::optional<std::int64_t> loopStartTick() const { return loopStartTick_; }
  std::optional<std::int64_t> loopEndTick() const { return loopEndTick_; }
  const std::vector<TempoSegment>& tempoSegments() const { return tempoSegments_; }
  const std::vector<AudioEvent>& events() const { return events_; }
  std::size_t nextEventIndex() const { return nextEventIdx_; }
  std::optional<int> slotForTrack(const Uuid& track) const;
  // Seconds since the run started on the loop's clock; 0 when idle.
  double elapsed() const;

  PreviewInstrument instrument() const { return instrument_; }
  // Reloads the samplers when they are set up; the owner stores the choice (onInstrumentChanged).
  void setInstrument(PreviewInstrument instrument);
  void setMetronome(std::weak_ptr<Metronome> metronome, int beatsPerBar);

  std::function<void()> onWillPlay;
  std::function<void(std::int64_t tick)> onPlayheadChanged;
  std::function<void()> onEnded;  // the run reached its end by itself
  std::function<void(PreviewInstrument)> onInstrumentChanged;

 private:
  std::optional<std::string> setUp();
  void buildTempoSegments(const MusicDocument& document);
  void buildEvents(const MusicDocument& document);
  void startPolling();
  void stopPolling();

  EventLoop& loop_;
  EngineFactory makeEngine_;
  Drive drive_;

  std::unique_ptr<PreviewEngine> engine_;
  std::unordered_map<Uuid, int> slotForTrack_;
  bool isSetup_ = false;
  PreviewInstrument instrument_ = PreviewInstrument::piano;

  std::int64_t playheadTick_ = 0;
  bool isPlaying_ = false;

  std::optional<Clock::time_point> startDate_;
  std::int64_t startTick_ = 0;
  std::int64_t endTick_ = 0;
  double startSeconds_ = 0;  // seconds(startTick_), read by every poll
  std::optional<std::int64_t> loopStartTick_;
  std::optional<std::int64_t> loopEndTick_;
  std::shared_ptr<const MusicDocument> loopDocument_;

  std::weak_ptr<Metronome> metronome_;
  int metronomeBeatsPerBar_ = 4;

  std::vector<TempoSegment> tempoSegments_;
  std::vector<AudioEvent> events_;
  std::size_t nextEventIdx_ = 0;

  // The poll thread ("melvo.audio"): reads events_ and nextEventIdx_ while a run lasts; play()
  // and stop() change them only after joining it.
  std::thread pollThread_;
  std::mutex pollMutex_;
  std::condition_variable pollWake_;
  bool pollStop_ = false;
  RepeatingTimer displayTimer_;

  // A restart posted by the display step runs only if no stop or play came in between.
  std::uint64_t runGeneration_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace melvo
