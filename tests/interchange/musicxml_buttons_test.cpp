// The buttons of the MusicXML reader's notices, pressed as the issues list presses them, and
// the readings that the buttons lean on (grace make-time, keys of later parts).
#include <gtest/gtest.h>

#include <string>

#include "interchange/notice_buttons.h"
#include "melvo/interchange/musicxml_parser.h"

namespace melvo {
namespace {

using test::notesOf;
using test::noticeOf;
using test::press;

std::string score(const std::vector<std::string>& parts) {
  std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<score-partwise version=\"3.1\">";
  s += "<part-list>";
  for (std::size_t i = 0; i < parts.size(); ++i)
    s += "<score-part id=\"P" + std::to_string(i + 1) + "\"><part-name>P" + std::to_string(i + 1) +
         "</part-name></score-part>";
  s += "</part-list>";
  for (std::size_t i = 0; i < parts.size(); ++i)
    s += "<part id=\"P" + std::to_string(i + 1) + "\">" + parts[i] + "</part>";
  return s + "</score-partwise>";
}

std::string head(int divisions, const std::string& extra = {}) {
  return "<attributes><divisions>" + std::to_string(divisions) + "</divisions>" + extra +
         "<time><beats>4</beats><beat-type>4</beat-type></time></attributes>";
}

std::string note(const std::string& step, int duration, const std::string& inner = {}) {
  return "<note><pitch><step>" + step + "</step><octave>4</octave></pitch><duration>" +
         std::to_string(duration) + "</duration>" + inner + "</note>";
}

std::string lyric(const std::string& text, int verse = 1) {
  return "<lyric number=\"" + std::to_string(verse) + "\"><text>" + text + "</text></lyric>";
}

std::string grace(const std::string& step, const std::string& attrs, const std::string& text) {
  return "<note><grace" + attrs + "/><pitch><step>" + step +
         "</step><octave>4</octave></pitch><type>eighth</type>" + lyric(text) + "</note>";
}

MusicDocument opened(const std::string& text) {
  MusicDocument d = MusicXMLParser::parseText(text);
  sealNotices(d);
  return d;
}

std::string temposOf(const MusicDocument& d) {
  std::string s;
  for (const TempoEvent& t : d.tempoMap) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%lld:%g ", static_cast<long long>(t.tick), t.bpm);
    s += buf;
  }
  return s;
}

TEST(MusicXMLButtons, EachVerseRowSingsItsVerseAndItsKindIsFoundByKey) {
  const std::string m = "<measure number=\"1\">" + head(1) +
                        note("C", 2, lyric("さ") + lyric("は", 2) + lyric("ら", 3)) +
                        note("D", 2, lyric("く") + lyric("る", 3)) + "</measure>";
  const MusicDocument d = opened(score({m}));
  EXPECT_EQ(notesOf(d.tracks[0]), "さ@0+960/60 く@960+960/62 ");

  EXPECT_EQ(notesOf(press(d, "secondVerse").tracks[0]), "は@0+960/60 く@960+960/62 ");

  const ImportNotice* third = noticeOf(d, "mxOtherVerse_3");
  ASSERT_NE(third, nullptr);
  // Found again by its key alone, with its words: what a notice needs wherever it is rebuilt.
  EXPECT_EQ(findNoticeKind(third->kind->key), third->kind);
  EXPECT_EQ(third->places[1].text, "3: る");
  EXPECT_EQ(notesOf(press(d, "mxOtherVerse_3").tracks[0]), "ら@0+960/60 る@960+960/62 ");
}

TEST(MusicXMLButtons, AVoiceSplitOffWhereTheSongRestsGoesBack) {
  // Staff 2 plays while the sung voice rests in beats 3-4, and under it in beats 1-2.
  const std::string m = "<measure number=\"1\">" + head(1, "<staves>2</staves>") +
                        note("C", 2, "<voice>1</voice>" + lyric("あ")) +
                        "<note><rest/><duration>2</duration><voice>1</voice></note>" +
                        "<backup><duration>4</duration></backup>" +
                        note("E", 2, "<voice>5</voice><staff>2</staff>") +
                        note("G", 2, "<voice>5</voice><staff>2</staff>") + "</measure>";
  const MusicDocument d = opened(score({m}));
  ASSERT_EQ(d.tracks.size(), 2u);
  EXPECT_TRUE(d.tracks[1].isMuted);
  EXPECT_EQ(noticeOf(d, "mxVoiceWithoutLyrics")->places.size(), 1u);
  const MusicDocument after = press(d, "mxVoiceWithoutLyrics");
  EXPECT_EQ(notesOf(after.tracks[0]), "あ@0+960/60 _@960+960/67 ");
  EXPECT_EQ(notesOf(after.tracks[1]), "_@0+960/64 ");
}

TEST(MusicXMLButtons, AGraceSyllableWithoutRoomIsJoinedAndTheButtonGivesItItsNote) {
  // The grace asks for a sliver of the note before, too short to hold it.
  const std::string m = "<measure number=\"1\">" + head(1) + note("C", 1, lyric("か")) +
                        grace("D", " steal-time-previous=\"0.1\"", "あ") + note("E", 1) +
                        "<note><rest/><duration>2</duration></note></measure>";
  const MusicDocument d = opened(score({m}));
  EXPECT_EQ(notesOf(d.tracks[0]), "か@0+480/60 あ@480+480/64 ");
  const MusicDocument after = press(d, "twoLyricsOnOneNote");
  EXPECT_EQ(notesOf(after.tracks[0]), "か@0+480/60 あ@480+240/62 _@720+240/64 ");
}

TEST(MusicXMLButtons, ARitStaysOutOfTheMapUntilItsButtonWritesItInSteps) {
  const std::string part =
      "<measure number=\"1\">" + head(1) + "<sound tempo=\"100\"/>" + note("C", 4, lyric("あ")) +
      "</measure><measure number=\"2\"><direction><direction-type><words>rit.</words>"
      "</direction-type></direction>" +
      note("D", 4, lyric("い")) +
      "</measure><measure number=\"3\"><direction><direction-type><words>a tempo</words>"
      "</direction-type></direction>" +
      note("E", 4, lyric("う")) + "</measure><measure number=\"4\"><direction><direction-type>" +
      "<words>accel.</words></direction-type></direction>" + note("F", 4, lyric("え")) +
      "</measure>";
  const MusicDocument d = opened(score({part}));
  EXPECT_EQ(temposOf(d), "0:100 ");
  const MusicDocument after = press(d, "ritAccel");
  // Down by a fifth over bar 2, back at bar 3; up by a fifth over bar 4 to the end.
  EXPECT_EQ(temposOf(after),
            "0:100 1920:95 2400:90 2880:85 3360:80 3840:100 5760:105 6240:110 6720:115 7200:120 ");
}

TEST(MusicXMLReader, AGraceThatMakesTimeLastsThatLong) {
  const auto graceThen = [](const std::string& attrs) {
    return score({"<measure number=\"1\">" + head(4) + grace("D", attrs, "あ") +
                  note("E", 4, lyric("い")) + "<note><rest/><duration>12</duration></note>" +
                  "</measure>"});
  };
  // An eighth without make-time takes its written value; three divisions are a dotted eighth.
  EXPECT_EQ(notesOf(MusicXMLParser::parseText(graceThen("")).tracks[0]),
            "あ@0+240/62 い@240+240/64 ");
  EXPECT_EQ(notesOf(MusicXMLParser::parseText(graceThen(" make-time=\"3\"")).tracks[0]),
            "あ@0+360/62 い@360+120/64 ");
}

TEST(MusicXMLReader, KeysAndLoudnessAreReadInPartsAfterTheFirst) {
  const std::string drums =
      "<measure number=\"1\">" + head(1, "<key><fifths>0</fifths></key>") +
      "<note><unpitched><display-step>C</display-step><display-octave>4</display-octave>"
      "</unpitched><duration>4</duration></note></measure>";
  // A B-flat instrument written in D major sounds in C; its key change to F major written
  // (one flat) sounds in E-flat (three flats). Half of forte is velocity 45.
  const std::string clarinet =
      "<measure number=\"1\">" +
      head(1, "<key><fifths>2</fifths></key><transpose><chromatic>-2</chromatic></transpose>") +
      note("C", 4, lyric("あ")) + "</measure><measure number=\"2\"><attributes><key>" +
      "<fifths>-1</fifths></key></attributes><direction><direction-type><dynamics><p/>" +
      "</dynamics></direction-type><sound dynamics=\"50\"/></direction>" +
      note("D", 4, lyric("い")) + "</measure>";
  const MusicDocument d = MusicXMLParser::parseText(score({drums, clarinet}));
  ASSERT_EQ(d.keySignatures.size(), 2u);
  EXPECT_EQ(d.keySignatures[0].fifths, 0);
  EXPECT_EQ(d.keySignatures[1].tick, 1920);
  EXPECT_EQ(d.keySignatures[1].fifths, -3);
  ASSERT_EQ(d.tracks.size(), 1u);
  EXPECT_EQ(d.tracks[0].notes[0].pitch, 58);
  EXPECT_EQ(d.tracks[0].notes[0].velocity, 100);
  EXPECT_EQ(d.tracks[0].notes[1].velocity, 45);
}

}  // namespace
}  // namespace melvo
