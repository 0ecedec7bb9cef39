// The Model Context Protocol side of `melvo bridge`: one JSON-RPC message in, its answer out,
// each tool call forwarded to the agent port. The stdio loop and the HTTP server share it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "melvo/agent/mcp_json.h"

namespace melvo::cli {

class McpBridge {
 public:
  // `socket` empty: the agent port's usual path. `fixtures` adds the conformance suite's tools.
  McpBridge(const std::string& socket, double waitSeconds, bool fixtures = false);
  ~McpBridge();

  // The answer to one message, or nothing for a notification or a response.
  std::optional<McpJSON> handle(const std::string& message);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Serves the bridge over the protocol's Streamable HTTP transport at http://ADDRESS:PORT/mcp,
// on a loopback address only. Runs until SIGINT or SIGTERM; the exit status.
int serveHttp(McpBridge& bridge, const std::string& address);

}  // namespace melvo::cli
