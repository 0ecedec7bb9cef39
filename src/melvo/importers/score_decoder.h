// Raw passes that turn what notation programs export into UTF-8 partwise MusicXML that a
// strict streaming parser can read: the .mxl container, the encoding, line ends and the
// declaration, timewise scores. They work on bytes and text, not on a tree, because they must
// also work on files the parser would refuse. All repairs are silent; only a file that cannot
// be repaired is refused (MusicXMLParseError).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace melvo {

// The score as clean UTF-8 partwise text. Throws MusicXMLParseError.
std::string decodeScore(const std::filesystem::path& path);
// The same from bytes already read; `containerByName` is true for an ".mxl" file name.
std::string decodeScoreBytes(std::string_view bytes, bool containerByName);

// The bytes of the score inside an .mxl (or any zip) archive: the member that
// META-INF/container.xml names, else the first .xml/.musicxml outside META-INF/.
// Throws mxlUnzipFailed or mxlNoScore.
std::string extractFromContainer(std::string_view data);
// Text from bytes by the first encoding that decodes them: a byte-order mark, BOM-less
// UTF-16, UTF-8, the declared encoding, Shift-JIS. Nothing when none does.
std::optional<std::string> decodedText(std::string_view data);
// Leading U+FEFF and white space dropped, CR LF and CR made LF, the declared encoding made
// "UTF-8". Throws notXML when what is left does not start with "<".
std::string cleanedText(std::string text);
// A score-timewise document rewritten as score-partwise; any other text as it is.
std::string partwiseText(std::string_view text);
// 1, or the smallest of 10, 100 and 1000 that makes every fractional duration, divisions,
// offset and make-time an integer (1000 when none does).
int fractionalUnitScale(std::string_view text);

}  // namespace melvo
