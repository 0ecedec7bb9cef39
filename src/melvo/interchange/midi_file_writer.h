// A Standard MIDI File (format 1) of the whole song, so that it can go on to any other music
// program: a conductor track of tempo and meter, then one track per song track with its
// name, lyrics and notes. Unlike the engine's score nothing is normalised: overlaps and
// same-tick notes are written as they stand.
#pragma once

#include <string>

#include "melvo/model/music_document.h"

namespace melvo {

struct MIDIFileWriter {
  // The file's bytes (a std::string used as a byte buffer, ready for writeFileAtomically).
  static std::string data(const MusicDocument& document);
};

}  // namespace melvo
