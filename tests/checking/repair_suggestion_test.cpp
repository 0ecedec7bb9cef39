// One-press repairs over songs broken on purpose: every repair the check offers must apply,
// must change what its row said, and must leave every note its row does not name alone.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "checking/score_validator_support.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/editing/suggestion_applier_commit.h"

namespace melvo {
namespace {

using test::legato;
using test::song;
using S = ValidationIssue::Suggestion;

// A row as the list shows it; a repair must remove it or change one of these.
struct Shown {
  ValidationIssue::Category category;
  std::optional<Uuid> noteID;
  std::string message;
  std::optional<std::string> detail;
  std::vector<std::string> labels;
  bool operator==(const Shown&) const = default;
};

Shown shown(const ValidationIssue& r) {
  Shown s{r.category, r.noteID, r.message, r.detail, {}};
  for (const auto& sug : r.suggestions) s.labels.push_back(sug.label);
  return s;
}

std::map<Uuid, NoteEvent> noteMap(const MusicDocument& d) {
  std::map<Uuid, NoteEvent> out;
  for (const auto& t : d.tracks)
    for (const auto& n : t.notes) out.emplace(n.id, n);
  return out;
}

// The notes a row points at: its own, its jump places, and the ids its repairs carry.
void collectIDs(const SuggestionAction& a, std::set<Uuid>& out) {
  std::visit(
      [&](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, S::SetLyrics>) {
          for (const auto& e : x.edits) out.insert(e.id);
        } else if constexpr (std::is_same_v<T, S::SetTiming>) {
          for (const auto& e : x.edits) out.insert(e.id);
        } else if constexpr (std::is_same_v<T, S::RemoveNotes> ||
                             std::is_same_v<T, S::TransposeNotes> ||
                             std::is_same_v<T, S::MoveNotesToNewTrack> ||
                             std::is_same_v<T, S::SetBreath>) {
          for (const auto& id : x.ids) out.insert(id);
        } else if constexpr (std::is_same_v<T, S::Sequence>) {
          for (const auto& inner : x.actions) collectIDs(inner, out);
        }
      },
      a.v);
}

bool breathOnPrevious(const SuggestionAction& a) {
  return std::holds_alternative<S::BreathOnPreviousNote>(a.v);
}

class RepairProperty : public ::testing::TestWithParam<int> {
 protected:
  test::JapaneseTexts japanese;
};

TEST_P(RepairProperty, EveryRepairAppliesAndKeepsItsPromise) {
  const MusicDocument before = test::brokenSong(GetParam());
  const auto rows = test::check(before);
  ASSERT_GE(rows.size(), 3u);
  const auto oldNotes = noteMap(before);
  std::set<ValidationIssue::Category> repaired;
  bool noticeRepaired = false;
  for (const auto& row : rows) {
    if (!row.suggestions.empty()) repaired.insert(row.category);
    noticeRepaired |= row.noticeID && !row.suggestions.empty();
    for (const auto& sug : row.suggestions) {
      SCOPED_TRACE(row.message + " / " + sug.label);
      const RepairResult result = applySuggestion(before, row, sug);
      EXPECT_TRUE(result.complete);
      if (!sug.action.changesSong()) {
        MusicDocument expected = before;
        if (row.noticeID) expected.removeNotice(*row.noticeID);
        EXPECT_EQ(result.document, expected);
        continue;
      }
      const auto after = test::check(result.document);
      for (const auto& r : after) EXPECT_NE(shown(r), shown(row));

      std::set<Uuid> named;
      if (row.noteID) named.insert(*row.noteID);
      if (row.jumpNoteID) named.insert(*row.jumpNoteID);
      for (const auto& p : row.jumpPlaces)
        if (p.noteID) named.insert(*p.noteID);
      collectIDs(sug.action, named);
      const auto newNotes = noteMap(result.document);
      for (const auto& [id, old] : oldNotes) {
        auto it = newNotes.find(id);
        const bool changed = it == newNotes.end() || !(it->second == old);
        if (!changed || named.count(id)) continue;
        // A ー that held a note made a rest goes with it, with its own log line.
        bool heldGone = false;
        for (const auto& line : result.log)
          heldGone |= it == newNotes.end() && line.noteID == id && isOnlyChouon(old.lyric);
        if (heldGone) continue;
        // Its label names the note before the row's note.
        EXPECT_TRUE(breathOnPrevious(sug.action) && it != newNotes.end() &&
                    it->second.hasBreathAfter && !old.hasBreathAfter)
            << "changed note " << old.lyric << " at " << old.tick;
      }
      for (const auto& line : result.log) EXPECT_EQ(line.action, sug.label);
      EXPECT_FALSE(result.log.empty() && noteMap(result.document) != oldNotes);
      if (row.noticeID) {
        EXPECT_TRUE(result.document.importNotices.empty());
      }
    }
  }
  // The songs are broken in enough ways that the property says something.
  EXPECT_GE(repaired.size(), 2u);
  EXPECT_EQ(noticeRepaired, !before.importNotices.empty());
}

INSTANTIATE_TEST_SUITE_P(BrokenSongs, RepairProperty, ::testing::Values(0, 1, 2));

TEST(RepairActions, StaleNoteIsReportedAndTheRestStillApplies) {
  MusicDocument d = song(legato({"か", "き"}, 480));
  const Uuid kept = d.tracks[0].notes[1].id;
  ValidationIssue row;
  S::Sequence seq;
  seq.actions.emplace_back(S::SetLyrics{{{Uuid::random(), "あ"}, {kept, "く"}}});
  const RepairResult r = applySuggestionAction(d, seq, row, "x");
  EXPECT_FALSE(r.complete);
  EXPECT_EQ(r.document.tracks[0].notes[1].lyric, "く");
  ASSERT_EQ(r.log.size(), 1u);
  EXPECT_EQ(r.log[0].before, "き");
}

TEST(RepairActions, TimingAndAddedNotesKeepTheTrackInTickOrder) {
  MusicDocument d = song(legato({"か", "き", "く"}, 480));
  ValidationIssue row;
  S::Sequence seq;
  seq.actions.emplace_back(S::SetTiming{{{d.tracks[0].notes[0].id, 2000, 100}}});
  seq.actions.emplace_back(S::AddNotes{0, {{700, 10, 61, "ん"}}});
  const auto r = applySuggestionAction(d, seq, row, "x");
  std::vector<std::string> lyrics;
  for (const auto& n : r.document.tracks[0].notes) lyrics.push_back(n.lyric);
  EXPECT_EQ(lyrics, (std::vector<std::string>{"き", "ん", "く", "か"}));
}

// Tempo and meter edits name no note, yet they change the song: each tick they change has
// its line in the log, and a tick they leave as it was has none.
TEST(RepairActions, MapEditsAreLoggedTickByTick) {
  MusicDocument d = song(legato({"か", "き", "く"}, 480));
  d.tempoMap = {{0, 120}, {960, 100}};
  d.timeSignatures = {{0, 4, 4}};
  auto r = applySuggestionAction(d, S::SetTempos{0, 960, {{0, 90}, {480, 110}}}, {}, "x");
  ASSERT_EQ(r.document.tempoMap.size(), 3u);
  EXPECT_EQ(r.document.tempoMap[2].bpm, 100);
  ASSERT_EQ(r.log.size(), 2u);
  EXPECT_EQ(r.log[0], (RepairLogEntry{Uuid(), -1, 0, "x", "120", "90"}));
  EXPECT_EQ(r.log[1], (RepairLogEntry{Uuid(), -1, 480, "x", "", "110"}));

  r = applySuggestionAction(d, S::SetTimeSignature{0, 3, 4}, {}, "x");
  ASSERT_EQ(r.log.size(), 1u);
  EXPECT_EQ(r.log[0], (RepairLogEntry{Uuid(), -1, 0, "x", "4/4", "3/4"}));
  EXPECT_TRUE(applySuggestionAction(d, S::SetTimeSignature{0, 4, 4}, {}, "x").log.empty());
}

// Inserted time moves the notes, the maps after the opening events, and with them the places,
// seals and fixes of the other import notices, which stay in force.
TEST(RepairActions, InsertedTimeCarriesThePendingFixesAlong) {
  MusicDocument d = song(legato({"か", "き"}, 480));
  d.tempoMap = {{0, 120}, {480, 100}};
  const Uuid ki = d.tracks[0].notes[1].id;
  d.addNotice(notice_kinds::tempoInsideNote, 0, std::nullopt, 0, std::nullopt,
              {{S::InsertTime{0, 960}}});
  d.addNotice(notice_kinds::midiTextNotLyrics, 0, ki, 480, std::string("い"),
              {{S::SetTiming{{{ki, 480, 240}}}}});
  sealNotices(d);
  ValidationIssue row;
  row.noticeID = d.importNotices[0].id;
  const auto r = applySuggestion(d, row, {"x", S::InsertTime{0, 960}});

  EXPECT_EQ(r.document.tracks[0].notes[0].tick, 960);
  EXPECT_EQ(r.document.tempoMap[0].tick, 0);
  EXPECT_EQ(r.document.tempoMap[1].tick, 1440);
  ASSERT_EQ(r.log.size(), 1u);
  EXPECT_EQ(r.log[0], (RepairLogEntry{Uuid(), -1, 0, "x", "0", "960"}));

  ASSERT_EQ(r.document.importNotices.size(), 1u);
  const ImportNotice& left = r.document.importNotices[0];
  EXPECT_EQ(left.places[0].tick, 1440);
  EXPECT_EQ(left.places[0].fixes[0][0], SuggestionAction(S::SetTiming{{{ki, 1440, 240}}}));
  const auto live = liveness(left, notesByID(r.document));
  EXPECT_TRUE(live.placeStillMeant[0]);
  EXPECT_TRUE(live.fixesStillValid[0]);
}

TEST(RepairCommit, OneUndoStepLoggedAndTakenBack) {
  test::JapaneseTexts japanese;
  PianoRollViewModel model(song(legato({"か", "ゐ"}, 480)));
  const MusicDocument original = model.document();
  const Uuid id = original.tracks[0].notes[1].id;
  ASSERT_TRUE(commitLyricReplacement(model, id, "い"));
  EXPECT_EQ(model.undoLabel(), std::optional<std::string>("編集"));
  ASSERT_EQ(model.conversionLog().size(), 1u);
  EXPECT_EQ(model.conversionLog()[0].action, "歌詞の置き換え");
  EXPECT_EQ(model.conversionLog()[0].tick, 480);
  EXPECT_TRUE(model.isDirty());
  EXPECT_FALSE(commitLyricReplacement(model, Uuid::random(), "う"));
  model.undo();
  EXPECT_EQ(model.document(), original);
}

}  // namespace
}  // namespace melvo
