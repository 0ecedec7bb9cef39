// A plain unix-socket client for the agent port tests: raw bytes out, answer lines in.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace melvo::test {

class AgentClient {
 public:
  // Connects at once; connected() tells whether it worked (errno in error()).
  explicit AgentClient(const std::filesystem::path& socket);
  ~AgentClient();
  AgentClient(const AgentClient&) = delete;
  AgentClient& operator=(const AgentClient&) = delete;

  bool connected() const { return fd_ >= 0; }
  int error() const { return error_; }
  void send(const std::string& bytes);
  // The next line without its newline; nothing on timeout or when the server closed.
  std::optional<std::string> readLine(std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Sends `line` and a newline, and gives the answer.
  std::string call(const std::string& line);
  void close();

 private:
  int fd_ = -1;
  int error_ = 0;
  std::string buffer_;
};

}  // namespace melvo::test
