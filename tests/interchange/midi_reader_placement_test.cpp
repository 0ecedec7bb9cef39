// Where the MIDI reader puts lyrics: channel choice, orphan lyrics, text events, placement
// within a 32nd, one melody per track and the notices each decision leaves.
#include <gtest/gtest.h>

#include "interchange/midi_reader_builder.h"
#include "interchange/notice_buttons.h"
#include "melvo/interchange/midi_file_reader.h"

namespace melvo {
namespace {

using test::noticeOf;
using test::TrackBytes;

std::vector<std::string> keys(const MusicDocument& d) {
  std::vector<std::string> out;
  for (const ImportNotice& n : d.importNotices) out.push_back(n.kind->key);
  return out;
}
std::string lyricsOf(const MusicTrack& t) {
  std::string s;
  for (const NoteEvent& n : t.notes) s += (n.lyric.empty() ? "_" : n.lyric) + " ";
  return s;
}

TEST(MidiReaderPlacement, OneLyricPerNoteTakesThemWithoutNotices) {
  TrackBytes t;
  t.sung(0, 60, 480, "あ").sung(0, 62, 480, "い").sung(0, 64, 480, "う");
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  ASSERT_EQ(d.tracks.size(), 1u);
  EXPECT_EQ(lyricsOf(d.tracks[0]), "あ い う ");
  EXPECT_EQ(d.tracks[0].name, "Track 1");
  EXPECT_TRUE(d.importNotices.empty()) << testing::PrintToString(keys(d));
}

TEST(MidiReaderPlacement, ALyricJustBeforeAnOnsetMovesTheHead) {
  // 10 ticks before the onset: within a 32nd (60 ticks), the note's head moves back.
  TrackBytes near;
  near.on(0, 60).off(470, 60).lyric(0, "か").on(10, 62).off(480, 62);
  const MusicDocument a = MIDIFileParser::parseBytes(test::midiFile({near}));
  const NoteEvent& moved = a.tracks[0].notes[1];
  EXPECT_EQ(moved.tick, 470);
  EXPECT_EQ(moved.duration, 490);
  EXPECT_EQ(moved.lyric, "か");
  ASSERT_NE(noticeOf(a, "midiLyricWithoutOnset"), nullptr);
  EXPECT_EQ(noticeOf(a, "midiLyricMovedNote")->places[0].noteID, moved.id);

  // 100 ticks before it: the lyric is not placed.
  TrackBytes far;
  far.on(0, 60).off(380, 60).lyric(0, "か").on(100, 62).off(480, 62);
  const MusicDocument b = MIDIFileParser::parseBytes(test::midiFile({far}));
  EXPECT_EQ(b.tracks[0].notes[1].tick, 480);
  EXPECT_TRUE(b.tracks[0].notes[1].lyric.empty());
  ASSERT_NE(noticeOf(b, "midiLyricNotPlaced"), nullptr);
  EXPECT_EQ(noticeOf(b, "midiLyricNotPlaced")->places[0].text, "か");
}

TEST(MidiReaderPlacement, ASecondLyricInOneNoteOverflowsWithItsText) {
  TrackBytes t;
  t.lyric(0, "さ")
      .on(0, 60)
      .lyric(200, "く")
      .off(760, 60)
      .lyric(0, "ら")
      .on(0, 62)
      .lyric(400, "ん")
      .off(50, 62)
      .sung(0, 64, 480, "ぽ");
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  EXPECT_EQ(lyricsOf(d.tracks[0]), "さ ら ぽ ");
  const ImportNotice* over = noticeOf(d, "midiLyricOverflow");
  ASSERT_NE(over, nullptr);
  EXPECT_EQ(over->places[0].text, "く");
  // "ん" stood in the last 32nd of its note with the next note's lyric right behind it.
  ASSERT_NE(noticeOf(d, "midiLyricAtNoteEnd"), nullptr);
  EXPECT_EQ(noticeOf(d, "midiLyricAtNoteEnd")->places[0].text, "ん");
}

TEST(MidiReaderPlacement, OrphanLyricsGoWhereOnsetsMeetThemBest) {
  TrackBytes conductor;
  conductor.lyric(960, "ゆ").lyric(480, "き");
  TrackBytes piano, voice;
  piano.on(0, 48).off(480, 48).on(0, 50).off(480, 50);
  voice.on(960, 60).off(480, 60).on(0, 62).off(480, 62);
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({conductor, piano, voice}));
  ASSERT_EQ(d.tracks.size(), 2u);
  EXPECT_EQ(lyricsOf(d.tracks[1]), "ゆ き ");
  EXPECT_EQ(lyricsOf(d.tracks[0]), "_ _ ");
  ASSERT_NE(noticeOf(d, "midiLyricsTrackChosen"), nullptr);
  EXPECT_EQ(noticeOf(d, "midiLyricsTrackChosen")->trackIndex, 1);

  // When a track sings its own lyrics, the orphans are left out.
  TrackBytes own;
  own.sung(0, 60, 480, "あ");
  const MusicDocument e = MIDIFileParser::parseBytes(test::midiFile({conductor, own}));
  EXPECT_NE(noticeOf(e, "midiOrphanLyricsIgnored"), nullptr);
  // And with no onset near them they are dropped.
  TrackBytes early;
  early.on(0, 60).off(100, 60);
  TrackBytes late;
  late.lyric(5000, "お");
  const MusicDocument f = MIDIFileParser::parseBytes(test::midiFile({late, early}));
  EXPECT_NE(noticeOf(f, "midiOrphanLyricsDropped"), nullptr);
}

TEST(MidiReaderPlacement, ChordWithOneLyricStaysTogether) {
  TrackBytes t;
  t.lyric(0, "ら").on(0, 60).on(0, 64).on(0, 67).off(480, 60).off(0, 64).off(0, 67);
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  ASSERT_EQ(d.tracks.size(), 1u);
  ASSERT_EQ(d.tracks[0].notes.size(), 3u);
  EXPECT_EQ(d.tracks[0].notes[0].pitch, 67);  // the top note sings
  EXPECT_EQ(d.tracks[0].notes[0].lyric, "ら");
  EXPECT_TRUE(d.importNotices.empty()) << testing::PrintToString(keys(d));
}

TEST(MidiReaderPlacement, SingingChannelIsSplitFromTheOthersOrKeptWhenUndecided) {
  TrackBytes t;  // format 0: voice on channel 0, a held chord on channel 1
  t.lyric(0, "は")
      .on(0, 60)
      .on(0, 48, 1)
      .on(0, 52, 1)
      .off(480, 60)
      .lyric(0, "る")
      .on(0, 62)
      .off(480, 62)
      .off(0, 48, 1)
      .off(0, 52, 1);
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  ASSERT_EQ(d.tracks.size(), 2u);
  EXPECT_EQ(lyricsOf(d.tracks[0]), "は る ");
  EXPECT_EQ(d.tracks[1].notes.size(), 2u);

  // Both channels meet the lyric alike: kept on one track, slipped onsets merged.
  TrackBytes u;  // each channel has one lyric on its onset and one 20 ticks off
  u.lyric(0, "ね")
      .on(0, 60)
      .on(20, 55, 1)
      .off(440, 60)
      .lyric(20, "こ")
      .off(0, 55, 1)
      .on(0, 55, 1)
      .on(20, 62)
      .off(460, 62)
      .off(0, 55, 1);
  const MusicDocument e = MIDIFileParser::parseBytes(test::midiFile({u}));
  ASSERT_EQ(e.tracks.size(), 1u);
  ASSERT_NE(noticeOf(e, "midiChannelsUndecided"), nullptr);
  EXPECT_EQ(noticeOf(e, "midiChannelsUndecided")->count, 2);
  ASSERT_NE(noticeOf(e, "midiNearOnsetsMerged"), nullptr);
  EXPECT_EQ(noticeOf(e, "midiNearOnsetsMerged")->places[0].text, "20");
  EXPECT_EQ(e.tracks[0].notes[1].tick, 0);
}

TEST(MidiReaderPlacement, MelismaGapsArpeggiosAndSecondMelodies) {
  TrackBytes t;
  t.sung(0, 60, 480, "あ")
      .on(0, 62)
      .off(480, 62)             // right after a sung note: a melisma
      .sung(30, 64, 480, "い")  // 30 ticks after: a gap closed
      .sung(0, 65, 480, "う")
      .lyric(0, "え")
      .on(0, 67)
      .on(240, 71)
      .off(240, 67)
      .off(0, 71);  // arpeggio under "え"
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  ASSERT_GE(d.tracks.size(), 2u);
  EXPECT_EQ(lyricsOf(d.tracks[0]), "あ ー い う え ");
  EXPECT_EQ(d.tracks[0].notes[1].duration, 510);
  EXPECT_NE(noticeOf(d, "midiMelisma"), nullptr);
  EXPECT_NE(noticeOf(d, "midiTinyGapsClosed"), nullptr);
  ASSERT_NE(noticeOf(d, "midiArpeggioMoved"), nullptr);
  EXPECT_TRUE(d.tracks.back().isMuted);
  EXPECT_EQ(d.tracks.back().notes[0].pitch, 71);

  TrackBytes two;  // two sung lines at once: the one that starts first stays
  two.lyric(0, "か").on(0, 60).lyric(120, "さ").on(0, 55).off(360, 60).off(120, 55);
  const MusicDocument e = MIDIFileParser::parseBytes(test::midiFile({two}));
  ASSERT_EQ(e.tracks.size(), 2u);
  EXPECT_EQ(lyricsOf(e.tracks[0]), "か ");
  EXPECT_EQ(lyricsOf(e.tracks[1]), "さ ");
  EXPECT_NE(noticeOf(e, "midiTwoMelodiesSplit"), nullptr);
}

TEST(MidiReaderPlacement, TextEventsAreLyricsOnlyWhenTheyCoverTheNotes) {
  TrackBytes covered;
  covered.text(0, "た").on(0, 60).off(480, 60).text(0, "け").on(0, 62).off(480, 62);
  const MusicDocument a = MIDIFileParser::parseBytes(test::midiFile({covered}));
  EXPECT_EQ(lyricsOf(a.tracks[0]), "た け ");
  EXPECT_NE(noticeOf(a, "karaokeTextLyrics"), nullptr);

  TrackBytes heading;
  heading.text(0, "Verse").on(0, 60).off(480, 60);
  for (int i = 0; i < 5; ++i) heading.on(0, 62).off(480, 62);
  const MusicDocument b = MIDIFileParser::parseBytes(test::midiFile({heading}));
  EXPECT_TRUE(b.tracks[0].notes[0].lyric.empty());
  const ImportNotice* n = noticeOf(b, "midiTextNotLyrics");
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->places[0].text, "Verse");
}

TEST(MidiReaderPlacement, PitchBendAndModulationAreReported) {
  TrackBytes t;
  t.sung(0, 60, 480, "あ").raw(0, {0xE0, 0, 0x50}).raw(0, {0xB0, 1, 64}).sung(0, 62, 480, "い");
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  const ImportNotice* n = noticeOf(d, "synthParameters");
  ASSERT_NE(n, nullptr);
  ASSERT_EQ(n->places.size(), 2u);
  EXPECT_EQ(n->places[0].tick, 480);
}

}  // namespace
}  // namespace melvo
