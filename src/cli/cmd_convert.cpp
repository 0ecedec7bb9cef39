// melvo convert IN OUT: open any readable song and write it in the format of OUT's extension.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "melvo/importers/import_entry.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string in, out;
};

int convert(const Options& o) {
  const std::string ext = text::asciiLower(std::filesystem::path(o.out).extension().string());
  if (ext != ".nsproj") {
    printError(trf("この形式では書き出せません: %@", {o.out}));
    return 2;
  }
  MusicDocument d;
  try {
    d = openDocument(o.in);
  } catch (const OpenError& e) {
    printError(e.what());
    return 1;
  }
  try {
    writeProject(d, o.out);
  } catch (const FileError& e) {
    printError(trf("保存に失敗しました: %@", {e.what()}));
    return 1;
  }
  return 0;
}

const bool registered =
    registerCommand({"convert", N_("曲を別の形式に書き出す（出力の拡張子で形式を選ぶ）"), 20,
                     [](CLI::App& sub) -> CommandRun {
                       auto opts = std::make_shared<Options>();
                       sub.add_option("IN", opts->in, tr("読むファイル"))->required();
                       sub.add_option("OUT", opts->out, tr("書くファイル（.nsproj）"))->required();
                       sub.alias("export");
                       return [opts] { return convert(*opts); };
                     }});

}  // namespace
}  // namespace melvo::cli
