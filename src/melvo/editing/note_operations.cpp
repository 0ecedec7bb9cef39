// The note editing operations of the editor model. Each is one commit: it decides first
// whether anything would change, so that a click that does nothing leaves no undo step.

#include <algorithm>
#include <numeric>
#include <unordered_set>

#include "melvo/checking/lyric_rules.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/editing/bulk_lyrics.h"
#include "melvo/editing/note_clipboard.h"
#include "melvo/editing/note_id_set.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

const char* editLabel() {
  return tr("編集");
}

std::int64_t clampTick(std::int64_t t) {
  return std::clamp<std::int64_t>(t, 0, maxTick);
}

// Positions of a track's notes in tick order (list order among equal ticks).
std::vector<std::size_t> tickOrder(const NoteList& notes) {
  std::vector<std::size_t> order(notes.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::vector<std::int64_t> ticks;
  ticks.reserve(notes.size());
  for (const auto& n : notes) ticks.push_back(n.tick);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return ticks[a] < ticks[b]; });
  return order;
}

// A new lyric makes phonetic text carried over from another program stale.
void changeLyric(NoteEvent& n, std::string lyric) {
  if (n.lyric == lyric) return;
  n.lyric = std::move(lyric);
  n.sourcePhonemes.reset();
}

// The lyric of the two halves of a split: by syllable when it is clean kana of two or more,
// else the first half keeps it and the second holds its vowel.
std::pair<std::string, std::string> splitLyric(const std::string& lyric) {
  if (lyric.empty()) return {"", ""};
  if (classifyLyricChars(lyric) == LyricClass::clean) {
    const std::vector<std::string> syllables = groupSyllables(lyricForExport(lyric));
    if (syllables.size() >= 2) {
      std::string rest;
      for (std::size_t i = 1; i < syllables.size(); ++i) rest += syllables[i];
      return {syllables[0], rest};
    }
  }
  return {lyric, "ー"};
}

// Fresh random (version 4) ids for a paste.
std::vector<Uuid> freshIDs(std::size_t count) {
  std::vector<Uuid> ids;
  ids.reserve(count);
  for (std::size_t i = 0; i < count; ++i) ids.push_back(Uuid::random());
  return ids;
}

template <typename Events>
void shiftEvents(Events& events, std::int64_t atTick, std::int64_t ticks) {
  for (auto& e : events)
    if (e.tick > 0 && e.tick >= atTick) e.tick = addTicks(e.tick, ticks);
}

// Events inside [from, to) go, except the opening one at tick 0 that holds the song's start;
// later ones move back.
template <typename Events, typename Default>
void cutEvents(Events& events, std::int64_t from, std::int64_t to, Default fallback) {
  const std::int64_t length = to - from;
  std::erase_if(events, [&](const auto& e) { return e.tick > 0 && e.tick >= from && e.tick < to; });
  for (auto& e : events)
    if (e.tick >= to) e.tick = std::max<std::int64_t>(0, e.tick - length);
  if (events.empty()) events.push_back(fallback);
}

}  // namespace

// ---- Helpers ----

MusicTrack* PianoRollViewModel::currentTrack() {
  if (_currentTrackIndex < 0 || _currentTrackIndex >= static_cast<int>(_document.tracks.size()))
    return nullptr;
  return &_document.tracks[static_cast<std::size_t>(_currentTrackIndex)];
}

const MusicTrack* PianoRollViewModel::currentTrack() const {
  return const_cast<PianoRollViewModel*>(this)->currentTrack();
}

struct PianoRollViewModel::SelectionCache {
  explicit SelectionCache(const std::set<Uuid>& ids) : lookup(ids) {}
  NoteIDSet lookup;
  std::vector<std::size_t> positions;
};

void PianoRollViewModel::setSelectedNoteIDs(std::set<Uuid> value) {
  if (_selectedNoteIDs == value) return;
  _selectedNoteIDs = std::move(value);
  selectionCache_.reset();
  notify("selectedNoteIDs");
}

std::shared_ptr<const NoteIDSet> PianoRollViewModel::selectedLookup() const {
  if (!selectionCache_) selectionCache_ = std::make_shared<SelectionCache>(_selectedNoteIDs);
  return {selectionCache_, &selectionCache_->lookup};
}

std::vector<std::size_t> PianoRollViewModel::selectedPositions() const {
  const MusicTrack* track = currentTrack();
  if (!track || _selectedNoteIDs.empty()) return {};
  selectedLookup();
  const std::shared_ptr<SelectionCache> cache = selectionCache_;
  const NoteIDSet& wanted = cache->lookup;
  // The last answer still holds when it names as many distinct, rising positions as there are
  // selected ids and each holds a selected note: ids are unique in a song, so that is the
  // whole selection. A drag moves the same notes many times without reordering them.
  std::vector<std::size_t>& last = cache->positions;
  if (last.size() == _selectedNoteIDs.size()) {
    bool holds = true;
    std::size_t previous = 0;
    for (std::size_t k = 0; k < last.size() && holds; ++k) {
      const std::size_t i = last[k];
      holds = (k == 0 || i > previous) && i < track->notes.size() &&
              wanted.contains(track->notes[i].id);
      previous = i;
    }
    if (holds) return last;
  }
  std::vector<std::size_t> out;
  // The walk ends at the last selected note: a passage selected early in a long song costs
  // only the notes up to it.
  std::size_t remaining = _selectedNoteIDs.size();
  for (auto it = track->notes.begin(); it != track->notes.end(); ++it)
    if (wanted.contains(it->id)) {
      out.push_back(it.index());
      if (--remaining == 0) break;
    }
  last = out;
  return out;
}

std::vector<NoteEvent> PianoRollViewModel::selectedNotes() const {
  std::vector<NoteEvent> out;
  const MusicTrack* track = currentTrack();
  if (!track) return out;
  for (std::size_t i : selectedPositions()) out.push_back(track->notes[i]);
  std::stable_sort(out.begin(), out.end(),
                   [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; });
  return out;
}

bool PianoRollViewModel::editSelected(const std::string& label,
                                      const std::vector<std::size_t>& positions,
                                      const std::function<void(NoteEvent&)>& edit) {
  const MusicTrack* track = currentTrack();
  if (!track) return false;
  std::vector<std::pair<std::size_t, NoteEvent>> changed;
  for (std::size_t i : positions) {
    NoteEvent n = track->notes[i];
    edit(n);
    if (!(n == track->notes[i])) changed.emplace_back(i, std::move(n));
  }
  if (changed.empty()) return false;
  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  commit(label, [&](MusicDocument& d) {
    NoteList& notes = d.tracks[index].notes;
    for (auto& [i, n] : changed) notes.set(i, std::move(n));
  });
  return true;
}

bool PianoRollViewModel::commitIfChanged(const std::string& label,
                                         const std::function<void(MusicDocument&)>& change) {
  MusicDocument next = _document;
  change(next);
  if (next == _document) return false;
  pushUndo(label);
  setDocument(std::move(next));
  markDirty();
  return true;
}

std::int64_t PianoRollViewModel::gridTicks() const {
  return quantizeTicks(_quantizeValue, _document.ppq);
}

std::int64_t PianoRollViewModel::snapDown(std::int64_t tick) const {
  const std::int64_t g = gridTicks();
  return clampTick(clampTick(tick) / g * g);
}

std::int64_t PianoRollViewModel::snapNearest(std::int64_t tick) const {
  const std::int64_t g = gridTicks();
  const std::int64_t t = clampTick(tick);
  const std::int64_t down = t / g * g;
  return clampTick(t - down >= g - (t - down) ? down + g : down);
}

// ---- Placing, moving, sizing ----

std::optional<Uuid> PianoRollViewModel::addNote(std::int64_t tick, int pitch) {
  if (!currentTrack()) return std::nullopt;
  NoteEvent n = NoteEvent::make(Uuid::random(), snapDown(tick),
                                quantizeTicks(_defaultNoteLength, _document.ppq),
                                snapped(std::clamp(pitch, 0, 127), _scaleAssist));
  const Uuid id = n.id;
  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  commit(editLabel(), [&](MusicDocument& d) { d.tracks[index].notes.push_back(std::move(n)); });
  setSelectedNoteIDs({id});
  return id;
}

bool PianoRollViewModel::moveNotes(std::int64_t deltaTick, int deltaPitch) {
  const MusicTrack* track = currentTrack();
  if (!track) return false;
  const std::vector<std::size_t> positions = selectedPositions();
  if (positions.empty()) return false;
  // Hold the deltas so that the group keeps its shape at the edges of the range.
  std::int64_t minTick = maxTick, maxStart = 0;
  int minPitch = 127, maxPitch = 0;
  for (std::size_t i : positions) {
    const NoteEvent& n = track->notes[i];
    minTick = std::min(minTick, n.tick);
    maxStart = std::max(maxStart, n.tick);
    minPitch = std::min(minPitch, n.pitch);
    maxPitch = std::max(maxPitch, n.pitch);
  }
  const std::int64_t dt = std::clamp<std::int64_t>(deltaTick, -minTick, maxTick - maxStart);
  const int dp = std::clamp(deltaPitch, -minPitch, 127 - maxPitch);
  const bool snap = deltaPitch != 0 && _scaleAssist.mode == ScaleAssistMode::lock;
  const ScaleAssist assist = _scaleAssist;
  return editSelected(tr("音符を動かす"), positions, [&](NoteEvent& n) {
    n.tick += dt;
    n.pitch += dp;
    if (snap) n.pitch = snapped(n.pitch, assist);
  });
}

bool PianoRollViewModel::resizeNotes(std::int64_t deltaTick) {
  if (deltaTick == 0) return false;
  return editSelected(tr("音符の長さを変更"), selectedPositions(), [&](NoteEvent& n) {
    n.duration = std::clamp<std::int64_t>(addTicks(n.duration, deltaTick), 1, maxTick);
  });
}

bool PianoRollViewModel::setLengthFromMenu(QuantizeValue value) {
  const std::int64_t length =
      std::clamp<std::int64_t>(quantizeTicks(value, _document.ppq), 1, maxTick);
  return editSelected(editLabel(), selectedPositions(), [&](NoteEvent& n) { n.duration = length; });
}

// ---- Split and merge ----

std::optional<Uuid> PianoRollViewModel::splitNote(const Uuid& id, std::int64_t tick) {
  const MusicTrack* track = currentTrack();
  if (!track) return std::nullopt;
  std::optional<std::size_t> at;
  for (auto it = track->notes.begin(); it != track->notes.end(); ++it)
    if (it->id == id) {
      at = it.index();
      break;
    }
  if (!at) return std::nullopt;
  const NoteEvent& original = track->notes[*at];
  const std::int64_t cut = snapNearest(tick);
  if (cut <= original.tick || cut >= original.endTick()) return std::nullopt;

  NoteEvent first = original;
  NoteEvent second = original;
  second.id = Uuid::random();
  auto [lyricA, lyricB] = splitLyric(original.lyric);
  first.duration = cut - original.tick;
  second.tick = cut;
  second.duration = original.endTick() - cut;
  // The sound goes on into the second half, so what follows the note follows that half.
  first.slurToNext = false;
  first.hasBreathAfter = false;
  changeLyric(first, std::move(lyricA));
  second.sourcePhonemes.reset();
  second.lyric = std::move(lyricB);
  const Uuid newID = second.id;

  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  const std::size_t position = *at;
  commit(editLabel(), [&](MusicDocument& d) {
    NoteList& notes = d.tracks[index].notes;
    notes.set(position, std::move(first));
    notes.insert(position + 1, std::move(second));
  });
  if (_selectedNoteIDs.count(id)) {
    auto selection = _selectedNoteIDs;
    selection.insert(newID);
    setSelectedNoteIDs(std::move(selection));
  }
  return newID;
}

bool PianoRollViewModel::mergeNotes() {
  const MusicTrack* track = currentTrack();
  if (!track) return false;
  const std::shared_ptr<const NoteIDSet> lookup = selectedLookup();
  const NoteIDSet& wanted = *lookup;
  const std::vector<std::size_t> order = tickOrder(track->notes);

  // Walk the track in tick order; `keep` is the note the next same-pitch neighbour joins.
  std::vector<std::pair<std::size_t, NoteEvent>> changed;
  std::unordered_set<Uuid> removed;
  std::optional<std::pair<std::size_t, NoteEvent>> keep;
  auto flush = [&] {
    if (keep && !(keep->second == track->notes[keep->first])) changed.push_back(*keep);
    keep.reset();
  };
  for (std::size_t k = 0; k < order.size(); ++k) {
    const NoteEvent& n = track->notes[order[k]];
    if (!wanted.contains(n.id)) {
      flush();
      continue;
    }
    if (!keep) {
      keep.emplace(order[k], n);
      continue;
    }
    NoteEvent& into = keep->second;
    if (n.pitch == into.pitch) {
      into.duration = std::max(into.endTick(), n.endTick()) - into.tick;
      if (!n.lyric.empty() && !isOnlyChouon(n.lyric)) changeLyric(into, into.lyric + n.lyric);
      into.slurToNext = n.slurToNext;
      into.hasBreathAfter = n.hasBreathAfter;
      removed.insert(n.id);
    } else {
      into.slurToNext = true;
      flush();
      keep.emplace(order[k], n);
    }
  }
  flush();
  if (changed.empty() && removed.empty()) return false;

  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  commit(editLabel(), [&](MusicDocument& d) {
    NoteList& notes = d.tracks[index].notes;
    for (auto& [i, n] : changed) notes.set(i, std::move(n));
    notes.removeIf([&](const NoteEvent& n) { return removed.count(n.id) > 0; });
  });
  if (!removed.empty()) {
    auto selection = _selectedNoteIDs;
    for (const auto& id : removed) selection.erase(id);
    setSelectedNoteIDs(std::move(selection));
  }
  return true;
}

const char* PianoRollViewModel::mergeMenuLabel() {
  return tr("合成 / スラー化  ⌘M");
}

// ---- Delete, clipboard ----

bool PianoRollViewModel::deleteNotes() {
  if (selectedPositions().empty()) return false;
  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  const std::shared_ptr<const NoteIDSet> lookup = selectedLookup();
  const NoteIDSet& wanted = *lookup;
  std::set<Uuid> gone;
  commit(editLabel(), [&](MusicDocument& d) {
    d.tracks[index].notes.removeIf([&](const NoteEvent& n) {
      if (!wanted.contains(n.id)) return false;
      gone.insert(n.id);
      return true;
    });
  });
  auto selection = _selectedNoteIDs;
  for (const auto& id : gone) selection.erase(id);
  setSelectedNoteIDs(std::move(selection));
  return true;
}

std::size_t PianoRollViewModel::copySelected() {
  std::vector<NoteEvent> notes = selectedNotes();
  const std::size_t count = notes.size();
  if (count) setClipboard(std::move(notes));
  return count;
}

bool PianoRollViewModel::cutSelected() {
  if (!copySelected()) return false;
  return deleteNotes();
}

bool PianoRollViewModel::pasteNotes(std::int64_t tick) {
  if (_clipboard.empty() || !currentTrack()) return false;
  std::int64_t first = maxTick;
  for (const auto& n : _clipboard) first = std::min(first, n.tick);
  const std::int64_t delta = clampTick(tick) - first;
  std::vector<NoteEvent> pasted;
  pasted.reserve(_clipboard.size());
  std::vector<Uuid> fresh = freshIDs(_clipboard.size());
  std::set<Uuid> ids;
  for (const auto& n : _clipboard) {
    NoteEvent c = n;
    c.id = fresh[pasted.size()];
    c.tick = clampTick(addTicks(n.tick, delta));
    ids.insert(ids.end(), c.id);
    pasted.push_back(std::move(c));
  }
  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  commit(editLabel(), [&](MusicDocument& d) {
    NoteList& notes = d.tracks[index].notes;
    for (auto& n : pasted) notes.push_back(std::move(n));
  });
  setSelectedNoteIDs(std::move(ids));
  return true;
}

bool PianoRollViewModel::pasteText(std::string_view text, std::int64_t tick) {
  if (auto notes = decodeClipboard(text, _document.ppq)) {
    if (notes->empty()) return false;
    setClipboard(std::move(*notes));
    return pasteNotes(tick);
  }
  return applyBulkLyrics(text).committed;
}

std::string PianoRollViewModel::clipboardText() const {
  return encodeClipboard(_clipboard, _document.ppq);
}

std::string PianoRollViewModel::clipboardLyricsText() const {
  return clipboardLyrics(_clipboard);
}

// ---- Values of notes ----

bool PianoRollViewModel::transpose(int semitones) {
  if (semitones == 0) return false;
  return editSelected(editLabel(), selectedPositions(), [&](NoteEvent& n) {
    n.pitch = static_cast<int>(std::clamp<std::int64_t>(std::int64_t{n.pitch} + semitones, 0, 127));
  });
}

bool PianoRollViewModel::setVelocity(int value) {
  const int v = std::clamp(value, 1, 127);
  return editSelected(editLabel(), selectedPositions(), [&](NoteEvent& n) { n.velocity = v; });
}

bool PianoRollViewModel::setLyric(const Uuid& id, std::string text) {
  // The current track first: that is where the popover opened.
  std::vector<std::size_t> trackOrder(_document.tracks.size());
  std::iota(trackOrder.begin(), trackOrder.end(), std::size_t{0});
  if (currentTrack())
    std::rotate(trackOrder.begin(), trackOrder.begin() + _currentTrackIndex,
                trackOrder.begin() + _currentTrackIndex + 1);
  for (std::size_t t : trackOrder) {
    const NoteList& notes = _document.tracks[t].notes;
    for (auto it = notes.begin(); it != notes.end(); ++it) {
      if (it->id != id) continue;
      if (it->lyric == text) return false;
      const std::size_t position = it.index();
      commit(editLabel(), [&](MusicDocument& d) {
        changeLyric(d.tracks[t].notes.mutableAt(position), std::move(text));
      });
      return true;
    }
  }
  return false;
}

PianoRollViewModel::BulkLyricsResult PianoRollViewModel::applyBulkLyrics(std::string_view text) {
  BulkLyricsResult result;
  const MusicTrack* track = currentTrack();
  if (!track) return result;
  const std::vector<std::string> syllables = bulkLyricSyllables(text);
  std::vector<std::size_t> targets = selectedPositions();
  std::stable_sort(targets.begin(), targets.end(), [&](std::size_t a, std::size_t b) {
    return track->notes[a].tick < track->notes[b].tick;
  });
  result.assigned = std::min(syllables.size(), targets.size());
  result.leftover = syllables.size() - result.assigned;
  std::vector<std::pair<std::size_t, NoteEvent>> changed;
  for (std::size_t k = 0; k < result.assigned; ++k) {
    NoteEvent n = track->notes[targets[k]];
    if (n.lyric == syllables[k]) continue;
    changeLyric(n, syllables[k]);
    changed.emplace_back(targets[k], std::move(n));
  }
  if (changed.empty()) return result;
  const auto index = static_cast<std::size_t>(_currentTrackIndex);
  commit(editLabel(), [&](MusicDocument& d) {
    for (auto& [i, n] : changed) d.tracks[index].notes.set(i, std::move(n));
  });
  result.committed = true;
  return result;
}

bool PianoRollViewModel::toggleBreath() {
  const std::vector<NoteEvent> notes = selectedNotes();
  if (notes.empty()) return false;
  const bool allBreathe =
      std::all_of(notes.begin(), notes.end(), [](const NoteEvent& n) { return n.hasBreathAfter; });
  return editSelected(editLabel(), selectedPositions(),
                      [&](NoteEvent& n) { n.hasBreathAfter = !allBreathe; });
}

const char* PianoRollViewModel::breathMenuLabel() const {
  const std::vector<NoteEvent> notes = selectedNotes();
  const bool allBreathe =
      !notes.empty() &&
      std::all_of(notes.begin(), notes.end(), [](const NoteEvent& n) { return n.hasBreathAfter; });
  return allBreathe ? tr("ブレスを削除 (♪)") : tr("ブレスを挿入 (♪)");
}

// ---- Time ----

bool PianoRollViewModel::insertTime(std::int64_t atTick, std::int64_t ticks) {
  if (ticks <= 0) return false;
  const std::int64_t at = clampTick(atTick);
  const bool committed = commitIfChanged(tr("時間を挿入"), [&](MusicDocument& d) {
    for (auto& track : d.tracks)
      for (auto it = track.notes.begin(); it != track.notes.end(); ++it)
        if (it->tick >= at) {
          NoteEvent& n = track.notes.mutableAt(it.index());
          n.tick = addTicks(n.tick, ticks);
        }
    shiftEvents(d.tempoMap, at, ticks);
    shiftEvents(d.timeSignatures, at, ticks);
    shiftEvents(d.keySignatures, at, ticks);
    // The notices follow their notes, so a moved note is not taken for a handled one.
    shiftImportNotices(d, at, ticks);
  });
  // The loop is not part of the song, so it moves whether or not the song did.
  if (_loopStartTick >= at) setLoopStartTick(addTicks(_loopStartTick, ticks));
  if (_loopEndTick >= at) setLoopEndTick(addTicks(_loopEndTick, ticks));
  return committed;
}

bool PianoRollViewModel::deleteTime(std::int64_t atTick, std::int64_t ticks) {
  if (ticks <= 0) return false;
  const std::int64_t from = clampTick(atTick);
  const std::int64_t to = addTicks(from, ticks);
  const std::int64_t length = to - from;
  if (length <= 0) return false;
  std::set<Uuid> gone;
  const bool committed = commitIfChanged(tr("時間を削除"), [&](MusicDocument& d) {
    for (auto& track : d.tracks) {
      track.notes.removeIf([&](const NoteEvent& n) {
        if (n.tick < from || n.endTick() > to) return false;
        gone.insert(n.id);
        return true;
      });
      for (auto it = track.notes.begin(); it != track.notes.end(); ++it) {
        const NoteEvent& n = *it;
        if (n.endTick() <= from) continue;
        // What lay in the range goes; the parts outside it close up.
        const std::int64_t start = n.tick < from ? n.tick : std::max(from, n.tick - length);
        const std::int64_t before = std::max<std::int64_t>(0, std::min(n.endTick(), from) - n.tick);
        const std::int64_t after = std::max<std::int64_t>(0, n.endTick() - std::max(n.tick, to));
        const std::int64_t duration = std::max<std::int64_t>(1, before + after);
        if (start == n.tick && duration == n.duration) continue;
        NoteEvent& m = track.notes.mutableAt(it.index());
        m.tick = start;
        m.duration = duration;
      }
    }
    cutEvents(d.tempoMap, from, to, TempoEvent{0, 120.0});
    cutEvents(d.timeSignatures, from, to, TimeSignatureEvent{0, 4, 4});
    cutEvents(d.keySignatures, from, to, KeySignatureEvent{0, 0});
    shiftImportNotices(d, to, -length);
  });
  auto pull = [&](std::int64_t t) {
    if (t >= to) return t - length;
    return t >= from ? from : t;
  };
  setLoopStartTick(pull(_loopStartTick));
  setLoopEndTick(pull(_loopEndTick));
  if (!gone.empty()) {
    auto selection = _selectedNoteIDs;
    for (const auto& id : gone) selection.erase(id);
    setSelectedNoteIDs(std::move(selection));
  }
  return committed;
}

}  // namespace melvo
