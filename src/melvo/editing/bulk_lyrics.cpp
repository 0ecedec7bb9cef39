#include "melvo/editing/bulk_lyrics.h"

#include "melvo/checking/lyric_rules.h"

namespace melvo {
namespace {

constexpr std::string_view kChouon = "ー";

// ASCII blanks and line breaks, the full-width blank and the no-break space.
std::string withoutBlanks(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f') {
      ++i;
    } else if (text.substr(i, 3) == "\u3000") {
      i += 3;
    } else if (text.substr(i, 2) == "\u00A0") {
      i += 2;
    } else {
      out += c;
      ++i;
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> bulkLyricSyllables(std::string_view text) {
  const std::string line = withoutBlanks(text);
  std::vector<std::string> out;
  auto addMorae = [&](std::string_view piece) {
    if (piece.empty()) return;
    for (auto& m : splitMorae(piece)) out.push_back(std::move(m));
  };
  // The mora splitter would hang ー on the kana before it; here it is a note of its own.
  std::size_t start = 0;
  for (std::size_t at = line.find(kChouon); at != std::string::npos;
       at = line.find(kChouon, start)) {
    addMorae(std::string_view(line).substr(start, at - start));
    out.emplace_back(kChouon);
    start = at + kChouon.size();
  }
  addMorae(std::string_view(line).substr(start));
  return out;
}

}  // namespace melvo
