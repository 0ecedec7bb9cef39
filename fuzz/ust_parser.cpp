// The UST reader over arbitrary bytes: it may refuse them with a typed error only, and a song
// it gives keeps its notes within the model's bounds, one after another on the one track.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "melvo/importers/ust_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  melvo::MusicDocument document;
  try {
    document = melvo::USTParser::parseBytes(bytes);
  } catch (const melvo::ImportError&) {
    return 0;
  }
  std::int64_t end = 0;
  for (const melvo::NoteEvent& n : document.tracks.at(0).notes) {
    if (n.tick < end || n.duration < 1 || n.endTick() > melvo::maxTick) std::abort();
    if (n.pitch < 0 || n.pitch > 127) std::abort();
    end = n.endTick();
  }
  for (const melvo::ImportNotice& notice : document.importNotices)
    if (!notice.kind || notice.places.empty()) std::abort();
  return 0;
}
