// melvo render FILE [--engine DIR] [--track N] [--out DIR] [--json]: the song to a mix.wav.
// The gate runs before anything else, so a refused song starts no process and leaves no
// folder behind. Progress and the engine's log go to stderr; stdout carries only the mix's
// path (or the JSON result), so scripts can take it as it is.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "melvo/synthesis/neutrino_config.h"

namespace fs = std::filesystem;

namespace melvo::cli {
namespace {

struct Options {
  std::string file;
  std::string engine;
  int track = -1;
  std::string out;
  bool json = false;
};

Json toJson(const MultiTrackSynthesizer::Result& r) {
  Json o = Json::object();
  o["success"] = r.success;
  o["mix"] = r.mixPath ? Json(r.mixPath->string()) : Json();
  o["scale"] = static_cast<double>(r.scale);
  Json tracks = Json::array();
  for (const auto& t : r.rendered)
    tracks.push(
        Json::Object{{"track", t.trackIndex}, {"name", t.trackName}, {"wav", t.wavPath.string()}});
  o["tracks"] = std::move(tracks);
  return o;
}

int run(const Options& o) {
  std::optional<MusicDocument> opened = openOrReport(o.file);
  if (!opened) return 2;
  MusicDocument& d = *opened;
  NEUTRINOConfig config = NEUTRINOConfig::load().value_or(NEUTRINOConfig{});
  if (!o.engine.empty()) config.neutrinoDirectory = fs::absolute(o.engine).string();
  if (config.neutrinoDirectory.empty()) {
    printError(tr("NEUTRINO フォルダが設定されていません"));
    return 2;
  }

  const int count = static_cast<int>(d.tracks.size());
  std::optional<int> selected;
  std::vector<int> tracks;
  if (o.track >= 0) {
    if (o.track >= count) {
      printError(trf("トラック %@ はありません（0〜%@）",
                     {std::to_string(o.track), std::to_string(count - 1)}));
      return 2;
    }
    selected = o.track;
    tracks = {o.track};
  } else {
    tracks = MultiTrackSynthesizer::singableTracks(d, false);
    // No voiced audible track: the one track a single render would sing.
    if (tracks.empty()) tracks = SynthesisGate::sungTrackIndices(d, {});
  }
  // A track without a voice of its own sings with the voice of the settings.
  for (int i : tracks) {
    auto& t = d.tracks[static_cast<std::size_t>(i)];
    if (t.characterName.empty()) t.characterName = config.selectedCharacterName;
    if (t.characterName.empty()) {
      printError(trf("トラック %@ に声が割り当てられていません", {std::to_string(i)}));
      return 2;
    }
  }

  std::vector<Uuid> sung;
  for (int i : tracks) sung.push_back(d.tracks[static_cast<std::size_t>(i)].id);
  const auto problems = SynthesisGate::problems(d, sung, selected);
  if (SynthesisGate::blocks(problems)) {
    printError(SynthesisGate::refusalWithList(problems));
    return 2;
  }

  const fs::path runDir = o.out.empty()
                              ? MultiTrackSynthesizer::runFolder(fs::path(o.file).stem().string(),
                                                                 std::chrono::system_clock::now())
                              : fs::absolute(o.out);

  EventLoop loop;
  NEUTRINOEngine engine(loop);
  MultiTrackSynthesizer synth(loop, engine);
  // Ctrl-C stops the engine's whole process group instead of orphaning it.
  loop.onSignals({SIGINT, SIGTERM}, [&](int) { synth.cancel(); });
  std::optional<MultiTrackSynthesizer::Result> result;
  int shown = -1;
  std::string shownStage;
  synth.render(
      d, runDir, config, tracks,
      [&](double pct, const std::string& stage, std::optional<double>) {
        const int whole = static_cast<int>(pct);
        if (whole == shown && stage == shownStage) return;
        shown = whole;
        shownStage = stage;
        std::fprintf(stderr, "%3d%% %s\n", whole, stage.c_str());
      },
      [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); },
      [&](MultiTrackSynthesizer::Result r) {
        result = std::move(r);
        loop.stop();
      });
  if (!result) loop.run();

  if (o.json) std::printf("%s\n", toJson(*result).dump(JsonStyle::Pretty).c_str());
  if (!result->success) {
    printError(tr("合成に失敗しました"));
    return 1;
  }
  if (!o.json) std::printf("%s\n", result->mixPath->c_str());
  return 0;
}

const bool registered = registerCommand(
    {"render", N_("曲を NEUTRINO で合成し、トラックをミックスした WAV を作る"), 35,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("FILE", opts->file, tr("開くファイル"))->required();
       sub.add_option("--engine", opts->engine, tr("NEUTRINO のフォルダ（設定より優先）"))
           ->type_name("DIR");
       sub.add_option("--track", opts->track, tr("合成するトラック（0 から数える）"))
           ->type_name("N");
       sub.add_option("--out", opts->out, tr("この回の出力フォルダ（既定は音楽フォルダの Melvo/）"))
           ->type_name("DIR");
       sub.add_flag("--json", opts->json, tr("JSON で出力する"));
       sub.footer(
           tr("合成できない音があれば何も始めずに終了コード 2、合成の失敗は 1 を返します。"));
       return [opts] { return run(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
