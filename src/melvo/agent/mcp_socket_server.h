// The agent port: a unix stream socket that speaks one JSON object per line.
//
// Only the owner can connect: the socket is 0600 in a 0700 folder, and that mode is the
// whole access check. One client is served at a time, to the end of its connection; others
// wait in the backlog. Accepting and reading run on the server's own thread; the handler is
// called there with each line and returns the answer line.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace melvo {

class McpSocketServer {
 public:
  struct StartError : std::runtime_error {
    enum class Kind {
      socketFailed,
      bindFailed,
      listenFailed,
      pathTooLong,
      alreadyRunning,
      notASocket
    };
    StartError(Kind kind, int error);
    Kind kind;
    int error;  // errno for the three system failures, else 0
  };

  static constexpr std::size_t kReadBytes = 16384;
  static constexpr int kBacklog = 4;
  static constexpr std::size_t kMaxPathBytes = 103;

  // The handler gets one line (no newline, valid UTF-8) and gives one answer line.
  using Handler = std::function<std::string(const std::string& line)>;

  McpSocketServer(std::filesystem::path socketURL, Handler handler);
  ~McpSocketServer();
  McpSocketServer(const McpSocketServer&) = delete;
  McpSocketServer& operator=(const McpSocketServer&) = delete;

  // Throws StartError; nothing is left listening after a failure.
  void start();
  // Closes the port and removes the socket file; waits for the server's thread. The handler
  // must not wait for the caller's thread unchecked (see stopping()).
  void stop();

  bool isListening() const;
  // True from the moment stop() begins: a handler waiting for another thread gives up.
  bool stopping() const { return stopping_.load(); }
  const std::filesystem::path& socketURL() const { return socketURL_; }

  // Called by a handler's work on another thread (the main queue) with the answer the handler
  // is about to return: sends it and its newline to the client at once, so the client is woken
  // by the answer itself rather than after a hand-back to the server's thread. The handler
  // still returns the same answer; what went out is not sent again. Does nothing when an
  // earlier answer of the same read is still waiting to go, so answers keep their order.
  void sendEarly(std::string_view answer);

  // The answer to a line over the limit, and to bytes that are not text.
  static std::string tooLongAnswer();
  static std::string notTextAnswer();

 private:
  struct Impl;
  std::filesystem::path socketURL_;
  Handler handler_;
  mutable std::mutex stateLock_;
  std::unique_ptr<Impl> impl_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  bool stopped_ = true;
};

}  // namespace melvo
