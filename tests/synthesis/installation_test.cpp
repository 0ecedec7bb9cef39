#include "melvo/synthesis/installation_finder.h"

#include <gtest/gtest.h>

#include <thread>

#include "melvo/synthesis/setup_helper.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

namespace finder = NEUTRINOInstallationFinder;
using namespace std::chrono_literals;

void makeInstallation(const fs::path& dir, const char* engine = "neutrino",
                      const char* converter = "musicXMLtoLabel") {
  fs::create_directories(dir / "bin");
  test::writeText(dir / "bin" / engine, "#!/bin/sh\n");
  test::writeText(dir / "bin" / converter, "#!/bin/sh\n");
}

TEST(InstallationTest, EitherSpellingOfTheToolsCountsAndVocodersDoNot) {
  test::TempDir dir;
  makeInstallation(dir / "a", "NEUTRINO", "MusicXMLtoLabel");
  EXPECT_TRUE(finder::isInstallation(dir / "a"));
  fs::create_directories(dir / "a" / "model" / "beta");
  fs::create_directories(dir / "a" / "model" / "alpha");
  fs::create_directories(dir / "a" / "model" / ".hidden");
  test::writeText(dir / "a" / "model" / "notes.txt", "");
  auto s = finder::status(dir / "a");
  EXPECT_TRUE(s.isValid);
  EXPECT_FALSE(s.hasNSF_IO || s.hasWORLD);
  EXPECT_EQ(s.characterNames, (std::vector<std::string>{"alpha", "beta"}));
  auto voices = scanCharacters(dir / "a");
  ASSERT_EQ(voices.size(), 2u);
  EXPECT_EQ(voices[0].name, "alpha");
  EXPECT_NE(scanCharacters(dir / "a")[0].id, voices[0].id);  // fresh ids at each scan

  fs::create_directories(dir / "b" / "bin");
  test::writeText(dir / "b" / "bin" / "neutrino", "");
  EXPECT_FALSE(finder::isInstallation(dir / "b"));
  EXPECT_FALSE(finder::status(dir / "b").isValid);
  EXPECT_TRUE(scanCharacters(dir / "nowhere").empty());
}

TEST(InstallationTest, ToolPathTriesSpellingsThenAnyCase) {
  test::TempDir dir;
  fs::create_directories(dir / "bin");
  test::writeText(dir / "bin" / "NEUTRINO", "");
  test::writeText(dir / "bin" / "MusicXmlToLabel", "");
  EXPECT_EQ(toolPath(dir / "bin", "neutrino"), dir / "bin" / "NEUTRINO");
  EXPECT_EQ(toolPath(dir / "bin", "musicXMLtoLabel"), dir / "bin" / "MusicXmlToLabel");
  EXPECT_EQ(toolPath(dir / "bin", "WORLD"), dir / "bin" / "WORLD");
}

TEST(InstallationTest, LoaderFailureIsBrokenWithItsText) {
  test::TempDir dir;
  test::makeFakeEngine(dir.path(),
                       "echo 'neutrino: error while loading shared libraries: libonnx.so.1: "
                       "cannot open shared object file: No such file or directory' >&2\n"
                       "echo \"LD=$LD_LIBRARY_PATH\" >&2\nexit 127");
  auto check = finder::checkExecutable(dir.path(), 5);
  auto* broken = std::get_if<finder::Broken>(&check);
  ASSERT_TRUE(broken);
  EXPECT_TRUE(broken->detail.starts_with("neutrino: error while loading shared libraries"));
  // The engine's own bin comes first on the library path.
  EXPECT_NE(broken->detail.find("LD=" + (dir / "bin").string()), std::string::npos);
  EXPECT_NE(broken->detail.back(), '\n');
}

// Live processes running the program at `exe`.
std::vector<pid_t> processesOf(const fs::path& exe) {
  std::vector<pid_t> out;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ec;
    if (fs::read_symlink(entry.path() / "exe", ec) == exe) out.push_back(std::stoi(name));
  }
  return out;
}

TEST(InstallationTest, AHangingToolIsEndedAtTheTimeoutCountsAsRunningAndLeavesNoProcess) {
  // A copy of the stand-in of its own, told by the file beside it to hang and shrug off
  // SIGTERM, so that any process left running is plainly this one.
  test::TempDir dir;
  fs::create_directories(dir / "bin");
  fs::copy_file(test::standInEngine() / "bin" / "neutrino", dir / "bin" / "neutrino");
  test::writeText(dir / "bin" / "stand-in.conf", "mode=hang\n");
  const fs::path tool = fs::canonical(dir / "bin" / "neutrino");
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(finder::checkExecutable(dir.path(), 0.5), finder::ExecutableCheck(finder::Ok{}));
  const auto took = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(took, 500ms);  // it really hung, rather than printing its usage and leaving
  EXPECT_LT(took, 10s);
  const auto until = std::chrono::steady_clock::now() + 5s;
  while (!processesOf(tool).empty() && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(processesOf(tool).empty());
}

TEST(DiscoveryTest, WalksThreeLevelsAndNotIntoAFoundInstallation) {
  test::TempHome home;
  const fs::path h = home.path();
  makeInstallation(h / "Music" / "a" / "b" / "NEUTRINO");        // depth 3
  makeInstallation(h / "Music" / "a" / "b" / "c" / "NEUTRINO");  // depth 4
  makeInstallation(h / "Documents" / "eng");                     // depth 1
  makeInstallation(h / "Documents" / "eng" / "copy");            // inside a found one
  makeInstallation(h / "Desktop" / ".hidden" / "NEUTRINO");
  makeInstallation(h / "Downloads" / "NEUTRINO");  // a fixed place too
  auto found = finder::discover();
  EXPECT_EQ(found, (std::vector<std::string>{(h / "Downloads" / "NEUTRINO").string(),
                                             (h / "Documents" / "eng").string(),
                                             (h / "Music" / "a" / "b" / "NEUTRINO").string()}));
}

TEST(DiscoveryTest, HealthOffersAWorkingAlternativeOnly) {
  test::TempHome home;
  EXPECT_EQ(finder::health(""), finder::ConfiguredPathHealth(finder::NotConfigured{}));
  const fs::path broken = home.path() / "Desktop" / "NEUTRINO";
  test::makeFakeEngine(broken, "echo 'error while loading shared libraries: x.so' >&2");
  auto alone = finder::health(broken.string(), 2);
  auto* no = std::get_if<finder::BrokenNoAlternative>(&alone);
  ASSERT_TRUE(no);
  EXPECT_NE(no->detail.find("\n\nerror while loading shared libraries: x.so"), std::string::npos);

  const fs::path good = home.path() / "Music" / "NEUTRINO";
  test::makeFakeEngine(good, "echo usage");
  auto withAlt = finder::health(broken.string(), 2);
  auto* alt = std::get_if<finder::BrokenWithAlternative>(&withAlt);
  ASSERT_TRUE(alt);
  EXPECT_EQ(alt->alternative, good.string());
  EXPECT_EQ(finder::bestCandidate(), good.string());
  EXPECT_EQ(finder::health(good.string(), 2), finder::ConfiguredPathHealth(finder::Ok{}));
}

TEST(DiscoveryTest, HealthDetailKeepsAtMost200CharactersOfOutput) {
  test::TempHome home;
  test::makeFakeEngine(home.path() / "x", "printf 'dyld[1]: '; printf 'あ%.0s' $(seq 1 300); echo");
  auto h = finder::health((home.path() / "x").string(), 2);
  auto* no = std::get_if<finder::BrokenNoAlternative>(&h);
  ASSERT_TRUE(no);
  auto tail = no->detail.substr(no->detail.find("\n\n") + 2);
  EXPECT_TRUE(tail.starts_with("dyld[1]: あ"));
  EXPECT_EQ(tail.size(), 9 + 191 * 3u);  // 9 ASCII characters and 191 kana
}

TEST(BundledEngineTest, CopiesOnceAndWritesTheMarkerLast) {
  test::TempHome home;
  test::TempDir res;
  test::makeFakeEngine(res.path(), "echo hi");
  EXPECT_EQ(BundledEngine::installedPath("", std::nullopt), std::nullopt);
  EXPECT_EQ(BundledEngine::installedPath(res.path().string(), std::nullopt), res.path());
  EXPECT_EQ(BundledEngine::installedPath("", res.path()), res.path());
  std::vector<std::string> stages;
  auto record = [&](const BundledEngine::SetupState& s) { stages.push_back(s.stage); };
  BundledEngine::installBundledIfNeeded(res.path(), record);
  const fs::path root = BundledEngine::installRoot();
  EXPECT_TRUE(fs::exists(root / ".ns_installed_v1"));
  EXPECT_EQ(test::readText(root / ".ns_installed_v1"), "v1");
  EXPECT_TRUE(finder::isInstallation(root));
  EXPECT_EQ(BundledEngine::installedPath("", res.path()), root);
  ASSERT_EQ(stages.size(), 2u);
  BundledEngine::installBundledIfNeeded(res.path(), record);
  EXPECT_EQ(stages.size(), 3u);  // already there: one report, no copy
  BundledEngine::installBundledIfNeeded(std::nullopt, record);
  EXPECT_EQ(stages.size(), 3u);
}

}  // namespace
}  // namespace melvo
