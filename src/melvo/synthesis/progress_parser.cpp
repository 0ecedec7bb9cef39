#include "melvo/synthesis/progress_parser.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

const ProgressParser::Stage ProgressParser::stages[7] = {
    {"MusicXMLtoLabel", N_("ラベル変換"), 10},
    {"label", N_("ラベル処理"), 15},
    {"timing", N_("タイミング"), 25},
    {"NEUTRINO", N_("ニューラル推論"), 70},
    {"WORLD", N_("WORLDボコーダー"), 95},
    {"NSF", N_("NSFボコーダー"), 95},
    {"output", N_("出力"), 100},
};

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
std::size_t digitsEnd(std::string_view s, std::size_t i) {
  while (i < s.size() && isDigit(s[i])) ++i;
  return i;
}
double toDouble(std::string_view s) {
  return std::strtod(std::string(s).c_str(), nullptr);
}

// The line with A-Z lower-cased, which finds the keywords just where a full Unicode
// lower-casing of the line would: the keywords are ASCII, the only letters outside ASCII that
// lower-case into ASCII are U+0130 ("i" and a combining dot) and U+212A ("k"), and no keyword
// holds a "k" or ends in an "i".
void foldForKeywords(std::string_view s, std::string& out) {
  out.assign(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
}

// The stage keywords in lower case, made once.
const std::vector<std::string>& lowerKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> k;
    for (const auto& stage : ProgressParser::stages) k.push_back(text::toLower(stage.key));
    return k;
  }();
  return keys;
}

// The leftmost match of \d+(?:\.\d+)?\s*% , its number part.
std::optional<std::string_view> percentNumber(std::string_view s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (!isDigit(s[i])) continue;
    std::size_t j = digitsEnd(s, i);
    auto percentAfter = [&](std::size_t k) {
      while (k < s.size() && isSpace(s[k])) ++k;
      return k < s.size() && s[k] == '%';
    };
    if (j + 1 < s.size() && s[j] == '.' && isDigit(s[j + 1])) {
      std::size_t k = digitsEnd(s, j + 1);
      if (percentAfter(k)) return s.substr(i, k - i);
    }
    if (percentAfter(j)) return s.substr(i, j - i);
  }
  return std::nullopt;
}

// The leftmost match of \[(\d+)/(\d+)\] .
std::optional<std::pair<std::string_view, std::string_view>> fraction(std::string_view s) {
  for (std::size_t i = 0; i + 1 < s.size(); ++i) {
    if (s[i] != '[' || !isDigit(s[i + 1])) continue;
    std::size_t a = digitsEnd(s, i + 1);
    if (a >= s.size() || s[a] != '/' || a + 1 >= s.size() || !isDigit(s[a + 1])) continue;
    std::size_t b = digitsEnd(s, a + 1);
    if (b >= s.size() || s[b] != ']') continue;
    return std::pair{s.substr(i + 1, a - i - 1), s.substr(a + 1, b - a - 1)};
  }
  return std::nullopt;
}

}  // namespace

std::optional<double> ProgressParser::parsePercent(std::string_view line) {
  if (auto n = percentNumber(line)) return std::min(100.0, toDouble(*n));
  if (auto f = fraction(line)) {
    double total = toDouble(f->second);
    if (total > 0) return toDouble(f->first) / total * 100.0;
  }
  return std::nullopt;
}

std::optional<ProgressInfo> ProgressParser::parse(std::string_view line) {
  // Called for every line of a run: the folded copy reuses its buffer.
  thread_local std::string lowered;
  foldForKeywords(line, lowered);
  const std::vector<std::string>& keys = lowerKeys();
  const Stage* stage = nullptr;
  for (std::size_t i = 0; i < std::size(stages); ++i) {
    if (lowered.find(keys[i]) != std::string::npos) {
      stage = &stages[i];
      break;
    }
  }
  std::optional<double> p = parsePercent(line);
  if (!p) {
    if (!stage) return std::nullopt;
    p = stage->percentage;
  }
  if (!startTime) startTime = now();
  ProgressInfo info;
  info.percentage = *p;
  info.stage = stage ? tr(stage->text) : "";
  if (*p > 1.0) {
    double elapsed = std::chrono::duration<double>(now() - *startTime).count();
    double total = elapsed / (*p / 100.0);
    info.eta = std::max(0.0, total - elapsed);
  }
  lastPercentage = *p;
  return info;
}

}  // namespace melvo
