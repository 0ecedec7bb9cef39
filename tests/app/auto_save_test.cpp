#include "melvo/app/auto_save_manager.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "app/app_test_support.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/trash.h"
#include "support/test_support.h"

namespace melvo {
namespace {
using namespace std::chrono_literals;
using test::ScriptedCore;
using test::songNamed;
namespace fs = std::filesystem;

class AutoSaveTest : public ::testing::Test {
 protected:
  test::TempHome home;
  test::TempDir files;
};

TEST_F(AutoSaveTest, TickWritesOnlyWhileDirty) {
  ScriptedCore core;
  core.app->start();
  auto& as = core.app->autoSave();
  EXPECT_TRUE(as.timerRunning());
  core.clock->advance(60s);
  core.loop.runUntilIdle();
  core.app->autoSave().flush();
  EXPECT_TRUE(as.listSnapshots().empty());  // clean song

  core.edit("dirty");
  core.clock->advance(60s);
  core.loop.runUntilIdle();
  core.app->autoSave().flush();
  auto list = as.listSnapshots();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].title, "dirty");
  EXPECT_FALSE(list[0].manual);
  EXPECT_EQ(readProject(list[0].url).title, "dirty");

  core.saveChoice = files / "d.nsproj";
  ASSERT_EQ(core.app->save(), AppState::FlowResult::done);
  core.clock->advance(60s);
  core.loop.runUntilIdle();
  core.app->autoSave().flush();
  EXPECT_TRUE(as.listSnapshots().empty());  // the saved project's own folder is empty
}

TEST_F(AutoSaveTest, OffMeansNoTimerButManualSnapshotsWork) {
  ScriptedCore core;
  auto& as = core.app->autoSave();
  as.setSettings({AutoSaveSettings::Interval::off, 50});
  EXPECT_FALSE(as.timerRunning());
  EXPECT_EQ(core.loop.activeTimerCount(), 0u);
  auto snap = core.app->snapshot("before chorus");
  ASSERT_TRUE(snap);
  EXPECT_TRUE(snap->manual);
  EXPECT_EQ(snap->label, "before chorus");
  EXPECT_EQ(AutoSaveSettings::load(), (AutoSaveSettings{AutoSaveSettings::Interval::off, 50}));
  test::writeText(AutoSaveSettings::defaultPath(), R"({"interval": 45, "maxGenerations": 3})");
  EXPECT_EQ(AutoSaveSettings::load(), AutoSaveSettings{});
}

TEST_F(AutoSaveTest, PruningKeepsNewestAutomaticCopiesAndAllManualOnes) {
  EventLoop loop(std::make_shared<ManualClock>());
  AutoSaveManager as(loop);
  as.setSettings({AutoSaveSettings::Interval::min1, 3});
  as.writeSnapshot(songNamed("m1"), "one", true);
  for (int i = 1; i <= 4; ++i) as.writeSnapshot(songNamed("a" + std::to_string(i)), {}, false);
  as.writeSnapshot(songNamed("m2"), std::nullopt, true);
  std::vector<std::string> titles;
  for (const auto& s : as.listSnapshots()) titles.push_back(s.title);
  EXPECT_EQ(titles, (std::vector<std::string>{"m2", "a4", "a3", "a2", "m1"}));
  // Sidecars went with their copies.
  int metas = 0;
  for (const auto& e : fs::directory_iterator(as.listSnapshots()[0].url.parent_path()))
    metas += e.path().extension() == ".meta";
  EXPECT_EQ(metas, 5);
}

TEST_F(AutoSaveTest, KeysHashTheWholePathAndSidecarsAreOptional) {
  EXPECT_NE(AutoSaveManager::projectKey("/a/x/song.nsproj"),
            AutoSaveManager::projectKey("/b/x/song.nsproj"));
  EXPECT_EQ(AutoSaveManager::projectKey("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a3");

  EventLoop loop(std::make_shared<ManualClock>());
  AutoSaveManager as(loop);
  auto snap = as.writeSnapshot(songNamed("no meta", 7), "x", true);
  ASSERT_TRUE(snap);
  fs::remove(snap->sidecar());
  auto listed = as.listSnapshots();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].title, "no meta");
  EXPECT_EQ(listed[0].noteCount, 7);
  EXPECT_FALSE(listed[0].manual);
  EXPECT_NEAR(listed[0].date, snap->date, 1.0);  // from the file's time
}

TEST_F(AutoSaveTest, RestoringAVersionAsksAndLeavesTheSongDirty) {
  fs::path p = files / "r.nsproj";
  writeProject(songNamed("saved"), p);
  ScriptedCore core;
  core.app->open(p);
  core.edit("v1");
  auto snap = core.app->snapshot("v1");
  core.edit("v2");
  EXPECT_EQ(core.app->restoreSnapshot(*snap), AppState::FlowResult::cancelled);
  EXPECT_EQ(core.vm().document().title, "v2");
  core.answers = {FrontEnd::Answer::primary};
  EXPECT_EQ(core.app->restoreSnapshot(*snap), AppState::FlowResult::done);
  EXPECT_EQ(core.vm().document().title, "v1");
  EXPECT_TRUE(core.vm().isDirty());
  EXPECT_FALSE(core.vm().canUndo());
  EXPECT_EQ(core.app->projectFilePath(), p.string());
}

TEST_F(AutoSaveTest, TrashKeepsTheFileAndWhereItCameFrom) {
  fs::path f = files / "a b.nsproj";
  test::writeText(f, "one");
  fs::path first = trash::moveToTrash(f);
  test::writeText(f, "two");
  fs::path second = trash::moveToTrash(f);
  EXPECT_FALSE(fs::exists(f));
  EXPECT_NE(first, second);
  EXPECT_EQ(test::readText(first), "one");
  EXPECT_EQ(test::readText(second), "two");
  std::string info =
      test::readText(paths::trashDir() / "info" / (first.filename().string() + ".trashinfo"));
  EXPECT_NE(info.find("[Trash Info]\nPath=" + files.path().string() + "/a%20b.nsproj\n"),
            std::string::npos)
      << info;
  EXPECT_NE(info.find("DeletionDate="), std::string::npos);
  EXPECT_THROW(trash::moveToTrash(f), std::exception);

  EventLoop loop(std::make_shared<ManualClock>());
  AutoSaveManager as(loop);
  auto snap = as.writeSnapshot(songNamed("s"), std::nullopt, true);
  EXPECT_TRUE(AutoSaveManager::moveToTrash(*snap));
  EXPECT_FALSE(fs::exists(snap->url));
  EXPECT_FALSE(fs::exists(snap->sidecar()));
  EXPECT_TRUE(as.listSnapshots().empty());
}

// ---- Recovery across processes ----

// Runs `body` in a child that signals readiness through a pipe and then waits to be killed.
pid_t forkAndWait(const std::function<void()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    // The child must never return into the test runner, whatever the body does.
    try {
      body();
    } catch (...) {
      _exit(1);
    }
    char c = 'r';
    (void)!write(fds[1], &c, 1);
    for (;;) pause();
  }
  close(fds[1]);
  char c = 0;
  (void)!read(fds[0], &c, 1);
  close(fds[0]);
  return c == 'r' ? pid : -1;
}

TEST_F(AutoSaveTest, ACrashedSessionIsOfferedAndACleanOneIsNot) {
  pid_t child = forkAndWait([] {
    ScriptedCore core;
    core.app->start();
    core.edit("unsaved work");
    core.clock->advance(60s);
    core.loop.runUntilIdle();
    core.app->autoSave().flush();
  });
  ASSERT_GT(child, 0);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));

  {
    ScriptedCore next;
    next.app->start();
    const auto& offered = next.app->recoverableSnapshots();
    ASSERT_EQ(offered.size(), 1u);
    EXPECT_EQ(offered[0].title, "unsaved work");
    EXPECT_EQ(AutoSaveManager::restore(offered[0]).title, "unsaved work");

    auto r = test::runMelvo({"snapshots", "list", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json listed = Json::parse(r.out);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed.asArray()[0].find("path")->asString(), offered[0].url.string());
    EXPECT_EQ(listed.asArray()[0].find("title")->asString(), "unsaved work");

    // This session writes its own copy, lets its edits go and quits properly: nothing new is
    // offered, and the dead session stays on offer until it is discarded.
    next.edit("second");
    next.clock->advance(60s);
    next.loop.runUntilIdle();
    next.app->autoSave().flush();
    next.answers = {FrontEnd::Answer::secondary};
    ASSERT_EQ(next.app->newProject(), AppState::FlowResult::done);
    next.app->endCleanly();
  }
  ScriptedCore third;
  third.app->start();
  ASSERT_EQ(third.app->recoverableSnapshots().size(), 1u);
  third.app->discardRecoverable(third.app->recoverableSnapshots());
  EXPECT_TRUE(third.app->recoverableSnapshots().empty());
  EXPECT_TRUE(AutoSaveManager(third.loop).findRecoverable().empty());
}

TEST_F(AutoSaveTest, AProjectIsOfferedOnlyWhenItsCopyIsNewerThanTheFile) {
  fs::path p = files / "proj.nsproj";
  writeProject(songNamed("proj"), p);
  // File times come from a coarse kernel clock and copies are named to the millisecond, so a
  // file written moments apart from a copy could fall on either side of it. Both saves here
  // are stamped plainly before and after the copy instead.
  fs::last_write_time(p, fs::file_time_type::clock::now() - 1min);
  {
    ScriptedCore core;
    core.app->start();
    core.app->open(p);
    core.edit("edited");
    core.clock->advance(60s);
    core.loop.runUntilIdle();
    core.app->autoSave().flush();
    // dies here without endCleanly
  }
  EventLoop loop(std::make_shared<ManualClock>());
  EXPECT_EQ(AutoSaveManager(loop).findRecoverable().size(), 1u);
  // Saved afterwards (say, by another program): the copy is old news.
  writeProject(songNamed("newer"), p);
  fs::last_write_time(p, fs::file_time_type::clock::now());
  EXPECT_TRUE(AutoSaveManager(loop).findRecoverable().empty());

  {
    ScriptedCore core;
    core.app->start();
    core.app->open(p);
    core.edit("edited again");
    core.clock->advance(60s);
    core.loop.runUntilIdle();
    core.app->autoSave().flush();
    core.saveChoice = p;
    ASSERT_EQ(core.app->save(), AppState::FlowResult::done);
    core.app->endCleanly();
  }
  ScriptedCore after;
  EXPECT_TRUE(after.app->autoSave().findRecoverable().empty());
  after.app->autoSave().setProject(p.string());
  EXPECT_EQ(after.app->autoSave().listSnapshots().size(), 2u);  // history kept
}

// Quitting in order with edits that were never saved is no reason to forget them: the copies
// stay on offer, and a last one holds the edits made since the timer's copy.
TEST_F(AutoSaveTest, AnOrderlyQuitWithUnsavedEditsKeepsThemOnOffer) {
  fs::path p = files / "proj.nsproj";
  writeProject(songNamed("proj"), p);
  fs::last_write_time(p, fs::file_time_type::clock::now() - 1min);
  {
    ScriptedCore core;
    core.app->start();
    core.app->open(p);
    core.edit("timer's copy");
    core.clock->advance(60s);
    core.loop.runUntilIdle();
    core.app->autoSave().flush();
    core.edit("edited after the copy");
    core.app->endCleanly();
  }
  ScriptedCore next;
  next.app->start();
  ASSERT_EQ(next.app->recoverableSnapshots().size(), 1u);
  EXPECT_EQ(next.app->recoverableSnapshots()[0].title, "edited after the copy");
  // Restoring it is the user's answer: it is not offered again, even before this run ends.
  next.answers = {FrontEnd::Answer::primary};
  ASSERT_EQ(next.app->restoreSnapshot(next.app->recoverableSnapshots()[0]),
            AppState::FlowResult::done);
  EXPECT_TRUE(next.app->recoverableSnapshots().empty());
  EXPECT_TRUE(AutoSaveManager(next.loop).findRecoverable().empty());
}

// The timer's tick takes the document and returns; the copy appears once the worker is done,
// and the main thread hears of it through its queue.
TEST_F(AutoSaveTest, TheTickWritesOnAWorkerAndReportsOnTheMainQueue) {
  ScriptedCore core;
  core.app->start();
  auto& as = core.app->autoSave();
  core.edit("big");
  core.clock->advance(60s);
  core.loop.runUntilIdle();
  const bool startedWriting = as.writing() || as.lastSaveDate().has_value();
  EXPECT_TRUE(startedWriting);
  // The result arrives by the queue, without a flush.
  for (int i = 0; i < 500 && !as.lastSaveDate(); ++i) {
    std::this_thread::sleep_for(10ms);
    core.loop.runUntilIdle();
  }
  EXPECT_TRUE(as.lastSaveDate().has_value());
  EXPECT_FALSE(as.writing());
  ASSERT_EQ(as.listSnapshots().size(), 1u);
  EXPECT_EQ(readProject(as.listSnapshots()[0].url).title, "big");
}

}  // namespace
}  // namespace melvo
