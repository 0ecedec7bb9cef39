// Several Melvo processes share one preferences file: each change must keep what the others
// stored meanwhile, keys and list entries alike.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "app/app_test_support.h"
#include "melvo/app/preferences.h"
#include "support/test_support.h"

namespace melvo {
namespace {
namespace fs = std::filesystem;

TEST(SharedPreferences, ConcurrentProcessesKeepEveryKeyRecentFileAndTake) {
  test::TempHome home;
  test::TempDir files;
  constexpr int kProcesses = 3, kEach = 3;
  // Every process holds its core (and so its copy of the preferences) from the start, as a
  // serve and two renders would, and then adds at the same moment as the others.
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  std::vector<pid_t> kids;
  for (int k = 0; k < kProcesses; ++k) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(go[1]);
      int code = 0;
      try {
        test::ScriptedCore core;
        char c;
        (void)!read(go[0], &c, 1);
        for (int i = 0; i < kEach; ++i) {
          const std::string name = "p" + std::to_string(k) + "-" + std::to_string(i);
          const fs::path song = files / (name + ".nsproj");
          test::writeText(song, "{}");
          core.app->addRecent(song.string(), name, 1);
          AppState::Take take;
          take.title = name;
          take.wavPath = (files / (name + ".wav")).string();
          core.app->addTake(take);
          core.app->preferences().set("melvo.test." + name, Json(i));
        }
      } catch (...) {
        code = 1;
      }
      _exit(code);
    }
    kids.push_back(pid);
  }
  close(go[0]);
  close(go[1]);  // everybody starts now
  for (pid_t pid : kids) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  Preferences stored;
  std::set<std::string> recents, takes;
  for (const auto& r : stored.get(AppState::kRecentFilesKey)->asArray())
    recents.insert(r.find("title")->asString());
  for (const auto& t : stored.get(AppState::kTakeHistoryKey)->asArray())
    takes.insert(t.find("title")->asString());
  EXPECT_EQ(recents.size(), static_cast<std::size_t>(kProcesses * kEach));
  EXPECT_EQ(takes.size(), static_cast<std::size_t>(kProcesses * kEach));
  for (int k = 0; k < kProcesses; ++k)
    for (int i = 0; i < kEach; ++i) {
      const std::string name = "p" + std::to_string(k) + "-" + std::to_string(i);
      EXPECT_TRUE(recents.count(name)) << name;
      EXPECT_TRUE(takes.count(name)) << name;
      EXPECT_NE(stored.get("melvo.test." + name), nullptr) << name;
    }
}

}  // namespace
}  // namespace melvo
