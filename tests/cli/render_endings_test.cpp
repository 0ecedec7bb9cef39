// Every way `melvo render` and `melvo rerender` can end, seen from outside as a shell sees it:
// the exit status, the last words, and that nothing of the engine is left running or lying in
// the temp folder. The stand-in engine is made to hang deaf to SIGTERM, as a stuck engine does.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "melvo/importers/import_entry.h"
#include "melvo/model/project_file.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool has(const std::string& s, const std::string& needle) {
  return s.find(needle) != std::string::npos;
}

// A melvo started in the background, so that a test can signal it while it runs.
class Melvo {
 public:
  Melvo(const std::vector<std::string>& args, const std::vector<std::string>& env,
        const fs::path& errFile)
      : errFile_(errFile), pid_(test::spawnMelvo(args, env, "/dev/null", errFile, true)) {}
  ~Melvo() {
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  void signal(int sig) { ::kill(pid_, sig); }
  // The exit status (128 + signal when killed), or nothing when it did not end in time.
  std::optional<int> waitFor(std::chrono::milliseconds limit) {
    const auto until = Clock::now() + limit;
    while (!status_ && Clock::now() < until) {
      int st = 0;
      if (::waitpid(pid_, &st, WNOHANG) == pid_)
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      else
        std::this_thread::sleep_for(20ms);
    }
    return status_;
  }
  std::string err() const { return test::readText(errFile_); }

 private:
  fs::path errFile_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// Live processes whose command line names something under `dir` (the test's engine folder).
std::vector<pid_t> processesUnder(const fs::path& dir) {
  std::vector<pid_t> out;
  const std::string needle = dir.string();
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string cmdline = test::readProcFile(entry.path() / "cmdline");
    if (has(cmdline, needle)) out.push_back(std::stoi(name));
  }
  return out;
}

std::vector<fs::path> scriptsIn(const fs::path& tmp) {
  std::vector<fs::path> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(tmp, ec))
    if (e.path().filename().string().starts_with("ns_")) out.push_back(e.path());
  return out;
}

// Waits until `done` holds, for at most `limit`.
bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto until = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() > until) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

class RenderEndingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    engine = home.path() / "engine";
    tmp = home.path() / "tmp";
    fs::create_directories(engine / "model" / "alto");
    fs::create_directories(tmp);
    fs::create_symlink(test::standInEngine() / "bin", engine / "bin");
    MusicDocument d = openDocument(fs::path(MELVO_TEST_DATA_DIR) / "../../examples/sakura.nsproj");
    d.tracks[0].characterName = "alto";
    writeProject(d, song());
  }
  fs::path song() const { return home.path() / "song.nsproj"; }
  std::vector<std::string> env(const std::string& mode = "") const {
    std::vector<std::string> e{"TMPDIR=" + tmp.string(), "LANGUAGE=en"};
    if (!mode.empty()) e.push_back("MELVO_STANDIN_MODE=" + mode);
    return e;
  }
  std::vector<std::string> renderArgs(const std::string& out) const {
    return {"render",        song().string(), "--engine",
            engine.string(), "--out",         (home.path() / out).string()};
  }
  // Waits until the stand-in's singer runs (its command line names the engine folder's model).
  bool engineRuns() const {
    return eventually([&] { return !processesUnder(engine / "model").empty(); }, 30s);
  }
  // After `sig`, the command ends within 5 s with 128 + sig, says it was cancelled, and leaves
  // no process of the run and no script.
  void expectCleanCancel(Melvo& m, int sig) {
    m.signal(sig);
    const auto status = m.waitFor(5s);
    ASSERT_TRUE(status) << "still running 5 s after signal " << sig;
    EXPECT_EQ(*status, 128 + sig) << m.err();
    EXPECT_TRUE(processesUnder(engine).empty()) << "engine left running after signal " << sig;
    EXPECT_TRUE(scriptsIn(tmp).empty());
    EXPECT_TRUE(has(m.err(), "Rendering was cancelled.")) << m.err();
    EXPECT_FALSE(has(m.err(), "Render Log")) << m.err();
  }

  test::TempHome home;
  fs::path engine, tmp;
};

TEST_F(RenderEndingsTest, EverySignalToRenderEndsItAndTheEngineThatIgnoresSigterm) {
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(sig);
    Melvo m(renderArgs("out" + std::to_string(sig)), env("hang-run"), tmp / "err");
    ASSERT_TRUE(engineRuns()) << m.err();
    EXPECT_EQ(scriptsIn(tmp).size(), 1u);
    expectCleanCancel(m, sig);
  }
}

TEST_F(RenderEndingsTest, ASignalDuringTheEngineStartCheckEndsTheCheckToo) {
  // The check runs the singer without work; in this mode it hangs there for the check's 8 s.
  Melvo m(renderArgs("out"), env("hang"), tmp / "err");
  ASSERT_TRUE(eventually([&] { return !processesUnder(engine / "bin").empty(); }, 10s));
  EXPECT_TRUE(processesUnder(engine / "model").empty());  // still checking, nothing sung
  expectCleanCancel(m, SIGINT);
  EXPECT_FALSE(fs::exists(home.path() / "out"));
}

TEST_F(RenderEndingsTest, SignalsToRerenderEndItAndTheEngine) {
  const fs::path out = home.path() / "out";
  ASSERT_EQ(test::runMelvo(renderArgs("out"), env()).status, 0);
  const fs::path trackDir = out / ("track1_" + MultiTrackSynthesizer::safeName("うた"));
  ASSERT_TRUE(fs::exists(trackDir / "timing.lab")) << trackDir;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(sig);
    Melvo m({"rerender", out.string(), "--engine", engine.string(), "--all"}, env("hang-run"),
            tmp / "err");
    ASSERT_TRUE(engineRuns()) << m.err();
    expectCleanCancel(m, sig);
  }
}

TEST_F(RenderEndingsTest, ASignalDuringTheEngineCommandsCheckEndsTheCheckToo) {
  Melvo m({"engine", "status", engine.string()}, env("hang"), tmp / "err");
  ASSERT_TRUE(eventually([&] { return !processesUnder(engine / "bin").empty(); }, 10s));
  m.signal(SIGTERM);
  const auto status = m.waitFor(5s);
  ASSERT_TRUE(status);
  EXPECT_EQ(*status, 128 + SIGTERM);
  EXPECT_TRUE(processesUnder(engine).empty());
}

TEST_F(RenderEndingsTest, AMelvoThatIsKilledOutrightLeavesNoEngineBehind) {
  Melvo m(renderArgs("out"), env("hang-run"), tmp / "err");
  ASSERT_TRUE(engineRuns()) << m.err();
  m.signal(SIGKILL);
  ASSERT_TRUE(m.waitFor(2s));
  EXPECT_TRUE(eventually([&] { return processesUnder(engine).empty(); }, 5s));
  EXPECT_TRUE(scriptsIn(tmp).empty());
}

TEST_F(RenderEndingsTest, StartFailuresEndTheCommandWithAFailure) {
  // An output folder below a plain file, and a temp folder that does not exist.
  test::writeText(home.path() / "plain", "x");
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> env;
  };
  std::vector<std::string> noTmp = env();
  noTmp[0] = "TMPDIR=/nonexistent/melvo-test";
  const Case cases[] = {{renderArgs("plain/out"), env()}, {renderArgs("out"), noTmp}};
  for (const auto& c : cases) {
    Melvo m(c.args, c.env, tmp / "err");
    const auto status = m.waitFor(10s);
    ASSERT_TRUE(status) << "hangs: " << m.err();
    EXPECT_EQ(*status, 1) << m.err();
    EXPECT_TRUE(has(m.err(), "Rendering failed")) << m.err();
    // A script that never started says nothing about the engine's files.
    EXPECT_FALSE(has(m.err(), "executables were not found")) << m.err();
  }
  EXPECT_TRUE(processesUnder(engine).empty());
}

TEST_F(RenderEndingsTest, ATrackWithAVeryLongNameStillRenders) {
  MusicDocument d = openDocument(song());
  d.tracks[0].name = std::string(90, 'a') + std::string(60, 'x') + "あいうえおかきくけこ" +
                     std::string(90, 'z');  // 270 bytes
  writeProject(d, song());
  Melvo m(renderArgs("out"), env(), tmp / "err");
  const auto status = m.waitFor(60s);
  ASSERT_TRUE(status);
  EXPECT_EQ(*status, 0) << m.err();
}

TEST_F(RenderEndingsTest, TheTerminalWordsAreTheUsersAndTheExitSaysHowItEnded) {
  const auto r = test::runMelvo(renderArgs("out"), env());
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.err, "Mixing down 1 track\n")) << r.err;
  // Our script's own progress words feed the bar; they are not echoed in Japanese beside it.
  EXPECT_FALSE(has(r.err, "合成開始")) << r.err;
  EXPECT_FALSE(has(r.err, "ニューラル推論開始")) << r.err;

  // A muted track asked for alone would give a silent mix: refused before anything starts.
  MusicDocument d = openDocument(song());
  d.tracks[0].isMuted = true;
  writeProject(d, song());
  const auto muted = test::runMelvo(
      {"render", song().string(), "--engine", engine.string(), "--track", "0"}, env());
  EXPECT_EQ(muted.status, 2) << muted.err;
  EXPECT_TRUE(has(muted.err, "not heard in the mix")) << muted.err;

  const auto help = test::runMelvo({"render", "--help"}, env());
  EXPECT_TRUE(has(help.out, "143")) << help.out;
}

}  // namespace
}  // namespace melvo
