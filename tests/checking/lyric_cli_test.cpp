// `melvo lyric` as a user and a script see it.
#include <gtest/gtest.h>

#include "melvo/platform/json.h"
#include "support/test_support.h"

namespace melvo {
namespace {

TEST(LyricCommand, JsonDescribesEachText) {
  test::TempHome home;
  auto r = test::runMelvo({"lyric", "ぢゃヶ", "空", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  Json all = Json::parse(r.out);
  ASSERT_EQ(all.size(), 2u);

  const Json& first = all.asArray()[0];
  EXPECT_EQ(first.find("state")->asString(), "partial");
  EXPECT_EQ(first.find("units")->size(), 2u);
  EXPECT_EQ(first.find("rest")->asString(), "ヶ");
  EXPECT_EQ(first.find("phonemeCount")->asInt(), 4);
  EXPECT_EQ(first.find("class")->asString(), "clean");
  EXPECT_EQ(first.find("kanjiReading"), nullptr);

  const Json& second = all.asArray()[1];
  EXPECT_EQ(second.find("state")->asString(), "unreadable");
  EXPECT_EQ(second.find("class")->asString(), "otherNonKana");
  EXPECT_EQ(second.find("kanjiReading")->asString(), "そら");
}

TEST(LyricCommand, HumanOutputAndHelp) {
  test::TempHome home;
  auto r = test::runMelvo({"lyric", "\u200Bきゃっ"}, {"LANGUAGE=en"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("<U+200B>"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("ky a / cl"), std::string::npos) << r.out;

  auto help = test::runMelvo({"lyric", "--help"}, {"LANGUAGE=en"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--json"), std::string::npos) << help.out;

  EXPECT_NE(test::runMelvo({"lyric"}).status, 0);  // nothing to examine
}

}  // namespace
}  // namespace melvo
