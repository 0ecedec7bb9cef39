// What a render covers. Kept apart from the synthesizer so that menus and the agent port can
// name a kind without pulling in the engine driver.
#pragma once

namespace melvo {

enum class MixdownKind {
  allTracks,           // every audible track with a voice
  selectedTrack,       // the track being edited
  rangeAllTracks,      // as allTracks, up to the bar where the chosen range ends
  rangeSelectedTrack,  // as selectedTrack, up to that bar
  fromFile,            // a MusicXML file chosen by the user
};

}  // namespace melvo
