#include "melvo/interchange/score_decoder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "melvo/interchange/element_scan.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/charset.h"
#include "melvo/platform/pcre_pattern.h"
#include "melvo/platform/text.h"
#include "melvo/platform/zip_reader.h"

namespace melvo {

namespace {

bool hasScoreExtension(std::string_view name) {
  const std::string lower = text::asciiLower(name);
  return text::endsWith(lower, ".xml") || text::endsWith(lower, ".musicxml");
}

// The member's bytes, checked in full: a short read or a wrong CRC is a damaged container.
std::string readMember(const ZipReader::Entry& entry, std::string_view data) {
  auto bytes = ZipReader::read(entry, data);
  if (!bytes || bytes->size() != entry.uncompSize || ZipReader::crc32(*bytes) != entry.crc32)
    throw MusicXMLParseError::mxlUnzipFailed();
  return std::move(*bytes);
}

std::optional<std::string> decodeUtf16(std::string_view bytes, bool littleEndian) {
  return charset::decode(bytes, littleEndian ? "UTF-16LE" : "UTF-16BE");
}

// The encoding the declaration names, read from the head of the bytes.
std::optional<std::string> declaredEncoding(std::string_view data) {
  static const PcrePattern declaration("<\\?xml[^>]*?encoding\\s*=\\s*[\"']([^\"']+)[\"']");
  const std::string_view head = data.substr(0, 200);
  const std::string headText =
      text::isValidUtf8(head) ? std::string(head) : charset::decodeLatin1(head);
  PcrePattern::Match m;
  if (!declaration.find(headText, m)) return std::nullopt;
  return text::asciiLower(m.groups[1]);
}

std::optional<std::string> decodeAsDeclared(std::string_view data, const std::string& name) {
  static const char* const shiftJISNames[] = {"shift_jis",   "shift-jis", "sjis",    "x-sjis",
                                              "windows-31j", "cp932",     "ms_kanji"};
  for (const char* alias : shiftJISNames) {
    if (name == alias) return charset::decodeShiftJIS(data);
  }
  if (name == "euc-jp" || name == "x-euc-jp") return charset::decode(data, "EUC-JP");
  return charset::decode(data, name.c_str());
}

}  // namespace

std::string decodeScore(const std::filesystem::path& path) {
  std::string bytes;
  try {
    bytes = readFile(path);
  } catch (const FileError&) {
    throw MusicXMLParseError::notXML();
  }
  std::string ext = text::asciiLower(path.extension().string());
  // Plain UTF-8 (nearly every score) is its own text: the bytes are kept rather than copied.
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const bool marked = bytes.size() >= 2 && ((byte(0) == 0xEF && byte(1) == 0xBB) ||
                                            (byte(0) == 0xFF && byte(1) == 0xFE) ||
                                            (byte(0) == 0xFE && byte(1) == 0xFF));
  const bool utf16 = bytes.size() >= 4 && ((byte(0) == '<' && byte(1) == 0 && byte(3) == 0) ||
                                           (byte(0) == 0 && byte(2) == 0 && byte(1) == '<'));
  if (ext != ".mxl" && !ZipReader::looksLikeZip(bytes) && !marked && !utf16 &&
      text::isValidUtf8(bytes)) {
    std::string text = cleanedText(std::move(bytes));
    if (text.find("<score-timewise") == std::string::npos) return text;
    return partwiseText(text);
  }
  return decodeScoreBytes(bytes, ext == ".mxl");
}

std::string decodeScoreBytes(std::string_view bytes, bool containerByName) {
  std::string inner;
  if (containerByName || ZipReader::looksLikeZip(bytes)) {
    inner = extractFromContainer(bytes);
    bytes = inner;
  }
  auto decoded = decodedText(bytes);
  if (!decoded) throw MusicXMLParseError::notXML();
  std::string text = cleanedText(std::move(*decoded));
  // Most scores are partwise already: no second copy of the whole text for them.
  if (text.find("<score-timewise") == std::string::npos) return text;
  return partwiseText(text);
}

std::string extractFromContainer(std::string_view data) {
  auto list = ZipReader::entries(data);
  if (!list) throw MusicXMLParseError::mxlUnzipFailed();
  auto byName = [&](std::string_view name) -> const ZipReader::Entry* {
    for (const auto& e : *list) {
      if (e.name == name) return &e;
    }
    return nullptr;
  };
  const ZipReader::Entry* score = nullptr;
  if (const auto* container = byName("META-INF/container.xml")) {
    static const PcrePattern fullPath("full-path\\s*=\\s*(?:\"([^\"]+)\"|'([^']+)')");
    if (auto text = decodedText(readMember(*container, data))) {
      PcrePattern::Match m;
      if (fullPath.find(*text, m)) {
        std::string named(m.has(1) ? m.groups[1] : m.groups[2]);
        std::replace(named.begin(), named.end(), '\\', '/');
        score = byName(named);
      }
    }
  }
  if (!score) {
    for (const auto& e : *list) {
      if (!text::startsWith(e.name, "META-INF/") && hasScoreExtension(e.name)) {
        score = &e;
        break;
      }
    }
  }
  if (!score) throw MusicXMLParseError::mxlNoScore();
  return readMember(*score, data);
}

std::optional<std::string> decodedText(std::string_view data) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(data[i]); };
  if (data.size() >= 3 && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
    const std::string_view rest = data.substr(3);
    if (text::isValidUtf8(rest)) return std::string(rest);
  }
  if (data.size() >= 2 &&
      ((byte(0) == 0xFF && byte(1) == 0xFE) || (byte(0) == 0xFE && byte(1) == 0xFF))) {
    if (auto t = decodeUtf16(data.substr(2), byte(0) == 0xFF)) return t;
  }
  if (data.size() >= 4) {
    if (byte(0) == '<' && byte(1) == 0 && byte(3) == 0) {
      if (auto t = decodeUtf16(data, true)) return t;
    } else if (byte(0) == 0 && byte(2) == 0 && byte(1) == '<') {
      if (auto t = decodeUtf16(data, false)) return t;
    }
  }
  if (text::isValidUtf8(data)) return std::string(data);
  if (auto name = declaredEncoding(data)) {
    if (auto t = decodeAsDeclared(data, *name)) return t;
  }
  return charset::decodeShiftJIS(data);
}

std::string cleanedText(std::string in) {
  std::size_t start = 0;
  while (in.compare(start, 3, "\xEF\xBB\xBF") == 0) start += 3;
  // White space before the first "<": ASCII and the Unicode spaces alike.
  std::size_t i = start;
  while (i < in.size() && in[i] != '<') {
    std::size_t next = i;
    const char32_t c = text::nextScalar(in, next);
    if (!text::isWhitespaceOrNewline(c) && c != 0xFEFF) break;
    i = next;
  }
  // In place: the text only ever shrinks, and a whole score is not copied.
  std::size_t w = 0;
  for (std::size_t cr = in.find('\r', i);; cr = in.find('\r', i)) {
    const std::size_t stop = cr == std::string::npos ? in.size() : cr;
    if (w != i) std::memmove(in.data() + w, in.data() + i, stop - i);
    w += stop - i;
    if (cr == std::string::npos) break;
    in[w++] = '\n';
    i = cr + 1 < in.size() && in[cr + 1] == '\n' ? cr + 2 : cr + 1;
  }
  in.resize(w);
  std::string out = std::move(in);
  if (out.empty() || out[0] != '<') throw MusicXMLParseError::notXML();
  static const PcrePattern declaration(
      "^(\\s*<\\?xml[^>]*?encoding\\s*=\\s*)([\"'])([^\"']*)([\"'])");
  PcrePattern::Match m;
  if (declaration.find(out, m) && text::asciiLower(m.groups[3]) != "utf-8") {
    const std::size_t at = static_cast<std::size_t>(m.groups[3].data() - out.data());
    out.replace(at, m.groups[3].size(), "UTF-8");
  }
  return out;
}

std::string partwiseText(std::string_view text) {
  static const PcrePattern root("<score-timewise(?=[\\s>/])");
  PcrePattern::Match rootMatch;
  if (!root.find(text, rootMatch)) return std::string(text);
  static const PcrePattern idPattern("(?:^|\\s)id\\s*=\\s*(?:\"([^\"]*)\"|'([^']*)')");

  struct Entry {
    std::size_t measure;
    std::string_view content;
  };
  struct Part {
    std::string_view attributes;
    std::vector<Entry> entries;
  };
  std::vector<std::string_view> measureAttributes;
  std::vector<Part> parts;
  std::unordered_map<std::string, std::size_t> partById;
  std::size_t firstMeasure = std::string_view::npos, afterLast = 0;

  // Measures, and parts inside them, as
  // "<measure(?=[\\s>/])([^>]*?)(?:/>|>([\\s\\S]*?)</measure>)" and the same for "part" find them.
  forEachElement(text, "measure", [&](const ElementMatch& m) {
    if (firstMeasure == std::string_view::npos) firstMeasure = m.begin;
    afterLast = m.end;
    const std::size_t index = measureAttributes.size();
    measureAttributes.push_back(m.attributes);
    forEachElement(m.content, "part", [&](const ElementMatch& p) {
      PcrePattern::Match id;
      std::string key;
      if (idPattern.find(p.attributes, id))
        key = std::string(id.has(1) ? id.groups[1] : id.groups[2]);
      auto [it, added] = partById.try_emplace(key, parts.size());
      if (added) parts.push_back(Part{p.attributes, {}});
      parts[it->second].entries.push_back(Entry{index, p.content});
      return true;
    });
    return true;
  });

  std::string out;
  out.reserve(text.size() + text.size() / 8);
  std::string_view head =
      text.substr(0, firstMeasure == std::string_view::npos ? text.size() : firstMeasure);
  std::string_view tail =
      firstMeasure == std::string_view::npos ? std::string_view() : text.substr(afterLast);
  // A root after the first measure is no timewise score we understand: leave it alone.
  if (rootMatch.end > head.size()) return std::string(text);
  out.append(head.substr(0, rootMatch.begin));
  out.append("<score-partwise");
  out.append(head.substr(rootMatch.end));
  for (const Part& part : parts) {
    out.append("<part").append(part.attributes).append(">\n");
    std::size_t next = 0;
    for (std::size_t index = 0; index < measureAttributes.size(); ++index) {
      out.append("<measure").append(measureAttributes[index]);
      // One entry per measure and part; a second entry of the same part joins the first.
      bool any = false;
      while (next < part.entries.size() && part.entries[next].measure == index) {
        if (!any) out.append(">");
        out.append(part.entries[next].content);
        any = true;
        ++next;
      }
      out.append(any ? "</measure>\n" : "/>\n");
    }
    out.append("</part>\n");
  }
  static const PcrePattern closing("</score-timewise\\s*>");
  PcrePattern::Match close;
  if (closing.find(tail, close)) {
    out.append(tail.substr(0, close.begin));
    out.append("</score-partwise>");
    out.append(tail.substr(close.end));
  } else {
    out.append(tail);
  }
  return out;
}

namespace {

bool isXmlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// "[-+]?[0-9]*\.[0-9]+" at `at`: its length, or 0.
std::size_t decimalAt(std::string_view s, std::size_t at) {
  std::size_t i = at;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
  if (i >= s.size() || s[i] != '.') return 0;
  const std::size_t fraction = ++i;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
  return i > fraction ? i - at : 0;
}

std::size_t skipSpace(std::string_view s, std::size_t i) {
  while (i < s.size() && isXmlSpace(s[i])) ++i;
  return i;
}

double decimalValue(std::string_view number) {
  if (!number.empty() && number[0] == '+') number.remove_prefix(1);
  // from_chars, not strtod: the user's locale must not change what a point means.
  double value = 0;
  std::from_chars(number.data(), number.data() + number.size(), value);
  return value;
}

}  // namespace

// The numbers are those of
// "<(duration|divisions|offset)(?=[\s>])[^>]*>\s*([-+]?[0-9]*\.[0-9]+)\s*<" and
// "make-time\s*=\s*["']\s*([-+]?[0-9]*\.[0-9]+)", found by hand: with a regular expression a long
// stretch of such tags without a '>' is searched again from every one of them.
int fractionalUnitScale(std::string_view text) {
  if (text.find('.') == std::string_view::npos) return 1;
  std::vector<double> values;
  std::size_t nextGt = 0;
  for (std::size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    // Most tags start with neither letter; comparing only those that might match keeps this
    // pass a small part of an open.
    const char first = i + 1 < text.size() ? text[i + 1] : '\0';
    if (first != 'd' && first != 'o') continue;
    std::size_t nameEnd = 0;
    for (std::string_view name : {"duration", "divisions", "offset"}) {
      if (text.compare(i + 1, name.size(), name) == 0) nameEnd = i + 1 + name.size();
    }
    if (nameEnd == 0 || nameEnd >= text.size() ||
        !(isXmlSpace(text[nameEnd]) || text[nameEnd] == '>'))
      continue;
    if (nextGt != std::string_view::npos && nextGt < nameEnd) nextGt = text.find('>', nameEnd);
    if (nextGt == std::string_view::npos) break;
    const std::size_t at = skipSpace(text, nextGt + 1);
    const std::size_t length = decimalAt(text, at);
    if (length == 0) continue;
    const std::size_t after = skipSpace(text, at + length);
    if (after < text.size() && text[after] == '<')
      values.push_back(decimalValue(text.substr(at, length)));
  }
  constexpr std::string_view makeTime = "make-time";
  for (std::size_t i = text.find(makeTime); i != std::string_view::npos;
       i = text.find(makeTime, i + 1)) {
    std::size_t at = skipSpace(text, i + makeTime.size());
    if (at >= text.size() || text[at] != '=') continue;
    at = skipSpace(text, at + 1);
    if (at >= text.size() || (text[at] != '"' && text[at] != '\'')) continue;
    at = skipSpace(text, at + 1);
    if (const std::size_t length = decimalAt(text, at))
      values.push_back(decimalValue(text.substr(at, length)));
  }
  for (int scale : {1, 10, 100, 1000}) {
    bool whole = true;
    for (double v : values) {
      const double scaled = v * scale;
      if (std::fabs(scaled - std::round(scaled)) > 0.000001) {
        whole = false;
        break;
      }
    }
    if (whole) return scale;
  }
  return 1000;
}

}  // namespace melvo
