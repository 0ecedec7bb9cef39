// Shared by the importer tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace melvo::test {

// Points the system's temporary directory at a fresh folder for the test's lifetime, so that
// what an import leaves behind can be seen.
class TempTmpDir {
 public:
  TempTmpDir() {
    if (const char* old = std::getenv("TMPDIR")) previous_ = old, had_ = true;
    setenv("TMPDIR", dir_.path().c_str(), 1);
  }
  ~TempTmpDir() {
    if (had_) {
      setenv("TMPDIR", previous_.c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }
  const std::filesystem::path& path() const { return dir_.path(); }
  // Files left anywhere below, folders not counted.
  int filesLeft() const {
    int n = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.path()))
      n += e.is_regular_file();
    return n;
  }

 private:
  TempDir dir_;
  std::string previous_;
  bool had_ = false;
};

}  // namespace melvo::test
