#include "melvo/editing/scale_assist.h"

#include <gtest/gtest.h>

#include <string>

#include "melvo/platform/json.h"

namespace melvo {
namespace {

// Membership over one chromatic octave from the root, written out by ear from each scale's
// steps rather than from its interval list.
struct ScaleRun {
  ScaleType type;
  const char* raw;
  const char* pattern;  // C C# D D# E F F# G G# A A# B above the root; x = in the scale
};
const ScaleRun kRuns[] = {
    {ScaleType::major, "major", "x.x.xx.x.x.x"},
    {ScaleType::naturalMinor, "natural-minor", "x.xx.x.xx.x."},
    {ScaleType::harmonicMinor, "harmonic-minor", "x.xx.x.xx..x"},
    {ScaleType::melodicMinor, "melodic-minor", "x.xx.x.x.x.x"},
    {ScaleType::dorian, "dorian", "x.xx.x.x.xx."},
    {ScaleType::phrygian, "phrygian", "xx.x.x.xx.x."},
    {ScaleType::lydian, "lydian", "x.x.x.xx.x.x"},
    {ScaleType::mixolydian, "mixolydian", "x.x.xx.x.xx."},
    {ScaleType::locrian, "locrian", "xx.x.xx.x.x."},
    {ScaleType::majorPent, "major-pentatonic", "x.x.x..x.x.."},
    {ScaleType::minorPent, "minor-pentatonic", "x..x.x.x..x."},
    {ScaleType::japaneseYona, "japanese-yonanuki", "x.x.x..x.x.."},
    {ScaleType::okinawan, "okinawan", "x...xx.x...x"},
    {ScaleType::blues, "blues", "x..x.xxx..x."},
    {ScaleType::wholeTone, "whole-tone", "x.x.x.x.x.x."},
    {ScaleType::diminished, "diminished", "x.xx.xx.xx.x"},
    {ScaleType::chromatic, "chromatic", "xxxxxxxxxxxx"},
};

TEST(ScaleAssist, EveryScaleJudgesAChromaticRunFromAnyRoot) {
  static_assert(std::size(kRuns) == kScaleTypeCount);
  for (int i = 0; i < kScaleTypeCount; ++i) {
    const ScaleRun& run = kRuns[i];
    SCOPED_TRACE(run.raw);
    EXPECT_EQ(scaleTypeAt(i), run.type);  // menu order
    EXPECT_EQ(scaleRawValue(run.type), run.raw);
    EXPECT_EQ(scaleFromRaw(run.raw), run.type);
    // Root E (64): the run from 40 to 87 covers pitches below and above the root.
    const ScaleAssist a{ScaleAssistMode::display, run.type, 64};
    std::string judged;
    for (int pitch = 40; pitch < 88; ++pitch) judged += isInScale(pitch, a) ? 'x' : '.';
    std::string expected;
    for (int k = 0; k < 4; ++k) expected += run.pattern;
    EXPECT_EQ(judged, expected);
  }
}

TEST(ScaleAssist, OnlyTheLockMovesANoteAndItPrefersUpward) {
  ScaleAssist a{ScaleAssistMode::display, ScaleType::major, 60};
  EXPECT_EQ(snapped(61, a), 61);
  a.mode = ScaleAssistMode::warn;
  EXPECT_EQ(snapped(61, a), 61);
  a.mode = ScaleAssistMode::lock;
  EXPECT_EQ(snapped(61, a), 62);  // C# half-way between C and D goes up
  EXPECT_EQ(snapped(64, a), 64);
  a.scaleType = ScaleType::okinawan;  // C E F G B
  EXPECT_EQ(snapped(62, a), 64);      // D: C and E both two away, up wins
  EXPECT_EQ(snapped(73, a), 72);      // C#: C one below is nearer than E

  // At the top candidates above 127 are skipped: G9 in B major goes down to F#9.
  a = {ScaleAssistMode::lock, ScaleType::major, 71};
  EXPECT_EQ(snapped(127, a), 126);
  a.scaleType = ScaleType::chromatic;
  for (int p = 0; p <= 127; ++p) ASSERT_EQ(snapped(p, a), p);
}

TEST(ScaleAssist, JsonUsesTheRawNamesAndIgnoresWhatItCannotRead) {
  const ScaleAssist a{ScaleAssistMode::lock, ScaleType::japaneseYona, 62};
  const Json j = scaleAssistToJson(a);
  EXPECT_EQ(j.dump(), R"({"mode":"lock","rootPitch":62,"scaleType":"japanese-yonanuki"})");
  EXPECT_EQ(scaleAssistFromJson(j), a);
  const ScaleAssist fallback =
      scaleAssistFromJson(Json::parse(R"({"mode":"loud","rootPitch":400,"scaleType":"dorian"})"));
  EXPECT_EQ(fallback.mode, ScaleAssistMode::off);
  EXPECT_EQ(fallback.rootPitch, 60);
  EXPECT_EQ(fallback.scaleType, ScaleType::dorian);
}

}  // namespace
}  // namespace melvo
