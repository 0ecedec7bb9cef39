// The kana table against its own derived lookups: a typo in the literal, a lost entry or a
// wrong tie rule would silently change what every note is judged readable.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "kana_reading.h"
#include "melvo/checking/kana_table.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

std::string joinUnits(const LyricReading& reading) {
  std::string out;
  for (const auto& u : reading.units) out += (out.empty() ? "" : " ") + u;
  return out;
}

TEST(KanaTable, KatakanaMirrorsHiraganaAndVuTakesSmallHiragana) {
  const auto& table = kanaPhonemeTable();
  ASSERT_EQ(table.size(), 353u);
  ASSERT_EQ(kanaPhonemeEntries().size(), 353u);

  int hiragana = 0;
  for (const auto& [key, value] : table) {
    std::u32string scalars = text::toScalars(key);
    if (scalars[0] >= 0x30A0) continue;
    ++hiragana;
    std::u32string shifted;
    for (char32_t c : scalars) shifted.push_back(c + 0x60);
    auto twin = table.find(text::fromScalars(shifted));
    ASSERT_NE(twin, table.end()) << key;
    EXPECT_EQ(twin->second, value) << key;
  }
  EXPECT_EQ(hiragana, 173);

  // ヴ followed by small hiragana: the seven keys outside the mirror.
  EXPECT_EQ(table.at("ヴょ"), "by o");
  EXPECT_EQ(table.at("ヴぁ"), "v a");
  // The deliberate holes of the engine's dictionary.
  for (const char* hole : {"ぢゃ", "ぢゅ", "ぢょ", "てぇ", "きぃ"}) EXPECT_FALSE(table.count(hole));
}

TEST(KanaTable, DerivedLookupsCoverEveryKeyOnce) {
  const auto& singles = singleScalarPhonemes();
  const auto& pairs = scalarPairPhonemes();
  EXPECT_EQ(singles.size() + pairs.size(), 353u);
  for (const auto& [key, value] : kanaPhonemeTable()) {
    std::u32string s = text::toScalars(key);
    if (s.size() == 1) {
      EXPECT_EQ(singles.at(s[0]), value) << key;
    } else {
      ASSERT_EQ(s.size(), 2u) << key;
      EXPECT_EQ(pairs.at(scalarPairKey(s[0], s[1])), value) << key;
    }
  }

  const auto& chars = kanaCharacterSet();
  EXPECT_TRUE(chars.count("ゃ"));
  EXPECT_TRUE(chars.count("ヴ"));
  EXPECT_FALSE(chars.count("きゃ"));  // Characters, not keys
  for (char32_t c : unreadableKana) EXPECT_FALSE(chars.count(text::fromScalar(c)));
}

TEST(KanaTable, EveryKeyReadsBackAsOneUnitWithItsOwnPhonemes) {
  for (const auto& [key, value] : kanaPhonemeTable()) {
    LyricReading r = readLyric(key);
    ASSERT_EQ(r.units.size(), 1u) << key;
    EXPECT_EQ(r.units[0], value) << key;
    EXPECT_TRUE(r.rest.empty()) << key;
  }
}

// The stand-in engine reads lyrics from the engine's documented table, written apart from
// ours: each entry of ours must read the same there, and a lyric of every kana ours cannot
// read must be refused there too, or a render test would pass on a table the engine rejects.
TEST(KanaTable, TheEnginesDocumentedReadingAgreesEntryForEntry) {
  for (const auto& [key, value] : kanaPhonemeTable()) {
    const standin::KanaReading engine = standin::readKana(key);
    ASSERT_EQ(engine.units.size(), 1u) << key;
    std::string joined;
    for (const auto& p : engine.units[0]) joined += (joined.empty() ? "" : " ") + p;
    EXPECT_EQ(joined, value) << key;
  }
  for (char32_t c = 0x3041; c <= 0x30FF; ++c) {
    const std::string kana = text::fromScalar(c);
    if (kanaPhonemeTable().count(kana) || c == U'ー' || c == U'・') continue;
    EXPECT_TRUE(standin::readKana(kana).units.empty()) << kana;
    EXPECT_EQ(readingState(kana).kind, ReadingKind::unreadable) << kana;
  }
}

TEST(KanaTable, PhonemesOfEveryEntryComeBackAsKanaThatReadsTheSame) {
  for (const auto& [key, value] : kanaPhonemeTable()) {
    std::optional<std::string> kana = kanaFromPhonemes(value);
    if (value == "cl") {
      EXPECT_FALSE(kana) << "a lone cl cannot open a lyric";
      continue;
    }
    ASSERT_TRUE(kana) << value;
    EXPECT_EQ(joinUnits(readLyric(*kana)), value) << value << " -> " << *kana;
  }
}

TEST(KanaTable, PreferredSpellingForSharedPhonemes) {
  const auto& pk = phonemeKanaTable();
  EXPECT_EQ(pk.at("w a"), "わ");  // over ゎ and ワ
  EXPECT_EQ(pk.at("o"), "お");    // over を
  EXPECT_EQ(pk.at("e"), "え");    // over ゑ and ぇ
  EXPECT_EQ(pk.at("j i"), "じ");  // over ぢ
  EXPECT_EQ(pk.at("z u"), "ず");  // over づ
  EXPECT_EQ(pk.at("y a"), "や");  // over small ゃ
  // Equal scores keep the spelling met first in the table.
  EXPECT_EQ(pk.at("s i"), "すぃ");
  EXPECT_EQ(pk.at("k w a"), "くぁ");
  for (const auto& [phonemes, kana] : pk) {
    for (char32_t c : text::toScalars(kana)) EXPECT_LT(c, 0x30A0u) << phonemes << " " << kana;
  }
}

}  // namespace
}  // namespace melvo
