// One note of the song, a plain value.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "melvo/platform/uuid.h"

namespace melvo {

// The single limit on tick values; every sum of ticks saturates here.
inline constexpr std::int64_t maxTick = 268435455;

// a + b, kept within 0..maxTick.
std::int64_t addTicks(std::int64_t a, std::int64_t b);

// An optional text that costs one pointer when absent. Most notes carry no phoneme text,
// and undo keeps old copies of every note a change touches, so the note record's size is
// what an edit of many notes costs in memory.
class OptionalText {
 public:
  OptionalText() = default;
  OptionalText(std::nullopt_t) {}
  OptionalText(std::string s) : p_(std::make_unique<std::string>(std::move(s))) {}
  OptionalText(const char* s) : OptionalText(std::string(s)) {}
  OptionalText(std::optional<std::string> s) {
    if (s) p_ = std::make_unique<std::string>(std::move(*s));
  }
  OptionalText(const OptionalText& o) : p_(o.p_ ? std::make_unique<std::string>(*o.p_) : nullptr) {}
  OptionalText(OptionalText&&) noexcept = default;
  OptionalText& operator=(const OptionalText& o) {
    if (this != &o) p_ = o.p_ ? std::make_unique<std::string>(*o.p_) : nullptr;
    return *this;
  }
  OptionalText& operator=(OptionalText&&) noexcept = default;

  bool has_value() const { return p_ != nullptr; }
  explicit operator bool() const { return has_value(); }
  const std::string& operator*() const { return *p_; }
  std::string& operator*() { return *p_; }
  const std::string* operator->() const { return p_.get(); }
  std::string* operator->() { return p_.get(); }
  void reset() { p_.reset(); }
  std::optional<std::string> toOptional() const {
    return p_ ? std::optional<std::string>(*p_) : std::nullopt;
  }

  friend bool operator==(const OptionalText& a, const OptionalText& b) {
    return a.p_ ? (b.p_ && *a.p_ == *b.p_) : !b.p_;
  }

 private:
  std::unique_ptr<std::string> p_;
};

struct NoteEvent {
  Uuid id;
  std::int64_t tick = 0;      // 0..maxTick
  std::int64_t duration = 1;  // 1..maxTick
  std::string lyric;
  OptionalText sourcePhonemes;
  int pitch = 60;      // 0..127
  int velocity = 100;  // stored as given
  bool slurToNext = false;
  bool hasBreathAfter = false;

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
