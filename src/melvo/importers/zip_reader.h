// A small reader of the zip format: .zip archives around a score, and the zip containers of
// .mxl, .vpr and .ppsf. No Zip64, no encryption; stored and deflated members only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace melvo {

struct ZipReader {
  ZipReader() = delete;

  // One member as the central directory describes it.
  struct Entry {
    std::string name;  // backslashes turned into slashes
    int method = 0;    // 0 stored, 8 deflate
    std::uint64_t compSize = 0;
    std::uint64_t uncompSize = 0;
    std::uint64_t localOffset = 0;
    std::uint32_t crc32 = 0;
  };

  // A member that would inflate beyond this is never read.
  static constexpr std::uint64_t kMaxMemberSize = 64ull * 1024 * 1024;

  // Whether the bytes start like a zip archive (a local header, or the end record of an empty
  // archive).
  static bool looksLikeZip(std::string_view data);
  // The central directory, or nothing when `data` is no readable archive.
  static std::optional<std::vector<Entry>> entries(std::string_view data);
  // The uncompressed bytes of the member of that (slash-normalised) name, or nothing.
  static std::optional<std::string> read(std::string_view data, std::string_view name);
  // The same by entry. The length is not checked against `uncompSize` and the CRC is not
  // checked: callers that care do both.
  static std::optional<std::string> read(const Entry& entry, std::string_view data);
  // Standard CRC-32 (reflected, polynomial 0xEDB88320, all ones in and out).
  static std::uint32_t crc32(std::string_view data);
};

}  // namespace melvo
