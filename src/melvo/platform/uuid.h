// UUIDs as 16 bytes; text is the canonical 36-character upper-case form.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace melvo {

class Uuid {
 public:
  Uuid() = default;  // the nil UUID
  static Uuid random();
  // Accepts upper- or lower-case hex in the 8-4-4-4-12 form; nothing else.
  static std::optional<Uuid> parse(std::string_view text);

  std::string toString() const;
  void appendTo(std::string& out) const;
  bool isNil() const;
  const std::array<std::uint8_t, 16>& bytes() const { return b_; }

  friend bool operator==(const Uuid& a, const Uuid& b) { return a.b_ == b.b_; }
  friend auto operator<=>(const Uuid& a, const Uuid& b) { return a.b_ <=> b.b_; }

 private:
  std::array<std::uint8_t, 16> b_{};
};

}  // namespace melvo

template <>
struct std::hash<melvo::Uuid> {
  std::size_t operator()(const melvo::Uuid& u) const noexcept {
    std::uint64_t a, b;
    std::memcpy(&a, u.bytes().data(), 8);
    std::memcpy(&b, u.bytes().data() + 8, 8);
    return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
  }
};
