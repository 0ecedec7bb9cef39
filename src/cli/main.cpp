#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "cli/command.h"
#include "melvo/platform/i18n.h"

namespace melvo::cli {
namespace {

std::vector<CommandInfo>& registry() {
  static std::vector<CommandInfo> commands;
  return commands;
}

// Switches that only a development build understands; a shipped build refuses them before
// anything else runs, so a script written for a development build fails loudly.
constexpr const char* kDevelopmentFlags[] = {
    "--selftest",        "--shot",           "--shot-help",   "--parse",   "--parse-all",
    "--export-musicxml", "--wire",           "--pair",        "--video",   "--f0vib",
    "--stress-ruler",    "--dump-json",      "--issues-json", "--cleanup", "--fix-each",
    "--tools-all",       "--synthlog-marks", "--notice-demo"};

int refuseDevelopmentFlags(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    for (const char* flag : kDevelopmentFlags) {
      if (std::strcmp(argv[i], flag) == 0) {
        std::fprintf(
            stderr, "%s%s\n%s\n", flag,
            tr(" は DEBUG ビルド専用です。この実行ファイルは Release のため実行できません。"),
            tr("開発用のスイッチは、ソースから dev プリセットで作ったビルドで使えます。"));
        return 1;
      }
    }
  }
  return 0;
}

}  // namespace

bool registerCommand(CommandInfo info) {
  registry().push_back(std::move(info));
  return true;
}

const std::vector<CommandInfo>& registeredCommands() {
  return registry();
}

void printError(const std::string& text) {
  std::fprintf(stderr, "melvo: %s\n", text.c_str());
}

int run(int argc, char** argv) {
  // The language only picks a catalogue, so it may come first: the refusal speaks it too.
  i18n::initFromEnvironment();
  if (int status = refuseDevelopmentFlags(argc, argv)) return status;

  CLI::App app{tr("Melvo: NEUTRINO で歌わせる曲のための編集コア")};
  app.name("melvo");
  app.set_version_flag("--version", std::string("melvo ") + MELVO_VERSION);
  app.require_subcommand(1);

  auto commands = registry();
  std::stable_sort(commands.begin(), commands.end(),
                   [](const CommandInfo& a, const CommandInfo& b) { return a.order < b.order; });
  std::vector<std::pair<CLI::App*, CommandRun>> actions;
  for (const auto& c : commands) {
    CLI::App* sub = app.add_subcommand(c.name, tr(c.description));
    actions.emplace_back(sub, c.setup(*sub));
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  for (auto& [sub, action] : actions) {
    if (sub->parsed()) return action();
  }
  return 0;
}

}  // namespace melvo::cli

int main(int argc, char** argv) {
  try {
    return melvo::cli::run(argc, argv);
  } catch (const std::exception& e) {
    melvo::cli::printError(e.what());
    return 1;
  }
}
