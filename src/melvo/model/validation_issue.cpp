#include "melvo/model/validation_issue.h"

#include <array>

#include "melvo/platform/i18n.h"

namespace melvo {
namespace {

struct CategoryRow {
  std::string_view name;
  const char* label;
};

constexpr std::array<CategoryRow, ValidationIssue::kCategoryCount> kCategories{{
    {"emptyLyric", N_("歌詞未入力")},
    {"invalidLyricChars", N_("ひらがな/カタカナ以外")},
    {"utauResidue", N_("UTAU の印")},
    {"multiSyllable", N_("1つの音符に何音も入っている")},
    {"phraseTooLong", N_("長いフレーズ")},
    {"shortRestBefore", N_("直前に短い休符")},
    {"noteOverlap", N_("重なった音符")},
    {"outOfRange", N_("音域外")},
    {"decoration", N_("装飾")},
    {"chordAtSameTick", N_("同じ位置に複数の音（和音）")},
    {"standaloneSpecial", N_("単独特殊文字")},
    {"mixedDigits", N_("数字・英字混入")},
    {"symbols", N_("記号混入")},
    {"emojiControl", N_("絵文字・制御文字")},
    {"zeroLength", N_("ごく短い音符")},
    {"unreadableKana", N_("読めない仮名")},
    {"invalidYouon", N_("不正な拗音・小書き")},
    {"polyphony", N_("異ピッチ重複（単声違反）")},
    {"ghostVelocity", N_("強さ 0 の音符")},
    {"tieLyricDup", N_("タイ歌詞重複")},
    {"tempoIssue", N_("テンポ異常")},
    {"timeSigIssue", N_("拍子異常")},
    {"importNotice", N_("読み込みの知らせ")},
    {"beyondExportLimit", N_("書き出せない範囲")},
    {"allTracksMuted", N_("全部消音")},
    {"noSungNotes", N_("歌う音なし")},
}};

}  // namespace

std::string_view severityName(ValidationIssue::Severity s) {
  switch (s) {
    case ValidationIssue::Severity::error:
      return "error";
    case ValidationIssue::Severity::warning:
      return "warning";
    case ValidationIssue::Severity::info:
      return "info";
  }
  return "info";
}

std::string_view categoryName(ValidationIssue::Category c) {
  return kCategories[static_cast<std::size_t>(c)].name;
}

std::optional<ValidationIssue::Category> categoryFromName(std::string_view name) {
  for (std::size_t i = 0; i < kCategories.size(); ++i)
    if (kCategories[i].name == name) return static_cast<ValidationIssue::Category>(i);
  return std::nullopt;
}

const char* categoryLabelKey(ValidationIssue::Category c) {
  return kCategories[static_cast<std::size_t>(c)].label;
}

}  // namespace melvo
