// The driver's own cost per run: script generation, process start, delivery of 10,000
// progress lines through the parser, and the exit, against bash running the same script
// with its output thrown away.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "melvo/platform/event_loop.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace fs = std::filesystem;
using namespace melvo;

namespace {

struct Fixture {
  fs::path root;
  NEUTRINOConfig config;
  fs::path out;
  Fixture() {
    root = fs::temp_directory_path() / ("melvo-bench-engine-" + std::to_string(::getpid()));
    fs::create_directories(root / "bin");
    fs::create_directories(root / "model" / "v");
    // Each tool prints half of the 10,000 lines, as the engine does while it works.
    auto tool = [&](const char* name, int from, int to, const char* what) {
      fs::path p = root / "bin" / name;
      std::ofstream(p) << "#!/bin/bash\nfor ((i=" << from << ";i<=" << to
                       << ";i++)); do echo \"[$i/10000] " << what << "\"; done\n";
      ::chmod(p.c_str(), 0755);
    };
    tool("musicXMLtoLabel", 1, 5000, "label");
    tool("neutrino", 5001, 10000, "NEUTRINO inference");
    config.neutrinoDirectory = root.string();
    config.selectedCharacterName = "v";
    out = root / "out";
    std::ofstream(root / "score.musicxml") << "<score-partwise/>\n";
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

void BM_DriverRun(benchmark::State& state) {
  Fixture& f = fixture();
  EventLoop loop;
  NEUTRINOEngine engine(loop);
  std::size_t lines = 0;
  for (auto _ : state) {
    bool ok = false;
    engine.synthesize(
        f.config, f.root / "score.musicxml", f.out,
        [](double, const std::string&, std::optional<double>) {},
        [&](const std::string&) { ++lines; },
        [&](bool result) {
          ok = result;
          loop.stop();
        });
    loop.run();
    if (!ok) state.SkipWithError("run failed");
  }
  state.counters["lines/run"] =
      static_cast<double>(lines) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_DriverRun)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BashDirect(benchmark::State& state) {
  Fixture& f = fixture();
  const fs::path script = f.root / "direct.sh";
  std::ofstream(script) << NEUTRINOEngine::synthesisScript(f.config, f.root / "score.musicxml",
                                                           f.out);
  for (auto _ : state) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {"/bin/bash", script.c_str(), nullptr};
    pid_t pid = 0;
    posix_spawn(&pid, "/bin/bash", &fa, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    int status = 0;
    waitpid(pid, &status, 0);
    if (status != 0) state.SkipWithError("bash failed");
  }
}
BENCHMARK(BM_BashDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
