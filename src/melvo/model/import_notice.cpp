#include "melvo/model/import_notice.h"

#include <algorithm>

#include "melvo/model/music_document.h"
#include "melvo/platform/text.h"

namespace melvo {

std::string canonicalSealLyric(std::string_view lyric) {
  std::string s = text::composeVoicedMarks(lyric);
  s = std::string(text::trimWhitespaceAndNewlines(s));
  return text::transliterate(s, "Katakana-Hiragana");
}

std::unordered_map<Uuid, const NoteEvent*> notesByID(const MusicDocument& document) {
  std::unordered_map<Uuid, const NoteEvent*> map;
  map.reserve(document.totalNoteCount());
  for (const auto& t : document.tracks)
    for (const auto& n : t.notes) map.insert_or_assign(n.id, &n);
  return map;
}

namespace {

template <typename F>
void forEachNoteID(const SuggestionAction& action, F&& f) {
  using S = ValidationIssue::Suggestion;
  std::visit(
      [&](const auto& a) {
        using T = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<T, S::SetLyrics>) {
          for (const auto& e : a.edits) f(e.id);
        } else if constexpr (std::is_same_v<T, S::SetTiming>) {
          for (const auto& e : a.edits) f(e.id);
        } else if constexpr (std::is_same_v<T, S::RemoveNotes> ||
                             std::is_same_v<T, S::TransposeNotes> ||
                             std::is_same_v<T, S::MoveNotesToNewTrack> ||
                             std::is_same_v<T, S::SetBreath>) {
          for (const auto& id : a.ids) f(id);
        } else if constexpr (std::is_same_v<T, S::Sequence>) {
          for (const auto& inner : a.actions) forEachNoteID(inner, f);
        }
      },
      action.v);
}

}  // namespace

std::set<Uuid> noteIDs(const SuggestionAction& action) {
  std::set<Uuid> ids;
  forEachNoteID(action, [&](const Uuid& id) { ids.insert(id); });
  return ids;
}

std::set<Uuid> ImportNotice::noteIDs() const {
  std::set<Uuid> ids;
  for (const auto& p : places) {
    if (p.noteID) ids.insert(*p.noteID);
    for (const auto& button : p.fixes)
      for (const auto& a : button) forEachNoteID(a, [&](const Uuid& id) { ids.insert(id); });
  }
  return ids;
}

void sealNotices(MusicDocument& document) {
  auto map = notesByID(document);
  for (auto& notice : document.importNotices) {
    if (notice.isSealed) continue;
    for (const Uuid& id : notice.noteIDs()) {
      auto it = map.find(id);
      if (it == map.end()) continue;
      const NoteEvent& n = *it->second;
      notice.sealed[id] = {n.tick, n.duration, n.pitch, canonicalSealLyric(n.lyric)};
    }
    notice.isSealed = true;
  }
}

NoticeLiveness liveness(const ImportNotice& notice,
                        const std::unordered_map<Uuid, const NoteEvent*>& notes) {
  NoticeLiveness out;
  const std::size_t n = notice.places.size();
  if (!notice.isSealed) {
    out.placeStillMeant.assign(n, true);
    out.fixesStillValid.assign(n, true);
    return out;
  }
  // The always-kept set wins: those kinds speak of the performance, which no lyric answers.
  const bool lyricMatters =
      isLyricSensitiveNotice(notice.kind->key) && !isAlwaysKeptNotice(notice.kind->key);
  // Same place, length and pitch as the importer left it (a missing note or seal is a change).
  auto unmoved = [&](const Uuid& id) -> const NoteEvent* {
    auto seal = notice.sealed.find(id);
    auto note = notes.find(id);
    if (seal == notice.sealed.end() || note == notes.end()) return nullptr;
    const NoteEvent& e = *note->second;
    const auto& s = seal->second;
    return (e.tick == s.tick && e.duration == s.duration && e.pitch == s.pitch) ? &e : nullptr;
  };
  for (const auto& place : notice.places) {
    bool live = true;
    if (place.noteID) {
      const NoteEvent* e = unmoved(*place.noteID);
      live = e && (!lyricMatters ||
                   canonicalSealLyric(e->lyric) == notice.sealed.at(*place.noteID).lyric);
    }
    bool fixesValid = true;
    for (const auto& button : place.fixes)
      for (const auto& a : button)
        forEachNoteID(a, [&](const Uuid& id) { fixesValid = fixesValid && unmoved(id); });
    out.placeStillMeant.push_back(live);
    out.fixesStillValid.push_back(fixesValid);
  }
  return out;
}

SuggestionAction shiftFixes(const SuggestionAction& action, std::int64_t fromTick,
                            std::int64_t delta) {
  using S = ValidationIssue::Suggestion;
  auto shift = [&](std::int64_t t) { return t >= fromTick ? addTicks(t, delta) : t; };
  return std::visit(
      [&](const auto& a) -> SuggestionAction {
        using T = std::decay_t<decltype(a)>;
        T c = a;
        if constexpr (std::is_same_v<T, S::SetTiming>) {
          for (auto& e : c.edits) e.tick = shift(e.tick);
        } else if constexpr (std::is_same_v<T, S::AddNotes>) {
          for (auto& n : c.notes) n.tick = shift(n.tick);
        } else if constexpr (std::is_same_v<T, S::SetTempos>) {
          c.from = shift(c.from);
          c.to = shift(c.to);
          for (auto& p : c.points) p.tick = shift(p.tick);
        } else if constexpr (std::is_same_v<T, S::InsertTime>) {
          c.atTick = shift(c.atTick);
        } else if constexpr (std::is_same_v<T, S::SetTimeSignature>) {
          c.tick = shift(c.tick);
        } else if constexpr (std::is_same_v<T, S::Sequence>) {
          for (auto& inner : c.actions) inner = shiftFixes(inner, fromTick, delta);
        }
        return c;
      },
      action.v);
}

}  // namespace melvo
