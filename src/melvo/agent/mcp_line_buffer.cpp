#include "melvo/agent/mcp_line_buffer.h"

#include <cstring>

#include "melvo/platform/text.h"

namespace melvo {

std::vector<McpLineBuffer::Item> McpLineBuffer::append(std::string_view bytes) {
  std::vector<Item> items;
  append(bytes, items);
  return items;
}

void McpLineBuffer::append(std::string_view bytes, std::vector<Item>& items) {
  while (!bytes.empty()) {
    const void* nl = std::memchr(bytes.data(), '\n', bytes.size());
    if (!nl) {
      if (!discarding) pending.append(bytes);
      break;
    }
    const std::size_t cut = static_cast<const char*>(nl) - bytes.data();
    if (discarding) {
      discarding = false;
    } else {
      std::string text = std::move(pending);
      pending.clear();
      text.append(bytes.substr(0, cut));
      if (!text.empty() && text.back() == '\r') text.pop_back();
      if (text.size() > maxLineBytes) {
        items.emplace_back(TooLong{});
      } else if (!text.empty()) {
        if (text::isValidUtf8(text)) {
          items.emplace_back(Line{std::move(text)});
        } else {
          items.emplace_back(NotText{});
        }
      }
    }
    bytes.remove_prefix(cut + 1);
  }
  // Room for the carriage return of a line of exactly the limit whose newline is still on
  // the way.
  const std::size_t room =
      maxLineBytes + (!pending.empty() && pending.back() == '\r' ? std::size_t{1} : 0);
  if (!discarding && pending.size() > room) {
    items.emplace_back(TooLong{});
    pending.clear();
    pending.shrink_to_fit();
    discarding = true;
  }
}

}  // namespace melvo
