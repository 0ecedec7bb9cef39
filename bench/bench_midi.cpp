// Reading a 200,000-note MIDI file with a lyric on every note (written by our own writer),
// against a bare walk over the same file's events and against python3-mido reading the same
// file. Goals: the reader within 10x of the walk, and more than 30x faster than mido.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <string>

#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/midi_file_writer.h"
#include "melvo/platform/log.h"

namespace {

using namespace melvo;

const std::string& fileBytes() {
  static const std::string bytes = [] {
    const char* lyrics[] = {"あ", "か", "さ", "た", "な", "きゃ", "ら", "ん", "しゅ", "ぽ"};
    MusicDocument d;
    std::vector<NoteEvent> v;
    v.reserve(MIDIFileParser::kNoteLimit);
    for (std::int64_t i = 0; i < std::int64_t(MIDIFileParser::kNoteLimit); ++i)
      v.push_back(NoteEvent::make(Uuid::random(), i * 240, 240, 48 + i % 36, 100, lyrics[i % 10]));
    d.tracks[0].notes.assign(std::move(v));
    return MIDIFileWriter::data(d);
  }();
  return bytes;
}

// Best times of this run, so that each comparison is made within one run.
double bestWalk = std::numeric_limits<double>::infinity();
double bestRead = std::numeric_limits<double>::infinity();

// The comparisons use the CPU time of the reading thread: on a machine shared with other
// work, wall time mostly measures the others.
double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

std::uint32_t be32(const std::string& b, std::size_t at) {
  return (std::uint32_t(std::uint8_t(b[at])) << 24) |
         (std::uint32_t(std::uint8_t(b[at + 1])) << 16) |
         (std::uint32_t(std::uint8_t(b[at + 2])) << 8) | std::uint32_t(std::uint8_t(b[at + 3]));
}

// Chunks, delta times and event lengths only: the least any reader must do.
std::size_t walkEvents(const std::string& b) {
  std::size_t pos = 14, events = 0;
  while (pos + 8 <= b.size()) {
    const std::size_t end = std::min<std::size_t>(pos + 8 + be32(b, pos + 4), b.size());
    pos += 8;
    int running = 0;
    while (pos < end) {
      while (pos < end && (std::uint8_t(b[pos]) & 0x80)) ++pos;
      ++pos;
      if (pos >= end) break;
      int status = std::uint8_t(b[pos]);
      if (status < 0x80) {
        status = running;
      } else {
        ++pos;
      }
      ++events;
      if (status == 0xFF) {
        ++pos;
        std::uint32_t len = 0;
        while (pos < end && (std::uint8_t(b[pos]) & 0x80)) len = (len << 7) | (b[pos++] & 0x7F);
        len = (len << 7) | (b[pos++] & 0x7F);
        pos += len;
      } else {
        running = status;
        pos += ((status & 0xF0) == 0xC0 || (status & 0xF0) == 0xD0) ? 1 : 2;
      }
    }
    pos = end;
  }
  return events;
}

void BM_WalkMIDIEvents(benchmark::State& state) {
  const std::string& b = fileBytes();
  std::size_t events = 0;
  for (auto _ : state) {
    const double start = cpuSeconds();
    benchmark::DoNotOptimize(events = walkEvents(b));
    bestWalk = std::min(bestWalk, cpuSeconds() - start);
  }
  state.counters["events"] = double(events);
  state.counters["cpu_ms"] = bestWalk * 1e3;
  state.counters["MB"] = double(b.size()) / 1e6;
}
BENCHMARK(BM_WalkMIDIEvents)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadMIDI(benchmark::State& state) {
  log::setSink([](const std::string&) {});  // no log file from a benchmark
  const std::string& b = fileBytes();
  std::size_t notes = 0;
  for (auto _ : state) {
    const double start = cpuSeconds();
    {
      const MusicDocument d = MIDIFileParser::parseBytes(b);
      notes = d.totalNoteCount();
      benchmark::DoNotOptimize(notes);
    }
    bestRead = std::min(bestRead, cpuSeconds() - start);
  }
  state.counters["notes"] = double(notes);
  state.counters["cpu_ms"] = bestRead * 1e3;
  // Best read against best walk, in CPU time: goal under 10.
  if (bestWalk < std::numeric_limits<double>::infinity())
    state.counters["x_walk"] = bestRead / bestWalk;
}
BENCHMARK(BM_ReadMIDI)->Unit(benchmark::kMillisecond)->UseRealTime();

// python3-mido (Debian's, for /usr/bin/python3; MELVO_BENCH_PYTHON names another) reads the
// same file once in a child; the script times only the read.
void BM_MidoReadMIDI(benchmark::State& state) {
  const std::string& b = fileBytes();
  char path[] = "/tmp/melvo-bench-midi-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) {
    state.SkipWithError("no temporary file");
    return;
  }
  close(fd);
  std::ofstream(path, std::ios::binary).write(b.data(), std::streamsize(b.size()));
  const char* python = std::getenv("MELVO_BENCH_PYTHON");
  const std::string command = std::string(python ? python : "/usr/bin/python3") + " " +
                              MELVO_BENCH_DIR "/mido_read.py " + path + " 2>&1";
  double seconds = -1, cpu = -1;
  long messages = 0;
  std::string output;
  for (auto _ : state) {
    output.clear();
    FILE* child = popen(command.c_str(), "r");
    if (!child) break;
    char line[512];
    while (std::fgets(line, sizeof line, child)) output += line;
    const int status = pclose(child);
    if (status != 0 || std::sscanf(output.c_str(), "%lf %lf %ld", &seconds, &cpu, &messages) != 3) {
      seconds = -1;
      break;
    }
    state.SetIterationTime(seconds);
  }
  std::remove(path);
  if (seconds < 0) {
    state.SkipWithError(
        ("mido did not read the file (is python3-mido installed?): " + output).c_str());
    return;
  }
  state.counters["messages"] = double(messages);
  state.counters["cpu_ms"] = cpu * 1e3;
  // mido's read against our best read, in CPU time: goal over 30.
  if (bestRead < std::numeric_limits<double>::infinity()) state.counters["x_ours"] = cpu / bestRead;
}
BENCHMARK(BM_MidoReadMIDI)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
