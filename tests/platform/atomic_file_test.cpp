// Saves that go where the user's link points, and that leave no debris of writers that died.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "melvo/platform/atomic_file.h"
#include "support/test_support.h"

// A disk that fails its flushes on demand: this test program's fsync stands in for the C
// library's, so the code under test meets the failure where it really calls.
static std::atomic<bool> gFailFsync{false};
extern "C" int fsync(int fd) {
  if (gFailFsync) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace melvo {
namespace {
namespace fs = std::filesystem;

std::vector<std::string> namesIn(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir)) out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

TEST(AtomicFile, WritesThroughAChainOfSymlinksToTheRealFile) {
  test::TempDir dir;
  fs::create_directories(dir / "real");
  const fs::path real = dir / "real" / "song.nsproj";
  writeFileAtomically(real, "old");
  fs::create_symlink("real/song.nsproj", dir / "hop.nsproj");  // relative to its folder
  fs::create_directories(dir / "desk");
  fs::create_symlink(dir / "hop.nsproj", dir / "desk" / "song.nsproj");

  writeFileAtomically(dir / "desk" / "song.nsproj", "new");
  EXPECT_TRUE(fs::is_symlink(dir / "desk" / "song.nsproj"));
  EXPECT_TRUE(fs::is_symlink(dir / "hop.nsproj"));
  EXPECT_EQ(readFile(real), "new");
  EXPECT_EQ(namesIn(dir / "real"), std::vector<std::string>{"song.nsproj"});

  // A dangling link gets its target made.
  fs::create_symlink("real/later.nsproj", dir / "later.nsproj");
  writeFileAtomically(dir / "later.nsproj", "made");
  EXPECT_TRUE(fs::is_symlink(dir / "later.nsproj"));
  EXPECT_EQ(readFile(dir / "real" / "later.nsproj"), "made");
}

TEST(AtomicFile, TheNextSaveRemovesTemporariesOfDeadWritersOnly) {
  test::TempDir dir;
  const fs::path target = dir / "song.nsproj";
  writeFileAtomically(target, "v1");
  // A pid that surely runs no writer: a child that has been reaped.
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  const std::string deadTemp = ".song.nsproj.tmp-" + std::to_string(dead) + "-42";
  const std::string liveTemp = ".song.nsproj.tmp-1-7";  // init never dies
  const std::string otherFile = ".other.nsproj.tmp-" + std::to_string(dead) + "-1";
  for (const auto& n : {deadTemp, liveTemp, otherFile}) test::writeText(dir / n, "partial");

  writeFileAtomically(target, "v2");
  EXPECT_EQ(readFile(target), "v2");
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{otherFile, liveTemp, "song.nsproj"}));
}

int openDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

// A write that the system refuses half-way (here the file size limit) costs no descriptor and
// leaves the old file alone, with nothing beside it.
TEST(AtomicFile, AFailedWriteLeaksNothing) {
  test::TempDir dir;
  const fs::path target = dir / "song.nsproj";
  writeFileAtomically(target, "old");
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    const int before = openDescriptors();
    int failures = 0;
    for (int i = 0; i < 3; ++i) {
      try {
        writeFileAtomically(target, std::string(1 << 20, 'x'));
      } catch (const FileError&) {
        ++failures;
      }
    }
    _exit(failures == 3 && openDescriptors() == before ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(readFile(target), "old");
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"song.nsproj"});
}

// A flush the disk refuses: the save fails with the disk's reason, the old bytes stay, and no
// descriptor or file is left over.
TEST(AtomicFile, AFailedFlushKeepsTheOldFileAndLeaksNothing) {
  test::TempDir dir;
  const fs::path target = dir / "song.nsproj";
  writeFileAtomically(target, "old");
  const int before = openDescriptors();
  gFailFsync = true;
  std::string reason;
  try {
    writeFileAtomically(target, "new");
  } catch (const FileError& e) {
    reason = e.what();
  }
  {
    UnnamedFile big(target);
    ASSERT_EQ(write(big.fd(), "mix", 3), 3);
    EXPECT_THROW(big.commit(), FileError);
  }
  gFailFsync = false;
  EXPECT_NE(reason.find(std::strerror(EIO)), std::string::npos) << reason;
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(readFile(target), "old");
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"song.nsproj"});
}

// A large file written in place and abandoned (a mix cancelled, or its writer killed) leaves
// nothing; committed, it replaces the target whole.
TEST(AtomicFile, AnUnnamedFileAppearsOnlyWhenCommitted) {
  test::TempDir dir;
  const fs::path target = dir / "mix.wav";
  writeFileAtomically(target, "old");
  const pid_t pid = fork();
  if (pid == 0) {
    UnnamedFile f(target);
    (void)!write(f.fd(), "half", 4);
    raise(SIGKILL);
  }
  waitpid(pid, nullptr, 0);
  { UnnamedFile dropped(target); }
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"mix.wav"});
  UnnamedFile f(target);
  ASSERT_EQ(write(f.fd(), "whole", 5), 5);
  f.commit(Durability::unflushed);
  EXPECT_EQ(readFile(target), "whole");
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"mix.wav"});
}

}  // namespace
}  // namespace melvo
