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
  {
    // A run that wrote the copy and ended without settling it, as a crash does.
    AutoSaveManager seeder(loop);
    seeder.setProject(project.string());
    if (auto written = seeder.writeSnapshot(songNamed("unsaved work"), std::nullopt, false))
      copy = *written;
  }
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

// A run that only opened the project and quit in order has nothing of its own to settle: the
// copy of the run that died stays on offer.
TEST(Recovery, AnOrderlyRunThatOnlyOpenedTheProjectLeavesACrashCopyOnOffer) {
  test::TempHome home;
  AutoSaveSnapshot copy;
  auto [status, offered] = stopServeWithUnsavedCopy(SIGTERM, copy);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  ASSERT_TRUE(offered.isArray());
  ASSERT_EQ(offered.size(), 1u);
  EXPECT_EQ(offered.asArray()[0].find("path")->asString(), copy.url.string());
}

// A run that dies after writing `titles` as automatic copies (oldest first) of `project`, or
// of an unsaved song when there is none, in the time zone `tz`. Returns its session.
std::string crashedRunWrote(const std::optional<fs::path>& project,
                            const std::vector<std::string>& titles, const char* tz = nullptr) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = forkChild([&] {
    close(fds[0]);
    if (tz) {
      setenv("TZ", tz, 1);
      tzset();
    }
    EventLoop loop(std::make_shared<ManualClock>());
    AutoSaveManager run(loop);
    if (project) run.setProject(project->string());
    for (const auto& t : titles) {
      run.writeSnapshot(songNamed(t), std::nullopt, false);
      std::this_thread::sleep_for(2ms);
    }
    (void)!write(fds[1], run.sessionId().data(), run.sessionId().size());
  });
  close(fds[1]);
  std::string session;
  char buf[64];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) session.append(buf, n);
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return session;
}

Json listed(const std::vector<std::string>& env = {}) {
  auto r = test::runMelvo({"snapshots", "list", "--json"}, env);
  EXPECT_EQ(r.status, 0) << r.err;
  return r.status == 0 ? Json::parse(r.out) : Json::array();
}

// Copies of a run that is still going in another process are its own business; once that
// process is killed they are a crash's leftovers and on offer.
TEST(Recovery, ALiveRunsCopiesAreOfferedOnlyAfterItDies) {
  test::TempHome home;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t run = forkChild([&] {
    close(fds[0]);
    EventLoop loop(std::make_shared<ManualClock>());
    AutoSaveManager manager(loop);
    manager.writeSnapshot(songNamed("still editing"), std::nullopt, false);
    (void)!write(fds[1], "w", 1);
    pause();
  });
  close(fds[1]);
  char c = 0;
  ASSERT_EQ(read(fds[0], &c, 1), 1);
  close(fds[0]);
  EventLoop loop(std::make_shared<ManualClock>());
  EXPECT_TRUE(AutoSaveManager(loop).findRecoverable().empty());
  EXPECT_EQ(listed().size(), 0u);

  kill(run, SIGKILL);
  waitpid(run, nullptr, 0);
  const auto offered = AutoSaveManager(loop).findRecoverable();
  ASSERT_EQ(offered.size(), 1u);
  EXPECT_EQ(offered[0].title, "still editing");
}

// Whether a copy is newer than its project must not hang on the reader's clock settings.
TEST(Recovery, ACrashCopyIsOfferedWithTheSameDateInEveryTimeZone) {
  test::TempHome home;
  test::TempDir files;
  const fs::path project = files / "tz.nsproj";
  writeProject(songNamed("tz"), project);
  fs::last_write_time(project, fs::file_time_type::clock::now() - 1h);
  ASSERT_FALSE(crashedRunWrote(project, {"written in UTC"}, "UTC").empty());

  const Json utc = listed({"TZ=UTC"});
  const Json tokyo = listed({"TZ=JST-9"});
  const Json honolulu = listed({"TZ=HST10"});
  ASSERT_EQ(utc.size(), 1u);
  ASSERT_EQ(tokyo.size(), 1u);
  ASSERT_EQ(honolulu.size(), 1u);
  EXPECT_EQ(utc.asArray()[0].find("date")->asDouble(), tokyo.asArray()[0].find("date")->asDouble());
  EXPECT_EQ(utc.asArray()[0].find("date")->asDouble(),
            honolulu.asArray()[0].find("date")->asDouble());

  // Taken back into a file: no longer offered.
  auto r = test::runMelvo({"snapshots", "restore", utc.asArray()[0].find("path")->asString(),
                           (files / "back.nsproj").string()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readProject(files / "back.nsproj").title, "written in UTC");
  EXPECT_EQ(listed().size(), 0u);
}

// Discarding is for copies only, and it dismisses the run that died, not one copy at a time.
TEST(Recovery, DiscardTouchesOnlyCopiesAndDismissesTheirWholeSession) {
  test::TempHome home;
  test::TempDir files;
  const fs::path project = files / "mine.nsproj";
  writeProject(songNamed("mine"), project);
  fs::last_write_time(project, fs::file_time_type::clock::now() - 1h);
  crashedRunWrote(project, {"edit 1", "edit 2", "edit 3"});

  // The user's own project, and a link into the folders that leads to it, are refused.
  auto r = test::runMelvo({"snapshots", "discard", project.string()});
  EXPECT_EQ(r.status, 2) << r.err;
  Json offered = listed();
  ASSERT_EQ(offered.size(), 1u);
  const fs::path newest = offered.asArray()[0].find("path")->asString();
  fs::create_symlink(project, newest.parent_path() / "link.nsproj");
  r = test::runMelvo({"snapshots", "discard", (newest.parent_path() / "link.nsproj").string()});
  EXPECT_EQ(r.status, 2) << r.err;
  EXPECT_TRUE(fs::exists(project));
  EXPECT_FALSE(fs::exists(home.path() / "Trash" / "files" / "mine.nsproj"));
  fs::remove(newest.parent_path() / "link.nsproj");

  // The newest copy goes to the trash, and its older siblings are not offered in its place.
  r = test::runMelvo({"snapshots", "discard", newest.string()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(listed().size(), 0u);
  EXPECT_FALSE(fs::exists(newest));
  EXPECT_TRUE(fs::exists(project));

  // Two more dead runs, one on the project and one on an unsaved song; a session is dismissed
  // as a whole and the other stays.
  const std::string projectRun = crashedRunWrote(project, {"later 1", "later 2"});
  const std::string songRun = crashedRunWrote(std::nullopt, {"untitled 1", "untitled 2"});
  ASSERT_EQ(listed().size(), 2u);
  r = test::runMelvo({"snapshots", "discard", "--session", songRun});
  EXPECT_EQ(r.status, 0) << r.err;
  offered = listed();
  ASSERT_EQ(offered.size(), 1u);
  EXPECT_EQ(offered.asArray()[0].find("session")->asString(), projectRun);
  r = test::runMelvo({"snapshots", "discard", "--session", projectRun});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(listed().size(), 0u);
  r = test::runMelvo({"snapshots", "discard", "--session", projectRun});
  EXPECT_EQ(r.status, 1);  // nothing of it is left to dismiss
  // The project's history is kept, settled; the unsaved song's automatic copies are gone.
  auto history = test::runMelvo({"snapshots", "list", "--json", project.string()});
  EXPECT_EQ(Json::parse(history.out).size(), 4u);
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
// over its save cycle. The project must always hold one version whole, and nothing else may
// stay in its folder: a kill leaves at most a named temporary for the instant between naming
// the new file and renaming it, and the next save removes that. The saver marks the start and
// the end of each save on a pipe, so the test knows that kills landed inside saves.
TEST(Recovery, AKilledSaveLeavesOldOrNewContentAndNothingElse) {
  test::TempHome home;
  test::TempDir files;
  // Small enough that writing is a fair part of a save, not lost behind encoding.
  const MusicDocument a = songNamed("a", 100), b = songNamed("b", 101);
  const std::string encodedA = encodeProject(a), encodedB = encodeProject(b);
  const fs::path p = files / "torn.nsproj";
  writeProject(a, p);
  auto othersInFolder = [&] {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(files.path()))
      if (e.path() != p) out.push_back(e.path());
    return out;
  };

  int rounds = 0, insideSave = 0, leftBehind = 0;
  std::vector<fs::path> previousLeftovers;
  const auto deadline = std::chrono::steady_clock::now() + 8s;
  while (rounds < 60 && std::chrono::steady_clock::now() < deadline) {
    int marks[2];
    ASSERT_EQ(pipe(marks), 0);
    const pid_t saver = forkChild([&] {
      close(marks[0]);
      ScriptedCore core;
      if (core.app->open(p) != AppState::FlowResult::done) return;
      for (int i = 0;; ++i) {
        core.vm().commit("編集", [&](MusicDocument& d) { d = (i % 2) ? a : b; });
        (void)!write(marks[1], "b", 1);
        if (core.app->save() != AppState::FlowResult::done) return;
        (void)!write(marks[1], "e", 1);
      }
    });
    ASSERT_GT(saver, 0);
    close(marks[1]);
    char last = 0;
    auto nextSave = [&] {
      char c = 0;
      while (read(marks[0], &c, 1) == 1) {
        last = c;
        if (c == 'e') return true;
      }
      return false;
    };
    // Time a few saves, then kill at a fraction of that period that differs every round
    // (golden-ratio steps cover the cycle evenly).
    bool running = nextSave();
    // The saver's first save has cleared what the last round's kill may have left.
    for (const auto& old : previousLeftovers) EXPECT_FALSE(fs::exists(old)) << old;
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
    for (char c; read(marks[0], &c, 1) == 1;) last = c;
    close(marks[0]);
    ASSERT_TRUE(running) << "the saver stopped saving";
    ++rounds;
    insideSave += last == 'b';

    ASSERT_TRUE(fs::exists(p)) << "round " << rounds;
    const std::string bytes = test::readText(p);
    EXPECT_TRUE(bytes == encodedA || bytes == encodedB)
        << "round " << rounds << ": the project holds " << bytes.size() << " bytes";
    previousLeftovers = othersInFolder();
    leftBehind += !previousLeftovers.empty();
    for (const auto& f : previousLeftovers)
      EXPECT_EQ(f.filename().string().rfind(".torn.nsproj.tmp-", 0), 0u) << f;
  }
  // One more save, and the folder holds the project alone.
  writeProject(a, p);
  EXPECT_TRUE(othersInFolder().empty());
  EXPECT_GT(insideSave, 0) << "no kill in " << rounds << " rounds landed inside a save";
  RecordProperty("rounds", rounds);
  RecordProperty("insideSave", insideSave);
  RecordProperty("leftBehind", leftBehind);
}

}  // namespace
}  // namespace melvo
