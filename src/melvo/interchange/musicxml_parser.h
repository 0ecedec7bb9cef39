// MusicXML scores into a song: one track per singing line, and a notice with places for
// everything the song cannot keep as the score wrote it. The raw passes (container, encoding,
// repeats) run first; then one streaming pass over the text, and one finishing step that
// chooses parts, voices and staves and builds the maps.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/interchange/musicxml_unfolder.h"
#include "melvo/model/music_document.h"

namespace melvo {

struct MusicXMLParser {
  MusicXMLParser() = delete;

  // Notes beyond this refuse the file (MIDIFileParser::TooManyNotes, the limit of every reader).
  static constexpr std::size_t kNoteLimit = 200000;

  // A file by its name: decoding, repeats, the reading. Throws MusicXMLParseError,
  // MIDIFileParser::TooManyNotes or FileError. A title left "Untitled" becomes the file's stem.
  static MusicDocument parse(const std::filesystem::path& path);
  // The same from bytes; `containerByName` for an ".mxl" name.
  static MusicDocument parseBytes(std::string_view bytes, bool containerByName,
                                  std::string_view fallbackTitle = {});
  // Clean partwise text whose repeats are already unfolded. `unitScale` multiplies every
  // duration, divisions and offset (fractional durations); `problems` are the jumps the
  // unfolding could not follow, reported with the rest.
  static MusicDocument parseText(std::string_view text, int unitScale = 1,
                                 const std::vector<MusicXMLUnfolder::FlowProblem>& problems = {},
                                 std::string_view fallbackTitle = {});

  // The lyric line numbers ("1" where a lyric has none) of each <part>, by the part's order in
  // the file: what the main pass needs to know before its first note.
  static std::vector<std::vector<std::string>> lyricLinesByPart(std::string_view text);
};

}  // namespace melvo
