// A MIDI lyric is only a text at a tick, in any track. This turns the raw tracks into singing
// tracks: which channel sings, which lyric goes on which note, and what had to be moved,
// merged or split for one melody per track, each decision leaving a notice with its places.
#pragma once

#include <vector>

#include "melvo/interchange/midi_raw_track.h"
#include "melvo/model/music_document.h"

namespace melvo::midi {

// Fills the document's tracks and adds every notice, `pending` (the file level's) included.
// Never fails.
void placeLyrics(std::vector<RawTrack> raw, MusicDocument& document,
                 std::vector<PendingNotice> pending);

}  // namespace melvo::midi
