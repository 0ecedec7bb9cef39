#include "melvo/agent/mcp_socket_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <cstring>
#include <optional>
#include <variant>
#include <vector>

#include "melvo/agent/mcp_json.h"
#include "melvo/agent/mcp_line_buffer.h"
#include "melvo/platform/event_loop.h"
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

std::string McpSocketServer::closedAnswer(std::string_view line) {
  std::optional<std::string> id;
  try {
    id = decodeRequest(line).id;
  } catch (const McpDecodeError&) {
  }
  return encodeResponse(
      McpResponse::failure(id, McpError::Code::notAvailable,
                           tr("「AI と繋ぐ」が切られたので、この命令は行いませんでした")));
}

// Everything here runs on the loop's thread. Each piece of queued work holds the Impl, so a
// stop may let go of it while work of the closed port is still queued.
struct McpSocketServer::Impl : std::enable_shared_from_this<Impl> {
  Impl(asio::io_context& io, Handler h)
      : context(io), acceptor(io), client(io), handler(std::move(h)) {}

  asio::io_context& context;
  asio::local::stream_protocol::acceptor acceptor;
  asio::local::stream_protocol::socket client;
  Handler handler;
  std::vector<char> readBuffer = std::vector<char>(kReadBytes);
  McpLineBuffer lines;
  std::vector<McpLineBuffer::Item> items;
  std::size_t next = 0;  // the first item of the last read not answered yet
  std::string outgoing;
  bool writing = false;  // an answer is on its way
  bool stopped = false;

  // What the client sent, without waiting: the byte count, 0 when it left, -1 with errno.
  ssize_t receiveNow() {
    for (;;) {
      const ssize_t n =
          ::recv(client.native_handle(), readBuffer.data(), readBuffer.size(), MSG_DONTWAIT);
      if (n >= 0 || errno != EINTR) return n;
    }
  }

  // Writes what the socket takes now; the bytes written, or nothing when the client left.
  // MSG_NOSIGNAL: a client that left gives EPIPE here, not SIGPIPE.
  std::optional<std::size_t> sendNow(std::string_view bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = ::send(client.native_handle(), bytes.data() + sent, bytes.size() - sent,
                               MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n < 0) return std::nullopt;
      sent += static_cast<std::size_t>(n);
    }
    return sent;
  }

  static std::string answerWithout(const McpLineBuffer::Item& item) {
    return std::holds_alternative<McpLineBuffer::TooLong>(item) ? tooLongAnswer() : notTextAnswer();
  }

  void accept() {
    acceptor.async_accept(client, [self = shared_from_this()](const asio::error_code& ec) {
      if (self->stopped) return;
      if (ec) {
        self->accept();  // a client that left before it was taken (ECONNABORTED and the like)
        return;
      }
      self->lines = McpLineBuffer{};
      self->read();
    });
  }

  void endConnection() {
    asio::error_code ignored;
    client.close(ignored);
    items.clear();
    next = 0;
    if (!stopped) accept();
  }

  // The end of a wait or a write: goes on with `step`, unless the port closed or the client
  // left.
  template <typename... Rest>
  auto then(void (Impl::*step)()) {
    return [self = shared_from_this(), step](const asio::error_code& ec, Rest...) {
      self->writing = false;
      if (self->stopped) return;
      if (ec) {
        self->endConnection();
        return;
      }
      ((*self).*step)();
    };
  }

  // Waits until the client sends, then reads. The bytes are taken by receive(), never by a read
  // of Asio's whose handler is still queued, so that a stop finds every line the client sent
  // either in `items` or still in the socket. Waiting first also saves a read that would find
  // nothing: a client mostly waits for its answer before it sends again.
  void read() { client.async_wait(asio::socket_base::wait_read, then(&Impl::receive)); }

  void receive() {
    const ssize_t n = receiveNow();
    if (n > 0) {
      items.clear();
      next = 0;
      lines.append(std::string_view(readBuffer.data(), static_cast<std::size_t>(n)), items);
      answerNext();
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      read();
    } else {
      endConnection();  // 0 bytes: the client left
    }
  }

  // Answers the next item; the one after it waits for a later turn of the queue.
  void answerNext() {
    if (next == items.size()) {
      read();
      return;
    }
    McpLineBuffer::Item& item = items[next++];
    if (auto* line = std::get_if<McpLineBuffer::Line>(&item)) {
      // Moved out first: a command that lets the queue turn may see the port close and the
      // waiting lines go.
      const std::string text = std::move(line->text);
      try {
        outgoing = handler(text);
      } catch (const std::exception& e) {
        outgoing =
            encodeResponse(McpResponse::failure(std::nullopt, McpError::Code::ioError,
                                                trf("命令の途中で失敗しました：%@", {e.what()})));
      }
    } else {
      outgoing = answerWithout(item);
    }
    if (stopped) return;  // the port closed while the command ran: the connection is gone
    outgoing.push_back('\n');
    // Most answers fit the socket's buffer: written at once, without a trip through Asio.
    const auto sent = sendNow(outgoing);
    if (!sent) {
      endConnection();
      return;
    }
    if (*sent == outgoing.size()) {
      answered();
      return;
    }
    writing = true;
    asio::async_write(client, asio::buffer(outgoing.data() + *sent, outgoing.size() - *sent),
                      then<std::size_t>(&Impl::answered));
  }

  // The next line waits for its turn behind whatever else is queued. So does the next read: the
  // wait's end comes through the queue too.
  void answered() {
    if (next == items.size()) {
      read();
      return;
    }
    asio::post(context, [self = shared_from_this()] {
      if (!self->stopped) self->answerNext();
    });
  }

  void close() {
    if (stopped) return;
    stopped = true;
    // Mid-answer, the client would get a cut line followed by others: it gets nothing more.
    if (client.is_open() && !writing) refuseWaiting();
    asio::error_code ignored;
    acceptor.close(ignored);
    client.close(ignored);
  }

  // The lines that were read but not run, and those the client sent that were not read yet:
  // none is run, and each is told why.
  void refuseWaiting() {
    std::string refusals;
    auto refuse = [&](std::size_t from) {
      for (std::size_t i = from; i < items.size(); ++i) {
        const auto* line = std::get_if<McpLineBuffer::Line>(&items[i]);
        refusals += line ? closedAnswer(line->text) : answerWithout(items[i]);
        refusals.push_back('\n');
      }
      items.clear();
    };
    refuse(next);
    for (ssize_t n; (n = receiveNow()) > 0;) {
      lines.append(std::string_view(readBuffer.data(), static_cast<std::size_t>(n)), items);
      refuse(0);
    }
    sendNow(refusals);  // a client that does not read its answers is not waited for
  }
};

McpSocketServer::McpSocketServer(std::filesystem::path socketURL, Handler handler, EventLoop& loop)
    : socketURL_(std::move(socketURL)), handler_(std::move(handler)), loop_(loop) {}

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

  auto impl = std::make_shared<Impl>(loop_.context(), handler_);
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
}

void McpSocketServer::stop() {
  std::shared_ptr<Impl> impl;
  {
    std::lock_guard lock(stateLock_);
    if (!impl_ || stopped_) return;
    stopped_ = true;
    impl = std::move(impl_);
  }
  impl->close();
  ::unlink(socketURL_.c_str());
}

}  // namespace melvo
