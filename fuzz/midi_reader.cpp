// Any bytes as a MIDI file: wrapper, chunk walk, events, text decoding and lyric placement.
// A refusal is a typed error; anything else escaping is a finding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "melvo/interchange/midi_file_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    melvo::MIDIFileParser::parseBytes(bytes);
  } catch (const melvo::MIDIFileParser::ParseError&) {
  } catch (const melvo::MIDIFileParser::TooManyNotes&) {
  }
  return 0;
}
