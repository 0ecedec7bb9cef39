// The zip reader against archives built byte by byte, well formed and not.
#include "melvo/importers/zip_reader.h"

#include <gtest/gtest.h>

#include "support/zip_writer.h"

namespace melvo {
namespace {

using test::makeZip;
using test::ZipMember;

TEST(ZipReader, ReadsStoredAndDeflatedMembersByName) {
  const std::string song(5000, 'a');
  const std::string zip = makeZip({{"a/song.musicxml", song, 8}, {"b\\notes.txt", "hello", 0}});
  ASSERT_TRUE(ZipReader::looksLikeZip(zip));
  auto list = ZipReader::entries(zip);
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 2u);
  EXPECT_EQ((*list)[0].name, "a/song.musicxml");
  EXPECT_EQ((*list)[0].method, 8);
  EXPECT_LT((*list)[0].compSize, song.size());
  EXPECT_EQ((*list)[0].uncompSize, song.size());
  EXPECT_EQ((*list)[0].crc32, ZipReader::crc32(song));
  // Backslashes of Windows archivers become slashes, and the name is found by that spelling.
  EXPECT_EQ((*list)[1].name, "b/notes.txt");
  EXPECT_EQ(ZipReader::read(zip, "a/song.musicxml"), song);
  EXPECT_EQ(ZipReader::read(zip, "b/notes.txt"), "hello");
  EXPECT_FALSE(ZipReader::read(zip, "missing.xml"));
  EXPECT_EQ(ZipReader::crc32("123456789"), 0xCBF43926u);
}

TEST(ZipReader, FindsTheEndRecordBehindTheLongestCommentAndNoFurther) {
  const std::string comment(65535, 'c');
  const std::string zip = makeZip({{"song.ust", "[#0000]", 0}}, comment);
  auto list = ZipReader::entries(zip);
  ASSERT_TRUE(list);
  EXPECT_EQ(list->front().name, "song.ust");
  // One byte more than any comment can explain puts the record out of reach.
  EXPECT_FALSE(ZipReader::entries(zip + "x"));
  EXPECT_TRUE(ZipReader::entries(makeZip({})));
  EXPECT_TRUE(ZipReader::entries(makeZip({}))->empty());
  EXPECT_FALSE(ZipReader::entries(std::string(21, '\0')));
  EXPECT_FALSE(ZipReader::entries("not an archive at all, long enough"));
}

TEST(ZipReader, DecodesNamesAsUtf8ThenShiftJisThenLatin1) {
  // 歌.ust in Shift-JIS, and a byte that is neither UTF-8 nor Shift-JIS.
  const std::string zip =
      makeZip({{"\x89\xCC.ust", "x", 0}, {"caf\xC3\xA9.ust", "x", 0}, {"\xFF\xFF.ust", "x", 0}});
  auto list = ZipReader::entries(zip);
  ASSERT_TRUE(list);
  EXPECT_EQ((*list)[0].name, "歌.ust");
  EXPECT_EQ((*list)[1].name, "café.ust");
  EXPECT_EQ((*list)[2].name, "ÿÿ.ust");
}

TEST(ZipReader, TheLocalHeaderPlacesTheData) {
  ZipMember m{"song.ust", "contents", 8};
  m.localExtra = std::string(37, 'e');
  const std::string zip = makeZip({m});
  EXPECT_EQ(ZipReader::read(zip, "song.ust"), "contents");
}

TEST(ZipReader, RefusesWhatItCannotReadWhole) {
  const std::string song(4000, 's');
  const std::string zip = makeZip({{"song.ust", song, 8}});
  auto entry = ZipReader::entries(zip)->front();
  // The data cut short: the span lies beyond the bytes we have.
  std::string cut = zip;
  cut.erase(40, 30);
  EXPECT_FALSE(ZipReader::read(entry, cut));
  // A wrong local signature.
  std::string bad = zip;
  bad[0] = 'X';
  EXPECT_FALSE(ZipReader::read(entry, bad));
  // Corrupted deflate data.
  std::string garbled = zip;
  for (std::size_t i = 40; i < 60; ++i) garbled[i] = static_cast<char>(0xFF);
  auto garbledRead = ZipReader::read(entry, garbled);
  EXPECT_TRUE(!garbledRead || *garbledRead != song);
  // Methods other than stored and deflate.
  EXPECT_FALSE(ZipReader::read(makeZip({{"song.ust", song, 12}}), "song.ust"));
  // Over 64 MB is never inflated, whatever the data.
  ZipMember huge{"song.ust", "x", 8};
  huge.uncompSize = 64u * 1024 * 1024 + 1;
  EXPECT_FALSE(ZipReader::read(makeZip({huge}), "song.ust"));
  // A deflated member that claims no contents.
  ZipMember empty{"song.ust", "abc", 8};
  empty.uncompSize = 0;
  EXPECT_FALSE(ZipReader::read(makeZip({empty}), "song.ust"));
  // A directory claiming more than it has keeps the members it did have.
  std::string two = makeZip({{"a.ust", "1", 0}, {"b.ust", "2", 0}});
  const std::size_t second = two.rfind(std::string("\x50\x4B\x01\x02", 4));
  two[second] = 'Q';
  auto partial = ZipReader::entries(two);
  ASSERT_TRUE(partial);
  ASSERT_EQ(partial->size(), 1u);
  EXPECT_EQ(partial->front().name, "a.ust");
}

TEST(ZipReader, ALyingSizeGivesWhatTheStreamHolds) {
  ZipMember shortClaim{"song.ust", std::string(1000, 'z'), 8};
  shortClaim.uncompSize = 10;
  EXPECT_EQ(ZipReader::read(makeZip({shortClaim}), "song.ust"), std::string(10, 'z'));
  ZipMember longClaim{"song.ust", std::string(1000, 'z'), 8};
  longClaim.uncompSize = 5000;
  EXPECT_EQ(ZipReader::read(makeZip({longClaim}), "song.ust")->size(), 1000u);
}

}  // namespace
}  // namespace melvo
