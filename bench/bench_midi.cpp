// Reading a 200,000-note MIDI file with a lyric on every note (written by our own writer),
// against a bare walk over the same file's events. Goal: the reader within 10x of the walk.
#include <benchmark/benchmark.h>

#include <cstdint>
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
  for (auto _ : state) benchmark::DoNotOptimize(events = walkEvents(b));
  state.counters["events"] = double(events);
  state.counters["MB"] = double(b.size()) / 1e6;
}
BENCHMARK(BM_WalkMIDIEvents)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadMIDI(benchmark::State& state) {
  log::setSink([](const std::string&) {});  // no log file from a benchmark
  const std::string& b = fileBytes();
  std::size_t notes = 0;
  for (auto _ : state) {
    const MusicDocument d = MIDIFileParser::parseBytes(b);
    notes = d.totalNoteCount();
    benchmark::DoNotOptimize(notes);
  }
  state.counters["notes"] = double(notes);
}
BENCHMARK(BM_ReadMIDI)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
