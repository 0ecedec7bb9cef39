// Finding the engine: the voices in a folder, whether a folder holds the engine, the search
// for one on this machine, and whether a configured folder really runs.
#pragma once

#include <atomic>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "melvo/platform/uuid.h"

namespace melvo {

struct CharacterModel {
  Uuid id;  // fresh at every scan, so a selection is kept by name
  std::string name;
  std::string directoryPath;
  bool operator==(const CharacterModel& o) const { return id == o.id; }
};

// The folders under <directory>/model, hidden ones left out, sorted by name. An unreadable
// folder gives an empty list.
std::vector<CharacterModel> scanCharacters(const std::filesystem::path& directory);

// The tool named `name` in `binDir`: the name as given, lower-case, upper-case, then any
// entry equal to it without regard to case; failing all, <binDir>/<name> as given.
std::filesystem::path toolPath(const std::filesystem::path& binDir, const std::string& name);

namespace NEUTRINOInstallationFinder {

struct Broken {
  std::string detail;
  bool operator==(const Broken&) const = default;
};
struct Ok {
  bool operator==(const Ok&) const = default;
};
struct Missing {
  bool operator==(const Missing&) const = default;
};
using ExecutableCheck = std::variant<Broken, Ok, Missing>;

struct BrokenWithAlternative {
  std::string detail;
  std::string alternative;
  bool operator==(const BrokenWithAlternative&) const = default;
};
struct BrokenNoAlternative {
  std::string detail;
  bool operator==(const BrokenNoAlternative&) const = default;
};
struct NotConfigured {
  bool operator==(const NotConfigured&) const = default;
};
using ConfiguredPathHealth =
    std::variant<BrokenWithAlternative, BrokenNoAlternative, Ok, NotConfigured>;

struct InstallationStatus {
  std::string path;
  bool isValid = false;  // the engine and the score converter; the vocoders do not count
  bool hasNEUTRINO = false;
  bool hasNSF_IO = false;
  bool hasWORLD = false;
  bool hasMusicXMLtoLabel = false;
  int characterCount = 0;
  std::vector<std::string> characterNames;  // ascending
};

// Every caller waits this long for the engine to show a loader failure.
inline constexpr double defaultCheckTimeout = 8.0;

bool isInstallation(const std::filesystem::path& path);

// Starts the engine once, with no arguments, and looks at what it prints: a loader failure is
// `Broken` with the text. A tool that is still running at the timeout is ended and counts as
// running. Blocks for up to `timeoutSec`; call it off the main thread. Once `stop` is set the
// check ends its processes at once and returns (with a result nobody should use).
ExecutableCheck checkExecutable(const std::filesystem::path& path,
                                double timeoutSec = defaultCheckTimeout,
                                const std::atomic<bool>* stop = nullptr);

// The usual install places, then a walk three folders deep under Downloads, Desktop,
// Documents, Music and Applications in the home folder. No duplicates.
std::vector<std::string> discover();
// The home folder that discover() searches; MELVO_HOME stands in for it when set, so that
// tests never search the real home.
std::filesystem::path searchHome();

// The first discovered installation that runs, else the first discovered one.
std::optional<std::string> bestCandidate(const std::atomic<bool>* stop = nullptr);
std::vector<std::string> candidates();

ConfiguredPathHealth health(const std::string& path, double timeoutSec = defaultCheckTimeout,
                            const std::atomic<bool>* stop = nullptr);
// The user-facing message of a health result, empty for Ok.
std::string healthMessage(const ConfiguredPathHealth& health);

InstallationStatus status(const std::filesystem::path& path);

}  // namespace NEUTRINOInstallationFinder
}  // namespace melvo
