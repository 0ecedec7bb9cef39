// Four sung voices of three minutes mixed to stereo with the mixer's gain and pan, from the
// files to the file, against sox making the same mix of the same files in the same run.
//
// The voices are mono 16-bit PCM at 48 kHz, as the engine writes them; both mixes write 32-bit
// float stereo. Each iteration times one mix of ours and one sox run, in alternating order, so
// that a busy machine slows both alike. Two settings of the faders: "quiet" stays below the
// target peak, so the mix is written once; "loud" goes above full scale, so ours scales the
// written file in place and sox needs `gain -h` (no clipping inside) and `gain -n` (a second
// pass over its temp file) to land on the same samples. The counters are medians over the
// iterations; the time column is the mean of ours. Before timing, both outputs are read
// back and compared sample by sample: a run whose mixes differ reports an error, not a time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_support.h"
#include "melvo/synthesis/mixdown.h"

namespace fs = std::filesystem;
using namespace melvo;

namespace {

using melvo::bench::median;
using melvo::bench::secondsSince;

constexpr int rate = 48000;
constexpr int seconds = 180;
constexpr int voices = 4;
constexpr sf_count_t frames = static_cast<sf_count_t>(rate) * seconds;

// A voice that sings: notes of a quarter to half a second on a melody of its own, a few
// harmonics with vibrato, soft edges, and a breath between phrases. Peaks near 0.45.
void writeVoice(const fs::path& path, int voice) {
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!f) throw std::runtime_error("cannot write " + path.string());
  static constexpr int melody[] = {0, 2, 4, 5, 7, 5, 4, 2, 9, 7, 5, 4, 2, 4, 0, -1};
  const double base = 48 + 5 * voice;  // each voice in its own register
  std::vector<float> buf(static_cast<std::size_t>(rate));
  double phase = 0;
  sf_count_t at = 0;
  int note = 0;
  while (at < frames) {
    const int step = melody[(note + 3 * voice) % 16];
    const sf_count_t len = (note % 3 == 2 ? rate / 2 : rate / 4) + 613 * voice % 2400;
    const sf_count_t n = std::min(len, frames - at);
    const double freq = 440.0 * std::pow(2.0, (base + step - 69) / 12.0);
    buf.resize(static_cast<std::size_t>(n));
    for (sf_count_t i = 0; i < n; ++i) {
      if (step < 0) {  // the breath
        buf[i] = 0;
        continue;
      }
      const double t = static_cast<double>(at + i) / rate;
      const double vib = 1 + 0.004 * std::sin(2 * std::numbers::pi * 5.5 * t);
      phase += freq * vib / rate;
      phase -= std::floor(phase);
      const double p = 2 * std::numbers::pi * phase;
      const double edge = std::min({1.0, static_cast<double>(i) / 480, (n - i) / 480.0});
      buf[i] = static_cast<float>(
          edge * (0.28 * std::sin(p) + 0.12 * std::sin(2 * p) + 0.05 * std::sin(3 * p + 1)));
    }
    sf_writef_float(f, buf.data(), n);
    at += n;
    ++note;
  }
  sf_close(f);
}

struct Faders {
  std::array<float, voices> gains;
  std::array<float, voices> pans;
};
constexpr Faders quiet{{0.6f, 0.5f, 0.7f, 0.4f}, {-0.5f, 0.3f, 0.0f, 0.8f}};
constexpr Faders loud{{1.5f, 1.2f, 1.0f, 1.4f}, {-0.2f, 0.1f, 0.0f, 0.3f}};

struct Fixture {
  fs::path root;
  std::vector<fs::path> inputs;
  Fixture() {
    char tmpl[] = "/tmp/melvo-bench-mix-XXXXXX";
    root = ::mkdtemp(tmpl);
    for (int v = 0; v < voices; ++v) {
      inputs.push_back(root / ("voice" + std::to_string(v + 1) + ".wav"));
      writeVoice(inputs.back(), v);
    }
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

std::string number(double v) {
  char s[32];
  std::snprintf(s, sizeof s, "%.9g", v);
  return s;
}

// The sox command line for the same mix: the inputs side by side as channels (-M), each
// placed on both sides with its constant-power pan gain by remix.
std::vector<std::string> soxArgs(const Fixture& f, const Faders& faders, bool scaled,
                                 const fs::path& out) {
  std::vector<std::string> a = {"sox", "-M"};
  for (const auto& in : f.inputs) a.push_back(in.string());
  for (const char* s : {"-e", "floating-point", "-b", "32"}) a.push_back(s);
  a.push_back(out.string());
  // Headroom before remix, or its sums clip at full scale on their way out.
  if (scaled) a.insert(a.end(), {"gain", "-h"});
  std::string left, right;
  for (int v = 0; v < voices; ++v) {
    const double angle = (faders.pans[v] + 1.0) * std::numbers::pi / 4;
    const double g = faders.gains[v] * std::numbers::sqrt2;
    const std::string ch = std::to_string(v + 1) + "v";
    left += (v ? "," : "") + ch + number(g * std::cos(angle));
    right += (v ? "," : "") + ch + number(g * std::sin(angle));
  }
  a.insert(a.end(), {"remix", left, right});
  // The mix's rule for a loud mix: its peak brought to 0.95.
  if (scaled) a.insert(a.end(), {"gain", "-n", number(20 * std::log10(mixdown::targetPeak))});
  return a;
}

bool runSox(const std::vector<std::string>& args, const fs::path& errors) {
  std::vector<char*> argv;
  for (const auto& s : args) argv.push_back(const_cast<char*>(s.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 2, errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, "sox", &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return false;
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The largest difference between two stereo files, or infinity when their shapes differ.
double largestDifference(const fs::path& a, const fs::path& b) {
  SF_INFO ia{}, ib{};
  SNDFILE* fa = sf_open(a.c_str(), SFM_READ, &ia);
  SNDFILE* fb = sf_open(b.c_str(), SFM_READ, &ib);
  double worst = HUGE_VAL;
  if (fa && fb && ia.frames == ib.frames && ia.channels == 2 && ib.channels == 2 &&
      ia.samplerate == ib.samplerate) {
    worst = 0;
    std::vector<float> x(2 * 8192), y(2 * 8192);
    sf_count_t n;
    while ((n = sf_readf_float(fa, x.data(), 8192)) > 0) {
      if (sf_readf_float(fb, y.data(), 8192) != n) {
        worst = HUGE_VAL;
        break;
      }
      for (sf_count_t i = 0; i < 2 * n; ++i)
        worst = std::max(worst, static_cast<double>(std::fabs(x[i] - y[i])));
    }
  }
  if (fa) sf_close(fa);
  if (fb) sf_close(fb);
  return worst;
}

void BM_MixFourVoices(benchmark::State& state, Faders faders, bool expectScaled) {
  Fixture& f = fixture();
  const fs::path ours = f.root / "mix-melvo.wav";
  const fs::path theirs = f.root / "mix-sox.wav";
  const fs::path errors = f.root / "sox-errors.txt";
  const std::vector<float> gains(faders.gains.begin(), faders.gains.end());
  const std::vector<float> pans(faders.pans.begin(), faders.pans.end());
  const auto args = soxArgs(f, faders, expectScaled, theirs);

  // Once untimed: warms the page cache with the inputs and proves that both make one mix.
  fs::remove(errors);
  const MixResult first = mixdown::mix(f.inputs, gains, pans, ours);
  if (!first.ok) return state.SkipWithError("mix failed");
  if ((first.scale < 1.0f) != expectScaled)
    return state.SkipWithError("the faders do not give the intended case");
  if (!runSox(args, errors)) return state.SkipWithError("sox failed or is missing");
  std::ifstream in(errors);
  const std::string warnings((std::istreambuf_iterator<char>(in)), {});
  if (warnings.find("clip") != std::string::npos) return state.SkipWithError("sox clipped");
  // Float sums in a different order, and sox's 32-bit integer path: a few units in 1e-7.
  const double difference = largestDifference(ours, theirs);
  if (!(difference < 1e-5)) return state.SkipWithError("the two mixes differ");

  std::vector<double> melvo, sox;
  bool soxFirst = false;
  for (auto _ : state) {
    // Outside the clock: freeing the last run's output would be charged to whoever runs first.
    fs::remove(ours);
    fs::remove(theirs);
    double m = 0, s = 0;
    for (int k = 0; k < 2; ++k) {
      const auto t0 = std::chrono::steady_clock::now();
      if ((k == 0) != soxFirst) {
        if (!mixdown::mix(f.inputs, gains, pans, ours).ok) state.SkipWithError("mix failed");
        m = secondsSince(t0);
      } else {
        if (!runSox(args, errors)) state.SkipWithError("sox failed");
        s = secondsSince(t0);
      }
    }
    soxFirst = !soxFirst;
    state.SetIterationTime(m);
    melvo.push_back(m);
    sox.push_back(s);
  }
  // Medians: on a shared machine one slow iteration should not move the figure.
  state.counters["melvo_ms"] = median(melvo) * 1e3;
  state.counters["sox_ms"] = median(sox) * 1e3;
  state.counters["ratio"] = median(melvo) / median(sox);
  state.counters["max_diff"] = difference;
  state.SetLabel(expectScaled ? "scaled to 0.95" : "unscaled");
}
BENCHMARK_CAPTURE(BM_MixFourVoices, quiet, quiet, false)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);
BENCHMARK_CAPTURE(BM_MixFourVoices, loud, loud, true)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::printf(
      "four mono 16-bit voices of %d s at %d Hz, mixed to float stereo; "
      "ratio = ours / sox (goal < 1, aim 0.5)\n",
      seconds, rate);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
