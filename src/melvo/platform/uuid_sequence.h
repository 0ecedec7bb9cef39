// Random (version 4) ids for the notes of a whole file read at once: one system draw seeds a
// generator, since asking the system for each of 200,000 notes costs more than all the rest of
// the reading. Ids stay unique in practice; they need not be unpredictable. The generator is
// splitmix64: each draw mixes a counter one-to-one, so one sequence never repeats a word, and
// a draw costs a few cycles (a Mersenne twister took a twentieth of reading a large file).
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "melvo/platform/uuid.h"

namespace melvo {

class UuidSequence {
 public:
  UuidSequence() {
    const Uuid seed = Uuid::random();
    std::uint64_t halves[2];
    std::memcpy(halves, seed.bytes().data(), sizeof halves);
    state_ = halves[0] ^ halves[1];
  }
  Uuid next() {
    static_assert(sizeof(Uuid) == 16 && std::is_trivially_copyable_v<Uuid>);
    std::array<std::uint64_t, 2> words{draw(), draw()};
    auto bytes = std::bit_cast<std::array<std::uint8_t, 16>>(words);
    bytes[6] = std::uint8_t((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = std::uint8_t((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return std::bit_cast<Uuid>(bytes);
  }

 private:
  std::uint64_t draw() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  std::uint64_t state_ = 0;
};

}  // namespace melvo
