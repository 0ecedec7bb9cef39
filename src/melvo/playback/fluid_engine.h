// The preview's sound: one FluidSynth synthesizer with the GM bank, a MIDI channel per
// sampler. Live, it plays through FluidSynth's own audio drivers; offline, the caller pulls
// frames from it.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "melvo/playback/preview_engine.h"

namespace melvo {

class FluidPreviewEngine final : public PreviewEngine {
 public:
  enum class Output { live, offline };
  // Loads the bank; nothing, with the reason in `error`, when it cannot.
  static std::unique_ptr<FluidPreviewEngine> create(const std::filesystem::path& bank,
                                                    Output output, int sampleRate,
                                                    std::string& error);
  ~FluidPreviewEngine() override;

  int trackSamplerCount() const override;
  void loadProgram(int program) override;
  void startNote(int sampler, int pitch, int velocity) override;
  void stopNote(int sampler, int pitch) override;
  void silenceAll() override;
  // Live: opens the first audio output that works (PipeWire, PulseAudio, ALSA); once open it
  // stays open. Offline: nothing to do.
  std::optional<std::string> start() override;

  // Offline: the next `frames` frames, one buffer per channel.
  void render(float* left, float* right, int frames);
  int sampleRate() const;

 private:
  struct Impl;
  explicit FluidPreviewEngine(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace melvo
