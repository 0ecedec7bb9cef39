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

enum class Durability {
  flushed,   // on disk before the rename: a save the user counts on
  unflushed  // whole or absent, but a power cut may lose it: scratch files beside other scratch
};

// Throws FileError with the path and the system's reason. A symlink is written through: its
// target gets the bytes and the link stays.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                         Durability durability = Durability::flushed);

// A file that is written (and read back, and rewritten) through its descriptor and takes its
// target's place only at commit(): for contents too large to hold in memory, such as a mix.
// Until then it has no name where the file system allows it, so a writer killed at any point
// leaves nothing behind; otherwise it is a dot-named temporary that the next writer of the
// same target removes once its owner is gone. Destroyed uncommitted, it disappears.
class UnnamedFile {
 public:
  explicit UnnamedFile(const std::filesystem::path& target);  // throws FileError
  ~UnnamedFile();
  UnnamedFile(const UnnamedFile&) = delete;
  UnnamedFile& operator=(const UnnamedFile&) = delete;

  int fd() const { return fd_; }
  // Flushes as asked and puts the file in the target's place. Throws FileError.
  void commit(Durability durability = Durability::flushed);

 private:
  std::filesystem::path path_;    // as given, for messages
  std::filesystem::path target_;  // symlinks followed
  std::filesystem::path named_;   // the temporary's name, when it has one
  int fd_ = -1;
};
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
  // True while some open file holds the lock on `lockPath`; false when it is free or missing.
  // The kernel drops a lock when its holder dies, however it dies, so a lock held for a
  // process's whole life tells whether that process still runs.
  static bool isHeld(const std::filesystem::path& lockPath);
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace melvo
