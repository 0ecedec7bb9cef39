// The preview written to a file with the real synthesizer and bank: its length, and whether
// the notes are heard where the song puts them. The onsets are found in the sound alone, so a
// note played early, late, twice or not at all shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include "melvo/importers/import_entry.h"
#include "melvo/platform/log.h"
#include "melvo/playback/offline_render.h"
#include "melvo/playback/sound_bank.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

constexpr int kRate = 44100;

MusicDocument sakura() {
  return openDocument(fs::path(MELVO_TEST_DATA_DIR) / "../../examples/sakura.nsproj");
}

// Times (s) where the sound's energy jumps: the first difference of the signal stresses a
// hammer's attack over a held tone; an onset is a millisecond whose energy over the next 3 ms
// is eight times that of the quietest of the 30 ms before, and onsets keep 60 ms apart.
std::vector<double> detectOnsets(const std::vector<float>& stereo) {
  const std::size_t frames = stereo.size() / 2;
  constexpr std::size_t hop = kRate / 1000;
  std::vector<double> energy(frames / hop, 0.0);
  float previous = 0;
  for (std::size_t i = 0; i < energy.size() * hop; ++i) {
    const float x = 0.5f * (stereo[2 * i] + stereo[2 * i + 1]);
    const double d = x - previous;
    previous = x;
    energy[i / hop] += d * d;
  }
  std::vector<double> onsets;
  double lastOnset = -1;
  for (std::size_t k = 0; k + 3 < energy.size(); ++k) {
    const double ahead = energy[k] + energy[k + 1] + energy[k + 2];
    double before = k == 0 ? 0 : 1e300;  // silence before the file
    for (std::size_t j = k < 30 ? 0 : k - 30; j < k; ++j)
      before = std::min(before, energy[j] + energy[j + 1] + energy[j + 2]);
    const double t = static_cast<double>(k * hop) / kRate;
    if (ahead > 8 * before + 1e-7 && (lastOnset < 0 || t - lastOnset > 0.06)) {
      onsets.push_back(t);
      lastOnset = t;
    }
  }
  return onsets;
}

// Every expected time has a detected onset within `tolerance`, and every onset a note.
void expectOnsetsAt(const std::vector<double>& expected, const std::vector<double>& found,
                    double tolerance) {
  auto nearest = [](const std::vector<double>& in, double t) {
    double best = 1e9;
    for (double x : in) best = std::min(best, std::abs(x - t));
    return best;
  };
  for (double t : expected) EXPECT_LT(nearest(found, t), tolerance) << "no onset near " << t;
  for (double t : found) EXPECT_LT(nearest(expected, t), tolerance) << "an onset at " << t;
}

class OfflinePreviewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bank = findSoundBank();
    if (!bank) GTEST_SKIP() << soundBankMissingMessage();
    options.soundBank = *bank;
    options.sampleRate = kRate;
  }
  log::Capture logged;  // FluidSynth's warnings stay out of the user's log
  std::optional<fs::path> bank;
  OfflinePreview options;
  test::TempDir dir;
};

TEST_F(OfflinePreviewTest, TheSongIsAsLongAsItIsAndItsNotesComeOnTime) {
  const MusicDocument d = sakura();
  const fs::path wav = dir / "sakura.wav";
  const OfflinePreviewResult r = renderPreviewToWav(d, options, wav);
  ASSERT_TRUE(r.ok) << r.error;
  int channels = 0;
  const std::vector<float> samples = test::readSamples(wav, &channels);
  ASSERT_EQ(channels, 2);
  const double length = static_cast<double>(samples.size() / 2) / kRate;
  EXPECT_NEAR(length, d.seconds(d.endTick()), 1.0 / kRate);
  EXPECT_EQ(static_cast<std::int64_t>(samples.size() / 2), r.frames);

  std::vector<double> expected;
  for (const auto& n : d.tracks.front().notes) expected.push_back(d.seconds(n.tick));
  expectOnsetsAt(expected, detectOnsets(samples), 0.010);
  EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(dir.path()), {}),
            std::vector<fs::path>{wav});
}

TEST_F(OfflinePreviewTest, ALoopIsRenderedTheAskedNumberOfTimes) {
  const MusicDocument d = sakura();
  // Bars 3 and 4 of 4/4 at 480 ppq, three times, from the loop's start.
  options.loopStart = 3840;
  options.loopEnd = 7680;
  options.fromTick = 3840;
  options.loopTimes = 3;
  std::vector<float> samples;
  const OfflinePreviewResult r =
      renderPreview(d, options, [&](const float* l, const float* rr, int n) {
        for (int i = 0; i < n; ++i) samples.insert(samples.end(), {l[i], rr[i]});
        return true;
      });
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.runs, 3);
  const double span = d.seconds(7680) - d.seconds(3840);
  EXPECT_NEAR(static_cast<double>(r.frames) / kRate, 3 * span, 3.0 / kRate);

  std::vector<double> expected;
  for (int run = 0; run < 3; ++run)
    for (const auto& n : d.tracks.front().notes)
      if (n.tick >= 3840 && n.tick < 7680)
        expected.push_back(run * span + d.seconds(n.tick) - d.seconds(3840));
  ASSERT_GE(expected.size(), 6u);
  expectOnsetsAt(expected, detectOnsets(samples), 0.010);
}

TEST_F(OfflinePreviewTest, ACancelledOrImpossibleRenderLeavesNoFile) {
  const MusicDocument d = sakura();
  std::atomic<bool> cancel{true};
  options.cancel = &cancel;
  const OfflinePreviewResult cancelled = renderPreviewToWav(d, options, dir / "a.wav");
  EXPECT_TRUE(cancelled.cancelled);
  options.cancel = nullptr;
  options.fromTick = d.endTick() + 10;
  options.soundBank = *bank;
  const OfflinePreviewResult pastTheEnd = renderPreviewToWav(d, options, dir / "b.wav");
  EXPECT_FALSE(pastTheEnd.ok);
  options.fromTick = 0;
  options.soundBank = dir / "none.sf2";
  const OfflinePreviewResult noBank = renderPreviewToWav(d, options, dir / "c.wav");
  EXPECT_FALSE(noBank.ok);
  EXPECT_NE(noBank.error.find("none.sf2"), std::string::npos) << noBank.error;
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
}  // namespace melvo
