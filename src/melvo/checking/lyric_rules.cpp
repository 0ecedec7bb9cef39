#include "melvo/checking/lyric_rules.h"

#include <algorithm>
#include <cstdint>

#include "melvo/platform/text.h"

namespace melvo {
namespace {

constexpr char32_t kNoScalar = 0x110000;

// Scalars that always form a Character of their own: printable ASCII, Latin-1, general
// punctuation, CJK punctuation, kana without the combining voiced marks, ideographs and the
// full-width forms (without the half-width voiced marks, which extend). The validator walks
// every note's lyric at each edit, and lyrics are almost always made of these alone, so the
// grapheme iterator and its allocation are skipped for them.
bool standsAlone(char32_t c) {
  if (c >= 0x20 && c <= 0x7E) return true;
  if (c < 0x3000)
    return (c >= 0xA0 && c <= 0x2FF) || (c >= 0x2010 && c <= 0x2027) ||
           (c >= 0x2030 && c <= 0x205E);
  return (c <= 0x3029) || (c >= 0x3030 && c <= 0x3098) || (c >= 0x309B && c <= 0x30FF) ||
         (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) ||
         (c >= 0xFF01 && c <= 0xFF9D);
}

// Calls fn(character) for each Character of `s` until fn returns false.
template <class F>
void forEachCharacter(std::string_view s, F&& fn) {
  std::size_t i = 0;
  bool simple = true;
  while (i < s.size() && simple) simple = standsAlone(text::nextScalar(s, i));
  if (simple) {
    i = 0;
    while (i < s.size()) {
      std::size_t start = i;
      text::nextScalar(s, i);
      if (!fn(s.substr(start, i - start))) return;
    }
    return;
  }
  for (std::string_view character : text::graphemes(s))
    if (!fn(character)) return;
}

std::vector<std::string_view> characters(std::string_view s) {
  std::vector<std::string_view> out;
  forEachCharacter(s, [&](std::string_view c) {
    out.push_back(c);
    return true;
  });
  return out;
}

// The scalar of a one-scalar Character, else kNoScalar.
char32_t soleScalar(std::string_view character) {
  if (character.empty()) return kNoScalar;
  std::size_t i = 0;
  char32_t c = text::nextScalar(character, i);
  return i == character.size() ? c : kNoScalar;
}

template <class Pred>
bool anyScalar(std::string_view s, Pred pred) {
  std::size_t i = 0;
  while (i < s.size())
    if (pred(text::nextScalar(s, i))) return true;
  return false;
}

template <class Pred>
bool allScalars(std::string_view s, Pred pred) {
  return !anyScalar(s, [&](char32_t c) { return !pred(c); });
}

// Scalars that are certainly not white space, a newline, U+200B or U+FEFF: visible ASCII,
// CJK punctuation after the ideographic space, kana and ideographs. Checking the ends against
// these spares the Unicode property lookups of a full trim on almost every lyric.
bool neverTrimmed(char32_t c) {
  return (c > 0x20 && c < 0x7F) || (c > 0x3000 && c <= 0x9FFF);
}

// The export form as a view: of the caller's text when nothing but trimming is needed (the
// usual case, and free of allocation), else of `storage`.
std::string_view generalExportForm(std::string_view lyric, std::string& storage) {
  bool combining = false;
  bool illegal = false;
  bool malformed = false;
  char32_t first = kNoScalar;
  char32_t last = kNoScalar;
  std::size_t i = 0;
  while (i < lyric.size()) {
    std::size_t start = i;
    char32_t c = text::nextScalar(lyric, i);
    if (start == 0) first = c;
    last = c;
    if (c == text::kReplacement && i - start != 3) {
      malformed = true;
    } else if (!isXmlScalar(c)) {
      illegal = true;
    } else if (isCombiningMarkScalar(c)) {
      combining = true;
    }
  }
  if (!combining && !illegal && !malformed) {
    if (neverTrimmed(first) && neverTrimmed(last)) return lyric;
    return text::trimLyric(lyric);
  }

  // Broken bytes become U+FFFD, so the score stays valid UTF-8 and the reader stops there.
  std::string work = malformed ? text::fromScalars(text::toScalars(lyric)) : std::string(lyric);
  if (combining) work = text::nfc(work);
  if (illegal) {
    std::string kept;
    kept.reserve(work.size());
    std::size_t j = 0;
    while (j < work.size()) {
      char32_t c = text::nextScalar(work, j);
      if (isXmlScalar(c)) text::appendScalar(kept, c);
    }
    work = std::move(kept);
  }
  storage = std::string(text::trimLyric(work));
  return storage;
}

// A lyric's export form, and whether the lyric is plain kana: then the form is the lyric
// itself (nothing to compose, drop or trim) and reads on the quick walk below.
struct ExportForm {
  std::string_view text;
  bool plainKana = false;
};

ExportForm exportFormOf(std::string_view lyric, std::string& storage) {
  if (isPlainKana(lyric)) return {lyric, true};
  return {generalExportForm(lyric, storage), false};
}

std::string_view exportForm(std::string_view lyric, std::string& storage) {
  return exportFormOf(lyric, storage).text;
}

// Reads `s` (already in export form) unit by unit, pairs before single scalars. Calls
// onUnit(unit) for each unit and onMark() for each vowel-drop mark read over, and returns the
// byte offset at which reading stopped.
template <class OnUnit, class OnMark>
std::size_t walkScalars(std::string_view s, OnUnit&& onUnit, OnMark&& onMark) {
  if (s.empty()) return 0;
  const kana::DenseLookup& table = kana::denseLookup();
  // Each scalar is decoded once: the second of a failed pair is the first of the next try.
  std::size_t i = 0;
  std::size_t next = 0;
  char32_t c = text::nextScalar(s, next);
  for (;;) {
    std::size_t afterSecond = next;
    const char32_t second = next < s.size() ? text::nextScalar(s, afterSecond) : kNoScalar;
    if (const kana::Unit* unit = table.pair(c, second)) {
      onUnit(*unit);
      i = afterSecond;
      if (i >= s.size()) break;
      next = i;
      c = text::nextScalar(s, next);
      continue;
    }
    if (const kana::Unit* unit = table.single(c)) {
      onUnit(*unit);
    } else if (c == U'ー') {
      onUnit(kana::chouonUnit());
    } else if (c == vowelDropMark) {
      onMark();
    } else {
      break;
    }
    i = next;
    if (second == kNoScalar) break;
    c = second;
    next = afterSecond;
  }
  return i;
}

// The scalar at byte `i` of plain kana (see isPlainKana): E3 and two bytes with its low bits.
char32_t plainKanaScalar(const unsigned char* p, std::size_t i) {
  return 0x3000 | (static_cast<char32_t>(p[i + 1] & 0x3F) << 6) | (p[i + 2] & 0x3Fu);
}

// The same reading for plain kana: every scalar is three bytes, and no vowel-drop mark can
// occur.
template <class OnUnit>
std::size_t walkPlainKana(std::string_view s, OnUnit&& onUnit) {
  const kana::DenseLookup& table = kana::denseLookup();
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  auto at = [p](std::size_t i) { return plainKanaScalar(p, i); };
  const std::size_t n = s.size();
  std::size_t i = 0;
  while (i < n) {
    const char32_t c = at(i);
    if (i + 3 < n)
      if (const kana::Unit* unit = table.pair(c, at(i + 3))) {
        onUnit(*unit);
        i += 6;
        continue;
      }
    if (const kana::Unit* unit = table.single(c)) {
      onUnit(*unit);
    } else if (c == U'ー') {
      onUnit(kana::chouonUnit());
    } else {
      break;
    }
    i += 3;
  }
  return i;
}

template <class OnUnit, class OnMark>
std::size_t walkUnits(const ExportForm& form, OnUnit&& onUnit, OnMark&& onMark) {
  return form.plainKana ? walkPlainKana(form.text, onUnit) : walkScalars(form.text, onUnit, onMark);
}

bool isChouonUnit(const kana::Unit& unit) {
  return &unit == &kana::chouonUnit();
}

// The export form without vowel-drop marks, which the lyric shapes ignore.
std::string_view shapeForm(std::string_view lyric, std::string& storage) {
  std::string_view s = exportForm(lyric, storage);
  static constexpr std::string_view kMark = "’";
  if (s.find(kMark) == std::string_view::npos) return s;
  std::string out;
  std::size_t start = 0;
  for (std::size_t at = s.find(kMark); at != std::string_view::npos;
       start = at + kMark.size(), at = s.find(kMark, start)) {
    out.append(s.substr(start, at - start));
  }
  out.append(s.substr(start));
  storage = std::move(out);
  return storage;
}

// The vowel a small kana brings; none for っ, ッ and ー, which only hold the one before.
const char* smallKanaVowel(char32_t c) {
  switch (c) {
    case U'ぁ':
    case U'ァ':
    case U'ゃ':
    case U'ャ':
      return "あ";
    case U'ぃ':
    case U'ィ':
      return "い";
    case U'ぅ':
    case U'ゥ':
    case U'ゅ':
    case U'ュ':
      return "う";
    case U'ぇ':
    case U'ェ':
      return "え";
    case U'ぉ':
    case U'ォ':
    case U'ょ':
    case U'ョ':
      return "お";
    default:
      return nullptr;
  }
}

}  // namespace

bool isCharacterIn(std::string_view character, const char32_t* begin, const char32_t* end) {
  char32_t c = soleScalar(character);
  return c != kNoScalar && std::find(begin, end, c) != end;
}

bool isStandaloneSpecial(std::string_view lyric) {
  // Each is one kana of three bytes, so nearly every lyric is refused on its length alone.
  static_assert(std::all_of(std::begin(standaloneSpecials), std::end(standaloneSpecials),
                            [](std::string_view s) { return s.size() == 3; }));
  if (lyric.size() != 3) return false;
  return std::find(std::begin(standaloneSpecials), std::end(standaloneSpecials), lyric) !=
         std::end(standaloneSpecials);
}

bool isInvisibleScalar(char32_t c) {
  if (c == 0x200B || c == 0x200C || c == 0x2060 || c == 0xFEFF) return true;
  if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) return true;          // general category Cc
  return (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE;  // noncharacters
}

const char* readingKindName(ReadingKind kind) {
  switch (kind) {
    case ReadingKind::empty:
      return "empty";
    case ReadingKind::unreadable:
      return "unreadable";
    case ReadingKind::partial:
      return "partial";
    case ReadingKind::readable:
      return "readable";
  }
  return "";
}

const char* lyricClassName(LyricClass c) {
  switch (c) {
    case LyricClass::utauMark:
      return "utauMark";
    case LyricClass::digitsOrLatin:
      return "digitsOrLatin";
    case LyricClass::otherNonKana:
      return "otherNonKana";
    case LyricClass::decorationMark:
      return "decorationMark";
    case LyricClass::symbol:
      return "symbol";
    case LyricClass::invisibleOnly:
      return "invisibleOnly";
    case LyricClass::clean:
      return "clean";
  }
  return "";
}

// ---- Reading ----

std::string lyricForExport(std::string_view lyric) {
  std::string storage;
  std::string_view s = exportForm(lyric, storage);
  if (s.data() == storage.data() && s.size() == storage.size()) return storage;
  return std::string(s);
}

LyricReading readLyric(std::string_view lyric) {
  std::string storage;
  const ExportForm form = exportFormOf(lyric, storage);
  const std::string_view s = form.text;
  // Units are gathered first so that the list is allocated once, at its size; a lyric of more
  // units than a note usually holds is walked a second time.
  constexpr std::size_t kFew = 8;
  const kana::Unit* few[kFew];
  std::size_t count = 0;
  const std::size_t stop = walkUnits(
      form,
      [&](const kana::Unit& unit) {
        if (count < kFew) few[count] = &unit;
        ++count;
      },
      [] {});
  std::vector<std::string> units;
  if (count <= kFew) {
    units.reserve(count);
    for (std::size_t k = 0; k < count; ++k) units.emplace_back(few[k]->phonemes);
  } else {
    units.reserve(count);
    walkUnits(
        form, [&](const kana::Unit& unit) { units.emplace_back(unit.phonemes); }, [] {});
  }
  return {std::move(units), std::string(s.substr(0, stop)), std::string(s.substr(stop))};
}

ReadingState readingState(std::string_view lyric) {
  std::string storage;
  const ExportForm form = exportFormOf(lyric, storage);
  const std::string_view s = form.text;
  if (s.empty()) return {ReadingKind::empty, {}, {}};
  std::size_t units = 0;
  std::size_t stop = walkUnits(
      form, [&](const kana::Unit&) { ++units; }, [] {});
  if (units == 0) return {ReadingKind::unreadable, {}, {}};
  if (stop < s.size()) {
    return {ReadingKind::partial, std::string(s.substr(0, stop)), std::string(s.substr(stop))};
  }
  return {ReadingKind::readable, {}, {}};
}

int countPhonemes(std::string_view lyric) {
  std::string storage;
  const ExportForm form = exportFormOf(lyric, storage);
  const std::string_view s = form.text;
  int sum = 0;
  int chouon = 0;
  int others = 0;
  std::size_t stop = walkUnits(
      form,
      [&](const kana::Unit& unit) {
        if (isChouonUnit(unit)) {
          ++chouon;
        } else {
          ++others;
          sum += unit.phonemeCount;
        }
      },
      [] {});
  // Only ー (and marks) read to the end is the same as isOnlyChouon, without a second pass.
  if (stop == s.size() && others == 0 && chouon > 0) return 1;
  return sum;
}

bool isOnlyChouon(std::string_view lyric) {
  std::string storage;
  std::string_view s = shapeForm(lyric, storage);
  return !s.empty() && allScalars(s, [](char32_t c) { return c == U'ー'; });
}

bool isOnlySokuon(std::string_view lyric) {
  std::string storage;
  std::string_view s = shapeForm(lyric, storage);
  return s == "っ" || s == "ッ";
}

bool startsWithSustain(std::string_view lyric) {
  std::string storage;
  std::string_view s = shapeForm(lyric, storage);
  bool result = false;
  forEachCharacter(s, [&](std::string_view first) {
    result = first == "ー" || first == "っ" || first == "ッ";
    return false;
  });
  return result;
}

std::vector<bool> effectiveVowelDrops(std::string_view lyric) {
  std::string storage;
  const ExportForm form = exportFormOf(lyric, storage);
  const std::string_view s = form.text;
  std::vector<bool> drops;
  const kana::Unit* previous = nullptr;
  int sungUnits = 0;
  std::size_t stop = walkUnits(
      form,
      [&](const kana::Unit& unit) {
        previous = &unit;
        if (!isChouonUnit(unit)) ++sungUnits;
      },
      [&] {
        // Only a unit with a consonant has a vowel that can go (not あ, ん, っ or ー).
        drops.push_back(previous != nullptr && previous->phonemeCount >= 2);
        previous = nullptr;
      });
  // Marks after the readable part are read over by the engine.
  std::size_t i = stop;
  while (i < s.size())
    if (text::nextScalar(s, i) == vowelDropMark) drops.push_back(false);
  if (sungUnits < 2) std::fill(drops.begin(), drops.end(), false);
  return drops;
}

// ---- All at once ----

bool isPlainKana(std::string_view lyric) {
  const std::size_t n = lyric.size();
  if (n < 3 || n % 3 != 0) return false;
  // The kana blocks U+3040..U+30FF are E3 81 80 .. E3 83 BF and the voiced marks U+3099 and
  // U+309A are E3 82 99 and E3 82 9A: three compares on the three bytes taken as one number.
  const auto* p = reinterpret_cast<const unsigned char*>(lyric.data());
  auto plainAt = [p](std::size_t i) {
    const std::uint32_t w = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8) | p[i + 2];
    return (w - 0xE38180u <= 0xE383BFu - 0xE38180u) & ((w & 0xC0u) == 0x80u) & (w - 0xE38299u > 1u);
  };
  // The first and the last scalar without branches: for the one or two kana of nearly every
  // note that is all, and no loop length is left for the branch predictor to guess.
  bool plain = plainAt(0) & plainAt(n - 3);
  for (std::size_t i = 3; i + 3 < n; i += 3) plain &= plainAt(i);
  return plain;
}

std::optional<PlainKanaSummary> summarizePlainKana(std::string_view lyric) {
  if (!isPlainKana(lyric)) return std::nullopt;
  // The lyric is its own export form and shape form (’ is not kana), and each scalar its own
  // Character, so the shapes are read off the scalars.
  PlainKanaSummary k;
  k.scalars = static_cast<int>(lyric.size() / 3);
  const char32_t first = plainKanaScalar(reinterpret_cast<const unsigned char*>(lyric.data()), 0);
  k.startsWithSustain = first == U'ー' || first == U'っ' || first == U'ッ';
  k.onlySokuon = k.scalars == 1 && (first == U'っ' || first == U'ッ');
  int units = 0, chouon = 0, others = 0, sum = 0;
  const std::size_t stop = walkPlainKana(lyric, [&](const kana::Unit& unit) {
    ++units;
    if (isChouonUnit(unit)) {
      ++chouon;
    } else {
      ++others;
      sum += unit.phonemeCount;
    }
  });
  k.onlyChouon = stop == lyric.size() && others == 0;  // ー is read; nothing else is
  k.reading = units == 0            ? ReadingKind::unreadable
              : stop < lyric.size() ? ReadingKind::partial
                                    : ReadingKind::readable;
  k.phonemes = stop == lyric.size() && others == 0 && chouon > 0 ? 1 : sum;
  return k;
}

// ---- Classes ----

LyricClass classifyLyricChars(std::string_view lyric) {
  // Nothing but kana is clean whatever the rules below say: no %, no 強 or 弱 at the end, no
  // digit or letter, and every Character lies in the kana range. That is nearly every note.
  if (isPlainKana(lyric) || allScalars(lyric, inKanaRange)) return LyricClass::clean;
  if (lyric == "R" || lyric == "r" || lyric.find('%') != std::string_view::npos ||
      isUtauMarked(lyric)) {
    return LyricClass::utauMark;
  }
  if (hasDigitsOrLatin(lyric)) return LyricClass::digitsOrLatin;

  bool symbol = false;
  bool decoration = false;
  bool invisible = false;
  bool other = false;
  std::size_t markIndex = 0;
  std::optional<std::vector<bool>> drops;
  forEachCharacter(lyric, [&](std::string_view character) {
    if (allScalars(character, inKanaRange)) return true;
    char32_t c = soleScalar(character);
    if (c == vowelDropMark) {
      if (!drops) drops = effectiveVowelDrops(lyric);
      bool effective = markIndex < drops->size() && (*drops)[markIndex];
      ++markIndex;
      if (!effective) decoration = true;
    } else if (c == U'※') {
      decoration = true;
    } else if (isCharacterIn(character, lyricSymbols)) {
      symbol = true;
    } else if (allScalars(character, [](char32_t s) { return !isXmlScalar(s); })) {
      invisible = true;
    } else {
      other = true;
      return false;
    }
    return true;
  });
  if (other) return LyricClass::otherNonKana;
  if (symbol) return LyricClass::symbol;
  if (decoration) return LyricClass::decorationMark;
  if (invisible) return LyricClass::invisibleOnly;
  return LyricClass::clean;
}

bool isUtauMarked(std::string_view lyric) {
  std::string_view s = text::trimWhitespace(lyric);
  std::string withoutPercent;
  if (s.find('%') != std::string_view::npos) {
    for (char ch : s)
      if (ch != '%') withoutPercent.push_back(ch);
    s = withoutPercent;
  }
  // Cheap refusal first: the last scalar of a marked lyric is 強 or 弱.
  char32_t last = kNoScalar;
  std::size_t i = 0;
  while (i < s.size()) last = text::nextScalar(s, i);
  if (last != U'強' && last != U'弱') return false;

  std::vector<std::string_view> chars = characters(s);
  std::size_t end = chars.size();
  while (end > 0 && (chars[end - 1] == "強" || chars[end - 1] == "弱")) --end;
  if (end == chars.size()) return false;
  for (std::size_t k = 0; k < end; ++k)
    if (!allScalars(chars[k], inKanaRange)) return false;
  return true;
}

std::optional<std::string> withoutUtauMarks(std::string_view lyric) {
  const std::string_view trimmed = text::trimWhitespace(lyric);
  if (trimmed == "R" || trimmed == "r") return std::nullopt;
  const bool marked = isUtauMarked(trimmed);
  std::string s;
  s.reserve(trimmed.size());
  for (char ch : trimmed)
    if (ch != '%') s.push_back(ch);
  if (marked)
    while (text::endsWith(s, "強") || text::endsWith(s, "弱")) s.resize(s.size() - 3);
  s = std::string(text::trimWhitespace(s));
  if (s.empty()) return std::nullopt;
  return s;
}

bool hasKana(std::string_view s) {
  return anyScalar(s, inKanaRange);
}

bool isAllKana(std::string_view s) {
  return !s.empty() && allScalars(s, inKanaRange);
}

std::string foldedToHiragana(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    char32_t c = text::nextScalar(s, i);
    if (c >= 0x30A1 && c <= 0x30F6) c -= 0x60;
    text::appendScalar(out, c);
  }
  return out;
}

std::string bigKanaOf(std::string_view character) {
  static constexpr std::pair<std::string_view, std::string_view> kMap[] = {
      {"ぁ", "あ"}, {"ぃ", "い"}, {"ぅ", "う"}, {"ぇ", "え"}, {"ぉ", "お"}, {"ァ", "ア"},
      {"ィ", "イ"}, {"ゥ", "ウ"}, {"ェ", "エ"}, {"ォ", "オ"}, {"ゃ", "や"}, {"ゅ", "ゆ"},
      {"ょ", "よ"}, {"ャ", "ヤ"}, {"ュ", "ユ"}, {"ョ", "ヨ"}};
  for (const auto& [from, to] : kMap)
    if (from == character) return std::string(to);
  return {};
}

std::string withoutReadOverMarks(std::string_view lyric) {
  const std::vector<bool> drops = effectiveVowelDrops(lyric);
  std::size_t mark = 0;
  const std::string out = text::withoutScalars(lyric, [&](char32_t c) {
    if (c == vowelDropMark) {
      const bool keep = mark < drops.size() && drops[mark];
      ++mark;
      return !keep;
    }
    return c == U'※' || isLyricSymbol(c);
  });
  return std::string(text::trimWhitespaceAndNewlines(out));
}

std::string withoutInvisibleScalars(std::string_view lyric) {
  const std::string out = text::withoutScalars(
      lyric, [](char32_t c) { return isInvisibleScalar(c) || !isXmlScalar(c); });
  return std::string(text::trimLyric(out));
}

bool hasDigitsOrLatin(std::string_view lyric) {
  return anyScalar(lyric, [](char32_t c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c >= 0xFF10 && c <= 0xFF19) || (c >= 0xFF21 && c <= 0xFF3A) ||
           (c >= 0xFF41 && c <= 0xFF5A);
  });
}

bool hasKanji(std::string_view lyric) {
  return anyScalar(lyric, isKanjiScalar);
}
bool hasInvisibleScalars(std::string_view lyric) {
  return anyScalar(lyric, isInvisibleScalar);
}
bool hasCombiningMarks(std::string_view lyric) {
  return anyScalar(lyric, isCombiningMarkScalar);
}
bool hasXmlIllegalScalars(std::string_view lyric) {
  return anyScalar(lyric, [](char32_t c) { return !isXmlScalar(c); });
}

std::string visibleLyric(std::string_view lyric) {
  if (!hasInvisibleScalars(lyric)) return std::string(lyric);
  std::string out;
  std::size_t i = 0;
  while (i < lyric.size()) {
    std::size_t start = i;
    char32_t c = text::nextScalar(lyric, i);
    if (isInvisibleScalar(c)) {
      out += '<';
      out += text::scalarName(c);
      out += '>';
    } else {
      out.append(lyric.substr(start, i - start));
    }
  }
  return out;
}

// ---- Morae, syllables, vowels ----

namespace {

// Calls onMora(mora) for each mora of `lyric`, as views into it: a mora is a run of whole
// Characters (joiners before the first full kana belong to it), so nothing is copied until a
// caller keeps the pieces.
template <class F>
void forEachMora(std::string_view lyric, F&& onMora) {
  std::size_t start = 0;
  bool hasKana = false;  // the mora from `start` has its full kana
  forEachCharacter(lyric, [&](std::string_view character) {
    if (isCharacterIn(character, moraJoiners)) return true;
    const auto at = static_cast<std::size_t>(character.data() - lyric.data());
    if (hasKana) {
      onMora(lyric.substr(start, at - start));
      start = at;
    }
    hasKana = true;
    return true;
  });
  if (start < lyric.size()) onMora(lyric.substr(start));
}

// The same for syllables, which are runs of whole morae.
template <class F>
void forEachSyllable(std::string_view lyric, F&& onSyllable) {
  std::string_view syllable;
  bool any = false;
  std::string_view previous;  // the mora before, not the syllable: しょうい splits before い
  forEachMora(lyric, [&](std::string_view mora) {
    // The vowel before matters only for い and う, so it is looked up only then.
    auto after = [&](std::initializer_list<std::string_view> vowels) {
      std::optional<std::string> v = vowelOf(previous);
      return v && std::find(vowels.begin(), vowels.end(), *v) != vowels.end();
    };
    const bool joins = any && (mora == "ん" || mora == "ン" ||
                               ((mora == "い" || mora == "イ") && after({"あ", "え", "お"})) ||
                               ((mora == "う" || mora == "ウ") && after({"あ", "お"})));
    previous = mora;
    if (joins) {
      syllable = std::string_view(syllable.data(), syllable.size() + mora.size());
    } else {
      if (any) onSyllable(syllable);
      syllable = mora;
      any = true;
    }
  });
  if (any) onSyllable(syllable);
}

}  // namespace

std::vector<std::string> splitMorae(std::string_view lyric) {
  std::vector<std::string> morae;
  forEachMora(lyric, [&](std::string_view mora) { morae.emplace_back(mora); });
  return morae;
}

std::vector<std::string> groupSyllables(std::string_view lyric) {
  std::vector<std::string> syllables;
  forEachSyllable(lyric, [&](std::string_view syllable) { syllables.emplace_back(syllable); });
  return syllables;
}

bool isMultiSyllable(std::string_view lyric) {
  std::size_t count = 0;
  forEachSyllable(lyric, [&](std::string_view) { ++count; });
  return count >= 2;
}

std::optional<std::string> vowelOf(std::string_view mora) {
  // Walked forward: the vowel comes from the last Character that is not っ, ッ or ー.
  std::optional<std::string> vowel;
  forEachCharacter(mora, [&](std::string_view character) {
    if (!isCharacterIn(character, vowelSkippers)) {
      vowel = vowelOfCharacter(character);
    } else if (const char* small = smallKanaVowel(soleScalar(character))) {
      vowel = small;
    }
    return true;
  });
  return vowel;
}

std::optional<std::string> vowelOfCharacter(std::string_view character) {
  std::size_t i = 0;
  if (character.empty()) return std::nullopt;
  char32_t c = text::nextScalar(character, i);
  // A decomposed voiced mark does not change the vowel.
  while (i < character.size()) {
    char32_t mark = text::nextScalar(character, i);
    if (mark != 0x3099 && mark != 0x309A) return std::nullopt;
  }
  if (c >= 0x30A1 && c <= 0x30FA) c -= 0x60;
  if (c == U'ん') return "ん";
  static constexpr std::u32string_view kColumns[] = {
      U"あかさたなはまやらわがざだばぱぁゃゎ", U"いきしちにひみりゐぎじぢびぴぃ",
      U"うくすつぬふむゆるぐずづぶぷゔぅゅ", U"えけせてねへめれゑげぜでべぺぇ",
      U"おこそとのほもよろをごぞどぼぽぉょ"};
  static constexpr std::string_view kVowels[] = {"あ", "い", "う", "え", "お"};
  for (std::size_t k = 0; k < 5; ++k)
    if (kColumns[k].find(c) != std::u32string_view::npos) return std::string(kVowels[k]);
  return std::nullopt;
}

// ---- Conversions ----

std::optional<std::string> kanaFromPhonemes(std::string_view input) {
  std::string_view t = text::trimWhitespace(input);
  while (!t.empty() && t.front() == '.') t.remove_prefix(1);
  std::vector<std::string_view> tokens;
  for (std::string_view token : text::split(t, ' '))
    if (!token.empty()) tokens.push_back(token);
  if (tokens.empty()) return std::nullopt;

  const auto& table = phonemeKanaTable();
  std::string result;
  std::string window;
  std::size_t i = 0;
  while (i < tokens.size()) {
    bool hit = false;
    for (std::size_t width = std::min<std::size_t>(3, tokens.size() - i); width > 0; --width) {
      window.assign(tokens[i]);
      for (std::size_t k = 1; k < width; ++k) {
        window += ' ';
        window.append(tokens[i + k]);
      }
      auto it = table.find(window);
      if (it == table.end()) continue;
      // A lone っ cannot open a lyric: the engine has nothing to hold it on.
      if (width == 1 && result.empty() && tokens[i] == "cl") return std::nullopt;
      result += it->second;
      i += width;
      hit = true;
      break;
    }
    if (!hit) return std::nullopt;
  }
  if (result.empty()) return std::nullopt;
  return result;
}

std::optional<std::string> replaceOldKana(std::string_view lyric) {
  std::string out(lyric);
  bool changed = false;
  for (const OldKana& old : oldKanaMap) {
    for (std::size_t at = out.find(old.from); at != std::string::npos;
         at = out.find(old.from, at + old.to.size())) {
      out.replace(at, old.from.size(), old.to);
      changed = true;
    }
  }
  if (!changed) return std::nullopt;
  return out;
}

std::string widenHalfKana(std::string_view lyric) {
  auto isHalfKana = [](char32_t c) { return c >= 0xFF61 && c <= 0xFF9F; };
  if (!anyScalar(lyric, isHalfKana)) return std::string(lyric);
  std::string out;
  std::string run;
  auto flush = [&] {
    if (run.empty()) return;
    // The transform leaves voiced marks combining (カ + U+3099); NFC makes them ガ.
    out += text::nfc(text::transliterate(run, "Halfwidth-Fullwidth"));
    run.clear();
  };
  forEachCharacter(lyric, [&](std::string_view character) {
    if (allScalars(character, isHalfKana)) {
      run.append(character);
    } else {
      flush();
      out.append(character);
    }
    return true;
  });
  flush();
  return out;
}

std::string katakanaToHiragana(std::string_view lyric) {
  return text::transliterate(lyric, "Katakana-Hiragana");
}

}  // namespace melvo
