#include "melvo/synthesis/shell_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "melvo/platform/event_loop.h"
#include "melvo/platform/text.h"
#include "melvo/synthesis/child_process.h"

namespace melvo {

std::string childSearchPath() {
  const char* inherited = std::getenv("PATH");
  return std::string("/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin:") +
         (inherited ? inherited : "");
}

namespace {

constexpr std::size_t kReadSize = 65536;
// Reads of one pipe in one look. The main queue has other work: an engine that writes without
// end must not keep it here.
constexpr int kReadsPerLook = 16;
// Reads of one pipe once the script has ended: what the pipe holds, unless something the
// script left behind keeps writing, which is then cut off.
constexpr int kReadsAtExit = 64;

// One of the child's two output pipes and the line it has not finished yet.
struct Pipe {
  explicit Pipe(asio::io_context& io, const char* p) : d(io), prefix(p) {}
  ~Pipe() { close(); }
  asio::posix::stream_descriptor d;  // open only while the loop watches the pipe
  int fd = -1;
  std::string_view prefix;
  std::string carry;   // bytes after the last newline so far
  bool armed = false;  // a readiness wait is queued
  bool ended = false;  // end of file, or an error that reading again would repeat

  // The loop's poller reports every write into a watched pipe, waited for or not, so a pipe
  // is taken out of it while the reader pauses and put back when it waits again.
  // False when the poller would not take it; the reader then looks again after a pause.
  bool watch() {
    asio::error_code ec;
    if (!d.is_open() && fd >= 0) d.assign(fd, ec);
    return !ec;
  }
  void unwatch() {
    if (d.is_open()) d.release();  // a queued wait comes back aborted
  }
  void close() {
    unwatch();
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

}  // namespace

// One run's reading side, on the main queue. Its handlers hold it alive; the runner keeps it
// in `readers` until its exit has been delivered, so that a destroyed runner can end it.
struct ShellRunner::Reader : std::enable_shared_from_this<Reader> {
  std::weak_ptr<State> owner;
  std::weak_ptr<bool> alive;  // gone once the runner is destroyed: then nothing is delivered
  pid_t pid;
  LineHandler onLine;
  ExitHandler onExit;

  Pipe out, err;
  asio::posix::stream_descriptor exitWatch;  // a pidfd: readable once the child has ended
  asio::steady_timer pause;
  bool pausing = false;
  bool finished = false;  // the exit has been handled, or the runner is gone
  bool busy = false;      // inside pump(): a nested turn of the loop must not read under it
  bool exitSeen = false;  // the child ended while busy; finish() once the pump is done
  std::unique_ptr<char[]> chunk;
  std::string line;  // reused for every line handed out

  asio::steady_timer escalation;  // SIGKILL after a cancel's grace time
  asio::steady_timer groupWait;   // polls for the group's last process after the script ended
  std::optional<std::chrono::steady_clock::time_point> killAt;  // set once ending was asked for
  int watchdog = -1;

  Reader(asio::io_context& io, pid_t p)
      : pid(p),
        out(io, ""),
        err(io, "[STDERR] "),
        exitWatch(io),
        pause(io),
        escalation(io),
        groupWait(io) {}
  ~Reader() { child::releaseWatchdog(watchdog); }

  bool gone() const { return finished || alive.expired(); }

  // Hands one line out. False once nothing more may be delivered.
  bool deliver(std::string_view bytes, std::string_view prefix) {
    if (bytes.empty() || !text::isValidUtf8(bytes)) return true;
    line.assign(prefix);
    line.append(bytes);
    onLine(line);
    return !alive.expired();
  }

  // Splits freshly read bytes into lines, the first one completing what was carried over.
  bool take(Pipe& p, const char* data, std::size_t n) {
    const char* end = data + n;
    const char* nl = static_cast<const char*>(std::memchr(data, '\n', n));
    if (!nl) {
      p.carry.append(data, n);
      return true;
    }
    if (!p.carry.empty()) {
      p.carry.append(data, nl);
      const bool on = deliver(p.carry, p.prefix);
      p.carry.clear();
      if (!on) return false;
    } else if (!deliver(std::string_view(data, static_cast<std::size_t>(nl - data)), p.prefix)) {
      return false;
    }
    for (const char* from = nl + 1; from < end; from = nl + 1) {
      nl = static_cast<const char*>(std::memchr(from, '\n', static_cast<std::size_t>(end - from)));
      if (!nl) {
        p.carry.assign(from, end);
        break;
      }
      if (!deliver(std::string_view(from, static_cast<std::size_t>(nl - from)), p.prefix))
        return false;
    }
    return true;
  }

  // Reads what the pipe holds now, up to `reads` reads, and delivers its whole lines. Sets
  // `got` when bytes came. False once nothing more may be delivered.
  bool drain(Pipe& p, int reads, bool& got) {
    for (; reads > 0 && !p.ended && !gone(); --reads) {
      const ssize_t n = ::read(p.fd, chunk.get(), kReadSize);
      if (n > 0) {
        got = true;
        if (!take(p, chunk.get(), static_cast<std::size_t>(n))) return false;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      // EAGAIN: the next look reads on. End of file and real errors: nothing more comes.
      if (n == 0 || errno != EAGAIN) p.ended = true;
      break;
    }
    return !gone();
  }

  // One look at both pipes, stdout's lines first. A look that found output waits a little
  // before the next one, so that a chatty engine costs one wakeup per pause instead of one
  // per line; a quiet one gets each line as soon as it comes.
  void pump() {
    if (busy || gone()) return;
    busy = true;
    bool got = false;
    const bool on = drain(out, kReadsPerLook, got) && drain(err, kReadsPerLook, got);
    busy = false;
    if (!on) return;
    if (exitSeen) {
      finish();
      return;
    }
    if (got) {
      out.unwatch();
      err.unwatch();
      lookAgainLater();
      return;
    }
    arm(out);
    arm(err);
  }

  void lookAgainLater() {
    if (pausing) return;
    pausing = true;
    pause.expires_after(burstPause);
    pause.async_wait([self = shared_from_this()](const asio::error_code& ec) {
      self->pausing = false;
      if (!ec) self->pump();
    });
  }

  void arm(Pipe& p) {
    if (p.armed || p.ended) return;
    if (!p.watch()) {
      lookAgainLater();
      return;
    }
    p.armed = true;
    p.d.async_wait(asio::posix::descriptor_base::wait_read,
                   [self = shared_from_this(), &p](const asio::error_code& ec) {
                     p.armed = false;
                     if (!ec && !self->pausing) self->pump();
                   });
  }

  void start() {
    chunk.reset(new char[kReadSize]);
    exitWatch.async_wait(asio::posix::descriptor_base::wait_read,
                         [self = shared_from_this()](const asio::error_code& ec) {
                           if (ec) return;
                           if (self->busy)
                             self->exitSeen = true;
                           else
                             self->finish();
                         });
    arm(out);
    arm(err);
  }

  // Frees the descriptors; pending waits come back aborted and do nothing.
  void closePipes() {
    asio::error_code ignored;
    pause.cancel();
    out.close();
    err.close();
    exitWatch.close(ignored);
  }
  void close() {
    finished = true;
    closePipes();
    escalation.cancel();
    groupWait.cancel();
  }

  void reap() {
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    status = child::shellStatus(waitStatus);
  }
  int status = -1;

  void finish() {
    if (gone()) return;
    reap();
    // Everything the pipes still hold, stdout's before stderr's, then the unterminated tails.
    busy = true;
    bool got = false;
    bool on = drain(out, kReadsAtExit, got) && drain(err, kReadsAtExit, got);
    busy = false;
    on = on && deliver(out.carry, out.prefix) && deliver(err.carry, err.prefix);
    if (!on) return;
    closePipes();
    awaitEmptyGroup();
  }

  // The script has ended, but a tool it started may live on: bash does not pass a SIGTERM on,
  // and a tool may ignore it. The run is over only once nothing of its group is left, so that
  // whoever waits for the exit can quit without leaving the engine running.
  void awaitEmptyGroup() {
    if (child::groupHasLiveMembers(pid)) {
      const auto now = std::chrono::steady_clock::now();
      if (!killAt) {
        child::signalGroup(pid, SIGTERM);
        killAt = now + std::chrono::milliseconds(killDelayMs);
      }
      // A zombie that nobody reaps is not waited for; past this, a live process is reported.
      if (now < *killAt + std::chrono::seconds(2)) {
        if (now >= *killAt) child::signalGroup(pid, SIGKILL);
        groupWait.expires_after(std::chrono::milliseconds(20));
        groupWait.async_wait([self = shared_from_this()](const asio::error_code& ec) {
          if (!ec && !self->alive.expired()) self->awaitEmptyGroup();
        });
        return;
      }
    }
    finished = true;
    escalation.cancel();
    child::releaseWatchdog(watchdog);
    auto state = owner.lock();
    if (state) closeRun(*state);
    onExit(status);
  }

  // SIGTERM now and SIGKILL after the grace time, timed on the main queue; a second cancel
  // does not wait.
  void terminate() {
    const auto now = std::chrono::steady_clock::now();
    if (killAt) {
      killAt = now;
      child::signalGroup(pid, SIGKILL);
      return;
    }
    killAt = now + std::chrono::milliseconds(killDelayMs);
    child::signalGroup(pid, SIGTERM);
    escalation.expires_at(*killAt);
    escalation.async_wait([self = shared_from_this()](const asio::error_code& ec) {
      if (!ec && !self->finished && child::groupExists(self->pid))
        child::signalGroup(self->pid, SIGKILL);
    });
  }

  void closeRun(State& state);
};

struct ShellRunner::State {
  EventLoop& main;
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
  bool isRunning = false;
  std::optional<pid_t> pid;                      // the current run's child, also its process group
  std::vector<std::shared_ptr<Reader>> readers;  // every run whose exit is not yet delivered

  explicit State(EventLoop& m) : main(m) {}
};

void ShellRunner::Reader::closeRun(State& state) {
  if (state.pid == pid) {
    state.pid.reset();
    state.isRunning = false;
  }
  for (auto it = state.readers.begin(); it != state.readers.end(); ++it) {
    if (it->get() == this) {
      state.readers.erase(it);
      break;
    }
  }
}

namespace {

int pidfdOpen(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

void setNonBlocking(int fd) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags != -1) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

}  // namespace

ShellRunner::ShellRunner(EventLoop& mainQueue) : state_(std::make_shared<State>(mainQueue)) {}

ShellRunner::~ShellRunner() {
  state_->alive.reset();  // a line handler that destroyed us stops its reader right there
  // Killed here and now: whoever drops the runner may be about to quit.
  for (auto& r : state_->readers) child::signalGroup(r->pid, SIGKILL);
  for (auto& r : state_->readers) {
    if (r->finished) continue;
    if (r->exitWatch.is_open()) r->reap();
    r->close();
    child::releaseWatchdog(r->watchdog);
  }
}

bool ShellRunner::isRunning() const {
  return state_->isRunning;
}

std::optional<pid_t> ShellRunner::processId() const {
  return state_->pid;
}

void ShellRunner::run(const std::filesystem::path& script,
                      const std::filesystem::path& workingDirectory, LineHandler onLine,
                      ExitHandler onExit) {
  if (state_->isRunning) cancel();

  child::SpawnOptions options;
  options.argv = {"/bin/bash", script.string()};
  options.env = child::environmentWith("PATH", childSearchPath());
  options.workingDirectory = workingDirectory;
  state_->isRunning = true;
  child::Spawned spawned = child::spawn(options);  // throws; isRunning stays as it is

  const int pidfd = pidfdOpen(spawned.pid);
  if (pidfd < 0) {
    const std::string reason = std::strerror(errno);
    ::kill(-spawned.pid, SIGKILL);
    ::waitpid(spawned.pid, nullptr, 0);
    ::close(spawned.outFd);
    ::close(spawned.errFd);
    throw SpawnError(reason);
  }
  setNonBlocking(spawned.outFd);
  setNonBlocking(spawned.errFd);

  auto reader = std::make_shared<Reader>(state_->main.context(), spawned.pid);
  reader->owner = state_;
  reader->alive = state_->alive;
  reader->onLine = std::move(onLine);
  reader->onExit = std::move(onExit);
  reader->out.fd = spawned.outFd;
  reader->err.fd = spawned.errFd;
  reader->exitWatch.assign(pidfd);
  // Should this process die before the run ends, the engine must not sing on unattended.
  reader->watchdog = child::startWatchdog(spawned.pid, script);
  state_->pid = spawned.pid;
  state_->readers.push_back(reader);
  reader->start();
}

void ShellRunner::cancel() {
  if (state_->pid) {
    for (auto& r : state_->readers)
      if (r->pid == *state_->pid && !r->finished) r->terminate();
  }
  state_->isRunning = false;
}

}  // namespace melvo
