// The buttons of the MIDI reader's notices: each is pressed the way the issues list presses it
// (sealed notices, the score check's row, the repair), and the song must come out as the
// notice promises.
#include <gtest/gtest.h>

#include "interchange/midi_reader_builder.h"
#include "interchange/notice_buttons.h"
#include "melvo/interchange/midi_file_reader.h"

namespace melvo {
namespace {

using test::notesOf;
using test::press;
using test::TrackBytes;

MusicDocument opened(const std::string& bytes) {
  MusicDocument d = MIDIFileParser::parseBytes(bytes);
  sealNotices(d);
  return d;
}

TEST(MidiReaderButtons, BackToOneTrackJoinsTheSecondMelodyAgain) {
  TrackBytes two;
  two.lyric(0, "か").on(0, 60).lyric(120, "さ").on(0, 55).off(360, 60).off(120, 55);
  const MusicDocument d = opened(test::midiFile({two}));
  ASSERT_EQ(d.tracks.size(), 2u);
  const MusicDocument after = press(d, "midiTwoMelodiesSplit");
  EXPECT_EQ(notesOf(after.tracks[0]), "か@0+480/60 さ@120+480/55 ");
  EXPECT_TRUE(after.tracks[1].notes.empty());
}

TEST(MidiReaderButtons, ReadAsLyricsPutsTheTextsOnTheirNotesWithMelismas) {
  // Two texts over seven notes are too few to be taken for lyrics at once.
  TrackBytes t;
  t.text(0, "ら").on(0, 60).off(480, 60).on(0, 62).off(480, 62).on(0, 64).off(480, 64);
  t.text(470, "る").on(10, 65).off(480, 65).on(0, 67).off(480, 67).on(0, 69).off(480, 69);
  t.on(240, 71).off(480, 71);  // after a rest: no melisma
  const MusicDocument d = opened(test::midiFile({t}));
  for (const NoteEvent& n : d.tracks[0].notes) ASSERT_TRUE(n.lyric.empty());
  const MusicDocument after = press(d, "midiTextNotLyrics");
  EXPECT_EQ(notesOf(after.tracks[0]),
            "ら@0+480/60 ー@480+480/62 ー@960+480/64 る@1910+490/65 ー@2400+480/67 "
            "ー@2880+480/69 _@3600+480/71 ");
}

TEST(MidiReaderButtons, SplittingANoteSingsTheLyricsThatHadNoRoom) {
  // "く" falls inside "さ"'s note; "な" stands on the same onset as "か".
  TrackBytes t;
  t.lyric(0, "さ").on(0, 60).lyric(200, "く").off(760, 60);
  t.lyric(0, "か").lyric(0, "な").on(0, 62).off(480, 62);
  const MusicDocument d = opened(test::midiFile({t}));
  EXPECT_EQ(notesOf(d.tracks[0]), "さ@0+960/60 か@960+480/62 ");
  const MusicDocument after = press(d, "midiLyricOverflow");
  EXPECT_EQ(notesOf(after.tracks[0]), "さ@0+200/60 く@200+760/60 か@960+120/62 な@1080+360/62 ");
}

TEST(MidiReaderButtons, SplittingAChordSingsItsLyricsOneAfterAnother) {
  // A chord whose two notes hold lyrics, and a third lyric on it.
  TrackBytes t;
  t.lyric(0, "あ").lyric(0, "い").lyric(0, "う").on(0, 67).on(0, 60).off(480, 67).off(0, 60);
  t.sung(0, 64, 480, "え");
  const MusicDocument d = opened(test::midiFile({t}));
  const MusicDocument after = press(d, "midiLyricOverflowInChord");
  EXPECT_EQ(notesOf(after.tracks[0]), "あ@0+120/67 い@120+120/60 う@240+240/67 え@480+480/64 ");
  for (std::size_t i = 1; i < after.tracks.size(); ++i)
    EXPECT_TRUE(after.tracks[i].notes.empty()) << i;
}

}  // namespace
}  // namespace melvo
