// The two score writers at full size: the engine's score of a 2000-bar song with 32,000
// sung notes and 500 tempo changes (goal: at least 100 MB/s of output), and a MIDI file of
// 200,000 notes (goal: under 50 ms).
#include <benchmark/benchmark.h>

#include "melvo/interchange/midi_file_writer.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/log.h"

namespace {

using namespace melvo;

const char* kLyrics[] = {"あ", "か", "さ", "た", "な", "きゃ", "ら", "ー", "ん", "しゅ"};

// 16 notes a bar with short gaps between them, so that the last bar is the 2000th; tempo
// changes every four bars, some off the beat so that they fall inside notes.
MusicDocument scoreDocument() {
  MusicDocument d;
  d.title = "benchmark";
  std::vector<NoteEvent> v;
  v.reserve(32000);
  for (std::int64_t i = 0; i < 32000; ++i) {
    v.push_back(NoteEvent::make(Uuid::random(), i * 120, 100, 55 + i % 24, 100, kLyrics[i % 10]));
  }
  d.tracks[0].notes.assign(std::move(v));
  d.tempoMap.clear();
  for (std::int64_t i = 0; i < 500; ++i)
    d.tempoMap.push_back({i * 7680 + (i % 3) * 50, 90.0 + i % 60 * 0.5});
  return d;
}

MusicDocument midiDocument() {
  MusicDocument d;
  std::vector<NoteEvent> v;
  v.reserve(200000);
  for (std::int64_t i = 0; i < 200000; ++i) {
    v.push_back(NoteEvent::make(Uuid::random(), i * 240, 240, 48 + i % 36, 100, kLyrics[i % 10]));
  }
  d.tracks[0].notes.assign(std::move(v));
  for (int i = 0; i < 100; ++i) d.tempoMap.push_back({i * 48000, 100.0 + i});
  return d;
}

void BM_RenderMusicXML(benchmark::State& state) {
  log::setSink([](const std::string&) {});  // no log file from a benchmark
  const MusicDocument d = scoreDocument();
  std::size_t bytes = 0, bars = scoreBarLayout(d, false).size();
  for (auto _ : state) {
    std::string xml = MusicXMLExporter::render(d);
    bytes = xml.size();
    benchmark::DoNotOptimize(xml.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes * state.iterations()));
  state.counters["bars"] = static_cast<double>(bars);
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_RenderMusicXML)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteMidi200k(benchmark::State& state) {
  const MusicDocument d = midiDocument();
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string data = MIDIFileWriter::data(d);
    bytes = data.size();
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes * state.iterations()));
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_WriteMidi200k)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
