// What the engine can read, case by case. Each group pins one rule that, if wrong, lets an
// unreadable lyric through to a render or flags a good one.
#include <gtest/gtest.h>

#include "melvo/checking/lyric_rules.h"

namespace melvo {
namespace {

using Units = std::vector<std::string>;
using Strings = std::vector<std::string>;

TEST(LyricExport, ComposesDropsAndTrims) {
  EXPECT_EQ(lyricForExport("\u304B\u3099"), "が");  // か + combining voiced mark
  EXPECT_EQ(lyricForExport("\u306F\u309A"), "ぱ");
  EXPECT_EQ(lyricForExport("あ\x01い\uFFFF"), "あい");
  EXPECT_EQ(lyricForExport(" \u200B\tか\n\uFEFF"), "か");
  EXPECT_EQ(lyricForExport("か\u200Bな"), "か\u200Bな");  // kept inside, cut only at the ends
  EXPECT_EQ(lyricForExport("\xFF"
                           "あ"),
            "\uFFFDあ");  // broken bytes stay visible
}

TEST(LyricReading, PairsBeforeSingles) {
  EXPECT_EQ(readLyric("にゃ").units, (Units{"ny a"}));
  EXPECT_EQ(readLyric("ぢゃ").units, (Units{"j i", "y a"}));  // the table has no ぢゃ
  EXPECT_EQ(readLyric("きゃっ").units, (Units{"ky a", "cl"}));
  EXPECT_EQ(readLyric("かー").units, (Units{"k a", "ー"}));
  EXPECT_EQ(readLyric("す’き").units, (Units{"s u", "k i"}));
  EXPECT_EQ(readLyric("す’き").readable, "す’き");
}

TEST(LyricReading, StopsAtTheFirstUnreadableScalar) {
  LyricReading r = readLyric(" あヶい ");
  EXPECT_EQ(r.units, (Units{"a"}));
  EXPECT_EQ(r.readable, "あ");
  EXPECT_EQ(r.rest, "ヶい");

  EXPECT_EQ(readingState("あヶい"), (ReadingState{ReadingKind::partial, "あ", "ヶい"}));
  EXPECT_EQ(readingState("ヶ").kind, ReadingKind::unreadable);
  EXPECT_EQ(readingState("la").kind, ReadingKind::unreadable);
  EXPECT_EQ(readingState("\u200B").kind, ReadingKind::empty);
  EXPECT_EQ(readingState("").kind, ReadingKind::empty);
  EXPECT_EQ(readingState(" きゃっ\n").kind, ReadingKind::readable);
  EXPECT_EQ(readingState("ゐ").kind, ReadingKind::readable);  // old, but in the table
}

TEST(LyricPhonemes, CountsWhatTheEngineSees) {
  EXPECT_EQ(countPhonemes("ー"), 1);
  EXPECT_EQ(countPhonemes("ーー’"), 1);
  EXPECT_EQ(countPhonemes("あー"), 1);
  EXPECT_EQ(countPhonemes("きゃっ"), 3);
  EXPECT_EQ(countPhonemes("す’き"), 4);
  EXPECT_EQ(countPhonemes("くぁくぁくぁ"), 9);  // one past what the engine takes
  EXPECT_EQ(countPhonemes("かヶき"), 2);        // only the readable part is sung
  EXPECT_EQ(countPhonemes(""), 0);
}

TEST(LyricShapes, IgnoreTheVowelDropMark) {
  EXPECT_TRUE(isOnlyChouon("ー’ー"));
  EXPECT_FALSE(isOnlyChouon("’"));
  EXPECT_FALSE(isOnlyChouon("あー"));
  EXPECT_TRUE(isOnlySokuon(" ッ’"));
  EXPECT_FALSE(isOnlySokuon("っっ"));
  EXPECT_TRUE(startsWithSustain("’ーあ"));
  EXPECT_TRUE(startsWithSustain("っき"));
  EXPECT_FALSE(startsWithSustain("きっ"));
  EXPECT_TRUE(isStandaloneSpecial("ゃ"));
  EXPECT_FALSE(isStandaloneSpecial("きゃ"));
}

TEST(LyricVowelDrop, OnlyBehindAConsonantInALongerLyric) {
  EXPECT_EQ(effectiveVowelDrops("す’き"), (std::vector<bool>{true}));
  EXPECT_EQ(effectiveVowelDrops("’す"), (std::vector<bool>{false}));
  EXPECT_EQ(effectiveVowelDrops("す’"), (std::vector<bool>{false}));    // one unit only
  EXPECT_EQ(effectiveVowelDrops("すー’"), (std::vector<bool>{false}));  // ー is not a unit sung
  EXPECT_EQ(effectiveVowelDrops("あ’い"), (std::vector<bool>{false}));  // no consonant
  EXPECT_EQ(effectiveVowelDrops("す’’き"), (std::vector<bool>{true, false}));
  EXPECT_EQ(effectiveVowelDrops("す’きヶ’"), (std::vector<bool>{true, false}));
  EXPECT_TRUE(effectiveVowelDrops("すき").empty());
}

TEST(LyricClasses, InOrderOfPrecedence) {
  EXPECT_EQ(classifyLyricChars("あ%"), LyricClass::utauMark);
  EXPECT_EQ(classifyLyricChars("あ強"), LyricClass::utauMark);
  EXPECT_EQ(classifyLyricChars("R"), LyricClass::utauMark);
  EXPECT_EQ(classifyLyricChars("a%"), LyricClass::utauMark);  // before digits and Latin
  EXPECT_EQ(classifyLyricChars("強い"), LyricClass::otherNonKana);
  EXPECT_EQ(classifyLyricChars("１番"), LyricClass::digitsOrLatin);
  EXPECT_EQ(classifyLyricChars("ら2"), LyricClass::digitsOrLatin);
  EXPECT_EQ(classifyLyricChars("あ漢！"), LyricClass::otherNonKana);
  EXPECT_EQ(classifyLyricChars("あ！※"), LyricClass::symbol);
  EXPECT_EQ(classifyLyricChars("あ※\x01"), LyricClass::decorationMark);
  EXPECT_EQ(classifyLyricChars("’す"), LyricClass::decorationMark);
  EXPECT_EQ(classifyLyricChars("あ\x01"), LyricClass::invisibleOnly);
  EXPECT_EQ(classifyLyricChars("す’き"), LyricClass::clean);
  EXPECT_EQ(classifyLyricChars("ヶ"), LyricClass::clean);  // kana, although unreadable
  EXPECT_EQ(classifyLyricChars("かー・"), LyricClass::clean);
}

TEST(LyricClasses, UtauStrengthMarks) {
  EXPECT_TRUE(isUtauMarked("あ強弱"));
  EXPECT_TRUE(isUtauMarked(" か%弱 "));
  EXPECT_TRUE(isUtauMarked("強"));  // nothing before the marks also counts
  EXPECT_FALSE(isUtauMarked("漢強"));
  EXPECT_FALSE(isUtauMarked("強い"));
  EXPECT_FALSE(isUtauMarked("あ"));
}

TEST(LyricScalars, InvisibleOnesAreShownAsHex) {
  EXPECT_EQ(visibleLyric("あ\u200Bい"), "あ<U+200B>い");
  EXPECT_EQ(visibleLyric("\uFEFF\t\uFDD0"), "<U+FEFF><U+0009><U+FDD0>");
  EXPECT_EQ(visibleLyric("\U0001FFFF"), "<U+1FFFF>");
  EXPECT_EQ(visibleLyric("き ゃ"), "き ゃ");
  EXPECT_TRUE(hasInvisibleScalars("あ\u2060"));
  EXPECT_FALSE(hasInvisibleScalars("あ\u200D"));
  EXPECT_TRUE(hasCombiningMarks("か\u3099"));
  EXPECT_TRUE(hasCombiningMarks("e\u0301"));
  EXPECT_FALSE(hasCombiningMarks("が゛"));  // the spacing mark U+309B does not combine
  EXPECT_TRUE(hasXmlIllegalScalars("\x1F"));
  EXPECT_FALSE(hasXmlIllegalScalars("\t\n\r"));
  EXPECT_TRUE(hasKanji("\u3400"));
  EXPECT_FALSE(hasKanji("〆ヶ"));
  EXPECT_TRUE(hasDigitsOrLatin("ｚ"));
  EXPECT_FALSE(hasDigitsOrLatin("ー〇①"));
}

TEST(LyricMorae, JoinersLeanOnTheKanaBefore) {
  EXPECT_EQ(splitMorae("かっ"), (Strings{"かっ"}));
  EXPECT_EQ(splitMorae("っき"), (Strings{"っき"}));
  EXPECT_EQ(splitMorae("ゃっー"), (Strings{"ゃっー"}));
  EXPECT_EQ(splitMorae("きゃっとヮ"), (Strings{"きゃっ", "とヮ"}));
  EXPECT_EQ(splitMorae("\u304B\u3099い"), (Strings{"\u304B\u3099", "い"}));
  EXPECT_TRUE(splitMorae("").empty());
}

TEST(LyricSyllables, DiphthongsAndNStayOnOneNote) {
  EXPECT_EQ(groupSyllables("かい"), (Strings{"かい"}));
  EXPECT_EQ(groupSyllables("せい"), (Strings{"せい"}));
  EXPECT_EQ(groupSyllables("トウ"), (Strings{"トウ"}));
  EXPECT_EQ(groupSyllables("きゃん"), (Strings{"きゃん"}));
  EXPECT_EQ(groupSyllables("いう"), (Strings{"い", "う"}));
  EXPECT_EQ(groupSyllables("えう"), (Strings{"え", "う"}));
  EXPECT_EQ(groupSyllables("きい"), (Strings{"き", "い"}));
  EXPECT_EQ(groupSyllables("しょうい"), (Strings{"しょう", "い"}));  // い follows う, not お
  EXPECT_FALSE(isMultiSyllable("あいん"));
  EXPECT_TRUE(isMultiSyllable("かな"));
}

TEST(LyricVowels, FromTheLastVowelBearingKana) {
  EXPECT_EQ(vowelOf("きゃっ"), "あ");
  EXPECT_EQ(vowelOf("ふぃー"), "い");
  EXPECT_EQ(vowelOf("ショ"), "お");
  EXPECT_EQ(vowelOf("ン"), "ん");
  EXPECT_EQ(vowelOf("っー"), std::nullopt);
  EXPECT_EQ(vowelOfCharacter("ヴ"), "う");
  EXPECT_EQ(vowelOfCharacter("ヲ"), "お");
  EXPECT_EQ(vowelOfCharacter("ぢ"), "い");
  EXPECT_EQ(vowelOfCharacter("\u3078\u3099"), "え");  // decomposed べ
  EXPECT_EQ(vowelOfCharacter("a"), std::nullopt);
}

TEST(LyricConversions, PhonemeTextToKana) {
  EXPECT_EQ(kanaFromPhonemes(".k a"), "か");
  EXPECT_EQ(kanaFromPhonemes(" ..k  a "), "か");
  EXPECT_EQ(kanaFromPhonemes("cl k a"), std::nullopt);
  EXPECT_EQ(kanaFromPhonemes("k a cl"), "かっ");
  EXPECT_EQ(kanaFromPhonemes("k w a ky a"), "くぁきゃ");  // longest window first
  EXPECT_EQ(kanaFromPhonemes("k a x"), std::nullopt);
  EXPECT_EQ(kanaFromPhonemes(" . "), std::nullopt);
}

TEST(LyricConversions, OldKanaAndScripts) {
  EXPECT_EQ(replaceOldKana("ゐゑヰヱゐ"), "いえイエい");
  EXPECT_EQ(replaceOldKana("ヶを"), std::nullopt);
  EXPECT_EQ(widenHalfKana("ｶﾞｯﾂ abc12ﾊﾟ"), "ガッツ abc12パ");
  EXPECT_EQ(widenHalfKana("ﾎﾟｯﾌﾟ｡"), "ポップ。");
  EXPECT_EQ(widenHalfKana("abc"), "abc");
  EXPECT_EQ(katakanaToHiragana("ヴァイオリン、ガッツ"), "ゔぁいおりん、がっつ");
}

}  // namespace
}  // namespace melvo
