// The score check's timing, song-wide and track-wide rules, and what makes its list stable.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

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

class Rules : public ::testing::Test {
  test::JapaneseTexts ja;
};

TEST_F(Rules, AllTracksMutedGivesOneWarningAndNoNoteRows) {
  auto d = song(legato({"！", "", "ヶ"}, 7));
  d.tracks.push_back(d.tracks[0]);
  d.tracks[1].id = Uuid::random();
  for (auto& t : d.tracks) t.isMuted = true;
  auto rows = check(d);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].category, Cat::allTracksMuted);
  EXPECT_EQ(rows[0].severity, Sev::warning);
  EXPECT_TRUE(rows[0].wholeSong);

  // Unmuted but empty: nothing to sing is an error.
  MusicDocument empty;
  auto none = check(empty);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(none[0].category, Cat::noSungNotes);
  EXPECT_EQ(none[0].severity, Sev::error);
}

// Errors of a track that the render leaves out become warnings that say what would happen.
TEST_F(Rules, UnsungTracksAreSoftenedAndMutedTracksSkipped) {
  MusicDocument d = song(legato({"か", "さ"}, 480));
  d.tracks[0].characterName = "voice";
  MusicTrack unsung;
  unsung.notes = NoteList(legato({"！"}, 480));
  MusicTrack muted = unsung;
  muted.id = Uuid::random();
  muted.isMuted = true;
  d.tracks.push_back(unsung);
  d.tracks.push_back(muted);

  auto rows = check(d, {d.tracks[0].id});
  for (const auto& r : rows) EXPECT_NE(r.trackIndex, 2) << r.message;
  auto symbols = rowsOf(rows, Cat::symbols);
  ASSERT_EQ(symbols.size(), 1u);
  EXPECT_EQ(symbols[0].trackIndex, 1);
  EXPECT_EQ(symbols[0].severity, Sev::warning);
  const std::string& detail = *symbols[0].detail;
  EXPECT_EQ(detail.rfind("このトラックは合成しません（合成するのは声の付いたトラックです）。", 0),
            0u);
  EXPECT_NE(
      detail.find("合成に使う時は、NEUTRINO はこの歌詞を読めないため、曲全体が歌えなくなります。"),
      std::string::npos);
  EXPECT_EQ(detail.find("1音でもあると曲全体が失敗します"), std::string::npos);

  // With no sung set the selected track is sung, and the other wording says so.
  ValidatorOptions options;
  options.selectedTrack = 0;
  auto selected = rowsOf(validate(d, {}, {}, {}, options), Cat::symbols);
  ASSERT_EQ(selected.size(), 1u);
  EXPECT_EQ(selected[0].detail->rfind("このトラックは今は合成しません", 0), 0u);
  options.selectedTrack = 1;
  EXPECT_EQ(rowsOf(validate(d, {}, {}, {}, options), Cat::symbols)[0].severity, Sev::error);
}

// An importer's error about a track that won't be sung is softened the same way.
TEST_F(Rules, NoticeRowsOfUnsungTracksAreSoftenedToo) {
  static const ImportNoticeKind kFatal{
      "testFatal", Sev::error, NoticeHandling::kept, Cat::importNotice, "%d", nullptr, {}};
  MusicDocument d = song(legato({"か", "さ"}, 480));
  d.tracks[0].characterName = "voice";
  MusicTrack other;
  other.notes = NoteList(legato({"た"}, 480));
  d.tracks.push_back(other);
  d.addNotice(kFatal, 0, std::nullopt, 0);
  d.addNotice(kFatal, 1, std::nullopt, 0);
  auto rows = rowsOf(check(d, {d.tracks[0].id}), Cat::importNotice);
  ASSERT_EQ(rows.size(), 2u);
  for (const auto& r : rows) {
    EXPECT_EQ(r.severity, r.trackIndex == 1 ? Sev::warning : Sev::error) << r.trackIndex;
  }
}

TEST_F(Rules, ShortRestThresholdIsASixteenth) {
  auto gapRows = [](std::int64_t gap) {
    return rowsOf(check(song({note(0, 480, "か"), note(480 + gap, 480, "さ")})),
                  Cat::shortRestBefore);
  };
  EXPECT_TRUE(gapRows(0).empty());
  auto at = gapRows(120);
  ASSERT_EQ(at.size(), 1u);
  EXPECT_EQ(at[0].severity, Sev::info);
  EXPECT_EQ(at[0].message, "直前に短い休符（16分音符・120tk）");
  // Longer than a 32nd: っ and a breath are offered after closing the gap.
  ASSERT_EQ(at[0].suggestions.size(), 3u);
  EXPECT_TRUE(std::holds_alternative<S::PrependSokuon>(at[0].suggestions[1].action.v));
  EXPECT_TRUE(gapRows(121).empty());
  auto tiny = gapRows(2);
  ASSERT_EQ(tiny.size(), 1u);
  EXPECT_EQ(tiny[0].suggestions.size(), 2u);
}

// 120 bpm, ppq 480: eight seconds are 7680 ticks.
TEST_F(Rules, PhraseOfExactlyEightSecondsIsFine) {
  EXPECT_TRUE(
      rowsOf(check(song(legato({"か", "さ", "た", "な"}, 1920))), Cat::phraseTooLong).empty());
  auto longer = song(legato({"か", "さ", "た", "な"}, 1920));
  longer.tracks[0].notes.mutableAt(3).duration = 1921;
  auto rows = rowsOf(check(longer), Cat::phraseTooLong);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].message, "長いフレーズ（8.0秒）");
  EXPECT_EQ(rows[0].endTick, 7681);
  // A breath ends the phrase.
  longer.tracks[0].notes.mutableAt(1).hasBreathAfter = true;
  EXPECT_TRUE(rowsOf(check(longer), Cat::phraseTooLong).empty());
}

TEST_F(Rules, TempoAndMeterMaps) {
  auto d = song(legato({"か"}, 480));
  d.tempoMap = {{0, 1}, {480, 1000}, {960, 0.5}, {1440, 1000.5}, {1920, 120}, {1920, 90}};
  d.timeSignatures = {{0, 4, 4}, {1920, 3, 3}, {3840, 3, 4}, {3840, 6, 8}};
  auto tempo = rowsOf(check(d), Cat::tempoIssue);
  ASSERT_EQ(tempo.size(), 3u);
  EXPECT_EQ(tempo[0].message, "異常なテンポ (0.5 BPM)");
  EXPECT_EQ(tempo[1].message, "異常なテンポ (1000.5 BPM)");
  EXPECT_EQ(tempo[2].message, "同じ位置にテンポが重複");
  EXPECT_NE(tempo[2].detail->find("2 個のテンポ（120・90）があります。今は最後の ♩=90 で"),
            std::string::npos);
  auto meters = rowsOf(check(d), Cat::timeSigIssue);
  ASSERT_EQ(meters.size(), 2u);
  EXPECT_EQ(meters[0].message, "不正な拍子 (3/3)");
  EXPECT_NE(meters[1].detail->find("今は最後の 6/8 で"), std::string::npos);
}

TEST_F(Rules, VeryShortFollowsPpq) {
  // Below 16 ticks a quarter, a 64th is one tick: only a zero length is very short.
  auto coarse = song({note(0, 8, "か"), note(8, 1, "さ"), note(16, 8, "た")}, 8);
  coarse.tracks[0].notes.mutableAt(1).duration = 0;
  auto rows = rowsOf(check(coarse), Cat::zeroLength);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].noteID, coarse.tracks[0].notes[1].id);
  coarse.tracks[0].notes.mutableAt(1).duration = 1;
  EXPECT_TRUE(rowsOf(check(coarse), Cat::zeroLength).empty());

  // A run of short notes is one row with their times, and can be merged.
  auto run =
      song({note(0, 480, "か"), note(480, 10, "さ"), note(490, 10, "た"), note(1920, 480, "な")});
  auto runRows = rowsOf(check(run), Cat::zeroLength);
  ASSERT_EQ(runRows.size(), 1u);
  EXPECT_NE(runRows[0].message.find("から 2 音は、1音が 10〜10ms しかありません"),
            std::string::npos);
  EXPECT_EQ(runRows[0].suggestions.at(0).label, "まとめて1音にする（2 音 ⇒ 1音）");
}

TEST_F(Rules, ChordsRangeAndOverlap) {
  auto d = song({note(0, 480, "", 64), note(0, 480, "か", 60), note(0, 480, "", 67),
                 note(480, 600, "さ", 20), note(960, 480, "た", 90)});
  auto rows = check(d);
  auto chords = rowsOf(rows, Cat::chordAtSameTick);
  ASSERT_EQ(chords.size(), 1u);
  EXPECT_EQ(chords[0].noteID, d.tracks[0].notes[1].id);
  EXPECT_NE(chords[0].message.find("歌詞「か」の付いた C4 を歌います。ほかの 2 音は歌いません。"),
            std::string::npos);
  EXPECT_EQ(chords[0].suggestions.back().action,
            SuggestionAction(S::MoveNotesToNewTrack{
                {d.tracks[0].notes[0].id, d.tracks[0].notes[2].id}, "伴奏（和音から移した音）"}));

  auto range = rowsOf(rows, Cat::outOfRange);
  ASSERT_EQ(range.size(), 2u);
  EXPECT_EQ(range[0].severity, Sev::error);    // 20 stops the engine
  EXPECT_EQ(range[1].severity, Sev::warning);  // 90 is above C6
  EXPECT_NE(range[1].message.find("歌声音域 C2..C6 の外の音が 1 音"), std::string::npos);
  // The voice's own range replaces the fixed one.
  std::unordered_map<Uuid, VoiceRange::Range> ranges{{d.tracks[0].id, {40, 96, "Voice", true}}};
  auto model = rowsOf(validate(d, {}, ranges), Cat::outOfRange);
  ASSERT_EQ(model.size(), 1u);

  auto overlap = rowsOf(rows, Cat::polyphony);
  ASSERT_EQ(overlap.size(), 1u);
  EXPECT_EQ(overlap[0].message, "高さの違う音符が重なっています (G#0↔F#6)");
  EXPECT_EQ(overlap[0].suggestions[0].action,
            SuggestionAction(S::SetTiming{{{d.tracks[0].notes[3].id, 480, 480}}}));
}

// A whole-track move that pushes a note below what the engine sings would trade warnings for
// a refused render; it is not offered, however many notes it brings into range.
TEST_F(Rules, OctaveMovesNeverPushANoteBelowTheEnginesFloor) {
  auto d = song({note(0, 480, "か", 30), note(960, 480, "さ", 90), note(1920, 480, "た", 92)});
  auto range = rowsOf(check(d), Cat::outOfRange);
  ASSERT_EQ(range.size(), 1u);
  std::vector<std::string> labels;
  for (const auto& s : range[0].suggestions) labels.push_back(s.label);
  EXPECT_THAT(
      labels,
      ::testing::Not(::testing::Contains(::testing::HasSubstr("トラックごとオクターブ下げる"))));
  EXPECT_THAT(labels, ::testing::Contains(
                          ::testing::HasSubstr("トラックごとオクターブ上げる（外れる音 3 → 2）")));
}

TEST_F(Rules, NoticesBecomeRowsWhileTheirNotesStand) {
  auto d = song(legato({"か", "さ"}, 480));
  const Uuid first = d.tracks[0].notes[0].id, second = d.tracks[0].notes[1].id;
  d.addNotice(notice_kinds::fermata, 0, first, 0);
  d.addNotice(notice_kinds::fermata, 0, second, 480);
  sealNotices(d);
  auto rows = rowsOf(check(d), Cat::decoration);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].noticeID, d.importNotices[0].id);
  EXPECT_EQ(rows[0].jumpPlaces.size(), 2u);
  d.tracks[0].notes.mutableAt(0).pitch = 62;  // the user dealt with one place
  rows = rowsOf(check(d), Cat::decoration);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].jumpPlaces.size(), 1u);
  d.tracks[0].notes.mutableAt(1).pitch = 62;
  EXPECT_TRUE(rowsOf(check(d), Cat::decoration).empty());
}

// The same song gives the same rows, whatever order its notes are stored in.
TEST_F(Rules, SameSongSameRows) {
  std::mt19937 random(7);
  const std::vector<std::string> lyrics{"か", "きゃ", "ー",   "っ",   "！",
                                        "",   "あ！", "ぢゃ", "かさ", "1"};
  std::vector<NoteEvent> notes;
  std::int64_t tick = 0;
  for (int i = 0; i < 400; ++i) {
    std::int64_t length = std::uniform_int_distribution<int>(1, 960)(random);
    notes.push_back(note(tick, length, lyrics[random() % lyrics.size()],
                         std::uniform_int_distribution<int>(18, 100)(random)));
    if (random() % 9 == 0) notes.push_back(note(tick, length, "", 50));  // a chord
    tick += length + std::uniform_int_distribution<int>(-20, 60)(random);
    tick = std::max<std::int64_t>(tick, notes.back().tick + 1);
  }
  auto strip = [](std::vector<ValidationIssue> rows) {
    for (auto& r : rows) r.id = Uuid();
    return rows;
  };
  const auto reference = strip(check(song(notes)));
  EXPECT_GT(reference.size(), 50u);
  // Rows print as bytes; name the first difference instead.
  auto same = [&](const std::vector<ValidationIssue>& rows) -> ::testing::AssertionResult {
    for (std::size_t i = 0; i < std::min(rows.size(), reference.size()); ++i)
      if (!(rows[i] == reference[i]))
        return ::testing::AssertionFailure()
               << "row " << i << ": " << rows[i].message << " / " << reference[i].message;
    if (rows.size() != reference.size()) return ::testing::AssertionFailure() << "count differs";
    return ::testing::AssertionSuccess();
  };
  EXPECT_TRUE(same(strip(check(song(notes)))));
  // Shuffle, keeping notes of one tick in their order (the writer decides by it).
  std::vector<NoteEvent> shuffled = notes;
  std::shuffle(shuffled.begin(), shuffled.end(), random);
  std::map<std::int64_t, std::vector<std::size_t>> slots;
  for (std::size_t i = 0; i < shuffled.size(); ++i) slots[shuffled[i].tick].push_back(i);
  std::map<std::int64_t, std::size_t> used;
  for (const auto& n : notes) shuffled[slots[n.tick][used[n.tick]++]] = n;
  ASSERT_NE(shuffled, notes);
  EXPECT_TRUE(same(strip(check(song(shuffled)))));
  EXPECT_TRUE(std::is_sorted(reference.begin(), reference.end(),
                             [](const auto& a, const auto& b) { return a.tick < b.tick; }));
}

TEST(NoteLengths, LabelsAndStandardLengths) {
  test::JapaneseTexts ja;
  EXPECT_EQ(noteLengthLabel(360, 480), "付点8分音符");
  EXPECT_EQ(noteLengthLabel(1920, 480), "全音符");
  EXPECT_EQ(noteLengthLabel(720, 480), "付点4分音符");
  EXPECT_EQ(noteLengthLabel(44, 480), "0.09拍");
  EXPECT_TRUE(isStandardLength(160, 480));  // a triplet eighth
  EXPECT_TRUE(isStandardLength(121, 480));  // within one tick of the grid
  EXPECT_FALSE(isStandardLength(44, 480));
  auto rows = rowsOf(check(song(legato({"か", "さ"}, 44))), Cat::decoration);
  EXPECT_EQ(rows.size(), 2u);
  std::vector<std::string> places{"a", "b", "c", "d", "e", "f", "g"};
  EXPECT_EQ(joinPlaces(places, 7), "a・b・c・d・e・f・g");
  EXPECT_EQ(joinPlaces(places, 8), "a・b・c・d・e・f・g…");
  EXPECT_EQ(joinPlaces(places, 12), "a・b・c・d・e・f・g…ほか 5 か所");
}

}  // namespace
}  // namespace melvo
