// The instrument preview rendered offline: a three-minute song of two tracks (a melody in
// eighths and three-note chords on every beat, 120 bpm, 90 bars) written as a WAV file, from
// the document to the file, with the sound bank loaded in each run as the command does. The
// counter "x_realtime" is the song's length over the median wall time: the goal is 50 or more.
// "cpu_x_realtime" is the same over the process's CPU time, which a machine shared with other
// work disturbs less. "to_memory" renders the same frames to a sink that keeps nothing, to tell the
// synthesizer's part from the file's.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <vector>

#include "bench_support.h"
#include "melvo/playback/offline_render.h"
#include "melvo/playback/sound_bank.h"

namespace fs = std::filesystem;
using namespace melvo;

namespace {

using melvo::bench::median;
using melvo::bench::secondsSince;

MusicDocument threeMinuteSong() {
  MusicDocument d;
  d.title = "bench";
  d.tempoMap = {{0, 120}};
  MusicTrack chords;
  chords.name = "chords";
  const int melody[] = {60, 62, 64, 65, 67, 69, 71, 72, 71, 69, 67, 65, 64, 62};
  const int roots[] = {48, 53, 55, 48};
  for (std::int64_t bar = 0; bar < 90; ++bar) {
    for (int eighth = 0; eighth < 8; ++eighth) {
      const std::int64_t tick = bar * 1920 + eighth * 240;
      d.tracks.front().notes.push_back(
          NoteEvent::make(Uuid::random(), tick, 240, melody[(bar * 8 + eighth) % 14], 100, "ら"));
    }
    for (int beat = 0; beat < 4; ++beat)
      for (int step : {0, 4, 7})
        chords.notes.push_back(NoteEvent::make(Uuid::random(), bar * 1920 + beat * 480, 480,
                                               roots[bar % 4] + step, 80));
  }
  d.tracks.push_back(chords);
  return d;
}

void previewRender(benchmark::State& state, bool toFile) {
  const auto bank = findSoundBank();
  if (!bank) {
    state.SkipWithError(soundBankMissingMessage().c_str());
    return;
  }
  const MusicDocument song = threeMinuteSong();
  const double songSeconds = song.seconds(song.endTick());
  const fs::path wav = fs::temp_directory_path() / "melvo-bench-preview.wav";
  OfflinePreview options;
  options.soundBank = *bank;
  std::vector<double> times, cpuTimes;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    const std::clock_t c0 = std::clock();
    OfflinePreviewResult r;
    if (toFile)
      r = renderPreviewToWav(song, options, wav);
    else
      r = renderPreview(song, options, [](const float*, const float*, int) { return true; });
    times.push_back(secondsSince(t0));
    cpuTimes.push_back(static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC);
    if (!r.ok) {
      state.SkipWithError(r.error.c_str());
      break;
    }
  }
  std::filesystem::remove(wav);
  state.counters["song_s"] = songSeconds;
  state.counters["median_s"] = median(times);
  state.counters["x_realtime"] = songSeconds / median(times);
  state.counters["cpu_x_realtime"] = songSeconds / median(cpuTimes);
}

void BM_PreviewToWav(benchmark::State& state) {
  previewRender(state, true);
}
void BM_PreviewToMemory(benchmark::State& state) {
  previewRender(state, false);
}

BENCHMARK(BM_PreviewToWav)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_PreviewToMemory)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
