#include "melvo/editing/pitch_curve.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "melvo/editing/phoneme_list.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/log.h"

namespace melvo {

PitchCurve PitchCurve::parse(std::string_view bytes) {
  if (bytes.size() % 4 != 0)
    log::write("PitchCurve", "⚠ ファイルサイズが 4 の倍数ではない (" +
                                 std::to_string(bytes.size()) + " bytes) — 末尾を切り捨てます");
  PitchCurve curve;
  const std::size_t frames = bytes.size() / 4;
  curve.frequencies.resize(frames);
  if (frames) std::memcpy(curve.frequencies.data(), bytes.data(), frames * 4);
  int abnormal = 0;
  bool allZero = true;
  for (float& f : curve.frequencies) {
    if (!std::isfinite(f) || f < 0 || f > 2500.0f) {
      f = 0;
      ++abnormal;
    }
    allZero &= f == 0;
  }
  if (abnormal > 0)
    log::write("PitchCurve", "⚠ 異常値 " + std::to_string(abnormal) + " 個を 0Hz にクランプ");
  if (allZero) log::write("PitchCurve", "⚠ 全フレーム無声（0Hz）— NEUTRINO 合成結果が不正かも");
  return curve;
}

std::optional<PitchCurve> PitchCurve::read(const std::filesystem::path& path) {
  std::string bytes;
  try {
    bytes = readFile(path);
  } catch (const FileError&) {
    return std::nullopt;
  }
  return parse(bytes);
}

void PitchCurve::write(const std::filesystem::path& path) const {
  writeFileAtomically(path, std::string_view(reinterpret_cast<const char*>(frequencies.data()),
                                             frequencies.size() * sizeof(float)));
}

double PitchCurve::value(double atSec) const {
  if (frameIntervalSec <= 0 || atSec < 0) return 0;
  const double f = atSec / frameIntervalSec;
  const std::size_t i = static_cast<std::size_t>(f);
  if (i >= frequencies.size()) return 0;
  const double a = frequencies[i];
  if (a <= 0) return 0;
  if (i + 1 >= frequencies.size() || frequencies[i + 1] <= 0) return a;
  return a + (frequencies[i + 1] - a) * (f - static_cast<double>(i));
}

std::optional<std::size_t> PitchCurve::frameIndex(double atSec) const {
  if (frameIntervalSec <= 0) return std::nullopt;
  const double f = atSec / frameIntervalSec + 0.000001;
  if (f < 0) return std::nullopt;
  const auto i = static_cast<std::size_t>(f);
  if (i >= frequencies.size()) return std::nullopt;
  return i;
}

namespace {

std::vector<float> voicedAround(const PitchCurve& c, double aroundSec, double windowSec) {
  std::vector<float> out;
  if (c.frequencies.empty() || c.frameIntervalSec <= 0) return out;
  const auto centre =
      static_cast<std::int64_t>(std::floor(aroundSec / c.frameIntervalSec + 0.000001));
  const auto half = static_cast<std::int64_t>(windowSec / 2 / c.frameIntervalSec);
  const std::int64_t lo = std::max<std::int64_t>(0, centre - half);
  const std::int64_t hi =
      std::min<std::int64_t>(static_cast<std::int64_t>(c.frequencies.size()) - 1, centre + half);
  for (std::int64_t i = lo; i <= hi; ++i)
    if (c.frequencies[static_cast<std::size_t>(i)] > 0)
      out.push_back(c.frequencies[static_cast<std::size_t>(i)]);
  return out;
}

}  // namespace

double PitchCurve::mean(double aroundSec, double windowSec) const {
  auto v = voicedAround(*this, aroundSec, windowSec);
  if (v.empty()) return 0;
  double sum = 0;
  for (float f : v) sum += f;
  return sum / static_cast<double>(v.size());
}

double PitchCurve::median(double aroundSec, double windowSec) const {
  auto v = voicedAround(*this, aroundSec, windowSec);
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (static_cast<double>(v[n / 2 - 1]) + v[n / 2]) / 2;
}

double PitchCurve::calibratedInterval(double audioDurationSec) const {
  if (!(audioDurationSec > 0) || frequencies.empty()) return frameIntervalSec;
  static constexpr std::array<double, 7> intervals = {0.00125, 0.0025, 0.005, 0.00625,
                                                      0.008,   0.01,   0.0125};
  const double raw = audioDurationSec / static_cast<double>(frequencies.size());
  double best = intervals[0];
  for (double i : intervals)
    if (std::abs(i - raw) < std::abs(best - raw)) best = i;
  return best;
}

std::optional<double> checkLeadIn(const PhonemeList& phonemes, double scoreLeadInSec,
                                  std::int64_t firstNoteTick) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "lead-in from score = %.3f s (firstNoteTick=%lld)", scoreLeadInSec,
                static_cast<long long>(firstNoteTick));
  log::write("F0 offset", buf);
  auto fromPhonemes = phonemes.firstSungStartSec();
  if (!fromPhonemes) return std::nullopt;
  const double diff = *fromPhonemes - scoreLeadInSec;
  if (std::abs(diff) > 0.2) {
    std::snprintf(buf, sizeof buf,
                  "mismatch: lead-in from phonemes %.3f s, from score %.3f s (diff %+.3f s, "
                  "firstNoteTick=%lld)",
                  *fromPhonemes, scoreLeadInSec, diff, static_cast<long long>(firstNoteTick));
    log::write("F0 offset", buf);
  }
  return diff;
}

}  // namespace melvo
