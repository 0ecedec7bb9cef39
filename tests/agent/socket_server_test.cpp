// The agent socket as a client sees it: who may connect, what happens to files at its path,
// how lines are cut and answered.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <future>
#include <random>
#include <thread>

#include "agent/agent_client.h"
#include "melvo/agent/mcp_command_layer.h"
#include "melvo/agent/mcp_line_buffer.h"
#include "melvo/agent/mcp_memory_host.h"
#include "melvo/agent/mcp_socket_server.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using test::AgentClient;
using test::TempDir;

class SocketServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    i18n::setLanguage("en");
    main = std::thread([this] { loop.run(); });
    onLoop([] {});  // a stop() that came before run() would be lost
  }
  void TearDown() override {
    loop.stop();
    main.join();
  }
  std::filesystem::path socket() const { return dir.path() / "melvo" / "mcp.sock"; }

  // A server on the loop; by default its handler runs the command layer over a song in memory.
  McpSocketServer& makeServer(McpSocketServer::Handler handler = {}) {
    if (!handler) handler = [this](const std::string& line) { return layer.handleLine(line); };
    servers.push_back(std::make_unique<McpSocketServer>(socket(), std::move(handler), loop));
    return *servers.back();
  }
  // Runs `job` on the loop's thread and waits for it.
  void onLoop(std::function<void()> job) {
    std::promise<void> done;
    loop.post([&] {
      job();
      done.set_value();
    });
    done.get_future().wait();
  }

  TempDir dir;
  McpMemoryHost memory;
  McpCommandLayer layer{memory.host()};
  EventLoop loop;
  std::vector<std::unique_ptr<McpSocketServer>> servers;  // stopped once the loop stopped
  std::thread main;
};

mode_t modeOf(const std::filesystem::path& p) {
  struct stat st {};
  EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
  return st.st_mode & 07777;
}

TEST_F(SocketServerTest, SocketIsPrivateToItsOwner) {
  std::filesystem::create_directories(socket().parent_path());
  std::filesystem::permissions(socket().parent_path(), std::filesystem::perms::all);
  auto& server = makeServer();
  server.start();
  EXPECT_EQ(modeOf(socket().parent_path()), 0700u);
  EXPECT_EQ(modeOf(socket()), 0600u);

  // Another user is refused by the file system; only root can check that from inside.
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(3);
    AgentClient other(socket());
    ::_exit(other.connected() ? 1 : (other.error() == EACCES ? 0 : 2));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: connected, 2: another error, 3: setuid failed";
}

TEST_F(SocketServerTest, PathHoldersAreKeptOrReplaced) {
  std::filesystem::create_directories(socket().parent_path());
  // A regular file is never removed.
  test::writeText(socket(), "mine");
  try {
    makeServer().start();
    FAIL() << "started over a regular file";
  } catch (const McpSocketServer::StartError& e) {
    EXPECT_EQ(e.kind, McpSocketServer::StartError::Kind::notASocket);
  }
  EXPECT_EQ(test::readText(socket()), "mine");
  std::filesystem::remove(socket());

  // A socket that a crashed run left (bound, nobody listening) is replaced.
  {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, socket().c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::close(fd);
  }
  auto& server = makeServer();
  server.start();
  AgentClient client(socket());
  ASSERT_TRUE(client.connected());
  EXPECT_NE(client.call(R"({"command":"history.read"})").find(R"("ok":true)"), std::string::npos);

  // A live server's socket is not taken over, and a second start of the same one is refused.
  try {
    makeServer().start();
    FAIL() << "took over a live socket";
  } catch (const McpSocketServer::StartError& e) {
    EXPECT_EQ(e.kind, McpSocketServer::StartError::Kind::alreadyRunning);
  }
  EXPECT_THROW(server.start(), McpSocketServer::StartError);
  onLoop([&] { server.stop(); });
  EXPECT_FALSE(std::filesystem::exists(socket()));
}

TEST_F(SocketServerTest, PathTooLongIsRefused) {
  McpSocketServer server(
      dir.path() / std::string(120, 'x') / "mcp.sock", [](const std::string& l) { return l; },
      loop);
  try {
    server.start();
    FAIL();
  } catch (const McpSocketServer::StartError& e) {
    EXPECT_EQ(e.kind, McpSocketServer::StartError::Kind::pathTooLong);
  }
}

TEST_F(SocketServerTest, LinesAtTheLimitAndPastIt) {
  makeServer([](const std::string& line) {
    return R"({"length":)" + std::to_string(line.size()) + "}";
  }).start();
  AgentClient client(socket());
  ASSERT_TRUE(client.connected());
  const std::size_t limit = McpLineBuffer::kMaxLineBytes;
  client.send(std::string(limit, 'a') + "\n");
  EXPECT_EQ(client.readLine(), R"({"length":262144})");
  // One byte more: one refusal, however the bytes arrive, then the stream is in step again.
  client.send(std::string(limit - 10, 'b'));
  client.send(std::string(11, 'b') + "\r\n");
  EXPECT_EQ(client.readLine(),
            R"({"error":{"code":"limitExceeded","message":"The line is too long"},"ok":false})");
  client.send(std::string(3 * limit, 'c') + "\nnext\r\n");
  EXPECT_NE(client.readLine()->find("limitExceeded"), std::string::npos);
  EXPECT_EQ(client.readLine(), R"({"length":4})");
  // Two requests in one write give two answers in order.
  client.send("one\r\ntwo2\n");
  EXPECT_EQ(client.readLine(), R"({"length":3})");
  EXPECT_EQ(client.readLine(), R"({"length":4})");
  EXPECT_EQ(client.readLine(std::chrono::milliseconds(100)), std::nullopt);
}

// Lines are run one per turn of the queue; when the port closes between them, the lines that
// wait are not run, and each still gets its one answer, with its id.
TEST_F(SocketServerTest, ClosingThePortAnswersWaitingLinesWithoutRunningThem) {
  std::vector<std::string> run;
  McpSocketServer* self = nullptr;
  self = &makeServer([&](const std::string& line) {
    run.push_back(line);
    if (line.find("close") != std::string::npos) loop.post([&] { self->stop(); });
    return layer.handleLine(line);
  });
  self->start();
  AgentClient client(socket());
  ASSERT_TRUE(client.connected());
  EXPECT_NE(client.call(R"({"id":"1","command":"history.read"})").find(R"("ok":true)"),
            std::string::npos);
  client.send(R"({"id":"close","command":"history.read"})"
              "\n"
              R"({"id":"2","command":"edit.undo"})"
              "\n"
              "\xff\n"
              R"({"id":"3","command":"history.read"})"
              "\n");
  EXPECT_NE(client.readLine()->find(R"("id":"close","ok":true)"), std::string::npos);
  for (const char* id : {"2", "", "3"}) {
    auto answer = client.readLine();
    ASSERT_TRUE(answer) << id;
    if (*id) {
      EXPECT_EQ(*answer, std::string(R"({"error":{"code":"notAvailable","message":")") +
                             tr("「AI と繋ぐ」が切られたので、この命令は行いませんでした") +
                             R"("},"id":")" + id + R"(","ok":false})");
    } else {
      EXPECT_EQ(*answer, McpSocketServer::notTextAnswer());
    }
  }
  EXPECT_EQ(client.readLine(std::chrono::milliseconds(100)), std::nullopt);
  onLoop([] {});
  EXPECT_EQ(run.size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(socket()));
}

TEST_F(SocketServerTest, ClientsAreServedOneAfterAnother) {
  auto& server = makeServer();
  server.start();
  AgentClient first(socket());
  AgentClient second(socket());  // waits in the backlog
  ASSERT_TRUE(first.connected() && second.connected());
  second.send("{\"id\":\"2\",\"command\":\"history.read\"}\n");
  EXPECT_EQ(second.readLine(std::chrono::milliseconds(200)), std::nullopt);
  EXPECT_NE(first.call(R"({"id":"1","command":"history.read"})").find(R"("id":"1")"),
            std::string::npos);
  first.close();
  auto answer = second.readLine();
  ASSERT_TRUE(answer);
  EXPECT_NE(answer->find(R"("id":"2")"), std::string::npos);
}

TEST_F(SocketServerTest, VanishingClientsDoNotKillTheServer) {
  auto& server = makeServer();
  server.start();
  // Each leaves with a large answer still being written to it: without MSG_NOSIGNAL the
  // process would die of SIGPIPE.
  const std::string many = [] {
    std::string s;
    for (int i = 0; i < 2000; ++i)
      s += R"({"command":"document.summary"})"
           "\n";
    return s;
  }();
  for (int i = 0; i < 5; ++i) {
    AgentClient client(socket());
    ASSERT_TRUE(client.connected());
    client.send(many);
    client.close();
  }
  AgentClient last(socket());
  EXPECT_NE(last.call(R"({"command":"document.summary"})").find(R"("ok":true)"), std::string::npos);
}

TEST_F(SocketServerTest, RandomLinesEachGetOneJsonAnswer) {
  auto& server = makeServer();
  server.start();
  AgentClient client(socket());
  ASSERT_TRUE(client.connected());
  std::mt19937 rng(21);
  const std::vector<std::string> pieces = {"{",
                                           "}",
                                           "[",
                                           "]",
                                           "\"command\"",
                                           ":",
                                           ",",
                                           "\"track.notes\"",
                                           "\"args\"",
                                           "{\"track\":0}",
                                           "\"id\"",
                                           "1e999",
                                           "-0",
                                           "null",
                                           "true",
                                           "\"\\u0000\"",
                                           "\xff",
                                           "\xe3\x81",
                                           "\r",
                                           " ",
                                           "\"notes.add\"",
                                           "\"edits\"",
                                           "[{\"index\":0}]",
                                           "123456789012345678901234567890"};
  for (int i = 0; i < 10000; ++i) {
    std::string line;
    const int n = static_cast<int>(rng() % 12);
    for (int k = 0; k < n; ++k) line += pieces[rng() % pieces.size()];
    if (line.find_first_not_of(" \r") == std::string::npos)
      line = "x";  // empty lines get no answer
    client.send(line + "\n");
    auto answer = client.readLine();
    ASSERT_TRUE(answer) << "no answer to: " << line;
    ASSERT_EQ(answer->find('\n'), std::string::npos);
    Json json;
    ASSERT_NO_THROW(json = Json::parse(*answer)) << *answer;
    ASSERT_TRUE(json.find("ok") && json.find("ok")->isBool()) << *answer;
  }
}

}  // namespace
}  // namespace melvo
