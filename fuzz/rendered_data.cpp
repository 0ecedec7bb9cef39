// The readers of the engine's output.f0 and .lab files over arbitrary bytes. The first byte
// chooses the reader, so one corpus serves both.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "melvo/editing/phoneme_list.h"
#include "melvo/editing/pitch_curve.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  using namespace melvo;
  if (data[0] & 1) {
    const PhonemeList list = PhonemeList::parse(bytes);
    // What was read is written and read again without a crash.
    (void)PhonemeList::parse(list.text());
  } else {
    (void)PitchCurve::parse(bytes);
  }
  return 0;
}
