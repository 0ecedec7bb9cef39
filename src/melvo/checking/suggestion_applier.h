// One-press repairs: a row of the score check carries suggestions, and applying one turns the
// song into a new song plus a line in the conversion log for every note it touched. The work
// is a pure function over a copy, so the caller decides how it becomes an undo step, and the
// clean-up can reuse it for its automatic fixes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "melvo/model/music_document.h"
#include "melvo/model/validation_issue.h"
#include "melvo/platform/uuid.h"

namespace melvo {

// One change to one note, as the conversion log shows it.
struct RepairLogEntry {
  Uuid noteID;
  int trackIndex = 0;
  std::int64_t tick = 0;
  std::string action;  // what was done, shown as the row's title
  std::string before;
  std::string after;
  bool operator==(const RepairLogEntry&) const = default;
};

struct RepairResult {
  MusicDocument document;
  std::vector<RepairLogEntry> log;
  // False when the action named a note or a track that the song no longer has; whatever
  // else it named was still applied.
  bool complete = true;
};

// Applies `action` on behalf of `row`: the cases without their own note list (setLyric,
// setVelocity, prependSokuon, breathOnPreviousNote, removeNote) act on the row's note.
// `logLabel` titles the log lines. selectTrack and keepAsIs change nothing.
RepairResult applySuggestionAction(const MusicDocument& document, const SuggestionAction& action,
                                   const ValidationIssue& row, const std::string& logLabel);

// Applies one suggestion of a row; a row that came from an import notice loses that notice,
// whatever the action was.
RepairResult applySuggestion(const MusicDocument& document, const ValidationIssue& row,
                             const ValidationIssue::Suggestion& suggestion);

// A lyric typed into the issues list for one note, searched over all tracks; logged as
// "歌詞の置き換え". Incomplete when no track holds the note.
RepairResult replaceLyric(const MusicDocument& document, const Uuid& noteID,
                          const std::string& lyric);

// After time was inserted (delta > 0) or removed (delta < 0) at `fromTick`, the import
// notices follow their notes: places, seals and the ticks inside their fixes at or after
// `fromTick` move by `delta`, so that a moved note is not taken for a handled one.
void shiftImportNotices(MusicDocument& document, std::int64_t fromTick, std::int64_t delta);

// Map events as the conversion log shows them: "90", "3/4".
std::string tempoText(const TempoEvent& event);
std::string meterText(const TimeSignatureEvent& event);

}  // namespace melvo
