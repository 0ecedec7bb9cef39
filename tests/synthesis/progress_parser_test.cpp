#include "melvo/synthesis/progress_parser.h"

#include <gtest/gtest.h>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

class ProgressParserTest : public ::testing::Test {
 protected:
  void SetUp() override { i18n::setLanguage("ja"); }
  void TearDown() override { i18n::setLanguage("en"); }

  // A parser on a clock that only moves when told.
  ProgressParser parser() {
    ProgressParser p;
    p.now = [this] { return clock; };
    return p;
  }
  ProgressParser::TimePoint clock{};
};

TEST_F(ProgressParserTest, PercentSignWinsAndIsClampedWhileFractionsAreNot) {
  EXPECT_EQ(ProgressParser::parsePercent("12.5 %"), 12.5);
  EXPECT_EQ(ProgressParser::parsePercent("150%"), 100.0);
  EXPECT_EQ(ProgressParser::parsePercent("[3/2]"), 150.0);
  EXPECT_EQ(ProgressParser::parsePercent("step [1/4] done 30%"), 30.0);
  EXPECT_EQ(ProgressParser::parsePercent("v1.2.3%"), 2.3);
  EXPECT_FALSE(ProgressParser::parsePercent("[12/0]"));
  EXPECT_FALSE(ProgressParser::parsePercent("12 percent"));
}

TEST_F(ProgressParserTest, ZeroDenominatorFallsThroughToTheStageTable) {
  auto p = parser();
  auto info = p.parse("[12/0] timing");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->percentage, 25.0);
  EXPECT_EQ(info->stage, "タイミング");
  EXPECT_FALSE(p.parse("[12/0]"));
}

TEST_F(ProgressParserTest, LinePercentStandsAndStageComesFromKeywordsAlone) {
  auto p = parser();
  auto start = p.parse("25% ニューラル推論開始...");
  ASSERT_TRUE(start);
  EXPECT_EQ(start->percentage, 25.0);
  EXPECT_EQ(start->stage, "");
  auto done = p.parse("100% 合成完了");
  EXPECT_EQ(done->percentage, 100.0);
  EXPECT_EQ(done->stage, "");
  // Case does not matter, and the first row of the table wins over later ones.
  auto label = p.parse("5% musicxmltolabel output");
  EXPECT_EQ(label->stage, "ラベル変換");
  EXPECT_EQ(p.parse("WORLD vocoder")->percentage, 95.0);
  EXPECT_EQ(p.lastPercentage, 95.0);
  // Keywords count among text in other scripts, but not in full-width letters.
  EXPECT_EQ(p.parse("ＴＩＭＩＮＧ 推論中 nSf")->stage, "NSFボコーダー");
  // A later, lower value is reported as it is.
  EXPECT_EQ(p.parse("[1/4]")->percentage, 25.0);
}

TEST_F(ProgressParserTest, EstimateStartsAtTheFirstPercentageAndNeedsMoreThanOne) {
  auto p = parser();
  EXPECT_FALSE(p.parse("nothing here"));
  EXPECT_FALSE(p.startTime);
  clock += std::chrono::seconds(100);
  auto first = p.parse("1%");
  EXPECT_FALSE(first->eta);  // 1.0 is not enough, however long it took
  ASSERT_TRUE(p.startTime);
  clock += std::chrono::seconds(10);
  auto quarter = p.parse("25%");
  ASSERT_TRUE(quarter->eta);
  EXPECT_NEAR(*quarter->eta, 30.0, 1e-9);  // 10 s for a quarter: 30 s to go
  clock += std::chrono::seconds(90);
  EXPECT_EQ(*p.parse("50%")->eta, 100.0);
  // Past 100 the estimate would go negative; it stops at 0.
  EXPECT_EQ(*p.parse("[3/2]")->eta, 0.0);
}

}  // namespace
}  // namespace melvo
