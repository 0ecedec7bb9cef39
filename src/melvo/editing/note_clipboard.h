// Notes on the system clipboard. Our own format is one line of JSON that names itself, so a
// paste can tell it from any other text; beside it a copy offers the lyrics as plain text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/model/note_event.h"

namespace melvo {

// The notes at `ppq` ticks a quarter, as they are (ids are not written).
std::string encodeClipboard(const std::vector<NoteEvent>& notes, std::int64_t ppq);
// Notes of our format converted to `ppq`, each with a new id; nothing when the text is not
// ours or is damaged. Values are brought into range as a decoded note's are.
std::optional<std::vector<NoteEvent>> decodeClipboard(std::string_view text, std::int64_t ppq);
// The lyrics in order, one blank between notes; notes without a lyric are left out.
std::string clipboardLyrics(const std::vector<NoteEvent>& notes);

}  // namespace melvo
