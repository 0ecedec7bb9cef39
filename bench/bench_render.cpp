// What a render costs beyond the engine's own work: a one-track song of 2,000 notes with lyrics
// rendered through the synthesizer (score written, script run with its progress parsed, voice
// mixed to mix.wav), against bash running the same engine script on a score written
// beforehand, its output thrown away. The engine is the stand-in built beside this program.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/synthesis/mixdown.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace fs = std::filesystem;
using namespace melvo;

namespace {

using melvo::bench::median;
using melvo::bench::secondsSince;

constexpr int noteCount = 2000;
constexpr double bpm = 160;

// Phrases of two 4/4 bars: fourteen eighth notes stepping through the voice's range, then a
// quarter rest to breathe. 2,000 notes come to about seven minutes.
MusicDocument song() {
  static const char* const kana[] = {"さ", "く", "ら", "ひ", "か", "り", "の", "う", "た", "が",
                                     "き", "こ", "え", "る", "よ", "な", "み", "そ", "ら", "へ"};
  MusicDocument d;
  d.tempoMap = {{0, bpm}};
  MusicTrack& t = d.tracks[0];
  t.name = "Lead";
  t.characterName = "alto";
  std::vector<NoteEvent> notes;
  notes.reserve(noteCount);
  const std::int64_t eighth = d.ppq / 2;
  for (int i = 0; i < noteCount; ++i) {
    const std::int64_t phrase = i / 14, inPhrase = i % 14;
    const std::int64_t tick = phrase * 8 * d.ppq + inPhrase * eighth;
    const int pitch = 55 + (i * 5 + phrase) % 17;  // G3 to B4, inside the alto's range
    notes.push_back(
        NoteEvent::make(Uuid::random(), tick, eighth, pitch, 100, kana[(i * 7 + phrase) % 20]));
  }
  t.notes = NoteList(std::move(notes));
  return d;
}

fs::path standInEngine() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "stand-in-engine";
}

struct Fixture {
  fs::path root;
  NEUTRINOConfig config;
  MusicDocument document = song();
  Fixture() {
    char tmpl[] = "/tmp/melvo-bench-render-XXXXXX";
    root = ::mkdtemp(tmpl);
    // An engine folder of our own, as the tests make one: the stand-in's tools, one voice.
    fs::create_directories(root / "engine" / "model" / "alto");
    fs::create_symlink(standInEngine() / "bin", root / "engine" / "bin");
    config.neutrinoDirectory = (root / "engine").string();
    config.selectedCharacterName = "alto";
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// One render through the synthesizer, in seconds: the whole of it, the mix at its end, and
// what lies outside the script's first and last lines (see BM_Render2000Notes).
bool renderOnce(Fixture& f, const fs::path& runDir, double& total, double& mixing,
                double& outside) {
  EventLoop loop;
  NEUTRINOEngine engine(loop);
  MultiTrackSynthesizer synth(loop, engine);
  const std::string mixStage = tr("WAVをミックスダウン中...");
  bool ok = false;
  const auto t0 = std::chrono::steady_clock::now();
  auto mixStart = t0, scriptFirst = t0, scriptLast = t0;
  synth.render(
      f.document, runDir, f.config, {0},
      [&](double, const std::string& stage, std::optional<double>) {
        if (stage == mixStage) mixStart = std::chrono::steady_clock::now();
      },
      [&](const std::string& line) {
        // The first and the last words of the engine script.
        if (line == "0% 合成開始...") scriptFirst = std::chrono::steady_clock::now();
        if (line == "100% 合成完了") scriptLast = std::chrono::steady_clock::now();
      },
      [&](MultiTrackSynthesizer::Result r) {
        ok = r.success;
        loop.stop();
      });
  loop.run();
  const auto t1 = std::chrono::steady_clock::now();
  total = std::chrono::duration<double>(t1 - t0).count();
  mixing = std::chrono::duration<double>(t1 - mixStart).count();
  outside = std::chrono::duration<double>((scriptFirst - t0) + (t1 - scriptLast)).count();
  return ok && scriptFirst > t0 && scriptLast > scriptFirst;
}

// The same engine run by bash alone: the script the engine is given, in its working folder.
bool runDirect(const fs::path& script, const fs::path& workingDir) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addchdir_np(&fa, workingDir.c_str());
  const char* argv[] = {"/bin/bash", script.c_str(), nullptr};
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/bin/bash", &fa, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return false;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_Render2000Notes(benchmark::State& state) {
  Fixture& f = fixture();
  if (!fs::exists(standInEngine() / "bin" / "neutrino"))
    return state.SkipWithError("the stand-in engine is not built");
  const fs::path runDir = f.root / "run";
  const fs::path directDir = f.root / "direct";
  // The bare engine's score is written here once, outside any clock: writing it is our work.
  const fs::path score = f.root / "score.musicxml";
  std::ofstream(score, std::ios::binary) << MusicXMLExporter::render(f.document.singleTrackCopy(0));
  const fs::path script = f.root / "direct.sh";
  std::ofstream(script) << NEUTRINOEngine::synthesisScript(f.config, score, directDir);

  // Once untimed, so that both start with the tools and the folders in the page cache.
  double total = 0, mixing = 0, outside = 0;
  if (!renderOnce(f, runDir, total, mixing, outside)) return state.SkipWithError("render failed");
  if (!runDirect(script, f.config.neutrinoDirectory))
    return state.SkipWithError("direct run failed");
  const double voiceSeconds = mixdown::durationSec(directDir / "output.wav").value_or(0);

  std::vector<double> melvo, direct, added, mix, outsideScript;
  bool directFirst = false;
  for (auto _ : state) {
    // Outside the clock: removing a run's files costs whoever would run next.
    fs::remove_all(runDir);
    fs::remove_all(directDir);
    double m = 0, d = 0, mx = 0, out = 0;
    for (int k = 0; k < 2; ++k) {
      // Outside the clock too: the files a run leaves would otherwise be written back while
      // the next run works and slow it down. Ours leaves four times the bytes (the mix alone
      // is 166 MB), so that mostly slowed the bare engine. Each run still writes all of its
      // own files; only what an earlier run left behind is kept out of its way.
      ::sync();
      if ((k == 0) != directFirst) {
        if (!renderOnce(f, runDir, m, mx, out)) state.SkipWithError("render failed");
      } else {
        const auto t0 = std::chrono::steady_clock::now();
        if (!runDirect(script, f.config.neutrinoDirectory))
          state.SkipWithError("direct run failed");
        d = secondsSince(t0);
      }
    }
    directFirst = !directFirst;
    state.SetIterationTime(m);
    melvo.push_back(m);
    direct.push_back(d);
    added.push_back(m - d);
    mix.push_back(mx);
    outsideScript.push_back(out);
  }
  // Medians: the engine alone varies by tens of milliseconds from run to run on a shared
  // machine, as much as what is measured here. `added` pairs the two runs of each iteration.
  state.counters["melvo_ms"] = median(melvo) * 1e3;
  state.counters["engine_ms"] = median(direct) * 1e3;
  state.counters["added_ms"] = median(added) * 1e3;
  state.counters["of_it_mix_ms"] = median(mix) * 1e3;
  // Our time before the script's first line and after its last: score, script, start, exit
  // and mix. Bash's own start and end are in it, so it is an upper bound on that part of
  // added_ms, and it does not wait on the engine, whose run varies by tens of milliseconds.
  // What it leaves out, the driver's work while the engine runs, bench_engine measures.
  state.counters["outside_script_ms"] = median(outsideScript) * 1e3;
  state.counters["voice_s"] = voiceSeconds;
}
BENCHMARK(BM_Render2000Notes)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(21);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::printf("one track of %d notes at %g bpm; added = ours - the engine alone (goal < 100 ms)\n",
              noteCount, bpm);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
