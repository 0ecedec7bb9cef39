// Runs one generated bash script as a child process and hands its output back line by line
// on the main queue, then its exit status once, after the last line.
//
// The pipes are read on the main queue itself, non-blocking, so a line costs no hop between
// threads and the main queue never waits on the child. The script runs in its own process
// group: bash does not pass a signal on to the tool it is waiting for, and a cancel must stop
// the engine's CPU use too. A run ends (onExit) only once no process of its group is left, and
// a small watchdog process ends the group should this process die before that.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace melvo {

class EventLoop;

class SpawnError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ShellRunner {
 public:
  using LineHandler = std::function<void(const std::string& line)>;
  // The exit status; a child ended by a signal reports 128 + the signal, as a shell would.
  using ExitHandler = std::function<void(int status)>;

  // The loop must outlive the runner.
  explicit ShellRunner(EventLoop& mainQueue);
  // Kills what still runs of the group and reaps the script; no callback comes after this.
  ~ShellRunner();
  ShellRunner(const ShellRunner&) = delete;
  ShellRunner& operator=(const ShellRunner&) = delete;

  // Starts "/bin/bash <script>" in `workingDirectory`. stdout lines arrive as they are,
  // stderr lines with "[STDERR] " in front; empty and undecodable lines are dropped. Of what
  // one look at the pipes finds, stdout's lines come before stderr's. Throws
  // SpawnError when the child cannot be started; isRunning() then stays true until the next
  // run() or cancel().
  void run(const std::filesystem::path& script, const std::filesystem::path& workingDirectory,
           LineHandler onLine, ExitHandler onExit);

  // SIGTERM to the whole group now, SIGKILL 3 s later to whatever of it is left (timed on the
  // main queue); a second cancel sends SIGKILL at once. onExit still arrives, with the child's
  // own status, once the group is empty. Safe when nothing runs.
  void cancel();

  bool isRunning() const;
  // The running script's process id, which is also its process group id.
  std::optional<pid_t> processId() const;

  // Grace time between SIGTERM and SIGKILL.
  static constexpr int killDelayMs = 3000;
  // After a read that found output, the pipes are looked at again only this much later: lines
  // of a burst then come a few at a time, not with a wakeup each, and a lone line still comes
  // at once. Well under what anyone sees on a progress bar.
  static constexpr std::chrono::milliseconds burstPause{2};

 private:
  struct State;
  struct Reader;
  std::shared_ptr<State> state_;
};

// "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin:" followed by the inherited PATH.
std::string childSearchPath();

}  // namespace melvo
