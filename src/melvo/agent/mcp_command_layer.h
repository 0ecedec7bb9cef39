// Turns one agent request into one answer. A table of commands with the argument names each
// takes; unknown names are refused, not ignored, so a misspelt option cannot silently do less
// than asked. Every edit checks all of its input first and then commits once, as one undo
// step labelled "AI：…", so the user can see and undo what the agent did.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/agent/mcp_host.h"
#include "melvo/agent/mcp_json.h"

namespace melvo {

namespace mcp {
struct Memo;
}

class McpCommandLayer {
 public:
  struct ArgError {
    McpError::Code code = McpError::Code::badRequest;
    std::string message;
  };

  enum class Kind { read, change, edit, state, file };
  struct CommandInfo {
    const char* name;
    Kind kind;
    std::vector<const char*> arguments;
    const char* description;  // for the bridge's tool list (English, for the agent)
    std::vector<const char*> required = {};
  };

  static constexpr std::size_t kEditLimit = 2000;
  static constexpr std::size_t kAddLimit = 500;
  static constexpr std::size_t kTrackNoteLimit = 200000;
  static constexpr std::size_t kLyricCharacters = 64;
  static constexpr std::size_t kPageDefault = 200;
  static constexpr std::size_t kPageLimit = 2000;

  explicit McpCommandLayer(McpHost host);

  McpResponse handle(const McpRequest& request);
  // Decodes, runs and encodes: what the socket's handler does with a line.
  std::string handleLine(std::string_view line);

  static const std::vector<CommandInfo>& commands();

  McpHost& host() { return host_; }

 private:
  McpHost host_;
  std::shared_ptr<mcp::Memo> memo_;
};

}  // namespace melvo
