#include "melvo/platform/uuid.h"

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <array>
#include <atomic>
#include <cstring>

namespace melvo {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

// The system's random bytes, taken 256 ids at a time: one system call per id made an import or
// a paste of 200,000 notes spend most of its time here. A forked child drops what its parent
// had taken, so the two never hand out the same ids.
namespace {

struct RandomPool {
  std::array<std::uint8_t, 4096> bytes;
  std::size_t used = sizeof(bytes);
};
thread_local RandomPool pool;
std::atomic<unsigned> forkGeneration{0};
thread_local unsigned poolGeneration = 0;

bool refill(RandomPool& p) {
  static const bool registered = [] {
    pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); });
    return true;
  }();
  (void)registered;
  std::size_t got = 0;
  while (got < p.bytes.size()) {
    const ssize_t n = getrandom(p.bytes.data() + got, p.bytes.size() - got, 0);
    if (n <= 0) return false;
    got += static_cast<std::size_t>(n);
  }
  p.used = 0;
  return true;
}

}  // namespace

Uuid Uuid::random() {
  Uuid u;
  const unsigned generation = forkGeneration.load();
  if (poolGeneration != generation) {
    pool.used = pool.bytes.size();
    poolGeneration = generation;
  }
  if (pool.used + 16 > pool.bytes.size() && !refill(pool)) {
    uuid_generate_random(u.b_.data());
    return u;
  }
  std::memcpy(u.b_.data(), pool.bytes.data() + pool.used, 16);
  pool.used += 16;
  u.b_[6] = static_cast<std::uint8_t>((u.b_[6] & 0x0F) | 0x40);  // version 4
  u.b_[8] = static_cast<std::uint8_t>((u.b_[8] & 0x3F) | 0x80);  // the RFC variant
  return u;
}

std::optional<Uuid> Uuid::parse(std::string_view t) {
  if (t.size() != 36 || t[8] != '-' || t[13] != '-' || t[18] != '-' || t[23] != '-') {
    return std::nullopt;
  }
  Uuid u;
  std::size_t k = 0;
  for (std::size_t i = 0; i < 36;) {
    if (t[i] == '-') {
      ++i;
      continue;
    }
    int hi = hexValue(t[i]), lo = hexValue(t[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    u.b_[k++] = static_cast<std::uint8_t>(hi << 4 | lo);
    i += 2;
  }
  return u;
}

void Uuid::appendTo(std::string& out) const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kHex[b_[i] >> 4]);
    out.push_back(kHex[b_[i] & 15]);
  }
}

std::string Uuid::toString() const {
  std::string s;
  s.reserve(36);
  appendTo(s);
  return s;
}

bool Uuid::isNil() const {
  for (auto b : b_)
    if (b) return false;
  return true;
}

}  // namespace melvo
