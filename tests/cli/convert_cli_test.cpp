// melvo convert writing the engine's score and a MIDI file, as a user runs it.
#include <gtest/gtest.h>

#include "melvo/interchange/midi_file_writer.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/model/project_file.h"
#include "support/test_support.h"

namespace melvo {
namespace {

TEST(ConvertCommand, WritesTheChosenTrackOrAllTracks) {
  test::TempHome home;
  MusicDocument d;
  d.title = "Duet";
  d.tracks.front().name = "Piano";
  d.tracks.front().notes = NoteList({NoteEvent::make(Uuid::random(), 0, 480, 48)});
  MusicTrack voice;
  voice.name = "Voice";
  voice.characterName = "soprano";
  voice.notes = NoteList({NoteEvent::make(Uuid::random(), 480, 960, 67, 90, "ら")});
  d.tracks.push_back(voice);
  const auto project = home.path() / "duet.nsproj";
  writeProject(d, project);
  const MusicDocument stored = readProject(project);

  // Without --track the voiced track is chosen, and the choice is told on stderr only.
  const auto xml = home.path() / "out.musicxml";
  auto r = test::runMelvo({"convert", project.string(), xml.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.out.empty());
  EXPECT_NE(r.err.find("Voice"), std::string::npos) << r.err;
  EXPECT_EQ(test::readText(xml), MusicXMLExporter::render(stored.singleTrackCopy(1)));

  r = test::runMelvo({"export", project.string(), xml.string(), "--track", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << r.err;
  EXPECT_EQ(test::readText(xml), MusicXMLExporter::render(stored.singleTrackCopy(0)));

  const auto mid = home.path() / "out.MID";
  r = test::runMelvo({"convert", project.string(), mid.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(test::readText(mid), MIDIFileWriter::data(stored));

  // Failures name the problem and leave no file behind.
  const auto bad = home.path() / "bad.musicxml";
  r = test::runMelvo({"convert", project.string(), bad.string(), "--track", "2"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("2"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(bad));
  r = test::runMelvo(
      {"convert", project.string(), (home.path() / "x.mid").string(), "--track", "0"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("--track"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(home.path() / "x.mid"));
  r = test::runMelvo(
      {"convert", project.string(), (home.path() / "no/such/dir/a.musicxml").string()});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("MusicXML"), std::string::npos) << r.err;

  r = test::runMelvo({"convert", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("--track"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(".mid"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace melvo
