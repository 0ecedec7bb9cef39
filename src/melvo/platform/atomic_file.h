// Whole-file writes that a crash cannot tear: the bytes go to an unnamed file in the same
// folder, are flushed to disk, get a temporary name and are renamed over the target. A writer
// killed on the way leaves at most a named temporary for the instant between the two steps,
// and the next save beside it removes that.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace melvo {

class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws FileError with the path and the system's reason. A symlink is written through: its
// target gets the bytes and the link stays.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);
// Removes the temporary files that writers of `target` left when they died.
void removeStaleTemporaries(const std::filesystem::path& target);
// Throws FileError when the file cannot be read.
std::string readFile(const std::filesystem::path& path);

// An exclusive advisory lock (flock) on `lockPath`, held for the object's life, so that
// processes that read, change and write back one small file take turns. The lock file is
// created when missing and never removed: removing it would let two holders lock two inodes.
class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& lockPath);  // throws FileError
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace melvo
