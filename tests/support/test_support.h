// Helpers shared by every test program.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace melvo::test {

// A fresh temporary folder, removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// A temporary MELVO_HOME for the test's lifetime; the previous value comes back afterwards.
class TempHome {
 public:
  TempHome();
  ~TempHome();
  const std::filesystem::path& path() const { return dir_.path(); }

 private:
  TempDir dir_;
  std::string previous_;
  bool hadPrevious_ = false;
};

std::filesystem::path dataPath(const std::string& relative);    // tests/data/...
std::filesystem::path corpusPath(const std::string& relative);  // the shared corpus
std::string readText(const std::filesystem::path& path);
void writeText(const std::filesystem::path& path, const std::string& text);

struct RunResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};
// Runs the melvo binary with `args`, no shell involved. `env` entries ("K=V") are added to the
// current environment.
RunResult runMelvo(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
// Starts the melvo binary as runMelvo does, stdin from /dev/null, stdout and stderr to the
// given files; returns its pid. Throws when it cannot start. With `ownGroup` it leads a process
// group of its own, as a job of an interactive shell does: only the signals a test sends it
// reach it, and a signal to its group never hits the test.
pid_t spawnMelvo(const std::vector<std::string>& args, const std::vector<std::string>& env,
                 const std::filesystem::path& outPath, const std::filesystem::path& errPath,
                 bool ownGroup = false);

// The next line from `fd` (a pipe or a socket), keeping what follows it in `buffer`; nothing
// when `limit` passes or the other end closes first.
std::optional<std::string> readLineFrom(int fd, std::string& buffer,
                                        std::chrono::milliseconds limit);

}  // namespace melvo::test
