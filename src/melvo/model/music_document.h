// The song as one plain value: tracks of notes, tempo, meter and key maps, a title. Copies
// are cheap (each track's notes are shared until changed), which is what lets undo keep whole
// documents.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "melvo/model/import_notice.h"
#include "melvo/model/note_event.h"
#include "melvo/model/note_list.h"
#include "melvo/platform/uuid.h"

namespace melvo {

struct TempoEvent {
  std::int64_t tick = 0;
  double bpm = 120;
  bool operator==(const TempoEvent&) const = default;
};

struct TimeSignatureEvent {
  std::int64_t tick = 0;
  int numerator = 4;
  int denominator = 4;
  bool operator==(const TimeSignatureEvent&) const = default;
};

struct KeySignatureEvent {
  std::int64_t tick = 0;
  int fifths = 0;
  bool operator==(const KeySignatureEvent&) const = default;
};

class BarRuler;

struct MusicTrack {
  Uuid id = Uuid::random();
  std::string name = "Track 1";
  NoteList notes;
  bool isMuted = false;
  bool isSolo = false;
  double volume = 1.0;  // linear gain
  double pan = 0.0;
  std::string characterName;  // the voice; empty when none is assigned
  std::string colorHex = defaultTrackColor();

  static const std::string& defaultTrackColor();
  bool operator==(const MusicTrack&) const = default;
};

struct MusicDocument {
  std::int64_t schemaVersion = 1;
  std::string title = "Untitled";
  std::int64_t ppq = 480;
  std::vector<MusicTrack> tracks{MusicTrack{}};
  std::vector<TempoEvent> tempoMap{TempoEvent{}};
  std::vector<TimeSignatureEvent> timeSignatures{TimeSignatureEvent{}};
  std::vector<KeySignatureEvent> keySignatures{KeySignatureEvent{}};
  std::vector<ImportNotice> importNotices;  // not saved
  bool madeAsNewProject = false;            // not saved

  bool operator==(const MusicDocument&) const = default;

  // ---- Queries ----
  std::int64_t endTick() const;  // over all notes, muted tracks included
  std::int64_t ticksPerBarAtStart() const;
  BarRuler barRuler() const;
  std::vector<TempoEvent> sortedTempoMap() const;  // stable by tick
  // Conversions over the sorted tempo map; for many conversions sort once and use the free
  // functions below.
  double seconds(std::int64_t atTick) const;
  std::int64_t tick(double atSeconds) const;
  std::int64_t tickOfBarCount(std::int64_t bars) const;

  bool isSounding(const MusicTrack& track) const;
  bool isSingable(const MusicTrack& track) const;
  std::vector<int> voicedTrackIndices(bool includeSilenced) const;
  bool allNotedTracksMuted() const;
  std::optional<int> fallbackTrackWhenAllMuted(std::optional<int> preferred) const;
  std::optional<int> preferredSungTrack(std::optional<int> preferred) const;
  MusicDocument singleTrackCopy(int index) const;
  bool isUntouchedNewProject() const;
  std::size_t totalNoteCount() const;

  // ---- Notices ----
  void addNotice(const ImportNoticeKind& kind, std::optional<int> trackIndex,
                 std::optional<Uuid> noteID, std::int64_t tick,
                 std::optional<std::string> text = std::nullopt,
                 std::vector<std::vector<SuggestionAction>> fixes = {}, int count = 1);
  void removeNotice(const Uuid& id);

  // ---- Repairs after decoding ----
  // Tempos: finite and positive clamps to 1..1000, anything else becomes 120. Meters:
  // numerator to 1..64, a denominator other than 1, 2, 4, 8, 16, 32 becomes 4.
  void repairMaps();
};

// Tick/seconds conversion over a tempo map that the caller sorted by tick.
double secondsAt(std::int64_t tick, const std::vector<TempoEvent>& sortedTempo, std::int64_t ppq);
std::int64_t tickAt(double seconds, const std::vector<TempoEvent>& sortedTempo, std::int64_t ppq);

// Text helpers for importers.
bool isGenericTrackName(std::string_view name);
bool isBreathMark(std::string_view lyric);

}  // namespace melvo
