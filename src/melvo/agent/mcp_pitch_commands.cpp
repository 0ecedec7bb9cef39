// The commands over the rendered pitch curve. They work in semitones of the song (the curve's
// hertz, shifted by the transpose made since the render) and touch voiced frames only: a
// frame the engine left unvoiced is a consonant or a rest, and singing it would be a fault.
// Each checks its input, edits a copy and commits once through commitPitch.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "melvo/agent/mcp_args.h"
#include "melvo/platform/i18n.h"

namespace melvo::mcp {

using Code = McpError::Code;

namespace {

constexpr std::size_t kPointLimit = 2000;
constexpr std::size_t kSummaryNotes = 200;

McpPitch loadPitch(Context& c) {
  auto p = c.host.pitch ? c.host.pitch() : std::nullopt;
  if (!p) {
    refuse(tr("ピッチ曲線がありません。先に曲を歌わせてください（曲線は合成の後に出来ます）"),
           Code::notFound);
  }
  return std::move(*p);
}

double semitones(float hz, int transpose) {
  return 69.0 + 12.0 * std::log2(hz / 440.0) + transpose;
}

float hertz(double semis, int transpose) {
  return static_cast<float>(440.0 * std::exp2((semis - transpose - 69.0) / 12.0));
}

double hundredths(double v) {
  return std::round(v * 100.0) / 100.0;
}

// The frame at or after a time, kept within 0..frames.
std::size_t frameAt(const PitchCurve& curve, double sec) {
  const double f = std::ceil(sec / curve.frameIntervalSec - 0.000001);
  if (!(f > 0)) return 0;
  return static_cast<std::size_t>(std::min(f, static_cast<double>(curve.frequencies.size())));
}

std::optional<int> curveTrack(const MusicDocument& d, const McpPitch& p) {
  if (!p.trackID) return std::nullopt;
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    if (d.tracks[i].id == *p.trackID) return static_cast<int>(i);
  }
  return std::nullopt;
}

// Frames [begin, end) of the curve, with the note they were asked by.
struct Span {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::optional<std::size_t> note;  // sorted index in the curve's track
};

std::vector<Span> spansOf(Context& c, const McpPitch& p, bool required) {
  const MusicDocument& d = *c.host.document();
  const bool hasIndices = c.args.has("indices");
  const auto range = c.args.range();
  if (hasIndices && range) refuse(tr("indices と fromTick・toTick は一緒に渡せません"));
  std::vector<Span> spans;
  if (hasIndices) {
    const auto track = curveTrack(d, p);
    if (!track) {
      refuse(tr("曲線を作ったトラックが分かりません。fromTick・toTick で渡してください"),
             Code::notFound);
    }
    const NoteList& notes = d.tracks[*track].notes;
    const auto order = sortedOrder(notes);
    for (std::size_t i : c.args.indices(notes.size(), McpCommandLayer::kEditLimit)) {
      const NoteEvent& n = notes[order[i]];
      spans.push_back(
          {frameAt(p.edited, p.seconds(n.tick)), frameAt(p.edited, p.seconds(n.endTick())), i});
    }
  } else if (range) {
    spans.push_back({frameAt(p.edited, p.seconds(range->first)),
                     frameAt(p.edited, p.seconds(range->second)), std::nullopt});
  } else if (required) {
    refuse(tr("indices か fromTick・toTick で曲線の区間を渡してください"));
  } else {
    spans.push_back({0, p.edited.frequencies.size(), std::nullopt});
  }
  std::erase_if(spans, [](const Span& s) { return s.begin >= s.end; });
  if (spans.empty()) {
    const double end = p.edited.frequencies.size() * p.edited.frameIntervalSec;
    refuse(trf("その区間には曲線がありません（曲線は %@ 秒までです）", {McpJSON(end).dump()}),
           Code::notFound);
  }
  return spans;
}

std::size_t countChanged(const std::vector<float>& a, const std::vector<float>& b) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) n += a[i] != b[i] ? 1 : 0;
  return n;
}

McpJSON commitCurve(Context& c, const McpPitch& p, PitchCurve edited, const char* label) {
  const std::size_t changed = countChanged(p.edited.frequencies, edited.frequencies);
  if (changed) c.host.commitPitch(tr(label), std::move(edited));
  return McpJSON::Object{{"changedFrames", changed},
                         {"undoLabel", changed ? McpJSON(tr(label)) : McpJSON()}};
}

}  // namespace

McpJSON pitchSummary(Context& c) {
  const McpPitch p = loadPitch(c);
  const MusicDocument& d = *c.host.document();
  const auto spans = spansOf(c, p, false);
  const auto& f = p.edited.frequencies;
  const int transpose = p.transposeSemitones;
  std::size_t frames = 0, voiced = 0;
  double lo = 1e9, hi = -1e9, sum = 0;
  for (const Span& s : spans) {
    for (std::size_t i = s.begin; i < s.end; ++i) {
      ++frames;
      if (f[i] <= 0) continue;
      const double v = semitones(f[i], transpose);
      ++voiced;
      lo = std::min(lo, v);
      hi = std::max(hi, v);
      sum += v;
    }
  }
  McpJSON r = McpJSON::object();
  r["frameIntervalSec"] = p.edited.frameIntervalSec;
  r["transposeSemitones"] = transpose;
  r["durationSec"] = f.size() * p.edited.frameIntervalSec;
  r["edited"] = p.edited.frequencies != p.original.frequencies;
  r["frames"] = frames;
  r["voicedFrames"] = voiced;
  if (voiced) {
    r["minPitch"] = hundredths(lo);
    r["maxPitch"] = hundredths(hi);
    r["meanPitch"] = hundredths(sum / static_cast<double>(voiced));
  }
  const auto track = curveTrack(d, p);
  r["track"] = track ? McpJSON(*track) : McpJSON();
  if (!track) return r;
  // Per note: how far the sung line stands from the written pitch, by the median of its
  // voiced frames, so that a slide into the note does not count.
  const NoteList& notes = d.tracks[*track].notes;
  const auto order = sortedOrder(notes);
  McpJSON list = McpJSON::array();
  std::size_t total = 0;
  for (std::size_t i = 0; i < order.size(); ++i) {
    const NoteEvent& n = notes[order[i]];
    const std::size_t b = frameAt(p.edited, p.seconds(n.tick));
    const std::size_t e = frameAt(p.edited, p.seconds(n.endTick()));
    const bool inside = std::any_of(spans.begin(), spans.end(), [&](const Span& s) {
      return s.note ? *s.note == i : b < s.end && e > s.begin;
    });
    if (!inside || ++total > kSummaryNotes) continue;
    std::vector<double> v;
    for (std::size_t k = b; k < e; ++k) {
      if (f[k] > 0) v.push_back(semitones(f[k], transpose));
    }
    McpJSON::Object o{{"index", i}, {"pitch", n.pitch}, {"tick", n.tick}};
    if (v.empty()) {
      o.emplace("sungPitch", McpJSON());
    } else {
      std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
      const double median = v[v.size() / 2];
      o.emplace("sungPitch", hundredths(median));
      o.emplace("centsOff", std::lround((median - n.pitch) * 100.0));
    }
    list.push(McpJSON(std::move(o)));
  }
  r["notes"] = std::move(list);
  if (total > kSummaryNotes) r["notesTruncated"] = total;
  return r;
}

McpJSON pitchVibrato(Context& c) {
  const McpPitch p = loadPitch(c);
  if (!c.args.has("depthCents")) refuse(trf("%@ を渡してください", {"depthCents"}));
  const double depth = *c.args.optNumber("depthCents", 0, 300);
  const double rate = c.args.optNumber("rateHz", 1, 12).value_or(5.5);
  const double delay = c.args.optNumber("delaySec", 0, 5).value_or(0);
  const auto spans = spansOf(c, p, true);
  PitchCurve edited = p.edited;
  const double step = edited.frameIntervalSec;
  for (const Span& s : spans) {
    for (std::size_t i = s.begin; i < s.end; ++i) {
      const double t = static_cast<double>(i - s.begin) * step - delay;
      if (t < 0 || p.edited.frequencies[i] <= 0) continue;
      const double cents = depth * std::sin(2.0 * std::numbers::pi * rate * t);
      edited.frequencies[i] = static_cast<float>(p.edited.frequencies[i] * std::exp2(cents / 1200));
    }
  }
  return commitCurve(c, p, std::move(edited), N_("AI：ビブラート"));
}

McpJSON pitchSmooth(Context& c) {
  const McpPitch p = loadPitch(c);
  const double window = c.args.optNumber("windowSec", 0.01, 1).value_or(0.1);
  const auto spans = spansOf(c, p, true);
  const auto& f = p.edited.frequencies;
  const auto half = static_cast<std::size_t>(window / 2 / p.edited.frameIntervalSec);
  PitchCurve edited = p.edited;
  for (const Span& s : spans) {
    for (std::size_t i = s.begin; i < s.end; ++i) {
      if (f[i] <= 0) continue;
      // A mean in semitones over the voiced run around the frame, never across a gap.
      double sum = 0;
      std::size_t n = 0;
      for (std::size_t k = i; k + half >= i && f[k] > 0; --k) {
        sum += std::log2(f[k]);
        ++n;
        if (k == 0) break;
      }
      for (std::size_t k = i + 1; k < f.size() && k <= i + half && f[k] > 0; ++k) {
        sum += std::log2(f[k]);
        ++n;
      }
      edited.frequencies[i] = static_cast<float>(std::exp2(sum / static_cast<double>(n)));
    }
  }
  return commitCurve(c, p, std::move(edited), N_("AI：曲線をならす"));
}

McpJSON pitchFlatten(Context& c) {
  const McpPitch p = loadPitch(c);
  const double amount = c.args.optNumber("amount", 0, 1).value_or(1);
  const auto spans = spansOf(c, p, true);
  const MusicDocument& d = *c.host.document();
  const auto track = curveTrack(d, p);
  const auto& f = p.edited.frequencies;
  const int transpose = p.transposeSemitones;
  // Each frame goes to the written pitch of the note under it; where no note is, to the
  // median of the span, so a range over rests still comes out level.
  std::vector<double> target(f.size(), std::nan(""));
  if (track) {
    const NoteList& notes = d.tracks[*track].notes;
    const auto order = sortedOrder(notes);
    for (std::size_t i = 0; i < order.size(); ++i) {
      const NoteEvent& n = notes[order[i]];
      const std::size_t e = frameAt(p.edited, p.seconds(n.endTick()));
      for (std::size_t k = frameAt(p.edited, p.seconds(n.tick)); k < e; ++k) target[k] = n.pitch;
    }
  }
  PitchCurve edited = p.edited;
  for (const Span& s : spans) {
    std::vector<double> v;
    for (std::size_t i = s.begin; i < s.end; ++i) {
      if (f[i] > 0) v.push_back(semitones(f[i], transpose));
    }
    if (v.empty()) continue;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    const double median = v[v.size() / 2];
    for (std::size_t i = s.begin; i < s.end; ++i) {
      if (f[i] <= 0) continue;
      const double goal = std::isnan(target[i]) ? median : target[i];
      const double now = semitones(f[i], transpose);
      edited.frequencies[i] = hertz(now + amount * (goal - now), transpose);
    }
  }
  return commitCurve(c, p, std::move(edited), N_("AI：曲線を平らに"));
}

McpJSON pitchReset(Context& c) {
  const McpPitch p = loadPitch(c);
  const auto spans = spansOf(c, p, true);
  PitchCurve edited = p.edited;
  const auto& original = p.original.frequencies;
  for (const Span& s : spans) {
    for (std::size_t i = s.begin; i < s.end && i < original.size(); ++i) {
      edited.frequencies[i] = original[i];
    }
  }
  return commitCurve(c, p, std::move(edited), N_("AI：曲線を戻す"));
}

McpJSON pitchDraw(Context& c) {
  const McpPitch p = loadPitch(c);
  const McpJSON* v = c.args.get("points");
  if (!v || !v->isArray() || v->asArray().empty()) {
    refuse(tr("points に {tick, pitch} を1つ以上渡してください"));
  }
  if (v->size() > kPointLimit) {
    refuse(limitWords(N_("1回で描けるのは %@ 点までです"), kPointLimit), Code::limitExceeded);
  }
  struct Point {
    double sec;
    double pitch;
  };
  std::vector<Point> points;
  std::int64_t lastTick = -1;
  for (std::size_t i = 0; i < v->size(); ++i) {
    const McpJSON& e = v->asArray()[i];
    const std::string at = std::to_string(i);
    if (!e.isObject() || !e.find("tick") || !e.find("pitch") || e.size() != 2) {
      refuse(trf("points の %@ 番目は {tick, pitch} で渡してください", {at}));
    }
    const std::int64_t tick = integerValue(*e.find("tick"), "tick", 0, 268435455);
    if (tick <= lastTick) {
      refuse(trf("points の tick は前の点より大きく渡してください（%@ 番目）", {at}));
    }
    lastTick = tick;
    const McpJSON& pitch = *e.find("pitch");
    if (!pitch.isNumber() || !(pitch.asDouble() >= 0 && pitch.asDouble() <= 127)) {
      refuse(trf("points の %@ 番目の pitch は 0〜127 の数で渡してください", {at}));
    }
    points.push_back({p.seconds(tick), pitch.asDouble()});
  }
  const auto& f = p.edited.frequencies;
  const double step = p.edited.frameIntervalSec;
  PitchCurve edited = p.edited;
  std::size_t touched = 0;
  auto set = [&](std::size_t k, double semis) {
    ++touched;
    if (f[k] > 0) edited.frequencies[k] = hertz(semis, p.transposeSemitones);
  };
  if (points.size() == 1) {
    if (auto k = p.edited.frameIndex(points[0].sec)) set(*k, points[0].pitch);
  }
  // Straight lines in semitones between neighbouring points, each frame by its own time.
  for (std::size_t j = 0; j + 1 < points.size(); ++j) {
    const Point a = points[j], b = points[j + 1];
    const std::size_t last =
        j + 2 == points.size() ? frameAt(p.edited, b.sec + step / 2) : frameAt(p.edited, b.sec);
    for (std::size_t k = frameAt(p.edited, a.sec); k < last; ++k) {
      const double t =
          std::clamp((static_cast<double>(k) * step - a.sec) / (b.sec - a.sec), 0.0, 1.0);
      set(k, a.pitch + (b.pitch - a.pitch) * t);
    }
  }
  if (touched == 0) {
    const double end = static_cast<double>(f.size()) * step;
    refuse(trf("その区間には曲線がありません（曲線は %@ 秒までです）", {McpJSON(end).dump()}),
           Code::notFound);
  }
  return commitCurve(c, p, std::move(edited), N_("AI：曲線を描く"));
}

}  // namespace melvo::mcp
