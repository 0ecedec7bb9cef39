// The findings shown to the user (score check and import notices share them).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "melvo/platform/uuid.h"

namespace melvo {

struct ValidationIssue {
  enum class Severity { error, warning, info };

  enum class Category {
    emptyLyric,
    invalidLyricChars,
    utauResidue,
    multiSyllable,
    phraseTooLong,
    shortRestBefore,
    noteOverlap,
    outOfRange,
    decoration,
    chordAtSameTick,
    standaloneSpecial,
    mixedDigits,
    symbols,
    emojiControl,
    zeroLength,
    unreadableKana,
    invalidYouon,
    polyphony,
    ghostVelocity,
    tieLyricDup,
    tempoIssue,
    timeSigIssue,
    importNotice,
    beyondExportLimit,
    allTracksMuted,
    noSungNotes,
  };
  static constexpr int kCategoryCount = 26;

  struct JumpPlace {
    std::int64_t tick = 0;
    std::optional<Uuid> noteID;
    bool operator==(const JumpPlace&) const = default;
  };
  struct NoteSpec {
    std::int64_t tick = 0, duration = 0;
    int pitch = 0;
    std::string lyric;
    bool operator==(const NoteSpec&) const = default;
  };
  struct NoteLyricEdit {
    Uuid id;
    std::string lyric;
    bool operator==(const NoteLyricEdit&) const = default;
  };
  struct NoteTimingEdit {
    Uuid id;
    std::int64_t tick = 0, duration = 0;
    bool operator==(const NoteTimingEdit&) const = default;
  };
  struct TempoPoint {
    std::int64_t tick = 0;
    double bpm = 120;
    bool operator==(const TempoPoint&) const = default;
  };

  struct Suggestion {
    // The repairs a row can offer, in their fixed order. Applying one is a single commit.
    struct SetLyric {
      std::string lyric;
      bool operator==(const SetLyric&) const = default;
    };
    struct SetVelocity {
      int velocity = 0;
      bool operator==(const SetVelocity&) const = default;
    };
    struct SetLyrics {
      std::vector<NoteLyricEdit> edits;
      bool operator==(const SetLyrics&) const = default;
    };
    struct RemoveNotes {
      std::vector<Uuid> ids;
      bool operator==(const RemoveNotes&) const = default;
    };
    struct SetTiming {
      std::vector<NoteTimingEdit> edits;
      bool operator==(const SetTiming&) const = default;
    };
    struct TransposeNotes {
      std::vector<Uuid> ids;
      int semitones = 0;
      bool operator==(const TransposeNotes&) const = default;
    };
    struct MoveNotesToNewTrack {
      std::vector<Uuid> ids;
      std::string trackName;
      bool operator==(const MoveNotesToNewTrack&) const = default;
    };
    struct AddNotes {
      int track = 0;
      std::vector<NoteSpec> notes;
      bool operator==(const AddNotes&) const = default;
    };
    struct SetTempos {
      std::int64_t from = 0, to = 0;
      std::vector<TempoPoint> points;
      bool operator==(const SetTempos&) const = default;
    };
    struct InsertTime {
      std::int64_t atTick = 0, length = 0;
      bool operator==(const InsertTime&) const = default;
    };
    struct SetTimeSignature {
      std::int64_t tick = 0;
      int numerator = 4, denominator = 4;
      bool operator==(const SetTimeSignature&) const = default;
    };
    struct SetBreath {
      std::vector<Uuid> ids;
      bool on = false;
      bool operator==(const SetBreath&) const = default;
    };
    struct SelectTrack {
      Uuid id;
      bool operator==(const SelectTrack&) const = default;
    };
    struct Action;
    struct Sequence {
      std::vector<Action> actions;
      bool operator==(const Sequence&) const;
    };
    struct PrependSokuon {
      bool operator==(const PrependSokuon&) const = default;
    };
    struct BreathOnPreviousNote {
      bool operator==(const BreathOnPreviousNote&) const = default;
    };
    struct RemoveNote {
      bool operator==(const RemoveNote&) const = default;
    };
    struct KeepAsIs {
      bool operator==(const KeepAsIs&) const = default;
    };

    struct Action {
      using Variant = std::variant<SetLyric, SetVelocity, SetLyrics, RemoveNotes, SetTiming,
                                   TransposeNotes, MoveNotesToNewTrack, AddNotes, SetTempos,
                                   InsertTime, SetTimeSignature, SetBreath, SelectTrack, Sequence,
                                   PrependSokuon, BreathOnPreviousNote, RemoveNote, KeepAsIs>;
      Variant v;
      template <typename T>
      Action(T value) : v(std::move(value)) {}
      bool operator==(const Action& o) const { return v == o.v; }
      // True for the two cases that leave the song as it is.
      bool changesSong() const {
        return !std::holds_alternative<SelectTrack>(v) && !std::holds_alternative<KeepAsIs>(v);
      }
    };

    std::string label;
    Action action;
    bool operator==(const Suggestion&) const = default;
  };

  Uuid id;
  std::optional<Uuid> noteID;
  int trackIndex = 0;
  std::int64_t tick = 0;
  Severity severity = Severity::info;
  Category category = Category::importNotice;
  std::string message;
  std::optional<std::string> detail;
  std::vector<Suggestion> suggestions;
  std::optional<std::int64_t> endTick;
  std::optional<Uuid> noticeID;
  std::optional<Uuid> jumpNoteID;
  std::vector<JumpPlace> jumpPlaces;
  bool wholeSong = false;

  bool operator==(const ValidationIssue&) const = default;
};

inline bool ValidationIssue::Suggestion::Sequence::operator==(const Sequence& o) const {
  return actions == o.actions;
}

using SuggestionAction = ValidationIssue::Suggestion::Action;

// Raw strings (the case names) and the labels shown in the issues list.
std::string_view severityName(ValidationIssue::Severity s);
std::string_view categoryName(ValidationIssue::Category c);
std::optional<ValidationIssue::Category> categoryFromName(std::string_view name);
// The Japanese catalogue key of the label; pass through tr() to show it.
const char* categoryLabelKey(ValidationIssue::Category c);

}  // namespace melvo
