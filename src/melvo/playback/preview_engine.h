// What the preview player needs from a sound generator: samplers that start and stop notes.
// The player decides when; an engine only makes the sound (FluidSynth in fluid_engine.h, a
// recording double in tests).
#pragma once

#include <optional>
#include <string>

namespace melvo {

class PreviewEngine {
 public:
  virtual ~PreviewEngine() = default;

  // Samplers for tracks, numbered from 0; sampler -1 is the fallback.
  virtual int trackSamplerCount() const = 0;
  // Loads one program into the fallback and every track sampler.
  virtual void loadProgram(int program) = 0;
  virtual void startNote(int sampler, int pitch, int velocity) = 0;
  virtual void stopNote(int sampler, int pitch) = 0;
  // Releases every sounding note of every sampler.
  virtual void silenceAll() = 0;
  // Connects to the sound output. Nothing for an engine that renders offline; otherwise why
  // it could not start.
  virtual std::optional<std::string> start() = 0;
};

}  // namespace melvo
