// `melvo check` as a user and a script see it.
#include <gtest/gtest.h>

#include "checking/score_validator_support.h"
#include "melvo/model/project_file.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using test::note;

bool has(const std::string& s, const std::string& needle) {
  return s.find(needle) != std::string::npos;
}

TEST(CheckCommand, RowsSuggestionsAndExitStatus) {
  test::TempHome home;
  test::TempDir dir;
  auto bad = test::song(
      {note(0, 480, "か"), note(481, 480, "ー"), note(960, 480, "あい"), note(1440, 480, "す")});
  writeProject(bad, dir / "bad.nsproj");
  auto json = test::runMelvo({"check", (dir / "bad.nsproj").string(), "--json"});
  EXPECT_EQ(json.status, 1) << json.err;
  EXPECT_TRUE(has(json.out, "\"category\" : \"standaloneSpecial\"")) << json.out;
  EXPECT_TRUE(has(json.out, "\"severity\" : \"error\"")) << json.out;
  EXPECT_TRUE(has(json.out, "\"index\" : 1,\n    \"message\"")) << json.out;
  EXPECT_TRUE(has(json.out, "\"track\" : 0")) << json.out;
  EXPECT_TRUE(
      has(json.out, "\"suggestions\" : [\n      {\n        \"index\" : 1,\n        \"label\""))
      << json.out;

  auto human = test::runMelvo({"check", (dir / "bad.nsproj").string()}, {"LANGUAGE=en"});
  EXPECT_EQ(human.status, 1);
  EXPECT_TRUE(has(human.out, "[1] error")) << human.out;
  EXPECT_TRUE(has(human.out, "      1.1  ")) << human.out;

  auto good = test::song({note(0, 480, "か"), note(480, 480, "さ")});
  writeProject(good, dir / "good.nsproj");
  auto ok = test::runMelvo({"check", (dir / "good.nsproj").string()}, {"LANGUAGE=en"});
  EXPECT_EQ(ok.status, 0) << ok.out << ok.err;
  EXPECT_TRUE(has(ok.out, "No problems found.")) << ok.out;

  EXPECT_NE(test::runMelvo({"check", (dir / "good.nsproj").string(), "--track", "4"}).status, 0);
}

// With an engine folder the voice's own range replaces C2..C6.
TEST(CheckCommand, EngineFolderGivesVoiceRanges) {
  test::TempHome home;
  test::TempDir dir;
  std::filesystem::create_directories(dir.path() / "engine" / "model" / "V");
  test::writeText(dir.path() / "engine" / "model" / "V" / "info.toml",
                  "bottom_key = \"C4\"\ntop_key = \"C5\"\n");
  auto d = test::song({note(0, 480, "か", 50)});
  d.tracks[0].characterName = "V";
  writeProject(d, dir / "v.nsproj");
  auto fixed = test::runMelvo({"check", (dir / "v.nsproj").string(), "--json"});
  EXPECT_FALSE(has(fixed.out, "outOfRange")) << fixed.out;
  auto model = test::runMelvo({"check", (dir / "v.nsproj").string(), "--json", "--engine",
                               (dir.path() / "engine").string()},
                              {"LANGUAGE=en"});
  EXPECT_EQ(model.status, 0);
  EXPECT_TRUE(has(model.out, "\"category\" : \"outOfRange\"")) << model.out;
  EXPECT_TRUE(has(model.out, "singable range of V (C4 to C5)")) << model.out;
}

}  // namespace
}  // namespace melvo
