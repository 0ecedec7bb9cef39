// `melvo fix` and `melvo check --apply` as a script drives them: what they write is re-read
// and checked, not their words.
#include <gtest/gtest.h>

#include "checking/score_validator_support.h"
#include "melvo/app/cleanup_policy_store.h"
#include "melvo/model/project_file.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using test::note;

TEST(RepairCommands, ApplyOneSuggestionByItsNumber) {
  test::TempHome home;
  test::TempDir dir;
  writeProject(test::song({note(0, 480, "か"), note(480, 480, "ゐ")}), dir / "in.nsproj");
  const auto in = (dir / "in.nsproj").string(), out = (dir / "out.nsproj").string();
  auto list = test::runMelvo({"check", in, "--json"});
  ASSERT_NE(list.out.find("\"index\" : 1"), std::string::npos) << list.out;
  auto applied = test::runMelvo({"check", in, "--apply", "1.1", "--out", out});
  ASSERT_EQ(applied.status, 0) << applied.err;
  const MusicDocument fixed = readProject(out);
  EXPECT_EQ(fixed.tracks[0].notes[1].lyric, "い");
  EXPECT_EQ(fixed.tracks[0].notes[0].lyric, "か");
  EXPECT_EQ(test::runMelvo({"check", in, "--apply", "1.9", "--out", out}).status, 2);
  EXPECT_EQ(test::runMelvo({"check", in, "--apply", "x", "--out", out}).status, 2);
  EXPECT_EQ(test::runMelvo({"check", in, "--apply", "1.1"}).status, 2);
}

TEST(RepairCommands, FixWritesTheCleanedSongAndHonoursSwitches) {
  test::TempHome home;
  test::TempDir dir;
  writeProject(test::song({note(0, 480, "ねこ"), note(480, 480, "を")}), dir / "in.nsproj");
  const auto in = (dir / "in.nsproj").string(), out = (dir / "out.nsproj").string();
  auto run = test::runMelvo({"fix", in, out, "--off", "particleHa", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\"after\" : \"ね／こ\""), std::string::npos) << run.out;
  const MusicDocument fixed = readProject(out);
  ASSERT_EQ(fixed.tracks[0].notes.size(), 3u);
  EXPECT_EQ(fixed.tracks[0].notes[2].lyric, "を");
  EXPECT_EQ(test::runMelvo({"fix", in, out, "--off", "pitchOutOfRange"}).status, 2);
}

// The command treats the findings that may be intended as the user decided in the editor.
TEST(RepairCommands, FixFollowsTheStoredDecisions) {
  test::TempHome home;
  test::TempDir dir;
  MusicDocument d = test::song({note(0, 480, "か"), note(480, 480, "き")});
  d.tracks[0].notes.mutableAt(1).velocity = 0;
  writeProject(d, dir / "in.nsproj");
  const auto in = (dir / "in.nsproj").string(), out = (dir / "out.nsproj").string();

  auto run = test::runMelvo({"fix", in, out, "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\"pendingDecisions\" : 1"), std::string::npos) << run.out;
  EXPECT_EQ(readProject(out).tracks[0].notes[1].velocity, 0);

  Preferences prefs;
  CleanupPolicyStore(prefs).setDecision(AmbiguousPattern::ghostVelocity, CleanupDecision::autoFix);
  run = test::runMelvo({"fix", in, out, "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\"pendingDecisions\" : 0"), std::string::npos) << run.out;
  EXPECT_EQ(readProject(out).tracks[0].notes[1].velocity, 100);
}

}  // namespace
}  // namespace melvo
