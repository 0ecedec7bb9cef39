// melvo bridge: a Model Context Protocol server on stdin and stdout that forwards each tool
// call to the agent port of a running `melvo serve`. Any MCP client can then drive Melvo
// without code of its own: the port's commands are its tools, one JSON schema each.
//
// JSON-RPC 2.0, one message per line. The socket is reached on the first tool call and
// waited for while the program starts, so a client may start the bridge first.
#include <CLI/CLI.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "cli/bridge.h"
#include "cli/command.h"
#include "melvo/agent/mcp_command_layer.h"
#include "melvo/agent/mcp_json.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"

namespace melvo::cli {
namespace {

constexpr const char* kProtocolVersion = "2025-06-18";
constexpr const char* kKnownVersions[] = {"2025-06-18", "2025-03-26", "2024-11-05"};

// The tools the protocol's conformance suite calls by name. Offered only when asked for
// (--conformance-fixtures), so that the suite can check how a tool's text and error results
// travel; an agent never sees them.
McpJSON fixtureTools() {
  McpJSON tools = McpJSON::array();
  auto noArgs = [] {
    return McpJSON(McpJSON::Object{{"properties", McpJSON::object()}, {"type", "object"}});
  };
  tools.push(McpJSON::Object{{"description", "Conformance fixture: a plain text result."},
                             {"inputSchema", noArgs()},
                             {"name", "test_simple_text"}});
  tools.push(McpJSON::Object{{"description", "Conformance fixture: always a tool error."},
                             {"inputSchema", noArgs()},
                             {"name", "test_error_handling"}});
  return tools;
}

struct Options {
  std::string socket;
  double waitSeconds = 30;
  std::string http;
  bool fixtures = false;
};

// MCP clients expect tool names of letters, digits, "_" and "-": "track.notes" is offered as
// "track_notes".
std::string toolName(std::string_view command) {
  std::string s(command);
  for (char& c : s) {
    if (c == '.') c = '_';
  }
  return s;
}

McpJSON argumentSchema(std::string_view name) {
  auto integer = [](std::optional<std::int64_t> min = std::nullopt) {
    McpJSON j = McpJSON::Object{{"type", "integer"}};
    if (min) j["minimum"] = *min;
    return j;
  };
  auto object = [](McpJSON::Object properties, std::vector<const char*> required) {
    McpJSON req = McpJSON::array();
    for (const char* r : required) req.push(r);
    return McpJSON(McpJSON::Object{{"additionalProperties", false},
                                   {"properties", std::move(properties)},
                                   {"required", std::move(req)},
                                   {"type", "object"}});
  };
  auto arrayOf = [](McpJSON items) {
    return McpJSON(McpJSON::Object{{"items", std::move(items)}, {"type", "array"}});
  };
  if (name == "track") return integer(0);
  if (name == "fromTick" || name == "toTick" || name == "offset" || name == "tick") {
    return integer(0);
  }
  if (name == "limit") return integer(1);
  if (name == "issue" || name == "suggestion") return integer(0);
  if (name == "set") return McpJSON::Object{{"maximum", 127}, {"minimum", 1}, {"type", "integer"}};
  if (name == "add") {
    return McpJSON::Object{{"maximum", 126}, {"minimum", -126}, {"type", "integer"}};
  }
  if (name == "indices") return arrayOf(integer(0));
  if (name == "volume")
    return McpJSON::Object{{"maximum", 1.5}, {"minimum", 0}, {"type", "number"}};
  if (name == "pan") return McpJSON::Object{{"maximum", 1}, {"minimum", -1}, {"type", "number"}};
  if (name == "mute" || name == "solo" || name == "all" || name == "clearRange" ||
      name == "dryRun") {
    return McpJSON::Object{{"type", "boolean"}};
  }
  if (name == "ramp") {
    return object({{"from", integer(1)}, {"to", integer(1)}}, {"from", "to"});
  }
  if (name == "notes") {
    return arrayOf(object({{"duration", integer(1)},
                           {"lyric", McpJSON::Object{{"type", "string"}}},
                           {"pitch", integer(0)},
                           {"tick", integer(0)},
                           {"velocity", integer(1)}},
                          {"tick", "duration", "pitch"}));
  }
  return McpJSON::Object{{"type", "string"}};  // path, category, label, mode, scope
}

McpJSON editsSchema(std::string_view command) {
  McpJSON::Object props{{"index", McpJSON::Object{{"minimum", 0}, {"type", "integer"}}}};
  auto boolean = McpJSON(McpJSON::Object{{"type", "boolean"}});
  auto integer = McpJSON(McpJSON::Object{{"type", "integer"}});
  if (command == "lyrics.set") {
    props.emplace("lyric", McpJSON::Object{{"type", "string"}});
  } else if (command == "notes.marks") {
    props.emplace("breathAfter", boolean);
    props.emplace("slurToNext", boolean);
  } else {
    for (const char* k : {"tick", "duration", "pitch", "velocity"}) props.emplace(k, integer);
    props.emplace("lyric", McpJSON::Object{{"type", "string"}});
  }
  McpJSON required = McpJSON::array();
  required.push("index");
  if (command == "lyrics.set") required.push("lyric");
  return McpJSON::Object{{"items", McpJSON::Object{{"additionalProperties", false},
                                                   {"properties", std::move(props)},
                                                   {"required", std::move(required)},
                                                   {"type", "object"}}},
                         {"minItems", 1},
                         {"type", "array"}};
}

McpJSON toolList() {
  McpJSON tools = McpJSON::array();
  for (const auto& c : McpCommandLayer::commands()) {
    McpJSON::Object props;
    for (const char* a : c.arguments) {
      props.emplace(a, std::string_view(a) == "edits" ? editsSchema(c.name) : argumentSchema(a));
    }
    McpJSON required = McpJSON::array();
    for (const char* r : c.required) required.push(r);
    McpJSON schema = McpJSON::Object{
        {"additionalProperties", false}, {"properties", std::move(props)}, {"type", "object"}};
    if (required.size()) schema["required"] = std::move(required);
    const bool readOnly = c.kind == McpCommandLayer::Kind::read;
    tools.push(McpJSON::Object{
        {"annotations", McpJSON::Object{{"destructiveHint", false}, {"readOnlyHint", readOnly}}},
        {"description", c.description},
        {"inputSchema", std::move(schema)},
        {"name", toolName(c.name)}});
  }
  return tools;
}

const McpCommandLayer::CommandInfo* commandOfTool(std::string_view tool) {
  for (const auto& c : McpCommandLayer::commands()) {
    if (toolName(c.name) == tool) return &c;
  }
  return nullptr;
}

// One connection to the agent port, made when first needed and made again after it broke.
class PortConnection {
 public:
  PortConnection(std::string path, double waitSeconds)
      : path_(std::move(path)), wait_(waitSeconds) {}
  ~PortConnection() { close(); }

  // The answer line, or nothing when the port cannot be reached.
  std::optional<std::string> call(const std::string& line) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (fd_ < 0 && !connectWaiting()) return std::nullopt;
      if (auto answer = exchange(line)) return answer;
      close();  // the program went away; one more try reaches a new one
    }
    return std::nullopt;
  }

 private:
  bool connectOnce() {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path) {
      ::close(fd);
      return false;
    }
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(fd);
      return false;
    }
    fd_ = fd;
    return true;
  }

  bool connectWaiting() {
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_);
    while (!connectOnce()) {
      if (std::chrono::steady_clock::now() >= until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
  }

  std::optional<std::string> exchange(std::string line) {
    line.push_back('\n');
    std::size_t sent = 0;
    while (sent < line.size()) {
      ssize_t n = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::nullopt;
      sent += static_cast<std::size_t>(n);
    }
    for (;;) {
      if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string answer = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return answer;
      }
      char chunk[16384];
      ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    buffer_.clear();
  }

  std::string path_;
  double wait_;
  int fd_ = -1;
  std::string buffer_;
};

McpJSON rpcError(const McpJSON& id, int code, const std::string& message) {
  return McpJSON::Object{{"error", McpJSON::Object{{"code", code}, {"message", message}}},
                         {"id", id},
                         {"jsonrpc", "2.0"}};
}

McpJSON rpcResult(const McpJSON& id, McpJSON result) {
  return McpJSON::Object{{"id", id}, {"jsonrpc", "2.0"}, {"result", std::move(result)}};
}

McpJSON textResult(const std::string& text, bool isError, std::optional<McpJSON> structured) {
  McpJSON content = McpJSON::array();
  content.push(McpJSON::Object{{"text", text}, {"type", "text"}});
  McpJSON r = McpJSON::Object{{"content", std::move(content)}, {"isError", isError}};
  if (structured && structured->isObject()) r["structuredContent"] = std::move(*structured);
  return r;
}

}  // namespace

struct McpBridge::Impl {
  Impl(const std::string& socket, double waitSeconds, bool fixtures)
      : port_(socket.empty() ? paths::socketPath().string() : socket, waitSeconds),
        fixtures_(fixtures) {}

  // The answer to one message, or nothing for a notification.
  std::optional<McpJSON> handle(const std::string& line) {
    McpJSON message;
    try {
      message = McpJSON::parse(line);
    } catch (const JsonError&) {
      return rpcError(McpJSON(), -32700, "Parse error");
    }
    if (!message.isObject()) return rpcError(McpJSON(), -32600, "Invalid Request");
    const McpJSON* id = message.find("id");
    const McpJSON* method = message.find("method");
    const McpJSON* version = message.find("jsonrpc");
    const bool goodId = id && (id->isString() || id->isNumber());
    if (!method) {
      // A response from the client (we send no requests) is dropped like a notification.
      if (message.find("result") || message.find("error")) return std::nullopt;
      return rpcError(goodId ? *id : McpJSON(), -32600, "Invalid Request");
    }
    if (!version || !version->isString() || version->asString() != "2.0" || !method->isString() ||
        (id && !goodId)) {
      return rpcError(goodId ? *id : McpJSON(), -32600, "Invalid Request");
    }
    if (!id) return std::nullopt;  // notifications: initialized, cancelled, ...
    const McpJSON* params = message.find("params");
    if (params && !params->isObject()) return rpcError(*id, -32602, "params must be an object");
    static const McpJSON kNoParams = McpJSON::object();
    return call(*id, method->asString(), params ? *params : kNoParams);
  }

  McpJSON call(const McpJSON& id, const std::string& method, const McpJSON& params) {
    if (method == "initialize") {
      std::string version = kProtocolVersion;
      if (const McpJSON* asked = params.find("protocolVersion"); asked && asked->isString()) {
        for (const char* known : kKnownVersions) {
          if (asked->asString() == known) version = known;
        }
      }
      return rpcResult(
          id,
          McpJSON::Object{
              {"capabilities", McpJSON::Object{{"tools", McpJSON::Object{{"listChanged", false}}}}},
              {"instructions",
               "Melvo edits songs for the NEUTRINO singing engine. Read with document_summary "
               "and track_notes; notes are addressed by their index in the track's sorted "
               "notes. Every edit is one undo step labelled \"AI：…\"; edit_undo takes the "
               "label that history_read shows on top."},
              {"protocolVersion", version},
              {"serverInfo", McpJSON::Object{{"name", "melvo"}, {"version", MELVO_VERSION}}}});
    }
    if (method == "ping") return rpcResult(id, McpJSON::object());
    if (method == "tools/list") {
      McpJSON tools = toolList();
      if (fixtures_) {
        const McpJSON fixtures = fixtureTools();
        for (const auto& t : fixtures.asArray()) tools.push(t);
      }
      return rpcResult(id, McpJSON::Object{{"tools", std::move(tools)}});
    }
    if (method == "tools/call") return toolCall(id, params);
    return rpcError(id, -32601, "Method not found: " + method);
  }

  McpJSON toolCall(const McpJSON& id, const McpJSON& params) {
    const McpJSON* name = params.find("name");
    if (!name || !name->isString()) return rpcError(id, -32602, "tools/call needs a tool name");
    if (fixtures_ && name->asString() == "test_simple_text") {
      return rpcResult(
          id, textResult("This is a simple text response for testing.", false, std::nullopt));
    }
    if (fixtures_ && name->asString() == "test_error_handling") {
      return rpcResult(id, textResult("This tool intentionally returns an error for testing", true,
                                      std::nullopt));
    }
    const auto* command = commandOfTool(name->asString());
    if (!command) return rpcError(id, -32602, "Unknown tool: " + name->asString());
    const McpJSON* arguments = params.find("arguments");
    if (arguments && !arguments->isNull() && !arguments->isObject()) {
      return rpcError(id, -32602, "arguments must be an object");
    }
    McpJSON request = McpJSON::Object{{"command", command->name}, {"id", std::to_string(++seq_)}};
    if (arguments && arguments->isObject()) request["args"] = *arguments;
    auto line = port_.call(encodeLine(request));
    if (!line) {
      return rpcResult(id, textResult(tr("Melvo の口に繋がりません。「melvo serve --agent」で"
                                         "起動するか、設定の「AI と繋ぐ」を入れてください"),
                                      true, std::nullopt));
    }
    McpJSON answer;
    try {
      answer = McpJSON::parse(*line);
    } catch (const JsonError&) {
      return rpcError(id, -32603, "The agent port answered with something that is not JSON");
    }
    const McpJSON* ok = answer.find("ok");
    if (ok && ok->isBool() && ok->asBool()) {
      const McpJSON* result = answer.find("result");
      McpJSON value = result ? *result : McpJSON();
      return rpcResult(id, textResult(encodeLine(value), false, value));
    }
    std::string text;
    if (const McpJSON* error = answer.find("error"); error && error->isObject()) {
      const McpJSON* code = error->find("code");
      const McpJSON* message = error->find("message");
      if (code && code->isString()) text = code->asString() + ": ";
      if (message && message->isString()) text += message->asString();
    }
    return rpcResult(id, textResult(text, true, std::nullopt));
  }

  PortConnection port_;
  bool fixtures_;
  std::uint64_t seq_ = 0;
};

McpBridge::McpBridge(const std::string& socket, double waitSeconds, bool fixtures)
    : impl_(std::make_unique<Impl>(socket, waitSeconds, fixtures)) {}
McpBridge::~McpBridge() = default;

std::optional<McpJSON> McpBridge::handle(const std::string& line) {
  return impl_->handle(line);
}

namespace {

int bridge(const Options& o) {
  std::signal(SIGPIPE, SIG_IGN);
  McpBridge b(o.socket, o.waitSeconds, o.fixtures);
  if (!o.http.empty()) return serveHttp(b, o.http);
  std::string line;
  while (std::getline(std::cin, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    if (auto answer = b.handle(line)) {
      std::string out = encodeLine(*answer);
      out.push_back('\n');
      if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() ||
          std::fflush(stdout) != 0) {
        return 1;  // the client went away
      }
    }
  }
  return 0;
}

const bool registered = registerCommand(
    {"bridge", N_("MCP のクライアントを AI の口へつなぐ（標準入出力の MCP サーバー）"), 75,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("--socket", opts->socket,
                      tr("AI の口のソケット（既定は melvo serve と同じ場所）"));
       sub.add_option("--wait", opts->waitSeconds, tr("口が開くのを待つ秒数"))
           ->check(CLI::Range(0.0, 3600.0));
       sub.add_option(
           "--http", opts->http,
           tr("標準入出力の代わりに HTTP で受ける所（127.0.0.1:PORT など、ループバックだけ）"));
       sub.add_flag("--conformance-fixtures", opts->fixtures,
                    tr("適合試験が呼ぶ見本の道具も出す（試験のためだけ）"));
       return [opts] { return bridge(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
