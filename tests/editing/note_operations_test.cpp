// The note editing operations: what each does to the song, and that each is exactly one
// undo step that undo and redo take back and forth byte for byte.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "melvo/editing/bulk_lyrics.h"
#include "melvo/editing/note_clipboard.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

using S = ValidationIssue::Suggestion;

// さ く ら ー at 0, 480, 960, 1440, one quarter each, rising, velocity 90.
struct Editing : ::testing::Test {
  PianoRollViewModel vm;
  std::vector<Uuid> ids;

  void SetUp() override {
    MusicDocument d;
    const std::vector<std::string> lyrics = {"さ", "く", "ら", "ー"};
    std::vector<NoteEvent> notes;
    for (int i = 0; i < 4; ++i) {
      ids.push_back(Uuid::random());
      notes.push_back(NoteEvent::make(ids.back(), i * 480, 480, 60 + 2 * i, 90, lyrics[i]));
    }
    d.tracks[0].notes.assign(notes);
    d.tempoMap = {{0, 100}, {960, 140}};
    d.timeSignatures = {{0, 4, 4}, {1920, 3, 4}};
    d.keySignatures = {{0, 2}};
    vm.swapDocument(std::move(d), std::nullopt);
  }
  const NoteList& notes() const { return vm.document().tracks[0].notes; }
  const NoteEvent* find(const Uuid& id) const {
    for (const auto& n : notes())
      if (n.id == id) return &n;
    return nullptr;
  }
  void select(std::initializer_list<int> which) {
    std::set<Uuid> s;
    for (int i : which) s.insert(ids[static_cast<std::size_t>(i)]);
    vm.setSelectedNoteIDs(s);
  }
  std::vector<std::string> lyrics() const {
    std::vector<std::string> out;
    for (const auto& n : vm.selectedNotes()) out.push_back(n.lyric);
    return out;
  }
};

std::string bytes(const PianoRollViewModel& vm) {
  return encodeProject(vm.document());
}

// ---- Every operation is one step ----

struct StepCase {
  const char* name;
  std::string label;
  std::function<bool(PianoRollViewModel&, const std::vector<Uuid>&)> op;
};

TEST_F(Editing, EveryOperationIsOneStepThatUndoAndRedoRestoreExactly) {
  const std::vector<StepCase> cases = {
      {"add", "編集", [](auto& vm, auto&) { return vm.addNote(2000, 70).has_value(); }},
      {"move", "音符を動かす", [](auto& vm, auto&) { return vm.moveNotes(120, 3); }},
      {"resize", "音符の長さを変更", [](auto& vm, auto&) { return vm.resizeNotes(-100); }},
      {"length", "編集",
       [](auto& vm, auto&) { return vm.setLengthFromMenu(QuantizeValue::eighth); }},
      {"split", "編集", [](auto& vm, auto& ids) { return vm.splitNote(ids[1], 720).has_value(); }},
      {"merge", "編集", [](auto& vm, auto&) { return vm.mergeNotes(); }},
      {"delete", "編集", [](auto& vm, auto&) { return vm.deleteNotes(); }},
      {"cut", "編集", [](auto& vm, auto&) { return vm.cutSelected(); }},
      {"paste", "編集",
       [](auto& vm, auto&) {
         vm.copySelected();
         return vm.pasteNotes(3000);
       }},
      {"transpose", "編集", [](auto& vm, auto&) { return vm.transpose(-12); }},
      {"velocity", "編集", [](auto& vm, auto&) { return vm.setVelocity(64); }},
      {"lyric", "編集", [](auto& vm, auto& ids) { return vm.setLyric(ids[0], "は"); }},
      {"bulk lyrics", "編集", [](auto& vm, auto&) { return vm.applyBulkLyrics("はな").committed; }},
      {"breath", "編集", [](auto& vm, auto&) { return vm.toggleBreath(); }},
      {"insert time", "時間を挿入", [](auto& vm, auto&) { return vm.insertTime(480, 960); }},
      {"delete time", "時間を削除", [](auto& vm, auto&) { return vm.deleteTime(240, 480); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetUp();
    ids.erase(ids.begin(), ids.end() - 4);
    select({1, 2});
    const std::string before = bytes(vm);
    ASSERT_FALSE(vm.isDirty());
    ASSERT_TRUE(c.op(vm, ids));
    const std::string after = bytes(vm);
    EXPECT_NE(after, before);
    EXPECT_TRUE(vm.isDirty());
    ASSERT_EQ(vm.undoStack().size(), 1u);
    EXPECT_EQ(vm.undoLabel(), tr(c.label.c_str()));  // labels are shown as they are kept
    vm.undo();
    EXPECT_EQ(bytes(vm), before);
    EXPECT_TRUE(vm.isDirty());  // undo does not clean the song
    vm.redo();
    EXPECT_EQ(bytes(vm), after);
  }
}

TEST_F(Editing, OperationsThatChangeNothingPushNoStep) {
  select({1});
  EXPECT_FALSE(vm.splitNote(ids[1], 480));  // the note's first tick
  EXPECT_FALSE(vm.splitNote(ids[1], 960));  // its end
  EXPECT_FALSE(vm.splitNote(ids[1], 490));  // snaps back onto the first tick
  EXPECT_FALSE(vm.pasteNotes(0));           // empty clipboard
  EXPECT_FALSE(vm.setLyric(ids[1], "く"));
  EXPECT_FALSE(vm.setVelocity(90));
  EXPECT_FALSE(vm.applyBulkLyrics(" \n　").committed);
  EXPECT_FALSE(vm.insertTime(5000, 480));  // nothing after it
  EXPECT_FALSE(vm.mergeNotes());           // a single note has no neighbour to join
  vm.setSelectedNoteIDs({});
  EXPECT_FALSE(vm.moveNotes(10, 1));
  EXPECT_FALSE(vm.deleteNotes());
  EXPECT_FALSE(vm.toggleBreath());
  EXPECT_FALSE(vm.canUndo());
  EXPECT_FALSE(vm.isDirty());
}

// ---- Placing, moving, sizing ----

TEST_F(Editing, AddedNoteSitsInItsGridCellWithTheDefaultLengthAndIsSelected) {
  vm.setQuantizeValue(QuantizeValue::eighth);
  vm.setDefaultNoteLength(QuantizeValue::tripletE);
  auto id = vm.addNote(2000, 72);
  ASSERT_TRUE(id);
  const NoteEvent* n = find(*id);
  ASSERT_TRUE(n);
  EXPECT_EQ(n->tick, 1920);
  EXPECT_EQ(n->duration, 160);
  EXPECT_EQ(n->velocity, 100);
  EXPECT_EQ(n->lyric, "");
  EXPECT_EQ(vm.selectedNoteIDs(), std::set<Uuid>{*id});

  // The scale lock places a C# of C major on D; other modes leave it.
  vm.setScaleAssist({ScaleAssistMode::lock, ScaleType::major, 0});
  EXPECT_EQ(find(*vm.addNote(0, 61))->pitch, 62);
  vm.setScaleAssist({ScaleAssistMode::warn, ScaleType::major, 0});
  EXPECT_EQ(find(*vm.addNote(0, 61))->pitch, 61);
}

TEST_F(Editing, MovedGroupKeepsItsShapeAtTheEdgesAndSnapsUnderTheLock) {
  select({0, 3});
  ASSERT_TRUE(vm.moveNotes(-1000, 100));
  // Held at tick 0 and at pitch 127 as a group: the gap of 1440 and 6 semitones stay.
  EXPECT_EQ(find(ids[0])->tick, 0);
  EXPECT_EQ(find(ids[3])->tick, 1440);
  EXPECT_EQ(find(ids[3])->pitch, 127);
  EXPECT_EQ(find(ids[0])->pitch, 121);
  EXPECT_FALSE(vm.moveNotes(-5, 1));  // already at both edges
  EXPECT_EQ(vm.undoStack().size(), 1u);

  vm.undo();
  vm.setScaleAssist({ScaleAssistMode::lock, ScaleType::major, 0});
  ASSERT_TRUE(vm.moveNotes(0, 1));
  EXPECT_EQ(find(ids[0])->pitch, 62);  // C -> C# -> D
  EXPECT_EQ(find(ids[3])->pitch, 67);  // F# + 1 is G, in the scale already
  // A move in time alone does not pull notes into the scale.
  vm.setScaleAssist({ScaleAssistMode::lock, ScaleType::minorPent, 0});
  ASSERT_TRUE(vm.moveNotes(10, 0));
  EXPECT_EQ(find(ids[0])->pitch, 62);
}

// A drag repeats a move on the same selection, and the editor remembers where the selected
// notes were; a change under them (a note inserted ahead, another track) must not make it
// edit the notes now standing at those places.
TEST_F(Editing, RepeatedEditsFollowTheSelectedNotesWhenTheListChangesUnderThem) {
  select({1, 2});
  ASSERT_TRUE(vm.moveNotes(0, 1));
  vm.commit("ahead", [](MusicDocument& d) {
    d.tracks[0].notes.insert(0, NoteEvent::make(Uuid::random(), 0, 120, 50, 90, "あ"));
  });
  ASSERT_TRUE(vm.moveNotes(0, 1));
  EXPECT_EQ(find(ids[0])->pitch, 60);
  EXPECT_EQ(find(ids[1])->pitch, 64);
  EXPECT_EQ(find(ids[2])->pitch, 66);
  EXPECT_EQ(find(ids[3])->pitch, 66);

  vm.commit("other track", [&](MusicDocument& d) {
    MusicTrack t = d.tracks[0];
    t.id = Uuid::random();
    std::vector<NoteEvent> fresh;
    for (const auto& n : t.notes) fresh.push_back(NoteEvent::make(Uuid::random(), n.tick, 1, 40));
    t.notes.assign(fresh);
    d.tracks.push_back(t);
  });
  vm.setCurrentTrackIndex(1);
  EXPECT_FALSE(vm.moveNotes(0, 1));
  for (const auto& n : vm.document().tracks[1].notes) EXPECT_EQ(n.pitch, 40);
}

TEST_F(Editing, LengthsStayAtLeastOneTick) {
  select({0, 1});
  ASSERT_TRUE(vm.resizeNotes(-10000));
  EXPECT_EQ(find(ids[0])->duration, 1);
  ASSERT_TRUE(vm.setLengthFromMenu(QuantizeValue::whole));
  EXPECT_EQ(find(ids[1])->duration, 1920);
}

// ---- Split and merge ----

TEST_F(Editing, SplitCopiesTheNoteAndSharesItsLyricBySyllable) {
  vm.setQuantizeValue(QuantizeValue::eighth);
  vm.commit("編集", [&](MusicDocument& d) {
    NoteEvent& n = d.tracks[0].notes.mutableAt(1);
    n.lyric = "くらい";
    n.slurToNext = n.hasBreathAfter = true;
    n.sourcePhonemes = "k u r a i";
  });
  select({1});
  auto second = vm.splitNote(ids[1], 700);  // nearest eighth line: 720
  ASSERT_TRUE(second);
  const NoteEvent& a = *find(ids[1]);
  const NoteEvent& b = *find(*second);
  EXPECT_EQ(a.tick, 480);
  EXPECT_EQ(a.duration, 240);
  EXPECT_EQ(b.tick, 720);
  EXPECT_EQ(b.duration, 240);
  EXPECT_EQ(a.pitch, b.pitch);
  EXPECT_EQ(b.velocity, 90);
  EXPECT_EQ(a.lyric, "く");
  EXPECT_EQ(b.lyric, "らい");
  EXPECT_FALSE(a.slurToNext || a.hasBreathAfter);
  EXPECT_TRUE(b.slurToNext && b.hasBreathAfter);
  EXPECT_FALSE(a.sourcePhonemes || b.sourcePhonemes);  // they no longer describe the lyric
  EXPECT_TRUE(vm.selectedNoteIDs().count(*second));

  // One syllable: the first half keeps it, the second holds the vowel.
  auto third = vm.splitNote(ids[0], 240);
  ASSERT_TRUE(third);
  EXPECT_EQ(find(ids[0])->lyric, "さ");
  EXPECT_EQ(find(*third)->lyric, "ー");
}

TEST_F(Editing, MergeJoinsSamePitchNeighboursAndSlursTheOthers) {
  vm.commit("編集", [&](MusicDocument& d) {
    for (std::size_t i = 0; i < 3; ++i) d.tracks[0].notes.mutableAt(i).pitch = 60;
    d.tracks[0].notes.mutableAt(2).hasBreathAfter = true;
  });
  select({0, 1, 2, 3});
  ASSERT_TRUE(vm.mergeNotes());
  ASSERT_EQ(notes().size(), 2u);
  const NoteEvent& joined = *find(ids[0]);
  EXPECT_EQ(joined.duration, 1440);
  EXPECT_EQ(joined.lyric, "さくら");
  EXPECT_TRUE(joined.hasBreathAfter);  // from the last note joined
  EXPECT_TRUE(joined.slurToNext);      // the ー of another pitch is slurred, not swallowed
  EXPECT_EQ(find(ids[3])->lyric, "ー");
  EXPECT_EQ(vm.selectedNoteIDs(), (std::set<Uuid>{ids[0], ids[3]}));

  // Selected notes with an unselected one between them are no neighbours.
  vm.undo();
  select({0, 2});
  EXPECT_FALSE(vm.mergeNotes());
}

// ---- Delete and the clipboard ----

TEST_F(Editing, CutCopyAndPasteKeepOrderGiveNewIdsAndSelectThePaste) {
  select({2, 0});
  ASSERT_TRUE(vm.cutSelected());
  ASSERT_EQ(vm.clipboard().size(), 2u);
  EXPECT_EQ(vm.clipboard()[0].lyric, "さ");
  EXPECT_EQ(vm.clipboard()[1].lyric, "ら");
  EXPECT_EQ(notes().size(), 2u);
  EXPECT_TRUE(vm.selectedNoteIDs().empty());
  EXPECT_EQ(vm.undoStack().size(), 1u);  // copy and delete are one step

  ASSERT_TRUE(vm.pasteNotes(4800));
  ASSERT_EQ(notes().size(), 4u);
  const auto pasted = vm.selectedNotes();
  ASSERT_EQ(pasted.size(), 2u);
  EXPECT_EQ(pasted[0].tick, 4800);
  EXPECT_EQ(pasted[1].tick, 4800 + 960);
  EXPECT_NE(pasted[0].id, ids[0]);
  EXPECT_NE(pasted[0].id, pasted[1].id);
  EXPECT_EQ(pasted[1].id.toString()[14], '4');  // random ids of version 4
  EXPECT_EQ(pasted[0].velocity, 90);
}

TEST_F(Editing, TheSystemClipboardCarriesOurNotesOrPlainLyrics) {
  select({0, 1});
  vm.copySelected();
  EXPECT_EQ(vm.clipboardLyricsText(), "さ く");
  const std::string ours = vm.clipboardText();

  // Our format read back at another resolution: ticks scale, values stay.
  auto read = decodeClipboard(ours, 960);
  ASSERT_TRUE(read);
  ASSERT_EQ(read->size(), 2u);
  EXPECT_EQ((*read)[1].tick, 960);
  EXPECT_EQ((*read)[1].duration, 960);
  EXPECT_EQ((*read)[1].lyric, "く");
  EXPECT_FALSE(decodeClipboard("さくら", 480));
  EXPECT_FALSE(decodeClipboard(R"({"melvoNotes":1,"ppq":480,"notes":[{"tick":0}]})", 480));
  EXPECT_FALSE(decodeClipboard(R"({"melvoNotes":1,"ppq":0,"notes":[]})", 480));
  EXPECT_FALSE(decodeClipboard(
      R"({"melvoNotes":1,"ppq":480,"notes":[{"tick":0,"duration":1,"pitch":60,"lyric":5}]})", 480));

  ASSERT_TRUE(vm.pasteText(ours, 9600));
  EXPECT_EQ(notes().size(), 6u);
  // Plain text is lyrics for the selection (the pasted notes are selected now).
  ASSERT_TRUE(vm.pasteText("は な", 0));
  EXPECT_EQ(lyrics(), (std::vector<std::string>{"は", "な"}));
}

// ---- Values ----

TEST_F(Editing, VelocityAndPitchStayInRange) {
  select({0, 3});
  ASSERT_TRUE(vm.setVelocity(0));
  EXPECT_EQ(find(ids[0])->velocity, 1);
  ASSERT_TRUE(vm.setVelocity(500));
  EXPECT_EQ(find(ids[3])->velocity, 127);
  ASSERT_TRUE(vm.transpose(62));
  EXPECT_EQ(find(ids[0])->pitch, 122);
  EXPECT_EQ(find(ids[3])->pitch, 127);
}

TEST(BulkLyrics, SplitsBySyllableWithSmallKanaJoinedAndHeldVowelsApart) {
  using V = std::vector<std::string>;
  EXPECT_EQ(bulkLyricSyllables("きょうはいいてんき"),
            (V{"きょ", "う", "は", "い", "い", "て", "ん", "き"}));
  EXPECT_EQ(bulkLyricSyllables("ちゃー しゅー\nめん　ふぁ"),
            (V{"ちゃ", "ー", "しゅ", "ー", "め", "ん", "ふぁ"}));
  EXPECT_EQ(bulkLyricSyllables("がっこう"), (V{"がっ", "こ", "う"}));
  EXPECT_EQ(bulkLyricSyllables("ファイト"), (V{"ファ", "イ", "ト"}));
  EXPECT_TRUE(bulkLyricSyllables(" \r\n　").empty());
}

TEST_F(Editing, BulkLyricsFlowOntoTheSelectionInTickOrder) {
  select({3, 1, 0});
  auto r = vm.applyBulkLyrics("きゃっ ほー");
  EXPECT_TRUE(r.committed);
  EXPECT_EQ(r.assigned, 3u);
  EXPECT_EQ(r.leftover, 0u);
  EXPECT_EQ(lyrics(), (std::vector<std::string>{"きゃっ", "ほ", "ー"}));
  EXPECT_EQ(find(ids[2])->lyric, "ら");  // not selected

  r = vm.applyBulkLyrics("あいうえお");
  EXPECT_EQ(r.leftover, 2u);
  EXPECT_EQ(lyrics(), (std::vector<std::string>{"あ", "い", "う"}));
  r = vm.applyBulkLyrics("そ");  // the notes beyond the text stay
  EXPECT_EQ(lyrics(), (std::vector<std::string>{"そ", "い", "う"}));
  EXPECT_EQ(vm.undoStack().size(), 3u);
}

TEST_F(Editing, BreathToggleSetsAllUnlessAllHaveIt) {
  vm.commit("編集", [](MusicDocument& d) { d.tracks[0].notes.mutableAt(0).hasBreathAfter = true; });
  select({0, 1});
  EXPECT_STREQ(vm.breathMenuLabel(), tr("ブレスを挿入 (♪)"));
  ASSERT_TRUE(vm.toggleBreath());
  EXPECT_TRUE(find(ids[0])->hasBreathAfter && find(ids[1])->hasBreathAfter);
  EXPECT_STREQ(vm.breathMenuLabel(), tr("ブレスを削除 (♪)"));
  ASSERT_TRUE(vm.toggleBreath());
  EXPECT_FALSE(find(ids[0])->hasBreathAfter || find(ids[1])->hasBreathAfter);
}

// ---- Time ----

TEST_F(Editing, InsertTimeMovesNotesAndLaterEventsButNotTheOpeningOnes) {
  vm.setLoopStartTick(0);
  vm.setLoopEndTick(960);
  ASSERT_TRUE(vm.insertTime(0, 480));
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(find(ids[i])->tick, 480 * (i + 1));
  const MusicDocument& d = vm.document();
  EXPECT_EQ(d.tempoMap, (std::vector<TempoEvent>{{0, 100}, {1440, 140}}));
  EXPECT_EQ(d.timeSignatures, (std::vector<TimeSignatureEvent>{{0, 4, 4}, {2400, 3, 4}}));
  EXPECT_EQ(d.keySignatures, (std::vector<KeySignatureEvent>{{0, 2}}));
  EXPECT_EQ(vm.loopStartTick(), 480);
  EXPECT_EQ(vm.loopEndTick(), 1440);
  // Undo brings back the song; the loop is not in the song and stays moved.
  vm.undo();
  EXPECT_EQ(find(ids[0])->tick, 0);
  EXPECT_EQ(vm.document().tempoMap[1].tick, 960);
  EXPECT_EQ(vm.loopEndTick(), 1440);
}

TEST_F(Editing, DeleteTimeRemovesWhatLiesInsideAndClosesTheGap) {
  vm.setLoopStartTick(600);
  vm.setLoopEndTick(2000);
  select({1});
  // Delete 720..1680: note 1 (480..960) keeps its head, note 2 (960..1440) goes, note 3
  // (1440..1920) keeps its tail from 1680 and starts at 720.
  ASSERT_TRUE(vm.deleteTime(720, 960));
  ASSERT_EQ(notes().size(), 3u);
  EXPECT_EQ(find(ids[1])->duration, 240);
  EXPECT_EQ(find(ids[2]), nullptr);
  EXPECT_EQ(find(ids[3])->tick, 720);
  EXPECT_EQ(find(ids[3])->duration, 240);
  EXPECT_EQ(vm.document().tempoMap, (std::vector<TempoEvent>{{0, 100}}));
  EXPECT_EQ(vm.document().timeSignatures[1].tick, 960);
  EXPECT_EQ(vm.loopStartTick(), 600);
  EXPECT_EQ(vm.loopEndTick(), 1040);

  // A note that spans the whole range loses its middle.
  ASSERT_TRUE(vm.deleteTime(780, 60));
  EXPECT_EQ(find(ids[3])->tick, 720);
  EXPECT_EQ(find(ids[3])->duration, 180);
  // A note cut at the head closes up to the range's start; a map left empty takes its default.
  vm.commit("編集", [](MusicDocument& d) { d.keySignatures = {{480, 3}}; });
  ASSERT_TRUE(vm.deleteTime(0, 600));
  EXPECT_EQ(find(ids[0]), nullptr);
  EXPECT_EQ(find(ids[1])->tick, 0);
  EXPECT_EQ(find(ids[1])->duration, 120);
  EXPECT_EQ(vm.document().keySignatures, (std::vector<KeySignatureEvent>{{0, 0}}));
  EXPECT_EQ(vm.document().tempoMap[0].tick, 0);  // the opening tempo holds the start
}

TEST_F(Editing, NoticesFollowNotesMovedByInsertedOrDeletedTime) {
  vm.commit("編集", [&](MusicDocument& d) {
    d.addNotice(notice_kinds::fermata, 0, ids[3], 1440, std::string("ー"),
                {{S::SetTiming{{{ids[3], 1440, 240}}}}});
    sealNotices(d);
  });
  auto place = [&] { return vm.document().importNotices[0].places[0]; };
  auto alive = [&] { return liveness(vm.document().importNotices[0], notesByID(vm.document())); };
  ASSERT_TRUE(vm.insertTime(960, 480));
  EXPECT_EQ(place().tick, 1920);
  EXPECT_EQ(std::get<S::SetTiming>(place().fixes[0][0].v).edits[0].tick, 1920);
  EXPECT_EQ(alive().placeStillMeant, std::vector<bool>{true});
  EXPECT_EQ(alive().fixesStillValid, std::vector<bool>{true});

  ASSERT_TRUE(vm.deleteTime(0, 240));
  EXPECT_EQ(place().tick, 1680);
  EXPECT_EQ(alive().placeStillMeant, std::vector<bool>{true});
  // A drag is the user's own answer: the place is handled.
  select({3});
  ASSERT_TRUE(vm.moveNotes(0, 1));
  EXPECT_EQ(alive().placeStillMeant, std::vector<bool>{false});
  // Undo restores the notices with the notes, since they live in the song.
  vm.undo();
  vm.undo();
  vm.undo();
  EXPECT_EQ(place().tick, 1440);
  EXPECT_EQ(alive().placeStillMeant, std::vector<bool>{true});
}

}  // namespace
}  // namespace melvo
