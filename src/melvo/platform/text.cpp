#include "melvo/platform/text.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/translit.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <map>
#include <memory>
#include <string>

namespace melvo::text {

char32_t nextScalarSlow(std::string_view s, std::size_t& i) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const std::size_t n = s.size();
  unsigned char c = p[i];
  if (c < 0x80) {
    ++i;
    return c;
  }
  int len;
  char32_t cp;
  char32_t min;
  if ((c & 0xE0) == 0xC0) {
    len = 2, cp = c & 0x1F, min = 0x80;
  } else if ((c & 0xF0) == 0xE0) {
    len = 3, cp = c & 0x0F, min = 0x800;
  } else if ((c & 0xF8) == 0xF0) {
    len = 4, cp = c & 0x07, min = 0x10000;
  } else {
    ++i;
    return kReplacement;
  }
  if (i + len > n) {
    ++i;
    return kReplacement;
  }
  for (int k = 1; k < len; ++k) {
    unsigned char cc = p[i + k];
    if ((cc & 0xC0) != 0x80) {
      ++i;
      return kReplacement;
    }
    cp = (cp << 6) | (cc & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return kReplacement;
  }
  i += len;
  return cp;
}

bool isValidUtf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    std::size_t before = i;
    if (nextScalar(s, i) == kReplacement) {
      // A literal U+FFFD is three bytes; a decoding failure advances one.
      if (i - before != 3) return false;
    }
  }
  return true;
}

std::size_t scalarCount(std::string_view s) {
  std::size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

std::u32string toScalars(std::string_view s) {
  std::u32string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) out.push_back(nextScalar(s, i));
  return out;
}

void appendScalar(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

std::string fromScalars(std::u32string_view s) {
  std::string out;
  out.reserve(s.size() * 3);
  for (char32_t c : s) appendScalar(out, c);
  return out;
}

std::string fromScalar(char32_t c) {
  std::string out;
  appendScalar(out, c);
  return out;
}

std::string scalarName(char32_t c) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "U+%04X", static_cast<unsigned>(c));
  return buf;
}

// ---- Characters ----

namespace {

// Scalars that always form a cluster of their own and never join the next one: printable
// ASCII, kana (without the combining voiced marks), CJK ideographs and the full-width forms.
// Lyrics are almost always made only of these, so ICU is skipped for them.
bool isSimpleScalar(char32_t c) {
  return (c >= 0x20 && c <= 0x7E) || (c >= 0x3041 && c <= 0x3096) || (c >= 0x30A1 && c <= 0x30FA) ||
         c == 0x30FC || (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xFF01 && c <= 0xFF60) ||
         (c >= 0x3001 && c <= 0x3003);
}

icu::BreakIterator& characterIterator() {
  thread_local std::unique_ptr<icu::BreakIterator> it = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> b(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) throw std::runtime_error("ICU character break iterator unavailable");
    return b;
  }();
  return *it;
}

}  // namespace

std::vector<std::string_view> graphemes(std::string_view s) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  bool simple = true;
  while (i < s.size()) {
    if (!isSimpleScalar(nextScalar(s, i))) {
      simple = false;
      break;
    }
  }
  if (simple) {
    i = 0;
    while (i < s.size()) {
      std::size_t start = i;
      nextScalar(s, i);
      out.push_back(s.substr(start, i - start));
    }
    return out;
  }
  UErrorCode status = U_ZERO_ERROR;
  UText* ut = utext_openUTF8(nullptr, s.data(), static_cast<int64_t>(s.size()), &status);
  if (U_FAILURE(status)) return {s};
  icu::BreakIterator& it = characterIterator();
  it.setText(ut, status);
  int32_t start = it.first();
  for (int32_t end = it.next(); end != icu::BreakIterator::DONE; start = end, end = it.next()) {
    out.push_back(s.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
  }
  utext_close(ut);
  return out;
}

std::size_t graphemeCount(std::string_view s) {
  return graphemes(s).size();
}

// ---- Trim sets ----

// No scalar above the ideographic space is a space, line or paragraph separator, so kana and
// kanji, which lyrics are made of, need no property lookup.
constexpr char32_t kLastSeparator = 0x3000;

bool isWhitespace(char32_t c) {
  if (c == 0x09 || c == 0x20) return true;
  if (c < 0x80 || c > kLastSeparator) return false;
  return u_charType(static_cast<UChar32>(c)) == U_SPACE_SEPARATOR;
}

bool isWhitespaceOrNewline(char32_t c) {
  if (c >= 0x09 && c <= 0x0D) return true;
  if (c == 0x20) return true;
  if (c < 0x80 || c > kLastSeparator) return false;
  if (c == 0x85) return true;
  auto t = u_charType(static_cast<UChar32>(c));
  return t == U_SPACE_SEPARATOR || t == U_LINE_SEPARATOR || t == U_PARAGRAPH_SEPARATOR;
}

bool isLyricTrimScalar(char32_t c) {
  return c == 0x200B || c == 0xFEFF || isWhitespaceOrNewline(c);
}

std::string_view trim(std::string_view s, bool (*drop)(char32_t)) {
  std::size_t begin = 0;
  while (begin < s.size()) {
    std::size_t next = begin;
    if (!drop(nextScalar(s, next))) break;
    begin = next;
  }
  std::size_t end = s.size();
  while (end > begin) {
    std::size_t start = end - 1;
    while (start > begin && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) --start;
    std::size_t probe = start;
    if (!drop(nextScalar(s, probe))) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

// ---- ICU services ----

namespace {

icu::UnicodeString toUnicode(std::string_view s) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
}

std::string toUtf8(const icu::UnicodeString& u) {
  std::string out;
  u.toUTF8String(out);
  return out;
}

const icu::Normalizer2& nfcNormalizer() {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* n = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) throw std::runtime_error("ICU NFC normaliser unavailable");
  return *n;
}

bool isAscii(std::string_view s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

}  // namespace

std::string nfc(std::string_view s) {
  if (isAscii(s)) return std::string(s);
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString u = nfcNormalizer().normalize(toUnicode(s), status);
  if (U_FAILURE(status)) return std::string(s);
  return toUtf8(u);
}

std::string composeVoicedMarks(std::string_view s) {
  // Both spacing marks are E3 82 9B / E3 82 9C in UTF-8.
  if (s.find("\xE3\x82\x9B") == std::string_view::npos &&
      s.find("\xE3\x82\x9C") == std::string_view::npos) {
    return nfc(s);
  }
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    char32_t c = nextScalar(s, i);
    if (c == 0x309B) c = 0x3099;
    if (c == 0x309C) c = 0x309A;
    appendScalar(out, c);
  }
  return nfc(out);
}

bool isNfc(std::string_view s) {
  if (isAscii(s)) return true;
  UErrorCode status = U_ZERO_ERROR;
  bool ok = nfcNormalizer().isNormalized(toUnicode(s), status);
  return U_SUCCESS(status) && ok;
}

std::string toLower(std::string_view s) {
  if (isAscii(s)) return asciiLower(s);
  icu::UnicodeString u = toUnicode(s);
  u.toLower(icu::Locale::getRoot());
  return toUtf8(u);
}

std::string transliterate(std::string_view s, const char* id) {
  thread_local std::map<std::string, std::unique_ptr<icu::Transliterator>> cache;
  auto it = cache.find(id);
  if (it == cache.end()) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> t(icu::Transliterator::createInstance(
        icu::UnicodeString::fromUTF8(id), UTRANS_FORWARD, status));
    if (U_FAILURE(status) || !t)
      throw std::runtime_error(std::string("ICU transform unavailable: ") + id);
    it = cache.emplace(id, std::move(t)).first;
  }
  icu::UnicodeString u = toUnicode(s);
  it->second->transliterate(u);
  return toUtf8(u);
}

// ---- Small helpers ----

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

std::string asciiLower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::vector<std::string_view> split(std::string_view s, char sep) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= s.size(); ++i) {
    if (i == s.size() || s[i] == sep) {
      out.push_back(s.substr(start, i - start));
      start = i + 1;
    }
  }
  return out;
}

}  // namespace melvo::text
