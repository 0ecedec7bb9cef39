// A render as the application core runs it: the start checks, the stall watch on the test's
// clock, the end of a run (take, curve, diagnosis), re-mixes and the re-render.
#include <gtest/gtest.h>

#include <cmath>

#include "app/app_test_support.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

using namespace std::chrono_literals;

MusicTrack track(const std::string& name, const std::string& voice, int pitch,
                 const char* lastLyric = "ら") {
  MusicTrack t;
  t.name = name;
  t.characterName = voice;
  std::vector<NoteEvent> notes;
  const char* lyrics[] = {"さ", "く", lastLyric};
  for (int i = 0; i < 3; ++i)
    notes.push_back(NoteEvent::make(Uuid::random(), 480 + 480 * i, 480, pitch + i, 100, lyrics[i]));
  t.notes = NoteList(std::move(notes));
  return t;
}

class SynthesisRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    i18n::setLanguage("ja");
    engine = home.path() / "engine";
    core = std::make_unique<test::ScriptedCore>();
    core->app->engineCheckTimeoutSec = 0.5;
    core->app->synthesisEnded = [this](const AppState::SynthesisOutcome& o) {
      outcomes.push_back(o);
    };
  }
  void TearDown() override { i18n::setLanguage("en"); }

  // The stand-in engine with two voices; `sopranoMode` makes that voice misbehave.
  void useStandIn(const std::string& sopranoMode = "") {
    for (const char* v : {"alto", "soprano"}) fs::create_directories(engine / "model" / v);
    if (!sopranoMode.empty())
      test::writeText(engine / "model" / "soprano" / "stand-in.conf", "mode=" + sopranoMode + "\n");
    fs::create_symlink(test::standInEngine() / "bin", engine / "bin");
    useEngine();
  }
  void useEngine() {
    NEUTRINOConfig c;
    c.neutrinoDirectory = engine.string();
    c.numThreads = 1;
    core->app->setConfig(c);
  }
  void setSong(std::vector<MusicTrack> tracks) {
    MusicDocument d;
    d.title = "Song";
    d.tracks = std::move(tracks);
    core->vm().swapDocument(std::move(d), std::nullopt);
  }
  AppState::SynthesisOutcome waitForEnd() {
    const std::size_t before = outcomes.size();
    EXPECT_TRUE(test::pumpUntil(
        core->loop, [&] { return outcomes.size() > before; }, 120s));
    core->loop.runUntilIdle();
    EXPECT_EQ(outcomes.size(), before + 1);
    return outcomes.empty() ? AppState::SynthesisOutcome{} : outcomes.back();
  }
  // What the start refused, at once or after the engine check; nothing when it started.
  std::optional<std::string> refusalOf(MixdownKind kind) {
    if (auto r = core->app->startSynthesis(kind)) return r;
    EXPECT_TRUE(test::pumpUntil(
        core->loop, [&] { return !core->app->isCheckingEngine(); }, 30s));
    core->loop.runUntilIdle();
    if (!outcomes.empty() &&
        outcomes.back().ending == AppState::SynthesisOutcome::Ending::refused) {
      std::string text = outcomes.back().message;
      outcomes.pop_back();
      return text;
    }
    return std::nullopt;
  }
  bool logHas(const std::string& needle) const {
    for (const auto& l : core->app->synthesisLog())
      if (l.find(needle) != std::string::npos) return true;
    return false;
  }

  test::TempHome home;
  fs::path engine;
  std::unique_ptr<test::ScriptedCore> core;
  std::vector<AppState::SynthesisOutcome> outcomes;
};

TEST_F(SynthesisRunTest, ARefusedStartRunsNothingWritesNothingAndChangesNothing) {
  const fs::path mark = home.path() / "ran";
  // The start check runs the singer once without work; work would leave the mark.
  test::makeFakeEngine(engine, "[ $# -eq 0 ] && exit 0\ntouch '" + mark.string() + "'");
  test::writeText(engine / "bin" / "musicXMLtoLabel", "#!/bin/sh\ntouch '" + mark.string() + "'\n");
  useEngine();
  AppState& app = *core->app;

  // The gate names the note the engine cannot read; its list goes to the run's log.
  setSong({track("Lead", "voice", 60, "x")});
  auto refusal = refusalOf(MixdownKind::allTracks);
  ASSERT_TRUE(refusal);
  EXPECT_NE(refusal->find("1小節目"), std::string::npos) << *refusal;
  EXPECT_TRUE(logHas("「問題一覧」"));

  // A voice the engine folder lacks, and a song whose every track is muted.
  setSong({track("Lead", "nobody", 60)});
  EXPECT_EQ(refusalOf(MixdownKind::allTracks),
            "キャラモデル「nobody」が NEUTRINO/model/ に見つかりません。設定を確認してください。");
  setSong({track("Lead", "voice", 60)});
  core->vm().commit("消音", [](MusicDocument& d) { d.tracks[0].isMuted = true; });
  EXPECT_EQ(refusalOf(MixdownKind::allTracks),
            "⚠ 全部のトラックが消音です。歌わせるトラックの消音を外してください。");
  // A range whose only notes are on a muted track: the sung track starts in bar 2.
  MusicTrack late = track("Lead", "voice", 60);
  late.notes.mutableAt(0).tick = 1920 * 2;
  late.notes.mutableAt(1).tick = 1920 * 2 + 480;
  late.notes.mutableAt(2).tick = 1920 * 2 + 960;
  MusicTrack muted = track("Muted", "voice", 60);
  muted.notes.mutableAt(0).tick = 0;
  muted.isMuted = true;
  setSong({late, muted});
  core->vm().setLoopEndTick(240);
  EXPECT_EQ(refusalOf(MixdownKind::rangeAllTracks), "合成できる範囲に、歌う音がありません");

  EXPECT_FALSE(app.isSynthesizing());
  EXPECT_FALSE(app.canCancelSynthesis());
  EXPECT_EQ(core->loop.activeTimerCount(), 0u);
  EXPECT_TRUE(outcomes.empty());
  EXPECT_FALSE(fs::exists(mark));
  EXPECT_FALSE(fs::exists(paths::musicDir()));
  EXPECT_TRUE(app.takeHistory().empty());
}

TEST_F(SynthesisRunTest, TheStallWordComesAtTwentyFiveSilentSecondsAndGoesWithTheNextLine) {
  // The tool speaks, then waits for the test before each further word.
  const fs::path go1 = home.path() / "go1", go2 = home.path() / "go2";
  test::makeFakeEngine(engine,
                       "[ $# -eq 0 ] && exit 0\n"
                       "echo '30% thinking'\n"
                       "while [ ! -f '" +
                           go1.string() +
                           "' ]; do sleep 0.01; done\n"
                           "echo '60% still thinking'\n"
                           "while [ ! -f '" +
                           go2.string() +
                           "' ]; do sleep 0.01; done\n"
                           "exit 1");
  useEngine();
  setSong({track("Lead", "voice", 60)});
  AppState& app = *core->app;
  ASSERT_FALSE(app.startSynthesis(MixdownKind::allTracks));
  ASSERT_TRUE(test::pumpUntil(
      core->loop, [&] { return app.isSynthesizing(); }, 30s));
  ASSERT_TRUE(test::pumpUntil(
      core->loop, [&] { return logHas("30% thinking"); }, 30s));

  core->clock->advance(24s);
  core->loop.runUntilIdle();
  EXPECT_FALSE(app.synthesisStalledMessage());
  core->clock->advance(1s);
  core->loop.runUntilIdle();
  ASSERT_TRUE(app.synthesisStalledMessage());
  EXPECT_EQ(*app.synthesisStalledMessage(),
            "合成が 25 秒ほど進んでいません。別のウインドウで合成を実行していないかご確認ください");

  test::writeText(go1, "");
  ASSERT_TRUE(test::pumpUntil(
      core->loop, [&] { return logHas("60% still thinking"); }, 30s));
  EXPECT_FALSE(app.synthesisStalledMessage());
  core->clock->advance(3s);
  core->loop.runUntilIdle();
  EXPECT_FALSE(app.synthesisStalledMessage());  // the mark moved with the line

  // A failed end: the watch stops, the log stays, the words say how to read it.
  core->clock->advance(30s);
  core->loop.runUntilIdle();
  EXPECT_TRUE(app.synthesisStalledMessage());
  test::writeText(go2, "");
  const auto outcome = waitForEnd();
  EXPECT_FALSE(outcome.success);
  EXPECT_EQ(outcome.message,
            "合成が失敗しました。メニュー「ミックスダウン」→「合成の記録を表示…」でログを確認してく"
            "ださい。");
  EXPECT_FALSE(outcome.diagnosis);  // nothing in this log is a known failure
  EXPECT_FALSE(app.isSynthesizing());
  EXPECT_FALSE(app.synthesisStalledMessage());
  EXPECT_EQ(core->loop.activeTimerCount(), 0u);
  EXPECT_TRUE(logHas("30% thinking"));
  EXPECT_TRUE(app.takeHistory().empty());
}

TEST_F(SynthesisRunTest, AFailingSecondTrackStopsTheSeriesAndTheLogIsDiagnosed) {
  useStandIn("missing-library");
  setSong({track("One", "alto", 60), track("Two", "soprano", 62), track("Three", "alto", 64)});
  ASSERT_FALSE(core->app->startSynthesis(MixdownKind::allTracks));
  const auto outcome = waitForEnd();
  EXPECT_FALSE(outcome.success);
  EXPECT_EQ(outcome.renderedTracks, std::vector<int>{0});
  EXPECT_NE(outcome.message.find("マルチトラック合成に失敗しました"), std::string::npos);
  ASSERT_TRUE(outcome.diagnosis);
  EXPECT_NE(outcome.diagnosis->title.find("libonnxruntime.so.1"), std::string::npos)
      << outcome.diagnosis->title;
  EXPECT_FALSE(logHas("▶ トラック 3/3"));
  EXPECT_FALSE(core->app->lastSynthesizedWAV());
  EXPECT_TRUE(core->app->takeHistory().empty());
}

TEST_F(SynthesisRunTest, ARenderIsTakenLoadedForEditingRemixedAndReRendered) {
  useStandIn();
  setSong({track("Lead", "alto", 60), track("Harmony", "soprano", 64)});
  const fs::path runDir = home.path() / "run";
  AppState& app = *core->app;
  app.runFolderOverride = runDir;
  ASSERT_FALSE(app.startSynthesis(MixdownKind::allTracks));
  auto outcome = waitForEnd();
  ASSERT_TRUE(outcome.success) << ::testing::PrintToString(app.synthesisLog());
  EXPECT_EQ(outcome.wavPath, (runDir / "mix.wav").string());
  EXPECT_EQ(app.synthesisProgress(), 100.0);

  // The take and the memory of the mix.
  ASSERT_EQ(app.takeHistory().size(), 1u);
  const AppState::Take& take = app.takeHistory()[0];
  EXPECT_EQ(take.wavPath, (runDir / "mix.wav").string());
  EXPECT_EQ(take.characterName, "alto");
  EXPECT_EQ(take.noteCount, 6);
  EXPECT_GT(take.durationSec, 1.0);
  EXPECT_EQ(app.trackVoiceWAVs().size(), 2u);
  EXPECT_TRUE(app.tracksNeedingSynthesis().empty());

  // The first track's curve and timing, calibrated by its voice's length.
  PianoRollViewModel& vm = core->vm();
  const MusicDocument& d = vm.document();
  ASSERT_TRUE(vm.editedPitchCurve());
  EXPECT_FALSE(vm.editedPitchCurve()->frequencies.empty());
  EXPECT_TRUE(vm.f0Calibrated());
  EXPECT_EQ(vm.pitchCurveTrackID(), d.tracks[0].id);
  EXPECT_EQ(fs::path(*vm.f0FilePath()).parent_path().filename(), "track1_Lead");
  ASSERT_TRUE(vm.phonemes());
  EXPECT_FALSE(vm.phonemes()->phonemes.empty());

  // Muting the harmony is heard from the stored voices: the live mix is the lead alone, never
  // louder than the render's mix was allowed to be.
  vm.commit("消音", [](MusicDocument& doc) { doc.tracks[1].isMuted = true; });
  app.waitForRemix();
  ASSERT_TRUE(app.lastLiveMixPath());
  const auto lead = test::readSamples(runDir / "track1_Lead" / "output.wav");
  const auto live = test::readSamples(*app.lastLiveMixPath());
  ASSERT_GE(live.size(), 2 * lead.size());
  float peak = 0;
  for (float s : lead) peak = std::max(peak, std::fabs(s));
  const float scale = std::min(peak > 0.95f ? 0.95f / peak : 1.0f, app.voiceRemixScale());
  for (std::size_t i = 0; i < lead.size(); i += 53) {
    ASSERT_NEAR(live[2 * i], scale * lead[i], 1e-4) << i;
    ASSERT_NEAR(live[2 * i + 1], scale * lead[i], 1e-4) << i;
  }
  // A new voiced track is missing from the live mix until the next render.
  vm.commit("トラック追加",
            [](MusicDocument& doc) { doc.tracks.push_back(track("New", "alto", 67)); });
  app.waitForRemix();
  EXPECT_EQ(app.tracksNeedingSynthesis(), std::vector<Uuid>{vm.document().tracks[2].id});

  // A curve raised a semitone is sung by the late stage alone.
  const fs::path voice = runDir / "track1_Lead" / "output.wav";
  const auto before = fs::last_write_time(voice);
  PitchCurve raised = *vm.editedPitchCurve();
  for (float& f : raised.frequencies) f *= std::pow(2.0f, 1.0f / 12);
  vm.setEditedPitchCurve(raised);
  const std::string liveBefore = *app.lastLiveMixPath();
  ASSERT_FALSE(app.startRevocode(true));
  outcome = waitForEnd();
  ASSERT_TRUE(outcome.success) << ::testing::PrintToString(app.synthesisLog());
  EXPECT_TRUE(outcome.revocode);
  EXPECT_EQ(outcome.message, "✓ f0編集を反映してWAVを再生成しました");
  EXPECT_GT(fs::last_write_time(voice), before);
  EXPECT_EQ(PitchCurve::read(runDir / "track1_Lead" / "output.f0")->frequencies,
            raised.frequencies);
  app.waitForRemix();
  EXPECT_NE(app.lastLiveMixPath(), liveBefore);
  EXPECT_FALSE(fs::exists(liveBefore));     // nobody plays the old live mix any more
  EXPECT_EQ(app.takeHistory().size(), 1u);  // a re-render is not a new take
}

TEST_F(SynthesisRunTest, AReRenderAfterATimingEditTakesTheNewCurveOnlyIfTheLineStayedPut) {
  useStandIn();
  setSong({track("Lead", "alto", 60)});
  AppState& app = *core->app;
  app.runFolderOverride = home.path() / "run";
  ASSERT_FALSE(app.startSynthesis(MixdownKind::selectedTrack));
  ASSERT_TRUE(waitForEnd().success) << ::testing::PrintToString(app.synthesisLog());
  PianoRollViewModel& vm = core->vm();
  ASSERT_TRUE(vm.phonemes() && vm.editedPitchCurve());

  // A boundary moved: the engine predicts the curve again, and it replaces the line.
  PhonemeList moved = *vm.phonemes();
  ASSERT_GE(moved.phonemes.size(), 3u);
  moved.phonemes[1].endNS += 500000;
  moved.phonemes[2].startNS += 500000;
  vm.setPhonemes(moved);
  PitchCurve flat = *vm.editedPitchCurve();
  std::fill(flat.frequencies.begin(), flat.frequencies.end(), 200.0f);
  vm.setEditedPitchCurve(flat);  // drawn over, but a timing re-render predicts anew
  ASSERT_FALSE(app.startRevocode(false));
  auto outcome = waitForEnd();
  ASSERT_TRUE(outcome.success) << ::testing::PrintToString(app.synthesisLog());
  EXPECT_EQ(outcome.message, "✓ 音の境目の直しを反映して、f0 も推し直し、WAV を作り直しました");
  EXPECT_EQ(PhonemeList::read(home.path() / "run" / "track1_Lead" / "timing.lab"), moved);
  EXPECT_NE(vm.editedPitchCurve()->frequencies, flat.frequencies);
  EXPECT_EQ(vm.originalPitchCurve(), vm.editedPitchCurve());

  // The line is redrawn while the engine works: the prediction must not overwrite it.
  ASSERT_FALSE(app.startRevocode(false));
  vm.setEditedPitchCurve(flat);
  outcome = waitForEnd();
  ASSERT_TRUE(outcome.success);
  EXPECT_NE(outcome.message.find("推し直した f0 は線に載せていません"), std::string::npos);
  EXPECT_EQ(vm.editedPitchCurve()->frequencies, flat.frequencies);
}

TEST_F(SynthesisRunTest, CancelEndsTheRunAsCancelledAndKeepsItsFiles) {
  test::makeFakeEngine(engine, "[ $# -eq 0 ] && exit 0\necho '30% thinking'\nsleep 30");
  useEngine();
  setSong({track("Lead", "voice", 60)});
  AppState& app = *core->app;
  app.runFolderOverride = home.path() / "run";
  ASSERT_FALSE(app.startSynthesis(MixdownKind::allTracks));
  // A second request, during the check or the run, is refused with the alert.
  EXPECT_EQ(app.startSynthesis(MixdownKind::allTracks), "現在合成中です。完了をお待ちください。");
  ASSERT_TRUE(test::pumpUntil(
      core->loop, [&] { return logHas("30% thinking"); }, 30s));
  EXPECT_EQ(app.startSynthesis(MixdownKind::allTracks), "現在合成中です。完了をお待ちください。");
  ASSERT_TRUE(app.canCancelSynthesis());
  app.cancelSynthesis();
  const auto outcome = waitForEnd();
  EXPECT_EQ(outcome.ending, AppState::SynthesisOutcome::Ending::cancelled);
  EXPECT_EQ(outcome.message, "合成を中止しました。");
  EXPECT_FALSE(outcome.diagnosis);
  EXPECT_FALSE(app.isSynthesizing());
  EXPECT_FALSE(app.canCancelSynthesis());
  EXPECT_TRUE(fs::exists(home.path() / "run" / "track1_Lead" / "score.musicxml"));
  EXPECT_TRUE(app.takeHistory().empty());
}

TEST_F(SynthesisRunTest, ACancelDuringTheEngineCheckStartsNothing) {
  // A singer that hangs when started without work keeps the check waiting for its timeout.
  test::makeFakeEngine(engine, "[ $# -eq 0 ] && exec sleep 30\necho sung");
  useEngine();
  core->app->engineCheckTimeoutSec = 30;
  setSong({track("Lead", "voice", 60)});
  AppState& app = *core->app;
  app.runFolderOverride = home.path() / "run";
  ASSERT_FALSE(app.startSynthesis(MixdownKind::allTracks));
  EXPECT_TRUE(app.isCheckingEngine());
  EXPECT_FALSE(app.isSynthesizing());
  ASSERT_TRUE(app.canCancelSynthesis());
  const auto before = std::chrono::steady_clock::now();
  app.cancelSynthesis();
  const auto outcome = waitForEnd();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
  EXPECT_EQ(outcome.ending, AppState::SynthesisOutcome::Ending::cancelled);
  EXPECT_FALSE(app.isCheckingEngine());
  EXPECT_FALSE(fs::exists(home.path() / "run"));
  EXPECT_FALSE(logHas("sung"));
}

TEST_F(SynthesisRunTest, AScanKeepsTheChosenVoiceOrFallsBackToTheFirst) {
  useStandIn();
  AppState& app = *core->app;
  NEUTRINOConfig c = app.config();
  c.selectedCharacterName = "soprano";
  app.setConfig(c);
  app.scanCharacters();
  ASSERT_EQ(app.characters().size(), 2u);
  EXPECT_TRUE(app.charactersLoaded());
  EXPECT_EQ(app.selectedCharacter()->name, "soprano");

  c.selectedCharacterName = "gone";
  app.setConfig(c);
  app.scanCharacters();
  EXPECT_EQ(app.selectedCharacter()->name, "alto");
  EXPECT_EQ(app.config().selectedCharacterName, "alto");
  EXPECT_EQ(NEUTRINOConfig::load()->selectedCharacterName, "alto");  // saved
}

}  // namespace
}  // namespace melvo
