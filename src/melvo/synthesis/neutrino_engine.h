// Drives the engine: turns the settings and a score into a bash script, runs it, and reports
// progress and log lines on the main queue. The script is the whole contract with the engine;
// its two tools are never called one by one.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "melvo/synthesis/neutrino_config.h"
#include "melvo/synthesis/progress_parser.h"
#include "melvo/synthesis/shell_runner.h"

namespace melvo {

class NEUTRINOEngine {
 public:
  using ProgressHandler =
      std::function<void(double percentage, const std::string& stage, std::optional<double> eta)>;
  using LogHandler = std::function<void(const std::string& line)>;
  // True when the script exited with status 0. Called once, on the main queue; when the run
  // cannot start it is called before synthesize()/revocode() returns.
  using DoneHandler = std::function<void(bool ok)>;

  explicit NEUTRINOEngine(EventLoop& mainQueue);

  // A full render: score to labels, labels to timing, curve and voice in `outputDir`.
  void synthesize(const NEUTRINOConfig& config, const std::filesystem::path& musicXML,
                  const std::filesystem::path& outputDir, ProgressHandler onProgress,
                  LogHandler onLog, DoneHandler onDone);
  // The late stages again from the edited timing.lab (and, with skipF0, the edited output.f0);
  // full.lab must be there from a full render.
  void revocode(const NEUTRINOConfig& config, const std::filesystem::path& outputDir, bool skipF0,
                ProgressHandler onProgress, LogHandler onLog, DoneHandler onDone);
  void cancel();
  bool isRunning() const { return shell_.isRunning(); }

  ShellRunner& shell() { return shell_; }
  const ProgressParser& progressParser() const { return progressParser_; }
  // The script of the current or last run (removed once the run has ended).
  const std::filesystem::path& lastScriptPath() const { return lastScript_; }

  // "'" becomes "'\''", and the whole is put in single quotes.
  static std::string shellQuoted(std::string_view path);
  // The optional tool switches of the settings, in fixed order, joined by blanks.
  static std::string optionsText(const NEUTRINOConfig& config);
  static std::string synthesisScript(const NEUTRINOConfig& config,
                                     const std::filesystem::path& musicXML,
                                     const std::filesystem::path& outputDir);
  static std::string revocodeScript(const NEUTRINOConfig& config,
                                    const std::filesystem::path& outputDir, bool skipF0);
  // Whether `line` is one of the progress lines that our own scripts echo (as opposed to what
  // the engine's tools print). A front end that shows progress as a bar need not repeat them.
  static bool isScriptProgressLine(std::string_view line);
  // Writes `script` to the temp folder as <prefix><UUID>.sh, mode 0755. Throws FileError.
  static std::filesystem::path writeScript(const std::string& script, std::string_view prefix);

 private:
  void start(std::string script, std::string_view prefix, const std::string& workingDir,
             const char* failureWords, ProgressHandler onProgress, LogHandler onLog,
             DoneHandler onDone);

  ShellRunner shell_;
  ProgressParser progressParser_;
  std::filesystem::path lastScript_;
};

}  // namespace melvo
