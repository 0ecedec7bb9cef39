// Progress of long work on stderr: one redrawn bar on a terminal, plain lines otherwise (so a
// log file or a pipe gets one line per change, not a screen of carriage returns).
#pragma once

#include <optional>
#include <string>

namespace melvo::cli {

class ProgressLine {
 public:
  ProgressLine();
  // Shows `percentage` (0..100) with the stage and, when known, the time left.
  void update(double percentage, const std::string& stage, std::optional<double> etaSec);
  // Prints a line of its own above the bar.
  void message(const std::string& line);
  // Leaves the bar where it is and moves to a new line.
  void finish();

 private:
  void clear();
  void draw(int whole, const std::string& stage, const std::string& eta);
  bool terminal_;
  bool drawn_ = false;
  int shownPercent_ = -1;
  std::string shownStage_;
  std::string shownEta_;
};

// "残り約 1分 5秒", through the catalogue.
std::string remainingText(double seconds);
// A date kept as seconds since 2001 in local time, "2026-11-23 14:05:09".
std::string localTime(double referenceSecs);

}  // namespace melvo::cli
