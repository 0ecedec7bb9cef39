// melvo fix IN OUT [--off SWITCH…] [--on SWITCH…] [--json]: the clean-up as one step, the
// result written as a project, and the report pass by pass. Only passes that really run are
// offered as switches, so a name that is accepted always means work done. The three findings
// that may be intended are treated as the user decided them, as the editor's clean-up does.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/app/cleanup_policy_store.h"
#include "melvo/app/preferences.h"
#include "melvo/checking/cleanup_engine.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string in, out;
  std::vector<std::string> off, on;
  bool json = false;
};

const CleanupSwitch* findSwitch(const std::string& name) {
  for (const auto& s : implementedCleanupSwitches())
    if (name == s.name) return &s;
  return nullptr;
}

std::string switchNames() {
  std::string out;
  for (const auto& s : implementedCleanupSwitches())
    out += std::string(out.empty() ? "" : ", ") + s.name;
  return out;
}

Json reportJson(const CleanupReport& r) {
  Json passes = Json::array();
  for (const auto& label : r.categoryOrder) {
    Json changes = Json::array();
    for (std::size_t i = 0; i < r.entries.size(); ++i) {
      if (r.entryCategories[i] != label) continue;
      const auto& e = r.entries[i];
      changes.push(Json::Object{{"action", e.action},
                                {"track", e.trackIndex},
                                {"tick", e.tick},
                                {"before", e.before},
                                {"after", e.after}});
    }
    passes.push(Json::Object{{"label", std::string(tr(label.c_str()))},
                             {"count", r.byCategory.at(label)},
                             {"changes", std::move(changes)}});
  }
  return Json::Object{{"passes", std::move(passes)},
                      {"pendingDecisions", r.pendingDecisions.size()},
                      {"sungNotesBecameZero", r.sungNotesBecameZero}};
}

int fix(const Options& o) {
  CleanupOptions options;
  for (const auto* list : {&o.off, &o.on})
    for (const auto& name : *list) {
      const CleanupSwitch* s = findSwitch(name);
      if (!s) {
        printError(trf("その切り替えはありません: %@（使えるのは %@）", {name, switchNames()}));
        return 2;
      }
      options.*(s->field) = list == &o.on;
    }
  std::optional<MusicDocument> opened = openOrReport(o.in);
  if (!opened) return 1;
  MusicDocument& d = *opened;
  std::vector<Uuid> sung;
  for (int i : d.voicedTrackIndices(false))
    sung.push_back(d.tracks[static_cast<std::size_t>(i)].id);
  Preferences preferences;
  const CleanupPolicyStore decisions(preferences);
  const CleanupResult result = runCleanup(d, options, sung, {}, decisions.policy());
  try {
    writeProject(result.document, o.out);
  } catch (const FileError& e) {
    printError(trf("保存に失敗しました: %@", {e.what()}));
    return 1;
  }
  const CleanupReport& r = result.report;
  if (o.json) {
    std::printf("%s\n", reportJson(r).dump(JsonStyle::Pretty).c_str());
  } else {
    for (const auto& label : r.categoryOrder)
      std::printf("%5d  %s\n", r.byCategory.at(label), tr(label.c_str()));
    std::printf("%s\n", trf("変更 %d 件", {std::to_string(r.entries.size())}).c_str());
    if (!r.pendingDecisions.empty())
      std::printf(
          "%s\n",
          trf("直すかどうか決めていない所が %d 件あります（melvo check で確かめてください）",
              {std::to_string(r.pendingDecisions.size())})
              .c_str());
  }
  if (r.sungNotesBecameZero)
    printError(tr("歌う音符が1つもなくなりました。元の曲を確かめてください。"));
  return 0;
}

const bool registered = registerCommand(
    {"fix", N_("歌詞と音符を自動で直し、結果をプロジェクトとして書き出す"), 35,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("IN", opts->in, tr("開くファイル"))->required();
       sub.add_option("OUT", opts->out, tr("書き出すプロジェクトファイル"))->required();
       sub.add_option("--off", opts->off, tr("止める直し方（切り替えの名前）"))
           ->type_name("SWITCH");
       sub.add_option("--on", opts->on, tr("入れる直し方（切り替えの名前）"))->type_name("SWITCH");
       sub.add_flag("--json", opts->json, tr("JSON で出力する"));
       sub.footer(trf("切り替え: %@", {switchNames()}));
       return [opts] { return fix(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
