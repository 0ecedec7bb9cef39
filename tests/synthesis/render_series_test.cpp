#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <thread>

#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using namespace std::chrono_literals;
using Synth = MultiTrackSynthesizer;

TEST(RenderPlanTest, GainsFollowMuteSoloAndTheVolumeRange) {
  MusicDocument d;
  d.tracks.resize(3);
  d.tracks[0].volume = 2.0;
  d.tracks[1].volume = -1.0;
  d.tracks[2].volume = 0.7;
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 0), 1.5f);
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 1), 0.0f);
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 2), 0.7f);
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 3), 0.0f);
  d.tracks[2].isSolo = true;
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 0), 0.0f);
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 2), 0.7f);
  d.tracks[2].isMuted = true;  // a muted solo silences only itself
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 0), 1.5f);
  EXPECT_FLOAT_EQ(Synth::mixGain(d, 2), 0.0f);

  // Track progress folds into the whole, and only the mix may reach 100.
  EXPECT_DOUBLE_EQ(Synth::overallProgress(1, 2, 50), 75);
  EXPECT_DOUBLE_EQ(Synth::overallProgress(1, 2, 250), 99);
  EXPECT_DOUBLE_EQ(Synth::overallProgress(1, 4, -3), 25);
}

TEST(RenderPlanTest, RunFolderHasASafeNameAndThePlanWritesTheScore) {
  test::TempHome home;
  const auto when = std::chrono::system_clock::time_point(1'700'000'000'123ms);
  const fs::path run = Synth::runFolder("My song/2", when);
  EXPECT_EQ(run.parent_path(), paths::musicDir() / "Melvo");
  EXPECT_TRUE(std::regex_match(run.filename().string(),
                               std::regex(R"(My_song_2_\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d-123)")))
      << run;

  MusicDocument d;
  d.tracks[0].notes = NoteList({NoteEvent::make(Uuid::random(), 0, 480, 60, 100, "ら")});
  d.tempoMap = {{0, 90}};
  const auto plans = Synth::plan(d, {0}, run);
  ASSERT_EQ(plans.size(), 1u);
  const std::string score = test::readText(plans[0].xmlPath);
  EXPECT_NE(score.find("<per-minute>90</per-minute>"), std::string::npos);
}

// Songs rendered by the stand-in engine through the real driver.
class RenderSeriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    i18n::setLanguage("ja");
    ASSERT_TRUE(fs::exists(test::standInEngine() / "bin" / "neutrino"));
    for (const char* v : {"alto", "soprano"})
      fs::create_directories(home.path() / "engine" / "model" / v);
    fs::create_symlink(test::standInEngine() / "bin", home.path() / "engine" / "bin");
    config.neutrinoDirectory = (home.path() / "engine").string();
    config.numThreads = 1;
  }
  void TearDown() override { i18n::setLanguage("en"); }

  static MusicTrack track(const std::string& name, const std::string& voice, int pitch) {
    MusicTrack t;
    t.name = name;
    t.characterName = voice;
    std::vector<NoteEvent> notes;
    const char* lyrics[] = {"さ", "く", "ら", "さ"};
    for (int i = 0; i < 4; ++i)
      notes.push_back(NoteEvent::make(Uuid::random(), 480 * i, 480, pitch + i, 100, lyrics[i]));
    t.notes = NoteList(std::move(notes));
    return t;
  }

  Synth::Result render(const MusicDocument& d, std::vector<int> tracks = {}) {
    std::optional<Synth::Result> result;
    int calls = 0;
    synth.render(
        d, runDir, config, std::move(tracks),
        [this](double p, const std::string&, std::optional<double>) { progress.push_back(p); },
        [this](const std::string& l) { log.push_back(l); },
        [&](Synth::Result r) {
          ++calls;
          result = std::move(r);
        });
    EXPECT_TRUE(test::pumpUntil(
        loop, [&] { return result.has_value(); }, 120s));
    loop.runUntilIdle();
    EXPECT_EQ(calls, 1);
    return result.value_or(Synth::Result{});
  }
  std::size_t logIndex(const std::string& s) const {
    for (std::size_t i = 0; i < log.size(); ++i)
      if (log[i].find(s) != std::string::npos) return i;
    return log.size();
  }

  test::TempHome home;
  EventLoop loop;
  NEUTRINOEngine engine{loop};
  Synth synth{loop, engine};
  NEUTRINOConfig config;
  fs::path runDir = home.path() / "run";
  std::vector<double> progress;
  std::vector<std::string> log;
};

TEST_F(RenderSeriesTest, VoicedTracksRenderInOrderAndMixWithTheirGainAndPan) {
  MusicDocument d;
  d.tracks = {track("a/b c", "alto", 60), track("Low", "soprano", 55), track("Muted", "alto", 64),
              track("Silent", "", 60)};
  d.tracks[0].volume = 2.0;  // counts as 1.5
  d.tracks[1].pan = -1.0;
  d.tracks[2].isMuted = true;

  const auto r = render(d);
  ASSERT_TRUE(r.success) << ::testing::PrintToString(log);
  ASSERT_EQ(r.rendered.size(), 2u);
  EXPECT_EQ(r.rendered[0].wavPath, runDir / "track1_a_b_c" / "output.wav");
  EXPECT_EQ(r.rendered[1].wavPath, runDir / "track2_Low" / "output.wav");
  EXPECT_EQ(r.renderedTrackIDs, (std::vector<Uuid>{d.tracks[0].id, d.tracks[1].id}));
  ASSERT_EQ(r.mixPath, runDir / "mix.wav");
  EXPECT_LT(logIndex("▶ トラック 1/2: a/b c (alto)"), logIndex("▶ トラック 2/2: Low (soprano)"));
  EXPECT_LT(logIndex("▶ トラック 2/2"), log.size());
  EXPECT_FALSE(fs::exists(runDir / "track3_Muted"));

  ASSERT_GE(progress.size(), 3u);
  EXPECT_EQ(progress.back(), 100.0);
  // The engine's own value may step back, but the whole stays below 100 until the mix, and
  // the second track fills the second half.
  for (std::size_t i = 0; i + 1 < progress.size(); ++i) EXPECT_LE(progress[i], 99.0);
  EXPECT_GE(*std::max_element(progress.begin(), progress.end() - 1), 90.0);

  // The mix, sample by sample, from the two voices as the engine left them.
  int ch = 0;
  const auto a = test::readSamples(r.rendered[0].wavPath, &ch);
  ASSERT_EQ(ch, 1);
  const auto b = test::readSamples(r.rendered[1].wavPath);
  const auto mix = test::readSamples(*r.mixPath, &ch);
  ASSERT_EQ(ch, 2);
  ASSERT_EQ(mix.size() / 2, std::max(a.size(), b.size()));
  float peak = 0;
  for (std::size_t i = 0; i < mix.size() / 2; ++i) {
    const float x = i < a.size() ? a[i] : 0, y = i < b.size() ? b[i] : 0;
    peak = std::max({peak, std::fabs(1.5f * x + std::sqrt(2.0f) * y), std::fabs(1.5f * x)});
  }
  const float scale = peak > 0.95f ? 0.95f / peak : 1.0f;
  EXPECT_NEAR(r.scale, scale, 1e-4);
  for (std::size_t i = 0; i < mix.size() / 2; i += 37) {
    const float x = i < a.size() ? a[i] : 0, y = i < b.size() ? b[i] : 0;
    ASSERT_NEAR(mix[2 * i], scale * (1.5f * x + std::sqrt(2.0f) * y), 1e-4) << i;
    ASSERT_NEAR(mix[2 * i + 1], scale * 1.5f * x, 1e-4) << i;
  }
}

TEST_F(RenderSeriesTest, AMutedTrackAskedForIsRenderedButMixedSilent) {
  MusicDocument d;
  d.tracks = {track("Lead", "alto", 60), track("Muted", "soprano", 64)};
  d.tracks[1].isMuted = true;
  const auto r = render(d, {0, 1});
  ASSERT_TRUE(r.success) << ::testing::PrintToString(log);
  ASSERT_EQ(r.rendered.size(), 2u);
  const auto a = test::readSamples(r.rendered[0].wavPath);
  const auto mix = test::readSamples(*r.mixPath);
  for (std::size_t i = 0; i < a.size(); i += 41) ASSERT_NEAR(mix[2 * i], r.scale * a[i], 1e-4);
}

TEST_F(RenderSeriesTest, AFailingTrackStopsTheSeriesWithoutAMix) {
  test::writeText(home.path() / "engine" / "model" / "soprano" / "stand-in.conf", "mode=crash\n");
  MusicDocument d;
  d.tracks = {track("One", "alto", 60), track("Two", "soprano", 60), track("Three", "alto", 62)};
  const auto r = render(d);
  EXPECT_FALSE(r.success);
  ASSERT_EQ(r.rendered.size(), 1u);
  EXPECT_EQ(r.rendered[0].trackName, "One");
  EXPECT_FALSE(r.mixPath);
  EXPECT_FALSE(fs::exists(runDir / "mix.wav"));
  EXPECT_LT(logIndex("⚠ トラック Two の合成に失敗しました"), log.size());
  EXPECT_EQ(logIndex("3/3"), log.size());  // the third never started
  EXPECT_FALSE(synth.isRunning());
}

TEST_F(RenderSeriesTest, DroppingTheSynthesizerMidSeriesStopsTheEngineAndCallsNothing) {
  test::writeText(home.path() / "engine" / "model" / "alto" / "stand-in.conf",
                  "mode=slow\ndelay_ms=20000\n");
  MusicDocument d;
  d.tracks = {track("One", "alto", 60), track("Two", "alto", 62)};
  bool called = false;
  auto owner = std::make_unique<Synth>(loop, engine);
  owner->render(
      d, runDir, config, {}, [](double, const std::string&, std::optional<double>) {},
      [this](const std::string& l) { log.push_back(l); }, [&](Synth::Result) { called = true; });
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return engine.isRunning(); }, 30s));
  const pid_t group = *engine.shell().processId();
  owner.reset();
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return test::liveMembers(group).empty(); }, 10s));
  // The engine reports the end of the cancelled run a little later; nothing may answer it.
  EXPECT_FALSE(test::pumpUntil(
      loop, [&] { return called; }, 1500ms));
  EXPECT_EQ(logIndex("2/2"), log.size());
}

TEST_F(RenderSeriesTest, ACancelBetweenTwoTracksStartsNoFurtherTrack) {
  MusicDocument d;
  d.tracks = {track("One", "alto", 60), track("Two", "alto", 62)};
  // Once the first track's script has said its last word, wait on the main queue until its
  // run has ended, and cancel right there: after the first track's end, before the second.
  bool cancelledBetween = false;
  std::function<void()> cancelOnceIdle = [&] {
    if (engine.isRunning()) {
      std::this_thread::sleep_for(1ms);
      loop.post(cancelOnceIdle);
      return;
    }
    cancelledBetween = logIndex("2/2") == log.size();
    synth.cancel();
  };
  std::optional<Synth::Result> result;
  synth.render(
      d, runDir, config, {}, [](double, const std::string&, std::optional<double>) {},
      [&](const std::string& l) {
        log.push_back(l);
        if (l == "100% 合成完了" && logIndex("2/2") == log.size()) loop.post(cancelOnceIdle);
      },
      [&](Synth::Result r) { result = std::move(r); });
  ASSERT_TRUE(test::pumpUntil(
      loop, [&] { return result.has_value(); }, 60s));
  EXPECT_TRUE(cancelledBetween);
  EXPECT_TRUE(result->cancelled);
  EXPECT_FALSE(result->success);
  ASSERT_EQ(result->rendered.size(), 1u);  // the first track's voice stays
  EXPECT_EQ(logIndex("2/2"), log.size());
  EXPECT_FALSE(fs::exists(runDir / "track2_Two" / "output.wav"));
  EXPECT_FALSE(fs::exists(runDir / "mix.wav"));
  EXPECT_FALSE(synth.isRunning());
}

TEST_F(RenderSeriesTest, NothingToSingFailsAtOnce) {
  MusicDocument d;
  d.tracks = {track("NoVoice", "", 60)};
  const auto r = render(d);
  EXPECT_FALSE(r.success);
  EXPECT_TRUE(r.rendered.empty());
  EXPECT_FLOAT_EQ(r.scale, 1.0f);
  EXPECT_LT(logIndex("⚠ 合成対象のトラックがありません"), log.size());
  EXPECT_FALSE(fs::exists(runDir));
}

}  // namespace
}  // namespace melvo
