// melvo bridge as an MCP client starts it: JSON-RPC on its stdin, a `melvo serve --agent`
// behind it that comes up only after the bridge is already answering.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace
}  // namespace melvo
