// melvo serve: the core without a window, with autosave, until SIGINT or SIGTERM. An orderly
// stop ends the session cleanly, so its copies are not offered as crash leftovers next time.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "melvo/app/app_state.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"

namespace melvo::cli {
namespace {

struct Options {
  std::vector<std::string> open;
};

int serve(const Options& o) {
  EventLoop loop;
  AppState app(loop);
  // Nobody is there to answer: a dirty song is never replaced, nothing is saved unasked.
  app.frontEnd.alert = [](const std::string& text) { printError(text); };
  app.start();
  for (const auto& path : o.open) app.open(path);
  loop.onSignals({SIGINT, SIGTERM}, [&](int) {
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
       return [opts] { return serve(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
