// Stand-in for the engine's singer: labels in; timing, pitch curve, features, voice and a
// phrase trace out. --skip-timing and --skip-f0 take the (edited) files that lie there.
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "stand_in.h"

using namespace standin;
namespace fs = std::filesystem;

namespace {

constexpr double frameSec = 0.005;
constexpr int sampleRate = 48000;

void usage() {
  std::printf(
      "usage: neutrino FULL.lab TIMING.lab OUTPUT.f0 OUTPUT.melspec OUTPUT.wav MODEL_DIR/\n"
      "                [-n threads] [-i trace] [-f key] [-S model] [-g id | -m] [-p phrase]\n"
      "                [--skip-timing] [--skip-f0] [--skip-melspec] [--skip-wav] [-t]\n"
      "\n"
      "Stand-in test double for the NEUTRINO engine, built with Melvo for its tests and demo.\n"
      "It is not the engine: it sings a buzz that follows the pitch curve and the timing.\n"
      "Failure modes for tests: MELVO_STANDIN_MODE=hang|hang-run|crash|missing-library|slow\n"
      "(hang-run hangs only when given work), or mode=... in stand-in.conf of the voice folder.\n");
}

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  std::exit(1);
}

struct Args {
  std::string full, timing, f0, melspec, wav, model, trace, support;
  int threads = 1, transpose = 0, phrase = 0;
  bool skipTiming = false, skipF0 = false, skipMelspec = false, skipWav = false;
};

Args parseArgs(int argc, char** argv) {
  Args a;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string s = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) fail("Error: " + s + " needs a value");
      return argv[++i];
    };
    if (s == "-n")
      a.threads = std::atoi(value().c_str());
    else if (s == "-i")
      a.trace = value();
    else if (s == "-f")
      a.transpose = std::atoi(value().c_str());
    else if (s == "-S")
      a.support = value();
    else if (s == "-g")
      value();
    else if (s == "-p")
      a.phrase = std::atoi(value().c_str());
    else if (s == "-m" || s == "-t")
      continue;
    else if (s == "--skip-timing")
      a.skipTiming = true;
    else if (s == "--skip-f0")
      a.skipF0 = true;
    else if (s == "--skip-melspec")
      a.skipMelspec = true;
    else if (s == "--skip-wav")
      a.skipWav = true;
    else if (!s.empty() && s[0] == '-')
      fail("Error: unknown option " + s);
    else
      positional.push_back(s);
  }
  if (positional.size() != 6) {
    usage();
    std::exit(1);
  }
  a.full = positional[0];
  a.timing = positional[1];
  a.f0 = positional[2];
  a.melspec = positional[3];
  a.wav = positional[4];
  a.model = positional[5];
  return a;
}

std::vector<float> predictF0(const std::vector<Label>& timing, const std::vector<Label>& full,
                             int transpose) {
  const double total = timing.empty() ? 0 : timing.back().end / 1e7;
  const auto frames = static_cast<std::size_t>(std::ceil(total / frameSec));
  std::vector<float> f0(frames, 0.0f);
  std::size_t k = 0;
  for (std::size_t i = 0; i < frames; ++i) {
    const double t = (static_cast<double>(i) + 0.5) * frameSec;
    while (k + 1 < timing.size() && timing[k].end / 1e7 <= t) ++k;
    if (k >= timing.size() || !isVoiced(timing[k].symbol) || full[k].pitch < 0) continue;
    const double midi = full[k].pitch + transpose;
    // A slight vibrato keeps the curve from looking drawn with a ruler.
    const double vib = 0.15 * std::sin(2 * M_PI * 5.5 * t);
    f0[i] = static_cast<float>(440.0 * std::pow(2.0, (midi + vib - 69.0) / 12.0));
  }
  return f0;
}

struct Resonator {
  double b0 = 0, a1 = 0, a2 = 0, y1 = 0, y2 = 0;
  void tune(double freq, double bandwidth) {
    const double r = std::exp(-M_PI * bandwidth / sampleRate);
    a1 = 2 * r * std::cos(2 * M_PI * freq / sampleRate);
    a2 = -r * r;
    b0 = 1 - r;
  }
  double step(double x) {
    const double y = b0 * x + a1 * y1 + a2 * y2;
    y2 = y1;
    y1 = y;
    return y;
  }
};

void formants(const std::string& p, double& f1, double& f2) {
  if (p == "a")
    f1 = 800, f2 = 1200;
  else if (p == "i")
    f1 = 300, f2 = 2300;
  else if (p == "u")
    f1 = 350, f2 = 1400;
  else if (p == "e")
    f1 = 500, f2 = 1900;
  else if (p == "o")
    f1 = 500, f2 = 900;
  else
    f1 = 280, f2 = 1100;  // N and the voiced consonants: dark and nasal
}

std::vector<float> synthesize(const std::vector<Label>& timing, const std::vector<float>& f0) {
  const auto samples = static_cast<std::size_t>(f0.size() * frameSec * sampleRate);
  std::vector<float> out(samples, 0.0f);
  Resonator r1, r2;
  std::minstd_rand noise(7);
  double phase = 0, gain = 0;
  std::size_t k = 0;
  std::string current;
  for (std::size_t s = 0; s < samples; ++s) {
    const double t = static_cast<double>(s) / sampleRate;
    while (k + 1 < timing.size() && timing[k].end / 1e7 <= t) ++k;
    const std::string& p = k < timing.size() ? timing[k].symbol : std::string("sil");
    if (p != current) {
      double f1, f2;
      formants(p, f1, f2);
      r1.tune(f1, 90);
      r2.tune(f2, 120);
      current = p;
    }
    const double pos = t / frameSec;
    const auto i = static_cast<std::size_t>(pos);
    double f = i < f0.size() ? f0[i] : 0;
    if (f > 0 && i + 1 < f0.size() && f0[i + 1] > 0)
      f += (f0[i + 1] - f) * (pos - static_cast<double>(i));
    double source = 0, target = 0;
    if (f > 0) {
      phase += f / sampleRate;
      phase -= std::floor(phase);
      source = 2 * phase - 1;
      target = isVowel(p) ? 1.0 : 0.5;
    } else if (p != "sil" && p != "pau" && p != "cl") {
      source = (static_cast<double>(noise()) / noise.max() * 2 - 1);
      target = 0.15;
    }
    gain += (target - gain) * 0.002;  // about 10 ms to settle, so no clicks
    const double y = 0.6 * r1.step(source) + 0.4 * r2.step(source) + 0.05 * source;
    out[s] = static_cast<float>(std::clamp(y * gain * 2.5, -0.95, 0.95));
  }
  return out;
}

void writeF0(const std::string& path, const std::vector<float>& f0) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) fail("Error: cannot write " + path);
  out.write(reinterpret_cast<const char*>(f0.data()), static_cast<std::streamsize>(f0.size() * 4));
}

std::vector<float> readF0(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) fail("Error: " + path + ": No such file or directory");
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
  std::vector<float> f0(bytes.size() / 4);
  std::memcpy(f0.data(), bytes.data(), f0.size() * 4);
  for (float& v : f0)
    if (!std::isfinite(v) || v < 0) v = 0;
  return f0;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      usage();
      return 0;
    }
  const Args args = argc > 6 ? parseArgs(argc, argv) : Args{};
  const Behaviour b = behaviour(args.model);
  applyStartFailures(b, "neutrino");
  if (argc <= 6) {
    usage();
    return 1;
  }
  if (b.mode == "hang-run") hang("neutrino");
  std::error_code ec;
  if (!fs::is_directory(args.model, ec))
    fail("Error: model directory " + args.model + " does not exist");
  if (!args.support.empty() && !fs::is_directory(args.support, ec))
    fail("Error: support model directory " + args.support + " does not exist");

  std::printf("NEUTRINO stand-in: model %s, %d threads\n",
              fs::path(args.model).parent_path().filename().c_str(), args.threads);
  std::vector<Label> full;
  try {
    full = readLabels(args.full);
  } catch (const std::exception& e) {
    fail(std::string("Error: ") + e.what());
  }

  std::vector<Label> timing;
  if (args.skipTiming) {
    try {
      timing = readLabels(args.timing);
    } catch (const std::exception& e) {
      fail(std::string("Error: ") + e.what());
    }
    if (timing.size() != full.size())
      fail("Error: " + args.timing + " has " + std::to_string(timing.size()) +
           " phonemes, the labels have " + std::to_string(full.size()));
    std::printf("Skipped timing prediction [1/4]\n");
  } else {
    timing = full;
    writeLabels(args.timing, timing, false);
    std::printf("Predicted timing [1/4]\n");
  }
  step(b, 1);

  std::vector<float> f0;
  if (args.skipF0) {
    f0 = readF0(args.f0);
    std::printf("Skipped f0 prediction [2/4]\n");
  } else {
    f0 = predictF0(timing, full, args.transpose);
    writeF0(args.f0, f0);
    std::printf("Predicted f0, %zu frames [2/4]\n", f0.size());
  }
  step(b, 2);

  if (!args.skipMelspec) {
    // Features: one energy value a frame, enough for a file of the right shape.
    std::vector<float> energy(f0.size());
    for (std::size_t i = 0; i < f0.size(); ++i) energy[i] = f0[i] > 0 ? 1.0f : 0.0f;
    writeF0(args.melspec, energy);
  }
  std::printf("Predicted spectral features [3/4]\n");
  step(b, 3);

  if (!args.skipWav) {
    auto samples = synthesize(timing, f0);
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(args.wav.c_str(), SFM_WRITE, &info);
    if (!file) fail("Error: cannot write " + args.wav + ": " + sf_strerror(nullptr));
    sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
  }
  std::printf("Vocoder done [4/4]\n");
  step(b, 4);

  if (!args.trace.empty()) {
    std::ofstream trace(args.trace, std::ios::trunc);
    int phrase = 0;
    std::int64_t start = -1;
    for (std::size_t i = 0; i < timing.size(); ++i) {
      const bool silent = timing[i].symbol == "sil" || timing[i].symbol == "pau";
      if (!silent && start < 0) start = timing[i].start;
      if (silent && start >= 0) {
        trace << "phrase " << ++phrase << " " << start << " " << timing[i].start << "\n";
        start = -1;
      }
    }
  }
  return 0;
}
