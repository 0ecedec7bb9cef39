#include "cli/open_song.h"

#include "cli/command.h"
#include "melvo/importers/import_entry.h"

namespace melvo::cli {

std::optional<MusicDocument> openOrReport(const std::string& path) {
  try {
    return openDocument(path);
  } catch (const OpenError& e) {
    printError(e.what());
    return std::nullopt;
  }
}

}  // namespace melvo::cli
