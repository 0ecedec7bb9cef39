// The rules of the engine's score that the golden files do not pin down one by one.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/log.h"

namespace melvo {
namespace {

using X = MusicXMLExporter;

NoteEvent note(std::int64_t tick, std::int64_t duration, std::string lyric = "あ") {
  return NoteEvent::make(Uuid::random(), tick, duration, 60, 100, std::move(lyric));
}

TEST(MusicXMLValues, NoteValuesFollowTheRowOrder) {
  EXPECT_EQ(X::noteValue(480, 480), (X::NoteValue{"quarter", 0}));
  EXPECT_EQ(X::noteValue(320, 480), (X::NoteValue{"quarter", 0}));  // triplet
  EXPECT_EQ(X::noteValue(321, 480), (X::NoteValue{"quarter", 0}));  // within a tick
  EXPECT_EQ(X::noteValue(160, 480), (X::NoteValue{"eighth", 0}));
  EXPECT_EQ(X::noteValue(840, 480), (X::NoteValue{"quarter", 2}));
  EXPECT_EQ(X::noteValue(250, 480), (X::NoteValue{"eighth", 0}));  // nearest row
  EXPECT_EQ(X::noteValue(100000, 480), (X::NoteValue{"breve", 0}));
  // With a tiny ppq the short rows all have base 1: the first of them wins, and the triplet
  // rule skips them.
  EXPECT_EQ(X::noteValue(1, 1), (X::NoteValue{"64th", 0}));
  EXPECT_EQ(X::noteValue(3, 2), (X::NoteValue{"quarter", 1}));
}

TEST(MusicXMLValues, TempoTextsBeyondTheGoldenOnes) {
  EXPECT_EQ(X::tempoText(-5), "120");
  EXPECT_EQ(X::tempoText(std::numeric_limits<double>::infinity()), "120");
  EXPECT_EQ(X::tempoText(0.2), "1");
  EXPECT_EQ(X::tempoText(97.25), "97.25");
  EXPECT_EQ(X::tempoText(97.125), "97.13");  // halves away from zero
  EXPECT_EQ(X::tempoText(99.999), "100");
  EXPECT_EQ(X::tempoText(60.05), "60.05");
}

TEST(MusicXMLValues, PitchesAreSpelledWithSharpsAndClamped) {
  EXPECT_EQ(X::pitchSpelling(60), (X::PitchSpelling{'C', 0, 4}));
  EXPECT_EQ(X::pitchSpelling(70), (X::PitchSpelling{'A', 1, 4}));
  EXPECT_EQ(X::pitchSpelling(0), (X::PitchSpelling{'C', 0, -1}));
  EXPECT_EQ(X::pitchSpelling(-3), (X::PitchSpelling{'C', 0, -1}));
  EXPECT_EQ(X::pitchSpelling(300), (X::PitchSpelling{'G', 0, 9}));
}

TEST(MusicXMLValues, EscapingDropsWhatXmlForbids) {
  EXPECT_EQ(X::xmlEscaped("a&b<c>\"d'"), "a&amp;b&lt;c&gt;&quot;d'");
  EXPECT_EQ(X::xmlEscaped("x\x01y\x1F\tz\n"), "xy\tz\n");
  EXPECT_EQ(X::xmlEscaped("\xEF\xBF\xBE|\xEF\xBF\xBF|\xF0\x9F\x8E\xB5|さ"),
            "||\xF0\x9F\x8E\xB5|さ");
  // Broken UTF-8 does not reach the engine as broken bytes.
  EXPECT_EQ(X::xmlEscaped("a\xC3"), "a\xEF\xBF\xBD");
}

// ---- Notes that survive ----

TEST(MusicXMLNotes, SameTickOverlapAndOrder) {
  const auto a = note(960, 480, "");    // loses to b: no lyric
  const auto b = note(960, 960, "か");  // cut at c
  const auto c = note(1200, 480, "き");
  const auto d = note(0, 2, "く");      // shorter than ppq/16 ...
  const auto e = note(0, 600, " ");     // ... but e's lyric is blank, so d wins
  const auto f = note(1200, 30, "け");  // same tick as c, long enough, later: dropped
  std::vector<NoteEvent> in{a, b, c, d, e, f};
  const auto out = normalizedNotes(in, 480);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].id, d.id);
  EXPECT_EQ(out[0].duration, 2);
  EXPECT_EQ(out[1].id, b.id);
  EXPECT_EQ(out[1].duration, 240);
  EXPECT_EQ(out[2].id, c.id);

  const auto trimmed = trimmedOverlaps(NoteList(in), 480);
  ASSERT_EQ(trimmed.size(), 1u);
  EXPECT_EQ(trimmed[0].note.id, b.id);
  EXPECT_EQ(trimmed[0].note.duration, 960);
  EXPECT_EQ(trimmed[0].trimmedDuration, 240);
}

TEST(MusicXMLNotes, ShuffledNotesGiveTheSameScore) {
  std::mt19937 rng(7);
  std::vector<NoteEvent> notes;
  for (int i = 0; i < 300; ++i) notes.push_back(note(i * 240 + (i % 3) * 17, 200 + (i % 5) * 90));
  MusicDocument a;
  a.tempoMap = {{0, 120}, {5000, 98.5}, {5000, 140}, {30000, 70}};
  a.tracks.front().notes = NoteList(notes);
  MusicDocument b = a;
  std::shuffle(notes.begin(), notes.end(), rng);
  b.tracks.front().notes = NoteList(notes);
  const std::string first = X::render(a);
  EXPECT_EQ(first, X::render(b));
  EXPECT_EQ(first, X::render(a));  // and the same bytes every time
  EXPECT_EQ(first.find('\r'), std::string::npos);
}

TEST(MusicXMLNotes, BarSearchAndScanAgree) {
  MusicDocument d;
  d.timeSignatures = {{0, 4, 4}, {4000, 7, 8}, {9000, 2, 2}};
  std::vector<NoteEvent> notes;
  std::mt19937 rng(3);
  for (std::int64_t t = 0; t < 40000; t += 1 + rng() % 700)
    notes.push_back(note(t, 1 + rng() % 3000));
  d.tracks.front().notes = NoteList(notes);
  const auto kept = normalizedNotes(d.tracks.front().notes, d.ppq);
  const auto bars = scoreBarLayout(d, false);
  const auto searched = notesByBar(bars, kept, true);
  const auto scanned = notesByBar(bars, kept, false);
  EXPECT_EQ(searched.offsets, scanned.offsets);
  EXPECT_EQ(searched.indices, scanned.indices);
  EXPECT_GT(searched.indices.size(), kept.size());  // notes over bar lines count twice
}

// ---- Bars ----

TEST(MusicXMLBars, LayoutEndsHalfABarAfterTheLastNote) {
  MusicDocument d;
  d.tracks.front().notes = NoteList({note(0, 1920)});
  d.tracks.push_back(MusicTrack{});
  d.tracks.back().notes = NoteList({note(3000, 1800)});  // ends 4800; +960 = 5760
  auto bars = scoreBarLayout(d, false);
  ASSERT_EQ(bars.size(), 4u);  // 5760 itself still opens a bar
  EXPECT_EQ(bars.back().startTick, 5760);

  // A meter placed inside a bar takes effect at the next bar line.
  d.timeSignatures = {{0, 4, 4}, {2000, 3, 4}};
  bars = scoreBarLayout(d, false);
  EXPECT_EQ(bars[1].tpBar, 1920);
  EXPECT_EQ(bars[2].tpBar, 1440);
  EXPECT_EQ(bars[2].startTick, 3840);
}

TEST(MusicXMLBars, CeilingLogsAndReportsTheLoss) {
  MusicDocument d;
  const std::int64_t limit = 2000 * 1920;
  d.tracks.front().notes =
      NoteList({note(0, 480), note(limit - 480, 960, "い"), note(limit + 1920, 480, "う")});
  {
    log::Capture capture;
    const auto bars = scoreBarLayout(d, true);
    EXPECT_EQ(bars.size(), 2000u);
    // Target: last end limit+2400, plus half a bar.
    EXPECT_TRUE(capture.contains(
        "[MusicXMLExporter] ⚠ 小節数が上限 2000 を超えたため切り詰めました（残り tick: 3360）"))
        << (capture.lines().empty() ? "" : capture.lines().front());
  }
  log::Capture quiet;
  const auto report = exportLimitReport(d, 0);
  EXPECT_TRUE(quiet.lines().empty());
  ASSERT_TRUE(report);
  EXPECT_EQ(report->limitTick, limit);
  ASSERT_EQ(report->crossing.size(), 1u);
  EXPECT_EQ(report->crossing[0].lyric, "い");
  ASSERT_EQ(report->beyond.size(), 1u);
  EXPECT_EQ(report->beyond[0].lyric, "う");
  EXPECT_FALSE(exportLimitReport(d, 1));

  // The rendered score stops at the ceiling with the crossing note tied into nothing.
  const std::string xml = X::render(d);
  EXPECT_NE(xml.find("<measure number=\"2000\">"), std::string::npos);
  EXPECT_EQ(xml.find("<measure number=\"2001\">"), std::string::npos);
  EXPECT_EQ(xml.find("<text>う</text>"), std::string::npos);

  // A song that ends well inside the ceiling reports nothing.
  MusicDocument shortSong;
  shortSong.tracks.front().notes = NoteList({note(0, 480)});
  EXPECT_FALSE(exportLimitReport(shortSong, 0));
}

}  // namespace
}  // namespace melvo
