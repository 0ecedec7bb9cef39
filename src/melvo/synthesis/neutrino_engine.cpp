#include "melvo/synthesis/neutrino_engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/paths.h"
#include "melvo/platform/uuid.h"
#include "melvo/synthesis/installation_finder.h"

namespace fs = std::filesystem;

namespace melvo {
namespace {

std::string q(const fs::path& p) {
  return NEUTRINOEngine::shellQuoted(p.string());
}

std::string exportLine(const NEUTRINOConfig& c) {
  return "export LD_LIBRARY_PATH=" + q(fs::path(c.neutrinoDirectory) / "bin") +
         "\":${LD_LIBRARY_PATH:-}\"";
}

// A tool call spread over lines: every item but the last ends in " \", and the items after
// the first are indented by four blanks.
std::string command(const std::vector<std::string>& items) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += "    ";
    out += items[i];
    out += i + 1 < items.size() ? " \\\n" : "\n";
  }
  return out;
}

std::string modelFolder(const NEUTRINOConfig& c, const std::string& name) {
  return q((fs::path(c.neutrinoDirectory) / "model" / name).string() + "/");
}

fs::path tool(const NEUTRINOConfig& c, const char* name) {
  return toolPath(fs::path(c.neutrinoDirectory) / "bin", name);
}

}  // namespace

NEUTRINOEngine::NEUTRINOEngine(EventLoop& mainQueue) : shell_(mainQueue) {}

std::string NEUTRINOEngine::shellQuoted(std::string_view path) {
  std::string out = "'";
  for (char c : path) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  out += "'";
  return out;
}

std::string NEUTRINOEngine::optionsText(const NEUTRINOConfig& c) {
  std::vector<std::string> items;
  if (c.transposeKey != 0) items.push_back("-f " + std::to_string(c.transposeKey));
  if (!c.supportModel.empty()) items.push_back("-S " + modelFolder(c, c.supportModel));
  if (c.useGpu) items.push_back(c.useBestGpu ? "-m" : "-g " + std::to_string(c.gpuId));
  if (c.singlePhraseMode) items.push_back("-p " + std::to_string(c.singlePhraseNumber));
  if (c.skipTiming) items.push_back("--skip-timing");
  if (c.skipF0) items.push_back("--skip-f0");
  if (c.skipMelspec) items.push_back("--skip-melspec");
  if (c.skipWav) items.push_back("--skip-wav");
  std::string out;
  for (const auto& i : items) out += (out.empty() ? "" : " ") + i;
  return out;
}

std::string NEUTRINOEngine::synthesisScript(const NEUTRINOConfig& c, const fs::path& musicXML,
                                            const fs::path& outputDir) {
  auto file = [&](const char* name) { return q(outputDir / name); };
  std::string s;
  s += "#!/bin/bash\n";
  s += "set -e\n";
  s += "\n";
  s += "# NEUTRINO 同梱の dylib を読み込めるようにする\n";
  s += exportLine(c) + "\n";
  s += "\n";
  s += "# 必要なサブディレクトリ\n";
  s += "mkdir -p " + q(outputDir) + "\n";
  s += "\n";
  s += "echo \"0% 合成開始...\"\n";
  s += "\n";
  s += "# ── ① MusicXML → ラベル（full + mono / timing）─────────────\n";
  s += "echo \"5% MusicXMLtoLabel 変換中...\"\n";
  s += command({q(tool(c, "musicXMLtoLabel")), q(musicXML), file("full.lab"), file("mono.lab")});
  s += "\n";
  s += "echo \"20% ラベル変換完了\"\n";
  s += "\n";
  s += "# ── ② NEUTRINO ニューラル推論 + 内蔵ボコーダー → WAV 直接生成 ──\n";
  s += "# オプション仕様（./bin/neutrino --help 準拠）\n";
  s += "#   -n i        : parallel threads\n";
  s += "#   -f i        : transpose (key)\n";
  s += "#   -S name     : support model dir\n";
  s += "#   -g i / -m   : GPU 指定\n";
  s += "#   -p i        : single phrase prediction\n";
  s += "#   -i filename : フレーズ情報トレース（後で UI から読む）\n";
  s += "echo \"25% ニューラル推論開始...\"\n";
  s += command({q(tool(c, "neutrino")), file("full.lab"), file("timing.lab"), file("output.f0"),
                file("output.melspec"), file("output.wav"), modelFolder(c, c.selectedCharacterName),
                "-n " + std::to_string(c.numThreads), "-i " + file("phrase_trace.txt"),
                optionsText(c), "-t"});
  s += "\n";
  s += "echo \"100% 合成完了\"";
  return s;
}

std::string NEUTRINOEngine::revocodeScript(const NEUTRINOConfig& config, const fs::path& outputDir,
                                           bool skipF0) {
  // The flags stand once: the settings' own skip switches are not repeated in the options.
  NEUTRINOConfig c = config;
  c.skipTiming = c.skipF0 = c.skipMelspec = c.skipWav = false;
  const std::string flags = skipF0 ? "--skip-timing --skip-f0" : "--skip-timing";
  auto file = [&](const char* name) { return q(outputDir / name); };
  std::string s;
  s += "#!/bin/bash\n";
  s += "set -e\n";
  s += exportLine(c) + "\n";
  s += "\n";
  s += "echo \"0% 編集された f0 / timing を元に再合成...\"\n";
  s += "echo \"10% neutrino 起動中（" + flags + "）...\"\n";
  s += "\n";
  s += command({q(tool(c, "neutrino")), file("full.lab"), file("timing.lab"), file("output.f0"),
                file("output.melspec"), file("output.wav"), modelFolder(c, c.selectedCharacterName),
                "-n " + std::to_string(c.numThreads), flags, optionsText(c), "-t"});
  s += "\n";
  s += "echo \"100% 再合成完了\"";
  return s;
}

bool NEUTRINOEngine::isScriptProgressLine(std::string_view line) {
  static constexpr std::string_view lines[] = {"0% 合成開始...",
                                               "5% MusicXMLtoLabel 変換中...",
                                               "20% ラベル変換完了",
                                               "25% ニューラル推論開始...",
                                               "100% 合成完了",
                                               "0% 編集された f0 / timing を元に再合成...",
                                               "10% neutrino 起動中（--skip-timing）...",
                                               "10% neutrino 起動中（--skip-timing --skip-f0）...",
                                               "100% 再合成完了"};
  for (std::string_view l : lines)
    if (line == l) return true;
  return false;
}

fs::path NEUTRINOEngine::writeScript(const std::string& script, std::string_view prefix) {
  fs::path path = paths::tempDir() / (std::string(prefix) + Uuid::random().toString() + ".sh");
  // A fresh name that only we know, read once by bash right after and removed after the run:
  // no rename is needed to keep a reader from half a file, and no fsync, which costs
  // milliseconds per run while a crash would make the file useless anyway.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0700);
  if (fd < 0) throw FileError(path.string() + ": " + std::strerror(errno));
  auto fail = [&](int err) {
    ::close(fd);
    ::unlink(path.c_str());
    throw FileError(path.string() + ": " + std::strerror(err));
  };
  // Set outright: the umask would otherwise decide.
  if (::fchmod(fd, 0755) != 0) fail(errno);
  for (std::size_t done = 0; done < script.size();) {
    const ssize_t n = ::write(fd, script.data() + done, script.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail(errno);
    done += static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0) {
    const int err = errno;
    ::unlink(path.c_str());
    throw FileError(path.string() + ": " + std::strerror(err));
  }
  return path;
}

void NEUTRINOEngine::synthesize(const NEUTRINOConfig& config, const fs::path& musicXML,
                                const fs::path& outputDir, ProgressHandler onProgress,
                                LogHandler onLog, DoneHandler onDone) {
  if (shell_.isRunning()) {
    onLog(tr("⚠ 既に合成プロセスが走っています。完了を待つかキャンセルしてください。"));
    onDone(false);
    return;
  }
  start(synthesisScript(config, musicXML, outputDir), "ns_run_", config.neutrinoDirectory,
        N_("⚠ 合成開始失敗: "), std::move(onProgress), std::move(onLog), std::move(onDone));
}

void NEUTRINOEngine::revocode(const NEUTRINOConfig& config, const fs::path& outputDir, bool skipF0,
                              ProgressHandler onProgress, LogHandler onLog, DoneHandler onDone) {
  if (shell_.isRunning()) {
    onLog(tr("⚠ 既に処理中です。完了を待つかキャンセルしてください。"));
    onDone(false);
    return;
  }
  start(revocodeScript(config, outputDir, skipF0), "ns_revocode_", config.neutrinoDirectory,
        N_("⚠ ボコーダ起動失敗: "), std::move(onProgress), std::move(onLog), std::move(onDone));
}

void NEUTRINOEngine::start(std::string script, std::string_view prefix,
                           const std::string& workingDir, const char* failureWords,
                           ProgressHandler onProgress, LogHandler onLog, DoneHandler onDone) {
  progressParser_ = ProgressParser{};
  fs::path scriptPath;
  try {
    scriptPath = writeScript(script, prefix);
    lastScript_ = scriptPath;
    // Lines reach us only while the runner lives, and the runner dies with this engine.
    shell_.run(
        scriptPath, workingDir,
        [this, onLog, onProgress](const std::string& line) {
          onLog(line);
          if (auto info = progressParser_.parse(line))
            onProgress(info->percentage, info->stage, info->eta);
        },
        [scriptPath, onDone](int status) {
          std::error_code ec;
          fs::remove(scriptPath, ec);
          onDone(status == 0);
        });
  } catch (const std::exception& e) {
    if (!scriptPath.empty()) {
      std::error_code ec;
      fs::remove(scriptPath, ec);
    }
    onLog(std::string(tr(failureWords)) + e.what());
    onDone(false);
  }
}

void NEUTRINOEngine::cancel() {
  shell_.cancel();
}

}  // namespace melvo
