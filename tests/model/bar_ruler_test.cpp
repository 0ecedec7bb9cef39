#include <gtest/gtest.h>

#include "melvo/model/bar_ruler.h"
#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

TEST(BarRuler, BarsIn44AndMidBarMeterChange) {
  BarRuler plain(480, {{0, 4, 4}});
  EXPECT_EQ(plain.barNumber(1919), 1);
  EXPECT_EQ(plain.barNumber(1920), 2);
  EXPECT_EQ(plain.barNumber(-50), 1);

  // 3/4 placed mid-bar takes effect at the next bar line (1920), then bars are 1440 long.
  BarRuler mid(480, {{960, 3, 4}, {0, 4, 4}});
  EXPECT_EQ(mid.position(1919).barNumber, 1);
  auto p = mid.position(1920);
  EXPECT_EQ(p.barNumber, 2);
  EXPECT_EQ(p.barStartTick, 1920);
  EXPECT_EQ(mid.position(1920 + 1440).barNumber, 3);
  EXPECT_EQ(mid.position(1920 + 1439).barNumber, 2);
  EXPECT_EQ(p.ticksPerBeat, 480);
}

TEST(BarRuler, FirstMeterGovernsEarlierTicksAndEmptyIs44) {
  BarRuler late(480, {{1920, 3, 4}});
  EXPECT_EQ(late.position(1440).barNumber, 2);
  EXPECT_EQ(BarRuler(480, {}).position(1920).barNumber, 2);
  // Repairs on the way in: 3/5 is 3/4.
  EXPECT_EQ(BarRuler(480, {{0, 3, 5}}).position(1440).barNumber, 2);
}

TEST(BarRuler, HugeMetersSaturateInsteadOfOverflowing) {
  TimeSignatureEvent huge{0, 64, 1};
  EXPECT_EQ(ticksPerBar(huge, 1'000'000'000'000), maxTick);
  EXPECT_GE(ticksPerBar({0, 1, 32}, 1), 1);
  BarRuler r(1'000'000'000'000, {{0, 64, 1}, {5, 4, 4}});
  EXPECT_EQ(r.position(maxTick - 1).barNumber, 1);
  EXPECT_EQ(r.position(maxTick).barNumber, 2);
}

TEST(BarRuler, PositionTextAndSnapping) {
  i18n::setLanguage("ja");
  BarRuler r(480, {{0, 4, 4}});
  EXPECT_EQ(r.positionText(0), "1小節目1拍");
  EXPECT_EQ(r.positionText(2 * 1920 + 720), "3小節目2.5拍");
  EXPECT_EQ(r.positionText(2 * 1920 + 480), "3小節目2拍");
  i18n::setLanguage("en");
  EXPECT_EQ(snapToGrid(239, 480), 0);
  EXPECT_EQ(snapToGrid(240, 480), 480);  // half-way goes up
  EXPECT_EQ(snapToGrid(-100, 480), 0);
  EXPECT_EQ(snapToGrid(7, 0), 7);
}

TEST(TickOfBarCount, PartialBarsBeforeAMeterChangeCountForNothing) {
  MusicDocument d;
  d.timeSignatures = {{0, 4, 4}};
  EXPECT_EQ(d.tickOfBarCount(2), 3840);
  EXPECT_EQ(d.tickOfBarCount(0), 0);
  // 4/4 until 960 holds no whole bar, so the first bar is counted in 3/4 from 960.
  d.timeSignatures = {{960, 3, 4}, {0, 4, 4}};
  EXPECT_EQ(d.tickOfBarCount(1), 960 + 1440);
  // A map whose first meter is late gets 4/4 in front.
  d.timeSignatures = {{3840, 3, 4}};
  EXPECT_EQ(d.tickOfBarCount(3), 3840 + 1440);
  d.timeSignatures = {{0, 4, 4}};
  EXPECT_EQ(d.tickOfBarCount(1'000'000'000), maxTick);
}

}  // namespace
}  // namespace melvo
