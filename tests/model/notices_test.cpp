#include <gtest/gtest.h>

#include "melvo/model/music_document.h"

namespace melvo {
namespace {

using S = ValidationIssue::Suggestion;

struct NoticeFixture : ::testing::Test {
  MusicDocument doc;
  Uuid a = Uuid::random(), b = Uuid::random();
  void SetUp() override {
    doc.tracks[0].notes.assign(
        {NoteEvent::make(a, 0, 480, 60, 100, "ア"), NoteEvent::make(b, 480, 480, 62, 100, "い")});
  }
  NoticeLiveness live(std::size_t i = 0) { return liveness(doc.importNotices[i], notesByID(doc)); }
  NoteEvent& noteA() { return doc.tracks[0].notes.mutableAt(0); }
};

TEST_F(NoticeFixture, SameKeyAndTrackMergeOtherTrackDoesNot) {
  doc.addNotice(notice_kinds::twoLyricsOnOneNote, 0, a, 0, "ア", {}, 1);
  doc.addNotice(notice_kinds::twoLyricsOnOneNote, 0, b, 480, std::nullopt, {}, 2);
  doc.addNotice(notice_kinds::twoLyricsOnOneNote, 1, b, 480);
  doc.addNotice(notice_kinds::fermata, 0, a, 0);
  ASSERT_EQ(doc.importNotices.size(), 3u);
  EXPECT_EQ(doc.importNotices[0].places.size(), 2u);
  EXPECT_EQ(doc.importNotices[0].count, 3);
  EXPECT_EQ(doc.importNotices[1].trackIndex, 1);
  EXPECT_EQ(doc.importNotices[2].kind->key, std::string("fermata"));
  Uuid second = doc.importNotices[1].id;
  doc.removeNotice(doc.importNotices[0].id);
  ASSERT_EQ(doc.importNotices.size(), 2u);
  EXPECT_EQ(doc.importNotices[0].id, second);
}

TEST_F(NoticeFixture, UnsealedNoticesAreFullyLive) {
  doc.addNotice(notice_kinds::twoLyricsOnOneNote, 0, a, 0);
  noteA().pitch = 70;
  EXPECT_EQ(live().placeStillMeant, std::vector<bool>{true});
}

TEST_F(NoticeFixture, ScriptChangeKeepsALyricSensitivePlaceARealEditRetiresIt) {
  doc.addNotice(notice_kinds::twoLyricsOnOneNote, 0, a, 0);
  sealNotices(doc);
  EXPECT_EQ(doc.importNotices[0].sealed.at(a).lyric, "あ");
  noteA().lyric = " あ";
  EXPECT_TRUE(live().placeStillMeant[0]);
  noteA().lyric = "か\u3099";  // composes to が: an edit
  EXPECT_FALSE(live().placeStillMeant[0]);
  noteA().lyric = "ア";  // undo brings it back: liveness is judged against current notes
  EXPECT_TRUE(live().placeStillMeant[0]);
  // A spacing voiced mark typed after the kana spells the same sound as the composed letter.
  noteA().lyric = "が";
  doc.addNotice(notice_kinds::elision, 0, a, 0);
  sealNotices(doc);  // seals only the new notice
  noteA().lyric = "カ゛";
  EXPECT_TRUE(live(1).placeStillMeant[0]);
  EXPECT_EQ(canonicalSealLyric("ハ゜"), "ぱ");
}

// Over the whole catalogue: a move retires any place, a lyric edit only a lyric-sensitive one,
// and never one of the always-kept set.
TEST_F(NoticeFixture, EveryKindIsRetiredByAMoveAndByALyricEditOnlyWhenItsSetSaysSo) {
  int alwaysKept = 0, round = 0;
  for (const ImportNoticeKind* kind : allNoticeKinds()) {
    SCOPED_TRACE(kind->key);
    doc.importNotices.clear();
    noteA() = NoteEvent::make(a, 0, 480, 60, 100, "ア");
    doc.addNotice(*kind, 0, a, 0);
    sealNotices(doc);
    noteA().lyric = "い";
    const bool keptThroughLyricEdit = live().placeStillMeant[0];
    if (isAlwaysKeptNotice(kind->key)) {
      ++alwaysKept;
      EXPECT_TRUE(keptThroughLyricEdit);
    } else {
      EXPECT_EQ(keptThroughLyricEdit, !isLyricSensitiveNotice(kind->key));
    }
    noteA().lyric = "ア";
    ASSERT_TRUE(live().placeStillMeant[0]);
    // Each of place, length and pitch counts as a move.
    switch (round++ % 3) {
      case 0:
        noteA().tick = 10;
        break;
      case 1:
        noteA().duration = 240;
        break;
      default:
        noteA().pitch = 61;
    }
    EXPECT_FALSE(live().placeStillMeant[0]);
  }
  EXPECT_EQ(alwaysKept, 14);
  // A note that is gone counts as changed, whatever the kind.
  noteA() = NoteEvent::make(a, 0, 480, 60, 100, "ア");
  ASSERT_TRUE(live().placeStillMeant[0]);
  doc.tracks[0].notes.erase(0);
  EXPECT_FALSE(live().placeStillMeant[0]);
}

TEST_F(NoticeFixture, FixesDieWhenANamedNoteMovesAndPlacesWithoutNoteStayLive) {
  std::vector<std::vector<SuggestionAction>> fixes{{S::RemoveNotes{{b}}}};
  doc.addNotice(notice_kinds::midiOrnamentNotes, 0, a, 0, std::nullopt, fixes);
  doc.addNotice(notice_kinds::midiOrnamentNotes, 0, std::nullopt, 960);
  sealNotices(doc);
  auto l = live();
  EXPECT_EQ(l.fixesStillValid, (std::vector<bool>{true, true}));
  doc.tracks[0].notes.mutableAt(1).tick = 500;
  l = live();
  EXPECT_EQ(l.placeStillMeant, (std::vector<bool>{true, true}));
  EXPECT_EQ(l.fixesStillValid, (std::vector<bool>{false, true}));
  EXPECT_EQ(doc.importNotices[0].noteIDs(), (std::set<Uuid>{a, b}));
}

TEST(NoticeActions, ShiftFixesMovesLaterTicksRecursivelyAndSaturates) {
  Uuid n = Uuid::random();
  SuggestionAction seq = S::Sequence{{
      S::SetTiming{{{n, 100, 10}, {n, 5, 10}}},
      S::Sequence{{S::InsertTime{200, 50}, S::SetTimeSignature{0, 3, 4}}},
      S::SetTempos{50, 300, {{60, 90}}},
      S::AddNotes{0, {{maxTick - 1, 10, 60, "あ"}}},
  }};
  auto shifted = std::get<S::Sequence>(shiftFixes(seq, 50, 100).v);
  EXPECT_EQ(std::get<S::SetTiming>(shifted.actions[0].v).edits[0].tick, 200);
  EXPECT_EQ(std::get<S::SetTiming>(shifted.actions[0].v).edits[1].tick, 5);
  auto inner = std::get<S::Sequence>(shifted.actions[1].v);
  EXPECT_EQ(std::get<S::InsertTime>(inner.actions[0].v).atTick, 300);
  EXPECT_EQ(std::get<S::SetTimeSignature>(inner.actions[1].v).tick, 0);
  auto tempos = std::get<S::SetTempos>(shifted.actions[2].v);
  EXPECT_EQ(tempos.from, 150);
  EXPECT_EQ(tempos.points[0].tick, 160);
  EXPECT_EQ(std::get<S::AddNotes>(shifted.actions[3].v).notes[0].tick, maxTick);
  // Deleting time never goes below zero.
  auto back = shiftFixes(S::InsertTime{60, 1}, 50, -100);
  EXPECT_EQ(std::get<S::InsertTime>(back.v).atTick, 0);
  EXPECT_EQ(noteIDs(seq), std::set<Uuid>{n});
  EXPECT_TRUE(noteIDs(S::SelectTrack{Uuid::random()}).empty());
}

}  // namespace
}  // namespace melvo
