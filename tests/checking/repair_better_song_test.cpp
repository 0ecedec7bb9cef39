// Small songs, one per way a repair once made the song worse: after each repair or clean-up
// the engine must refuse nothing it accepted before, and no note may lose what it carried.
#include <gtest/gtest.h>

#include <algorithm>

#include "checking/score_validator_support.h"
#include "melvo/checking/cleanup_engine.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/checking/synthesis_gate.h"

namespace melvo {
namespace {

using test::legato;
using test::note;
using test::song;
using Cat = ValidationIssue::Category;

std::vector<std::string> lyrics(const MusicDocument& d, int track = 0) {
  std::vector<std::string> out;
  for (const auto& n : d.tracks[static_cast<std::size_t>(track)].notes) out.push_back(n.lyric);
  return out;
}

std::size_t errorRows(const MusicDocument& d) {
  std::size_t n = 0;
  for (const auto& r : test::check(d)) n += r.severity == ValidationIssue::Severity::error;
  return n;
}

// The tracks a render sings: the voiced ones.
std::vector<Uuid> voiced(const MusicDocument& d) {
  std::vector<Uuid> out;
  for (int i : d.voicedTrackIndices(false)) out.push_back(d.tracks[static_cast<std::size_t>(i)].id);
  return out;
}

// Every repair of every row of `category`: no new error row, no new refusal; with `clears`,
// every repair that changes the song leaves fewer refusals than before.
void expectEveryRepairKeepsItSingable(const MusicDocument& d, Cat category, bool clears = false) {
  const auto rows = test::rowsOf(test::check(d), category);
  ASSERT_FALSE(rows.empty());
  for (const auto& row : rows)
    for (const auto& sug : row.suggestions) {
      SCOPED_TRACE(row.message + " / " + sug.label);
      const MusicDocument after = applySuggestion(d, row, sug).document;
      EXPECT_LE(errorRows(after), errorRows(d));
      const auto was = SynthesisGate::problems(d, voiced(d)).size();
      const auto now = SynthesisGate::problems(after, voiced(after)).size();
      EXPECT_LE(now, was);
      if (clears && sug.action.changesSong()) {
        EXPECT_LT(now, was);
      }
    }
}

class BetterSong : public ::testing::Test {
 protected:
  test::JapaneseTexts japanese;
};

// ゝ, ゞ and ヶ lean on the kana before them: cut off on a note of their own they are
// unreadable, so a lyric holding one is never split.
TEST_F(BetterSong, IterationMarksStayWithTheirKana) {
  const auto d = song(legato({"あゝ", "かゞ", "こヶ"}, 480));
  ASSERT_TRUE(SynthesisGate::problems(d, {}).empty());
  const auto r = runCleanup(d, {}, {});
  EXPECT_EQ(lyrics(r.document), lyrics(d));
  EXPECT_TRUE(SynthesisGate::problems(r.document, {}).empty());
  for (const auto& row : test::rowsOf(test::check(d), Cat::multiSyllable))
    ADD_FAILURE() << "split offered: " << row.message;
}

// The accompaniment moved out of a chord is not sung: its new track has no voice.
TEST_F(BetterSong, ChordAccompanimentGoesToATrackWithoutVoice) {
  auto d = song({note(0, 480, "か", 60), note(0, 480, "", 64), note(480, 480, "き", 62)});
  d.tracks[0].characterName = "V";
  expectEveryRepairKeepsItSingable(d, Cat::chordAtSameTick);
  const auto row = test::rowsOf(test::check(d), Cat::chordAtSameTick).at(0);
  const auto moved = applySuggestion(d, row, row.suggestions.back()).document;
  ASSERT_EQ(moved.tracks.size(), 2u);
  EXPECT_TRUE(moved.tracks[1].characterName.empty());
  EXPECT_EQ(moved.tracks[1].notes.size(), 1u);
}

// ー after a rest that follows a lone っ: joining it to the っ would give っ then ー at the
// head of a phrase, which the engine refuses as well.
TEST_F(BetterSong, ChouonIsNotJoinedToAStrandedSokuon) {
  const auto d = song({note(0, 480, "っ"), note(600, 480, "ー"), note(1440, 480, "か")});
  expectEveryRepairKeepsItSingable(d, Cat::standaloneSpecial, true);
  // An empty note there is no better place for ー either.
  expectEveryRepairKeepsItSingable(song({note(0, 480, "っ"), note(480, 480, "")}), Cat::emptyLyric,
                                   true);
}

// A lone ゃゅょ joins the note before only when it touches it and makes a pair of the table.
TEST_F(BetterSong, LoneYouonJoinsOnlyATouchingKanaItPairsWith) {
  auto r = runCleanup(song({note(0, 480, "か"), note(960, 480, "ゅ")}), {}, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"か", "ゅ"}));
  EXPECT_TRUE(test::rowsOf(test::check(r.document), Cat::invalidYouon).empty());
  r = runCleanup(song(legato({"か", "ゅ"}, 480)), {}, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"か", "ゅ"}));
  r = runCleanup(song({note(0, 480, "き"), note(700, 480, "ょ")}), {}, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"き", "ょ"}));
}

// A run of very short notes is merged whole or not at all.
TEST_F(BetterSong, VeryShortRunOverEightPhonemesStaysApart) {
  CleanupOptions o;
  o.multiSyllable = false;
  const auto r = runCleanup(song(legato({"あい", "かかか", "か"}, 10)), o, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"あい", "かかか", "か"}));
}

// A split copies the note's values onto every part; breath and slur come after the last.
TEST_F(BetterSong, SplitKeepsVelocityAndMovesBreathAndSlurToTheEnd) {
  auto d = song({note(0, 960, "かき"), note(960, 480, "く")});
  NoteEvent& n = d.tracks[0].notes.mutableAt(0);
  n.velocity = 70;
  n.hasBreathAfter = true;
  n.slurToNext = true;
  auto expectParts = [](const MusicDocument& out) {
    const auto& notes = out.tracks[0].notes;
    ASSERT_EQ(notes.size(), 3u);
    EXPECT_EQ(notes[0].velocity, 70);
    EXPECT_EQ(notes[1].velocity, 70);
    EXPECT_FALSE(notes[0].hasBreathAfter);
    EXPECT_FALSE(notes[0].slurToNext);
    EXPECT_TRUE(notes[1].hasBreathAfter);
    EXPECT_TRUE(notes[1].slurToNext);
  };
  expectParts(runCleanup(d, {}, {}).document);
  const auto row = test::rowsOf(test::check(d), Cat::multiSyllable).at(0);
  expectParts(applySuggestion(d, row, row.suggestions.at(0)).document);
}

// ー inside a lyric holds the vowel and ヶ stays as typed: only katakana letters turn.
TEST_F(BetterSong, KatakanaPassLeavesChouonAndSmallKe) {
  const auto r = runCleanup(song(legato({"かー", "カー", "ヶ", "ヴァ"}, 480)), {}, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"かー", "かー", "ヶ", "ゔぁ"}));
}

TEST_F(BetterSong, ChouonRunAfterAVowelTakesTheVowel) {
  const auto r = runCleanup(song(legato({"か", "ーー"}, 480)), {}, {});
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"か", "あ"}));
}

// Labels count what they change, in both languages.
TEST(RepairLabels, CountsAreReadBeforeTheRepairIsBuilt) {
  test::JapaneseTexts japanese;
  auto d = song(legato({"k a", "s a"}, 480));
  for (std::size_t i = 0; i < 2; ++i) {
    NoteEvent& n = d.tracks[0].notes.mutableAt(i);
    n.sourcePhonemes = n.lyric;
  }
  const auto row = test::rowsOf(test::check(d), Cat::invalidLyricChars).at(0);
  EXPECT_NE(row.suggestions.at(0).label.find("2 音を直す"), std::string::npos)
      << row.suggestions[0].label;
}

TEST(RepairLabels, EnglishChordRowReadsForOneOtherNote) {
  auto d = song({note(0, 480, "か", 60), note(0, 480, "", 64)});
  const auto row = test::rowsOf(test::check(d), Cat::chordAtSameTick).at(0);
  EXPECT_EQ(row.message.find("1 notes"), std::string::npos) << row.message;
}

// A slur from あ to あ already holds the vowel: nothing to repair.
TEST_F(BetterSong, SlurredVowelIntoTheSameVowelIsNoDuplicate) {
  auto d = song(legato({"あ", "あ", "か", "か"}, 480));
  d.tracks[0].notes.mutableAt(0).slurToNext = true;
  d.tracks[0].notes.mutableAt(2).slurToNext = true;
  const auto rows = test::rowsOf(test::check(d), Cat::tieLyricDup);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].noteID, d.tracks[0].notes[3].id);
}

// An unreadable lyric is named as such even when its characters have a row of their own.
TEST_F(BetterSong, UnreadableLyricRowStandsBesideTheCharacterRow) {
  const auto rows = test::check(song(legato({"abc"}, 480)));
  EXPECT_EQ(test::rowsOf(rows, Cat::mixedDigits).size(), 1u);
  EXPECT_EQ(test::rowsOf(rows, Cat::invalidLyricChars).size(), 1u);
}

// The refusal lists the lyrics the engine stops on first, then the pitches.
TEST_F(BetterSong, GateListsLyricKindsBeforeLowPitches) {
  const auto d = song({note(0, 480, "か", 20), note(960, 480, "ー", 60)});
  const auto problems = SynthesisGate::problems(d, {});
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].kind, SynthesisGate::Kind::macronAfterRest);
  EXPECT_EQ(problems[1].kind, SynthesisGate::Kind::pitchTooLow);
}

// A chord note that is never written cannot overlap anything.
TEST_F(BetterSong, UnsungChordNoteGivesNoOverlapRow) {
  const auto d = song({note(0, 480, "か", 60), note(0, 960, "", 64), note(480, 480, "き", 62)});
  EXPECT_TRUE(test::rowsOf(test::check(d), Cat::polyphony).empty());
  EXPECT_TRUE(test::rowsOf(test::check(d), Cat::noteOverlap).empty());
}

TEST(VoiceRangeFile, ByteOrderMarkIsRead) {
  const auto r = VoiceRange::fromInfoToml(
      "\xEF\xBB\xBF"
      "bottom_key = \"C3\"\ntop_key = \"C5\"\n",
      "V");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->low, 48);
  EXPECT_EQ(r->high, 72);
}

}  // namespace
}  // namespace melvo
