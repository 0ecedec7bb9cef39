// Readings of kanji words through MeCab and the IPA dictionary, for lyrics typed in kanji.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace melvo {

class KanjiReader {
 public:
  // Loads the dictionary in `dictionaryDir`; when empty, the IPA dictionary of the system
  // (Debian's mecab-ipadic-utf8), else whatever MeCab is configured with. A dictionary that
  // cannot be loaded is logged here, once, and leaves the reader unable to convert.
  explicit KanjiReader(std::string_view dictionaryDir = {});
  ~KanjiReader();
  KanjiReader(const KanjiReader&) = delete;
  KanjiReader& operator=(const KanjiReader&) = delete;

  bool loaded() const;
  // Tokens that hold kanji become the hiragana of their reading; everything else, white
  // space included, is kept as written. Unchanged when no dictionary is loaded. Thread-safe.
  std::string toHiragana(std::string_view lyric) const;

  // The process-wide reader behind kanjiToHiragana(), loaded on first use.
  static const KanjiReader& shared();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace melvo
