// Any bytes as a MusicXML file, through the whole reading: the raw passes, the repeats, the
// main pass and the finishing step. A refusal is a typed error; anything else escaping, a
// crash or a hang is a finding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/interchange/musicxml_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    melvo::MusicXMLParser::parseBytes(bytes, false);
  } catch (const melvo::MusicXMLParseError&) {
  } catch (const melvo::MIDIFileParser::TooManyNotes&) {
  }
  return 0;
}
