// Starting a child with posix_spawn, its output on pipes. Shared by the script runner and the
// engine check, which both start bash.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace melvo::child {

struct Spawned {
  pid_t pid = -1;
  int outFd = -1;  // read end of stdout (and stderr when merged)
  int errFd = -1;  // read end of stderr, -1 when merged into stdout
};

struct SpawnOptions {
  std::vector<std::string> argv;
  std::vector<std::string> env;            // "KEY=VALUE"
  std::filesystem::path workingDirectory;  // empty: the parent's
  bool mergeStderr = false;
  // A process group of its own, with the child as its leader (pgid == pid).
  bool newProcessGroup = true;
};

// Throws SpawnError with the system's reason. Both read ends are close-on-exec.
Spawned spawn(const SpawnOptions& options);

// This process's environment with `name` set to `value` (added when absent).
std::vector<std::string> environmentWith(std::string_view name, const std::string& value);

// A wait status as a shell reports it: the exit code, or 128 + the signal.
int shellStatus(int waitStatus);

// Sends `sig` to the whole group; false when no process of it is left.
bool signalGroup(pid_t pgid, int sig);
bool groupExists(pid_t pgid);
// Whether a process of the group still runs. Unlike groupExists(), a zombie does not count:
// an orphan's zombie waits for whatever adopted it, which need not reap it soon.
bool groupHasLiveMembers(pid_t pgid);

// A small process that outlives this one: when the returned descriptor is closed without a
// 'd' written first (this process died, however), it sends SIGTERM to the group, SIGKILL to
// what is left of it 3 s later, and removes `leftover` (may be empty). Writing 'd' and closing
// lets it go quietly. -1 when it could not be started. The descriptor is close-on-exec.
int startWatchdog(pid_t pgid, const std::filesystem::path& leftover);
// Tells the watchdog that the group is dealt with, and closes the descriptor.
void releaseWatchdog(int& fd);

}  // namespace melvo::child

namespace melvo::child {

// Runs argv[0] with the arguments, stdin empty, output ignored, and waits. Gives the shell
// status, or -1 when it could not be started.
int runAndWait(const std::vector<std::string>& argv);

}  // namespace melvo::child
