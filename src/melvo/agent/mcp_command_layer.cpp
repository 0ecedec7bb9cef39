#include "melvo/agent/mcp_command_layer.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>

#include "melvo/agent/mcp_args.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/interchange/export_choice.h"
#include "melvo/interchange/midi_file_writer.h"
#include "melvo/interchange/musicxml_exporter.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

using namespace mcp;
using Code = McpError::Code;

namespace {

using Run = McpJSON (*)(Context&);
using Write = void (*)(Context&, JsonWriter&);

// ---- Reading ----

const MusicDocument& doc(Context& c) {
  return *c.host.document();
}

// How many of a track's notes carry phonemes equal to their lyric.
std::size_t phonemeLyricCount(Context& c, std::size_t track, const NoteList& notes) {
  auto& counted = c.memo.phonemeLyrics[track];
  if (!counted.first.sameStorage(notes)) {
    std::size_t count = 0;
    // Most notes carry no phonemes; asking only those that do keeps the walk a pointer test.
    for (const auto& n : notes) count += n.sourcePhonemes && n.phonemesEqualLyric();
    counted = {notes, count};
  }
  return counted.second;
}

// A number as the encoder writes it: JSON has no form for NaN or the infinities.
void number(JsonWriter& w, double d) {
  if (std::isfinite(d)) {
    w.value(d);
  } else {
    w.value(nullptr);
  }
}

// What an agent asks most, often in a loop between edits: written straight out as text,
// without building a tree of values first. Keys go in their sorted order.
void summary(Context& c, JsonWriter& w) {
  const MusicDocument& d = doc(c);
  std::size_t phonemeLyrics = 0;
  // Fitted to the song's tracks, so the memo holds no notes of tracks that went.
  c.memo.phonemeLyrics.resize(d.tracks.size());
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    phonemeLyrics += phonemeLyricCount(c, i, d.tracks[i].notes);
  }
  const auto path = c.host.documentPath ? c.host.documentPath() : std::nullopt;
  w.beginObject();
  if (c.host.currentTrack) {
    w.key("currentTrack");
    w.value(c.host.currentTrack());
  }
  w.key("dirty");
  w.value(c.host.isDirty ? c.host.isDirty() : false);
  w.key("path");
  if (path) {
    w.value(*path);
  } else {
    w.value(nullptr);
  }
  w.key("phonemeLyricCount");
  w.value(static_cast<std::int64_t>(phonemeLyrics));
  w.key("ppq");
  w.value(static_cast<std::int64_t>(d.ppq));
  w.key("tempoMap");
  w.beginArray();
  for (const auto& t : d.tempoMap) {
    w.beginObject();
    w.key("bpm");
    number(w, t.bpm);
    w.key("tick");
    w.value(static_cast<std::int64_t>(t.tick));
    w.endObject();
  }
  w.endArray();
  w.key("timeSignatures");
  w.beginArray();
  for (const auto& m : d.timeSignatures) {
    w.beginObject();
    w.key("denominator");
    w.value(static_cast<std::int64_t>(m.denominator));
    w.key("numerator");
    w.value(static_cast<std::int64_t>(m.numerator));
    w.key("tick");
    w.value(static_cast<std::int64_t>(m.tick));
    w.endObject();
  }
  w.endArray();
  w.key("title");
  w.value(d.title);
  w.key("tracks");
  w.beginArray();
  for (std::size_t i = 0; i < d.tracks.size(); ++i) {
    const MusicTrack& t = d.tracks[i];
    w.beginObject();
    w.key("character");
    w.value(t.characterName);
    w.key("index");
    w.value(static_cast<std::int64_t>(i));
    w.key("isMuted");
    w.value(t.isMuted);
    w.key("isSolo");
    w.value(t.isSolo);
    w.key("name");
    w.value(t.name);
    w.key("noteCount");
    w.value(static_cast<std::int64_t>(t.notes.size()));
    w.key("pan");
    number(w, t.pan);
    w.key("volume");
    number(w, t.volume);
    w.endObject();
  }
  w.endArray();
  w.endObject();
}

McpJSON trackRead(Context& c) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const MusicTrack& track = d.tracks[t];
  McpJSON r = McpJSON::object();
  r["index"] = t;
  r["name"] = track.name;
  r["character"] = track.characterName;
  r["noteCount"] = track.notes.size();
  r["isMuted"] = track.isMuted;
  r["isSolo"] = track.isSolo;
  r["volume"] = track.volume;
  r["pan"] = track.pan;
  std::int64_t first = 0, end = 0;
  for (const auto& n : track.notes) {
    first = end == 0 ? n.tick : std::min(first, n.tick);
    end = std::max(end, n.endTick());
  }
  r["firstTick"] = first;
  r["endTick"] = end;
  return r;
}

// The notes of a track in range, paged.
McpJSON notesPage(Context& c, bool lyricsText) {
  const MusicDocument& d = doc(c);
  const int t = c.args.track(d);
  const auto range = c.args.range();
  const auto offset = static_cast<std::size_t>(
      c.args.optInteger("offset", 0, std::numeric_limits<std::int32_t>::max()).value_or(0));
  const auto limit =
      static_cast<std::size_t>(c.args.optInteger("limit", 1, McpCommandLayer::kPageLimit)
                                   .value_or(McpCommandLayer::kPageDefault));
  const NoteList& notes = d.tracks[t].notes;
  const auto order = sortedOrder(notes);
  McpJSON list = McpJSON::array();
  std::string text;
  std::size_t matched = 0;
  for (std::size_t i = 0; i < order.size(); ++i) {
    const NoteEvent& n = notes[order[i]];
    if (range && (n.tick < range->first || n.tick >= range->second)) continue;
    if (matched++ < offset || list.size() >= limit) continue;
    list.push(noteJSON(n, i));
    if (lyricsText) {
      if (!text.empty()) text.push_back(' ');
      text += n.lyric;
    }
  }
  McpJSON r = McpJSON::object();
  r["track"] = t;
  r["total"] = matched;
  r["offset"] = offset;
  const std::size_t shown = list.size();
  r["notes"] = std::move(list);
  if (offset + shown < matched) r["nextOffset"] = offset + shown;
  if (lyricsText) r["text"] = text;
  return r;
}

McpJSON trackNotes(Context& c) {
  return notesPage(c, false);
}
McpJSON trackLyrics(Context& c) {
  return notesPage(c, true);
}

McpJSON issueJSON(const ValidationIssue& row, std::size_t index) {
  McpJSON suggestions = McpJSON::array();
  for (std::size_t i = 0; i < row.suggestions.size(); ++i) {
    suggestions.push(McpJSON::Object{{"index", i}, {"label", row.suggestions[i].label}});
  }
  return McpJSON::Object{{"category", std::string(categoryName(row.category))},
                         {"detail", row.detail ? McpJSON(*row.detail) : McpJSON()},
                         {"index", index},
                         {"message", row.message},
                         {"severity", std::string(severityName(row.severity))},
                         {"suggestions", std::move(suggestions)},
                         {"tick", row.tick},
                         {"track", row.trackIndex}};
}

McpJSON issuesList(Context& c) {
  const auto offset = static_cast<std::size_t>(
      c.args.optInteger("offset", 0, std::numeric_limits<std::int32_t>::max()).value_or(0));
  const auto limit =
      static_cast<std::size_t>(c.args.optInteger("limit", 1, McpCommandLayer::kPageLimit)
                                   .value_or(McpCommandLayer::kPageDefault));
  const auto rows = c.host.issues();
  McpJSON list = McpJSON::array();
  for (std::size_t i = offset; i < rows.size() && list.size() < limit; ++i) {
    list.push(issueJSON(rows[i], i));
  }
  McpJSON r = McpJSON::object();
  r["total"] = rows.size();
  r["offset"] = offset;
  const std::size_t shown = list.size();
  r["issues"] = std::move(list);
  if (offset + shown < rows.size()) r["nextOffset"] = offset + shown;
  return r;
}

McpJSON historyRead(Context& c) {
  const McpHistory h = c.host.history();
  McpJSON undo = McpJSON::array(), redo = McpJSON::array();
  for (const auto& l : h.undo) undo.push(l);
  for (const auto& l : h.redo) redo.push(l);
  return McpJSON::Object{{"redo", std::move(redo)}, {"undo", std::move(undo)}};
}

McpJSON selectionJSON(Context& c) {
  const MusicDocument& d = doc(c);
  const McpSelection s = c.host.selection();
  const int t = c.host.currentTrack ? c.host.currentTrack() : 0;
  McpJSON indices = McpJSON::array();
  if (t >= 0 && t < static_cast<int>(d.tracks.size())) {
    const NoteList& notes = d.tracks[t].notes;
    const auto order = sortedOrder(notes);
    for (std::size_t i = 0; i < order.size(); ++i) {
      if (s.noteIDs.count(notes[order[i]].id)) indices.push(i);
    }
  }
  return McpJSON::Object{{"indices", std::move(indices)},
                         {"loopEnabled", s.loopEnabled},
                         {"loopEnd", s.loopEnd},
                         {"loopStart", s.loopStart},
                         {"track", t}};
}

McpJSON timingRead(Context& c) {
  const auto timing = c.host.timing();
  if (!timing) {
    refuse(tr("音素の境目がありません。先に曲を歌わせてください（境目は合成の後に出来ます）"),
           Code::notFound);
  }
  const auto range = c.args.range();
  const auto offset = static_cast<std::size_t>(
      c.args.optInteger("offset", 0, std::numeric_limits<std::int32_t>::max()).value_or(0));
  const auto limit =
      static_cast<std::size_t>(c.args.optInteger("limit", 1, McpCommandLayer::kPageLimit)
                                   .value_or(McpCommandLayer::kPageDefault));
  // A tick range in the render's clock: the song's seconds plus the render's lead.
  double from = 0, to = 0;
  if (range) {
    from = doc(c).seconds(range->first) + timing->offsetSec;
    to = doc(c).seconds(range->second) + timing->offsetSec;
  }
  const auto& all = timing->phonemes.phonemes;
  McpJSON list = McpJSON::array();
  std::size_t matched = 0;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Phoneme& p = all[i];
    if (range && !(p.startSec() < to && p.endSec() > from)) continue;
    if (matched++ < offset || list.size() >= limit) continue;
    list.push(McpJSON::Object{
        {"endSec", p.endSec()}, {"index", i}, {"name", p.symbol}, {"startSec", p.startSec()}});
  }
  McpJSON r = McpJSON::object();
  r["total"] = matched;
  r["offset"] = offset;
  r["offsetSec"] = timing->offsetSec;
  const std::size_t shown = list.size();
  r["phonemes"] = std::move(list);
  if (offset + shown < matched) r["nextOffset"] = offset + shown;
  return r;
}

McpJSON selectionRead(Context& c) {
  return selectionJSON(c);
}

}  // namespace

// Edits live in mcp_edit_commands.cpp.
namespace mcp {
McpJSON lyricsSet(Context& c);
McpJSON notesAdd(Context& c);
McpJSON lyricsNormalize(Context& c);
McpJSON notesRemove(Context& c);
McpJSON notesUpdate(Context& c);
McpJSON notesTie(Context& c);
McpJSON notesMarks(Context& c);
McpJSON notesVelocity(Context& c);
McpJSON trackMix(Context& c);
McpJSON issuesApply(Context& c);
McpJSON timingMove(Context& c);
McpJSON pitchSummary(Context& c);
McpJSON pitchVibrato(Context& c);
McpJSON pitchSmooth(Context& c);
McpJSON pitchFlatten(Context& c);
McpJSON pitchReset(Context& c);
McpJSON pitchDraw(Context& c);
McpJSON undoRedo(Context& c, bool redo);
}  // namespace mcp

namespace {

McpJSON editUndo(Context& c) {
  return mcp::undoRedo(c, false);
}
McpJSON editRedo(Context& c) {
  return mcp::undoRedo(c, true);
}

McpJSON trackSelect(Context& c) {
  const int t = c.args.track(doc(c));
  if (!c.host.selectTrack(t)) refuse(trf("track %@ を選べませんでした", {std::to_string(t)}));
  return McpJSON::Object{{"track", t}};
}

McpJSON selectionSet(Context& c) {
  const MusicDocument& d = doc(c);
  const bool hasIndices = c.args.has("indices");
  const auto all = c.args.optBool("all");
  const auto clear = c.args.optBool("clearRange");
  const bool hasRangeArg = c.args.has("fromTick") || c.args.has("toTick");
  if (hasIndices && all) refuse(tr("indices と all は一緒に渡せません"));
  if (!hasIndices && !all && !hasRangeArg && !clear) {
    refuse(tr("indices・all・fromTick と toTick・clearRange のどれかを渡してください"));
  }
  if (clear && hasRangeArg) refuse(tr("clearRange と fromTick・toTick は一緒に渡せません"));
  const auto range = c.args.range();
  McpSelection s = c.host.selection();
  const int t = c.host.currentTrack ? c.host.currentTrack() : 0;
  const NoteList& notes = d.tracks[std::clamp(t, 0, static_cast<int>(d.tracks.size()) - 1)].notes;
  if (hasIndices) {
    const auto order = sortedOrder(notes);
    s.noteIDs.clear();
    for (std::size_t i : c.args.indices(notes.size(), notes.size())) {
      s.noteIDs.insert(notes[order[i]].id);
    }
  } else if (all) {
    s.noteIDs.clear();
    if (*all) {
      for (const auto& n : notes) s.noteIDs.insert(n.id);
    }
  }
  if (range) {
    s.loopStart = range->first;
    s.loopEnd = range->second;
    s.loopEnabled = true;
  } else if (clear && *clear) {
    s.loopStart = 0;
    s.loopEnd = 0;
    s.loopEnabled = false;
  }
  c.host.setSelection(s);
  return selectionJSON(c);
}

// ---- Files ----

bool absolute(const std::string& path) {
  return !path.empty() && path.front() == '/';
}

// Answers with the summary of the song it opened.
void documentOpen(Context& c, JsonWriter& w) {
  const auto path = c.args.optString("path");
  if (!path || !absolute(*path)) refuse(tr("path に、/ で始まる道を渡してください"));
  if (c.host.isSynthesizing && c.host.isSynthesizing()) {
    refuse(tr("合成が走っています。済んでから開いてください（⇒ AI が始めた合成なら sing.status "
              "で済みを確かめられます。⇒ 画面から始めた合成は利用者に確かめてください）"),
           Code::notAvailable);
  }
  if (c.host.isDirty && c.host.isDirty()) {
    refuse(tr("今の曲に保存していない変更があります。先に保存するか、利用者に確かめてください"),
           Code::unsavedChanges);
  }
  std::error_code ec;
  if (!std::filesystem::is_regular_file(*path, ec)) {
    refuse(tr("ファイルがありません：") + *path, Code::notFound);
  }
  if (auto failure = c.host.open(*path)) {
    refuse(tr("開けませんでした：") + *failure, Code::openFailed);
  }
  if (!c.host.document || !c.host.document()) refuse(tr("開いた曲を読めません"), Code::openFailed);
  summary(c, w);
}

McpJSON documentSave(Context& c) {
  auto path = c.args.optString("path");
  if (path && !absolute(*path)) refuse(tr("path は、/ で始まるファイルの道で渡してください"));
  if (!path) {
    auto own = c.host.documentPath ? c.host.documentPath() : std::nullopt;
    if (!own) refuse(tr("path を渡してください（今の曲にファイルがありません）"));
    path = own;
  }
  if (!hasProjectExtension(*path)) refuse(tr("保存できるのは .nsproj だけです"));
  const auto folder = std::filesystem::path(*path).parent_path();
  std::error_code ec;
  if (!std::filesystem::is_directory(folder, ec)) {
    refuse(tr("保存先のフォルダがありません：") + folder.string(), Code::notFound);
  }
  if (auto failure = c.host.save(*path)) {
    refuse(tr("保存できませんでした：") + *failure, Code::ioError);
  }
  return McpJSON::Object{{"path", *path}, {"saved", true}};
}

McpJSON exportFile(Context& c, bool musicXML) {
  const MusicDocument& d = doc(c);
  auto path = c.args.optString("path");
  if (path && !absolute(*path)) refuse(tr("path は、/ で始まるファイルの道で渡してください"));
  if (!path) {
    // Beside the song's own file, named after its title.
    auto own = c.host.documentPath ? c.host.documentPath() : std::nullopt;
    if (!own) refuse(tr("path を渡してください（今の曲にファイルがありません）"));
    std::string name = suggestedMusicXMLFileName(d);
    if (!musicXML) name = name.substr(0, name.rfind('.')) + ".mid";
    path = (std::filesystem::path(*own).parent_path() / name).string();
  }
  const std::string ext = text::asciiLower(std::filesystem::path(*path).extension().string());
  if (musicXML && ext != ".musicxml") refuse(tr("MusicXML で書き出せるのは .musicxml だけです"));
  if (!musicXML && ext != ".mid") refuse(tr("MIDI で書き出せるのは .mid だけです"));
  const auto folder = std::filesystem::path(*path).parent_path();
  std::error_code ec;
  if (!std::filesystem::is_directory(folder, ec)) {
    refuse(tr("保存先のフォルダがありません：") + folder.string(), Code::notFound);
  }
  McpJSON r = McpJSON::object();
  try {
    if (musicXML) {
      // The engine sings the parts of one score one after another: one track is written.
      const std::optional<int> current =
          c.host.currentTrack ? std::optional(c.host.currentTrack()) : std::nullopt;
      int track = 0;
      std::string said;
      int noted = 0;
      for (const auto& t : d.tracks) noted += t.notes.empty() ? 0 : 1;
      if (auto sung = d.preferredSungTrack(current)) {
        track = *sung;
        if (noted > 1) {
          said =
              trf("歌わせるトラック「%@」だけを書き出しました（NEUTRINO "
                  "は複数のパートを続けて歌うため）",
                  {d.tracks[track].name});
        }
      } else if (auto muted = d.fallbackTrackWhenAllMuted(current)) {
        track = *muted;
        said = trf("全部のトラックが消音のため、トラック「%@」だけを書き出しました",
                   {d.tracks[track].name});
      }
      writeFileAtomically(*path, MusicXMLExporter::render(d.singleTrackCopy(track)));
      r["track"] = track;
      r["trackName"] = d.tracks[track].name;
      if (!said.empty()) r["message"] = said;
    } else {
      writeFileAtomically(*path, MIDIFileWriter::data(d));
      r["tracks"] = d.tracks.size();
    }
  } catch (const std::exception& e) {
    refuse(std::string(tr("書き出せませんでした：")) + e.what(), Code::ioError);
  }
  r["path"] = *path;
  return r;
}

McpJSON exportMusicXML(Context& c) {
  return exportFile(c, true);
}
McpJSON exportMIDI(Context& c) {
  return exportFile(c, false);
}

// ---- Singing ----

McpJSON singStart(Context& c) {
  const MusicDocument& d = doc(c);
  const auto scopeName = c.args.optString("scope").value_or("all");
  static const std::pair<const char*, McpSingScope> kScopes[] = {
      {"all", McpSingScope::all},
      {"track", McpSingScope::track},
      {"range", McpSingScope::range},
      {"rangeTrack", McpSingScope::rangeTrack}};
  std::optional<McpSingScope> scope;
  for (const auto& [name, value] : kScopes) {
    if (scopeName == name) scope = value;
  }
  if (scopeName == "file") refuse(tr("ファイルからの合成は AI からは始められません"));
  if (!scope)
    refuse(trf("scope は %@ のどれかで渡してください", {"all・track・range・rangeTrack"}));
  if (c.host.isSynthesizing && c.host.isSynthesizing()) {
    refuse(tr("現在合成中です。完了をお待ちください。"), Code::notAvailable);
  }
  const bool ranged = *scope == McpSingScope::range || *scope == McpSingScope::rangeTrack;
  const auto range = c.args.range();
  if (range && !ranged)
    refuse(tr("fromTick・toTick は scope が range か rangeTrack の時だけ渡せます"));
  if (range) {
    McpSelection s = c.host.selection ? c.host.selection() : McpSelection{};
    s.loopStart = range->first;
    s.loopEnd = range->second;
    s.loopEnabled = true;
    if (c.host.setSelection) c.host.setSelection(s);
  }
  // The gate first: a song it refuses starts nothing, and the agent is told where to look.
  const bool oneTrack = *scope == McpSingScope::track || *scope == McpSingScope::rangeTrack;
  const int current = c.host.currentTrack ? c.host.currentTrack() : 0;
  std::vector<Uuid> sung;
  if (oneTrack && current >= 0 && current < static_cast<int>(d.tracks.size())) {
    sung.push_back(d.tracks[current].id);
  } else {
    for (int i : d.voicedTrackIndices(false)) sung.push_back(d.tracks[i].id);
  }
  const auto problems =
      SynthesisGate::problems(d, sung, oneTrack ? std::optional(current) : std::nullopt);
  if (SynthesisGate::blocks(problems)) {
    refuse(trf("NEUTRINO が歌えない所が %@ 個あります（合成の前の関所）。issues.list "
               "で見て直してください",
               {std::to_string(problems.size())}),
           Code::synthesisRefused);
  }
  if (auto refusal = c.host.sing(*scope)) {
    refuse(trf("合成を始められませんでした：%@", {*refusal}), Code::synthesisRefused);
  }
  return McpJSON::Object{{"scope", scopeName}, {"started", true}};
}

McpJSON singStatus(Context& c) {
  return c.host.singStatus();
}

// ---- The table ----

struct Entry {
  McpCommandLayer::CommandInfo info;
  Run run;
  bool needsDocument;
  // The host closure the command cannot do without, and the words when it is absent.
  bool (*hostHas)(const McpHost&);
  const char* unavailable;
  Write write = nullptr;  // in place of `run`, for a command that writes its result as text
};

template <auto Member>
bool hostHas(const McpHost& h) {
  return static_cast<bool>(h.*Member);
}
bool always(const McpHost&) {
  return true;
}

using K = McpCommandLayer::Kind;

const std::vector<Entry>& table() {
  static const std::vector<Entry> entries = {
      {{"document.summary",
        K::read,
        {},
        "Title, file, dirty flag, ppq, tempo and meter maps, tracks."},
       nullptr,
       true,
       always,
       nullptr,
       summary},
      {{"document.open",
        K::change,
        {"path"},
        "Open a file (absolute path) as the song; refused with unsaved changes or during a render.",
        {"path"}},
       nullptr,
       false,
       hostHas<&McpHost::open>,
       N_("この口では曲を開けません"),
       documentOpen},
      {{"document.save",
        K::change,
        {"path"},
        "Save the song as .nsproj (to its own file when path is absent)."},
       documentSave,
       true,
       hostHas<&McpHost::save>,
       N_("この口では保存できません")},
      {{"track.read",
        K::read,
        {"track"},
        "One track: name, voice, note count, mix state, extent.",
        {"track"}},
       trackRead,
       true,
       always,
       nullptr},
      {{"track.notes",
        K::read,
        {"track", "fromTick", "toTick", "offset", "limit"},
        "Notes of a track (index, tick, duration, pitch, lyric, velocity, slurToNext, "
        "breathAfter), paged.",
        {"track"}},
       trackNotes,
       true,
       always,
       nullptr},
      {{"track.lyrics",
        K::read,
        {"track", "fromTick", "toTick", "offset", "limit"},
        "Lyrics of a track's notes with their indices, and as one text.",
        {"track"}},
       trackLyrics,
       true,
       always,
       nullptr},
      {{"lyrics.set",
        K::edit,
        {"track", "edits"},
        "Set lyrics: edits [{index, lyric}].",
        {"track", "edits"}},
       mcp::lyricsSet,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"lyrics.normalize",
        K::edit,
        {"track", "mode", "dryRun"},
        "Lyrics of a track to hiragana (mode \"hiragana\") or without UTAU marks (\"stripUtau\"); "
        "dryRun lists the changes only.",
        {"track", "mode"}},
       mcp::lyricsNormalize,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.add",
        K::edit,
        {"track", "notes"},
        "Add notes: notes [{tick, duration, pitch, lyric?, velocity?}].",
        {"track", "notes"}},
       mcp::notesAdd,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.remove",
        K::edit,
        {"track", "indices"},
        "Remove the notes at indices.",
        {"track", "indices"}},
       mcp::notesRemove,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.update",
        K::edit,
        {"track", "edits"},
        "Replace fields of notes: edits [{index, tick?, duration?, pitch?, lyric?, velocity?}].",
        {"track", "edits"}},
       mcp::notesUpdate,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.tie",
        K::edit,
        {"track", "indices"},
        "Join the notes at indices: neighbours of one pitch become one note, of another pitch are "
        "slurred.",
        {"track", "indices"}},
       mcp::notesTie,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.marks",
        K::edit,
        {"track", "edits"},
        "Slur and breath marks: edits [{index, slurToNext?, breathAfter?}].",
        {"track", "edits"}},
       mcp::notesMarks,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"notes.velocity",
        K::edit,
        {"track", "indices", "fromTick", "toTick", "set", "add", "ramp"},
        "Velocity of notes chosen by indices or a tick range: exactly one of set, add, ramp {from, "
        "to}.",
        {"track"}},
       mcp::notesVelocity,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"pitch.summary",
        K::read,
        {"indices", "fromTick", "toTick"},
        "The rendered pitch curve: frame interval, transpose, range in semitones, and per note of "
        "the rendered track how far the sung pitch (median) lies from the written one (centsOff). "
        "Optionally limited to note indices or a tick range."},
       mcp::pitchSummary,
       true,
       hostHas<&McpHost::pitch>,
       N_("この口では曲線を直せません")},
      {{"pitch.vibrato",
        K::edit,
        {"indices", "fromTick", "toTick", "depthCents", "rateHz", "delaySec"},
        "Add vibrato to the curve over note indices or a tick range: depthCents 0..300, rateHz "
        "1..12 (5.5), delaySec 0..5 from each note's start (0). Unvoiced frames stay unvoiced.",
        {"depthCents"}},
       mcp::pitchVibrato,
       true,
       hostHas<&McpHost::commitPitch>,
       N_("この口では曲線を直せません")},
      {{"pitch.smooth",
        K::edit,
        {"indices", "fromTick", "toTick", "windowSec"},
        "Smooth the curve over note indices or a tick range: a moving mean of windowSec 0.01..1 "
        "(0.1) within each voiced stretch."},
       mcp::pitchSmooth,
       true,
       hostHas<&McpHost::commitPitch>,
       N_("この口では曲線を直せません")},
      {{"pitch.flatten",
        K::edit,
        {"indices", "fromTick", "toTick", "amount"},
        "Pull the curve toward the written pitch of the notes under it (elsewhere the range's "
        "median) by amount 0..1 (1: level)."},
       mcp::pitchFlatten,
       true,
       hostHas<&McpHost::commitPitch>,
       N_("この口では曲線を直せません")},
      {{"pitch.reset",
        K::edit,
        {"indices", "fromTick", "toTick"},
        "Put the curve back as the engine rendered it over note indices or a tick range."},
       mcp::pitchReset,
       true,
       hostHas<&McpHost::commitPitch>,
       N_("この口では曲線を直せません")},
      {{"pitch.draw",
        K::edit,
        {"points"},
        "Draw the curve through points [{tick, pitch}] (ticks rising, pitch 0..127 in semitones, "
        "fractions allowed), straight between them; unvoiced frames stay unvoiced.",
        {"points"}},
       mcp::pitchDraw,
       true,
       hostHas<&McpHost::commitPitch>,
       N_("この口では曲線を直せません")},
      {{"timing.read",
        K::read,
        {"fromTick", "toTick", "offset", "limit"},
        "Phoneme boundaries of the last render (index, name, startSec, endSec), paged."},
       timingRead,
       true,
       hostHas<&McpHost::timing>,
       N_("この口では音素の境目を直せません")},
      {{"timing.move",
        K::edit,
        {"edits"},
        "Move phoneme starts: edits [{index, startSec}], each between the previous phoneme's start "
        "and this one's end.",
        {"edits"}},
       mcp::timingMove,
       true,
       hostHas<&McpHost::commitTiming>,
       N_("この口では音素の境目を直せません")},
      {{"issues.list",
        K::read,
        {"offset", "limit"},
        "Score check findings with their repair suggestions; indices last until the song changes."},
       issuesList,
       true,
       hostHas<&McpHost::issues>,
       N_("この口では問題を直せません")},
      {{"issues.apply",
        K::edit,
        {"issue", "suggestion", "category", "tick"},
        "Apply a repair suggestion of issues.list; issue, category and tick must still agree.",
        {"issue", "suggestion", "category", "tick"}},
       mcp::issuesApply,
       true,
       hostHas<&McpHost::applySuggestion>,
       N_("この口では問題を直せません")},
      {{"export.musicxml",
        K::file,
        {"path"},
        "Write the sung track as MusicXML for the engine (.musicxml; beside the song's file when "
        "path is absent)."},
       exportMusicXML,
       true,
       always,
       nullptr},
      {{"export.midi", K::file, {"path"}, "Write the song as a MIDI file (.mid, every track)."},
       exportMIDI,
       true,
       always,
       nullptr},
      {{"track.select", K::state, {"track"}, "Make a track the current one.", {"track"}},
       trackSelect,
       true,
       hostHas<&McpHost::selectTrack>,
       N_("この口ではトラックを選べません")},
      {{"track.mix",
        K::edit,
        {"track", "volume", "pan", "mute", "solo"},
        "Mixer: volume 0..1.5, pan -1..1, mute, solo.",
        {"track"}},
       mcp::trackMix,
       true,
       hostHas<&McpHost::commit>,
       N_("この口では曲を直せません")},
      {{"sing.start",
        K::state,
        {"scope", "fromTick", "toTick"},
        "Start a render: scope all (default), track, range or rangeTrack (the loop range, or "
        "fromTick/toTick). Returns at once; poll sing_status."},
       singStart,
       true,
       hostHas<&McpHost::sing>,
       N_("この口では歌わせられません")},
      {{"sing.status", K::read, {}, "State of the last render started through this port."},
       singStatus,
       false,
       hostHas<&McpHost::singStatus>,
       N_("この口では歌わせられません")},
      {{"history.read", K::read, {}, "Undo and redo labels, newest first."},
       historyRead,
       true,
       hostHas<&McpHost::history>,
       N_("この口では取り消しを扱えません")},
      {{"edit.undo",
        K::edit,
        {"label"},
        "Undo the top step; label must equal history.read's first undo label.",
        {"label"}},
       editUndo,
       true,
       hostHas<&McpHost::undoRedo>,
       N_("この口では取り消しを扱えません")},
      {{"edit.redo",
        K::edit,
        {"label"},
        "Redo the top step; label must equal history.read's first redo label.",
        {"label"}},
       editRedo,
       true,
       hostHas<&McpHost::undoRedo>,
       N_("この口では取り消しを扱えません")},
      {{"selection.read",
        K::read,
        {},
        "Selected note indices of the current track and the loop range."},
       selectionRead,
       true,
       hostHas<&McpHost::selection>,
       N_("この口では選ぶ範囲を扱えません")},
      {{"selection.set",
        K::state,
        {"indices", "all", "fromTick", "toTick", "clearRange"},
        "Select notes of the current track (indices or all) and/or set or clear the loop range."},
       selectionSet,
       true,
       hostHas<&McpHost::setSelection>,
       N_("この口では選ぶ範囲を扱えません")},
  };
  return entries;
}

}  // namespace

const std::vector<McpCommandLayer::CommandInfo>& McpCommandLayer::commands() {
  static const std::vector<CommandInfo> infos = [] {
    std::vector<CommandInfo> v;
    for (const auto& e : table()) v.push_back(e.info);
    return v;
  }();
  return infos;
}

McpResponse McpCommandLayer::handle(const McpRequest& request) {
  const auto& entries = table();
  auto it = std::find_if(entries.begin(), entries.end(),
                         [&](const Entry& e) { return request.command == e.info.name; });
  if (it == entries.end()) {
    return McpResponse::failure(request.id, Code::unknownCommand,
                                tr("知らない命令です：") + request.command);
  }
  static const McpJSON::Object kNoArgs;
  const McpJSON::Object& args = request.args ? *request.args : kNoArgs;
  for (const auto& arg : args) {
    const std::string& name = arg.first;
    const auto& allowed = it->info.arguments;
    if (std::none_of(allowed.begin(), allowed.end(), [&](const char* a) { return name == a; })) {
      return McpResponse::failure(request.id, Code::badRequest, tr("知らない引数です：") + name);
    }
  }
  if (it->needsDocument && (!host_.document || !host_.document())) {
    return McpResponse::failure(request.id, Code::noDocument, tr("開いている曲がありません"));
  }
  if (!it->hostHas(host_)) {
    return McpResponse::failure(request.id, Code::notAvailable, tr(it->unavailable));
  }
  Args a(args);
  Context c{host_, a, *memo_};
  try {
    if (it->write) {
      std::string text;
      JsonWriter w(text, JsonStyle::Line);
      it->write(c, w);
      return McpResponse::successText(request.id, std::move(text));
    }
    return McpResponse::success(request.id, it->run(c));
  } catch (const ArgError& e) {
    return McpResponse::failure(request.id, e.code, e.message);
  } catch (const std::exception& e) {
    // No fault of a command may end the connection: it is an answer like any other.
    return McpResponse::failure(request.id, Code::ioError,
                                trf("命令の途中で失敗しました：%@", {e.what()}));
  }
}

McpCommandLayer::McpCommandLayer(McpHost host)
    : host_(std::move(host)), memo_(std::make_shared<mcp::Memo>()) {}

std::string McpCommandLayer::handleLine(std::string_view line) {
  McpRequest request;
  try {
    request = decodeRequest(line);
  } catch (const McpDecodeError& e) {
    return encodeResponse(McpResponse::failure(std::nullopt, Code::badRequest, e.message));
  }
  return encodeResponse(handle(request));
}

}  // namespace melvo
