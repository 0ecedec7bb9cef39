// The readers of the engine's log over arbitrary lines: progress, the diagnosis of a failure
// and the places the log names in the score.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "melvo/checking/synthesis_gate.h"
#include "melvo/synthesis/diagnosis.h"
#include "melvo/synthesis/progress_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '\n') {
      lines.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  using namespace melvo;
  ProgressParser parser;
  auto t = std::chrono::steady_clock::time_point{};
  parser.now = [&t] { return t += std::chrono::seconds(1); };
  for (const auto& line : lines) {
    (void)parser.parse(line);
    (void)ProgressParser::parsePercent(line);
  }
  (void)diagnose(lines);
  (void)SynthesisGate::parseLog(lines);
  return 0;
}
