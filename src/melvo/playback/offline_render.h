// The preview written to a WAV file instead of played: the same player and the same clocks,
// driven by the frames rendered rather than by the wall clock. This is what runs where no
// sound card is, and how the preview is checked.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "melvo/model/music_document.h"
#include "melvo/playback/preview_instrument.h"

namespace melvo {

struct OfflinePreview {
  std::int64_t fromTick = 0;
  std::optional<std::int64_t> loopStart;
  std::optional<std::int64_t> loopEnd;
  int loopTimes = 1;  // runs through the loop; the first run goes from fromTick
  PreviewInstrument instrument = PreviewInstrument::piano;
  int sampleRate = 44100;
  std::filesystem::path soundBank;
  const std::atomic<bool>* cancel = nullptr;  // polled between blocks
};

struct OfflinePreviewResult {
  bool ok = false;
  bool cancelled = false;
  std::string error;
  std::int64_t frames = 0;
  int runs = 0;  // runs through the loop, or 1
};

// Hands the frames to `sink` as they are made, in blocks of one channel buffer each.
using FrameSink = std::function<bool(const float* left, const float* right, int frames)>;
OfflinePreviewResult renderPreview(const MusicDocument& document, const OfflinePreview& options,
                                   const FrameSink& sink);

// Without a loop the file ends with the song's last note; with one, after `loopTimes` runs.
// A 16-bit stereo WAV that appears whole or not at all: a failed or cancelled render leaves no
// file behind.
OfflinePreviewResult renderPreviewToWav(const MusicDocument& document,
                                        const OfflinePreview& options,
                                        const std::filesystem::path& wav);

}  // namespace melvo
