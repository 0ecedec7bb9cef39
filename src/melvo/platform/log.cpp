#include "melvo/platform/log.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "melvo/platform/paths.h"

namespace melvo::log {
namespace {

struct State {
  std::mutex mutex;
  Sink sink;
  bool echo = false;
  bool echoFromEnv = false;
  std::FILE* file = nullptr;
  bool fileTried = false;
};

State& state() {
  static State s;
  static const bool fromEnv = [] {
    const char* env = std::getenv("MELVO_LOG");
    s.echoFromEnv = env && std::string_view(env) == "stderr";
    return true;
  }();
  (void)fromEnv;
  return s;
}

// Default: append to the log file, opened on the first line so that a run that logs nothing
// creates nothing.
void defaultSink(State& s, const std::string& line) {
  if (s.echo || s.echoFromEnv) std::fprintf(stderr, "%s\n", line.c_str());
  if (!s.fileTried) {
    s.fileTried = true;
    try {
      auto path = paths::logFile();
      std::filesystem::create_directories(path.parent_path());
      s.file = std::fopen(path.c_str(), "a");
    } catch (...) {
      s.file = nullptr;
    }
  }
  if (s.file) {
    std::fprintf(s.file, "%s\n", line.c_str());
    std::fflush(s.file);
  }
}

}  // namespace

void write(std::string_view tag, std::string_view message) {
  std::string line;
  line.reserve(tag.size() + message.size() + 3);
  line.push_back('[');
  line.append(tag);
  line.append("] ");
  line.append(message);
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (s.sink) {
    s.sink(line);
  } else {
    defaultSink(s, line);
  }
}

Sink setSink(Sink sink) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  Sink previous = std::move(s.sink);
  s.sink = std::move(sink);
  return previous;
}

void setEchoToStderr(bool on) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.echo = on;
}

Capture::Capture() {
  previous_ = setSink([this](const std::string& line) { lines_.push_back(line); });
}

Capture::~Capture() {
  setSink(std::move(previous_));
}

bool Capture::contains(std::string_view needle) const {
  return count(needle) > 0;
}

std::size_t Capture::count(std::string_view needle) const {
  std::size_t n = 0;
  for (const auto& l : lines_) n += l.find(needle) != std::string::npos;
  return n;
}

}  // namespace melvo::log
