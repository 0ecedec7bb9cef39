#include "melvo/synthesis/mixdown.h"

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <optional>
#include <system_error>
#include <type_traits>

#include "melvo/platform/atomic_file.h"

namespace melvo::mixdown {
namespace {

// Frames per chunk. Half a megabyte a write lets the kernel take the page cache in large pieces:
// the output's system time falls by a third against 64 KB writes. The buffers still sit in the
// last-level cache, and calls into libsndfile cost nothing at this size.
constexpr sf_count_t chunkFrames = 65536;

struct SndfileCloser {
  void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;

struct Input {
  SndfilePtr file;
  SF_INFO info{};
  PanGains gains;
  bool added = false;  // false: read only for its length
  // Read as the 16-bit integers it holds and turned into floats while mixing, instead of by
  // libsndfile in a pass of its own.
  bool pcm16 = false;
};

// Adds `frames` frames of one voice into the stereo mix. A 16-bit sample becomes the float
// libsndfile would read for it (the sample times 2^-15, exact), so both paths mix alike.
template <typename Sample>
void addVoice(float* o, const Sample* s, sf_count_t frames, int channels, PanGains g) {
  auto value = [](Sample v) {
    if constexpr (std::is_same_v<Sample, short>)
      return static_cast<float>(v) * (1.0f / 0x8000);
    else
      return v;
  };
  if (channels == 1) {
    for (sf_count_t i = 0; i < frames; ++i) {
      const float x = value(s[i]);
      o[2 * i] += x * g.left;
      o[2 * i + 1] += x * g.right;
    }
  } else {
    for (sf_count_t i = 0; i < frames; ++i) {
      o[2 * i] += value(s[2 * i]) * g.left;
      o[2 * i + 1] += value(s[2 * i + 1]) * g.right;
    }
  }
}

// Scales the written mix in place, chunk by chunk.
bool scaleInPlace(int fd, float scale) {
  SF_INFO info{};
  // libsndfile takes the descriptor's offset for the file's start.
  if (::lseek(fd, 0, SEEK_SET) != 0) return false;
  SndfilePtr f(sf_open_fd(fd, SFM_RDWR, &info, SF_FALSE));
  if (!f) return false;
  std::vector<float> buf(static_cast<std::size_t>(chunkFrames * info.channels));
  for (sf_count_t pos = 0; pos < info.frames; pos += chunkFrames) {
    const sf_count_t n = std::min(chunkFrames, info.frames - pos);
    if (sf_seek(f.get(), pos, SEEK_SET) < 0) return false;
    if (sf_readf_float(f.get(), buf.data(), n) != n) return false;
    for (sf_count_t i = 0; i < n * info.channels; ++i) buf[i] *= scale;
    if (sf_seek(f.get(), pos, SEEK_SET) < 0) return false;
    if (sf_writef_float(f.get(), buf.data(), n) != n) return false;
  }
  return true;
}

// The loudest of `n` samples and `peak`, NaN passed over as std::max passes over it. Eight
// running maxima instead of one: a single running maximum is a chain of dependent compares that
// the compiler may not split by itself (a float max is only reorderable without NaN), and that
// chain took about half of a mix's time.
float peakOf(const float* x, sf_count_t n, float peak) {
  constexpr int lanes = 8;
  float m[lanes];
  std::fill_n(m, lanes, peak);
  sf_count_t i = 0;
  for (; i + lanes <= n; i += lanes)
    for (int j = 0; j < lanes; ++j) {
      const float v = std::fabs(x[i + j]);
      m[j] = m[j] < v ? v : m[j];
    }
  for (; i < n; ++i) peak = std::max(peak, std::fabs(x[i]));
  for (float v : m) peak = std::max(peak, v);
  return peak;
}

}  // namespace

PanGains monoGains(float gain, float pan) {
  const double angle = (pan + 1.0) * std::numbers::pi * 0.25;
  return {static_cast<float>(std::cos(angle) * std::numbers::sqrt2 * gain),
          static_cast<float>(std::sin(angle) * std::numbers::sqrt2 * gain)};
}

PanGains stereoGains(float gain, float pan) {
  return {std::min(1.0f - pan, 1.0f) * gain, std::min(1.0f + pan, 1.0f) * gain};
}

float scaleFor(float peak, float limit) {
  const float s = peak > targetPeak ? targetPeak / peak : 1.0f;
  return std::min({s, limit, 1.0f});
}

MixResult mix(const std::vector<std::filesystem::path>& paths, const std::vector<float>& gains,
              const std::vector<float>& pans, const std::filesystem::path& outputPath,
              float limit) {
  MixResult result;
  std::vector<Input> inputs;
  sf_count_t length = 0;
  for (std::size_t k = 0; k < paths.size(); ++k) {
    std::error_code ec;
    if (!std::filesystem::exists(paths[k], ec)) continue;
    Input in;
    in.file.reset(sf_open(paths[k].c_str(), SFM_READ, &in.info));
    if (!in.file) continue;
    const float gain = k < gains.size() ? gains[k] : 1.0f;
    const float pan = k < pans.size() ? pans[k] : 0.0f;
    in.gains = in.info.channels == 1 ? monoGains(gain, pan) : stereoGains(gain, pan);
    length = std::max(length, in.info.frames);
    inputs.push_back(std::move(in));
  }
  if (inputs.empty()) return result;

  SF_INFO outInfo{};
  outInfo.samplerate = inputs.front().info.samplerate;
  outInfo.channels = 2;
  outInfo.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  // A file at another rate still counts towards the length, as every read file does, but is
  // not heard: resampling a voice is not the mix's business.
  for (auto& in : inputs) {
    in.added = in.info.samplerate == outInfo.samplerate &&
               (in.info.channels == 1 || in.info.channels == outInfo.channels);
    in.pcm16 = (in.info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
  }

  // Nameless until it is whole, so neither a failed mix nor a killed process leaves a torn
  // mix.wav (or any other file) behind for the player.
  std::optional<UnnamedFile> file;
  try {
    file.emplace(outputPath);
  } catch (const FileError&) {
    return result;
  }
  // The samples' blocks reserved in one call (not the header's few bytes, so nothing is left
  // over past the end) rather than page by page as the writes arrive: about a tenth of a mix's
  // time here. Where the file system cannot, the writes allocate as they go.
  ::fallocate(file->fd(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length * 2 * sizeof(float)));
  SndfilePtr out(sf_open_fd(file->fd(), SFM_WRITE, &outInfo, SF_FALSE));
  if (!out) return result;
  // No PEAK chunk: libsndfile would scan every written sample again to fill it, and the
  // scaling in place below would leave it stating the peak from before the scaling.
  sf_command(out.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);

  std::vector<float> mixBuf(static_cast<std::size_t>(chunkFrames * 2));
  std::vector<float> scratch(static_cast<std::size_t>(chunkFrames * 2));
  std::vector<short> shorts(static_cast<std::size_t>(chunkFrames * 2));
  float peak = 0;
  bool written = true;
  for (sf_count_t pos = 0; pos < length && written; pos += chunkFrames) {
    const sf_count_t n = std::min(chunkFrames, length - pos);
    std::fill_n(mixBuf.begin(), n * 2, 0.0f);
    for (auto& in : inputs) {
      if (!in.added) continue;
      if (in.pcm16) {
        const sf_count_t got = sf_readf_short(in.file.get(), shorts.data(), n);
        addVoice(mixBuf.data(), shorts.data(), got, in.info.channels, in.gains);
      } else {
        const sf_count_t got = sf_readf_float(in.file.get(), scratch.data(), n);
        addVoice(mixBuf.data(), scratch.data(), got, in.info.channels, in.gains);
      }
    }
    peak = peakOf(mixBuf.data(), n * 2, peak);
    written = sf_writef_float(out.get(), mixBuf.data(), n) == n;
  }
  out.reset();
  inputs.clear();

  result.peak = peak;
  result.scale = scaleFor(peak, limit);
  if (written && result.scale < 1.0f) written = scaleInPlace(file->fd(), result.scale);
  if (!written) return result;
  try {
    // Not flushed: the voices it is made of are not either, and a mix is remade from them.
    file->commit(Durability::unflushed);
  } catch (const FileError&) {
    return result;
  }
  result.ok = true;
  return result;
}

std::optional<double> durationSec(const std::filesystem::path& path) {
  SF_INFO info{};
  SndfilePtr f(sf_open(path.c_str(), SFM_READ, &info));
  if (!f || info.samplerate <= 0) return std::nullopt;
  return static_cast<double>(info.frames) / info.samplerate;
}

}  // namespace melvo::mixdown
