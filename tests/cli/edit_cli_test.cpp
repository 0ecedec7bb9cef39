// melvo edit: scripted note editing on a project, as a user or a test drives it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "melvo/model/project_file.h"
#include "support/test_support.h"

namespace melvo {
namespace {

namespace fs = std::filesystem;

struct EditCli : ::testing::Test {
  test::TempHome home;
  fs::path song = home.path() / "song.nsproj";
  fs::path out = home.path() / "out.nsproj";

  void SetUp() override {
    MusicDocument d;
    std::vector<NoteEvent> notes;
    for (int i = 0; i < 4; ++i)
      notes.push_back(NoteEvent::make(Uuid::random(), 480 * (3 - i), 480, 60 + i, 100, "ら"));
    d.tracks[0].notes.assign(notes);  // stored out of order on purpose
    writeProject(d, song);
  }
  std::vector<NoteEvent> sorted(const fs::path& path) {
    auto v = readProject(path).tracks[0].notes.toVector();
    std::stable_sort(v.begin(), v.end(),
                     [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; });
    return v;
  }
  test::RunResult edit(std::vector<std::string> args) {
    args.insert(args.begin(), "edit");
    return test::runMelvo(args);
  }
};

TEST_F(EditCli, OperationsRunInOrderAsOneStepEachAndTheResultIsWritten) {
  const auto script = home.path() / "ops.txt";
  test::writeText(script,
                  "# lyrics, then a split of the first note\n"
                  "select all\n"
                  "lyrics きょう は  # the rest flows on\n"
                  "select 0\n"
                  "split 0 720\n"
                  "add 2400 C#5\n");
  auto r = edit({song.string(), "--out", out.string(), "-e", "select 1-2", "-e", "transpose 12",
                 "--script", script.string(), "-e", "insert-time 0 480"});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto notes = sorted(out);
  ASSERT_EQ(notes.size(), 6u);
  // The -e operations run first (transpose the middle two, then push everything back by a
  // quarter), then the script's in its order.
  EXPECT_EQ(notes[0].tick, 480);
  EXPECT_EQ(notes[0].duration, 240);
  EXPECT_EQ(notes[0].lyric, "きょ");
  EXPECT_EQ(notes[1].tick, 720);
  EXPECT_EQ(notes[1].lyric, "ー");
  EXPECT_EQ(notes[2].lyric, "う");
  EXPECT_EQ(notes[2].pitch, 62 + 12);
  EXPECT_EQ(notes[3].lyric, "は");
  EXPECT_EQ(notes[3].pitch, 61 + 12);
  EXPECT_EQ(notes[4].lyric, "ら");
  EXPECT_EQ(notes[4].pitch, 60);
  EXPECT_EQ(notes[5].tick, 2400);
  EXPECT_EQ(notes[5].pitch, 73);
  // One report line per operation, numbered.
  EXPECT_NE(r.out.find("3. insert-time 0 480"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("8. add 2400 C#5"), std::string::npos) << r.out;
  EXPECT_EQ(readProject(song).tracks[0].notes.size(), 4u);  // the source is untouched
}

TEST_F(EditCli, DryRunShowsTheChangesAndWritesNothing) {
  const std::string before = test::readText(song);
  auto r = edit({song.string(), "--dry-run", "-e", "select 0", "-e", "velocity 0", "-e",
                 "lyric 3 さ", "-e", "undo"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(test::readText(song), before);
  EXPECT_NE(r.out.find("~ D#4 @0+480 \"ら\" v100  ->  D#4 @0+480 \"ら\" v1"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("~ C4 @1440+480 \"ら\" v100  ->  C4 @1440+480 \"さ\" v100"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("~ C4 @1440+480 \"さ\" v100  ->  C4 @1440+480 \"ら\" v100"),
            std::string::npos)
      << r.out;  // the undo
}

TEST_F(EditCli, MistakesAreRefusedBeforeAnythingChanges) {
  const std::string before = test::readText(song);
  for (const std::vector<std::string>& ops :
       {std::vector<std::string>{"-e", "select all", "-e", "wobble 3"},
        std::vector<std::string>{"-e", "move 10"}, std::vector<std::string>{"-e", "add 0 H9"},
        std::vector<std::string>{"-e", "select all", "-e", "delete", "-e", "split 7 100"},
        std::vector<std::string>{"-e", "grid 1/5"}, std::vector<std::string>{}}) {
    std::vector<std::string> args{song.string()};
    args.insert(args.end(), ops.begin(), ops.end());
    auto r = edit(args);
    EXPECT_EQ(r.status, 2) << r.out << r.err;
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(test::readText(song), before);
  // Without --out only a project can be written back.
  auto mid = home.path() / "song.mid";
  auto r = edit({mid.string(), "-e", "select all"});
  EXPECT_EQ(r.status, 2);
}

TEST_F(EditCli, HelpListsEveryOperationWithItsArguments) {
  auto r = edit({"--help"});
  ASSERT_EQ(r.status, 0);
  for (const char* op : {"track N",
                         "select all|none",
                         "add TICK PITCH",
                         "move DTICK DPITCH",
                         "resize DTICK",
                         "length VALUE",
                         "split INDEX TICK",
                         "merge",
                         "delete",
                         "cut",
                         "copy",
                         "paste TICK",
                         "paste-text TEXT",
                         "transpose N",
                         "velocity V",
                         "lyric INDEX TEXT",
                         "lyrics TEXT",
                         "breath",
                         "insert-time TICK TICKS",
                         "delete-time TICK TICKS",
                         "scale MODE",
                         "grid VALUE",
                         "japanese-yonanuki"})
    EXPECT_NE(r.out.find(op), std::string::npos) << op;
}

}  // namespace
}  // namespace melvo
