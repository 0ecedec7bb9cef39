#include "melvo/checking/suggestion_applier.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>
#include <variant>

#include "melvo/checking/lyric_rules.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

using S = ValidationIssue::Suggestion;

struct Place {
  int track = 0;
  std::size_t index = 0;
};

std::string num(std::int64_t v) {
  return std::to_string(v);
}

// Where a note of a possibly stale suggestion is now. The row's own track is searched
// first since that is nearly always where the note still is.
std::optional<Place> locate(const MusicDocument& d, const Uuid& id, int preferredTrack) {
  auto scan = [&](int t) -> std::optional<Place> {
    const NoteList& notes = d.tracks[static_cast<std::size_t>(t)].notes;
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (notes[i].id == id) return Place{t, i};
    return std::nullopt;
  };
  const int count = static_cast<int>(d.tracks.size());
  if (preferredTrack >= 0 && preferredTrack < count)
    if (auto p = scan(preferredTrack)) return p;
  for (int t = 0; t < count; ++t)
    if (t != preferredTrack)
      if (auto p = scan(t)) return p;
  return std::nullopt;
}

// Keeps a track in tick order after an edit moved or added notes; stable, so notes at one
// tick keep the order the writer's chord rule depends on.
void keepSorted(NoteList& notes) {
  bool sorted = true;
  for (std::size_t i = 1; i < notes.size() && sorted; ++i)
    sorted = notes[i - 1].tick <= notes[i].tick;
  if (sorted) return;
  std::vector<NoteEvent> v = notes.toVector();
  std::stable_sort(v.begin(), v.end(),
                   [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; });
  notes.assign(std::move(v));
}

void insertSorted(NoteList& notes, NoteEvent note) {
  std::size_t at = notes.size();
  while (at > 0 && notes[at - 1].tick > note.tick) --at;
  notes.insert(at, std::move(note));
}

// A lyric the engine reads wherever it stands, on a pitch it can sing.
bool singsAlone(const NoteEvent& n) {
  const ReadingKind r = readingState(n.lyric).kind;
  return (r == ReadingKind::readable || r == ReadingKind::partial) && !startsWithSustain(n.lyric) &&
         countPhonemes(n.lyric) <= 8 && n.pitch >= 23;
}

std::string timingText(std::int64_t tick, std::int64_t duration) {
  return num(tick) + "+" + num(duration);
}

// The events of a map grouped by tick, in stored order within a tick.
template <typename Event>
std::map<std::int64_t, std::vector<Event>> byTick(const std::vector<Event>& events) {
  std::map<std::int64_t, std::vector<Event>> out;
  for (const auto& e : events) out[e.tick].push_back(e);
  return out;
}

template <typename Event, typename Show>
std::string shownAll(const std::vector<Event>& events, Show show) {
  std::string out;
  for (std::size_t k = 0; k < events.size(); ++k) out += (k ? "／" : "") + show(events[k]);
  return out;
}

class Applier {
 public:
  Applier(MusicDocument d, const ValidationIssue& row, std::string label)
      : doc_(std::move(d)), row_(row), label_(std::move(label)) {}

  RepairResult finish() && { return {std::move(doc_), std::move(log_), complete_}; }

  void apply(const SuggestionAction& action) {
    std::visit([&](const auto& a) { run(a); }, action.v);
  }

 private:
  NoteEvent* note(const Uuid& id, Place* where = nullptr) {
    auto p = locate(doc_, id, row_.trackIndex);
    if (!p) {
      complete_ = false;
      return nullptr;
    }
    if (where) *where = *p;
    return &doc_.tracks[static_cast<std::size_t>(p->track)].notes.mutableAt(p->index);
  }
  NoteEvent* rowNote(Place* where = nullptr) {
    if (!row_.noteID) {
      complete_ = false;
      return nullptr;
    }
    return note(*row_.noteID, where);
  }
  void log(const NoteEvent& n, int track, std::string before, std::string after) {
    log_.push_back({n.id, track, n.tick, label_, std::move(before), std::move(after)});
  }
  // A change of the song's time axis concerns no note and no track.
  void logTime(std::int64_t tick, std::string before, std::string after) {
    log_.push_back({Uuid(), -1, tick, label_, std::move(before), std::move(after)});
  }
  // One line per tick whose events differ, with every event of that tick before and after.
  template <typename Event, typename Show>
  void logMapEdit(const std::vector<Event>& was, const std::vector<Event>& now, Show show) {
    auto before = byTick(was), after = byTick(now);
    std::set<std::int64_t> ticks;
    for (const auto& [t, _] : before) ticks.insert(t);
    for (const auto& [t, _] : after) ticks.insert(t);
    for (std::int64_t t : ticks)
      if (before[t] != after[t]) logTime(t, shownAll(before[t], show), shownAll(after[t], show));
  }
  void setLyricOf(const Uuid& id, const std::string& lyric) {
    Place p;
    if (NoteEvent* n = note(id, &p); n && n->lyric != lyric) {
      std::string before = std::exchange(n->lyric, lyric);
      // Phonemes taken from the source file belonged to the old lyric.
      n->sourcePhonemes.reset();
      log(*n, p.track, std::move(before), lyric);
    }
  }
  void removeNoteAt(const Place& p, const char* text) {
    NoteList& notes = doc_.tracks[static_cast<std::size_t>(p.track)].notes;
    const NoteEvent gone = notes[p.index];
    // Where it stops sounding: its end, or the next note's start when that comes first.
    std::int64_t end = gone.endTick();
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (notes[i].tick > gone.tick) end = std::min(end, notes[i].tick);
    // A rest where a chord's sung note was is a rest: the notes the writer never sang there
    // go with it rather than step up and be sung in its place. A chord row chooses its notes
    // itself.
    std::vector<Uuid> silent;
    if (row_.category != ValidationIssue::Category::chordAtSameTick) {
      const std::int64_t ppq = doc_.ppq;
      std::optional<std::size_t> sung;
      for (std::size_t i = 0; i < notes.size(); ++i)
        if (notes[i].tick == gone.tick &&
            (!sung || sungRank(notes[i], ppq) < sungRank(notes[*sung], ppq)))
          sung = i;
      // The partner that would step up, unless it can be sung on its own: then it stays.
      std::optional<std::size_t> next;
      for (std::size_t i = 0; i < notes.size(); ++i)
        if (i != p.index && notes[i].tick == gone.tick &&
            (!next || sungRank(notes[i], ppq) < sungRank(notes[*next], ppq)))
          next = i;
      if (sung == p.index && next && !singsAlone(notes[*next]))
        for (std::size_t i = 0; i < notes.size(); ++i)
          if (i != p.index && notes[i].tick == gone.tick) silent.push_back(notes[i].id);
    }
    log(gone, p.track, gone.lyric, tr(text));
    notes.erase(p.index);
    for (const Uuid& id : silent)
      if (auto q = locate(doc_, id, p.track)) removeNoteAt(*q, "(削除)");
    // A ー that held this note on has nothing left to hold: after a rest the engine would
    // refuse it, so it becomes part of the rest.
    std::optional<std::size_t> sounding;  // the note that now runs into `end`, if any
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (notes[i].tick < end && (!sounding || notes[i].tick >= notes[*sounding].tick))
        sounding = i;
    if (sounding && notes[*sounding].endTick() >= end) return;
    std::optional<std::size_t> held;
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (notes[i].tick == end &&
          (!held || sungRank(notes[i], doc_.ppq) < sungRank(notes[*held], doc_.ppq)))
        held = i;
    if (held && isOnlyChouon(notes[*held].lyric)) removeNoteAt({p.track, *held}, "(休符)");
  }

  void run(const S::SetLyric& a) {
    if (row_.noteID) return setLyricOf(*row_.noteID, a.lyric);
    complete_ = false;
  }
  void run(const S::SetVelocity& a) {
    Place p;
    if (NoteEvent* n = rowNote(&p); n && n->velocity != a.velocity) {
      const int before = std::exchange(n->velocity, a.velocity);
      log(*n, p.track, num(before), num(a.velocity));
    }
  }
  void run(const S::SetLyrics& a) {
    for (const auto& e : a.edits) setLyricOf(e.id, e.lyric);
  }
  void run(const S::RemoveNotes& a) {
    for (const auto& id : a.ids) {
      if (auto p = locate(doc_, id, row_.trackIndex)) {
        removeNoteAt(*p, "(削除)");
      } else {
        complete_ = false;
      }
    }
  }
  void run(const S::SetTiming& a) {
    std::set<int> touched;
    for (const auto& e : a.edits) {
      Place p;
      NoteEvent* n = note(e.id, &p);
      if (!n) continue;
      const std::int64_t tick = std::clamp<std::int64_t>(e.tick, 0, maxTick);
      const std::int64_t duration = std::clamp<std::int64_t>(e.duration, 1, maxTick);
      if (n->tick == tick && n->duration == duration) continue;
      const std::string before = timingText(n->tick, n->duration);
      n->tick = tick;
      n->duration = duration;
      log(*n, p.track, before, timingText(tick, duration));
      touched.insert(p.track);
    }
    for (int t : touched) keepSorted(doc_.tracks[static_cast<std::size_t>(t)].notes);
  }
  void run(const S::TransposeNotes& a) {
    for (const auto& id : a.ids) {
      Place p;
      NoteEvent* n = note(id, &p);
      if (!n) continue;
      const int pitch = std::clamp(n->pitch + a.semitones, 0, 127);
      if (pitch == n->pitch) continue;
      const std::string before = n->pitchName();
      n->pitch = pitch;
      log(*n, p.track, before, n->pitchName());
    }
  }
  void run(const S::MoveNotesToNewTrack& a) {
    MusicTrack fresh;
    fresh.name = a.trackName;
    std::vector<std::pair<NoteEvent, int>> moved;
    for (const auto& id : a.ids) {
      auto p = locate(doc_, id, row_.trackIndex);
      if (!p) {
        complete_ = false;
        continue;
      }
      NoteList& notes = doc_.tracks[static_cast<std::size_t>(p->track)].notes;
      moved.emplace_back(notes[p->index], p->track);
      notes.erase(p->index);
    }
    if (moved.empty()) return;
    // An accompaniment: heard in the preview, never sung. With the voice of its old track a
    // render would sing its lyric-less notes and be refused.
    const int index = static_cast<int>(doc_.tracks.size());
    for (auto& [n, from] : moved) {
      log(n, index, doc_.tracks[static_cast<std::size_t>(from)].name, a.trackName);
      insertSorted(fresh.notes, std::move(n));
    }
    doc_.tracks.push_back(std::move(fresh));
  }
  void run(const S::AddNotes& a) {
    if (a.track < 0 || a.track >= static_cast<int>(doc_.tracks.size())) {
      complete_ = false;
      return;
    }
    NoteList& notes = doc_.tracks[static_cast<std::size_t>(a.track)].notes;
    // Notes added for a row's note are cut from it (the split): they take its velocity, and
    // its breath and slur pass to the last part when that part follows it.
    std::optional<NoteEvent> source;
    if (row_.noteID)
      if (auto p = locate(doc_, *row_.noteID, a.track); p && p->track == a.track)
        source = notes[p->index];
    std::optional<std::size_t> last;
    for (std::size_t k = 0; k < a.notes.size(); ++k)
      if (!last || a.notes[k].tick >= a.notes[*last].tick) last = k;
    const bool marksMove = source && last && a.notes[*last].tick >= source->endTick() &&
                           (source->hasBreathAfter || source->slurToNext);
    for (std::size_t k = 0; k < a.notes.size(); ++k) {
      const auto& added = a.notes[k];
      const bool takesMarks = marksMove && k == *last;
      NoteEvent n = NoteEvent::make(
          Uuid::random(), added.tick, added.duration, added.pitch, source ? source->velocity : 100,
          added.lyric, takesMarks && source->slurToNext, takesMarks && source->hasBreathAfter);
      log(n, a.track, "", added.lyric);
      insertSorted(notes, std::move(n));
    }
    if (marksMove) {
      Place p;
      if (NoteEvent* from = note(source->id, &p)) {
        from->hasBreathAfter = false;
        from->slurToNext = false;
        log(*from, p.track, source->hasBreathAfter ? "♪" : "⌒", "");
      }
    }
  }
  void run(const S::SetTempos& a) {
    auto& map = doc_.tempoMap;
    const std::vector<TempoEvent> was = map;
    map.erase(
        std::remove_if(map.begin(), map.end(),
                       [&](const TempoEvent& e) { return e.tick >= a.from && e.tick < a.to; }),
        map.end());
    for (const auto& p : a.points) map.push_back({p.tick, p.bpm});
    std::stable_sort(map.begin(), map.end(),
                     [](const TempoEvent& x, const TempoEvent& y) { return x.tick < y.tick; });
    if (map.empty()) map.push_back(TempoEvent{});
    logMapEdit(was, map, tempoText);
  }
  void run(const S::InsertTime& a) {
    if (a.length <= 0) return;
    bool moved = false;
    for (auto& track : doc_.tracks)
      for (std::size_t i = 0; i < track.notes.size(); ++i)
        if (track.notes[i].tick >= a.atTick) {
          NoteEvent& n = track.notes.mutableAt(i);
          n.tick = addTicks(n.tick, a.length);
          moved = true;
        }
    // The opening tempo, meter and key stay at the start whatever is inserted there.
    auto shift = [&](auto& events) {
      for (auto& e : events)
        if (e.tick > 0 && e.tick >= a.atTick) {
          e.tick = addTicks(e.tick, a.length);
          moved = true;
        }
    };
    shift(doc_.tempoMap);
    shift(doc_.timeSignatures);
    shift(doc_.keySignatures);
    shiftImportNotices(doc_, a.atTick, a.length);
    // One line for the whole shift: what started at `atTick` now starts later.
    if (moved) logTime(a.atTick, num(a.atTick), num(addTicks(a.atTick, a.length)));
  }
  void run(const S::SetTimeSignature& a) {
    auto& map = doc_.timeSignatures;
    const std::vector<TimeSignatureEvent> was = map;
    map.erase(std::remove_if(map.begin(), map.end(),
                             [&](const TimeSignatureEvent& e) { return e.tick == a.tick; }),
              map.end());
    map.push_back({a.tick, a.numerator, a.denominator});
    std::stable_sort(map.begin(), map.end(),
                     [](const auto& x, const auto& y) { return x.tick < y.tick; });
    logMapEdit(was, map, meterText);
  }
  void run(const S::SetBreath& a) {
    for (const auto& id : a.ids) {
      Place p;
      NoteEvent* n = note(id, &p);
      if (!n || n->hasBreathAfter == a.on) continue;
      n->hasBreathAfter = a.on;
      log(*n, p.track, a.on ? "" : "♪", a.on ? "♪" : "");
    }
  }
  void run(const S::SelectTrack&) {}
  void run(const S::Sequence& a) {
    for (const auto& inner : a.actions) apply(inner);
  }
  void run(const S::PrependSokuon&) {
    if (row_.noteID) {
      if (auto p = locate(doc_, *row_.noteID, row_.trackIndex)) {
        const NoteEvent& n = doc_.tracks[static_cast<std::size_t>(p->track)].notes[p->index];
        return setLyricOf(n.id, "っ" + n.lyric);
      }
    }
    complete_ = false;
  }
  void run(const S::BreathOnPreviousNote&) {
    Place p;
    NoteEvent* n = rowNote(&p);
    if (!n) return;
    // The note sounding just before this one: the last that starts earlier.
    const NoteList& notes = doc_.tracks[static_cast<std::size_t>(p.track)].notes;
    const std::int64_t at = n->tick;
    std::optional<std::size_t> prev;
    for (std::size_t i = 0; i < notes.size(); ++i)
      if (notes[i].tick < at && (!prev || notes[i].tick >= notes[*prev].tick)) prev = i;
    if (!prev) {
      complete_ = false;
      return;
    }
    run(S::SetBreath{{notes[*prev].id}, true});
  }
  void run(const S::RemoveNote&) {
    if (row_.noteID) {
      if (auto p = locate(doc_, *row_.noteID, row_.trackIndex)) return removeNoteAt(*p, "(休符)");
    }
    complete_ = false;
  }
  void run(const S::KeepAsIs&) {}

  MusicDocument doc_;
  const ValidationIssue& row_;
  std::string label_;
  std::vector<RepairLogEntry> log_;
  bool complete_ = true;
};

}  // namespace

RepairResult applySuggestionAction(const MusicDocument& document, const SuggestionAction& action,
                                   const ValidationIssue& row, const std::string& logLabel) {
  Applier applier(document, row, logLabel);
  applier.apply(action);
  return std::move(applier).finish();
}

RepairResult applySuggestion(const MusicDocument& document, const ValidationIssue& row,
                             const ValidationIssue::Suggestion& suggestion) {
  RepairResult out = applySuggestionAction(document, suggestion.action, row, suggestion.label);
  if (row.noticeID) out.document.removeNotice(*row.noticeID);
  return out;
}

RepairResult replaceLyric(const MusicDocument& document, const Uuid& noteID,
                          const std::string& lyric) {
  ValidationIssue row;
  row.noteID = noteID;
  row.trackIndex = -1;
  return applySuggestionAction(document, S::SetLyric{lyric}, row, tr("歌詞の置き換え"));
}

void shiftImportNotices(MusicDocument& document, std::int64_t fromTick, std::int64_t delta) {
  auto shifted = [&](std::int64_t t) { return t >= fromTick ? addTicks(t, delta) : t; };
  for (auto& notice : document.importNotices) {
    for (auto& place : notice.places) {
      place.tick = shifted(place.tick);
      for (auto& button : place.fixes)
        for (auto& action : button) action = shiftFixes(action, fromTick, delta);
    }
    for (auto& [id, seal] : notice.sealed) seal.tick = shifted(seal.tick);
  }
}

std::string tempoText(const TempoEvent& event) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", event.bpm);
  return buf;
}

std::string meterText(const TimeSignatureEvent& event) {
  return num(event.numerator) + "/" + num(event.denominator);
}

}  // namespace melvo
