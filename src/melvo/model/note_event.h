// One note of the song, a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "melvo/platform/uuid.h"

namespace melvo {

// The single limit on tick values; every sum of ticks saturates here.
inline constexpr std::int64_t maxTick = 268435455;

// a + b, kept within 0..maxTick.
std::int64_t addTicks(std::int64_t a, std::int64_t b);

struct NoteEvent {
  Uuid id;
  std::int64_t tick = 0;      // 0..maxTick
  std::int64_t duration = 1;  // 1..maxTick
  int pitch = 60;             // 0..127
  int velocity = 100;         // stored as given
  std::string lyric;
  bool slurToNext = false;
  bool hasBreathAfter = false;
  std::optional<std::string> sourcePhonemes;

  // The constructor of record: clamps tick, duration and pitch into their ranges.
  static NoteEvent make(Uuid id, std::int64_t tick, std::int64_t duration, std::int64_t pitch,
                        int velocity = 100, std::string lyric = {}, bool slurToNext = false,
                        bool hasBreathAfter = false,
                        std::optional<std::string> sourcePhonemes = std::nullopt);

  std::int64_t endTick() const;
  std::string pitchName() const;  // 60 is "C4"
  bool phonemesEqualLyric() const;

  bool operator==(const NoteEvent&) const = default;
};

std::string pitchName(int pitch);

}  // namespace melvo
