// melvo check FILE [--json] [--track N] [--engine DIR]: the score check as a list. Rows are
// numbered from 1 and their suggestions from 1 within the row, so "3.2" names one repair of
// one row; the list is the same for the same song, so the numbers stay valid between runs.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "melvo/checking/score_validator.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/importers/import_entry.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/text.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string file;
  bool json = false;
  int track = -1;
  std::string engine;
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
       sub.footer(tr("エラーが1つでもあれば終了コード 1 を返します。"));
       return [opts] {
         MusicDocument d;
         try {
           d = openDocument(opts->file);
         } catch (const OpenError& e) {
           printError(e.what());
           return 2;
         }
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
         std::unordered_map<Uuid, VoiceRange::Range> ranges;
         if (!opts->engine.empty()) ranges = SynthesisGate::voiceRanges(d, opts->engine);
         auto rows = validate(d, sung, ranges, {}, options);
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
