// `melvo lyric`: how the engine reads each given lyric. The tool to reach for when a render
// fails on a lyric: it shows what was read, where reading stopped and why the validator
// flags it.
#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/text.h"

namespace melvo::cli {
namespace {

struct LyricOptions {
  std::vector<std::string> texts;
  bool json = false;
};

const char* stateText(ReadingKind kind) {
  switch (kind) {
    case ReadingKind::empty:
      return tr("空");
    case ReadingKind::unreadable:
      return tr("読めない");
    case ReadingKind::partial:
      return tr("一部だけ読める");
    case ReadingKind::readable:
      return tr("読める");
  }
  return "";
}

const char* classText(LyricClass c) {
  switch (c) {
    case LyricClass::utauMark:
      return tr("UTAU の記号");
    case LyricClass::digitsOrLatin:
      return tr("数字または英字");
    case LyricClass::otherNonKana:
      return tr("かな以外の文字");
    case LyricClass::decorationMark:
      return tr("飾り記号");
    case LyricClass::symbol:
      return tr("記号");
    case LyricClass::invisibleOnly:
      return tr("見えない文字だけ");
    case LyricClass::clean:
      return tr("問題なし");
  }
  return "";
}

Json stringArray(const std::vector<std::string>& items) {
  Json a = Json::array();
  for (const auto& s : items) a.push(Json(s));
  return a;
}

std::string joined(const std::vector<std::string>& items) {
  if (items.empty()) return tr("（なし）");
  std::string out;
  for (const auto& s : items) {
    if (!out.empty()) out += " / ";
    out += visibleLyric(s);
  }
  return out;
}

std::string orNone(const std::string& s) {
  return s.empty() ? tr("（なし）") : visibleLyric(s);
}

// Everything the rules say about one lyric. Morae and syllables are those of the export form,
// which is what the engine receives.
struct Report {
  std::string lyric;
  std::string exported;
  ReadingKind state;
  LyricReading reading;
  int phonemes;
  LyricClass cls;
  std::vector<std::string> morae;
  std::vector<std::string> syllables;
  std::optional<std::string> kanjiReading;
};

Report examine(const std::string& lyric) {
  Report r;
  r.lyric = lyric;
  r.exported = lyricForExport(lyric);
  r.state = readingState(lyric).kind;
  r.reading = readLyric(lyric);
  r.phonemes = countPhonemes(lyric);
  r.cls = classifyLyricChars(lyric);
  r.morae = splitMorae(r.exported);
  r.syllables = groupSyllables(r.exported);
  if (hasKanji(lyric)) r.kanjiReading = kanjiToHiragana(lyric);
  return r;
}

Json toJson(const Report& r) {
  Json o = Json::object();
  // Broken bytes as U+FFFD: the output must stay valid JSON whatever the shell passed in.
  o["lyric"] = text::fromScalars(text::toScalars(r.lyric));
  o["export"] = r.exported;
  o["state"] = readingKindName(r.state);
  o["units"] = stringArray(r.reading.units);
  o["readable"] = r.reading.readable;
  o["rest"] = r.reading.rest;
  o["phonemeCount"] = r.phonemes;
  o["class"] = lyricClassName(r.cls);
  o["morae"] = stringArray(r.morae);
  o["syllables"] = stringArray(r.syllables);
  if (r.kanjiReading) o["kanjiReading"] = *r.kanjiReading;
  return o;
}

void printHuman(const Report& r, std::ostream& out) {
  auto line = [&](const char* label, const std::string& value) {
    out << "  " << label << ": " << value << '\n';
  };
  out << trf("歌詞「%@」", {visibleLyric(r.lyric)}) << '\n';
  line(tr("書き出し形"), orNone(r.exported));
  line(tr("読み取り"), stateText(r.state));
  line(tr("単位"), joined(r.reading.units));
  line(tr("読めた部分"), orNone(r.reading.readable));
  line(tr("残り"), orNone(r.reading.rest));
  line(tr("音素数"), std::to_string(r.phonemes));
  // The code name is what scripts and the validator's logs use; shown when it reads differently.
  std::string cls = classText(r.cls);
  if (cls != lyricClassName(r.cls)) cls += std::string(" (") + lyricClassName(r.cls) + ")";
  line(tr("分類"), cls);
  line(tr("モーラ"), joined(r.morae));
  line(tr("音節"), joined(r.syllables));
  if (r.kanjiReading) line(tr("漢字の読み"), orNone(*r.kanjiReading));
  // The engine stops on a note with more phonemes than this.
  if (r.phonemes > 8)
    out << "  ⚠ " << tr("エンジンが 1 つの音符で読める音素は 8 個までです") << '\n';
}

const bool registered = registerCommand(
    {"lyric", N_("歌詞をエンジンがどう読むかを調べる"), 40, [](CLI::App& sub) -> CommandRun {
       auto options = std::make_shared<LyricOptions>();
       sub.add_option("TEXT", options->texts, tr("調べる歌詞（いくつでも）"))->required();
       sub.add_flag("--json", options->json, tr("結果を JSON の配列で出す"));
       sub.footer(tr("例: melvo lyric きゃっ ぢゃ 空 --json"));
       return [options] {
         if (options->json) {
           Json all = Json::array();
           for (const auto& text : options->texts) all.push(toJson(examine(text)));
           std::cout << all.dump(JsonStyle::Pretty) << '\n';
         } else {
           for (std::size_t i = 0; i < options->texts.size(); ++i) {
             if (i > 0) std::cout << '\n';
             printHuman(examine(options->texts[i]), std::cout);
           }
         }
         return 0;
       };
     }});

}  // namespace
}  // namespace melvo::cli
