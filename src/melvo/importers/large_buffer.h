// Big output buffers that are filled once. On these machines the first touch of a fresh 4 KiB
// page costs far more than writing it, so a buffer of many megabytes asks the kernel for huge
// pages before it is written. Only advice: where the kernel says no, nothing changes.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace melvo {

inline void adviseHugePages(char* data, std::size_t size) {
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  if (size < 2 * kHuge) return;
  const auto at = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t begin = (at + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t end = (at + size) & ~(kHuge - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// An empty string with room for `capacity` bytes, advised as above.
inline std::string largeString(std::size_t capacity) {
  std::string s;
  s.reserve(capacity);
  adviseHugePages(s.data(), s.capacity());
  return s;
}

}  // namespace melvo
