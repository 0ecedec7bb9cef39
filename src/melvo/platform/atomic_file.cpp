#include "melvo/platform/atomic_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

// Copies an unnamed file's bytes into a new named one, for systems without /proc where the
// unnamed file cannot be linked. Returns 0 or the error.
int copyIntoNamed(int from, const fs::path& to, bool flush) {
  int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  struct stat st;
  int err = ::fstat(from, &st) != 0 ? errno : 0;
  ::fchmod(fd, st.st_mode & 07777);
  loff_t in = 0;
  for (off_t left = st.st_size; err == 0 && left > 0;) {
    ssize_t n = ::copy_file_range(from, &in, fd, nullptr, static_cast<std::size_t>(left), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      err = n < 0 ? errno : EIO;
    else
      left -= n;
  }
  if (err == 0 && flush && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err != 0) ::unlink(to.c_str());
  return err;
}

void keepMode(int fd, const fs::path& target) {
  struct stat st;
  if (::stat(target.c_str(), &st) == 0) ::fchmod(fd, st.st_mode & 07777);
}

fs::path folderOf(const fs::path& target) {
  fs::path dir = target.parent_path();
  return dir.empty() ? fs::path(".") : dir;
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

UnnamedFile::UnnamedFile(const fs::path& target) : path_(target), target_(followLinks(target)) {
  const fs::path dir = folderOf(target_);
  removeStaleTemporaries(target_);
  fd_ = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    // Some file systems cannot make unnamed files: name it the old way.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) fail(path_, errno);
    named_ = tempName(dir, target_);
    fd_ = ::open(named_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd_ < 0) fail(path_, errno);
  }
  keepMode(fd_, target_);
}

UnnamedFile::~UnnamedFile() {
  if (fd_ >= 0) ::close(fd_);
  if (!named_.empty()) ::unlink(named_.c_str());
}

void UnnamedFile::commit(Durability durability) {
  if (fd_ < 0) fail(path_, EBADF);
  const fs::path dir = folderOf(target_);
  // The descriptor is closed on every path, so a failed flush leaks nothing.
  int err = durability == Durability::flushed && ::fsync(fd_) != 0 ? errno : 0;
  if (named_.empty() && err == 0) {
    // linkat cannot replace a file: give the bytes a temporary name, then rename over.
    named_ = tempName(dir, target_);
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, named_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
      err = errno;
      if (err == ENOENT || err == EPERM)  // no /proc here
        err = copyIntoNamed(fd_, named_, durability == Durability::flushed);
      if (err != 0) named_.clear();
    }
  }
  if (::close(fd_) != 0 && err == 0) err = errno;
  fd_ = -1;
  if (err != 0) fail(path_, err);  // the destructor unlinks a named temporary
  if (::rename(named_.c_str(), target_.c_str()) != 0) fail(path_, errno);
  named_.clear();
  if (durability == Durability::flushed) {
    // The rename itself is durable only once the folder is flushed.
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      ::fsync(dfd);
      ::close(dfd);
    }
  }
}

void writeFileAtomically(const fs::path& path, std::string_view bytes, Durability durability) {
  UnnamedFile file(path);
  if (int err = writeAll(file.fd(), bytes)) fail(path, err);
  file.commit(durability);
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

bool FileLock::isHeld(const fs::path& lockPath) {
  const int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  int r;
  do r = ::flock(fd, LOCK_EX | LOCK_NB);
  while (r != 0 && errno == EINTR);
  const bool held = r != 0 && errno == EWOULDBLOCK;
  ::close(fd);  // releases the lock if we took it
  return held;
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

}  // namespace melvo
