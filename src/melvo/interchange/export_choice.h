// Which track goes to the engine. NEUTRINO sings the parts of one score one after another,
// so an export writes exactly one track, and the user is told which one when there was a
// choice to make.
#pragma once

#include <optional>
#include <string>

#include "melvo/model/music_document.h"

namespace melvo {

struct ExportChoice {
  int trackIndex = 0;
  // What to tell the user, already translated; empty when there was nothing to choose.
  std::string message;
};

// The track to write, or nothing when no track can be chosen (no notes, or none audible
// while not all are muted). `currentIndex` is the editor's track, when there is an editor.
std::optional<ExportChoice> chooseExportTrack(const MusicDocument& document,
                                              std::optional<int> currentIndex);

// The title with blanks and ideographic spaces as "_", plus ".musicxml".
std::string suggestedMusicXMLFileName(const MusicDocument& document);
// The title of the save dialog, translated.
std::string musicXMLExportDialogTitle();

}  // namespace melvo
