// melvo snapshots list|restore|discard: the autosave copies from the command line, for a
// user whose editor crashed and for scripts.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "cli/command.h"
#include "cli/progress_line.h"
#include "melvo/app/auto_save_manager.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/event_loop.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"

namespace melvo::cli {
namespace {
namespace fs = std::filesystem;

struct Options {
  std::string project;
  bool json = false;
  std::string snapshot;
  std::string out;
  std::vector<std::string> discard;
  std::string session;
};

Json toJson(const AutoSaveSnapshot& s) {
  Json j = Json::object();
  j["path"] = s.url.string();
  j["date"] = s.date;
  j["label"] = s.label ? Json(*s.label) : Json(nullptr);
  j["manual"] = s.manual;
  j["noteCount"] = s.noteCount;
  j["title"] = s.title;
  j["projectPath"] = s.projectPath ? Json(*s.projectPath) : Json(nullptr);
  j["session"] = s.session;
  return j;
}

int list(const Options& o) {
  EventLoop loop;
  AutoSaveManager manager(loop);
  std::vector<AutoSaveSnapshot> found;
  if (!o.project.empty()) {
    manager.setProject(fs::absolute(o.project).lexically_normal().string());
    found = manager.listSnapshots();
  } else {
    found = manager.findRecoverable();
    for (auto& s : manager.listUnsavedSessionSnapshots()) {
      if (std::find(found.begin(), found.end(), s) == found.end()) found.push_back(std::move(s));
    }
  }
  if (o.json) {
    Json arr = Json::array();
    for (const auto& s : found) arr.push(toJson(s));
    std::printf("%s\n", arr.dump(JsonStyle::Pretty).c_str());
    return 0;
  }
  if (found.empty()) {
    std::printf("%s\n", tr("自動保存はありません"));
    return 0;
  }
  for (const auto& s : found) {
    std::string kind = s.manual ? tr("手動") : tr("自動");
    std::printf(
        "%s  %s  %s\n    %s\n    %s\n", localTime(s.date).c_str(), kind.c_str(),
        trf("「%@」 — %d音符", {s.label ? *s.label : s.title, std::to_string(s.noteCount)}).c_str(),
        s.url.c_str(), trf("セッション %@", {s.session.empty() ? "-" : s.session}).c_str());
  }
  return 0;
}

int restore(const Options& o) {
  EventLoop loop;
  AutoSaveManager manager(loop);
  auto snap = AutoSaveManager::readSnapshot(o.snapshot);
  if (!snap) {
    printError(trf("自動保存が見つかりません: %@", {o.snapshot}));
    return 1;
  }
  try {
    writeProject(AutoSaveManager::restore(*snap), o.out);
  } catch (const std::exception& e) {
    printError(e.what());
    return 1;
  }
  // Taken back: a crash copy is no longer offered (a file outside the folders is left alone).
  manager.settle(*snap);
  std::printf("%s\n", trf("「%@」を %@ へ復元しました", {snap->title, o.out}).c_str());
  return 0;
}

int discard(const Options& o) {
  EventLoop loop;
  AutoSaveManager manager(loop);
  if (!o.session.empty()) {
    if (!o.discard.empty()) {
      printError(tr("--session とファイルは一緒に指定できません"));
      return 2;
    }
    if (manager.discardSession(o.session) == 0) {
      printError(trf("このセッションの自動保存はありません: %@", {o.session}));
      return 1;
    }
    return 0;
  }
  if (o.discard.empty()) {
    printError(tr("破棄する自動保存のファイルか --session を指定してください"));
    return 2;
  }
  int status = 0;
  for (const auto& path : o.discard) {
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
      printError(trf("自動保存が見つかりません: %@", {path}));
      status = std::max(status, 1);
      continue;
    }
    // Only the copies in the autosave folders: a user's own project is never trashed here.
    auto snap = manager.snapshotAt(path);
    if (!snap) {
      printError(trf("自動保存のフォルダの中のファイルではありません: %@", {path}));
      status = 2;
      continue;
    }
    if (!AutoSaveManager::moveToTrash(*snap)) {
      printError(
          tr("ゴミ箱へ移せませんでした。この保存はそのまま残っています。Finder "
             "で表示して、手でゴミ箱へ移してください。"));
      status = std::max(status, 1);
      continue;
    }
    // Discarding a crash copy discards its session here, not just the newest of its copies.
    manager.settle(*snap);
  }
  return status;
}

const bool registered = registerCommand(
    {"snapshots", N_("自動保存とスナップショットを一覧・復元・破棄する"), 60,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.require_subcommand(1);
       auto* l =
           sub.add_subcommand("list", tr("復元できる自動保存、またはプロジェクトの履歴を表示する"));
       l->add_option("PROJECT", opts->project, tr("このプロジェクト（.nsproj）の履歴を新しい順に"));
       l->add_flag("--json", opts->json, tr("JSON で出力する"));
       auto* r =
           sub.add_subcommand("restore", tr("自動保存を新しいプロジェクトファイルとして書き出す"));
       r->add_option("SNAPSHOT", opts->snapshot, tr("自動保存のファイル"))->required();
       r->add_option("OUT", opts->out, tr("書き出す .nsproj"))->required();
       auto* d = sub.add_subcommand("discard", tr("自動保存をゴミ箱へ移す"));
       d->add_option("SNAPSHOT", opts->discard, tr("自動保存のファイル"));
       d->add_option("--session", opts->session,
                     tr("このセッションの自動保存を、復元候補からまとめて外す"));
       return [opts, l, r, d] {
         if (l->parsed()) return list(*opts);
         if (r->parsed()) return restore(*opts);
         if (d->parsed()) return discard(*opts);
         return 1;
       };
     }});

}  // namespace
}  // namespace melvo::cli
