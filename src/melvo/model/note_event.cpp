#include "melvo/model/note_event.h"

#include <algorithm>

namespace melvo {

std::int64_t addTicks(std::int64_t a, std::int64_t b) {
  std::int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? maxTick : 0;
  return std::clamp<std::int64_t>(sum, 0, maxTick);
}

NoteEvent NoteEvent::make(Uuid id, std::int64_t tick, std::int64_t duration, std::int64_t pitch,
                          int velocity, std::string lyric, bool slurToNext, bool hasBreathAfter,
                          std::optional<std::string> sourcePhonemes) {
  NoteEvent n;
  n.id = id;
  n.tick = std::clamp<std::int64_t>(tick, 0, maxTick);
  n.duration = std::clamp<std::int64_t>(duration, 1, maxTick);
  n.pitch = static_cast<int>(std::clamp<std::int64_t>(pitch, 0, 127));
  n.velocity = velocity;
  n.lyric = std::move(lyric);
  n.slurToNext = slurToNext;
  n.hasBreathAfter = hasBreathAfter;
  n.sourcePhonemes = std::move(sourcePhonemes);
  return n;
}

std::int64_t NoteEvent::endTick() const {
  std::int64_t end;
  if (__builtin_add_overflow(tick, duration, &end)) return duration > 0 ? maxTick : 0;
  return std::min(end, maxTick);
}

std::string pitchName(int pitch) {
  static constexpr const char* kNames[] = {"C",  "C#", "D",  "D#", "E",  "F",
                                           "F#", "G",  "G#", "A",  "A#", "B"};
  int pc = ((pitch % 12) + 12) % 12;
  int octave = (pitch - pc) / 12 - 1;
  return std::string(kNames[pc]) + std::to_string(octave);
}

std::string NoteEvent::pitchName() const {
  return melvo::pitchName(pitch);
}

bool NoteEvent::phonemesEqualLyric() const {
  return sourcePhonemes && !sourcePhonemes->empty() && *sourcePhonemes == lyric;
}

}  // namespace melvo

namespace melvo {
// Undo keeps old copies of every note a change touches (see OptionalText): keep the record small.
static_assert(sizeof(NoteEvent) <= 88);
}  // namespace melvo
