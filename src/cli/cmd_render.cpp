// melvo render, takes and rerender: from a song to a mix.wav, the list of what was rendered,
// and the engine's late stage again after the curve or timing files of a run were edited.
//
// A render goes through the application core, as a window's would: the same start checks
// (the gate before any process starts, so a refused song leaves nothing behind), the same
// take history and the same diagnosis of a failure. Progress and the engine's log go to
// stderr; stdout carries only the result (a path, or JSON), so scripts can take it as it is.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>

#include "cli/command.h"
#include "cli/open_song.h"
#include "cli/progress_line.h"
#include "melvo/app/app_state.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/synthesis/mixdown.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace fs = std::filesystem;

namespace melvo::cli {
namespace {

struct RenderOptions {
  std::string file;
  std::string engine;
  std::string voice;
  int track = -1;
  int bars = 0;
  std::string out;
  bool json = false;
};

// The settings, with --engine and --voice for this run only.
NEUTRINOConfig runConfig(NEUTRINOConfig config, const std::string& engine,
                         const std::string& voice) {
  if (!engine.empty()) config.neutrinoDirectory = fs::absolute(engine).lexically_normal().string();
  if (!voice.empty()) config.selectedCharacterName = voice;
  return config;
}

void printDiagnosis(const Diagnosis& d) {
  std::fprintf(stderr, "\n%s\n%s\n", d.title.c_str(), d.detail.c_str());
  for (std::size_t i = 0; i < d.fixes.size(); ++i) {
    // A fix may be a sentence and a command on the next line: both stand under the number.
    std::string fix = d.fixes[i];
    for (auto at = fix.find('\n'); at != std::string::npos; at = fix.find('\n', at + 1))
      fix.insert(at + 1, "     ");
    std::fprintf(stderr, "  %zu. %s\n", i + 1, fix.c_str());
  }
}

Json diagnosisJson(const std::optional<Diagnosis>& d) {
  if (!d) return Json();
  Json fixes = Json::array();
  for (const auto& f : d->fixes) fixes.push(f);
  return Json::Object{{"title", d->title}, {"detail", d->detail}, {"fixes", std::move(fixes)}};
}

const char* endingName(AppState::SynthesisOutcome::Ending e) {
  switch (e) {
    case AppState::SynthesisOutcome::Ending::succeeded:
      return "succeeded";
    case AppState::SynthesisOutcome::Ending::refused:
      return "refused";
    case AppState::SynthesisOutcome::Ending::failed:
      return "failed";
    case AppState::SynthesisOutcome::Ending::cancelled:
      return "cancelled";
  }
  return "failed";
}

// The exit statuses of render and rerender, one per way a run can end.
constexpr int kExitFailed = 1;
constexpr int kExitRefused = 2;
// Ended by a signal: 128 + the signal, as a shell reports a process that the signal killed.
int exitForSignal(int signal) {
  return 128 + signal;
}

struct Followed {
  std::optional<AppState::SynthesisOutcome> outcome;  // nothing: refused before it started
  int signal = 0;                                     // the first of SIGINT, SIGTERM, SIGHUP
};

// Starts a render or re-render with `start` and runs the loop until it has ended, showing its
// progress and log. SIGINT, SIGTERM and SIGHUP cancel it (a second one kills the engine at
// once); the command then ends only after the engine's whole process group has, so nothing is
// left running behind the prompt or a closed terminal.
Followed follow(EventLoop& loop, AppState& app,
                const std::function<std::optional<std::string>()>& start) {
  Followed f;
  ProgressLine progress;
  std::size_t shownLines = 0;
  bool stallShown = false;
  // The core's words for a failure point at a window's menu; the command says its own.
  const std::string failureWords[] = {
      tr("合成が失敗しました。メニュー「ミックスダウン」→「合成の記録を表示…」でログを確認"
         "してください。"),
      tr("マルチトラック合成に失敗しました。メニュー「ミックスダウン」→「合成の記録を表示…」"
         "でログを確認してください。"),
      tr("ボコーダ再実行に失敗しました。ログを確認してください。")};
  auto showLog = [&] {
    const auto& log = app.synthesisLog();
    for (; shownLines < log.size(); ++shownLines) {
      const std::string& line = log[shownLines];
      // Our script's own progress lines are on the bar already.
      if (NEUTRINOEngine::isScriptProgressLine(line)) continue;
      if (std::find(std::begin(failureWords), std::end(failureWords), line) !=
          std::end(failureWords))
        continue;
      progress.message(line);
    }
  };
  const auto token = app.subscribe([&](std::string_view property) {
    if (property == "synthesisLog") showLog();
    if (property == "synthesisProgress" && app.isSynthesizing())
      progress.update(app.synthesisProgress(), app.synthesisStage());
    if (property == "synthesisStalledMessage") {
      // Once per silence: the count of seconds in it changes every second.
      if (app.synthesisStalledMessage() && !stallShown)
        progress.message(*app.synthesisStalledMessage());
      stallShown = app.synthesisStalledMessage().has_value();
    }
  });
  app.synthesisEnded = [&](const AppState::SynthesisOutcome& o) {
    f.outcome = o;
    loop.stop();
  };
  // Before the start: its engine check already runs processes.
  loop.onSignals({SIGINT, SIGTERM, SIGHUP}, [&](int signal) {
    if (!f.signal) f.signal = signal;
    app.cancelSynthesis();
  });
  if (auto refusal = start()) {
    // Alerts were printed as they came; the gate's list went to the run's log.
    showLog();
    if (!app.synthesisLog().empty() && app.synthesisLog().back() != *refusal) printError(*refusal);
    app.unsubscribe(token);
    app.synthesisEnded = nullptr;
    return f;
  }
  while (!f.outcome) loop.run();
  showLog();
  progress.finish();
  app.unsubscribe(token);
  app.synthesisEnded = nullptr;
  return f;
}

// The exit status of a followed run, after its last words.
int finishFollowed(const Followed& f) {
  if (!f.outcome) return kExitRefused;
  const auto& o = *f.outcome;
  using Ending = AppState::SynthesisOutcome::Ending;
  switch (o.ending) {
    case Ending::succeeded:
      return 0;
    case Ending::refused:
      return kExitRefused;
    case Ending::cancelled:
      return f.signal ? exitForSignal(f.signal) : kExitFailed;
    case Ending::failed:
      break;
  }
  printError(o.revocode ? tr("ボコーダ再実行に失敗しました。上の記録を確かめてください。")
                        : tr("合成に失敗しました。上の記録を確かめてください。"));
  // The notes the engine stopped on, with their bar and lyric.
  for (const auto& row : o.engineRows) printError(row.message);
  if (o.diagnosis) printDiagnosis(*o.diagnosis);
  return kExitFailed;
}

// Whether the mixer lets track `i` be heard: a track asked for alone but muted (or left out by
// another track's solo, or at volume 0) would give a silent mix.
bool audible(const MusicDocument& d, int i) {
  return MultiTrackSynthesizer::mixGain(d, i) > 0;
}

int render(const RenderOptions& o) {
  std::optional<MusicDocument> opened = openOrReport(o.file);
  if (!opened) return kExitRefused;
  MusicDocument& d = *opened;
  const int count = static_cast<int>(d.tracks.size());
  if (o.track >= count) {
    printError(trf("トラック %@ はありません（0〜%@）",
                   {std::to_string(o.track), std::to_string(count - 1)}));
    return kExitRefused;
  }
  if (o.track >= 0 && !audible(d, o.track)) {
    printError(
        trf("トラック %@ はミックスで聞こえません（消音・ほかのトラックのソロ・音量 0）。"
            "聞こえるようにしてから合成してください",
            {std::to_string(o.track)}));
    return kExitRefused;
  }
  // --voice is a request to hear the song in that voice: every track sings with it.
  if (!o.voice.empty())
    for (auto& t : d.tracks) t.characterName = o.voice;

  EventLoop loop;
  FrontEnd frontEnd;
  frontEnd.alert = [](const std::string& text) { printError(text); };
  AppState app(loop, frontEnd);
  app.overrideConfig(runConfig(app.config(), o.engine, o.voice));
  if (!o.out.empty()) app.runFolderOverride = fs::absolute(o.out).lexically_normal();
  app.adoptDocument(std::move(d), o.file);

  PianoRollViewModel& vm = app.pianoRollVM();
  MixdownKind kind = MixdownKind::allTracks;
  if (o.track >= 0) {
    vm.setCurrentTrackIndex(o.track);
    kind = MixdownKind::selectedTrack;
  }
  if (o.bars > 0) {
    vm.setLoopStartTick(0);
    vm.setLoopEndTick(vm.document().tickOfBarCount(o.bars));
    kind = o.track >= 0 ? MixdownKind::rangeSelectedTrack : MixdownKind::rangeAllTracks;
  }

  const Followed f = follow(loop, app, [&] { return app.startSynthesis(kind); });
  app.waitForRemix();
  if (o.json && f.outcome) {
    const auto& outcome = *f.outcome;
    Json r = Json::object();
    r["success"] = outcome.success;
    r["ending"] = endingName(outcome.ending);
    r["mix"] = outcome.wavPath ? Json(*outcome.wavPath) : Json();
    r["scale"] = static_cast<double>(app.voiceRemixScale());
    Json tracks = Json::array();
    const MusicDocument& doc = app.pianoRollVM().document();
    for (int i : outcome.renderedTracks) {
      const MusicTrack& t = doc.tracks[static_cast<std::size_t>(i)];
      const auto wav = app.trackVoiceWAVs().find(t.id);
      tracks.push(
          Json::Object{{"track", i},
                       {"name", t.name},
                       {"wav", wav != app.trackVoiceWAVs().end() ? Json(wav->second) : Json()}});
    }
    r["tracks"] = std::move(tracks);
    r["message"] = outcome.message;
    r["diagnosis"] = diagnosisJson(outcome.diagnosis);
    Json stopped = Json::array();
    for (const auto& row : outcome.engineRows)
      stopped.push(Json::Object{{"track", row.trackIndex},
                                {"tick", row.tick},
                                {"note", row.noteID ? Json(row.noteID->toString()) : Json()},
                                {"message", row.message}});
    r["engineStoppedOn"] = std::move(stopped);
    std::printf("%s\n", r.dump(JsonStyle::Pretty).c_str());
  }
  const int status = finishFollowed(f);
  if (status == 0 && !o.json) std::printf("%s\n", f.outcome->wavPath->c_str());
  return status;
}

// ---- melvo takes ----

int takes(bool json) {
  EventLoop loop;
  AppState app(loop);  // loading drops takes whose file is gone
  const auto& list = app.takeHistory();
  if (json) {
    Json arr = Json::array();
    for (const auto& t : list)
      arr.push(Json::Object{{"id", t.id.toString()},
                            {"createdAt", t.createdAt},
                            {"wavPath", t.wavPath},
                            {"characterName", t.characterName ? Json(*t.characterName) : Json()},
                            {"title", t.title},
                            {"noteCount", t.noteCount},
                            {"durationSec", t.durationSec}});
    std::printf("%s\n", arr.dump(JsonStyle::Pretty).c_str());
    return 0;
  }
  if (list.empty()) {
    std::printf("%s\n", tr("まだ合成した記録がありません"));
    return 0;
  }
  for (const auto& t : list) {
    const long long secs = static_cast<long long>(t.durationSec + 0.5);
    std::printf("%s  %lld:%02lld  %s  %s\n    %s\n", localTime(t.createdAt).c_str(), secs / 60,
                secs % 60, t.characterName.value_or("-").c_str(),
                trf("「%@」 — %d音符", {t.title, std::to_string(t.noteCount)}).c_str(),
                t.wavPath.c_str());
  }
  return 0;
}

// ---- melvo rerender ----

struct RerenderOptions {
  std::string runDir;
  std::string engine;
  std::string voice;
  bool skipF0 = false;
  bool all = false;
};

int rerender(const RerenderOptions& o) {
  EventLoop loop;
  FrontEnd frontEnd;
  frontEnd.alert = [](const std::string& text) { printError(text); };
  AppState app(loop, frontEnd);
  app.overrideConfig(runConfig(app.config(), o.engine, o.voice));
  const auto plan =
      app.planFolderRevocode(fs::absolute(o.runDir).lexically_normal(), o.all, o.voice);
  if (plan.refusal) {
    printError(*plan.refusal);
    return kExitRefused;
  }
  if (plan.tracks.empty()) {
    std::fprintf(stderr, "%s\n", tr("直されたトラックはありません（すべて作り直すには --all）"));
    return 0;
  }
  const Followed f = follow(loop, app, [&] { return app.startFolderRevocode(plan, o.skipF0); });
  const int status = finishFollowed(f);
  if (status == 0) std::printf("%s\n", f.outcome->wavPath->c_str());
  return status;
}

// The same words under both commands' help.
std::string exitStatusHelp() {
  return tr(
      "終了コード: 0 できた / 1 失敗（エンジン・ミックス・ファイル） / 2 始める前に断った"
      "（使い方・設定・声・楽譜の確認） / 130 Ctrl-C（SIGINT）で中止 / 143 SIGTERM で中止 / "
      "129 端末が閉じた（SIGHUP）ので中止。中止したときも、エンジンのプロセスは残しません。");
}

const bool registeredRender = registerCommand(
    {"render", N_("曲を NEUTRINO で合成し、トラックをミックスした WAV を作る"), 35,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<RenderOptions>();
       sub.add_option("FILE", opts->file, tr("開くファイル"))->required();
       sub.add_option("--engine", opts->engine, tr("NEUTRINO のフォルダ（設定より優先）"))
           ->type_name("DIR");
       sub.add_option("--voice", opts->voice, tr("この回は全トラックをこの声で歌わせる"))
           ->type_name("NAME");
       sub.add_option("--track", opts->track, tr("合成するトラック（0 から数える）"))
           ->type_name("N");
       sub.add_option("--bars", opts->bars, tr("頭からこの小節までを合成する"))
           ->type_name("N")
           ->check(CLI::PositiveNumber);
       sub.add_option("--out", opts->out, tr("この回の出力フォルダ（既定は音楽フォルダの Melvo/）"))
           ->type_name("DIR");
       sub.add_flag("--json", opts->json, tr("JSON で出力する"));
       sub.footer(
           std::string(
               tr("合成できない音があれば何も始めずに終了コード 2、合成の失敗は 1 を返します。")) +
           "\n" + exitStatusHelp());
       return [opts] { return render(*opts); };
     }});

const bool registeredTakes =
    registerCommand({"takes", N_("これまでに合成したテイクを新しい順に表示する"), 36,
                     [](CLI::App& sub) -> CommandRun {
                       auto json = std::make_shared<bool>(false);
                       sub.add_flag("--json", *json, tr("JSON で出力する"));
                       return [json] { return takes(*json); };
                     }});

const bool registeredRerender = registerCommand(
    {"rerender", N_("編集した f0・タイミングから、合成の後半だけをやり直す"), 37,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<RerenderOptions>();
       sub.add_option("RUNDIR", opts->runDir,
                      tr("合成の出力フォルダ（またはその中のトラックのフォルダ）"))
           ->required();
       sub.add_flag("--skip-f0", opts->skipF0, tr("編集した output.f0 をそのまま使う"));
       sub.add_flag("--all", opts->all, tr("直していないトラックも作り直す"));
       sub.add_option("--engine", opts->engine, tr("NEUTRINO のフォルダ（設定より優先）"))
           ->type_name("DIR");
       sub.add_option("--voice", opts->voice, tr("この回は全トラックをこの声で歌わせる"))
           ->type_name("NAME");
       sub.footer(
           std::string(tr("timing.lab か output.f0 が output.wav より新しいトラックを作り直し、"
                          "mix.wav もミックスし直します。")) +
           "\n" + exitStatusHelp());
       return [opts] { return rerender(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
