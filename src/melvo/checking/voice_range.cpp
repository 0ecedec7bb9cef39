#include "melvo/checking/voice_range.h"

#include <fstream>
#include <sstream>

#include "melvo/platform/text.h"

namespace melvo {

VoiceRange::Range VoiceRange::fixed() {
  return Range{36, 84, {}, false};
}

std::optional<int> VoiceRange::pitchFromNoteName(std::string_view name) {
  name = text::trimWhitespace(name);
  if (name.empty()) return std::nullopt;
  static constexpr int kSteps[] = {9, 11, 0, 2, 4, 5, 7};  // A B C D E F G
  char letter = name.front();
  if (letter >= 'a' && letter <= 'g') letter = static_cast<char>(letter - 'a' + 'A');
  if (letter < 'A' || letter > 'G') return std::nullopt;
  int pitchClass = kSteps[letter - 'A'];
  name.remove_prefix(1);
  for (;;) {
    if (text::startsWith(name, "#")) {
      ++pitchClass;
      name.remove_prefix(1);
    } else if (text::startsWith(name, "♯")) {
      ++pitchClass;
      name.remove_prefix(std::string_view("♯").size());
    } else if (text::startsWith(name, "♭")) {
      --pitchClass;
      name.remove_prefix(std::string_view("♭").size());
    } else if (!name.empty() && name.front() == 'b' && name.size() > 1) {
      --pitchClass;
      name.remove_prefix(1);
    } else {
      break;
    }
  }
  bool negative = false;
  if (!name.empty() && name.front() == '-') {
    negative = true;
    name.remove_prefix(1);
  }
  if (name.empty() || name.size() > 2) return std::nullopt;
  int octave = 0;
  for (char c : name) {
    if (c < '0' || c > '9') return std::nullopt;
    octave = octave * 10 + (c - '0');
  }
  if (negative) octave = -octave;
  int pitch = (octave + 1) * 12 + pitchClass;
  if (pitch < 0 || pitch > 127) return std::nullopt;
  return pitch;
}

namespace {

// The value of `key = "..."` (or a bare value) on one line of TOML; comments and tables are
// not needed for the two keys we read.
std::optional<std::string_view> valueOf(std::string_view line, std::string_view key) {
  line = text::trimWhitespace(line);
  if (!text::startsWith(line, key)) return std::nullopt;
  std::string_view rest = text::trimWhitespace(line.substr(key.size()));
  if (rest.empty() || rest.front() != '=') return std::nullopt;
  rest = text::trimWhitespace(rest.substr(1));
  if (!rest.empty() && (rest.front() == '"' || rest.front() == '\'')) {
    char quote = rest.front();
    std::size_t close = rest.find(quote, 1);
    if (close == std::string_view::npos) return std::nullopt;
    return rest.substr(1, close - 1);
  }
  std::size_t hash = rest.find('#');
  if (hash != std::string_view::npos) rest = text::trimWhitespace(rest.substr(0, hash));
  return rest;
}

}  // namespace

std::optional<VoiceRange::Range> VoiceRange::fromInfoToml(std::string_view text,
                                                          std::string voice) {
  std::optional<int> low, high;
  // Editors on Windows often start a UTF-8 file with a byte-order mark.
  if (text::startsWith(text, "\xEF\xBB\xBF")) text.remove_prefix(3);
  for (std::string_view line : text::split(text, '\n')) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (auto v = valueOf(line, "bottom_key")) low = pitchFromNoteName(*v);
    if (auto v = valueOf(line, "top_key")) high = pitchFromNoteName(*v);
  }
  if (!low || !high || *low > *high) return std::nullopt;
  return Range{*low, *high, std::move(voice), true};
}

std::optional<VoiceRange::Range> VoiceRange::readModel(const std::filesystem::path& modelDir) {
  std::ifstream in(modelDir / "info.toml", std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  std::string voice = modelDir.filename().string();
  if (voice.empty()) voice = modelDir.parent_path().filename().string();
  return fromInfoToml(buffer.str(), voice);
}

}  // namespace melvo
