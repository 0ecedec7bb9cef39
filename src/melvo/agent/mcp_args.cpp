#include "melvo/agent/mcp_args.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo::mcp {

void refuse(std::string message, McpError::Code code) {
  throw McpCommandLayer::ArgError{code, std::move(message)};
}

const McpJSON* Args::get(std::string_view name) const {
  auto it = o_.find(name);
  if (it == o_.end() || it->second.isNull()) return nullptr;
  return &it->second;
}

std::int64_t integerValue(const McpJSON& v, std::string_view name, std::int64_t lo,
                          std::int64_t hi) {
  bool fits = false;
  std::int64_t value = 0;
  if (v.isInt()) {
    value = v.asInt();
    fits = true;
  } else if (v.type() == McpJSON::Type::Double) {
    double d = v.asDouble();
    if (std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 9e18) {
      value = static_cast<std::int64_t>(d);
      fits = true;
    }
  }
  if (!fits || value < lo || value > hi) {
    refuse(
        trf("%@ は %@〜%@ の整数で渡してください", {name, std::to_string(lo), std::to_string(hi)}));
  }
  return value;
}

std::int64_t Args::integer(std::string_view name, std::int64_t lo, std::int64_t hi) const {
  const McpJSON* v = get(name);
  if (!v) refuse(trf("%@ を渡してください", {name}));
  return integerValue(*v, name, lo, hi);
}

std::optional<std::int64_t> Args::optInteger(std::string_view name, std::int64_t lo,
                                             std::int64_t hi) const {
  const McpJSON* v = get(name);
  if (!v) return std::nullopt;
  return integerValue(*v, name, lo, hi);
}

std::optional<double> Args::optNumber(std::string_view name, double lo, double hi) const {
  const McpJSON* v = get(name);
  if (!v) return std::nullopt;
  if (!v->isNumber() || !(v->asDouble() >= lo && v->asDouble() <= hi)) {
    refuse(
        trf("%@ は %@〜%@ の数で渡してください", {name, McpJSON(lo).dump(), McpJSON(hi).dump()}));
  }
  return v->asDouble();
}

std::optional<bool> Args::optBool(std::string_view name) const {
  const McpJSON* v = get(name);
  if (!v) return std::nullopt;
  if (!v->isBool()) refuse(trf("%@ は true か false で渡してください", {name}));
  return v->asBool();
}

std::optional<std::string> Args::optString(std::string_view name) const {
  const McpJSON* v = get(name);
  if (!v) return std::nullopt;
  if (!v->isString()) refuse(trf("%@ は文字列で渡してください", {name}));
  return v->asString();
}

int Args::track(const MusicDocument& d) const {
  const McpJSON* v = get("track");
  if (!v) refuse(tr("track（0 から数えたトラックの番号）を渡してください"));
  const auto count = static_cast<std::int64_t>(d.tracks.size());
  std::int64_t t = integerValue(*v, "track", 0, std::numeric_limits<std::int32_t>::max());
  if (t >= count) {
    refuse(trf("track %@ はありません（トラックは %@ 本です）",
               {std::to_string(t), std::to_string(count)}),
           McpError::Code::notFound);
  }
  return static_cast<int>(t);
}

std::optional<std::pair<std::int64_t, std::int64_t>> Args::range() const {
  auto from = optInteger("fromTick", 0, maxTick);
  auto to = optInteger("toTick", 0, maxTick);
  if (!from && !to) return std::nullopt;
  if (!from || !to) refuse(tr("区間は fromTick と toTick を一緒に渡してください"));
  if (*to <= *from) refuse(tr("toTick は fromTick より大きくしてください"));
  return std::make_pair(*from, *to);
}

std::string limitWords(const char* format, std::size_t limit) {
  return trf(format, {std::to_string(limit)});
}

std::vector<std::size_t> Args::indices(std::size_t count, std::size_t limit) const {
  const McpJSON* v = get("indices");
  if (!v || !v->isArray()) refuse(tr("indices は整数の配列で渡してください"));
  const auto& a = v->asArray();
  if (a.size() > limit) {
    refuse(limitWords(N_("1回で直せるのは %@ 音までです"), limit), McpError::Code::limitExceeded);
  }
  std::vector<std::size_t> out;
  out.reserve(a.size());
  std::vector<bool> seen(count, false);
  for (const auto& e : a) {
    if (!e.isNumber()) refuse(tr("indices は整数の配列で渡してください"));
    const auto i = integerValue(e, "indices", 0, std::numeric_limits<std::int64_t>::max() / 2);
    if (static_cast<std::size_t>(i) >= count) {
      refuse(trf("index %@ はありません（このトラックの音符は %@ 個です）",
                 {std::to_string(i), std::to_string(count)}),
             McpError::Code::notFound);
    }
    if (seen[static_cast<std::size_t>(i)]) {
      refuse(trf("同じ index が2度あります：%@", {std::to_string(i)}));
    }
    seen[static_cast<std::size_t>(i)] = true;
    out.push_back(static_cast<std::size_t>(i));
  }
  return out;
}

std::string lyricValue(const McpJSON& v, std::size_t index) {
  bool good =
      v.isString() && text::graphemeCount(v.asString()) <= McpCommandLayer::kLyricCharacters;
  if (good) {
    for (unsigned char c : v.asString()) {
      if (c < 0x20 || c == 0x7f) good = false;
    }
    // U+0080..U+009F, U+2028 and U+2029 break lines or control as well.
    const std::string& s = v.asString();
    if (s.find("\xe2\x80\xa8") != std::string::npos ||
        s.find("\xe2\x80\xa9") != std::string::npos) {
      good = false;
    }
    for (std::size_t i = 0; i + 1 < s.size(); ++i) {
      if (static_cast<unsigned char>(s[i]) == 0xc2 &&
          static_cast<unsigned char>(s[i + 1]) >= 0x80 &&
          static_cast<unsigned char>(s[i + 1]) <= 0x9f) {
        good = false;
      }
    }
  }
  if (!good) {
    refuse(trf("lyric は %@ 字までで、改行や制御の字は入れられません（index %@）",
               {std::to_string(McpCommandLayer::kLyricCharacters), std::to_string(index)}));
  }
  return v.asString();
}

std::vector<std::size_t> sortedOrder(const NoteList& notes) {
  std::vector<std::size_t> order(notes.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  bool sorted = true;
  for (std::size_t i = 1; i < notes.size() && sorted; ++i) {
    sorted = notes[i - 1].tick <= notes[i].tick;
  }
  if (!sorted) {
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return notes[a].tick < notes[b].tick; });
  }
  return order;
}

McpJSON noteJSON(const NoteEvent& n, std::size_t index) {
  McpJSON::Object o;
  o.emplace("breathAfter", n.hasBreathAfter);
  o.emplace("duration", n.duration);
  o.emplace("index", index);
  o.emplace("lyric", n.lyric);
  o.emplace("pitch", n.pitch);
  o.emplace("slurToNext", n.slurToNext);
  o.emplace("tick", n.tick);
  o.emplace("velocity", n.velocity);
  return McpJSON(std::move(o));
}

}  // namespace melvo::mcp
