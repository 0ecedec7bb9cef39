#include "melvo/synthesis/diagnosis.h"

#include <gtest/gtest.h>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

// Looked up when used, not at start-up: the language may be chosen after static initialisation.
std::string missingTool() {
  return tr("NEUTRINO の実行ファイルが見つかりません");
}

std::string titleOf(const std::vector<std::string>& log) {
  auto d = diagnose(log);
  return d ? d->title : "(none)";
}

TEST(DiagnosisTest, GccRuntimeCarriesTheVersionAndTheUsersHomebrewPrefix) {
  const std::vector<std::string> intel = {
      "dyld[4711]: Library not loaded: /opt/gcc/lib/gcc/13/libgcc_s.1.1.dylib",
      "  Referenced from: /Users/me/NEUTRINO/bin/NEUTRINO",
      "  Reason: tried: '/opt/gcc/lib/gcc/13/libgcc_s.1.1.dylib' (no such file)"};
  auto d = diagnose(intel);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->title, trf("GCC %@ ランタイムが不足しています", {"13"}));
  EXPECT_EQ(
      d->detail,
      trf("NEUTRINO のバイナリが GCC %@ の libgcc_s.1.1.dylib を要求していますが、ご利用の Mac "
          "にはインストールされていません。以下のいずれかで解決できます：",
          {"13"}));
  ASSERT_EQ(d->fixes.size(), 3u);
  EXPECT_EQ(d->fixes[0], trf("Homebrew で GCC %@ を入れる：\nbrew install gcc@%@", {"13", "13"}));
  EXPECT_TRUE(
      d->fixes[1].ends_with("\nln -s /usr/local/lib/gcc/current/libgcc_s.1.1.dylib "
                            "/opt/gcc/lib/gcc/13/libgcc_s.1.1.dylib"));

  // An Apple-silicon machine shows its prefix somewhere in the log; a non-numeric path segment
  // before the real version must not be taken for it.
  auto arm = diagnose({"dyld: Library not loaded: /opt/gcc/lib/gcc/current/libgcc_s.1.1.dylib",
                       "  tried: /opt/homebrew/lib/x, /opt/gcc/lib/gcc/112/libgcc_s.1.1.dylib"});
  ASSERT_TRUE(arm);
  EXPECT_EQ(arm->title, trf("GCC %@ ランタイムが不足しています", {"112"}));
  EXPECT_TRUE(
      arm->fixes[1].ends_with("\nln -s /opt/homebrew/lib/gcc/current/libgcc_s.1.1.dylib "
                              "/opt/gcc/lib/gcc/112/libgcc_s.1.1.dylib"));
}

TEST(DiagnosisTest, LibraryNotLoadedWithoutGccGoesOnToLaterRows) {
  EXPECT_EQ(titleOf({"dyld: Library not loaded: @rpath/libonnxruntime.1.dylib",
                     "  Reason: image not found: No such file or directory"}),
            missingTool());
  EXPECT_FALSE(diagnose({"dyld: Library not loaded: @rpath/libonnxruntime.1.dylib"}));
  // The version alone is not enough: the loader must have complained.
  EXPECT_FALSE(diagnose({"using /opt/gcc/lib/gcc/13/libgcc_s.1.1.dylib"}));
}

TEST(DiagnosisTest, LinuxLoaderFailureNamesTheLibraryAheadOfMissingFiles) {
  auto d = diagnose({"[1/3] MusicXMLtoLabel",
                     "./bin/NEUTRINO: error while loading shared libraries: libonnxruntime.so.1: "
                     "cannot open shared object file: No such file or directory"});
  ASSERT_TRUE(d);
  EXPECT_EQ(d->title, trf("共有ライブラリ %@ が見つかりません", {"libonnxruntime.so.1"}));
  EXPECT_EQ(d->fixes.size(), 2u);

  EXPECT_EQ(titleOf({"OSError: /opt/x/libworld.so: cannot open shared object file: No such file"}),
            trf("共有ライブラリ %@ が見つかりません", {"/opt/x/libworld.so"}));
  EXPECT_EQ(titleOf({"error while loading shared libraries"}),
            tr("共有ライブラリが見つかりません"));
}

TEST(DiagnosisTest, EarlierRowsWinOverLaterOnes) {
  auto d =
      diagnose({"sh: ./bin/NEUTRINO: Permission denied", "open model: No such file or directory"});
  ASSERT_TRUE(d);
  EXPECT_EQ(d->title, missingTool());
  EXPECT_EQ(d->fixes.size(), 2u);
  EXPECT_EQ(titleOf({"bash: musicXMLtoLabel: command not found"}), missingTool());

  // "model" and "not exist" may sit on different lines of the same log.
  const std::string noModel = tr("モデルディレクトリが見つかりません");
  EXPECT_EQ(titleOf({"loading model", "error: directory does not exist", "Permission denied"}),
            noModel);
  EXPECT_EQ(titleOf({"sh: ./bin/NEUTRINO: permission denied"}), tr("実行権限がありません"));
}

TEST(DiagnosisTest, FixesNameThisProgramsCommandsWithTheFolder) {
  const auto d = diagnose({"sh: /opt/My Engine/bin/neutrino: Permission denied"}, "/opt/My Engine");
  ASSERT_TRUE(d);
  ASSERT_FALSE(d->fixes.empty());
  EXPECT_NE(d->fixes[0].find("melvo engine fix '/opt/My Engine'"), std::string::npos)
      << d->fixes[0];
  for (const auto& f : d->fixes) EXPECT_EQ(f.find("Desktop"), std::string::npos) << f;
  const auto missing = diagnose({"bash: musicXMLtoLabel: command not found"}, "/opt/n");
  ASSERT_TRUE(missing);
  EXPECT_NE(missing->fixes[1].find("melvo engine fix /opt/n"), std::string::npos);
}

TEST(DiagnosisTest, UnknownFailureGivesNothing) {
  EXPECT_FALSE(diagnose({}));
  EXPECT_FALSE(diagnose({"Segmentation fault (core dumped)", "model loaded"}));
  EXPECT_FALSE(diagnose({"No such", "file or directory"}));  // joined by a newline, not a space
}

}  // namespace
}  // namespace melvo
