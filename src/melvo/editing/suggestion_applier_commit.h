// Applying a repair to the open song: one undo step "編集", the log lines appended to the
// editor's conversion log. Kept apart from the pure applier because it needs the editor.
#pragma once

#include <string>

#include "melvo/checking/cleanup_engine.h"
#include "melvo/checking/suggestion_applier.h"

namespace melvo {

class PianoRollViewModel;

// Returns false (and pushes no step) when the action named nothing the song still has and
// no notice was to be removed.
bool commitSuggestion(PianoRollViewModel& model, const ValidationIssue& row,
                      const ValidationIssue::Suggestion& suggestion);
bool commitLyricReplacement(PianoRollViewModel& model, const Uuid& noteID,
                            const std::string& lyric);

// The clean-up on the open song as one undo step "歌詞と音符を自動で直す"; no step when
// nothing changed.
CleanupReport commitCleanup(PianoRollViewModel& model, const CleanupOptions& options,
                            const std::vector<Uuid>& sungTrackIDs,
                            const std::unordered_set<Uuid>& keepWhole = {},
                            const CleanupPolicy& policy = {});

// Log lines of the checking layer as the editor keeps them, stamped now.
void appendRepairLog(PianoRollViewModel& model, const std::vector<RepairLogEntry>& log);

}  // namespace melvo
