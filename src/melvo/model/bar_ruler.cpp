#include "melvo/model/bar_ruler.h"

#include <algorithm>
#include <cstdio>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

bool isAllowedDenominator(int d) {
  return d == 1 || d == 2 || d == 4 || d == 8 || d == 16 || d == 32;
}

std::int64_t saturatingMul(std::int64_t a, std::int64_t b) {
  std::int64_t r;
  if (__builtin_mul_overflow(a, b, &r)) return maxTick;
  return r;
}

}  // namespace

std::int64_t ticksPerBar(const TimeSignatureEvent& s, std::int64_t ppq) {
  std::int64_t denominator = std::max(s.denominator, 1);
  std::int64_t product = saturatingMul(saturatingMul(s.numerator, ppq), 4);
  if (product > maxTick) product = maxTick;
  return std::max<std::int64_t>(product / denominator, 1);
}

std::int64_t ticksPerBeat(const TimeSignatureEvent& s, std::int64_t ppq) {
  std::int64_t denominator = std::max(s.denominator, 1);
  return std::max<std::int64_t>(saturatingMul(ppq, 4) / denominator, 1);
}

BarRuler::BarRuler(std::int64_t ppq, std::vector<TimeSignatureEvent> signatures)
    : ppq_(ppq < 2 ? 1 : ppq), signatures_(std::move(signatures)) {
  for (auto& s : signatures_) {
    s.numerator = std::clamp(s.numerator, 1, 64);
    if (!isAllowedDenominator(s.denominator)) s.denominator = 4;
  }
  std::stable_sort(signatures_.begin(), signatures_.end(),
                   [](const auto& a, const auto& b) { return a.tick < b.tick; });
  if (signatures_.empty()) signatures_.push_back(TimeSignatureEvent{0, 4, 4});
}

BarPosition BarRuler::position(std::int64_t tick) const {
  std::int64_t cursor = 0, bars = 0;
  std::size_t g = 0;
  for (;;) {
    while (g + 1 < signatures_.size() && signatures_[g + 1].tick <= cursor) ++g;
    const std::int64_t tpBar = ticksPerBar(signatures_[g], ppq_);
    const std::int64_t tpBeat = ticksPerBeat(signatures_[g], ppq_);
    auto finish = [&] {
      std::int64_t k = tick > cursor ? (tick - cursor) / tpBar : 0;
      return BarPosition{bars + k + 1, cursor + k * tpBar, tpBeat};
    };
    if (g + 1 >= signatures_.size()) return finish();
    const std::int64_t next = signatures_[g + 1].tick;
    std::int64_t count = std::max<std::int64_t>((next - cursor + tpBar - 1) / tpBar, 1);
    std::int64_t end = std::min(saturatingMul(count, tpBar), maxTick - cursor) + cursor;
    if (tick < end || end <= cursor) return finish();
    bars += count;
    cursor = end;
  }
}

std::int64_t BarRuler::barNumber(std::int64_t tick) const {
  if (tick < 1) return 1;
  return position(tick).barNumber;
}

std::string compactNumber(double value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", value);
  std::string s(buf);
  if (s.find('.') != std::string::npos) {
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
  }
  return s;
}

std::string BarRuler::positionText(std::int64_t tick) const {
  BarPosition p = position(tick);
  double beat =
      static_cast<double>(tick - p.barStartTick) / static_cast<double>(p.ticksPerBeat) + 1;
  return trf("%@小節目%@拍", {std::to_string(p.barNumber), compactNumber(beat)});
}

std::vector<BarRuler::Boundary> BarRuler::boundaries(std::int64_t endTick,
                                                     std::size_t limit) const {
  std::vector<Boundary> out;
  std::int64_t cursor = 0;
  std::size_t g = 0;
  while (cursor < endTick && out.size() < limit) {
    while (g + 1 < signatures_.size() && signatures_[g + 1].tick <= cursor) ++g;
    std::int64_t tpBar = ticksPerBar(signatures_[g], ppq_);
    out.push_back({static_cast<std::int64_t>(out.size()), cursor, tpBar, signatures_[g]});
    if (cursor >= maxTick - tpBar) break;
    cursor += tpBar;
  }
  return out;
}

BarPosition barPosition(std::int64_t tick, std::int64_t ppq,
                        const std::vector<TimeSignatureEvent>& signatures) {
  return BarRuler(ppq, signatures).position(tick);
}

std::int64_t barNumber(std::int64_t tick, std::int64_t ppq,
                       const std::vector<TimeSignatureEvent>& signatures) {
  return BarRuler(ppq, signatures).barNumber(tick);
}

std::string positionText(std::int64_t tick, std::int64_t ppq,
                         const std::vector<TimeSignatureEvent>& signatures) {
  return BarRuler(ppq, signatures).positionText(tick);
}

std::int64_t snapToGrid(std::int64_t tick, std::int64_t gridTicks) {
  std::int64_t grid = gridTicks < 2 ? 1 : gridTicks;
  return (std::max<std::int64_t>(tick, 0) + grid / 2) / grid * grid;
}

}  // namespace melvo
