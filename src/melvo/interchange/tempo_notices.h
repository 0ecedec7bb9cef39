// After a song is opened, tell the user where a tempo change falls inside a note: the engine
// changes tempo only at a note's start, so the score writer splits such notes and ties the
// pieces. Nothing in the song changes; the notice only explains what the score will say.
#pragma once

#include "melvo/model/music_document.h"

namespace melvo {

// Adds one place per affected note to a `tempoInsideNote` notice of its track. Looks at every
// unmuted track with notes, or at all tracks when none qualifies.
void addTempoInsideNoteNotices(MusicDocument& document);

}  // namespace melvo
