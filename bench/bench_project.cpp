// Opening, saving and copying a 200,000-note project, measured beside the anchors: a bare
// simdjson On-Demand pass building the same records (decode goal: within 3x), nlohmann's
// parse and dump(2) (encode goal: no slower than dump(2)), and the copy-on-write goal for
// undo (copy + change one note: under 100 us and 64 KiB).
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <nlohmann/json.hpp>
#include <string>

#include "melvo/model/project_file.h"

// Counts heap bytes so the copy benchmark can report what a copy costs in memory.
static std::atomic<std::size_t> gAllocated{0};
void* operator new(std::size_t n) {
  gAllocated += n;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

using namespace melvo;

const char* kLyrics[] = {"あ", "か", "さ", "た", "な", "きゃ", "ら", "ー", "ん", "しゅ"};

MusicDocument bigDocument(std::size_t notes) {
  MusicDocument d;
  d.title = "benchmark";
  std::vector<NoteEvent> v;
  v.reserve(notes);
  for (std::size_t i = 0; i < notes; ++i) {
    v.push_back(NoteEvent::make(Uuid::random(), static_cast<std::int64_t>(i) * 240, 200,
                                48 + static_cast<int>(i % 36), 100, kLyrics[i % 10]));
  }
  d.tracks[0].notes.assign(std::move(v));
  for (int i = 0; i < 100; ++i) d.tempoMap.push_back({i * 48000, 100.0 + i});
  return d;
}

const std::string& projectText() {
  static const std::string text = encodeProject(bigDocument(200000));
  return text;
}

// Both decoders read text that is already padded, as readProject's is, so that neither loop
// times a fresh 55 MB copy (which costs mostly page faults on these machines).
void BM_Decode_Melvo(benchmark::State& state) {
  const std::string& text = projectText();
  std::string padded = text;
  for (auto _ : state) {
    MusicDocument d = decodeProjectInPlace(padded);
    benchmark::DoNotOptimize(d);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// The anchor: the same records built by a bare On-Demand pass with no tolerance rules. The
// parser is kept across iterations like ours is.
void BM_Decode_SimdjsonBaseline(benchmark::State& state) {
  const std::string& text = projectText();
  const simdjson::padded_string json(text);
  simdjson::ondemand::parser parser;
  for (auto _ : state) {
    auto doc = parser.iterate(json);
    std::vector<NoteEvent> notes;
    for (auto track : doc["tracks"].get_array()) {
      for (auto n : track["notes"].get_array()) {
        NoteEvent e;
        for (auto field : n.get_object()) {
          std::string_view k = field.unescaped_key().value();
          auto v = field.value();
          if (k == "tick")
            e.tick = v.get_int64();
          else if (k == "duration")
            e.duration = v.get_int64();
          else if (k == "pitch")
            e.pitch = static_cast<int>(v.get_int64().value());
          else if (k == "velocity")
            e.velocity = static_cast<int>(v.get_int64().value());
          else if (k == "lyric")
            e.lyric = std::string_view(v.get_string());
          else if (k == "id")
            e.id = *Uuid::parse(std::string_view(v.get_string()));
          else if (k == "slurToNext")
            e.slurToNext = v.get_bool();
          else if (k == "hasBreathAfter")
            e.hasBreathAfter = v.get_bool();
        }
        notes.push_back(std::move(e));
      }
    }
    benchmark::DoNotOptimize(notes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_Decode_Nlohmann(benchmark::State& state) {
  const std::string& text = projectText();
  for (auto _ : state) {
    auto j = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(j);
  }
}

void BM_Encode_Melvo(benchmark::State& state) {
  MusicDocument d = decodeProject(projectText());
  for (auto _ : state) {
    std::string s = encodeProject(d);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * projectText().size()));
}

void BM_Encode_NlohmannDump2(benchmark::State& state) {
  auto j = nlohmann::json::parse(projectText());
  for (auto _ : state) {
    std::string s = j.dump(2);
    benchmark::DoNotOptimize(s);
  }
}

void BM_CopyAndChangeOneNote(benchmark::State& state) {
  MusicDocument d = decodeProject(projectText());
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::size_t before = gAllocated;
    MusicDocument copy = d;
    copy.tracks[0].notes.mutableAt(100000).lyric = "い";
    bytes = gAllocated - before;
    benchmark::DoNotOptimize(copy);
  }
  state.counters["bytes"] = static_cast<double>(bytes);
}

BENCHMARK(BM_Decode_Melvo)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_Decode_SimdjsonBaseline)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_Decode_Nlohmann)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Encode_Melvo)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_Encode_NlohmannDump2)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_CopyAndChangeOneNote)->Unit(benchmark::kMicrosecond);

// Prints each goal as a ratio after the usual table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& r : runs) times[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::printf("project: 200,000 notes, %.1f MB\n", projectText().size() / 1e6);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto t = [&](const char* name) {
    for (const auto& [k, v] : reporter.times)
      if (k.rfind(name, 0) == 0) return v;
    return 0.0;
  };
  if (t("BM_Decode_SimdjsonBaseline") > 0) {
    std::printf("decode / simdjson baseline: %.2f (goal <= 3)\n",
                t("BM_Decode_Melvo") / t("BM_Decode_SimdjsonBaseline"));
  }
  if (t("BM_Encode_NlohmannDump2") > 0) {
    std::printf("encode / nlohmann dump(2): %.2f (goal <= 1)\n",
                t("BM_Encode_Melvo") / t("BM_Encode_NlohmannDump2"));
  }
  benchmark::Shutdown();
  return 0;
}
