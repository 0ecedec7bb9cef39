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
#include <mutex>
#include <thread>
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

// One run's reading side. Everything in it is touched on its own thread only, apart from the
// members set before the thread starts.
struct ShellRunner::Reader {
  EventLoop& main;
  std::weak_ptr<State> owner;
  std::weak_ptr<bool> alive;  // gone once the runner is destroyed: then nothing is delivered
  pid_t pid;
  LineHandler onLine;
  ExitHandler onExit;

  asio::io_context io{1};
  asio::posix::stream_descriptor out{io};
  asio::posix::stream_descriptor err{io};
  asio::posix::stream_descriptor exitWatch{io};  // a pidfd: readable once the child has ended
  std::vector<char> chunk = std::vector<char>(65536, 0);
  std::string outBuf, errBuf;
  bool finished = false;
  std::thread thread;

  Reader(EventLoop& m, pid_t p) : main(m), pid(p) {}

  void post(std::function<void()> job) {
    main.post([alive = alive, job = std::move(job)] {
      if (alive.lock()) job();
    });
  }

  void splitLines(std::string& buf, const char* prefix) {
    std::size_t from = 0;
    for (;;) {
      std::size_t nl = buf.find('\n', from);
      if (nl == std::string::npos) break;
      deliver(std::string_view(buf).substr(from, nl - from), prefix);
      from = nl + 1;
    }
    buf.erase(0, from);
  }

  // Lines of one read go to the main queue as one job: a chatty engine then costs the main
  // queue one wakeup per burst rather than one per line, and the order stays as it was.
  std::vector<std::string> pending;

  void deliver(std::string_view bytes, const char* prefix) {
    if (bytes.empty() || !text::isValidUtf8(bytes)) return;
    pending.push_back(std::string(prefix) + std::string(bytes));
  }

  void flush() {
    if (pending.empty()) return;
    post([this, lines = std::move(pending)] {
      for (const auto& line : lines) onLine(line);
    });
    pending.clear();
  }

  // Reads what is there now. False once the pipe has reached its end.
  bool readSome(int fd, std::string& buf, const char* prefix) {
    for (;;) {
      ssize_t n = ::read(fd, chunk.data(), chunk.size());
      if (n > 0) {
        buf.append(chunk.data(), static_cast<std::size_t>(n));
        splitLines(buf, prefix);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      flush();
      // EAGAIN and real errors: the next wakeup or the final drain reads on.
      return n != 0;
    }
  }

  void watch(asio::posix::stream_descriptor& d, std::string& buf, const char* prefix) {
    d.async_wait(asio::posix::descriptor_base::wait_read,
                 [this, &d, &buf, prefix](const asio::error_code& ec) {
                   if (ec || finished) return;
                   if (readSome(d.native_handle(), buf, prefix)) watch(d, buf, prefix);
                 });
  }

  void start() {
    exitWatch.async_wait(asio::posix::descriptor_base::wait_read,
                         [this](const asio::error_code& ec) {
                           if (!ec) finish();
                         });
    watch(out, outBuf, "");
    watch(err, errBuf, "[STDERR] ");
    thread = std::thread([this] { io.run(); });
  }

  void finish() {
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
    }
    const int status = child::shellStatus(waitStatus);
    asio::error_code ignored;
    out.cancel(ignored);
    err.cancel(ignored);
    // Everything the pipes still hold, stdout's before stderr's, then the unterminated tails.
    readSome(out.native_handle(), outBuf, "");
    readSome(err.native_handle(), errBuf, "[STDERR] ");
    finished = true;
    deliver(outBuf, "");
    deliver(errBuf, "[STDERR] ");
    flush();
    outBuf.clear();
    errBuf.clear();
    out.close(ignored);
    err.close(ignored);
    exitWatch.close(ignored);
    post([this, status] {
      auto state = owner.lock();
      if (state) closeRun(*state);
      onExit(status);
    });
  }

  void closeRun(State& state);
};

struct ShellRunner::State {
  EventLoop& main;
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
  bool isRunning = false;
  std::optional<pid_t> pid;                      // the current run's child, also its process group
  std::vector<std::unique_ptr<Reader>> readers;  // every run whose thread is not yet joined

  explicit State(EventLoop& m) : main(m) {}

  void reap(Reader* done) {
    for (auto it = readers.begin(); it != readers.end(); ++it) {
      if (it->get() != done) continue;
      // Called from the reader's last posted job: its thread has nothing left to do.
      if ((*it)->thread.joinable()) (*it)->thread.join();
      // The job that called us still runs inside this reader; free it on the next turn.
      main.post([keep = std::shared_ptr<Reader>(it->release())] {});
      readers.erase(it);
      return;
    }
  }
};

void ShellRunner::Reader::closeRun(State& state) {
  if (state.pid == pid) {
    state.pid.reset();
    state.isRunning = false;
  }
  state.reap(this);
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
  state_->alive.reset();  // queued callbacks of ours are dropped from here on
  for (auto& r : state_->readers) child::signalGroup(r->pid, SIGKILL);
  for (auto& r : state_->readers)
    if (r->thread.joinable()) r->thread.join();
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

  auto reader = std::make_unique<Reader>(state_->main, spawned.pid);
  reader->owner = state_;
  reader->alive = state_->alive;
  reader->onLine = std::move(onLine);
  reader->onExit = std::move(onExit);
  reader->out.assign(spawned.outFd);
  reader->err.assign(spawned.errFd);
  reader->exitWatch.assign(pidfd);
  state_->pid = spawned.pid;
  Reader* r = reader.get();
  state_->readers.push_back(std::move(reader));
  r->start();
}

void ShellRunner::cancel() {
  if (state_->pid) {
    const pid_t group = *state_->pid;
    child::signalGroup(group, SIGTERM);
    // Whatever of the group ignored SIGTERM is killed 3 s later; a group that has ended by
    // then is left alone.
    std::thread([group] {
      std::this_thread::sleep_for(std::chrono::milliseconds(killDelayMs));
      if (child::groupExists(group)) child::signalGroup(group, SIGKILL);
    }).detach();
  }
  state_->isRunning = false;
}

}  // namespace melvo
