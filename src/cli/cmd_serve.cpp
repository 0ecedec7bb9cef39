// melvo serve: the core without a window, with autosave, until SIGINT or SIGTERM. An orderly
// stop ends the session cleanly, so its copies are not offered as crash leftovers next time.
// The agent port opens when the preference "melvoMcpEnabled" is set, or with --agent.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

#include "cli/command.h"
#include "melvo/agent/mcp_app_host.h"
#include "melvo/app/app_state.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"

namespace melvo::cli {
namespace {

struct Options {
  std::vector<std::string> open;
  bool agent = false;
};

constexpr const char* kAgentPreference = "melvoMcpEnabled";

int serve(const Options& o) {
  EventLoop loop;
  AppState app(loop);
  // Nobody is there to answer: a dirty song is never replaced, nothing is saved unasked.
  app.frontEnd.alert = [](const std::string& text) { printError(text); };
  app.start();
  for (const auto& path : o.open) app.open(path);
  std::optional<McpAppPort> port;
  if (o.agent || app.preferences().boolValue(kAgentPreference)) {
    port.emplace(app, loop, paths::socketPath());
    try {
      port->start();
      std::printf("%s\n", trf("AI の口を開きました：%@", {paths::socketPath().string()}).c_str());
    } catch (const McpSocketServer::StartError& e) {
      // The port stays closed; the rest of the program goes on.
      const std::string said = trf("Melvo MCP：口を開けませんでした %@", {e.what()});
      log::write("MCP", said);
      printError(said);
      port.reset();
    }
  }
  loop.onSignals({SIGINT, SIGTERM}, [&](int) {
    if (port) port->stop();
    app.endCleanly();
    loop.stop();
  });
  const auto& found = app.recoverableSnapshots();
  if (!found.empty()) {
    std::printf("%s\n", tr("前回終了時に保存されていない作業が見つかりました"));
    std::printf("%s\n", tr("「melvo snapshots list」で確かめられます"));
  }
  std::printf("%s\n", tr("待機中です（Ctrl+C で終了）"));
  std::fflush(stdout);
  loop.run();
  std::printf("%s\n", tr("終了しました"));
  return 0;
}

const bool registered = registerCommand(
    {"serve", N_("画面なしで編集コアを動かす（自動保存つき、SIGINT/SIGTERM で終了）"), 70,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("--open", opts->open, tr("始めに開くファイル"));
       sub.add_flag("--agent", opts->agent, tr("AI の口（エージェント用ソケット）を開く"));
       return [opts] { return serve(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
