// The commands that change the song. Each reads and checks all of its input against a copy
// first and commits once at the end, so a refused command leaves the song untouched.
#include <algorithm>
#include <cmath>
#include <set>
#include <unordered_set>

#include "melvo/agent/mcp_args.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/platform/i18n.h"

namespace melvo::mcp {

using Code = McpError::Code;

namespace {

const MusicDocument& doc(Context& c) {
  return *c.host.document();
}

const McpJSON::Array& editsArray(Context& c, const char* emptyWords, const char* limitFormat,
                                 std::size_t limit = McpCommandLayer::kEditLimit) {
  const McpJSON* v = c.args.get("edits");
  if (!v || !v->isArray() || v->asArray().empty()) refuse(tr(emptyWords));
  if (v->size() > limit) refuse(limitWords(limitFormat, limit), Code::limitExceeded);
  return v->asArray();
}

std::size_t noteIndex(const McpJSON& edit, std::size_t count, const char* shapeWords) {
  const McpJSON* index = edit.find("index");
  if (!index || !index->isNumber()) refuse(tr(shapeWords));
  const auto i = integerValue(*index, "index", 0, std::numeric_limits<std::int64_t>::max() / 2);
  if (static_cast<std::size_t>(i) >= count) {
    refuse(trf("index %@ はありません（このトラックの音符は %@ 個です）",
               {std::to_string(i), std::to_string(count)}),
           Code::notFound);
  }
  return static_cast<std::size_t>(i);
}

void checkFields(const McpJSON& edit, std::initializer_list<const char*> allowed) {
  for (const auto& field : edit.asObject()) {
    const std::string& name = field.first;
    if (std::none_of(allowed.begin(), allowed.end(), [&](const char* a) { return name == a; })) {
      refuse(tr("知らない引数です：") + name);
    }
  }
}

// Notes back in tick order after an edit that moved some (stable, so the rest keep theirs).
void keepSorted(NoteList& notes) {
  bool sorted = true;
  for (std::size_t i = 1; i < notes.size() && sorted; ++i)
    sorted = notes[i - 1].tick <= notes[i].tick;
  if (sorted) return;
  std::vector<NoteEvent> v(notes.begin(), notes.end());
  std::stable_sort(v.begin(), v.end(),
                   [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; });
  notes.assign(std::move(v));
}

McpJSON commitTrack(Context& c, int t, NoteList notes, const char* label, std::size_t changed) {
  if (changed > 0) {
    keepSorted(notes);
    c.host.commit(tr(label), [&](MusicDocument& d) { d.tracks[t].notes = std::move(notes); });
  }
  return McpJSON::Object{{"changed", changed},
                         {"undoLabel", changed ? McpJSON(tr(label)) : McpJSON()}};
}

}  // namespace

McpJSON lyricsSet(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto& edits = editsArray(c, N_("edits に {index, lyric} を1つ以上渡してください"),
                                 N_("1回で直せるのは %@ 音までです"));
  static const char* shape = N_("edits の1つは {index: 整数, lyric: 文字列} で渡してください");
  NoteList notes = d.tracks[t].notes;
  const auto order = sortedOrder(notes);
  std::size_t changed = 0;
  for (const auto& e : edits) {
    if (!e.isObject() || !e.find("lyric")) refuse(tr(shape));
    checkFields(e, {"index", "lyric"});
    const std::size_t i = noteIndex(e, notes.size(), shape);
    std::string lyric = lyricValue(*e.find("lyric"), i);
    if (notes[order[i]].lyric != lyric) {
      notes.mutableAt(order[i]).lyric = std::move(lyric);
      ++changed;
    }
  }
  return commitTrack(c, t, std::move(notes), N_("AI：歌詞を直す"), changed);
}

// Katakana to hiragana, or UTAU's marks away, over a track. Lyrics written as phonemes are
// the user's exact spelling and are never touched.
McpJSON lyricsNormalize(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto mode = c.args.optString("mode");
  const bool hiragana = mode && *mode == "hiragana";
  if (!hiragana && !(mode && *mode == "stripUtau")) {
    refuse(tr("mode は \"hiragana\" か \"stripUtau\" で渡してください"));
  }
  const bool dryRun = c.args.optBool("dryRun").value_or(false);
  NoteList notes = d.tracks[t].notes;
  const auto order = sortedOrder(notes);
  McpJSON changes = McpJSON::array();
  std::size_t changed = 0, skipped = 0;
  constexpr std::size_t kShown = 200;
  for (std::size_t i = 0; i < order.size(); ++i) {
    const NoteEvent& n = notes[order[i]];
    if (n.lyric.empty()) continue;
    if (n.phonemesEqualLyric()) {
      ++skipped;
      continue;
    }
    std::optional<std::string> after;
    if (hiragana) {
      if (hasKana(n.lyric)) after = foldedToHiragana(n.lyric);
    } else if (classifyLyricChars(n.lyric) == LyricClass::utauMark) {
      after = withoutUtauMarks(n.lyric);  // nothing singable left: left for the user to decide
    }
    if (!after || *after == n.lyric) continue;
    if (changed++ < kShown) {
      changes.push(McpJSON::Object{{"after", *after}, {"before", n.lyric}, {"index", i}});
    }
    notes.mutableAt(order[i]).lyric = std::move(*after);
  }
  const char* label = hiragana ? N_("AI：歌詞をひらがなへ") : N_("AI：UTAU の印を外す");
  const bool commit = !dryRun && changed > 0;
  if (commit) {
    c.host.commit(tr(label), [&](MusicDocument& doc) { doc.tracks[t].notes = std::move(notes); });
  }
  return McpJSON::Object{{"changed", changed},
                         {"changes", std::move(changes)},
                         {"changesTruncated", changed > kShown},
                         {"dryRun", dryRun},
                         {"skippedPhonemeLyrics", skipped},
                         {"undoLabel", commit ? McpJSON(tr(label)) : McpJSON()}};
}

McpJSON notesAdd(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const McpJSON* v = c.args.get("notes");
  if (!v || !v->isArray() || v->asArray().empty()) {
    refuse(tr("notes に {tick, duration, pitch} を1つ以上渡してください"));
  }
  const auto& list = v->asArray();
  if (list.size() > McpCommandLayer::kAddLimit) {
    refuse(limitWords(N_("1回で足せるのは %@ 音までです"), McpCommandLayer::kAddLimit),
           Code::limitExceeded);
  }
  const NoteList& before = d.tracks[t].notes;
  if (before.size() + list.size() > McpCommandLayer::kTrackNoteLimit) {
    refuse(trf("1つのトラックに置けるのは %@ 音までです（今 %@ 音）",
               {std::to_string(McpCommandLayer::kTrackNoteLimit), std::to_string(before.size())}),
           Code::limitExceeded);
  }
  std::vector<NoteEvent> added;
  for (std::size_t k = 0; k < list.size(); ++k) {
    const McpJSON& e = list[k];
    if (!e.isObject() || !e.find("tick") || !e.find("duration") || !e.find("pitch")) {
      refuse(trf("notes の %@ 番目は {tick, duration, pitch, lyric?, velocity?} で渡してください",
                 {std::to_string(k)}));
    }
    checkFields(e, {"tick", "duration", "pitch", "lyric", "velocity"});
    NoteEvent n;
    n.id = Uuid::random();
    n.tick = integerValue(*e.find("tick"), "tick", 0, maxTick);
    n.duration = integerValue(*e.find("duration"), "duration", 1, maxTick - 1);
    n.pitch = static_cast<int>(integerValue(*e.find("pitch"), "pitch", 0, 127));
    if (const McpJSON* lyric = e.find("lyric"); lyric && !lyric->isNull()) {
      n.lyric = lyricValue(*lyric, k);
    }
    if (const McpJSON* vel = e.find("velocity"); vel && !vel->isNull()) {
      n.velocity = static_cast<int>(integerValue(*vel, "velocity", 1, 127));
    }
    added.push_back(std::move(n));
  }
  std::vector<NoteEvent> all(before.begin(), before.end());
  all.insert(all.end(), added.begin(), added.end());
  std::stable_sort(all.begin(), all.end(),
                   [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; });
  McpJSON indices = McpJSON::array();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (std::any_of(added.begin(), added.end(),
                    [&](const NoteEvent& n) { return n.id == all[i].id; })) {
      indices.push(i);
    }
  }
  const char* label = N_("AI：音符を足す");
  c.host.commit(tr(label), [&](MusicDocument& doc) { doc.tracks[t].notes.assign(std::move(all)); });
  return McpJSON::Object{
      {"changed", added.size()}, {"indices", std::move(indices)}, {"undoLabel", tr(label)}};
}

McpJSON notesRemove(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const NoteList& before = d.tracks[t].notes;
  const auto indices = c.args.indices(before.size(), McpCommandLayer::kEditLimit);
  if (indices.empty()) refuse(tr("indices は整数の配列で渡してください"));
  const auto order = sortedOrder(before);
  std::unordered_set<Uuid> gone;
  for (std::size_t i : indices) gone.insert(before[order[i]].id);
  NoteList notes = before;
  notes.removeIf([&](const NoteEvent& n) { return gone.count(n.id) != 0; });
  return commitTrack(c, t, std::move(notes), N_("AI：音符を消す"), indices.size());
}

// The editor's own merge over the chosen notes: neighbours of one pitch become one note
// (lyrics joined), a neighbour of another pitch is slurred to the next.
McpJSON notesTie(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const NoteList& before = d.tracks[t].notes;
  const auto indices = c.args.indices(before.size(), McpCommandLayer::kEditLimit);
  if (indices.size() < 2) refuse(tr("indices に結ぶ音符を2つ以上渡してください"));
  const auto order = sortedOrder(before);
  std::set<Uuid> chosen;
  for (std::size_t i : indices) chosen.insert(before[order[i]].id);
  PianoRollViewModel trial(d);
  trial.setCurrentTrackIndex(t);
  trial.setSelectedNoteIDs(chosen);
  if (!trial.mergeNotes()) return McpJSON::Object{{"changed", 0}, {"undoLabel", McpJSON()}};
  NoteList notes = trial.document().tracks[t].notes;
  const std::size_t changed = before.size() - notes.size();
  const char* label = N_("AI：音符を結ぶ");
  c.host.commit(tr(label), [&](MusicDocument& doc) { doc.tracks[t].notes = std::move(notes); });
  return McpJSON::Object{{"joined", changed}, {"undoLabel", tr(label)}};
}

McpJSON notesUpdate(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto& edits = editsArray(c, N_("edits に {index と直す値} を1つ以上渡してください"),
                                 N_("1回で直せるのは %@ 音までです"));
  static const char* shape =
      N_("edits の1つは {index, tick?, duration?, pitch?, lyric?, velocity?} で渡してください");
  NoteList notes = d.tracks[t].notes;
  const auto order = sortedOrder(notes);
  std::vector<bool> seen(notes.size(), false);
  std::size_t changed = 0;
  for (const auto& e : edits) {
    if (!e.isObject() || e.size() < 2) refuse(tr(shape));
    checkFields(e, {"index", "tick", "duration", "pitch", "lyric", "velocity"});
    const std::size_t i = noteIndex(e, notes.size(), shape);
    if (seen[i]) refuse(trf("同じ index が2度あります：%@", {std::to_string(i)}));
    seen[i] = true;
    NoteEvent n = notes[order[i]];
    if (const McpJSON* v = e.find("tick")) n.tick = integerValue(*v, "tick", 0, maxTick);
    if (const McpJSON* v = e.find("duration"))
      n.duration = integerValue(*v, "duration", 1, maxTick - 1);
    if (const McpJSON* v = e.find("pitch"))
      n.pitch = static_cast<int>(integerValue(*v, "pitch", 0, 127));
    if (const McpJSON* v = e.find("velocity")) {
      n.velocity = static_cast<int>(integerValue(*v, "velocity", 1, 127));
    }
    if (const McpJSON* v = e.find("lyric")) n.lyric = lyricValue(*v, i);
    if (!(n == notes[order[i]])) {
      notes.set(order[i], std::move(n));
      ++changed;
    }
  }
  return commitTrack(c, t, std::move(notes), N_("AI：音符を直す"), changed);
}

McpJSON notesMarks(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto& edits =
      editsArray(c, N_("edits に {index, slurToNext?, breathAfter?} を1つ以上渡してください"),
                 N_("1回で直せるのは %@ 音までです"));
  static const char* shape =
      N_("edits の1つは {index, slurToNext?, breathAfter?} で渡してください");
  NoteList notes = d.tracks[t].notes;
  const auto order = sortedOrder(notes);
  std::size_t changed = 0;
  for (const auto& e : edits) {
    if (!e.isObject() || e.size() < 2) refuse(tr(shape));
    checkFields(e, {"index", "slurToNext", "breathAfter"});
    const std::size_t i = noteIndex(e, notes.size(), shape);
    NoteEvent n = notes[order[i]];
    for (const char* key : {"slurToNext", "breathAfter"}) {
      const McpJSON* v = e.find(key);
      if (!v) continue;
      if (!v->isBool()) refuse(trf("%@ は true か false で渡してください", {key}));
      (std::string_view(key) == "slurToNext" ? n.slurToNext : n.hasBreathAfter) = v->asBool();
    }
    if (!(n == notes[order[i]])) {
      notes.set(order[i], std::move(n));
      ++changed;
    }
  }
  return commitTrack(c, t, std::move(notes), N_("AI：スラーと息継ぎを直す"), changed);
}

McpJSON notesVelocity(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const NoteList& before = d.tracks[t].notes;
  const bool hasIndices = c.args.has("indices");
  if (hasIndices && (c.args.has("fromTick") || c.args.has("toTick"))) {
    refuse(tr("indices と fromTick・toTick は一緒に渡せません"));
  }
  const int given = c.args.has("set") + c.args.has("add") + c.args.has("ramp");
  if (given != 1) refuse(tr("set・add・ramp のどれか1つを渡してください"));
  const auto order = sortedOrder(before);
  std::vector<std::size_t> chosen;  // note indices, rising
  if (hasIndices) {
    chosen = c.args.indices(before.size(), McpCommandLayer::kEditLimit);
    std::sort(chosen.begin(), chosen.end());
  } else {
    const auto range = c.args.range();
    for (std::size_t i = 0; i < order.size(); ++i) {
      const auto tick = before[order[i]].tick;
      if (!range || (tick >= range->first && tick < range->second)) chosen.push_back(i);
    }
    if (chosen.size() > McpCommandLayer::kEditLimit) {
      refuse(limitWords(N_("1回で直せるのは %@ 音までです"), McpCommandLayer::kEditLimit),
             Code::limitExceeded);
    }
  }
  std::optional<int> set, add;
  std::optional<std::pair<int, int>> ramp;
  if (const McpJSON* v = c.args.get("set")) {
    if (!v->isInt() || v->asInt() < 1 || v->asInt() > 127)
      refuse(tr("set は 1〜127 の整数で渡してください"));
    set = static_cast<int>(v->asInt());
  }
  if (const McpJSON* v = c.args.get("add")) {
    if (!v->isInt() || v->asInt() < -126 || v->asInt() > 126) {
      refuse(tr("add は -126〜126 の整数で渡してください"));
    }
    add = static_cast<int>(v->asInt());
  }
  if (const McpJSON* v = c.args.get("ramp")) {
    static const char* words = N_("ramp は {from, to}（どちらも 1〜127 の整数）で渡してください");
    const McpJSON* from = v->find("from");
    const McpJSON* to = v->find("to");
    auto good = [](const McpJSON* x) {
      return x && x->isInt() && x->asInt() >= 1 && x->asInt() <= 127;
    };
    if (!v->isObject() || v->size() != 2 || !good(from) || !good(to)) refuse(tr(words));
    ramp = std::make_pair(static_cast<int>(from->asInt()), static_cast<int>(to->asInt()));
  }
  NoteList notes = before;
  std::size_t changed = 0;
  for (std::size_t k = 0; k < chosen.size(); ++k) {
    const std::size_t pos = order[chosen[k]];
    int value = notes[pos].velocity;
    if (set) value = *set;
    if (add) value = std::clamp(value + *add, 1, 127);
    if (ramp) {
      // Evenly by position among the chosen notes: the first gets `from`, the last `to`.
      const double f =
          chosen.size() < 2 ? 0.0 : static_cast<double>(k) / static_cast<double>(chosen.size() - 1);
      value = static_cast<int>(std::lround(ramp->first + (ramp->second - ramp->first) * f));
    }
    if (value != notes[pos].velocity) {
      notes.mutableAt(pos).velocity = value;
      ++changed;
    }
  }
  return commitTrack(c, t, std::move(notes), N_("AI：強さを直す"), changed);
}

McpJSON trackMix(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto volume = c.args.optNumber("volume", 0.0, 1.5);
  const auto pan = c.args.optNumber("pan", -1.0, 1.0);
  const auto mute = c.args.optBool("mute");
  const auto solo = c.args.optBool("solo");
  if (!volume && !pan && !mute && !solo) {
    refuse(tr("volume・pan・mute・solo のどれか1つ以上を渡してください"));
  }
  MusicTrack track = d.tracks[t];
  const MusicTrack old = track;
  if (volume) track.volume = *volume;
  if (pan) track.pan = *pan;
  if (mute) track.isMuted = *mute;
  if (solo) track.isSolo = *solo;
  const bool changed = !(track == old);
  if (changed) {
    c.host.commit(tr("AI：ミキサーを直す"), [&](MusicDocument& doc) {
      MusicTrack& dst = doc.tracks[t];
      dst.volume = track.volume;
      dst.pan = track.pan;
      dst.isMuted = track.isMuted;
      dst.isSolo = track.isSolo;
    });
  }
  return McpJSON::Object{{"changed", changed},
                         {"track", McpJSON::Object{{"index", t},
                                                   {"isMuted", track.isMuted},
                                                   {"isSolo", track.isSolo},
                                                   {"pan", track.pan},
                                                   {"volume", track.volume}}}};
}

McpJSON issuesApply(Context& c) {
  const McpJSON* issue = c.args.get("issue");
  const McpJSON* suggestion = c.args.get("suggestion");
  const auto category = c.args.optString("category");
  if (!issue) refuse(tr("issue に問題の番号（issues.list の index）を渡してください"));
  if (!suggestion) {
    refuse(tr("suggestion に提案の番号（issues.list の suggestions の index）を渡してください"));
  }
  if (!category) refuse(tr("category に問題の分類（issues.list の category）を渡してください"));
  const McpJSON* tickArg = c.args.get("tick");
  if (!tickArg || !tickArg->isInt()) {
    refuse(tr("tick に問題の tick（issues.list の tick）を整数で渡してください"));
  }
  const auto rows = c.host.issues();
  const auto i = integerValue(*issue, "issue", 0, std::numeric_limits<std::int32_t>::max());
  if (static_cast<std::size_t>(i) >= rows.size()) {
    refuse(trf("issue %@ はありません（今の問題は %@ 件）。issues.list で読み直してください",
               {std::to_string(i), std::to_string(rows.size())}),
           Code::notFound);
  }
  const ValidationIssue& row = rows[static_cast<std::size_t>(i)];
  if (categoryName(row.category) != *category || row.tick != tickArg->asInt()) {
    refuse(trf("issue %@ は今は %@（tick %@）です（曲が変わって並びが替わりました）。issues.list "
               "で読み直してください",
               {std::to_string(i), categoryName(row.category), std::to_string(row.tick)}),
           Code::notFound);
  }
  const auto s =
      integerValue(*suggestion, "suggestion", 0, std::numeric_limits<std::int32_t>::max());
  if (static_cast<std::size_t>(s) >= row.suggestions.size()) {
    refuse(trf("suggestion %@ はありません（提案は %@ 個です）",
               {std::to_string(s), std::to_string(row.suggestions.size())}),
           Code::notFound);
  }
  const auto& chosen = row.suggestions[static_cast<std::size_t>(s)];
  if (!chosen.action.changesSong()) {
    refuse(trf("提案 %@（%@）は曲を直さない提案です（今のトラックを替える・そのまま残す）",
               {std::to_string(s), chosen.label}));
  }
  const bool changed = c.host.applySuggestion(tr("AI：問題を直す"), row, chosen);
  return McpJSON::Object{{"changed", changed},
                         {"undoLabel", changed ? McpJSON(tr("AI：問題を直す")) : McpJSON()}};
}

McpJSON timingMove(Context& c) {
  auto timing = c.host.timing ? c.host.timing() : std::nullopt;
  if (!timing) {
    refuse(tr("音素の境目がありません。先に曲を歌わせてください（境目は合成の後に出来ます）"),
           Code::notFound);
  }
  const auto& edits = editsArray(c, N_("edits に {index, startSec} を1つ以上渡してください"),
                                 N_("1回で動かせるのは %@ か所までです"));
  static const char* shape = N_("edits の1つは {index: 整数, startSec: 数} で渡してください");
  auto& ph = timing->phonemes.phonemes;
  std::size_t changed = 0;
  for (const auto& e : edits) {
    if (!e.isObject() || !e.find("startSec") || !e.find("index")) refuse(tr(shape));
    checkFields(e, {"index", "startSec"});
    const auto i = static_cast<std::size_t>(
        integerValue(*e.find("index"), "index", 0, std::numeric_limits<std::int32_t>::max()));
    if (i >= ph.size()) {
      refuse(trf("index %@ はありません（音素は %@ 個です）",
                 {std::to_string(i), std::to_string(ph.size())}),
             Code::notFound);
    }
    if (i == 0) refuse(tr("0 番の音素の頭は動かせません（前の音素がありません）"));
    const McpJSON& sec = *e.find("startSec");
    // Held to the label files' resolution, 1/10,000,000 s.
    const double value = sec.isNumber() ? sec.asDouble() : -1;
    const std::int64_t ns = std::isfinite(value) ? std::llround(value * 1e7) : -1;
    if (!sec.isNumber() || ns <= ph[i - 1].startNS || ns >= ph[i].endNS) {
      refuse(
          trf("index %@ の startSec は %@ 秒より後・%@ "
              "秒より前で渡してください（前の音素の頭とこの音素の尻の間）",
              {std::to_string(i), McpJSON(ph[i - 1].startSec()).dump(),
               McpJSON(ph[i].endSec()).dump()}));
    }
    if (ph[i].startNS != ns) {
      ph[i].startNS = ns;
      ph[i - 1].endNS = ns;
      ++changed;
    }
  }
  const char* label = N_("AI：音素の境目を動かす");
  if (changed) c.host.commitTiming(tr(label), std::move(timing->phonemes));
  return McpJSON::Object{{"changedBoundaries", changed},
                         {"undoLabel", changed ? McpJSON(tr(label)) : McpJSON()}};
}

McpJSON undoRedo(Context& c, bool redo) {
  const char* key = redo ? "redo" : "undo";
  const auto label = c.args.optString("label");
  if (!label)
    refuse(trf("label に、一番上の段の名（history.read の %@ の先頭）を渡してください", {key}));
  const McpHistory h = c.host.history();
  const auto& stack = redo ? h.redo : h.undo;
  if (stack.empty()) refuse(tr("段がありません"), Code::notFound);
  if (stack.front() != *label) {
    refuse(trf("一番上の段は今「%@」です（曲が変わりました）。history.read で読み直してください",
               {stack.front()}));
  }
  c.host.undoRedo(redo);
  return McpJSON::Object{{key, *label}};
}

}  // namespace melvo::mcp
