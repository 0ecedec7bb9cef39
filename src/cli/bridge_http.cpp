// `melvo bridge --http`: the bridge over the protocol's Streamable HTTP transport. One
// endpoint, /mcp: a POST carries one JSON-RPC message and gets its answer as JSON; we never
// speak first, so there is no event stream to offer and a GET is 405. Sessions are named by
// Mcp-Session-Id from initialize on.
//
// It listens on loopback only and checks Host and Origin, so that a web page cannot reach
// it through a rebound DNS name: a browser is the one stranger that can talk to 127.0.0.1.
#include <asio.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "cli/bridge.h"
#include "cli/command.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"
#include "melvo/platform/uuid.h"

namespace melvo::cli {
namespace {

using asio::ip::tcp;

constexpr std::size_t kHeaderLimit = 64 * 1024;
constexpr std::size_t kBodyLimit = 4 * 1024 * 1024;
constexpr const char* kEndpoint = "/mcp";
constexpr const char* kHeaderVersions[] = {"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05"};

struct Request {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  const std::string* header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? nullptr : &it->second;
  }
};

struct Response {
  int status = 200;
  std::string contentType;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  bool close = false;
};

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 202:
      return "Accepted";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 406:
      return "Not Acceptable";
    case 411:
      return "Length Required";
    case 413:
      return "Content Too Large";
    case 415:
      return "Unsupported Media Type";
    case 431:
      return "Request Header Fields Too Large";
    default:
      return "Not Implemented";
  }
}

std::string trim(std::string_view s) {
  const auto b = s.find_first_not_of(" \t");
  if (b == std::string_view::npos) return {};
  const auto e = s.find_last_not_of(" \t");
  return std::string(s.substr(b, e - b + 1));
}

// localhost, 127.0.0.1 (any of 127/8) or [::1], with or without a port.
bool isLoopbackHost(std::string_view host) {
  std::string h(host);
  if (!h.empty() && h.front() == '[') {
    const auto close = h.find(']');
    if (close == std::string::npos) return false;
    const std::string rest = h.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') return false;
    h = h.substr(1, close - 1);
  } else if (const auto colon = h.find(':'); colon != std::string::npos) {
    h = h.substr(0, colon);
  }
  h = text::asciiLower(h);
  if (h == "localhost") return true;
  asio::error_code ec;
  const auto address = asio::ip::make_address(h, ec);
  return !ec && address.is_loopback();
}

bool isLoopbackOrigin(std::string_view origin) {
  for (std::string_view scheme : {"http://", "https://"}) {
    if (origin.substr(0, scheme.size()) == scheme) {
      std::string_view rest = origin.substr(scheme.size());
      return isLoopbackHost(rest.substr(0, rest.find('/')));
    }
  }
  return false;
}

Response plain(int status, std::string text) {
  return Response{status, "text/plain; charset=utf-8", std::move(text) + "\n", {}, false};
}

Response rpcFailure(int status, int code, const std::string& message) {
  McpJSON body = McpJSON::Object{{"error", McpJSON::Object{{"code", code}, {"message", message}}},
                                 {"id", McpJSON()},
                                 {"jsonrpc", "2.0"}};
  return Response{status, "application/json", encodeLine(body), {}, false};
}

class Server {
 public:
  explicit Server(McpBridge& bridge) : bridge_(bridge) {}

  Response handle(const Request& r) {
    // Host and Origin first: a page of another site must get nothing, not even a 404.
    const std::string* host = r.header("host");
    if (!host || !isLoopbackHost(*host)) return plain(403, "Forbidden: Host must be loopback");
    if (const std::string* origin = r.header("origin"); origin && !isLoopbackOrigin(*origin)) {
      return plain(403, "Forbidden: Origin must be loopback");
    }
    const std::string path = r.target.substr(0, r.target.find('?'));
    if (path != kEndpoint) return plain(404, "Not Found: the endpoint is /mcp");
    if (r.method == "POST") return post(r);
    if (r.method == "DELETE") {
      const std::string* id = r.header("mcp-session-id");
      if (!id) return plain(400, "Bad Request: Mcp-Session-Id header is required");
      if (!sessions_.erase(*id)) return plain(404, "Session not found");
      return Response{200, "", "", {}, false};
    }
    Response no = plain(405, "Method Not Allowed: this server sends no stream of its own");
    no.headers.emplace_back("Allow", "POST, DELETE");
    return no;
  }

 private:
  Response post(const Request& r) {
    const std::string* type = r.header("content-type");
    if (!type || text::asciiLower(*type).find("application/json") == std::string::npos) {
      return rpcFailure(415, -32000,
                        "Unsupported Media Type: Content-Type must be application/json");
    }
    if (const std::string* accept = r.header("accept")) {
      const std::string a = text::asciiLower(*accept);
      if (a.find("application/json") == std::string::npos &&
          a.find("application/*") == std::string::npos && a.find("*/*") == std::string::npos) {
        return rpcFailure(406, -32000, "Not Acceptable: the client must accept application/json");
      }
    }
    McpJSON message;
    try {
      message = McpJSON::parse(r.body);
    } catch (const JsonError&) {
      return rpcFailure(400, -32700, "Parse error");
    }
    const McpJSON* method = message.isObject() ? message.find("method") : nullptr;
    const bool initialize = method && method->isString() && method->asString() == "initialize";
    std::string session;
    if (!initialize) {
      const std::string* id = r.header("mcp-session-id");
      if (!id) return rpcFailure(400, -32000, "Bad Request: Mcp-Session-Id header is required");
      if (!sessions_.count(*id)) return rpcFailure(404, -32001, "Session not found");
      session = *id;
      if (const std::string* v = r.header("mcp-protocol-version")) {
        if (std::none_of(std::begin(kHeaderVersions), std::end(kHeaderVersions),
                         [&](const char* k) { return *v == k; })) {
          return rpcFailure(400, -32000, "Bad Request: unsupported MCP-Protocol-Version " + *v);
        }
      }
    }
    auto answer = bridge_.handle(r.body);
    if (!answer) return Response{202, "", "", {}, false};  // a notification or a response
    Response out{200, "application/json", encodeLine(*answer), {}, false};
    if (initialize && !answer->find("error")) {
      session = Uuid::random().toString();
      sessions_.insert(session);
      out.headers.emplace_back("Mcp-Session-Id", session);
    }
    return out;
  }

  McpBridge& bridge_;
  std::set<std::string> sessions_;
};

// One client connection: requests read and answered in turn, kept alive until either side
// closes. The bridge's work is quick or bounded by its wait, so it runs on the io thread.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, Server& server) : socket_(std::move(socket)), server_(server) {}

  void start() { readHead(); }

 private:
  void readHead() {
    auto self = shared_from_this();
    asio::async_read_until(socket_, asio::dynamic_buffer(buffer_, kHeaderLimit), "\r\n\r\n",
                           [self](const asio::error_code& ec, std::size_t n) {
                             if (ec == asio::error::not_found) {
                               self->send(plain(431, "Request header too large"), true);
                             } else if (!ec) {
                               self->parseHead(n);
                             }
                           });
  }

  void parseHead(std::size_t headLength) {
    request_ = Request{};
    const std::string head = buffer_.substr(0, headLength - 4);
    buffer_.erase(0, headLength);
    std::size_t pos = head.find("\r\n");
    const std::string line = head.substr(0, pos);
    const auto sp1 = line.find(' ');
    const auto sp2 = line.find(' ', sp1 == std::string::npos ? sp1 : sp1 + 1);
    if (sp1 == std::string::npos || sp2 == std::string::npos ||
        line.compare(sp2 + 1, 5, "HTTP/") != 0) {
      return send(plain(400, "Bad Request"), true);
    }
    request_.method = line.substr(0, sp1);
    request_.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    const bool http10 = line.substr(sp2 + 1) == "HTTP/1.0";
    while (pos != std::string::npos) {
      const std::size_t next = head.find("\r\n", pos + 2);
      const std::string field =
          head.substr(pos + 2, next == std::string::npos ? next : next - pos - 2);
      pos = next;
      const auto colon = field.find(':');
      if (colon == std::string::npos || colon == 0) return send(plain(400, "Bad Request"), true);
      std::string name = text::asciiLower(field.substr(0, colon));
      request_.headers[name] = trim(std::string_view(field).substr(colon + 1));
    }
    const std::string* connection = request_.header("connection");
    keepAlive_ = connection ? text::asciiLower(*connection) != "close" : !http10;
    if (request_.header("transfer-encoding")) {
      return send(plain(501, "Not Implemented: send the body with Content-Length"), true);
    }
    std::size_t length = 0;
    if (const std::string* cl = request_.header("content-length")) {
      if (cl->empty() || cl->find_first_not_of("0123456789") != std::string::npos ||
          cl->size() > 9) {
        return send(plain(400, "Bad Request: Content-Length"), true);
      }
      length = std::stoul(*cl);
    } else if (request_.method == "POST") {
      return send(plain(411, "Length Required"), true);
    }
    if (length > kBodyLimit) return send(plain(413, "Content Too Large"), true);
    readBody(length);
  }

  void readBody(std::size_t length) {
    if (buffer_.size() >= length) {
      request_.body = buffer_.substr(0, length);
      buffer_.erase(0, length);
      Response r = server_.handle(request_);
      return send(std::move(r), !keepAlive_);
    }
    auto self = shared_from_this();
    asio::async_read(socket_, asio::dynamic_buffer(buffer_),
                     asio::transfer_exactly(length - buffer_.size()),
                     [self, length](const asio::error_code& ec, std::size_t) {
                       if (!ec) self->readBody(length);
                     });
  }

  void send(Response r, bool close) {
    std::string out = "HTTP/1.1 " + std::to_string(r.status) + " " + reason(r.status) + "\r\n";
    if (!r.contentType.empty()) out += "Content-Type: " + r.contentType + "\r\n";
    for (const auto& [name, value] : r.headers) out += name + ": " + value + "\r\n";
    out += "Content-Length: " + std::to_string(r.body.size()) + "\r\n";
    if (close) out += "Connection: close\r\n";
    out += "\r\n" + r.body;
    out_ = std::move(out);
    auto self = shared_from_this();
    asio::async_write(socket_, asio::buffer(out_),
                      [self, close](const asio::error_code& ec, std::size_t) {
                        if (ec || close) {
                          asio::error_code ignored;
                          self->socket_.shutdown(tcp::socket::shutdown_both, ignored);
                          return;
                        }
                        self->readHead();
                      });
  }

  tcp::socket socket_;
  Server& server_;
  std::string buffer_;
  std::string out_;
  Request request_;
  bool keepAlive_ = true;
};

void accept(tcp::acceptor& acceptor, Server& server) {
  acceptor.async_accept([&acceptor, &server](const asio::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted) return;
    if (!ec) std::make_shared<Connection>(std::move(socket), server)->start();
    accept(acceptor, server);
  });
}

}  // namespace

int serveHttp(McpBridge& bridge, const std::string& address) {
  // ADDRESS:PORT, the address in brackets when it is IPv6.
  const auto colon = address.rfind(':');
  std::string host = colon == std::string::npos ? std::string() : address.substr(0, colon);
  const std::string port = colon == std::string::npos ? std::string() : address.substr(colon + 1);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host == "localhost") host = "127.0.0.1";
  asio::error_code ec;
  const auto ip = asio::ip::make_address(host, ec);
  if (ec || port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535) {
    printError(trf("--http は 127.0.0.1:PORT の形で渡してください：%@", {address}));
    return 2;
  }
  if (!ip.is_loopback()) {
    printError(
        trf("--http はループバック（127.0.0.1・::1・localhost）にしか開けません：%@", {address}));
    return 2;
  }
  asio::io_context io;
  tcp::acceptor acceptor(io);
  const tcp::endpoint endpoint(ip, static_cast<unsigned short>(std::stoul(port)));
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    printError(trf("%@ で待ち受けられませんでした：%@", {address, ec.message()}));
    return 1;
  }
  Server server(bridge);
  accept(acceptor, server);
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&io](const asio::error_code&, int) { io.stop(); });
  // The chosen port (PORT may be 0), for whoever started us.
  const auto bound = acceptor.local_endpoint();
  const std::string shown = bound.address().is_v6() ? "[" + bound.address().to_string() + "]"
                                                    : bound.address().to_string();
  std::printf("http://%s:%u%s\n", shown.c_str(), static_cast<unsigned>(bound.port()), kEndpoint);
  std::fflush(stdout);
  io.run();
  return 0;
}

}  // namespace melvo::cli
