// `melvo render` as a user and a script see it.
#include <gtest/gtest.h>

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
  // Tools that leave a mark if anything ever runs them.
  const fs::path engine = home.path() / "engine";
  const fs::path mark = home.path() / "ran";
  test::makeFakeEngine(engine, "touch '" + mark.string() + "'");
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

}  // namespace
}  // namespace melvo
