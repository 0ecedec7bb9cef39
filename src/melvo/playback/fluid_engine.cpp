#include "melvo/playback/fluid_engine.h"

#include <fcntl.h>
#include <fluidsynth.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"

namespace melvo {
namespace {

constexpr int kChannels = 16;

// FluidSynth speaks through our log rather than onto the user's terminal; its last error is
// kept, so that a failure can say why.
std::mutex lastErrorMutex;
std::string lastError;

void logFromFluid(int level, const char* message, void*) {
  if (level > FLUID_WARN || !message) return;
  log::write("FluidSynth", message);
  if (level <= FLUID_ERR) {
    std::lock_guard lock(lastErrorMutex);
    lastError = message;
  }
}

void routeFluidLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (int level : {FLUID_PANIC, FLUID_ERR, FLUID_WARN, FLUID_INFO, FLUID_DBG})
      fluid_set_log_function(level, logFromFluid, nullptr);
  });
}

std::string takeLastError() {
  std::lock_guard lock(lastErrorMutex);
  std::string e = std::move(lastError);
  lastError.clear();
  return e;
}

void collectOption(void* data, const char*, const char* option) {
  static_cast<std::vector<std::string>*>(data)->push_back(option);
}

// ALSA's library reports a missing card on stderr by itself, in lines that mean nothing to a
// user; our own message says it better. Holds stderr on /dev/null while it lives.
class QuietStderr {
 public:
  QuietStderr() {
    saved_ = ::dup(STDERR_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved_ >= 0 && null >= 0) ::dup2(null, STDERR_FILENO);
    if (null >= 0) ::close(null);
  }
  ~QuietStderr() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int saved_ = -1;
};

}  // namespace

struct FluidPreviewEngine::Impl {
  fluid_settings_t* settings = nullptr;
  fluid_synth_t* synth = nullptr;
  fluid_audio_driver_t* driver = nullptr;
  int bankId = -1;
  Output output = Output::offline;
  int sampleRate = 44100;

  ~Impl() {
    // The driver first: its thread calls into the synthesizer.
    if (driver) delete_fluid_audio_driver(driver);
    if (synth) delete_fluid_synth(synth);
    if (settings) delete_fluid_settings(settings);
  }
};

FluidPreviewEngine::FluidPreviewEngine(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
FluidPreviewEngine::~FluidPreviewEngine() = default;

std::unique_ptr<FluidPreviewEngine> FluidPreviewEngine::create(const std::filesystem::path& bank,
                                                               Output output, int sampleRate,
                                                               std::string& error) {
  routeFluidLog();
  auto impl = std::make_unique<Impl>();
  impl->output = output;
  impl->sampleRate = sampleRate;
  impl->settings = new_fluid_settings();
  if (!impl->settings) {
    error = tr("シンセサイザーを用意できませんでした");
    return nullptr;
  }
  fluid_settings_setnum(impl->settings, "synth.sample-rate", sampleRate);
  // Only the samples of the programs in use are read: the bank is 140 MB, a preview needs
  // one instrument of it.
  fluid_settings_setint(impl->settings, "synth.dynamic-sample-loading", 1);
  // Dry: reverb and chorus cost a third of the rendering time, and a dry note's start and end
  // are what a user listens for here.
  fluid_settings_setint(impl->settings, "synth.chorus.active", 0);
  fluid_settings_setint(impl->settings, "synth.reverb.active", 0);
  fluid_settings_setnum(impl->settings, "synth.gain", 0.4);
  fluid_settings_setint(impl->settings, "synth.midi-channels", kChannels);
  impl->synth = new_fluid_synth(impl->settings);
  if (!impl->synth) {
    error = tr("シンセサイザーを用意できませんでした");
    return nullptr;
  }
  takeLastError();
  impl->bankId = fluid_synth_sfload(impl->synth, bank.c_str(), 1);
  if (impl->bankId == FLUID_FAILED) {
    error = trf("音色ファイルを読めませんでした: %@", {bank.string()});
    return nullptr;
  }
  // Channel 10 is the drum kit in General MIDI; here every channel is a sampler of notes.
  fluid_synth_set_channel_type(impl->synth, 9, CHANNEL_TYPE_MELODIC);
  return std::unique_ptr<FluidPreviewEngine>(new FluidPreviewEngine(std::move(impl)));
}

// Channel 0 is the fallback sampler, 1 to 15 the tracks'.
int FluidPreviewEngine::trackSamplerCount() const {
  return kChannels - 1;
}

void FluidPreviewEngine::loadProgram(int program) {
  for (int channel = 0; channel < kChannels; ++channel)
    fluid_synth_program_select(impl_->synth, channel, impl_->bankId, 0, program);
}

void FluidPreviewEngine::startNote(int sampler, int pitch, int velocity) {
  fluid_synth_noteon(impl_->synth, sampler + 1, pitch, velocity);
}

void FluidPreviewEngine::stopNote(int sampler, int pitch) {
  fluid_synth_noteoff(impl_->synth, sampler + 1, pitch);
}

void FluidPreviewEngine::silenceAll() {
  for (int channel = 0; channel < kChannels; ++channel)
    fluid_synth_all_notes_off(impl_->synth, channel);
}

std::optional<std::string> FluidPreviewEngine::start() {
  if (impl_->output == Output::offline || impl_->driver) return std::nullopt;
  // Only the drivers that reach the desktop's default device. JACK could start a server of
  // its own, and "file" would write a file nobody asked for.
  std::vector<std::string> available;
  fluid_settings_foreach_option(impl_->settings, "audio.driver", &available, collectOption);
  std::string tried, reasons;
  for (const char* name : {"pipewire", "pulseaudio", "alsa"}) {
    bool present = false;
    for (const auto& a : available) present = present || a == name;
    if (!present) continue;
    tried += (tried.empty() ? "" : ", ") + std::string(name);
    fluid_settings_setstr(impl_->settings, "audio.driver", name);
    takeLastError();
    {
      QuietStderr quiet;
      impl_->driver = new_fluid_audio_driver(impl_->settings, impl_->synth);
    }
    if (impl_->driver) {
      log::write("MIDIPreviewPlayer", std::string("playing through ") + name);
      return std::nullopt;
    }
    const std::string why = takeLastError();
    if (!why.empty()) reasons += std::string(reasons.empty() ? "" : "; ") + name + ": " + why;
  }
  if (tried.empty()) tried = "-";
  return trf("音を出す装置が見つかりません（試した出力: %@）", {tried}) +
         (reasons.empty() ? std::string() : "\n" + reasons);
}

void FluidPreviewEngine::render(float* left, float* right, int frames) {
  fluid_synth_write_float(impl_->synth, frames, left, 0, 1, right, 0, 1);
}

int FluidPreviewEngine::sampleRate() const {
  return impl_->sampleRate;
}

}  // namespace melvo
