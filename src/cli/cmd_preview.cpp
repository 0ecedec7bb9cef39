// melvo preview: the song's notes on a sampled instrument, before any render. Played on the
// default audio device with a playhead on the terminal until the end or Ctrl-C, or written to a
// WAV file with --to (where there is no sound card, and how scripts check it).
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/app/preferences.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/playback/fluid_engine.h"
#include "melvo/playback/midi_preview_player.h"
#include "melvo/playback/offline_render.h"
#include "melvo/playback/sound_bank.h"

namespace fs = std::filesystem;

namespace melvo::cli {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitRefused = 2;
constexpr int kSampleRate = 44100;
// However the audio output behaves on its way down, the command ends this soon after a stop.
constexpr auto kShutdownLimit = std::chrono::seconds(5);

struct Options {
  std::string file;
  std::string from;
  std::string loop;
  int times = 0;
  std::string instrument;
  int track = -1;
  std::string to;
};

// A position: "12" is the start of bar 12 (from 1), "3840t" is tick 3840. `barEnd` reads a bar
// as its end instead, so that a loop "5:8" holds bars 5 to 8.
std::optional<std::int64_t> parsePosition(const std::string& text, const MusicDocument& d,
                                          bool barEnd) {
  if (text.empty()) return std::nullopt;
  const bool isTick = text.back() == 't';
  const std::string digits = isTick ? text.substr(0, text.size() - 1) : text;
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() || value < 0)
    return std::nullopt;
  if (isTick) return std::min(value, maxTick);
  // Bars past this many are no song's; the walk over bar lines stays short.
  constexpr std::int64_t kMostBars = 100000;
  const std::int64_t bar = value + (barEnd ? 1 : 0);
  if (bar < 1 || bar > kMostBars) return std::nullopt;
  const auto lines = d.barRuler().boundaries(maxTick, static_cast<std::size_t>(bar));
  if (lines.size() < static_cast<std::size_t>(bar)) return std::nullopt;
  return lines[static_cast<std::size_t>(bar - 1)].startTick;
}

std::string clockText(double s) {
  if (!(s > 0)) s = 0;
  const auto tenths = static_cast<long long>(s * 10);
  char buf[48];
  std::snprintf(buf, sizeof buf, "%lld:%02lld.%lld", tenths / 600, tenths % 600 / 10, tenths % 10);
  return buf;
}

std::atomic<int> offlineSignal{0};
std::atomic<bool> offlineCancel{false};
extern "C" void onOfflineSignal(int signal) {
  offlineSignal.store(signal);
  offlineCancel.store(true);
}

int renderToFile(const MusicDocument& d, OfflinePreview o, const std::string& to) {
  // The render runs on this thread; a signal only raises the flag it looks at between blocks,
  // so the unfinished file is dropped on the way out.
  struct sigaction action {};
  action.sa_handler = onOfflineSignal;
  sigemptyset(&action.sa_mask);
  struct sigaction previous[3];
  const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  for (int i = 0; i < 3; ++i) sigaction(signals[i], &action, &previous[i]);
  o.cancel = &offlineCancel;
  const OfflinePreviewResult r = renderPreviewToWav(d, o, to);
  for (int i = 0; i < 3; ++i) sigaction(signals[i], &previous[i], nullptr);
  if (r.cancelled) return 128 + offlineSignal.load();
  if (!r.ok) {
    printError(r.error);
    return kExitFailed;
  }
  std::fprintf(
      stderr, "%s\n",
      trf("%@ を書き出しました（%@）", {to, clockText(double(r.frames) / kSampleRate)}).c_str());
  std::printf("%s\n", to.c_str());
  return 0;
}

// Ends the process if the audio output does not let go within the limit: a stop must not hang.
class ShutdownWatch {
 public:
  explicit ShutdownWatch(int status) {
    thread_ = std::thread([this, status] {
      std::unique_lock lock(mutex_);
      if (!done_.wait_for(lock, kShutdownLimit, [this] { return finished_; })) _exit(status);
    });
  }
  ~ShutdownWatch() {
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

int playLive(const MusicDocument& d, const Options& o, PreviewInstrument instrument,
             const fs::path& bank, std::int64_t from, std::optional<std::int64_t> loopStart,
             std::optional<std::int64_t> loopEnd) {
  EventLoop loop;
  int signal = 0, status = 0;
  {
    MIDIPreviewPlayer player(loop, [bank](std::string& error) -> std::unique_ptr<PreviewEngine> {
      return FluidPreviewEngine::create(bank, FluidPreviewEngine::Output::live, kSampleRate, error);
    });
    player.setInstrument(instrument);

    const bool terminal = ::isatty(STDERR_FILENO) == 1;
    const BarRuler ruler = d.barRuler();
    const double songSeconds = d.seconds(d.endTick());
    std::int64_t shownBar = -1;
    int runs = 0;
    player.onWillPlay = [&] { ++runs; };
    player.onPlayheadChanged = [&](std::int64_t tick) {
      const BarPosition at = ruler.position(tick);
      if (terminal) {
        std::fprintf(stderr, "\r▶ %s  %s / %s\x1b[K", ruler.positionText(tick).c_str(),
                     clockText(player.seconds(tick)).c_str(), clockText(songSeconds).c_str());
        std::fflush(stderr);
      } else if (at.barNumber != shownBar) {
        std::fprintf(stderr, "▶ %s\n", trf("%@小節目", {std::to_string(at.barNumber)}).c_str());
      }
      shownBar = at.barNumber;
      if (loopEnd && o.times > 0 && runs >= o.times && tick >= *loopEnd) {
        player.stop();
        loop.stop();
      }
    };
    player.onEnded = [&] { loop.stop(); };
    loop.onSignals({SIGINT, SIGTERM, SIGHUP}, [&](int s) {
      if (!signal) signal = s;
      player.stop();
      loop.stop();
    });

    if (auto error = player.play(d, from, loopStart, loopEnd)) {
      player.stop();
      printError(*error);
      if (player.isSetup())
        std::fprintf(stderr, "%s\n",
                     tr("音の出る装置がないときは --to OUT.wav で WAV ファイルに書き出せます"));
      status = kExitFailed;
    } else {
      if (!terminal) std::fprintf(stderr, "%s\n", tr("再生中です。Ctrl-C で止まります"));
      loop.run();
      if (terminal) std::fprintf(stderr, "\n");
      status = signal ? 128 + signal : 0;
    }
    ShutdownWatch watch(status);
    player.stop();
  }  // the audio output closes here
  return status;
}

int preview(const Options& o) {
  std::optional<MusicDocument> opened = openOrReport(o.file);
  if (!opened) return kExitRefused;
  MusicDocument d = std::move(*opened);
  const int count = static_cast<int>(d.tracks.size());
  if (o.track >= count) {
    printError(trf("トラック %@ はありません（0〜%@）",
                   {std::to_string(o.track), std::to_string(count - 1)}));
    return kExitRefused;
  }
  if (o.track >= 0) {
    // Asked for by number: heard even when muted or left out by another track's solo.
    d = d.singleTrackCopy(o.track);
    d.tracks.front().isMuted = false;
    d.tracks.front().isSolo = false;
  }

  std::optional<PreviewInstrument> instrument;
  if (!o.instrument.empty()) {
    instrument = previewInstrumentNamed(o.instrument);
    if (!instrument) {
      printError(
          trf("楽器「%@」はありません（piano, choir, flute, organ, synth）", {o.instrument}));
      return kExitRefused;
    }
  } else {
    const Json* stored = Preferences().get("melvo.previewInstrument");
    if (stored && stored->isString()) instrument = previewInstrumentNamed(stored->asString());
  }

  std::optional<std::int64_t> from, loopStart, loopEnd;
  if (!o.from.empty() && !(from = parsePosition(o.from, d, false))) {
    printError(trf("位置「%@」を読めません（小節番号か、3840t のようなティック）", {o.from}));
    return kExitRefused;
  }
  if (!o.loop.empty()) {
    const auto colon = o.loop.find(':');
    if (colon != std::string::npos) {
      loopStart = parsePosition(o.loop.substr(0, colon), d, false);
      loopEnd = parsePosition(o.loop.substr(colon + 1), d, true);
    }
    if (!loopStart || !loopEnd || *loopEnd <= *loopStart) {
      printError(trf("ループ「%@」を読めません（A:B、B は A より後）", {o.loop}));
      return kExitRefused;
    }
  }

  const auto bank = findSoundBank();
  if (!bank) {
    printError(soundBankMissingMessage());
    return kExitFailed;
  }
  const std::int64_t start = from ? *from : loopStart.value_or(0);
  if (!o.to.empty()) {
    OfflinePreview off;
    off.fromTick = start;
    off.loopStart = loopStart;
    off.loopEnd = loopEnd;
    off.loopTimes = std::max(o.times, 1);
    off.instrument = instrument.value_or(PreviewInstrument::piano);
    off.sampleRate = kSampleRate;
    off.soundBank = *bank;
    return renderToFile(d, off, o.to);
  }
  return playLive(d, o, instrument.value_or(PreviewInstrument::piano), *bank, start, loopStart,
                  loopEnd);
}

const bool registered = registerCommand(
    {"preview", N_("楽譜の音符を楽器の音で試聴する（合成の前に）"), 34,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("FILE", opts->file, tr("開くファイル"))->required();
       sub.add_option("--from", opts->from,
                      tr("ここから鳴らす: 小節番号（1 から）か、3840t のようなティック"))
           ->type_name("BAR|TICK");
       sub.add_option("--loop", opts->loop,
                      tr("A から B までを繰り返す（5:8 は 5〜8 小節目、ティックは 1920t:3840t）"))
           ->type_name("A:B");
       sub.add_option("--times", opts->times,
                      tr("ループを回す回数（既定: 再生は Ctrl-C まで、--to では 1 回）"))
           ->type_name("N")
           ->check(CLI::PositiveNumber);
       sub.add_option("--instrument", opts->instrument,
                      tr("楽器: piano, choir, flute, organ, synth（既定は設定の値か piano）"))
           ->type_name("NAME");
       sub.add_option("--track", opts->track, tr("このトラックだけを鳴らす（0 から数える）"))
           ->type_name("N")
           ->check(CLI::NonNegativeNumber);
       sub.add_option("--to", opts->to, tr("再生せずに WAV ファイルへ書き出す"))
           ->type_name("OUT.wav");
       sub.footer(
           tr("既定の音声出力（PipeWire・PulseAudio・ALSA）で鳴らし、端末に再生位置を"
              "表示します。Ctrl-C で止まります。音色は fluid-soundfont-gm の GM "
              "サウンドフォントを使います。終了コード: 0 終わりまで鳴らした・書き出した / "
              "1 音色・音声出力・書き出しの失敗 / 2 使い方・ファイルの誤り / 130 Ctrl-C"));
       return [opts] { return preview(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
