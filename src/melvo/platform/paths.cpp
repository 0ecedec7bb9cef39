#include "melvo/platform/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace melvo::paths {
namespace {

const char* env(const char* name) {
  const char* v = std::getenv(name);
  return (v && *v) ? v : nullptr;
}

std::filesystem::path melvoHome() {
  const char* h = env("MELVO_HOME");
  return h ? std::filesystem::path(h) : std::filesystem::path();
}

std::filesystem::path xdg(const char* var, const char* fallbackUnderHome) {
  if (const char* v = env(var); v && v[0] == '/') return v;
  return homeDir() / fallbackUnderHome;
}

}  // namespace

std::filesystem::path homeDir() {
  if (const char* h = env("HOME")) return h;
  if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

std::filesystem::path configDir() {
  if (auto h = melvoHome(); !h.empty()) return h;
  return xdg("XDG_CONFIG_HOME", ".config") / "melvo";
}

std::filesystem::path dataDir() {
  if (auto h = melvoHome(); !h.empty()) return h;
  return xdg("XDG_DATA_HOME", ".local/share") / "melvo";
}

std::filesystem::path autoSaveDir() {
  return dataDir() / "AutoSaves";
}

std::filesystem::path socketPath() {
  if (auto h = melvoHome(); !h.empty()) return h / "mcp.sock";
  if (const char* run = env("XDG_RUNTIME_DIR"))
    return std::filesystem::path(run) / "melvo" / "mcp.sock";
  return dataDir() / "mcp.sock";
}

std::filesystem::path musicDir() {
  if (auto h = melvoHome(); !h.empty()) return h / "Music";
  if (const char* m = env("XDG_MUSIC_DIR")) return m;
  // user-dirs.dirs holds lines such as XDG_MUSIC_DIR="$HOME/Musik".
  std::ifstream in(xdg("XDG_CONFIG_HOME", ".config") / "user-dirs.dirs");
  std::string line;
  while (std::getline(in, line)) {
    const std::string key = "XDG_MUSIC_DIR=";
    if (line.rfind(key, 0) != 0) continue;
    std::string value = line.substr(key.size());
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    if (value.rfind("$HOME", 0) == 0) value = homeDir().string() + value.substr(5);
    if (!value.empty() && value[0] == '/') return value;
  }
  return homeDir() / "Music";
}

std::filesystem::path trashDir() {
  if (auto h = melvoHome(); !h.empty()) return h / "Trash";
  return xdg("XDG_DATA_HOME", ".local/share") / "Trash";
}

std::filesystem::path logFile() {
  return dataDir() / "melvo.log";
}

std::filesystem::path tempDir() {
  if (const char* t = env("TMPDIR")) return t;
  return "/tmp";
}

}  // namespace melvo::paths
