// `melvo engine` as a user and a script see it, run against copies of the stand-in engine in
// a temporary home.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "melvo/platform/json.h"
#include "melvo/synthesis/neutrino_config.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

bool has(const std::string& s, const std::string& needle) {
  return s.find(needle) != std::string::npos;
}

// The Japanese texts are the ones asserted on.
test::RunResult engine(std::vector<std::string> args, std::vector<std::string> env = {}) {
  args.insert(args.begin(), "engine");
  env.push_back("LANGUAGE=ja");
  return test::runMelvo(args, env);
}

fs::path copyOfStandIn(const fs::path& where) {
  fs::create_directories(where.parent_path());
  fs::copy(test::standInEngine(), where, fs::copy_options::recursive);
  return where;
}

// A missing key gives null, which then fails its typed access.
const Json& field(const Json& j, std::string_view key) {
  static const Json none;
  const Json* f = j.find(key);
  return f ? *f : none;
}

std::vector<std::string> strings(const Json& list, const char* key = nullptr) {
  std::vector<std::string> out;
  for (const auto& v : list.asArray()) out.push_back((key ? field(v, key) : v).asString());
  return out;
}

TEST(EngineCommand, StatusShowsTheCheckListAndTheVoices) {
  test::TempHome home;
  const fs::path dir = copyOfStandIn(home.path() / "engine");

  const auto r = engine({"status", dir.string(), "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  Json j = Json::parse(r.out);
  EXPECT_EQ(j["path"].asString(), dir.string());
  EXPECT_TRUE(j["isValid"].asBool());
  EXPECT_EQ(j["check"].asString(), "ok");
  EXPECT_EQ(strings(j["characterNames"]), (std::vector<std::string>{"alto", "soprano"}));
  EXPECT_EQ(j["characterCount"].asInt(), 2);
  const std::vector<std::string> labels{"bin フォルダ", "model フォルダ", "合成エンジン (neutrino)",
                                        "楽譜の変換 (musicXMLtoLabel)",
                                        "NEUTRINO を試しに起動できる"};
  EXPECT_EQ(strings(j["checks"], "label"), labels);
  for (const auto& row : j["checks"].asArray()) EXPECT_TRUE(field(row, "ok").asBool());

  // An engine that cannot load its libraries: every file is there, the last row fails with
  // the loader's words, and the exit status says so.
  const auto b = engine({"status", dir.string()}, {"MELVO_STANDIN_MODE=missing-library"});
  EXPECT_EQ(b.status, 1);
  EXPECT_TRUE(b.out.starts_with(dir.string() + "\n")) << b.out;
  EXPECT_TRUE(has(b.out,
                  "  ✓ 楽譜の変換 (musicXMLtoLabel)\n  ✗ NEUTRINO を試しに起動できる\n"
                  "      neutrino: error while loading shared libraries"))
      << b.out;
  EXPECT_TRUE(has(b.out, "声: 2\n  alto\n  soprano\n")) << b.out;
}

TEST(EngineCommand, UseStoresTheFolderThatLaterCommandsFallBackTo) {
  test::TempHome home;
  const fs::path dir = copyOfStandIn(home.path() / "engine");
  const fs::path configFile = home.path() / "config.json";

  for (const char* sub : {"status", "voices"}) {
    const auto none = engine({sub});
    EXPECT_EQ(none.status, 1) << sub;
    EXPECT_TRUE(has(none.err, "NEUTRINOフォルダが設定されていません")) << none.err;
  }
  const auto refused = engine({"use", home.path().string()});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(has(refused.err, "に NEUTRINO が見つかりません")) << refused.err;
  EXPECT_FALSE(fs::exists(configFile));

  const auto use = engine({"use", dir.string()});
  ASSERT_EQ(use.status, 0) << use.err;
  auto config = NEUTRINOConfig::load(configFile);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->neutrinoDirectory, dir.string());
  EXPECT_EQ(config->selectedCharacterName, "alto");  // the first voice when none was chosen

  // A chosen voice that the folder also has survives choosing the folder again, and the
  // other settings are left alone.
  config->selectedCharacterName = "soprano";
  config->numThreads = 2;
  config->save(configFile);
  ASSERT_EQ(engine({"use", dir.string()}).status, 0);
  config = NEUTRINOConfig::load(configFile);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->selectedCharacterName, "soprano");
  EXPECT_EQ(config->numThreads, 2);

  const auto status = engine({"status", "--json"});
  ASSERT_EQ(status.status, 0) << status.err;
  EXPECT_EQ(Json::parse(status.out)["path"].asString(), dir.string());

  const auto voices = engine({"voices"});
  ASSERT_EQ(voices.status, 0) << voices.err;
  EXPECT_EQ(voices.out, "alto\nsoprano\n");
  const auto listed = engine({"voices", "--json"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  Json list = Json::parse(listed.out);
  EXPECT_EQ(strings(list, "name"), (std::vector<std::string>{"alto", "soprano"}));
  EXPECT_EQ(strings(list, "directoryPath"),
            (std::vector<std::string>{(dir / "model" / "alto").string(),
                                      (dir / "model" / "soprano").string()}));
}

TEST(EngineCommand, FixMakesTheToolsRunnableAgain) {
  test::TempHome home;
  const fs::path dir = copyOfStandIn(home.path() / "engine");
  // As an archive unpacked without modes leaves them.
  for (const char* tool : {"neutrino", "musicXMLtoLabel"})
    ASSERT_EQ(::chmod((dir / "bin" / tool).c_str(), 0644), 0);

  const auto before = engine({"status", dir.string(), "--json"});
  EXPECT_EQ(before.status, 1);
  EXPECT_EQ(Json::parse(before.out)["check"].asString(), "missing");

  const auto fix = engine({"fix", dir.string()});
  ASSERT_EQ(fix.status, 0) << fix.err;
  EXPECT_TRUE(has(fix.out, "• 実行権限が無いバイナリ：\n  neutrino\n  musicXMLtoLabel\n"))
      << fix.out;
  EXPECT_TRUE(has(fix.out, "✅ 解除完了")) << fix.out;
  for (const char* tool : {"neutrino", "musicXMLtoLabel"})
    EXPECT_EQ(::access((dir / "bin" / tool).c_str(), X_OK), 0) << tool;
  EXPECT_EQ(engine({"status", dir.string()}).status, 0);

  const auto again = engine({"fix", dir.string()});
  EXPECT_EQ(again.status, 0);
  EXPECT_TRUE(has(again.out, "実行準備 OK")) << again.out;

  const auto nothing = engine({"fix", (home.path() / "nowhere").string()});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_TRUE(has(nothing.err, "bin/ フォルダが見つかりません")) << nothing.err;
}

TEST(EngineCommand, DiscoverListsWhatTheWalkFindsAndMarksTheOneThatRuns) {
  test::TempHome home;
  const auto empty = engine({"discover"});
  EXPECT_EQ(empty.status, 1);
  EXPECT_TRUE(has(empty.out, "NEUTRINO は見つかりませんでした")) << empty.out;

  const fs::path deep = copyOfStandIn(home.path() / "Documents" / "a" / "b" / "NEUTRINO");
  // Found first, but it does not run: not the one to pick.
  const fs::path broken = home.path() / "Downloads" / "NEUTRINO";
  test::makeFakeEngine(broken, "echo 'neutrino: error while loading shared libraries: x.so' >&2");

  const auto r = engine({"discover", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  Json list = Json::parse(r.out);
  EXPECT_EQ(strings(list, "path"), (std::vector<std::string>{broken.string(), deep.string()}));
  EXPECT_FALSE(list.asArray().at(0)["best"].asBool());
  EXPECT_TRUE(list.asArray().at(1)["best"].asBool());

  const auto text = engine({"discover"});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out, "  " + broken.string() + "\n* " + deep.string() + "\n");
}

}  // namespace
}  // namespace melvo
