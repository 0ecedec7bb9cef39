// melvo preview as a user runs it: written to a file, and refused cleanly where it cannot sound.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using namespace std::chrono_literals;

const std::string kExample = std::string(MELVO_TEST_DATA_DIR) + "/../../examples/sakura.nsproj";

struct Bounded {
  bool finished = false;  // false: it was still running at the limit and was killed
  int status = -1;
  std::string err;
};

// Runs melvo with extra environment entries, killing it if it outlives `limit`; with
// `interruptAfter`, sends it SIGINT then, as Ctrl-C would.
Bounded runWithin(const std::vector<std::string>& args, const std::vector<std::string>& env,
                  std::chrono::milliseconds limit,
                  std::optional<std::chrono::milliseconds> interruptAfter = std::nullopt) {
  test::TempDir scratch;
  const fs::path errPath = scratch / "err";
  const pid_t pid = test::spawnMelvo(args, env, "/dev/null", errPath);
  Bounded b;
  const auto started = std::chrono::steady_clock::now();
  const auto until = started + limit;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (interruptAfter && std::chrono::steady_clock::now() > started + *interruptAfter) {
      ::kill(pid, SIGINT);
      interruptAfter.reset();
    }
    if (std::chrono::steady_clock::now() > until) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      b.err = test::readText(errPath);
      return b;
    }
    std::this_thread::sleep_for(20ms);
  }
  b.finished = true;
  b.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  b.err = test::readText(errPath);
  return b;
}

TEST(PreviewCli, WritesTheSongToAWavFile) {
  test::TempHome home;
  const fs::path wav = home.path() / "out" / "preview.wav";
  fs::create_directories(wav.parent_path());
  const auto r = test::runMelvo({"preview", kExample, "--loop", "3:4", "--times", "2",
                                 "--instrument", "flute", "--to", wav.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, wav.string() + "\n");
  // Two runs through bars 3 and 4 of the example (76 bpm): 12.63 s.
  int channels = 0;
  const auto samples = test::readSamples(wav, &channels);
  ASSERT_EQ(channels, 2);
  EXPECT_NEAR(static_cast<double>(samples.size()) / 2 / 44100, 2 * 8 * 60.0 / 76, 0.001);
  EXPECT_EQ(std::distance(fs::directory_iterator(wav.parent_path()), {}), 1);
}

TEST(PreviewCli, WithoutAnAudioDeviceItSaysSoAndEndsAtOnce) {
  test::TempHome home;
  const fs::path noCards = home.path() / "asound.conf";
  test::writeText(noCards, "\n");
  // Every output FluidSynth could reach is taken away, whatever this machine has.
  const auto r = runWithin({"preview", kExample},
                           {"ALSA_CONFIG_PATH=" + noCards.string(),
                            "PULSE_SERVER=unix:" + (home.path() / "no-pulse").string(),
                            "PIPEWIRE_REMOTE=" + (home.path() / "no-pipewire").string(),
                            "XDG_RUNTIME_DIR=" + home.path().string()},
                           30s);
  ASSERT_TRUE(r.finished) << "still running after 30 s: " << r.err;
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("No audio output device"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("--to OUT.wav"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("ALSA lib"), std::string::npos) << r.err;
}

// ALSA's null device takes the sound and drops it: the live path runs as on a machine with a
// sound card, in real time.
std::vector<std::string> nullDevice(const test::TempHome& home) {
  const fs::path conf = home.path() / "asound.conf";
  test::writeText(conf, "pcm.!default {\n  type null\n}\n");
  return {"ALSA_CONFIG_PATH=" + conf.string(),
          "PULSE_SERVER=unix:" + (home.path() / "no-pulse").string(),
          "PIPEWIRE_REMOTE=" + (home.path() / "no-pipewire").string(),
          "XDG_RUNTIME_DIR=" + home.path().string()};
}

TEST(PreviewCli, PlaysALoopTheAskedTimesThenEnds) {
  test::TempHome home;
  // Two runs through the first beat (0.79 s at 76 bpm).
  const auto r =
      runWithin({"preview", kExample, "--loop", "0t:480t", "--times", "2"}, nullDevice(home), 30s);
  ASSERT_TRUE(r.finished) << r.err;
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("Playing"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("bar 1"), std::string::npos) << r.err;
}

TEST(PreviewCli, CtrlCStopsAnEndlessLoopAtOnce) {
  test::TempHome home;
  const auto started = std::chrono::steady_clock::now();
  const auto r = runWithin({"preview", kExample, "--loop", "1:2"}, nullDevice(home), 30s, 1500ms);
  ASSERT_TRUE(r.finished) << r.err;
  EXPECT_EQ(r.status, 128 + SIGINT) << r.err;
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}

TEST(PreviewCli, WithoutTheSoundBankItNamesThePackage) {
  test::TempHome home;
  const auto r = runWithin({"preview", kExample, "--to", (home.path() / "x.wav").string()},
                           {"MELVO_SOUND_BANK=" + (home.path() / "gone.sf2").string()}, 30s);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("fluid-soundfont-gm"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("gone.sf2"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(home.path() / "x.wav"));
}

TEST(PreviewCli, PositionsThatTheSongCannotHaveAreRefused) {
  test::TempHome home;
  const std::string wav = (home.path() / "x.wav").string();
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--loop", "5:3"},
                                              {"--loop", "5"},
                                              {"--from", "0"},
                                              {"--from", "12x"},
                                              {"--instrument", "kazoo"},
                                              {"--track", "3"}}) {
    std::vector<std::string> args{"preview", kExample, "--to", wav};
    args.insert(args.end(), bad.begin(), bad.end());
    const auto r = test::runMelvo(args);
    EXPECT_EQ(r.status, 2) << bad[0] << " " << bad[1] << ": " << r.err;
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_FALSE(fs::exists(wav));
}

}  // namespace
}  // namespace melvo
