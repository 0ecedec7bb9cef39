// The MIDI reader at the file level: wrapper, header, time base, damage, events and text.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "interchange/midi_reader_builder.h"
#include "interchange/notice_buttons.h"
#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/midi_file_writer.h"
#include "melvo/platform/log.h"
#include "support/test_support.h"

namespace melvo {
namespace {

using test::noticeOf;
using test::TrackBytes;

MIDIFileParser::Failure failureOf(const std::string& bytes) {
  try {
    MIDIFileParser::parseBytes(bytes);
  } catch (const MIDIFileParser::ParseError& e) {
    return e.failure();
  }
  ADD_FAILURE() << "no error";
  return MIDIFileParser::Failure::noNotes;
}

std::string oneNote() {
  return test::midiFile({TrackBytes{}.sung(0, 60, 480, "あ")});
}

TEST(MidiReaderFile, RefusesOnlyWhatHasNothingToRead) {
  using F = MIDIFileParser::Failure;
  EXPECT_EQ(failureOf("RIFF\x10\0\0\0RMIDjunkjunk"), F::invalidHeader);  // wrapper without data
  EXPECT_EQ(failureOf("MTrk0000000000000000"), F::invalidHeader);
  std::string shortHeader = oneNote();
  shortHeader[7] = 5;
  EXPECT_EQ(failureOf(shortHeader), F::invalidHeader);
  std::string format2 = oneNote();
  format2[9] = 2;
  EXPECT_EQ(failureOf(format2), F::unsupportedFormat);
  EXPECT_EQ(failureOf(test::header(0, 1, 480)), F::unexpectedEOF);
  EXPECT_EQ(failureOf(oneNote().substr(0, 26)), F::unexpectedEOF);  // cut before the note
  EXPECT_EQ(failureOf(test::midiFile({TrackBytes{}.lyric(0, "a")})), F::noNotes);
  try {
    MIDIFileParser::parseBytes(test::header(0, 1, 480));
  } catch (const ImportError& e) {
    EXPECT_STREQ(e.key(),
                 "MIDI "
                 "ファイルが途中で終わっていて、音を1つも読めませんでした。ファイルをダウンロードし"
                 "直すか、元のソフトで書き出し直してから開いてください。");
  }
}

TEST(MidiReaderFile, RiffWrapperReadsLikeTheBareFile) {
  const std::string smf = oneNote() + "x";  // odd length: the wrapper pads it
  std::string riff = "RIFF" + std::string(4, '\0') + "RMID" + "LIST" +
                     std::string("\x02\0\0\0ab", 6) + "data" + std::string(1, char(smf.size())) +
                     std::string(3, '\0') + smf + "\0";
  const MusicDocument a = MIDIFileParser::parseBytes(smf);
  const MusicDocument b = MIDIFileParser::parseBytes(riff);
  ASSERT_EQ(b.tracks.size(), 1u);
  EXPECT_EQ(b.tracks[0].notes[0].lyric, "あ");
  EXPECT_EQ(a.tracks[0].notes[0].tick, b.tracks[0].notes[0].tick);
  EXPECT_EQ(a.tracks[0].notes[0].duration, b.tracks[0].notes[0].duration);
}

TEST(MidiReaderFile, DivisionZeroAndSmpteBecomeABeatGrid) {
  const MusicDocument zero =
      MIDIFileParser::parseBytes(test::midiFile({TrackBytes{}.on(0, 60).off(240, 60)}, 0));
  EXPECT_EQ(zero.ppq, 480);
  EXPECT_NE(noticeOf(zero, "midiBrokenDivision"), nullptr);
  EXPECT_EQ(zero.tracks[0].notes[0].duration, 240);

  // -25 frames a second, 40 ticks a frame: 1000 ticks are a second, two beats at 120.
  TrackBytes t;
  t.meta(0, 0x51, std::string("\x07\xA1\x20", 3)).on(1000, 60).off(500, 60);
  const MusicDocument smpte = MIDIFileParser::parseBytes(test::midiFile({t}, (0xE7 << 8) | 40));
  EXPECT_EQ(smpte.ppq, 480);
  ASSERT_EQ(smpte.tempoMap.size(), 1u);
  EXPECT_EQ(smpte.tempoMap[0].bpm, 120);
  EXPECT_EQ(smpte.tracks[0].notes[0].tick, 960);
  EXPECT_EQ(smpte.tracks[0].notes[0].duration, 480);
  EXPECT_NE(noticeOf(smpte, "smpteMIDI"), nullptr);
}

TEST(MidiReaderFile, NotesCloseOldestFirstAndOpenOnesAreFinished) {
  TrackBytes t;
  t.on(0, 60)
      .on(100, 60)
      .off(100, 60)
      .raw(100, {0x90, 60, 0})  // velocity 0 closes too
      .on(0, 62, 1)
      .on(480, 64, 1)  // 62 never closes
      .on(0, 67, 2)    // 67 neither, alone on its channel
      .off(240, 64, 1);
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  std::map<int, std::vector<std::pair<std::int64_t, std::int64_t>>> byPitch;
  for (const auto& track : d.tracks)
    for (const NoteEvent& n : track.notes) byPitch[n.pitch].push_back({n.tick, n.duration});
  EXPECT_EQ(byPitch[60],
            (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 200}, {100, 200}}));
  EXPECT_EQ(byPitch[62], (std::vector<std::pair<std::int64_t, std::int64_t>>{{300, 480}}));
  EXPECT_EQ(byPitch[67], (std::vector<std::pair<std::int64_t, std::int64_t>>{{780, 240}}));
  const ImportNotice* missing = noticeOf(d, "midiMissingNoteOff");
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->count, 2);
  EXPECT_TRUE(missing->places[0].noteID.has_value());
}

TEST(MidiReaderFile, RunningStatusAndATrackStartingWithData) {
  TrackBytes good;
  good.on(0, 60).raw(240, {62, 100}).raw(240, {60, 0}).raw(0, {62, 0});
  TrackBytes bad;
  bad.raw(0, {60, 100}).on(0, 70);
  log::Capture capture;
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({bad, good}));
  ASSERT_EQ(d.tracks.size(), 1u);
  ASSERT_EQ(d.tracks[0].notes.size(), 2u);
  EXPECT_EQ(d.tracks[0].notes[1].pitch, 62);
  EXPECT_EQ(d.tracks[0].notes[1].duration, 240);
  EXPECT_TRUE(capture.contains("running status が未確立のトラックを切り上げ (pos="));
  ASSERT_NE(noticeOf(d, "midiFileDamaged"), nullptr);
  EXPECT_EQ(noticeOf(d, "midiFileDamaged")->count, 1);
}

TEST(MidiReaderFile, TempoMeterKeyAndDefaults) {
  TrackBytes conductor;
  conductor
      .meta(0, 0x51, std::string("\x09\x27\xC0", 3))  // 600000 us: 100 per minute
      .meta(0, 0x58, std::string("\x06\x03\x18\x08", 4))
      .meta(0, 0x59, std::string("\xFD\x00", 2))
      .meta(1920, 0x51, std::string("\x07\xA1\x20", 3));
  const MusicDocument d =
      MIDIFileParser::parseBytes(test::midiFile({conductor, TrackBytes{}.on(0, 60).off(10, 60)}));
  ASSERT_EQ(d.tempoMap.size(), 2u);
  EXPECT_DOUBLE_EQ(d.tempoMap[0].bpm, 100);
  EXPECT_EQ(d.tempoMap[1].tick, 1920);
  EXPECT_EQ(d.timeSignatures[0].numerator, 6);
  EXPECT_EQ(d.timeSignatures[0].denominator, 8);
  EXPECT_EQ(d.keySignatures[0].fifths, -3);
  const MusicDocument bare = MIDIFileParser::parseBytes(oneNote());
  EXPECT_EQ(bare.tempoMap, std::vector<TempoEvent>{TempoEvent{}});
  EXPECT_EQ(bare.timeSignatures, std::vector<TimeSignatureEvent>{TimeSignatureEvent{}});
}

TEST(MidiReaderFile, TruncatedFileOpensUpToTheCut) {
  TrackBytes t;
  for (int i = 0; i < 8; ++i) t.sung(0, 60 + i, 480, "ら");
  const std::string whole = test::midiFile({t});
  const MusicDocument d = MIDIFileParser::parseBytes(whole.substr(0, whole.size() - 30));
  ASSERT_EQ(d.tracks.size(), 1u);
  EXPECT_GE(d.tracks[0].notes.size(), 5u);
  EXPECT_LT(d.tracks[0].notes.size(), 8u);
  EXPECT_NE(noticeOf(d, "midiFileDamaged"), nullptr);
}

TEST(MidiReaderFile, ShiftJisAndUtf8LyricsBothReadAsKana) {
  // "さくら" in Shift-JIS and in UTF-8.
  const std::string sjis[] = {"\x82\xB3", "\x82\xAD", "\x82\xE7"};
  const std::string utf8[] = {"さ", "く", "ら"};
  for (const auto* set : {sjis, utf8}) {
    TrackBytes t;
    for (int i = 0; i < 3; ++i) t.sung(0, 60, 480, set[i]);
    const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
    ASSERT_EQ(d.tracks[0].notes.size(), 3u);
    EXPECT_EQ(d.tracks[0].notes[0].lyric + d.tracks[0].notes[1].lyric + d.tracks[0].notes[2].lyric,
              "さくら");
    EXPECT_EQ(noticeOf(d, "midiLyricGarbled"), nullptr);
  }
  // Bytes that neither reads (here Latin-1) are dropped and counted, and the notice shows
  // them as Latin-1 so that the user can see what to type.
  TrackBytes t;
  t.sung(0, 60, 480, "\x82\xA0").sung(240, 62, 480, "caf\xE9");  // after a rest: no melisma
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  EXPECT_EQ(d.tracks[0].notes[0].lyric, "あ");
  EXPECT_EQ(d.tracks[0].notes[1].lyric, "");
  const ImportNotice* lost = noticeOf(d, "midiLyricUnreadable");
  ASSERT_NE(lost, nullptr);
  ASSERT_EQ(lost->places.size(), 1u);
  EXPECT_EQ(lost->places[0].text, "café");
  EXPECT_EQ(lost->places[0].tick, 720);
  // A text event can be a lyric only where there are no lyric events: there it counts too.
  TrackBytes texts;
  texts.text(0, "\xE0 la caf\xE9").on(0, 60).off(480, 60);
  const MusicDocument e = MIDIFileParser::parseBytes(test::midiFile({texts}));
  ASSERT_NE(noticeOf(e, "midiLyricUnreadable"), nullptr);
  EXPECT_EQ(noticeOf(e, "midiLyricUnreadable")->places[0].text, "à la café");
  TrackBytes both;
  both.text(0, "\xA9 caf\xE9").sung(0, 60, 480, "あ");
  EXPECT_EQ(noticeOf(MIDIFileParser::parseBytes(test::midiFile({both})), "midiLyricUnreadable"),
            nullptr);
}

// Hundreds of distinct lyrics, short and long, on chords written low note first: every
// syllable keeps its own text, the chords come out higher note first across the reader's
// chunks of notes, and no two notes share an id.
TEST(MidiReaderFile, ManyDistinctLyricsStayOnTheirNotesInALongTrack) {
  const std::string kana[] = {"あ", "か", "さ", "た", "な", "は", "ま", "や", "ら", "わ"};
  std::vector<std::string> lyrics;
  TrackBytes t;
  for (int i = 0; i < 400; ++i) {
    std::string l;
    for (int k = 0; k <= i / 10; ++k) l += kana[i % 10];  // up to 40 kana, 120 bytes
    lyrics.push_back(l);
    t.lyric(0, l).on(0, 50).on(0, 70).off(480, 50).off(0, 70);
  }
  const MusicDocument d = MIDIFileParser::parseBytes(test::midiFile({t}));
  ASSERT_EQ(d.tracks.size(), 1u);
  const NoteList& notes = d.tracks[0].notes;
  ASSERT_EQ(notes.size(), 800u);
  std::set<Uuid> ids;
  for (std::size_t i = 0; i < notes.size(); ++i) {
    const NoteEvent& n = notes[i];
    ids.insert(n.id);
    EXPECT_EQ(n.tick, std::int64_t(i / 2) * 480);
    EXPECT_EQ(n.pitch, i % 2 ? 50 : 70);
    EXPECT_EQ(n.lyric, i % 2 ? "" : lyrics[i / 2]) << i;
  }
  EXPECT_EQ(ids.size(), notes.size());
  EXPECT_TRUE(d.importNotices.empty());
}

TEST(MidiReaderFile, StopsPastTheNoteLimit) {
  TrackBytes t;
  t.b.reserve(1400000);
  for (std::size_t i = 0; i <= MIDIFileParser::kNoteLimit; ++i) t.on(0, 60).off(1, 60);
  EXPECT_THROW(MIDIFileParser::parseBytes(test::midiFile({t})), MIDIFileParser::TooManyNotes);
}

TEST(MidiReaderFile, RoundTripWithOurWriterKeepsTheSong) {
  MusicDocument song;
  song.ppq = 480;
  song.tempoMap = {{0, 150}, {1920, 90}};
  song.timeSignatures = {{0, 3, 4}, {1440, 6, 8}};
  song.tracks[0].name = "うた";
  std::vector<NoteEvent> notes;
  const char* lyrics[] = {"き", "ら", "き", "ら", "ひ", "か", "る"};
  for (int i = 0; i < 7; ++i)
    notes.push_back(NoteEvent::make(Uuid::random(), i * 480, 480, 60 + i, 100, lyrics[i]));
  song.tracks[0].notes = NoteList(notes);
  const MusicDocument back = MIDIFileParser::parseBytes(MIDIFileWriter::data(song));
  EXPECT_EQ(back.ppq, song.ppq);
  ASSERT_EQ(back.tempoMap.size(), 2u);  // microseconds a beat: 90 comes back as 90.00009
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(back.tempoMap[i].tick, song.tempoMap[i].tick);
    EXPECT_NEAR(back.tempoMap[i].bpm, song.tempoMap[i].bpm, 0.001);
  }
  EXPECT_EQ(back.timeSignatures, song.timeSignatures);
  ASSERT_EQ(back.tracks.size(), 1u);
  EXPECT_EQ(back.tracks[0].name, "うた");
  ASSERT_EQ(back.tracks[0].notes.size(), notes.size());
  for (std::size_t i = 0; i < notes.size(); ++i) {
    const NoteEvent& n = back.tracks[0].notes[i];
    EXPECT_EQ(std::tie(n.tick, n.duration, n.pitch, n.lyric),
              std::tie(notes[i].tick, notes[i].duration, notes[i].pitch, notes[i].lyric));
  }
  EXPECT_TRUE(back.importNotices.empty());
  for (const NoteEvent& n : back.tracks[0].notes)
    EXPECT_EQ(n.id.toString()[14], '4');  // random ids of version 4
}

// Every MIDI file of the corpus opens or is refused by one of the reader's errors.
TEST(MidiReaderFile, CorpusOpensOrIsRefused) {
  int opened = 0, refused = 0;
  for (const char* folder : {"midi", "broken"}) {
    const auto dir = std::filesystem::path(MELVO_CORPUS_DIR) / folder;
    if (!std::filesystem::exists(dir)) GTEST_SKIP() << "no corpus at " << dir;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      if (entry.path().extension() != ".mid") continue;
      try {
        const MusicDocument d = MIDIFileParser::parse(entry.path());
        EXPECT_FALSE(d.tracks.empty()) << entry.path();
        ++opened;
      } catch (const MIDIFileParser::ParseError&) {
        ++refused;
      }
    }
  }
  EXPECT_GE(opened, 8);
  EXPECT_GE(refused, 3);
  const auto kar = std::filesystem::path(MELVO_CORPUS_DIR) / "midi/jazzsoft_test-karaoke-kar.mid";
  const MusicDocument d = MIDIFileParser::parse(kar);
  int sung = 0;
  for (const auto& track : d.tracks)
    for (const NoteEvent& n : track.notes) sung += (!n.lyric.empty() && n.lyric != "ー") ? 1 : 0;
  EXPECT_GE(sung, 20);
  EXPECT_NE(noticeOf(d, "karaokeTextLyrics"), nullptr);
}

}  // namespace
}  // namespace melvo
