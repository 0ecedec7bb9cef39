#include "cli/progress_line.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "melvo/platform/i18n.h"
#include "melvo/platform/reference_date.h"

namespace melvo::cli {

ProgressLine::ProgressLine() : terminal_(::isatty(STDERR_FILENO) == 1) {}

std::string remainingText(double seconds) {
  const long long s = std::llround(std::max(seconds, 0.0));
  return trf("残り約 %d分 %d秒", {std::to_string(s / 60), std::to_string(s % 60)});
}

std::string localTime(double referenceSecs) {
  std::time_t t = std::chrono::system_clock::to_time_t(fromReferenceSeconds(referenceSecs));
  std::tm local{};
  localtime_r(&t, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  return buf;
}

void ProgressLine::clear() {
  if (terminal_ && drawn_) std::fputs("\r\033[K", stderr);
  drawn_ = false;
}

std::optional<double> ProgressLine::estimate(double percentage, double elapsedSec) {
  if (elapsedSec < kEstimateAfterSec || percentage < kEstimateAfterPercent || percentage >= 100)
    return std::nullopt;
  const double left = elapsedSec * (100 - percentage) / percentage;
  // "0 min 0 s" would say nothing, or something false.
  if (left < 1) return std::nullopt;
  return left;
}

void ProgressLine::update(double percentage, const std::string& givenStage) {
  // A line that names no stage leaves the last one standing.
  const std::string stage = givenStage.empty() ? shownStage_ : givenStage;
  const auto now = std::chrono::steady_clock::now();
  if (!started_) started_ = now;
  if (std::isfinite(percentage)) highest_ = std::max(highest_, std::clamp(percentage, 0.0, 100.0));
  const int whole = static_cast<int>(highest_);
  const auto left = estimate(highest_, std::chrono::duration<double>(now - *started_).count());
  const std::string eta = left ? remainingText(*left) : "";
  if (!terminal_) {
    // Plain lines only when the number or the stage changes: the time left ticks too often.
    if (whole == shownPercent_ && stage == shownStage_) return;
    std::fprintf(stderr, "%3d%% %s\n", whole, stage.c_str());
  } else {
    if (whole == shownPercent_ && stage == shownStage_ && eta == shownEta_) return;
    draw(whole, stage, eta);
  }
  shownPercent_ = whole;
  shownStage_ = stage;
  shownEta_ = eta;
}

void ProgressLine::draw(int whole, const std::string& stage, const std::string& eta) {
  constexpr int width = 30;
  const int filled = whole * width / 100;
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.append(static_cast<std::size_t>(width - filled), '-');
  clear();
  std::fprintf(stderr, "[%s] %3d%% %s%s%s", bar.c_str(), whole, stage.c_str(),
               eta.empty() ? "" : "  ", eta.c_str());
  std::fflush(stderr);
  drawn_ = true;
  shownPercent_ = whole;
}

void ProgressLine::message(const std::string& line) {
  const bool redraw = drawn_;
  clear();
  std::fprintf(stderr, "%s\n", line.c_str());
  if (redraw) {
    // The bar goes on under the message, as it stood.
    const int percent = shownPercent_;
    shownPercent_ = -1;
    draw(percent, shownStage_, shownEta_);
  }
}

void ProgressLine::finish() {
  if (terminal_ && drawn_) std::fputs("\n", stderr);
  drawn_ = false;
}

}  // namespace melvo::cli
