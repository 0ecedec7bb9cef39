// The last check before the engine runs. NEUTRINO fails a whole song over one note it cannot
// read, minutes into a render and with a terse log, so the gate repeats the engine's own rules
// (measured against it) on the sung tracks, refuses a render that would fail, and names the
// notes. After a failed render it reads the engine's log back onto notes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "melvo/checking/lyric_rules.h"
#include "melvo/checking/voice_range.h"
#include "melvo/model/music_document.h"

namespace melvo {

// What the rules need to know about one lyric, computed once per note and shared by the gate
// and the validator. Cheap for plain kana: the lyric functions run only where they can matter.
struct LyricFacts {
  ReadingKind reading = ReadingKind::empty;
  bool emptyTrimmed = true;  // nothing but white space and newlines
  bool allKana = false;      // every scalar in the kana blocks
  bool onlyChouon = false;
  bool onlySokuon = false;
  bool startsWithSustain = false;
  int phonemes = 0;
  int scalars = 0;
};
LyricFacts lyricFacts(std::string_view lyric);

// A track's notes in the order the score writer sings them: by tick, at one tick a note with
// a lyric first, then one that isn't very short, then stored order. Only the first note at a
// tick is sung; each sung note ends where the next sung one begins.
struct TrackLine {
  std::vector<const NoteEvent*> notes;
  std::vector<std::uint32_t> storedIndex;  // position in the track's list
  // notes[i]->tick, side by side: the passes that need only times read these instead of
  // reaching into every note of a long song again.
  std::vector<std::int64_t> ticks;
  std::vector<std::int64_t> ends;  // sung end (raw end for notes that aren't sung)
  std::vector<bool> sung;

  static TrackLine of(const NoteList& notes, std::int64_t ppq);
};

class SynthesisGate {
 public:
  enum class Kind {
    emptyLyric,
    undefinedLyric,
    macronAfterRest,
    tooManyPhonemes,
    pitchTooLow,
    beyondBarLimit,
    noSungNotes,
    afterStrandedSokuon,
  };

  struct Problem {
    Uuid noteID;
    int trackIndex = 0;
    std::int64_t tick = 0;
    std::string lyric;
    Kind kind = Kind::emptyLyric;
    std::string text;
    std::string place;  // "Tr.1 3小節目1拍", for lists
    bool operator==(const Problem&) const = default;
  };

  struct LogHit {
    std::int64_t measure = 0;
    std::optional<std::string> lyric;
    bool operator==(const LogHit&) const = default;
  };
  struct LogReading {
    std::vector<LogHit> hits;
    bool restAdded = false;
  };

  // The reading of one note of a line; `afterUnreadable` tells the two causes of
  // macronAfterRest apart (a rest before, or a lyric the engine cannot read).
  struct NoteReading {
    std::optional<Kind> kind;
    bool afterUnreadable = false;
  };

  // Lowest pitch the engine survives.
  static constexpr int lowestPitch = 23;

  // The per-note reading of one track, by note id (notes the writer drops have none).
  static std::unordered_map<Uuid, Kind> noteKinds(const NoteList& notes, std::int64_t ppq = 480);
  // The same over a prepared line and its facts, aligned with line.notes.
  static std::vector<NoteReading> readLine(const TrackLine& line,
                                           const std::vector<LyricFacts>& facts);

  // Every problem of the sung tracks. An empty set means the one track that would be sung:
  // `selectedTrack` when it can be sung, else the document's preferred track.
  static std::vector<Problem> problems(const MusicDocument& document,
                                       const std::vector<Uuid>& sungTrackIDs,
                                       std::optional<int> selectedTrack = std::nullopt);
  // Track indices that `problems` and the validator treat as sung.
  static std::vector<int> sungTrackIndices(const MusicDocument& document,
                                           const std::vector<Uuid>& sungTrackIDs,
                                           std::optional<int> selectedTrack = std::nullopt);

  static bool blocks(const std::vector<Problem>& problems) { return !problems.empty(); }
  static std::string refusal(const std::vector<Problem>& problems);
  static std::string refusalWithList(const std::vector<Problem>& problems);

  // The explanation of a kind, shared with the validator's rows (a catalogue key).
  static const char* detailKey(Kind kind, bool afterUnreadable = false);

  static LogReading parseLog(const std::vector<std::string>& lines);
  // The engine counts one bar more when it added a rest bar at the start.
  static std::int64_t melvoBar(std::int64_t engineBar, bool restAdded) {
    return restAdded ? engineBar - 1 : engineBar;
  }
  // The log line that explains the shift.
  static std::string restBarLine(std::int64_t engineBar, std::int64_t melvoBar);
  // The note a log hit points at: in the hit's bar, the note whose lyric equals the hit's,
  // else the first note of the bar.
  static std::optional<Uuid> noteForLogHit(const MusicDocument& document, int trackIndex,
                                           const LogHit& hit, bool restAdded);

  // The range of the voice in <engine>/model/<voice>/info.toml, read once per folder (safe
  // from any thread). nullopt when the model says nothing: callers use VoiceRange::fixed().
  static std::optional<VoiceRange::Range> voiceRange(const std::filesystem::path& engineDir,
                                                     const std::string& voice);
  static void clearVoiceRangeCache();
  // Ranges for every track with a voice, by track id, as the validator takes them.
  static std::unordered_map<Uuid, VoiceRange::Range> voiceRanges(
      const MusicDocument& document, const std::filesystem::path& engineDir);
};

// What the score loses of one track at the bar ceiling, as the writer's export report says it
// (checked against it), but read off the prepared line without copying the notes: indices
// into line.notes of sung notes that start at or past `ceiling`, and of those that cross it.
struct CeilingLoss {
  std::vector<std::size_t> beyond;
  std::vector<std::size_t> crossing;
  bool empty() const { return beyond.empty() && crossing.empty(); }
};
CeilingLoss ceilingLoss(const TrackLine& line, std::optional<std::int64_t> ceiling);

const char* gateKindName(SynthesisGate::Kind kind);

}  // namespace melvo
