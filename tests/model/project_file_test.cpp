#include <gtest/gtest.h>

#include "melvo/model/project_file.h"
#include "support/test_support.h"

namespace melvo {
namespace {

Uuid id(const char* text) {
  return *Uuid::parse(text);
}

MusicDocument fixedDocument() {
  MusicDocument d;
  d.title = "さくら / test \"1\"";
  d.ppq = 480;
  d.tempoMap = {{0, 120}, {1920, 90.5}};
  d.timeSignatures = {{0, 3, 4}};
  d.keySignatures = {{0, -2}};
  MusicTrack t;
  t.id = id("11111111-2222-3333-4444-555555555555");
  t.name = "うた";
  t.characterName = "soprano";
  t.volume = 0.8;
  t.pan = -0.25;
  t.isSolo = true;
  auto a = NoteEvent::make(id("AAAAAAAA-0000-0000-0000-000000000001"), 0, 480, 69, 100, "さ");
  auto b = NoteEvent::make(id("AAAAAAAA-0000-0000-0000-000000000002"), 480, 960, 71, 90, "ら", true,
                           true, std::string("r a"));
  t.notes.assign({a, b});
  d.tracks = {t};
  d.madeAsNewProject = true;
  return d;
}

TEST(ProjectFile, EncodesToTheGoldenBytes) {
  MusicDocument d = fixedDocument();
  d.addNotice(notice_kinds::fermata, 0, std::nullopt, 0);  // never written
  EXPECT_EQ(encodeProject(d), test::readText(test::dataPath("golden/project_fixed.nsproj")));
}

TEST(ProjectFile, RoundTripKeepsEverythingButNotices) {
  MusicDocument d = fixedDocument();
  d.addNotice(notice_kinds::fermata, 0, std::nullopt, 0);
  MusicDocument back = decodeProject(encodeProject(d));
  EXPECT_TRUE(back.importNotices.empty());
  EXPECT_FALSE(back.madeAsNewProject);
  back.importNotices = d.importNotices;
  back.madeAsNewProject = true;
  EXPECT_EQ(back, d);
  EXPECT_FALSE(back.tracks[0].notes[0].sourcePhonemes.has_value());
}

TEST(ProjectFile, AbsentKeysTakeDefaultsAndEmptyMapsStayEmpty) {
  MusicDocument empty = decodeProject("{}");
  ASSERT_EQ(empty.tracks.size(), 1u);
  EXPECT_FALSE(empty.tracks[0].id.isNil());
  EXPECT_EQ(empty.title, "Untitled");
  EXPECT_EQ(empty.tempoMap, (std::vector<TempoEvent>{{0, 120}}));

  MusicDocument d =
      decodeProject(R"({"tempoMap":[],"timeSignatures":[],"keySignatures":[],"tracks":[{"notes":[)"
                    R"({"tick":-5,"duration":0,"pitch":300,"lyric":null}]}]})");
  EXPECT_TRUE(d.tempoMap.empty());
  EXPECT_TRUE(d.timeSignatures.empty());
  const NoteEvent& n = d.tracks[0].notes[0];
  EXPECT_EQ(n.tick, 0);
  EXPECT_EQ(n.duration, 1);
  EXPECT_EQ(n.pitch, 127);
  EXPECT_EQ(n.velocity, 100);
  EXPECT_EQ(d.tracks[0].colorHex, MusicTrack::defaultTrackColor());
  EXPECT_DOUBLE_EQ(d.seconds(960), 1.0);  // an empty tempo map runs at 120
}

// The repairs themselves are the document's own; here only that reading applies them.
TEST(ProjectFile, RepairsMapsAndColoursOnTheWayIn) {
  MusicDocument d = decodeProject(R"({"tempoMap":[{"tick":0,"bpm":2000}],)"
                                  R"("timeSignatures":[{"tick":0,"numerator":3,"denominator":5}],)"
                                  R"("tracks":[{"colorHex":"#33ccbb"},{"colorHex":"#ABCDEF"}]})");
  EXPECT_EQ(d.tempoMap[0].bpm, 1000);
  EXPECT_EQ(d.timeSignatures[0], (TimeSignatureEvent{0, 3, 4}));
  EXPECT_EQ(d.tracks[0].colorHex, MusicTrack::defaultTrackColor());
  EXPECT_EQ(d.tracks[1].colorHex, "#ABCDEF");
}

TEST(ProjectFile, StrictWhereAValueCannotBeRepaired) {
  // A note without duration fails the whole document.
  EXPECT_THROW(decodeProject(R"({"tracks":[{"notes":[{"tick":0,"pitch":60}]}]})"),
               ProjectDecodeError);
  EXPECT_THROW(decodeProject(R"({"tempoMap":[{"tick":0}]})"), ProjectDecodeError);
  EXPECT_THROW(decodeProject(R"({"title":5})"), ProjectDecodeError);
  EXPECT_THROW(decodeProject(R"({"tracks":[{"id":"not-a-uuid"}]})"), ProjectDecodeError);
  EXPECT_THROW(decodeProject(R"({"tracks":[{"notes":[{"tick":0.5,"duration":1,"pitch":1}]}]})"),
               ProjectDecodeError);
  EXPECT_THROW(decodeProject("not json at all"), ProjectDecodeError);
}

std::string decodeError(const std::string& bytes) {
  try {
    decodeProject(bytes);
  } catch (const ProjectDecodeError& e) {
    return e.what();
  }
  return "decoded";
}

TEST(ProjectFile, RefusesPositionsAndResolutionsTheModelCannotHold) {
  // ppq: none, negative and absurd ones would make every bar and duration wrong.
  for (const char* ppq : {"0", "-480", "1152921504606846976"})
    EXPECT_NE(decodeError(std::string(R"({"ppq":)") + ppq + "}").find("ppq"), std::string::npos)
        << ppq;
  EXPECT_EQ(decodeProject(R"({"ppq":960})").ppq, 960);
  // Map positions outside 0..maxTick, which bar arithmetic would overflow on.
  EXPECT_NE(decodeError(R"({"timeSignatures":[{"tick":-1,"numerator":4,"denominator":4}]})")
                .find("timeSignatures.tick"),
            std::string::npos);
  EXPECT_NE(
      decodeError(R"({"tempoMap":[{"tick":9223372036854775000,"bpm":120}]})").find("tempoMap.tick"),
      std::string::npos);
  EXPECT_NE(decodeError(R"({"keySignatures":[{"tick":268435456,"fifths":0}]})").find("268435456"),
            std::string::npos);
  EXPECT_EQ(decodeProject(R"({"tempoMap":[{"tick":268435455,"bpm":120}]})").tempoMap[0].tick,
            maxTick);
  // Velocity is kept as given, so one that an int cannot hold is refused, not clipped.
  const std::string note = R"({"tracks":[{"notes":[{"tick":0,"duration":1,"pitch":60,"velocity":)";
  EXPECT_NE(decodeError(note + "5000000000}]}]}").find("velocity"), std::string::npos);
  EXPECT_EQ(decodeProject(note + "-7}]}]}").tracks[0].notes[0].velocity, -7);
}

TEST(ProjectFile, ReadErrorsSayWhatIsWrongWithTheBytes) {
  const std::string whole = encodeProject(fixedDocument());
  // A byte order mark is accepted.
  EXPECT_EQ(decodeProject("\xEF\xBB\xBF" + whole).title, fixedDocument().title);
  EXPECT_EQ(decodeError(whole.substr(0, whole.size() / 2)),
            "The project file is malformed: The file is cut short");
  EXPECT_EQ(decodeError(whole + "\n{}"),
            "The project file is malformed: There is extra data after the JSON");
  EXPECT_EQ(decodeError(whole + " junk"),
            "The project file is malformed: There is extra data after the JSON");
  EXPECT_EQ(decodeError("[1,2]"), "The project file is malformed: The top level is not an object");
  EXPECT_EQ(decodeError("  "), "The project file is malformed: The file is empty");
  EXPECT_EQ(decodeProject(whole + "\n\n").title, fixedDocument().title);
}

TEST(ProjectFile, LyricsLoseLineBreaksAndControlCharacters) {
  auto d = decodeProject(
      R"({"tracks":[{"notes":[{"tick":0,"duration":1,"pitch":60,"lyric":"\r\nさ\tく\u0000ら\r"}]}]})");
  EXPECT_EQ(d.tracks[0].notes[0].lyric, "さくら");
}

TEST(ProjectFile, NewerSchemaOpensAndSavesBackWithoutUnknownKeys) {
  MusicDocument d = decodeProject(R"({"schemaVersion":999,"foo":{"bar":[1,2]},"ppq":960})");
  EXPECT_EQ(d.schemaVersion, 999);
  std::string saved = encodeProject(d);
  EXPECT_NE(saved.find("\"schemaVersion\" : 999"), std::string::npos);
  EXPECT_EQ(saved.find("foo"), std::string::npos);
}

TEST(ProjectFile, WriteAndReadThroughFiles) {
  test::TempDir dir;
  auto path = dir / "a.NSPROJ";
  EXPECT_TRUE(hasProjectExtension(path));
  writeProject(fixedDocument(), path);
  MusicDocument back = readProject(path);
  EXPECT_EQ(back.tracks[0].notes.size(), 2u);
  EXPECT_EQ(back.title, fixedDocument().title);
}

TEST(RecentSummary, ToleratesDamageAndPicksTheFirstVoice) {
  test::TempDir dir;
  test::writeText(dir / "bad.nsproj", "not json");
  auto bad = readRecentSummary(dir / "bad.nsproj");
  EXPECT_FALSE(bad.trackCount);
  EXPECT_EQ(bad.voice, "");
  EXPECT_TRUE(bad.modified);

  // Damaged notes do not matter: only the head of each track is read.
  test::writeText(dir / "v.nsproj",
                  R"({"tracks":[{"characterName":"","colorHex":"#111111","notes":[{"x":1}]},)"
                  R"({"characterName":"alto","colorHex":"#222222"}]})");
  auto v = readRecentSummary(dir / "v.nsproj");
  EXPECT_EQ(v.trackCount, 2);
  EXPECT_EQ(v.voice, "alto");
  EXPECT_EQ(v.colorHex, "#222222");

  auto missing = readRecentSummary(dir / "gone.nsproj");
  EXPECT_FALSE(missing.modified);
}

}  // namespace
}  // namespace melvo
