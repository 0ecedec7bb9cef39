#include "melvo/synthesis/shell_runner.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "melvo/platform/event_loop.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using namespace std::chrono_literals;

class ShellRunnerTest : public ::testing::Test {
 protected:
  std::filesystem::path script(const std::string& body) {
    auto p = dir / ("s" + std::to_string(++count) + ".sh");
    test::writeText(p, "#!/bin/bash\n" + body);
    return p;
  }
  // Starts a script and records every callback in order.
  void start(const std::string& body) {
    runner.run(
        script(body), dir.path(), [this](const std::string& l) { events.push_back(l); },
        [this](int status) {
          events.push_back("exit " + std::to_string(status));
          ++exits;
        });
  }
  bool waitExit(int n = 1, std::chrono::milliseconds limit = 20s) {
    return test::pumpUntil(
        loop, [&] { return exits >= n; }, limit);
  }

  test::TempDir dir;
  EventLoop loop;
  ShellRunner runner{loop};
  std::vector<std::string> events;
  int exits = 0;
  int count = 0;
};

TEST_F(ShellRunnerTest, LinesArriveInOrderAndTheExitComesLast) {
  start(
      "echo one\n"
      "echo\n"                   // empty: dropped
      "printf 'bad \\377\\n'\n"  // not UTF-8: dropped, the next line survives
      "echo 'two' >&2\n"
      "sleep 0.1\n"
      "printf 'cr\\r\\n'\n"
      "printf 'tail-err' >&2\n"
      "printf 'tail-out'\n"
      "exit 3\n");
  EXPECT_TRUE(runner.isRunning());
  ASSERT_TRUE(waitExit());
  EXPECT_EQ(events, (std::vector<std::string>{"one", "[STDERR] two", "cr\r", "tail-out",
                                              "[STDERR] tail-err", "exit 3"}));
  EXPECT_FALSE(runner.isRunning());
  EXPECT_FALSE(runner.processId());
}

TEST_F(ShellRunnerTest, TheEndOfABurstArrivesWhileTheScriptStillRuns) {
  // The burst makes the runner pause between looks; the last line comes while it does, and
  // then nothing more until the test says so. It must not wait for the exit to be seen. A
  // line longer than any read buffer comes whole.
  start(
      "for i in $(seq 1 5000); do echo \"line $i\"; done\n"
      "head -c 200000 /dev/zero | tr '\\0' x; echo\n"
      "echo last\n"
      "while [ ! -e go ]; do sleep 0.01; done\n"
      "echo after\n");
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return !events.empty() && events.back() == "last"; }, 20s));
  ASSERT_EQ(events.size(), 5002u);
  EXPECT_EQ(events[4999], "line 5000");
  EXPECT_EQ(events[5000], std::string(200000, 'x'));
  EXPECT_EQ(exits, 0);
  EXPECT_TRUE(runner.isRunning());
  test::writeText(dir / "go", "");
  ASSERT_TRUE(waitExit());
  ASSERT_EQ(events.size(), 5004u);
  EXPECT_EQ(events[5002], "after");
  EXPECT_EQ(events[5003], "exit 0");
}

TEST_F(ShellRunnerTest, DroppingTheRunnerInsideALineCallbackEndsTheRunSilently) {
  auto owned = std::make_unique<ShellRunner>(loop);
  std::vector<std::string> seen;
  bool exited = false;
  // Many lines in one read, so the runner goes away in the middle of a batch, and a tool
  // that would outlive bash if the group were not killed.
  owned->run(
      script("sleep 30 &\nfor i in $(seq 1 2000); do echo \"line $i\"; done\nwait\n"), dir.path(),
      [&](const std::string& line) {
        seen.push_back(line);
        owned.reset();
      },
      [&](int) { exited = true; });
  const pid_t group = *owned->processId();
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return !seen.empty(); }, 10s));
  EXPECT_FALSE(owned);
  EXPECT_TRUE(test::pumpUntil(
      loop, [&] { return test::liveMembers(group).empty(); }, 10s));
  std::this_thread::sleep_for(50ms);
  loop.runUntilIdle();
  EXPECT_EQ(seen, (std::vector<std::string>{"line 1"}));
  EXPECT_FALSE(exited);
}

TEST_F(ShellRunnerTest, ChildSeesTheFixedSearchPathFirstAndRunsInTheGivenFolder) {
  start("echo \"$PATH\"\npwd\n");
  ASSERT_TRUE(waitExit());
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0], childSearchPath());
  EXPECT_TRUE(events[0].starts_with("/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin:"));
  EXPECT_EQ(std::filesystem::canonical(events[1]), std::filesystem::canonical(dir.path()));
}

TEST_F(ShellRunnerTest, CancelEndsTheWholeGroupEvenAToolThatIgnoresSigterm) {
  // bash waits on a child that shrugs off SIGTERM, as a busy engine tool might.
  // The child says so once its trap is set, so both processes exist before we look.
  start("bash -c 'trap \"\" TERM; echo ready; while :; do sleep 0.05; done'\necho never\n");
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return !events.empty(); }, 10s));
  ASSERT_EQ(events.front(), "ready");
  const pid_t group = *runner.processId();
  ASSERT_GE(test::liveMembers(group).size(), 2u);
  const auto t0 = std::chrono::steady_clock::now();
  runner.cancel();
  EXPECT_FALSE(runner.isRunning());
  ASSERT_TRUE(waitExit(1, 10s));
  EXPECT_TRUE(test::liveMembers(group).empty());  // by the time the exit is told
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 4s);
  EXPECT_EQ(events.back(), "exit " + std::to_string(128 + SIGTERM));
  std::this_thread::sleep_for(200ms);
  loop.runUntilIdle();
  EXPECT_EQ(exits, 1);
}

TEST_F(ShellRunnerTest, TheExitComesOnlyOnceNothingOfTheGroupIsLeft) {
  // The script ends at once, leaving behind a child that shrugs off SIGTERM: whoever quits on
  // the exit must not leave it running.
  std::optional<std::size_t> leftAtExit;
  pid_t group = 0;
  runner.run(
      script("bash -c 'trap \"\" TERM; echo ready; sleep 60' &\nsleep 0.3\n"), dir.path(),
      [this](const std::string& l) { events.push_back(l); },
      [&](int status) {
        leftAtExit = test::liveMembers(group).size();
        events.push_back("exit " + std::to_string(status));
        ++exits;
      });
  group = *runner.processId();
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitExit(1, 10s));
  EXPECT_EQ(leftAtExit, 0u);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 3s);  // its grace time, then SIGKILL
  EXPECT_EQ(events.back(), "exit 0");                    // the script's own status

  // A second cancel does not wait for the grace time.
  events.clear();
  start("bash -c 'trap \"\" TERM; echo ready; while :; do sleep 0.05; done'\n");
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return !events.empty(); }, 10s));
  const auto t1 = std::chrono::steady_clock::now();
  runner.cancel();
  runner.cancel();
  ASSERT_TRUE(waitExit(2, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - t1, 1500ms);
}

TEST_F(ShellRunnerTest, AStaleRunsExitDoesNotClearTheNewRun) {
  // The script says when its trap is set: a SIGTERM before that would kill it outright.
  start("trap 'sleep 0.3; exit 5' TERM\necho ready\nsleep 5 & wait\n");
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return !events.empty(); }, 10s));
  ASSERT_EQ(events, (std::vector<std::string>{"ready"}));
  events.clear();
  // Cancels the first, which takes a while to go; the second lasts until we let it end.
  start("while [ ! -e go ]; do sleep 0.02; done\necho second\n");
  const pid_t second = *runner.processId();
  ASSERT_TRUE(waitExit(1));
  EXPECT_EQ(events.front(), "exit 5");
  EXPECT_TRUE(runner.isRunning());
  EXPECT_EQ(runner.processId(), second);
  test::writeText(dir / "go", "");
  ASSERT_TRUE(waitExit(2));
  EXPECT_EQ(events, (std::vector<std::string>{"exit 5", "second", "exit 0"}));
  EXPECT_FALSE(runner.isRunning());
}

TEST_F(ShellRunnerTest, CancelWithNothingRunningIsHarmless) {
  runner.cancel();
  EXPECT_FALSE(runner.isRunning());
  start("exit 0\n");
  ASSERT_TRUE(waitExit());
  runner.cancel();  // after the end: nothing to signal
  EXPECT_EQ(events, (std::vector<std::string>{"exit 0"}));
}

TEST_F(ShellRunnerTest, AFailedLaunchIsThrownAndLeavesTheRunnerMarkedRunning) {
  EXPECT_THROW(
      runner.run(
          script("exit 0\n"), dir / "no-such-folder", [](const std::string&) {}, [](int) {}),
      SpawnError);
  EXPECT_TRUE(runner.isRunning());
  runner.cancel();
  EXPECT_FALSE(runner.isRunning());
}

}  // namespace
}  // namespace melvo
