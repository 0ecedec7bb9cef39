// Work that must survive processes that die: a serve session stopped politely or killed, and a
// save cut short by a kill.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "app/app_test_support.h"
#include "melvo/app/auto_save_manager.h"
#include "melvo/platform/json.h"
#include "support/test_support.h"

namespace melvo {
namespace {
using namespace std::chrono_literals;
using test::ScriptedCore;
using test::songNamed;
namespace fs = std::filesystem;

// Runs `body` in a forked child that never returns into the test framework: it ends with
// _exit whether the body returns or throws.
template <typename Body>
pid_t forkChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) {
    int code = 0;
    try {
      body();
    } catch (...) {
      code = 120;
    }
    _exit(code);
  }
  return pid;
}

struct Serve {
  pid_t pid = -1;
  int out = -1;  // kept open until the end: serve says goodbye on stdout
};

// `melvo serve --open project`, once it says that it is waiting.
Serve startServe(const fs::path& project) {
  Serve s;
  int out[2];
  if (pipe(out) != 0) return s;
  s.pid = fork();
  if (s.pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    setenv("LANGUAGE", "en", 1);
    execl(MELVO_BINARY, MELVO_BINARY, "serve", "--open", project.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  s.out = out[0];
  std::string seen;
  char buf[256];
  pollfd pfd{s.out, POLLIN, 0};
  while (seen.find("Ctrl+C") == std::string::npos && poll(&pfd, 1, 30000) > 0) {
    const ssize_t n = read(s.out, buf, sizeof buf);
    if (n <= 0) break;
    seen.append(buf, static_cast<std::size_t>(n));
  }
  if (seen.find("Ctrl+C") == std::string::npos) {
    kill(s.pid, SIGKILL);
    waitpid(s.pid, nullptr, 0);
    close(s.out);
    return {};
  }
  return s;
}

// A serve session holding a project gets an automatic copy of unsaved work, the one its own
// tick would write, and is then stopped by `signal`. Returns its wait status and what the next
// start offers; the status is -1 when serve never got going or the copy was not on offer while
// it ran.
std::pair<int, Json> stopServeWithUnsavedCopy(int signal, AutoSaveSnapshot& copy) {
  test::TempDir files;
  const fs::path project = files / "proj.nsproj";
  writeProject(songNamed("proj"), project);
  fs::last_write_time(project, fs::file_time_type::clock::now() - 1h);

  Serve serve = startServe(project);
  if (serve.pid <= 0) return {-1, Json()};
  EventLoop loop(std::make_shared<ManualClock>());
  AutoSaveManager seeder(loop);
  seeder.setProject(project.string());
  if (auto written = seeder.writeSnapshot(songNamed("unsaved work"), std::nullopt, false))
    copy = *written;
  // Were the session to die right now, this copy is what would be offered.
  const bool offeredWhileRunning = AutoSaveManager(loop).findRecoverable().size() == 1;

  kill(serve.pid, signal);
  int status = 0;
  waitpid(serve.pid, &status, 0);
  close(serve.out);
  if (!offeredWhileRunning) return {-1, Json()};
  auto r = test::runMelvo({"snapshots", "list", "--json"});
  return {status, r.status == 0 ? Json::parse(r.out) : Json()};
}

TEST(Recovery, ServeStoppedBySigtermLeavesNothingToRecover) {
  test::TempHome home;
  AutoSaveSnapshot copy;
  auto [status, offered] = stopServeWithUnsavedCopy(SIGTERM, copy);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  ASSERT_TRUE(offered.isArray());
  EXPECT_EQ(offered.size(), 0u);
  EXPECT_TRUE(fs::exists(copy.url));  // the project's history stays; it is only settled
}

TEST(Recovery, ServeKilledLeavesItsCopyOnOffer) {
  test::TempHome home;
  AutoSaveSnapshot copy;
  auto [status, offered] = stopServeWithUnsavedCopy(SIGKILL, copy);
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  ASSERT_TRUE(offered.isArray());
  ASSERT_EQ(offered.size(), 1u);
  EXPECT_EQ(offered.asArray()[0].find("path")->asString(), copy.url.string());
  EXPECT_EQ(offered.asArray()[0].find("title")->asString(), "unsaved work");
}

// A saver alternates two versions of a song as fast as it can and is killed at a point spread
// over its save cycle. The project must always hold one version whole. A kill that lands
// inside a write leaves that write's temporary file behind; the test counts those, so that it
// is known to have cut saves short rather than only ever hitting the gaps between them.
TEST(Recovery, AKilledSaveLeavesOldOrNewContentNeverAMix) {
  test::TempHome home;
  test::TempDir files;
  // Small enough that writing is a fair part of a save, not lost behind encoding.
  const MusicDocument a = songNamed("a", 100), b = songNamed("b", 101);
  const std::string encodedA = encodeProject(a), encodedB = encodeProject(b);
  const fs::path p = files / "torn.nsproj";
  writeProject(a, p);

  int rounds = 0, cutShort = 0;
  const auto deadline = std::chrono::steady_clock::now() + 8s;
  while (rounds < 60 && std::chrono::steady_clock::now() < deadline) {
    int saved[2];
    ASSERT_EQ(pipe(saved), 0);
    const pid_t saver = forkChild([&] {
      close(saved[0]);
      ScriptedCore core;
      if (core.app->open(p) != AppState::FlowResult::done) return;
      for (int i = 0;; ++i) {
        core.vm().commit("編集", [&](MusicDocument& d) { d = (i % 2) ? a : b; });
        if (core.app->save() != AppState::FlowResult::done) return;
        const char c = 's';
        (void)!write(saved[1], &c, 1);  // one byte per finished save
      }
    });
    ASSERT_GT(saver, 0);
    close(saved[1]);
    auto nextSave = [&] {
      char c = 0;
      return read(saved[0], &c, 1) == 1;
    };
    // Time a few saves, then kill at a fraction of that period that differs every round
    // (golden-ratio steps cover the cycle evenly).
    bool running = nextSave();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4 && running; ++i) running = nextSave();
    const auto period = (std::chrono::steady_clock::now() - start) / 4;
    if (running) {
      const double fraction = std::fmod(rounds * 0.6180339887, 1.0);
      std::this_thread::sleep_for(
          std::chrono::duration_cast<std::chrono::nanoseconds>(period * fraction));
    }
    kill(saver, SIGKILL);
    waitpid(saver, nullptr, 0);
    close(saved[0]);
    ASSERT_TRUE(running) << "the saver stopped saving";
    ++rounds;

    bool leftover = false;
    for (const auto& e : fs::directory_iterator(files.path())) {
      if (e.path() == p) continue;
      leftover = true;  // nothing else writes here: it is a save that was cut short
      fs::remove(e.path());
    }
    ASSERT_TRUE(fs::exists(p)) << "round " << rounds;
    const std::string bytes = test::readText(p);
    EXPECT_TRUE(bytes == encodedA || bytes == encodedB)
        << "round " << rounds << ": the project holds " << bytes.size() << " bytes";
    cutShort += leftover;
  }
  EXPECT_GT(cutShort, 0) << "no kill in " << rounds << " rounds landed inside a write";
  RecordProperty("rounds", rounds);
  RecordProperty("cutShort", cutShort);
}

}  // namespace
}  // namespace melvo
