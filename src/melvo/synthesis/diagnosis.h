// Explains a failed render from the engine's log: a title, what went wrong, and what the user
// can do about it. Pure text in, text out, so the log window and the agent port share it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace melvo {

struct Diagnosis {
  std::string title;
  std::string detail;
  std::vector<std::string> fixes;  // each may span lines: a sentence, then a command to run
  bool operator==(const Diagnosis&) const = default;
};

// Looks at the whole log at once (lines joined by "\n"): the most specific known failure wins,
// and a log we do not recognise gives nothing rather than a misleading guess. `engineFolder`
// (may be empty) goes into the commands that a fix names.
std::optional<Diagnosis> diagnose(const std::vector<std::string>& lines,
                                  const std::string& engineFolder = "");

}  // namespace melvo
