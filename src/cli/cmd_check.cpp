// melvo check FILE [--json] [--track N] [--engine DIR]: the score check as a list. Rows are
// numbered from 1 and their suggestions from 1 within the row, so "3.2" names one repair of
// one row; the list is the same for the same song, so the numbers stay valid between runs.
// With --apply ROW.N --out OUT that repair is applied and the song written as a project.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/checking/score_validator.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/text.h"
#include "melvo/synthesis/neutrino_config.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string file;
  bool json = false;
  int track = -1;
  std::string engine;
  std::string apply;
  std::string out;
};

const char* severityText(ValidationIssue::Severity s) {
  switch (s) {
    case ValidationIssue::Severity::error:
      return tr("エラー");
    case ValidationIssue::Severity::warning:
      return tr("警告");
    case ValidationIssue::Severity::info:
      return tr("情報");
  }
  return "";
}

Json toJson(const std::vector<ValidationIssue>& rows) {
  Json all = Json::array();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    Json o = Json::object();
    o["index"] = i + 1;
    o["severity"] = std::string(severityName(r.severity));
    o["category"] = std::string(categoryName(r.category));
    o["tick"] = r.tick;
    o["track"] = r.trackIndex;
    o["message"] = r.message;
    o["detail"] = r.detail ? Json(*r.detail) : Json();
    Json suggestions = Json::array();
    for (std::size_t k = 0; k < r.suggestions.size(); ++k)
      suggestions.push(
          Json::Object{{"index", static_cast<int>(k + 1)}, {"label", r.suggestions[k].label}});
    o["suggestions"] = std::move(suggestions);
    all.push(std::move(o));
  }
  return all;
}

void printHuman(const MusicDocument& d, const std::vector<ValidationIssue>& rows) {
  const BarRuler ruler = d.barRuler();
  if (rows.empty()) {
    std::printf("%s\n", tr("問題は見つかりませんでした。"));
    return;
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    std::string where = r.wholeSong ? tr("曲全体") : ruler.positionText(r.tick);
    std::printf("[%zu] %s  %s  %s  %s\n", i + 1, severityText(r.severity),
                tr(categoryLabelKey(r.category)), where.c_str(), r.message.c_str());
    if (r.detail)
      for (std::string_view line : text::split(*r.detail, '\n'))
        std::printf("      %.*s\n", static_cast<int>(line.size()), line.data());
    for (std::size_t k = 0; k < r.suggestions.size(); ++k)
      std::printf("      %zu.%zu  %s\n", i + 1, k + 1, r.suggestions[k].label.c_str());
  }
  std::size_t errors = 0, warnings = 0, infos = 0;
  for (const auto& r : rows) {
    errors += r.severity == ValidationIssue::Severity::error;
    warnings += r.severity == ValidationIssue::Severity::warning;
    infos += r.severity == ValidationIssue::Severity::info;
  }
  std::printf("%s\n", trf("エラー %d・警告 %d・情報 %d",
                          {std::to_string(errors), std::to_string(warnings), std::to_string(infos)})
                          .c_str());
}

// The ranges of the voices a render would use: the engine folder of the settings unless
// --engine names another, each track's own voice or else the voice of the settings.
std::unordered_map<Uuid, VoiceRange::Range> voiceRanges(const MusicDocument& d,
                                                        const std::string& engine) {
  const NEUTRINOConfig config = NEUTRINOConfig::load().value_or(NEUTRINOConfig{});
  const std::filesystem::path folder = engine.empty() ? config.neutrinoDirectory : engine;
  std::unordered_map<Uuid, VoiceRange::Range> out;
  if (folder.empty()) return out;
  for (const MusicTrack& t : d.tracks) {
    const std::string& voice =
        t.characterName.empty() ? config.selectedCharacterName : t.characterName;
    if (auto r = SynthesisGate::voiceRange(folder, voice)) out.emplace(t.id, *r);
  }
  return out;
}

// "3.2" to the row and suggestion, both counted from 1 as the list prints them.
std::optional<std::pair<std::size_t, std::size_t>> parseChoice(const std::string& s) {
  const auto dot = s.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == s.size()) return std::nullopt;
  std::size_t row = 0, sug = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (i == dot) continue;
    if (s[i] < '0' || s[i] > '9' || (i < dot ? row : sug) > 100000000) return std::nullopt;
    (i < dot ? row : sug) = (i < dot ? row : sug) * 10 + static_cast<std::size_t>(s[i] - '0');
  }
  if (row == 0 || sug == 0) return std::nullopt;
  return std::pair{row, sug};
}

int applyChoice(const Options& o, const MusicDocument& d,
                const std::vector<ValidationIssue>& rows) {
  const auto choice = parseChoice(o.apply);
  if (!choice) {
    printError(trf("--apply は「行.番号」の形で指定してください（例: 3.2）: %@", {o.apply}));
    return 2;
  }
  const auto [r, k] = *choice;
  if (r > rows.size() || k > rows[r - 1].suggestions.size()) {
    printError(trf("直し方 %@ はありません", {o.apply}));
    return 2;
  }
  const auto& row = rows[r - 1];
  const auto& suggestion = row.suggestions[k - 1];
  const RepairResult result = applySuggestion(d, row, suggestion);
  try {
    writeProject(result.document, o.out);
  } catch (const FileError& e) {
    printError(trf("保存に失敗しました: %@", {e.what()}));
    return 1;
  }
  if (o.json) {
    Json log = Json::array();
    for (const auto& e : result.log)
      log.push(Json::Object{{"track", e.trackIndex},
                            {"tick", e.tick},
                            {"action", e.action},
                            {"before", e.before},
                            {"after", e.after}});
    std::printf("%s\n", Json(Json::Object{{"applied", suggestion.label},
                                          {"complete", result.complete},
                                          {"changes", std::move(log)}})
                            .dump(JsonStyle::Pretty)
                            .c_str());
  } else {
    std::printf("%s\n", trf("適用しました: %@", {suggestion.label}).c_str());
    for (const auto& e : result.log)
      std::printf("  %s  %s → %s\n", d.barRuler().positionText(e.tick).c_str(), e.before.c_str(),
                  e.after.c_str());
  }
  if (!result.complete) {
    printError(tr("直し方が指す音符の一部が見つかりませんでした"));
    return 1;
  }
  return 0;
}

const bool registered = registerCommand(
    {"check", N_("曲を検査し、NEUTRINO が歌えない所と直し方を一覧にする"), 30,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("FILE", opts->file, tr("開くファイル"))->required();
       sub.add_flag("--json", opts->json, tr("JSON で出力する"));
       sub.add_option("--track", opts->track, tr("合成するトラック（0 から数える）"))
           ->type_name("N");
       sub.add_option("--engine", opts->engine, tr("NEUTRINO のフォルダ（声の音域を読む）"))
           ->type_name("DIR");
       sub.add_option("--apply", opts->apply, tr("一覧の直し方を1つ適用する（例: 3.2）"))
           ->type_name("ROW.N");
       sub.add_option("--out", opts->out, tr("直した曲を書き出すプロジェクトファイル"))
           ->type_name("OUT");
       sub.footer(tr("エラーが1つでもあれば終了コード 1 を返します。"));
       return [opts] {
         std::optional<MusicDocument> opened = openOrReport(opts->file);
         if (!opened) return 2;
         MusicDocument& d = *opened;
         const int count = static_cast<int>(d.tracks.size());
         std::vector<Uuid> sung;
         ValidatorOptions options;
         if (opts->track >= 0) {
           if (opts->track >= count) {
             printError(trf("トラック %@ はありません（0〜%@）",
                            {std::to_string(opts->track), std::to_string(count - 1)}));
             return 2;
           }
           options.selectedTrack = opts->track;
         } else {
           // As a render would: the voiced audible tracks, else the one the export would pick.
           for (int i : d.voicedTrackIndices(false)) sung.push_back(d.tracks[i].id);
         }
         const auto ranges = voiceRanges(d, opts->engine);
         auto rows = validate(d, sung, ranges, {}, options);
         if (!opts->apply.empty() || !opts->out.empty()) {
           if (opts->apply.empty() || opts->out.empty()) {
             printError(tr("--apply と --out は一緒に指定してください"));
             return 2;
           }
           return applyChoice(*opts, d, rows);
         }
         if (opts->json) {
           std::printf("%s\n", toJson(rows).dump(JsonStyle::Pretty).c_str());
         } else {
           printHuman(d, rows);
         }
         for (const auto& r : rows)
           if (r.severity == ValidationIssue::Severity::error) return 1;
         return 0;
       };
     }});

}  // namespace
}  // namespace melvo::cli
