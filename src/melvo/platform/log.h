// The system log. Lines carry a bracketed tag, "[PitchCurve] 3 frames clamped". By default
// they are appended to the log file in the data folder (opened on the first line), and also
// written to stderr when MELVO_LOG=stderr or a front end asks for it. Tests capture them.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace melvo::log {

// Writes "[tag] message".
void write(std::string_view tag, std::string_view message);

using Sink = std::function<void(const std::string& line)>;
// Replaces the sink for the whole process; returns the previous one. An empty sink restores
// the default.
Sink setSink(Sink sink);
void setEchoToStderr(bool on);

// Collects every line written while it lives (nestable, restores the previous sink).
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  const std::vector<std::string>& lines() const { return lines_; }
  bool contains(std::string_view needle) const;
  std::size_t count(std::string_view needle) const;

 private:
  std::vector<std::string> lines_;
  Sink previous_;
};

}  // namespace melvo::log
