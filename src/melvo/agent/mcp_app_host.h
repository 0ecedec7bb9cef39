// The agent port bound to the running program: McpHost closures over AppState, and the
// socket whose commands hop to the main queue and run there between the user's events.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>

#include "melvo/agent/mcp_command_layer.h"
#include "melvo/agent/mcp_host.h"
#include "melvo/agent/mcp_socket_server.h"

namespace melvo {

class AppState;
class EventLoop;

McpHost makeAppHost(AppState& app);

class McpAppPort {
 public:
  McpAppPort(AppState& app, EventLoop& loop, std::filesystem::path socketURL);
  ~McpAppPort();

  // Throws McpSocketServer::StartError.
  void start();
  // A command still waiting for the main queue is not run: its answer says the port closed.
  void stop();
  bool isListening() const { return server_.isListening(); }
  McpCommandLayer& layer() { return layer_; }

 private:
  std::string runOnMain(const std::string& line);

  EventLoop& loop_;
  McpCommandLayer layer_;
  McpSocketServer server_;
};

}  // namespace melvo
