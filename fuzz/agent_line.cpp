// Bytes from an agent's connection: cut into lines as the port cuts them (the input split
// into reads at its first byte's choosing), each line run through the command layer over a
// small song. Every answer must be one line of JSON with a Boolean "ok", and what the layer
// remembers between commands must never change an answer: its summary equals a fresh one's.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "melvo/agent/mcp_command_layer.h"
#include "melvo/agent/mcp_line_buffer.h"
#include "melvo/agent/mcp_memory_host.h"

namespace {

melvo::MusicDocument smallSong() {
  melvo::MusicDocument d;
  for (int i = 0; i < 8; ++i) {
    auto n = melvo::NoteEvent::make(melvo::Uuid::random(), i * 480, 480, 60 + i, 100, "ら");
    if (i % 2 == 0) n.sourcePhonemes = "ら";  // lyric edits then change the summary's count
    d.tracks[0].notes.push_back(std::move(n));
  }
  d.tracks.push_back(melvo::MusicTrack{});
  return d;
}

void checkAnswer(const std::string& answer) {
  if (answer.find('\n') != std::string::npos) __builtin_trap();
  melvo::Json json;
  try {
    json = melvo::Json::parse(answer);
  } catch (const melvo::JsonError&) {
    __builtin_trap();
  }
  const melvo::Json* ok = json.find("ok");
  if (!ok || !ok->isBool()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t chunk = 1 + data[0] % 64;
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  melvo::McpMemoryHost memory(smallSong());
  // A rendered curve with an unvoiced gap, so the pitch commands have something to edit.
  melvo::PitchCurve curve;
  curve.frequencies.assign(800, 261.6f);
  for (std::size_t i = 300; i < 340; ++i) curve.frequencies[i] = 0;
  memory.setPitch(curve);
  melvo::McpCommandLayer layer(memory.host());
  melvo::McpLineBuffer lines;
  lines.maxLineBytes = 4096;  // small, so the fuzzer reaches the long-line path
  while (!bytes.empty()) {
    const auto part = bytes.substr(0, chunk);
    bytes.remove_prefix(part.size());
    for (const auto& item : lines.append(part)) {
      if (const auto* line = std::get_if<melvo::McpLineBuffer::Line>(&item)) {
        if (line->text.size() > lines.maxLineBytes) __builtin_trap();
        checkAnswer(layer.handleLine(line->text));
        const std::string summary = R"({"command":"document.summary"})";
        if (layer.handleLine(summary) != melvo::McpCommandLayer(memory.host()).handleLine(summary))
          __builtin_trap();
      }
    }
  }
  return 0;
}
