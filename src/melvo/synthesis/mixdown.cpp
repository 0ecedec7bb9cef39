#include "melvo/synthesis/mixdown.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <system_error>

namespace melvo::mixdown {
namespace {

// Frames per chunk: big enough that the calls into libsndfile cost nothing, small enough that
// the buffers stay in cache.
constexpr sf_count_t chunkFrames = 8192;

struct SndfileCloser {
  void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;

struct Input {
  SndfilePtr file;
  SF_INFO info{};
  PanGains gains;
  bool added = false;  // false: read only for its length
};

// Scales the written mix in place, chunk by chunk.
bool scaleInPlace(const std::filesystem::path& path, float scale) {
  SF_INFO info{};
  SndfilePtr f(sf_open(path.c_str(), SFM_RDWR, &info));
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
  for (auto& in : inputs)
    in.added = in.info.samplerate == outInfo.samplerate &&
               (in.info.channels == 1 || in.info.channels == outInfo.channels);

  // Written beside the target and renamed at the end, so a failed mix never leaves a torn
  // mix.wav behind for the player.
  std::filesystem::path partial = outputPath;
  partial += ".part";
  SndfilePtr out(sf_open(partial.c_str(), SFM_WRITE, &outInfo));
  if (!out) return result;

  std::vector<float> mixBuf(static_cast<std::size_t>(chunkFrames * 2));
  std::vector<float> scratch(static_cast<std::size_t>(chunkFrames * 2));
  float peak = 0;
  bool written = true;
  for (sf_count_t pos = 0; pos < length && written; pos += chunkFrames) {
    const sf_count_t n = std::min(chunkFrames, length - pos);
    std::fill_n(mixBuf.begin(), n * 2, 0.0f);
    for (auto& in : inputs) {
      if (!in.added) continue;
      const sf_count_t got = sf_readf_float(in.file.get(), scratch.data(), n);
      const float gl = in.gains.left, gr = in.gains.right;
      float* o = mixBuf.data();
      const float* s = scratch.data();
      if (in.info.channels == 1) {
        for (sf_count_t i = 0; i < got; ++i) {
          o[2 * i] += s[i] * gl;
          o[2 * i + 1] += s[i] * gr;
        }
      } else {
        for (sf_count_t i = 0; i < got; ++i) {
          o[2 * i] += s[2 * i] * gl;
          o[2 * i + 1] += s[2 * i + 1] * gr;
        }
      }
    }
    for (sf_count_t i = 0; i < n * 2; ++i) peak = std::max(peak, std::fabs(mixBuf[i]));
    written = sf_writef_float(out.get(), mixBuf.data(), n) == n;
  }
  out.reset();
  inputs.clear();

  std::error_code ec;
  result.peak = peak;
  result.scale = scaleFor(peak, limit);
  if (written && result.scale < 1.0f) written = scaleInPlace(partial, result.scale);
  if (written) std::filesystem::rename(partial, outputPath, ec);
  if (!written || ec) {
    std::filesystem::remove(partial, ec);
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
