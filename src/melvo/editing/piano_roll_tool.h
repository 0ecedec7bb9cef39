// The canvas tools, one key each (A, S, D, F), and the grid values that place and size notes.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace melvo {

enum class PianoRollTool { arrow, pencil, eraser, scissors };

// The key that chooses the tool, upper case.
char toolKey(PianoRollTool tool);
std::optional<PianoRollTool> toolForKey(char key);  // either case
// What the tool does, as the tool palette tells it (already translated). The arrow tells
// something else while the pitch curve is being edited.
const char* toolHelp(PianoRollTool tool, bool curveEditing = false);
std::string_view toolName(PianoRollTool tool);  // "arrow", for scripts
std::optional<PianoRollTool> toolFromName(std::string_view name);

// The grid (`_quantizeValue`) and the length of a new note (`_defaultNoteLength`).
enum class QuantizeValue {
  whole,
  half,
  quarter,
  eighth,
  sixteenth,
  thirtySecond,
  tripletQ,
  tripletE
};

// Ticks of one step at `ppq` ticks a quarter, rounded toward zero and never below 1.
std::int64_t quantizeTicks(QuantizeValue value, std::int64_t ppq);
std::string_view quantizeName(QuantizeValue value);  // "1/4", "1/8T", ...
// Accepts the names above and the case names ("quarter", "tripletE").
std::optional<QuantizeValue> quantizeFromName(std::string_view name);

}  // namespace melvo
