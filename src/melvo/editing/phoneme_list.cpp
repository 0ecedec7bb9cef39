#include "melvo/editing/phoneme_list.h"

#include <charconv>
#include <unordered_set>

#include "melvo/checking/kana_table.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/log.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

const std::unordered_set<std::string>& knownPhonemes() {
  static const std::unordered_set<std::string> set = [] {
    std::unordered_set<std::string> s{"sil", "pau", "br", "cl"};
    for (const auto& [kana, phonemes] : kanaPhonemeEntries())
      for (auto p : text::split(phonemes, ' '))
        if (!p.empty()) s.emplace(p);
    return s;
  }();
  return set;
}

std::optional<std::int64_t> toInt(std::string_view s) {
  std::int64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return v;
}

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) out.push_back(line.substr(start, i - start));
  }
  return out;
}

}  // namespace

bool isKnownPhoneme(std::string_view symbol) {
  return knownPhonemes().count(std::string(symbol)) != 0;
}

PhonemeList PhonemeList::parse(std::string_view content) {
  PhonemeList list;
  int reversed = 0;
  std::vector<std::string> unknown;
  for (std::string_view line : text::split(content, '\n')) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    auto f = fields(line);
    if (f.size() < 3) continue;
    auto start = toInt(f[0]);
    auto end = toInt(f[1]);
    if (!start || !end) continue;
    if (*start < 0 || *end < *start) {
      ++reversed;
      continue;
    }
    std::string symbol(f[2]);
    if (!isKnownPhoneme(symbol)) unknown.push_back(symbol);
    list.phonemes.push_back({*start, *end, std::move(symbol)});
  }
  if (reversed > 0)
    log::write("PhonemeList",
               "⚠ 境界逆転 / 負値の音素を " + std::to_string(reversed) + " 個スキップ");
  if (!unknown.empty()) {
    std::string joined;
    for (const auto& u : unknown) joined += (joined.empty() ? "" : ", ") + u;
    log::write("PhonemeList", "⚠ 想定外音素ラベル: " + joined);
  }
  bool allSilent = !list.phonemes.empty();
  for (const auto& p : list.phonemes) allSilent &= p.symbol == "sil" || p.symbol == "pau";
  if (allSilent)
    log::write("PhonemeList", "⚠ 全行が sil / pau（無音のみ）— 合成結果が破綻している可能性");
  return list;
}

std::optional<PhonemeList> PhonemeList::read(const std::filesystem::path& path) {
  std::string content;
  try {
    content = readFile(path);
  } catch (const FileError&) {
    return std::nullopt;
  }
  return parse(content);
}

std::string PhonemeList::text() const {
  std::string out;
  out.reserve(phonemes.size() * 24);
  for (const auto& p : phonemes) {
    out += std::to_string(p.startNS);
    out += ' ';
    out += std::to_string(p.endNS);
    out += ' ';
    out += p.symbol;
    out += '\n';
  }
  return out;
}

void PhonemeList::write(const std::filesystem::path& path) const {
  writeFileAtomically(path, text());
}

std::vector<Phoneme> PhonemeList::phonemesIn(double from, double to) const {
  std::vector<Phoneme> out;
  for (const auto& p : phonemes)
    if (p.startSec() < to && p.endSec() > from) out.push_back(p);
  return out;
}

std::optional<double> PhonemeList::firstSungStartSec() const {
  for (const auto& p : phonemes)
    if (p.symbol != "sil" && p.symbol != "pau") return p.startSec();
  return std::nullopt;
}

std::string displaySymbol(std::string_view symbol) {
  if (symbol == "sil") return "•";
  if (symbol == "pau") return "/";
  if (symbol == "br") return "⚪";
  if (symbol == "cl") return "_";
  return std::string(symbol);
}

}  // namespace melvo
