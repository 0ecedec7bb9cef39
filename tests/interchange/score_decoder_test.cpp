// The raw passes before the MusicXML reader: container, encodings, clean-up, timewise scores,
// fractional durations.
#include "melvo/interchange/score_decoder.h"

#include <expat.h>
#include <gtest/gtest.h>

#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/platform/text.h"
#include "support/test_support.h"
#include "support/zip_writer.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using Kind = MusicXMLParseError::Kind;

// Whether expat reads the text to its end; the failing line in `line`.
bool wellFormed(const std::string& xml, int* line = nullptr) {
  XML_Parser p = XML_ParserCreate(nullptr);
  const bool ok = XML_Parse(p, xml.data(), static_cast<int>(xml.size()), 1) == XML_STATUS_OK;
  if (line) *line = static_cast<int>(XML_GetCurrentLineNumber(p));
  XML_ParserFree(p);
  return ok;
}

Kind refusal(std::string_view bytes, bool mxl = false) {
  try {
    decodeScoreBytes(bytes, mxl);
  } catch (const MusicXMLParseError& e) {
    return e.kind();
  }
  ADD_FAILURE() << "decoded";
  return Kind::tooManyMeasures;
}

std::string utf16(std::string_view utf8, bool littleEndian) {
  std::string out;
  for (char32_t c : text::toScalars(utf8)) {
    const char hi = static_cast<char>(c >> 8), lo = static_cast<char>(c & 0xFF);
    out += littleEndian ? lo : hi;
    out += littleEndian ? hi : lo;
  }
  return out;
}

const std::string kScore =
    "<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n<score-partwise><work><work-title>さくら"
    "</work-title></work></score-partwise>\n";

TEST(ScoreDecoder, EveryCorpusScoreDecodesToWellFormedPartwiseText) {
  int seen = 0;
  for (const char* folder : {"musicxml", "mxl"}) {
    const fs::path dir = test::corpusPath(folder);
    if (!fs::exists(dir)) GTEST_SKIP() << "no corpus at " << dir;
    for (const auto& e : fs::directory_iterator(dir)) {
      ++seen;
      std::string text;
      ASSERT_NO_THROW(text = decodeScore(e.path())) << e.path();
      EXPECT_TRUE(text::isValidUtf8(text)) << e.path();
      EXPECT_NE(text.find("<score-partwise"), std::string::npos) << e.path();
      EXPECT_EQ(text.find('\r'), std::string::npos) << e.path();
      int line = 0;
      EXPECT_TRUE(wellFormed(text, &line)) << e.path() << " line " << line;
    }
  }
  EXPECT_GT(seen, 40);
  // Declared ISO-8859-1 with real Latin-1 bytes: the umlaut survives and the declaration
  // now tells the truth.
  const std::string latin =
      decodeScore(test::corpusPath("musicxml/libmusicxml_ISOEncodedInput.xml"));
  EXPECT_NE(latin.find("Flöte"), std::string::npos);
  EXPECT_NE(latin.find("encoding=\"UTF-8\""), std::string::npos);
}

TEST(ScoreDecoder, BrokenCorpusFilesDecodeOrAreRefusedWithATypedError) {
  const fs::path dir = test::corpusPath("broken");
  if (!fs::exists(dir)) GTEST_SKIP() << "no corpus at " << dir;
  int refused = 0;
  for (const auto& e : fs::directory_iterator(dir)) {
    try {
      decodeScore(e.path());
    } catch (const MusicXMLParseError&) {
      ++refused;
    }
  }
  // At least the MIDI files and the empty file are no XML.
  EXPECT_GE(refused, 11);
}

TEST(ScoreDecoder, ShiftJisDeclaredFileArrivesAsUtf8WithItsKana) {
  // さくら in Shift-JIS.
  const std::string sjis =
      "<?xml version='1.0' encoding='Shift_JIS'?>\r\n<score-partwise><work><work-title>"
      "\x82\xB3\x82\xAD\x82\xE7</work-title></work></score-partwise>";
  const std::string text = decodeScoreBytes(sjis, false);
  EXPECT_EQ(text.substr(0, 42), "<?xml version='1.0' encoding='UTF-8'?>\n<sc");
  EXPECT_NE(text.find("さくら"), std::string::npos);
  // Undeclared Shift-JIS is the last resort, EUC-JP only when declared.
  EXPECT_NE(decodeScoreBytes("<a>\x82\xB3</a>", false).find("さ"), std::string::npos);
  EXPECT_EQ(decodeScoreBytes("<?xml encoding=\"EUC-JP\"?><a>\xA4\xB5</a>", false),
            "<?xml encoding=\"UTF-8\"?><a>さ</a>");
}

TEST(ScoreDecoder, Utf16WithAndWithoutAMarkIsRead) {
  const std::string expected =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<score-partwise><work><work-title>さくら"
      "</work-title></work></score-partwise>\n";
  EXPECT_EQ(decodeScoreBytes("\xFF\xFE" + utf16(kScore, true), false), expected);
  EXPECT_EQ(decodeScoreBytes("\xFE\xFF" + utf16(kScore, false), false), expected);
  EXPECT_EQ(decodeScoreBytes(utf16(kScore, true), false), expected);
  EXPECT_EQ(decodeScoreBytes(utf16(kScore, false), false), expected);
  EXPECT_EQ(decodeScoreBytes("\xEF\xBB\xBF \n" + kScore, false), expected);
}

TEST(ScoreDecoder, LineEndsBecomeLfSoLinesCountAsTheParserCounts) {
  const std::string text = decodeScoreBytes("<a>\r\n<b>\r<c>\r\n</c></b></a", false);
  EXPECT_EQ(text, "<a>\n<b>\n<c>\n</c></b></a");
  int line = 0;
  EXPECT_FALSE(wellFormed(text, &line));
  EXPECT_EQ(line, 4);
  EXPECT_EQ(refusal(""), Kind::notXML);
  EXPECT_EQ(refusal("  text before any tag <a/>"), Kind::notXML);
  EXPECT_EQ(refusal("MThd\0\0\0\6"), Kind::notXML);
}

TEST(ScoreDecoder, ContainersGiveTheirScore) {
  const std::string score = "<score-partwise>s</score-partwise>";
  // container.xml names the score; without it, the first score outside META-INF.
  const std::string named =
      test::makeZip({{"META-INF/container.xml", "<rootfile full-path=\"dir/b.xml\"/>", 8},
                     {"a.xml", "<score-partwise>wrong</score-partwise>", 8},
                     {"dir/b.xml", score, 8}});
  EXPECT_EQ(decodeScoreBytes(named, true), score);
  const std::string bare = test::makeZip({{"META-INF/other.xml", "<x/>", 0},
                                          {"images/cover.png", "png", 0},
                                          {"s.MusicXML", score, 8}});
  EXPECT_EQ(decodeScoreBytes(bare, true), score);
  // A .musicxml that is in fact an archive.
  EXPECT_EQ(decodeScoreBytes(bare, false), score);
  EXPECT_EQ(refusal(test::makeZip({{"cover.png", "png", 0}}), true), Kind::mxlNoScore);
  EXPECT_EQ(refusal("not a zip", true), Kind::mxlUnzipFailed);
  test::ZipMember damaged{"s.xml", score, 8};
  damaged.crc = 7;
  EXPECT_EQ(refusal(test::makeZip({damaged}), true), Kind::mxlUnzipFailed);
}

TEST(ScoreDecoder, TimewiseScoresBecomePartwiseWithEveryPartInEveryMeasure) {
  const std::string timewise =
      "<?xml version=\"1.0\"?>\n<score-timewise version=\"3.1\">\n<part-list/>\n"
      "<measure number=\"1\"><part id=\"P1\"><note>a</note></part>"
      "<part id='P2'><note>b</note></part></measure>\n"
      "<measure number=\"2\" width=\"9\"><part id=\"P1\"><note>c</note></part></measure>\n"
      "</score-timewise>\n";
  EXPECT_EQ(partwiseText(timewise),
            "<?xml version=\"1.0\"?>\n<score-partwise version=\"3.1\">\n<part-list/>\n"
            "<part id=\"P1\">\n<measure number=\"1\"><note>a</note></measure>\n"
            "<measure number=\"2\" width=\"9\"><note>c</note></measure>\n</part>\n"
            "<part id='P2'>\n<measure number=\"1\"><note>b</note></measure>\n"
            "<measure number=\"2\" width=\"9\"/>\n</part>\n"
            "\n</score-partwise>\n");
  EXPECT_EQ(partwiseText("<score-partwise><part id=\"P1\"/></score-partwise>"),
            "<score-partwise><part id=\"P1\"/></score-partwise>");
}

TEST(ScoreDecoder, FractionalDurationsGetTheSmallestScaleThatMakesThemWhole) {
  const std::string half = "<divisions>2</divisions><note><duration>1.5</duration></note>";
  EXPECT_EQ(fractionalUnitScale(half), 10);
  EXPECT_EQ(fractionalUnitScale("<duration>4</duration><words>D.C.</words>"), 1);
  EXPECT_EQ(fractionalUnitScale("<offset sound=\"no\">-0.25</offset>"), 100);
  EXPECT_EQ(fractionalUnitScale("<sound make-time='0.125'/><duration>2.5</duration>"), 1000);
  EXPECT_EQ(fractionalUnitScale("<duration>0.3333</duration>"), 1000);
  EXPECT_EQ(fractionalUnitScale("<divisions> .5 </divisions>"), 10);
}

}  // namespace
}  // namespace melvo
