// The agent port bound to the running program: McpHost closures over AppState, and the
// socket whose commands run on the main queue between the user's events.
#pragma once

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
  // Commands the agent sent that were not run yet are not run: each answer says the port
  // closed. On the main queue's thread, or while no thread runs it.
  void stop();
  bool isListening() const { return server_.isListening(); }
  McpCommandLayer& layer() { return layer_; }

 private:
  McpCommandLayer layer_;
  McpSocketServer server_;
};

}  // namespace melvo
