// melvo engine status|discover|voices|use|fix: finding the engine, checking that it runs,
// and pointing Melvo at it.
#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "cli/command.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/synthesis/installation_finder.h"
#include "melvo/synthesis/neutrino_config.h"
#include "melvo/synthesis/setup_helper.h"

namespace fs = std::filesystem;

namespace melvo::cli {
namespace {

namespace finder = NEUTRINOInstallationFinder;

struct Options {
  std::string dir;
  bool json = false;
};

NEUTRINOConfig loadConfig() {
  return NEUTRINOConfig::load().value_or(NEUTRINOConfig{});
}

// The folder given, else the configured one; empty with a message when there is neither.
std::string folderOrConfigured(const std::string& given) {
  if (!given.empty()) return fs::absolute(given).lexically_normal().string();
  std::string configured = loadConfig().neutrinoDirectory;
  // The window's words point at a gear and a menu; here the command that sets it is named.
  if (configured.empty())
    printError(
        tr("NEUTRINOフォルダが設定されていません。melvo engine use DIR で指定してください"
           "（探すには melvo engine discover）。"));
  return configured;
}

// The checks start the engine and wait for it for up to 8 s each. Ctrl-C, SIGTERM or a closed
// terminal during that time must end the check's processes too, not only this one: the
// handler only raises a flag that the check looks at while it waits.
std::atomic<bool> stopRequested{false};
std::atomic<int> stopSignal{0};

extern "C" void requestStop(int signal) {
  stopSignal = signal;
  stopRequested = true;
}

class StopOnSignals {
 public:
  StopOnSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &action, &previous_[i]);
  }
  ~StopOnSignals() {
    for (std::size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &previous_[i], nullptr);
  }
  StopOnSignals(const StopOnSignals&) = delete;
  StopOnSignals& operator=(const StopOnSignals&) = delete;
  // 128 + the signal once one came, as a shell reports a process that the signal killed.
  static std::optional<int> exitStatus() {
    if (!stopRequested) return std::nullopt;
    return 128 + stopSignal.load();
  }

 private:
  static constexpr int kSignals[3] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction previous_[3]{};
};

const char* mark(bool ok) {
  return ok ? "✓" : "✗";
}

int runStatus(const Options& o) {
  const std::string dir = folderOrConfigured(o.dir);
  if (dir.empty()) return 1;
  const auto s = finder::status(dir);
  std::error_code ec;
  const bool hasBin = fs::is_directory(fs::path(dir) / "bin", ec);
  const bool hasModel = fs::is_directory(fs::path(dir) / "model", ec);
  StopOnSignals stopper;
  const auto check = finder::checkExecutable(dir, finder::defaultCheckTimeout, &stopRequested);
  if (auto status = StopOnSignals::exitStatus()) return *status;
  const bool runs = std::holds_alternative<finder::Ok>(check);
  std::string checkName = runs ? "ok" : "missing";
  std::string detail;
  if (auto* b = std::get_if<finder::Broken>(&check)) {
    checkName = "broken";
    detail = b->detail;
  }
  // The settings screen's check list, in its order, for both outputs.
  const std::pair<const char*, bool> rows[] = {
      {tr("bin フォルダ"), hasBin},
      {tr("model フォルダ"), hasModel},
      {tr("合成エンジン (neutrino)"), s.hasNEUTRINO},
      {tr("楽譜の変換 (musicXMLtoLabel)"), s.hasMusicXMLtoLabel},
      {tr("NEUTRINO を試しに起動できる"), runs}};
  if (o.json) {
    Json j = Json::object();
    j["path"] = s.path;
    j["isValid"] = s.isValid;
    j["hasBin"] = hasBin;
    j["hasModel"] = hasModel;
    j["hasNEUTRINO"] = s.hasNEUTRINO;
    j["hasNSF_IO"] = s.hasNSF_IO;
    j["hasWORLD"] = s.hasWORLD;
    j["hasMusicXMLtoLabel"] = s.hasMusicXMLtoLabel;
    j["characterCount"] = s.characterCount;
    Json names = Json::array();
    for (const auto& n : s.characterNames) names.push(n);
    j["characterNames"] = std::move(names);
    j["check"] = checkName;
    j["checkDetail"] = detail;
    Json checks = Json::array();
    for (const auto& [label, ok] : rows) checks.push(Json::Object{{"label", label}, {"ok", ok}});
    j["checks"] = std::move(checks);
    std::printf("%s\n", j.dump(JsonStyle::Pretty).c_str());
  } else {
    std::printf("%s\n", dir.c_str());
    for (const auto& [label, ok] : rows) std::printf("  %s %s\n", mark(ok), label);
    if (!detail.empty()) std::printf("      %s\n", detail.c_str());
    std::printf("%s\n", trf("声: %@", {std::to_string(s.characterCount)}).c_str());
    for (const auto& n : s.characterNames) std::printf("  %s\n", n.c_str());
  }
  return s.isValid && runs ? 0 : 1;
}

int runDiscover(const Options& o) {
  const auto found = finder::discover();
  std::optional<std::string> best;
  StopOnSignals stopper;
  for (const auto& p : found) {
    const auto check = finder::checkExecutable(p, finder::defaultCheckTimeout, &stopRequested);
    if (auto status = StopOnSignals::exitStatus()) return *status;
    if (std::holds_alternative<finder::Ok>(check)) {
      best = p;
      break;
    }
  }
  if (!best && !found.empty()) best = found.front();
  if (o.json) {
    Json list = Json::array();
    for (const auto& p : found) list.push(Json::Object{{"path", p}, {"best", best && *best == p}});
    std::printf("%s\n", list.dump(JsonStyle::Pretty).c_str());
    return 0;
  }
  if (found.empty()) {
    std::printf("%s\n", tr("NEUTRINO は見つかりませんでした"));
    return 1;
  }
  for (const auto& p : found) std::printf("%s %s\n", best && *best == p ? "*" : " ", p.c_str());
  return 0;
}

int runVoices(const Options& o) {
  const std::string dir = folderOrConfigured(o.dir);
  if (dir.empty()) return 1;
  const auto voices = scanCharacters(dir);
  if (o.json) {
    Json list = Json::array();
    for (const auto& v : voices)
      list.push(Json::Object{{"name", v.name}, {"directoryPath", v.directoryPath}});
    std::printf("%s\n", list.dump(JsonStyle::Pretty).c_str());
  } else {
    for (const auto& v : voices) std::printf("%s\n", v.name.c_str());
    if (voices.empty()) std::printf("%s\n", tr("声が見つかりません（model/ が空です）"));
  }
  return 0;
}

int runUse(const Options& o) {
  const std::string dir = fs::absolute(o.dir).lexically_normal().string();
  if (!finder::isInstallation(dir)) {
    printError(
        trf("%@ に NEUTRINO が見つかりません（bin/ に neutrino と musicXMLtoLabel が必要です）",
            {dir}));
    return 1;
  }
  NEUTRINOConfig config = loadConfig();
  config.neutrinoDirectory = dir;
  const auto voices = scanCharacters(dir);
  bool kept = false;
  for (const auto& v : voices) kept |= v.name == config.selectedCharacterName;
  if (!kept) config.selectedCharacterName = voices.empty() ? "" : voices.front().name;
  try {
    config.save();
  } catch (const std::exception& e) {
    printError(e.what());
    return 1;
  }
  std::printf("%s\n", trf("NEUTRINO フォルダ: %@", {dir}).c_str());
  std::printf("%s\n", trf("声: %@", {config.selectedCharacterName}).c_str());
  return 0;
}

int runFix(const Options& o) {
  const std::string dir = fs::absolute(o.dir).lexically_normal().string();
  const auto before = NEUTRINOSetupHelper::status(dir);
  if (!before.neutrinoDirOK) {
    printError(tr("⚠ bin/ フォルダが見つかりません"));
    return 1;
  }
  if (before.executablesMissing.empty()) {
    std::printf("%s\n", tr("実行準備 OK：このまま合成できます"));
    return 0;
  }
  std::printf("%s\n", tr("• 実行権限が無いバイナリ："));
  for (const auto& name : before.executablesMissing) std::printf("  %s\n", name.c_str());
  const bool ok = NEUTRINOSetupHelper::fix(
      dir, [](const std::string& line) { std::printf("%s\n", line.c_str()); });
  std::printf("%s\n", ok ? tr("✅ 解除完了") : tr("⚠ 解除に失敗した項目があります"));
  return ok ? 0 : 1;
}

CommandRun withDir(CLI::App& sub, bool required, bool json, int (*run)(const Options&)) {
  auto opts = std::make_shared<Options>();
  auto* dir = sub.add_option("DIR", opts->dir, tr("NEUTRINO フォルダ"));
  if (required) dir->required();
  if (json) sub.add_flag("--json", opts->json, tr("JSON で出力する"));
  return [opts, run] { return run(*opts); };
}

const bool registered = registerCommand(
    {"engine", N_("NEUTRINO を探す・確かめる・設定する"), 60, [](CLI::App& app) -> CommandRun {
       app.require_subcommand(1);
       auto choice = std::make_shared<CommandRun>();
       auto add = [&](const char* name, const char* help, bool required, bool json,
                      int (*run)(const Options&)) {
         auto* sub = app.add_subcommand(name, help);
         auto body = withDir(*sub, required, json, run);
         sub->callback([choice, body] { *choice = body; });
       };
       add("status", tr("フォルダの中身と、NEUTRINO が起動できるかを確かめる"), false, true,
           runStatus);
       auto* discover = app.add_subcommand("discover", tr("この計算機の NEUTRINO を探す"));
       auto discoverOpts = std::make_shared<Options>();
       discover->add_flag("--json", discoverOpts->json, tr("JSON で出力する"));
       discover->callback([choice, discoverOpts] {
         *choice = [discoverOpts] { return runDiscover(*discoverOpts); };
       });
       add("voices", tr("フォルダの声（model/ の中）を一覧にする"), false, true, runVoices);
       add("use", tr("このフォルダの NEUTRINO を使うよう設定する"), true, false, runUse);
       add("fix", tr("bin/ の実行権限を直す"), true, false, runFix);
       return [choice] { return *choice ? (*choice)() : 1; };
     }});

}  // namespace
}  // namespace melvo::cli
