#include "melvo/synthesis/setup_helper.h"

#include <sys/stat.h>
#include <unistd.h>

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "melvo/synthesis/child_process.h"

namespace fs = std::filesystem;

namespace melvo {
namespace NEUTRINOSetupHelper {

Status status(const fs::path& directory) {
  Status s;
  std::error_code ec;
  const fs::path bin = directory / "bin";
  s.neutrinoDirOK = fs::is_directory(bin, ec);
  if (!s.neutrinoDirOK) return s;
  for (const char* name : {"neutrino", "NEUTRINO", "musicXMLtoLabel", "MusicXMLtoLabel"}) {
    const fs::path p = bin / name;
    if (fs::exists(p, ec) && ::access(p.c_str(), X_OK) != 0) s.executablesMissing.push_back(name);
  }
  return s;
}

bool fix(const fs::path& directory, const std::function<void(const std::string&)>& log) {
  const fs::path bin = directory / "bin";
  log(std::string(tr("→ chmod -R 755 ")) + bin.string() + tr(" を実行中..."));
  const bool ok = child::runAndWait({"/bin/chmod", "-R", "755", bin.string()}) == 0;
  if (!ok) log(tr("⚠ chmod に失敗（権限不足の可能性）"));
  // There is no quarantine attribute to clear on Linux, so the second step of the other OS
  // has nothing to do here.
  log(ok ? tr("✅ NEUTRINO バイナリの実行準備が完了しました")
         : tr("⚠ 部分的に失敗。手動で確認してください"));
  return ok;
}

}  // namespace NEUTRINOSetupHelper

namespace BundledEngine {
namespace {

bool holdsEngine(const fs::path& dir) {
  std::error_code ec;
  const fs::path bin = dir / "bin";
  auto any = [&](std::initializer_list<const char*> names) {
    for (const char* n : names)
      if (fs::exists(bin / n, ec)) return true;
    return false;
  };
  return fs::is_directory(bin, ec) && any({"neutrino", "NEUTRINO"}) &&
         any({"musicXMLtoLabel", "MusicXMLtoLabel"});
}

}  // namespace

std::optional<fs::path> resourceFolder() {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return std::nullopt;
  fs::path dir = exe.parent_path().parent_path() / "share" / "melvo" / "NEUTRINO";
  if (holdsEngine(dir)) return dir;
  return std::nullopt;
}

fs::path installRoot() {
  return paths::dataDir() / "NEUTRINO";
}

std::optional<fs::path> installedPath(const std::string& configured,
                                      const std::optional<fs::path>& resources) {
  std::error_code ec;
  const fs::path root = installRoot();
  if (fs::exists(root / markerName, ec)) return root;
  if (resources) return *resources;
  if (!configured.empty() && fs::exists(configured, ec)) return fs::path(configured);
  return std::nullopt;
}

void installBundledIfNeeded(const std::optional<fs::path>& resources,
                            const std::function<void(const SetupState&)>& onChange) {
  if (!resources) return;
  const fs::path root = installRoot();
  SetupState s;
  std::error_code ec;
  if (fs::exists(root / markerName, ec)) {
    s.stage = tr("セットアップ済み");
    s.progress = 1.0;
    s.done = true;
    onChange(s);
    return;
  }
  s.running = true;
  s.stage = tr("NEUTRINO を書き込み可能領域に展開中...");
  onChange(s);
  try {
    fs::remove_all(root, ec);  // nothing there is fine
    fs::create_directories(root.parent_path());
    fs::copy(*resources, root, fs::copy_options::recursive);
    for (const auto& entry : fs::directory_iterator(root / "bin"))
      fs::permissions(entry.path(), static_cast<fs::perms>(0755), fs::perm_options::replace);
    writeFileAtomically(root / markerName, "v1");
    s.stage = tr("セットアップ完了");
  } catch (const std::exception& e) {
    s.stage = std::string(tr("コピー失敗: ")) + e.what();
  }
  s.running = false;
  s.progress = 1.0;
  s.done = true;
  onChange(s);
}

}  // namespace BundledEngine
}  // namespace melvo
