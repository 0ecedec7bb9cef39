#include "melvo/platform/uuid.h"

#include <uuid/uuid.h>

namespace melvo {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

Uuid Uuid::random() {
  Uuid u;
  uuid_generate_random(u.b_.data());
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
