// How the engine reads a lyric, written from its documentation rather than from Melvo's own
// lyric rules, so that the tests that render through this stand-in can catch a wrong entry
// in Melvo's table instead of agreeing with it by construction.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace standin {

struct KanaReading {
  std::vector<std::vector<std::string>> units;  // the phonemes of each kana unit read
  bool onlyChouon = false;                      // nothing but ー: holds the note before
  int phonemeCount() const;
};

// Reads the lyric from its start, trimmed of spaces: a pair of kana first (きゃ), then one,
// until a character it has no reading for. The vowel-drop mark ’ is passed over; ー inside a
// lyric lengthens the vowel before it and brings no phoneme of its own.
KanaReading readKana(std::string_view lyric);

}  // namespace standin
