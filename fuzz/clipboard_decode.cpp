// Text pasted from the system clipboard: any bytes must either decode to notes in range or be
// refused, never crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "melvo/editing/note_clipboard.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto notes = melvo::decodeClipboard(text, 480)) {
    for (const auto& n : *notes)
      if (n.tick < 0 || n.tick > melvo::maxTick || n.duration < 1 || n.pitch < 0 || n.pitch > 127)
        __builtin_trap();
  }
  return 0;
}
