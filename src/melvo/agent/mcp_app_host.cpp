#include "melvo/agent/mcp_app_host.h"

#include "melvo/app/app_state.h"
#include "melvo/checking/score_validator.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/editing/suggestion_applier_commit.h"
#include "melvo/platform/i18n.h"

namespace melvo {

namespace {

std::string labelOf(const PianoRollViewModel::UndoEntry& e) {
  return std::visit([](const auto& x) { return x.label; }, e);
}

}  // namespace

McpHost makeAppHost(AppState& app) {
  McpHost h;
  PianoRollViewModel& vm = app.pianoRollVM();
  h.document = [&vm]() -> const MusicDocument* { return &vm.document(); };
  h.isDirty = [&vm] { return vm.isDirty(); };
  h.documentPath = [&app] { return app.projectFilePath(); };
  h.open = [&app](const std::string& path) -> std::optional<std::string> {
    std::string said;
    auto alert = app.frontEnd.alert;
    app.frontEnd.alert = [&said](const std::string& text) { said = text; };
    const auto result = app.open(path);
    app.frontEnd.alert = alert;
    if (result == AppState::FlowResult::done) return std::nullopt;
    return said.empty() ? std::string(tr("開いた曲を読めません")) : said;
  };
  h.save = [&app](const std::string& path) -> std::optional<std::string> {
    // The save-as flow without its question: the path is the answer.
    std::string said;
    auto choose = app.frontEnd.chooseFileToSave;
    auto alert = app.frontEnd.alert;
    app.frontEnd.chooseFileToSave = [&path](const FrontEnd::SaveRequest&) {
      return std::optional<std::filesystem::path>(path);
    };
    app.frontEnd.alert = [&said](const std::string& text) { said = text; };
    const auto result = app.projectFilePath() == path ? app.save() : app.saveAs();
    app.frontEnd.chooseFileToSave = choose;
    app.frontEnd.alert = alert;
    if (result == AppState::FlowResult::done) return std::nullopt;
    return said.empty() ? std::string(tr("保存できませんでした：")) : said;
  };
  h.commit = [&vm](const std::string& label, const McpHost::Change& change) {
    vm.commit(label, change);
  };
  h.pitch = [&vm]() -> std::optional<McpPitch> {
    if (!vm.editedPitchCurve()) return std::nullopt;
    McpPitch p;
    p.edited = *vm.editedPitchCurve();
    p.original = vm.originalPitchCurve().value_or(p.edited);
    p.trackID = vm.pitchCurveTrackID();
    p.transposeSemitones = vm.f0TransposeSemitones();
    // The engine's clock runs ahead of the song by the rest bar it put in front, if any.
    const MusicDocument& d = vm.document();
    double lead = vm.f0DisplayOffsetSec();
    if (!vm.lastSynthesisLogMapping().empty()) lead += d.seconds(d.tickOfBarCount(1));
    p.seconds = [d, lead](std::int64_t tick) { return d.seconds(tick) + lead; };
    return p;
  };
  h.commitPitch = [&vm](const std::string& label, PitchCurve edited) {
    vm.pushF0Undo(label);
    vm.setEditedPitchCurve(std::move(edited));
  };
  h.timing = [&vm]() -> std::optional<McpTiming> {
    if (!vm.phonemes()) return std::nullopt;
    return McpTiming{*vm.phonemes(), vm.f0DisplayOffsetSec()};
  };
  h.commitTiming = [&vm](const std::string& label, PhonemeList phonemes) {
    vm.pushTimingUndo(label);
    vm.setPhonemes(std::move(phonemes));
  };
  h.issues = [&app, &vm] {
    const MusicDocument& d = vm.document();
    std::vector<Uuid> sung;
    for (int i : d.voicedTrackIndices(false)) sung.push_back(d.tracks[i].id);
    std::unordered_map<Uuid, VoiceRange::Range> ranges;
    if (!app.config().neutrinoDirectory.empty()) {
      ranges = SynthesisGate::voiceRanges(d, app.config().neutrinoDirectory);
    }
    ValidatorOptions options;
    options.selectedTrack = vm.currentTrackIndex();
    return validate(d, sung, ranges, {}, options);
  };
  h.applySuggestion = [&vm](const std::string& label, const ValidationIssue& row,
                            const ValidationIssue::Suggestion& s) {
    // Tried on a copy first, so that a repair that finds nothing to do pushes no empty step;
    // then one step under the agent's label, the repair's own commit joining the group.
    PianoRollViewModel trial(vm.document());
    if (!commitSuggestion(trial, row, s)) return false;
    vm.withUndoGroup(label, [&] { commitSuggestion(vm, row, s); });
    return true;
  };
  // What the agent polls: the last render this port started, followed through its end.
  struct SingState {
    bool started = false;
    bool running = false;
    std::optional<AppState::SynthesisOutcome> outcome;
  };
  auto state = std::make_shared<SingState>();
  // Installed once, ahead of whatever the front end had there.
  app.synthesisEnded = [state, before = app.synthesisEnded](const AppState::SynthesisOutcome& o) {
    if (state->running) {
      state->running = false;
      state->outcome = o;
    }
    if (before) before(o);
  };
  h.sing = [&app, state](McpSingScope scope) -> std::optional<std::string> {
    static const MixdownKind kinds[] = {MixdownKind::allTracks, MixdownKind::selectedTrack,
                                        MixdownKind::rangeAllTracks,
                                        MixdownKind::rangeSelectedTrack};
    // Running before the start, so that a quick end is seen; a start refused at once leaves
    // the last run's state as it was (its refusal must not pass for that run's end).
    const SingState before = *state;
    state->running = true;
    state->outcome.reset();
    if (auto refusal = app.startSynthesis(kinds[static_cast<int>(scope)])) {
      *state = before;
      return refusal;
    }
    state->started = true;
    return std::nullopt;
  };
  h.singStatus = [&app, state]() -> McpJSON {
    McpJSON r = McpJSON::object();
    r["state"] = !state->started                             ? "none"
                 : state->running                            ? "running"
                 : state->outcome && state->outcome->success ? "done"
                                                             : "failed";
    if (state->running) {
      r["percent"] = app.synthesisProgress();
      r["stage"] = app.synthesisStage();
      if (app.synthesisETA()) r["etaSec"] = *app.synthesisETA();
    }
    if (state->outcome) {
      r["message"] = state->outcome->message;
      if (state->outcome->wavPath) r["wavPath"] = *state->outcome->wavPath;
    }
    return r;
  };
  h.currentTrack = [&vm] { return vm.currentTrackIndex(); };
  h.selectTrack = [&vm](int t) {
    if (t < 0 || t >= static_cast<int>(vm.document().tracks.size())) return false;
    vm.setCurrentTrackIndex(t);
    return vm.currentTrackIndex() == t;
  };
  h.isSynthesizing = [&app] { return app.isSynthesizing(); };
  h.history = [&vm] {
    McpHistory out;
    for (auto it = vm.undoStack().rbegin(); it != vm.undoStack().rend(); ++it)
      out.undo.push_back(labelOf(*it));
    for (auto it = vm.redoStack().rbegin(); it != vm.redoStack().rend(); ++it)
      out.redo.push_back(labelOf(*it));
    return out;
  };
  h.undoRedo = [&vm](bool redo) { redo ? vm.redo() : vm.undo(); };
  h.selection = [&vm] {
    return McpSelection{vm.selectedNoteIDs(), vm.loopStartTick(), vm.loopEndTick(),
                        vm.loopEnabled()};
  };
  h.setSelection = [&vm](const McpSelection& s) {
    vm.setSelectedNoteIDs(s.noteIDs);
    vm.setLoopStartTick(s.loopStart);
    vm.setLoopEndTick(s.loopEnd);
    vm.setLoopEnabled(s.loopEnabled);
  };
  return h;
}

McpAppPort::McpAppPort(AppState& app, EventLoop& loop, std::filesystem::path socketURL)
    : layer_(makeAppHost(app)),
      // The server runs its handler on the main queue, between the user's events: a command
      // needs no further hop to touch the song.
      server_(
          std::move(socketURL), [this](const std::string& line) { return layer_.handleLine(line); },
          loop) {}

McpAppPort::~McpAppPort() {
  stop();
}

void McpAppPort::start() {
  server_.start();
}

void McpAppPort::stop() {
  server_.stop();
}

}  // namespace melvo
