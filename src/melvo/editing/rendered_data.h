// What the editor holds of a render: the pitch curve, the phoneme timing and the waveform.
#pragma once

#include <vector>

#include "melvo/editing/phoneme_list.h"
#include "melvo/editing/pitch_curve.h"

namespace melvo {

// Audio peaks for the waveform view; opaque to the editing core.
struct Waveform {
  std::vector<float> peaks;
  double durationSec = 0;
  bool operator==(const Waveform&) const = default;
};

}  // namespace melvo
