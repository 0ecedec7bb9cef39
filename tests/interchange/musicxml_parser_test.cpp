// The MusicXML reader: what a score becomes as a song, and what it tells of what it changed.
#include "melvo/interchange/musicxml_parser.h"

#include <gtest/gtest.h>

#include <map>

#include "interchange/notice_buttons.h"
#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/platform/i18n.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using Kind = MusicXMLParseError::Kind;
using test::noticeOf;

// A partwise score around the given parts' measures; each part is (id, measures text).
std::string score(const std::vector<std::pair<std::string, std::string>>& parts) {
  std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<score-partwise version=\"3.1\">\n";
  s += "<part-list>";
  for (const auto& [id, body] : parts)
    s += "<score-part id=\"" + id + "\"><part-name>" + id + "</part-name></score-part>";
  s += "</part-list>\n";
  for (const auto& [id, body] : parts) s += "<part id=\"" + id + "\">" + body + "</part>\n";
  return s + "</score-partwise>\n";
}

const std::string kHead =
    "<attributes><divisions>1</divisions><time><beats>4</beats><beat-type>4</beat-type></time>"
    "</attributes>";

std::string note(const std::string& step, int octave, int duration, const std::string& extra = {},
                 const std::string& lyric = {}) {
  std::string s = "<note><pitch><step>" + step + "</step><octave>" + std::to_string(octave) +
                  "</octave></pitch><duration>" + std::to_string(duration) + "</duration>" + extra;
  if (!lyric.empty()) s += "<lyric><text>" + lyric + "</text></lyric>";
  return s + "</note>";
}
std::string rest(int duration, const std::string& extra = {}) {
  return "<note><rest/><duration>" + std::to_string(duration) + "</duration>" + extra + "</note>";
}
std::string measure(int n, const std::string& body, const std::string& attrs = {}) {
  return "<measure number=\"" + std::to_string(n) + "\"" + attrs + ">" + body + "</measure>";
}

std::vector<std::string> lyrics(const MusicTrack& t) {
  std::vector<std::string> out;
  for (const auto& n : t.notes) out.push_back(n.lyric);
  return out;
}

Kind refusal(const std::string& text) {
  try {
    MusicXMLParser::parseText(text);
  } catch (const MusicXMLParseError& e) {
    return e.kind();
  }
  ADD_FAILURE() << "opened";
  return Kind::notXML;
}

TEST(MusicXMLReader, EveryCorpusScoreOpensOrIsRefusedForANamedReason) {
  const fs::path root = test::corpusPath("");
  if (!fs::exists(root / "musicxml")) GTEST_SKIP() << "no corpus at " << root;
  // Files that must be refused, and why; every other file must open with notes. These hold
  // rests only (repeat and layout tests of other programs).
  const std::map<std::string, Kind> refused{
      {"libmusicxml_ISOEncodedInput.xml", Kind::noNotes},
      {"lysuite_02c-Rests-MultiMeasureRests.xml", Kind::noNotes},
      {"lysuite_45a-SimpleRepeat.xml", Kind::noNotes},
      {"lysuite_45c-RepeatMultipleTimes.xml", Kind::noNotes},
      {"lysuite_45d-Repeats-Nested-Alternatives.xml", Kind::noNotes},
      {"lysuite_45f-Repeats-InvalidEndings.xml", Kind::noNotes},
      {"lysuite_41g-PartNoId.xml", Kind::noNotes},
      {"lysuite_41h-TooManyParts.xml", Kind::noNotes},
  };
  int opened = 0;
  for (const char* dir : {"musicxml", "mxl", "broken"}) {
    for (const auto& e : fs::directory_iterator(root / dir)) {
      const std::string name = e.path().filename().string();
      if (e.path().extension() == ".mid") continue;
      try {
        const MusicDocument d = MusicXMLParser::parse(e.path());
        EXPECT_GT(d.totalNoteCount(), 0u) << name;
        EXPECT_FALSE(refused.count(name)) << name << " opened";
        ++opened;
      } catch (const MusicXMLParseError& err) {
        const auto it = refused.find(name);
        if (it == refused.end())
          ADD_FAILURE() << name << ": " << err.what();
        else
          EXPECT_EQ(err.kind(), it->second) << name;
      }
    }
  }
  EXPECT_GT(opened, 40);
}

TEST(MusicXMLReader, KanaLyricsStayNoteForNoteAndVerseTwoIsReported) {
  const std::vector<std::string> kana{"さ", "くら", "きゃ", "っ", "ー", "ぱ", "ん", "を"};
  std::string m1, m2;
  for (std::size_t i = 0; i < kana.size(); ++i) {
    const std::string lyric = "<lyric number=\"1\"><syllabic>single</syllabic><text>" + kana[i] +
                              "</text></lyric><lyric number=\"2\"><text>に" + std::to_string(i) +
                              "</text></lyric>";
    (i < 4 ? m1 : m2) += note("C", 4, 1, lyric);
  }
  const MusicDocument d =
      MusicXMLParser::parseText(score({{"P1", measure(1, kHead + m1) + measure(2, m2)}}));
  ASSERT_EQ(d.tracks.size(), 1u);
  EXPECT_EQ(lyrics(d.tracks[0]), kana);
  const ImportNotice* verse = noticeOf(d, "secondVerse");
  ASSERT_NE(verse, nullptr);
  EXPECT_EQ(verse->count, 8);
  EXPECT_EQ(verse->places[3].text, "に3");
  EXPECT_EQ(verse->places[3].noteID, d.tracks[0].notes[3].id);
}

TEST(MusicXMLReader, ElidedSyllablesShareANoteUntilTheyHoldTooManyPhonemes) {
  const auto elided = [](std::vector<std::string> texts) {
    std::string s = "<lyric>";
    for (std::size_t i = 0; i < texts.size(); ++i)
      s += (i ? "<elision/>" : "") + std::string("<text>") + texts[i] + "</text>";
    return s + "</lyric>";
  };
  const std::string body = kHead + note("C", 4, 1, elided({"か", "な"})) +
                           note("D", 4, 3, elided({"きゃ", "しゅ", "ちょ", "にゃ", "ぴゃ"}));
  const MusicDocument d = MusicXMLParser::parseText(score({{"P1", measure(1, body)}}));
  EXPECT_EQ(lyrics(d.tracks[0]),
            (std::vector<std::string>{"かな", "きゃ", "しゅ", "ちょ", "にゃ", "ぴゃ"}));
  const auto& notes = d.tracks[0].notes;
  EXPECT_EQ(notes[1].tick, 480);
  EXPECT_EQ(notes[5].endTick(), 1920);
  EXPECT_EQ(noticeOf(d, "elision")->count, 1);
  EXPECT_EQ(noticeOf(d, "mxSyllablesSplit")->count, 1);
}

TEST(MusicXMLReader, APickupShiftsNotesTemposAndNoticesToTheBarLine) {
  const std::string pickup = measure(
      0, kHead + note("G", 4, 1, "<notations><fermata/></notations>", "あ"), " implicit=\"yes\"");
  const std::string bar2 =
      measure(1,
              "<direction><direction-type><words>x</words></direction-type><sound tempo=\"90\"/>"
              "</direction>" +
                  note("C", 5, 4, {}, "い"));
  const MusicDocument d = MusicXMLParser::parseText(score({{"P1", pickup + bar2}}));
  ASSERT_EQ(d.tracks[0].notes.size(), 2u);
  EXPECT_EQ(d.tracks[0].notes[0].tick, 1440);
  EXPECT_EQ(d.tracks[0].notes[1].tick, 1920);
  ASSERT_EQ(d.tempoMap.size(), 2u);
  EXPECT_EQ(d.tempoMap[1].tick, 1920);
  EXPECT_EQ(d.timeSignatures.front().tick, 0);
  const ImportNotice* fermata = noticeOf(d, "fermata");
  ASSERT_NE(fermata, nullptr);
  EXPECT_EQ(fermata->places[0].tick, 1440);
  EXPECT_EQ(noticeOf(d, "meterRebarred"), nullptr);
}

TEST(MusicXMLReader, AccompanimentWhereTheSongRestsGoesToASilentTrack) {
  const std::string staves =
      "<attributes><divisions>1</divisions><staves>2</staves><time>"
      "<beats>4</beats><beat-type>4</beat-type></time></attributes>";
  const std::string upper = note("E", 5, 2, "<voice>1</voice><staff>1</staff>", "ら") +
                            rest(2, "<voice>1</voice><staff>1</staff>");
  const std::string lower = "<backup><duration>4</duration></backup>" +
                            note("C", 3, 4, "<voice>5</voice><staff>2</staff>");
  const MusicDocument d =
      MusicXMLParser::parseText(score({{"P1", measure(1, staves + upper + lower)}}));
  ASSERT_EQ(d.tracks.size(), 2u);
  EXPECT_EQ(lyrics(d.tracks[0]), std::vector<std::string>{"ら"});
  EXPECT_FALSE(d.tracks[0].isMuted);
  EXPECT_TRUE(d.tracks[1].isMuted);
  EXPECT_EQ(d.tracks[1].notes[0].pitch, 48);
  EXPECT_EQ(d.tracks[1].name, "P1 " + trf("%d段目の声部%d", {"2", "5"}));
  const ImportNotice* moved = noticeOf(d, "mxVoiceWithoutLyrics");
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->trackIndex, 1);
}

TEST(MusicXMLReader, TwoSungVoicesOnOneStaffBecomeTwoLines) {
  const std::string v1 =
      note("E", 5, 2, "<voice>1</voice>", "あ") + note("F", 5, 2, "<voice>1</voice>", "い");
  const std::string v2 =
      "<backup><duration>4</duration></backup>" + note("C", 5, 4, "<voice>2</voice>", "う");
  const MusicDocument d = MusicXMLParser::parseText(score({{"P1", measure(1, kHead + v1 + v2)}}));
  ASSERT_EQ(d.tracks.size(), 2u);
  EXPECT_EQ(lyrics(d.tracks[0]), (std::vector<std::string>{"あ", "い"}));
  EXPECT_EQ(lyrics(d.tracks[1]), std::vector<std::string>{"う"});
  EXPECT_FALSE(d.tracks[1].isMuted);
  EXPECT_NE(noticeOf(d, "mxUnsungLyricLine"), nullptr);
}

TEST(MusicXMLReader, TiesChordsAndMelismas) {
  const std::string tieStart = "<tie type=\"start\"/>";
  const std::string tieStop = "<tie type=\"stop\"/>";
  const std::string m1 = note("C", 4, 2, tieStart, "か") + note("C", 4, 2, tieStop);  // one note
  const std::string m2 = note("D", 4, 1, tieStart, "き") + rest(1) + note("D", 4, 2, tieStop);
  const std::string m3 = note("E", 4, 2, "<notations><slur type=\"start\"/></notations>", "く") +
                         note("F", 4, 1, "<notations><slur type=\"stop\"/></notations>") +
                         note("G", 4, 1) + note("B", 4, 1, "<chord/>");
  const MusicDocument d = MusicXMLParser::parseText(
      score({{"P1", measure(1, kHead + m1) + measure(2, m2) + measure(3, m3)}}));
  const auto& notes = d.tracks[0].notes;
  ASSERT_EQ(notes.size(), 7u);
  EXPECT_EQ(notes[0].duration, 1920);
  // Across a rest the tie cannot hold: two notes and a place.
  EXPECT_EQ(notes[1].tick, 1920);
  EXPECT_EQ(notes[2].tick, 2880);
  EXPECT_EQ(noticeOf(d, "mxTieAcrossGap")->places.size(), 1u);
  // Under the slur the vowel is held; after it, not.
  EXPECT_EQ(notes[4].lyric, "ー");
  EXPECT_EQ(notes[5].lyric, "");
  EXPECT_EQ(notes[6].tick, notes[5].tick);
  EXPECT_EQ(noticeOf(d, "mxSlurMelisma")->count, 1);
}

TEST(MusicXMLReader, TemposOutOfRangeAndMetronomeMarks) {
  const auto direction = [](const std::string& inner) {
    return "<direction><direction-type>" + inner + "</direction-type></direction>";
  };
  const std::string body =
      kHead +
      direction(
          "<metronome><beat-unit>quarter</beat-unit><beat-unit-dot/>"
          "<per-minute>100</per-minute></metronome>") +
      note("C", 4, 1) + "<direction><direction-type><words>x</words></direction-type>" +
      "<sound tempo=\"0\"/></direction>" + note("C", 4, 1) +
      "<direction><direction-type><words>y</words></direction-type><sound tempo=\"1500\"/>"
      "</direction>" +
      note("C", 4, 1) + direction("<words>♪ = 96</words>") + note("C", 4, 1);
  const MusicDocument d = MusicXMLParser::parseText(score({{"P1", measure(1, body)}}));
  ASSERT_EQ(d.tempoMap.size(), 3u);
  EXPECT_DOUBLE_EQ(d.tempoMap[0].bpm, 150);
  EXPECT_EQ(d.tempoMap[1].tick, 960);
  EXPECT_DOUBLE_EQ(d.tempoMap[1].bpm, 1000);
  EXPECT_DOUBLE_EQ(d.tempoMap[2].bpm, 48);
  EXPECT_EQ(noticeOf(d, "mxTempoOutOfRange")->places.size(), 2u);
}

TEST(MusicXMLReader, PitchTranspositionMicrotonesAndMeters) {
  const std::string head =
      "<attributes><divisions>2</divisions><time><beats>3+2</beats><beat-type>8</beat-type></time>"
      "<transpose><chromatic>-2</chromatic><octave-change>-1</octave-change></transpose></"
      "attributes>";
  const std::string body = head +
                           "<note><pitch><step>D</step><alter>0.5</alter><octave>5</octave></pitch>"
                           "<duration>5</duration></note>";
  const MusicDocument d = MusicXMLParser::parseText(score({{"P1", measure(1, body)}}));
  EXPECT_EQ(d.tracks[0].notes[0].pitch, 74 + 1 - 14);
  EXPECT_EQ(d.timeSignatures.front().numerator, 5);
  EXPECT_EQ(d.timeSignatures.front().denominator, 8);
  EXPECT_NE(noticeOf(d, "additiveMeter"), nullptr);
  EXPECT_NE(noticeOf(d, "microtones"), nullptr);
}

TEST(MusicXMLReader, RefusalsNameTheirPlace) {
  try {
    MusicXMLParser::parseText(score({{"P1", measure(1, kHead + note("C", 4, 1))}}) + "\n<x>");
    ADD_FAILURE();
  } catch (const MusicXMLParseError& e) {
    EXPECT_EQ(e.kind(), Kind::brokenXML);
    EXPECT_EQ(e.line(), 7);
  }
  EXPECT_EQ(refusal(score({{"P1", measure(7, kHead + "<note><pitch><step>C</step><octave>4"
                                                     "</octave></pitch><duration>x</duration>"
                                                     "</note>")}})),
            Kind::durationUnreadable);
  EXPECT_EQ(refusal(score({{"P1", measure(1, "<attributes><divisions>0</divisions></attributes>" +
                                                 note("C", 4, 1))}})),
            Kind::divisionsUnreadable);
  EXPECT_EQ(refusal(score({{"P1", measure(1, kHead + rest(4))}})), Kind::noNotes);
}

std::string manyNotes(std::size_t count) {
  std::string body = kHead;
  body.reserve(count * 80);
  for (std::size_t i = 0; i < count; ++i) {
    if (i % 4 == 0 && i > 0) body += "</measure><measure>";
    body += "<note><pitch><step>C</step><octave>4</octave></pitch><duration>1</duration></note>";
  }
  return score({{"P1", "<measure>" + body + "</measure>"}});
}

TEST(MusicXMLReader, TwoHundredThousandNotesIsTheLimit) {
  EXPECT_EQ(MusicXMLParser::parseText(manyNotes(MusicXMLParser::kNoteLimit)).totalNoteCount(),
            MusicXMLParser::kNoteLimit);
  EXPECT_THROW(MusicXMLParser::parseText(manyNotes(MusicXMLParser::kNoteLimit + 1)),
               MIDIFileParser::TooManyNotes);
}

// What we write reads back as the same song: notes, tempos, meters.
TEST(MusicXMLReader, OurOwnScoresReadBackAsTheSameSong) {
  const auto make = [](std::vector<NoteEvent> notes, std::vector<TempoEvent> tempos,
                       std::vector<TimeSignatureEvent> meters) {
    MusicDocument d;
    d.title = "Round";
    d.tracks.front().name = "Voice";
    d.tracks.front().notes = NoteList(std::move(notes));
    d.tempoMap = std::move(tempos);
    d.timeSignatures = std::move(meters);
    return d;
  };
  const auto n = [](std::int64_t tick, std::int64_t dur, int pitch, std::string lyric) {
    return NoteEvent::make(Uuid::random(), tick, dur, pitch, 100, std::move(lyric));
  };
  const std::vector<MusicDocument> songs{
      // A tempo change inside a note: written split and tied.
      make({n(0, 1920, 61, "さ"), n(1920, 480, 62, "く"), n(2400, 240, 64, "ら")},
           {{0, 120}, {960, 90}}, {{0, 4, 4}}),
      // Meters changing, a note over a bar line, a long mark and odd lengths.
      make({n(240, 1200, 67, "き"), n(1440, 120, 69, "ー"), n(3000, 3600, 55, "ん")}, {{0, 132.5}},
           {{0, 3, 4}, {1440, 5, 4}, {3840, 6, 8}}),
  };
  for (const MusicDocument& song : songs) {
    const MusicDocument back = MusicXMLParser::parseText(MusicXMLExporter::render(song));
    ASSERT_EQ(back.tracks.size(), 1u);
    const auto& a = song.tracks[0].notes;
    const auto& b = back.tracks[0].notes;
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
      EXPECT_EQ(a[i].tick, b[i].tick) << i;
      EXPECT_EQ(a[i].duration, b[i].duration) << i;
      EXPECT_EQ(a[i].pitch, b[i].pitch) << i;
      EXPECT_EQ(a[i].lyric, b[i].lyric) << i;
    }
    EXPECT_EQ(back.tempoMap, song.tempoMap);
    EXPECT_EQ(back.timeSignatures, song.timeSignatures);
    EXPECT_EQ(back.title, "Round");
    EXPECT_EQ(back.tracks[0].name, "Voice");
  }
  // The checked-in scores of the writer read back and write again to the same bytes.
  for (const char* name : {"long_note", "tempo_inside_note", "tempo_at_bar_line"}) {
    const std::string golden =
        test::readText(test::dataPath(std::string("golden/musicxml/") + name + ".musicxml"));
    EXPECT_EQ(MusicXMLExporter::render(MusicXMLParser::parseText(golden)), golden) << name;
  }
}

}  // namespace
}  // namespace melvo
