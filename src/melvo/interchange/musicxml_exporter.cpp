#include "melvo/interchange/musicxml_exporter.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "melvo/checking/lyric_rules.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/log.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

using Exporter = MusicXMLExporter;

template <class T>
std::vector<T> stableSortedByTick(std::vector<T> v) {
  std::stable_sort(v.begin(), v.end(), [](const T& a, const T& b) { return a.tick < b.tick; });
  return v;
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

void putNote(std::string& out, const SungNote& k, const Piece& p, std::int64_t ppq) {
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

  void write(const ScoreBar& bar, const std::vector<SungNote>& notes, const std::size_t* idx,
             const std::size_t* idxEnd) {
    const std::int64_t barStart = bar.startTick, barEnd = bar.startTick + bar.tpBar;
    cursor_ = barStart;
    for (; idx != idxEnd; ++idx) {
      const SungNote& k = notes[*idx];
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
  void writePiece(const SungNote& k, std::int64_t start, std::int64_t end, std::int64_t segStart,
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

std::string MusicXMLExporter::render(const MusicDocument& d) {
  const std::vector<ScoreBar> bars = scoreBarLayout(d, true);
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
    const ScoreBar& bar = bars[b];
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
      const ScoreBar& prev = bars[b - 1];
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
    const std::vector<SungNote> notes = sungLine(d.tracks[t].notes, ppq);
    const BarNotes byBar = notesByBar(bars, notes);
    put(out, "  <part id=\"P");
    putInt(out, static_cast<std::int64_t>(t + 1));
    put(out, "\">\n");
    for (std::size_t b = 0; b < bars.size(); ++b) {
      const ScoreBar& bar = bars[b];
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
