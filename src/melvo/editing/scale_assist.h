// A guide over the pitch axis: a root and a scale mark the pitches in the scale, and the mode
// says how strongly that is enforced. Under `lock` a placed or dragged note snaps into it.
#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace melvo {

class Json;

enum class ScaleAssistMode { off, display, warn, lock };

enum class ScaleType {
  major,
  naturalMinor,
  harmonicMinor,
  melodicMinor,
  dorian,
  phrygian,
  lydian,
  mixolydian,
  locrian,
  majorPent,
  minorPent,
  japaneseYona,
  okinawan,
  blues,
  wholeTone,
  diminished,
  chromatic,
};
inline constexpr int kScaleTypeCount = 17;

struct ScaleAssist {
  ScaleAssistMode mode = ScaleAssistMode::off;
  ScaleType scaleType = ScaleType::major;
  int rootPitch = 60;  // only its pitch class counts
  bool operator==(const ScaleAssist&) const = default;
};

std::string_view modeRawValue(ScaleAssistMode mode);  // "lock"
std::optional<ScaleAssistMode> modeFromRaw(std::string_view raw);
const char* modeDescription(ScaleAssistMode mode);  // translated

std::string_view scaleRawValue(ScaleType type);  // "natural-minor"
std::optional<ScaleType> scaleFromRaw(std::string_view raw);
const char* scaleLabel(ScaleType type);  // translated
// Semitones above the root, ascending.
std::span<const int> scaleIntervals(ScaleType type);
ScaleType scaleTypeAt(int index);  // 0..16, in menu order

bool isInScale(int pitch, const ScaleAssist& assist);
// The pitch to place: unchanged unless the mode is lock; then the nearest pitch in the scale,
// upward first at each distance, never above 127.
int snapped(int pitch, const ScaleAssist& assist);

// Keys equal to the fields; the mode and the scale by their raw strings. Reading is lenient:
// an absent or unknown value keeps the default.
Json scaleAssistToJson(const ScaleAssist& assist);
ScaleAssist scaleAssistFromJson(const Json& json);

}  // namespace melvo
