#include <gtest/gtest.h>

#include <filesystem>

#include "importer_test_support.h"
#include "melvo/importers/import_entry.h"
#include "melvo/importers/ust_parser.h"
#include "ust_test_support.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

TEST(UstCorpus, EveryFileOpensOrIsRefusedWithATypedError) {
  int seen = 0, opened = 0;
  for (const char* folder : {"ust", "broken"}) {
    const fs::path dir = test::corpusPath(folder);
    if (!fs::exists(dir)) continue;
    for (const auto& e : fs::directory_iterator(dir)) {
      if (e.path().extension() != ".ust") continue;
      ++seen;
      try {
        const MusicDocument d = openDocument(e.path());
        EXPECT_GT(d.totalNoteCount(), 0u) << e.path();
        ++opened;
      } catch (const ImportError&) {
      }
    }
  }
  if (seen == 0) GTEST_SKIP() << "no UST corpus";
  EXPECT_GT(opened, 0);
}

TEST(UstCorpus, AFileCutMidNoteOpensWhatIsThereWithANotice) {
  const std::string whole = test::encodedAs(
      "[#SETTING]\r\nTempo=120\r\n[#0000]\r\nLength=480\r\nLyric=あ\r\nNoteNum=60\r\n"
      "[#0001]\r\nLength=480\r\nLyric=い\r\nNoteNum=62\r\n[#0002]\r\nLength=480\r\nLyric=う\r\n",
      "Shift_JIS");
  // From the first cut that leaves the section line of the last note whole.
  const std::size_t lastNote = whole.find("[#0002]") + 5;
  int cutsTold = 0;
  for (std::size_t cut = lastNote + 2; cut < whole.size(); ++cut) {
    const MusicDocument d = USTParser::parseBytes(whole.substr(0, cut));
    ASSERT_GE(d.totalNoteCount(), 2u) << cut;
    const auto& notes = d.tracks[0].notes;
    EXPECT_EQ(notes.begin()->lyric, "あ");
    EXPECT_EQ(std::next(notes.begin())->lyric, "い");
    EXPECT_EQ(std::next(notes.begin())->pitch, 62);
    cutsTold += !d.importNotices.empty();
  }
  // Every cut loses the last note's pitch at least, and says so.
  EXPECT_EQ(cutsTold, static_cast<int>(whole.size() - lastNote - 2));
}

}  // namespace
}  // namespace melvo
