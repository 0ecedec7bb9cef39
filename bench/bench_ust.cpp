// Opening a 200,000-note UTAU project saved in Shift-JIS, against ICU decoding the same bytes
// alone (goal: within 5x).
#include <benchmark/benchmark.h>

#include <string>

#include "melvo/importers/ust_parser.h"
#include "melvo/platform/charset.h"

namespace {

using namespace melvo;

constexpr int kNotes = 200000;

// Every fourth note a rest, as phrases are; the lyrics are Shift-JIS kana.
const std::string& project() {
  static const std::string bytes = [] {
    // あ か さ た な は ま ら in Shift-JIS.
    static const char* const kana[] = {"\x82\xA0", "\x82\xA9", "\x82\xB3", "\x82\xBD",
                                       "\x82\xC8", "\x82\xCD", "\x82\xDC", "\x82\xE7"};
    std::string s =
        "[#VERSION]\r\nUST Version1.2\r\n[#SETTING]\r\nTempo=120.00\r\n"
        "Tracks=1\r\nProjectName=bench\r\nMode2=True\r\n";
    s.reserve(static_cast<std::size_t>(kNotes) * 190);
    char name[32];
    for (int i = 0; i < kNotes; ++i) {
      std::snprintf(name, sizeof name, "[#%04d]\r\n", i);
      s += name;
      s += "Length=240\r\nLyric=";
      s += i % 4 == 3 ? "R" : kana[i % 8];
      s += "\r\nNoteNum=";
      s += std::to_string(55 + i % 17);
      s += "\r\nPreUtterance=\r\nVelocity=100\r\nIntensity=100\r\nModulation=0\r\n"
           "Flags=g0B0H0P86\r\nPBS=-40;0\r\nPBW=65\r\nPBY=0\r\nPBM=,\r\n";
    }
    return s + "[#TRACKEND]\r\n";
  }();
  return bytes;
}

void BM_OpenUst(benchmark::State& state) {
  const std::string& bytes = project();
  for (auto _ : state) {
    MusicDocument d = USTParser::parseBytes(bytes, "bench");
    benchmark::DoNotOptimize(d.tracks.front().notes.size());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
BENCHMARK(BM_OpenUst)->Unit(benchmark::kMillisecond);

void BM_DecodeShiftJISAlone(benchmark::State& state) {
  const std::string& bytes = project();
  for (auto _ : state) {
    auto text = charset::decodeShiftJIS(bytes);
    benchmark::DoNotOptimize(text->size());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
BENCHMARK(BM_DecodeShiftJISAlone)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
