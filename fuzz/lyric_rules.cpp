// The lyric functions over arbitrary text, valid UTF-8 or not: none may crash, and the export
// form of a lyric must be stable when applied again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "melvo/checking/lyric_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string lyric(reinterpret_cast<const char*>(data), size);
  using namespace melvo;
  const std::string exported = lyricForExport(lyric);
  (void)readLyric(lyric);
  (void)readingState(lyric);
  if (countPhonemes(lyric) < 0) std::abort();
  (void)classifyLyricChars(lyric);
  (void)groupSyllables(lyric);
  (void)splitMorae(lyric);
  (void)effectiveVowelDrops(lyric);
  (void)summarizePlainKana(lyric);
  (void)visibleLyric(lyric);
  (void)isPlainKana(lyric);
  (void)isOnlyChouon(lyric);
  (void)isOnlySokuon(lyric);
  (void)startsWithSustain(lyric);
  (void)isUtauMarked(lyric);
  (void)hasXmlIllegalScalars(lyric);
  (void)readLyric(exported);
  (void)countPhonemes(exported);
  return 0;
}
