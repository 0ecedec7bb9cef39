#include "melvo/interchange/midi_lyric_placement.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>

#include "melvo/platform/i18n.h"

namespace melvo::midi {

namespace {

namespace nk = notice_kinds;

// A track while the placement works on it.
struct Work {
  std::string name;
  std::vector<NoteEvent> notes;
  std::vector<int> channels;
  std::vector<TextEvent> lyrics;
  bool muted = false;
  int rawIndex = -1;
  std::map<int, ChannelControls> controls;
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
  void note(const ImportNoticeKind& kind, int track, const NoteEvent* n, std::int64_t tick,
            std::optional<std::string> text = std::nullopt, int count = 1) {
    pending_.push_back({&kind,
                        track,
                        n ? std::optional<Uuid>(n->id) : std::nullopt,
                        tick,
                        std::move(text),
                        count,
                        {}});
  }

  // Karaoke files keep their syllables as text events with "@" headers and "/" or "\" line
  // marks; these become the track's lyrics.
  void takeKaraokeText(RawTrack& r) {
    if (!r.karaokeTag || !r.lyrics.empty()) return;
    bool any = false;
    for (const TextEvent& t : r.texts) {
      if (t.text.starts_with("@")) continue;
      std::string s = t.text;
      while (!s.empty() && (s.front() == '/' || s.front() == '\\')) s.erase(0, 1);
      while (!s.empty() && (s.back() == ' ' || s.back() == '-')) s.pop_back();
      while (!s.empty() && s.front() == ' ') s.erase(0, 1);
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
  static std::vector<std::int64_t> onsets(const std::vector<NoteEvent>& notes) {
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
    const auto on = onsets(w.notes);
    std::vector<TextEvent> hits;
    for (const TextEvent& t : texts)
      if (aheadDistance(on, t.tick) >= 0 && !t.text.empty() && !t.text.starts_with("@"))
        hits.push_back(t);
    if (hits.empty()) return;
    std::set<std::int64_t> distinctOnsets(on.begin(), on.end());
    if (hits.size() * 2 >= distinctOnsets.size()) {
      w.lyrics = std::move(hits);
      note(nk::karaokeTextLyrics, track, nullptr, w.lyrics.front().tick, std::nullopt,
           int(w.lyrics.size()));
      return;
    }
    for (const TextEvent& t : hits) note(nk::midiTextNotLyrics, track, nullptr, t.tick, t.text);
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
    std::set<int> chans(w.channels.begin(), w.channels.end());
    if (chans.size() < 2 || w.lyrics.empty()) return;
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
        note(nk::midiNearOnsetsMerged, ti, &n, n.tick, std::to_string(off));
      }
      if (any)
        kept.push_back(l);
      else
        note(nk::midiLyricNotPlaced, ti, nullptr, l.tick, l.text);
    }
    w.lyrics = std::move(kept);
  }

  void placeTrackLyrics(int ti) {
    Work& w = tracks_[ti];
    const auto byOnset = [](const NoteEvent& a, const NoteEvent& b) {
      return a.tick != b.tick ? a.tick < b.tick : a.pitch > b.pitch;
    };
    // Most files are in order already; sorting 200,000 notes anyway would cost more than
    // the placement.
    if (!std::is_sorted(w.notes.begin(), w.notes.end(), byOnset))
      std::stable_sort(w.notes.begin(), w.notes.end(), byOnset);
    w.channels.clear();
    if (w.lyrics.empty()) return;
    const auto byTickSeq = [](const TextEvent& a, const TextEvent& b) {
      return a.tick != b.tick ? a.tick < b.tick : a.seq < b.seq;
    };
    if (!std::is_sorted(w.lyrics.begin(), w.lyrics.end(), byTickSeq))
      std::stable_sort(w.lyrics.begin(), w.lyrics.end(), byTickSeq);
    std::vector<std::int64_t> lyricTicks;  // sorted, as the lyrics are
    lyricTicks.reserve(w.lyrics.size());
    for (const TextEvent& l : w.lyrics) lyricTicks.push_back(l.tick);
    const auto hasLyricAt = [&](std::int64_t t) {
      return std::binary_search(lyricTicks.begin(), lyricTicks.end(), t);
    };
    auto& notes = w.notes;
    const auto firstAt = [&](std::int64_t t) {
      return std::lower_bound(notes.begin(), notes.end(), t,
                              [](const NoteEvent& n, std::int64_t v) { return n.tick < v; });
    };
    for (TextEvent& l : w.lyrics) {
      auto at = firstAt(l.tick);
      if (at != notes.end() && at->tick == l.tick) {
        auto end = at;
        while (end != notes.end() && end->tick == l.tick) ++end;
        auto free = std::find_if(at, end, [](const NoteEvent& n) { return n.lyric.empty(); });
        if (free != end) {
          free->lyric = std::move(l.text);
          continue;
        }
        note(end - at > 1 ? nk::midiLyricOverflowInChord : nk::midiLyricOverflow, ti, &*at, l.tick,
             l.text);
        continue;
      }
      // A note starting just after the lyric is pulled back to it.
      if (at != notes.end() && at->tick - l.tick <= tol_ && at->lyric.empty() &&
          !hasLyricAt(at->tick)) {
        const std::int64_t old = at->tick;
        at->duration += old - l.tick;
        at->tick = l.tick;
        at->lyric = l.text;
        note(nk::midiLyricWithoutOnset, ti, &*at, l.tick, l.text);
        note(nk::midiLyricMovedNote, ti, &*at, l.tick, l.text);
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
          note(nk::midiLyricAtNoteEnd, ti, sounding, l.tick, l.text);
          continue;
        }
        if (!sounding->lyric.empty()) {
          note(nk::midiLyricOverflow, ti, sounding, l.tick, l.text);
          continue;
        }
      }
      note(nk::midiLyricNotPlaced, ti, nullptr, l.tick, l.text);
    }
  }

  Work& companion(int ti, std::map<int, int>& made, const std::string& name, bool muted) {
    auto it = made.find(ti);
    if (it == made.end()) {
      Work w;
      w.name = name;
      w.muted = muted;
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
    std::vector<NoteEvent> notes = std::move(tracks_[ti].notes);
    std::vector<NoteEvent> keep, second, accomp;
    // Lyric notes sounding together: the line that starts first (higher at one tick) stays.
    std::int64_t lyricEnd = -1;
    std::int64_t lyricStart = -1;
    for (NoteEvent& n : notes) {
      if (!n.lyric.empty()) {
        if (n.tick < lyricEnd) {
          second.push_back(std::move(n));
          continue;
        }
        lyricStart = n.tick;
        lyricEnd = n.endTick();
        keep.push_back(std::move(n));
        continue;
      }
      // Lyricless notes starting inside a held lyric note, after its head: an arpeggio.
      if (n.tick > lyricStart && n.tick < lyricEnd) {
        accomp.push_back(std::move(n));
        continue;
      }
      keep.push_back(std::move(n));
    }
    // Lyricless notes right after a sung note extend it; short ones close after it are
    // ornaments.
    const std::int64_t shortNote = std::max<std::int64_t>(1, doc_.ppq / 8);
    const NoteEvent* prev = nullptr;
    for (std::size_t i = 0; i < keep.size(); ++i) {
      NoteEvent& n = keep[i];
      if (prev && n.lyric.empty() && n.tick >= prev->tick + 1 && !prev->lyric.empty()) {
        if (n.tick == prev->endTick()) {
          n.lyric = "ー";
          note(nk::midiMelisma, ti, &n, n.tick);
        } else if (n.duration <= shortNote && n.tick >= prev->endTick() &&
                   n.tick - prev->endTick() <= tol_) {
          n.lyric = "ー";
          note(nk::midiOrnamentNotes, ti, &n, n.tick);
        }
      }
      if (!prev || n.tick != prev->tick) prev = &n;
    }
    // Slips between notes close by lengthening the earlier note.
    for (std::size_t i = 0; i + 1 < keep.size(); ++i) {
      NoteEvent& a = keep[i];
      std::size_t j = i + 1;
      while (j < keep.size() && keep[j].tick == a.tick) ++j;
      if (j >= keep.size()) break;
      const std::int64_t gap = keep[j].tick - a.endTick();
      if (gap > 0 && gap <= tol_ && !a.lyric.empty()) {
        a.duration += gap;
        note(nk::midiTinyGapsClosed, ti, &a, a.endTick(), std::nullopt);
      }
    }
    const std::string baseName = tracks_[ti].name;
    tracks_[ti].notes = std::move(keep);
    if (!second.empty()) {
      std::map<int, int> made;
      Work& s = companion(ti, made, baseName + " 2", false);
      for (const NoteEvent& n : second) note(nk::midiTwoMelodiesSplit, ti, &n, n.tick, n.lyric);
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

  void finish() {
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
      if (!std::is_sorted(w.notes.begin(), w.notes.end(), byTick))
        std::stable_sort(w.notes.begin(), w.notes.end(), byTick);
      t.notes = NoteList(std::move(w.notes));
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
};

}  // namespace

void placeLyrics(std::vector<RawTrack> raw, MusicDocument& document,
                 std::vector<PendingNotice> pending) {
  Placer placer(document, pending);
  placer.run(std::move(raw));
}

}  // namespace melvo::midi
