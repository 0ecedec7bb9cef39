#include "melvo/synthesis/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>

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

bool groupHasLiveMembers(pid_t pgid) {
  if (!groupExists(pgid)) return false;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in(it->path() / "stat");
    std::string stat;
    if (!std::getline(in, stat)) continue;
    // "pid (comm) state ppid pgrp ...": comm may hold anything, so read after the last ')'.
    const auto close = stat.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    long ppid = 0, group = 0;
    if (std::sscanf(stat.c_str() + close + 1, " %c %ld %ld", &state, &ppid, &group) != 3) continue;
    if (group == pgid && state != 'Z' && state != 'X') return true;
  }
  return false;
}

namespace {

void sleepMs(long ms) {
  timespec t{ms / 1000, (ms % 1000) * 1000000L};
  while (::nanosleep(&t, &t) != 0 && errno == EINTR) {
  }
}

// The watchdog's whole life, in the forked child: nothing here may allocate or take a lock,
// since another thread of the parent may have held one at the fork.
[[noreturn]] void watch(int readFd, pid_t pgid, const char* leftover) {
  ::setpgid(0, 0);  // out of the terminal's reach: Ctrl-C and a closed terminal are not for it
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  for (int s : {SIGINT, SIGHUP, SIGQUIT, SIGPIPE, SIGTSTP}) ::sigaction(s, &ignore, nullptr);
  if (readFd != 0) {
    ::dup2(readFd, 0);
    ::close(readFd);
  }
  ::close_range(1, ~0U, 0);
  bool released = false;
  for (;;) {
    char c = 0;
    const ssize_t n = ::read(0, &c, 1);
    if (n == 1) {
      released = released || c == 'd';
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;
  }
  if (!released) {
    ::kill(-pgid, SIGTERM);
    for (int i = 0; i < 60 && ::kill(-pgid, 0) == 0; ++i) sleepMs(50);
    ::kill(-pgid, SIGKILL);
    if (*leftover) ::unlink(leftover);
  }
  ::_exit(0);
}

}  // namespace

int startWatchdog(pid_t pgid, const std::filesystem::path& leftover) {
  int fds[2];
  if (pgid <= 0 || ::pipe2(fds, O_CLOEXEC) != 0) return -1;
  const std::string path = leftover.string();  // made before the fork: the child cannot
  const pid_t middle = ::fork();
  if (middle < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return -1;
  }
  if (middle == 0) {
    // Forked twice, so that init adopts the watchdog and nobody here has to reap it.
    if (::fork() != 0) ::_exit(0);
    ::close(fds[1]);
    watch(fds[0], pgid, path.c_str());
  }
  ::close(fds[0]);
  while (::waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
  }
  return fds[1];
}

void releaseWatchdog(int& fd) {
  if (fd < 0) return;
  const char done = 'd';
  while (::write(fd, &done, 1) < 0 && errno == EINTR) {
  }
  ::close(fd);
  fd = -1;
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
