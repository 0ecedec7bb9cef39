#include "melvo/synthesis/installation_finder.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/text.h"
#include "melvo/synthesis/child_process.h"
#include "melvo/synthesis/shell_runner.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

bool pathExists(const fs::path& p) {
  std::error_code ec;
  return fs::exists(p, ec);
}

bool isDirectory(const fs::path& p) {
  std::error_code ec;
  return fs::is_directory(p, ec);
}

bool isExecutableFile(const fs::path& p) {
  std::error_code ec;
  return fs::is_regular_file(p, ec) && ::access(p.c_str(), X_OK) == 0;
}

// Visible sub-folders of `dir`, sorted; empty when it cannot be listed.
std::vector<std::string> visibleFolders(const fs::path& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  fs::directory_iterator it(dir, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.empty() || name[0] == '.') continue;
    std::error_code dec;
    if (it->is_directory(dec)) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::vector<CharacterModel> scanCharacters(const fs::path& directory) {
  std::vector<CharacterModel> out;
  for (auto& name : visibleFolders(directory / "model"))
    out.push_back({Uuid::random(), name, (directory / "model" / name).string()});
  return out;
}

fs::path toolPath(const fs::path& binDir, const std::string& name) {
  for (const std::string& candidate : {name, text::asciiLower(name), [&] {
                                         std::string upper = name;
                                         for (char& c : upper)
                                           if (c >= 'a' && c <= 'z')
                                             c = static_cast<char>(c - 'a' + 'A');
                                         return upper;
                                       }()}) {
    if (pathExists(binDir / candidate)) return binDir / candidate;
  }
  std::error_code ec;
  fs::directory_iterator it(binDir, ec), end;
  const std::string wanted = text::asciiLower(name);
  for (; !ec && it != end; it.increment(ec))
    if (text::asciiLower(it->path().filename().string()) == wanted) return it->path();
  return binDir / name;
}

namespace NEUTRINOInstallationFinder {
namespace {

// What the loaders print when a shared library is missing or broken: the other OS's first,
// then glibc's.
constexpr const char* loaderMarkers[] = {"Library not loaded",
                                         "image not found",
                                         "dyld[",
                                         "no such file",
                                         "Symbol not found",
                                         "error while loading shared libraries",
                                         "cannot open shared object file"};

bool hasAny(const fs::path& bin, std::initializer_list<const char*> names) {
  for (const char* n : names)
    if (pathExists(bin / n)) return true;
  return false;
}

void drain(int fd, std::string& out) {
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      out.append(buf, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return;
  }
}

// Reads until the end of the pipe, but gives up after `limit`: a process that escaped the
// group may still hold the pipe open.
void readToEnd(int fd, std::string& out, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return;
    char buf[4096];
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      out.append(buf, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      return;
    }
  }
}

bool waitFor(pid_t pid, int& status, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return true;  // not ours any more
    if (std::chrono::steady_clock::now() >= until) return false;
    ::usleep(20000);
  }
}

}  // namespace

bool isInstallation(const fs::path& path) {
  const fs::path bin = path / "bin";
  return isDirectory(bin) && hasAny(bin, {"neutrino", "NEUTRINO"}) &&
         hasAny(bin, {"musicXMLtoLabel", "MusicXMLtoLabel"});
}

ExecutableCheck checkExecutable(const fs::path& path, double timeoutSec,
                                const std::atomic<bool>* stop) {
  fs::path tool;
  for (const char* name : {"neutrino", "NEUTRINO"}) {
    if (isExecutableFile(path / "bin" / name)) {
      tool = path / "bin" / name;
      break;
    }
  }
  if (tool.empty()) return Missing{};

  std::string libraryPath = (path / "bin").string();
  if (const char* inherited = std::getenv("LD_LIBRARY_PATH"))
    libraryPath += std::string(":") + inherited;
  child::SpawnOptions options;
  options.argv = {"/bin/bash", "-c", "\"$0\" 2>&1", tool.string()};
  options.env = child::environmentWith("LD_LIBRARY_PATH", libraryPath);
  options.mergeStderr = true;
  child::Spawned spawned;
  try {
    spawned = child::spawn(options);
  } catch (const SpawnError& e) {
    return Broken{std::string(tr("起動できませんでした: ")) + e.what()};
  }
  int flags = ::fcntl(spawned.outFd, F_GETFL);
  if (flags != -1) ::fcntl(spawned.outFd, F_SETFL, flags | O_NONBLOCK);

  std::string output;
  int status = 0;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(std::max(0.0, timeoutSec));
  bool ended = false;
  for (;;) {
    drain(spawned.outFd, output);  // keeps a chatty tool from blocking on a full pipe
    pid_t r = ::waitpid(spawned.pid, &status, WNOHANG);
    if (r == spawned.pid || (r < 0 && errno != EINTR)) {
      ended = true;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    if (stop && stop->load()) {
      // Nobody waits for the answer any more: no grace time.
      child::signalGroup(spawned.pid, SIGKILL);
      waitFor(spawned.pid, status, std::chrono::milliseconds(2000));
      ::close(spawned.outFd);
      return Missing{};
    }
    ::usleep(20000);
  }
  if (!ended) {
    // Still running: it got past loading its libraries. End it, and whatever it started.
    child::signalGroup(spawned.pid, SIGTERM);
    if (!waitFor(spawned.pid, status, std::chrono::milliseconds(1000))) {
      child::signalGroup(spawned.pid, SIGKILL);
      waitFor(spawned.pid, status, std::chrono::milliseconds(2000));
    }
  }
  if (child::groupExists(spawned.pid)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    child::signalGroup(spawned.pid, SIGKILL);
  }
  flags = ::fcntl(spawned.outFd, F_GETFL);
  if (flags != -1) ::fcntl(spawned.outFd, F_SETFL, flags & ~O_NONBLOCK);
  readToEnd(spawned.outFd, output, std::chrono::milliseconds(2000));
  ::close(spawned.outFd);

  if (!text::isValidUtf8(output)) {
    std::string cleaned;
    std::size_t i = 0;
    while (i < output.size()) text::appendScalar(cleaned, text::nextScalar(output, i));
    output = std::move(cleaned);
  }
  for (const char* marker : loaderMarkers)
    if (output.find(marker) != std::string::npos)
      return Broken{std::string(text::trimWhitespaceAndNewlines(output))};
  return Ok{};
}

fs::path searchHome() {
  if (const char* h = std::getenv("MELVO_HOME"); h && *h) return h;
  return paths::homeDir();
}

std::vector<std::string> discover() {
  std::vector<std::string> found;
  auto add = [&](const fs::path& p) {
    std::string s = p.lexically_normal().string();
    if (std::find(found.begin(), found.end(), s) == found.end()) found.push_back(std::move(s));
  };
  const fs::path home = searchHome();
  static constexpr const char* homePlaces[] = {"Desktop/NEUTRINO",
                                               "Downloads/NEUTRINO",
                                               "Documents/NEUTRINO",
                                               "Applications/NEUTRINO",
                                               "Music/NEUTRINO",
                                               "Desktop/NEUTRINO_v100",
                                               "Desktop/NEUTRINO_v110",
                                               "Desktop/NEUTRINO_v120",
                                               "Downloads/NEUTRINO_v100",
                                               "Downloads/NEUTRINO_v110",
                                               "Downloads/NEUTRINO_v120",
                                               "Downloads/macOS/NEUTRINO",
                                               "Desktop/macOS/NEUTRINO",
                                               "Documents/macOS/NEUTRINO",
                                               "Downloads/NEUTRINO/macOS",
                                               "Desktop/NEUTRINO/macOS",
                                               "NEUTRINO",
                                               ".local/share/NEUTRINO"};
  for (const char* place : homePlaces)
    if (isInstallation(home / place)) add(home / place);
  // The machine-wide places are left out while MELVO_HOME fences everything in.
  const char* fenced = std::getenv("MELVO_HOME");
  if (!fenced || !*fenced) {
    for (const char* place : {"/Applications/NEUTRINO", "/opt/NEUTRINO"})
      if (isInstallation(place)) add(place);
  }
  for (const char* root : {"Downloads", "Desktop", "Documents", "Music", "Applications"}) {
    std::vector<std::pair<fs::path, int>> stack{{home / root, 0}};
    while (!stack.empty()) {
      auto [dir, depth] = stack.back();
      stack.pop_back();
      if (isInstallation(dir)) {
        add(dir);
        continue;
      }
      if (depth > 2) continue;
      for (const auto& name : visibleFolders(dir)) stack.emplace_back(dir / name, depth + 1);
    }
  }
  return found;
}

std::optional<std::string> bestCandidate(const std::atomic<bool>* stop) {
  auto all = discover();
  if (all.empty()) return std::nullopt;
  for (const auto& p : all) {
    if (stop && stop->load()) break;
    if (std::holds_alternative<Ok>(checkExecutable(p, defaultCheckTimeout, stop))) return p;
  }
  return all.front();
}

std::vector<std::string> candidates() {
  return discover();
}

ConfiguredPathHealth health(const std::string& path, double timeoutSec,
                            const std::atomic<bool>* stop) {
  if (path.empty()) return NotConfigured{};
  ExecutableCheck check = checkExecutable(path, timeoutSec, stop);
  if (std::holds_alternative<Ok>(check)) return Ok{};
  std::string detail = tr(
      "NEUTRINO は見つかりましたが、実行できませんでした。インストールが不完全な可能性があります。"
      "配布元から再取得して入れ直すと解決することがあります。");
  if (auto* broken = std::get_if<Broken>(&check)) {
    auto chars = text::graphemes(broken->detail);
    std::string head;
    for (std::size_t i = 0; i < chars.size() && i < 200; ++i) head += chars[i];
    detail += "\n\n" + head;
  }
  auto c = stop && stop->load() ? std::nullopt : bestCandidate(stop);
  if (c && fs::path(*c).lexically_normal() != fs::path(path).lexically_normal() &&
      isInstallation(*c) && std::holds_alternative<Ok>(checkExecutable(*c, timeoutSec, stop)))
    return BrokenWithAlternative{detail, *c};
  return BrokenNoAlternative{detail};
}

std::string healthMessage(const ConfiguredPathHealth& h) {
  if (std::holds_alternative<NotConfigured>(h))
    return tr(
        "NEUTRINOフォルダが設定されていません。上帯の歯車（設定）か、メニュー「Melvo」→「設定…"
        "」（⌘,）から指定してください。");
  if (auto* alt = std::get_if<BrokenWithAlternative>(&h))
    return std::string(tr("使える NEUTRINO が別の場所に見つかりました。「設定」でこちらへ切り替えて"
                          "ください：")) +
           alt->alternative;
  if (auto* no = std::get_if<BrokenNoAlternative>(&h)) return no->detail;
  return "";
}

InstallationStatus status(const fs::path& path) {
  InstallationStatus s;
  s.path = path.string();
  const fs::path bin = path / "bin";
  s.hasNEUTRINO = hasAny(bin, {"neutrino", "NEUTRINO"});
  s.hasNSF_IO = pathExists(bin / "NSF_IO");
  s.hasWORLD = pathExists(bin / "WORLD");
  s.hasMusicXMLtoLabel = hasAny(bin, {"musicXMLtoLabel", "MusicXMLtoLabel"});
  s.isValid = s.hasNEUTRINO && s.hasMusicXMLtoLabel;
  s.characterNames = visibleFolders(path / "model");
  s.characterCount = static_cast<int>(s.characterNames.size());
  return s;
}

}  // namespace NEUTRINOInstallationFinder
}  // namespace melvo
