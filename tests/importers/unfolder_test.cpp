// Repeats written out: the order of measures after unfolding, against lists made by hand.
#include "melvo/importers/musicxml_unfolder.h"

#include <gtest/gtest.h>

#include "melvo/importers/musicxml_parse_error.h"
#include "melvo/importers/pcre_pattern.h"
#include "melvo/importers/score_decoder.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using Stats = MusicXMLUnfolder::UnfoldStats;

struct Unfolded {
  std::vector<std::string> orig;  // melvo-orig of each copy in the first part
  std::vector<int> pass;
  MusicXMLUnfolder::Result result;
};

Unfolded unfold(const std::string& text) {
  Unfolded u{{}, {}, MusicXMLUnfolder::unfold(text)};
  static const PcrePattern part("<part(?=[\\s>])[^>]*>[\\s\\S]*?</part>");
  static const PcrePattern tag("<measure\\s[^>]*melvo-pass=\"(\\d+)\"\\s+melvo-orig=\"([^\"]*)\"");
  PcrePattern::Match first;
  if (!part.find(u.result.text, first)) return u;
  tag.forEach(first.groups[0], [&](const PcrePattern::Match& m) {
    u.pass.push_back(std::stoi(std::string(m.groups[1])));
    u.orig.emplace_back(m.groups[2]);
    return true;
  });
  return u;
}

// A one-part score whose measures are numbered from 1 and hold the given marks.
std::string score(const std::vector<std::string>& measures, int parts = 1) {
  std::string s = "<score-partwise><part-list/>\n";
  for (int p = 1; p <= parts; ++p) {
    s += "<part id=\"P" + std::to_string(p) + "\">\n";
    for (std::size_t i = 0; i < measures.size(); ++i) {
      if (p > 1 && i + 1 == measures.size()) break;  // later parts are one measure short
      s += "  <measure number=\"" + std::to_string(i + 1) + "\"><note/>" + measures[i] +
           "</measure>\n";
    }
    s += "</part>\n";
  }
  return s + "</score-partwise>\n";
}

std::vector<std::string> numbers(std::initializer_list<int> list) {
  std::vector<std::string> out;
  for (int n : list) out.push_back(std::to_string(n));
  return out;
}

const std::string kForward = "<barline><repeat direction=\"forward\"/></barline>";
const std::string kBackward = "<barline><repeat direction=\"backward\"/></barline>";
std::string ending(const char* number, const char* type) {
  return std::string("<barline><ending number=\"") + number + "\" type=\"" + type +
         "\"/></barline>";
}
std::string words(const char* w) {
  return std::string("<direction><direction-type><words font-size=\"9\">") + w +
         "</words></direction-type></direction>";
}

std::string corpus(const char* name) {
  const auto path = test::corpusPath(std::string("musicxml/") + name);
  if (!std::filesystem::exists(path)) return {};
  return decodeScore(path);
}

TEST(Unfolder, CorpusRepeatsComeOutInPerformanceOrder) {
  const std::string simple = corpus("lysuite_45a-SimpleRepeat.xml");
  if (simple.empty()) GTEST_SKIP() << "no corpus";
  auto a = unfold(simple);
  EXPECT_EQ(a.orig, numbers({1, 1, 1, 1, 1, 2}));
  EXPECT_EQ(a.pass, (std::vector<int>{1, 2, 3, 4, 5, 1}));
  EXPECT_EQ(a.result.stats.repeatExpanded, 4);

  auto b = unfold(corpus("lysuite_45b-RepeatWithAlternatives.xml"));
  EXPECT_EQ(b.orig, numbers({1, 2, 1, 3, 4}));
  EXPECT_EQ(b.pass, (std::vector<int>{1, 1, 2, 2, 2}));
  EXPECT_EQ(b.result.stats.voltaApplied, 1);
  EXPECT_EQ(b.result.stats.measuresOriginal, 4);
  EXPECT_EQ(b.result.stats.measuresUnfolded, 5);

  auto c = unfold(corpus("lysuite_45c-RepeatMultipleTimes.xml"));
  EXPECT_EQ(c.orig,
            numbers({1, 2, 3, 2, 3, 2, 3, 2, 3, 2, 3, 4, 5, 6, 7, 4, 5, 6, 7, 4, 5, 6, 7, 8}));

  // D.S. al Fine in words only, with the segno as the word "Segno".
  auto ds = unfold(corpus("osmd_test_words_voice_tacet_on_ds_1687.musicxml"));
  EXPECT_EQ(ds.orig, numbers({1, 2, 3, 4, 1, 2, 3}));
  EXPECT_EQ(ds.result.stats.jumpsResolved, 1);

  // Every corpus score unfolds without a ceiling, into text the parser still reads.
  for (const auto& e : std::filesystem::directory_iterator(test::corpusPath("musicxml"))) {
    auto r = MusicXMLUnfolder::unfold(decodeScore(e.path()));
    EXPECT_FALSE(r.stats.capped) << e.path();
  }
}

TEST(Unfolder, DaCapoAlFinePlaysTheRepeatOnceAndOnlyTheLastEnding) {
  auto u = unfold(score({kForward, ending("1", "start") + ending("1", "stop") + kBackward,
                         ending("2", "start") + ending("2", "discontinue"), words("Fine"),
                         words("D.C. al Fine")}));
  EXPECT_EQ(u.orig, numbers({1, 2, 1, 3, 4, 5, 1, 3, 4}));
  EXPECT_EQ(u.pass, (std::vector<int>{1, 1, 2, 2, 2, 2, 1, 1, 1}));
  EXPECT_EQ(u.result.stats.jumpsResolved, 1);
  EXPECT_EQ(u.result.stats.repeatExpanded, 1);
}

TEST(Unfolder, DalSegnoAlCodaJumpsToTheCoda) {
  auto u = unfold(score({"", "<direction><direction-type><segno/></direction-type></direction>",
                         words("To Coda"), "", words("D.S. al Coda"),
                         "<direction><direction-type><coda/></direction-type></direction>", ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 4, 5, 2, 3, 6, 7}));
  EXPECT_EQ(u.result.stats.jumpsResolved, 2);
  // The same with sound attributes and the coda named in words.
  u = unfold(score({"<sound segno=\"s\"/>", "<sound tocoda=\"c\"/>", "<sound dalsegno=\"s\"/>",
                    words("𝄌 Coda"), ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 1, 2, 4, 5}));
  u = unfold(score({"", "<sound dacapo=\"yes\"/>", ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 1, 2, 3}));
}

TEST(Unfolder, EndingsAskForTheirPasses) {
  // "1, 2" and "3" ask for three passes though the repeat says nothing.
  auto u = unfold(score({kForward, ending("1, 2", "start") + ending("1, 2", "stop") + kBackward,
                         ending("3", "start") + ending("3", "stop"), ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 1, 2, 1, 3, 4}));
  EXPECT_EQ(u.pass, (std::vector<int>{1, 1, 2, 2, 3, 3, 3}));
  EXPECT_EQ(u.result.stats.voltaApplied, 1);
  // times="3" plays the span three times; the next backward repeat goes back to the measure
  // after it, and one with no repeat before it to the start.
  u = unfold(score({"", kForward, "<repeat direction='backward' times='3'/>", "", kBackward}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 2, 3, 2, 3, 4, 5, 4, 5}));
  u = unfold(score({"", "", kBackward}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 1, 2, 3}));
  // A forward repeat alone changes nothing.
  u = unfold(score({"", kForward, ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3}));
}

TEST(Unfolder, JumpsWithoutATargetGoStraightOnAndAreReported) {
  auto u = unfold(score({"", words("D.S."), words("To Coda"), ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 4}));
  EXPECT_EQ(u.result.stats.dsWithoutSegno, 1);
  ASSERT_EQ(u.result.problems.size(), 1u);
  EXPECT_EQ(u.result.problems[0].measure, "2");
  EXPECT_EQ(u.result.problems[0].text, "D.S.");
  u = unfold(score({"", "<sound tocoda=\"x\"/>", "<sound dacapo=\"yes\"/>"}));
  EXPECT_EQ(u.orig, numbers({1, 2, 3, 1, 2, 3}));
  EXPECT_EQ(u.result.stats.codaMissing, 1);
  ASSERT_EQ(u.result.problems.size(), 1u);
  EXPECT_EQ(u.result.problems[0].kind, MusicXMLUnfolder::FlowProblem::Kind::codaMissing);
  EXPECT_EQ(u.result.problems[0].text, "To Coda");
}

TEST(Unfolder, CeilingsStopLoopsAndRunawayRepeats) {
  // A D.S. whose segno is its own measure ends after the one jump.
  auto u = unfold(score({"", "<sound segno='a' dalsegno='a'/>", ""}));
  EXPECT_EQ(u.orig, numbers({1, 2, 2, 3}));
  try {
    unfold(score({"<repeat direction=\"backward\" times=\"100000\"/>"}));
    ADD_FAILURE() << "not refused";
  } catch (const MusicXMLParseError& e) {
    EXPECT_EQ(e.kind(), MusicXMLParseError::Kind::tooManyMeasures);
    EXPECT_EQ(e.limit(), 4000);
  }
  std::vector<MusicXMLUnfolder::MeasureInfo> loop(3);
  loop[2].backwardRepeat = true;
  loop[2].times = 5000;
  Stats stats;
  auto order = MusicXMLUnfolder::walk(loop, stats);
  EXPECT_TRUE(stats.capped);
  EXPECT_EQ(stats.loopsCapped, 1);
  EXPECT_EQ(order.size(), 4001u);
}

TEST(Unfolder, CopiesAreRenumberedMarkedAndFollowedByEveryPart) {
  const std::string plain = score(std::vector<std::string>(10, "<words>Coda theme</words>"));
  auto same = MusicXMLUnfolder::unfold(plain);
  EXPECT_EQ(same.text, plain);
  EXPECT_EQ(same.stats.measuresUnfolded, 10);

  const std::string text = score({"", kBackward, ""}, 2);
  auto u = MusicXMLUnfolder::unfold(text);
  EXPECT_EQ(u.text.find("<repeat"), std::string::npos);
  EXPECT_NE(u.text.find("<measure number=\"4\" melvo-pass=\"2\" melvo-orig=\"2\"><note/><barline>"
                        "</barline></measure>"),
            std::string::npos)
      << u.text;
  // The second part follows the same order, without its missing last measure.
  const std::size_t second = u.text.find("<part id=\"P2\">");
  ASSERT_NE(second, std::string::npos);
  const std::string tail = u.text.substr(second);
  EXPECT_NE(tail.find("number=\"4\" melvo-pass=\"2\" melvo-orig=\"2\""), std::string::npos);
  EXPECT_EQ(tail.find("melvo-orig=\"3\""), std::string::npos);
  EXPECT_TRUE(u.text.ends_with("</part>\n</score-partwise>\n"));
}

TEST(Unfolder, WordsAreReadInTheirUsualSpellings) {
  auto info = [](const char* w) {
    return MusicXMLUnfolder::readMeasure("<measure>" + words(w) + "</measure>");
  };
  EXPECT_TRUE(info("D.C. al Fine").daCapo);
  EXPECT_TRUE(info("DC").daCapo);
  EXPECT_TRUE(info("da capo").daCapo);
  EXPECT_FALSE(info("Dance").daCapo);
  EXPECT_TRUE(info("D. S.").dalSegno);
  EXPECT_TRUE(info("Dal Segno al Coda").dalSegno);
  EXPECT_FALSE(info("Dal Segno al Coda").coda);
  EXPECT_TRUE(info("al Coda").toCoda);
  EXPECT_TRUE(info("(Coda II)").coda);
  EXPECT_TRUE(info("Coda 2:").coda);
  EXPECT_TRUE(info("⊕ CODA").coda);
  EXPECT_FALSE(info("Coda theme").coda);
  EXPECT_TRUE(info("Fine.").fine);
  EXPECT_FALSE(info("Fine tuning").fine);
  EXPECT_TRUE(info(" Segno ").segno);
  auto repeat = MusicXMLUnfolder::readMeasure(
      "<measure><barline><repeat times=\"4\" direction=\"backward\"/><ending type=\"start\" "
      "number=\"1. 2. 20000\"/></barline></measure>");
  EXPECT_TRUE(repeat.backwardRepeat);
  EXPECT_EQ(repeat.times, 4);
  EXPECT_EQ(repeat.endingStart, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace melvo

namespace melvo {
namespace {

// Damaged files full of tags that never close: every pass must stay one sweep over the text
// (a search restarted at each tag would not finish here).
TEST(RawPasses, UnclosedTagsDoNotMakeAnyPassQuadratic) {
  std::string run;
  for (int i = 0; i < 100000; ++i) run += "<measure <r <duration <part ";
  const std::string text =
      "<score-partwise><part id=\"P1\"><measure number=\"1\"><repeat "
      "direction=\"backward\"/></measure>" +
      run + "<measure/></part></score-partwise>";
  auto r = MusicXMLUnfolder::unfold(text);
  EXPECT_EQ(r.stats.measuresOriginal, 2);
  EXPECT_EQ(MusicXMLUnfolder::readMeasure("<measure>" + run + "</measure>").hasFlowMark(), false);
  EXPECT_EQ(fractionalUnitScale(run + "> .5<"), 10);
  EXPECT_NE(partwiseText("<score-timewise>" + run + "<measure/>").find("<score-partwise"),
            std::string::npos);
}

// A measure of many megabytes (long embedded text, a huge part) is one match, however long.
TEST(RawPasses, AMeasureOfManyMegabytesIsStillOneMeasure) {
  const std::string filler(12u << 20, ' ');
  auto u = unfold(score({"<words>" + filler + "</words>", kBackward}));
  EXPECT_EQ(u.orig, numbers({1, 2, 1, 2}));
  // Long words are no mark, and never searched as one (the patterns' runs of optional white
  // space would take ages over them).
  u = unfold(score({"<words>Coda" + std::string(100000, ' ') + "x</words>", kBackward}));
  EXPECT_EQ(u.orig, numbers({1, 2, 1, 2}));
}

}  // namespace
}  // namespace melvo
