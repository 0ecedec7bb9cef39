// Files, UUIDs, paths, translations and the log.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/uuid.h"
#include "support/test_support.h"

namespace melvo {
namespace {

// That nothing is left beside the file is checked after every save in atomic_file_test.
TEST(AtomicFile, ReplacesContentAndKeepsMode) {
  test::TempDir dir;
  auto path = dir / "song.nsproj";
  writeFileAtomically(path, "old");
  ::chmod(path.c_str(), 0600);
  writeFileAtomically(path, "new content");
  EXPECT_EQ(readFile(path), "new content");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(AtomicFile, ErrorsNameThePath) {
  test::TempDir dir;
  try {
    writeFileAtomically(dir / "missing" / "x.nsproj", "x");
    FAIL() << "no error";
  } catch (const FileError& e) {
    EXPECT_NE(std::string(e.what()).find("missing/x.nsproj"), std::string::npos);
  }
  EXPECT_THROW(readFile(dir / "nothing"), FileError);
  EXPECT_THROW(readFile(dir.path()), FileError);
}

TEST(UuidText, UpperCaseCanonicalAndStrictParse) {
  Uuid u = Uuid::random();
  std::string s = u.toString();
  ASSERT_EQ(s.size(), 36u);
  for (char c : s) EXPECT_TRUE(c == '-' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'));
  EXPECT_EQ(Uuid::parse(s), u);
  std::string lower = s;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(Uuid::parse(lower), u);
  EXPECT_FALSE(Uuid::parse(s.substr(1)));
  EXPECT_FALSE(Uuid::parse("G" + s.substr(1)));
  EXPECT_FALSE(Uuid::parse(s.substr(0, 8) + "X" + s.substr(9)));
  EXPECT_NE(Uuid::random(), Uuid::random());
}

// Ids come from a pool of the system's random bytes: a forked child must not hand out the ids
// its parent is about to, and every id is version 4 of the RFC variant.
TEST(UuidRandom, ForkedChildrenAndVersionBits) {
  (void)Uuid::random();  // the pool is filled before the fork
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string id = Uuid::random().toString();
    (void)!::write(fds[1], id.data(), id.size());
    ::_exit(0);
  }
  ::close(fds[1]);
  char buf[36];
  ASSERT_EQ(::read(fds[0], buf, sizeof buf), 36);
  ::close(fds[0]);
  ::waitpid(child, nullptr, 0);
  EXPECT_NE(std::string(buf, 36), Uuid::random().toString());
  std::set<Uuid> seen;
  for (int i = 0; i < 1000; ++i) {
    const Uuid u = Uuid::random();
    EXPECT_EQ(u.bytes()[6] >> 4, 4);
    EXPECT_EQ(u.bytes()[8] >> 6, 2);
    EXPECT_TRUE(seen.insert(u).second);
  }
}

TEST(Paths, MelvoHomeHoldsEverything) {
  test::TempHome home;
  for (const auto& p : {paths::configDir(), paths::dataDir(), paths::autoSaveDir(),
                        paths::socketPath(), paths::musicDir(), paths::trashDir()}) {
    EXPECT_EQ(p.string().rfind(home.path().string(), 0), 0u) << p;
  }
}

TEST(Translation, EnglishFromTheCatalogueAndPlaceholdersInOrder) {
  i18n::setLanguage("en");
  EXPECT_STREQ(tr("保存に失敗しました: %@"), "Save failed: %@");
  EXPECT_EQ(trf("%@小節目%@拍", {"3", "2.5"}), "bar 3 beat 2.5");
  i18n::setLanguage("ja");
  EXPECT_EQ(trf("%@小節目%@拍", {"3", "2.5"}), "3小節目2.5拍");
  i18n::setLanguage("en");
  // Unknown keys come back as they are.
  EXPECT_STREQ(tr("未知のキー"), "未知のキー");
  EXPECT_EQ(substitute("%d%% of %@ %lld", {"50", "x", "7"}), "50% of x 7");
  EXPECT_EQ(substitute("%@ and %@", {"one"}), "one and %@");
}

TEST(Log, CaptureSeesTaggedLines) {
  log::Capture capture;
  log::write("PitchCurve", "3 frames clamped");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], "[PitchCurve] 3 frames clamped");
}

}  // namespace
}  // namespace melvo
