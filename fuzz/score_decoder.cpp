// Any bytes as a score file: container, encoding ladder, clean-up, timewise rewrite and the
// unit scale. A refusal is a typed error; anything else escaping is a finding.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "melvo/importers/musicxml_parse_error.h"
#include "melvo/importers/score_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    const std::string text = melvo::decodeScoreBytes(bytes, (data[0] & 1) != 0);
    melvo::fractionalUnitScale(text);
  } catch (const melvo::MusicXMLParseError&) {
  }
  return 0;
}
