#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace melvo::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "melvo-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

TempHome::TempHome() {
  if (const char* p = std::getenv("MELVO_HOME")) {
    previous_ = p;
    hadPrevious_ = true;
  }
  setenv("MELVO_HOME", dir_.path().c_str(), 1);
}

TempHome::~TempHome() {
  if (hadPrevious_) {
    setenv("MELVO_HOME", previous_.c_str(), 1);
  } else {
    unsetenv("MELVO_HOME");
  }
}

std::filesystem::path dataPath(const std::string& relative) {
  return std::filesystem::path(MELVO_TEST_DATA_DIR) / relative;
}

std::filesystem::path corpusPath(const std::string& relative) {
  return std::filesystem::path(MELVO_CORPUS_DIR) / relative;
}

std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

pid_t spawnMelvo(const std::vector<std::string>& args, const std::vector<std::string>& env,
                 const std::filesystem::path& outPath, const std::filesystem::path& errPath,
                 bool ownGroup) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&fa, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);

  std::vector<std::string> argStore{MELVO_BINARY};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argStore) argv.push_back(a.data());
  argv.push_back(nullptr);

  // Entries given here replace the inherited ones: getenv() would find the first of two.
  std::vector<std::string> envStore(env.begin(), env.end());
  for (char** e = environ; *e; ++e) {
    std::string_view entry(*e);
    std::string_view key = entry.substr(0, entry.find('=') + 1);
    bool overridden = false;
    for (const auto& given : env) overridden = overridden || given.rfind(key, 0) == 0;
    if (!overridden) envStore.emplace_back(entry);
  }
  std::vector<char*> envp;
  for (auto& e : envStore) envp.push_back(e.data());
  envp.push_back(nullptr);

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  if (ownGroup) {
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
  }
  pid_t pid;
  int rc = posix_spawn(&pid, MELVO_BINARY, &fa, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) throw std::runtime_error("cannot start melvo");
  return pid;
}

RunResult runMelvo(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  TempDir scratch;
  auto outPath = scratch / "out", errPath = scratch / "err";
  const pid_t pid = spawnMelvo(args, env, outPath, errPath);
  int status = 0;
  waitpid(pid, &status, 0);
  RunResult r;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = readText(outPath);
  r.err = readText(errPath);
  return r;
}

std::optional<std::string> readLineFrom(int fd, std::string& buffer,
                                        std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (auto nl = buffer.find('\n'); nl != std::string::npos) {
      std::string line = buffer.substr(0, nl);
      buffer.erase(0, nl + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[65536];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer.append(chunk, static_cast<std::size_t>(n));
  }
}

}  // namespace melvo::test
