// Any text as a partwise score for the repeat unfolding, and the walk over marks chosen by
// the bytes themselves, so that odd combinations of repeats, endings and jumps are reached
// without the fuzzer having to spell the XML.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/importers/musicxml_parse_error.h"
#include "melvo/importers/musicxml_unfolder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    melvo::MusicXMLUnfolder::unfold(text);
  } catch (const melvo::MusicXMLParseError&) {
  }
  // Two bytes per measure: which marks it has, and its ending number and repeat count.
  std::vector<melvo::MusicXMLUnfolder::MeasureInfo> measures;
  for (std::size_t i = 0; i + 1 < size && measures.size() < 512; i += 2) {
    melvo::MusicXMLUnfolder::MeasureInfo m;
    const std::uint8_t marks = data[i], arg = data[i + 1];
    m.forwardRepeat = marks & 1;
    m.backwardRepeat = marks & 2;
    m.times = 1 + (arg & 7);
    if (marks & 4) m.endingStart = std::vector<int>{1 + (arg >> 4)};
    m.endingEnds = marks & 8;
    m.fine = marks & 16;
    m.daCapo = (marks & 0xE0) == 0x20;
    m.dalSegno = (marks & 0xE0) == 0x40;
    m.segno = (marks & 0xE0) == 0x60 || (marks & 0xE0) == 0xE0;
    m.coda = (marks & 0xE0) == 0x80;
    m.toCoda = (marks & 0xE0) == 0xA0;
    measures.push_back(m);
  }
  melvo::MusicXMLUnfolder::UnfoldStats stats;
  const auto order = melvo::MusicXMLUnfolder::walk(measures, stats);
  if (order.size() > 4001) __builtin_trap();
  for (const auto& [index, pass] : order) {
    if (index < 0 || static_cast<std::size_t>(index) >= measures.size() || pass < 1)
      __builtin_trap();
  }
  return 0;
}
