// Ticks to bars and back. Bars are derived from the meter map on demand, since one meter
// change moves every later bar number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "melvo/model/music_document.h"

namespace melvo {

std::int64_t ticksPerBar(const TimeSignatureEvent& signature, std::int64_t ppq);
std::int64_t ticksPerBeat(const TimeSignatureEvent& signature, std::int64_t ppq);

struct BarPosition {
  std::int64_t barNumber = 1;  // from 1
  std::int64_t barStartTick = 0;
  std::int64_t ticksPerBeat = 1;
};

class BarRuler {
 public:
  // Normalises: numerators clamped to 1..64, odd denominators become 4, stable-sorted by
  // tick, 4/4 when empty, ppq below 2 counts as 1.
  BarRuler(std::int64_t ppq, std::vector<TimeSignatureEvent> signatures);

  std::int64_t ppq() const { return ppq_; }
  const std::vector<TimeSignatureEvent>& signatures() const { return signatures_; }

  // A meter placed inside a bar takes effect at the next bar line: the running bar ends in
  // the old meter.
  BarPosition position(std::int64_t tick) const;
  std::int64_t barNumber(std::int64_t tick) const;
  // "3小節目2.5拍", through the catalogue.
  std::string positionText(std::int64_t tick) const;

  struct Boundary {
    std::int64_t barIndex;  // from 0
    std::int64_t startTick;
    std::int64_t tpBar;
    TimeSignatureEvent timeSignature;
  };
  // Bar lines from tick 0 up to (not including) `endTick`, at most `limit` of them.
  std::vector<Boundary> boundaries(std::int64_t endTick, std::size_t limit) const;

 private:
  std::int64_t ppq_;
  std::vector<TimeSignatureEvent> signatures_;
};

BarPosition barPosition(std::int64_t tick, std::int64_t ppq,
                        const std::vector<TimeSignatureEvent>& signatures);
std::int64_t barNumber(std::int64_t tick, std::int64_t ppq,
                       const std::vector<TimeSignatureEvent>& signatures);
std::string positionText(std::int64_t tick, std::int64_t ppq,
                         const std::vector<TimeSignatureEvent>& signatures);
// To the nearest grid line; half-way goes up.
std::int64_t snapToGrid(std::int64_t tick, std::int64_t gridTicks);
// "%.2f" without trailing zeros and a trailing point: 2.5 -> "2.5", 2 -> "2".
std::string compactNumber(double value);

// Horizontal mapping of the arrange view.
struct ArrangeXMapping {
  double pixelsPerTick = 0.1;
  double scrollX = 0;
  double x(std::int64_t tick) const { return static_cast<double>(tick) * pixelsPerTick - scrollX; }
  double tick(double x) const { return (x + scrollX) / pixelsPerTick; }
};

}  // namespace melvo
