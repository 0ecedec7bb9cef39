// The agent port's round trip: document.summary on a 2,000-note song through the real port
// (socket, line framing, the main queue, the command, the answer), 10,000 calls,
// against a bare unix-socket echo of the same request measured in the same run. The goal is a
// median within twice the echo's.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "melvo/agent/mcp_app_host.h"
#include "melvo/app/app_state.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/paths.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

constexpr int kCalls = 10000;
const std::string kRequest = R"({"id":"1","command":"document.summary"})"
                             "\n";
// Refused at once: what the port itself costs, without the work of a command.
const std::string kUnknown = R"({"id":"1","command":"document.nothing"})"
                             "\n";

int connectTo(const fs::path& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Sends the request and reads up to the answer's newline; the answer's size.
std::size_t roundTrip(int fd, const std::string& request, std::string& buffer) {
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size()))
    return 0;
  buffer.clear();
  char chunk[16384];
  for (;;) {
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return 0;
    buffer.append(chunk, static_cast<std::size_t>(n));
    if (buffer.back() == '\n') return buffer.size();
  }
}

// Times every call; the p50 and p99 in microseconds go to the counters.
void timeCalls(benchmark::State& state, int fd, const std::string& request = kRequest) {
  std::string buffer;
  std::vector<double> micros;
  micros.reserve(kCalls);
  std::size_t bytes = 0;
  for (auto _ : state) {
    for (int i = 0; i < kCalls; ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      bytes = roundTrip(fd, request, buffer);
      micros.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
      if (bytes == 0) {
        state.SkipWithError("the connection broke");
        return;
      }
    }
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  state.counters["answer_bytes"] = static_cast<double>(bytes);
}

struct Home {
  Home() {
    char tmpl[] = "/tmp/melvo-bench-XXXXXX";
    dir = ::mkdtemp(tmpl);
    for (const char* key : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
      ::setenv(key, dir.c_str(), 1);
    }
  }
  ~Home() { fs::remove_all(dir); }
  fs::path dir;
};

MusicDocument song() {
  MusicDocument d;
  d.title = "Bench";
  std::vector<NoteEvent> notes;
  for (int i = 0; i < 2000; ++i) {
    notes.push_back(NoteEvent::make(Uuid::random(), i * 480, 480, 60 + i % 12, 100, "ら"));
  }
  d.tracks[0].notes = NoteList(std::move(notes));
  return d;
}

void portRoundTrip(benchmark::State& state, const std::string& request) {
  Home home;
  EventLoop loop;
  AppState app(loop);
  app.pianoRollVM().swapDocument(song(), std::nullopt);
  McpAppPort port(app, loop, paths::socketPath());
  port.start();
  std::thread main([&] { loop.run(); });
  const int fd = connectTo(paths::socketPath());
  if (fd < 0) {
    state.SkipWithError("cannot connect");
  } else {
    timeCalls(state, fd, request);
    ::close(fd);
  }
  loop.stop();
  main.join();
  port.stop();
}

void BM_SummaryRoundTrip(benchmark::State& state) {
  portRoundTrip(state, kRequest);
}

void BM_UnknownCommandRoundTrip(benchmark::State& state) {
  portRoundTrip(state, kUnknown);
}

// The command alone, without socket or hop: what of the round trip is the work itself.
void BM_SummaryInProcess(benchmark::State& state) {
  Home home;
  EventLoop loop;
  AppState app(loop);
  app.pianoRollVM().swapDocument(song(), std::nullopt);
  McpCommandLayer layer(makeAppHost(app));
  const std::string line = kRequest.substr(0, kRequest.size() - 1);
  std::vector<double> micros;
  micros.reserve(kCalls);
  for (auto _ : state) {
    for (int i = 0; i < kCalls; ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      benchmark::DoNotOptimize(layer.handleLine(line));
      micros.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

// The floor: a thread that reads a line and writes it back, nothing else.
void BM_BareSocketEcho(benchmark::State& state) {
  Home home;
  const fs::path path = home.dir / "echo.sock";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener, 1) != 0) {
    state.SkipWithError("cannot listen");
    return;
  }
  std::thread echo([listener] {
    const int c = ::accept(listener, nullptr, nullptr);
    std::string pending;
    char chunk[16384];
    for (;;) {
      const ssize_t n = ::recv(c, chunk, sizeof chunk, 0);
      if (n <= 0) break;
      pending.append(chunk, static_cast<std::size_t>(n));
      for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
        ::send(c, pending.data(), nl + 1, MSG_NOSIGNAL);
        pending.erase(0, nl + 1);
      }
    }
    ::close(c);
  });
  const int fd = connectTo(path);
  timeCalls(state, fd);
  ::close(fd);
  echo.join();
  ::close(listener);
}

BENCHMARK(BM_BareSocketEcho)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SummaryRoundTrip)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnknownCommandRoundTrip)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SummaryInProcess)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace melvo

BENCHMARK_MAIN();
