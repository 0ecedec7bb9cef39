// Turns one line of the engine's log into a progress value, a stage text and a remaining-time
// estimate. Knows nothing of songs or files; a run gets a fresh parser.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace melvo {

struct ProgressInfo {
  double percentage = 0;
  std::string stage;          // translated; empty when no stage keyword matched
  std::optional<double> eta;  // seconds remaining
  bool operator==(const ProgressInfo&) const = default;
};

struct ProgressParser {
  using TimePoint = std::chrono::steady_clock::time_point;

  std::optional<TimePoint> startTime;  // set on the first line with a percentage
  double lastPercentage = 0;           // written only: the shown value may go down
  // Swappable so that the estimate can be checked without waiting.
  std::function<TimePoint()> now = [] { return std::chrono::steady_clock::now(); };

  // Nothing when the line carries no progress.
  std::optional<ProgressInfo> parse(std::string_view line);

  // "12.5 %" gives 12.5 and "150%" gives 100; failing that "[3/2]" gives 150, unclamped.
  static std::optional<double> parsePercent(std::string_view line);

  struct Stage {
    const char* key;
    const char* text;  // catalogue key
    double percentage;
  };
  static const Stage stages[7];
};

}  // namespace melvo
