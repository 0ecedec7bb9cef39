// The engine's rendered pitch curve and phoneme timing as the editor holds them.
//
// These are stand-ins: only what undo needs (the curve's frequency array and the phoneme
// list) is here. The reader and writer of output.f0 and timing.lab replace them with the full
// types and keep these names.
#pragma once

#include <string>
#include <vector>

namespace melvo {

struct PitchCurve {
  std::vector<float> frequencies;  // one value per 5 ms frame, 0 where unvoiced
  double frameSec = 0.005;
  bool operator==(const PitchCurve&) const = default;
};

struct Phoneme {
  std::string symbol;
  double startSec = 0;
  double endSec = 0;
  bool operator==(const Phoneme&) const = default;
};

using PhonemeList = std::vector<Phoneme>;

// Audio peaks for the waveform view; opaque to the editing core.
struct Waveform {
  std::vector<float> peaks;
  double durationSec = 0;
  bool operator==(const Waveform&) const = default;
};

}  // namespace melvo
