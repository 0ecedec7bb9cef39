// melvo bridge as an MCP client starts it: JSON-RPC on its stdin, a `melvo serve --agent`
// behind it that comes up only after the bridge is already answering.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "melvo/platform/json.h"
#include "support/test_support.h"

extern char** environ;

namespace melvo {
namespace {

// A melvo child with its stdin and stdout on pipes (stderr to a file).
class Child {
 public:
  Child(const std::vector<std::string>& args, const std::filesystem::path& errFile) {
    int in[2], out[2];
    EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_addopen(&fa, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<std::string> store{MELVO_BINARY};
    store.insert(store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : store) argv.push_back(a.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, MELVO_BINARY, &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
  }
  ~Child() {
    closeStdin();
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(stdout_);
  }

  void write(const std::string& s) {
    ASSERT_EQ(::write(stdin_, s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
  void closeStdin() {
    if (stdin_ >= 0) ::close(stdin_);
    stdin_ = -1;
  }
  std::optional<std::string> readLine(std::chrono::milliseconds limit) {
    return test::readLineFrom(stdout_, buffer_, limit);
  }
  // Exit status once it ends by itself within `limit`, else nothing.
  std::optional<int> wait(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < until) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1, stdout_ = -1;
  std::string buffer_;
};

Json rpc(Child& bridge, const std::string& request) {
  bridge.write(request + "\n");
  auto line = bridge.readLine(std::chrono::seconds(30));
  EXPECT_TRUE(line) << "no answer to " << request;
  return line ? Json::parse(*line) : Json();
}

std::string toolText(const Json& answer) {
  const Json* result = answer.find("result");
  if (!result || !result->find("content")) return "<no content>";
  return (*result->find("content")).asArray().at(0).find("text")->asString();
}

TEST(BridgeCli, SpeaksMcpAndForwardsToTheRunningProgram) {
  test::TempHome home;
  Child bridge({"bridge", "--wait", "30"}, home.path() / "bridge.err");

  // The handshake and the tool list need no program behind the bridge.
  Json init = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-03-26","capabilities":{},"clientInfo":{"name":"test","version":"1"}}})");
  EXPECT_EQ(init.find("result")->find("protocolVersion")->asString(), "2025-03-26");
  EXPECT_TRUE(init.find("result")->find("capabilities")->find("tools"));
  bridge.write(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
               "\n");
  Json list = rpc(bridge, R"({"jsonrpc":"2.0","id":"l","method":"tools/list"})");
  EXPECT_EQ(list.find("id")->asString(), "l");
  const Json* add = nullptr;
  for (const auto& tool : list.find("result")->find("tools")->asArray()) {
    if (tool.find("name")->asString() == "notes_add") add = &tool;
    EXPECT_EQ(tool.find("inputSchema")->find("type")->asString(), "object");
  }
  ASSERT_TRUE(add);
  EXPECT_EQ(add->find("inputSchema")
                ->find("properties")
                ->find("notes")
                ->find("items")
                ->find("required")
                ->dump(),
            R"(["tick","duration","pitch"])");

  // Protocol faults are JSON-RPC errors.
  EXPECT_EQ(rpc(bridge, "{oops").find("error")->find("code")->asInt(), -32700);
  EXPECT_EQ(rpc(bridge, R"({"jsonrpc":"2.0","id":2,"method":"resources/list"})")
                .find("error")
                ->find("code")
                ->asInt(),
            -32601);
  EXPECT_EQ(
      rpc(bridge, R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"no_such"}})")
          .find("error")
          ->find("code")
          ->asInt(),
      -32602);
  EXPECT_TRUE(rpc(bridge, R"({"jsonrpc":"2.0","id":4,"method":"ping"})").find("result"));

  // Now the program starts; the first call waits for its port.
  Child serve({"serve", "--agent"}, home.path() / "serve.err");
  Json summary = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":10,"method":"tools/call","params":{"name":"document_summary","arguments":{}}})");
  EXPECT_EQ(summary.find("result")->find("isError")->asBool(), false) << summary.dump();
  EXPECT_EQ(summary.find("result")->find("structuredContent")->find("ppq")->asInt(), 480);

  Json added = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":11,"method":"tools/call","params":{"name":"notes_add","arguments":{"track":0,"notes":[{"tick":0,"duration":480,"pitch":60,"lyric":"ら"}]}}})");
  EXPECT_EQ(added.find("result")->find("isError")->asBool(), false) << added.dump();
  const std::string label =
      added.find("result")->find("structuredContent")->find("undoLabel")->asString();

  // A refusal of the port is a tool result with isError, its words for the agent to read.
  Json refused = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":12,"method":"tools/call","params":{"name":"notes_remove","arguments":{"track":0,"indices":[5]}}})");
  EXPECT_EQ(refused.find("result")->find("isError")->asBool(), true);
  EXPECT_EQ(toolText(refused).rfind("notFound: ", 0), 0u) << toolText(refused);

  Json undone = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":13,"method":"tools/call","params":{"name":"edit_undo","arguments":{"label":")" +
          label + R"("}}})");
  EXPECT_EQ(undone.find("result")->find("isError")->asBool(), false) << undone.dump();
  Json notes = rpc(
      bridge,
      R"({"jsonrpc":"2.0","id":14,"method":"tools/call","params":{"name":"track_notes","arguments":{"track":0}}})");
  EXPECT_EQ(notes.find("result")->find("structuredContent")->find("total")->asInt(), 0);

  bridge.closeStdin();
  EXPECT_EQ(bridge.wait(std::chrono::seconds(10)), 0);
  ::kill(serve.pid(), SIGTERM);
  EXPECT_EQ(serve.wait(std::chrono::seconds(10)), 0);
  // An orderly stop takes the socket away.
  EXPECT_FALSE(std::filesystem::exists(home.path() / "mcp.sock"));
}

TEST(BridgeCli, ToolCallWithoutAProgramSaysHowToStartOne) {
  test::TempHome home;
  Child bridge({"bridge", "--wait", "0.2"}, home.path() / "bridge.err");
  Json r = rpc(
      bridge, R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"history_read"}})");
  EXPECT_EQ(r.find("result")->find("isError")->asBool(), true);
  EXPECT_NE(toolText(r).find("melvo serve --agent"), std::string::npos);
}

// One HTTP/1.1 exchange on a fresh connection: the status line's code, the headers as sent,
// and the body.
struct HttpAnswer {
  int status = 0;
  std::string headers;
  std::string body;
  std::string header(const std::string& name) const {
    const auto at = headers.find("\r\n" + name + ": ");
    if (at == std::string::npos) return {};
    const auto from = at + name.size() + 4;
    return headers.substr(from, headers.find("\r\n", from) - from);
  }
};

HttpAnswer http(int port, const std::string& method, const std::string& body,
                const std::vector<std::string>& extra = {}, const std::string& host = "") {
  HttpAnswer a;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return a;
  }
  std::string req = method + " /mcp HTTP/1.1\r\nHost: " +
                    (host.empty() ? "127.0.0.1:" + std::to_string(port) : host) +
                    "\r\nConnection: close\r\n";
  if (method == "POST") {
    req += "Content-Type: application/json\r\nAccept: application/json, text/event-stream\r\n";
  }
  for (const auto& h : extra) req += h + "\r\n";
  req += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  EXPECT_EQ(::send(fd, req.data(), req.size(), MSG_NOSIGNAL), static_cast<ssize_t>(req.size()));
  std::string all;
  char chunk[4096];
  for (ssize_t n; (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) all.append(chunk, n);
  ::close(fd);
  const auto split = all.find("\r\n\r\n");
  if (all.size() < 12 || split == std::string::npos) return a;
  a.status = std::stoi(all.substr(9, 3));
  a.headers = all.substr(0, split + 2);
  a.body = all.substr(split + 4);
  return a;
}

TEST(BridgeHttp, RefusesToListenBeyondLoopback) {
  test::TempHome home;
  for (const char* where : {"0.0.0.0:0", "192.0.2.1:8080", "[::]:0", "127.0.0.1", "host:80"}) {
    Child bridge({"bridge", "--http", where}, home.path() / "bridge.err");
    EXPECT_EQ(bridge.wait(std::chrono::seconds(10)), 2) << where;
  }
}

TEST(BridgeHttp, SessionsHostChecksAndForwarding) {
  test::TempHome home;
  Child serve({"serve", "--agent"}, home.path() / "serve.err");
  Child bridge({"bridge", "--http", "127.0.0.1:0", "--wait", "30"}, home.path() / "bridge.err");
  auto url = bridge.readLine(std::chrono::seconds(10));
  ASSERT_TRUE(url);
  const int port = std::stoi(url->substr(url->rfind(':') + 1));
  EXPECT_EQ(*url, "http://127.0.0.1:" + std::to_string(port) + "/mcp");

  const std::string init =
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"t","version":"1"}}})";
  // A page whose name was rebound to 127.0.0.1 carries its own Host or Origin.
  EXPECT_EQ(http(port, "POST", init, {}, "evil.example.com").status, 403);
  EXPECT_EQ(http(port, "POST", init, {"Origin: http://evil.example.com"}).status, 403);
  EXPECT_EQ(http(port, "POST", init, {"Origin: http://localhost:3000"}, "localhost").status, 200);

  HttpAnswer first = http(port, "POST", init);
  ASSERT_EQ(first.status, 200);
  EXPECT_EQ(first.header("Content-Type"), "application/json");
  const std::string session = first.header("Mcp-Session-Id");
  ASSERT_FALSE(session.empty());
  EXPECT_EQ(Json::parse(first.body).find("result")->find("protocolVersion")->asString(),
            "2025-06-18");

  const std::string sid = "Mcp-Session-Id: " + session;
  const std::string list = R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})";
  EXPECT_EQ(http(port, "POST", list).status, 400);  // no session
  EXPECT_EQ(http(port, "POST", list, {"Mcp-Session-Id: nobody"}).status, 404);
  EXPECT_EQ(http(port, "POST", list, {sid, "MCP-Protocol-Version: 1999-01-01"}).status, 400);
  EXPECT_EQ(
      http(port, "POST", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", {sid}).status,
      202);
  EXPECT_EQ(http(port, "POST", "{oops", {sid}).status, 400);
  EXPECT_EQ(http(port, "GET", "", {sid}).status, 405);

  HttpAnswer called = http(
      port, "POST",
      R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"notes_add","arguments":{"track":0,"notes":[{"tick":0,"duration":480,"pitch":60}]}}})",
      {sid, "MCP-Protocol-Version: 2025-06-18"});
  ASSERT_EQ(called.status, 200) << called.body;
  const Json answer = Json::parse(called.body);
  EXPECT_EQ(answer.find("id")->asInt(), 3);
  EXPECT_EQ(answer.find("result")->find("structuredContent")->find("changed")->asInt(), 1)
      << called.body;

  // Ending the session: later requests of it are unknown.
  EXPECT_EQ(http(port, "DELETE", "", {sid}).status, 200);
  EXPECT_EQ(http(port, "POST", list, {sid}).status, 404);

  ::kill(bridge.pid(), SIGTERM);
  EXPECT_EQ(bridge.wait(std::chrono::seconds(10)), 0);
}

}  // namespace
}  // namespace melvo
