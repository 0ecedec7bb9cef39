#include "cli/open_song.h"

#include "cli/command.h"
#include "melvo/importers/import_entry.h"
#include "melvo/platform/i18n.h"

namespace melvo::cli {

std::optional<MusicDocument> openOrReport(const std::string& path) {
  try {
    return openDocument(path);
  } catch (const ImportError& e) {
    // A reader's message speaks of "this file"; on a command line the file is named.
    printError(trf("%@ を開けません: %@", {path, e.what()}));
    return std::nullopt;
  } catch (const OpenError& e) {
    printError(e.what());
    return std::nullopt;
  }
}

}  // namespace melvo::cli
