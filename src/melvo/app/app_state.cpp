#include "melvo/app/app_state.h"

#include <algorithm>

#include "melvo/importers/import_entry.h"
#include "melvo/model/project_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/log.h"
#include "melvo/platform/reference_date.h"
#include "melvo/platform/text.h"
#include "melvo/synthesis/multi_track_synthesizer.h"
#include "melvo/synthesis/neutrino_engine.h"

namespace melvo {
namespace fs = std::filesystem;

namespace {

const Json& need(const Json& j, const char* key) {
  const Json* v = j.find(key);
  if (!v) throw JsonError(std::string("missing key ") + key);
  return *v;
}

Json recentToJson(const AppState::RecentFile& r) {
  return Json::Object{{"id", r.id.toString()},
                      {"path", r.path},
                      {"title", r.title},
                      {"lastOpened", r.lastOpened},
                      {"totalNotes", r.totalNotes}};
}

AppState::RecentFile recentFromJson(const Json& j) {
  AppState::RecentFile r;
  auto id = Uuid::parse(j.find("id") ? need(j, "id").asString() : "");
  if (!id) throw JsonError("bad id");
  r.id = *id;
  r.path = need(j, "path").asString();
  r.title = need(j, "title").asString();
  r.lastOpened = need(j, "lastOpened").asDouble();
  r.totalNotes = need(j, "totalNotes").asInt();
  return r;
}

Json takeToJson(const AppState::Take& t) {
  Json j = Json::Object{{"id", t.id.toString()},    {"createdAt", t.createdAt},
                        {"wavPath", t.wavPath},     {"title", t.title},
                        {"noteCount", t.noteCount}, {"durationSec", t.durationSec}};
  if (t.characterName) j["characterName"] = *t.characterName;
  return j;
}

AppState::Take takeFromJson(const Json& j) {
  AppState::Take t;
  auto id = Uuid::parse(j.find("id") ? need(j, "id").asString() : "");
  if (!id) throw JsonError("bad id");
  t.id = *id;
  t.createdAt = need(j, "createdAt").asDouble();
  t.wavPath = need(j, "wavPath").asString();
  if (const Json* c = j.find("characterName"); c && c->isString()) t.characterName = c->asString();
  t.title = need(j, "title").asString();
  t.noteCount = need(j, "noteCount").asInt();
  t.durationSec = need(j, "durationSec").asDouble();
  return t;
}

// One bad entry rejects the whole list, as a decoder would.
template <typename T, typename F>
std::vector<T> decodeList(const Json* list, F decodeOne) {
  std::vector<T> out;
  if (!list) return out;
  const auto& items = list->asArray();
  for (const auto& item : items) {
    if (!item.isObject()) throw JsonError("entry is not an object");
    out.push_back(decodeOne(item));
  }
  return out;
}

Json recentsToJson(const std::vector<AppState::RecentFile>& list) {
  Json out = Json::array();
  for (const auto& r : list) out.push(recentToJson(r));
  return out;
}

Json takesToJson(const std::vector<AppState::Take>& list) {
  Json out = Json::array();
  for (const auto& t : list) out.push(takeToJson(t));
  return out;
}

std::string absolutePath(const fs::path& p) {
  std::error_code ec;
  const fs::path a = fs::absolute(p, ec);
  return (ec ? p : a).lexically_normal().string();
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

}  // namespace

AppState::AppState(EventLoop& loop, FrontEnd fe)
    : frontEnd(std::move(fe)), loop_(loop), pianoRollVM_(MusicDocument{}), autoSave_(loop) {
  loadConfig();
  loadRecents();
  loadTakes();
  // A change of volume, pan, mute or solo (by an edit or by undo) is heard at once from the
  // voices already sung.
  pianoRollVM_.subscribe([this](std::string_view property) {
    if (property == "document") mixMayHaveChanged();
  });
  autoSave_.bind([this]() -> std::optional<std::pair<MusicDocument, bool>> {
    return std::make_pair(pianoRollVM_.document(), pianoRollVM_.isDirty());
  });
}

AppState::~AppState() {
  alive_.reset();
  if (voiceRemixWork_.joinable()) voiceRemixWork_.join();
}

void AppState::start() {
  log::write("AppState", substitute("Melvo %@", {MELVO_VERSION}));
  // The initial check: a bundled engine set up, the engine folder's voices scanned. Then the
  // settings as this run found them are on disk, defaults included, so the user (and a second
  // process) can read what is in force.
  setUpEngineFolder();
  saveConfig();
  autoSave_.startTimer();
  setShowHome(true);
  _recoverableSnapshots = autoSave_.findRecoverable();
  notify("recoverableSnapshots");
}

void AppState::endCleanly() {
  autoSave_.endCleanly();
}

void AppState::discardRecoverable(const std::vector<AutoSaveSnapshot>& snapshots) {
  autoSave_.discardRecoverable(snapshots);
  _recoverableSnapshots = autoSave_.findRecoverable();
  notify("recoverableSnapshots");
}

void AppState::alert(const std::string& text) {
  if (frontEnd.alert) {
    frontEnd.alert(text);
  } else {
    log::write("AppState", text);
  }
}

// ---- Refusals and questions ----

bool AppState::refuseSongSwap() {
  if (!_isSynthesizing) return false;
  const std::string text =
      tr("合成中は、曲を開く・新しい曲を作る・保存した版へ戻すことはできません。完了をお待ちいただ"
         "くか、メニュー「ミックスダウン」→「合成を中止」で止めてから、もう一度お試しください。");
  if (songSwapRefusalShown) {
    songSwapRefusalShown(text);
  } else {
    alert(text);
  }
  return true;
}

bool AppState::settleDirtySong(const char* text, const char* saveAndGo, const char* discardAndGo) {
  if (!pianoRollVM_.isDirty()) return true;
  FrontEnd::Question q{tr("未保存の変更があります"), tr(text), tr(saveAndGo), tr(discardAndGo)};
  FrontEnd::Answer a = frontEnd.ask ? frontEnd.ask(q) : FrontEnd::Answer::cancel;
  switch (a) {
    case FrontEnd::Answer::primary:
      return save() == FlowResult::done;
    case FrontEnd::Answer::secondary:
      return true;
    case FrontEnd::Answer::cancel:
      break;
  }
  return false;
}

bool AppState::refuseRenderWhileRendering() {
  if (!_isSynthesizing) return false;
  alert(tr("現在合成中です。完了をお待ちください。"));
  return true;
}

std::optional<std::string> AppState::mixdownRefusal(MixdownKind kind) const {
  if (_showHome) return tr("ホームを閉じて曲を開いてください");
  if (_config.neutrinoDirectory.empty()) return tr("NEUTRINO フォルダが設定されていません");
  const auto& vm = pianoRollVM_;
  const MusicDocument& d = vm.document();
  const bool isRange =
      kind == MixdownKind::rangeAllTracks || kind == MixdownKind::rangeSelectedTrack;
  const bool isTrack =
      kind == MixdownKind::selectedTrack || kind == MixdownKind::rangeSelectedTrack;
  // The range is the loop span chosen on the ruler.
  const bool haveRange = vm.loopEndTick() > vm.loopStartTick();
  if (isRange && !haveRange) return tr("区間が選ばれていません（物差しを Shift+ドラッグ）");
  const int index = vm.currentTrackIndex();
  const MusicTrack* track =
      index >= 0 && index < static_cast<int>(d.tracks.size()) ? &d.tracks[index] : nullptr;
  if (isTrack && (!track || track->notes.empty())) return tr("選択中のトラックに音符がありません");
  if (d.totalNoteCount() == 0) return tr("音符がありません");
  auto inRange = [&](const NoteEvent& n) {
    return n.tick < vm.loopEndTick() && n.endTick() > vm.loopStartTick();
  };
  if (kind == MixdownKind::rangeAllTracks) {
    bool any = false;
    for (const auto& t : d.tracks)
      any = any || std::any_of(t.notes.begin(), t.notes.end(), inRange);
    if (!any) return tr("区間の中に音符がありません");
  }
  if (kind == MixdownKind::rangeSelectedTrack &&
      !std::any_of(track->notes.begin(), track->notes.end(), inRange))
    return tr("区間の中に選択中のトラックの音符がありません");
  return std::nullopt;
}

// ---- Song flows ----

AppState::FlowResult AppState::newProject() {
  if (refuseSongSwap()) return FlowResult::refused;
  if (!settleDirtySong(N_("新規作成すると現在の編集内容は失われます。"), N_("保存して新規作成"),
                       N_("保存せず新規作成")))
    return FlowResult::cancelled;
  MusicDocument fresh;
  fresh.madeAsNewProject = true;
  pianoRollVM_.swapDocument(std::move(fresh), std::nullopt);
  _projectFilePath.reset();
  notify("projectFilePath");
  pianoRollVM_.resetLoop();
  autoSave_.setProject(std::nullopt);
  setShowHome(false);
  return FlowResult::done;
}

std::string AppState::cleanTitle(const std::string& title, const fs::path& file) {
  std::string joined;
  for (char c : title) {
    if (c == '/' || c == '\\' || c == ':' || c == '\n' || c == '\r' || c == '\t') {
      joined += '_';
    } else {
      joined += c;
    }
  }
  std::string trimmed(text::trimWhitespace(joined));
  return trimmed.empty() ? file.filename().string() : trimmed;
}

AppState::FlowResult AppState::open(const fs::path& url) {
  if (refuseSongSwap()) return FlowResult::refused;
  if (!settleDirtySong(N_("ファイルを開くと現在の編集内容は失われます。"), N_("保存して開く"),
                       N_("保存せず開く")))
    return FlowResult::cancelled;
  MusicDocument doc;
  try {
    doc = openDocument(url);
  } catch (const std::exception& e) {
    alert(e.what());
    return FlowResult::failed;
  }
  // One spelling of a path, whatever the working folder: recent files and the autosave's
  // project key are compared as text.
  const std::string path = absolutePath(url);
  if (text::asciiLower(url.extension().string()) == ".nsproj") {
    if (_projectFilePath != path) {
      _projectFilePath = path;
      notify("projectFilePath");
    }
  } else if (_projectFilePath) {
    // An imported song is a new song that has never been saved.
    _projectFilePath.reset();
    notify("projectFilePath");
  }
  const std::string title = cleanTitle(doc.title, url);
  const auto notes = static_cast<std::int64_t>(doc.totalNoteCount());
  pianoRollVM_.swapDocument(std::move(doc), path);
  addRecent(path, title, notes);
  autoSave_.setProject(_projectFilePath);
  setShowHome(false);
  return FlowResult::done;
}

void AppState::adoptDocument(MusicDocument document, const fs::path& file) {
  std::optional<std::string> project;
  const std::string path = absolutePath(file);
  if (text::asciiLower(file.extension().string()) == ".nsproj") project = path;
  assign(_projectFilePath, project, "projectFilePath");
  pianoRollVM_.swapDocument(std::move(document), path);
  autoSave_.setProject(_projectFilePath);
  setShowHome(false);
}

AppState::FlowResult AppState::importScore() {
  if (!frontEnd.chooseFileToOpen) return FlowResult::cancelled;
  auto chosen = frontEnd.chooseFileToOpen({tr("楽譜を読み込む"), openableExtensions()});
  if (!chosen) return FlowResult::cancelled;
  return open(*chosen);
}

bool AppState::writeTo(const fs::path& path) {
  try {
    writeProject(pianoRollVM_.document(), path);
  } catch (const std::exception& e) {
    alert(trf("保存に失敗しました: %@", {e.what()}));
    return false;
  }
  return true;
}

AppState::FlowResult AppState::save() {
  if (!_projectFilePath) return saveAs();
  if (!writeTo(*_projectFilePath)) return FlowResult::failed;
  pianoRollVM_.setIsDirty(false);
  return FlowResult::done;
}

AppState::FlowResult AppState::saveAs() {
  if (!frontEnd.chooseFileToSave) return FlowResult::cancelled;
  auto chosen = frontEnd.chooseFileToSave(
      {tr("曲を保存"), pianoRollVM_.document().title + ".nsproj", "melvo.project"});
  if (!chosen) return FlowResult::cancelled;
  if (!writeTo(*chosen)) return FlowResult::failed;
  const std::string path = absolutePath(*chosen);
  _projectFilePath = path;
  notify("projectFilePath");
  pianoRollVM_.setFilePath(path);
  pianoRollVM_.setIsDirty(false);
  const MusicDocument& d = pianoRollVM_.document();
  addRecent(path, cleanTitle(d.title, *chosen), static_cast<std::int64_t>(d.totalNoteCount()));
  // Later copies go to the new project's folder; earlier ones stay where they are.
  autoSave_.setProject(path);
  return FlowResult::done;
}

std::optional<AutoSaveSnapshot> AppState::snapshot(std::optional<std::string> label) {
  return autoSave_.saveManualSnapshot(std::move(label));
}

AppState::FlowResult AppState::restoreSnapshot(const AutoSaveSnapshot& snap) {
  if (refuseSongSwap()) return FlowResult::refused;
  FrontEnd::Question q{
      tr("このバージョンを復元しますか？"),
      tr("現在の編集内容は失われます。事前にスナップショットを保存することをおすすめします。"),
      tr("復元"), ""};
  if (!frontEnd.ask || frontEnd.ask(q) != FrontEnd::Answer::primary) return FlowResult::cancelled;
  MusicDocument doc;
  try {
    doc = AutoSaveManager::restore(snap);
  } catch (const std::exception& e) {
    alert(e.what());
    return FlowResult::failed;
  }
  // The song keeps its project file but differs from it.
  pianoRollVM_.swapDocument(std::move(doc), _projectFilePath);
  pianoRollVM_.markDirty();
  setShowHome(false);
  // A crash copy that was taken back is no longer on offer; the song it became is this run's.
  autoSave_.settle(snap);
  if (std::erase(_recoverableSnapshots, snap) > 0) notify("recoverableSnapshots");
  return FlowResult::done;
}

// ---- Settings ----

void AppState::loadConfig() {
  auto loaded = NEUTRINOConfig::load();
  if (loaded && *loaded != _config) {
    _config = *loaded;
    notify("config");
  }
}

void AppState::saveConfig() {
  try {
    _config.save();
  } catch (const std::exception& e) {
    log::write("AppState", std::string("cannot write config.json: ") + e.what());
  }
}

void AppState::setConfig(NEUTRINOConfig config) {
  if (assign(_config, std::move(config), "config")) saveConfig();
}

// ---- Recent files ----

// The stored list is re-read under the preferences lock and changed there, so a file that
// another Melvo process added meanwhile stays in it.
void AppState::addRecent(const std::string& path, const std::string& title,
                         std::int64_t totalNotes) {
  changeRecents([&](std::vector<RecentFile>& list) {
    std::erase_if(list, [&](const RecentFile& r) { return r.path == path; });
    list.insert(list.begin(),
                RecentFile{Uuid::random(), path, title, referenceSecondsNow(), totalNotes});
    if (list.size() > kRecentLimit) list.resize(kRecentLimit);
    return true;
  });
}

void AppState::removeRecent(const std::string& path) {
  changeRecents([&](std::vector<RecentFile>& list) {
    return std::erase_if(list, [&](const RecentFile& r) { return r.path == path; }) > 0;
  });
}

void AppState::changeRecents(const std::function<bool(std::vector<RecentFile>&)>& change) {
  std::vector<RecentFile> list;
  preferences_.update(kRecentFilesKey, [&](const Json& stored) {
    try {
      list = decodeList<RecentFile>(stored.isNull() ? nullptr : &stored, recentFromJson);
    } catch (const std::exception& e) {
      log::write("AppState", std::string("recent files unreadable: ") + e.what());
      list.clear();
    }
    if (!change(list) && !stored.isNull()) return stored;
    return recentsToJson(list);
  });
  std::erase_if(list, [](const RecentFile& r) { return !fileExists(r.path); });
  if (list != _recentFiles) {
    _recentFiles = std::move(list);
    notify("recentFiles");
  }
}

void AppState::loadRecents() {
  try {
    _recentFiles = decodeList<RecentFile>(preferences_.get(kRecentFilesKey), recentFromJson);
  } catch (const std::exception& e) {
    log::write("AppState", std::string("recent files unreadable: ") + e.what());
    _recentFiles.clear();
  }
  std::erase_if(_recentFiles, [](const RecentFile& r) { return !fileExists(r.path); });
  notify("recentFiles");
}

void AppState::saveRecents() {
  preferences_.set(kRecentFilesKey, recentsToJson(_recentFiles));
}

// ---- Takes ----

// Read-modify-write under the preferences lock: renders finishing in several processes at
// once each add their take to what the others stored.
void AppState::addTake(Take take) {
  std::vector<Take> list;
  preferences_.update(kTakeHistoryKey, [&](const Json& stored) {
    try {
      list = decodeList<Take>(stored.isNull() ? nullptr : &stored, takeFromJson);
    } catch (const std::exception& e) {
      log::write("AppState", std::string("take history unreadable: ") + e.what());
      list.clear();
    }
    list.insert(list.begin(), std::move(take));
    if (list.size() > kTakeLimit) list.resize(kTakeLimit);
    return takesToJson(list);
  });
  _takeHistory = std::move(list);
  notify("takeHistory");
}

void AppState::loadTakes() {
  try {
    _takeHistory = decodeList<Take>(preferences_.get(kTakeHistoryKey), takeFromJson);
  } catch (const std::exception& e) {
    log::write("AppState", std::string("take history unreadable: ") + e.what());
    _takeHistory.clear();
  }
  // Pruned in memory only; the stored list catches up at the next save.
  std::erase_if(_takeHistory, [](const Take& t) { return !fileExists(t.wavPath); });
  notify("takeHistory");
}

void AppState::saveTakes() {
  preferences_.set(kTakeHistoryKey, takesToJson(_takeHistory));
}

}  // namespace melvo
