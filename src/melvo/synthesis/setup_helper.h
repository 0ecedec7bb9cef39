// Making a freshly unpacked engine folder runnable, and unpacking an engine folder that ships
// with Melvo itself.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace melvo {
namespace NEUTRINOSetupHelper {

struct Status {
  bool neutrinoDirOK = false;    // <dir>/bin exists
  bool quarantineFound = false;  // there is no download quarantine on Linux: always false
  std::vector<std::string> executablesMissing;  // tools present in bin without the x bit
};

Status status(const std::filesystem::path& directory);

// chmod -R 755 on <dir>/bin, logging each step. True when that succeeded.
bool fix(const std::filesystem::path& directory,
         const std::function<void(const std::string&)>& log);

}  // namespace NEUTRINOSetupHelper

namespace BundledEngine {

// <executable's folder>/../share/melvo/NEUTRINO when it holds bin/ with both tools.
std::optional<std::filesystem::path> resourceFolder();
// Where a shipped engine is unpacked to: <data folder>/NEUTRINO.
std::filesystem::path installRoot();
// Written last, so an interrupted copy is redone in full at the next start.
inline constexpr const char* markerName = ".ns_installed_v1";

// The unpacked copy if complete, else the shipped folder, else the configured folder if it
// exists, else nothing.
std::optional<std::filesystem::path> installedPath(
    const std::string& configured, const std::optional<std::filesystem::path>& resources);

struct SetupState {
  double progress = 0;
  std::string stage;
  bool running = false;
  bool done = false;
};

// Copies the shipped folder to installRoot() unless the marker says it is there; reports each
// change of state. Nothing happens without a shipped folder.
void installBundledIfNeeded(const std::optional<std::filesystem::path>& resources,
                            const std::function<void(const SetupState&)>& onChange);

}  // namespace BundledEngine
}  // namespace melvo
