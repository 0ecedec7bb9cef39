// Builds zip archives in memory for tests, including the malformed ones a reader must refuse.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace melvo::test {

struct ZipMember {
  ZipMember(std::string n, std::string d, int m = 8)
      : name(std::move(n)), data(std::move(d)), method(m) {}
  std::string name;  // raw bytes, as written in the headers
  std::string data;  // uncompressed contents
  int method = 8;    // 0 stored, 8 deflated; anything else stores `data` under that method
  // Lies the directory may tell.
  std::optional<std::uint32_t> uncompSize, crc;
  std::string localExtra;  // an extra field in the local header only
};

std::string deflateRaw(std::string_view data);
std::string makeZip(const std::vector<ZipMember>& members, std::string_view comment = {});

}  // namespace melvo::test
