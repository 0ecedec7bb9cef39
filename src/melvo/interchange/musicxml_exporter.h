// The score the engine reads. NEUTRINO parses this text strictly and fails a song minutes
// into a render on one unexpected character, so the layout is fixed to the byte and the
// writer is a pure function of the document: no settings, no state, no error path.
//
// The same code answers the questions other parts of the program must agree on with what
// will really be written: which notes survive the single-line rule, which were shortened,
// and what is lost past the bar ceiling.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/model/music_document.h"

namespace melvo {

struct MusicXMLExporter {
  // Most bars the layout produces; the engine's reader was never meant for longer scores.
  static constexpr std::size_t barCeiling = 2000;
  // A note end whose sum overflows counts as this (or 0 for a duration that is not positive).
  static constexpr std::int64_t endTickCeiling = 0xFFFFFFF;

  struct Bar {
    std::int64_t startTick = 0;
    std::int64_t tpBar = 1;  // at least 1
    TimeSignatureEvent ts;   // in force when the bar starts
    bool operator==(const Bar&) const = default;
  };

  struct NoteValue {
    std::string_view type;  // "quarter", "eighth", ...
    int dots = 0;
    bool operator==(const NoteValue&) const = default;
  };

  struct PitchSpelling {
    char step = 'C';
    int alter = 0;  // 0 or 1: sharps only
    int octave = 4;
    bool operator==(const PitchSpelling&) const = default;
  };

  // A note that the single-line rule shortened: `note` carries its original duration.
  struct TrimmedOverlap {
    NoteEvent note;
    std::int64_t trimmedDuration = 0;
  };

  struct ExportLimitReport {
    std::int64_t limitTick = 0;       // where bar 2001 would start
    std::vector<NoteEvent> beyond;    // start at or past the limit
    std::vector<NoteEvent> crossing;  // start before it and end after it
  };

  // The whole score, every track of `document` as parts P1, P2, ... Callers that hand the
  // result to the engine pass a single-track copy (see export_choice.h).
  static std::string render(const MusicDocument& document);

  static std::vector<Bar> barLayout(const MusicDocument& document, bool logging);

  // The notes that will be sung on one line: sorted by tick, one note per tick, each note cut
  // where the next begins.
  static std::vector<NoteEvent> normalizedNotes(const NoteList& notes, std::int64_t ppq);
  static std::vector<NoteEvent> normalizedNotes(const std::vector<NoteEvent>& notes,
                                                std::int64_t ppq);
  static std::vector<TrimmedOverlap> trimmedOverlaps(const NoteList& notes, std::int64_t ppq);

  static std::optional<ExportLimitReport> exportLimitReport(const MusicDocument& document,
                                                            int trackIndex);

  static std::string xmlEscaped(std::string_view text);
  static std::string tempoText(double bpm);
  static NoteValue noteValue(std::int64_t ticks, std::int64_t ppq);
  static PitchSpelling pitchSpelling(int pitch);

  // The note's end as the writer sees it: the plain sum, or the ceiling when it overflows.
  static std::int64_t noteEnd(std::int64_t tick, std::int64_t duration);

  // For each bar, the indices of `notes` (sorted by tick) that sound in it, as a flat list
  // with offsets (bar i owns indices[offsets[i] .. offsets[i+1])). Binary search when ticks
  // and ends both rise, a scan otherwise; `allowSearch` false forces the scan, so the two
  // can be compared.
  struct BarNotes {
    std::vector<std::size_t> offsets;
    std::vector<std::size_t> indices;
  };
  static BarNotes notesByBar(const std::vector<Bar>& bars, const std::vector<NoteEvent>& notes,
                             bool allowSearch = true);
};

}  // namespace melvo
