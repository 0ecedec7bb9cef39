// What the commands say about songs whose numbers are out of bounds or that lack what was asked
// for: a usage error is exit 2, a song that cannot be read is exit 1, and both name the fault.
#include <gtest/gtest.h>

#include "app/app_test_support.h"
#include "support/test_support.h"

namespace melvo {
namespace {

class ProjectCommands : public ::testing::Test {
 protected:
  test::TempHome home;
  test::TempDir files;
  const std::vector<std::string> en{"LANGUAGE=en"};
};

TEST_F(ProjectCommands, ConvertTrackNumbersAreUsageErrors) {
  MusicDocument none;
  none.tracks.clear();
  writeProject(none, files / "none.nsproj");
  writeProject(test::songNamed("one"), files / "one.nsproj");
  const std::string out = (files / "out.musicxml").string();

  auto r = test::runMelvo({"convert", (files / "none.nsproj").string(), out, "--track", "0"}, en);
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("this song has no tracks"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("-1"), std::string::npos) << r.err;
  for (const char* bad : {"99999999999", "1", "-1", "x", "1e3"}) {
    r = test::runMelvo({"convert", (files / "one.nsproj").string(), out, "--track", bad}, en);
    EXPECT_EQ(r.status, 2) << bad << ": " << r.err;
    EXPECT_NE(r.err.find(bad), std::string::npos) << r.err;
  }
  r = test::runMelvo({"convert", (files / "one.nsproj").string(), out, "--track", "0"}, en);
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(ProjectCommands, ReadingFaultsAreNamedAndABomIsFine) {
  const std::string song = encodeProject(test::songNamed("bom"));
  test::writeText(files / "bom.nsproj", "\xEF\xBB\xBF" + song);
  auto r = test::runMelvo({"info", (files / "bom.nsproj").string()}, en);
  EXPECT_EQ(r.status, 0) << r.err;

  test::writeText(files / "cut.nsproj", song.substr(0, song.size() - 10));
  r = test::runMelvo({"info", (files / "cut.nsproj").string()}, en);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cut short"), std::string::npos) << r.err;

  test::writeText(files / "huge.nsproj", R"({"ppq":1152921504606846976})");
  r = test::runMelvo({"convert", (files / "huge.nsproj").string(), (files / "h.musicxml").string()},
                     en);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("\"ppq\""), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(files / "h.musicxml"));
}

// A project kept elsewhere and linked from a working folder: the save lands in the real file
// and the link stays a link.
TEST_F(ProjectCommands, ConvertOntoASymlinkedProjectWritesItsTarget) {
  std::filesystem::create_directories(files / "store");
  writeProject(test::songNamed("old"), files / "store" / "real.nsproj");
  std::filesystem::create_symlink(files / "store" / "real.nsproj", files / "link.nsproj");
  writeProject(test::songNamed("new"), files / "new.nsproj");
  auto r = test::runMelvo(
      {"convert", (files / "new.nsproj").string(), (files / "link.nsproj").string()}, en);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(std::filesystem::is_symlink(files / "link.nsproj"));
  EXPECT_EQ(readProject(files / "store" / "real.nsproj").title, "new");
}

TEST_F(ProjectCommands, LengthsRoundIntoTheNextMinute) {
  // 120 bpm at 480 ppq: 59.97 s is 57571 ticks and a little.
  MusicDocument d = test::songNamed("long", 0);
  d.tracks[0].notes.assign({NoteEvent::make(Uuid::random(), 0, 57571, 60, 100, "ら")});
  writeProject(d, files / "long.nsproj");
  auto r = test::runMelvo({"info", (files / "long.nsproj").string()}, en);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("1:00.0"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("0:60.0"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace melvo
