// Opening a .zip as the one score inside it.
#include "melvo/importers/zip_import.h"

#include <gtest/gtest.h>

#include "importer_test_support.h"
#include "melvo/importers/musicxml_parse_error.h"
#include "melvo/platform/i18n.h"
#include "support/zip_writer.h"

namespace melvo {
namespace {

using test::makeZip;
using test::ZipMember;
using Kind = ZipRefusal::Kind;

class ZipImportTest : public ::testing::Test {
 protected:
  void SetUp() override { i18n::setLanguage("ja"); }
  void TearDown() override { i18n::setLanguage("en"); }
  test::TempTmpDir tmp;
};

template <class F>
ZipRefusal refusal(F&& f) {
  try {
    f();
  } catch (const ZipRefusal& e) {
    return e;
  }
  ADD_FAILURE() << "not refused";
  return ZipRefusal::notZip();
}

TEST_F(ZipImportTest, TheMacMetadataTwinIsLeftOutAndTheCopyGoesAway) {
  const std::string score = "<score-partwise/>";
  const std::string zip = makeZip({{"__MACOSX/._song.musicxml", "junk", 8},
                                   {"folder/", "", 0},
                                   {"docs/._other.ust", "junk", 0},
                                   {"readme.txt", "read me", 0},
                                   {"songs/song.MusicXML", score, 8}});
  std::filesystem::path file;
  {
    const ZipImport::Extracted extracted = ZipImport::extract(zip);
    file = extracted.file();
    EXPECT_EQ(file.filename(), "song.MusicXML");
    EXPECT_EQ(file.parent_path().parent_path().filename(), "Melvo-zip-import");
    EXPECT_EQ(test::readText(file), score);
  }
  EXPECT_FALSE(std::filesystem::exists(file.parent_path()));
  EXPECT_EQ(tmp.filesLeft(), 0);
}

TEST_F(ZipImportTest, SeveralScoresAreRefusedWithTheirCount) {
  auto e = refusal([] { ZipImport::extract(makeZip({{"a.ust", "1", 0}, {"b/b.UST", "2", 8}})); });
  EXPECT_EQ(e.kind(), Kind::severalScores);
  EXPECT_NE(std::string(e.what()).find(" 2 本"), std::string::npos) << e.what();
  EXPECT_EQ(refusal([] {
              ZipImport::extract(makeZip({{"a.txt", "1", 0}, {"x/", "", 0}}));
            }).kind(),
            Kind::noScore);
  EXPECT_EQ(refusal([] { ZipImport::extract("PK\3\4 but nothing else of an archive"); }).kind(),
            Kind::notZip);
}

TEST_F(ZipImportTest, BombsAreRefusedBeforeTheyInflate) {
  // 20 MB of silence packs to far under 1 % of its size.
  auto e = refusal([] {
    ZipImport::extract(makeZip({{"big.musicxml", std::string(20 << 20, ' '), 8}}));
  });
  EXPECT_EQ(e.kind(), Kind::tooLarge);
  EXPECT_NE(std::string(e.what()).find("「big.musicxml」は、展開すると 20 MB"), std::string::npos)
      << e.what();
  // Above the ceiling the directory's word is enough.
  ZipMember claim{"big.ust", "tiny", 0};
  claim.uncompSize = 64u * 1024 * 1024 + 1;
  e = refusal([&] { ZipImport::extract(makeZip({claim})); });
  EXPECT_EQ(e.kind(), Kind::tooLarge);
  EXPECT_NE(std::string(e.what()).find("64 MB"), std::string::npos) << e.what();
  // The ratio is judged from the directory: 100 to 1 is a bomb, just under it is let through
  // to the read (which then finds the claim false).
  ZipMember packed{"claim.ust", std::string(200 * 1024, 'p'), 0};
  packed.uncompSize = 200u * 1024 * 100;
  EXPECT_EQ(refusal([&] { ZipImport::extract(makeZip({packed})); }).kind(), Kind::tooLarge);
  packed.uncompSize = 200u * 1024 * 100 - 1;
  EXPECT_EQ(refusal([&] { ZipImport::extract(makeZip({packed})); }).kind(), Kind::damaged);
  // Under 16 MB any ratio is fine.
  EXPECT_NO_THROW(ZipImport::extract(makeZip({{"small.ust", std::string(15 << 20, ' '), 8}})));
}

TEST_F(ZipImportTest, DamagedMembersAreNamedInTheirOwnScript) {
  // 歌.ust in Shift-JIS with a wrong CRC; then an unknown method; then a short read.
  ZipMember wrongCrc{"\x89\xCC.ust", "[#0000]", 8};
  wrongCrc.crc = 1234;
  auto e = refusal([&] { ZipImport::extract(makeZip({wrongCrc})); });
  EXPECT_EQ(e.kind(), Kind::damaged);
  EXPECT_NE(std::string(e.what()).find("「歌.ust」"), std::string::npos) << e.what();
  EXPECT_EQ(refusal([] {
              ZipImport::extract(makeZip({{"a.ust", "abc", 14}}));
            }).kind(),
            Kind::damaged);
  ZipMember longer{"a.ust", "abc", 8};
  longer.uncompSize = 10;
  EXPECT_EQ(refusal([&] { ZipImport::extract(makeZip({longer})); }).kind(), Kind::damaged);
  EXPECT_EQ(tmp.filesLeft(), 0);
}

TEST_F(ZipImportTest, AnMxlMemberIsOpenedToItsScore) {
  const std::string inner =
      makeZip({{"META-INF/container.xml",
                "<container><rootfiles><rootfile full-path='lg.xml'/></rootfiles></container>", 8},
               {"lg.xml", "<score-partwise>in</score-partwise>", 8}});
  const auto extracted = ZipImport::extract(makeZip({{"Song.mxl", inner, 0}}));
  EXPECT_EQ(extracted.file().filename(), "score.musicxml");
  EXPECT_EQ(test::readText(extracted.file()), "<score-partwise>in</score-partwise>");
  EXPECT_THROW(ZipImport::extract(makeZip({{"Song.mxl", "not a zip", 0}})), MusicXMLParseError);
}

}  // namespace
}  // namespace melvo
