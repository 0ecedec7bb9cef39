#include "melvo/agent/mcp_memory_host.h"

#include "melvo/checking/score_validator.h"

namespace melvo {

McpHost McpMemoryHost::host() {
  McpHost h;
  h.document = [this]() -> const MusicDocument* { return &document_; };
  h.isDirty = [this] { return dirty_; };
  h.commit = [this](const std::string& label, const McpHost::Change& change) {
    undo_.emplace_back(label, document_);
    redo_.clear();
    change(document_);
    dirty_ = true;
  };
  h.timing = [this]() -> std::optional<McpTiming> {
    if (!timing_) return std::nullopt;
    return McpTiming{*timing_, 0.0};
  };
  h.commitTiming = [this](const std::string& label, PhonemeList phonemes) {
    timingUndo_.emplace_back(label, *timing_);
    timing_ = std::move(phonemes);
  };
  h.pitch = [this]() -> std::optional<McpPitch> {
    if (!pitch_) return std::nullopt;
    McpPitch p{*pitch_, *pitch_, std::nullopt, 0, nullptr};
    if (!document_.tracks.empty()) p.trackID = document_.tracks[0].id;
    p.seconds = [this](std::int64_t tick) { return document_.seconds(tick); };
    return p;
  };
  h.commitPitch = [this](const std::string& label, PitchCurve edited) {
    pitchUndo_.emplace_back(label, *pitch_);
    pitch_ = std::move(edited);
  };
  h.issues = [this] {
    std::vector<Uuid> sung;
    for (int i : document_.voicedTrackIndices(false)) sung.push_back(document_.tracks[i].id);
    ValidatorOptions options;
    options.selectedTrack = currentTrack_;
    return validate(document_, sung, {}, {}, options);
  };
  h.currentTrack = [this] { return currentTrack_; };
  h.selectTrack = [this](int t) {
    currentTrack_ = t;
    return true;
  };
  h.history = [this] {
    McpHistory out;
    for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) out.undo.push_back(it->first);
    for (auto it = redo_.rbegin(); it != redo_.rend(); ++it) out.redo.push_back(it->first);
    return out;
  };
  h.undoRedo = [this](bool redo) {
    auto& from = redo ? redo_ : undo_;
    auto& to = redo ? undo_ : redo_;
    if (from.empty()) return;
    to.emplace_back(from.back().first, document_);
    document_ = std::move(from.back().second);
    from.pop_back();
    dirty_ = true;
  };
  h.selection = [this] { return selection_; };
  h.setSelection = [this](const McpSelection& s) { selection_ = s; };
  return h;
}

}  // namespace melvo
