// Every command opens its song the same way: through the one open entry, with a failure
// reported as "melvo: <why>" on stderr.
#pragma once

#include <optional>
#include <string>

#include "melvo/model/music_document.h"

namespace melvo::cli {

// The song, or nothing after the reason was printed.
std::optional<MusicDocument> openOrReport(const std::string& path);

}  // namespace melvo::cli
