#include "melvo/interchange/midi_file_reader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <deque>
#include <random>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "melvo/interchange/midi_lyric_placement.h"
#include "melvo/interchange/midi_raw_track.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/charset.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"
#include "melvo/platform/uuid_sequence.h"

namespace melvo {

namespace {

using midi::PendingNotice;
using midi::RawTrack;
using midi::TextEvent;

const char* failureKey(MIDIFileParser::Failure f) {
  switch (f) {
    case MIDIFileParser::Failure::invalidHeader:
      return N_(
          "MIDI ファイルとして読めません（ファイルの頭が MIDI "
          "の形になっていません）。ファイルが壊れているか、別の形式かもしれません。元のソフトで "
          "MIDI（.mid）として書き出し直してから開いてください。");
    case MIDIFileParser::Failure::unsupportedFormat:
      return N_(
          "形式2の "
          "MIDI（曲の中にパターンを並べる形）には対応していません。元のソフトで形式0か形式1の MIDI "
          "として書き出し直してから開いてください。");
    case MIDIFileParser::Failure::unexpectedEOF:
      return N_(
          "MIDI "
          "ファイルが途中で終わっていて、音を1つも読めませんでした。ファイルをダウンロードし直すか"
          "、元のソフトで書き出し直してから開いてください。");
    case MIDIFileParser::Failure::noNotes:
      break;
  }
  return N_(
      "この MIDI "
      "ファイルには音符がありません。ファイルが壊れているか、別の形式かもしれません。元のソフトで音"
      "符の入った MIDI を書き出し直してから開いてください。");
}

std::uint32_t be32(std::string_view b, std::size_t at) {
  return (std::uint32_t(std::uint8_t(b[at])) << 24) |
         (std::uint32_t(std::uint8_t(b[at + 1])) << 16) |
         (std::uint32_t(std::uint8_t(b[at + 2])) << 8) | std::uint32_t(std::uint8_t(b[at + 3]));
}
std::uint32_t le32(std::string_view b, std::size_t at) {
  return (std::uint32_t(std::uint8_t(b[at + 3])) << 24) |
         (std::uint32_t(std::uint8_t(b[at + 2])) << 16) |
         (std::uint32_t(std::uint8_t(b[at + 1])) << 8) | std::uint32_t(std::uint8_t(b[at]));
}
int be16(std::string_view b, std::size_t at) {
  return (int(std::uint8_t(b[at])) << 8) | int(std::uint8_t(b[at + 1]));
}

// The Standard MIDI File inside a RIFF wrapper, or the bytes themselves.
std::string_view unwrapRiff(std::string_view bytes) {
  if (bytes.size() < 12 || bytes.substr(0, 4) != "RIFF" || bytes.substr(8, 4) != "RMID")
    return bytes;
  std::size_t pos = 12;
  while (pos + 8 <= bytes.size()) {
    const std::uint64_t len = le32(bytes, pos + 4);
    const std::size_t body = pos + 8;
    if (bytes.substr(pos, 4) == "data")
      return bytes.substr(body, std::min<std::uint64_t>(len, bytes.size() - body));
    pos = body + len + (len & 1);
  }
  throw MIDIFileParser::ParseError(MIDIFileParser::Failure::invalidHeader);
}

// Time of the file: ticks per quarter, or SMPTE ticks turned into a grid at 120 per minute.
struct TimeBase {
  bool smpte = false;
  double ticksPerSecond = 0;
  std::int64_t ppq = 480;

  std::int64_t scale(std::int64_t t) const {
    if (!smpte) return std::min(t, maxTick);
    const double beats = double(t) / ticksPerSecond * 2.0;
    return std::min<std::int64_t>(std::llround(beats * double(ppq)), maxTick);
  }
};

using IdSource = UuidSequence;

bool isAscii(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return std::uint8_t(c) < 0x80; });
}

std::string trimmed(std::string s) {
  const auto notSpace = [](unsigned char c) {
    return c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != 0;
  };
  s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
  s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
  return s;
}

// Lyrics are a few bytes each. Those of up to 16 bytes are found by their bytes as two words
// in a small open table: hashing and comparing them as strings took more time than reading
// their notes.
class ShortTexts {
 public:
  // The entry number slot of the bytes, 0 when they are new.
  std::uint32_t& slot(std::uint64_t a, std::uint64_t b, std::size_t size) {
    if (2 * (used_ + 1) > slots_.size()) grow();
    Slot& s = find(slots_, a, b, size);
    if (s.size == 0) {
      s = {a, b, size, 0};
      ++used_;
    }
    return s.entry;
  }

 private:
  struct Slot {
    std::uint64_t a = 0, b = 0;
    std::size_t size = 0;  // none stored is empty
    std::uint32_t entry = 0;
  };
  static Slot& find(std::vector<Slot>& slots, std::uint64_t a, std::uint64_t b, std::size_t size) {
    const std::size_t mask = slots.size() - 1;
    std::size_t i =
        std::size_t(((a * 0x9E3779B97F4A7C15ull) ^ ((b + size) * 0xC2B2AE3D27D4EB4Full)) >> 40) &
        mask;
    while (slots[i].size != 0 && (slots[i].a != a || slots[i].b != b || slots[i].size != size))
      i = (i + 1) & mask;
    return slots[i];
  }
  void grow() {
    std::vector<Slot> bigger(slots_.size() * 2);
    for (const Slot& s : slots_)
      if (s.size != 0) find(bigger, s.a, s.b, s.size) = s;
    slots_ = std::move(bigger);
  }
  std::vector<Slot> slots_ = std::vector<Slot>(256);
  std::size_t used_ = 0;
};

// Each distinct byte string among the file's texts that is not plain ASCII, numbered as the
// tracks are read (lyrics repeat a few syllables many times over), then tried once in both
// encodings. Decoded events point into it, so it lives until the song is built.
class TextTable {
 public:
  struct Entry {
    std::string_view bytes;
    int events = 0;
    std::optional<std::string> utf8, sjis;
    std::optional<std::string_view> chosen;  // none when neither encoding reads the bytes
    bool garbled = false;                    // both read them and the file did not settle
  };

  // Counts an event with these bytes; 0 for plain ASCII, else its entry's number.
  std::uint32_t add(std::string_view b) {
    std::uint32_t* number = nullptr;
    if (b.size() <= 16) {
      // Gathered in registers: bytes stored and read back as words stall the processor.
      std::uint64_t lo = 0, hi = 0;
      const std::size_t n = b.size();
      for (std::size_t i = 0; i < n && i < 8; ++i)
        lo |= std::uint64_t(std::uint8_t(b[i])) << (8 * i);
      for (std::size_t i = 8; i < n; ++i) hi |= std::uint64_t(std::uint8_t(b[i])) << (8 * (i - 8));
      if (((lo | hi) & 0x8080808080808080ull) == 0) return 0;
      number = &short_.slot(lo, hi, n);
    } else {
      if (isAscii(b)) return 0;
      number = &long_[b];
    }
    if (*number == 0) {
      entries_.emplace_back().bytes = b;
      events_.push_back(0);
      *number = std::uint32_t(entries_.size());
    }
    const std::uint32_t found = *number;
    ++events_[found - 1];
    return found;
  }

  // One choice between UTF-8 and Shift-JIS for the whole file: events that only one of them
  // reads vote; the winner decodes the events that both read.
  void settle() {
    int utf8Only = 0, sjisOnly = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      Entry& e = entries_[i];
      e.events = events_[i];
      e.utf8 = charset::decode(e.bytes, "UTF-8");
      e.sjis = charset::decodeShiftJIS(e.bytes);
      if (e.utf8 && !e.sjis) utf8Only += e.events;
      if (e.sjis && !e.utf8) sjisOnly += e.events;
    }
    const bool preferSJIS = sjisOnly > utf8Only;
    const bool settled = utf8Only != sjisOnly;
    for (Entry& e : entries_) {
      if (e.utf8 && e.sjis) {
        e.garbled = !settled;
        e.chosen = preferSJIS ? *e.sjis : *e.utf8;
      } else if (e.utf8) {
        e.chosen = *e.utf8;
      } else if (e.sjis) {
        e.chosen = *e.sjis;
      }
    }
  }

  const Entry& entry(std::uint32_t number) const { return entries_[number - 1]; }

 private:
  ShortTexts short_;
  std::unordered_map<std::string_view, std::uint32_t> long_;
  std::deque<Entry> entries_;  // a deque, so that views of its strings stay put
  std::vector<int> events_;    // counted apart: a deque's element costs a division to find
};

// Reads one MTrk chunk's events.
class TrackReader {
 public:
  TrackReader(std::string_view data, const TimeBase& time, MusicDocument& doc, int& damage,
              std::size_t& noteCount, int& seq, std::vector<PendingNotice>& pending, IdSource& ids,
              TextTable& texts)
      : ids_(ids),
        d_(data),
        time_(time),
        doc_(doc),
        damage_(damage),
        noteCount_(noteCount),
        seq_(seq),
        pending_(pending),
        texts_(texts) {}

  RawTrack read(int index, std::size_t chunkOffset) {
    RawTrack track;
    track.index = index;
    // Room for as many notes as the chunk can hold (6 bytes each at the densest), and for as
    // many lyrics (4 bytes each), so that no list moves while it grows; pages never written
    // cost nothing.
    const std::size_t room = std::min(d_.size() / 6 + 1, MIDIFileParser::kNoteLimit + 1);
    track.notes.reserve(room);
    track.channels.reserve(room);
    track.lyrics.reserve(std::min(d_.size() / 4 + 1, MIDIFileParser::kNoteLimit + 1));
    std::size_t pos = 0;
    std::int64_t tick = 0;
    int running = 0;
    while (pos < d_.size()) {
      std::uint64_t delta = 0;
      if (!vlq(pos, delta)) {
        ++damage_;
        break;
      }
      tick = std::min<std::int64_t>(tick + std::int64_t(delta), maxTick * 64);
      if (pos >= d_.size()) {
        ++damage_;
        break;
      }
      int status = std::uint8_t(d_[pos]);
      if (status < 0x80) {
        if (running == 0) {
          ++damage_;
          log::write("MIDIFileParser", "⚠ running status が未確立のトラックを切り上げ (pos=" +
                                           std::to_string(chunkOffset + pos) + ")");
          break;
        }
        status = running;
      } else {
        ++pos;
      }
      if (status < 0xF0) {
        running = status;
        const int type = status & 0xF0;
        const int need = (type == 0xC0 || type == 0xD0) ? 1 : 2;
        if (pos + need > d_.size()) {
          ++damage_;
          break;
        }
        const int a = std::uint8_t(d_[pos]);
        const int b = need == 2 ? std::uint8_t(d_[pos + 1]) : 0;
        if (a >= 0x80 || b >= 0x80) {
          // A status byte where data should be: the message is lost, reading goes on there.
          ++damage_;
          running = 0;
          pos += (a >= 0x80) ? 0 : 1;
          continue;
        }
        pos += need;
        channelEvent(track, status, a, b, tick);
        continue;
      }
      running = 0;
      if (status == 0xF0 || status == 0xF7) {
        std::uint64_t len = 0;
        if (!vlq(pos, len) || len > d_.size() - pos) {
          ++damage_;
          break;
        }
        pos += len;
        continue;
      }
      if (status != 0xFF) {
        ++damage_;  // system common and real-time messages have no place in a file
        break;
      }
      if (pos >= d_.size()) {
        ++damage_;
        break;
      }
      const int meta = std::uint8_t(d_[pos++]);
      std::uint64_t len = 0;
      if (!vlq(pos, len) || len > d_.size() - pos) {
        ++damage_;
        break;
      }
      const std::string_view body = d_.substr(pos, len);
      pos += len;
      if (meta == 0x2F) break;
      metaEvent(track, meta, body, tick);
    }
    track.endTick = time_.scale(tick);
    closeOpenNotes(track);
    return track;
  }

 private:
  IdSource& ids_;
  bool vlq(std::size_t& pos, std::uint64_t& out) const {
    out = 0;
    for (int i = 0; i < 4; ++i) {
      if (pos >= d_.size()) return false;
      const int c = std::uint8_t(d_[pos++]);
      out = (out << 7) | std::uint64_t(c & 0x7F);
      if (!(c & 0x80)) return true;
    }
    return false;
  }

  void channelEvent(RawTrack& track, int status, int a, int b, std::int64_t rawTick) {
    const int type = status & 0xF0;
    const int ch = status & 0x0F;
    const std::int64_t tick = time_.scale(rawTick);
    if (type == 0x90 && b > 0) {
      if (++noteCount_ > MIDIFileParser::kNoteLimit) throw MIDIFileParser::TooManyNotes();
      open_[ch << 7 | a].push(track.notes.size());
      const std::int64_t at = std::clamp<std::int64_t>(tick, 0, maxTick);
      if (!track.notes.empty()) {
        const NoteEvent& last = track.notes.back();
        if (at < last.tick || (at == last.tick && a > last.pitch)) track.inOnsetOrder = false;
      }
      // A blank note copied in and filled in place: a value-made note (and so a braced one)
      // is zeroed first, and a note made aside and moved in is read back right after its
      // fields were written; either took a fifth of the reading's time.
      static const NoteEvent blank;
      NoteEvent& n = track.notes.push_back(blank);
      n.id = ids_.next();
      n.tick = at;
      n.pitch = a;
      n.velocity = b;
      track.channels.push_back(std::uint8_t(ch));
      return;
    }
    if (type == 0x80 || type == 0x90) {
      OpenNotes& open = open_[ch << 7 | a];
      if (open.empty()) return;
      NoteEvent& n = track.notes[open.pop()];
      n.duration = std::clamp<std::int64_t>(tick - n.tick, 1, maxTick);
      return;
    }
    if (type == 0xB0) {
      midi::ChannelControls& c = track.controls[ch];
      if (a == 1) c.mods.emplace_back(tick, b);
      if (a == 101) rpnMsb_[ch] = b;
      if (a == 100) rpnLsb_[ch] = b;
      const bool bendRange = rpnMsb_[ch] == 0 && rpnLsb_[ch] == 0;
      if (a == 6 && bendRange) {
        rangeSemis_[ch] = b;
        c.ranges.emplace_back(tick, b + rangeCents_[ch] / 100.0);
      }
      if (a == 38 && bendRange) {
        rangeCents_[ch] = b;
        c.ranges.emplace_back(tick, rangeSemis_[ch] + b / 100.0);
      }
      return;
    }
    if (type == 0xE0) track.controls[ch].bends.emplace_back(tick, (b << 7 | a) - 8192);
  }

  void metaEvent(RawTrack& track, int meta, std::string_view body, std::int64_t rawTick) {
    const std::int64_t tick = time_.scale(rawTick);
    switch (meta) {
      case 0x01:
        track.texts.push_back({tick, body, seq_++, texts_.add(body)});
        break;
      case 0x03:
        if (track.nameBytes.empty()) track.nameBytes = body;
        break;
      case 0x05:
        track.lyrics.push_back({tick, body, seq_++, texts_.add(body)});
        break;
      case 0x51:
        if (body.size() >= 3 && !time_.smpte) {
          const int us =
              (std::uint8_t(body[0]) << 16) | (std::uint8_t(body[1]) << 8) | std::uint8_t(body[2]);
          if (us > 0) doc_.tempoMap.push_back({tick, 60000000.0 / us});
        }
        break;
      case 0x58:
        if (body.size() >= 2) {
          const int power = std::min<int>(std::uint8_t(body[1]), 6);
          doc_.timeSignatures.push_back({tick, std::uint8_t(body[0]), 1 << power});
        }
        break;
      case 0x59:
        if (!body.empty()) doc_.keySignatures.push_back({tick, std::int8_t(body[0])});
        break;
      default:
        break;
    }
  }

  // Notes left open end at the next onset of their channel, else at the track's end, else
  // after a beat.
  void closeOpenNotes(RawTrack& track) {
    std::vector<std::size_t> left;
    for (OpenNotes& queue : open_)
      while (!queue.empty()) left.push_back(queue.pop());
    if (left.empty()) return;
    std::sort(left.begin(), left.end());
    std::unordered_map<int, std::vector<std::int64_t>> onsets;
    for (std::size_t i = 0; i < track.notes.size(); ++i)
      onsets[track.channels[i]].push_back(track.notes[i].tick);
    for (auto& [ch, list] : onsets) std::sort(list.begin(), list.end());
    for (std::size_t i : left) {
      NoteEvent& n = track.notes[i];
      const auto& list = onsets[track.channels[i]];
      const auto next = std::upper_bound(list.begin(), list.end(), n.tick);
      std::int64_t end = 0;
      if (next != list.end())
        end = *next;
      else if (track.endTick > n.tick)
        end = track.endTick;
      else
        end = n.tick + doc_.ppq;
      n.duration = std::clamp<std::int64_t>(end - n.tick, 1, maxTick);
      pending_.push_back(
          {&notice_kinds::midiMissingNoteOff, std::nullopt, n.id, n.tick, std::nullopt, 1, {}});
    }
  }

  std::string_view d_;
  const TimeBase& time_;
  MusicDocument& doc_;
  int& damage_;
  std::size_t& noteCount_;
  int& seq_;
  std::vector<PendingNotice>& pending_;
  TextTable& texts_;
  // Notes still sounding, oldest first, by channel and pitch.
  class OpenNotes {
   public:
    bool empty() const { return head_ == list_.size(); }
    void push(std::size_t i) { list_.push_back(i); }
    std::size_t pop() {
      const std::size_t i = list_[head_++];
      if (empty()) {
        list_.clear();
        head_ = 0;
      }
      return i;
    }

   private:
    std::vector<std::size_t> list_;
    std::size_t head_ = 0;
  };
  std::vector<OpenNotes> open_ = std::vector<OpenNotes>(16 * 128);
  int rpnMsb_[16] = {127, 127, 127, 127, 127, 127, 127, 127,
                     127, 127, 127, 127, 127, 127, 127, 127};
  int rpnLsb_[16] = {127, 127, 127, 127, 127, 127, 127, 127,
                     127, 127, 127, 127, 127, 127, 127, 127};
  int rangeSemis_[16] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2};
  int rangeCents_[16] = {};
};

// Bytes that neither encoding reads are dropped and counted; the notice shows them as Latin-1,
// so that what was lost can be seen.
void decodeTexts(std::vector<RawTrack>& tracks, std::vector<PendingNotice>& pending,
                 TextTable& table) {
  std::vector<std::uint32_t> names;
  for (const RawTrack& t : tracks) names.push_back(table.add(t.nameBytes));
  table.settle();
  const auto unreadable = [&](const TextEvent& e) {
    pending.push_back({&notice_kinds::midiLyricUnreadable,
                       std::nullopt,
                       std::nullopt,
                       e.tick,
                       trimmed(charset::decodeLatin1(e.text)),
                       1,
                       {}});
  };
  // Decoded in place, field by field (a whole event built and copied in stalls on its own
  // fresh stores); unreadable events leave the list.
  const auto keep = [](std::vector<TextEvent>& list, std::size_t to, std::size_t from,
                       std::string_view text) {
    TextEvent& e = list[to];
    if (to != from) {
      e.tick = list[from].tick;
      e.seq = list[from].seq;
    }
    e.text = text;
  };
  for (std::size_t ti = 0; ti < tracks.size(); ++ti) {
    RawTrack& t = tracks[ti];
    if (names[ti] == 0) {
      t.name = trimmed(std::string(t.nameBytes));
    } else {
      const TextTable::Entry& e = table.entry(names[ti]);
      t.name = trimmed(e.chosen ? std::string(*e.chosen) : charset::decodeLatin1(t.nameBytes));
    }
    // Text events can be lyrics only in a track without lyric events; elsewhere an unreadable
    // one (a heading, a copyright line) is no loss to the song.
    const bool mayBeLyrics = t.lyrics.empty();
    std::size_t kept = 0;
    for (std::size_t i = 0; i < t.lyrics.size(); ++i) {
      const TextEvent& l = t.lyrics[i];
      if (l.entry == 0) {
        keep(t.lyrics, kept++, i, l.text);
        continue;
      }
      const TextTable::Entry& e = table.entry(l.entry);
      if (!e.chosen) {
        unreadable(l);
        continue;
      }
      if (e.garbled)
        pending.push_back({&notice_kinds::midiLyricGarbled,
                           std::nullopt,
                           std::nullopt,
                           l.tick,
                           std::string(*e.chosen),
                           1,
                           {}});
      keep(t.lyrics, kept++, i, *e.chosen);
    }
    t.lyrics.erase(t.lyrics.begin() + std::ptrdiff_t(kept), t.lyrics.end());
    kept = 0;
    for (std::size_t i = 0; i < t.texts.size(); ++i) {
      const TextEvent& x = t.texts[i];
      const TextTable::Entry* e = x.entry == 0 ? nullptr : &table.entry(x.entry);
      if (!e)
        keep(t.texts, kept++, i, x.text);
      else if (e->chosen)
        keep(t.texts, kept++, i, *e->chosen);
      else if (mayBeLyrics)
        unreadable(x);
    }
    t.texts.erase(t.texts.begin() + std::ptrdiff_t(kept), t.texts.end());
    t.karaokeTag = !t.texts.empty() && t.texts.front().text.starts_with("@");
  }
}

}  // namespace

MIDIFileParser::ParseError::ParseError(Failure failure)
    : ImportError(failureKey(failure), tr(failureKey(failure))), failure_(failure) {}

MIDIFileParser::TooManyNotes::TooManyNotes()
    : ImportError(N_("このファイルは音の数が多すぎるため（%d "
                     "音を越えています）、開きませんでした。元のソフトで曲をいくつかに分けて書き出"
                     "してから開いてください。"),
                  trf("このファイルは音の数が多すぎるため（%d "
                      "音を越えています）、開きませんでした。元のソフトで曲をいくつかに分けて書き出"
                      "してから開いてください。",
                      {std::to_string(kNoteLimit)})) {}

MusicDocument MIDIFileParser::parse(const std::filesystem::path& path) {
  MusicDocument document = parseBytes(readFile(path));
  const std::string stem = path.stem().string();
  if (!stem.empty()) document.title = stem;
  return document;
}

MusicDocument MIDIFileParser::parseBytes(std::string_view file) {
  const std::string_view data = unwrapRiff(file);
  if (data.size() < 8 || data.substr(0, 4) != "MThd") throw ParseError(Failure::invalidHeader);
  const std::uint64_t headerLength = be32(data, 4);
  if (headerLength < 6) throw ParseError(Failure::invalidHeader);
  if (data.size() < 14) throw ParseError(Failure::unexpectedEOF);
  const int format = be16(data, 8);
  const int division = be16(data, 12);
  if (format > 1) throw ParseError(Failure::unsupportedFormat);

  MusicDocument doc;
  doc.tracks.clear();
  doc.tempoMap.clear();
  doc.timeSignatures.clear();
  doc.keySignatures.clear();
  std::vector<PendingNotice> pending;
  TimeBase time;
  if (division & 0x8000) {
    const int fps = -int(std::int8_t(division >> 8));
    const int perFrame = division & 0xFF;
    time.smpte = true;
    // 29 stands for 29.97 drop-frame.
    const double rate = fps == 29 ? 30000.0 / 1001.0 : double(fps);
    time.ticksPerSecond = rate * double(perFrame);
    if (!(time.ticksPerSecond > 0)) time.ticksPerSecond = 1;
    doc.ppq = 480;
    pending.push_back(
        {&notice_kinds::smpteMIDI, std::nullopt, std::nullopt, 0, std::nullopt, 1, {}});
  } else if (division == 0) {
    doc.ppq = 480;
    pending.push_back(
        {&notice_kinds::midiBrokenDivision, std::nullopt, std::nullopt, 0, std::nullopt, 1, {}});
  } else {
    doc.ppq = division;
  }
  time.ppq = doc.ppq;

  int damage = 0;
  std::size_t noteCount = 0;
  int seq = 0;
  std::vector<RawTrack> tracks;
  IdSource ids;
  TextTable texts;  // the tracks' decoded texts point into it
  std::size_t pos = std::min<std::uint64_t>(8 + headerLength, data.size());
  int chunks = 0;
  while (pos + 8 <= data.size()) {
    const std::string_view name = data.substr(pos, 4);
    std::uint64_t length = be32(data, pos + 4);
    const std::size_t body = pos + 8;
    if (length > data.size() - body) {
      length = data.size() - body;
      ++damage;
    }
    if (name == "MTrk") {
      TrackReader reader(data.substr(body, length), time, doc, damage, noteCount, seq, pending, ids,
                         texts);
      tracks.push_back(reader.read(int(tracks.size()), body));
    }
    ++chunks;
    pos = body + length;
  }
  if (pos < data.size() && chunks == 0) ++damage;

  if (noteCount == 0)
    throw ParseError(damage > 0 || tracks.empty() ? Failure::unexpectedEOF : Failure::noNotes);
  if (damage > 0)
    pending.push_back(
        {&notice_kinds::midiFileDamaged, std::nullopt, std::nullopt, 0, std::nullopt, damage, {}});

  if (time.smpte) doc.tempoMap.clear();
  if (doc.tempoMap.empty()) doc.tempoMap.push_back(TempoEvent{});
  if (doc.timeSignatures.empty()) doc.timeSignatures.push_back(TimeSignatureEvent{});
  if (doc.keySignatures.empty()) doc.keySignatures.push_back(KeySignatureEvent{});
  const auto byTick = [](const auto& a, const auto& b) { return a.tick < b.tick; };
  std::stable_sort(doc.tempoMap.begin(), doc.tempoMap.end(), byTick);
  std::stable_sort(doc.timeSignatures.begin(), doc.timeSignatures.end(), byTick);
  std::stable_sort(doc.keySignatures.begin(), doc.keySignatures.end(), byTick);
  doc.repairMaps();

  decodeTexts(tracks, pending, texts);
  midi::placeLyrics(std::move(tracks), doc, std::move(pending));
  return doc;
}

}  // namespace melvo
