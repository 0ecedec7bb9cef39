#include <gtest/gtest.h>

#include "melvo/platform/text.h"

namespace melvo::text {
namespace {

TEST(Utf8, DecodesScalarsAndReplacesDamage) {
  EXPECT_EQ(toScalars("aあ😀"), (std::u32string{U'a', U'あ', U'😀'}));
  // A stray continuation byte and a truncated sequence each become one replacement.
  EXPECT_EQ(toScalars("a\x80z"), (std::u32string{U'a', kReplacement, U'z'}));
  EXPECT_EQ(toScalars("\xE3\x81"), (std::u32string{kReplacement, kReplacement}));
  // Overlong encodings and surrogates are not scalars.
  EXPECT_FALSE(isValidUtf8("\xC0\xAF"));
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));
  EXPECT_TRUE(isValidUtf8("\xEF\xBF\xBD"));  // a real U+FFFD is fine
  EXPECT_EQ(fromScalars(toScalars("きゃ😀")), "きゃ😀");
  EXPECT_EQ(scalarName(0x200B), "U+200B");
  EXPECT_EQ(scalarName(0x1F600), "U+1F600");
}

TEST(Graphemes, CombiningMarksAndEmojiStayTogether) {
  // か + combining voiced mark is one character of two scalars.
  auto g = graphemes("か\u3099き");
  ASSERT_EQ(g.size(), 2u);
  EXPECT_EQ(g[0], "か\u3099");
  // A family emoji joined by ZWJ is one character; flags pair up.
  EXPECT_EQ(graphemeCount("👨‍👩‍👧"), 1u);
  EXPECT_EQ(graphemeCount("🇯🇵🇯🇵"), 2u);
  // Half-width voiced mark joins its kana.
  EXPECT_EQ(graphemeCount("ｶﾞ"), 1u);
  EXPECT_EQ(graphemeCount("きゃ"), 2u);
  EXPECT_EQ(graphemeCount("\r\n"), 1u);
  EXPECT_TRUE(graphemes("").empty());
}

TEST(Trim, SetsDifferInWhatTheyCut) {
  EXPECT_EQ(trimWhitespace(" \tあ\u3000"), "あ");
  // Newlines are cut only by the wider sets.
  EXPECT_EQ(trimWhitespace("\nあ\n"), "\nあ\n");
  EXPECT_EQ(trimWhitespaceAndNewlines("\r\n\u2028あ い\u0085"), "あ い");
  // Zero-width space and BOM only by the lyric set.
  EXPECT_EQ(trimWhitespaceAndNewlines("\u200Bあ\uFEFF"), "\u200Bあ\uFEFF");
  EXPECT_EQ(trimLyric("\u200B \uFEFFあ\u200B"), "あ");
  EXPECT_EQ(trimLyric("\u3000\u200B"), "");
}

TEST(IcuServices, NormaliseLowerAndTransliterate) {
  EXPECT_EQ(nfc("か\u3099"), "が");
  EXPECT_TRUE(isNfc("が"));
  EXPECT_FALSE(isNfc("か\u3099"));
  EXPECT_EQ(toLower("TRACK Ä"), "track ä");
  EXPECT_EQ(transliterate("カタカナ", "Katakana-Hiragana"), "かたかな");
  EXPECT_EQ(transliterate("ｶﾀｶﾅ", "Halfwidth-Fullwidth"), "カタカナ");
}

}  // namespace
}  // namespace melvo::text
