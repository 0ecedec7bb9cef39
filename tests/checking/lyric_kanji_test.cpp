// Kanji lyrics through the dictionary: ordinary song words must come out as the kana a singer
// would sing, and a missing dictionary must never cost the user their lyric.
#include <gtest/gtest.h>

#include <thread>

#include "melvo/checking/kanji_reading.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/platform/log.h"

namespace melvo {
namespace {

TEST(KanjiReading, CommonSongWords) {
  ASSERT_TRUE(KanjiReader::shared().loaded()) << "the IPA dictionary is not installed";
  const std::pair<const char*, const char*> words[] = {
      {"空", "そら"}, {"今日", "きょう"}, {"歌", "うた"},     {"東京", "とうきょう"},
      {"夢", "ゆめ"}, {"心", "こころ"},   {"涙", "なみだ"},   {"桜", "さくら"},
      {"星", "ほし"}, {"未来", "みらい"}, {"世界", "せかい"}, {"笑顔", "えがお"},
  };
  for (const auto& [kanji, kana] : words) EXPECT_EQ(kanjiToHiragana(kanji), kana) << kanji;
}

TEST(KanjiReading, OnlyKanjiTokensChange) {
  EXPECT_EQ(kanjiToHiragana("空を見上げて"), "そらをみあげて");
  EXPECT_EQ(kanjiToHiragana(" 空 と\u3000海 "), " そら と\u3000うみ ");
  EXPECT_EQ(kanjiToHiragana("カタカナとabc"), "カタカナとabc");  // no kanji: untouched
  EXPECT_EQ(kanjiToHiragana("ラララ歌う"), "ラララうたう");
}

TEST(KanjiReading, MissingDictionaryLeavesTheLyricAndLogsOnce) {
  log::Capture capture;
  KanjiReader reader("/nonexistent/mecab-dictionary");
  EXPECT_FALSE(reader.loaded());
  EXPECT_EQ(reader.toHiragana("空の歌"), "空の歌");
  EXPECT_EQ(reader.toHiragana("東京"), "東京");
  EXPECT_EQ(capture.count("[KanjiReading]"), 1u);
}

TEST(KanjiReading, SafeFromManyThreads) {
  std::vector<std::thread> threads;
  std::vector<std::string> results(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&results, t] {
      for (int i = 0; i < 50; ++i) results[t] = kanjiToHiragana("東京の空");
    });
  }
  for (auto& th : threads) th.join();
  for (const auto& r : results) EXPECT_EQ(r, "とうきょうのそら");
}

}  // namespace
}  // namespace melvo
