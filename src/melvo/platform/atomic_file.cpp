#include "melvo/platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace melvo {
namespace {

[[noreturn]] void fail(const std::filesystem::path& path, int err) {
  throw FileError(path.string() + ": " + std::strerror(err));
}

}  // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::path dir = path.parent_path();
  if (dir.empty()) dir = ".";
  std::random_device rd;
  std::string tmpName = "." + path.filename().string() + ".tmp-" + std::to_string(getpid()) + "-" +
                        std::to_string(rd());
  std::filesystem::path tmp = dir / tmpName;

  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) fail(path, errno);
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      ::unlink(tmp.c_str());
      fail(path, err);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  // Keep the permissions of a file that is being replaced.
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) ::fchmod(fd, st.st_mode & 07777);
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    fail(path, err);
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    fail(path, err);
  }
  // The rename itself is durable only once the folder is flushed.
  int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
}

std::string readFile(const std::filesystem::path& path) {
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
