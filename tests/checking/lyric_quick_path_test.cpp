// The quick paths that every note's lyric takes, against the general ones they stand in for.
// A quick path that drifts would silently judge notes differently in the validator and the gate
// than in the score writer, so each is compared over every kana the table knows, every pair of
// kana-block scalars, and inputs picked to fall just outside the quick paths.
#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <string>
#include <vector>

#include "melvo/checking/kana_table.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

constexpr char32_t kKanaFirst = 0x3040;
constexpr char32_t kKanaLast = 0x30FF;

// Lyrics next to the edges of the quick paths: voiced marks to compose, white space and
// zero-width scalars to trim, half-width kana, marks, broken and truncated bytes, and kana-like
// scalars just outside the kana blocks.
const std::vector<std::string>& trickyLyrics() {
  static const std::vector<std::string> lyrics = {
      "",
      " ",
      "か\u3099",
      "\u3099",
      "か\u309Aい",
      "か゛",
      "は゜",
      " か",
      "か ",
      "\u3000か",
      "か\u3000",
      "か\u200B",
      "\uFEFFか",
      "か\u200Bな",
      "ｶ",
      "ｶﾞ",
      "す’き",
      "ー’",
      "’",
      "あ！",
      "！",
      "ヶ",
      "ゐ",
      "か%",
      "あ強",
      "R",
      "ka",
      "漢字",
      "\U0001F600",
      "\xE3\x81",
      "\xE3\x81\x8B\xE3",
      "\xE3\x81\x8B\xE3\x81",
      "\xE3\x81\xC0",
      "\xE3\x80\xBF",  // U+303F, just below the kana blocks
      "\xE3\x84\x80",  // U+3100, just above
      "\xE3\x80\x80",  // the ideographic space
      "\xED\xA0\x80",  // a surrogate
      "\xE0\x80\x80",  // an overlong form
      "\xFF\xE3\x81\x8B",
      "きゃっ",
      "ーー",
      "ーっ",
      "っー",
      "っっ",
      "かーっ",
      "ありがとう",
      "しゃしゅしょちゃちゅちょ",
      "くぁくぁくぁ",
      "ぢゃぢゅ",
      "ヴぁヴぃ",
      "ゔょ",
  };
  return lyrics;
}

// Every key of the table, every kana-block scalar alone and every pair of them, then the tricky
// ones above.
std::vector<std::string> sampleLyrics() {
  std::vector<std::string> out;
  for (const auto& [key, value] : kanaPhonemeEntries()) out.push_back(key);
  for (char32_t a = kKanaFirst; a <= kKanaLast; ++a) {
    out.push_back(text::fromScalar(a));
    for (char32_t b = kKanaFirst; b <= kKanaLast; ++b)
      out.push_back(text::fromScalar(a) + text::fromScalar(b));
  }
  for (const auto& l : trickyLyrics()) out.push_back(l);
  return out;
}

// The definition the byte test stands for, decoded with the full decoder.
bool plainByDefinition(std::string_view s) {
  if (s.empty()) return false;
  std::size_t i = 0;
  while (i < s.size()) {
    const std::size_t start = i;
    const char32_t c = text::nextScalarSlow(s, i);
    if (c == text::kReplacement && i - start != 3) return false;  // broken bytes
    if (c < kKanaFirst || c > kKanaLast || c == 0x3099 || c == 0x309A) return false;
  }
  return true;
}

TEST(QuickDecoder, GivesTheFullDecodersScalarAndAdvance) {
  auto same = [](const std::string& bytes) {
    std::size_t quick = 0, full = 0;
    const char32_t a = text::nextScalar(bytes, quick);
    const char32_t b = text::nextScalarSlow(bytes, full);
    return a == b && quick == full;
  };
  std::string bytes(3, '\0');
  for (int lead = 0; lead < 256; ++lead) {
    bytes.assign(1, static_cast<char>(lead));
    ASSERT_TRUE(same(bytes)) << lead;
    for (int mid = 0; mid < 256; ++mid) {
      bytes.assign({static_cast<char>(lead), static_cast<char>(mid)});
      ASSERT_TRUE(same(bytes)) << lead << " " << mid;
      if (lead < 0xE0 || lead > 0xEF) continue;  // only three-byte forms take the quick path
      for (int last = 0; last < 256; ++last) {
        bytes.assign({static_cast<char>(lead), static_cast<char>(mid), static_cast<char>(last)});
        ASSERT_TRUE(same(bytes)) << lead << " " << mid << " " << last;
      }
    }
  }
}

TEST(QuickWhiteSpace, NothingAboveTheIdeographicSpaceIsASeparator) {
  for (char32_t c = 0x3001; c <= 0x10FFFF; ++c) {
    const auto type = u_charType(static_cast<UChar32>(c));
    ASSERT_FALSE(type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR ||
                 type == U_PARAGRAPH_SEPARATOR)
        << text::scalarName(c);
  }
  EXPECT_TRUE(text::isWhitespace(0x3000));
  EXPECT_TRUE(text::isWhitespaceOrNewline(0x2029));
  EXPECT_EQ(text::trimWhitespaceAndNewlines("\u3000か\u2028"), "か");
}

TEST(QuickKanaTest, MatchesItsDefinitionOnEveryThreeByteForm) {
  std::string bytes(3, '\0');
  for (int lead : {0xE2, 0xE3, 0xE4})
    for (int mid = 0; mid < 256; ++mid)
      for (int last = 0; last < 256; ++last) {
        bytes.assign({static_cast<char>(lead), static_cast<char>(mid), static_cast<char>(last)});
        ASSERT_EQ(isPlainKana(bytes), plainByDefinition(bytes))
            << lead << " " << mid << " " << last;
      }
  for (const auto& l : sampleLyrics()) ASSERT_EQ(isPlainKana(l), plainByDefinition(l)) << l;
}

TEST(DenseLookups, AgreeWithTheTableOnEveryKanaPair) {
  const auto& singles = singleScalarPhonemes();
  const auto& pairs = scalarPairPhonemes();
  for (char32_t a = 0x3000; a < 0x3120; ++a) {
    auto one = singles.find(a);
    const kana::Unit* unit = kana::lookupSingle(a);
    ASSERT_EQ(unit != nullptr, one != singles.end()) << text::scalarName(a);
    if (unit) {
      EXPECT_EQ(unit->phonemes, one->second);
    }
    for (char32_t b = 0x3000; b < 0x3120; ++b) {
      auto two = pairs.find(scalarPairKey(a, b));
      const kana::Unit* pair = kana::lookupPair(a, b);
      ASSERT_EQ(pair != nullptr, two != pairs.end()) << text::scalarName(a) << text::scalarName(b);
      if (pair) {
        EXPECT_EQ(pair->phonemes, two->second);
      }
    }
  }
  EXPECT_EQ(kana::lookupPair(U'き', 0x110000), nullptr);
}

// Plain kana reads on its own walk; the same kana followed by ！ reads on the general one, which
// stops at the ！. Both must read the same units.
TEST(PlainKanaWalk, ReadsWhatTheGeneralWalkReads) {
  for (const auto& l : sampleLyrics()) {
    if (!isPlainKana(l)) continue;
    const LyricReading quick = readLyric(l);
    const LyricReading general = readLyric(l + "！");
    ASSERT_EQ(quick.units, general.units) << l;
    ASSERT_EQ(quick.readable, general.readable) << l;
    ASSERT_EQ(quick.rest + "！", general.rest) << l;
  }
}

TEST(PlainKanaSummary, EachFieldIsWhatItsOwnRuleSays) {
  std::size_t summarized = 0;
  for (const auto& l : sampleLyrics()) {
    const auto k = summarizePlainKana(l);
    ASSERT_EQ(k.has_value(), isPlainKana(l)) << l;
    if (!k) continue;
    ++summarized;
    // The lyric is its own export form, as composing and trimming would make it.
    ASSERT_EQ(std::string(text::trimLyric(text::nfc(l))), l);
    ASSERT_EQ(lyricForExport(l), l);
    // Each scalar is a Character of its own.
    ASSERT_EQ(text::graphemes(l).size(), text::scalarCount(l)) << l;
    EXPECT_EQ(k->reading, readingState(l).kind) << l;
    EXPECT_EQ(k->scalars, static_cast<int>(text::scalarCount(l))) << l;
    EXPECT_EQ(k->phonemes, countPhonemes(l)) << l;
    EXPECT_EQ(k->onlyChouon, isOnlyChouon(l)) << l;
    EXPECT_EQ(k->onlySokuon, isOnlySokuon(l)) << l;
    EXPECT_EQ(k->startsWithSustain, startsWithSustain(l)) << l;
  }
  EXPECT_GT(summarized, 36000u);
}

// The syllable count that spares building the pieces agrees with the pieces.
TEST(SyllableCount, AgreesWithTheSyllables) {
  for (const auto& l : sampleLyrics()) {
    const std::string form = lyricForExport(l);
    ASSERT_EQ(isMultiSyllable(form), groupSyllables(form).size() >= 2) << l;
    std::string joined;
    for (const auto& s : groupSyllables(form)) joined += s;
    ASSERT_EQ(joined, form) << l;
  }
}

}  // namespace
}  // namespace melvo
