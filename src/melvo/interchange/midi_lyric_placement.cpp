#include "melvo/interchange/midi_lyric_placement.h"

#include <algorithm>
#include <bit>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>

#include "melvo/platform/i18n.h"

namespace melvo::midi {

namespace {

namespace nk = notice_kinds;

// A track while the placement works on it.
struct Work {
  std::string name;
  NoteChunks notes;
  bool inOnsetOrder = false;  // by tick, the higher first at one tick
  std::vector<std::uint8_t> channels;
  std::vector<TextEvent> lyrics;
  bool muted = false;
  int rawIndex = -1;
  std::map<int, ChannelControls> controls;
};

// A lyric that found its note taken, and the chord's notes at that tick when in a chord.
struct Overflow {
  std::size_t pending;
  Uuid host;
  std::vector<Uuid> chord;
  std::int64_t tick;
  std::string text;
  int seq;
  bool inChord;
};

// A note moved to a second melody's track, and the work track it came from.
struct BackToOne {
  std::size_t pending;
  int origin;
};

// Where a note is among the final work tracks.
struct Spot {
  int work = -1;
  std::size_t index = 0;
};

class Placer {
 public:
  Placer(MusicDocument& doc, std::vector<PendingNotice>& pending)
      : doc_(doc), pending_(pending), tol_(std::max<std::int64_t>(1, doc.ppq / 8)) {}

  void run(std::vector<RawTrack> raw) {
    for (RawTrack& r : raw) takeKaraokeText(r);
    std::vector<TextEvent> orphans;
    for (RawTrack& r : raw) {
      if (r.notes.empty()) {
        orphans.insert(orphans.end(), r.lyrics.begin(), r.lyrics.end());
        continue;
      }
      Work w;
      w.name = r.name.empty() ? "Track " + std::to_string(tracks_.size() + 1) : r.name;
      w.notes = std::move(r.notes);
      w.inOnsetOrder = r.inOnsetOrder;
      w.channels = std::move(r.channels);
      w.lyrics = std::move(r.lyrics);
      w.rawIndex = r.index;
      w.controls = std::move(r.controls);
      if (w.lyrics.empty()) textsAsLyrics(w, r.texts, int(tracks_.size()));
      tracks_.push_back(std::move(w));
    }
    placeOrphans(orphans);
    const std::size_t original = tracks_.size();
    for (std::size_t i = 0; i < original; ++i) {
      chooseChannel(int(i));
      placeTrackLyrics(int(i));
      oneMelody(int(i));
      reportControls(int(i));
    }
    finish();
  }

 private:
  // Returns the place's index in `pending_`, for fixes settled later.
  std::size_t note(const ImportNoticeKind& kind, int track, const NoteEvent* n, std::int64_t tick,
                   std::optional<std::string> text = std::nullopt, int count = 1) {
    pending_.push_back({&kind,
                        track,
                        n ? std::optional<Uuid>(n->id) : std::nullopt,
                        tick,
                        std::move(text),
                        count,
                        {}});
    return pending_.size() - 1;
  }

  // Karaoke files keep their syllables as text events with "@" headers and "/" or "\" line
  // marks; these become the track's lyrics.
  void takeKaraokeText(RawTrack& r) {
    if (!r.karaokeTag || !r.lyrics.empty()) return;
    bool any = false;
    for (const TextEvent& t : r.texts) {
      if (t.text.starts_with("@")) continue;
      std::string_view s = t.text;
      while (!s.empty() && (s.front() == '/' || s.front() == '\\')) s.remove_prefix(1);
      while (!s.empty() && (s.back() == ' ' || s.back() == '-')) s.remove_suffix(1);
      while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
      if (s.empty()) continue;
      r.lyrics.push_back({t.tick, s, t.seq});
      any = true;
    }
    if (any) {
      karaokeTicks_.push_back(r.lyrics.front().tick);
      r.texts.clear();
    }
  }

  // Onsets of a track, sorted.
  static std::vector<std::int64_t> onsets(const NoteChunks& notes) {
    std::vector<std::int64_t> o;
    o.reserve(notes.size());
    for (const NoteEvent& n : notes) o.push_back(n.tick);
    std::sort(o.begin(), o.end());
    return o;
  }
  // Distance from `tick` to the nearest onset at or within the tolerance after it; -1 if none.
  std::int64_t aheadDistance(const std::vector<std::int64_t>& sorted, std::int64_t tick) const {
    auto it = std::lower_bound(sorted.begin(), sorted.end(), tick);
    if (it == sorted.end() || *it - tick > tol_) return -1;
    return *it - tick;
  }
  bool near(const std::vector<std::int64_t>& sorted, std::int64_t tick) const {
    auto it = std::lower_bound(sorted.begin(), sorted.end(), tick - tol_);
    return it != sorted.end() && *it <= tick + tol_;
  }

  // Text events on the onsets of a lyricless track are its lyrics when they cover the notes;
  // a few are headings, kept out with a button that reads them after all.
  void textsAsLyrics(Work& w, const std::vector<TextEvent>& texts, int track) {
    if (texts.empty()) return;
    auto on = onsets(w.notes);
    std::vector<TextEvent> hits;
    for (const TextEvent& t : texts)
      if (aheadDistance(on, t.tick) >= 0 && !t.text.empty() && !t.text.starts_with("@"))
        hits.push_back(t);
    if (hits.empty()) return;
    const auto distinctOnsets = std::size_t(std::unique(on.begin(), on.end()) - on.begin());
    if (hits.size() * 2 >= distinctOnsets) {
      w.lyrics = std::move(hits);
      note(nk::karaokeTextLyrics, track, nullptr, w.lyrics.front().tick, std::nullopt,
           int(w.lyrics.size()));
      return;
    }
    readTextsButton(w, hits, track);
  }

  // The button "歌詞として読む": each text goes on the note it stands on, as a lyric event
  // would (a head within a 32nd after it moves back to it), and lyricless notes that follow
  // a sung note with no gap become "ー".
  void readTextsButton(const Work& w, const std::vector<TextEvent>& hits, int track) {
    std::vector<std::size_t> order(w.notes.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      const NoteEvent &x = w.notes[a], &y = w.notes[b];
      return x.tick != y.tick ? x.tick < y.tick : x.pitch > y.pitch;
    });
    std::vector<std::string> lyric(w.notes.size());
    std::vector<std::int64_t> tick(w.notes.size());
    for (std::size_t i = 0; i < w.notes.size(); ++i) tick[i] = w.notes[i].tick;
    std::vector<int> placeOf(w.notes.size(), -1);  // the text that a note's lyric came from
    std::vector<std::vector<SuggestionAction>> fixes(hits.size());
    std::vector<std::vector<ValidationIssue::NoteLyricEdit>> edits(hits.size());
    std::vector<std::optional<Uuid>> noteOf(hits.size());
    // Texts of one track come in tick order.
    const auto textAt = [&](std::int64_t t) {
      auto it = std::lower_bound(hits.begin(), hits.end(), t,
                                 [](const TextEvent& h, std::int64_t v) { return h.tick < v; });
      return it != hits.end() && it->tick == t;
    };
    for (std::size_t h = 0; h < hits.size(); ++h) {
      const TextEvent& t = hits[h];
      auto at =
          std::lower_bound(order.begin(), order.end(), t.tick,
                           [&](std::size_t i, std::int64_t v) { return w.notes[i].tick < v; });
      if (at == order.end()) continue;
      const std::int64_t onset = w.notes[*at].tick;
      if (onset != t.tick && textAt(onset)) continue;  // that onset has a text of its own
      auto free = std::find_if(at, order.end(), [&](std::size_t i) {
        return w.notes[i].tick != onset || lyric[i].empty();
      });
      if (free == order.end() || w.notes[*free].tick != onset) continue;
      const NoteEvent& n = w.notes[*free];
      lyric[*free] = t.text;
      placeOf[*free] = int(h);
      noteOf[h] = n.id;
      edits[h].push_back({n.id, std::string(t.text)});
      if (onset != t.tick) {
        tick[*free] = t.tick;
        fixes[h].push_back(ValidationIssue::Suggestion::SetTiming{
            {{n.id, t.tick, std::min(maxTick, n.duration + (onset - t.tick))}}});
      }
    }
    // As the melisma rule: a lyricless note starting where the last sung note ends.
    std::optional<std::size_t> prev;
    for (std::size_t i : order) {
      const NoteEvent& n = w.notes[i];
      if (prev && lyric[i].empty() && !lyric[*prev].empty() && placeOf[*prev] >= 0 &&
          tick[i] > tick[*prev] && tick[i] == w.notes[*prev].endTick()) {
        lyric[i] = "ー";
        placeOf[i] = placeOf[*prev];
        edits[std::size_t(placeOf[i])].push_back({n.id, "ー"});
      }
      if (!prev || tick[i] != tick[*prev]) prev = i;
    }
    for (std::size_t h = 0; h < hits.size(); ++h) {
      const std::size_t at =
          note(nk::midiTextNotLyrics, track, nullptr, hits[h].tick, std::string(hits[h].text));
      pending_[at].noteID = noteOf[h];
      if (edits[h].empty()) continue;
      fixes[h].insert(fixes[h].begin(), ValidationIssue::Suggestion::SetLyrics{edits[h]});
      pending_[at].fixes = {std::move(fixes[h])};
    }
  }

  void placeOrphans(std::vector<TextEvent>& orphans) {
    if (orphans.empty()) return;
    const std::int64_t first = orphans.front().tick;
    for (const Work& w : tracks_) {
      if (!w.lyrics.empty()) {
        note(nk::midiOrphanLyricsIgnored, -1, nullptr, first, std::nullopt, int(orphans.size()));
        return;
      }
    }
    int best = -1;
    std::size_t bestHits = 0;
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      const auto on = onsets(tracks_[i].notes);
      std::size_t hits = 0;
      for (const TextEvent& t : orphans) hits += near(on, t.tick) ? 1 : 0;
      if (hits > bestHits) {
        bestHits = hits;
        best = int(i);
      }
    }
    if (best < 0) {
      note(nk::midiOrphanLyricsDropped, -1, nullptr, first, std::nullopt, int(orphans.size()));
      return;
    }
    tracks_[best].lyrics = std::move(orphans);
    note(nk::midiLyricsTrackChosen, best, nullptr, first, tracks_[best].name,
         int(tracks_[best].lyrics.size()));
  }

  // Several channels and lyrics: the channel the lyrics meet best sings, the others go to a
  // track of their own. A draw keeps them together.
  void chooseChannel(int ti) {
    Work& w = tracks_[ti];
    if (w.lyrics.empty()) return;
    unsigned used = 0;  // a bit per channel
    for (int ch : w.channels) used |= 1u << (ch & 15);
    if (std::popcount(used) < 2) return;
    std::vector<int> chans;
    for (int ch = 0; ch < 16; ++ch)
      if (used & (1u << ch)) chans.push_back(ch);
    using Rating = std::tuple<int, int, int>;  // hits, matched, mono
    std::vector<std::pair<Rating, int>> ratings;
    for (int ch : chans) {
      std::vector<const NoteEvent*> mine;
      for (std::size_t i = 0; i < w.notes.size(); ++i)
        if (w.channels[i] == ch) mine.push_back(&w.notes[i]);
      std::vector<std::int64_t> on;
      for (const NoteEvent* n : mine) on.push_back(n->tick);
      std::sort(on.begin(), on.end());
      int hits = 0, matched = 0, mono = 0;
      for (const TextEvent& l : w.lyrics) {
        hits += std::binary_search(on.begin(), on.end(), l.tick) ? 1 : 0;
        matched += near(on, l.tick) ? 1 : 0;
      }
      std::sort(mine.begin(), mine.end(),
                [](const NoteEvent* a, const NoteEvent* b) { return a->tick < b->tick; });
      std::int64_t reach = -1;
      for (std::size_t i = 0; i < mine.size(); ++i) {
        const bool overlapsNext = i + 1 < mine.size() && mine[i + 1]->tick < mine[i]->endTick();
        if (mine[i]->tick >= reach && !overlapsNext) ++mono;
        reach = std::max(reach, mine[i]->endTick());
      }
      ratings.push_back({{hits, matched, mono}, ch});
    }
    std::sort(ratings.begin(), ratings.end(), std::greater<>());
    if (ratings[0].first == ratings[1].first) {
      undecided(ti, int(chans.size()));
      return;
    }
    const int sing = ratings[0].second;
    Work rest;
    rest.rawIndex = w.rawIndex;
    rest.inOnsetOrder = w.inOnsetOrder;
    Work keep = w;
    keep.notes.clear();
    keep.channels.clear();
    for (std::size_t i = 0; i < w.notes.size(); ++i) {
      Work& to = w.channels[i] == sing ? keep : rest;
      to.notes.push_back(w.notes[i]);
      to.channels.push_back(w.channels[i]);
    }
    rest.name = w.name + " (" + tr("伴奏") + ")";
    w = std::move(keep);
    tracks_.push_back(std::move(rest));
  }

  // The channels stay together: onsets a little off one lyric become one chord, and lyrics
  // off every onset are not attached.
  void undecided(int ti, int channels) {
    Work& w = tracks_[ti];
    note(nk::midiChannelsUndecided, ti, nullptr, 0, std::nullopt, channels);
    std::vector<std::size_t> order(w.notes.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return w.notes[a].tick < w.notes[b].tick; });
    std::vector<TextEvent> kept;
    for (const TextEvent& l : w.lyrics) {
      auto lo =
          std::lower_bound(order.begin(), order.end(), l.tick - tol_,
                           [&](std::size_t i, std::int64_t t) { return w.notes[i].tick < t; });
      bool any = false;
      for (auto it = lo; it != order.end() && w.notes[*it].tick <= l.tick + tol_; ++it) {
        NoteEvent& n = w.notes[*it];
        any = true;
        if (n.tick == l.tick) continue;
        const std::int64_t off = n.tick - l.tick;
        n.duration = std::max<std::int64_t>(1, n.duration + off);
        n.tick = l.tick;
        w.inOnsetOrder = false;
        note(nk::midiNearOnsetsMerged, ti, &n, n.tick, std::to_string(off));
      }
      if (any)
        kept.push_back(l);
      else
        note(nk::midiLyricNotPlaced, ti, nullptr, l.tick, std::string(l.text));
    }
    w.lyrics = std::move(kept);
  }

  void placeTrackLyrics(int ti) {
    Work& w = tracks_[ti];
    const auto byOnset = [](const NoteEvent& a, const NoteEvent& b) {
      return a.tick != b.tick ? a.tick < b.tick : a.pitch > b.pitch;
    };
    // Most files are in order already, as the reader saw; sorting 200,000 notes anyway, or
    // even checking them again, would cost more than the placement.
    if (!w.inOnsetOrder && !std::is_sorted(w.notes.begin(), w.notes.end(), byOnset))
      std::stable_sort(w.notes.begin(), w.notes.end(), byOnset);
    w.inOnsetOrder = true;
    w.channels.clear();
    if (w.lyrics.empty()) return;
    const auto byTickSeq = [](const TextEvent& a, const TextEvent& b) {
      return a.tick != b.tick ? a.tick < b.tick : a.seq < b.seq;
    };
    if (!std::is_sorted(w.lyrics.begin(), w.lyrics.end(), byTickSeq))
      std::stable_sort(w.lyrics.begin(), w.lyrics.end(), byTickSeq);
    // The lyrics are sorted by tick; their texts move onto notes, their ticks stay.
    const auto hasLyricAt = [&](std::int64_t t) {
      auto it = std::lower_bound(w.lyrics.begin(), w.lyrics.end(), t,
                                 [](const TextEvent& l, std::int64_t v) { return l.tick < v; });
      return it != w.lyrics.end() && it->tick == t;
    };
    auto& notes = w.notes;
    // Lyrics come in tick order, so the first note at or after each one only moves forward;
    // a head pulled back to a lyric never passes an earlier onset, so that stays true.
    auto cursor = notes.begin();
    for (TextEvent& l : w.lyrics) {
      while (cursor != notes.end() && cursor->tick < l.tick) ++cursor;
      notes.prefetch(std::size_t(cursor - notes.begin()) + 8);
      auto at = cursor;
      if (at != notes.end() && at->tick == l.tick) {
        auto end = at;
        while (end != notes.end() && end->tick == l.tick) ++end;
        auto free = std::find_if(at, end, [](const NoteEvent& n) { return n.lyric.empty(); });
        if (free != end) {
          free->lyric = l.text;
          continue;
        }
        const bool chord = end - at > 1;
        Overflow o{note(chord ? nk::midiLyricOverflowInChord : nk::midiLyricOverflow, ti, &*at,
                        l.tick, std::string(l.text)),
                   at->id,
                   {},
                   l.tick,
                   std::string(l.text),
                   l.seq,
                   chord};
        if (chord)
          for (auto c = at; c != end; ++c) o.chord.push_back(c->id);
        overflows_.push_back(std::move(o));
        continue;
      }
      // A note starting just after the lyric is pulled back to it.
      if (at != notes.end() && at->tick - l.tick <= tol_ && at->lyric.empty() &&
          !hasLyricAt(at->tick)) {
        const std::int64_t old = at->tick;
        at->duration += old - l.tick;
        at->tick = l.tick;
        at->lyric = l.text;
        note(nk::midiLyricWithoutOnset, ti, &*at, l.tick, std::string(l.text));
        note(nk::midiLyricMovedNote, ti, &*at, l.tick, std::string(l.text));
        // Moving back never passes an earlier onset (none lies in between), so order holds.
        continue;
      }
      // The note sounding at the lyric.
      const NoteEvent* sounding = nullptr;
      for (auto it = at; it != notes.begin();) {
        --it;
        if (it->endTick() > l.tick) {
          sounding = &*it;
          break;
        }
        if (l.tick - it->tick > 64 * doc_.ppq) break;
      }
      if (sounding) {
        const bool nextHasOwn = at != notes.end() && (hasLyricAt(at->tick) || !at->lyric.empty());
        if (sounding->endTick() - l.tick <= tol_ && nextHasOwn) {
          note(nk::midiLyricAtNoteEnd, ti, sounding, l.tick, std::string(l.text));
          continue;
        }
        if (!sounding->lyric.empty()) {
          overflows_.push_back(
              {note(nk::midiLyricOverflow, ti, sounding, l.tick, std::string(l.text)),
               sounding->id,
               {},
               l.tick,
               std::string(l.text),
               l.seq,
               false});
          continue;
        }
      }
      note(nk::midiLyricNotPlaced, ti, nullptr, l.tick, std::string(l.text));
    }
  }

  Work& companion(int ti, std::map<int, int>& made, const std::string& name, bool muted) {
    auto it = made.find(ti);
    if (it == made.end()) {
      Work w;
      w.name = name;
      w.muted = muted;
      w.inOnsetOrder = true;  // its notes come from a track in order
      w.rawIndex = tracks_[ti].rawIndex;
      tracks_.push_back(std::move(w));
      it = made.emplace(ti, int(tracks_.size()) - 1).first;
    }
    return tracks_[it->second];
  }

  void oneMelody(int ti) {
    if (std::none_of(tracks_[ti].notes.begin(), tracks_[ti].notes.end(),
                     [](const NoteEvent& n) { return !n.lyric.empty(); }))
      return;
    // The notes that stay are compacted in place: in the usual file none leaves, and moving
    // every note into a new list would cost more than the rest of the placement. Each note
    // that stays goes through the melisma and gap rules at once, so that 200,000 notes are
    // walked once, not three times; the rules only look back, at notes already settled.
    NoteChunks& keep = tracks_[ti].notes;
    NoteChunks second, accomp;
    const std::int64_t shortNote = std::max<std::int64_t>(1, doc_.ppq / 8);
    // Lyric notes sounding together: the line that starts first (higher at one tick) stays.
    std::int64_t lyricEnd = -1;
    std::int64_t lyricStart = -1;
    std::optional<std::size_t> prev;  // first kept note at the latest onset
    std::size_t onsetStart = 0;       // first kept note at the onset of the one just kept
    std::vector<std::size_t> lengthened;
    // Slips between notes close by lengthening the earlier note; known once the next onset
    // is, and after that onset's note has seen its predecessor's length unchanged.
    const auto closeGaps = [&](std::size_t from, std::size_t to) {
      const std::int64_t next = keep[to].tick;
      for (std::size_t k = from; k < to; ++k) {
        NoteEvent& a = keep[k];
        const std::int64_t gap = next - a.endTick();
        if (gap > 0 && gap <= tol_ && !a.lyric.empty()) {
          a.duration += gap;
          lengthened.push_back(k);
        }
      }
    };
    std::size_t kept = 0;
    for (std::size_t i = 0; i < keep.size(); ++i) {
      keep.prefetch(i + 8);
      NoteEvent& n = keep[i];
      const bool stays = [&] {
        if (!n.lyric.empty()) {
          if (n.tick < lyricEnd) {
            second.push_back(std::move(n));
            return false;
          }
          lyricStart = n.tick;
          lyricEnd = n.endTick();
          return true;
        }
        // Lyricless notes starting inside a held lyric note, after its head: an arpeggio.
        if (n.tick > lyricStart && n.tick < lyricEnd) {
          accomp.push_back(std::move(n));
          return false;
        }
        return true;
      }();
      if (!stays) continue;
      if (kept != i) keep[kept] = std::move(n);
      const std::size_t k = kept++;
      NoteEvent& m = keep[k];
      // Lyricless notes right after a sung note extend it; short ones close after it are
      // ornaments.
      if (prev) {
        const NoteEvent& p = keep[*prev];
        if (m.lyric.empty() && m.tick >= p.tick + 1 && !p.lyric.empty()) {
          if (m.tick == p.endTick()) {
            m.lyric = "ー";
            note(nk::midiMelisma, ti, &m, m.tick);
          } else if (m.duration <= shortNote && m.tick >= p.endTick() &&
                     m.tick - p.endTick() <= tol_) {
            m.lyric = "ー";
            note(nk::midiOrnamentNotes, ti, &m, m.tick);
          }
        }
      }
      if (k > 0 && m.tick != keep[k - 1].tick) {
        closeGaps(onsetStart, k);
        onsetStart = k;
      }
      if (!prev || m.tick != keep[*prev].tick) prev = k;
    }
    keep.truncate(kept);
    for (std::size_t k : lengthened)
      note(nk::midiTinyGapsClosed, ti, &keep[k], keep[k].endTick(), std::nullopt);
    const std::string baseName = tracks_[ti].name;
    if (!second.empty()) {
      std::map<int, int> made;
      Work& s = companion(ti, made, baseName + " 2", false);
      for (const NoteEvent& n : second)
        backToOne_.push_back({note(nk::midiTwoMelodiesSplit, ti, &n, n.tick, n.lyric), ti});
      s.notes = std::move(second);
    }
    if (!accomp.empty()) {
      std::map<int, int> made;
      Work& a = companion(ti, made, tr("伴奏（和音から移した音）"), true);
      note(nk::midiArpeggioMoved, ti, nullptr, accomp.front().tick, std::nullopt,
           int(accomp.size()));
      a.notes = std::move(accomp);
    }
  }

  void reportControls(int ti) {
    const Work& w = tracks_[ti];
    std::optional<std::int64_t> bend, mod;
    for (const auto& [ch, c] : w.controls) {
      for (const auto& [t, v] : c.bends)
        if (v != 0 && (!bend || t < *bend)) bend = t;
      for (const auto& [t, v] : c.mods)
        if (v != 0 && (!mod || t < *mod)) mod = t;
    }
    if (bend) note(nk::synthParameters, ti, nullptr, *bend, tr("ピッチベンド"));
    if (mod) note(nk::synthParameters, ti, nullptr, *mod, tr("モジュレーション"));
  }

  // The fixes that depend on the tracks as they end: a lyric without room splits its note,
  // and a second melody goes back to its track.
  void settleButtons() {
    if (overflows_.empty() && backToOne_.empty()) return;
    int next = 0;
    for (std::size_t i = 0; i < tracks_.size(); ++i)
      if (!tracks_[i].notes.empty()) finalIndex_[int(i)] = next++;
    std::unordered_map<Uuid, Spot> where;
    for (const Overflow& o : overflows_) {
      where.emplace(o.host, Spot{});
      for (const Uuid& id : o.chord) where.emplace(id, Spot{});
    }
    for (const BackToOne& b : backToOne_) where.emplace(*pending_[b.pending].noteID, Spot{});
    for (std::size_t i = 0; i < tracks_.size(); ++i)
      for (std::size_t k = 0; k < tracks_[i].notes.size(); ++k)
        if (auto it = where.find(tracks_[i].notes[k].id); it != where.end())
          it->second = {int(i), k};
    const auto spotOf = [&](const Uuid& id) -> std::optional<Spot> {
      auto it = where.find(id);
      if (it == where.end() || it->second.work < 0 || !finalIndex_.count(it->second.work))
        return std::nullopt;
      return it->second;
    };
    using S = ValidationIssue::Suggestion;
    for (const BackToOne& b : backToOne_) {
      const auto spot = spotOf(*pending_[b.pending].noteID);
      const auto home = finalIndex_.find(b.origin);
      if (!spot || home == finalIndex_.end()) continue;
      const NoteEvent& n = noteAt(*spot);
      pending_[b.pending].fixes = {
          {S::RemoveNotes{{n.id}},
           S::AddNotes{home->second, {{n.tick, n.duration, n.pitch, n.lyric}}}}};
    }
    // One fix per note that lyrics overflowed, on its first place: the places of one note
    // live and die together, and their buttons' actions are joined into one.
    std::vector<std::vector<const Overflow*>> groups;
    std::map<std::pair<Uuid, bool>, std::size_t> groupOf;
    for (const Overflow& o : overflows_) {
      auto [it, fresh] = groupOf.emplace(std::pair{o.host, o.inChord}, groups.size());
      if (fresh) groups.emplace_back();
      groups[it->second].push_back(&o);
    }
    for (const auto& group : groups)
      if (auto fix = splitFix(group, spotOf); !fix.empty())
        pending_[group.front()->pending].fixes = {std::move(fix)};
  }

  const NoteEvent& noteAt(const Spot& s) const {
    return tracks_[std::size_t(s.work)].notes[s.index];
  }

  // The note is cut at each lyric that had no room, so that every syllable is sung: lyrics
  // at one tick share its time as short notes, the last one keeping the rest. In a chord the
  // lyric notes become those short notes, and its lyricless notes go to an accompaniment.
  template <typename SpotOf>
  std::vector<SuggestionAction> splitFix(const std::vector<const Overflow*>& group,
                                         const SpotOf& spotOf) const {
    using S = ValidationIssue::Suggestion;
    const Overflow& first = *group.front();
    const auto hostSpot = spotOf(first.host);
    if (!hostSpot) return {};
    const NoteEvent& host = noteAt(*hostSpot);
    const std::int64_t end = host.endTick();
    struct Item {
      std::int64_t tick;
      std::int64_t order;
      std::string lyric;
      int pitch;
      std::optional<Spot> spot;  // an existing note
    };
    std::vector<Item> items;
    if (first.inChord) {
      for (std::size_t k = 0; k < first.chord.size(); ++k) {
        const auto spot = spotOf(first.chord[k]);
        if (!spot) continue;
        const NoteEvent& n = noteAt(*spot);
        if (n.lyric.empty() || n.tick != host.tick) continue;
        items.push_back({n.tick, std::int64_t(k) - (1 << 30), n.lyric, n.pitch, spot});
      }
    } else {
      items.push_back({host.tick, -(1 << 30), host.lyric, host.pitch, hostSpot});
    }
    for (const Overflow* o : group) {
      if (o->tick < host.tick || o->tick >= end) return {};
      items.push_back({o->tick, o->seq, o->text, host.pitch, std::nullopt});
    }
    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
      return std::tie(a.tick, a.order) < std::tie(b.tick, b.order);
    });
    const int homeTrack = finalIndex_.at(hostSpot->work);
    S::SetTiming timing;
    S::RemoveNotes removed;
    S::AddNotes added{homeTrack, {}};
    for (std::size_t g = 0; g < items.size();) {
      std::size_t e = g;
      while (e < items.size() && items[e].tick == items[g].tick) ++e;
      const std::int64_t from = items[g].tick;
      const std::int64_t to = e < items.size() ? items[e].tick : end;
      const auto parts = std::int64_t(e - g);
      const std::int64_t shortLength =
          std::min<std::int64_t>(std::max<std::int64_t>(1, doc_.ppq / 4), (to - from) / parts);
      if (shortLength < 1) return {};
      for (std::int64_t r = 0; r < parts; ++r) {
        const Item& it = items[g + std::size_t(r)];
        const std::int64_t tick = from + r * shortLength;
        const std::int64_t length = r + 1 < parts ? shortLength : to - tick;
        if (it.spot && it.spot->work == hostSpot->work) {
          timing.edits.push_back({noteAt(*it.spot).id, tick, length});
        } else {
          // A lyric note of the chord that went to another track comes back to be sung here.
          if (it.spot) removed.ids.push_back(noteAt(*it.spot).id);
          added.notes.push_back({tick, length, it.pitch, it.lyric});
        }
      }
      g = e;
    }
    std::vector<SuggestionAction> fix;
    if (!removed.ids.empty()) fix.emplace_back(std::move(removed));
    if (!timing.edits.empty()) fix.emplace_back(std::move(timing));
    if (!added.notes.empty()) fix.emplace_back(std::move(added));
    if (first.inChord) {
      S::MoveNotesToNewTrack accomp{{}, tr("伴奏（和音から移した音）")};
      for (const NoteEvent& n : tracks_[std::size_t(hostSpot->work)].notes)
        if (n.tick == host.tick && n.lyric.empty()) accomp.ids.push_back(n.id);
      if (!accomp.ids.empty()) fix.emplace_back(std::move(accomp));
    }
    return fix;
  }

  void finish() {
    settleButtons();
    doc_.tracks.clear();
    // Only the notes that notices name are looked up.
    std::unordered_map<Uuid, int> trackOf;
    for (const PendingNotice& p : pending_)
      if (p.noteID) trackOf.emplace(*p.noteID, -1);
    for (std::size_t i = 0; i < tracks_.size(); ++i) {
      Work& w = tracks_[i];
      if (w.notes.empty()) continue;
      const int index = int(doc_.tracks.size());
      if (!trackOf.empty())
        for (const NoteEvent& n : w.notes)
          if (auto it = trackOf.find(n.id); it != trackOf.end()) it->second = index;
      finalIndex_[int(i)] = index;
      MusicTrack t;
      t.name = w.name;
      t.isMuted = w.muted;
      const auto byTick = [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; };
      if (!w.inOnsetOrder && !std::is_sorted(w.notes.begin(), w.notes.end(), byTick))
        std::stable_sort(w.notes.begin(), w.notes.end(), byTick);
      t.notes.assignChunks(w.notes.takeChunks());
      doc_.tracks.push_back(std::move(t));
    }
    for (PendingNotice& p : pending_) {
      std::optional<int> track;
      if (p.noteID) {
        if (auto it = trackOf.find(*p.noteID); it != trackOf.end() && it->second >= 0)
          track = it->second;
      }
      if (!track && p.track && *p.track >= 0) {
        if (auto it = finalIndex_.find(*p.track); it != finalIndex_.end()) track = it->second;
      }
      doc_.addNotice(*p.kind, track, p.noteID, p.tick, std::move(p.text), std::move(p.fixes),
                     p.count);
    }
    for (std::int64_t t : karaokeTicks_)
      doc_.addNotice(nk::karaokeTextLyrics, std::nullopt, std::nullopt, t);
  }

  MusicDocument& doc_;
  std::vector<PendingNotice>& pending_;
  std::int64_t tol_;
  std::vector<Work> tracks_;
  std::map<int, int> finalIndex_;
  std::vector<std::int64_t> karaokeTicks_;
  std::vector<Overflow> overflows_;
  std::vector<BackToOne> backToOne_;
};

}  // namespace

void placeLyrics(std::vector<RawTrack> raw, MusicDocument& document,
                 std::vector<PendingNotice> pending) {
  Placer placer(document, pending);
  placer.run(std::move(raw));
}

}  // namespace melvo::midi
