// The melvo command as a user runs it.
#include <gtest/gtest.h>

#include "melvo/platform/json.h"
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

}  // namespace
}  // namespace melvo
