#include "support/engine_test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo::test {

bool pumpUntil(EventLoop& loop, const std::function<bool()>& done,
               std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    if (loop.runUntilIdle() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

fs::path standInEngine() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "stand-in-engine";
}

std::string readProcFile(const fs::path& path) {
  std::string out;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return out;
}

std::vector<pid_t> liveMembers(pid_t pgid) {
  std::vector<pid_t> out;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readProcFile(entry.path() / "stat");
    if (stat.empty()) continue;
    // pid (comm) state ppid pgrp ...; comm may hold blanks, so read after the last ')'.
    std::istringstream rest(stat.substr(stat.rfind(')') + 1));
    char state = 0;
    pid_t ppid = 0, group = 0;
    rest >> state >> ppid >> group;
    if (group == pgid && state != 'Z' && state != 'X') out.push_back(std::stoi(name));
  }
  return out;
}

std::vector<float> readSamples(const fs::path& wav, int* channels) {
  SF_INFO info{};
  SNDFILE* f = sf_open(wav.c_str(), SFM_READ, &info);
  EXPECT_NE(f, nullptr) << wav;
  if (!f) return {};
  std::vector<float> all(static_cast<std::size_t>(info.frames * info.channels));
  sf_readf_float(f, all.data(), info.frames);
  sf_close(f);
  if (channels) *channels = info.channels;
  return all;
}

void makeFakeEngine(const fs::path& dir, const std::string& neutrinoBody) {
  fs::create_directories(dir / "bin");
  fs::create_directories(dir / "model" / "voice");
  writeText(dir / "bin" / "neutrino", "#!/bin/sh\n" + neutrinoBody + "\n");
  writeText(dir / "bin" / "musicXMLtoLabel", "#!/bin/sh\nexit 0\n");
  ::chmod((dir / "bin" / "neutrino").c_str(), 0755);
  ::chmod((dir / "bin" / "musicXMLtoLabel").c_str(), 0755);
}

}  // namespace melvo::test
