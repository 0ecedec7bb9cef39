#include "melvo/checking/kana_table.h"

#include <array>
#include <memory>
#include <stdexcept>

#include "melvo/platform/text.h"

namespace melvo {
namespace {

// The engine's dictionary, copied entry for entry. Its holes are facts about the engine, not
// omissions: there is no ぢゃ, ぢゅ, ぢょ, てぇ or きぃ, and a lone small ゃ is "y a". Katakana
// repeats the hiragana block scalar by scalar (plus 0x60); the last group is ヴ followed by a
// small hiragana, which the dictionary also accepts.
constexpr std::string_view kTableSource = R"(
くぁ=k w a|くぃ=k w i|くぅ=k w u|くぇ=k w e|くぉ=k w o|くゎ=k w a|ぐぁ=g w a|ぐぃ=g w i
ぐぅ=g w u|ぐぇ=g w e|ぐぉ=g w o|ぐゎ=g w a
ゔょ=by o|ゔゅ=by u|ゔゃ=by a|ゔぉ=v o|ゔぇ=v e|ゔぃ=v i|ゔぁ=v a|ゔ=v u
ん=N
を=o|ゑ=e|ゐ=i|わ=w a|ゎ=w a
ろ=r o|れ=r e|る=r u|りょ=ry o|りゅ=ry u|りゃ=ry a|りぇ=ry e|り=r i
ら=r a
よ=y o|ょ=y o|ゆ=y u|ゅ=y u|や=y a|ゃ=y a
も=m o|め=m e|む=m u|みょ=my o|みゅ=my u|みゃ=my a|みぇ=my e|み=m i
ま=m a
ぽ=p o|ぼ=b o|ほ=h o|ぺ=p e|べ=b e|へ=h e|ぷ=p u|ぶ=b u
ふぉ=f o|ふぇ=f e|ふぃ=f i|ふぁ=f a|ふ=f u|ぴょ=py o|ぴゅ=py u|ぴゃ=py a
ぴぇ=py e|ぴ=p i|びょ=by o|びゅ=by u|びゃ=by a|びぇ=by e|び=b i|ひょ=hy o
ひゅ=hy u|ひゃ=hy a|ひぇ=hy e|ひ=h i|ぱ=p a|ば=b a|は=h a
の=n o|ね=n e|ぬ=n u|にょ=ny o|にゅ=ny u|にゃ=ny a|にぇ=ny e|に=n i
な=n a
どぅ=d u|ど=d o|とぅ=t u|と=t o|でょ=dy o|でゅ=dy u|でゃ=dy a|でぇ=dy e
でぃ=d i|で=d e|てょ=ty o|てゅ=ty u|てゃ=ty a|てぃ=t i|て=t e|づ=z u
つぉ=ts o|つぇ=ts e|つぃ=ts i|つぁ=ts a|つ=ts u|っ=cl|ぢ=j i|ちょ=ch o
ちゅ=ch u|ちゃ=ch a|ちぇ=ch e|ち=ch i|だ=d a|た=t a
ぞ=z o|そ=s o|ぜ=z e|せ=s e|ずぃ=z i|ず=z u|すぃ=s i|す=s u
じょ=j o|じゅ=j u|じゃ=j a|じぇ=j e|じ=j i|しょ=sh o|しゅ=sh u|しゃ=sh a
しぇ=sh e|しぃ=s i|し=sh i|ざ=z a|さ=s a
ご=g o|こ=k o|げ=g e|け=k e|ぐ=g u|く=k u|ぎょ=gy o|ぎゅ=gy u
ぎゃ=gy a|ぎぇ=gy e|ぎ=g i|きょ=ky o|きゅ=ky u|きゃ=ky a|きぇ=ky e|き=k i
が=g a|か=k a
お=o|ぉ=o|え=e|ぇ=e|うぉ=w o|うぇ=w e|うぃ=w i|う=u
ぅ=u|いぇ=y e|い=i|ぃ=i|あ=a|ぁ=a

クァ=k w a|クィ=k w i|クゥ=k w u|クェ=k w e|クォ=k w o|クヮ=k w a|グァ=g w a|グィ=g w i
グゥ=g w u|グェ=g w e|グォ=g w o|グヮ=g w a
ヴョ=by o|ヴュ=by u|ヴャ=by a|ヴォ=v o|ヴェ=v e|ヴィ=v i|ヴァ=v a|ヴ=v u
ン=N
ヲ=o|ヱ=e|ヰ=i|ワ=w a|ヮ=w a
ロ=r o|レ=r e|ル=r u|リョ=ry o|リュ=ry u|リャ=ry a|リェ=ry e|リ=r i
ラ=r a
ヨ=y o|ョ=y o|ユ=y u|ュ=y u|ヤ=y a|ャ=y a
モ=m o|メ=m e|ム=m u|ミョ=my o|ミュ=my u|ミャ=my a|ミェ=my e|ミ=m i
マ=m a
ポ=p o|ボ=b o|ホ=h o|ペ=p e|ベ=b e|ヘ=h e|プ=p u|ブ=b u
フォ=f o|フェ=f e|フィ=f i|ファ=f a|フ=f u|ピョ=py o|ピュ=py u|ピャ=py a
ピェ=py e|ピ=p i|ビョ=by o|ビュ=by u|ビャ=by a|ビェ=by e|ビ=b i|ヒョ=hy o
ヒュ=hy u|ヒャ=hy a|ヒェ=hy e|ヒ=h i|パ=p a|バ=b a|ハ=h a
ノ=n o|ネ=n e|ヌ=n u|ニョ=ny o|ニュ=ny u|ニャ=ny a|ニェ=ny e|ニ=n i
ナ=n a
ドゥ=d u|ド=d o|トゥ=t u|ト=t o|デョ=dy o|デュ=dy u|デャ=dy a|デェ=dy e
ディ=d i|デ=d e|テョ=ty o|テュ=ty u|テャ=ty a|ティ=t i|テ=t e|ヅ=z u
ツォ=ts o|ツェ=ts e|ツィ=ts i|ツァ=ts a|ツ=ts u|ッ=cl|ヂ=j i|チョ=ch o
チュ=ch u|チャ=ch a|チェ=ch e|チ=ch i|ダ=d a|タ=t a
ゾ=z o|ソ=s o|ゼ=z e|セ=s e|ズィ=z i|ズ=z u|スィ=s i|ス=s u
ジョ=j o|ジュ=j u|ジャ=j a|ジェ=j e|ジ=j i|ショ=sh o|シュ=sh u|シャ=sh a
シェ=sh e|シィ=s i|シ=sh i|ザ=z a|サ=s a
ゴ=g o|コ=k o|ゲ=g e|ケ=k e|グ=g u|ク=k u|ギョ=gy o|ギュ=gy u
ギャ=gy a|ギェ=gy e|ギ=g i|キョ=ky o|キュ=ky u|キャ=ky a|キェ=ky e|キ=k i
ガ=g a|カ=k a
オ=o|ォ=o|エ=e|ェ=e|ウォ=w o|ウェ=w e|ウィ=w i|ウ=u
ゥ=u|イェ=y e|イ=i|ィ=i|ア=a|ァ=a

ヴょ=by o|ヴゅ=by u|ヴゃ=by a|ヴぉ=v o|ヴぇ=v e|ヴぃ=v i|ヴぁ=v a
)";

bool isSmallLead(std::string_view character) {
  static constexpr std::string_view kSmall[] = {"ぁ", "ぃ", "ぅ", "ぇ", "ぉ", "ゃ",
                                                "ゅ", "ょ", "ゎ", "ァ", "ィ", "ゥ",
                                                "ェ", "ォ", "ャ", "ュ", "ョ", "ヮ"};
  for (auto s : kSmall)
    if (character == s) return true;
  return false;
}

// Which of several spellings of the same phonemes a phoneme lyric becomes: hiragana over
// katakana, a full-size first kana over a small one, and the common spelling over the old or
// rare one (ゐ, ゑ, を, ぢ, づ, ゎ).
int spellingScore(std::string_view kana) {
  int score = 0;
  bool allHiragana = true;
  std::size_t i = 0;
  while (i < kana.size()) {
    char32_t c = text::nextScalar(kana, i);
    if (c < 0x3041 || c > 0x309F) allHiragana = false;
  }
  if (allHiragana) score += 4;
  auto characters = text::graphemes(kana);
  if (!characters.empty() && !isSmallLead(characters.front())) score += 2;
  static constexpr std::string_view kRare[] = {"ゐ", "ゑ", "を", "ぢ", "づ", "ゎ"};
  bool rare = false;
  for (auto r : kRare) rare = rare || kana == r;
  if (!rare) score += 1;
  return score;
}

struct Tables {
  std::vector<std::pair<std::string, std::string>> entries;
  std::unordered_map<std::string, std::string> table;
  std::unordered_set<std::string> characters;
  std::unordered_map<char32_t, std::string_view> singles;
  std::unordered_map<std::uint64_t, std::string_view> pairs;
  std::unordered_map<std::string, std::string> phonemeKana;

  std::vector<kana::Unit> units;  // parallel to entries
  kana::DenseLookup dense;

  Tables() {
    std::size_t start = 0;
    while (start <= kTableSource.size()) {
      std::size_t end = kTableSource.find_first_of("|\n", start);
      if (end == std::string_view::npos) end = kTableSource.size();
      std::string_view cell = kTableSource.substr(start, end - start);
      start = end + 1;
      if (cell.empty()) continue;
      std::size_t eq = cell.find('=');
      entries.emplace_back(std::string(cell.substr(0, eq)), std::string(cell.substr(eq + 1)));
    }

    // Views below point into `entries`, which no longer changes.
    units.reserve(entries.size());
    for (const auto& [key, value] : entries) {
      table.emplace(key, value);
      for (auto c : text::graphemes(key)) characters.emplace(c);
      int count = 1;
      for (char ch : value) count += ch == ' ';
      units.push_back({key, value, count});
    }
    using Dense = kana::DenseLookup;
    struct PairKey {
      char32_t first, second;
      const kana::Unit* unit;
    };
    std::vector<PairKey> pairKeys;
    for (std::size_t n = 0; n < entries.size(); ++n) {
      const std::string& key = entries[n].first;
      const kana::Unit* unit = &units[n];
      std::u32string scalars = text::toScalars(key);
      // The dense lookups, and the reader's promise that a scalar outside the kana blocks
      // stops the reading, rest on this.
      for (char32_t c : scalars)
        if (!Dense::covers(c)) throw std::logic_error("kana table key outside the kana blocks");
      if (scalars.size() == 1) {
        singles.emplace(scalars[0], unit->phonemes);
        dense.singles[scalars[0] - Dense::first] = unit;
      } else if (scalars.size() == 2) {
        pairs.emplace(scalarPairKey(scalars[0], scalars[1]), unit->phonemes);
        pairKeys.push_back({scalars[0], scalars[1], unit});
        std::uint8_t& column = dense.pairColumn[scalars[1] - Dense::first];
        if (column == 0) column = static_cast<std::uint8_t>(++dense.pairColumns);
      }
    }
    dense.pairGrid.assign(Dense::size * dense.pairColumns, nullptr);
    for (const PairKey& k : pairKeys)
      dense.pairGrid[(k.first - Dense::first) * dense.pairColumns +
                     dense.pairColumn[k.second - Dense::first] - 1] = k.unit;

    // Offered in table order; a later spelling replaces the held one only on a higher score.
    std::unordered_map<std::string, int> held;
    for (const auto& [key, value] : entries) {
      int score = spellingScore(key);
      auto it = held.find(value);
      if (it == held.end() || score > it->second) {
        held[value] = score;
        phonemeKana[value] = key;
      }
    }
  }
};

const Tables& tables() {
  // Built on first use; C++ guarantees a single, thread-safe initialisation.
  static const Tables instance;
  return instance;
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& kanaPhonemeEntries() {
  return tables().entries;
}
const std::unordered_map<std::string, std::string>& kanaPhonemeTable() {
  return tables().table;
}
const std::unordered_set<std::string>& kanaCharacterSet() {
  return tables().characters;
}
const std::unordered_map<char32_t, std::string_view>& singleScalarPhonemes() {
  return tables().singles;
}
const std::unordered_map<std::uint64_t, std::string_view>& scalarPairPhonemes() {
  return tables().pairs;
}
const std::unordered_map<std::string, std::string>& phonemeKanaTable() {
  return tables().phonemeKana;
}

namespace kana {

const Unit& chouonUnit() {
  static constexpr Unit unit{"ー", "ー", 0};
  return unit;
}

const Unit* lookupSingle(char32_t c) {
  return tables().dense.single(c);
}

const Unit* lookupPair(char32_t first, char32_t second) {
  return tables().dense.pair(first, second);
}

const DenseLookup& denseLookup() {
  return tables().dense;
}

}  // namespace kana
}  // namespace melvo
