#include "melvo/model/music_document.h"

#include <algorithm>
#include <cmath>

#include "melvo/model/bar_ruler.h"
#include "melvo/model/note_color_catalog.h"
#include "melvo/platform/text.h"

namespace melvo {

const std::string& MusicTrack::defaultTrackColor() {
  return noteColorHex(0);
}

std::int64_t MusicDocument::endTick() const {
  std::int64_t end = 0;
  for (const auto& t : tracks)
    for (const auto& n : t.notes) end = std::max(end, n.endTick());
  return end;
}

std::int64_t MusicDocument::ticksPerBarAtStart() const {
  TimeSignatureEvent first = timeSignatures.empty() ? TimeSignatureEvent{} : timeSignatures.front();
  std::int64_t denominator = first.denominator == 0 ? 4 : first.denominator;
  return first.numerator * ppq * 4 / denominator;
}

BarRuler MusicDocument::barRuler() const {
  return BarRuler(ppq, timeSignatures);
}

std::vector<TempoEvent> MusicDocument::sortedTempoMap() const {
  std::vector<TempoEvent> sorted = tempoMap;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.tick < b.tick; });
  return sorted;
}

double secondsAt(std::int64_t tick, const std::vector<TempoEvent>& tempo, std::int64_t ppq) {
  const double q = static_cast<double>(std::max<std::int64_t>(ppq, 1));
  if (tempo.empty()) return static_cast<double>(tick) * 60 / (q * 120);
  // Ticks before the first event run at its tempo: no 120 bpm lead-in is assumed.
  double bpm = tempo.front().bpm, time = 0;
  std::int64_t previous = 0;
  for (const auto& e : tempo) {
    if (e.tick >= tick) break;
    time += static_cast<double>(e.tick - previous) * 60 / (q * bpm);
    previous = e.tick;
    bpm = e.bpm;
  }
  return time + static_cast<double>(tick - previous) * 60 / (q * bpm);
}

std::int64_t tickAt(double seconds, const std::vector<TempoEvent>& tempo, std::int64_t ppq) {
  if (!(seconds > 0)) return 0;
  const double q = static_cast<double>(std::max<std::int64_t>(ppq, 1));
  double bpm = tempo.empty() ? 120 : tempo.front().bpm, time = 0;
  std::int64_t previous = 0;
  for (const auto& e : tempo) {
    std::int64_t span = e.tick - previous;
    double endTime = time + static_cast<double>(span) * 60 / (q * bpm);
    if (span > 0 && endTime >= seconds) break;
    time = endTime;
    previous = e.tick;
    bpm = e.bpm;
  }
  // The small addend keeps tick -> seconds -> tick on the same tick.
  double t =
      std::floor(q * ((seconds - time) * bpm) / 60 + static_cast<double>(previous) + 0.000001);
  t = std::min(t, 2305843009213693952.0);
  return static_cast<std::int64_t>(t);
}

double MusicDocument::seconds(std::int64_t atTick) const {
  return secondsAt(atTick, sortedTempoMap(), ppq);
}

std::int64_t MusicDocument::tick(double atSeconds) const {
  return tickAt(atSeconds, sortedTempoMap(), ppq);
}

std::int64_t MusicDocument::tickOfBarCount(std::int64_t bars) const {
  // Deliberately not the bar walk of the ruler: a partial bar ahead of a meter change counts
  // for nothing here.
  std::vector<TimeSignatureEvent> meters = timeSignatures;
  std::stable_sort(meters.begin(), meters.end(),
                   [](const auto& a, const auto& b) { return a.tick < b.tick; });
  if (meters.empty() || meters.front().tick != 0) {
    meters.insert(meters.begin(), TimeSignatureEvent{0, 4, 4});
  }
  std::int64_t left = std::max<std::int64_t>(bars, 0), cursor = 0;
  for (std::size_t i = 0; i < meters.size() && left > 0; ++i) {
    const std::int64_t tp = ticksPerBar(meters[i], ppq);
    if (i + 1 == meters.size()) {
      std::int64_t add;
      if (__builtin_mul_overflow(left, tp, &add)) add = maxTick;
      return addTicks(cursor, add);
    }
    const std::int64_t span = std::max<std::int64_t>(meters[i + 1].tick - meters[i].tick, 0);
    const std::int64_t k = std::min(span / tp, left);
    cursor = addTicks(meters[i].tick, k * tp);
    left -= k;
    if (left > 0) cursor = std::clamp<std::int64_t>(meters[i + 1].tick, 0, maxTick);
  }
  return cursor;
}

bool MusicDocument::isSounding(const MusicTrack& track) const {
  if (track.isMuted) return false;
  // A muted solo is no active solo.
  bool anySolo = std::any_of(tracks.begin(), tracks.end(),
                             [](const MusicTrack& t) { return t.isSolo && !t.isMuted; });
  return anySolo ? track.isSolo : true;
}

bool MusicDocument::isSingable(const MusicTrack& track) const {
  return isSounding(track) && !track.notes.empty();
}

std::vector<int> MusicDocument::voicedTrackIndices(bool includeSilenced) const {
  std::vector<int> out;
  for (std::size_t i = 0; i < tracks.size(); ++i) {
    const auto& t = tracks[i];
    if (t.characterName.empty() || t.notes.empty()) continue;
    if (!includeSilenced && !isSounding(t)) continue;
    out.push_back(static_cast<int>(i));
  }
  return out;
}

bool MusicDocument::allNotedTracksMuted() const {
  bool anyNoted = false;
  for (const auto& t : tracks) {
    if (t.notes.empty()) continue;
    anyNoted = true;
    if (!t.isMuted) return false;
  }
  return anyNoted;
}

std::optional<int> MusicDocument::fallbackTrackWhenAllMuted(std::optional<int> preferred) const {
  if (!allNotedTracksMuted()) return std::nullopt;
  if (preferred && *preferred >= 0 && *preferred < static_cast<int>(tracks.size()) &&
      !tracks[*preferred].notes.empty()) {
    return preferred;
  }
  for (std::size_t i = 0; i < tracks.size(); ++i)
    if (!tracks[i].notes.empty()) return static_cast<int>(i);
  return std::nullopt;
}

std::optional<int> MusicDocument::preferredSungTrack(std::optional<int> preferred) const {
  for (std::size_t i = 0; i < tracks.size(); ++i)
    if (isSingable(tracks[i]) && !tracks[i].characterName.empty()) return static_cast<int>(i);
  if (preferred && *preferred >= 0 && *preferred < static_cast<int>(tracks.size()) &&
      isSingable(tracks[*preferred])) {
    return preferred;
  }
  for (std::size_t i = 0; i < tracks.size(); ++i)
    if (isSingable(tracks[i])) return static_cast<int>(i);
  return std::nullopt;
}

MusicDocument MusicDocument::singleTrackCopy(int index) const {
  MusicDocument copy = *this;
  copy.tracks.clear();
  if (index >= 0 && index < static_cast<int>(tracks.size())) copy.tracks.push_back(tracks[index]);
  return copy;
}

bool MusicDocument::isUntouchedNewProject() const {
  return madeAsNewProject && importNotices.empty() &&
         std::all_of(tracks.begin(), tracks.end(), [](const auto& t) { return t.notes.empty(); });
}

std::size_t MusicDocument::totalNoteCount() const {
  std::size_t n = 0;
  for (const auto& t : tracks) n += t.notes.size();
  return n;
}

void MusicDocument::addNotice(const ImportNoticeKind& kind, std::optional<int> trackIndex,
                              std::optional<Uuid> noteID, std::int64_t tick,
                              std::optional<std::string> text,
                              std::vector<std::vector<SuggestionAction>> fixes, int count) {
  ImportNotice::Place place{noteID, tick, std::move(text), std::move(fixes), count};
  for (auto& n : importNotices) {
    if (std::string_view(n.kind->key) == kind.key && n.trackIndex == trackIndex) {
      n.places.push_back(std::move(place));
      n.count += count;
      return;
    }
  }
  ImportNotice n;
  n.id = Uuid::random();
  n.kind = &kind;
  n.trackIndex = trackIndex;
  n.places.push_back(std::move(place));
  n.count = count;
  importNotices.push_back(std::move(n));
}

void MusicDocument::removeNotice(const Uuid& id) {
  importNotices.erase(std::remove_if(importNotices.begin(), importNotices.end(),
                                     [&](const ImportNotice& n) { return n.id == id; }),
                      importNotices.end());
}

void MusicDocument::repairMaps() {
  for (auto& t : tempoMap) {
    t.bpm = (std::isfinite(t.bpm) && t.bpm > 0) ? std::clamp(t.bpm, 1.0, 1000.0) : 120.0;
  }
  for (auto& s : timeSignatures) {
    s.numerator = std::clamp(s.numerator, 1, 64);
    const int d = s.denominator;
    if (!(d == 1 || d == 2 || d == 4 || d == 8 || d == 16 || d == 32)) s.denominator = 4;
  }
}

bool isGenericTrackName(std::string_view name) {
  const std::string lowered = text::toLower(text::trimWhitespaceAndNewlines(name));
  if (lowered.empty()) return true;
  static constexpr std::string_view kGeneric[] = {
      "master track", "track",       "untitled", "no title", "vocal",
      "melody",       "new project", "project",  "song",     "sequence name"};
  for (auto g : kGeneric)
    if (lowered == g) return true;
  // ^(track|トラック)\s*[0-9]+$
  std::string_view rest = lowered;
  if (text::startsWith(rest, "track")) {
    rest.remove_prefix(5);
  } else if (text::startsWith(rest, "トラック")) {
    rest.remove_prefix(std::string_view("トラック").size());
  } else {
    return false;
  }
  std::size_t i = 0;
  while (i < rest.size()) {
    std::size_t next = i;
    if (!text::isWhitespaceOrNewline(text::nextScalar(rest, next))) break;
    i = next;
  }
  rest.remove_prefix(i);
  if (rest.empty()) return false;
  return std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isBreathMark(std::string_view lyric) {
  std::string_view t = text::trimWhitespaceAndNewlines(lyric);
  if (t == "息" || t == "吸") return true;
  std::string lowered = text::toLower(t);
  return lowered == "br" || lowered == "breath";
}

}  // namespace melvo
