// One entry for every file Melvo can open: the lower-cased extension chooses the reader, and
// every reader returns a MusicDocument with its notices sealed.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "melvo/importers/open_error.h"
#include "melvo/model/music_document.h"

namespace melvo {

// Any file: a project goes to the project reader, everything else through importDocument,
// and then the passes every opened song gets. Throws OpenError (an ImportError when a reader
// refused the file); the caller's song is never touched.
MusicDocument openDocument(const std::filesystem::path& path);
// A foreign file by its extension (a .zip by the one score inside it), without the finishing
// passes. Throws the reader's ImportError, FileError or ProjectDecodeError.
MusicDocument importDocument(const std::filesystem::path& path);
// Extensions (lower case, without the dot) that openDocument accepts.
const std::vector<std::string>& openableExtensions();

}  // namespace melvo
