// The .nsproj project file: the JSON encoding of a MusicDocument and nothing else.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "melvo/model/music_document.h"

namespace melvo {

// Decoding failed: not JSON, a wrong type, or a required key missing. what() is already in
// the user's language and names the place in the file where it can.
class ProjectDecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The largest ticks per quarter a project may declare: far beyond any score's need, and small
// enough that bar and time arithmetic over ticks up to maxTick cannot overflow.
inline constexpr std::int64_t kMaxPPQ = 1000000;

// Sorted keys, the pretty layout, `sourcePhonemes` only when present. Notices and the
// new-project mark are never written.
std::string encodeProject(const MusicDocument& document);
// Tolerant about what may be absent, strict about what may not (see the model's rules).
MusicDocument decodeProject(std::string_view bytes);
// The same, without copying `bytes` first: the parser reads a little past the end, so the
// string's capacity is grown by that much when it has no room (readFile leaves room).
MusicDocument decodeProjectInPlace(std::string& bytes);
// Encodes and writes in one atomic step. Throws FileError.
void writeProject(const MusicDocument& document, const std::filesystem::path& path);
// Reads and decodes. Throws FileError or ProjectDecodeError.
MusicDocument readProject(const std::filesystem::path& path);

bool hasProjectExtension(const std::filesystem::path& path);  // ".nsproj", any case

struct RecentProjectSummary {
  std::optional<int> trackCount;
  std::string voice;
  std::optional<std::string> colorHex;
  std::optional<std::chrono::system_clock::time_point> modified;
};
// Never fails: a damaged project keeps what could be read.
RecentProjectSummary readRecentSummary(const std::filesystem::path& path);

}  // namespace melvo
