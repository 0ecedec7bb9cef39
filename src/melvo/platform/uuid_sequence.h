// Random (version 4) ids for the notes of a whole file read at once: one system draw seeds a
// generator, since asking the system for each of 200,000 notes costs more than all the rest of
// the reading. Ids stay unique in practice; they need not be unpredictable.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <random>
#include <type_traits>

#include "melvo/platform/uuid.h"

namespace melvo {

class UuidSequence {
 public:
  UuidSequence() {
    const Uuid first = Uuid::random();
    const auto& seed = first.bytes();
    std::seed_seq seq(seed.begin(), seed.end());
    gen_.seed(seq);
  }
  Uuid next() {
    static_assert(sizeof(Uuid) == 16 && std::is_trivially_copyable_v<Uuid>);
    std::array<std::uint64_t, 2> words{gen_(), gen_()};
    auto bytes = std::bit_cast<std::array<std::uint8_t, 16>>(words);
    bytes[6] = std::uint8_t((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = std::uint8_t((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return std::bit_cast<Uuid>(bytes);
  }

 private:
  std::mt19937_64 gen_;
};

}  // namespace melvo
