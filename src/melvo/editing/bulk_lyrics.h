// Lyrics typed as one line ("きょうはいいてんき") and shared out note by note.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace melvo {

// One entry per note: line breaks and blanks (also the full-width blank) go, small kana and っ
// lean on the kana before them as in a mora, and ー, a held vowel, takes a note of its own.
std::vector<std::string> bulkLyricSyllables(std::string_view text);

}  // namespace melvo
