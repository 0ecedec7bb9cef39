#include "melvo/model/sung_line.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "melvo/platform/log.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

bool hasTrimmedLyric(const NoteEvent& n) {
  return !text::trimWhitespaceAndNewlines(n.lyric).empty();
}

template <class Notes>
std::vector<SungNote> normalize(const Notes& notes, std::int64_t ppq) {
  std::vector<const NoteEvent*> order;
  order.reserve(notes.size());
  bool strictlyRising = true;
  for (const NoteEvent& n : notes) {
    if (!order.empty() && n.tick <= order.back()->tick) strictlyRising = false;
    order.push_back(&n);
  }
  // A song as edited is already in strictly rising order, and then sorting is the identity.
  if (!strictlyRising) {
    struct Key {
      const NoteEvent* note;
      int rank;
    };
    std::vector<Key> keys;
    keys.reserve(order.size());
    for (const NoteEvent* n : order) keys.push_back({n, sungRank(*n, ppq)});
    std::stable_sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
      if (a.note->tick != b.note->tick) return a.note->tick < b.note->tick;
      return a.rank < b.rank;
    });
    for (std::size_t i = 0; i < keys.size(); ++i) order[i] = keys[i].note;
  }
  std::vector<SungNote> kept;
  kept.reserve(order.size());
  for (const NoteEvent* n : order) {
    if (!kept.empty()) {
      SungNote& last = kept.back();
      if (n->tick == last.tick) continue;
      if (n->tick < last.end()) last.duration = std::max<std::int64_t>(n->tick - last.tick, 1);
    }
    kept.push_back({n, n->tick, n->duration});
  }
  return kept;
}

std::vector<NoteEvent> materialize(const std::vector<SungNote>& kept) {
  std::vector<NoteEvent> out;
  out.reserve(kept.size());
  for (const SungNote& k : kept) {
    out.push_back(*k.note);
    out.back().duration = k.duration;
  }
  return out;
}

template <class T>
std::vector<T> stableSortedByTick(std::vector<T> v) {
  std::stable_sort(v.begin(), v.end(), [](const T& a, const T& b) { return a.tick < b.tick; });
  return v;
}

// Shared by the layout and the limit report, which must agree on where the score ends.
struct LayoutTarget {
  std::int64_t firstBar;  // made positive
  std::int64_t target;
};

LayoutTarget layoutTarget(const MusicDocument& d) {
  const TimeSignatureEvent first =
      d.timeSignatures.empty() ? TimeSignatureEvent{} : d.timeSignatures.front();
  const std::int64_t raw = first.numerator * d.ppq * 4 / first.denominator;
  const std::int64_t length = raw > 0 ? raw : d.ppq * 4;
  std::int64_t lastEnd = 0;
  for (const auto& t : d.tracks)
    for (const auto& n : t.notes) lastEnd = std::max(lastEnd, sungNoteEnd(n.tick, n.duration));
  const std::int64_t wanted = lastEnd > 0 ? lastEnd + (length < 4 ? 1 : length / 2) : 0;
  return {length, std::max(wanted, raw)};
}

template <class Notes>
BarNotes assignNotes(const std::vector<ScoreBar>& bars, const Notes& notes, bool allowSearch) {
  BarNotes out;
  out.offsets.reserve(bars.size() + 1);
  out.offsets.push_back(0);
  auto tickOf = [&](std::size_t i) { return notes[i].tick; };
  auto endOf = [&](std::size_t i) { return sungNoteEnd(notes[i].tick, notes[i].duration); };
  bool rising = allowSearch;
  for (std::size_t i = 1; rising && i < notes.size(); ++i)
    rising = tickOf(i - 1) <= tickOf(i) && endOf(i - 1) <= endOf(i);
  if (rising) {
    out.indices.reserve(notes.size() + bars.size());
    for (const auto& bar : bars) {
      const std::int64_t barEnd = bar.startTick + bar.tpBar;
      std::size_t lo = 0, hi = notes.size();
      // First note that ends after the bar start.
      while (lo < hi) {
        std::size_t mid = lo + (hi - lo) / 2;
        if (endOf(mid) > bar.startTick) {
          hi = mid;
        } else {
          lo = mid + 1;
        }
      }
      const std::size_t first = lo;
      hi = notes.size();
      // First note that starts at or after the bar end.
      while (lo < hi) {
        std::size_t mid = lo + (hi - lo) / 2;
        if (tickOf(mid) >= barEnd) {
          hi = mid;
        } else {
          lo = mid + 1;
        }
      }
      for (std::size_t i = first; i < lo; ++i) out.indices.push_back(i);
      out.offsets.push_back(out.indices.size());
    }
    return out;
  }
  // Notes out of order: look at every note for every bar, then order each bar's by tick.
  for (const auto& bar : bars) {
    const std::int64_t barEnd = bar.startTick + bar.tpBar;
    const std::size_t from = out.indices.size();
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (tickOf(i) < barEnd && endOf(i) > bar.startTick) out.indices.push_back(i);
    std::stable_sort(out.indices.begin() + static_cast<std::ptrdiff_t>(from), out.indices.end(),
                     [&](std::size_t a, std::size_t b) { return tickOf(a) < tickOf(b); });
    out.offsets.push_back(out.indices.size());
  }
  return out;
}

}  // namespace

int sungRank(const NoteEvent& note, std::int64_t ppq) {
  return (hasTrimmedLyric(note) ? 0 : 2) + (note.duration >= veryShortBelow(ppq) ? 0 : 1);
}

std::int64_t sungNoteEnd(std::int64_t tick, std::int64_t duration) {
  std::int64_t end;
  if (__builtin_add_overflow(tick, duration, &end)) return duration > 0 ? endTickCeiling : 0;
  return end;
}

std::vector<SungNote> sungLine(const NoteList& notes, std::int64_t ppq) {
  return normalize(notes, ppq);
}

std::vector<SungNote> sungLine(const std::vector<NoteEvent>& notes, std::int64_t ppq) {
  return normalize(notes, ppq);
}

std::vector<NoteEvent> normalizedNotes(const NoteList& notes, std::int64_t ppq) {
  return materialize(normalize(notes, ppq));
}

std::vector<NoteEvent> normalizedNotes(const std::vector<NoteEvent>& notes, std::int64_t ppq) {
  return materialize(normalize(notes, ppq));
}

std::vector<TrimmedOverlap> trimmedOverlaps(const NoteList& notes, std::int64_t ppq) {
  std::unordered_map<Uuid, std::int64_t> original;
  original.reserve(notes.size());
  for (const auto& n : notes) original[n.id] = n.duration;
  std::vector<TrimmedOverlap> out;
  for (const SungNote& k : normalize(notes, ppq)) {
    const std::int64_t before = original[k.note->id];
    if (k.duration < before) {
      TrimmedOverlap t{*k.note, k.duration};
      t.note.duration = before;
      out.push_back(std::move(t));
    }
  }
  return out;
}

std::vector<ScoreBar> scoreBarLayout(const MusicDocument& d, bool logging) {
  const LayoutTarget lt = layoutTarget(d);
  std::vector<TimeSignatureEvent> meters = stableSortedByTick(d.timeSignatures);
  if (meters.empty()) meters.push_back(TimeSignatureEvent{0, 4, 4});
  std::vector<ScoreBar> bars;
  std::int64_t tick = 0;
  std::size_t m = 0;  // the meter in force: the last at or before `tick`, else the first
  while (bars.empty() || tick <= lt.target) {
    while (m + 1 < meters.size() && meters[m + 1].tick <= tick) ++m;
    const TimeSignatureEvent& ts = meters[m];
    const std::int64_t tpBar = std::max<std::int64_t>(d.ppq * ts.numerator * 4 / ts.denominator, 1);
    bars.push_back({tick, tpBar, ts});
    tick += tpBar;
    if (bars.size() == scoreBarCeiling) {
      if (logging) {
        log::write("MusicXMLExporter", "⚠ 小節数が上限 " + std::to_string(scoreBarCeiling) +
                                           " を超えたため切り詰めました（残り tick: " +
                                           std::to_string(lt.target - tick) + "）");
      }
      break;
    }
  }
  return bars;
}

std::optional<std::int64_t> scoreCeilingTick(const MusicDocument& document) {
  auto bars = scoreBarLayout(document, false);
  if (bars.size() < scoreBarCeiling) return std::nullopt;
  return bars.back().startTick + bars.back().tpBar;
}

std::optional<ExportLimitReport> exportLimitReport(const MusicDocument& document, int trackIndex) {
  if (trackIndex < 0 || trackIndex >= static_cast<int>(document.tracks.size())) return std::nullopt;
  if (document.tracks[trackIndex].notes.empty()) return std::nullopt;
  const MusicDocument copy = document.singleTrackCopy(trackIndex);
  const LayoutTarget lt = layoutTarget(copy);
  const std::vector<ScoreBar> bars = scoreBarLayout(copy, false);
  if (bars.size() < scoreBarCeiling) return std::nullopt;
  const std::int64_t limit = bars.back().startTick + bars.back().tpBar;
  if (limit > lt.target) return std::nullopt;
  ExportLimitReport report;
  report.limitTick = limit;
  for (const SungNote& k : normalize(copy.tracks.front().notes, copy.ppq)) {
    if (k.tick >= limit) {
      report.beyond.push_back(*k.note);
      report.beyond.back().duration = k.duration;
    } else if (k.end() > limit) {
      report.crossing.push_back(*k.note);
      report.crossing.back().duration = k.duration;
    }
  }
  if (report.beyond.empty() && report.crossing.empty()) return std::nullopt;
  return report;
}

BarNotes notesByBar(const std::vector<ScoreBar>& bars, const std::vector<NoteEvent>& notes,
                    bool allowSearch) {
  return assignNotes(bars, notes, allowSearch);
}

BarNotes notesByBar(const std::vector<ScoreBar>& bars, const std::vector<SungNote>& notes,
                    bool allowSearch) {
  return assignNotes(bars, notes, allowSearch);
}

}  // namespace melvo
