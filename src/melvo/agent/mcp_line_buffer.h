// Cuts the byte stream of a connection into lines. A line longer than the limit gives one
// tooLong and is dropped up to its newline, so the stream stays in step with the client.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace melvo {

struct McpLineBuffer {
  static constexpr std::size_t kMaxLineBytes = 262144;

  struct Line {
    std::string text;
  };
  struct TooLong {};
  // Bytes that are not UTF-8: answered, so that the client is not left waiting.
  struct NotText {};
  using Item = std::variant<Line, TooLong, NotText>;

  std::size_t maxLineBytes = kMaxLineBytes;
  std::string pending;
  bool discarding = false;

  // Appends `bytes` and gives the items they complete, in order. A trailing carriage return
  // is cut; an empty line gives nothing.
  std::vector<Item> append(std::string_view bytes);
  void append(std::string_view bytes, std::vector<Item>& items);
};

}  // namespace melvo
