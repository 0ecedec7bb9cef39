// UTF-8 text helpers. Strings are UTF-8 std::string everywhere; this module owns the
// conversions: scalars (code points), user-perceived characters (extended grapheme clusters),
// the trim sets, normalisation, case mapping and ICU transliteration.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace melvo::text {

// ---- Scalars ----
inline constexpr char32_t kReplacement = 0xFFFD;

// Decodes the scalar at byte offset `i` and advances `i` past it. A malformed sequence yields
// U+FFFD and advances one byte, so a loop over damaged text always terminates.
char32_t nextScalarSlow(std::string_view s, std::size_t& i);
// Inline for ASCII and well-formed three-byte forms (kana, kanji): every lyric rule walks each
// note's lyric several times per edit, and a call per scalar showed up in the profile. Anything
// else takes the full decoder, so both give the same scalar and the same advance.
inline char32_t nextScalar(std::string_view s, std::size_t& i) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data()) + i;
  const unsigned char c = p[0];
  if (c < 0x80) {
    ++i;
    return c;
  }
  if ((c & 0xF0) == 0xE0 && s.size() - i >= 3 && (p[1] & 0xC0) == 0x80 && (p[2] & 0xC0) == 0x80) {
    const char32_t cp = (static_cast<char32_t>(c & 0x0F) << 12) |
                        (static_cast<char32_t>(p[1] & 0x3F) << 6) | (p[2] & 0x3Fu);
    if (cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)) {
      i += 3;
      return cp;
    }
  }
  return nextScalarSlow(s, i);
}
bool isValidUtf8(std::string_view s);
std::size_t scalarCount(std::string_view s);
std::u32string toScalars(std::string_view s);
std::string fromScalars(std::u32string_view s);
void appendScalar(std::string& out, char32_t c);
std::string fromScalar(char32_t c);
// "U+00XX" style, at least four upper-case hex digits.
std::string scalarName(char32_t c);

// ---- Characters (extended grapheme clusters) ----
std::vector<std::string_view> graphemes(std::string_view s);  // views into s
std::size_t graphemeCount(std::string_view s);

// ---- Trim sets ----
bool isWhitespace(char32_t c);           // Unicode Zs and tab
bool isWhitespaceOrNewline(char32_t c);  // the above, Zl, Zp, LF, VT, FF, CR, NEL
bool isLyricTrimScalar(char32_t c);      // the above, U+200B and U+FEFF
std::string_view trim(std::string_view s, bool (*drop)(char32_t));
// `s` with every scalar for which `drop` holds removed (broken UTF-8 comes out as U+FFFD).
template <class Pred>
std::string withoutScalars(std::string_view s, Pred drop) {
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    const char32_t c = nextScalar(s, i);
    if (!drop(c)) appendScalar(out, c);
  }
  return out;
}
inline std::string_view trimWhitespace(std::string_view s) {
  return trim(s, isWhitespace);
}
inline std::string_view trimWhitespaceAndNewlines(std::string_view s) {
  return trim(s, isWhitespaceOrNewline);
}
inline std::string_view trimLyric(std::string_view s) {
  return trim(s, isLyricTrimScalar);
}

// ---- ICU services ----
std::string nfc(std::string_view s);
// NFC after the spacing voiced marks ゛ ゜ (U+309B, U+309C), which some software types after a
// kana, become their combining forms: NFC alone leaves "か゛" apart, this gives "が".
std::string composeVoicedMarks(std::string_view s);
bool isNfc(std::string_view s);
std::string toLower(std::string_view s);  // full Unicode lower-casing, root locale
// Runs an ICU transform such as "Halfwidth-Fullwidth", "Katakana-Hiragana" or
// "Latin-Hiragana". Transliterators are built once per thread and id.
std::string transliterate(std::string_view s, const char* id);

// ---- Small helpers ----
bool startsWith(std::string_view s, std::string_view prefix);
bool endsWith(std::string_view s, std::string_view suffix);
std::string asciiLower(std::string_view s);
std::vector<std::string_view> split(std::string_view s, char sep);

}  // namespace melvo::text
