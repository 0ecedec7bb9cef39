// Reading one command's arguments: typed access whose refusals are the words the agent reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "melvo/agent/mcp_command_layer.h"
#include "melvo/model/music_document.h"

namespace melvo::mcp {

[[noreturn]] void refuse(std::string message, McpError::Code code = McpError::Code::badRequest);

class Args {
 public:
  explicit Args(const McpJSON::Object& o) : o_(o) {}
  const McpJSON* get(std::string_view name) const;
  bool has(std::string_view name) const { return get(name) != nullptr; }

  std::int64_t integer(std::string_view name, std::int64_t lo, std::int64_t hi) const;
  std::optional<std::int64_t> optInteger(std::string_view name, std::int64_t lo,
                                         std::int64_t hi) const;
  std::optional<double> optNumber(std::string_view name, double lo, double hi) const;
  std::optional<bool> optBool(std::string_view name) const;
  std::optional<std::string> optString(std::string_view name) const;

  // `track` as an index into the document's tracks.
  int track(const MusicDocument& d) const;
  // `fromTick` and `toTick`, both or neither, rising.
  std::optional<std::pair<std::int64_t, std::int64_t>> range() const;
  // `indices` as unique note indices of a track of `count` notes, at most `limit`.
  std::vector<std::size_t> indices(std::size_t count, std::size_t limit) const;

 private:
  const McpJSON::Object& o_;
};

// What a layer keeps from one command to the next, to answer a repeated question without
// walking the song again.
struct Memo {
  // Per track, the notes that document.summary last counted phonemes on, and the count. A
  // list that still has the very same chunks has the same notes: every change copies the chunk
  // it touches, and the copy kept here makes sure that each chunk is shared, so it is copied.
  std::vector<std::pair<NoteList, std::size_t>> phonemeLyrics;
};

struct Context {
  McpHost& host;
  const Args& args;
  Memo& memo;
};

std::int64_t integerValue(const McpJSON& v, std::string_view name, std::int64_t lo,
                          std::int64_t hi);
// A lyric the engine can be handed: at most 64 characters, no line break or control character.
std::string lyricValue(const McpJSON& v, std::size_t index);

// Positions of a track's notes in sorted order (by tick, stable): note `index` i is
// notes[order[i]].
std::vector<std::size_t> sortedOrder(const NoteList& notes);
McpJSON noteJSON(const NoteEvent& n, std::size_t index);

std::string limitWords(const char* format, std::size_t limit);

}  // namespace melvo::mcp
