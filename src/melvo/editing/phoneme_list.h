// The engine's phoneme timing (timing.lab, also mono.lab): what the user drags on the canvas
// after a render, and what a re-render reads back.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace melvo {

struct Phoneme {
  // Label units of 100 ns, as the file has them: 10,000,000 to the second.
  std::int64_t startNS = 0;
  std::int64_t endNS = 0;
  std::string symbol;

  double startSec() const { return startNS / 10000000.0; }
  double endSec() const { return endNS / 10000000.0; }
  bool operator==(const Phoneme&) const = default;
};

struct PhonemeList {
  std::vector<Phoneme> phonemes;

  // Nothing when the file cannot be read. Damaged lines are skipped and reported to the log,
  // so a half-broken result still shows.
  static std::optional<PhonemeList> read(const std::filesystem::path& path);
  static PhonemeList parse(std::string_view text);
  std::string text() const;
  // Throws FileError.
  void write(const std::filesystem::path& path) const;

  // Those overlapping [from, to) in seconds; touching at a point does not count.
  std::vector<Phoneme> phonemesIn(double from, double to) const;

  // Start in seconds of the first phoneme that is not silence or a pause.
  std::optional<double> firstSungStartSec() const;

  bool operator==(const PhonemeList&) const = default;
};

// The canvas mark for a phoneme: "sil" is "•", "pau" "/", "br" "⚪", "cl" "_".
std::string displaySymbol(std::string_view symbol);

// The engine's phoneme set: every phoneme of the kana table and the marks sil, pau, br, cl.
bool isKnownPhoneme(std::string_view symbol);

}  // namespace melvo
