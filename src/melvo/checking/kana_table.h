// The kana the engine's dictionary accepts, and the lookups derived from it. Every lyric rule
// reads through these tables, so "readable" means the same in the validator, the gate, the
// clean-up and the score writer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace melvo {

// The table as written, one `kana=phonemes` entry per cell, in source order. The order
// matters: it decides ties in phonemeKanaTable().
const std::vector<std::pair<std::string, std::string>>& kanaPhonemeEntries();

// Kana spelling (one or two scalars) to blank-separated phonemes: 353 entries.
const std::unordered_map<std::string, std::string>& kanaPhonemeTable();

// Every Character that occurs in a key of the table.
const std::unordered_set<std::string>& kanaCharacterSet();

// Keys of one scalar, by that scalar.
const std::unordered_map<char32_t, std::string_view>& singleScalarPhonemes();

// Keys of two scalars, by scalarPairKey(first, second).
const std::unordered_map<std::uint64_t, std::string_view>& scalarPairPhonemes();

constexpr std::uint64_t scalarPairKey(char32_t first, char32_t second) {
  return (static_cast<std::uint64_t>(first) << 32) | static_cast<std::uint64_t>(second);
}

// Phonemes to the kana a lyric written as phonemes should become.
const std::unordered_map<std::string, std::string>& phonemeKanaTable();

namespace kana {

// One reading unit with what the readers need precomputed, so that the per-note rules never
// split phoneme strings.
struct Unit {
  std::string_view kana;
  std::string_view phonemes;
  int phonemeCount;
};

// The unit of ー: it lengthens the vowel before it and brings no phoneme of its own.
const Unit& chouonUnit();

// Integer-keyed lookups used on the hot path; nullptr when the table has no such key.
const Unit* lookupSingle(char32_t c);
const Unit* lookupPair(char32_t first, char32_t second);

// The same lookups as plain arrays over the kana blocks, where every scalar of every key lies:
// a reader fetches them once per lyric and looks up inline, with no call or hash per scalar.
struct DenseLookup {
  static constexpr char32_t first = 0x3040;
  static constexpr char32_t last = 0x30FF;
  static constexpr std::size_t size = last - first + 1;
  static constexpr bool covers(char32_t c) { return c >= first && c <= last; }

  std::array<const Unit*, size> singles{};
  // A row per first scalar and a column per scalar that ends some pair (the small kana);
  // pairColumn holds the column plus one, 0 for a scalar that ends no pair.
  std::array<std::uint8_t, size> pairColumn{};
  std::size_t pairColumns = 0;
  std::vector<const Unit*> pairGrid;

  const Unit* single(char32_t c) const { return covers(c) ? singles[c - first] : nullptr; }
  const Unit* pair(char32_t a, char32_t b) const {
    if (!covers(b)) return nullptr;
    const std::uint8_t column = pairColumn[b - first];
    if (column == 0 || !covers(a)) return nullptr;
    return pairGrid[(a - first) * pairColumns + column - 1];
  }
};
const DenseLookup& denseLookup();

}  // namespace kana
}  // namespace melvo
