#include "melvo/synthesis/multi_track_synthesizer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/log.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/uuid.h"
#include "melvo/synthesis/mixdown.h"

namespace fs = std::filesystem;

namespace melvo {

struct MultiTrackSynthesizer::Run {
  MusicDocument document;  // kept for the mix: gains are read after the last track
  fs::path runDir;
  NEUTRINOConfig config;
  std::vector<TrackPlan> plans;
  std::vector<RenderedTrack> rendered;
  std::vector<Uuid> renderedIDs;
  ProgressHandler onProgress;
  LogHandler onLog;
  DoneHandler onDone;
  bool cancelled = false;
};

namespace {

void replaceAll(std::string& s, char from, char to) {
  std::replace(s.begin(), s.end(), from, to);
}

// At most `limit` bytes, cut before a UTF-8 lead byte so no character is split.
std::string cutToBytes(std::string s, std::size_t limit) {
  if (s.size() <= limit) return s;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
  s.resize(end);
  return s;
}

// The small files of a run folder (scores, the mix recipe) replace their target whole, so
// nobody ever reads half of one. They are not flushed to disk: the voices and the mix beside
// them are not either, so a flush would not make a run survive a crash, and it costs
// milliseconds per file on every render. Throws FileError.
void writeRunFile(const fs::path& path, std::string_view bytes) {
  writeFileAtomically(path, bytes, Durability::unflushed);
}

}  // namespace

MultiTrackSynthesizer::MultiTrackSynthesizer(EventLoop& mainQueue, NEUTRINOEngine& engine)
    : loop_(mainQueue), engine_(engine) {}

MultiTrackSynthesizer::~MultiTrackSynthesizer() {
  alive_.reset();
  // A series that outlives its owner would sing on into a folder nobody reads.
  if (running_) engine_.cancel();
  if (mixer_.joinable()) mixer_.join();
}

std::vector<int> MultiTrackSynthesizer::singableTracks(const MusicDocument& document,
                                                       bool includingMuted) {
  return document.voicedTrackIndices(includingMuted);
}

fs::path MultiTrackSynthesizer::runFolder(const std::string& projectName,
                                          std::chrono::system_clock::time_point when) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch());
  const std::time_t secs = std::chrono::system_clock::to_time_t(
      std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::seconds>(ms)));
  std::tm local{};
  localtime_r(&secs, &local);
  char stamp[40];
  const std::size_t len = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H-%M-%S", &local);
  std::snprintf(stamp + len, sizeof stamp - len, "-%03d",
                static_cast<int>((ms.count() % 1000 + 1000) % 1000));
  std::string name = cutToBytes(projectName, kMaxNameBytes) + "_" + stamp;
  replaceAll(name, ':', '-');
  replaceAll(name, '/', '_');
  replaceAll(name, ' ', '_');
  return paths::musicDir() / "Melvo" / name;
}

std::string MultiTrackSynthesizer::safeName(std::string name) {
  replaceAll(name, '/', '_');
  replaceAll(name, ' ', '_');
  return cutToBytes(std::move(name), kMaxNameBytes);
}

std::vector<MultiTrackSynthesizer::TrackPlan> MultiTrackSynthesizer::plan(
    const MusicDocument& document, const std::vector<int>& trackIndices, const fs::path& runDir) {
  std::vector<TrackPlan> plans;
  for (int index : trackIndices) {
    const MusicTrack& track = document.tracks.at(static_cast<std::size_t>(index));
    TrackPlan p;
    p.trackIndex = index;
    p.trackName = track.name;
    p.characterName = track.characterName;
    p.outputDir =
        runDir / ("track" + std::to_string(plans.size() + 1) + "_" + safeName(track.name));
    p.xmlPath = p.outputDir / "score.musicxml";
    p.wavPath = p.outputDir / "output.wav";
    p.volume = track.volume;
    p.pan = track.pan;
    std::error_code ec;
    fs::create_directories(p.outputDir, ec);
    if (ec) throw FileError(p.outputDir.string() + ": " + ec.message());
    writeRunFile(p.xmlPath, MusicXMLExporter::render(document.singleTrackCopy(index)));
    plans.push_back(std::move(p));
  }
  return plans;
}

double MultiTrackSynthesizer::overallProgress(std::size_t i, std::size_t n, double percentage) {
  if (n == 0) return 0;
  const double clamped = percentage > 100 ? 1.0 : percentage < 0 ? 0.0 : percentage / 100;
  return std::min((static_cast<double>(i) + clamped) / static_cast<double>(n) * 100, 99.0);
}

float MultiTrackSynthesizer::mixGain(const MusicDocument& document, int trackIndex) {
  if (trackIndex < 0 || trackIndex >= static_cast<int>(document.tracks.size())) return 0;
  const MusicTrack& track = document.tracks[static_cast<std::size_t>(trackIndex)];
  if (track.isMuted) return 0;
  const bool anySolo = std::any_of(document.tracks.begin(), document.tracks.end(),
                                   [](const MusicTrack& t) { return t.isSolo && !t.isMuted; });
  if (anySolo && !track.isSolo) return 0;
  // A NaN volume must not reach the mix: it would silence every other voice too.
  if (!(track.volume > 0)) return 0;
  return static_cast<float>(std::min(track.volume, 1.5));
}

float MultiTrackSynthesizer::mixPan(double pan) {
  return std::isfinite(pan) ? static_cast<float>(std::clamp(pan, -1.0, 1.0)) : 0.0f;
}

void MultiTrackSynthesizer::render(const MusicDocument& document, const fs::path& runDir,
                                   const NEUTRINOConfig& config, std::vector<int> trackIndices,
                                   ProgressHandler onProgress, LogHandler onLog,
                                   DoneHandler onDone) {
  // One render at a time: a second one would fight the first over the engine.
  if (running_) {
    onLog(tr("⚠ 既に合成プロセスが走っています。完了を待つかキャンセルしてください。"));
    if (onDone) onDone({});
    return;
  }
  auto run = std::make_shared<Run>();
  run->document = document;
  run->runDir = runDir;
  run->config = config;
  run->onProgress = std::move(onProgress);
  run->onLog = std::move(onLog);
  run->onDone = std::move(onDone);
  if (trackIndices.empty()) trackIndices = singableTracks(document, false);
  running_ = true;
  current_ = run;

  if (trackIndices.empty()) {
    run->onLog(tr("⚠ 合成対象のトラックがありません（非ミュート＆キャラ割当が必要）"));
    finish(run, {});
    return;
  }
  std::error_code ec;
  fs::create_directories(runDir, ec);
  if (ec) {
    run->onLog(trf("出力フォルダを作れませんでした: %@", {runDir.string() + ": " + ec.message()}));
    finish(run, {});
    return;
  }
  try {
    run->plans = plan(document, trackIndices, runDir);
  } catch (const FileError& e) {
    run->onLog(trf("MusicXML書き出しに失敗: %@", {e.what()}));
    finish(run, {});
    return;
  }
  runTrack(run, 0);
}

void MultiTrackSynthesizer::runTrack(std::shared_ptr<Run> run, std::size_t i) {
  const std::size_t n = run->plans.size();
  if (run->cancelled) {
    // A cancel between two tracks: the next one is not started, and nothing is mixed.
    Result result;
    result.cancelled = true;
    result.rendered = run->rendered;
    result.renderedTrackIDs = run->renderedIDs;
    finish(run, std::move(result));
    return;
  }
  if (i == n) {
    mixAll(std::move(run));
    return;
  }
  const TrackPlan& p = run->plans[i];
  run->onLog(trf("▶ トラック %@/%@: %@ (%@)",
                 {std::to_string(i + 1), std::to_string(n), p.trackName, p.characterName}));
  run->onProgress(overallProgress(i, n, 0), tr("合成準備中..."), std::nullopt);
  NEUTRINOConfig config = run->config;
  config.selectedCharacterName = p.characterName;
  engine_.synthesize(
      config, p.xmlPath, p.outputDir,
      [run, i, n](double pct, const std::string& stage, std::optional<double> eta) {
        run->onProgress(overallProgress(i, n, pct), stage, eta);
      },
      run->onLog,
      [this, run, i, alive = std::weak_ptr<int>(alive_)](bool ok) {
        if (alive.expired()) return;
        const TrackPlan& p = run->plans[i];
        // A zero status without the voice file is no success: there would be nothing to mix.
        std::error_code ec;
        if (!ok || !fs::exists(p.wavPath, ec) || run->cancelled) {
          if (!run->cancelled) run->onLog(trf("⚠ トラック %@ の合成に失敗しました", {p.trackName}));
          Result result;
          result.cancelled = run->cancelled;
          result.rendered = run->rendered;
          result.renderedTrackIDs = run->renderedIDs;
          finish(run, std::move(result));
          return;
        }
        run->rendered.push_back({p.trackIndex, p.trackName, p.wavPath});
        run->renderedIDs.push_back(run->document.tracks[static_cast<std::size_t>(p.trackIndex)].id);
        // From the main queue, not from inside the engine's own callback.
        loop_.post([this, run, i, alive] {
          if (!alive.expired()) runTrack(run, i + 1);
        });
      });
}

void MultiTrackSynthesizer::mixAll(std::shared_ptr<Run> run) {
  run->onProgress(99.0, tr("WAVをミックスダウン中..."), std::nullopt);
  run->onLog(run->rendered.size() == 1
                 ? std::string(tr("▶ 1トラックをミックスダウン"))
                 : trf("▶ %@トラックをミックスダウン", {std::to_string(run->rendered.size())}));
  std::vector<fs::path> paths;
  std::vector<float> gains, pans;
  for (const auto& p : run->plans) {
    paths.push_back(p.wavPath);
    gains.push_back(mixGain(run->document, p.trackIndex));
    pans.push_back(mixPan(p.pan));
  }
  const fs::path out = run->runDir / "mix.wav";
  MixRecipe recipe;
  for (std::size_t k = 0; k < run->plans.size(); ++k) {
    const TrackPlan& p = run->plans[k];
    recipe.voices.push_back({p.outputDir.filename().string(), p.characterName, gains[k], pans[k]});
  }
  if (mixer_.joinable()) mixer_.join();
  std::weak_ptr<int> alive = alive_;
  mixer_ = std::thread([this, run, alive, paths = std::move(paths), gains = std::move(gains),
                        pans = std::move(pans), out, recipe = std::move(recipe)]() mutable {
    const MixResult mixed = mixdown::mix(paths, gains, pans, out, 1.0f);
    if (mixed.ok) {
      recipe.scale = mixed.scale;
      try {
        writeMixRecipe(run->runDir, recipe);
      } catch (const FileError& e) {
        // The mix stands without it; only a later re-render of the folder needs it.
        log::write("Mixdown", std::string("mix recipe not written: ") + e.what());
      }
    }
    loop_.post([this, run, alive, mixed, out] {
      if (alive.expired()) return;
      Result result;
      result.rendered = run->rendered;
      result.renderedTrackIDs = run->renderedIDs;
      result.scale = mixed.ok ? mixed.scale : 1.0f;
      if (run->cancelled) {
        // Asked to stop while the voices were mixed: the file is there, but not asked for.
        result.cancelled = true;
      } else if (mixed.ok) {
        run->onLog(trf("✓ ミックスダウン完了: %@", {out.string()}));
        result.success = true;
        result.mixPath = out;
        run->onProgress(100.0, tr("ミックスダウン完了"), 0.0);
      } else {
        run->onLog(tr("⚠ ミックスダウンに失敗"));
      }
      finish(run, std::move(result));
    });
  });
}

void MultiTrackSynthesizer::writeMixRecipe(const fs::path& runDir, const MixRecipe& recipe) {
  Json voices = Json::array();
  for (const auto& v : recipe.voices)
    voices.push(Json::Object{{"folder", v.folder},
                             {"voice", v.characterName},
                             {"gain", static_cast<double>(v.gain)},
                             {"pan", static_cast<double>(v.pan)}});
  Json o = Json::object();
  o["voices"] = std::move(voices);
  o["scale"] = static_cast<double>(recipe.scale);
  writeRunFile(runDir / kMixRecipeFile, o.dump(JsonStyle::Pretty) + "\n");
}

std::optional<MultiTrackSynthesizer::MixRecipe> MultiTrackSynthesizer::readMixRecipe(
    const fs::path& runDir) {
  try {
    const Json o = Json::parse(readFile(runDir / kMixRecipeFile));
    MixRecipe r;
    const Json* scale = o.find("scale");
    const Json* voices = o.find("voices");
    if (!scale || !voices) return std::nullopt;
    r.scale = static_cast<float>(scale->asDouble());
    for (const Json& v : voices->asArray()) {
      const Json *folder = v.find("folder"), *voice = v.find("voice"), *gain = v.find("gain"),
                 *pan = v.find("pan");
      if (!folder || !voice || !gain || !pan) return std::nullopt;
      // A folder that climbs out of the run would let an edited file point anywhere.
      const fs::path f(folder->asString());
      if (f.empty() || f.is_absolute() || f.filename() != f) return std::nullopt;
      r.voices.push_back({folder->asString(), voice->asString(),
                          static_cast<float>(gain->asDouble()),
                          static_cast<float>(pan->asDouble())});
    }
    return r;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void MultiTrackSynthesizer::finish(const std::shared_ptr<Run>& run, Result result) {
  running_ = false;
  current_.reset();
  if (run->onDone) run->onDone(std::move(result));
}

void MultiTrackSynthesizer::cancel() {
  if (auto run = current_.lock()) run->cancelled = true;
  engine_.cancel();
}

}  // namespace melvo
