// The gate's reading of a track, its refusal, the engine's log and voice ranges.
#include <gtest/gtest.h>

#include <random>

#include "melvo/checking/synthesis_gate.h"
#include "melvo/model/sung_line.h"
#include "score_validator_support.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using Kind = SynthesisGate::Kind;
using test::note;
using test::song;

std::vector<std::optional<Kind>> kinds(const std::vector<NoteEvent>& notes) {
  NoteList list(notes);
  auto map = SynthesisGate::noteKinds(list);
  std::vector<std::optional<Kind>> out;
  for (const auto& n : notes) {
    auto it = map.find(n.id);
    out.push_back(it == map.end() ? std::nullopt : std::optional<Kind>(it->second));
  }
  return out;
}

TEST(GateReading, ChouonMustFollowItsNoteWithoutAnyRest) {
  EXPECT_EQ(kinds({note(0, 480, "か"), note(481, 480, "ー")})[1], Kind::macronAfterRest);
  EXPECT_EQ(kinds({note(0, 480, "か"), note(480, 480, "ー")})[1], std::nullopt);
  EXPECT_EQ(kinds({note(0, 480, "ー")})[0], Kind::macronAfterRest);
  // After a lyric the engine cannot read, ー fails for the same reason: fixing the lyric
  // before fixes both.
  auto k = kinds({note(0, 480, "ヶ"), note(480, 480, "ー"), note(960, 480, "ー")});
  EXPECT_EQ(k[0], Kind::undefinedLyric);
  EXPECT_EQ(k[1], Kind::macronAfterRest);
  EXPECT_EQ(k[2], Kind::macronAfterRest);
  // Overlapping notes are cut by the score, so the ー follows at once there.
  EXPECT_EQ(kinds({note(0, 600, "か"), note(480, 480, "ー")})[1], std::nullopt);
}

TEST(GateReading, LoneSokuonAtAPhraseHead) {
  EXPECT_EQ(kinds({note(0, 240, "っ"), note(240, 240, "っ")})[1], Kind::afterStrandedSokuon);
  EXPECT_EQ(kinds({note(0, 240, "っ"), note(240, 240, "ー")})[1], Kind::afterStrandedSokuon);
  EXPECT_EQ(kinds({note(0, 240, "っ"), note(240, 240, "か")})[1], std::nullopt);
  EXPECT_EQ(kinds({note(0, 240, "っ"), note(480, 240, "っ")})[1], std::nullopt);
  // Inside a phrase っ has a vowel to hold.
  EXPECT_EQ(kinds({note(0, 240, "か"), note(240, 240, "っ"), note(480, 240, "っ")})[2],
            std::nullopt);
}

TEST(GateReading, PhonemesEmptyLyricsAndChords) {
  auto k = kinds({note(0, 480, "きゃきゃきゃきゃ"), note(480, 480, "きゃきゃきゃきゃあ"),
                  note(960, 480, " ")});
  EXPECT_EQ(k[0], std::nullopt);
  EXPECT_EQ(k[1], Kind::tooManyPhonemes);
  EXPECT_EQ(k[2], Kind::emptyLyric);
  // The note the writer drops at a chord is not read at all.
  auto chord = kinds({note(0, 480, ""), note(0, 480, "か")});
  EXPECT_EQ(chord[0], std::nullopt);
  EXPECT_EQ(chord[1], std::nullopt);
}

// The notes a line sings are the writer's notes, in its order and with its ends.
void expectSungAsWritten(const TrackLine& line, const NoteList& list) {
  const auto written = normalizedNotes(list, 480);
  std::size_t k = 0;
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    ASSERT_LT(k, written.size());
    EXPECT_EQ(line.notes[i]->id, written[k].id);
    EXPECT_EQ(line.ends[i], written[k].endTick());
    ++k;
  }
  EXPECT_EQ(k, written.size());
}

// The gate reads the same line the score writer writes. Songs stored in time order take a walk
// of their own: chords there must still come out in the writer's order (a lyric first, then a
// note that isn't very short, then stored order).
TEST(GateReading, LineMatchesTheWriterOnBothWalks) {
  std::mt19937 random(5);
  const std::vector<std::string> lyrics{"か", "", " ", "ー"};
  std::vector<NoteEvent> notes{note(0, 100, "か")};  // alone at its tick: moved below
  std::int64_t tick = 200;
  for (int i = 0; i < 300; ++i) {
    const int voices = random() % 4 == 0 ? 2 + random() % 3 : 1;
    for (int v = 0; v < voices; ++v)
      notes.push_back(note(tick, random() % 4 == 0 ? 10 : 1 + random() % 500,
                           lyrics[random() % lyrics.size()], 60 + v));
    tick += random() % 3 == 0 ? 0 : 1 + random() % 300;  // some ticks come twice in a row
  }
  NoteList list(notes);
  TrackLine line = TrackLine::of(list, 480);
  ASSERT_EQ(line.ticks.size(), line.notes.size());
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    EXPECT_EQ(line.ticks[i], line.notes[i]->tick);
    EXPECT_EQ(&list[line.storedIndex[i]], line.notes[i]);
  }
  expectSungAsWritten(line, list);

  // The same notes with one stored out of place take the general sort: it too gives the
  // writer's line, and the same one.
  std::vector<NoteEvent> moved = notes;
  std::rotate(moved.begin(), moved.begin() + 1, moved.end());
  const NoteList movedList(moved);
  TrackLine sorted = TrackLine::of(movedList, 480);
  expectSungAsWritten(sorted, movedList);
  ASSERT_EQ(sorted.notes.size(), line.notes.size());
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    EXPECT_EQ(sorted.notes[i]->id, line.notes[i]->id) << i;
    EXPECT_EQ(sorted.ends[i], line.ends[i]) << i;
    EXPECT_EQ(sorted.sung[i], line.sung[i]) << i;
  }
}

TEST(GateProblems, RefusalNamesTheNotes) {
  test::JapaneseTexts ja;
  auto d = song({note(0, 480, "か", 22), note(480, 480, "さ", 23), note(960, 480, "！")});
  auto problems = SynthesisGate::problems(d, {});
  // Lyric kinds first, then the pitches.
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_EQ(problems[0].kind, Kind::undefinedLyric);
  EXPECT_EQ(problems[1].kind, Kind::pitchTooLow);
  EXPECT_EQ(problems[1].text, "音が低すぎて NEUTRINO が止まります（A#0。B0 以上にしてください）");
  EXPECT_EQ(SynthesisGate::refusal(problems),
            "NEUTRINO が歌えない音が 2 "
            "音あります。このまま合成すると曲全体が失敗するため、合成を止めました。");
  problems.pop_back();
  std::string list = SynthesisGate::refusalWithList(problems);
  EXPECT_EQ(list.rfind("NEUTRINO が歌えない歌詞が 1 音あります。", 0), 0u);
  EXPECT_NE(list.find("\nTr.1 1小節目3拍  ！  読めない歌詞\n"), std::string::npos);

  MusicDocument empty;
  auto none = SynthesisGate::problems(empty, {empty.tracks[0].id});
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(none[0].kind, Kind::noSungNotes);
  EXPECT_EQ(SynthesisGate::refusal(none),
            "歌う音がないため、合成を止めました（合成しても何も歌いません）。");
  EXPECT_TRUE(SynthesisGate::problems(song({note(0, 480, "か")}), {}).empty());
}

TEST(GateProblems, NotesPastBarTwoThousand) {
  const std::int64_t bar = 1920;
  auto d = song(
      {note(0, 480, "か"), note(1999 * bar + 960, 2 * bar, "さ"), note(2001 * bar, 480, "た")});
  auto problems = SynthesisGate::problems(d, {});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].kind, Kind::beyondBarLimit);
  EXPECT_EQ(problems[0].noteID, d.tracks[0].notes[1].id);
  EXPECT_FALSE(SynthesisGate::refusal(problems).empty());
  // The loss read off the line is the writer's own report.
  auto report = exportLimitReport(d, 0);
  ASSERT_TRUE(report);
  TrackLine line = TrackLine::of(d.tracks[0].notes, d.ppq);
  auto loss = ceilingLoss(line, scoreCeilingTick(d));
  EXPECT_EQ(scoreCeilingTick(d), report->limitTick);
  ASSERT_EQ(loss.beyond.size(), report->beyond.size());
  ASSERT_EQ(loss.crossing.size(), report->crossing.size());
  EXPECT_EQ(line.notes[loss.beyond[0]]->id, report->beyond[0].id);
  EXPECT_EQ(line.notes[loss.crossing[0]]->id, report->crossing[0].id);
}

// The row jumps to every note the ceiling costs, in time order: crossing ones, then the rest.
TEST(GateProblems, CeilingRowListsTheLostNotesInTimeOrder) {
  const std::int64_t bar = 1920;
  auto d =
      song({note(0, 480, "か"), note(1999 * bar, 480, "い"), note(1999 * bar + 960, 2 * bar, "さ"),
            note(2001 * bar, 480, "た"), note(2001 * bar, 240, ""), note(2003 * bar, 480, "な")});
  auto rows = test::rowsOf(validate(d, {}, {}), ValidationIssue::Category::beyondExportLimit);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].severity, ValidationIssue::Severity::error);
  const auto& notes = d.tracks[0].notes;
  EXPECT_EQ(rows[0].tick, notes[2].tick);
  EXPECT_EQ(rows[0].jumpNoteID, notes[2].id);
  ASSERT_EQ(rows[0].jumpPlaces.size(), 3u);  // the chord's second note is not sung
  EXPECT_EQ(rows[0].jumpPlaces[0].noteID, notes[2].id);
  EXPECT_EQ(rows[0].jumpPlaces[1].noteID, notes[3].id);
  EXPECT_EQ(rows[0].jumpPlaces[2].noteID, notes[5].id);
  EXPECT_EQ(rows[0].jumpPlaces[2].tick, 2003 * bar);
}

TEST(GateLog, BothLanguagesAndTheAddedRestBar) {
  auto english = SynthesisGate::parseLog({"Error: Undefined lyric `ぴゃ` in measure 5", "done"});
  ASSERT_EQ(english.hits.size(), 1u);
  EXPECT_EQ(english.hits[0], (SynthesisGate::LogHit{5, "ぴゃ"}));
  EXPECT_FALSE(english.restAdded);
  auto japanese = SynthesisGate::parseLog(
      {"Added a rest to the first measure", "5小節目に未定義の歌詞「ぴゃ」があります"});
  ASSERT_EQ(japanese.hits.size(), 1u);
  EXPECT_EQ(japanese.hits[0], (SynthesisGate::LogHit{5, "ぴゃ"}));
  EXPECT_TRUE(japanese.restAdded);
  auto bare = SynthesisGate::parseLog({"something odd in measure 12", "3 小節目で停止"});
  ASSERT_EQ(bare.hits.size(), 2u);
  EXPECT_EQ(bare.hits[0], (SynthesisGate::LogHit{12, std::nullopt}));
  EXPECT_EQ(bare.hits[1], (SynthesisGate::LogHit{3, std::nullopt}));

  // Bar 5 holds か then ぴゃ; bar 4 holds さ.
  auto d = song(
      {note(3 * 1920, 480, "さ"), note(4 * 1920, 480, "か"), note(4 * 1920 + 480, 480, "ぴゃ")});
  const auto& notes = d.tracks[0].notes;
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, english.hits[0], false), notes[2].id);
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, {5, std::nullopt}, false), notes[1].id);
  // The engine counted its added rest bar: its bar 5 is our bar 4.
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, japanese.hits[0], true), notes[0].id);
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, {1, std::nullopt}, true), std::nullopt);
}

// The stand-in engine's own lines: the added rest bar, then the note it stopped on. In a bar
// with two ー the hit is the one the engine cannot read (after a rest), and a pitch it names
// picks the note of that pitch rather than the bar's first.
TEST(GateLog, StandInLinesPointAtTheNoteThatFailed) {
  const auto log = SynthesisGate::parseLog({"Added a rest to the first measure",
                                            "Undefined lyric `ー` in measure 3",
                                            "Error: note pitch 20 is out of range in measure 3"});
  ASSERT_TRUE(log.restAdded);
  ASSERT_EQ(log.hits.size(), 2u);
  EXPECT_EQ(log.hits[1], (SynthesisGate::LogHit{3, std::nullopt, 20}));
  auto d = song({note(1920, 480, "か"), note(2400, 480, "ー"), note(3360, 480, "ー"),
                 note(3840, 480, "さ", 20)});
  const auto& notes = d.tracks[0].notes;
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, log.hits[0], true), notes[2].id);
  // No note of that pitch in the bar: its first note.
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, log.hits[1], true), notes[0].id);
  EXPECT_EQ(SynthesisGate::noteForLogHit(d, 0, {4, std::nullopt, 20}, true), notes[3].id);
}

TEST(GateVoices, RangeFromTheModelWithFallbackAndCache) {
  test::TempDir engine;
  std::filesystem::create_directories(engine.path() / "model" / "A");
  test::writeText(engine.path() / "model" / "A" / "info.toml",
                  "name = \"A\"\nbottom_key = \"F#2\"\r\ntop_key = 'Bb5' # highest\n");
  std::filesystem::create_directories(engine.path() / "model" / "B");
  test::writeText(engine.path() / "model" / "B" / "info.toml", "bottom_key = \"C3\"\n");
  SynthesisGate::clearVoiceRangeCache();
  auto a = SynthesisGate::voiceRange(engine.path(), "A");
  ASSERT_TRUE(a);
  EXPECT_EQ(*a, (VoiceRange::Range{42, 82, "A", true}));
  EXPECT_FALSE(SynthesisGate::voiceRange(engine.path(), "B"));  // a key is missing
  EXPECT_FALSE(SynthesisGate::voiceRange(engine.path(), "C"));  // no model
  // Read once per voice.
  std::filesystem::remove(engine.path() / "model" / "A" / "info.toml");
  EXPECT_TRUE(SynthesisGate::voiceRange(engine.path(), "A"));
  SynthesisGate::clearVoiceRangeCache();
  EXPECT_FALSE(SynthesisGate::voiceRange(engine.path(), "A"));

  EXPECT_EQ(VoiceRange::pitchFromNoteName("C4"), 60);
  EXPECT_EQ(VoiceRange::pitchFromNoteName("C-1"), 0);
  EXPECT_EQ(VoiceRange::pitchFromNoteName("d♭3"), 49);
  EXPECT_EQ(VoiceRange::pitchFromNoteName("H2"), std::nullopt);
  EXPECT_EQ(VoiceRange::pitchFromNoteName("G9"), 127);
  EXPECT_EQ(VoiceRange::pitchFromNoteName("A9"), std::nullopt);
}

}  // namespace
}  // namespace melvo
