// The validator reads, counts and classes every note's lyric at each edit: 200,000 typical
// lyrics (one or two kana) should take well under 20 ms in all.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "melvo/checking/lyric_rules.h"

namespace {

// Lyrics as songs have them: mostly one hiragana, some youon and sokuon, a few long vowels,
// katakana and two-kana notes.
std::vector<std::string> typicalLyrics(std::size_t count) {
  static const char* kSingles[] = {
      "あ", "い", "う", "え", "お", "か", "き", "く", "け", "こ", "さ", "し", "す", "せ",
      "そ", "た", "ち", "つ", "て", "と", "な", "に", "ぬ", "ね", "の", "は", "ひ", "ふ",
      "へ", "ほ", "ま", "み", "む", "め", "も", "や", "ゆ", "よ", "ら", "り", "る", "れ",
      "ろ", "わ", "を", "ん", "が", "ぎ", "ぐ", "げ", "ご", "ざ", "じ", "ず", "ぜ", "ぞ",
      "だ", "で", "ど", "ば", "び", "ぶ", "べ", "ぼ", "ぱ", "ぴ", "ぷ", "ぺ", "ぽ", "ー"};
  static const char* kOthers[] = {"きゃ", "しょ", "ちゅ", "りょ", "にゃ", "かっ",
                                  "とっ", "あい", "こう", "てぃ", "ふぁ", "ラ",
                                  "ン",   "ソー", "すき", "ゆめ", "ヴぁ", "っ"};
  std::mt19937 rng(20240607);
  std::uniform_int_distribution<int> pick(0, 99);
  std::vector<std::string> out;
  out.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (pick(rng) < 80) {
      out.emplace_back(kSingles[rng() % std::size(kSingles)]);
    } else {
      out.emplace_back(kOthers[rng() % std::size(kOthers)]);
    }
  }
  return out;
}

const std::vector<std::string>& lyrics() {
  static const std::vector<std::string> all = typicalLyrics(200000);
  return all;
}

void BM_ReadCountClassify(benchmark::State& state) {
  const auto& all = lyrics();
  melvo::readLyric("あ");  // the tables are built once, outside the measurement
  for (auto _ : state) {
    for (const auto& lyric : all) {
      benchmark::DoNotOptimize(melvo::readLyric(lyric));
      benchmark::DoNotOptimize(melvo::countPhonemes(lyric));
      benchmark::DoNotOptimize(melvo::classifyLyricChars(lyric));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}
BENCHMARK(BM_ReadCountClassify)->Unit(benchmark::kMillisecond);

// The parts on their own, to see where the time goes.
template <class F>
void runEach(benchmark::State& state, F f) {
  const auto& all = lyrics();
  melvo::readLyric("あ");
  for (auto _ : state)
    for (const auto& lyric : all) benchmark::DoNotOptimize(f(lyric));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}
void BM_ReadLyric(benchmark::State& s) {
  runEach(s, [](auto& l) { return melvo::readLyric(l); });
}
void BM_ReadingState(benchmark::State& s) {
  runEach(s, [](auto& l) { return melvo::readingState(l); });
}
void BM_CountPhonemes(benchmark::State& s) {
  runEach(s, [](auto& l) { return melvo::countPhonemes(l); });
}
void BM_Classify(benchmark::State& s) {
  runEach(s, [](auto& l) { return melvo::classifyLyricChars(l); });
}
void BM_GroupSyllables(benchmark::State& s) {
  runEach(s, [](auto& l) { return melvo::groupSyllables(l); });
}
BENCHMARK(BM_ReadLyric)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadingState)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CountPhonemes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Classify)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GroupSyllables)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
