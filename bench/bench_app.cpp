// The cost of a commit and of an autosave tick on a song at the importers' ceiling.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "melvo/app/auto_save_manager.h"
#include "melvo/editing/piano_roll_view_model.h"

namespace {
using namespace melvo;

MusicDocument bigSong(int notes) {
  MusicDocument d;
  std::vector<NoteEvent> list;
  list.reserve(notes);
  for (int i = 0; i < notes; ++i)
    list.push_back(NoteEvent::make(Uuid::random(), i * 240LL, 240, 48 + i % 24, 100, "ら"));
  d.tracks[0].notes.assign(std::move(list));
  return d;
}

const MusicDocument& song() {
  static MusicDocument d = bigSong(200000);
  return d;
}

void BM_OneNoteCommit(benchmark::State& state) {
  PianoRollViewModel vm(song());
  std::size_t i = 0;
  for (auto _ : state) {
    vm.commit("編集", [&](MusicDocument& d) {
      d.tracks[0].notes.mutableAt((i * 7919) % 200000).pitch = 60 + static_cast<int>(i % 12);
    });
    ++i;
  }
  // Memory held by a full history of such commits.
  PianoRollViewModel fresh(song());
  struct mallinfo2 before = mallinfo2();
  for (int k = 0; k < 100; ++k)
    fresh.commit("編集", [&](MusicDocument& d) {
      d.tracks[0].notes.mutableAt((k * 7919) % 200000).pitch = 61;
    });
  struct mallinfo2 after = mallinfo2();
  state.counters["history100_MB"] =
      static_cast<double>(after.uordblks - before.uordblks) / (1024.0 * 1024.0);
}
BENCHMARK(BM_OneNoteCommit)->Unit(benchmark::kMicrosecond);

void BM_AutoSaveTick(benchmark::State& state) {
  char tmpl[] = "/tmp/melvo-bench-XXXXXX";
  std::filesystem::path root = mkdtemp(tmpl);
  EventLoop loop(std::make_shared<ManualClock>());
  AutoSaveManager manager(loop, root / "AutoSaves", root / "autosave.json");
  manager.setSettings({AutoSaveSettings::Interval::min1, 3});
  PianoRollViewModel vm(song());
  vm.markDirty();
  manager.bind([&]() -> std::optional<std::pair<MusicDocument, bool>> {
    return std::make_pair(vm.document(), vm.isDirty());
  });
  double longest = 0, written = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    manager.autoSaveTick();  // the main thread's part: take the document, hand it to a worker
    longest = std::max(
        longest,
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    // The worker's part, outside the stall: the next tick would be skipped while it runs.
    state.PauseTiming();
    auto t1 = std::chrono::steady_clock::now();
    manager.flush();
    written = std::max(
        written,
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t1).count());
    state.ResumeTiming();
  }
  if (!manager.lastSaveDate() || manager.lastSaveError())
    state.SkipWithError("the autosave wrote nothing");
  state.counters["longest_stall_ms"] = longest;
  state.counters["worker_write_ms"] = written;
  std::filesystem::remove_all(root);
}
BENCHMARK(BM_AutoSaveTick)->Unit(benchmark::kMillisecond)->Iterations(8);

}  // namespace

BENCHMARK_MAIN();
