// Shared between the parts of the score check; not for other callers.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "melvo/checking/score_validator.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/model/sung_line.h"

namespace melvo::validator_detail {

using Issue = ValidationIssue;
using Sev = ValidationIssue::Severity;
using Cat = ValidationIssue::Category;
using S = ValidationIssue::Suggestion;

// Lengths the rules compare with, from the song's ticks per quarter (rounded toward zero).
struct Thresholds {
  std::int64_t shortGap, thirtySecond, sixtyFourth, tinyGap, halfBeat, phraseBreak;
  explicit Thresholds(std::int64_t ppq)
      : shortGap(ppq / 4),
        thirtySecond(std::max<std::int64_t>(1, ppq / 8)),
        sixtyFourth(veryShortBelow(ppq)),
        tinyGap(std::max<std::int64_t>(2, ppq / 96)),
        halfBeat(std::max<std::int64_t>(1, ppq / 2)),
        phraseBreak(ppq / 2) {}
};

// Seconds at a tick over the sorted tempo map, with the same sums as secondsAt() but a binary
// search instead of a walk from the start.
class TempoClock {
 public:
  TempoClock(const std::vector<TempoEvent>& sortedTempo, std::int64_t ppq);
  double seconds(std::int64_t tick) const;

 private:
  std::vector<TempoEvent> tempo_;
  std::vector<double> at_;  // seconds at each event
  double q_;
};

struct TrackCheck {
  const MusicDocument& document;
  int trackIndex;
  const MusicTrack& track;
  const BarRuler& ruler;
  const TempoClock& clock;
  Thresholds th;
  TrackLine line;
  std::vector<LyricFacts> facts;
  std::vector<SynthesisGate::NoteReading> readings;
  const std::unordered_set<Uuid>& keepWhole;
  bool lyricLossNotice = false;
  std::vector<Issue>& out;

  Issue& add(Cat category, Sev severity, std::int64_t tick, std::string message,
             std::optional<Uuid> noteID = std::nullopt);
  std::string place(std::int64_t tick) const { return ruler.positionText(tick); }
  std::string trackNumber() const { return std::to_string(trackIndex + 1); }
};

// The per-note rules: the track-wide lyric rows, then the loop over the sung notes.
void checkNotes(TrackCheck& c);

std::string joinLines(std::initializer_list<std::string> lines);
S suggestion(std::string label, SuggestionAction action);

}  // namespace melvo::validator_detail
