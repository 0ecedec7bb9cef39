// What the engine will really sing of a track: the one rule for which notes survive on a
// single line, and the bar layout of the score. The score writer, the score check, the gate,
// the clean-up and the tempo notices all ask here, so that none of them can disagree with
// what is written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "melvo/model/music_document.h"

namespace melvo {

// Below this many ticks a note is "very short" (a 64th at most); never below one tick.
constexpr std::int64_t veryShortBelow(std::int64_t ppq) {
  return ppq < 16 ? 1 : ppq / 16;
}

// Of notes starting together, the writer sings the lowest rank: one with a lyric first, then
// one that isn't very short, then the one stored first.
int sungRank(const NoteEvent& note, std::int64_t ppq);

// Most bars the layout produces; the engine's reader was never meant for longer scores.
inline constexpr std::size_t scoreBarCeiling = 2000;
// A note end whose sum overflows counts as this (or 0 for a duration that is not positive).
inline constexpr std::int64_t endTickCeiling = 0xFFFFFFF;

// The note's end as the writer sees it: the plain sum, or the ceiling when it overflows.
std::int64_t sungNoteEnd(std::int64_t tick, std::int64_t duration);

// A surviving note without copying it: the original and its possibly shortened duration.
struct SungNote {
  const NoteEvent* note;
  std::int64_t tick;
  std::int64_t duration;
  std::int64_t end() const { return sungNoteEnd(tick, duration); }
};

// The notes that will be sung on one line: sorted by tick, one note per tick (the lowest
// sungRank), each note cut where the next begins. Pointers into `notes`.
std::vector<SungNote> sungLine(const NoteList& notes, std::int64_t ppq);
std::vector<SungNote> sungLine(const std::vector<NoteEvent>& notes, std::int64_t ppq);

// The same as copies.
std::vector<NoteEvent> normalizedNotes(const NoteList& notes, std::int64_t ppq);
std::vector<NoteEvent> normalizedNotes(const std::vector<NoteEvent>& notes, std::int64_t ppq);

// A note that the single-line rule shortened: `note` carries its original duration.
struct TrimmedOverlap {
  NoteEvent note;
  std::int64_t trimmedDuration = 0;
};
std::vector<TrimmedOverlap> trimmedOverlaps(const NoteList& notes, std::int64_t ppq);

struct ScoreBar {
  std::int64_t startTick = 0;
  std::int64_t tpBar = 1;  // at least 1
  TimeSignatureEvent ts;   // in force when the bar starts
  bool operator==(const ScoreBar&) const = default;
};

// The bars of the written score: from tick 0 past the last note's end by half a bar, at most
// scoreBarCeiling of them (`logging` writes the cut to the log, as the writer does).
std::vector<ScoreBar> scoreBarLayout(const MusicDocument& document, bool logging);

// Where the score is cut when it needs more bars than the ceiling, else nothing.
std::optional<std::int64_t> scoreCeilingTick(const MusicDocument& document);

struct ExportLimitReport {
  std::int64_t limitTick = 0;       // where bar 2001 would start
  std::vector<NoteEvent> beyond;    // start at or past the limit
  std::vector<NoteEvent> crossing;  // start before it and end after it
};
std::optional<ExportLimitReport> exportLimitReport(const MusicDocument& document, int trackIndex);

// For each bar, the indices of `notes` (sorted by tick) that sound in it, as a flat list with
// offsets (bar i owns indices[offsets[i] .. offsets[i+1])). Binary search when ticks and ends
// both rise, a scan otherwise; `allowSearch` false forces the scan, so the two can be compared.
struct BarNotes {
  std::vector<std::size_t> offsets;
  std::vector<std::size_t> indices;
};
BarNotes notesByBar(const std::vector<ScoreBar>& bars, const std::vector<NoteEvent>& notes,
                    bool allowSearch = true);
BarNotes notesByBar(const std::vector<ScoreBar>& bars, const std::vector<SungNote>& notes,
                    bool allowSearch = true);

}  // namespace melvo
