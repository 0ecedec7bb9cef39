// The lyric rules of the score check: what is an error, what a warning, and the repairs.
#include <gtest/gtest.h>

#include "score_validator_support.h"

namespace melvo {
namespace {

using Cat = ValidationIssue::Category;
using Sev = ValidationIssue::Severity;
using S = ValidationIssue::Suggestion;
using test::check;
using test::legato;
using test::note;
using test::rowsOf;
using test::song;

class LyricRows : public ::testing::Test {
  test::JapaneseTexts ja;
};

// A stray symbol after kana is sung around; a lyric of nothing but a symbol fails the song.
TEST_F(LyricRows, SymbolSeverityFollowsWhetherTheEngineCanRead) {
  auto rows = check(song(legato({"あ！", "か", "！"}, 480)));
  auto symbols = rowsOf(rows, Cat::symbols);
  ASSERT_EQ(symbols.size(), 2u);
  EXPECT_EQ(symbols[0].severity, Sev::warning);
  EXPECT_EQ(symbols[0].message, "歌詞に記号「あ！」");
  ASSERT_FALSE(symbols[0].suggestions.empty());
  EXPECT_EQ(symbols[0].suggestions[0].action, SuggestionAction(S::SetLyric{"あ"}));
  EXPECT_EQ(symbols[1].severity, Sev::error);
  EXPECT_EQ(symbols[1].message, "記号だけの歌詞「！」");
  EXPECT_NE(symbols[1].detail->find("NEUTRINO はこの歌詞を読めず"), std::string::npos);
  // The readable part is named for the partial lyric.
  EXPECT_NE(symbols[0].detail->find("NEUTRINO は「あ」だけを歌い、後ろの「！」は読みません"),
            std::string::npos);
}

// Eight phonemes are still read; nine stop the engine, and then the syllable warning would
// only repeat the error.
TEST_F(LyricRows, NinePhonemesAreAnErrorAndNotAlsoASyllableWarning) {
  auto eight = check(song(legato({"きゃきゃきゃきゃ"}, 1920)));
  EXPECT_TRUE(
      std::none_of(eight.begin(), eight.end(), [](auto& r) { return r.severity == Sev::error; }));
  auto warn = rowsOf(eight, Cat::multiSyllable);
  ASSERT_EQ(warn.size(), 1u);
  EXPECT_EQ(warn[0].severity, Sev::warning);

  auto nine = check(song(legato({"きゃきゃきゃきゃあ"}, 1920)));
  auto rows = rowsOf(nine, Cat::multiSyllable);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].severity, Sev::error);
  EXPECT_EQ(rows[0].message, "1音符に音素が 9 個「きゃきゃきゃきゃあ」（NEUTRINO は8個まで）");
}

// The split gives each syllable an equal share and the last one the rest up to the old end.
TEST_F(LyricRows, SplitSuggestionCutsTheNoteBySyllables) {
  auto d = song({note(960, 500, "かさた", 64)});
  auto rows = rowsOf(check(d), Cat::multiSyllable);
  ASSERT_EQ(rows.size(), 1u);
  ASSERT_EQ(rows[0].suggestions.size(), 1u);
  EXPECT_EQ(rows[0].suggestions[0].label, "音節ごとに音符を分ける（3 音）");
  const Uuid id = d.tracks[0].notes[0].id;
  S::Sequence expected;
  expected.actions.emplace_back(S::SetTiming{{{id, 960, 166}}});
  expected.actions.emplace_back(S::SetLyrics{{{id, "か"}}});
  expected.actions.emplace_back(S::AddNotes{0, {{1126, 166, 64, "さ"}, {1292, 168, 64, "た"}}});
  EXPECT_EQ(rows[0].suggestions[0].action, SuggestionAction(expected));

  // A note the user keeps whole gets no warning; diphthongs never do.
  auto kept = validate(d, {}, {}, {id});
  EXPECT_TRUE(rowsOf(kept, Cat::multiSyllable).empty());
  EXPECT_TRUE(rowsOf(check(song(legato({"あい", "かん"}, 480))), Cat::multiSyllable).empty());
}

TEST_F(LyricRows, EmptyLyricsPerNoteAndForAWholeTrack) {
  auto all = check(song(legato({"", " ", ""}, 480)));
  auto empty = rowsOf(all, Cat::emptyLyric);
  ASSERT_EQ(empty.size(), 1u);  // the track row stands for every note
  EXPECT_EQ(empty[0].message, "1トラック：歌詞が1つも入っていません（3音）");

  auto d = song(legato({"か", "", "", "さ"}, 480));
  auto rows = rowsOf(check(d), Cat::emptyLyric);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].severity, Sev::error);
  EXPECT_EQ(rows[0].message, "1トラック 1小節目：歌詞が空です");
  // Two empty notes right after か are joined to it in one press; the vowel is offered too.
  S::SetLyrics join{{{d.tracks[0].notes[1].id, "ー"}, {d.tracks[0].notes[2].id, "ー"}}};
  EXPECT_EQ(rows[0].suggestions[0].label, "前の音を伸ばす「ー」でつなぐ（歌詞の無い 2 音）");
  EXPECT_EQ(rows[0].suggestions[0].action, SuggestionAction(join));
  EXPECT_EQ(rows[0].suggestions[1].action, SuggestionAction(S::SetLyric{"あ"}));
}

// ー after a rest is refused by the engine: one row for the run, with repairs that join it.
TEST_F(LyricRows, ChouonAfterRestIsOneErrorRowPerRun) {
  auto d = song({note(0, 480, "か"), note(481, 240, "ー"), note(721, 240, "ー")});
  auto rows = rowsOf(check(d), Cat::standaloneSpecial);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].severity, Sev::error);
  EXPECT_EQ(rows[0].message.rfind("休符の後の「ー」が 2 音続いています（", 0), 0u);
  const auto& ids = d.tracks[0].notes;
  EXPECT_EQ(rows[0].suggestions[0].action, SuggestionAction(S::SetTiming{{{ids[1].id, 480, 241}}}));
  EXPECT_EQ(rows[0].jumpPlaces.size(), 2u);
}

TEST_F(LyricRows, KanaRowsSuggestTheReadableSpelling) {
  auto rows = check(song(legato({"ぢゃ", "ゐ", "ヶ"}, 480)));
  auto youon = rowsOf(rows, Cat::invalidYouon);
  ASSERT_EQ(youon.size(), 1u);
  EXPECT_EQ(youon[0].suggestions[0].action, SuggestionAction(S::SetLyric{"じゃ"}));
  EXPECT_EQ(youon[0].suggestions[1].action, SuggestionAction(S::SetLyric{"ぢや"}));
  auto kana = rowsOf(rows, Cat::unreadableKana);
  ASSERT_EQ(kana.size(), 2u);
  EXPECT_EQ(kana[0].suggestions.at(0).action, SuggestionAction(S::SetLyric{"い"}));
  // ヶ alone cannot be read at all: the gate's error row comes with it.
  auto unread = rowsOf(rows, Cat::invalidLyricChars);
  ASSERT_EQ(unread.size(), 1u);
  EXPECT_EQ(unread[0].message, "NEUTRINO が読めない歌詞「ヶ」");
}

TEST_F(LyricRows, ClassRowsForMarksDigitsAndInvisibleCharacters) {
  auto rows = check(song(legato({"あ強", "1", "か\u200Bき", "\u200B"}, 480)));
  auto utau = rowsOf(rows, Cat::utauResidue);
  ASSERT_EQ(utau.size(), 1u);
  EXPECT_EQ(utau[0].severity, Sev::warning);
  EXPECT_EQ(utau[0].suggestions.at(0).action, SuggestionAction(S::SetLyric{"あ"}));
  auto digits = rowsOf(rows, Cat::mixedDigits);
  ASSERT_EQ(digits.size(), 1u);
  EXPECT_EQ(digits[0].severity, Sev::error);
  auto invisible = rowsOf(rows, Cat::emojiControl);
  ASSERT_EQ(invisible.size(), 2u);
  EXPECT_EQ(invisible[0].severity, Sev::warning);
  EXPECT_EQ(invisible[0].message, "歌詞「か<U+200B>き」に見えない制御文字");
  EXPECT_EQ(invisible[1].severity, Sev::error);  // nothing left to sing
  // The invisible scalar is not also reported as a foreign character; the digit, which the
  // engine cannot read at all, is also named as unreadable.
  auto unreadable = rowsOf(rows, Cat::invalidLyricChars);
  ASSERT_EQ(unreadable.size(), 1u);
  EXPECT_EQ(unreadable[0].message, "NEUTRINO が読めない歌詞「1」");
}

TEST_F(LyricRows, PhonemeLyricsAreOneTrackRow) {
  auto notes = legato({"k a", "s a", "x q"}, 480);
  for (auto& n : notes) n.sourcePhonemes = n.lyric;
  auto d = song(notes);
  auto rows = check(d);
  auto typed = rowsOf(rows, Cat::invalidLyricChars);
  ASSERT_EQ(typed.size(), 1u);
  EXPECT_EQ(typed[0].message, "1トラック：音素で書かれた歌詞が 3 音あります（例「k a」）");
  S::SetLyrics fix{{{notes[0].id, "か"}, {notes[1].id, "さ"}}};
  EXPECT_EQ(typed[0].suggestions.at(0).action, SuggestionAction(fix));
  EXPECT_EQ(typed[0].suggestions.at(1).action, SuggestionAction(S::RemoveNotes{{notes[2].id}}));
  // No per-note lyric rows for the notes of the track row.
  EXPECT_TRUE(rowsOf(rows, Cat::mixedDigits).empty());
}

}  // namespace
}  // namespace melvo
