#include "melvo/interchange/musicxml_exporter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <unordered_map>

#include "melvo/checking/lyric_rules.h"
#include "melvo/platform/log.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

using Exporter = MusicXMLExporter;

// A surviving note without copying it: the original and its possibly shortened duration.
struct Kept {
  const NoteEvent* note;
  std::int64_t tick;
  std::int64_t duration;
  std::int64_t end() const { return Exporter::noteEnd(tick, duration); }
};

bool hasTrimmedLyric(const NoteEvent& n) {
  return !text::trimWhitespaceAndNewlines(n.lyric).empty();
}

template <class Notes>
std::vector<Kept> normalize(const Notes& notes, std::int64_t ppq) {
  std::vector<const NoteEvent*> order;
  order.reserve(notes.size());
  bool strictlyRising = true;
  for (const NoteEvent& n : notes) {
    if (!order.empty() && n.tick <= order.back()->tick) strictlyRising = false;
    order.push_back(&n);
  }
  // A song as edited is already in strictly rising order, and then sorting is the identity.
  if (!strictlyRising) {
    const std::int64_t threshold = ppq < 16 ? 1 : ppq / 16;
    struct Key {
      const NoteEvent* note;
      bool noLyric;
      bool short_;
    };
    std::vector<Key> keys;
    keys.reserve(order.size());
    for (const NoteEvent* n : order)
      keys.push_back({n, !hasTrimmedLyric(*n), n->duration < threshold});
    std::stable_sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
      if (a.note->tick != b.note->tick) return a.note->tick < b.note->tick;
      if (a.noLyric != b.noLyric) return !a.noLyric;
      return !a.short_ && b.short_;
    });
    for (std::size_t i = 0; i < keys.size(); ++i) order[i] = keys[i].note;
  }
  std::vector<Kept> kept;
  kept.reserve(order.size());
  for (const NoteEvent* n : order) {
    if (!kept.empty()) {
      Kept& last = kept.back();
      if (n->tick == last.tick) continue;
      if (n->tick < last.end()) last.duration = std::max<std::int64_t>(n->tick - last.tick, 1);
    }
    kept.push_back({n, n->tick, n->duration});
  }
  return kept;
}

std::vector<NoteEvent> materialize(const std::vector<Kept>& kept) {
  std::vector<NoteEvent> out;
  out.reserve(kept.size());
  for (const Kept& k : kept) {
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

// Shared by barLayout and the limit report, which must agree on where the score ends.
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
    for (const auto& n : t.notes)
      lastEnd = std::max(lastEnd, Exporter::noteEnd(n.tick, n.duration));
  const std::int64_t wanted = lastEnd > 0 ? lastEnd + (length < 4 ? 1 : length / 2) : 0;
  return {length, std::max(wanted, raw)};
}

template <class Notes>
Exporter::BarNotes assignNotes(const std::vector<Exporter::Bar>& bars, const Notes& notes,
                               bool allowSearch) {
  Exporter::BarNotes out;
  out.offsets.reserve(bars.size() + 1);
  out.offsets.push_back(0);
  auto tickOf = [&](std::size_t i) { return notes[i].tick; };
  auto endOf = [&](std::size_t i) { return Exporter::noteEnd(notes[i].tick, notes[i].duration); };
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

// ---- Text building: one string, appended to, no streams ----

void put(std::string& out, std::string_view s) {
  out.append(s.data(), s.size());
}

void putInt(std::string& out, std::int64_t v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, static_cast<std::size_t>(r.ptr - buf));
}

// Appends `text` with what XML 1.0 forbids removed and the four specials written as
// entities. Broken UTF-8 becomes U+FFFD so the score stays readable.
void putEscaped(std::string& out, std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const unsigned char b = static_cast<unsigned char>(s[i]);
    if (b < 0x80) {
      ++i;
      switch (b) {
        case '&':
          put(out, "&amp;");
          break;
        case '<':
          put(out, "&lt;");
          break;
        case '>':
          put(out, "&gt;");
          break;
        case '"':
          put(out, "&quot;");
          break;
        default:
          if (b >= 0x20 || b == 0x09 || b == 0x0A || b == 0x0D) out.push_back(static_cast<char>(b));
      }
      continue;
    }
    const std::size_t start = i;
    const char32_t c = text::nextScalar(s, i);
    if (c == text::kReplacement && i - start != 3) {
      text::appendScalar(out, c);
    } else if (isXmlScalar(c)) {
      out.append(s.data() + start, i - start);
    }
  }
}

std::string withoutXmlIllegal(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    const std::size_t start = i;
    const char32_t c = text::nextScalar(s, i);
    if (isXmlScalar(c)) out.append(s.data() + start, i - start);
  }
  return out;
}

void putTempo(std::string& out, std::string_view t) {
  put(out,
      "      <direction placement=\"above\">\n"
      "        <direction-type><metronome parentheses=\"no\"><beat-unit>quarter</beat-unit>"
      "<per-minute>");
  put(out, t);
  put(out,
      "</per-minute></metronome></direction-type>\n"
      "        <sound tempo=\"");
  put(out, t);
  put(out,
      "\"/>\n"
      "      </direction>\n");
}

void putRest(std::string& out, std::int64_t ticks, std::int64_t ppq) {
  const auto v = Exporter::noteValue(ticks, ppq);
  put(out, "      <note><rest/><duration>");
  putInt(out, ticks);
  put(out, "</duration><type>");
  put(out, v.type);
  put(out, "</type>");
  for (int i = 0; i < v.dots; ++i) put(out, "<dot/>");
  put(out, "</note>\n");
}

struct Piece {
  std::int64_t start, end;
  bool head;      // carries the lyric; no tie stop
  bool tieStart;  // ends before the note does
};

void putNote(std::string& out, const Kept& k, const Piece& p, std::int64_t ppq) {
  const NoteEvent& n = *k.note;
  const auto spelling = Exporter::pitchSpelling(n.pitch);
  const auto value = Exporter::noteValue(p.end - p.start, ppq);
  put(out, "      <note>\n        <pitch><step>");
  out.push_back(spelling.step);
  put(out, "</step>");
  if (spelling.alter != 0) {
    put(out, "<alter>");
    putInt(out, spelling.alter);
    put(out, "</alter>");
  }
  put(out, "<octave>");
  putInt(out, spelling.octave);
  put(out, "</octave></pitch>\n        <duration>");
  putInt(out, p.end - p.start);
  put(out, "</duration>\n");
  if (!p.head) put(out, "        <tie type=\"stop\"/>\n");
  if (p.tieStart) put(out, "        <tie type=\"start\"/>\n");
  put(out, "        <type>");
  put(out, value.type);
  put(out, "</type>\n");
  for (int i = 0; i < value.dots; ++i) put(out, "        <dot/>\n");
  const bool breath = n.hasBreathAfter && !p.tieStart;
  if (!p.head || p.tieStart || breath) {
    put(out, "        <notations>\n");
    if (!p.head) put(out, "          <tied type=\"stop\"/>\n");
    if (p.tieStart) put(out, "          <tied type=\"start\"/>\n");
    if (breath) put(out, "          <articulations><breath-mark/></articulations>\n");
    put(out, "        </notations>\n");
  }
  if (p.head) {
    std::string written = lyricForExport(n.lyric);
    if (hasXmlIllegalScalars(written)) written = withoutXmlIllegal(written);
    const std::string_view lyric = text::trimWhitespaceAndNewlines(written);
    if (!lyric.empty()) {
      put(out, "        <lyric number=\"1\">\n          <syllabic>single</syllabic>\n");
      if (text::trimWhitespaceAndNewlines(n.lyric) == "ー") {
        put(out, "          <text>ー</text>\n          <extend type=\"start\"/>\n");
      } else {
        put(out, "          <text>");
        putEscaped(out, lyric);
        put(out, "</text>\n");
      }
      put(out, "        </lyric>\n");
    }
  }
  put(out, "      </note>\n");
}

struct TempoMark {
  std::int64_t tick;
  std::string text;
};

// One measure's body: notes cut at the bar lines and at tempo changes, the gaps filled with
// rests that are also cut at tempo changes, each tempo mark written where its tick is reached.
class BarWriter {
 public:
  BarWriter(std::string& out, std::int64_t ppq, const TempoMark* tempoBegin,
            const TempoMark* tempoEnd)
      : out_(out), ppq_(ppq), tBegin_(tempoBegin), tNext_(tempoBegin), tEnd_(tempoEnd) {}

  void write(const Exporter::Bar& bar, const std::vector<Kept>& notes, const std::size_t* idx,
             const std::size_t* idxEnd) {
    const std::int64_t barStart = bar.startTick, barEnd = bar.startTick + bar.tpBar;
    cursor_ = barStart;
    for (; idx != idxEnd; ++idx) {
      const Kept& k = notes[*idx];
      const std::int64_t noteEnd = k.end();
      const std::int64_t head = std::max(barStart, k.tick);
      const std::int64_t segStart = std::max(head, cursor_);
      const std::int64_t segEnd = std::min(barEnd, noteEnd);
      if (segStart >= segEnd) continue;
      if (head > cursor_) fillRests(head);
      cursor_ = segEnd;
      // Tempo ticks strictly inside the segment cut it into pieces; the bar's list is sorted,
      // and equal ticks give one cut.
      std::int64_t pieceStart = segStart;
      for (const TempoMark* t = tBegin_; t != tEnd_; ++t) {
        if (t->tick <= pieceStart || t->tick >= segEnd) continue;
        writePiece(k, pieceStart, t->tick, segStart, barStart, noteEnd);
        pieceStart = t->tick;
      }
      writePiece(k, pieceStart, segEnd, segStart, barStart, noteEnd);
    }
    if (cursor_ < barEnd) fillRests(barEnd);
    flush(barEnd);
  }

 private:
  // The head piece is the note's first: it holds the lyric and no tie stop.
  void writePiece(const Kept& k, std::int64_t start, std::int64_t end, std::int64_t segStart,
                  std::int64_t barStart, std::int64_t noteEnd) {
    flush(start);
    const Piece p{start, end, k.tick >= barStart && start == segStart, end < noteEnd};
    putNote(out_, k, p, ppq_);
  }

  void flush(std::int64_t tick) {
    while (tNext_ != tEnd_ && tNext_->tick <= tick) {
      putTempo(out_, tNext_->text);
      ++tNext_;
    }
  }

  void fillRests(std::int64_t target) {
    while (cursor_ < target) {
      flush(cursor_);
      std::int64_t stop = tNext_ != tEnd_ ? std::min(target, tNext_->tick) : target;
      if (stop <= cursor_) stop = target;
      putRest(out_, stop - cursor_, ppq_);
      cursor_ = stop;
    }
  }

  std::string& out_;
  std::int64_t ppq_;
  const TempoMark* tBegin_;
  const TempoMark* tNext_;
  const TempoMark* tEnd_;
  std::int64_t cursor_ = 0;
};

int fifthsAt(const std::vector<KeySignatureEvent>& sortedKeys, std::int64_t tick) {
  auto it = std::upper_bound(sortedKeys.begin(), sortedKeys.end(), tick,
                             [](std::int64_t t, const KeySignatureEvent& k) { return t < k.tick; });
  return it == sortedKeys.begin() ? 0 : std::prev(it)->fifths;
}

}  // namespace

std::int64_t MusicXMLExporter::noteEnd(std::int64_t tick, std::int64_t duration) {
  std::int64_t end;
  if (__builtin_add_overflow(tick, duration, &end)) return duration > 0 ? endTickCeiling : 0;
  return end;
}

std::vector<MusicXMLExporter::Bar> MusicXMLExporter::barLayout(const MusicDocument& d,
                                                               bool logging) {
  const LayoutTarget lt = layoutTarget(d);
  std::vector<TimeSignatureEvent> meters = stableSortedByTick(d.timeSignatures);
  if (meters.empty()) meters.push_back(TimeSignatureEvent{0, 4, 4});
  std::vector<Bar> bars;
  std::int64_t tick = 0;
  std::size_t m = 0;  // the meter in force: the last at or before `tick`, else the first
  while (bars.empty() || tick <= lt.target) {
    while (m + 1 < meters.size() && meters[m + 1].tick <= tick) ++m;
    const TimeSignatureEvent& ts = meters[m];
    const std::int64_t tpBar = std::max<std::int64_t>(d.ppq * ts.numerator * 4 / ts.denominator, 1);
    bars.push_back({tick, tpBar, ts});
    tick += tpBar;
    if (bars.size() == barCeiling) {
      if (logging) {
        std::string line = "⚠ 小節数が上限 ";
        putInt(line, static_cast<std::int64_t>(barCeiling));
        line += " を超えたため切り詰めました（残り tick: ";
        putInt(line, lt.target - tick);
        line += "）";
        log::write("MusicXMLExporter", line);
      }
      break;
    }
  }
  return bars;
}

std::vector<NoteEvent> MusicXMLExporter::normalizedNotes(const NoteList& notes, std::int64_t ppq) {
  return materialize(normalize(notes, ppq));
}

std::vector<NoteEvent> MusicXMLExporter::normalizedNotes(const std::vector<NoteEvent>& notes,
                                                         std::int64_t ppq) {
  return materialize(normalize(notes, ppq));
}

std::vector<MusicXMLExporter::TrimmedOverlap> MusicXMLExporter::trimmedOverlaps(
    const NoteList& notes, std::int64_t ppq) {
  std::unordered_map<Uuid, std::int64_t> original;
  original.reserve(notes.size());
  for (const auto& n : notes) original[n.id] = n.duration;
  std::vector<TrimmedOverlap> out;
  for (const Kept& k : normalize(notes, ppq)) {
    const std::int64_t before = original[k.note->id];
    if (k.duration < before) {
      TrimmedOverlap t{*k.note, k.duration};
      t.note.duration = before;
      out.push_back(std::move(t));
    }
  }
  return out;
}

std::optional<MusicXMLExporter::ExportLimitReport> MusicXMLExporter::exportLimitReport(
    const MusicDocument& document, int trackIndex) {
  if (trackIndex < 0 || trackIndex >= static_cast<int>(document.tracks.size())) return std::nullopt;
  if (document.tracks[trackIndex].notes.empty()) return std::nullopt;
  const MusicDocument copy = document.singleTrackCopy(trackIndex);
  const LayoutTarget lt = layoutTarget(copy);
  const std::vector<Bar> bars = barLayout(copy, false);
  if (bars.size() < barCeiling) return std::nullopt;
  const std::int64_t limit = bars.back().startTick + bars.back().tpBar;
  if (limit > lt.target) return std::nullopt;
  ExportLimitReport report;
  report.limitTick = limit;
  for (const Kept& k : normalize(copy.tracks.front().notes, copy.ppq)) {
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

std::string MusicXMLExporter::xmlEscaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  putEscaped(out, text);
  return out;
}

std::string MusicXMLExporter::tempoText(double bpm) {
  if (!(std::isfinite(bpm) && bpm > 0)) return "120";
  const double v = std::clamp(bpm, 1.0, 1000.0);
  // Whole hundredths, halves away from zero; written from the integer so that no binary
  // fraction can leak into the text.
  const auto hundredths = static_cast<std::int64_t>(std::round(v * 100));
  std::string out;
  putInt(out, hundredths / 100);
  const std::int64_t frac = hundredths % 100;
  if (frac != 0) {
    out.push_back('.');
    out.push_back(static_cast<char>('0' + frac / 10));
    if (frac % 10 != 0) out.push_back(static_cast<char>('0' + frac % 10));
  }
  return out;
}

MusicXMLExporter::NoteValue MusicXMLExporter::noteValue(std::int64_t ticks, std::int64_t ppq) {
  static constexpr std::string_view kTypes[] = {"64th",    "32nd", "16th",  "eighth",
                                                "quarter", "half", "whole", "breve"};
  const std::int64_t bases[] = {std::max<std::int64_t>(ppq / 16, 1),
                                std::max<std::int64_t>(ppq / 8, 1),
                                std::max<std::int64_t>(ppq / 4, 1),
                                std::max<std::int64_t>(ppq / 2, 1),
                                ppq,
                                ppq * 2,
                                ppq * 4,
                                ppq * 8};
  for (std::size_t r = 0; r < 8; ++r) {
    if (ticks == bases[r]) return {kTypes[r], 0};
    if (ticks == bases[r] * 3 / 2) return {kTypes[r], 1};
    if (ticks == bases[r] * 7 / 4) return {kTypes[r], 2};
  }
  // Triplets keep their plain name: the duration is what the engine counts.
  for (std::size_t r = 0; r < 8; ++r) {
    if (bases[r] < 2) continue;
    const std::int64_t diff = ticks - bases[r] * 2 / 3;
    if (diff > -2 && diff < 2) return {kTypes[r], 0};
  }
  std::size_t best = 0;
  std::int64_t bestDiff = -1;
  for (std::size_t r = 0; r < 8; ++r) {
    const std::int64_t diff = ticks > bases[r] ? ticks - bases[r] : bases[r] - ticks;
    if (bestDiff < 0 || diff < bestDiff) {
      best = r;
      bestDiff = diff;
    }
  }
  return {kTypes[best], 0};
}

MusicXMLExporter::PitchSpelling MusicXMLExporter::pitchSpelling(int pitch) {
  static constexpr char kSteps[] = {'C', 'C', 'D', 'D', 'E', 'F', 'F', 'G', 'G', 'A', 'A', 'B'};
  static constexpr int kAlters[] = {0, 1, 0, 1, 0, 0, 1, 0, 1, 0, 1, 0};
  const int p = std::clamp(pitch, 0, 127);
  return {kSteps[p % 12], kAlters[p % 12], p / 12 - 1};
}

MusicXMLExporter::BarNotes MusicXMLExporter::notesByBar(const std::vector<Bar>& bars,
                                                        const std::vector<NoteEvent>& notes,
                                                        bool allowSearch) {
  return assignNotes(bars, notes, allowSearch);
}

std::string MusicXMLExporter::render(const MusicDocument& d) {
  const std::vector<Bar> bars = barLayout(d, true);
  const std::int64_t ppq = d.ppq;

  std::vector<TempoMark> tempos;
  tempos.reserve(d.tempoMap.size());
  for (const auto& t : stableSortedByTick(d.tempoMap)) tempos.push_back({t.tick, tempoText(t.bpm)});
  const std::vector<KeySignatureEvent> keys = stableSortedByTick(d.keySignatures);

  // Per bar: its tempo marks (startTick <= tick < end) and what its attributes say.
  enum class Attributes { none, full, time, empty };
  std::vector<std::size_t> tempoFrom(bars.size()), tempoTo(bars.size());
  std::vector<Attributes> attributes(bars.size(), Attributes::none);
  int previousFifths = 0;
  for (std::size_t b = 0; b < bars.size(); ++b) {
    const Bar& bar = bars[b];
    auto byTick = [](const TempoMark& m, std::int64_t t) { return m.tick < t; };
    tempoFrom[b] = static_cast<std::size_t>(
        std::lower_bound(tempos.begin(), tempos.end(), bar.startTick, byTick) - tempos.begin());
    tempoTo[b] = static_cast<std::size_t>(
        std::lower_bound(tempos.begin(), tempos.end(), bar.startTick + bar.tpBar, byTick) -
        tempos.begin());
    const int fifths = fifthsAt(keys, bar.startTick);
    if (b == 0) {
      attributes[b] = Attributes::full;
    } else {
      const Bar& prev = bars[b - 1];
      if (bar.ts.numerator != prev.ts.numerator || bar.ts.denominator != prev.ts.denominator) {
        attributes[b] = Attributes::time;
      } else if (fifths != previousFifths) {
        // The key is never written after bar 1, but the change still marks the bar.
        attributes[b] = Attributes::empty;
      }
    }
    previousFifths = fifths;
  }

  std::size_t noteCount = 0;
  for (const auto& t : d.tracks) noteCount += t.notes.size();
  std::string out;
  out.reserve(512 + d.title.size() + d.tracks.size() * (96 + bars.size() * 160) + noteCount * 480 +
              d.tracks.size() * tempos.size() * 260);

  put(out,
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE score-partwise PUBLIC\n"
      "    \"-//Recordare//DTD MusicXML 3.1 Partwise//EN\"\n"
      "    \"http://www.musicxml.org/dtds/partwise.dtd\">\n"
      "<score-partwise version=\"3.1\">\n"
      "  <work><work-title>");
  putEscaped(out, d.title);
  put(out, "</work-title></work>\n  <part-list>");
  if (d.tracks.empty()) out.push_back('\n');
  for (std::size_t t = 0; t < d.tracks.size(); ++t) {
    put(out, "\n    <score-part id=\"P");
    putInt(out, static_cast<std::int64_t>(t + 1));
    put(out, "\"><part-name>");
    putEscaped(out, d.tracks[t].name);
    put(out, "</part-name></score-part>");
  }
  put(out, "\n  </part-list>\n");

  for (std::size_t t = 0; t < d.tracks.size(); ++t) {
    const std::vector<Kept> notes = normalize(d.tracks[t].notes, ppq);
    const BarNotes byBar = assignNotes(bars, notes, true);
    put(out, "  <part id=\"P");
    putInt(out, static_cast<std::int64_t>(t + 1));
    put(out, "\">\n");
    for (std::size_t b = 0; b < bars.size(); ++b) {
      const Bar& bar = bars[b];
      put(out, "    <measure number=\"");
      putInt(out, static_cast<std::int64_t>(b + 1));
      put(out, "\">\n");
      switch (attributes[b]) {
        case Attributes::none:
          break;
        case Attributes::full:
          put(out, "      <attributes>\n        <divisions>");
          putInt(out, ppq);
          put(out, "</divisions>\n        <key><fifths>0</fifths></key>\n        <time><beats>");
          putInt(out, bar.ts.numerator);
          put(out, "</beats><beat-type>");
          putInt(out, bar.ts.denominator);
          put(out,
              "</beat-type></time>\n        <clef><sign>G</sign><line>2</line></clef>\n"
              "      </attributes>\n");
          break;
        case Attributes::time:
          put(out, "      <attributes>\n        <time><beats>");
          putInt(out, bar.ts.numerator);
          put(out, "</beats><beat-type>");
          putInt(out, bar.ts.denominator);
          put(out, "</beat-type></time>\n      </attributes>\n");
          break;
        case Attributes::empty:
          put(out, "      <attributes>\n      </attributes>\n");
          break;
      }
      BarWriter writer(out, ppq, tempos.data() + tempoFrom[b], tempos.data() + tempoTo[b]);
      writer.write(bar, notes, byBar.indices.data() + byBar.offsets[b],
                   byBar.indices.data() + byBar.offsets[b + 1]);
      put(out, "    </measure>\n");
    }
    put(out, "  </part>\n");
  }
  put(out, "</score-partwise>\n");
  return out;
}

}  // namespace melvo
