#include "melvo/agent/mcp_socket_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "melvo/agent/mcp_json.h"
#include "melvo/agent/mcp_line_buffer.h"
#include "melvo/platform/i18n.h"

namespace melvo {

namespace {

using Kind = McpSocketServer::StartError::Kind;

const char* kindText(Kind k) {
  switch (k) {
    case Kind::socketFailed:
      return "socketFailed";
    case Kind::bindFailed:
      return "bindFailed";
    case Kind::listenFailed:
      return "listenFailed";
    case Kind::pathTooLong:
      return "pathTooLong";
    case Kind::alreadyRunning:
      return "alreadyRunning";
    case Kind::notASocket:
      return "notASocket";
  }
  return "";
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return addr;
}

// A server that answers at the path: then the socket is not a crash's leftover.
bool someoneListens(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr = addressOf(path);
  bool live = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return live;
}

}  // namespace

McpSocketServer::StartError::StartError(Kind k, int e)
    : std::runtime_error(std::string(kindText(k)) +
                         (e ? std::string(" (") + std::strerror(e) + ")" : std::string())),
      kind(k),
      error(e) {}

std::string McpSocketServer::tooLongAnswer() {
  return encodeResponse(
      McpResponse::failure(std::nullopt, McpError::Code::limitExceeded, tr("1行が長すぎます")));
}

std::string McpSocketServer::notTextAnswer() {
  return encodeResponse(
      McpResponse::failure(std::nullopt, McpError::Code::badRequest, tr("JSON として読めません")));
}

// Everything here runs on the server's thread, in its own io_context.
struct McpSocketServer::Impl {
  asio::io_context context;
  asio::local::stream_protocol::acceptor acceptor{context};
  asio::local::stream_protocol::socket client{context};
  std::vector<char> readBuffer = std::vector<char>(kReadBytes);
  McpLineBuffer lines;
  std::vector<McpLineBuffer::Item> items;
  std::string outgoing;
  const Handler* handler = nullptr;

  // The window in which another thread may write the current line's answer itself: open only
  // while the handler runs and nothing is waiting in `outgoing`.
  std::mutex earlyLock;
  bool earlyOpen = false;
  std::size_t earlySent = 0;  // bytes of answer and newline that went out
  bool earlyFailed = false;   // the client is gone

  void accept() {
    acceptor.async_accept(client, [this](const asio::error_code& ec) {
      if (ec == asio::error::operation_aborted || !acceptor.is_open()) return;
      if (ec) {
        accept();  // a client that left before it was taken (ECONNABORTED and the like)
        return;
      }
      lines = McpLineBuffer{};
      read();
    });
  }

  void endConnection() {
    asio::error_code ignored;
    client.close(ignored);
    if (acceptor.is_open()) accept();
  }

  void read() {
    // Asio retries EINTR itself; 0 bytes arrive as eof.
    client.async_read_some(asio::buffer(readBuffer),
                           [this](const asio::error_code& ec, std::size_t n) {
                             if (ec) {
                               endConnection();
                               return;
                             }
                             answer(std::string_view(readBuffer.data(), n));
                           });
  }

  void answer(std::string_view bytes) {
    items.clear();
    lines.append(bytes, items);
    outgoing.clear();
    for (auto& item : items) {
      if (auto* line = std::get_if<McpLineBuffer::Line>(&item)) {
        {
          std::lock_guard lock(earlyLock);
          earlyOpen = outgoing.empty();
          earlySent = 0;
          earlyFailed = false;
        }
        std::string reply;
        try {
          reply = (*handler)(line->text);
        } catch (const std::exception& e) {
          reply =
              encodeResponse(McpResponse::failure(std::nullopt, McpError::Code::ioError,
                                                  trf("命令の途中で失敗しました：%@", {e.what()})));
        }
        std::size_t sent = 0;
        {
          std::lock_guard lock(earlyLock);
          earlyOpen = false;
          if (earlyFailed) {
            endConnection();
            return;
          }
          sent = earlySent;
        }
        reply.push_back('\n');
        if (sent < reply.size()) outgoing.append(reply, sent);
      } else {
        outgoing += std::holds_alternative<McpLineBuffer::TooLong>(item) ? tooLongAnswer()
                                                                         : notTextAnswer();
        outgoing.push_back('\n');
      }
    }
    if (outgoing.empty()) {
      read();
      return;
    }
    // Asio sends with MSG_NOSIGNAL: a client that left gives EPIPE here, not SIGPIPE.
    asio::async_write(client, asio::buffer(outgoing),
                      [this](const asio::error_code& ec, std::size_t) {
                        if (ec) {
                          endConnection();
                          return;
                        }
                        read();
                      });
  }
};

void McpSocketServer::sendEarly(std::string_view answer) {
  std::lock_guard state(stateLock_);
  if (!impl_) return;
  Impl& impl = *impl_;
  std::lock_guard lock(impl.earlyLock);
  if (!impl.earlyOpen) return;
  impl.earlyOpen = false;  // one answer per line
  const int fd = impl.client.native_handle();
  const std::size_t total = answer.size() + 1;
  std::size_t sent = 0;
  // The server's thread is inside the handler, so nothing else writes to the socket now.
  // Never block the caller: what the socket does not take now, that thread sends.
  while (sent < total) {
    char newline = '\n';
    iovec parts[2];
    int count = 0;
    if (sent < answer.size()) {
      parts[count++] = {const_cast<char*>(answer.data()) + sent, answer.size() - sent};
    }
    parts[count++] = {&newline, 1};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
    const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) impl.earlyFailed = true;
      break;
    }
    sent += static_cast<std::size_t>(n);
  }
  impl.earlySent = sent;
}

McpSocketServer::McpSocketServer(std::filesystem::path socketURL, Handler handler)
    : socketURL_(std::move(socketURL)), handler_(std::move(handler)) {}

McpSocketServer::~McpSocketServer() {
  stop();
}

bool McpSocketServer::isListening() const {
  std::lock_guard lock(stateLock_);
  return impl_ != nullptr && !stopped_;
}

void McpSocketServer::start() {
  std::lock_guard lock(stateLock_);
  if (impl_) throw StartError(Kind::alreadyRunning, 0);
  const std::string path = socketURL_.string();
  if (path.size() > kMaxPathBytes) throw StartError(Kind::pathTooLong, 0);

  // The folder is the second fence: 0700 whether it was made now or found.
  const auto folder = socketURL_.parent_path();
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  ::chmod(folder.c_str(), 0700);

  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    // Never remove a file that this server did not make.
    if (!S_ISSOCK(st.st_mode)) throw StartError(Kind::notASocket, 0);
    if (someoneListens(path)) throw StartError(Kind::alreadyRunning, 0);
    ::unlink(path.c_str());  // what a crash left
  }

  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw StartError(Kind::socketFailed, errno);
  sockaddr_un addr = addressOf(path);
  // The file must never exist with looser rights, not even between bind and chmod.
  const mode_t old = ::umask(0177);
  const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  const int bindErrno = errno;
  ::umask(old);
  if (bound != 0) {
    ::close(fd);
    throw StartError(Kind::bindFailed, bindErrno);
  }
  ::chmod(path.c_str(), 0600);
  if (::listen(fd, kBacklog) != 0) {
    const int e = errno;
    ::close(fd);
    ::unlink(path.c_str());
    throw StartError(Kind::listenFailed, e);
  }

  auto impl = std::make_unique<Impl>();
  impl->handler = &handler_;
  asio::error_code assignError;
  impl->acceptor.assign(asio::local::stream_protocol(), fd, assignError);
  if (assignError) {
    ::close(fd);
    ::unlink(path.c_str());
    throw StartError(Kind::listenFailed, assignError.value());
  }
  impl->accept();
  impl_ = std::move(impl);
  stopped_ = false;
  stopping_ = false;
  thread_ = std::thread([ctx = &impl_->context] {
    pthread_setname_np(pthread_self(), "melvo.mcp.accept");
    ctx->run();
  });
}

void McpSocketServer::stop() {
  {
    std::lock_guard lock(stateLock_);
    if (!impl_ || stopped_) return;
    stopped_ = true;
    stopping_ = true;
  }
  Impl* impl = impl_.get();
  asio::post(impl->context, [impl] {
    asio::error_code ignored;
    impl->acceptor.close(ignored);
    impl->client.close(ignored);
    impl->context.stop();
  });
  if (thread_.joinable()) thread_.join();
  ::unlink(socketURL_.c_str());
  std::lock_guard lock(stateLock_);
  impl_.reset();
}

}  // namespace melvo
