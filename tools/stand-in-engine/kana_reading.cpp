#include "kana_reading.h"

#include <map>
#include <utility>

namespace standin {
namespace {

// UTF-8 to code points; a broken byte reads as U+FFFD, which no kana reading holds.
std::u32string decode(std::string_view s) {
  std::u32string out;
  for (std::size_t i = 0; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    int len = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
    if (len == 0 || i + len > s.size()) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    char32_t c = len == 1 ? b : b & (0x7F >> len);
    for (int k = 1; k < len; ++k) c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    out.push_back(c);
    i += static_cast<std::size_t>(len);
  }
  return out;
}

bool isKatakana(char32_t c) {
  return c >= 0x30A1 && c <= 0x30F6;
}
char32_t toHiragana(char32_t c) {
  return isKatakana(c) ? c - 0x60 : c;
}

using Table = std::map<std::u32string, std::string>;

// The readings, built row by row as the documentation lists them: the gojūon with its voiced
// rows, the contracted sounds, the small kana, and the loan-word sounds it names.
Table buildTable() {
  Table t;
  const char32_t vowels[] = {U'あ', U'い', U'う', U'え', U'お'};
  const char* vowelNames[] = {"a", "i", "u", "e", "o"};
  for (int v = 0; v < 5; ++v) t[std::u32string(1, vowels[v])] = vowelNames[v];
  struct Row {
    std::u32string kana;  // a i u e o; 0 where the row has no such kana
    const char* consonant[5];
  };
  const Row rows[] = {
      {U"かきくけこ", {"k", "k", "k", "k", "k"}},   {U"がぎぐげご", {"g", "g", "g", "g", "g"}},
      {U"さしすせそ", {"s", "sh", "s", "s", "s"}},  {U"ざじずぜぞ", {"z", "j", "z", "z", "z"}},
      {U"たちつてと", {"t", "ch", "ts", "t", "t"}}, {U"だぢづでど", {"d", "j", "z", "d", "d"}},
      {U"なにぬねの", {"n", "n", "n", "n", "n"}},   {U"はひふへほ", {"h", "h", "f", "h", "h"}},
      {U"ばびぶべぼ", {"b", "b", "b", "b", "b"}},   {U"ぱぴぷぺぽ", {"p", "p", "p", "p", "p"}},
      {U"まみむめも", {"m", "m", "m", "m", "m"}},   {U"らりるれろ", {"r", "r", "r", "r", "r"}},
  };
  for (const Row& row : rows)
    for (int v = 0; v < 5; ++v)
      t[row.kana.substr(static_cast<std::size_t>(v), 1)] =
          std::string(row.consonant[v]) + " " + vowelNames[v];
  t[U"や"] = "y a";
  t[U"ゆ"] = "y u";
  t[U"よ"] = "y o";
  t[U"わ"] = "w a";
  t[U"を"] = "o";
  t[U"ん"] = "N";
  t[U"っ"] = "cl";
  t[U"ゔ"] = "v u";
  t[U"ゐ"] = "i";
  t[U"ゑ"] = "e";
  // Small kana alone sing as their big ones.
  const std::pair<char32_t, const char*> small[] = {{U'ぁ', "a"},   {U'ぃ', "i"},   {U'ぅ', "u"},
                                                    {U'ぇ', "e"},   {U'ぉ', "o"},   {U'ゃ', "y a"},
                                                    {U'ゅ', "y u"}, {U'ょ', "y o"}, {U'ゎ', "w a"}};
  for (auto [c, p] : small) t[std::u32string(1, c)] = p;
  // Contracted sounds: the i-column kana with small ゃ ゅ ぇ ょ.
  const std::pair<char32_t, const char*> contracted[] = {
      {U'き', "ky"}, {U'ぎ', "gy"}, {U'し', "sh"}, {U'じ', "j"},  {U'ち', "ch"}, {U'に', "ny"},
      {U'ひ', "hy"}, {U'び', "by"}, {U'ぴ', "py"}, {U'み', "my"}, {U'り', "ry"}};
  const std::pair<char32_t, const char*> smallY[] = {
      {U'ゃ', "a"}, {U'ゅ', "u"}, {U'ぇ', "e"}, {U'ょ', "o"}};
  for (auto [base, c] : contracted)
    for (auto [s, v] : smallY) t[{base, s}] = std::string(c) + " " + v;
  // Loan-word sounds.
  const std::pair<const char32_t*, const char*> loans[] = {
      {U"ふぁ", "f a"},   {U"ふぃ", "f i"},   {U"ふぇ", "f e"},   {U"ふぉ", "f o"},
      {U"てぃ", "t i"},   {U"でぃ", "d i"},   {U"とぅ", "t u"},   {U"どぅ", "d u"},
      {U"てゃ", "ty a"},  {U"てゅ", "ty u"},  {U"てょ", "ty o"},  {U"でゃ", "dy a"},
      {U"でゅ", "dy u"},  {U"でょ", "dy o"},  {U"でぇ", "dy e"},  {U"つぁ", "ts a"},
      {U"つぃ", "ts i"},  {U"つぇ", "ts e"},  {U"つぉ", "ts o"},  {U"すぃ", "s i"},
      {U"ずぃ", "z i"},   {U"しぃ", "s i"},   {U"うぃ", "w i"},   {U"うぇ", "w e"},
      {U"うぉ", "w o"},   {U"いぇ", "y e"},   {U"ゔぁ", "v a"},   {U"ゔぃ", "v i"},
      {U"ゔぇ", "v e"},   {U"ゔぉ", "v o"},   {U"ゔゃ", "by a"},  {U"ゔゅ", "by u"},
      {U"ゔょ", "by o"},  {U"くぁ", "k w a"}, {U"くぃ", "k w i"}, {U"くぅ", "k w u"},
      {U"くぇ", "k w e"}, {U"くぉ", "k w o"}, {U"くゎ", "k w a"}, {U"ぐぁ", "g w a"},
      {U"ぐぃ", "g w i"}, {U"ぐぅ", "g w u"}, {U"ぐぇ", "g w e"}, {U"ぐぉ", "g w o"},
      {U"ぐゎ", "g w a"}};
  for (auto [k, p] : loans) t[k] = p;
  return t;
}

const Table& table() {
  static const Table t = buildTable();
  return t;
}

std::vector<std::string> splitPhonemes(const std::string& s) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= s.size()) {
    const std::size_t end = s.find(' ', start);
    const std::size_t stop = end == std::string::npos ? s.size() : end;
    if (stop > start) out.push_back(s.substr(start, stop - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return out;
}

// A pair is one script: katakana with katakana, hiragana with hiragana, and ヴ with a small
// hiragana, which the engine also accepts.
bool sameScript(char32_t a, char32_t b) {
  return isKatakana(a) == isKatakana(b) || a == U'ヴ';
}

}  // namespace

int KanaReading::phonemeCount() const {
  if (onlyChouon) return 1;
  int n = 0;
  for (const auto& u : units) n += static_cast<int>(u.size());
  return n;
}

KanaReading readKana(std::string_view lyric) {
  std::u32string s = decode(lyric);
  auto space = [](char32_t c) { return c == U' ' || c == U'\t' || c == U'\u3000'; };
  while (!s.empty() && space(s.back())) s.pop_back();
  std::size_t from = 0;
  while (from < s.size() && space(s[from])) ++from;
  s.erase(0, from);

  KanaReading r;
  r.onlyChouon = !s.empty() && s.find_first_not_of(U'ー') == std::u32string::npos;
  if (r.onlyChouon) return r;
  const Table& t = table();
  for (std::size_t i = 0; i < s.size();) {
    const char32_t c = s[i];
    if (c == U'ー' || c == U'’') {
      ++i;
      continue;
    }
    if (i + 1 < s.size() && sameScript(c, s[i + 1])) {
      auto it = t.find({toHiragana(c), toHiragana(s[i + 1])});
      if (it != t.end()) {
        r.units.push_back(splitPhonemes(it->second));
        i += 2;
        continue;
      }
    }
    auto it = t.find(std::u32string(1, toHiragana(c)));
    if (it == t.end()) break;
    r.units.push_back(splitPhonemes(it->second));
    ++i;
  }
  return r;
}

}  // namespace standin
