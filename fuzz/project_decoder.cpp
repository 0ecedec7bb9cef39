// The project decoder over arbitrary bytes: it may refuse them, with its own error only, and a
// document it accepts must encode and decode again to the same document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "melvo/model/project_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  melvo::MusicDocument document;
  try {
    document = melvo::decodeProject(bytes);
  } catch (const melvo::ProjectDecodeError&) {
    return 0;
  }
  // What was accepted is within the model's bounds, so it survives a round trip.
  const std::string encoded = melvo::encodeProject(document);
  const melvo::MusicDocument again = melvo::decodeProject(encoded);
  if (melvo::encodeProject(again) != encoded) std::abort();
  return 0;
}
