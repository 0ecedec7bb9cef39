#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "melvo/editing/phoneme_list.h"
#include "melvo/editing/pitch_curve.h"
#include "melvo/platform/log.h"
#include "support/test_support.h"

namespace melvo {
namespace {

std::string bytesOf(const std::vector<float>& v) {
  std::string s(v.size() * 4, '\0');
  std::memcpy(s.data(), v.data(), s.size());
  return s;
}

TEST(PhonemeListTest, DamagedLinesAreSkippedAndCountedOnce) {
  log::Capture cap;
  auto list = PhonemeList::parse(
      "0 100 sil\n\n100 50 a\n-5 10 k\nfoo 20 a\n100 300\t k \n300 400 xx\n400 500 a\r\n");
  ASSERT_EQ(list.phonemes.size(), 4u);
  EXPECT_EQ(list.phonemes[1], (Phoneme{100, 300, "k"}));
  EXPECT_EQ(list.phonemes[3].symbol, "a");  // the carriage return is not part of it
  EXPECT_EQ(cap.count("境界逆転 / 負値の音素を 2 個スキップ"), 1u);
  EXPECT_TRUE(cap.contains("[PhonemeList] ⚠ 想定外音素ラベル: xx"));
  EXPECT_FALSE(cap.contains("全行が sil"));
}

TEST(PhonemeListTest, SilenceOnlyIsKeptWithAWarning) {
  log::Capture cap;
  auto list = PhonemeList::parse("0 10 sil\n10 20 pau\n");
  EXPECT_EQ(list.phonemes.size(), 2u);
  EXPECT_TRUE(cap.contains("全行が sil / pau"));
  EXPECT_FALSE(PhonemeList::read("/nonexistent/timing.lab"));
}

TEST(PhonemeListTest, WrittenFileReadsBackEqual) {
  test::TempDir dir;
  PhonemeList list{{{0, 2500000, "sil"},
                    {2500000, 2900000, "ky"},
                    {2900000, 12345678901, "o"},
                    {12345678901, 12345678999, "cl"}}};
  list.write(dir / "timing.lab");
  EXPECT_EQ(test::readText(dir / "timing.lab").substr(0, 10), "0 2500000 ");
  EXPECT_EQ(PhonemeList::read(dir / "timing.lab"), list);
}

TEST(PhonemeListTest, RangeExcludesPhonemesThatOnlyTouch) {
  PhonemeList list{{{0, 10000000, "sil"}, {10000000, 15000000, "a"}, {15000000, 20000000, "N"}}};
  auto hit = list.phonemesIn(1.0, 1.5);
  ASSERT_EQ(hit.size(), 1u);
  EXPECT_EQ(hit[0].symbol, "a");
  EXPECT_EQ(list.phonemesIn(0.5, 1.6).size(), 3u);
  EXPECT_EQ(displaySymbol("sil"), "•");
  EXPECT_EQ(displaySymbol("cl"), "_");
  EXPECT_EQ(displaySymbol("ky"), "ky");
}

TEST(PitchCurveTest, OddTailIsCutAndImpossibleValuesBecomeUnvoiced) {
  log::Capture cap;
  std::string bytes = bytesOf({440.0f, 3000.0f, 2500.0f, std::numeric_limits<float>::quiet_NaN(),
                               -1.0f, std::numeric_limits<float>::infinity()});
  auto curve = PitchCurve::parse(bytes);
  EXPECT_EQ(curve.frequencies, (std::vector<float>{440.0f, 0, 2500.0f, 0, 0, 0}));
  EXPECT_TRUE(cap.contains("[PitchCurve] ⚠ 異常値 4 個を 0Hz にクランプ"));

  auto ten = PitchCurve::parse(bytesOf({100.0f, 200.0f}) + "xy");
  EXPECT_EQ(ten.frequencies.size(), 2u);
  EXPECT_TRUE(cap.contains("(10 bytes) — 末尾を切り捨てます"));
  EXPECT_EQ(ten.frameIntervalSec, 0.005);

  PitchCurve::parse(bytesOf({0, 0}));
  EXPECT_TRUE(cap.contains("全フレーム無声"));
}

TEST(PitchCurveTest, WrittenFileReadsBackEqual) {
  test::TempDir dir;
  PitchCurve curve{{0, 220.5f, 221.25f, 0, 1000.0f}, 0.005};
  curve.write(dir / "output.f0");
  EXPECT_EQ(std::filesystem::file_size(dir / "output.f0"), 20u);
  EXPECT_EQ(PitchCurve::read(dir / "output.f0"), curve);
  EXPECT_FALSE(PitchCurve::read(dir / "missing.f0"));
}

TEST(PitchCurveTest, InterpolationNeverCrossesIntoUnvoicedFrames) {
  PitchCurve c{{100, 200, 0, 300}, 0.01};
  EXPECT_DOUBLE_EQ(c.value(0.005), 150);
  EXPECT_DOUBLE_EQ(c.value(0.015), 200);  // next frame unvoiced: the voiced one unchanged
  EXPECT_EQ(c.value(0.025), 0);
  EXPECT_DOUBLE_EQ(c.value(0.035), 300);  // last frame
  EXPECT_EQ(c.value(0.05), 0);
  EXPECT_EQ(c.frameIndex(0.03), 3u);  // a time on a frame boundary lands on that frame
  EXPECT_FALSE(c.frameIndex(0.04));
}

TEST(PitchCurveTest, MeanAndMedianUseVoicedFramesInTheWindow) {
  PitchCurve c{{100, 0, 110, 400, 120, 0, 0, 900}, 0.01};
  EXPECT_DOUBLE_EQ(c.mean(0.02, 0.04), (100 + 110 + 400 + 120) / 4.0);
  EXPECT_DOUBLE_EQ(c.median(0.02, 0.04), 115);
  EXPECT_DOUBLE_EQ(c.median(0.03, 0.02), 120);  // frames 2..4
  EXPECT_EQ(c.mean(0.055, 0.01), 0);            // frame 5 alone, unvoiced
  EXPECT_DOUBLE_EQ(c.mean(0.07, 0.0), 900);
}

TEST(PitchCurveTest, CalibrationPicksTheNearestUsualInterval) {
  PitchCurve c{std::vector<float>(2000, 100.0f), 0.005};
  EXPECT_EQ(c.calibratedInterval(10.0), 0.005);
  c.frequencies.resize(800);
  EXPECT_EQ(c.calibratedInterval(10.0), 0.0125);
  c.frequencies.resize(1000);
  EXPECT_EQ(c.calibratedInterval(10.0), 0.01);
  c.frameIntervalSec = 0.007;
  EXPECT_EQ(c.calibratedInterval(0), 0.007);
}

TEST(PitchCurveTest, LeadInMismatchIsLoggedAboveTwoTenths) {
  log::Capture cap;
  PhonemeList ph{{{0, 20000000, "sil"}, {20000000, 25000000, "k"}, {25000000, 30000000, "a"}}};
  EXPECT_NEAR(*checkLeadIn(ph, 1.9, 1920), 0.1, 1e-9);
  EXPECT_TRUE(cap.contains("[F0 offset] lead-in from score = 1.900 s (firstNoteTick=1920)"));
  EXPECT_FALSE(cap.contains("mismatch"));
  checkLeadIn(ph, 1.5, 1440);
  EXPECT_TRUE(
      cap.contains("mismatch: lead-in from phonemes 2.000 s, from score 1.500 s "
                   "(diff +0.500 s, firstNoteTick=1440)"));
}

}  // namespace
}  // namespace melvo
