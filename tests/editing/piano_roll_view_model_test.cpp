#include "melvo/editing/piano_roll_view_model.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace melvo {
namespace {

NoteEvent note(std::int64_t tick, int pitch = 60, std::string lyric = "ら") {
  return NoteEvent::make(Uuid::random(), tick, 480, pitch, 100, std::move(lyric));
}

MusicDocument songWithNotes(int count) {
  MusicDocument d;
  std::vector<NoteEvent> notes;
  for (int i = 0; i < count; ++i) notes.push_back(note(i * 480LL, 60 + i % 12));
  d.tracks[0].notes.assign(std::move(notes));
  return d;
}

void retitle(PianoRollViewModel& vm, const std::string& title, const std::string& label = "編集") {
  vm.commit(label, [&](MusicDocument& d) { d.title = title; });
}

TEST(UndoHistory, KeepsTheLastHundredStepsWithTheirLabelsAndDropsTheOldest) {
  PianoRollViewModel vm;
  for (int i = 0; i <= 100; ++i) retitle(vm, "t" + std::to_string(i), "l" + std::to_string(i));
  EXPECT_EQ(vm.undoStack().size(), 100u);
  EXPECT_EQ(vm.undoLabel(), "l100");
  vm.undo();
  EXPECT_EQ(vm.document().title, "t99");
  EXPECT_EQ(vm.redoLabel(), "l100");
  EXPECT_EQ(vm.undoLabel(), "l99");
  while (vm.canUndo()) vm.undo();
  // The very first step (back to "Untitled") fell off; the oldest one left restores "t0".
  EXPECT_EQ(vm.document().title, "t0");
  vm.undo();  // empty stack: nothing happens
  EXPECT_EQ(vm.redoStack().size(), 100u);
  while (vm.canRedo()) vm.redo();
  EXPECT_EQ(vm.document().title, "t100");
}

TEST(UndoHistory, ANewCommitOrCurveEditEmptiesRedo) {
  PianoRollViewModel vm;
  retitle(vm, "a");
  vm.undo();
  ASSERT_TRUE(vm.canRedo());
  retitle(vm, "b");
  EXPECT_FALSE(vm.canRedo());

  vm.setEditedPitchCurve(PitchCurve{{100, 200}});
  vm.undo();
  ASSERT_TRUE(vm.canRedo());
  vm.pushF0Undo("編集");
  EXPECT_FALSE(vm.canRedo());
}

TEST(UndoHistory, AGroupIsOneStepWithItsLabelAndGroupsNest) {
  PianoRollViewModel vm;
  vm.withUndoGroup("時間を挿入", [&] {
    retitle(vm, "x");
    vm.withUndoGroup("inner", [&] { retitle(vm, "y"); });
    retitle(vm, "z");
  });
  EXPECT_EQ(vm.undoGroupDepth(), 0);
  ASSERT_EQ(vm.undoStack().size(), 1u);
  EXPECT_EQ(vm.undoLabel(), "時間を挿入");
  vm.undo();
  EXPECT_EQ(vm.document().title, "Untitled");
  vm.redo();
  EXPECT_EQ(vm.document().title, "z");
}

TEST(UndoHistory, OnlyAMixChangeCallsTheMixCallback) {
  PianoRollViewModel vm(songWithNotes(3));
  int mixCalls = 0;
  vm.onTrackMixChanged = [&] { ++mixCalls; };
  vm.commit("編集", [](MusicDocument& d) { d.tracks[0].notes.mutableAt(1).lyric = "る"; });
  vm.undo();
  EXPECT_EQ(mixCalls, 0);
  for (auto change : std::vector<std::function<void(MusicTrack&)>>{
           [](MusicTrack& t) { t.isMuted = true; }, [](MusicTrack& t) { t.isSolo = true; },
           [](MusicTrack& t) { t.volume = 0.5; }, [](MusicTrack& t) { t.pan = -0.25; }}) {
    vm.commit("ミックス", [&](MusicDocument& d) { change(d.tracks[0]); });
    const int before = mixCalls;
    vm.undo();
    EXPECT_EQ(mixCalls, before + 1);
    vm.redo();
    EXPECT_EQ(mixCalls, before + 2);
  }
}

TEST(UndoHistory, CurveAndTimingEntriesRestoreTheirArrays) {
  PianoRollViewModel vm;
  vm.pushF0Undo("編集");  // no curve: nothing is pushed
  vm.pushTimingUndo("編集");
  EXPECT_FALSE(vm.canUndo());

  vm.setEditedPitchCurve(PitchCurve{{100, 200, 300}});
  vm.pushF0Undo("編集");
  vm.setEditedPitchCurve(PitchCurve{{110, 220, 330}});
  vm.setPhonemes(PhonemeList{{{0, 1000000, "a"}}});
  vm.pushTimingUndo("編集");
  vm.setPhonemes(PhonemeList{{{0, 2000000, "a"}}});

  vm.undo();
  EXPECT_EQ(vm.phonemes()->phonemes.front().endSec(), 0.1);
  vm.undo();
  EXPECT_EQ(vm.editedPitchCurve()->frequencies, (std::vector<float>{100, 200, 300}));
  vm.redo();
  EXPECT_EQ(vm.editedPitchCurve()->frequencies, (std::vector<float>{110, 220, 330}));
}

TEST(UndoHistory, ACurveEntryWithoutACurveIsConsumed) {
  PianoRollViewModel vm;
  vm.setEditedPitchCurve(PitchCurve{{100}});
  vm.pushF0Undo("編集");
  vm.setEditedPitchCurve(std::nullopt);
  const MusicDocument before = vm.document();
  vm.undo();
  EXPECT_FALSE(vm.canUndo());
  EXPECT_FALSE(vm.canRedo());
  EXPECT_FALSE(vm.editedPitchCurve().has_value());
  EXPECT_EQ(vm.document(), before);
}

// That undo leaves the song dirty is checked for every editing operation in note_operations.
TEST(UndoHistory, ClearHistoryBumpsTheSwapNumber) {
  PianoRollViewModel vm;
  retitle(vm, "a");
  vm.undo();
  const auto seq = vm.documentSwapSeq();
  vm.clearHistory();
  EXPECT_NE(vm.documentSwapSeq(), seq);
  EXPECT_FALSE(vm.canRedo());
}

TEST(UndoHistory, AnEntryCostsTheChangedChunkNotTheSong) {
  PianoRollViewModel vm(songWithNotes(5000));
  vm.commit("編集", [](MusicDocument& d) { d.tracks[0].notes.mutableAt(10).pitch = 72; });
  const auto& entry = std::get<PianoRollViewModel::DocEntry>(vm.undoStack().back());
  EXPECT_TRUE(entry.document.tracks[0].notes.sharesStorageWith(vm.document().tracks[0].notes));
  EXPECT_EQ(entry.document.tracks[0].notes[10].pitch, 70);
  EXPECT_EQ(vm.document().tracks[0].notes[10].pitch, 72);
}

TEST(DocumentHook, TrackChangesResetZoomAndClampIndexAndScroll) {
  MusicDocument d = songWithNotes(8);  // 8 beats long
  d.tracks.push_back(MusicTrack{});
  PianoRollViewModel vm(d);
  vm.setCurrentTrackIndex(1);
  vm.setPixelsPerBeat(200);
  vm.setArrangePixelsPerBeat(10);
  vm.arrangeViewportWidth = 50;
  vm.setArrangeScrollX(1000);

  vm.commit("トラックを削除", [](MusicDocument& d) { d.tracks.pop_back(); });
  EXPECT_EQ(vm.currentTrackIndex(), 0);
  EXPECT_EQ(vm.pixelsPerBeat(), PianoRollViewModel::kDefaultPixelsPerBeat);
  EXPECT_EQ(vm.arrangeScrollX(), 8 * 10 - 50);  // clamped to song width minus viewport

  vm.setPixelsPerBeat(150);
  vm.commit("編集", [](MusicDocument& d) { d.title = "same tracks"; });
  EXPECT_EQ(vm.pixelsPerBeat(), 150);

  vm.setArrangeScrollX(20);
  vm.commit("編集", [](MusicDocument& d) { d.tracks = {MusicTrack{}}; });  // nothing shared
  EXPECT_EQ(vm.arrangeScrollX(), 0);

  vm.commit("トラックを削除", [](MusicDocument& d) { d.tracks.clear(); });
  EXPECT_EQ(vm.currentTrackIndex(), 0);
}

TEST(DocumentSwap, ClearsHistoryRenderStateAndDirtiness) {
  PianoRollViewModel vm(songWithNotes(4));
  retitle(vm, "edited");
  vm.setSelectedNoteIDs({vm.document().tracks[0].notes[0].id});
  vm.setLoopEnabled(true);
  vm.setLoopEndTick(960);
  vm.setEditedPitchCurve(PitchCurve{{1}});
  vm.takeSynthSnapshot();
  const auto seq = vm.documentSwapSeq();

  vm.swapDocument(songWithNotes(2), "/tmp/x.nsproj");
  EXPECT_FALSE(vm.canUndo());
  EXPECT_NE(vm.documentSwapSeq(), seq);
  EXPECT_FALSE(vm.isDirty());
  EXPECT_TRUE(vm.selectedNoteIDs().empty());
  EXPECT_FALSE(vm.loopEnabled());
  EXPECT_EQ(vm.loopEndTick(), 0);
  EXPECT_FALSE(vm.editedPitchCurve());
  EXPECT_TRUE(vm.synthSnapshot().empty());
  EXPECT_EQ(vm.filePath(), "/tmp/x.nsproj");
  EXPECT_EQ(vm.document().tracks[0].notes.size(), 2u);
}

TEST(Observation, SubscribersHearRealChangesOnly) {
  PianoRollViewModel vm;
  std::vector<std::string> heard;
  auto token = vm.subscribe([&](std::string_view p) { heard.emplace_back(p); });
  retitle(vm, "a");
  retitle(vm, "b");
  EXPECT_EQ(std::count(heard.begin(), heard.end(), "isDirty"), 1);  // only false -> true
  EXPECT_EQ(std::count(heard.begin(), heard.end(), "document"), 2);
  heard.clear();
  vm.setPlayheadTick(0);  // unchanged
  EXPECT_TRUE(heard.empty());
  vm.unsubscribe(token);
  vm.setPlayheadTick(5);
  EXPECT_TRUE(heard.empty());
}

TEST(RenderSnapshot, ReportsChangedNewAndRemovedNotes) {
  MusicDocument d = songWithNotes(4);
  MusicTrack muted;
  muted.isMuted = true;
  muted.notes.push_back(note(0));
  d.tracks.push_back(muted);
  PianoRollViewModel vm(d);
  EXPECT_TRUE(vm.changedNoteIDs().empty());  // no render yet
  vm.takeSynthSnapshot();
  EXPECT_EQ(vm.synthSnapshot().size(), 4u);  // the muted track is not part of the render
  EXPECT_TRUE(vm.changedNoteIDs().empty());
  EXPECT_TRUE(vm.removedFingerprints().empty());

  const auto& notes = vm.document().tracks[0].notes;
  const Uuid lyricChanged = notes[0].id, moved = notes[1].id, removed = notes[3].id;
  NoteEvent added = note(9000);
  vm.commit("編集", [&](MusicDocument& d) {
    d.tracks[0].notes.mutableAt(0).lyric = "り";
    d.tracks[0].notes.mutableAt(1).tick += 10;
    d.tracks[0].notes.mutableAt(2).velocity = 1;  // not part of the fingerprint
    d.tracks[0].notes.erase(3);
    d.tracks[0].notes.push_back(added);
    d.tracks[1].notes.mutableAt(0).pitch = 50;  // muted: ignored
  });
  EXPECT_EQ(vm.changedNoteIDs(), (std::unordered_set<Uuid>{lyricChanged, moved, added.id}));
  auto gone = vm.removedFingerprints();
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].id, removed);
}

}  // namespace
}  // namespace melvo
