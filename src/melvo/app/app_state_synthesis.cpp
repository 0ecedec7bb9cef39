// Run control: the part of AppState that owns a running render. It starts a render after
// the last checks, keeps progress and the log, watches for a stall, files the result as a
// take, loads the rendered curve and timing for editing, explains a failure from the log,
// and mixes the stored voices again when the mixer changes.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <thread>

#include "melvo/app/app_state.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"
#include "melvo/platform/reference_date.h"
#include "melvo/synthesis/installation_finder.h"
#include "melvo/synthesis/mixdown.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "melvo/synthesis/neutrino_engine.h"
#include "melvo/synthesis/setup_helper.h"

namespace fs = std::filesystem;

namespace melvo {

// The engine's start check, on a thread of its own so that the main queue stays free (a
// cancel, a signal) while it waits for up to its timeout.
struct AppState::StartCheck {
  std::atomic<bool> stop{false};
  std::thread thread;
  ~StartCheck() {
    stop = true;
    if (thread.joinable()) thread.join();
  }
};

// A re-render of a run folder, track after track.
struct AppState::FolderRun {
  FolderRevocode plan;
  bool skipF0 = false;
  std::optional<MultiTrackSynthesizer::MixRecipe> recipe;
};

struct AppState::RenderStart {
  MusicDocument document;  // as sent to the engine: voices filled in, cut at the range
  std::vector<int> tracks;
  std::uint64_t swapSeq = 0;
};

namespace {

bool isRangeKind(MixdownKind k) {
  return k == MixdownKind::rangeAllTracks || k == MixdownKind::rangeSelectedTrack;
}

bool isTrackKind(MixdownKind k) {
  return k == MixdownKind::selectedTrack || k == MixdownKind::rangeSelectedTrack;
}

// Notes from `cut` on are dropped and notes across it end there, so the score stops at the
// bar line where the range ends.
void cutAt(MusicDocument& d, std::int64_t cut) {
  for (auto& t : d.tracks) {
    std::vector<NoteEvent> kept;
    for (const auto& n : t.notes) {
      if (n.tick >= cut) continue;
      NoteEvent m = n;
      if (m.endTick() > cut) m.duration = cut - m.tick;
      kept.push_back(std::move(m));
    }
    t.notes.assign(std::move(kept));
  }
}

bool hasVoice(const std::vector<CharacterModel>& voices, const std::string& name) {
  return std::any_of(voices.begin(), voices.end(),
                     [&](const CharacterModel& c) { return c.name == name; });
}

std::string fixed5(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.5f", v);
  return buf;
}

}  // namespace

// ---- Start ----

std::optional<std::string> AppState::refuseSynthesis(std::string text, bool toLog) {
  if (toLog) {
    _synthesisLog.push_back(text);
    notify("synthesisLog");
  } else {
    alert(text);
  }
  return text;
}

std::optional<std::string> AppState::startSynthesis(MixdownKind kind) {
  if (_isSynthesizing || startCheck_)
    return refuseSynthesis(tr("現在合成中です。完了をお待ちください。"), false);
  if (kind == MixdownKind::fromFile)
    return refuseSynthesis(
        tr("ファイルからの合成は、MusicXML を読み込めるようになるまで使えません"), false);
  if (auto refusal = mixdownRefusal(kind)) return refuseSynthesis(*refusal, false);

  // The folder's health comes first: a folder that does not run explains every later refusal
  // (no voice, nothing found), and a working folder elsewhere is offered. It starts the engine
  // once, so it waits off the main queue, and a cancel ends it.
  auto check = std::make_shared<StartCheck>();
  startCheck_ = check;
  cancelRequested_ = false;
  _cancelSynthesis = [this] {
    if (startCheck_) startCheck_->stop = true;
  };
  notify("cancelSynthesis");
  std::weak_ptr<int> alive = alive_;
  const std::string folder = _config.neutrinoDirectory;
  const double timeout = engineCheckTimeoutSec;
  const StartCheck* which = check.get();
  std::atomic<bool>* stop = &check->stop;
  check->thread = std::thread([this, alive, folder, timeout, which, stop, kind] {
    auto h = NEUTRINOInstallationFinder::health(folder, timeout, stop);
    loop_.post([this, alive, which, kind, h = std::move(h)] {
      if (!alive.expired()) startCheckDone(which, kind, h);
    });
  });
  return std::nullopt;
}

void AppState::startCheckDone(const StartCheck* which, MixdownKind kind,
                              const NEUTRINOInstallationFinder::ConfiguredPathHealth& health) {
  if (startCheck_.get() != which) return;
  const bool stopped = startCheck_->stop;
  startCheck_.reset();  // joins the thread, which has nothing left to do
  _cancelSynthesis = nullptr;
  notify("cancelSynthesis");
  if (stopped) {
    SynthesisOutcome outcome;
    outcome.ending = SynthesisOutcome::Ending::cancelled;
    outcome.message = tr("合成を中止しました。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  if (!std::holds_alternative<NEUTRINOInstallationFinder::Ok>(health)) {
    const std::string text = NEUTRINOInstallationFinder::healthMessage(health);
    alert(text);
    endWithRefusal(text);
    return;
  }
  if (auto refusal = beginSynthesis(kind)) endWithRefusal(*refusal);
}

void AppState::endWithRefusal(const std::string& text) {
  SynthesisOutcome outcome;
  outcome.ending = SynthesisOutcome::Ending::refused;
  outcome.message = text;
  std::weak_ptr<int> alive = alive_;
  loop_.post([this, alive, outcome] {
    if (!alive.expired() && synthesisEnded) synthesisEnded(outcome);
  });
}

std::optional<std::string> AppState::beginSynthesis(MixdownKind kind) {
  // The song may have changed while the engine was checked.
  if (auto refusal = mixdownRefusal(kind)) return refuseSynthesis(*refusal, false);
  const PianoRollViewModel& vm = pianoRollVM_;
  auto start = std::make_shared<RenderStart>();
  MusicDocument& doc = start->document;
  doc = vm.document();
  std::optional<int> selected;
  std::vector<int>& tracks = start->tracks;
  if (isTrackKind(kind)) {
    selected = vm.currentTrackIndex();
    tracks = {*selected};
  } else {
    tracks = MultiTrackSynthesizer::singableTracks(doc, false);
    if (tracks.empty()) {
      if (!doc.tracks.empty() && std::all_of(doc.tracks.begin(), doc.tracks.end(),
                                             [](const MusicTrack& t) { return t.isMuted; }))
        return refuseSynthesis(
            tr("⚠ 全部のトラックが消音です。歌わせるトラックの消音を外してください。"), false);
      // No track has a voice of its own: the one track a single render would sing, with the
      // voice of the settings.
      tracks = SynthesisGate::sungTrackIndices(doc, {});
    }
  }

  // A track without a voice of its own sings with the selected voice of the folder.
  scanCharacters();
  for (int i : tracks) {
    MusicTrack& t = doc.tracks[static_cast<std::size_t>(i)];
    if (t.characterName.empty() && _selectedCharacter) t.characterName = _selectedCharacter->name;
    if (t.characterName.empty())
      return refuseSynthesis(tr("⚠ 合成対象のトラックがありません（非ミュート＆キャラ割当が必要）"),
                             false);
    if (!hasVoice(_characters, t.characterName))
      return refuseSynthesis(
          trf("キャラモデル「%@」が NEUTRINO/model/ に見つかりません。設定を確認してください。",
              {t.characterName}),
          false);
  }

  std::optional<std::int64_t> limitedBars;
  if (isRangeKind(kind)) {
    const std::int64_t bars =
        barNumber(std::max<std::int64_t>(vm.loopEndTick() - 1, 0), doc.ppq, doc.timeSignatures);
    cutAt(doc, doc.tickOfBarCount(bars));
    limitedBars = bars;
  }

  std::size_t sungNotes = 0;
  for (int i : tracks) sungNotes += doc.tracks[static_cast<std::size_t>(i)].notes.size();
  if (sungNotes == 0)
    return refuseSynthesis(limitedBars ? tr("合成できる範囲に、歌う音がありません")
                                       : tr("⚠ ピアノロールに音符がありません"),
                           false);

  std::vector<Uuid> sungIDs;
  for (int i : tracks) sungIDs.push_back(doc.tracks[static_cast<std::size_t>(i)].id);
  const auto problems = SynthesisGate::problems(doc, sungIDs, selected);
  if (SynthesisGate::blocks(problems))
    return refuseSynthesis(SynthesisGate::refusalWithList(problems), true);

  // Unsaved work is saved first, so that a crash during a long render loses nothing. An
  // untitled song is left to the autosave: a file chooser in the middle of a start would
  // surprise more than it helps.
  if (vm.isDirty() && _projectFilePath) {
    try {
      writeProject(vm.document(), *_projectFilePath);
      pianoRollVM_.setIsDirty(false);
    } catch (const std::exception& e) {
      return refuseSynthesis(trf("保存に失敗: %@", {e.what()}), false);
    }
  }

  resetSynthesisFields(tr("マルチトラック準備中..."));
  if (limitedBars)
    appendSynthesisLog(trf("この範囲までを合成します（%d 小節）", {std::to_string(*limitedBars)}));

  // The engine puts a bar of rest in front of a score that starts on a note, and then counts
  // its bars one further than ours.
  std::vector<PianoRollViewModel::BarMapping> mapping;
  const NoteList& first = doc.tracks[static_cast<std::size_t>(tracks.front())].notes;
  // The log says so only when the engine's own output does (see engineLogRows).
  if (std::any_of(first.begin(), first.end(), [](const NoteEvent& n) { return n.tick == 0; }))
    mapping.push_back({2, 1});
  pianoRollVM_.setLastSynthesisLogMapping(mapping);
  pianoRollVM_.setLastSynthesisExport(doc);
  pianoRollVM_.takeSynthSnapshot();
  start->swapSeq = pianoRollVM_.documentSwapSeq();

  const std::string projectName = _projectFilePath ? fs::path(*_projectFilePath).stem().string()
                                                   : cleanTitle(doc.title, "Melvo");
  const fs::path runDir = runFolderOverride ? *runFolderOverride
                                            : MultiTrackSynthesizer::runFolder(
                                                  projectName, std::chrono::system_clock::now());

  if (!engine_) engine_ = std::make_unique<NEUTRINOEngine>(loop_);
  if (!synthesizer_) synthesizer_ = std::make_unique<MultiTrackSynthesizer>(loop_, *engine_);
  _cancelSynthesis = [this] {
    // A second cancel kills what still runs at once.
    cancelRequested_ = true;
    synthesizer_->cancel();
  };
  notify("cancelSynthesis");
  setIsSynthesizing(true);

  std::weak_ptr<int> alive = alive_;
  synthesizer_->render(
      doc, runDir, _config, tracks,
      [this](double pct, const std::string& stage, std::optional<double> eta) {
        synthesisProgressed(pct, stage, eta);
      },
      [this](const std::string& line) { appendSynthesisLog(line); },
      [this, start, alive](MultiTrackSynthesizer::Result r) {
        if (alive.expired()) return;
        std::vector<std::pair<int, std::string>> rendered;
        for (const auto& t : r.rendered) rendered.emplace_back(t.trackIndex, t.wavPath.string());
        std::optional<std::string> mix;
        if (r.mixPath) mix = r.mixPath->string();
        if (r.cancelled) cancelRequested_ = true;
        synthesisFinished(*start, r.success, std::move(mix), std::move(rendered), r.scale);
      });
  return std::nullopt;
}

void AppState::cancelSynthesis() {
  if (_cancelSynthesis) _cancelSynthesis();
}

// ---- Engine settings ----

void AppState::scanCharacters() {
  _characters = melvo::scanCharacters(_config.neutrinoDirectory);
  charactersFolder_ = _config.neutrinoDirectory;
  _charactersLoaded = true;
  _selectedCharacter.reset();
  for (const auto& c : _characters)
    if (c.name == _config.selectedCharacterName) _selectedCharacter = c;
  if (!_selectedCharacter && !_characters.empty()) {
    _selectedCharacter = _characters.front();
    _config.selectedCharacterName = _selectedCharacter->name;
    notify("config");
    if (!configOverridden_) saveConfig();
  }
  notify("characters");
}

void AppState::setUpEngineFolder() {
  setUpEngineFolder(BundledEngine::resourceFolder());
}

void AppState::setUpEngineFolder(const std::optional<fs::path>& resources) {
  BundledEngine::installBundledIfNeeded(resources, [this](const BundledEngine::SetupState& st) {
    _bundledSetupProgress = st.progress;
    _bundledSetupStage = st.stage;
    _bundledSetupRunning = st.running;
    _bundledSetupDone = st.done;
    notify("bundledSetup");
  });
  if (auto path = BundledEngine::installedPath(_config.neutrinoDirectory, resources);
      path && path->string() != _config.neutrinoDirectory) {
    NEUTRINOConfig c = _config;
    c.neutrinoDirectory = path->string();
    if (configOverridden_)
      assign(_config, std::move(c), "config");
    else
      setConfig(std::move(c));
  }
  if (!_charactersLoaded || charactersFolder_ != _config.neutrinoDirectory) scanCharacters();
}

// ---- Progress and the stall watch ----

void AppState::setIsSynthesizing(bool on) {
  if (!assign(_isSynthesizing, on, "isSynthesizing")) return;
  if (on) {
    _synthesisLastProgressAt = loop_.clock().now();
    _stallTimer = loop_.scheduleRepeating(std::chrono::seconds(1), [this] { stallTick(); });
  } else {
    _stallTimer.cancel();
    _synthesisLastProgressAt.reset();
    assign(_synthesisStalledMessage, std::nullopt, "synthesisStalledMessage");
  }
}

void AppState::resetSynthesisFields(const std::string& stage) {
  _synthesisProgress = 0;
  _synthesisETA.reset();
  _synthesisStage = stage;
  _synthesisLog.clear();
  _lastDiagnosis.reset();
  _synthesisStalledMessage.reset();
  notify("synthesisProgress");
  notify("synthesisLog");
}

void AppState::markSynthesisAlive() {
  _synthesisLastProgressAt = loop_.clock().now();
  assign(_synthesisStalledMessage, std::nullopt, "synthesisStalledMessage");
}

void AppState::synthesisProgressed(double percentage, const std::string& stage,
                                   std::optional<double> eta) {
  _synthesisProgress = percentage;
  _synthesisStage = stage;
  _synthesisETA = eta;
  notify("synthesisProgress");
  markSynthesisAlive();
}

void AppState::appendSynthesisLog(const std::string& line) {
  _synthesisLog.push_back(line);
  notify("synthesisLog");
  if (_isSynthesizing) markSynthesisAlive();
}

void AppState::stallTick() {
  if (!_isSynthesizing || !_synthesisLastProgressAt) return;
  const double silent =
      std::chrono::duration<double>(loop_.clock().now() - *_synthesisLastProgressAt).count();
  if (silent >= kStallSeconds) {
    assign(
        _synthesisStalledMessage,
        std::optional<std::string>(trf(
            "合成が %d 秒ほど進んでいません。別のウインドウで合成を実行していないかご確認ください",
            {std::to_string(static_cast<long long>(silent))})),
        "synthesisStalledMessage");
  } else {
    assign(_synthesisStalledMessage, std::nullopt, "synthesisStalledMessage");
  }
}

// ---- The end of a run ----

void AppState::endSynthesis(SynthesisOutcome outcome) {
  _cancelSynthesis = nullptr;
  notify("cancelSynthesis");
  setIsSynthesizing(false);
  cancelRequested_ = false;
  if (outcome.success) outcome.ending = SynthesisOutcome::Ending::succeeded;
  if (outcome.ending == SynthesisOutcome::Ending::failed) {
    // Our own words about a script that could not even start (its file, the temp folder) are
    // no sign of the engine: their "No such file" would read as a missing engine.
    std::vector<std::string> engineLog;
    const std::string startFailure = tr("⚠ 合成開始失敗: ");
    const std::string vocoderFailure = tr("⚠ ボコーダ起動失敗: ");
    for (const auto& line : _synthesisLog)
      if (!line.starts_with(startFailure) && !line.starts_with(vocoderFailure))
        engineLog.push_back(line);
    _lastDiagnosis = diagnose(engineLog, _config.neutrinoDirectory);
    outcome.diagnosis = _lastDiagnosis;
  }
  notify("synthesisProgress");
  // From the main queue, so that an end that comes at once (a run that cannot start) never
  // reaches the starter before its start call has returned.
  std::weak_ptr<int> alive = alive_;
  loop_.post([this, alive, outcome = std::move(outcome)] {
    if (!alive.expired() && synthesisEnded) synthesisEnded(outcome);
  });
}

// The engine names the bar (and lyric or pitch) it stopped on; each such place becomes a row
// on the note of the track that failed, the first planned track that rendered nothing. The
// rest-bar line is written from what the engine said, not from a guess before the run.
std::vector<ValidationIssue> AppState::engineLogRows(
    const RenderStart& start, const std::vector<std::pair<int, std::string>>& rendered) {
  const SynthesisGate::LogReading reading = SynthesisGate::parseLog(_synthesisLog);
  std::optional<int> failed;
  for (int t : start.tracks)
    if (std::none_of(rendered.begin(), rendered.end(),
                     [t](const auto& r) { return r.first == t; })) {
      failed = t;
      break;
    }
  std::vector<ValidationIssue> rows;
  if (!failed) return rows;
  const MusicDocument& doc = start.document;
  const BarRuler ruler = doc.barRuler();
  for (const auto& hit : reading.hits) {
    if (reading.restAdded)
      appendSynthesisLog(SynthesisGate::restBarLine(
          hit.measure, SynthesisGate::melvoBar(hit.measure, reading.restAdded)));
    const std::optional<Uuid> id =
        SynthesisGate::noteForLogHit(doc, *failed, hit, reading.restAdded);
    if (!id) continue;
    const NoteList& notes = doc.tracks[static_cast<std::size_t>(*failed)].notes;
    const auto it =
        std::find_if(notes.begin(), notes.end(), [&](const NoteEvent& n) { return n.id == *id; });
    if (it == notes.end()) continue;
    ValidationIssue row;
    row.id = Uuid::random();
    row.category = ValidationIssue::Category::invalidLyricChars;
    row.severity = ValidationIssue::Severity::error;
    row.tick = it->tick;
    row.trackIndex = *failed;
    row.noteID = *id;
    row.message = trf("%@：NEUTRINO がこの音「%@」で止まりました",
                      {ruler.positionText(it->tick), visibleLyric(it->lyric)});
    appendSynthesisLog("⚠ " + row.message);
    rows.push_back(std::move(row));
  }
  return rows;
}

void AppState::synthesisFinished(const RenderStart& start, bool success,
                                 std::optional<std::string> mix,
                                 std::vector<std::pair<int, std::string>> rendered, float scale) {
  SynthesisOutcome outcome;
  for (const auto& [index, _] : rendered) outcome.renderedTracks.push_back(index);
  std::error_code ec;
  if (cancelRequested_) {
    outcome.ending = SynthesisOutcome::Ending::cancelled;
    outcome.message = tr("合成を中止しました。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  if (!success || !mix || !fs::exists(*mix, ec)) {
    outcome.engineRows = engineLogRows(start, rendered);
    outcome.message =
        start.tracks.size() > 1
            ? tr("マルチトラック合成に失敗しました。メニュー「ミックスダウン」→「合成の記録"
                 "を表示…」でログを確認してください。")
            : tr("合成が失敗しました。メニュー「ミックスダウン」→「合成の記録を表示…」"
                 "でログを確認してください。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }

  _synthesisProgress = 100.0;
  outcome.success = true;
  outcome.wavPath = mix;
  assign(_lastSynthesizedWAV, mix, "lastSynthesizedWAV");

  // The memory of this mix, for re-mixes after a change of the mixer.
  trackVoiceWAVs_.clear();
  trackVoiceVoices_.clear();
  for (const auto& [index, wav] : rendered) {
    const MusicTrack& t = start.document.tracks[static_cast<std::size_t>(index)];
    trackVoiceWAVs_[t.id] = wav;
    trackVoiceVoices_[t.id] = t.characterName;
  }
  voiceBaseWAV_ = mix;
  voiceRemixDir_ = fs::path(*mix).parent_path().string();
  voiceRemixScale_ = scale;
  voiceMixSwapSeq_ = start.swapSeq;
  lastLiveMixPath_.reset();
  voiceMixSignature_ = PianoRollViewModel::mixSignature(start.document);
  recomputeTracksNeedingSynthesis();
  // The mixer may have moved while the engine sang.
  mixMayHaveChanged();

  // The song may have been swapped during the run: its curve belongs to the old song.
  if (!rendered.empty() && pianoRollVM_.documentSwapSeq() == start.swapSeq) {
    const auto& [index, wav] = rendered.front();
    loadRenderedData(fs::path(wav).parent_path(),
                     start.document.tracks[static_cast<std::size_t>(index)].id);
  }

  Take take;
  take.id = Uuid::random();
  take.createdAt = referenceSecondsNow();
  take.wavPath = *mix;
  if (!rendered.empty()) {
    const std::string& voice =
        start.document.tracks[static_cast<std::size_t>(rendered.front().first)].characterName;
    if (!voice.empty()) take.characterName = voice;
  }
  take.title = cleanTitle(start.document.title, *mix);
  take.noteCount = static_cast<std::int64_t>(start.document.totalNoteCount());
  take.durationSec = mixdown::durationSec(*mix).value_or(0);
  addTake(std::move(take));
  // There is no player in the core yet: autoplay is the front end's to honour on this end.
  endSynthesis(std::move(outcome));
}

void AppState::loadRenderedData(const fs::path& trackDir, const Uuid& trackID) {
  PianoRollViewModel& vm = pianoRollVM_;
  const fs::path f0Path = trackDir / "output.f0";
  const fs::path timingPath = trackDir / "timing.lab";
  std::optional<PitchCurve> curve = PitchCurve::read(f0Path);
  std::optional<PhonemeList> phonemes = PhonemeList::read(timingPath);
  if (curve) {
    if (auto seconds = mixdown::durationSec(trackDir / "output.wav")) {
      curve->frameIntervalSec = curve->calibratedInterval(*seconds);
      log::write("F0 calibrate", "frameInterval = " + fixed5(curve->frameIntervalSec) +
                                     " frames = " + std::to_string(curve->frequencies.size()));
      vm.setF0Calibrated(true);
    } else {
      vm.setF0Calibrated(false);
    }
    vm.setOriginalPitchCurve(curve);
    vm.setEditedPitchCurve(curve);
    vm.setPitchCurveTrackID(trackID);
    vm.setF0FilePath(f0Path.string());
  }
  if (phonemes) {
    vm.setOriginalPhonemes(phonemes);
    vm.setPhonemes(phonemes);
    vm.setTimingFilePath(timingPath.string());
    // The engine's clock starts at its file's start, ahead of the song by the rest bar it
    // may have added.
    const MusicDocument& d = vm.document();
    for (const auto& t : d.tracks) {
      if (t.id != trackID || t.notes.empty()) continue;
      std::int64_t firstTick = t.notes[0].tick;
      for (const auto& n : t.notes) firstTick = std::min(firstTick, n.tick);
      double leadIn = d.seconds(firstTick);
      if (!vm.lastSynthesisLogMapping().empty()) leadIn += d.seconds(d.tickOfBarCount(1));
      vm.setF0ScoreFirstTick(firstTick);
      checkLeadIn(*phonemes, leadIn, firstTick);
    }
  }
}

// ---- Re-render ----

std::optional<std::string> AppState::startRevocode(bool skipF0) {
  if (_isSynthesizing || startCheck_)
    return refuseSynthesis(tr("現在合成中です。完了をお待ちください。"), false);
  PianoRollViewModel& vm = pianoRollVM_;
  if (!vm.f0FilePath() || !vm.pitchCurveTrackID())
    return refuseSynthesis(tr("先に合成してください（ボコーダ再実行には合成結果が必要です）"),
                           false);
  const fs::path dir = fs::path(*vm.f0FilePath()).parent_path();
  // The edits are what the engine reads: write them over its files first.
  try {
    if (skipF0 && vm.editedPitchCurve()) vm.editedPitchCurve()->write(dir / "output.f0");
    if (vm.phonemes()) vm.phonemes()->write(dir / "timing.lab");
  } catch (const std::exception& e) {
    return refuseSynthesis(trf("保存に失敗: %@", {e.what()}), false);
  }
  NEUTRINOConfig config = _config;
  const auto voice = trackVoiceVoices_.find(*vm.pitchCurveTrackID());
  if (voice != trackVoiceVoices_.end()) config.selectedCharacterName = voice->second;

  resetSynthesisFields(tr("ボコーダ再実行中..."));
  const std::uint64_t swapSeq = vm.documentSwapSeq();
  std::optional<std::vector<float>> curveAtStart;
  if (vm.editedPitchCurve()) curveAtStart = vm.editedPitchCurve()->frequencies;
  runRevocode(dir, config, skipF0, [this, skipF0, dir, swapSeq, curveAtStart](bool ok) {
    revocodeFinished(ok, skipF0, dir, swapSeq, curveAtStart);
  });
  return std::nullopt;
}

// The late stage in one track's folder, as both re-renders run it.
void AppState::runRevocode(const fs::path& dir, const NEUTRINOConfig& config, bool skipF0,
                           std::function<void(bool ok)> onDone) {
  if (!engine_) engine_ = std::make_unique<NEUTRINOEngine>(loop_);
  if (!_cancelSynthesis) {
    _cancelSynthesis = [this] {
      cancelRequested_ = true;
      engine_->cancel();
    };
    notify("cancelSynthesis");
  }
  setIsSynthesizing(true);
  std::weak_ptr<int> alive = alive_;
  engine_->revocode(
      config, dir, skipF0,
      [this](double pct, const std::string&, std::optional<double> eta) {
        synthesisProgressed(pct, tr("ボコーダ再実行中..."), eta);
      },
      [this](const std::string& line) { appendSynthesisLog(line); },
      [alive, onDone = std::move(onDone)](bool ok) {
        if (!alive.expired()) onDone(ok);
      });
}

namespace {

// A track's folder was edited when its timing or curve is newer than its voice, or when one
// of them or the voice is missing: the readers then say what is wrong.
bool edited(const fs::path& dir) {
  std::error_code ec;
  const auto wav = fs::last_write_time(dir / "output.wav", ec);
  if (ec) return true;
  for (const char* name : {"timing.lab", "output.f0"}) {
    const auto t = fs::last_write_time(dir / name, ec);
    if (ec || t > wav) return true;
  }
  return false;
}

}  // namespace

AppState::FolderRevocode AppState::planFolderRevocode(const fs::path& folder, bool all,
                                                      const std::string& voice) const {
  FolderRevocode plan;
  plan.runDir = folder;
  if (_config.neutrinoDirectory.empty()) {
    plan.refusal = tr("NEUTRINO フォルダが設定されていません");
    return plan;
  }
  // A run folder names its tracks and their voices in its mix recipe; a track's own folder
  // sings with the voice given or the voice of the settings.
  if (const auto recipe = MultiTrackSynthesizer::readMixRecipe(folder)) {
    plan.mixAgain = true;
    for (const auto& v : recipe->voices)
      plan.tracks.push_back({folder / v.folder, voice.empty() ? v.characterName : voice});
  } else if (std::error_code ec; fs::exists(folder / "full.lab", ec)) {
    plan.tracks.push_back({folder, voice.empty() ? _config.selectedCharacterName : voice});
  } else {
    plan.refusal = trf("合成の出力フォルダではありません: %@", {folder.string()});
    return plan;
  }
  std::erase_if(plan.tracks,
                [&](const FolderRevocode::Track& t) { return !all && !edited(t.dir); });
  for (const auto& t : plan.tracks)
    if (t.voice.empty()) plan.refusal = tr("声が決まっていません（--voice で指定してください）");
  return plan;
}

std::optional<std::string> AppState::startFolderRevocode(const FolderRevocode& plan, bool skipF0) {
  if (_isSynthesizing || startCheck_)
    return refuseSynthesis(tr("現在合成中です。完了をお待ちください。"), false);
  if (plan.refusal) return refuseSynthesis(*plan.refusal, false);
  if (plan.tracks.empty()) return refuseSynthesis(tr("直されたトラックはありません"), false);
  auto run = std::make_shared<FolderRun>();
  run->plan = plan;
  run->skipF0 = skipF0;
  if (plan.mixAgain) {
    run->recipe = MultiTrackSynthesizer::readMixRecipe(plan.runDir);
    if (!run->recipe)
      return refuseSynthesis(trf("合成の出力フォルダではありません: %@", {plan.runDir.string()}),
                             false);
  }
  // Every track's files are read before anything runs: one the readers cannot use refuses the
  // whole re-render, and the repairs of all of them are known up front.
  std::vector<std::string> repairs;
  for (const auto& t : plan.tracks) {
    log::Capture capture;
    const std::optional<PhonemeList> timing = PhonemeList::read(t.dir / "timing.lab");
    std::optional<PitchCurve> curve;
    if (skipF0) curve = PitchCurve::read(t.dir / "output.f0");
    if (!timing || (skipF0 && !curve))
      return refuseSynthesis(trf("%@ を読めないため、作り直せません",
                                 {(t.dir / (!timing ? "timing.lab" : "output.f0")).string()}),
                             false);
    if (timing->phonemes.empty())
      return refuseSynthesis(
          trf("%@ に音素がないため、作り直せません", {(t.dir / "timing.lab").string()}), false);
    for (const auto& line : capture.lines())
      repairs.push_back(trf("⚠ %@: %@", {t.dir.filename().string(), line}));
    // What the readers repaired is what the engine gets.
    try {
      if (!capture.lines().empty()) {
        timing->write(t.dir / "timing.lab");
        if (curve) curve->write(t.dir / "output.f0");
      }
    } catch (const std::exception& e) {
      return refuseSynthesis(trf("保存に失敗: %@", {e.what()}), false);
    }
  }
  resetSynthesisFields(tr("ボコーダ再実行中..."));
  cancelRequested_ = false;
  for (const auto& line : repairs) appendSynthesisLog(line);
  folderRevocodeStep(std::move(run), 0);
  return std::nullopt;
}

void AppState::folderRevocodeStep(std::shared_ptr<FolderRun> run, std::size_t i) {
  if (cancelRequested_ || i == run->plan.tracks.size()) {
    folderRevocodeFinished(std::move(run), !cancelRequested_);
    return;
  }
  const auto& t = run->plan.tracks[i];
  appendSynthesisLog("▶ " + t.dir.filename().string() + " (" + t.voice + ")");
  NEUTRINOConfig config = _config;
  config.selectedCharacterName = t.voice;
  const fs::path dir = t.dir;
  runRevocode(dir, config, run->skipF0, [this, run, i, dir](bool ok) {
    std::error_code ec;
    if (!ok || !fs::exists(dir / "output.wav", ec) || cancelRequested_) {
      folderRevocodeFinished(run, false);
      return;
    }
    // The next track from the main queue, not from inside the engine's own callback.
    std::weak_ptr<int> alive = alive_;
    loop_.post([this, alive, run, i] {
      if (!alive.expired()) folderRevocodeStep(run, i + 1);
    });
  });
}

void AppState::folderRevocodeFinished(std::shared_ptr<FolderRun> run, bool ok) {
  SynthesisOutcome outcome;
  outcome.revocode = true;
  if (cancelRequested_) {
    outcome.ending = SynthesisOutcome::Ending::cancelled;
    outcome.message = tr("合成を中止しました。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  if (!ok) {
    outcome.message = tr("ボコーダ再実行に失敗しました。ログを確認してください。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  fs::path wav = run->plan.runDir / "output.wav";
  if (run->recipe) {
    // The voices are mixed again as the render mixed them, never louder than it allowed.
    std::vector<fs::path> paths;
    std::vector<float> gains, pans;
    for (const auto& v : run->recipe->voices) {
      paths.push_back(run->plan.runDir / v.folder / "output.wav");
      gains.push_back(v.gain);
      pans.push_back(v.pan);
    }
    wav = run->plan.runDir / "mix.wav";
    if (!mixdown::mix(paths, gains, pans, wav, run->recipe->scale).ok) {
      outcome.message = tr("⚠ ミックスダウンに失敗");
      appendSynthesisLog(outcome.message);
      endSynthesis(std::move(outcome));
      return;
    }
  }
  _synthesisProgress = 100.0;
  outcome.success = true;
  outcome.wavPath = wav.string();
  outcome.message = run->skipF0
                        ? tr("✓ f0編集を反映してWAVを再生成しました")
                        : tr("✓ 音の境目の直しを反映して、f0 も推し直し、WAV を作り直しました");
  appendSynthesisLog(outcome.message);
  endSynthesis(std::move(outcome));
}

void AppState::revocodeFinished(bool ok, bool skipF0, const fs::path& dir, std::uint64_t swapSeq,
                                const std::optional<std::vector<float>>& curveAtStart) {
  SynthesisOutcome outcome;
  outcome.revocode = true;
  std::error_code ec;
  if (cancelRequested_) {
    outcome.ending = SynthesisOutcome::Ending::cancelled;
    outcome.message = tr("合成を中止しました。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  if (!ok || !fs::exists(dir / "output.wav", ec)) {
    outcome.message = tr("ボコーダ再実行に失敗しました。ログを確認してください。");
    appendSynthesisLog(outcome.message);
    endSynthesis(std::move(outcome));
    return;
  }
  PianoRollViewModel& vm = pianoRollVM_;
  _synthesisProgress = 100.0;
  outcome.success = true;
  if (skipF0) {
    outcome.message = tr("✓ f0編集を反映してWAVを再生成しました");
  } else {
    // The engine predicted a new curve from the new timing. It belongs on the editor's line
    // only if that line is still the one the run started from.
    std::optional<std::vector<float>> now;
    if (vm.editedPitchCurve()) now = vm.editedPitchCurve()->frequencies;
    if (vm.documentSwapSeq() == swapSeq && now == curveAtStart) {
      if (auto curve = PitchCurve::read(dir / "output.f0")) {
        if (vm.editedPitchCurve())
          curve->frameIntervalSec = vm.editedPitchCurve()->frameIntervalSec;
        vm.setOriginalPitchCurve(curve);
        vm.setEditedPitchCurve(curve);
      }
      outcome.message = tr("✓ 音の境目の直しを反映して、f0 も推し直し、WAV を作り直しました");
    } else {
      outcome.message =
          tr("✓ 音の境目の直しを反映して WAV を作り直しました。作り直している間に音高の線が替わった"
             "ため（音高の直し・曲の切り替えなど）、推し直した f0 は線に載せていません");
    }
  }
  appendSynthesisLog(outcome.message);
  outcome.wavPath = (dir / "output.wav").string();
  endSynthesis(std::move(outcome));
  // The voice changed under the mix: make the live mix anew from the stored voices.
  remixVoices();
}

// ---- Re-mix ----

void AppState::recomputeTracksNeedingSynthesis() {
  std::vector<Uuid> needing;
  if (!trackVoiceWAVs_.empty()) {
    const MusicDocument& d = pianoRollVM_.document();
    for (int i : d.voicedTrackIndices(false)) {
      const Uuid& id = d.tracks[static_cast<std::size_t>(i)].id;
      if (!trackVoiceWAVs_.count(id)) needing.push_back(id);
    }
  }
  assign(_tracksNeedingSynthesis, std::move(needing), "tracksNeedingSynthesis");
}

void AppState::mixMayHaveChanged() {
  if (trackVoiceWAVs_.empty()) return;  // nothing sung yet: nothing to mix again
  std::string signature = PianoRollViewModel::mixSignature(pianoRollVM_.document());
  if (signature == voiceMixSignature_) return;
  voiceMixSignature_ = std::move(signature);
  remixVoices();
}

void AppState::remixVoices() {
  // The memory belongs to the song that was rendered.
  if (!trackVoiceWAVs_.empty() && pianoRollVM_.documentSwapSeq() != voiceMixSwapSeq_) {
    trackVoiceWAVs_.clear();
    trackVoiceVoices_.clear();
    voiceRemixDir_.reset();
  }
  recomputeTracksNeedingSynthesis();
  if (trackVoiceWAVs_.empty() || !voiceRemixDir_) return;
  // One re-mix at a time; changes that arrive meanwhile are folded into one more.
  if (voiceRemixWork_.joinable()) {
    remixPending_ = true;
    return;
  }
  const MusicDocument& d = pianoRollVM_.document();
  std::vector<fs::path> paths;
  std::vector<float> gains, pans;
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    const auto it = trackVoiceWAVs_.find(d.tracks[i].id);
    if (it == trackVoiceWAVs_.end()) continue;
    paths.emplace_back(it->second);
    gains.push_back(MultiTrackSynthesizer::mixGain(d, static_cast<int>(i)));
    pans.push_back(MultiTrackSynthesizer::mixPan(d.tracks[i].pan));
  }
  const std::uint64_t seq = ++voiceRemixSeq_;
  const fs::path out = fs::path(*voiceRemixDir_) / ("mix_live_" + std::to_string(seq) + ".wav");
  const float limit = voiceRemixScale_;
  std::weak_ptr<int> alive = alive_;
  voiceRemixWork_ = std::thread([this, alive, paths = std::move(paths), gains = std::move(gains),
                                 pans = std::move(pans), out, limit, seq] {
    // A voice file that has gone is left out: the others still make a mix.
    const MixResult r = mixdown::mix(paths, gains, pans, out, limit);
    loop_.post([this, alive, seq, ok = r.ok, out] {
      if (!alive.expired()) remixFinished(seq, ok, out.string());
    });
  });
}

void AppState::remixFinished(std::uint64_t seq, bool ok, const std::string& path) {
  if (voiceRemixWork_.joinable()) voiceRemixWork_.join();
  std::error_code ec;
  if (seq != voiceRemixSeq_ || !ok) {
    // A newer change is on its way, or this one failed: this file is nobody's.
    if (ok) fs::remove(path, ec);
    if (!ok) log::write("AppState", "re-mix failed: " + path);
  } else {
    if (lastLiveMixPath_) staleLiveMixes_.push_back(*lastLiveMixPath_);
    lastLiveMixPath_ = path;
    notify("lastLiveMixPath");
    // Nothing plays them in the core, so the old live mixes can go at once.
    for (const auto& stale : staleLiveMixes_) fs::remove(stale, ec);
    staleLiveMixes_.clear();
  }
  if (remixPending_) {
    remixPending_ = false;
    remixVoices();
  }
}

void AppState::waitForRemix() {
  while (voiceRemixWork_.joinable() || remixPending_) {
    if (loop_.runUntilIdle() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace melvo
