#include "melvo/interchange/musicxml_unfolder.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "melvo/interchange/element_scan.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/platform/large_buffer.h"
#include "melvo/platform/pcre_pattern.h"

namespace melvo {

namespace {

using Unfolder = MusicXMLUnfolder;

constexpr std::size_t kMaxMarkWords = 256;

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// The element name at `at` (just after "<") is `name` and ends there.
bool nameAt(std::string_view s, std::size_t at, std::string_view name) {
  if (s.compare(at, name.size(), name) != 0) return false;
  const std::size_t after = at + name.size();
  return after < s.size() && (isSpace(s[after]) || s[after] == '/' || s[after] == '>');
}

struct AttributeSpan {
  std::size_t valueBegin = 0, valueEnd = 0;
};

// The value of `name` in a tag, as "(?:^|\s)name\s*=\s*(?:"([^"]*)"|'([^']*)')" finds it.
std::optional<AttributeSpan> attributeSpan(std::string_view tag, std::string_view name) {
  for (std::size_t at = tag.find(name); at != std::string_view::npos; at = tag.find(name, at + 1)) {
    if (at != 0 && !isSpace(tag[at - 1])) continue;
    std::size_t p = at + name.size();
    while (p < tag.size() && isSpace(tag[p])) ++p;
    if (p >= tag.size() || tag[p] != '=') continue;
    ++p;
    while (p < tag.size() && isSpace(tag[p])) ++p;
    if (p >= tag.size() || (tag[p] != '"' && tag[p] != '\'')) continue;
    const std::size_t close = tag.find(tag[p], p + 1);
    if (close == std::string_view::npos) continue;
    return AttributeSpan{p + 1, close};
  }
  return std::nullopt;
}

std::optional<std::string_view> attribute(std::string_view tag, std::string_view name) {
  auto span = attributeSpan(tag, name);
  if (!span) return std::nullopt;
  return tag.substr(span->valueBegin, span->valueEnd - span->valueBegin);
}

std::optional<long> leadingNumber(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  long value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end == s.data()) return std::nullopt;
  return value;
}

// "1", "1, 2", "1. 2." (dots and spaces as some converters write them). Numbers above 16383
// are ignored.
std::vector<int> endingNumbers(std::string_view list) {
  std::vector<int> numbers;
  std::size_t i = 0;
  while (i < list.size()) {
    if (list[i] < '0' || list[i] > '9') {
      ++i;
      continue;
    }
    long value = 0;
    while (i < list.size() && list[i] >= '0' && list[i] <= '9') {
      value = std::min<long>(value * 10 + (list[i] - '0'), 1'000'000);
      ++i;
    }
    if (value <= 16383) numbers.push_back(static_cast<int>(value));
  }
  return numbers;
}

void readWords(std::string_view words, Unfolder::MeasureInfo& info) {
  constexpr unsigned flags = PcrePattern::utf | PcrePattern::caseless;
  static const PcrePattern daCapo("^\\s*(?:D\\.?\\s?C\\b|Da\\s+Capo)", flags);
  static const PcrePattern dalSegno("^\\s*(?:D\\.?\\s?S\\b|Dal\\s+Segno)", flags);
  static const PcrePattern toCoda("^\\s*(?:To|al)\\s+Coda", flags);
  static const PcrePattern coda(
      "^\\s*[(\\[]?\\s*(?:[\\x{1D10C}\\x{E048}\\x{E049}\\x{2295}\\x{25CE}]\\s*)?Coda\\s*"
      "(?:[0-9]+|I{1,3})?\\s*[:：.]?\\s*(?:[\\x{1D10C}\\x{E048}\\x{E049}\\x{2295}]\\s*)?[)\\]]?\\s*"
      "$",
      flags);
  static const PcrePattern fine("^\\s*Fine\\.?\\s*$", flags);
  static const PcrePattern segno("^\\s*Segno\\s*$", flags);
  if (daCapo.matches(words)) info.daCapo = true;
  if (dalSegno.matches(words)) {
    info.dalSegno = true;
    info.dalSegnoWords = std::string(words);
  }
  if (toCoda.matches(words)) {
    info.toCoda = true;
    info.toCodaWords = std::string(words);
  }
  if (coda.matches(words)) info.coda = true;
  if (fine.matches(words)) info.fine = true;
  if (segno.matches(words)) info.segno = true;
}

bool contains(const std::vector<int>& list, int value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

struct Span {
  std::size_t begin, end;
};

struct PartSpans {
  Span part;
  std::vector<Span> measures;
};

void appendEscaped(std::string& out, std::string_view value) {
  for (char c : value) {
    if (c == '"') {
      out += "&quot;";
    } else {
      out += c;
    }
  }
}

// One played copy of a measure, renumbered, marked with its pass, its flow marks removed.
void appendCopy(std::string& out, std::string_view measure, int pass, std::size_t position,
                bool strip) {
  const std::size_t gt = measure.find('>');
  const bool selfClosing = gt != 0 && measure[gt - 1] == '/';
  const std::string_view tag = measure.substr(0, selfClosing ? gt - 1 : gt);
  std::optional<std::string_view> oldNumber;
  if (auto span = attributeSpan(tag, "number")) {
    oldNumber = tag.substr(span->valueBegin, span->valueEnd - span->valueBegin);
    out.append(tag.substr(0, span->valueBegin));
    out.append(std::to_string(position));
    out.append(tag.substr(span->valueEnd));
  } else {
    out.append(tag);
  }
  out.append(" melvo-pass=\"").append(std::to_string(pass)).append("\"");
  if (oldNumber) {
    out.append(" melvo-orig=\"");
    appendEscaped(out, *oldNumber);
    out.append("\"");
  }
  out.append(selfClosing ? "/>" : ">");
  const std::string_view body = measure.substr(gt + 1);
  if (!strip) {
    out.append(body);
    return;
  }
  static const PcrePattern marks("<(?:repeat|segno|coda|ending)[^/]*/>");
  std::size_t from = 0;
  marks.forEach(body, [&](const PcrePattern::Match& m) {
    out.append(body.substr(from, m.begin - from));
    from = m.end;
    return true;
  });
  out.append(body.substr(from));
}

std::string measureNumber(std::string_view measure) {
  const std::string_view tag = measure.substr(0, measure.find('>'));
  auto number = attribute(tag, "number");
  return number ? std::string(*number) : std::string();
}

}  // namespace

Unfolder::MeasureInfo Unfolder::readMeasure(std::string_view s) {
  MeasureInfo info;
  // The opening tag itself is no mark; start after it.
  std::size_t i = s.find('>');
  std::size_t nextGt = i;
  for (i = s.find('<', i == std::string_view::npos ? 0 : i); i != std::string_view::npos;
       i = s.find('<', i + 1)) {
    if (i + 1 >= s.size()) break;
    const std::size_t at = i + 1;
    const char c = s[at];
    if (c != 'r' && c != 'e' && c != 's' && c != 'c' && c != 'w') continue;
    // The next '>' is found once per stretch, not once per '<': a run of '<' without any '>'
    // must not make the scan quadratic.
    if (nextGt != std::string_view::npos && nextGt < at) nextGt = s.find('>', at);
    const std::size_t gt = nextGt == std::string_view::npos ? s.size() : nextGt;
    const std::string_view tag = s.substr(i, gt - i);
    if (nameAt(s, at, "repeat")) {
      auto direction = attribute(tag, "direction");
      if (direction == "forward") info.forwardRepeat = true;
      if (direction == "backward") {
        info.backwardRepeat = true;
        if (auto times = attribute(tag, "times")) {
          if (auto n = leadingNumber(*times))
            info.times = static_cast<int>(std::clamp<long>(*n, 1, 1'000'000));
        }
      }
    } else if (nameAt(s, at, "ending")) {
      auto type = attribute(tag, "type");
      if (type == "start") {
        auto numbers = endingNumbers(attribute(tag, "number").value_or(""));
        // An ending that names no pass we can read is sung as if unbracketed, rather than
        // never.
        if (!numbers.empty()) info.endingStart = std::move(numbers);
      } else if (type == "stop" || type == "discontinue") {
        info.endingEnds = true;
      }
    } else if (nameAt(s, at, "sound")) {
      if (attribute(tag, "fine")) info.fine = true;
      if (attribute(tag, "dacapo") == "yes") info.daCapo = true;
      if (attribute(tag, "dalsegno")) info.dalSegno = true;
      if (attribute(tag, "segno")) info.segno = true;
      if (attribute(tag, "coda")) info.coda = true;
      if (attribute(tag, "tocoda")) info.toCoda = true;
    } else if (nameAt(s, at, "segno")) {
      info.segno = true;
    } else if (nameAt(s, at, "coda")) {
      info.coda = true;
    } else if (nameAt(s, at, "words") && gt < s.size() && s[gt - 1] != '/') {
      const std::size_t close = s.find('<', gt + 1);
      // A jump mark is a few words; the patterns, with their runs of optional white space,
      // are not let loose on pages of text.
      if (close != std::string_view::npos && s.compare(close, 8, "</words>") == 0 &&
          close - gt - 1 <= kMaxMarkWords)
        readWords(s.substr(gt + 1, close - gt - 1), info);
    }
  }
  return info;
}

std::vector<std::pair<int, int>> Unfolder::walk(const std::vector<MeasureInfo>& measures,
                                                UnfoldStats& stats,
                                                std::vector<std::size_t>* unfollowedDS,
                                                std::vector<std::size_t>* missingCoda) {
  const std::size_t n = measures.size();
  // The endings in force at each measure, and the passes its group of endings asks for.
  std::vector<const std::vector<int>*> endings(n, nullptr);
  std::vector<int> groupPasses(n, 0);
  const std::vector<int>* current = nullptr;
  for (std::size_t i = 0; i < n; ++i) {
    if (measures[i].endingStart) current = &*measures[i].endingStart;
    endings[i] = current;
    if (measures[i].endingEnds || measures[i].backwardRepeat) current = nullptr;
  }
  for (std::size_t i = 0; i < n;) {
    if (!endings[i]) {
      ++i;
      continue;
    }
    std::size_t j = i;
    int highest = 0;
    for (; j < n && endings[j]; ++j) {
      for (int v : *endings[j]) highest = std::max(highest, v);
    }
    std::fill(groupPasses.begin() + static_cast<std::ptrdiff_t>(i),
              groupPasses.begin() + static_cast<std::ptrdiff_t>(j), highest);
    i = j;
  }

  std::vector<std::pair<int, int>> order;
  std::size_t pos = 0, repeatStart = 0;
  int pass = 1;
  bool afterJump = false;
  // Set while going back from a backward repeat, so that the forward repeat we land on keeps
  // the pass instead of starting the repeat afresh.
  bool repeating = false;
  const std::size_t stepLimit = (n + 4001) * 4;
  std::size_t steps = 0;
  while (pos < n) {
    if (order.size() > static_cast<std::size_t>(kMaxMeasures) || ++steps > stepLimit) {
      stats.capped = true;
      ++stats.loopsCapped;
      break;
    }
    const MeasureInfo& m = measures[pos];
    if (m.forwardRepeat && !afterJump && !(repeating && pos == repeatStart)) {
      repeatStart = pos;
      pass = 1;
    }
    repeating = false;
    if (endings[pos]) {
      const bool played =
          afterJump ? contains(*endings[pos], groupPasses[pos]) : contains(*endings[pos], pass);
      if (!played) {
        ++stats.voltaApplied;
        ++pos;
        continue;
      }
    }
    order.emplace_back(static_cast<int>(pos), afterJump ? 1 : pass);
    if (m.backwardRepeat && !afterJump) {
      const int wanted = std::max(m.times, groupPasses[pos]);
      if (pass < wanted) {
        ++pass;
        ++stats.repeatExpanded;
        pos = repeatStart;
        repeating = true;
        continue;
      }
      pass = 1;
      repeatStart = pos + 1;
    }
    if (m.toCoda && afterJump) {
      std::size_t target = pos + 1;
      while (target < n && !measures[target].coda) ++target;
      if (target < n) {
        ++stats.jumpsResolved;
        pos = target;
        continue;
      }
      ++stats.codaMissing;
      if (missingCoda) missingCoda->push_back(pos);
    }
    if (m.fine && afterJump) break;
    if (m.daCapo && !afterJump) {
      ++stats.jumpsResolved;
      afterJump = true;
      pos = 0;
      continue;
    }
    if (m.dalSegno && !afterJump) {
      std::size_t target = pos + 1;
      while (target-- > 0 && !measures[target].segno) {
      }
      if (target != static_cast<std::size_t>(-1)) {
        ++stats.jumpsResolved;
        afterJump = true;
        pos = target;
        continue;
      }
      ++stats.dsWithoutSegno;
      if (unfollowedDS) unfollowedDS->push_back(pos);
    }
    ++pos;
  }
  return order;
}

Unfolder::Result Unfolder::unfold(std::string_view text) {
  return unfoldText(text, nullptr);
}

Unfolder::Result Unfolder::unfold(std::string&& text) {
  return unfoldText(text, &text);
}

Unfolder::Result Unfolder::unfoldText(std::string_view text, std::string* owned) {
  // Parts and measures as "<part(?=[\\s>])[^>]*>[\\s\\S]*?</part>" and
  // "<measure(?=[\\s/>])[^>]*?(?:/>|>[\\s\\S]*?</measure>)" find them.
  std::vector<PartSpans> parts;
  forEachElement(text, "part", [&](const ElementMatch& part) {
    PartSpans spans{{part.begin, part.end}, {}};
    const auto offset = static_cast<std::size_t>(part.content.data() - text.data());
    forEachElement(part.content, "measure", [&](const ElementMatch& m) {
      spans.measures.push_back({offset + m.begin, offset + m.end});
      return true;
    });
    parts.push_back(std::move(spans));
    return true;
  });

  Result result;
  result.stats.measuresOriginal = parts.empty() ? 0 : static_cast<int>(parts[0].measures.size());
  result.stats.measuresUnfolded = result.stats.measuresOriginal;
  const auto measureText = [&](const Span& s) { return text.substr(s.begin, s.end - s.begin); };

  std::vector<MeasureInfo> flow;
  const PartSpans* flowPart = nullptr;
  for (const PartSpans& part : parts) {
    std::vector<MeasureInfo> infos;
    infos.reserve(part.measures.size());
    bool any = false;
    for (const Span& s : part.measures) {
      infos.push_back(readMeasure(measureText(s)));
      any = any || infos.back().hasFlowMark();
    }
    if (any) {
      flow = std::move(infos);
      flowPart = &part;
      break;
    }
  }
  if (!flowPart) {
    if (owned) {
      result.text = std::move(*owned);
    } else {
      result.text = largeString(text.size());
      result.text.append(text);
    }
    return result;
  }

  std::vector<std::size_t> unfollowedDS, missingCoda;
  const auto order = walk(flow, result.stats, &unfollowedDS, &missingCoda);
  if (order.size() > static_cast<std::size_t>(kMaxMeasures))
    throw MusicXMLParseError::tooManyMeasures(kMaxMeasures);
  result.stats.measuresUnfolded = static_cast<int>(order.size());
  for (std::size_t at : unfollowedDS) {
    const MeasureInfo& m = flow[at];
    result.problems.push_back({FlowProblem::Kind::dsWithoutSegno,
                               measureNumber(measureText(flowPart->measures[at])),
                               m.dalSegnoWords.empty() ? "D.S." : m.dalSegnoWords});
  }
  for (std::size_t at : missingCoda) {
    const MeasureInfo& m = flow[at];
    result.problems.push_back({FlowProblem::Kind::codaMissing,
                               measureNumber(measureText(flowPart->measures[at])),
                               m.toCodaWords.empty() ? "To Coda" : m.toCodaWords});
  }

  // Marks are stripped from every measure that has one, in whichever part.
  std::size_t size = text.size();
  for (const PartSpans& part : parts) {
    for (const auto& [index, passNumber] : order) {
      if (static_cast<std::size_t>(index) < part.measures.size())
        size += part.measures[index].end - part.measures[index].begin + 64;
    }
  }
  std::string& out = result.text;
  out = largeString(size);
  std::size_t copied = 0;
  for (const PartSpans& part : parts) {
    if (part.measures.empty()) continue;
    out.append(text.substr(copied, part.measures.front().begin - copied));
    std::string_view gap = "\n";
    if (part.measures.size() > 1) {
      gap = text.substr(part.measures[0].end, part.measures[1].begin - part.measures[0].end);
      if (gap.find('<') != std::string_view::npos) gap = "\n";
    }
    std::vector<bool> marked(part.measures.size());
    for (std::size_t i = 0; i < part.measures.size(); ++i) {
      marked[i] = &part == flowPart ? flow[i].hasFlowMark()
                                    : readMeasure(measureText(part.measures[i])).hasFlowMark();
    }
    std::size_t position = 0;
    for (const auto& [index, passNumber] : order) {
      ++position;
      if (static_cast<std::size_t>(index) >= part.measures.size()) continue;
      if (position > 1) out.append(gap);
      appendCopy(out, measureText(part.measures[index]), passNumber, position, marked[index]);
    }
    copied = part.measures.back().end;
  }
  out.append(text.substr(copied));
  return result;
}

}  // namespace melvo
