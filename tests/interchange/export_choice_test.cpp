// Which track is written for the engine, and the notices about tempo changes inside notes.
#include <gtest/gtest.h>

#include "melvo/importers/import_entry.h"
#include "melvo/interchange/export_choice.h"
#include "melvo/interchange/tempo_notices.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/i18n.h"
#include "support/test_support.h"

namespace melvo {
namespace {

NoteEvent note(std::int64_t tick, std::int64_t duration, std::string lyric = "あ") {
  return NoteEvent::make(Uuid::random(), tick, duration, 60, 100, std::move(lyric));
}

MusicTrack track(std::string name, bool notes, std::string voice = {}, bool muted = false,
                 bool solo = false) {
  MusicTrack t;
  t.name = std::move(name);
  if (notes) t.notes = NoteList({note(0, 480)});
  t.characterName = std::move(voice);
  t.isMuted = muted;
  t.isSolo = solo;
  return t;
}

class ExportChoiceTest : public ::testing::Test {
 protected:
  void SetUp() override { i18n::setLanguage("ja"); }
  void TearDown() override { i18n::setLanguage("en"); }
};

TEST_F(ExportChoiceTest, VoicedAudibleTrackFirstThenEditorTrackThenAnyAudible) {
  MusicDocument d;
  d.tracks = {track("A", true), track("B", true, "soprano", true), track("C", true, "alto"),
              track("D", false, "tenor")};
  auto c = chooseExportTrack(d, 0);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->trackIndex, 2);  // B is muted, D has no notes
  EXPECT_EQ(c->message,
            "歌わせるトラック「C」だけを書き出します（NEUTRINO は複数のパートを続けて歌うため）。");

  d.tracks[2].characterName.clear();
  EXPECT_EQ(chooseExportTrack(d, 2)->trackIndex, 2);  // the editor's track
  EXPECT_EQ(chooseExportTrack(d, 1)->trackIndex, 0);  // editor's track muted: first audible

  // A solo silences the others, muted ones included.
  d.tracks[2].isSolo = true;
  EXPECT_EQ(chooseExportTrack(d, 0)->trackIndex, 2);

  // One track with notes: nothing to tell.
  MusicDocument single;
  single.tracks = {track("Only", true), track("Empty", false)};
  c = chooseExportTrack(single, std::nullopt);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->trackIndex, 0);
  EXPECT_TRUE(c->message.empty());
}

TEST_F(ExportChoiceTest, AllMutedFallsBackAndSaysSo) {
  MusicDocument d;
  d.tracks = {track("E", false), track("F", true, "", true), track("G", true, "", true)};
  auto c = chooseExportTrack(d, 2);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->trackIndex, 2);
  EXPECT_EQ(
      c->message,
      "全部のトラックが消音のため、トラック「G」だけを書き出します。別のトラックを書き出す時は、"
      "そのトラックの消音を外してください。");
  EXPECT_EQ(chooseExportTrack(d, 0)->trackIndex, 1);  // the current track has no notes

  d.tracks = {track("E", false)};
  EXPECT_FALSE(chooseExportTrack(d, 0));
}

TEST_F(ExportChoiceTest, SuggestedNameReplacesBlanks) {
  MusicDocument d;
  d.title = "春の 歌\u3000その2";
  EXPECT_EQ(suggestedMusicXMLFileName(d), "春の_歌_その2.musicxml");
}

TEST(TempoNotices, OnePlacePerSplitNoteOnUnmutedTracks) {
  MusicDocument d;
  d.tempoMap = {{960, 90}, {0, 120}, {3000, 100}};
  d.tracks = {track("A", false), track("B", false, "", true)};
  // 960 falls inside the first note and on the start of nothing; 3000 inside the third. The
  // second note starts on a tempo change, which splits nothing.
  d.tracks[0].notes = NoteList({note(0, 1920, " さ "), note(1920, 480), note(2880, 480, "")});
  d.tracks[1].notes = NoteList({note(0, 1920)});  // muted: not looked at
  addTempoInsideNoteNotices(d);
  ASSERT_EQ(d.importNotices.size(), 1u);
  const ImportNotice& n = d.importNotices.front();
  EXPECT_EQ(n.kind->key, std::string("tempoInsideNote"));
  EXPECT_EQ(n.trackIndex, 0);
  EXPECT_EQ(n.count, 2);
  ASSERT_EQ(n.places.size(), 2u);
  EXPECT_EQ(n.places[0].noteID, d.tracks[0].notes[0].id);
  EXPECT_EQ(n.places[0].tick, 0);
  EXPECT_EQ(n.places[0].text, "さ");
  EXPECT_EQ(n.places[1].tick, 2880);
  EXPECT_FALSE(n.places[1].text);

  // When every track with notes is muted, they are all looked at.
  MusicDocument muted = d;
  muted.importNotices.clear();
  muted.tracks[0].isMuted = true;
  addTempoInsideNoteNotices(muted);
  ASSERT_EQ(muted.importNotices.size(), 2u);
  EXPECT_EQ(muted.importNotices[1].trackIndex, 1);
}

TEST(TempoNotices, FoundAgainWhenAProjectIsOpened) {
  test::TempDir dir;
  MusicDocument d;
  d.tempoMap = {{0, 120}, {240, 60}};
  d.tracks.front().notes = NoteList({note(0, 480)});
  writeProject(d, dir / "song.nsproj");
  const MusicDocument opened = openDocument(dir / "song.nsproj");
  ASSERT_EQ(opened.importNotices.size(), 1u);
  EXPECT_EQ(opened.importNotices.front().places.size(), 1u);
  EXPECT_TRUE(opened.importNotices.front().isSealed);
}

}  // namespace
}  // namespace melvo
