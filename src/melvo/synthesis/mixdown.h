// Mixing the sung voices into one stereo file with the mixer's gain and pan.
//
// The voices are streamed through in chunks with buffers reused from chunk to chunk: a
// whole-file mix spends most of its time on the first touch of fresh memory. The loudness
// rule needs the peak of the whole mix before anything may be scaled, so the mix is written
// as it is summed and only scaled in place afterwards when it came out too loud.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

namespace melvo {

struct MixResult {
  bool ok = false;
  float scale = 1.0f;  // the factor applied to the whole mix (1 when it was quiet enough)
  float peak = 0.0f;   // the largest sample before scaling
};

namespace mixdown {

// The mix's loudest sample may reach this; a louder mix is scaled down to it.
constexpr float targetPeak = 0.95f;

// Mono voices: constant power, so at centre each side carries exactly `gain`.
struct PanGains {
  float left = 0;
  float right = 0;
};
PanGains monoGains(float gain, float pan);
// Stereo voices: balance, each side only ever turned down.
PanGains stereoGains(float gain, float pan);
// The factor for a mix of this peak, never above `limit` (so a re-mix is never louder than the
// render it came from) and never above 1.
float scaleFor(float peak, float limit);

// Mixes `paths` into a stereo float WAV at `outputPath`, at the sample rate of the first file
// that can be read. Missing or unreadable files are skipped, as are files at another rate or
// with neither one nor two channels. `gains` and `pans` go with `paths` by position; where
// they are shorter, gain 1 and pan 0. Fails when no file could be read or the output cannot
// be written. Safe to run off the main thread.
MixResult mix(const std::vector<std::filesystem::path>& paths, const std::vector<float>& gains,
              const std::vector<float>& pans, const std::filesystem::path& outputPath,
              float limit = 1.0f);

// The length of an audio file in seconds; nothing when it cannot be read.
std::optional<double> durationSec(const std::filesystem::path& path);

}  // namespace mixdown
}  // namespace melvo
