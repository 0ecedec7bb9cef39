// The score check runs on every edit and the gate before every render. Goals: validating a
// 200,000-note song with typical lyrics and a few hundred problems under 100 ms, a 2,000-note
// song under 2 ms, and the gate on the large song under 30 ms (release builds).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "melvo/checking/score_validator.h"
#include "melvo/checking/synthesis_gate.h"

namespace {

using melvo::MusicDocument;
using melvo::NoteEvent;
using melvo::Uuid;

// Phrases of sixteen eighths with a quarter rest between them; lyrics as songs have them
// (mostly one kana, some youon, sokuon and diphthongs). One note in about 700 is broken in a
// way the engine fails on or the check warns about, and one tick in 2,000 holds a chord.
MusicDocument makeSong(std::size_t count) {
  static const char* kSingles[] = {
      "あ", "い", "う", "え", "お", "か", "き", "く", "け", "こ", "さ", "し", "す", "せ",
      "そ", "た", "ち", "つ", "て", "と", "な", "に", "ぬ", "ね", "の", "は", "ひ", "ふ",
      "へ", "ほ", "ま", "み", "む", "め", "も", "や", "ゆ", "よ", "ら", "り", "る", "れ",
      "ろ", "わ", "を", "ん", "が", "ぎ", "ぐ", "げ", "ご", "ざ", "じ", "ず", "ぜ", "ぞ",
      "だ", "で", "ど", "ば", "び", "ぶ", "べ", "ぼ", "ぱ", "ぴ", "ぷ", "ぺ", "ぽ", "ー"};
  static const char* kOthers[] = {"きゃ", "しょ", "ちゅ", "りょ", "にゃ", "かっ", "とっ",
                                  "あい", "こう", "てぃ", "ふぁ", "ラ",   "ン",   "ソー"};
  static const char* kBroken[] = {"！", "ヶ", "", "あ！", "1", "ぢゃ", "すき", "\u200Bか"};
  std::mt19937 rng(20240607);
  std::vector<NoteEvent> notes;
  notes.reserve(count + count / 2000);
  std::int64_t tick = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::string lyric;
    if (rng() % 700 == 0) {
      lyric = kBroken[rng() % std::size(kBroken)];
    } else if (rng() % 100 < 85 && i % 16 != 0) {
      lyric = kSingles[rng() % std::size(kSingles)];
    } else {
      lyric = kOthers[rng() % std::size(kOthers)];
    }
    const int pitch = 55 + static_cast<int>(rng() % 20);
    notes.push_back(NoteEvent::make(Uuid::random(), tick, 240, pitch, 100, std::move(lyric)));
    if (i % 2000 == 1999)
      notes.push_back(NoteEvent::make(Uuid::random(), tick, 240, pitch - 4, 100, ""));
    tick += i % 16 == 15 ? 720 : 240;
  }
  MusicDocument d;
  d.tracks[0].notes = melvo::NoteList(std::move(notes));
  d.tracks[0].characterName = "voice";
  return d;
}

const MusicDocument& song(std::size_t count) {
  static const MusicDocument large = makeSong(200000);
  static const MusicDocument small = makeSong(2000);
  return count == 200000 ? large : small;
}

void validateSong(benchmark::State& state) {
  const MusicDocument& d = song(static_cast<std::size_t>(state.range(0)));
  const std::vector<Uuid> sung{d.tracks[0].id};
  std::size_t rows = 0;
  for (auto _ : state) {
    auto issues = melvo::validate(d, sung, {});
    rows = issues.size();
    benchmark::DoNotOptimize(issues);
  }
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(validateSong)->Arg(2000)->Arg(200000)->Unit(benchmark::kMillisecond);

void gateSong(benchmark::State& state) {
  const MusicDocument& d = song(static_cast<std::size_t>(state.range(0)));
  const std::vector<Uuid> sung{d.tracks[0].id};
  std::size_t problems = 0;
  for (auto _ : state) {
    auto p = melvo::SynthesisGate::problems(d, sung);
    problems = p.size();
    benchmark::DoNotOptimize(p);
  }
  state.counters["problems"] = static_cast<double>(problems);
}
BENCHMARK(gateSong)->Arg(2000)->Arg(200000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
