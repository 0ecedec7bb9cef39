// melvo info FILE [--json]: what a song holds, at a glance.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"

namespace melvo::cli {
namespace {

struct Options {
  std::string file;
  bool json = false;
};

std::int64_t barCount(const MusicDocument& d) {
  std::int64_t end = d.endTick();
  return end == 0 ? 0 : d.barRuler().barNumber(end - 1);
}

// Rounded to tenths first, so 59.97 s reads "1:00.0" and never "0:60.0".
std::string formatSeconds(double s) {
  char buf[48];
  if (!std::isfinite(s) || s < 0) s = 0;
  const auto tenths = static_cast<long long>(std::llround(std::min(s, 1e15) * 10));
  std::snprintf(buf, sizeof buf, "%lld:%02lld.%lld", tenths / 600, tenths % 600 / 10, tenths % 10);
  return buf;
}

Json toJson(const MusicDocument& d) {
  Json j = Json::object();
  j["title"] = d.title;
  j["ppq"] = d.ppq;
  j["schemaVersion"] = d.schemaVersion;
  Json tracks = Json::array();
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    const auto& t = d.tracks[i];
    Json jt = Json::object();
    jt["index"] = i;
    jt["id"] = t.id.toString();
    jt["name"] = t.name;
    jt["voice"] = t.characterName;
    jt["notes"] = t.notes.size();
    jt["isMuted"] = t.isMuted;
    jt["isSolo"] = t.isSolo;
    jt["volume"] = t.volume;
    jt["pan"] = t.pan;
    tracks.push(std::move(jt));
  }
  j["tracks"] = std::move(tracks);
  Json tempo = Json::array();
  for (const auto& e : d.sortedTempoMap())
    tempo.push(Json::Object{{"tick", e.tick}, {"bpm", e.bpm}});
  j["tempoMap"] = std::move(tempo);
  Json meters = Json::array();
  const BarRuler ruler = d.barRuler();
  for (const auto& s : ruler.signatures()) {
    meters.push(
        Json::Object{{"tick", s.tick}, {"numerator", s.numerator}, {"denominator", s.denominator}});
  }
  j["timeSignatures"] = std::move(meters);
  j["endTick"] = d.endTick();
  j["bars"] = barCount(d);
  j["seconds"] = d.seconds(d.endTick());
  Json notices = Json::array();
  for (const auto& n : d.importNotices) {
    notices.push(Json::Object{{"key", n.kind->key},
                              {"severity", std::string(severityName(n.kind->severity))},
                              {"count", n.count}});
  }
  j["notices"] = std::move(notices);
  return j;
}

void printHuman(const MusicDocument& d, const std::string& file) {
  std::printf("%s\n", trf("曲名: %@", {d.title}).c_str());
  std::printf("%s\n", trf("ファイル: %@", {file}).c_str());
  std::printf(
      "%s\n",
      trf("分解能 %@ / 形式 %@", {std::to_string(d.ppq), std::to_string(d.schemaVersion)}).c_str());
  std::printf("%s\n", trf("トラック (%@):", {std::to_string(d.tracks.size())}).c_str());
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    const auto& t = d.tracks[i];
    std::string flags;
    if (t.isMuted) flags += std::string("  ") + tr("[消音]");
    if (t.isSolo) flags += std::string("  ") + tr("[ソロ]");
    std::string voice = t.characterName.empty() ? tr("（なし）") : t.characterName;
    std::printf("  %zu  %s  %s  %s%s\n", i, t.name.c_str(), trf("声: %@", {voice}).c_str(),
                trf("音符: %@", {std::to_string(t.notes.size())}).c_str(), flags.c_str());
  }
  const BarRuler ruler = d.barRuler();
  std::printf("%s\n", tr("テンポ:"));
  if (d.tempoMap.empty()) std::printf("  %s\n", tr("（なし、120 BPM として扱います）"));
  for (const auto& e : d.sortedTempoMap()) {
    std::printf("  %s  %s\n", ruler.positionText(e.tick).c_str(),
                trf("%@ BPM", {compactNumber(e.bpm)}).c_str());
  }
  std::printf("%s\n", tr("拍子:"));
  for (const auto& s : ruler.signatures()) {
    std::printf("  %s  %d/%d\n", ruler.positionText(s.tick).c_str(), s.numerator, s.denominator);
  }
  std::printf("%s\n", trf("長さ: %@ ティック、%@ 小節、%@",
                          {std::to_string(d.endTick()), std::to_string(barCount(d)),
                           formatSeconds(d.seconds(d.endTick()))})
                          .c_str());
  if (d.importNotices.empty()) {
    std::printf("%s\n", tr("読み込みの知らせ: なし"));
  } else {
    std::printf("%s\n", tr("読み込みの知らせ:"));
    for (const auto& n : d.importNotices) {
      std::printf("  %s  %s  %s\n", n.kind->key,
                  std::string(severityName(n.kind->severity)).c_str(),
                  trf("%@ か所", {std::to_string(n.count)}).c_str());
    }
  }
}

const bool registered = registerCommand(
    {"info", N_("曲の中身（トラック、テンポ、拍子、長さ、読み込みの知らせ）を表示する"), 10,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("FILE", opts->file, tr("開くファイル（.nsproj）"))->required();
       sub.add_flag("--json", opts->json, tr("JSON で出力する"));
       return [opts] {
         std::optional<MusicDocument> opened = openOrReport(opts->file);
         if (!opened) return 1;
         MusicDocument& d = *opened;
         if (opts->json) {
           std::printf("%s\n", toJson(d).dump(JsonStyle::Pretty).c_str());
         } else {
           printHuman(d, opts->file);
         }
         return 0;
       };
     }});

}  // namespace
}  // namespace melvo::cli
