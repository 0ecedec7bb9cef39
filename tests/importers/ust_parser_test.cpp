#include "melvo/importers/ust_parser.h"

#include <gtest/gtest.h>

#include "ust_test_support.h"

namespace melvo {
namespace {

using test::UstNote;

std::vector<NoteEvent> notesOf(const MusicDocument& d) {
  return std::vector<NoteEvent>(d.tracks.at(0).notes.begin(), d.tracks.at(0).notes.end());
}

const ImportNotice* noticeOf(const MusicDocument& d, const ImportNoticeKind& kind) {
  for (const ImportNotice& n : d.importNotices)
    if (n.kind->key == std::string_view(kind.key)) return &n;
  return nullptr;
}

std::vector<std::string> lyricsOf(const MusicDocument& d) {
  std::vector<std::string> out;
  for (const NoteEvent& n : notesOf(d)) out.push_back(n.lyric);
  return out;
}

TEST(UstEncoding, ShiftJISKanaOpensWithoutNoticeAndLegacySetsAreTold) {
  const std::string utf8 = test::ustText({{"あ"}, {"R"}, {"きゃ", "960", "62"}}, "150");
  const MusicDocument d = USTParser::parseBytes(test::encodedAs(utf8, "Shift_JIS"));
  EXPECT_TRUE(d.importNotices.empty());
  EXPECT_EQ(d.title, "test");
  ASSERT_EQ(d.tempoMap.size(), 1u);
  EXPECT_EQ(d.tempoMap[0].bpm, 150);
  const auto notes = notesOf(d);
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].lyric, "あ");
  EXPECT_EQ(notes[1].lyric, "きゃ");
  EXPECT_EQ(notes[1].tick, 960);  // the rest left its gap
  EXPECT_EQ(notes[1].duration, 960);
  EXPECT_EQ(notes[1].pitch, 62);
  // The same song as UTF-8 reads the same.
  EXPECT_EQ(lyricsOf(USTParser::parseBytes(utf8)), lyricsOf(d));

  // The Chinese and Korean sets read each other's bytes as plausible text; a song of either
  // language must come back in its own.
  const std::pair<const char*, std::vector<std::string>> songs[] = {
      {"Big5", {"你", "愛", "我", "的", "夢"}},
      {"GB18030", {"我", "爱", "你", "的", "心", "月", "亮"}},
      {"EUC-KR", {"사", "랑", "해", "요", "너", "를", "보", "고", "싶", "어"}},
  };
  for (const auto& [set, lyrics] : songs) {
    std::vector<UstNote> notes;
    for (const auto& l : lyrics) notes.push_back({l});
    const MusicDocument legacy = USTParser::parseBytes(test::encodedAs(test::ustText(notes), set));
    EXPECT_EQ(lyricsOf(legacy), lyrics) << set;
    const ImportNotice* told = noticeOf(legacy, notice_kinds::utauEncodingGuessed);
    ASSERT_NE(told, nullptr) << set;
    EXPECT_EQ(told->places.at(0).text, set);
  }
}

TEST(UstEncoding, ShiftJISVCVReadsAsPlainKanaWithRestsAsGaps) {
  const std::string utf8 = test::ustText(
      {{"- さ"}, {"a く"}, {"u ら", "960"}, {"R"}, {"R", "240"}, {"- さ"}, {"a く強"}});
  const MusicDocument d = USTParser::parseBytes(test::encodedAs(utf8, "Shift_JIS"));
  EXPECT_EQ(lyricsOf(d), (std::vector<std::string>{"さ", "く", "ら", "さ", "く"}));
  const auto notes = notesOf(d);
  EXPECT_EQ(notes[3].tick, 480 * 2 + 960 + 480 + 240);
  ASSERT_NE(noticeOf(d, notice_kinds::utauSuffixRemoved), nullptr);
  EXPECT_EQ(d.importNotices.size(), 1u);
}

TEST(UstStructure, SectionsOfEveryNamingAndTheRefusals) {
  // Short note names as other tools write them, keys in any order, stray lines ignored.
  const MusicDocument d = USTParser::parseBytes(
      "stray line\n[#SETTING]\nTempo=90\n[#0]\nLyric=か\nLength=240\n[#1]\nNoteNum=67\n"
      "Length=240\nLyric=き\nno equals here\n[#PREV]\nLength=9\nLyric=x\n[#TRACKEND]\n");
  EXPECT_EQ(lyricsOf(d), (std::vector<std::string>{"か", "き"}));
  EXPECT_EQ(notesOf(d)[1].tick, 240);
  EXPECT_EQ(notesOf(d)[1].pitch, 67);
  EXPECT_EQ(d.tempoMap.at(0).bpm, 90);

  auto refusal = [](std::string_view bytes) {
    try {
      USTParser::parseBytes(bytes);
    } catch (const USTParser::ParseError& e) {
      return e.which();
    }
    ADD_FAILURE() << "opened";
    return USTParser::ParseError::Case::decodingFailed;
  };
  EXPECT_EQ(refusal("[#SETTING]\nTempo=120\n[#TRACKEND]\n"), USTParser::ParseError::Case::noNotes);
  EXPECT_EQ(refusal("[#0000]\nLength=480\nLyric=R\nNoteNum=60\n[#TRACKEND]\n"),
            USTParser::ParseError::Case::noNotes);
  EXPECT_EQ(refusal(std::string("\x80\xFF\xFE\x00\x81", 5)),
            USTParser::ParseError::Case::decodingFailed);
}

TEST(UstStructure, NoteLimitStopsBeforeTheNoteTooMany) {
  std::string s = "[#SETTING]\nTempo=120\n";
  s.reserve(200001 * 40);
  for (int i = 0; i < 200001; ++i) s += "[#" + std::to_string(i) + "]\nLength=1\nLyric=あ\n";
  try {
    USTParser::parseBytes(s);
    FAIL() << "opened";
  } catch (const ImportError& e) {
    EXPECT_STREQ(e.key(), kTooManyNotesKey);
  }
}

TEST(UstValues, BadValuesAreReplacedOrDroppedWithTheirPlaces) {
  const MusicDocument d = USTParser::parseBytes(test::ustText({{"あ", "abc"},
                                                               {"い", "480", "200"},
                                                               {"う", "99999999999999999999999"},
                                                               {"え", "480", ""},
                                                               {"お", "0"}},
                                                              "fast"));
  const auto notes = notesOf(d);
  ASSERT_EQ(lyricsOf(d), (std::vector<std::string>{"い", "う", "え"}));
  EXPECT_EQ(notes[0].tick, 0);  // the dropped note took no time
  EXPECT_EQ(notes[0].pitch, 60);
  EXPECT_EQ(notes[1].duration, 1920);
  EXPECT_EQ(notes[2].tick, 480 + 1920);
  EXPECT_EQ(d.tempoMap.at(0).bpm, 120);

  const ImportNotice* dropped = noticeOf(d, notice_kinds::utauNoteDropped);
  ASSERT_NE(dropped, nullptr);
  ASSERT_EQ(dropped->places.size(), 2u);
  EXPECT_EQ(dropped->places[0].text, "あ (Length=abc)");
  EXPECT_EQ(noticeOf(d, notice_kinds::utauPitchReplaced)->places.size(), 2u);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauPitchReplaced)->places[0].noteID, notes[0].id);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauLengthTooLong)->places.at(0).noteID, notes[1].id);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauTempoReplaced)->places.at(0).text, "Tempo=fast");
}

TEST(UstValues, TempoOfANoteChangesFromItsStartAndABadOneKeepsTheOneBefore) {
  const MusicDocument d = USTParser::parseBytes(
      "[#SETTING]\nTempo=100\n[#0000]\nLength=480\nLyric=あ\n[#0001]\nLength=480\nLyric=R\n"
      "Tempo=140\n[#0002]\nLength=480\nLyric=い\nTempo=-3\n");
  ASSERT_EQ(d.tempoMap.size(), 2u);
  EXPECT_EQ(d.tempoMap[1].tick, 480);
  EXPECT_EQ(d.tempoMap[1].bpm, 140);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauTempoReplaced)->places.at(0).tick, 960);
}

TEST(UstLyrics, TagsHyphensGlottalsAndHintsBecomeSingableKana) {
  const MusicDocument d = USTParser::parseBytes(test::ustText(
      {{"'"}, {"あ強"}, {"-"}, {"'"}, {"かD4"}, {"さ[s a]"}, {"[t a]"}, {"R"}, {"'"}}));
  EXPECT_EQ(lyricsOf(d), (std::vector<std::string>{"あ", "ー", "ー", "か", "さ", "[t a]"}));
  EXPECT_EQ(notesOf(d)[0].tick, 480);  // a lone ' at the start is a rest
  EXPECT_EQ(noticeOf(d, notice_kinds::utauSuffixRemoved)->places.size(), 2u);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauSuffixRemoved)->places[0].text, "あ強");
  EXPECT_EQ(noticeOf(d, notice_kinds::openUtauHyphen)->count, 1);
  EXPECT_EQ(noticeOf(d, notice_kinds::glottalOnlyLyric)->count, 3);
  EXPECT_EQ(noticeOf(d, notice_kinds::phoneticHintRemoved)->places.at(0).noteID, notesOf(d)[4].id);
  EXPECT_EQ(noticeOf(d, notice_kinds::phoneticHintWithoutKana)->places.at(0).text, "[t a]");
}

TEST(UstLyrics, LinksAndBreathsGoToTheNoteBefore) {
  const MusicDocument d = USTParser::parseBytes(test::ustText({{"か"},
                                                               {"a e", "120"},
                                                               {"え"},
                                                               {"e s", "120"},
                                                               {"さ"},
                                                               {"a k", "120"},
                                                               {"た"},
                                                               {"a k", "960"},
                                                               {"息", "240"},
                                                               {"な"}}));
  const auto notes = notesOf(d);
  ASSERT_EQ(lyricsOf(d), (std::vector<std::string>{"か", "え", "さ", "た", "a k", "な"}));
  EXPECT_EQ(notes[0].duration, 600);
  EXPECT_EQ(notes[1].duration, 600);  // "e s" leads into さ
  EXPECT_EQ(notes[2].duration, 600);  // "a k" does not lead into た, but is short
  EXPECT_EQ(notes[3].tick, 1800);
  EXPECT_TRUE(notes[4].hasBreathAfter);  // a long unmatched link stays a note of its own
  EXPECT_EQ(notes[5].tick, notes[4].endTick() + 240);
  EXPECT_EQ(noticeOf(d, notice_kinds::cvvcVowelLink)->count, 2);
  EXPECT_EQ(noticeOf(d, notice_kinds::cvvcVowelLink)->places[0].noteID, notes[0].id);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauVCLinkedShort)->places.at(0).noteID, notes[2].id);
  EXPECT_EQ(noticeOf(d, notice_kinds::utauBreathNote)->places.at(0).tick, notes[5].tick - 240);
}

}  // namespace
}  // namespace melvo
