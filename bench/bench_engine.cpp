// The driver's own cost per run: script generation, process start, delivery of 10,000
// progress lines through the parser, and the exit, against bash running the same script.
//
// The baseline reads bash's stdout and stderr through pipes until both end, the way the
// driver does: a look at both, and after a look that found output a pause of the driver's
// length before the next. What a writer pays for its pipes is then in both runs, and the
// difference is the driver's own work. Two references beside it: bash whose reader wakes
// for every line (each wakeup costs the writer too), and bash writing to /dev/null, the floor
// that no reader of the lines can go under.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "melvo/platform/event_loop.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace fs = std::filesystem;
using namespace melvo;

namespace {

using melvo::bench::median;
using melvo::bench::secondsSince;

struct Fixture {
  fs::path root;
  NEUTRINOConfig config;
  fs::path out;
  fs::path script;  // the driver's script, written once for the bare runs
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
    script = root / "direct.sh";
    std::ofstream(script) << NEUTRINOEngine::synthesisScript(config, root / "score.musicxml", out);
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

// One run through the driver; the number of log lines it delivered.
bool driverRun(Fixture& f, EventLoop& loop, NEUTRINOEngine& engine, std::size_t& lines) {
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
  return ok;
}

enum class Drain { likeTheDriver, everyWakeup, devNull };

// Reads both pipes until each ends; bash's whole output passes through `buf`.
void drainPipes(int outFd, int errFd, Drain how) {
  static std::vector<char> buf(65536);
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  int open = 2;
  bool wait = true;
  while (open > 0) {
    if (wait && ::poll(fds, 2, -1) < 0) continue;
    bool got = false;
    for (pollfd& p : fds) {
      while (p.fd >= 0) {
        const ssize_t n = ::read(p.fd, buf.data(), buf.size());
        if (n > 0) {
          got = true;
          if (how == Drain::everyWakeup) break;
          continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
        ::close(p.fd);
        p.fd = -1;
        --open;
      }
    }
    wait = !(got && how == Drain::likeTheDriver);
    if (!wait) std::this_thread::sleep_for(ShellRunner::burstPause);
  }
}

// bash on the driver's script, in the same folder, its output drained as `how` says.
bool bashRun(Fixture& f, Drain how) {
  int out[2] = {-1, -1}, err[2] = {-1, -1};
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (how != Drain::devNull) {
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
  } else {
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addchdir_np(&fa, f.config.neutrinoDirectory.c_str());
  const char* argv[] = {"/bin/bash", f.script.c_str(), nullptr};
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/bin/bash", &fa, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (how != Drain::devNull) {
    ::close(out[1]);
    ::close(err[1]);
    ::fcntl(out[0], F_SETFL, O_NONBLOCK);
    ::fcntl(err[0], F_SETFL, O_NONBLOCK);
    drainPipes(out[0], err[0], how);
  }
  if (rc != 0) return false;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_DriverRun(benchmark::State& state) {
  Fixture& f = fixture();
  EventLoop loop;
  NEUTRINOEngine engine(loop);
  std::size_t lines = 0;
  for (auto _ : state)
    if (!driverRun(f, loop, engine, lines)) state.SkipWithError("run failed");
  state.counters["lines/run"] =
      static_cast<double>(lines) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_DriverRun)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BashDirect(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state)
    if (!bashRun(f, Drain::likeTheDriver)) state.SkipWithError("bash failed");
}
BENCHMARK(BM_BashDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

// References only; see the top of the file.
void BM_BashReadEveryWakeup(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state)
    if (!bashRun(f, Drain::everyWakeup)) state.SkipWithError("bash failed");
}
BENCHMARK(BM_BashReadEveryWakeup)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BashToDevNull(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state)
    if (!bashRun(f, Drain::devNull)) state.SkipWithError("bash failed");
}
BENCHMARK(BM_BashToDevNull)->Unit(benchmark::kMillisecond)->UseRealTime();

// The goal's figure: the driver, bash read like the driver reads and bash to /dev/null in
// turns, so that all three see the same machine; medians of the paired differences. On a
// shared machine any one of them alone drifts by more than the goal.
void BM_DriverOverhead(benchmark::State& state) {
  Fixture& f = fixture();
  EventLoop loop;
  NEUTRINOEngine engine(loop);
  std::size_t lines = 0;
  std::vector<double> driver, bash, floor, added, aboveFloor;
  int turn = 0;
  for (auto _ : state) {
    double t[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k) {
      const int which = (k + turn) % 3;
      const auto t0 = std::chrono::steady_clock::now();
      const bool ok = which == 0   ? driverRun(f, loop, engine, lines)
                      : which == 1 ? bashRun(f, Drain::likeTheDriver)
                                   : bashRun(f, Drain::devNull);
      t[which] = secondsSince(t0);
      if (!ok) state.SkipWithError("a run failed");
    }
    turn = (turn + 1) % 3;
    state.SetIterationTime(t[0]);
    driver.push_back(t[0]);
    bash.push_back(t[1]);
    floor.push_back(t[2]);
    added.push_back(t[0] - t[1]);
    aboveFloor.push_back(t[0] - t[2]);
  }
  state.counters["driver_ms"] = median(driver) * 1e3;
  state.counters["bash_ms"] = median(bash) * 1e3;
  state.counters["devnull_ms"] = median(floor) * 1e3;
  state.counters["added_ms"] = median(added) * 1e3;
  state.counters["above_devnull_ms"] = median(aboveFloor) * 1e3;
}
BENCHMARK(BM_DriverOverhead)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(21);

}  // namespace

BENCHMARK_MAIN();
