// The commands as an agent meets them: each file of scripts/ is a conversation with the port
// of a running program (AppState behind a real socket). "> " lines are sent; the next "< "
// line is the exact answer, "<~ " a part of it. Every script starts from a new empty song in
// a new home; "$HOME" stands for that folder, "$JHOME" for it as an answer writes it.
// "@engine" gives the program the stand-in engine; "@until TEXT > REQUEST" sends the request
// every 100 ms until its answer holds TEXT (a minute at most), for polling a render.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <thread>

#include "agent/agent_client.h"
#include "melvo/agent/mcp_app_host.h"
#include "melvo/agent/mcp_memory_host.h"
#include "melvo/app/app_state.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace melvo {
namespace {

// A program with its port open and its main queue running on a thread of its own.
class RunningProgram {
 public:
  RunningProgram() : app(loop), port(app, loop, paths::socketPath()) {
    port.start();
    main = std::thread([this] { loop.run(); });
    // A stop() that came before run() would be lost: wait until the queue turns.
    std::promise<void> running;
    loop.post([&] { running.set_value(); });
    running.get_future().wait();
  }
  ~RunningProgram() {
    loop.stop();
    main.join();
    port.stop();
  }
  test::TempHome home;
  EventLoop loop;
  AppState app;
  McpAppPort port;
  std::thread main;
};

std::filesystem::path scriptsDir() {
  return std::filesystem::path(MELVO_TEST_DATA_DIR).parent_path() / "agent" / "scripts";
}

void runScript(const std::filesystem::path& script) {
  i18n::setLanguage("en");
  RunningProgram program;
  test::AgentClient client(paths::socketPath());
  ASSERT_TRUE(client.connected());
  std::ifstream in(script);
  ASSERT_TRUE(in) << script;
  std::string line, answer, sent;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const std::string where = script.filename().string() + ":" + std::to_string(number);
    // Placeholders for what only the running test knows.
    std::string escaped;  // as the answers write it, "/" as "\/"
    for (char ch : program.home.path().string())
      escaped += ch == '/' ? std::string("\\/") : std::string(1, ch);
    for (std::string::size_type p; (p = line.find("$JHOME")) != std::string::npos;) {
      line.replace(p, 6, escaped);
    }
    for (std::string::size_type p; (p = line.find("$HOME")) != std::string::npos;) {
      line.replace(p, 5, program.home.path().string());
    }
    if (line == "@engine") {
      std::promise<void> set;
      program.loop.post([&] {
        NEUTRINOConfig c;
        c.neutrinoDirectory = test::standInEngine().string();
        c.numThreads = 1;
        program.app.setConfig(c);
        set.set_value();
      });
      set.get_future().wait();
    } else if (line.rfind("@until ", 0) == 0) {
      const auto split = line.find(" > ");
      ASSERT_NE(split, std::string::npos) << where;
      const std::string awaited = line.substr(7, split - 7);
      sent = line.substr(split + 3);
      const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
      do {
        if (!answer.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        answer = client.call(sent);
      } while (answer.find(awaited) == std::string::npos &&
               std::chrono::steady_clock::now() < until);
      EXPECT_NE(answer.find(awaited), std::string::npos) << where << "\n  got: " << answer;
    } else if (line.rfind("> ", 0) == 0) {
      sent = line.substr(2);
      client.send(sent + "\n");
      answer = client.readLine().value_or("<no answer>");
    } else if (line.rfind("<~ ", 0) == 0) {
      EXPECT_NE(answer.find(line.substr(3)), std::string::npos)
          << where << "\n  sent: " << sent << "\n  got:  " << answer;
    } else if (line.rfind("< ", 0) == 0) {
      EXPECT_EQ(answer, line.substr(2)) << where << "\n  sent: " << sent;
    }
  }
}

class CommandScript : public ::testing::TestWithParam<std::string> {};

TEST_P(CommandScript, AnswersAsWritten) {
  runScript(scriptsDir() / GetParam());
}

INSTANTIATE_TEST_SUITE_P(Scripts, CommandScript,
                         ::testing::Values("frame.txt", "read.txt", "notes.txt", "lyrics.txt",
                                           "velocity_mix.txt", "undo.txt", "issues.txt",
                                           "files.txt", "selection.txt", "sing.txt", "pitch.txt"),
                         [](const auto& info) {
                           std::string n = info.param.substr(0, info.param.find('.'));
                           return n;
                         });

// Limits are counted before anything changes: 2000 edits pass, 2001 are refused.
TEST(CommandLimits, EditsUpToTheLimitPass) {
  i18n::setLanguage("en");
  RunningProgram program;
  test::AgentClient client(paths::socketPath());
  auto batch = [](const char* command, const char* key, int count, const std::string& element) {
    std::string s =
        std::string(R"({"command":")") + command + R"(","args":{"track":0,")" + key + "\":[";
    for (int i = 0; i < count; ++i) {
      if (i) s += ",";
      std::string e = element;
      for (std::string::size_type p; (p = e.find("$i")) != std::string::npos;)
        e.replace(p, 2, std::to_string(i));
      s += e;
    }
    return s + "]}}";
  };
  for (int round = 0; round < 5; ++round) {
    ASSERT_NE(
        client.call(batch("notes.add", "notes", 500, R"({"tick":$i,"duration":1,"pitch":60})"))
            .find(R"("ok":true)"),
        std::string::npos);
  }
  EXPECT_NE(client.call(batch("notes.add", "notes", 501, R"({"tick":0,"duration":1,"pitch":60})"))
                .find("limitExceeded"),
            std::string::npos);
  const std::string lyric = R"({"index":$i,"lyric":"あ"})";
  EXPECT_NE(client.call(batch("lyrics.set", "edits", 2001, lyric)).find("limitExceeded"),
            std::string::npos);
  EXPECT_NE(client.call(batch("lyrics.set", "edits", 2000, lyric)).find(R"("changed":2000)"),
            std::string::npos);
  EXPECT_NE(client.call(batch("notes.remove", "indices", 2001, "$i")).find("limitExceeded"),
            std::string::npos);
  EXPECT_NE(client.call(batch("notes.remove", "indices", 2000, "$i")).find(R"("changed":2000)"),
            std::string::npos);
  EXPECT_NE(client.call(R"({"command":"history.read"})")
                .find(R"("undo":["AI: Remove notes","AI: Set lyrics","AI: Add notes")"),
            std::string::npos);
}

// A command the agent sent while the main queue was busy, and the port closed before the queue
// came to it, is not run: its answer says so.
TEST(CommandLimits, ClosingThePortCancelsAWaitingCommand) {
  i18n::setLanguage("en");
  RunningProgram program;
  test::AgentClient client(paths::socketPath());
  ASSERT_NE(client.call(R"({"command":"history.read"})").find(R"("ok":true)"), std::string::npos);
  // Two turns of the queue, so that the port's own next step (waiting for the client's bytes) is
  // behind us: then the queue has nothing else to do.
  std::promise<void> idle;
  program.loop.post([&] { program.loop.post([&] { idle.set_value(); }); });
  idle.get_future().wait();
  std::promise<void> sent;
  program.loop.post([&] {
    sent.get_future().wait();  // the user's own work keeps the queue busy meanwhile
    program.port.stop();
  });
  client.send(
      R"({"id":"w","command":"notes.add","args":{"track":0,"notes":[{"tick":0,"duration":1,"pitch":60}]}})"
      "\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  sent.set_value();
  auto answer = client.readLine();
  ASSERT_TRUE(answer);
  EXPECT_NE(answer->find(R"("id":"w")"), std::string::npos) << *answer;
  EXPECT_NE(answer->find("notAvailable"), std::string::npos) << *answer;
  std::promise<std::size_t> notes;
  program.loop.post(
      [&] { notes.set_value(program.app.pianoRollVM().document().tracks[0].notes.size()); });
  EXPECT_EQ(notes.get_future().get(), 0u);
}

// The summary remembers its phoneme count between calls: an edit, an undo and a redo must each
// still show in the next summary, on any of the track's chunks.
TEST(SummaryCount, FollowsEditsUndoAndRedo) {
  i18n::setLanguage("en");
  MusicDocument d;
  std::vector<NoteEvent> notes;
  for (int i = 0; i < 600; ++i) {
    NoteEvent n = NoteEvent::make(Uuid::random(), i * 480, 480, 60, 100, "ら");
    if (i % 2 == 0) n.sourcePhonemes = "ら";
    notes.push_back(std::move(n));
  }
  d.tracks[0].notes = NoteList(std::move(notes));
  McpMemoryHost memory(std::move(d));
  McpCommandLayer layer(memory.host());
  auto count = [&] {
    const Json answer = Json::parse(layer.handleLine(R"({"command":"document.summary"})"));
    return answer.find("result")->find("phonemeLyricCount")->asInt();
  };
  EXPECT_EQ(count(), 300);
  EXPECT_EQ(count(), 300);
  for (const char* index : {"598", "0"}) {
    layer.handleLine(
        std::string(R"({"command":"lyrics.set","args":{"track":0,"edits":[{"index":)") + index +
        R"(,"lyric":"り"}]}})");
  }
  EXPECT_EQ(count(), 298);
  layer.handleLine(R"({"command":"edit.undo","args":{"label":"AI: Set lyrics"}})");
  EXPECT_EQ(count(), 299);
  layer.handleLine(R"({"command":"edit.redo","args":{"label":"AI: Set lyrics"}})");
  EXPECT_EQ(count(), 298);
}

}  // namespace
}  // namespace melvo
