// `melvo render` as a user and a script see it.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "melvo/importers/import_entry.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/json.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "support/engine_test_support.h"
#include "support/test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

bool has(const std::string& s, const std::string& needle) {
  return s.find(needle) != std::string::npos;
}

TEST(RenderCommand, ARefusedSongStartsNothingAndWritesNothing) {
  test::TempHome home;
  // Tools that leave a mark if they are ever given work (the start check runs the singer once
  // without any, to see that it loads).
  const fs::path engine = home.path() / "engine";
  const fs::path mark = home.path() / "ran";
  test::makeFakeEngine(engine, "[ $# -eq 0 ] && exit 0\ntouch '" + mark.string() + "'");
  test::writeText(engine / "bin" / "musicXMLtoLabel", "#!/bin/sh\ntouch '" + mark.string() + "'\n");

  MusicDocument d;
  d.tracks[0].characterName = "voice";
  d.tracks[0].notes = NoteList({NoteEvent::make(Uuid::random(), 0, 480, 60, 100, "ら"),
                                NoteEvent::make(Uuid::random(), 480, 480, 62, 100, "x")});
  writeProject(d, home.path() / "bad.nsproj");
  const fs::path out = home.path() / "out";
  for (const auto& extra : {std::vector<std::string>{}, {"--out", out.string()}}) {
    std::vector<std::string> args{"render", (home.path() / "bad.nsproj").string(), "--engine",
                                  engine.string()};
    args.insert(args.end(), extra.begin(), extra.end());
    const auto r = test::runMelvo(args, {"LANGUAGE=ja"});
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_TRUE(has(r.err, "1小節目2拍")) << r.err;  // the note is named
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_FALSE(fs::exists(mark));
  EXPECT_FALSE(fs::exists(out));
  EXPECT_FALSE(fs::exists(home.path() / "Music"));
}

// The example song as <dir>/song.nsproj, sung by "alto" of a stand-in engine in <dir>/engine.
MusicDocument exampleSongSungByAlto(const fs::path& dir) {
  fs::create_directories(dir / "engine" / "model" / "alto");
  fs::create_symlink(test::standInEngine() / "bin", dir / "engine" / "bin");
  MusicDocument d = openDocument(fs::path(MELVO_TEST_DATA_DIR) / "../../examples/sakura.nsproj");
  d.tracks[0].characterName = "alto";
  writeProject(d, dir / "song.nsproj");
  return d;
}

TEST(RenderCommand, TheExampleSongRendersToAMixAndPrintsItsPath) {
  test::TempHome home;
  const fs::path engine = home.path() / "engine";
  const MusicDocument d = exampleSongSungByAlto(home.path());

  const auto r = test::runMelvo(
      {"render", (home.path() / "song.nsproj").string(), "--engine", engine.string()});
  ASSERT_EQ(r.status, 0) << r.err;
  const fs::path mix = r.out.substr(0, r.out.find('\n'));
  EXPECT_EQ(mix.filename(), "mix.wav");
  EXPECT_TRUE(fs::exists(mix));
  EXPECT_EQ(mix.parent_path().parent_path(), home.path() / "Music" / "Melvo");
  EXPECT_TRUE(mix.parent_path().filename().string().starts_with("song_"));
  EXPECT_TRUE(has(r.err, "100%")) << r.err;

  const fs::path out = home.path() / "out";
  const auto j = test::runMelvo({"render", (home.path() / "song.nsproj").string(), "--engine",
                                 engine.string(), "--out", out.string(), "--json", "--track", "0"});
  ASSERT_EQ(j.status, 0) << j.err;
  Json result = Json::parse(j.out);
  EXPECT_EQ(result["mix"].asString(), (out / "mix.wav").string());
  const fs::path wav =
      out / ("track1_" + MultiTrackSynthesizer::safeName(d.tracks[0].name)) / "output.wav";
  EXPECT_EQ(result["tracks"].asArray().at(0)["wav"].asString(), wav.string());
  EXPECT_TRUE(fs::exists(wav));

  // Both renders are takes, the newest first.
  const auto t = test::runMelvo({"takes", "--json"});
  ASSERT_EQ(t.status, 0) << t.err;
  Json takes = Json::parse(t.out);
  ASSERT_EQ(takes.size(), 2u);
  EXPECT_EQ(takes.asArray()[0]["wavPath"].asString(), (out / "mix.wav").string());
  EXPECT_EQ(takes.asArray()[1]["wavPath"].asString(), mix.string());
  EXPECT_EQ(takes.asArray()[0]["characterName"].asString(), "alto");
}

TEST(RenderCommand, OnlyEditedTracksAreRenderedAgainAndMixedAsBefore) {
  test::TempHome home;
  const fs::path engine = home.path() / "engine";
  const MusicDocument d = exampleSongSungByAlto(home.path());
  const fs::path out = home.path() / "out";
  // Two bars only: the score stops at the bar line where the range ends.
  const auto r = test::runMelvo({"render", (home.path() / "song.nsproj").string(), "--engine",
                                 engine.string(), "--out", out.string(), "--bars", "2"},
                                {"LANGUAGE=ja"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.err, "この範囲までを合成します（2 小節）")) << r.err;
  const fs::path trackDir = out / ("track1_" + MultiTrackSynthesizer::safeName(d.tracks[0].name));
  // The writer closes a score with one bar of rest, so the third bar holds no pitch.
  const std::string score = test::readText(trackDir / "score.musicxml");
  const auto third = score.find("<measure number=\"3\"");
  ASSERT_NE(third, std::string::npos);
  EXPECT_EQ(score.find("<measure number=\"4\""), std::string::npos);
  EXPECT_EQ(score.find("<pitch>", third), std::string::npos);

  const auto mixTime = fs::last_write_time(out / "mix.wav");
  const std::vector<std::string> rerender{"rerender", out.string(), "--engine", engine.string(),
                                          "--skip-f0"};
  auto again = test::runMelvo(rerender);
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_TRUE(has(again.err, "--all")) << again.err;  // nothing was edited
  EXPECT_EQ(fs::last_write_time(out / "mix.wav"), mixTime);

  // An edited curve is sung by the late stage and mixed again.
  test::writeText(trackDir / "output.f0", test::readText(trackDir / "output.f0"));
  again = test::runMelvo(rerender);
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out, (out / "mix.wav").string() + "\n");
  EXPECT_GT(fs::last_write_time(out / "mix.wav"), mixTime);
  EXPECT_GT(fs::last_write_time(trackDir / "output.wav"),
            fs::last_write_time(trackDir / "output.f0"));

  const auto notARun =
      test::runMelvo({"rerender", home.path().string(), "--engine", engine.string()});
  EXPECT_EQ(notARun.status, 2);
}

// Little-endian floats, as the engine writes them.
std::string floats(const std::vector<float>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(float));
}

TEST(RenderCommand, RerenderReadsTheFilesAsTheEditorDoesRepairingOrRefusing) {
  test::TempHome home;
  const fs::path engine = home.path() / "engine";
  const MusicDocument d = exampleSongSungByAlto(home.path());
  const fs::path out = home.path() / "out";
  ASSERT_EQ(test::runMelvo({"render", (home.path() / "song.nsproj").string(), "--engine",
                            engine.string(), "--out", out.string(), "--bars", "2"})
                .status,
            0);
  const fs::path trackDir = out / ("track1_" + MultiTrackSynthesizer::safeName(d.tracks[0].name));
  const std::string f0 = test::readText(trackDir / "output.f0");
  ASSERT_GT(f0.size(), 40u);
  // A curve with a torn tail and values no voice sings: NaN, 3000 Hz, -5 Hz.
  std::string bad = f0.substr(0, 16) +
                    floats({std::numeric_limits<float>::quiet_NaN(), 3000.0f, -5.0f}) +
                    f0.substr(28) + "xy";
  test::writeText(trackDir / "output.f0", bad);
  const std::vector<std::string> rerender{"rerender", out.string(), "--engine", engine.string(),
                                          "--skip-f0"};
  const auto r = test::runMelvo(rerender, {"LANGUAGE=ja"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.err, "末尾を切り捨てます")) << r.err;
  EXPECT_TRUE(has(r.err, "異常値 3 個を 0Hz にクランプ")) << r.err;
  // The engine sang the repaired curve: whole frames, the three values unvoiced.
  const std::string sung = test::readText(trackDir / "output.f0");
  ASSERT_EQ(sung.size(), bad.size() - 2);
  std::vector<float> values(sung.size() / 4);
  std::memcpy(values.data(), sung.data(), sung.size());
  EXPECT_EQ(values[4], 0.0f);
  EXPECT_EQ(values[5], 0.0f);
  EXPECT_EQ(values[6], 0.0f);

  // A deleted timing file is an edit nobody can sing, not "nothing edited".
  fs::remove(trackDir / "timing.lab");
  const auto gone = test::runMelvo(rerender, {"LANGUAGE=ja"});
  EXPECT_EQ(gone.status, 2) << gone.err;
  EXPECT_TRUE(has(gone.err, "timing.lab を読めないため")) << gone.err;
}

// The engine stops on a note the checks passed: its log is followed back to that note, which
// is named with its bar and lyric, counted from the song's own bars.
TEST(RenderCommand, TheNoteTheEngineStoppedOnIsNamed) {
  test::TempHome home;
  fs::create_directories(home.path() / "engine" / "model" / "alto");
  fs::create_symlink(test::standInEngine() / "bin", home.path() / "engine" / "bin");
  MusicDocument d;
  d.tracks[0].characterName = "alto";
  d.tracks[0].notes = NoteList({NoteEvent::make(Uuid::random(), 0, 1920, 67, 100, "さ"),
                                NoteEvent::make(Uuid::random(), 1920, 960, 67, 100, "か"),
                                NoteEvent::make(Uuid::random(), 2880, 960, 69, 100, "く")});
  writeProject(d, home.path() / "song.nsproj");
  const auto r = test::runMelvo({"render", (home.path() / "song.nsproj").string(), "--engine",
                                 (home.path() / "engine").string(), "--json"},
                                {"LANGUAGE=ja", "MELVO_STANDIN_REFUSE_LYRIC=く"});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_TRUE(has(r.err, "2小節目3拍：NEUTRINO がこの音「く」で止まりました")) << r.err;
  const Json out = Json::parse(r.out);
  const Json* stopped = out.find("engineStoppedOn");
  ASSERT_TRUE(stopped && stopped->size() == 1u) << r.out;
  EXPECT_EQ(stopped->asArray()[0].find("note")->asString(), d.tracks[0].notes[2].id.toString());
}

TEST(RenderCommand, TheFolderIsCheckedFirstAndAWorkingOneElsewhereIsOffered) {
  test::TempHome home;
  exampleSongSungByAlto(home.path());
  const std::string song = (home.path() / "song.nsproj").string();
  auto r = test::runMelvo({"render", song, "--engine", "/nonexistent"}, {"LANGUAGE=ja"});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(has(r.err, "NEUTRINO は見つかりましたが、実行できませんでした")) << r.err;
  EXPECT_FALSE(has(r.err, "キャラモデル")) << r.err;

  // An engine where the search looks, in the home folder.
  fs::create_directories(home.path() / "NEUTRINO" / "model" / "alto");
  fs::create_symlink(test::standInEngine() / "bin", home.path() / "NEUTRINO" / "bin");
  r = test::runMelvo({"render", song, "--engine", "/nonexistent"}, {"LANGUAGE=ja"});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(has(r.err, "使える NEUTRINO が別の場所に見つかりました")) << r.err;
  EXPECT_TRUE(has(r.err, (home.path() / "NEUTRINO").string())) << r.err;
}

TEST(RenderCommand, ATrackWithoutAVoiceSingsWithTheFirstVoiceOfTheFolder) {
  test::TempHome home;
  const fs::path engine = home.path() / "engine";
  MusicDocument d = exampleSongSungByAlto(home.path());
  fs::create_directories(engine / "model" / "soprano");
  // Track 3 of four, voiceless, and no voice in the settings.
  d.tracks.resize(4);
  d.tracks[3].notes = d.tracks[0].notes;
  d.tracks[3].name = "three";
  d.tracks[0].characterName.clear();
  writeProject(d, home.path() / "song.nsproj");
  const auto r = test::runMelvo({"render", (home.path() / "song.nsproj").string(), "--engine",
                                 engine.string(), "--track", "3", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  Json takes = Json::parse(test::runMelvo({"takes", "--json"}).out);
  ASSERT_EQ(takes.size(), 1u);
  EXPECT_EQ(takes.asArray()[0]["characterName"].asString(), "alto");
}

}  // namespace
}  // namespace melvo
