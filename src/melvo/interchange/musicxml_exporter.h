// The score the engine reads. NEUTRINO parses this text strictly and fails a song minutes
// into a render on one unexpected character, so the layout is fixed to the byte and the
// writer is a pure function of the document: no settings, no state, no error path.
//
// What survives on the single line and how the bars fall is decided in sung_line.h, which
// the checks share with this writer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "melvo/model/music_document.h"

namespace melvo {

struct MusicXMLExporter {
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

  // The whole score, every track of `document` as parts P1, P2, ... Callers that hand the
  // result to the engine pass a single-track copy (see export_choice.h).
  static std::string render(const MusicDocument& document);

  static std::string xmlEscaped(std::string_view text);
  static std::string tempoText(double bpm);
  static NoteValue noteValue(std::int64_t ticks, std::int64_t ppq);
  static PitchSpelling pitchSpelling(int pitch);
};

}  // namespace melvo
