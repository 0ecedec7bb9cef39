// Importer findings held in the song: what a foreign file said that the song could not keep
// as it was. They live in memory and in undo copies only, never in the project file.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "melvo/model/validation_issue.h"
#include "melvo/platform/uuid.h"

namespace melvo {

struct MusicDocument;
struct NoteEvent;

enum class NoticeHandling { dropped, converted, kept };
std::string_view handlingName(NoticeHandling h);

// One static instance per kind; notices point at it. `message` holds "%d" for the count.
// Texts are catalogue keys (Japanese), translated when shown.
struct ImportNoticeKind {
  const char* key;
  ValidationIssue::Severity severity;
  NoticeHandling handling;
  ValidationIssue::Category category;
  const char* message;
  const char* detail;                // nullptr when the kind has none
  std::vector<const char*> buttons;  // labels of the fix buttons

  bool operator==(const ImportNoticeKind& o) const;
};

// Every kind, by key.
#define MELVO_NOTICE_KINDS(X) \
  X(tsslnTracksUnreadable)    \
  X(cevioNotesDropped)        \
  X(cevioPitchGuessed)        \
  X(cevioLyricFromPhoneme)    \
  X(cevioTuningCurves)        \
  X(cevioTempoFixed)          \
  X(midiTwoMelodiesSplit)     \
  X(midiArpeggioMoved)        \
  X(midiLyricMovedNote)       \
  X(midiMelisma)              \
  X(midiLyricNotPlaced)       \
  X(midiLyricsTrackChosen)    \
  X(midiOrphanLyricsDropped)  \
  X(midiOrphanLyricsIgnored)  \
  X(midiTextNotLyrics)        \
  X(midiLyricUnreadable)      \
  X(midiLyricGarbled)         \
  X(midiNearOnsetsMerged)     \
  X(midiLyricOverflowInChord) \
  X(midiLyricOverflow)        \
  X(midiLyricAtNoteEnd)       \
  X(midiMissingNoteOff)       \
  X(midiFileDamaged)          \
  X(midiBrokenDivision)       \
  X(midiChannelsUndecided)    \
  X(twoLyricsOnOneNote)       \
  X(elision)                  \
  X(midiLyricWithoutOnset)    \
  X(midiTinyGapsClosed)       \
  X(midiOrnamentNotes)        \
  X(secondVerse)              \
  X(cueNotesDropped)          \
  X(fermata)                  \
  X(fermataOnRest)            \
  X(ornaments)                \
  X(glissando)                \
  X(wordsOnlyTempo)           \
  X(wordsOnlyTempoDefault)    \
  X(ritAccel)                 \
  X(swing)                    \
  X(tempoInsideNote)          \
  X(microtones)               \
  X(additiveMeter)            \
  X(meterClamped)             \
  X(meterRebarred)            \
  X(dsWithoutSegno)           \
  X(percussionDropped)        \
  X(spokenPart)               \
  X(singingStyleWords)        \
  X(synthParameters)          \
  X(lyricOnRest)              \
  X(gracesWithoutLyric)       \
  X(pitchOffsetWhole)         \
  X(silentInSource)           \
  X(phonemeOverride)          \
  X(rapNotes)                 \
  X(tracksDropped)            \
  X(falsetto)                 \
  X(breathConverted)          \
  X(karaokeTextLyrics)        \
  X(smpteMIDI)                \
  X(mxSyllablesSplit)         \
  X(mxGraceNotPlaced)         \
  X(mxMetricModulation)       \
  X(mxSpecialNoteheads)       \
  X(mxPronunciationMarks)     \
  X(mxCodaNotFound)           \
  X(mxTieAcrossGap)           \
  X(mxSlurMelisma)            \
  X(mxUnreadablePitch)        \
  X(mxTempoOutOfRange)        \
  X(mxUnsungLyricLine)        \
  X(mxVoiceWithoutLyrics)     \
  X(mxHummingLaughing)        \
  X(ppsfMutedNotes)           \
  X(ppsfTrackFlags)           \
  X(ppsfTempoCurve)           \
  X(sourceTempoClamped)       \
  X(sourceTempoDuplicate)     \
  X(sourceMeterDuplicate)     \
  X(sourceMeterBeforeStart)   \
  X(sourcePitchClamped)       \
  X(svpForeignVoiceGroup)     \
  X(svpBreathNote)            \
  X(svpBreathSilenceRest)     \
  X(svpNotesBeforeZero)       \
  X(svpNotesOnlyBeforeZero)   \
  X(utauSuffixRemoved)        \
  X(openUtauHyphen)           \
  X(glottalOnlyLyric)         \
  X(phoneticHintRemoved)      \
  X(phoneticHintWithoutKana)  \
  X(cvvcVowelLink)            \
  X(foreignLanguageNotes)     \
  X(foreignVoiceTrack)        \
  X(utauTempoReplaced)        \
  X(utauNoteDropped)          \
  X(utauPitchReplaced)        \
  X(utauVCLinkedShort)        \
  X(utauBreathNote)           \
  X(utauLengthTooLong)        \
  X(utauBeyondExportLimit)    \
  X(utauBeyondTickLimit)      \
  X(utauEncodingGuessed)      \
  X(utauBrokenChars)          \
  X(ustxUnreadLines)          \
  X(ustxUnclosedQuote)        \
  X(ustxResolutionInvalid)    \
  X(ustxReadAsShiftJIS)       \
  X(ustxTrackNoGuessed)       \
  X(ustxTrackNoInvalid)       \
  X(phonemeOverrideNoKana)

namespace notice_kinds {
#define MELVO_DECLARE_NOTICE_KIND(k) extern const ImportNoticeKind k;
MELVO_NOTICE_KINDS(MELVO_DECLARE_NOTICE_KIND)
#undef MELVO_DECLARE_NOTICE_KIND
}  // namespace notice_kinds

// Fixed kinds by key, and the verse kinds below made on demand.
const ImportNoticeKind* findNoticeKind(std::string_view key);
// Verses of a score beyond the second: one kind per verse, keyed "mxOtherVerse_" and the
// verse's number, so that each verse is a row whose button sings that verse. They share one
// set of words and live as long as the program, like the fixed kinds. `verse` is neither
// empty nor "2" (verse 2 has `secondVerse`).
const ImportNoticeKind& otherVerseNoticeKind(std::string_view verse);
inline constexpr std::string_view kOtherVersePrefix = "mxOtherVerse_";
const std::vector<const ImportNoticeKind*>& allNoticeKinds();

// Kinds whose places are judged also by their lyric, and kinds a lyric edit does not retire.
bool isLyricSensitiveNotice(std::string_view key);
bool isAlwaysKeptNotice(std::string_view key);
// Kinds that the score check leaves out where its own finding says the same.
bool isSuppressedByValidatorFinding(std::string_view key);

struct ImportNotice {
  struct Place {
    std::optional<Uuid> noteID;
    std::int64_t tick = 0;
    std::optional<std::string> text;
    std::vector<std::vector<SuggestionAction>> fixes;  // per button, its actions
    int count = 1;
    bool operator==(const Place&) const = default;
  };
  // The note as the importer left it.
  struct NoteSeal {
    std::int64_t tick = 0, duration = 0;
    int pitch = 0;
    std::string lyric;
    bool operator==(const NoteSeal&) const = default;
  };

  Uuid id;
  const ImportNoticeKind* kind = nullptr;
  std::optional<int> trackIndex;
  std::vector<Place> places;
  int count = 0;
  std::unordered_map<Uuid, NoteSeal> sealed;
  bool isSealed = false;

  bool operator==(const ImportNotice& o) const {
    return id == o.id && *kind == *o.kind && trackIndex == o.trackIndex && places == o.places &&
           count == o.count && sealed == o.sealed && isSealed == o.isSealed;
  }
  // Note ids of the places and of all their fixes.
  std::set<Uuid> noteIDs() const;
};

struct NoticeLiveness {
  std::vector<bool> placeStillMeant;
  std::vector<bool> fixesStillValid;
};

// The lyric as compared by seals: NFC with spacing voiced marks joined to their kana, trimmed,
// katakana as hiragana, so that a change of script or spelling is not taken for an edit.
std::string canonicalSealLyric(std::string_view lyric);

// Seals every notice not yet sealed against the document's current notes.
void sealNotices(MusicDocument& document);
NoticeLiveness liveness(const ImportNotice& notice,
                        const std::unordered_map<Uuid, const NoteEvent*>& notesByID);
// Map over all tracks; a later duplicate id wins.
std::unordered_map<Uuid, const NoteEvent*> notesByID(const MusicDocument& document);

// Rewrites ticks inside an action after time was inserted (delta > 0) or deleted (delta < 0)
// at `fromTick`: ticks at or after it move, saturating at 0 and maxTick.
SuggestionAction shiftFixes(const SuggestionAction& action, std::int64_t fromTick,
                            std::int64_t delta);
std::set<Uuid> noteIDs(const SuggestionAction& action);

}  // namespace melvo
