// The agent port: a unix stream socket that speaks one JSON object per line.
//
// Only the owner can connect: the socket is 0600 in a 0700 folder, and that mode is the
// whole access check. One client is served at a time, to the end of its connection; others
// wait in the backlog.
//
// Accepting, reading and the handler run on the main queue, one step after another: a serial
// queue of work that lives on the main thread. Asio's reads never block, so they need no
// thread of their own, and the commands must run on the main thread anyway; a thread for the
// socket would cost two more thread switches per command, which was most of a round trip.
// One line is handled per turn of the queue, so the user's own events interleave with a long
// batch of commands.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

namespace melvo {

class EventLoop;

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

  // The handler gets one line (no newline, valid UTF-8) and gives one answer line. It runs on
  // the loop's thread.
  using Handler = std::function<std::string(const std::string& line)>;

  McpSocketServer(std::filesystem::path socketURL, Handler handler, EventLoop& loop);
  ~McpSocketServer();
  McpSocketServer(const McpSocketServer&) = delete;
  McpSocketServer& operator=(const McpSocketServer&) = delete;

  // Throws StartError; nothing is left listening after a failure.
  void start();
  // Closes the port and removes the socket file. Lines the client sent that were not run yet
  // are not run: each is answered that the port was closed. Call it on the loop's thread, or
  // while no thread runs the loop.
  void stop();

  bool isListening() const;
  const std::filesystem::path& socketURL() const { return socketURL_; }

  // The answer to a line over the limit, and to bytes that are not text.
  static std::string tooLongAnswer();
  static std::string notTextAnswer();
  // The answer to a line that was not run because the port closed; it keeps the line's id.
  static std::string closedAnswer(std::string_view line);

 private:
  struct Impl;
  std::filesystem::path socketURL_;
  Handler handler_;
  EventLoop& loop_;
  mutable std::mutex stateLock_;
  std::shared_ptr<Impl> impl_;  // shared with the queued work, which may outlive a stop
  bool stopped_ = true;
};

}  // namespace melvo
