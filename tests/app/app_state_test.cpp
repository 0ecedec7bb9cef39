#include "melvo/app/app_state.h"

#include <gtest/gtest.h>

#include "app/app_test_support.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "melvo/synthesis/neutrino_config.h"
#include "support/test_support.h"

namespace melvo {
namespace {
using test::ScriptedCore;
using test::songNamed;
namespace fs = std::filesystem;

class AppStateTest : public ::testing::Test {
 protected:
  void SetUp() override { i18n::setLanguage("en"); }
  test::TempHome home;
  test::TempDir files;
  fs::path project(const std::string& name, const std::string& title = "song") {
    fs::path p = files / name;
    writeProject(songNamed(title), p);
    return p;
  }
};

TEST_F(AppStateTest, ConfigFileNeedsAllKeysOrTheDefaultsStay) {
  NEUTRINOConfig c;
  c.neutrinoDirectory = "/opt/NEUTRINO";
  c.numThreads = 8;
  c.skipWav = true;
  c.save();
  EXPECT_EQ(ScriptedCore().app->config(), c);

  Json j = c.toJson();
  j.asObject().erase("skipWav");
  test::writeText(NEUTRINOConfig::defaultPath(), j.dump());
  EXPECT_EQ(ScriptedCore().app->config(), NEUTRINOConfig{});

  j = c.toJson();
  j["numThreads"] = "8";  // wrong type
  test::writeText(NEUTRINOConfig::defaultPath(), j.dump());
  EXPECT_EQ(ScriptedCore().app->config(), NEUTRINOConfig{});

  test::writeText(NEUTRINOConfig::defaultPath(), "{not json");
  EXPECT_EQ(ScriptedCore().app->config(), NEUTRINOConfig{});

  // The start writes what is in force, so the damaged file is replaced by a whole one.
  ScriptedCore started;
  started.app->start();
  EXPECT_EQ(NEUTRINOConfig::load(), std::optional<NEUTRINOConfig>(NEUTRINOConfig{}));
}

TEST_F(AppStateTest, RecentFilesKeepTwentyFiveMoveToTopAndSurviveRestart) {
  ScriptedCore core;
  std::vector<fs::path> paths;
  for (int i = 0; i < 26; ++i) {
    paths.push_back(project("p" + std::to_string(i) + ".nsproj"));
    ASSERT_EQ(core.app->open(paths.back()), AppState::FlowResult::done);
  }
  auto& recents = core.app->recentFiles();
  ASSERT_EQ(recents.size(), 25u);
  EXPECT_EQ(recents.front().path, paths[25].string());
  EXPECT_EQ(recents.back().path, paths[1].string());  // p0 pushed out

  core.app->open(paths[10]);
  EXPECT_EQ(recents.size(), 25u);
  EXPECT_EQ(recents.front().path, paths[10].string());
  EXPECT_EQ(std::count_if(recents.begin(), recents.end(),
                          [&](const auto& r) { return r.path == paths[10].string(); }),
            1);
  EXPECT_EQ(recents.front().totalNotes, 3);

  fs::remove(paths[20]);
  ScriptedCore restarted;
  const auto& again = restarted.app->recentFiles();
  EXPECT_EQ(again.size(), 24u);
  EXPECT_EQ(again.front().path, paths[10].string());
  EXPECT_TRUE(std::none_of(again.begin(), again.end(),
                           [&](const auto& r) { return r.path == paths[20].string(); }));
}

TEST_F(AppStateTest, TakesSurviveRestartKeepTenAndLoseMissingFiles) {
  {
    ScriptedCore core;
    for (int i = 0; i < 12; ++i) {
      fs::path wav = files / ("take" + std::to_string(i) + ".wav");
      test::writeText(wav, "RIFF");
      AppState::Take t{Uuid::random(), 100.0 + i, wav.string(), std::nullopt, "t", i, 1.5};
      if (i == 11) t.characterName = "MERROW";
      core.app->addTake(t);
    }
    EXPECT_EQ(core.app->takeHistory().size(), 10u);
  }
  fs::remove(files / "take10.wav");
  ScriptedCore restarted;
  const auto& takes = restarted.app->takeHistory();
  ASSERT_EQ(takes.size(), 9u);
  EXPECT_EQ(takes[0].characterName, "MERROW");
  EXPECT_EQ(takes[0].createdAt, 111.0);
  EXPECT_EQ(takes[1].wavPath, (files / "take9.wav").string());
  // The pruned list is not written back until the next change.
  EXPECT_EQ(restarted.app->preferences().get(AppState::kTakeHistoryKey)->size(), 10u);

  test::writeText(Preferences::defaultPath(), R"({"melvo.takeHistory": [{"id": 3}]})");
  EXPECT_TRUE(ScriptedCore().app->takeHistory().empty());
}

TEST_F(AppStateTest, ADirtySongIsNeverReplacedWithoutAsking) {
  fs::path other = project("other.nsproj", "other");
  ScriptedCore core;
  core.edit("mine");
  const auto seq = core.vm().documentSwapSeq();

  // Cancel (and an unanswered question) leave everything as it was.
  EXPECT_EQ(core.app->open(other), AppState::FlowResult::cancelled);
  EXPECT_EQ(core.app->newProject(), AppState::FlowResult::cancelled);
  ASSERT_EQ(core.asked.size(), 2u);
  EXPECT_EQ(core.asked[0].primary, "Save and Open");
  EXPECT_EQ(core.vm().document().title, "mine");
  EXPECT_TRUE(core.vm().isDirty());
  EXPECT_TRUE(core.vm().canUndo());
  EXPECT_EQ(core.vm().documentSwapSeq(), seq);
  EXPECT_TRUE(core.app->recentFiles().empty());

  // "Save and open" with no path asks for one; declining the chooser stops the open.
  core.answers = {FrontEnd::Answer::primary};
  EXPECT_EQ(core.app->open(other), AppState::FlowResult::cancelled);
  EXPECT_EQ(core.saveChooserCalls, 1);
  EXPECT_EQ(core.vm().document().title, "mine");

  core.answers = {FrontEnd::Answer::primary};
  core.saveChoice = files / "mine.nsproj";
  EXPECT_EQ(core.app->open(other), AppState::FlowResult::done);
  EXPECT_EQ(readProject(files / "mine.nsproj").title, "mine");
  EXPECT_EQ(core.vm().document().title, "other");
  EXPECT_FALSE(core.vm().isDirty());

  core.edit("scratch");
  core.answers = {FrontEnd::Answer::secondary};
  EXPECT_EQ(core.app->newProject(), AppState::FlowResult::done);
  EXPECT_TRUE(core.vm().document().madeAsNewProject);
  EXPECT_FALSE(core.app->projectFilePath());
  EXPECT_EQ(readProject(other).title, "other");  // discarded, not saved
}

TEST_F(AppStateTest, SongFlowsAreRefusedDuringARender) {
  fs::path other = project("other.nsproj", "other");
  ScriptedCore core;
  std::vector<std::string> refusals;
  core.app->songSwapRefusalShown = [&](const std::string& t) { refusals.push_back(t); };
  core.edit("mine");
  core.app->setIsSynthesizing(true);
  core.answers = {FrontEnd::Answer::secondary, FrontEnd::Answer::secondary};
  EXPECT_EQ(core.app->open(other), AppState::FlowResult::refused);
  EXPECT_EQ(core.app->newProject(), AppState::FlowResult::refused);
  EXPECT_EQ(refusals.size(), 2u);
  EXPECT_TRUE(core.asked.empty());
  EXPECT_EQ(core.vm().document().title, "mine");
  EXPECT_TRUE(core.vm().isDirty());
  EXPECT_TRUE(core.app->refuseRenderWhileRendering());
  EXPECT_EQ(core.alerts.size(), 1u);
}

TEST_F(AppStateTest, SaveWritesClearsDirtyAndAFailedSaveKeepsIt) {
  fs::create_directory(files / "folder");
  fs::path p = project("folder/a.nsproj");
  ScriptedCore core;
  ASSERT_EQ(core.app->open(p), AppState::FlowResult::done);
  EXPECT_EQ(core.app->projectFilePath(), p.string());
  core.edit("changed");
  EXPECT_EQ(core.app->save(), AppState::FlowResult::done);
  EXPECT_EQ(core.saveChooserCalls, 0);
  EXPECT_EQ(readProject(p).title, "changed");
  EXPECT_FALSE(core.vm().isDirty());

  core.edit("again");
  // The folder became a plain file: no write can succeed there, not even as root.
  fs::remove_all(files / "folder");
  test::writeText(files / "folder", "not a folder");
  EXPECT_EQ(core.app->save(), AppState::FlowResult::failed);
  EXPECT_TRUE(core.vm().isDirty());
  EXPECT_EQ(core.vm().document().title, "again");
  ASSERT_EQ(core.alerts.size(), 1u);
  EXPECT_NE(core.alerts[0].find("Save failed"), std::string::npos) << core.alerts[0];
}

TEST_F(AppStateTest, SaveAsMovesAutosaveToTheNewProjectFolder) {
  ScriptedCore core;
  const std::string sessionKey = core.app->autoSave().currentKey();
  core.edit("fresh");
  core.saveChoice = files / "fresh.nsproj";
  EXPECT_EQ(core.app->save(), AppState::FlowResult::done);  // no path yet: asks
  EXPECT_EQ(core.saveChooserCalls, 1);
  EXPECT_EQ(core.app->projectFilePath(), core.saveChoice->string());
  EXPECT_EQ(core.vm().filePath(), core.saveChoice->string());
  EXPECT_EQ(core.app->autoSave().currentKey(),
            AutoSaveManager::projectKey(core.saveChoice->string()));
  EXPECT_NE(core.app->autoSave().currentKey(), sessionKey);
  EXPECT_EQ(core.app->recentFiles().front().title, "fresh");
}

TEST_F(AppStateTest, OpenFailureLeavesTheSongAndTitlesAreCleaned) {
  ScriptedCore core;
  core.edit("kept");
  core.answers = {FrontEnd::Answer::secondary};
  fs::path bad = files / "bad.nsproj";
  test::writeText(bad, "{");
  EXPECT_EQ(core.app->open(bad), AppState::FlowResult::failed);
  EXPECT_EQ(core.vm().document().title, "kept");
  EXPECT_EQ(core.alerts.size(), 1u);

  EXPECT_EQ(AppState::cleanTitle(" a/b:c\td ", "x.nsproj"), "a_b_c_d");
  EXPECT_EQ(AppState::cleanTitle("  ", "/songs/x.nsproj"), "x.nsproj");
}

TEST_F(AppStateTest, MixdownRefusalsComeInOrder) {
  ScriptedCore core;
  auto refusal = [&](MixdownKind k) { return core.app->mixdownRefusal(k).value_or("none"); };
  core.app->start();
  EXPECT_EQ(refusal(MixdownKind::allTracks), "Close Home and open a song");
  core.app->setShowHome(false);
  EXPECT_EQ(refusal(MixdownKind::allTracks), "The NEUTRINO folder is not set");
  NEUTRINOConfig c;
  c.neutrinoDirectory = "/opt/NEUTRINO";
  core.app->setConfig(c);
  EXPECT_EQ(refusal(MixdownKind::allTracks), "There are no notes");
  EXPECT_EQ(refusal(MixdownKind::selectedTrack), "The selected track has no notes");
  EXPECT_EQ(refusal(MixdownKind::rangeAllTracks), "No range is chosen (Shift+drag on the ruler)");

  core.vm().commit("編集", [](MusicDocument& d) {
    d.tracks = songNamed("x", 2).tracks;  // notes at 0 and 480
    d.tracks.push_back(MusicTrack{});
  });
  EXPECT_EQ(refusal(MixdownKind::allTracks), "none");
  core.vm().setLoopStartTick(5000);
  core.vm().setLoopEndTick(6000);
  EXPECT_EQ(refusal(MixdownKind::rangeAllTracks), "There are no notes in the range");
  core.vm().setLoopStartTick(0);
  EXPECT_EQ(refusal(MixdownKind::rangeAllTracks), "none");
  core.vm().setCurrentTrackIndex(1);
  EXPECT_EQ(refusal(MixdownKind::rangeSelectedTrack), "The selected track has no notes");
}

}  // namespace
}  // namespace melvo
