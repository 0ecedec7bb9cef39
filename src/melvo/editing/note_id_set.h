// Membership of note ids for one pass over a track. The selection is a sorted set, but an
// operation asks about every note of a track that may hold 200,000; a flat open-addressed
// table of the ids answers a hit, and a bit filter small enough to stay in cache answers
// nearly every miss, which is nearly every question, without touching the table.
#pragma once

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "melvo/platform/uuid.h"

namespace melvo {

class NoteIDSet {
 public:
  template <typename Ids>
  explicit NoteIDSet(const Ids& ids) {
    std::size_t capacity = 16;
    while (capacity < ids.size() * 3) capacity <<= 1;  // at most a third full
    mask_ = capacity - 1;
    slots_.assign(capacity, Slot{});
    std::size_t bits = 4096;
    while (bits < ids.size() * 16) bits <<= 1;  // a few percent of misses get past it
    filterMask_ = bits - 1;
    filter_.assign(bits / 64, 0);
    for (const Uuid& id : ids) insert(id);
  }

  bool contains(const Uuid& id) const {
    const std::uint64_t t = tag(id);
    const std::size_t bit = (t >> 32) & filterMask_;
    if (!(filter_[bit / 64] >> (bit % 64) & 1)) return false;
    for (std::size_t i = t & mask_;; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.tag == 0) return false;
      if (s.tag == t && s.id == id) return true;
    }
  }
  bool empty() const { return size_ == 0; }

 private:
  struct Slot {
    std::uint64_t tag = 0;  // 0 marks an empty slot
    Uuid id;
  };
  static std::uint64_t tag(const Uuid& id) {
    std::uint64_t a, b;
    std::memcpy(&a, id.bytes().data(), 8);
    std::memcpy(&b, id.bytes().data() + 8, 8);
    const std::uint64_t h = (a ^ (b * 0x9E3779B97F4A7C15ull)) * 0xBF58476D1CE4E5B9ull;
    return (h ^ (h >> 31)) | 1;
  }
  void insert(const Uuid& id) {
    const std::uint64_t t = tag(id);
    const std::size_t bit = (t >> 32) & filterMask_;
    filter_[bit / 64] |= std::uint64_t{1} << (bit % 64);
    for (std::size_t i = t & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.tag == 0) {
        s = Slot{t, id};
        ++size_;
        return;
      }
      if (s.tag == t && s.id == id) return;
    }
  }

  std::vector<Slot> slots_;
  std::size_t mask_ = 0;
  std::vector<std::uint64_t> filter_;
  std::size_t filterMask_ = 0;
  std::size_t size_ = 0;
};

}  // namespace melvo
