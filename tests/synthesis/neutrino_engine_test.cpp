#include "melvo/synthesis/neutrino_engine.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <cmath>
#include <thread>

#include "melvo/editing/phoneme_list.h"
#include "melvo/editing/pitch_curve.h"
#include "melvo/importers/import_entry.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using namespace std::chrono_literals;

TEST(EngineScriptTest, QuotingSurvivesApostrophesBlanksAndJapanese) {
  EXPECT_EQ(NEUTRINOEngine::shellQuoted("/a b/it's/歌"), "'/a b/it'\\''s/歌'");
  test::TempDir dir;
  const std::string odd = (dir / "it's a 歌").string();
  fs::create_directories(odd);
  test::writeText(dir / "q.sh", "cd " + NEUTRINOEngine::shellQuoted(odd) + " && pwd");
  FILE* p = ::popen(("/bin/bash " + (dir / "q.sh").string()).c_str(), "r");
  char buf[512] = {};
  std::fgets(buf, sizeof buf, p);
  ::pclose(p);
  EXPECT_EQ(std::string(buf), odd + "\n");
}

TEST(EngineScriptTest, OptionsFollowTheSettingsInFixedOrder) {
  NEUTRINOConfig c;
  c.neutrinoDirectory = "/e";
  EXPECT_EQ(NEUTRINOEngine::optionsText(c), "");
  c.useBestGpu = true;  // without useGpu: no GPU option at all
  EXPECT_EQ(NEUTRINOEngine::optionsText(c), "");
  c.transposeKey = -3;
  c.supportModel = "sup";
  c.useGpu = true;
  c.singlePhraseMode = true;
  c.singlePhraseNumber = 7;
  c.skipF0 = c.skipWav = true;
  EXPECT_EQ(NEUTRINOEngine::optionsText(c),
            "-f -3 -S '/e/model/sup/' -m -p 7 --skip-f0 --skip-wav");
  c.useBestGpu = false;
  c.gpuId = 2;
  c.transposeKey = 0;
  EXPECT_EQ(NEUTRINOEngine::optionsText(c), "-S '/e/model/sup/' -g 2 -p 7 --skip-f0 --skip-wav");
}

TEST(EngineScriptTest, FullRenderScriptIsExactlyTheContract) {
  NEUTRINOConfig c;
  c.neutrinoDirectory = "/n";
  c.selectedCharacterName = "v";
  const std::string s = NEUTRINOEngine::synthesisScript(c, "/s/score.musicxml", "/o");
  const std::string expected =
      "#!/bin/bash\nset -e\n\n# NEUTRINO 同梱の dylib を読み込めるようにする\n"
      "export LD_LIBRARY_PATH='/n/bin'\":${LD_LIBRARY_PATH:-}\"\n\n# 必要なサブディレクトリ\n"
      "mkdir -p '/o'\n\necho \"0% 合成開始...\"\n\n"
      "# ── ① MusicXML → ラベル（full + mono / timing）─────────────\n"
      "echo \"5% MusicXMLtoLabel 変換中...\"\n"
      "'/n/bin/musicXMLtoLabel' \\\n    '/s/score.musicxml' \\\n    '/o/full.lab' \\\n"
      "    '/o/mono.lab'\n\necho \"20% ラベル変換完了\"\n\n"
      "# ── ② NEUTRINO ニューラル推論 + 内蔵ボコーダー → WAV 直接生成 ──\n"
      "# オプション仕様（./bin/neutrino --help 準拠）\n"
      "#   -n i        : parallel threads\n#   -f i        : transpose (key)\n"
      "#   -S name     : support model dir\n#   -g i / -m   : GPU 指定\n"
      "#   -p i        : single phrase prediction\n"
      "#   -i filename : フレーズ情報トレース（後で UI から読む）\n"
      "echo \"25% ニューラル推論開始...\"\n"
      "'/n/bin/neutrino' \\\n    '/o/full.lab' \\\n    '/o/timing.lab' \\\n"
      "    '/o/output.f0' \\\n    '/o/output.melspec' \\\n    '/o/output.wav' \\\n"
      "    '/n/model/v/' \\\n    -n 4 \\\n    -i '/o/phrase_trace.txt' \\\n     \\\n    -t\n\n"
      "echo \"100% 合成完了\"";
  EXPECT_EQ(s, expected);
}

TEST(EngineScriptTest, ReRenderTakesItsFlagsFromTheCallerOnly) {
  NEUTRINOConfig c;
  c.neutrinoDirectory = "/n";
  c.selectedCharacterName = "v";
  c.numThreads = 2;
  c.skipF0 = c.skipMelspec = true;  // the settings' skips do not reach a re-render
  c.transposeKey = 1;
  const std::string s = NEUTRINOEngine::revocodeScript(c, "/o", true);
  EXPECT_EQ(s,
            "#!/bin/bash\nset -e\nexport LD_LIBRARY_PATH='/n/bin'\":${LD_LIBRARY_PATH:-}\"\n\n"
            "echo \"0% 編集された f0 / timing を元に再合成...\"\n"
            "echo \"10% neutrino 起動中（--skip-timing --skip-f0）...\"\n\n"
            "'/n/bin/neutrino' \\\n    '/o/full.lab' \\\n    '/o/timing.lab' \\\n"
            "    '/o/output.f0' \\\n    '/o/output.melspec' \\\n    '/o/output.wav' \\\n"
            "    '/n/model/v/' \\\n    -n 2 \\\n    --skip-timing --skip-f0 \\\n    -f 1 \\\n"
            "    -t\n\necho \"100% 再合成完了\"");
  EXPECT_NE(NEUTRINOEngine::revocodeScript(c, "/o", false).find("（--skip-timing）"),
            std::string::npos);
}

TEST(EngineScriptTest, TheScriptFileIsExecutableWhateverTheUmask) {
  const mode_t previous = ::umask(077);
  fs::path path;
  try {
    path = NEUTRINOEngine::writeScript("#!/bin/bash\necho hi\n", "ns_test_");
  } catch (...) {
    ::umask(previous);
    throw;
  }
  ::umask(previous);
  EXPECT_TRUE(path.filename().string().starts_with("ns_test_"));
  EXPECT_EQ(path.extension(), ".sh");
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                fs::perms::others_read | fs::perms::others_exec);
  EXPECT_EQ(test::readText(path), "#!/bin/bash\necho hi\n");
  // A second script gets a name of its own rather than overwriting the first.
  const fs::path second = NEUTRINOEngine::writeScript("x", "ns_test_");
  EXPECT_NE(second, path);
  EXPECT_EQ(test::readText(path), "#!/bin/bash\necho hi\n");
  fs::remove(path);
  fs::remove(second);
}

// The stand-in engine, driven through the real driver.
class EngineRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    i18n::setLanguage("ja");
    ASSERT_TRUE(fs::exists(test::standInEngine() / "bin" / "neutrino"))
        << "build the stand_in_engine target";
    // Our own engine folder: the stand-in's tools and voices of our choosing.
    fs::create_directories(home.path() / "engine" / "model" / "alto");
    fs::create_symlink(test::standInEngine() / "bin", home.path() / "engine" / "bin");
    config.neutrinoDirectory = (home.path() / "engine").string();
    config.selectedCharacterName = "alto";
    config.numThreads = 1;
  }
  void TearDown() override { i18n::setLanguage("en"); }

  fs::path writeScore(const MusicDocument& d) {
    fs::path p = home.path() / "score.musicxml";
    test::writeText(p, MusicXMLExporter::render(d.singleTrackCopy(0)));
    return p;
  }
  MusicDocument sakura() {
    return openDocument(fs::path(MELVO_TEST_DATA_DIR) / "../../examples/sakura.nsproj");
  }

  // Starts synthesize or revocode, recording every callback.
  void start(const fs::path& score, bool reRender = false, bool skipF0 = false) {
    done.reset();
    auto onProgress = [this](double p, const std::string&, std::optional<double>) {
      progress.push_back(p);
    };
    auto onLog = [this](const std::string& l) { log.push_back(l); };
    auto onDone = [this](bool ok) {
      ++doneCount;
      done = ok;
    };
    if (reRender)
      engine.revocode(config, out, skipF0, onProgress, onLog, onDone);
    else
      engine.synthesize(config, score, out, onProgress, onLog, onDone);
  }
  // The same, waiting for the end.
  bool render(const fs::path& score, bool reRender = false, bool skipF0 = false) {
    start(score, reRender, skipF0);
    EXPECT_TRUE(test::pumpUntil(
        loop, [&] { return done.has_value(); }, 120s));
    return done.value_or(false);
  }
  bool logHas(const std::string& s) const {
    for (const auto& l : log)
      if (l.find(s) != std::string::npos) return true;
    return false;
  }

  test::TempHome home;
  EventLoop loop;
  NEUTRINOEngine engine{loop};
  NEUTRINOConfig config;
  fs::path out = home.path() / "run" / "track1_a b";
  std::vector<double> progress;
  std::vector<std::string> log;
  std::optional<bool> done;
  int doneCount = 0;
};

// The fundamental over a stretch of the file, by autocorrelation.
double measuredPitch(const fs::path& wav, double fromSec, double toSec) {
  SF_INFO info{};
  SNDFILE* f = sf_open(wav.c_str(), SFM_READ, &info);
  if (!f) return 0;
  std::vector<float> all(static_cast<std::size_t>(info.frames));
  sf_readf_float(f, all.data(), info.frames);
  sf_close(f);
  const auto a = static_cast<std::size_t>(fromSec * info.samplerate);
  const auto b = std::min(all.size(), static_cast<std::size_t>(toSec * info.samplerate));
  const int minLag = info.samplerate / 1000, maxLag = info.samplerate / 60;
  double best = -1;
  int bestLag = 0;
  for (int lag = minLag; lag <= maxLag; ++lag) {
    double sum = 0, e1 = 0, e2 = 0;
    for (std::size_t i = a; i + lag < b; ++i) {
      sum += all[i] * all[i + lag];
      e1 += all[i] * all[i];
      e2 += all[i + lag] * all[i + lag];
    }
    const double r = sum / std::sqrt(e1 * e2 + 1e-12);
    if (r > best) {
      best = r;
      bestLag = lag;
    }
  }
  return bestLag ? static_cast<double>(info.samplerate) / bestLag : 0;
}

TEST_F(EngineRunTest, ExampleSongRendersEndToEndAndReRendersAfterACurveEdit) {
  const fs::path score = writeScore(sakura());
  ASSERT_TRUE(render(score)) << ::testing::PrintToString(log);
  EXPECT_EQ(doneCount, 1);
  for (const char* f :
       {"output.wav", "timing.lab", "output.f0", "full.lab", "mono.lab", "phrase_trace.txt"})
    EXPECT_TRUE(fs::exists(out / f)) << f;
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back(), 100.0);
  EXPECT_TRUE(logHas("Added a rest to the first measure"));
  EXPECT_FALSE(fs::exists(engine.lastScriptPath()));

  // The curve and timing read back, and the curve fits the voice at 5 ms a frame.
  auto timing = PhonemeList::read(out / "timing.lab");
  auto curve = PitchCurve::read(out / "output.f0");
  ASSERT_TRUE(timing && curve);
  SF_INFO info{};
  SNDFILE* f = sf_open((out / "output.wav").c_str(), SFM_READ, &info);
  ASSERT_TRUE(f);
  sf_close(f);
  EXPECT_EQ(curve->calibratedInterval(static_cast<double>(info.frames) / info.samplerate), 0.005);

  // The middle of the longest vowel, where the pitch stands still.
  Phoneme longest;
  for (const auto& p : timing->phonemes)
    if (p.symbol.size() == 1 && std::string("aiueo").find(p.symbol) != std::string::npos &&
        p.endNS - p.startNS > longest.endNS - longest.startNS)
      longest = p;
  const double mid = (longest.startSec() + longest.endSec()) / 2;
  const double before = measuredPitch(out / "output.wav", mid - 0.1, mid + 0.1);
  EXPECT_NEAR(before, curve->value(mid), curve->value(mid) * 0.03);

  for (float& hz : curve->frequencies) hz *= static_cast<float>(std::pow(2.0, 1.0 / 12));
  curve->write(out / "output.f0");
  progress.clear();
  ASSERT_TRUE(render({}, true, true)) << ::testing::PrintToString(log);
  EXPECT_EQ(progress.back(), 100.0);
  const double after = measuredPitch(out / "output.wav", mid - 0.1, mid + 0.1);
  EXPECT_NEAR(12 * std::log2(after / before), 1.0, 0.15);
  // --skip-f0 left our curve as it was.
  EXPECT_EQ(PitchCurve::read(out / "output.f0"), curve);
}

TEST_F(EngineRunTest, EngineRefusalsReachTheLogWithBarNumbers) {
  MusicDocument d = sakura();
  auto bad = [&](std::int64_t pitch, const std::string& lyric) {
    MusicDocument copy = d;
    copy.tracks[0].notes =
        NoteList({NoteEvent::make(Uuid::random(), 0, 480, 60, 100, "ら"),
                  NoteEvent::make(Uuid::random(), 1920, 480, pitch, 100, lyric)});
    return writeScore(copy);
  };
  EXPECT_FALSE(render(bad(60, "x")));
  EXPECT_TRUE(logHas("Undefined lyric `x` in measure 3"));  // bar 2, and the rest bar in front
  log.clear();
  EXPECT_FALSE(render(bad(22, "ら")));
  EXPECT_TRUE(logHas("out of range in measure 3"));
  log.clear();
  EXPECT_FALSE(render(bad(60, "すとらいくす")));  // s u t o r a i k u s u: too many
  EXPECT_TRUE(logHas("phonemes on one note in measure 3"));
  EXPECT_FALSE(fs::exists(engine.lastScriptPath()));
}

TEST_F(EngineRunTest, ASecondRunIsRefusedAndTheFirstGoesOn) {
  test::writeText(home.path() / "engine" / "model" / "alto" / "stand-in.conf",
                  "mode=slow\ndelay_ms=200\n");
  const fs::path score = writeScore(sakura());
  std::optional<bool> second;
  start(score);
  engine.synthesize(
      config, score, out, [](double, const std::string&, std::optional<double>) {},
      [this](const std::string& l) { log.push_back("second: " + l); },
      [&](bool ok) { second = ok; });
  EXPECT_EQ(second, false);
  EXPECT_TRUE(logHas("second: ⚠ 既に合成プロセスが走っています"));
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return done.has_value(); }, 120s));
  EXPECT_TRUE(*done);
}

TEST_F(EngineRunTest, CancelDuringASlowRunStopsEveryProcessOfTheRun) {
  test::writeText(home.path() / "engine" / "model" / "alto" / "stand-in.conf",
                  "mode=slow\ndelay_ms=20000\n");
  start(writeScore(sakura()));
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return logHas("[1/4]"); }, 60s));
  const pid_t group = *engine.shell().processId();
  ASSERT_GE(test::liveMembers(group).size(), 2u);  // bash and the engine tool
  const auto t0 = std::chrono::steady_clock::now();
  engine.cancel();
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return test::liveMembers(group).empty(); }, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 4s);
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return done.has_value(); }, 10s));
  EXPECT_FALSE(*done);
  std::this_thread::sleep_for(300ms);
  loop.runUntilIdle();
  EXPECT_EQ(doneCount, 1);
  EXPECT_FALSE(fs::exists(engine.lastScriptPath()));
}

TEST_F(EngineRunTest, AFolderThatCannotBeEnteredIsAFailedStart) {
  config.neutrinoDirectory = (home.path() / "missing").string();
  EXPECT_FALSE(render(home.path() / "score.musicxml"));
  EXPECT_TRUE(logHas("⚠ 合成開始失敗: "));
  EXPECT_EQ(doneCount, 1);
}

}  // namespace
}  // namespace melvo
