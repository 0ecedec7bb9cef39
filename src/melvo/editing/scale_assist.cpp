#include "melvo/editing/scale_assist.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"

namespace melvo {
namespace {

struct ScaleRow {
  ScaleType type;
  std::string_view raw;
  const char* label;
  std::array<int, 12> intervals;
  int count;
};

// The menu order is the order of this table.
constexpr std::array<ScaleRow, kScaleTypeCount> kScales{{
    {ScaleType::major, "major", N_("長音階 (Major)"), {0, 2, 4, 5, 7, 9, 11}, 7},
    {ScaleType::naturalMinor,
     "natural-minor",
     N_("自然短音階 (Natural Minor)"),
     {0, 2, 3, 5, 7, 8, 10},
     7},
    {ScaleType::harmonicMinor,
     "harmonic-minor",
     N_("和声短音階 (Harmonic Minor)"),
     {0, 2, 3, 5, 7, 8, 11},
     7},
    {ScaleType::melodicMinor,
     "melodic-minor",
     N_("旋律短音階 (Melodic Minor)"),
     {0, 2, 3, 5, 7, 9, 11},
     7},
    {ScaleType::dorian, "dorian", N_("ドリアン (Dorian)"), {0, 2, 3, 5, 7, 9, 10}, 7},
    {ScaleType::phrygian, "phrygian", N_("フリジアン (Phrygian)"), {0, 1, 3, 5, 7, 8, 10}, 7},
    {ScaleType::lydian, "lydian", N_("リディアン (Lydian)"), {0, 2, 4, 6, 7, 9, 11}, 7},
    {ScaleType::mixolydian,
     "mixolydian",
     N_("ミクソリディアン (Mixolydian)"),
     {0, 2, 4, 5, 7, 9, 10},
     7},
    {ScaleType::locrian, "locrian", N_("ロクリアン (Locrian)"), {0, 1, 3, 5, 6, 8, 10}, 7},
    {ScaleType::majorPent,
     "major-pentatonic",
     N_("メジャーペンタトニック (Major Pentatonic)"),
     {0, 2, 4, 7, 9},
     5},
    {ScaleType::minorPent,
     "minor-pentatonic",
     N_("マイナーペンタトニック (Minor Pentatonic)"),
     {0, 3, 5, 7, 10},
     5},
    {ScaleType::japaneseYona,
     "japanese-yonanuki",
     N_("ヨナ抜き音階 (Yonanuki)"),
     {0, 2, 4, 7, 9},
     5},
    {ScaleType::okinawan, "okinawan", N_("琉球音階 (Okinawan)"), {0, 4, 5, 7, 11}, 5},
    {ScaleType::blues, "blues", N_("ブルース (Blues)"), {0, 3, 5, 6, 7, 10}, 6},
    {ScaleType::wholeTone, "whole-tone", N_("全音音階 (Whole Tone)"), {0, 2, 4, 6, 8, 10}, 6},
    {ScaleType::diminished,
     "diminished",
     N_("ディミニッシュ (Diminished)"),
     {0, 2, 3, 5, 6, 8, 9, 11},
     8},
    {ScaleType::chromatic,
     "chromatic",
     N_("クロマチック (Chromatic)"),
     {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
     12},
}};

struct ModeRow {
  ScaleAssistMode mode;
  std::string_view raw;
  const char* description;
};
constexpr std::array<ModeRow, 4> kModes{{
    {ScaleAssistMode::off, "off", N_("アシスト無効。すべての音を自由に配置可能。")},
    {ScaleAssistMode::display, "display",
     N_("スケール外のグリッド・鍵盤をグレーアウト。配置は自由。")},
    {ScaleAssistMode::warn, "warn", N_("スケール外を赤で警告表示。配置は可能。")},
    {ScaleAssistMode::lock, "lock", N_("スケール内のみ配置可能。移動も自動でスナップ。")},
}};

const ScaleRow& rowOf(ScaleType t) {
  return kScales[static_cast<std::size_t>(t)];
}

// One bit per pitch class above the root, so the membership test is a shift.
constexpr std::array<std::uint16_t, kScaleTypeCount> kMasks = [] {
  std::array<std::uint16_t, kScaleTypeCount> m{};
  for (std::size_t i = 0; i < kScales.size(); ++i)
    for (int k = 0; k < kScales[i].count; ++k)
      m[i] = static_cast<std::uint16_t>(m[i] | (1u << kScales[i].intervals[k]));
  return m;
}();

}  // namespace

std::string_view modeRawValue(ScaleAssistMode mode) {
  return kModes[static_cast<std::size_t>(mode)].raw;
}

std::optional<ScaleAssistMode> modeFromRaw(std::string_view raw) {
  for (const auto& r : kModes)
    if (r.raw == raw) return r.mode;
  return std::nullopt;
}

const char* modeDescription(ScaleAssistMode mode) {
  return tr(kModes[static_cast<std::size_t>(mode)].description);
}

std::string_view scaleRawValue(ScaleType type) {
  return rowOf(type).raw;
}

std::optional<ScaleType> scaleFromRaw(std::string_view raw) {
  for (const auto& r : kScales)
    if (r.raw == raw) return r.type;
  return std::nullopt;
}

const char* scaleLabel(ScaleType type) {
  return tr(rowOf(type).label);
}

std::span<const int> scaleIntervals(ScaleType type) {
  const ScaleRow& r = rowOf(type);
  return {r.intervals.data(), static_cast<std::size_t>(r.count)};
}

ScaleType scaleTypeAt(int index) {
  return kScales[static_cast<std::size_t>(std::clamp(index, 0, kScaleTypeCount - 1))].type;
}

bool isInScale(int pitch, const ScaleAssist& assist) {
  const int pc = ((pitch - assist.rootPitch) % 12 + 12) % 12;
  return (kMasks[static_cast<std::size_t>(assist.scaleType)] >> pc) & 1u;
}

int snapped(int pitch, const ScaleAssist& assist) {
  if (assist.mode != ScaleAssistMode::lock) return pitch;
  // Every scale holds the root, so a distance of 11 always finds one; candidates outside the
  // note range are skipped either way.
  for (int distance = 0; distance < 12; ++distance) {
    for (int candidate : {pitch + distance, pitch - distance}) {
      if (candidate < 0 || candidate > 127) continue;
      if (isInScale(candidate, assist)) return candidate;
      if (distance == 0) break;
    }
  }
  return pitch;
}

Json scaleAssistToJson(const ScaleAssist& assist) {
  return Json::Object{{"mode", std::string(modeRawValue(assist.mode))},
                      {"rootPitch", assist.rootPitch},
                      {"scaleType", std::string(scaleRawValue(assist.scaleType))}};
}

ScaleAssist scaleAssistFromJson(const Json& json) {
  ScaleAssist a;
  if (const Json* m = json.find("mode"); m && m->isString())
    a.mode = modeFromRaw(m->asString()).value_or(a.mode);
  if (const Json* s = json.find("scaleType"); s && s->isString())
    a.scaleType = scaleFromRaw(s->asString()).value_or(a.scaleType);
  if (const Json* r = json.find("rootPitch"); r && r->isInt()) {
    const std::int64_t v = r->asInt();
    if (v >= 0 && v <= 127) a.rootPitch = static_cast<int>(v);
  }
  return a;
}

}  // namespace melvo
