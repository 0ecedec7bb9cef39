// Subcommands register themselves: each file of src/cli adds a CommandInfo at start-up, so a
// new command needs no edit elsewhere. `setup` declares the options on its CLI::App and
// returns what runs when the command is chosen; that returns the exit status.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace melvo::cli {

using CommandRun = std::function<int()>;
using CommandSetup = std::function<CommandRun(CLI::App& sub)>;

struct CommandInfo {
  const char* name;
  const char* description;  // a catalogue key, marked with N_()
  int order;                // position in --help
  CommandSetup setup;
};

bool registerCommand(CommandInfo info);
const std::vector<CommandInfo>& registeredCommands();

// Reports an error the way every command does: "melvo: <text>" on stderr.
void printError(const std::string& text);

}  // namespace melvo::cli
