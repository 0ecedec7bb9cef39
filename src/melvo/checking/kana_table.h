// The kana the engine's dictionary accepts, and the lookups derived from it. Every lyric rule
// reads through these tables, so "readable" means the same in the validator, the gate, the
// clean-up and the score writer.
#pragma once

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

}  // namespace kana
}  // namespace melvo
