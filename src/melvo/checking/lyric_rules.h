// What the engine can read in a lyric. Everything that judges a lyric (validator, synthesis
// gate, clean-up, score writer, importers, agent port) calls these functions and nothing else,
// so that one unreadable lyric is caught the same way everywhere before it fails a render.
//
// All functions are pure and safe on any thread. "Character" means an extended grapheme
// cluster, "scalar" a Unicode code point; strings are UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "melvo/checking/kana_table.h"

namespace melvo {

// ---- Character sets ----

// Kana at all: both kana blocks (ー and ・ lie inside them).
constexpr bool inKanaRange(char32_t c) {
  return c >= 0x3040 && c <= 0x30FF;
}

// Small kana, っ and ー: they lean on the kana before them.
inline constexpr char32_t moraJoiners[] = {U'ゃ', U'ゅ', U'ょ', U'ぁ', U'ぃ', U'ぅ', U'ぇ',
                                           U'ぉ', U'っ', U'ー', U'ゎ', U'ャ', U'ュ', U'ョ',
                                           U'ァ', U'ィ', U'ゥ', U'ェ', U'ォ', U'ッ', U'ヮ'};
// Walked over backwards when looking for a mora's vowel.
inline constexpr char32_t vowelSkippers[] = {U'ゃ', U'ゅ', U'ょ', U'ぁ', U'ぃ', U'ぅ', U'ぇ',
                                             U'ぉ', U'っ', U'ー', U'ャ', U'ュ', U'ョ', U'ァ',
                                             U'ィ', U'ゥ', U'ェ', U'ォ', U'ッ'};
// A lyric that is only one of these cannot be sung on its own note.
inline constexpr std::string_view standaloneSpecials[] = {"っ", "ッ", "ゃ", "ゅ", "ょ",
                                                          "ャ", "ュ", "ョ", "ー"};
// Small kana that must combine with the kana before them.
inline constexpr char32_t youonCharacters[] = {U'ゃ', U'ゅ', U'ょ', U'ャ', U'ュ', U'ョ'};
// In the kana blocks but not in the engine's table.
inline constexpr char32_t unreadableKana[] = {U'ヶ', U'ヵ', U'ゝ', U'ゞ', U'ヽ', U'ヾ',
                                              U'ゟ', U'ヿ', U'ヷ', U'ヸ', U'ヹ', U'ヺ'};
// Punctuation that is not sung.
inline constexpr char32_t lyricSymbols[] = {U'!',  U'?',  U'！', U'？', U'。', U'、', U'…',
                                            U'—',  U'–',  U'"',  U'\'', U'「', U'」', U'『',
                                            U'』', U'〜', U'～', U'（', U'）', U'(',  U')'};
// The vowel-drop mark ’ and ※: both mean something to other software or to the engine.
inline constexpr char32_t decorationMarks[] = {U'’', U'※'};
// The vowel-drop mark: ’ after a kana removes its vowel (す’き sings s k i).
inline constexpr char32_t vowelDropMark = U'’';

constexpr bool isLyricSymbol(char32_t c) {
  for (char32_t s : lyricSymbols)
    if (s == c) return true;
  return false;
}
// Pictographs, dingbats, variation selectors and tag characters: none is sung, and an emoji
// sequence leaves nothing behind once all of its parts are gone.
constexpr bool isEmojiScalar(char32_t c) {
  return (c >= 0x1F000 && c <= 0x1FAFF) || (c >= 0x2600 && c <= 0x27BF) ||
         (c >= 0x2B00 && c <= 0x2BFF) || (c >= 0xFE00 && c <= 0xFE0F) ||
         (c >= 0xE0000 && c <= 0xE007F) || c == 0x200D || c == 0x20E3;
}

// True when `character` is exactly one scalar of `set`.
bool isCharacterIn(std::string_view character, const char32_t* begin, const char32_t* end);
template <std::size_t N>
bool isCharacterIn(std::string_view character, const char32_t (&set)[N]) {
  return isCharacterIn(character, set, set + N);
}
bool isStandaloneSpecial(std::string_view lyric);

// Zero-width and byte-order scalars, controls and noncharacters: shown as <U+XXXX>.
bool isInvisibleScalar(char32_t c);
// Scalars XML 1.0 can carry; the others are dropped from every exported lyric.
constexpr bool isXmlScalar(char32_t c) {
  return c == 0x09 || c == 0x0A || c == 0x0D || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}
// Combining marks that NFC may fold into the kana or letter before them.
constexpr bool isCombiningMarkScalar(char32_t c) {
  return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
         (c >= 0x20D0 && c <= 0x20FF) || c == 0x3099 || c == 0x309A;
}
// The ideographs a lyric may hold: CJK extension A and the unified block.
constexpr bool isKanjiScalar(char32_t c) {
  return (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF);
}

// Old spellings with a single modern reading; ヶ and the repetition marks are left alone,
// since their reading depends on their neighbours.
struct OldKana {
  std::string_view from;
  std::string_view to;
};
inline constexpr OldKana oldKanaMap[] = {{"ゐ", "い"}, {"ゑ", "え"}, {"ヰ", "イ"}, {"ヱ", "エ"}};

// ---- Results ----

struct LyricReading {
  std::vector<std::string> units;  // table values, or "ー"
  std::string readable;            // the part that was read
  std::string rest;                // from the first unreadable scalar on; empty when all was read
  bool operator==(const LyricReading&) const = default;
};

enum class ReadingKind {
  empty,       // nothing left after the export form: the note has no lyric
  unreadable,  // nothing read: the engine fails the whole song
  partial,     // sung as far as it is read; the engine does not fail
  readable,
};

struct ReadingState {
  ReadingKind kind = ReadingKind::empty;
  std::string readable;  // set for partial only
  std::string rest;      // set for partial only
  bool operator==(const ReadingState&) const = default;
};

// In order of precedence when several apply.
enum class LyricClass {
  utauMark,
  digitsOrLatin,
  otherNonKana,
  decorationMark,
  symbol,
  invisibleOnly,
  clean,
};

// Stable names for scripts and logs ("partial", "utauMark").
const char* readingKindName(ReadingKind kind);
const char* lyricClassName(LyricClass c);

// ---- Reading ----

// The form in which a lyric is written to the score and read by every rule below: combining
// marks composed (か + U+3099 becomes が), scalars XML cannot carry dropped, and white space,
// newlines, U+200B and U+FEFF trimmed from both ends.
std::string lyricForExport(std::string_view lyric);

// Reads the export form unit by unit, trying two-scalar keys before one (きゃ is one unit,
// ぢゃ two since the table has no ぢゃ), until the first scalar the table does not hold.
LyricReading readLyric(std::string_view lyric);
ReadingState readingState(std::string_view lyric);

// Phonemes the engine sees on the note. ー alone counts 1; inside a longer lyric it counts 0.
// The engine stops on 9 or more.
int countPhonemes(std::string_view lyric);

// Shapes of the export form with ’ removed.
bool isOnlyChouon(std::string_view lyric);
bool isOnlySokuon(std::string_view lyric);
bool startsWithSustain(std::string_view lyric);

// One entry per ’: true only when the mark really drops a vowel, that is when the lyric has
// at least two units other than ー and the mark follows a unit with a consonant.
std::vector<bool> effectiveVowelDrops(std::string_view lyric);

// ---- All at once ----

// True when every scalar is in the kana blocks and none is a combining voiced mark: the lyric
// is its own export form and every scalar is a Character of its own. Nearly every note.
bool isPlainKana(std::string_view lyric);

// What the per-note checks ask of a plain-kana lyric, read in one walk; nullopt for any other
// lyric. Each field equals what its own function above gives.
struct PlainKanaSummary {
  ReadingKind reading = ReadingKind::empty;  // readingState(lyric).kind
  int scalars = 0;
  int phonemes = 0;  // countPhonemes
  bool onlyChouon = false;
  bool onlySokuon = false;
  bool startsWithSustain = false;
  bool operator==(const PlainKanaSummary&) const = default;
};
std::optional<PlainKanaSummary> summarizePlainKana(std::string_view lyric);

// ---- Classes ----

LyricClass classifyLyricChars(std::string_view lyric);
// UTAU's strength suffixes: a kana lyric ending in 強 or 弱 (after removing %).
bool isUtauMarked(std::string_view lyric);
// What a lyric of class utauMark sings once UTAU's marks are gone: every % removed and, where
// isUtauMarked holds, the trailing 強 and 弱; trimmed. nullopt when nothing singable is left
// ("R", "r", "強", "%"): the note is a rest. The score check offers this and the clean-up
// applies it, so the two cannot disagree.
std::optional<std::string> withoutUtauMarks(std::string_view lyric);
bool hasDigitsOrLatin(std::string_view lyric);
bool hasKanji(std::string_view lyric);
bool hasInvisibleScalars(std::string_view lyric);
bool hasCombiningMarks(std::string_view lyric);
bool hasXmlIllegalScalars(std::string_view lyric);

// Any scalar in the kana blocks; every scalar in them (and at least one).
bool hasKana(std::string_view s);
bool isAllKana(std::string_view s);
// Katakana as hiragana, scalar by scalar (no ICU): enough to compare two kana spellings.
std::string foldedToHiragana(std::string_view s);
// The full-size kana of a small one (ぁ to あ, ャ to ヤ); empty for any other Character.
std::string bigKanaOf(std::string_view character);
// The lyric without the marks the engine reads over: symbols, ※, and ’ where it drops no
// vowel; trimmed.
std::string withoutReadOverMarks(std::string_view lyric);
// The lyric without invisible scalars and those XML cannot carry; trimmed as a lyric.
std::string withoutInvisibleScalars(std::string_view lyric);

// The lyric as messages show it: invisible scalars written "<U+200B>".
std::string visibleLyric(std::string_view lyric);

// ---- Morae, syllables, vowels ----

// Small kana, っ and ー join the mora before them (かっ is one mora; a leading っき too).
std::vector<std::string> splitMorae(std::string_view lyric);
// Morae that the engine sings on one note: ん after any mora, い after a, e or o, う after a
// or o. So あい and おう stay together and いう does not.
std::vector<std::string> groupSyllables(std::string_view lyric);
bool isMultiSyllable(std::string_view lyric);
// "あ", "い", "う", "え", "お" or "ん".
std::optional<std::string> vowelOf(std::string_view mora);
std::optional<std::string> vowelOfCharacter(std::string_view character);

// ---- Conversions ----

// Lyrics that other software wrote as phonemes (".k a", "k a cl") back to kana; nullopt when
// any part has no kana or the text starts with a lone cl.
std::optional<std::string> kanaFromPhonemes(std::string_view text);
// ゐ ゑ ヰ ヱ to their modern kana; nullopt when nothing changed.
std::optional<std::string> replaceOldKana(std::string_view lyric);
// Half-width katakana to full width; half-width Latin and digits stay as they are.
std::string widenHalfKana(std::string_view lyric);
std::string katakanaToHiragana(std::string_view lyric);
// Kanji words to their hiragana reading (空 to そら); other text stays. Without a dictionary
// the lyric comes back unchanged.
std::string kanjiToHiragana(std::string_view lyric);

}  // namespace melvo
