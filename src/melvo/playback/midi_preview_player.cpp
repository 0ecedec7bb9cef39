#include "melvo/playback/midi_preview_player.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "melvo/platform/log.h"

namespace melvo {

MIDIPreviewPlayer::MIDIPreviewPlayer(EventLoop& loop, EngineFactory makeEngine, Drive drive)
    : loop_(loop), makeEngine_(std::move(makeEngine)), drive_(drive) {}

MIDIPreviewPlayer::~MIDIPreviewPlayer() {
  *alive_ = false;
  stop();
}

std::optional<std::string> MIDIPreviewPlayer::setUp() {
  if (isSetup_) return std::nullopt;
  std::string error;
  engine_ = makeEngine_ ? makeEngine_(error) : nullptr;
  if (!engine_) return error;
  engine_->loadProgram(programNumber(instrument_));
  isSetup_ = true;
  return std::nullopt;
}

void MIDIPreviewPlayer::setInstrument(PreviewInstrument instrument) {
  if (instrument == instrument_) return;
  instrument_ = instrument;
  if (onInstrumentChanged) onInstrumentChanged(instrument);
  if (isSetup_) engine_->loadProgram(programNumber(instrument));
}

void MIDIPreviewPlayer::setMetronome(std::weak_ptr<Metronome> metronome, int beatsPerBar) {
  metronome_ = std::move(metronome);
  metronomeBeatsPerBar_ = std::max(beatsPerBar, 1);
}

std::optional<int> MIDIPreviewPlayer::slotForTrack(const Uuid& track) const {
  auto it = slotForTrack_.find(track);
  if (it == slotForTrack_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> MIDIPreviewPlayer::play(const MusicDocument& document,
                                                   std::int64_t fromTick,
                                                   std::optional<std::int64_t> loopStart,
                                                   std::optional<std::int64_t> loopEnd) {
  if (onWillPlay) onWillPlay();
  stop();
  if (auto error = setUp()) {
    log::write("MIDIPreviewPlayer", "no sound engine: " + *error);
    return error;
  }

  const std::int64_t ppq = document.ppq > 0 ? document.ppq : 480;
  if (loopEnd) {
    endTick_ = std::clamp<std::int64_t>(*loopEnd, 0, maxTick);
  } else {
    std::int64_t bar = document.ppq > 0 ? document.ticksPerBarAtStart() : 0;
    if (bar < 1) bar = ppq * 4;
    // Eight bars past the last note on purpose: a short song never ends at once.
    endTick_ = std::max(addTicks(document.endTick(), 8 * bar), std::min(16 * bar, maxTick));
  }
  const std::int64_t requested = std::max<std::int64_t>(fromTick, 0);
  if (requested < endTick_)
    startTick_ = requested;
  else
    startTick_ = loopStart ? std::max<std::int64_t>(*loopStart, 0) : 0;

  loopStartTick_ = loopStart;
  loopEndTick_ = loopEnd;
  loopDocument_ = loopStart && loopEnd ? std::make_shared<const MusicDocument>(document) : nullptr;

  buildTempoSegments(document);
  buildEvents(document);
  startSeconds_ = seconds(startTick_);

  std::optional<std::string> startError = engine_->start();
  if (startError) log::write("MIDIPreviewPlayer", "audio output failed to start: " + *startError);

  startDate_ = loop_.clock().now();
  const auto first = std::lower_bound(events_.begin(), events_.end(), startSeconds_,
                                      [](const AudioEvent& e, double t) { return e.time < t; });
  nextEventIdx_ = static_cast<std::size_t>(first - events_.begin());
  isPlaying_ = true;
  if (playheadTick_ != startTick_) {
    playheadTick_ = startTick_;
    if (onPlayheadChanged) onPlayheadChanged(playheadTick_);
  }
  if (drive_ == Drive::realTime) {
    startPolling();
    displayTimer_ = loop_.scheduleRepeating(displayInterval, [this] { displayStep(); });
  }
  return startError;
}

void MIDIPreviewPlayer::stop() {
  ++runGeneration_;
  stopPolling();
  displayTimer_.cancel();
  if (engine_) engine_->silenceAll();
  isPlaying_ = false;
  startDate_.reset();
}

void MIDIPreviewPlayer::buildTempoSegments(const MusicDocument& document) {
  const std::int64_t ppq = document.ppq > 0 ? document.ppq : 480;
  std::vector<TempoEvent> tempo = document.sortedTempoMap();
  if (tempo.empty()) tempo.push_back(TempoEvent{0, 120});
  tempoSegments_.clear();
  tempoSegments_.reserve(tempo.size());
  for (const TempoEvent& e : tempo) {
    const double bpm = std::isfinite(e.bpm) && e.bpm > 0 ? e.bpm : 120;
    if (tempoSegments_.empty()) {
      // Ticks before the first tempo run at it, as on every other clock of the program: the
      // preview must put a note where the render will.
      tempoSegments_.push_back(TempoSegment{0, 0, bpm, ppq});
      continue;
    }
    const TempoSegment& previous = tempoSegments_.back();
    const std::int64_t at = std::max(e.tick, previous.startTick);
    const double start = previous.startSeconds + static_cast<double>(at - previous.startTick) * 60 /
                                                     (previous.bpm * double(ppq));
    tempoSegments_.push_back(TempoSegment{at, start, bpm, ppq});
  }
}

void MIDIPreviewPlayer::buildEvents(const MusicDocument& document) {
  slotForTrack_.clear();
  events_.clear();
  const int samplers = engine_ ? engine_->trackSamplerCount() : 0;
  std::size_t noteCount = 0;
  for (const MusicTrack& t : document.tracks)
    if (document.isSounding(t)) noteCount += t.notes.size();
  events_.reserve(noteCount * 2);

  int sounding = 0;
  for (const MusicTrack& track : document.tracks) {
    if (!document.isSounding(track)) continue;
    // More tracks than samplers share them in turn; a shared sampler only means that one
    // track's release can end the other's note of the same pitch.
    const int slot = samplers > 0 ? sounding % samplers : sounding;
    ++sounding;
    slotForTrack_[track.id] = slot;
    for (const NoteEvent& note : track.notes) {
      if (note.tick >= endTick_) continue;  // past the run's end: never heard in it
      const double on = seconds(note.tick);
      const double length = seconds(note.endTick()) - on;
      // Cut at 92 % so that repeated notes of one pitch stay audibly apart, but never
      // shorter than 50 ms, or a very short note would not sound at all.
      const double off = on + std::max(length * 0.92, 0.05);
      const int velocity = std::clamp(note.velocity, 0, 127);
      events_.push_back({AudioEvent::Kind::noteOn, on, note.pitch, velocity, slot});
      events_.push_back({AudioEvent::Kind::noteOff, off, note.pitch, 0, slot});
    }
  }
  std::stable_sort(events_.begin(), events_.end(), [](const AudioEvent& a, const AudioEvent& b) {
    if (a.time != b.time) return a.time < b.time;
    return a.kind < b.kind;
  });
}

double MIDIPreviewPlayer::seconds(std::int64_t tick) const {
  if (tempoSegments_.empty()) return static_cast<double>(tick) * 0.5 / 480;
  auto it = std::upper_bound(tempoSegments_.begin(), tempoSegments_.end(), tick,
                             [](std::int64_t t, const TempoSegment& s) { return t < s.startTick; });
  const TempoSegment& s = it == tempoSegments_.begin() ? *it : *(it - 1);
  return s.startSeconds + static_cast<double>(tick - s.startTick) * 60 / (s.bpm * double(s.ppq));
}

std::int64_t MIDIPreviewPlayer::tick(double elapsed) const {
  const double t = elapsed + seconds(startTick_);
  double value;
  if (tempoSegments_.empty()) {
    value = std::max(t, 0.0) * 480 / 0.5;
  } else {
    auto it = std::upper_bound(tempoSegments_.begin(), tempoSegments_.end(), t,
                               [](double x, const TempoSegment& s) { return x < s.startSeconds; });
    const TempoSegment& s = it == tempoSegments_.begin() ? *it : *(it - 1);
    const double secondsPerTick = 60 / (s.bpm * double(s.ppq));
    // The tiny addend keeps a time computed from a tick on that tick, not one below.
    value = static_cast<double>(s.startTick) + std::max(t - s.startSeconds, 0.0) / secondsPerTick +
            1e-6;
  }
  value = std::floor(value);
  if (!std::isfinite(value) || value >= 9.0e18 || value < -9.0e18) return startTick_;
  return static_cast<std::int64_t>(value);
}

double MIDIPreviewPlayer::elapsed() const {
  if (!startDate_) return 0;
  return std::chrono::duration<double>(loop_.clock().now() - *startDate_).count();
}

void MIDIPreviewPlayer::pollStep() {
  if (!startDate_ || !engine_) return;
  const double now = startSeconds_ + elapsed();
  std::size_t i = nextEventIdx_;
  for (; i < events_.size() && events_[i].time <= now; ++i) {
    const AudioEvent& e = events_[i];
    const int sampler = e.slot < engine_->trackSamplerCount() ? e.slot : -1;
    if (e.kind == AudioEvent::Kind::noteOn)
      engine_->startNote(sampler, e.pitch, e.velocity);
    else
      engine_->stopNote(sampler, e.pitch);
  }
  nextEventIdx_ = i;
}

void MIDIPreviewPlayer::displayStep() {
  if (!isPlaying_) return;
  const std::int64_t now = tick(elapsed());
  if (now != playheadTick_) {
    playheadTick_ = now;
    if (onPlayheadChanged) onPlayheadChanged(now);
    if (!isPlaying_) return;  // stopped by whoever watches the playhead
  }
  if (auto metronome = metronome_.lock()) {
    const TempoSegment& first = tempoSegments_.front();
    metronome->follow(now, first.bpm, first.ppq, metronomeBeatsPerBar_);
  }
  if (loopEndTick_ && loopStartTick_ && now >= *loopEndTick_ && loopDocument_) {
    auto document = loopDocument_;
    const std::int64_t start = *loopStartTick_, end = *loopEndTick_;
    stop();
    loop_.post([this, alive = alive_, generation = runGeneration_, document, start, end] {
      if (!*alive || generation != runGeneration_) return;
      play(*document, start, start, end);
    });
    return;
  }
  if (now >= endTick_) {
    stop();
    if (onEnded) onEnded();
  }
}

void MIDIPreviewPlayer::startPolling() {
  {
    std::lock_guard lock(pollMutex_);
    pollStop_ = false;
  }
  pollThread_ = std::thread([this] {
    // The grid stays on whole polls from the start; a poll that falls behind (a stalled
    // machine) starts a new grid rather than running the missed ones in a burst.
    auto next = std::chrono::steady_clock::now();
    std::unique_lock lock(pollMutex_);
    while (!pollStop_) {
      next += pollInterval;
      const auto now = std::chrono::steady_clock::now();
      if (next < now - pollInterval) next = now;
      pollWake_.wait_until(lock, next, [this] { return pollStop_; });
      if (pollStop_) break;
      lock.unlock();
      pollStep();
      lock.lock();
    }
  });
}

void MIDIPreviewPlayer::stopPolling() {
  if (!pollThread_.joinable()) return;
  {
    std::lock_guard lock(pollMutex_);
    pollStop_ = true;
  }
  pollWake_.notify_all();
  pollThread_.join();
}

}  // namespace melvo
