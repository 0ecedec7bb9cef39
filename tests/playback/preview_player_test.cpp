// The preview's clocks, its event list and the run's course, on a clock moved by hand and a
// sampler that only writes down what it was asked to play.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "melvo/model/music_document.h"
#include "melvo/platform/log.h"
#include "melvo/playback/midi_preview_player.h"
#include "support/engine_test_support.h"

namespace melvo {
namespace {

using namespace std::chrono_literals;

struct Played {
  bool on;
  int sampler, pitch;
  double at;  // seconds since the run started, on the clock the test reads
};

class RecordingEngine : public PreviewEngine {
 public:
  RecordingEngine(std::vector<Played>& log, std::mutex& mutex, std::function<double()> now,
                  int samplers)
      : log_(log), mutex_(mutex), now_(std::move(now)), samplers_(samplers) {}
  int trackSamplerCount() const override { return samplers_; }
  void loadProgram(int program) override { lastProgram = program; }
  void startNote(int sampler, int pitch, int) override { add(true, sampler, pitch); }
  void stopNote(int sampler, int pitch) override { add(false, sampler, pitch); }
  void silenceAll() override {}
  std::optional<std::string> start() override { return std::nullopt; }
  int lastProgram = -1;

 private:
  void add(bool on, int sampler, int pitch) {
    std::lock_guard lock(mutex_);
    log_.push_back({on, sampler, pitch, now_()});
  }
  std::vector<Played>& log_;
  std::mutex& mutex_;
  std::function<double()> now_;
  int samplers_;
};

NoteEvent note(std::int64_t tick, std::int64_t duration, int pitch) {
  return NoteEvent::make(Uuid::random(), tick, duration, pitch);
}

MusicDocument song(std::vector<NoteEvent> notes) {
  MusicDocument d;
  for (auto& n : notes) d.tracks.front().notes.push_back(n);
  return d;
}

class ManualRun : public ::testing::Test {
 protected:
  log::Capture logged;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  EventLoop loop{clock};
  std::vector<Played> played;
  std::mutex mutex;
  int samplers = 4;
  RecordingEngine* engine = nullptr;
  MIDIPreviewPlayer player{loop,
                           [this](std::string&) -> std::unique_ptr<PreviewEngine> {
                             auto e = std::make_unique<RecordingEngine>(
                                 played, mutex, [this] { return player.elapsed(); }, samplers);
                             engine = e.get();
                             return e;
                           },
                           MIDIPreviewPlayer::Drive::manual};

  // Steps like the two timers would: a poll every 5 ms, the display step after it.
  void runFor(std::chrono::milliseconds span) {
    for (auto t = 0ms; t < span; t += 5ms) {
      clock->advance(5ms);
      player.pollStep();
      player.displayStep();
      loop.runUntilIdle();
    }
  }
  std::vector<int> onsets(int pitch) {
    std::vector<int> at;
    for (const auto& p : played)
      if (p.on && p.pitch == pitch) at.push_back(static_cast<int>(p.at * 1000 + 0.5));
    return at;
  }
};

TEST_F(ManualRun, SongWithoutTempoRunsAt120AndPpqZeroCountsAs480) {
  MusicDocument d = song({note(960, 480, 60)});
  d.tempoMap.clear();
  d.ppq = 0;
  ASSERT_FALSE(player.play(d, 0));
  EXPECT_DOUBLE_EQ(player.seconds(960), 1.0);
  EXPECT_EQ(player.tick(1.0), 960);
  EXPECT_EQ(player.tick(1.0 - 0.0005), 959);
}

TEST_F(ManualRun, ClocksAgreeWithTheSongAcrossTempoChanges) {
  MusicDocument d = song({note(0, 480, 60)});
  // The first tempo only after the first beat: the ticks before it run at it.
  d.tempoMap = {{480, 90}, {1920, 150}, {1920, 60}, {5000, 200}};
  ASSERT_FALSE(player.play(d, 700));
  for (std::int64_t t : {0, 240, 480, 1000, 1920, 1921, 4999, 5000, 9000}) {
    EXPECT_NEAR(player.seconds(t), d.seconds(t), 1e-9) << t;
    if (t >= 700) {
      EXPECT_EQ(player.tick(player.seconds(t) - player.seconds(700)), t) << t;
    }
  }
}

TEST_F(ManualRun, NotesSoundForNinetyTwoPercentAndAtLeastFiftyMilliseconds) {
  MusicDocument d = song({note(0, 480, 60), note(480, 4, 62), note(960, 480, 60)});
  MusicTrack muted;
  muted.isMuted = true;
  muted.notes.push_back(note(0, 480, 70));
  MusicTrack second;
  second.notes.push_back(note(240, 240, 72));
  d.tracks.push_back(muted);
  d.tracks.push_back(second);
  ASSERT_FALSE(player.play(d, 0));
  runFor(1500ms);

  std::vector<std::pair<double, double>> sixty;  // (on, off) of pitch 60
  for (std::size_t i = 0; i < played.size(); ++i) {
    EXPECT_NE(played[i].pitch, 70) << "muted tracks stay silent";
    if (played[i].pitch == 60 && played[i].on) sixty.emplace_back(played[i].at, -1);
    if (played[i].pitch == 60 && !played[i].on) sixty.back().second = played[i].at;
  }
  // 120 bpm: a beat is 0.5 s; the poll grid puts each event at most 5 ms late.
  ASSERT_EQ(sixty.size(), 2u);
  EXPECT_NEAR(sixty[0].second, 0.46, 0.0051);
  EXPECT_NEAR(sixty[1].first, 1.0, 0.0051);
  // The repeated pitch is released before it sounds again.
  EXPECT_LT(sixty[0].second, sixty[1].first);
  double shortOn = -1, shortOff = -1;
  for (const auto& p : played)
    if (p.pitch == 62) (p.on ? shortOn : shortOff) = p.at;
  EXPECT_GE(shortOff - shortOn, 0.05 - 0.0051);
  // Each sounding track has a sampler of its own.
  EXPECT_NE(player.slotForTrack(d.tracks[0].id), player.slotForTrack(d.tracks[2].id));
  EXPECT_FALSE(player.slotForTrack(d.tracks[1].id));
  for (const auto& p : played) EXPECT_EQ(p.sampler, p.pitch == 72 ? 1 : 0);
}

TEST_F(ManualRun, TracksBeyondTheSamplersShareThemAndEventsStayInOrder) {
  samplers = 2;
  MusicDocument d = song({note(0, 100, 60)});
  for (int i = 1; i < 5; ++i) {
    MusicTrack t;
    t.notes.push_back(note(10 * i, 100, 60 + i));
    d.tracks.push_back(t);
  }
  ASSERT_FALSE(player.play(d, 0));
  std::vector<int> slots;
  for (const auto& t : d.tracks) slots.push_back(player.slotForTrack(t.id).value_or(-9));
  EXPECT_EQ(slots, (std::vector<int>{0, 1, 0, 1, 0}));
  const auto& ev = player.events();
  for (std::size_t i = 1; i < ev.size(); ++i) EXPECT_LE(ev[i - 1].time, ev[i].time);
}

TEST_F(ManualRun, StartingPastTheEndGoesToTheLoopStartOrTheTop) {
  MusicDocument d = song({note(0, 1920, 60)});  // one bar; the run lasts 16
  ASSERT_FALSE(player.play(d, 16 * 1920 + 5));
  EXPECT_EQ(player.startTick(), 0);
  ASSERT_FALSE(player.play(d, 9000, 1920, 3840));
  EXPECT_EQ(player.startTick(), 1920);
  ASSERT_FALSE(player.play(d, -50));
  EXPECT_EQ(player.startTick(), 0);
  ASSERT_FALSE(player.play(d, 1000));
  EXPECT_EQ(player.startTick(), 1000);
}

TEST_F(ManualRun, AOneBarSongRunsSixteenBarsThenStopsByItself) {
  MusicDocument d = song({note(0, 1920, 60)});
  int ended = 0;
  player.onEnded = [&] { ++ended; };
  ASSERT_FALSE(player.play(d, 0));
  EXPECT_EQ(player.endTick(), 16 * 1920);
  runFor(31900ms);  // 16 bars of 4/4 at 120 bpm take 32 s
  EXPECT_TRUE(player.isPlaying());
  runFor(200ms);
  EXPECT_FALSE(player.isPlaying());
  EXPECT_EQ(ended, 1);
  EXPECT_GE(player.playheadTick(), 16 * 1920);
}

TEST_F(ManualRun, ReachingTheLoopEndPlaysFromTheLoopStartAgain) {
  // Bars of 2 s; the loop holds bars 2 and 3 (1920..5760); the note of bar 4 is past it.
  MusicDocument d =
      song({note(0, 960, 60), note(1920, 960, 62), note(3840, 960, 64), note(5760, 960, 65)});
  int starts = 0;
  player.onWillPlay = [&] { ++starts; };
  ASSERT_FALSE(player.play(d, 0, 1920, 5760));
  runFor(10100ms);  // 6 s to the loop end, a run of 4 s, and the start of a third
  EXPECT_EQ(starts, 3);
  EXPECT_EQ(onsets(60).size(), 1u);
  EXPECT_EQ(onsets(62).size(), 3u);
  EXPECT_EQ(onsets(64).size(), 2u);
  EXPECT_TRUE(onsets(65).empty());
  // The restarted run begins with the loop's first note at once.
  EXPECT_LE(onsets(62)[1], 5);
  EXPECT_TRUE(player.isPlaying());
  EXPECT_EQ(player.loopStartTick(), 1920);
}

TEST_F(ManualRun, AStopBeforeThePostedRestartKeepsItStopped) {
  MusicDocument d = song({note(0, 480, 60)});
  ASSERT_FALSE(player.play(d, 0, 0, 480));
  clock->advance(600ms);
  player.displayStep();  // posts the restart
  EXPECT_FALSE(player.isPlaying());
  player.stop();
  loop.runUntilIdle();
  EXPECT_FALSE(player.isPlaying());
}

TEST_F(ManualRun, EngineIsBuiltOnceAndTakesTheChosenInstrument) {
  int built = 0;
  RecordingEngine* engine = nullptr;
  MIDIPreviewPlayer counted(
      loop,
      [&](std::string& why) -> std::unique_ptr<PreviewEngine> {
        if (++built == 1) {
          why = "no bank";
          return nullptr;
        }
        auto made = std::make_unique<RecordingEngine>(
            played, mutex, [] { return 0.0; }, 1);
        engine = made.get();
        return made;
      },
      MIDIPreviewPlayer::Drive::manual);
  std::vector<PreviewInstrument> stored;
  counted.onInstrumentChanged = [&](PreviewInstrument i) { stored.push_back(i); };
  const MusicDocument d = song({note(0, 480, 60)});
  EXPECT_EQ(counted.play(d, 0), "no bank");
  EXPECT_TRUE(logged.contains("[MIDIPreviewPlayer]"));
  EXPECT_FALSE(counted.isSetup());
  EXPECT_FALSE(counted.isPlaying());
  counted.setInstrument(PreviewInstrument::flute);
  EXPECT_FALSE(counted.play(d, 0));
  EXPECT_FALSE(counted.play(d, 0));
  counted.stop();
  EXPECT_EQ(built, 2);
  // The choice reaches the sampler, made before it was built and after.
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->lastProgram, programNumber(PreviewInstrument::flute));
  counted.setInstrument(PreviewInstrument::organ);
  EXPECT_EQ(engine->lastProgram, programNumber(PreviewInstrument::organ));
  EXPECT_EQ(stored,
            (std::vector<PreviewInstrument>{PreviewInstrument::flute, PreviewInstrument::organ}));
}

TEST_F(ManualRun, MetronomeHearsThePlayheadWithTheFirstTempo) {
  struct Beats : Metronome {
    std::vector<std::int64_t> ticks;
    double bpm = 0;
    int beats = 0;
    void follow(std::int64_t tick, double b, std::int64_t, int perBar) override {
      ticks.push_back(tick);
      bpm = b;
      beats = perBar;
    }
  };
  auto beats = std::make_shared<Beats>();
  player.setMetronome(beats, 3);
  MusicDocument d = song({note(0, 480, 60)});
  d.tempoMap = {{0, 90}, {960, 180}};
  ASSERT_FALSE(player.play(d, 0));
  runFor(50ms);
  ASSERT_EQ(beats->ticks.size(), 10u);
  EXPECT_EQ(beats->ticks.back(), 36);  // 50 ms at 90 bpm, 480 ppq
  EXPECT_EQ(beats->bpm, 90);
  EXPECT_EQ(beats->beats, 3);
}

TEST(RealTimeRun, ThePollThreadSendsEachNoteNearItsTime) {
  log::Capture logged;
  EventLoop loop;
  std::vector<Played> played;
  std::mutex mutex;
  const auto started = std::chrono::steady_clock::now();
  auto since = [started] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  };
  MIDIPreviewPlayer player(loop, [&](std::string&) -> std::unique_ptr<PreviewEngine> {
    return std::make_unique<RecordingEngine>(played, mutex, since, 2);
  });
  // A note every 60 ms at 240 bpm (480 ppq: 120 ticks is 62.5 ms).
  MusicDocument d;
  d.tempoMap = {{0, 240}};
  for (int i = 0; i < 6; ++i) d.tracks.front().notes.push_back(note(i * 120, 60, 60 + i));
  const double runStart = since();
  ASSERT_FALSE(player.play(d, 0));
  ASSERT_TRUE(test::pumpUntil(
      loop,
      [&] {
        std::lock_guard lock(mutex);
        return played.size() >= 12;
      },
      5s));
  player.stop();
  std::lock_guard lock(mutex);
  for (const auto& p : played) {
    if (!p.on) continue;
    const double due = (p.pitch - 60) * 0.0625;
    const double late = p.at - runStart - due;
    EXPECT_GE(late, -0.001) << p.pitch;
    // One poll late on an idle machine; the bound allows for a loaded, instrumented build.
    EXPECT_LT(late, 0.06) << p.pitch;
  }
  EXPECT_FALSE(player.isPlaying());
}

}  // namespace
}  // namespace melvo
