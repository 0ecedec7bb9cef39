#include "melvo/playback/offline_render.h"

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <system_error>
#include <vector>

#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/playback/fluid_engine.h"
#include "melvo/playback/midi_preview_player.h"

namespace melvo {
namespace {

// FluidSynth makes sound in blocks of 64 frames, so a smaller step would not place a note any
// closer to its time: an event waits at most this long (1.5 ms at 44.1 kHz).
constexpr int kBlockFrames = 64;

std::int64_t framesFor(double seconds, int rate) {
  return static_cast<std::int64_t>(std::ceil(std::max(seconds, 0.0) * rate - 1e-9));
}

}  // namespace

OfflinePreviewResult renderPreview(const MusicDocument& document, const OfflinePreview& o,
                                   const FrameSink& sink) {
  OfflinePreviewResult result;
  const bool looping = o.loopStart && o.loopEnd;
  if (looping && *o.loopEnd <= *o.loopStart) {
    result.error = tr("ループの終わりは始まりより後にしてください");
    return result;
  }
  auto clock = std::make_shared<ManualClock>();
  EventLoop loop(clock);
  FluidPreviewEngine* fluid = nullptr;
  MIDIPreviewPlayer player(
      loop,
      [&](std::string& error) -> std::unique_ptr<PreviewEngine> {
        auto engine = FluidPreviewEngine::create(o.soundBank, FluidPreviewEngine::Output::offline,
                                                 o.sampleRate, error);
        fluid = engine.get();
        return engine;
      },
      MIDIPreviewPlayer::Drive::manual);
  player.setInstrument(o.instrument);
  if (auto error = player.play(document, o.fromTick, o.loopStart, o.loopEnd)) {
    result.error = *error;
    return result;
  }

  // The frames of the running run: up to the loop's end, or to the song's last note (a live
  // preview goes on for bars of silence after it; a file has no use for them).
  auto runFrames = [&] {
    const std::int64_t end = looping ? player.endTick() : document.endTick();
    return framesFor(player.seconds(end) - player.seconds(player.startTick()), o.sampleRate);
  };
  std::int64_t planned = runFrames();
  if (planned <= 0) {
    result.error = tr("書き出す範囲に音がありません（開始位置が曲の終わりより後です）");
    return result;
  }

  std::vector<float> left(kBlockFrames), right(kBlockFrames);
  std::int64_t total = 0, inRun = 0;
  result.runs = 1;
  std::chrono::nanoseconds clockAt{0};
  while (true) {
    if (o.cancel && o.cancel->load()) {
      result.cancelled = true;
      return result;
    }
    player.pollStep();
    const std::int64_t remaining = planned - inRun;
    // Past the planned end only if rounding kept the display step from seeing the loop's
    // end: one more block, never a loop that stands still.
    const int n = static_cast<int>(remaining > 0 ? std::min<std::int64_t>(kBlockFrames, remaining)
                                                 : kBlockFrames);
    fluid->render(left.data(), right.data(), n);
    if (!sink(left.data(), right.data(), n)) {
      result.error = tr("WAV ファイルを書けませんでした");
      return result;
    }
    total += n;
    inRun += n;
    const std::chrono::nanoseconds now{total * 1'000'000'000 / o.sampleRate};
    clock->advance(now - clockAt);
    clockAt = now;
    player.displayStep();
    if (!looping && inRun >= planned) break;
    if (!player.isPlaying()) {
      if (!looping || result.runs >= o.loopTimes) break;
      loop.runUntilIdle();  // the restart the display step posted
      if (!player.isPlaying()) break;
      ++result.runs;
      inRun = 0;
      planned = runFrames();
    }
  }
  player.stop();
  result.frames = total;
  result.ok = true;
  return result;
}

namespace {

struct SndfileCloser {
  void operator()(SNDFILE* f) const { sf_close(f); }
};

// A file with no name until it is complete: O_TMPFILE in the target's folder, linked under a
// temporary name and renamed over the target at the end. Where the file system cannot make
// unnamed files, a named ".part" file is removed on every failure.
class PendingFile {
 public:
  explicit PendingFile(std::filesystem::path target) : target_(std::move(target)) {
    std::filesystem::path dir = target_.parent_path();
    if (dir.empty()) dir = ".";
    fd_ = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      named_ = target_;
      named_ += ".part";
      fd_ = ::open(named_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
  }
  ~PendingFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!named_.empty() && !kept_) {
      std::error_code ec;
      std::filesystem::remove(named_, ec);
    }
  }
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  int fd() const { return fd_; }

  bool keep() {
    if (::fsync(fd_) != 0) return false;
    std::error_code ec;
    if (named_.empty()) {
      named_ = target_;
      named_ += ".part";
      std::filesystem::remove(named_, ec);
      const std::string self = "/proc/self/fd/" + std::to_string(fd_);
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, named_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        named_.clear();
        return false;
      }
    }
    std::filesystem::rename(named_, target_, ec);
    if (ec) return false;
    kept_ = true;
    return true;
  }

 private:
  std::filesystem::path target_;
  std::filesystem::path named_;
  int fd_ = -1;
  bool kept_ = false;
};

}  // namespace

OfflinePreviewResult renderPreviewToWav(const MusicDocument& document, const OfflinePreview& o,
                                        const std::filesystem::path& wav) {
  PendingFile file(wav);
  if (file.fd() < 0) {
    OfflinePreviewResult r;
    r.error = trf("ファイルを作れませんでした: %@（%@）", {wav.string(), std::strerror(errno)});
    return r;
  }
  SF_INFO info{};
  info.samplerate = o.sampleRate;
  info.channels = 2;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  std::unique_ptr<SNDFILE, SndfileCloser> out(sf_open_fd(file.fd(), SFM_WRITE, &info, SF_FALSE));
  if (!out) {
    OfflinePreviewResult r;
    r.error = trf("ファイルを作れませんでした: %@（%@）", {wav.string(), sf_strerror(nullptr)});
    return r;
  }
  sf_command(out.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);

  // Interleaved and written in pieces of a few thousand frames, not block by block.
  std::vector<float> pending;
  constexpr std::size_t flushFrames = 8192;
  pending.reserve(flushFrames * 2 + 2 * 64);
  bool written = true;
  auto flush = [&] {
    const auto frames = static_cast<sf_count_t>(pending.size() / 2);
    written = written && sf_writef_float(out.get(), pending.data(), frames) == frames;
    pending.clear();
    return written;
  };
  OfflinePreviewResult r =
      renderPreview(document, o, [&](const float* l, const float* rr, int frames) {
        for (int i = 0; i < frames; ++i) {
          pending.push_back(l[i]);
          pending.push_back(rr[i]);
        }
        return pending.size() < flushFrames * 2 || flush();
      });
  if (!r.ok) return r;
  if (!flush()) {
    r.ok = false;
    r.error = tr("WAV ファイルを書けませんでした");
    return r;
  }
  out.reset();
  if (!file.keep()) {
    r.ok = false;
    r.error = trf("ファイルを作れませんでした: %@（%@）", {wav.string(), std::strerror(errno)});
  }
  return r;
}

}  // namespace melvo
