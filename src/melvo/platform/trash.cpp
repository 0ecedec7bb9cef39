#include "melvo/platform/trash.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/paths.h"

namespace melvo::trash {
namespace {

// Path= is a URL-style escaped absolute path; keep unreserved characters and '/'.
std::string escapePath(const std::string& p) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : p) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string deletionDate() {
  std::time_t t = std::time(nullptr);
  std::tm local{};
  localtime_r(&t, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &local);
  return buf;
}

[[noreturn]] void fail(const std::filesystem::path& path, const std::string& why) {
  throw FileError(path.string() + ": " + why);
}

}  // namespace

std::filesystem::path moveToTrash(const std::filesystem::path& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path source = fs::absolute(path, ec);
  if (ec || !fs::exists(fs::symlink_status(source, ec))) fail(path, std::strerror(ENOENT));
  const fs::path root = paths::trashDir();
  fs::create_directories(root / "files", ec);
  fs::create_directories(root / "info", ec);
  if (ec) fail(path, ec.message());

  // Claim a name by creating its .trashinfo exclusively: two programs trashing "a.txt" at
  // once then cannot take the same slot.
  const std::string base = source.filename().string();
  const std::string stem = source.stem().string(), ext = source.extension().string();
  fs::path info, target;
  int fd = -1;
  for (int n = 1; n < 10000 && fd < 0; ++n) {
    std::string name = n == 1 ? base : stem + "." + std::to_string(n) + ext;
    info = root / "info" / (name + ".trashinfo");
    target = root / "files" / name;
    if (fs::exists(fs::symlink_status(target, ec))) continue;
    fd = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) fail(path, std::strerror(errno));
  }
  if (fd < 0) fail(path, "no free name in the trash");
  const std::string text = "[Trash Info]\nPath=" + escapePath(source.string()) +
                           "\nDeletionDate=" + deletionDate() + "\n";
  bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!written) {
    ::unlink(info.c_str());
    fail(path, "cannot write the trash record");
  }

  fs::rename(source, target, ec);
  if (ec == std::errc::cross_device_link) {
    // Another file system: copy, then remove the original only once the copy is complete.
    ec.clear();
    fs::copy(source, target, fs::copy_options::recursive, ec);
    if (!ec) fs::remove_all(source, ec);
  }
  if (ec) {
    std::error_code ignore;
    if (fs::exists(source, ignore)) fs::remove_all(target, ignore);  // a partial copy
    fs::remove(info, ignore);
    fail(path, ec.message());
  }
  return target;
}

}  // namespace melvo::trash
