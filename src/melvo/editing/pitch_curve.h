// The engine's pitch curve (output.f0): one float per frame in hertz, 0 where unvoiced. The
// user redraws it after a render, and a re-render with --skip-f0 sings what was drawn.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace melvo {

struct PhonemeList;

struct PitchCurve {
  std::vector<float> frequencies;
  double frameIntervalSec = 0.005;

  // Nothing when the file cannot be read. Odd tails and impossible values are repaired and
  // reported to the log.
  static std::optional<PitchCurve> read(const std::filesystem::path& path);
  static PitchCurve parse(std::string_view bytes);
  // Throws FileError.
  void write(const std::filesystem::path& path) const;

  // Interpolated hertz, never across into an unvoiced frame; 0 when unvoiced or past the end.
  double value(double atSec) const;
  // Over the voiced frames within half a window either side of the frame of `atSec`; 0 when
  // there are none.
  double mean(double aroundSec, double windowSec) const;
  double median(double aroundSec, double windowSec) const;
  // The frame index of a time, nothing when outside the curve.
  std::optional<std::size_t> frameIndex(double atSec) const;

  // The usual engine frame interval nearest to audioDuration / frames; the current interval
  // when either is missing.
  double calibratedInterval(double audioDurationSec) const;

  bool operator==(const PitchCurve&) const = default;
};

// Compares the lead-in before the first sung phoneme with the lead-in of the score's first
// note (seconds by the tempo map) and logs both; a gap above 0.2 s is logged as a mismatch.
// Gives the difference, phonemes minus score, or nothing when nothing is sung.
std::optional<double> checkLeadIn(const PhonemeList& phonemes, double scoreLeadInSec,
                                  std::int64_t firstNoteTick);

}  // namespace melvo
