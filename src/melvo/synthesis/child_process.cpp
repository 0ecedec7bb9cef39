#include "melvo/synthesis/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "melvo/synthesis/shell_runner.h"

extern char** environ;

namespace melvo::child {
namespace {

struct Pipe {
  int fd[2] = {-1, -1};
  void make() {
    if (::pipe2(fd, O_CLOEXEC) != 0) throw SpawnError(std::strerror(errno));
  }
  ~Pipe() {
    for (int f : fd)
      if (f >= 0) ::close(f);
  }
  int release(int i) {
    int f = fd[i];
    fd[i] = -1;
    return f;
  }
};

}  // namespace

Spawned spawn(const SpawnOptions& o) {
  Pipe out, err;
  out.make();
  if (!o.mergeStderr) err.make();

  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, out.fd[1], 1);
  posix_spawn_file_actions_adddup2(&fa, o.mergeStderr ? out.fd[1] : err.fd[1], 2);
  if (!o.workingDirectory.empty())
    posix_spawn_file_actions_addchdir_np(&fa, o.workingDirectory.c_str());

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (o.newProcessGroup) {
    flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setpgroup(&attr, 0);
  }
  posix_spawnattr_setflags(&attr, flags);
  // The child starts with a clean slate whatever this process blocks or ignores, so that a
  // cancel's SIGTERM really ends it.
  sigset_t none, defaults;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  sigemptyset(&defaults);
  for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD}) sigaddset(&defaults, s);
  posix_spawnattr_setsigdefault(&attr, &defaults);

  std::vector<char*> argv, envp;
  for (const auto& a : o.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  for (const auto& e : o.env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, argv[0], &fa, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) throw SpawnError(std::strerror(rc));

  Spawned s;
  s.pid = pid;
  s.outFd = out.release(0);
  if (!o.mergeStderr) s.errFd = err.release(0);
  return s;  // the write ends close with the Pipes, so EOF comes when the child is done
}

std::vector<std::string> environmentWith(std::string_view name, const std::string& value) {
  std::vector<std::string> env;
  bool set = false;
  const std::string prefix = std::string(name) + "=";
  for (char** e = environ; e && *e; ++e) {
    std::string_view entry(*e);
    if (entry.substr(0, prefix.size()) == prefix) {
      if (!set) env.push_back(prefix + value);
      set = true;
    } else {
      env.emplace_back(entry);
    }
  }
  if (!set) env.push_back(prefix + value);
  return env;
}

int shellStatus(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

bool signalGroup(pid_t pgid, int sig) {
  return pgid > 0 && ::kill(-pgid, sig) == 0;
}

bool groupExists(pid_t pgid) {
  return signalGroup(pgid, 0) || (pgid > 0 && errno == EPERM);
}

}  // namespace melvo::child

namespace melvo::child {

int runAndWait(const std::vector<std::string>& argv) {
  SpawnOptions o;
  o.argv = argv;
  for (char** e = environ; e && *e; ++e) o.env.emplace_back(*e);
  o.mergeStderr = true;
  o.newProcessGroup = false;
  Spawned s;
  try {
    s = spawn(o);
  } catch (const SpawnError&) {
    return -1;
  }
  char buf[4096];
  while (true) {
    ssize_t n = ::read(s.outFd, buf, sizeof buf);
    if (n > 0 || (n < 0 && errno == EINTR)) continue;
    break;
  }
  ::close(s.outFd);
  int status = 0;
  while (::waitpid(s.pid, &status, 0) < 0 && errno == EINTR) {
  }
  return shellStatus(status);
}

}  // namespace melvo::child
