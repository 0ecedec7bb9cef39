// Song records: clamping, queries and tick/seconds conversion.
#include <gtest/gtest.h>

#include <cmath>

#include "melvo/model/bar_ruler.h"
#include "melvo/model/music_document.h"
#include "melvo/model/note_color_catalog.h"

namespace melvo {
namespace {

MusicTrack trackWith(std::vector<NoteEvent> notes, bool muted = false, bool solo = false,
                     std::string voice = {}) {
  MusicTrack t;
  t.notes.assign(std::move(notes));
  t.isMuted = muted;
  t.isSolo = solo;
  t.characterName = std::move(voice);
  return t;
}

TEST(NoteEvent, ConstructorClampsAndEndSaturates) {
  auto n = NoteEvent::make(Uuid::random(), -5, 0, 200, -3);
  EXPECT_EQ(n.tick, 0);
  EXPECT_EQ(n.duration, 1);
  EXPECT_EQ(n.pitch, 127);
  EXPECT_EQ(n.velocity, -3);  // stored as given
  auto late = NoteEvent::make(Uuid::random(), maxTick, maxTick * 4, -1);
  EXPECT_EQ(late.duration, maxTick);
  EXPECT_EQ(late.pitch, 0);
  EXPECT_EQ(late.endTick(), maxTick);
  EXPECT_EQ(pitchName(60), "C4");
  EXPECT_EQ(pitchName(61), "C#4");
  EXPECT_EQ(pitchName(0), "C-1");
  n.sourcePhonemes = n.lyric = "a";
  EXPECT_TRUE(n.phonemesEqualLyric());
  n.sourcePhonemes = "";
  n.lyric = "";
  EXPECT_FALSE(n.phonemesEqualLyric());
}

TEST(Document, SoundingSingableAndSungTracks) {
  MusicDocument d;
  auto n = NoteEvent::make(Uuid::random(), 0, 480, 60);
  d.tracks = {trackWith({n}, true, true, "alto"), trackWith({n}), trackWith({})};
  // A muted solo is no active solo: the plain track still sounds.
  EXPECT_TRUE(d.isSounding(d.tracks[1]));
  EXPECT_FALSE(d.isSounding(d.tracks[0]));
  EXPECT_FALSE(d.isSingable(d.tracks[2]));
  EXPECT_EQ(d.voicedTrackIndices(true), std::vector<int>{0});
  EXPECT_TRUE(d.voicedTrackIndices(false).empty());
  EXPECT_EQ(d.preferredSungTrack(std::nullopt), 1);
  d.tracks[2].isSolo = true;
  EXPECT_FALSE(d.isSounding(d.tracks[1]));  // now a live solo exists
  EXPECT_FALSE(d.allNotedTracksMuted());
  d.tracks[1].isMuted = true;
  EXPECT_TRUE(d.allNotedTracksMuted());
  EXPECT_EQ(d.fallbackTrackWhenAllMuted(1), 1);
  EXPECT_EQ(d.fallbackTrackWhenAllMuted(2), 0);  // track 2 has no notes
  EXPECT_EQ(d.preferredSungTrack(std::nullopt), std::nullopt);
  EXPECT_EQ(d.endTick(), 480);  // muted tracks count
  EXPECT_EQ(d.singleTrackCopy(1).tracks.size(), 1u);
  EXPECT_TRUE(d.singleTrackCopy(7).tracks.empty());
}

TEST(Document, TickSecondsRoundTripAndEmptyMapRunsAt120) {
  MusicDocument d;
  d.tempoMap = {{1920, 60}, {0, 120}};  // unsorted on purpose
  EXPECT_DOUBLE_EQ(d.seconds(1920), 2.0);
  EXPECT_DOUBLE_EQ(d.seconds(2400), 3.0);
  for (std::int64_t t : {0, 1, 479, 1919, 1920, 1921, 100000}) EXPECT_EQ(d.tick(d.seconds(t)), t);
  EXPECT_EQ(d.tick(-1), 0);
  // The first tempo governs ticks before it: no 120 bpm lead-in.
  d.tempoMap = {{960, 60}};
  EXPECT_DOUBLE_EQ(d.seconds(480), 1.0);
  EXPECT_EQ(d.tick(1.0), 480);
  d.tempoMap.clear();
  EXPECT_DOUBLE_EQ(d.seconds(960), 1.0);
  EXPECT_EQ(d.tick(1.0), 960);
}

TEST(Document, RepairsMapsAndTextHelpers) {
  MusicDocument d;
  d.tempoMap = {{0, 0}, {1, 2000}, {2, 0.5}, {3, -4}, {4, std::nan("")}};
  d.timeSignatures = {{0, 3, 5}, {1, 0, 4}, {2, 100, 8}};
  d.repairMaps();
  EXPECT_EQ(d.tempoMap[0].bpm, 120);
  EXPECT_EQ(d.tempoMap[1].bpm, 1000);
  EXPECT_EQ(d.tempoMap[2].bpm, 1);
  EXPECT_EQ(d.tempoMap[3].bpm, 120);
  EXPECT_EQ(d.tempoMap[4].bpm, 120);
  EXPECT_EQ(d.timeSignatures[0], (TimeSignatureEvent{0, 3, 4}));
  EXPECT_EQ(d.timeSignatures[1], (TimeSignatureEvent{1, 1, 4}));
  EXPECT_EQ(d.timeSignatures[2], (TimeSignatureEvent{2, 64, 8}));

  for (auto name : {"", "  Track ", "トラック 3", "TRACK12", "Vocal", "sequence name"})
    EXPECT_TRUE(isGenericTrackName(name)) << name;
  for (auto name : {"Soprano", "track one", "トラック", "2 track"})
    EXPECT_FALSE(isGenericTrackName(name)) << name;
  EXPECT_TRUE(isBreathMark(" 息 "));
  EXPECT_TRUE(isBreathMark("BR"));
  EXPECT_TRUE(isBreathMark("Breath"));
  EXPECT_FALSE(isBreathMark("brr"));
}

TEST(Colors, SoftenedPaletteIsPalerAndMigrates) {
  const auto& base = noteColorCatalog()[0];
  std::string soft = softenColor(base.baseHex, 0.5);
  ASSERT_EQ(soft.size(), 7u);
  EXPECT_NE(soft, base.baseHex);
  // Paler: each channel moves toward white.
  for (int i = 0; i < 3; ++i) {
    int b = std::stoi(std::string(base.baseHex).substr(1 + 2 * i, 2), nullptr, 16);
    int s = std::stoi(soft.substr(1 + 2 * i, 2), nullptr, 16);
    EXPECT_GE(s, b - 2);
  }
  EXPECT_EQ(MusicTrack::defaultTrackColor(), soft);
  EXPECT_EQ(migrateColor("#33ccbb"), soft);
  EXPECT_EQ(migrateColor("#123456"), "#123456");
  EXPECT_EQ(softenColor("red", 0.5), "red");
}

}  // namespace
}  // namespace melvo
