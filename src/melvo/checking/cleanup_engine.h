// The clean-up ("歌詞と音符を自動で直す"): a fixed sequence of passes that turns lyrics and
// notes read from other software into what the engine wants, hiragana and one sound to a
// note. Every pass sits behind one switch and logs each change it makes, so nothing is lost
// without a line in the log; the caller commits the result as one undo step.
#pragma once

#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "melvo/checking/suggestion_applier.h"
#include "melvo/model/music_document.h"
#include "melvo/model/validation_issue.h"

namespace melvo {

// The switches in the order the record keeps them. Six of them run no pass and stay only so
// that a stored set of switches keeps its shape: pitchOutOfRange, orphanTie, slurNumbering,
// tempoInvalid, timeSigDenom and emptyTailBars.
struct CleanupOptions {
  bool utauResidue = true;
  bool unreadableKana = true;
  bool symbols = true;
  bool whitespace = true;
  bool nfcNormalize = true;
  bool halfWidthKana = true;
  bool kanjiToHiragana = true;
  bool standaloneChouon = true;
  // Off at first: a lone っ can be meant.
  bool standaloneSokuon = false;
  bool standaloneYouon = true;
  bool multiSyllable = true;
  bool foreignKana = true;
  bool particleHa = true;
  bool emojiControl = true;
  bool chordToMonophonic = true;
  bool overlap = true;
  bool zeroLength = true;
  bool pitchOutOfRange = true;
  bool orphanTie = true;
  bool slurNumbering = true;
  bool tieSlurConflict = true;
  bool tempoDedup = true;
  bool tempoInvalid = true;
  bool timeSigDenom = true;
  bool emptyHeadBars = true;
  bool emptyTailBars = true;
  bool timeSigDedup = true;

  bool operator==(const CleanupOptions&) const = default;
};

// Findings that can be slips or intent; the user decides once how the clean-up treats each.
// The decisions are kept between runs by the application's CleanupPolicyStore.
enum class AmbiguousPattern { invalidYouon, tieLyricDup, ghostVelocity };
enum class CleanupDecision {
  ask,       // nothing changes; the rows are offered one by one after the run
  autoFix,   // the row's first repair is applied
  autoSkip,  // nothing changes and nothing is offered
};
struct CleanupPolicy {
  CleanupDecision invalidYouon = CleanupDecision::ask;
  CleanupDecision tieLyricDup = CleanupDecision::ask;
  CleanupDecision ghostVelocity = CleanupDecision::ask;
  CleanupDecision decision(AmbiguousPattern p) const;
  bool operator==(const CleanupPolicy&) const = default;
};

// A switch by the name the record gives it, for the command line and scripts.
struct CleanupSwitch {
  const char* name;
  bool CleanupOptions::*field;
  const char* label;  // catalogue key of the pass's label
};
// The switches whose pass runs, in the order of the passes.
const std::vector<CleanupSwitch>& implementedCleanupSwitches();

struct CleanupReport {
  // Pass label (Japanese catalogue key) to the number of changes.
  std::map<std::string, int> byCategory;
  // The labels in the order the passes ran, for showing the rows in that order.
  std::vector<std::string> categoryOrder;
  std::vector<RepairLogEntry> entries;
  // The pass label of each entry, by index.
  std::vector<std::string> entryCategories;
  std::vector<ValidationIssue> pendingDecisions;
  double startTime = 0, endTime = 0;  // seconds since 2001-01-01
  std::unordered_set<Uuid> keepWhole;
  bool sungNotesBecameZero = false;
};

struct CleanupResult {
  MusicDocument document;
  CleanupReport report;
};

// `sungTrackIDs`: the tracks the guard counts sung notes on (empty: every unmuted track).
// `keepWhole`: notes the user keeps whole, which the split pass leaves. `policy`: how the
// three ambiguous findings are treated once the passes are done.
CleanupResult runCleanup(const MusicDocument& document, const CleanupOptions& options,
                         const std::vector<Uuid>& sungTrackIDs,
                         const std::unordered_set<Uuid>& keepWhole = {},
                         const CleanupPolicy& policy = {});

}  // namespace melvo
