#include "melvo/platform/atomic_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>

namespace melvo {
namespace fs = std::filesystem;
namespace {

[[noreturn]] void fail(const fs::path& path, int err) {
  throw FileError(path.string() + ": " + std::strerror(err));
}

// The file a save lands in: a symlink is followed to its target, so the link stays a link
// and the file it names gets the new bytes.
fs::path followLinks(const fs::path& path) {
  fs::path p = path;
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st;
    if (::lstat(p.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return p;
    std::error_code ec;
    fs::path target = fs::read_symlink(p, ec);
    if (ec) return p;
    p = target.is_absolute() ? target : p.parent_path() / target;
  }
  return p;
}

int writeAll(int fd, std::string_view bytes) {
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return 0;
}

std::string tempPrefix(const fs::path& target) {
  return "." + target.filename().string() + ".tmp-";
}

fs::path tempName(const fs::path& dir, const fs::path& target) {
  std::random_device rd;
  return dir / (tempPrefix(target) + std::to_string(getpid()) + "-" + std::to_string(rd()));
}

// Flushes, then closes whatever happens: a failed flush must not leak the descriptor.
int syncAndClose(int fd) {
  int err = ::fsync(fd) != 0 ? errno : 0;
  if (::close(fd) != 0 && err == 0) err = errno;
  return err;
}

void keepMode(int fd, const fs::path& target) {
  struct stat st;
  if (::stat(target.c_str(), &st) == 0) ::fchmod(fd, st.st_mode & 07777);
}

// The bytes in a file that has no name until they are all on disk: a writer killed on the way
// leaves nothing behind. Returns the named temporary, or nothing when the file system cannot
// make unnamed files (the caller then writes a named one).
std::optional<fs::path> writeUnnamed(const fs::path& dir, const fs::path& target,
                                     std::string_view bytes) {
  int fd = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return std::nullopt;
    fail(target, errno);
  }
  if (int err = writeAll(fd, bytes)) {
    ::close(fd);
    fail(target, err);
  }
  keepMode(fd, target);
  if (::fsync(fd) != 0) {
    int err = errno;
    ::close(fd);
    fail(target, err);
  }
  const fs::path tmp = tempName(dir, target);
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  int linked = ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, tmp.c_str(), AT_SYMLINK_FOLLOW);
  int err = linked != 0 ? errno : 0;
  ::close(fd);
  if (linked != 0) {
    if (err == ENOENT || err == EPERM) return std::nullopt;  // no /proc: name it the old way
    fail(target, err);
  }
  return tmp;
}

fs::path writeNamed(const fs::path& dir, const fs::path& target, std::string_view bytes) {
  const fs::path tmp = tempName(dir, target);
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) fail(target, errno);
  if (int err = writeAll(fd, bytes)) {
    ::close(fd);
    ::unlink(tmp.c_str());
    fail(target, err);
  }
  keepMode(fd, target);
  if (int err = syncAndClose(fd)) {
    ::unlink(tmp.c_str());
    fail(target, err);
  }
  return tmp;
}

}  // namespace

void removeStaleTemporaries(const fs::path& target) {
  fs::path dir = target.parent_path();
  if (dir.empty()) dir = ".";
  const std::string prefix = tempPrefix(target);
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    // ".NAME.tmp-PID-RANDOM": only a writer that no longer runs has given up on its file.
    char* end = nullptr;
    const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
    if (pid <= 0 || end == nullptr || *end != '-') continue;
    if (pid == getpid()) continue;
    if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    ::unlink(entry.path().c_str());
  }
}

void writeFileAtomically(const fs::path& path, std::string_view bytes) {
  const fs::path target = followLinks(path);
  fs::path dir = target.parent_path();
  if (dir.empty()) dir = ".";
  removeStaleTemporaries(target);
  std::optional<fs::path> tmp = writeUnnamed(dir, target, bytes);
  if (!tmp) tmp = writeNamed(dir, target, bytes);
  if (::rename(tmp->c_str(), target.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp->c_str());
    fail(path, err);
  }
  // The rename itself is durable only once the folder is flushed.
  int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
}

std::string readFile(const fs::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(path, errno);
  std::string out;
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    fail(path, EISDIR);
  }
  // Room for a JSON parser's padding, so a project is parsed without a second copy.
  if (st.st_size > 0) out.reserve(static_cast<std::size_t>(st.st_size) + 64);
  char buf[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      fail(path, err);
    }
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return out;
}

}  // namespace melvo

namespace melvo {

FileLock::FileLock(const fs::path& lockPath) {
  fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) fail(lockPath, errno);
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    int err = errno;
    ::close(fd_);
    fail(lockPath, err);
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

}  // namespace melvo
