// Any bytes as a zip archive: the directory, every member, and the .zip route's choice.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "melvo/importers/zip_import.h"
#include "melvo/importers/zip_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto list = melvo::ZipReader::entries(bytes)) {
    for (const auto& entry : *list) {
      // Small claims only, so that a run is not spent filling 64 MB buffers.
      if (entry.uncompSize > (1u << 20)) continue;
      if (auto member = melvo::ZipReader::read(entry, bytes)) melvo::ZipReader::crc32(*member);
      melvo::ZipImport::isScoreMember(entry.name);
    }
  }
  return 0;
}
