// The score check: every note the engine would fail on, sing other than the user expects, or
// sing badly, as an ordered list of findings with their words, places and one-press repairs.
// It changes nothing and runs on every edit, so it is one pass per track over sorted notes,
// and the same song always gives the same list (ids aside).
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "melvo/checking/voice_range.h"
#include "melvo/model/music_document.h"
#include "melvo/model/validation_issue.h"

namespace melvo {

struct ValidatorOptions {
  // The track the user has selected; sung when the sung set is empty.
  std::optional<int> selectedTrack;
  // Whether the clean-up trims overlapping notes; the overlap rows point at it only then.
  bool cleanupTrimsOverlaps = true;
};

// `sungTrackIDs`: the tracks the next render uses (empty: the selected track). `voiceRanges`:
// by track id; a track without an entry is checked against VoiceRange::fixed(). `keepWhole`:
// notes the user wants sung as one, which get no several-syllables warning.
std::vector<ValidationIssue> validate(
    const MusicDocument& document, const std::vector<Uuid>& sungTrackIDs,
    const std::unordered_map<Uuid, VoiceRange::Range>& voiceRanges,
    const std::unordered_set<Uuid>& keepWhole = {}, const ValidatorOptions& options = {});

// ---- Helpers shared with the clean-up and the issues list ----

// Within one tick of a 64th grid, or of a common tuplet grid.
bool isStandardLength(std::int64_t duration, std::int64_t ppq);
// "4分音符", "付点8分音符", or "1.50拍".
std::string noteLengthLabel(std::int64_t duration, std::int64_t ppq);
// Places joined with "・": seven shown, then "…" (with the number left over past eight).
std::string joinPlaces(const std::vector<std::string>& shown, std::size_t total);

}  // namespace melvo
