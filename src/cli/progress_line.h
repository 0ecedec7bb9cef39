// Progress of long work on stderr: one redrawn bar on a terminal, plain lines otherwise (so a
// log file or a pipe gets one line per change, not a screen of carriage returns).
//
// The bar never goes backwards: the engine's own words may read as a lower percentage than the
// script's last line (a stage keyword after a step count), and a bar that jumps back tells
// nothing true. The time left is our own estimate from the shown percentage and the clock, and
// only once there is enough behind us to estimate from.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace melvo::cli {

class ProgressLine {
 public:
  ProgressLine();
  // Shows `percentage` (0..100) with the stage.
  void update(double percentage, const std::string& stage);
  // Prints a line of its own above the bar.
  void message(const std::string& line);
  // Leaves the bar where it is and moves to a new line.
  void finish();

  // Below this much time behind us, or this much progress, no time left is shown.
  static constexpr double kEstimateAfterSec = 3.0;
  static constexpr double kEstimateAfterPercent = 2.0;
  // The estimate for `percentage` reached after `elapsedSec`, when one is worth showing.
  static std::optional<double> estimate(double percentage, double elapsedSec);

 private:
  void clear();
  void draw(int whole, const std::string& stage, const std::string& eta);
  bool terminal_;
  bool drawn_ = false;
  double highest_ = 0;
  std::optional<std::chrono::steady_clock::time_point> started_;
  int shownPercent_ = -1;
  std::string shownStage_;
  std::string shownEta_;
};

// "残り約 1分 5秒", through the catalogue.
std::string remainingText(double seconds);
// A date kept as seconds since 2001 in local time, "2026-11-23 14:05:09".
std::string localTime(double referenceSecs);

}  // namespace melvo::cli
