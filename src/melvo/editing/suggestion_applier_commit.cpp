#include "melvo/editing/suggestion_applier_commit.h"

#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/reference_date.h"

namespace melvo {
namespace {

bool commitResult(PianoRollViewModel& model, RepairResult result) {
  if (result.document == model.document()) return false;
  model.commit(tr("編集"), [&](MusicDocument& d) { d = std::move(result.document); });
  appendRepairLog(model, result.log);
  return true;
}

}  // namespace

void appendRepairLog(PianoRollViewModel& model, const std::vector<RepairLogEntry>& log) {
  const double now = referenceSecondsNow();
  for (const auto& e : log) {
    PianoRollViewModel::ConversionLogEntry entry;
    entry.noteID = e.noteID;
    entry.trackIndex = e.trackIndex;
    entry.tick = e.tick;
    entry.action = e.action;
    entry.before = e.before;
    entry.after = e.after;
    entry.timestamp = now;
    model.appendConversionLog(std::move(entry));
  }
}

bool commitSuggestion(PianoRollViewModel& model, const ValidationIssue& row,
                      const ValidationIssue::Suggestion& suggestion) {
  return commitResult(model, applySuggestion(model.document(), row, suggestion));
}

CleanupReport commitCleanup(PianoRollViewModel& model, const CleanupOptions& options,
                            const std::vector<Uuid>& sungTrackIDs,
                            const std::unordered_set<Uuid>& keepWhole,
                            const CleanupPolicy& policy) {
  CleanupResult result = runCleanup(model.document(), options, sungTrackIDs, keepWhole, policy);
  if (!(result.document == model.document())) {
    model.commit(tr("歌詞と音符を自動で直す"),
                 [&](MusicDocument& d) { d = std::move(result.document); });
    appendRepairLog(model, result.report.entries);
  }
  return std::move(result.report);
}

bool commitLyricReplacement(PianoRollViewModel& model, const Uuid& noteID,
                            const std::string& lyric) {
  return commitResult(model, replaceLyric(model.document(), noteID, lyric));
}

}  // namespace melvo
