// The engine's score and the MIDI file compared byte for byte with files checked by hand.
// MELVO_UPDATE_GOLDEN=1 rewrites the files; a rewritten file must be read again before it is
// committed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

#include "melvo/interchange/midi_file_writer.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "support/test_support.h"

namespace melvo {
namespace {

NoteEvent note(std::int64_t tick, std::int64_t duration, int pitch, std::string lyric = {}) {
  return NoteEvent::make(Uuid::random(), tick, duration, pitch, 100, std::move(lyric));
}

MusicDocument song(std::vector<NoteEvent> notes = {}) {
  MusicDocument d;
  d.title = "Test";
  d.tracks.front().name = "Voice";
  d.tracks.front().notes = NoteList(std::move(notes));
  return d;
}

void expectGolden(const std::string& relative, const std::string& actual) {
  const auto path = test::dataPath("golden/" + relative);
  if (std::getenv("MELVO_UPDATE_GOLDEN")) test::writeText(path, actual);
  ASSERT_TRUE(std::filesystem::exists(path)) << path;
  const std::string expected = test::readText(path);
  if (expected == actual) return;
  std::size_t at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) ++at;
  ADD_FAILURE() << relative << " differs at byte " << at
                << "\nexpected: " << expected.substr(at > 40 ? at - 40 : 0, 120)
                << "\nactual:   " << actual.substr(at > 40 ? at - 40 : 0, 120);
}

void expectScore(const std::string& name, const MusicDocument& d) {
  expectGolden("musicxml/" + name + ".musicxml", MusicXMLExporter::render(d));
}

TEST(MusicXMLGolden, EmptySongIsTwoBarsOfRest) {
  expectScore("empty", song());
}

TEST(MusicXMLGolden, LongNoteIsTiedAcrossBars) {
  auto n = note(0, 4800, 69, "あ");
  n.hasBreathAfter = true;
  expectScore("long_note", song({n}));
}

TEST(MusicXMLGolden, TempoChangeInsideANoteSplitsIt) {
  MusicDocument d = song({note(0, 1920, 61, "さ"), note(1920, 480, 62, "く")});
  d.tempoMap = {{0, 120}, {960, 90}};
  expectScore("tempo_inside_note", d);
}

TEST(MusicXMLGolden, TempoAtABarLineFollowsTheAttributes) {
  MusicDocument d = song({note(0, 1920, 64, "あ"), note(1920, 1440, 65, "い")});
  d.tempoMap = {{0, 100}, {1920, 80}};
  d.timeSignatures = {{0, 4, 4}, {1920, 3, 4}};
  expectScore("tempo_at_bar_line", d);
}

TEST(MusicXMLGolden, OneNoteSurvivesPerTick) {
  // At 0 the note with a lyric wins over the earlier one without; at 1920 the first long
  // enough note with a lyric wins. The note at 960 is cut where the one at 1440 begins.
  MusicDocument d = song({note(0, 480, 60), note(0, 960, 62, "か"), note(960, 960, 64, "け"),
                          note(1440, 480, 65, "こ"), note(1920, 20, 67, "き"),
                          note(1920, 480, 69, "く"), note(1920, 960, 71, "た")});
  expectScore("same_tick", d);
}

TEST(MusicXMLGolden, LongMarkAndBlankLyrics) {
  expectScore("long_mark", song({note(0, 480, 60, "あ"), note(480, 480, 60, "ー"),
                                 note(960, 480, 60, " ー "), note(1440, 480, 60, " \n")}));
}

TEST(MusicXMLGolden, ThreeFourThenFiveFourEmptyBars) {
  MusicDocument d = song();
  d.timeSignatures = {{0, 3, 4}, {1440, 5, 4}};
  expectScore("meters_3_4_and_5_4", d);
}

TEST(MusicXMLGolden, KeyChangeAloneLeavesAnEmptyAttributesBlock) {
  MusicDocument d = song({note(0, 3840, 60, "ら")});
  d.keySignatures = {{0, 0}, {1920, 3}};
  expectScore("key_change", d);
}

TEST(MusicXMLGolden, MeterFirstPlacedLaterRulesFromBarOne) {
  MusicDocument d = song();
  d.timeSignatures = {{1920, 3, 4}};
  expectScore("meter_at_1920", d);
}

TEST(MusicXMLGolden, TempoTexts) {
  MusicDocument d = song();
  d.tempoMap = {{0, 0},
                {480, std::numeric_limits<double>::quiet_NaN()},
                {960, 2000},
                {1440, 120.004},
                {1920, 120.5}};
  expectScore("tempo_texts", d);
}

TEST(MusicXMLGolden, TitleAndNamesAreEscaped) {
  MusicDocument d = song({note(0, 480, 60, "<a&b>")});
  d.title = "Rock & Roll\x01 \"live\" it's";
  d.tracks.front().name = "A<B>";
  expectScore("escaped_title", d);
}

// ---- MIDI ----

void expectMidi(const std::string& name, const MusicDocument& d) {
  expectGolden("midi/" + name + ".mid", MIDIFileWriter::data(d));
}

TEST(MidiGolden, EmptySong) {
  MusicDocument d = song();
  d.tempoMap.clear();
  d.timeSignatures.clear();
  expectMidi("empty", d);
}

TEST(MidiGolden, ConductorTrack) {
  // Tempo 0 is 500000 µs; 3 bpm caps at 16777215; at 1920 the tempo precedes the meter.
  MusicDocument d = song();
  d.tracks.front().name.clear();
  d.tempoMap = {{1920, 60}, {0, 0}, {480, 3}};
  d.timeSignatures = {{1920, 3, 3}, {0, 12, 8}};
  expectMidi("conductor", d);
}

TEST(MidiGolden, LargePpqIsCappedInTheHeaderOnly) {
  MusicDocument d = song({note(40000, 40000, 60)});
  d.ppq = 40000;
  d.tempoMap.clear();
  d.timeSignatures.clear();
  expectMidi("ppq_40000", d);
}

TEST(MidiGolden, SeventeenthTrackWrapsToChannelZero) {
  MusicDocument d = song();
  d.tempoMap.clear();
  d.timeSignatures.clear();
  d.tracks.clear();
  for (int i = 0; i < 17; ++i) {
    MusicTrack t;
    t.name.clear();
    if (i == 1 || i == 16) t.notes = NoteList({note(0, 480, 60 + i)});
    d.tracks.push_back(t);
  }
  expectMidi("seventeen_tracks", d);
}

TEST(MidiGolden, LyricsBeforeNoteOnsBeforeNoteOffs) {
  // The second note starts where the first ends and overlaps the third, which shares its
  // tick: both lyrics at 480 come before both note-ons. The list is out of order on purpose,
  // and nothing is normalised (the zero length is the model's minimum of one tick).
  MusicDocument d = song({note(480, 480, 62, "い"), note(0, 480, 60, "あ"),
                          note(480, 240, 64, "え"), note(960, 0, 65, "う")});
  d.tempoMap.clear();
  d.timeSignatures.clear();
  expectMidi("lyrics", d);
}

}  // namespace
}  // namespace melvo
