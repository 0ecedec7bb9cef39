#include "melvo/editing/piano_roll_tool.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

struct ToolRow {
  PianoRollTool tool;
  char key;
  std::string_view name;
};
constexpr std::array<ToolRow, 4> kTools{{{PianoRollTool::arrow, 'A', "arrow"},
                                         {PianoRollTool::pencil, 'S', "pencil"},
                                         {PianoRollTool::eraser, 'D', "eraser"},
                                         {PianoRollTool::scissors, 'F', "scissors"}}};

struct QuantizeRow {
  QuantizeValue value;
  std::string_view name;
  std::string_view caseName;
  std::int64_t numerator;  // of a quarter
  std::int64_t denominator;
};
constexpr std::array<QuantizeRow, 8> kQuantize{{
    {QuantizeValue::whole, "1/1", "whole", 4, 1},
    {QuantizeValue::half, "1/2", "half", 2, 1},
    {QuantizeValue::quarter, "1/4", "quarter", 1, 1},
    {QuantizeValue::eighth, "1/8", "eighth", 1, 2},
    {QuantizeValue::sixteenth, "1/16", "sixteenth", 1, 4},
    {QuantizeValue::thirtySecond, "1/32", "thirtySecond", 1, 8},
    {QuantizeValue::tripletQ, "1/4T", "tripletQ", 2, 3},
    {QuantizeValue::tripletE, "1/8T", "tripletE", 1, 3},
}};

const QuantizeRow& rowOf(QuantizeValue v) {
  return *std::find_if(kQuantize.begin(), kQuantize.end(),
                       [&](const QuantizeRow& r) { return r.value == v; });
}

}  // namespace

char toolKey(PianoRollTool tool) {
  for (const auto& r : kTools)
    if (r.tool == tool) return r.key;
  return '?';
}

std::optional<PianoRollTool> toolForKey(char key) {
  const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(key)));
  for (const auto& r : kTools)
    if (r.key == upper) return r.tool;
  return std::nullopt;
}

const char* toolHelp(PianoRollTool tool, bool curveEditing) {
  switch (tool) {
    case PianoRollTool::arrow:
      return curveEditing
                 ? tr("矢印 (A) — f0編集中は "
                      "⌘ドラッグで範囲選択・⌘クリックで1つ選択（ドラッグはピッチ描画）")
                 : tr("矢印 (A) — 移動・右端ドラッグでリサイズ・空白ドラッグで範囲選択・Shift "
                      "クリックで複数選択");
    case PianoRollTool::pencil:
      return tr("鉛筆 (S) — 空白クリックで音符を置く。既存音符はドラッグ移動");
    case PianoRollTool::eraser:
      return tr("消しゴム (D) — クリックまたはドラッグで音符を削除");
    case PianoRollTool::scissors:
      return tr("ハサミ (F) — クリック位置で音符を2つに分割");
  }
  return "";
}

std::string_view toolName(PianoRollTool tool) {
  for (const auto& r : kTools)
    if (r.tool == tool) return r.name;
  return {};
}

std::optional<PianoRollTool> toolFromName(std::string_view name) {
  for (const auto& r : kTools)
    if (r.name == name) return r.tool;
  return std::nullopt;
}

std::int64_t quantizeTicks(QuantizeValue value, std::int64_t ppq) {
  const QuantizeRow& r = rowOf(value);
  return std::max<std::int64_t>(1, ppq * r.numerator / r.denominator);
}

std::string_view quantizeName(QuantizeValue value) {
  return rowOf(value).name;
}

std::optional<QuantizeValue> quantizeFromName(std::string_view name) {
  for (const auto& r : kQuantize)
    if (r.name == name || r.caseName == name) return r.value;
  return std::nullopt;
}

}  // namespace melvo
