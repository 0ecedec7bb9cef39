// `melvo lyric` as a user and a script see it.
#include <gtest/gtest.h>

#include "support/test_support.h"

namespace melvo {
namespace {

bool has(const std::string& out, const std::string& needle) {
  return out.find(needle) != std::string::npos;
}

std::size_t occurrences(const std::string& out, const std::string& needle) {
  std::size_t n = 0;
  for (auto at = out.find(needle); at != std::string::npos; at = out.find(needle, at + 1)) ++n;
  return n;
}

// The JSON is checked in the writer's fixed layout (sorted keys, " : "), which scripts may
// rely on as much as on its values.
TEST(LyricCommand, JsonDescribesEachText) {
  test::TempHome home;
  auto partial = test::runMelvo({"lyric", "ぢゃヶ", "--json"});
  ASSERT_EQ(partial.status, 0) << partial.err;
  const std::string& p = partial.out;
  EXPECT_TRUE(has(p, "\"state\" : \"partial\"")) << p;
  EXPECT_TRUE(has(p, "\"units\" : [\n      \"j i\",\n      \"y a\"\n    ]")) << p;
  EXPECT_TRUE(has(p, "\"rest\" : \"ヶ\"")) << p;
  EXPECT_TRUE(has(p, "\"phonemeCount\" : 4")) << p;
  EXPECT_TRUE(has(p, "\"class\" : \"clean\"")) << p;
  EXPECT_FALSE(has(p, "kanjiReading")) << p;

  auto kanji = test::runMelvo({"lyric", "空", "--json"});
  ASSERT_EQ(kanji.status, 0) << kanji.err;
  EXPECT_TRUE(has(kanji.out, "\"state\" : \"unreadable\"")) << kanji.out;
  EXPECT_TRUE(has(kanji.out, "\"class\" : \"otherNonKana\"")) << kanji.out;
  EXPECT_TRUE(has(kanji.out, "\"kanjiReading\" : \"そら\"")) << kanji.out;

  auto several = test::runMelvo({"lyric", "あ", "い", "う", "--json"});
  EXPECT_EQ(occurrences(several.out, "\"lyric\" : "), 3u) << several.out;
}

TEST(LyricCommand, HumanOutputAndHelp) {
  test::TempHome home;
  auto r = test::runMelvo({"lyric", "\u200Bきゃっ"}, {"LANGUAGE=en"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, "<U+200B>")) << r.out;
  EXPECT_TRUE(has(r.out, "ky a / cl")) << r.out;
  EXPECT_TRUE(has(r.out, "readable")) << r.out;

  auto help = test::runMelvo({"lyric", "--help"}, {"LANGUAGE=en"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(has(help.out, "--json")) << help.out;

  EXPECT_NE(test::runMelvo({"lyric"}).status, 0);  // nothing to examine
}

}  // namespace
}  // namespace melvo
