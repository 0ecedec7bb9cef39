// One entry for every file Melvo can open: the lower-cased extension chooses the reader, and
// every reader returns a MusicDocument with its notices sealed.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "melvo/model/music_document.h"

namespace melvo {

// Nothing could be opened. what() is in the user's language and names the file.
class OpenError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

MusicDocument openDocument(const std::filesystem::path& path);
// Extensions (lower case, without the dot) that openDocument reads today.
const std::vector<std::string>& openableExtensions();

}  // namespace melvo
