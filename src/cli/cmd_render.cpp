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
  for (std::size_t i = 0; i < d.fixes.size(); ++i)
    std::fprintf(stderr, "  %zu. %s\n", i + 1, d.fixes[i].c_str());
}

Json diagnosisJson(const std::optional<Diagnosis>& d) {
  if (!d) return Json();
  Json fixes = Json::array();
  for (const auto& f : d->fixes) fixes.push(f);
  return Json::Object{{"title", d->title}, {"detail", d->detail}, {"fixes", std::move(fixes)}};
}

// Runs the loop until the started render or re-render has ended, showing its progress and
// log, with Ctrl-C stopping the engine's whole process group instead of orphaning it.
AppState::SynthesisOutcome follow(EventLoop& loop, AppState& app) {
  ProgressLine progress;
  std::size_t shownLines = 0;
  std::optional<AppState::SynthesisOutcome> outcome;
  auto showLog = [&] {
    const auto& log = app.synthesisLog();
    for (; shownLines < log.size(); ++shownLines) progress.message(log[shownLines]);
  };
  showLog();  // what the start already wrote (the range, the rest bar)
  const auto token = app.subscribe([&](std::string_view property) {
    if (property == "synthesisLog") showLog();
    if (property == "synthesisProgress" && app.isSynthesizing())
      progress.update(app.synthesisProgress(), app.synthesisStage(), app.synthesisETA());
    if (property == "synthesisStalledMessage" && app.synthesisStalledMessage())
      progress.message(*app.synthesisStalledMessage());
  });
  app.synthesisEnded = [&](const AppState::SynthesisOutcome& o) {
    outcome = o;
    loop.stop();
  };
  loop.onSignals({SIGINT, SIGTERM}, [&](int) { app.cancelSynthesis(); });
  loop.run();
  showLog();
  progress.finish();
  app.unsubscribe(token);
  app.synthesisEnded = nullptr;
  return *outcome;
}

int render(const RenderOptions& o) {
  std::optional<MusicDocument> opened = openOrReport(o.file);
  if (!opened) return 2;
  MusicDocument& d = *opened;
  const int count = static_cast<int>(d.tracks.size());
  if (o.track >= count) {
    printError(trf("トラック %@ はありません（0〜%@）",
                   {std::to_string(o.track), std::to_string(count - 1)}));
    return 2;
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

  if (auto refusal = app.startSynthesis(kind)) {
    // Alerts were printed as they came; the gate's list went to the run's log.
    if (!app.synthesisLog().empty()) printError(*refusal);
    return 2;
  }
  const AppState::SynthesisOutcome outcome = follow(loop, app);
  app.waitForRemix();

  if (o.json) {
    Json r = Json::object();
    r["success"] = outcome.success;
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
    std::printf("%s\n", r.dump(JsonStyle::Pretty).c_str());
  }
  if (!outcome.success) {
    if (outcome.diagnosis) printDiagnosis(*outcome.diagnosis);
    return 1;
  }
  if (!o.json) std::printf("%s\n", outcome.wavPath->c_str());
  return 0;
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

struct TrackDir {
  fs::path dir;
  std::string voice;
};

// A track's folder was edited when its timing or curve is newer than its voice.
bool edited(const fs::path& dir) {
  std::error_code ec;
  const auto wav = fs::last_write_time(dir / "output.wav", ec);
  if (ec) return true;
  for (const char* name : {"timing.lab", "output.f0"}) {
    const auto t = fs::last_write_time(dir / name, ec);
    if (!ec && t > wav) return true;
  }
  return false;
}

int rerender(const RerenderOptions& o) {
  const fs::path run = fs::absolute(o.runDir).lexically_normal();
  NEUTRINOConfig config =
      runConfig(NEUTRINOConfig::load().value_or(NEUTRINOConfig{}), o.engine, o.voice);
  if (config.neutrinoDirectory.empty()) {
    printError(tr("NEUTRINO フォルダが設定されていません"));
    return 2;
  }
  // A run folder names its tracks and their voices in its mix recipe; a track's own folder
  // sings with the voice given or the settings' voice.
  const auto recipe = MultiTrackSynthesizer::readMixRecipe(run);
  std::vector<TrackDir> dirs;
  if (recipe) {
    for (const auto& v : recipe->voices)
      dirs.push_back({run / v.folder, o.voice.empty() ? v.characterName : o.voice});
  } else if (fs::exists(run / "full.lab")) {
    dirs.push_back({run, config.selectedCharacterName});
  } else {
    printError(trf("合成の出力フォルダではありません: %@", {run.string()}));
    return 2;
  }
  std::erase_if(dirs, [&](const TrackDir& t) { return !o.all && !edited(t.dir); });
  if (dirs.empty()) {
    std::fprintf(stderr, "%s\n", tr("直されたトラックはありません（すべて作り直すには --all）"));
    return 0;
  }

  EventLoop loop;
  NEUTRINOEngine engine(loop);
  ProgressLine progress;
  bool ok = true;
  bool cancelled = false;
  std::vector<std::string> log;
  loop.onSignals({SIGINT, SIGTERM}, [&](int) {
    cancelled = true;
    engine.cancel();
  });
  for (const TrackDir& t : dirs) {
    if (t.voice.empty()) {
      printError(tr("声が決まっていません（--voice で指定してください）"));
      return 2;
    }
    NEUTRINOConfig c = config;
    c.selectedCharacterName = t.voice;
    progress.message("▶ " + t.dir.filename().string() + " (" + t.voice + ")");
    std::optional<bool> done;
    engine.revocode(
        c, t.dir, o.skipF0,
        [&](double pct, const std::string&, std::optional<double> eta) {
          progress.update(pct, tr("ボコーダ再実行中..."), eta);
        },
        [&](const std::string& line) {
          log.push_back(line);
          progress.message(line);
        },
        [&](bool r) {
          done = r;
          loop.stop();
        });
    if (!done) loop.run();
    std::error_code ec;
    if (!*done || !fs::exists(t.dir / "output.wav", ec) || cancelled) {
      ok = false;
      break;
    }
  }
  progress.finish();
  if (!ok) {
    printError(tr("ボコーダ再実行に失敗しました。ログを確認してください。"));
    if (auto d = diagnose(log)) printDiagnosis(*d);
    return 1;
  }
  if (!recipe) {
    std::printf("%s\n", (run / "output.wav").c_str());
    return 0;
  }
  // The voices are mixed again as the render mixed them, never louder than it allowed.
  std::vector<fs::path> paths;
  std::vector<float> gains, pans;
  for (const auto& v : recipe->voices) {
    paths.push_back(run / v.folder / "output.wav");
    gains.push_back(v.gain);
    pans.push_back(v.pan);
  }
  const fs::path mix = run / "mix.wav";
  if (!mixdown::mix(paths, gains, pans, mix, recipe->scale).ok) {
    printError(tr("⚠ ミックスダウンに失敗"));
    return 1;
  }
  std::printf("%s\n", mix.c_str());
  return 0;
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
           tr("合成できない音があれば何も始めずに終了コード 2、合成の失敗は 1 を返します。"));
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
           tr("timing.lab か output.f0 が output.wav より新しいトラックを作り直し、mix.wav "
              "もミックスし直します。"));
       return [opts] { return rerender(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
