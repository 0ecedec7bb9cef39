#include "melvo/synthesis/mixdown.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <functional>

#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

// Interleaved frames of `channels` channels; sample (i, c) = f(i, c).
fs::path writeWav(const fs::path& path, int rate, int channels, long frames,
                  const std::function<float(long, int)>& f, int format = SF_FORMAT_PCM_24) {
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | format;
  SNDFILE* s = sf_open(path.c_str(), SFM_WRITE, &info);
  EXPECT_NE(s, nullptr);
  std::vector<float> buf(static_cast<std::size_t>(frames * channels));
  for (long i = 0; i < frames; ++i)
    for (int c = 0; c < channels; ++c) buf[i * channels + c] = f(i, c);
  sf_writef_float(s, buf.data(), frames);
  sf_close(s);
  return path;
}

struct Wav {
  SF_INFO info{};
  std::vector<float> data;
  float at(long frame, int channel) const { return data[frame * info.channels + channel]; }
};
Wav readWav(const fs::path& path) {
  Wav w;
  SNDFILE* s = sf_open(path.c_str(), SFM_READ, &w.info);
  EXPECT_NE(s, nullptr) << path;
  if (!s) return w;
  w.data.resize(static_cast<std::size_t>(w.info.frames * w.info.channels));
  sf_readf_float(s, w.data.data(), w.info.frames);
  sf_close(s);
  return w;
}

// Changes from sample to sample, so a frame that slips across a chunk border shows.
float wave(long i, int c) {
  return 0.5f * std::sin(0.013f * i + c);
}
constexpr float tol = 1e-5f;  // 24-bit input

class MixdownTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  fs::path out = dir / "mix.wav";
};

TEST_F(MixdownTest, MonoVoicesPanWithConstantPowerAndStereoWithBalance) {
  // Longer than one chunk and not a multiple of it.
  const long n = 20000;
  const auto mono = writeWav(dir / "m.wav", 48000, 1, n, wave);
  const auto stereo = writeWav(dir / "s.wav", 48000, 2, n, wave);

  auto r = mixdown::mix({mono}, {0.8f}, {0.0f}, out);
  ASSERT_TRUE(r.ok);
  Wav w = readWav(out);
  EXPECT_EQ(w.info.channels, 2);
  EXPECT_EQ(w.info.samplerate, 48000);
  EXPECT_EQ(w.info.frames, n);
  for (long i = 0; i < n; i += 97) {
    EXPECT_NEAR(w.at(i, 0), 0.8f * wave(i, 0), tol) << i;
    EXPECT_NEAR(w.at(i, 1), 0.8f * wave(i, 0), tol) << i;
  }

  ASSERT_TRUE(mixdown::mix({mono}, {0.5f}, {-1.0f}, out).ok);
  w = readWav(out);
  for (long i = 0; i < n; i += 97) {
    EXPECT_NEAR(w.at(i, 0), std::sqrt(2.0f) * 0.5f * wave(i, 0), tol) << i;
    EXPECT_NEAR(w.at(i, 1), 0.0f, tol) << i;
  }

  ASSERT_TRUE(mixdown::mix({stereo}, {0.6f}, {0.5f}, out).ok);
  w = readWav(out);
  for (long i = 0; i < n; i += 97) {
    EXPECT_NEAR(w.at(i, 0), 0.5f * 0.6f * wave(i, 0), tol) << i;
    EXPECT_NEAR(w.at(i, 1), 0.6f * wave(i, 1), tol) << i;
  }
}

TEST_F(MixdownTest, OnlyAMixAboveTheTargetPeakIsScaledAndNeverPastTheLimit) {
  const long n = 9000;
  auto level = [](float v) { return [v](long i, int) { return i % 2 ? v : -v; }; };
  const auto a = writeWav(dir / "a.wav", 48000, 1, n, level(0.9f), SF_FORMAT_FLOAT);
  const auto b = writeWav(dir / "b.wav", 48000, 1, n, level(1.0f), SF_FORMAT_FLOAT);

  auto r = mixdown::mix({a}, {}, {}, out);
  ASSERT_TRUE(r.ok);
  EXPECT_FLOAT_EQ(r.scale, 1.0f);
  EXPECT_NEAR(readWav(out).at(n - 1, 0), 0.9f, 1e-6);  // odd frame: +0.9

  // 0.9 + 1.0 = 1.9 on both sides, brought down to 0.95 over the whole file.
  r = mixdown::mix({a, b}, {1, 1}, {0, 0}, out);
  ASSERT_TRUE(r.ok);
  EXPECT_NEAR(r.peak, 1.9f, 1e-5);
  EXPECT_NEAR(r.scale, 0.5f, 1e-6);
  Wav w = readWav(out);
  for (long i : {0L, 8191L, 8192L, n - 1}) EXPECT_NEAR(std::fabs(w.at(i, 1)), 0.95f, 1e-5) << i;

  // A re-mix is held to the scale of its render even when it would be quieter.
  r = mixdown::mix({a, b}, {}, {}, out, 0.3f);
  EXPECT_NEAR(r.scale, 0.3f, 1e-6);
  EXPECT_NEAR(std::fabs(readWav(out).at(5, 0)), 0.57f, 1e-5);
  r = mixdown::mix({a}, {0.5f}, {}, out, 0.3f);
  EXPECT_NEAR(r.scale, 0.3f, 1e-6);
}

TEST_F(MixdownTest, FilesThatCannotBeHeardAreLeftOutWithoutShiftingTheOthersSettings) {
  const long n = 10000;
  const auto first = writeWav(dir / "48k.wav", 48000, 1, n, wave);
  const auto other = writeWav(dir / "44k.wav", 44100, 1, n / 2, [](long, int) { return 0.7f; });
  const auto quad = writeWav(dir / "quad.wav", 48000, 4, n, [](long, int) { return 0.7f; });
  test::writeText(dir / "junk.wav", "not a sound file");

  // Gains go by position in the list, whether or not the file before was skipped.
  auto r = mixdown::mix({dir / "gone.wav", dir / "junk.wav", first, other, quad},
                        {0.1f, 0.1f, 1.0f, 1.0f, 1.0f}, {}, out);
  ASSERT_TRUE(r.ok);
  Wav w = readWav(out);
  EXPECT_EQ(w.info.samplerate, 48000);
  EXPECT_EQ(w.info.frames, n);
  for (long i = 0; i < n; i += 101) EXPECT_NEAR(w.at(i, 0), wave(i, 0), tol) << i;

  // The first file read sets the rate.
  ASSERT_TRUE(mixdown::mix({other, first}, {}, {}, out).ok);
  w = readWav(out);
  EXPECT_EQ(w.info.samplerate, 44100);
  EXPECT_NEAR(w.at(3, 1), 0.7f, tol);
  EXPECT_NEAR(w.at(n / 2 + 3, 1), 0.0f, tol);  // the 48 kHz file is not heard
}

TEST_F(MixdownTest, NothingReadableFailsAndLeavesNoFile) {
  test::writeText(dir / "junk.wav", "x");
  EXPECT_FALSE(mixdown::mix({dir / "junk.wav", dir / "gone.wav"}, {}, {}, out).ok);
  EXPECT_FALSE(mixdown::mix({}, {}, {}, out).ok);
  const auto a = writeWav(dir / "a.wav", 48000, 1, 100, wave);
  EXPECT_FALSE(mixdown::mix({a}, {}, {}, dir / "no-such-folder" / "mix.wav").ok);
  EXPECT_FALSE(fs::exists(out));
  for (const auto& e : fs::directory_iterator(dir.path()))
    EXPECT_NE(e.path().extension(), ".part") << e.path();
}

}  // namespace
}  // namespace melvo
