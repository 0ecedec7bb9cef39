// melvo edit FILE [--out OUT] -e 'OP ARGS' … | --script FILE [--dry-run]: the note editing
// operations of the editor, driven without a window. Operations run in order on one editor
// model, each one undo step as in the editor; with --dry-run nothing is written and every
// operation shows what it would change. All operations are read and checked before the first
// one runs, so a typo changes nothing.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "cli/command.h"
#include "cli/open_song.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"

namespace melvo::cli {
namespace {

// ---- The operations a script may name ----

enum class ArgKind { integer, pitch, quantize, text, word };

struct OpSyntax {
  const char* name;
  const char* usage;        // arguments as --help shows them
  const char* description;  // catalogue key
  std::vector<ArgKind> args;
  bool restIsText = false;  // the last argument takes the rest of the line
  std::size_t optionalFrom = static_cast<std::size_t>(-1);
};

const std::vector<OpSyntax>& opSpecs() {
  using A = ArgKind;
  static const std::vector<OpSyntax> syntaxes = {
      {"track", "N", N_("今のトラックを選ぶ（0 から数える）"), {A::integer}},
      {"select",
       "all|none|I,J,K|I-J",
       N_("今のトラックの音符を tick 順の番号（0 から）で選ぶ"),
       {A::word}},
      {"select-range",
       "FROM TO",
       N_("tick が FROM 以上 TO 未満で始まる音符を選ぶ"),
       {A::integer, A::integer}},
      {"grid",
       "VALUE",
       N_("グリッドを決める（1/1 1/2 1/4 1/8 1/16 1/32 1/4T 1/8T）"),
       {A::quantize}},
      {"note-length", "VALUE", N_("新しい音符の長さを決める（グリッドと同じ値）"), {A::quantize}},
      {"scale",
       "MODE [TYPE ROOT]",
       N_("スケールアシスト（off display warn lock、スケール名、根音）"),
       {A::word, A::word, A::pitch},
       false,
       1},
      {"add",
       "TICK PITCH",
       N_("音符を置く（グリッドに合わせ、新しい音符の長さで）"),
       {A::integer, A::pitch}},
      {"move", "DTICK DPITCH", N_("選んだ音符を動かす"), {A::integer, A::integer}},
      {"resize", "DTICK", N_("選んだ音符の長さを変える"), {A::integer}},
      {"length", "VALUE", N_("選んだ音符の長さをそろえる"), {A::quantize}},
      {"split",
       "INDEX TICK",
       N_("音符を TICK に近いグリッドの位置で2つに分ける"),
       {A::integer, A::integer}},
      {"merge", "", N_("選んだ隣どうしの音符を1つにする（高さが違えばスラーでつなぐ）"), {}},
      {"delete", "", N_("選んだ音符を消す"), {}},
      {"cut", "", N_("選んだ音符を切り取る"), {}},
      {"copy", "", N_("選んだ音符をコピーする"), {}},
      {"paste", "TICK", N_("コピーした音符を TICK から貼り付ける"), {A::integer}},
      {"paste-text",
       "TEXT",
       N_("テキストを貼り付ける（音符の形式なら音符を今の再生位置に、ほかは歌詞として）"),
       {A::text},
       true},
      {"transpose", "N", N_("選んだ音符を半音 N 個ずらす"), {A::integer}},
      {"velocity", "V", N_("選んだ音符の強さ（1〜127）"), {A::integer}},
      {"lyric", "INDEX TEXT", N_("1つの音符の歌詞"), {A::integer, A::text}, true},
      {"lyrics", "TEXT", N_("歌詞の一括入力"), {A::text}, true},
      {"breath", "", N_("選んだ音符の後のブレスを入れる・消す"), {}},
      {"insert-time", "TICK TICKS", N_("TICK に時間を挿入する"), {A::integer, A::integer}},
      {"delete-time", "TICK TICKS", N_("TICK から時間を削除する"), {A::integer, A::integer}},
      {"playhead", "TICK", N_("再生位置を決める"), {A::integer}},
      {"undo", "", N_("取り消す"), {}},
      {"redo", "", N_("やり直す"), {}},
  };
  return syntaxes;
}

const OpSyntax* findSyntax(std::string_view name) {
  for (const auto& s : opSpecs())
    if (name == s.name) return &s;
  return nullptr;
}

std::string helpFooter() {
  std::string out = tr("操作（-e に1つずつ、またはスクリプトに1行ずつ。# から後は注釈）:");
  out += '\n';
  for (const auto& s : opSpecs()) {
    std::string head = std::string("  ") + s.name + (s.usage[0] ? " " : "") + s.usage;
    if (head.size() < 30) head.resize(30, ' ');
    out += head + "  " + tr(s.description) + '\n';
  }
  out +=
      tr("音の高さは 60 のような番号か C4・F#3 のような名前。音符の番号は今のトラックの tick 順。");
  std::string scales;
  for (int i = 0; i < kScaleTypeCount; ++i)
    scales += std::string(i ? " " : "") + std::string(scaleRawValue(scaleTypeAt(i)));
  out += '\n' + trf("スケール: %@", {scales});
  return out;
}

// ---- Reading operations ----

struct Op {
  const OpSyntax* syntax = nullptr;
  std::string line;  // as written, for the report
  std::vector<std::int64_t> numbers;
  std::vector<std::string> words;  // word and text arguments, in order
  std::optional<QuantizeValue> quantize;
};

std::optional<int> parsePitch(const std::string& text) {
  if (text.empty()) return std::nullopt;
  try {
    std::size_t used = 0;
    const int n = std::stoi(text, &used);
    if (used == text.size() && n >= 0 && n <= 127) return n;
  } catch (const std::exception&) {
  }
  static const std::map<char, int> steps = {{'C', 0}, {'D', 2}, {'E', 4}, {'F', 5},
                                            {'G', 7}, {'A', 9}, {'B', 11}};
  const auto step =
      steps.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text[0]))));
  if (step == steps.end()) return std::nullopt;
  std::size_t i = 1;
  int pitch = step->second;
  if (i < text.size() && (text[i] == '#' || text[i] == 'b')) pitch += text[i++] == '#' ? 1 : -1;
  try {
    std::size_t used = 0;
    const std::string rest = text.substr(i);
    const int octave = std::stoi(rest, &used);
    if (used != rest.size()) return std::nullopt;
    pitch += (octave + 1) * 12;
  } catch (const std::exception&) {
    return std::nullopt;
  }
  if (pitch < 0 || pitch > 127) return std::nullopt;
  return pitch;
}

std::optional<std::int64_t> parseInteger(const std::string& text) {
  try {
    std::size_t used = 0;
    const long long v = std::stoll(text, &used);
    if (used == text.size()) return v;
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

std::string trim(std::string_view s) {
  const auto a = s.find_first_not_of(" \t\r\n");
  if (a == std::string_view::npos) return {};
  const auto b = s.find_last_not_of(" \t\r\n");
  return std::string(s.substr(a, b - a + 1));
}

// One operation; an error text when it cannot be read.
std::variant<Op, std::string> parseOp(const std::string& rawLine) {
  const std::string line = trim(rawLine);
  Op op;
  op.line = line;
  std::size_t pos = 0;
  auto nextToken = [&]() -> std::optional<std::string> {
    while (pos < line.size() && std::isspace(static_cast<unsigned char>(line[pos]))) ++pos;
    if (pos >= line.size()) return std::nullopt;
    const std::size_t start = pos;
    while (pos < line.size() && !std::isspace(static_cast<unsigned char>(line[pos]))) ++pos;
    return line.substr(start, pos - start);
  };
  const std::string name = nextToken().value_or("");
  op.syntax = findSyntax(name);
  if (!op.syntax) return trf("その操作はありません: %@", {name});
  const OpSyntax& s = *op.syntax;
  const std::string usage = std::string(s.name) + (s.usage[0] ? " " : "") + s.usage;
  const std::string bad = trf("%@ の引数が違います（%@）", {s.name, usage});
  for (std::size_t i = 0; i < s.args.size(); ++i) {
    if (s.args[i] == ArgKind::text && s.restIsText && i + 1 == s.args.size()) {
      const std::string rest = trim(std::string_view(line).substr(pos));
      if (rest.empty()) return bad;
      op.words.push_back(rest);
      pos = line.size();
      break;
    }
    const std::optional<std::string> token = nextToken();
    if (!token) {
      if (i >= s.optionalFrom) break;
      return bad;
    }
    switch (s.args[i]) {
      case ArgKind::integer: {
        auto v = parseInteger(*token);
        if (!v) return bad;
        op.numbers.push_back(*v);
        break;
      }
      case ArgKind::pitch: {
        auto v = parsePitch(*token);
        if (!v) return bad;
        op.numbers.push_back(*v);
        break;
      }
      case ArgKind::quantize:
        op.quantize = quantizeFromName(*token);
        if (!op.quantize) return bad;
        break;
      case ArgKind::word:
      case ArgKind::text:
        op.words.push_back(*token);
        break;
    }
  }
  if (nextToken()) return bad;
  // The words of select and scale are checked here, so that a bad one stops the run early.
  if (name == "select") {
    const std::string& w = op.words[0];
    if (w != "all" && w != "none" && w.find_first_not_of("0123456789,-") != std::string::npos)
      return bad;
  }
  if (name == "scale") {
    if (!modeFromRaw(op.words[0])) return bad;
    if (op.words.size() > 1 && (!scaleFromRaw(op.words[1]) || op.numbers.empty())) return bad;
  }
  return op;
}

// ---- What an operation changed ----

std::string describe(const NoteEvent& n) {
  return pitchName(n.pitch) + " @" + std::to_string(n.tick) + "+" + std::to_string(n.duration) +
         " \"" + n.lyric + "\"" + (n.slurToNext ? " slur" : "") +
         (n.hasBreathAfter ? " breath" : "") + " v" + std::to_string(n.velocity);
}

struct Change {
  std::size_t added = 0, removed = 0, changed = 0;
  bool maps = false;
  std::vector<std::string> lines;
};

Change diff(const MusicDocument& before, const MusicDocument& after) {
  Change c;
  c.maps = before.tempoMap != after.tempoMap || before.timeSignatures != after.timeSignatures ||
           before.keySignatures != after.keySignatures;
  std::unordered_map<Uuid, const NoteEvent*> old;
  for (const auto& t : before.tracks)
    for (const auto& n : t.notes) old.emplace(n.id, &n);
  std::unordered_map<Uuid, bool> seen;
  for (std::size_t ti = 0; ti < after.tracks.size(); ++ti) {
    const std::string where = "  [" + std::to_string(ti) + "] ";
    for (const auto& n : after.tracks[ti].notes) {
      seen[n.id] = true;
      auto it = old.find(n.id);
      if (it == old.end()) {
        ++c.added;
        c.lines.push_back(where + "+ " + describe(n));
      } else if (!(*it->second == n)) {
        ++c.changed;
        c.lines.push_back(where + "~ " + describe(*it->second) + "  ->  " + describe(n));
      }
    }
  }
  for (std::size_t ti = 0; ti < before.tracks.size(); ++ti)
    for (const auto& n : before.tracks[ti].notes)
      if (!seen.count(n.id)) {
        ++c.removed;
        c.lines.push_back("  [" + std::to_string(ti) + "] - " + describe(n));
      }
  return c;
}

// ---- Running ----

struct Options {
  std::string file, out, script;
  std::vector<std::string> ops;
  bool dryRun = false;
};

// Positions of the current track's notes in tick order.
std::vector<Uuid> notesInTickOrder(const PianoRollViewModel& vm) {
  std::vector<Uuid> ids;
  const auto& d = vm.document();
  if (vm.currentTrackIndex() >= static_cast<int>(d.tracks.size())) return ids;
  std::vector<const NoteEvent*> notes;
  for (const auto& n : d.tracks[static_cast<std::size_t>(vm.currentTrackIndex())].notes)
    notes.push_back(&n);
  std::stable_sort(notes.begin(), notes.end(),
                   [](const NoteEvent* a, const NoteEvent* b) { return a->tick < b->tick; });
  for (const auto* n : notes) ids.push_back(n->id);
  return ids;
}

// Runs one operation; an error text when it names something the song does not have.
std::optional<std::string> run(PianoRollViewModel& vm, const Op& op, std::string& note) {
  const std::string name = op.syntax->name;
  const auto& num = op.numbers;
  const std::vector<Uuid> order = notesInTickOrder(vm);
  auto noteAt = [&](std::int64_t index) -> std::optional<Uuid> {
    if (index < 0 || index >= static_cast<std::int64_t>(order.size())) return std::nullopt;
    return order[static_cast<std::size_t>(index)];
  };
  auto noSuchNote = [&](std::int64_t index) {
    return trf("音符の番号 %@ はありません（今のトラックの音符は %d 個）",
               {std::to_string(index), std::to_string(order.size())});
  };
  if (name == "track") {
    const auto count = static_cast<std::int64_t>(vm.document().tracks.size());
    if (num[0] < 0 || num[0] >= count)
      return trf("トラック %@ はありません（0〜%d）",
                 {std::to_string(num[0]), std::to_string(std::max<std::int64_t>(count - 1, 0))});
    vm.setCurrentTrackIndex(static_cast<int>(num[0]));
    vm.setSelectedNoteIDs({});
  } else if (name == "select") {
    std::set<Uuid> chosen;
    const std::string& w = op.words[0];
    if (w == "all") {
      chosen.insert(order.begin(), order.end());
    } else if (w != "none") {
      std::stringstream parts(w);
      std::string part;
      while (std::getline(parts, part, ',')) {
        const auto dash = part.find('-', 1);
        auto a = parseInteger(part.substr(0, dash));
        auto b = dash == std::string::npos ? a : parseInteger(part.substr(dash + 1));
        if (!a || !b) return trf("%@ の引数が違います（%@）", {"select", part});
        for (std::int64_t i = *a; i <= *b; ++i) {
          auto id = noteAt(i);
          if (!id) return noSuchNote(i);
          chosen.insert(*id);
        }
      }
    }
    vm.setSelectedNoteIDs(std::move(chosen));
    note = trf("%d 音符を選びました", {std::to_string(vm.selectedNoteIDs().size())});
  } else if (name == "select-range") {
    std::set<Uuid> chosen;
    const auto& d = vm.document();
    if (vm.currentTrackIndex() >= static_cast<int>(d.tracks.size()))
      return tr("トラックがありません");
    for (const auto& n : d.tracks[static_cast<std::size_t>(vm.currentTrackIndex())].notes)
      if (n.tick >= num[0] && n.tick < num[1]) chosen.insert(n.id);
    vm.setSelectedNoteIDs(std::move(chosen));
    note = trf("%d 音符を選びました", {std::to_string(vm.selectedNoteIDs().size())});
  } else if (name == "grid") {
    vm.setQuantizeValue(*op.quantize);
  } else if (name == "note-length") {
    vm.setDefaultNoteLength(*op.quantize);
  } else if (name == "scale") {
    ScaleAssist a = vm.scaleAssist();
    a.mode = *modeFromRaw(op.words[0]);
    if (op.words.size() > 1) {
      a.scaleType = *scaleFromRaw(op.words[1]);
      a.rootPitch = static_cast<int>(num[0]);
    }
    vm.setScaleAssist(a);
  } else if (name == "add") {
    vm.addNote(num[0], static_cast<int>(num[1]));
  } else if (name == "move") {
    vm.moveNotes(num[0], static_cast<int>(std::clamp<std::int64_t>(num[1], -127, 127)));
  } else if (name == "resize") {
    vm.resizeNotes(num[0]);
  } else if (name == "length") {
    vm.setLengthFromMenu(*op.quantize);
  } else if (name == "split") {
    auto id = noteAt(num[0]);
    if (!id) return noSuchNote(num[0]);
    vm.splitNote(*id, num[1]);
  } else if (name == "merge") {
    vm.mergeNotes();
  } else if (name == "delete") {
    vm.deleteNotes();
  } else if (name == "cut" || name == "copy") {
    if (name == "cut") {
      vm.cutSelected();
    } else {
      vm.copySelected();
    }
    note = trf("クリップボード: %d 音符「%@」",
               {std::to_string(vm.clipboard().size()), vm.clipboardLyricsText()});
  } else if (name == "paste") {
    vm.pasteNotes(num[0]);
  } else if (name == "paste-text") {
    vm.pasteText(op.words[0], vm.playheadTick());
  } else if (name == "transpose") {
    vm.transpose(static_cast<int>(std::clamp<std::int64_t>(num[0], -127, 127)));
  } else if (name == "velocity") {
    vm.setVelocity(static_cast<int>(std::clamp<std::int64_t>(num[0], -1000, 1000)));
  } else if (name == "lyric") {
    auto id = noteAt(num[0]);
    if (!id) return noSuchNote(num[0]);
    vm.setLyric(*id, op.words[0]);
  } else if (name == "lyrics") {
    const auto r = vm.applyBulkLyrics(op.words[0]);
    if (r.leftover) note = trf("（%d 文字余ります）", {std::to_string(r.leftover)});
  } else if (name == "breath") {
    vm.toggleBreath();
  } else if (name == "insert-time") {
    vm.insertTime(num[0], num[1]);
  } else if (name == "delete-time") {
    vm.deleteTime(num[0], num[1]);
  } else if (name == "playhead") {
    vm.setPlayheadTick(std::clamp<std::int64_t>(num[0], 0, maxTick));
  } else if (name == "undo") {
    vm.undo();
  } else if (name == "redo") {
    vm.redo();
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> scriptLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    // A # starts a comment only at the head of a line or after a blank, so "C#4" stays.
    for (std::size_t i = 0; i < line.size(); ++i)
      if (line[i] == '#' && (i == 0 || std::isspace(static_cast<unsigned char>(line[i - 1])))) {
        line.resize(i);
        break;
      }
    if (!trim(line).empty()) lines.push_back(line);
  }
  return lines;
}

int edit(const Options& o) {
  std::vector<std::string> lines = o.ops;
  if (!o.script.empty()) {
    auto more = scriptLines(o.script);
    if (!more) {
      printError(trf("スクリプトを読めません: %@", {o.script}));
      return 2;
    }
    lines.insert(lines.end(), more->begin(), more->end());
  }
  if (lines.empty()) {
    printError(tr("操作がありません。-e か --script で渡してください"));
    return 2;
  }
  std::vector<Op> ops;
  for (const auto& l : lines) {
    auto parsed = parseOp(l);
    if (auto* error = std::get_if<std::string>(&parsed)) {
      printError(*error);
      return 2;
    }
    ops.push_back(std::move(std::get<Op>(parsed)));
  }
  const std::string out = o.out.empty() ? o.file : o.out;
  if (!o.dryRun && !hasProjectExtension(out)) {
    printError(
        tr("書き出せるのはプロジェクト（.nsproj）だけです。--out で書き出す先を指定してください"));
    return 2;
  }

  std::optional<MusicDocument> opened = openOrReport(o.file);
  if (!opened) return 1;
  PianoRollViewModel vm;
  vm.swapDocument(std::move(*opened), o.file);
  if (o.dryRun) std::printf("%s\n", tr("（試しに実行：ファイルは書き換えません）"));

  for (std::size_t i = 0; i < ops.size(); ++i) {
    const MusicDocument before = vm.document();
    std::string note;
    if (auto error = run(vm, ops[i], note)) {
      printError(trf("%d 番目の操作「%@」: %@", {std::to_string(i + 1), ops[i].line, *error}));
      return 2;
    }
    const Change c = diff(before, vm.document());
    std::string summary;
    if (c.added + c.removed + c.changed == 0 && !c.maps) {
      summary = tr("変更なし");
    } else {
      summary = "+" + std::to_string(c.added) + " -" + std::to_string(c.removed) + " ~" +
                std::to_string(c.changed);
      if (c.maps) summary += std::string("  ") + tr("テンポ・拍子・調が変わりました");
    }
    // The label of the step this operation pushed, or of the one it undid or redid.
    std::string label;
    const std::string_view name = ops[i].syntax->name;
    const bool changed = !(before == vm.document());
    if (name == "undo" && vm.canRedo() && changed) {
      label = "  [" + vm.redoLabel().value_or("") + "]";
    } else if (changed && vm.canUndo()) {
      label = "  [" + vm.undoLabel().value_or("") + "]";
    }
    std::printf("%zu. %s%s  %s%s%s\n", i + 1, ops[i].line.c_str(), label.c_str(), summary.c_str(),
                note.empty() ? "" : "  ", note.c_str());
    if (o.dryRun) {
      // Enough to see what an operation does without flooding the terminal on a long song.
      constexpr std::size_t kShown = 40;
      for (std::size_t k = 0; k < c.lines.size() && k < kShown; ++k)
        std::printf("%s\n", c.lines[k].c_str());
      if (c.lines.size() > kShown)
        std::printf("  %s\n",
                    trf("…ほか %d 音符", {std::to_string(c.lines.size() - kShown)}).c_str());
    }
  }
  if (o.dryRun) return 0;
  if (!vm.isDirty()) {
    std::printf("%s\n", tr("変更がないので書き出しません"));
    return 0;
  }
  try {
    writeProject(vm.document(), out);
  } catch (const FileError& e) {
    printError(trf("保存に失敗しました: %@", {e.what()}));
    return 1;
  }
  std::printf("%s\n", trf("書き出しました: %@", {out}).c_str());
  return 0;
}

const bool registered = registerCommand(
    {"edit", N_("音符を編集する操作を順に実行し、結果をプロジェクトとして書き出す"), 38,
     [](CLI::App& sub) -> CommandRun {
       auto opts = std::make_shared<Options>();
       sub.add_option("FILE", opts->file, tr("開くファイル"))->required();
       sub.add_option("--out", opts->out, tr("書き出すプロジェクトファイル（既定は FILE）"));
       sub.add_option("-e", opts->ops, tr("操作（何度でも）"))
           ->type_name("'OP ARGS'")
           ->allow_extra_args(false);
       sub.add_option("--script", opts->script, tr("操作を1行ずつ書いたファイル"));
       sub.add_flag("--dry-run", opts->dryRun, tr("書き出さず、何が変わるかを表示する"));
       sub.footer(helpFooter());
       return [opts] { return edit(*opts); };
     }});

}  // namespace
}  // namespace melvo::cli
