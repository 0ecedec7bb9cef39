#include "agent/agent_client.h"

#include "support/test_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace melvo::test {

AgentClient::AgentClient(const std::filesystem::path& socket) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    error_ = errno;
    ::close(fd);
    return;
  }
  fd_ = fd;
}

AgentClient::~AgentClient() {
  close();
}

void AgentClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void AgentClient::send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("send failed");
    sent += static_cast<std::size_t>(n);
  }
}

std::optional<std::string> AgentClient::readLine(std::chrono::milliseconds limit) {
  return readLineFrom(fd_, buffer_, limit);
}

std::string AgentClient::call(const std::string& line) {
  send(line + "\n");
  return readLine().value_or("<no answer>");
}

}  // namespace melvo::test
