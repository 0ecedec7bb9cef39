// The one entry for every openable file, through the library, the core and the command.
#include "melvo/importers/import_entry.h"
#include "melvo/importers/ust_parser.h"

#include <gtest/gtest.h>

#include "app/app_test_support.h"
#include "importer_test_support.h"
#include "melvo/importers/zip_import.h"
#include "melvo/interchange/midi_file_reader.h"
#include "melvo/interchange/musicxml_parse_error.h"
#include "melvo/model/project_file.h"
#include "support/zip_writer.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

std::string refusedFormat(const fs::path& path) {
  try {
    openDocument(path);
  } catch (const UnsupportedFormatError& e) {
    return e.format();
  } catch (const std::exception& e) {
    return std::string("other: ") + e.what();
  }
  return "opened";
}

TEST(ImportEntry, EachExtensionReachesItsOwnReader) {
  test::TempDir dir;
  const std::vector<std::pair<std::string, std::string>> cases{
      {"a.Ustx", "USTX"}, {"a.svp", "SVP"},     {"a.vsqx", "VSQX"}, {"a.vpr", "VPR"},
      {"a.ppsf", "PPSF"}, {"a.TSSLN", "TSSLN"}, {"a.ccs", "CCS"},   {"a.ccst", "CCS"}};
  for (const auto& [name, format] : cases) {
    test::writeText(dir / name, "<score-partwise></score-partwise>");
    EXPECT_EQ(refusedFormat(dir / name), format) << name;
  }
  // MIDI has its reader: bytes that are no MIDI are refused by it.
  for (const char* name : {"a.mid", "a.MIDI", "a.kar", "a.smf", "a.rmi"}) {
    test::writeText(dir / name, "<score-partwise></score-partwise>");
    EXPECT_THROW(openDocument(dir / name), MIDIFileParser::ParseError) << name;
  }
  // Anything else is taken for MusicXML, and refused as such when it is not XML or has no
  // notes.
  test::writeText(dir / "notes.txt", "plain words");
  EXPECT_THROW(openDocument(dir / "notes.txt"), MusicXMLParseError);
  test::writeText(dir / "a.musicxml", "<score-partwise></score-partwise>");
  try {
    openDocument(dir / "a.musicxml");
    ADD_FAILURE() << "an empty score opened";
  } catch (const MusicXMLParseError& e) {
    EXPECT_EQ(e.kind(), MusicXMLParseError::Kind::noNotes);
  }
}

TEST(ImportEntry, ProjectsAndZippedFilesComeThroughTheSameDoor) {
  test::TempDir dir;
  test::TempTmpDir tmp;
  MusicDocument song = test::songNamed("zipped");
  writeProject(song, dir / "Song.NSPROJ");
  EXPECT_EQ(openDocument(dir / "Song.NSPROJ").title, "zipped");

  test::writeText(dir / "ust.zip",
                  test::makeZip({{"__MACOSX/._a.ust", "x", 0}, {"a.ust", "x", 8}}));
  EXPECT_THROW(openDocument(dir / "ust.zip"), USTParser::ParseError);
  test::writeText(dir / "two.zip", test::makeZip({{"a.ust", "x", 0}, {"b.ust", "x", 0}}));
  EXPECT_THROW(openDocument(dir / "two.zip"), ZipRefusal);
  EXPECT_THROW(openDocument(dir / "absent.zip"), OpenError);
  EXPECT_EQ(tmp.filesLeft(), 0);
}

TEST(ImportEntry, EveryBrokenCorpusFileOpensOrIsRefusedWithATypedError) {
  const fs::path broken = test::corpusPath("broken");
  if (!fs::exists(broken)) GTEST_SKIP() << "no corpus at " << broken;
  int seen = 0;
  for (const auto& e : fs::directory_iterator(broken)) {
    // The MIDI reader opens what it can of a damaged file; its own tests walk these.
    if (e.path().extension() == ".mid") continue;
    ++seen;
    // The MusicXML reader keeps what it can (an unreadable pitch is a notice); what it
    // refuses, it refuses with its own error.
    try {
      EXPECT_GT(openDocument(e.path()).totalNoteCount(), 0u) << e.path();
    } catch (const ImportError&) {
    }
  }
  EXPECT_GT(seen, 4);
}

TEST(ImportEntry, ARefusedFileLeavesTheOpenSongAlone) {
  test::TempHome home;
  test::ScriptedCore core;
  core.edit("kept");
  core.answers = {FrontEnd::Answer::secondary};
  const fs::path zip = home.path() / "two.zip";
  test::writeText(zip, test::makeZip({{"a.ust", "1", 0}, {"b.ust", "2", 0}}));
  EXPECT_EQ(core.app->open(zip), AppState::FlowResult::failed);
  EXPECT_EQ(core.vm().document().title, "kept");
  ASSERT_EQ(core.alerts.size(), 1u);
  EXPECT_NE(core.alerts[0].find(".zip"), std::string::npos);
}

TEST(ImportEntry, CommandsNameTheFileAndTheFormatTheyCannotRead) {
  test::TempHome home;
  const fs::path ustx = home.path() / "song.ustx";
  test::writeText(ustx, "name: x");
  for (const char* command : {"info", "check", "render"}) {
    auto r = test::runMelvo({command, ustx.string()}, {"LANGUAGE=en"});
    EXPECT_NE(r.status, 0) << command;
    EXPECT_NE(r.err.find("song.ustx"), std::string::npos) << command << r.err;
    EXPECT_NE(r.err.find("USTX"), std::string::npos) << command << r.err;
  }
  const fs::path out = home.path() / "out.nsproj";
  auto r = test::runMelvo({"convert", ustx.string(), out.string()}, {"LANGUAGE=en"});
  EXPECT_NE(r.status, 0);
  EXPECT_FALSE(fs::exists(out));
  r = test::runMelvo({"fix", (home.path() / "x.zip").string(), out.string()}, {"LANGUAGE=en"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("x.zip"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace melvo
