#include "melvo/interchange/midi_file_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace melvo {
namespace {

constexpr std::int64_t kMaxDelta = 0xFFFFFFF;

void putBE(std::string& out, std::uint32_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void putVLQ(std::string& out, std::uint32_t v) {
  char buf[5];
  int n = 0;
  buf[n++] = static_cast<char>(v & 0x7F);
  while (v >>= 7) buf[n++] = static_cast<char>((v & 0x7F) | 0x80);
  while (n > 0) out.push_back(buf[--n]);
}

// Writes events in tick order with their delta times; deltas never go negative and are
// capped at the longest four-byte quantity.
struct Chunk {
  explicit Chunk(std::string& out) : out_(out) {
    out_.append("MTrk", 4);
    lengthAt_ = out_.size();
    out_.append(4, '\0');
  }
  void delta(std::int64_t tick) {
    std::int64_t d = tick - last_;
    d = std::clamp<std::int64_t>(d, 0, kMaxDelta);
    putVLQ(out_, static_cast<std::uint32_t>(d));
    if (tick > last_) last_ = tick;
  }
  void finish() {
    out_.append("\x00\xFF\x2F\x00", 4);
    const auto length = static_cast<std::uint32_t>(out_.size() - lengthAt_ - 4);
    for (int i = 0; i < 4; ++i)
      out_[lengthAt_ + i] = static_cast<char>((length >> (24 - 8 * i)) & 0xFF);
  }

 private:
  std::string& out_;
  std::size_t lengthAt_;
  std::int64_t last_ = 0;
};

void putMeta(std::string& out, unsigned char type, std::string_view bytes) {
  out.push_back(static_cast<char>(0xFF));
  out.push_back(static_cast<char>(type));
  putVLQ(out, static_cast<std::uint32_t>(bytes.size()));
  out.append(bytes.data(), bytes.size());
}

std::uint32_t microsPerQuarter(double bpm) {
  if (!(std::isfinite(bpm) && bpm > 0)) return 500000;
  const double us = 60000000.0 / bpm;
  if (us >= 16777215.0) return 16777215;
  return std::max<std::uint32_t>(static_cast<std::uint32_t>(us), 1);
}

int denominatorPower(int denominator) {
  switch (denominator) {
    case 1:
      return 0;
    case 2:
      return 1;
    case 4:
      return 2;
    case 8:
      return 3;
    case 16:
      return 4;
    case 32:
      return 5;
    default:
      return 2;  // anything else is read as a quarter
  }
}

void writeConductor(std::string& out, const MusicDocument& d) {
  std::vector<TempoEvent> tempos = d.tempoMap;
  std::stable_sort(tempos.begin(), tempos.end(),
                   [](const auto& a, const auto& b) { return a.tick < b.tick; });
  std::vector<TimeSignatureEvent> meters = d.timeSignatures;
  std::stable_sort(meters.begin(), meters.end(),
                   [](const auto& a, const auto& b) { return a.tick < b.tick; });
  Chunk chunk(out);
  // A merge of the two sorted lists; at one tick the tempo comes first.
  std::size_t t = 0, m = 0;
  while (t < tempos.size() || m < meters.size()) {
    if (t < tempos.size() && (m == meters.size() || tempos[t].tick <= meters[m].tick)) {
      chunk.delta(tempos[t].tick);
      out.append("\xFF\x51\x03", 3);
      putBE(out, microsPerQuarter(tempos[t].bpm), 3);
      ++t;
    } else {
      chunk.delta(meters[m].tick);
      out.append("\xFF\x58\x04", 3);
      out.push_back(static_cast<char>(static_cast<std::uint8_t>(meters[m].numerator)));
      out.push_back(static_cast<char>(denominatorPower(meters[m].denominator)));
      out.append("\x18\x08", 2);
      ++m;
    }
  }
  chunk.finish();
}

// Note tracks: at one tick all lyrics come first, then all note-ons, then all note-offs, each
// kind in list order. Lyrics and note-ons share the note's tick, so one list sorted by start
// serves both, and one sorted by end serves the offs; a merge of the two gives the order of a
// stable sort by (tick, kind) without sorting three times as many events.
struct Timed {
  std::int64_t tick;
  std::uint32_t note;
};

void sortStable(std::vector<Timed>& v) {
  if (std::is_sorted(v.begin(), v.end(),
                     [](const Timed& a, const Timed& b) { return a.tick < b.tick; }))
    return;
  std::stable_sort(v.begin(), v.end(),
                   [](const Timed& a, const Timed& b) { return a.tick < b.tick; });
}

void writeTrack(std::string& out, const MusicTrack& track, int channel,
                std::vector<const NoteEvent*>& notes, std::vector<Timed>& starts,
                std::vector<Timed>& ends) {
  notes.clear();
  starts.clear();
  ends.clear();
  for (const NoteEvent& n : track.notes) {
    const auto i = static_cast<std::uint32_t>(notes.size());
    notes.push_back(&n);
    starts.push_back({n.tick, i});
    ends.push_back({addTicks(n.tick, n.duration), i});
  }
  sortStable(starts);
  sortStable(ends);

  Chunk chunk(out);
  if (!track.name.empty()) {
    chunk.delta(0);
    putMeta(out, 0x03, track.name);
  }
  const char on = static_cast<char>(0x90 | channel), off = static_cast<char>(0x80 | channel);
  auto pitchOf = [](const NoteEvent& n) { return static_cast<char>(std::clamp(n.pitch, 0, 127)); };
  std::size_t s = 0, e = 0;
  while (s < starts.size() || e < ends.size()) {
    // Offs strictly before the next start go first; at a tick the start group comes first.
    if (s < starts.size() && (e == ends.size() || starts[s].tick <= ends[e].tick)) {
      const std::int64_t tick = starts[s].tick;
      std::size_t groupEnd = s;
      while (groupEnd < starts.size() && starts[groupEnd].tick == tick) ++groupEnd;
      for (std::size_t i = s; i < groupEnd; ++i) {
        const NoteEvent& n = *notes[starts[i].note];
        if (n.lyric.empty()) continue;
        chunk.delta(tick);
        putMeta(out, 0x05, n.lyric);
      }
      for (std::size_t i = s; i < groupEnd; ++i) {
        const NoteEvent& n = *notes[starts[i].note];
        chunk.delta(tick);
        out.push_back(on);
        out.push_back(pitchOf(n));
        out.push_back(static_cast<char>(std::clamp(n.velocity, 0, 127)));
      }
      s = groupEnd;
    } else {
      chunk.delta(ends[e].tick);
      out.push_back(off);
      out.push_back(pitchOf(*notes[ends[e].note]));
      out.push_back(64);
      ++e;
    }
  }
  chunk.finish();
}

}  // namespace

std::string MIDIFileWriter::data(const MusicDocument& d) {
  std::size_t events = 0, text = 0;
  for (const auto& t : d.tracks) {
    events += t.notes.size();
    text += t.name.size();
  }
  std::string out;
  out.reserve(14 + 8 * (d.tracks.size() + 1) + 14 * (d.tempoMap.size() + d.timeSignatures.size()) +
              events * 24 + text + 8 * d.tracks.size());
  out.append("MThd", 4);
  putBE(out, 6, 4);
  putBE(out, 1, 2);
  putBE(out, static_cast<std::uint32_t>(d.tracks.size() + 1), 2);
  putBE(out, static_cast<std::uint32_t>(std::clamp<std::int64_t>(d.ppq, 1, 32767)), 2);
  writeConductor(out, d);
  std::vector<const NoteEvent*> notes;
  std::vector<Timed> starts, ends;
  for (std::size_t i = 0; i < d.tracks.size(); ++i)
    writeTrack(out, d.tracks[i], static_cast<int>(i % 16), notes, starts, ends);
  return out;
}

}  // namespace melvo
