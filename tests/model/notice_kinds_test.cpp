#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/model/import_notice.h"

namespace melvo {
namespace {

struct NamedKind {
  const char* name;
  const ImportNoticeKind* kind;
};

const std::vector<NamedKind>& macroKinds() {
#define MELVO_TEST_NAMED_KIND(k) {#k, &notice_kinds::k},
  static const std::vector<NamedKind> kinds{MELVO_NOTICE_KINDS(MELVO_TEST_NAMED_KIND)};
#undef MELVO_TEST_NAMED_KIND
  return kinds;
}

// Each macro name is a distinct identifier, so a key equal to its name that finds its own
// instance also proves the keys unique.
TEST(NoticeKindCatalogue, EveryMacroNameResolvesToItsOwnInstanceInMacroOrder) {
  const auto& all = allNoticeKinds();
  ASSERT_EQ(all.size(), macroKinds().size());
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto& [name, kind] = macroKinds()[i];
    SCOPED_TRACE(name);
    EXPECT_EQ(all[i], kind);
    ASSERT_NE(kind->key, nullptr);
    EXPECT_STREQ(kind->key, name);
    EXPECT_EQ(findNoticeKind(name), kind);
    ASSERT_NE(kind->message, nullptr);
  }
}

TEST(NoticeKindCatalogue, UnknownKeysFindNothing) {
  EXPECT_EQ(findNoticeKind(""), nullptr);
  EXPECT_EQ(findNoticeKind("Fermata"), nullptr);
  EXPECT_EQ(findNoticeKind("fermata "), nullptr);
  // Verse 2 has a kind of its own; later verses are found by their number.
  EXPECT_EQ(findNoticeKind("mxOtherVerse_2"), nullptr);
  EXPECT_EQ(findNoticeKind("mxOtherVerse_"), nullptr);
}

TEST(NoticeKindCatalogue, EachLaterVerseHasOneKindWithWordsAndAButton) {
  const ImportNoticeKind* third = findNoticeKind("mxOtherVerse_3");
  ASSERT_NE(third, nullptr);
  EXPECT_STREQ(third->key, "mxOtherVerse_3");
  EXPECT_EQ(&otherVerseNoticeKind("3"), third);
  EXPECT_NE(findNoticeKind("mxOtherVerse_4"), third);
  EXPECT_NE(std::string_view(third->message).find("%d"), std::string_view::npos);
  EXPECT_EQ(third->buttons.size(), 1u);
}

// The liveness rules lean on these sets; a misspelt member would silently match nothing.
TEST(NoticeKindCatalogue, KeySetsHaveTheirSizesOverRealKinds) {
  int lyricSensitive = 0, alwaysKept = 0, suppressed = 0;
  for (const ImportNoticeKind* kind : allNoticeKinds()) {
    lyricSensitive += isLyricSensitiveNotice(kind->key);
    alwaysKept += isAlwaysKeptNotice(kind->key);
    suppressed += isSuppressedByValidatorFinding(kind->key);
  }
  EXPECT_EQ(lyricSensitive, 17);
  EXPECT_EQ(alwaysKept, 14);
  EXPECT_EQ(suppressed, 2);
  EXPECT_TRUE(isSuppressedByValidatorFinding("twoLyricsOnOneNote"));
  EXPECT_TRUE(isSuppressedByValidatorFinding("elision"));
  EXPECT_FALSE(isLyricSensitiveNotice("fermata"));
  EXPECT_FALSE(isAlwaysKeptNotice("midiMelisma"));
}

// A notice row shows its kind's words with the count of places: an empty text would be a row
// without words. Kinds of readers Melvo does not have yet are the only ones still without.
TEST(NoticeKindCatalogue, EveryKindAReaderMakesHasWordsWithAtMostOneCount) {
  auto unbuilt = [](std::string_view key) {
    for (std::string_view prefix : {"cevio", "ppsf", "svp", "source", "ustx", "tssln"})
      if (key.substr(0, prefix.size()) == prefix) return true;
    return key == "singingStyleWords" || key == "tracksDropped";
  };
  int worded = 0;
  for (const ImportNoticeKind* kind : allNoticeKinds()) {
    const std::string_view key = kind->key, message = kind->message;
    if (unbuilt(key)) continue;
    ++worded;
    EXPECT_FALSE(message.empty()) << key;
    EXPECT_EQ(message.find("%d"), message.rfind("%d")) << key;
  }
  EXPECT_GT(worded, 80);
}

// Equality is by content: a copy built from other buffers with the same text is the same kind,
// and a change to any one field makes it another.
TEST(NoticeKindEquality, ComparesEveryFieldAndTextsByContent) {
  const ImportNoticeKind& original = notice_kinds::midiLyricOverflow;
  const std::string key = original.key, message = original.message, button = original.buttons.at(0);
  const ImportNoticeKind copy{key.c_str(),       original.severity, original.handling,
                              original.category, message.c_str(),   original.detail,
                              {button.c_str()}};
  ASSERT_NE(copy.key, original.key);
  EXPECT_TRUE(copy == original);
  const std::vector<std::function<void(ImportNoticeKind&)>> changes{
      [](auto& k) { k.buttons = {"x"}; },
      [&](auto& k) { k.buttons.push_back(button.c_str()); },
      [](auto& k) { k.detail = ""; },
      [](auto& k) { k.handling = NoticeHandling::kept; },
  };
  for (std::size_t i = 0; i < changes.size(); ++i) {
    ImportNoticeKind changed = copy;
    changes[i](changed);
    EXPECT_FALSE(changed == original) << i;
  }
  // Same ratings and words, only the key differs.
  EXPECT_FALSE(notice_kinds::midiLyricWithoutOnset == notice_kinds::midiLyricMovedNote);
  EXPECT_FALSE(notice_kinds::ornaments == notice_kinds::glissando);
}

}  // namespace
}  // namespace melvo
