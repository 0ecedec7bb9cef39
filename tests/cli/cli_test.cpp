// The melvo command as a user runs it.
#include <gtest/gtest.h>

#include "melvo/app/auto_save_manager.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/json.h"
#include "melvo/platform/paths.h"
#include "support/test_support.h"

namespace melvo {
namespace {

const std::string kExample = std::string(MELVO_TEST_DATA_DIR) + "/../../examples/sakura.nsproj";

TEST(Cli, ConvertIsByteStableAcrossRuns) {
  test::TempHome home;
  auto a = home.path() / "a.nsproj", b = home.path() / "b.nsproj";
  ASSERT_EQ(test::runMelvo({"convert", kExample, a.string()}).status, 0);
  ASSERT_EQ(test::runMelvo({"convert", a.string(), b.string()}).status, 0);
  EXPECT_EQ(test::readText(a), test::readText(b));
  // The example is stored in the program's own layout.
  EXPECT_EQ(test::readText(a), test::readText(kExample));
}

TEST(Cli, BadInputNamesTheFileAndWritesNothing) {
  test::TempHome home;
  auto bad = home.path() / "broken.nsproj", out = home.path() / "out.nsproj";
  test::writeText(bad, "{ this is not json");
  auto r = test::runMelvo({"convert", bad.string(), out.string()});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("broken.nsproj"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));

  r = test::runMelvo({"info", (home.path() / "absent.nsproj").string()});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("absent.nsproj"), std::string::npos) << r.err;
}

TEST(Cli, DevelopmentSwitchesAreRefusedBeforeAnythingRuns) {
  test::TempHome home;
  auto out = home.path() / "x.nsproj";
  auto r = test::runMelvo({"convert", kExample, out.string(), "--dump-json"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("--dump-json", 0), 0u) << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));
  EXPECT_NE(r.err.find("DEBUG"), std::string::npos) << r.err;
  r = test::runMelvo({"info", "--selftest"}, {"LANGUAGE=ja"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("--selftest は DEBUG ビルド専用です", 0), 0u) << r.err;
  // An unknown switch is not a development switch: the parser reports it instead.
  r = test::runMelvo({"info", "--no-such-switch", kExample});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("no-such-switch"), std::string::npos);
}

TEST(Cli, InfoJsonDescribesTheSong) {
  test::TempHome home;
  auto r = test::runMelvo({"info", "--json", kExample});
  ASSERT_EQ(r.status, 0) << r.err;
  Json j = Json::parse(r.out);
  EXPECT_EQ(j.find("title")->asString(), "さくらさくら");
  const auto& tracks = j.find("tracks")->asArray();
  ASSERT_FALSE(tracks.empty());
  EXPECT_EQ(tracks[0].find("voice")->asString(), "soprano");
  EXPECT_GT(tracks[0].find("notes")->asInt(), 0);
  EXPECT_GE(j.find("tempoMap")->size(), 2u);
  EXPECT_GT(j.find("bars")->asInt(), 0);
  // Human output is English by default.
  r = test::runMelvo({"info", kExample}, {"LANGUAGE=en"});
  EXPECT_NE(r.out.find("Title: さくらさくら"), std::string::npos) << r.out;
  r = test::runMelvo({"info", kExample}, {"LANGUAGE=ja"});
  EXPECT_NE(r.out.find("曲名: さくらさくら"), std::string::npos) << r.out;
}

TEST(Cli, SnapshotsOfAProjectAreListedRestoredAndDiscarded) {
  namespace fs = std::filesystem;
  test::TempHome home;
  const fs::path project = home.path() / "song.nsproj";
  MusicDocument song;
  song.title = "saved";
  writeProject(song, project);
  AutoSaveSnapshot older, newer, unsaved;
  {
    EventLoop loop;
    AutoSaveManager manager(loop);
    manager.setProject(project.string());
    song.title = "older";
    older = manager.writeSnapshot(song, std::nullopt, false).value();
    song.title = "newer";
    newer = manager.writeSnapshot(song, "before chorus", true).value();
    manager.setProject(std::nullopt);  // a copy of some unsaved song: not this project's
    song.title = "elsewhere";
    unsaved = manager.writeSnapshot(song, "elsewhere", true).value();
  }

  auto r = test::runMelvo({"snapshots", "list", project.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto newerAt = r.out.find(newer.url.string()), olderAt = r.out.find(older.url.string());
  ASSERT_NE(newerAt, std::string::npos) << r.out;
  ASSERT_NE(olderAt, std::string::npos) << r.out;
  EXPECT_LT(newerAt, olderAt);  // newest first
  EXPECT_NE(r.out.find("before chorus"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find(unsaved.url.string()), std::string::npos) << r.out;

  const fs::path restored = home.path() / "restored.nsproj";
  r = test::runMelvo({"snapshots", "restore", older.url.string(), restored.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readProject(restored).title, "older");
  const fs::path notWritten = home.path() / "not-written.nsproj";
  r = test::runMelvo(
      {"snapshots", "restore", (home.path() / "absent.nsproj").string(), notWritten.string()});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(fs::exists(notWritten));

  r = test::runMelvo({"snapshots", "discard", newer.url.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(fs::exists(newer.url));
  EXPECT_FALSE(fs::exists(newer.sidecar()));
  EXPECT_EQ(readProject(paths::trashDir() / "files" / newer.url.filename()).title, "newer");
  r = test::runMelvo({"snapshots", "list", "--json", project.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  const Json listed = Json::parse(r.out);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed.asArray()[0].find("path")->asString(), older.url.string());
  // Gone already: nothing to discard, and the command says so.
  r = test::runMelvo({"snapshots", "discard", newer.url.string()});
  EXPECT_EQ(r.status, 1);
}

}  // namespace
}  // namespace melvo
