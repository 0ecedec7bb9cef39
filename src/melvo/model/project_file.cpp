#include "melvo/model/project_file.h"

#include <simdjson.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include "melvo/model/note_color_catalog.h"
#include "melvo/platform/atomic_file.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/json.h"
#include "melvo/platform/text.h"

namespace melvo {

// ---- Encoding ----

std::string encodeProject(const MusicDocument& d) {
  std::string out;
  std::size_t notes = d.totalNoteCount();
  out.reserve(1024 + notes * 300);
  JsonWriter w(out, JsonStyle::Pretty);
  w.beginObject();
  w.key("keySignatures");
  w.beginArray();
  for (const auto& k : d.keySignatures) {
    w.beginObject();
    w.key("fifths"), w.value(k.fifths);
    w.key("tick"), w.value(k.tick);
    w.endObject();
  }
  w.endArray();
  w.key("ppq"), w.value(d.ppq);
  w.key("schemaVersion"), w.value(d.schemaVersion);
  w.key("tempoMap");
  w.beginArray();
  for (const auto& t : d.tempoMap) {
    w.beginObject();
    w.key("bpm"), w.value(t.bpm);
    w.key("tick"), w.value(t.tick);
    w.endObject();
  }
  w.endArray();
  w.key("timeSignatures");
  w.beginArray();
  for (const auto& s : d.timeSignatures) {
    w.beginObject();
    w.key("denominator"), w.value(s.denominator);
    w.key("numerator"), w.value(s.numerator);
    w.key("tick"), w.value(s.tick);
    w.endObject();
  }
  w.endArray();
  w.key("title"), w.value(d.title);
  w.key("tracks");
  w.beginArray();
  std::string id;
  for (const auto& t : d.tracks) {
    w.beginObject();
    w.key("characterName"), w.value(t.characterName);
    w.key("colorHex"), w.value(t.colorHex);
    w.key("id"), w.value(t.id.toString());
    w.key("isMuted"), w.value(t.isMuted);
    w.key("isSolo"), w.value(t.isSolo);
    w.key("name"), w.value(t.name);
    w.key("notes");
    w.beginArray();
    for (const auto& n : t.notes) {
      w.beginObject();
      w.key("duration"), w.value(n.duration);
      w.key("hasBreathAfter"), w.value(n.hasBreathAfter);
      id.clear();
      n.id.appendTo(id);
      w.key("id"), w.value(std::string_view(id));
      w.key("lyric"), w.value(n.lyric);
      w.key("pitch"), w.value(n.pitch);
      w.key("slurToNext"), w.value(n.slurToNext);
      if (n.sourcePhonemes) w.key("sourcePhonemes"), w.value(*n.sourcePhonemes);
      w.key("tick"), w.value(n.tick);
      w.key("velocity"), w.value(n.velocity);
      w.endObject();
    }
    w.endArray();
    w.key("pan"), w.value(t.pan);
    w.key("volume"), w.value(t.volume);
    w.endObject();
  }
  w.endArray();
  w.endObject();
  return out;
}

// ---- Decoding ----

namespace {

using simdjson::ondemand::json_type;
using Value = simdjson::ondemand::value;

[[noreturn]] void bad(std::string_view what) {
  throw ProjectDecodeError(trf("プロジェクトファイルの形が正しくありません: %@", {what}));
}

bool isNull(Value& v) {
  return v.type().value() == json_type::null;
}

std::int64_t readInt(Value& v, std::string_view key) {
  std::int64_t i;
  if (!v.get_int64().get(i)) return i;
  // Integral numbers written with a fraction ("480.0") are accepted, as any JSON reader would.
  double d;
  if (!v.get_double().get(d) && std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 9.2e18) {
    return static_cast<std::int64_t>(d);
  }
  bad(trf("「%@」は整数でなければなりません", {key}));
}

int readSmallInt(Value& v, std::string_view key) {
  std::int64_t i = readInt(v, key);
  return static_cast<int>(std::clamp<std::int64_t>(i, INT32_MIN, INT32_MAX));
}

[[noreturn]] void outOfRange(std::string_view key, std::int64_t value, std::int64_t low,
                             std::int64_t high) {
  bad(trf("「%@」は %@ から %@ まででなければなりません（%@ とあります）",
          {key, std::to_string(low), std::to_string(high), std::to_string(value)}));
}

// A value the model keeps as it is, so one it cannot hold is refused rather than changed.
std::int64_t readBounded(Value& v, std::string_view key, std::int64_t low, std::int64_t high) {
  const std::int64_t i = readInt(v, key);
  if (i < low || i > high) outOfRange(key, i, low, high);
  return i;
}

// A line break or another control character in a lyric would end up raw in the engine's
// score and label files; the model's lyric is one line of text.
std::string cleanLyric(std::string_view raw) {
  std::string out;
  out.reserve(raw.size());
  for (char c : raw) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) continue;
    out += c;
  }
  return out;
}

double readDouble(Value& v, std::string_view key) {
  double d;
  if (!v.get_double().get(d)) return d;
  bad(trf("「%@」は数でなければなりません", {key}));
}

bool readBool(Value& v, std::string_view key) {
  bool b;
  if (!v.get_bool().get(b)) return b;
  bad(trf("「%@」は true か false でなければなりません", {key}));
}

std::string_view readString(Value& v, std::string_view key) {
  std::string_view s;
  if (!v.get_string().get(s)) return s;
  bad(trf("「%@」は文字列でなければなりません", {key}));
}

Uuid readUuid(Value& v, std::string_view key) {
  auto u = Uuid::parse(readString(v, key));
  if (!u) bad(trf("「%@」は UUID でなければなりません", {key}));
  return *u;
}

simdjson::ondemand::array readArray(Value& v, std::string_view key) {
  simdjson::ondemand::array a;
  if (!v.get_array().get(a)) return a;
  bad(trf("「%@」は配列でなければなりません", {key}));
}

simdjson::ondemand::object readObject(Value& v, std::string_view key) {
  simdjson::ondemand::object o;
  if (!v.get_object().get(o)) return o;
  bad(trf("「%@」はオブジェクトでなければなりません", {key}));
}

[[noreturn]] void missing(std::string_view key) {
  bad(trf("必要な「%@」がありません", {key}));
}

NoteEvent readNote(Value& value) {
  NoteEvent n;
  bool hasTick = false, hasDuration = false, hasPitch = false, hasId = false;
  std::int64_t tick = 0, duration = 1, pitch = 60;
  for (auto field : readObject(value, "notes")) {
    std::string_view key = field.unescaped_key().value();
    Value v = field.value().value();
    if (key == "tick") {
      tick = readInt(v, key), hasTick = true;
    } else if (key == "duration") {
      duration = readInt(v, key), hasDuration = true;
    } else if (key == "pitch") {
      pitch = readInt(v, key), hasPitch = true;
    } else if (isNull(v)) {
      continue;  // null counts as absent for the optional keys
    } else if (key == "id") {
      n.id = readUuid(v, key), hasId = true;
    } else if (key == "lyric") {
      std::string_view raw = readString(v, key);
      if (std::any_of(raw.begin(), raw.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; })) {
        n.lyric = cleanLyric(raw);
      } else {
        n.lyric = raw;
      }
    } else if (key == "velocity") {
      n.velocity = static_cast<int>(readBounded(v, key, INT32_MIN, INT32_MAX));
    } else if (key == "slurToNext") {
      n.slurToNext = readBool(v, key);
    } else if (key == "hasBreathAfter") {
      n.hasBreathAfter = readBool(v, key);
    } else if (key == "sourcePhonemes") {
      n.sourcePhonemes = std::string(readString(v, key));
    }
  }
  if (!hasTick) missing("tick");
  if (!hasDuration) missing("duration");
  if (!hasPitch) missing("pitch");
  if (!hasId) n.id = Uuid::random();
  n.tick = std::clamp<std::int64_t>(tick, 0, maxTick);
  n.duration = std::clamp<std::int64_t>(duration, 1, maxTick);
  n.pitch = static_cast<int>(std::clamp<std::int64_t>(pitch, 0, 127));
  return n;
}

MusicTrack readTrack(Value& value) {
  MusicTrack t;
  bool hasId = false, hasColor = false;
  for (auto field : readObject(value, "tracks")) {
    std::string_view key = field.unescaped_key().value();
    Value v = field.value().value();
    if (isNull(v)) continue;
    if (key == "id") {
      t.id = readUuid(v, key), hasId = true;
    } else if (key == "name") {
      t.name = readString(v, key);
    } else if (key == "notes") {
      std::vector<NoteEvent> notes;
      for (auto element : readArray(v, key)) {
        Value nv = element.value();
        notes.push_back(readNote(nv));
      }
      t.notes.assign(std::move(notes));
    } else if (key == "isMuted") {
      t.isMuted = readBool(v, key);
    } else if (key == "isSolo") {
      t.isSolo = readBool(v, key);
    } else if (key == "volume") {
      t.volume = readDouble(v, key);
    } else if (key == "pan") {
      t.pan = readDouble(v, key);
    } else if (key == "characterName") {
      t.characterName = readString(v, key);
    } else if (key == "colorHex") {
      t.colorHex = migrateColor(readString(v, key)), hasColor = true;
    }
  }
  (void)hasId;  // a track without an id keeps the new one it was made with
  if (!hasColor) t.colorHex = MusicTrack::defaultTrackColor();
  return t;
}

template <typename Event, typename Read>
std::vector<Event> readEvents(Value& value, std::string_view listKey, Read read) {
  std::vector<Event> out;
  for (auto element : readArray(value, listKey)) {
    Value ev = element.value();
    out.push_back(read(readObject(ev, listKey)));
  }
  return out;
}

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Where the top-level value ends: the offset past its closing bracket, or nothing when the
// bytes end first. Only run once simdjson has refused the bytes, to name the fault.
std::optional<std::size_t> endOfTopValue(std::string_view bytes, std::size_t first) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = first; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      ++depth;
    } else if ((c == '}' || c == ']') && --depth == 0) {
      return i + 1;
    }
  }
  return std::nullopt;
}

// What went wrong with bytes that simdjson refused, in words that name it.
[[noreturn]] void unreadable(simdjson::error_code code, std::string_view bytes) {
  std::size_t first = 0;
  while (first < bytes.size() && isJsonSpace(bytes[first])) ++first;
  if (first == bytes.size()) bad(tr("ファイルが空です"));
  if (bytes[first] != '{') bad(tr("最上位がオブジェクトではありません"));
  const auto end = endOfTopValue(bytes, first);
  if (!end) bad(tr("ファイルが途中で切れています"));
  std::size_t rest = *end;
  while (rest < bytes.size() && isJsonSpace(bytes[rest])) ++rest;
  if (rest < bytes.size()) bad(tr("JSON の後ろに余計なデータがあります"));
  throw ProjectDecodeError(trf("JSON として読めません: %@", {simdjson::error_message(code)}));
}

MusicDocument decodePadded(simdjson::padded_string_view json) {
  // A byte order mark is no part of the JSON, but editors on other systems write one.
  if (json.size() >= 3 && std::string_view(json.data(), 3) == "\xEF\xBB\xBF")
    json = simdjson::padded_string_view(json.data() + 3, json.size() - 3, json.capacity() - 3);
  const std::string_view bytes(json.data(), json.size());
  thread_local simdjson::ondemand::parser parser;
  MusicDocument d;
  try {
    simdjson::ondemand::document doc;
    if (auto err = parser.iterate(json).get(doc)) unreadable(err, bytes);
    simdjson::ondemand::object root;
    if (auto err = doc.get_object().get(root)) unreadable(err, bytes);
    for (auto field : root) {
      std::string_view key = field.unescaped_key().value();
      Value v = field.value().value();
      if (isNull(v)) continue;
      if (key == "schemaVersion") {
        d.schemaVersion = readInt(v, key);
      } else if (key == "title") {
        d.title = readString(v, key);
      } else if (key == "ppq") {
        d.ppq = readBounded(v, key, 1, kMaxPPQ);
      } else if (key == "tracks") {
        d.tracks.clear();
        for (auto element : readArray(v, key)) {
          Value tv = element.value();
          d.tracks.push_back(readTrack(tv));
        }
      } else if (key == "tempoMap") {
        d.tempoMap = readEvents<TempoEvent>(v, key, [](simdjson::ondemand::object o) {
          TempoEvent e;
          bool tick = false, bpm = false;
          for (auto f : o) {
            std::string_view k = f.unescaped_key().value();
            Value fv = f.value().value();
            if (k == "tick")
              e.tick = readBounded(fv, "tempoMap.tick", 0, maxTick), tick = true;
            else if (k == "bpm")
              e.bpm = readDouble(fv, k), bpm = true;
          }
          if (!tick) missing("tick");
          if (!bpm) missing("bpm");
          return e;
        });
      } else if (key == "timeSignatures") {
        d.timeSignatures = readEvents<TimeSignatureEvent>(v, key, [](simdjson::ondemand::object o) {
          TimeSignatureEvent e;
          bool tick = false, num = false, den = false;
          for (auto f : o) {
            std::string_view k = f.unescaped_key().value();
            Value fv = f.value().value();
            if (k == "tick")
              e.tick = readBounded(fv, "timeSignatures.tick", 0, maxTick), tick = true;
            else if (k == "numerator")
              e.numerator = readSmallInt(fv, k), num = true;
            else if (k == "denominator")
              e.denominator = readSmallInt(fv, k), den = true;
          }
          if (!tick) missing("tick");
          if (!num) missing("numerator");
          if (!den) missing("denominator");
          return e;
        });
      } else if (key == "keySignatures") {
        d.keySignatures = readEvents<KeySignatureEvent>(v, key, [](simdjson::ondemand::object o) {
          KeySignatureEvent e;
          bool tick = false, fifths = false;
          for (auto f : o) {
            std::string_view k = f.unescaped_key().value();
            Value fv = f.value().value();
            if (k == "tick")
              e.tick = readBounded(fv, "keySignatures.tick", 0, maxTick), tick = true;
            else if (k == "fifths")
              e.fifths = readSmallInt(fv, k), fifths = true;
          }
          if (!tick) missing("tick");
          if (!fifths) missing("fifths");
          return e;
        });
      }
    }
    // Past the root object only the end may follow.
    const char* rest = nullptr;
    if (!doc.current_location().get(rest)) unreadable(simdjson::TRAILING_CONTENT, bytes);
  } catch (const simdjson::simdjson_error& e) {
    unreadable(e.error(), bytes);
  }
  d.repairMaps();
  return d;
}

}  // namespace

MusicDocument decodeProject(std::string_view bytes) {
  simdjson::padded_string padded(bytes);
  return decodePadded(padded);
}

MusicDocument decodeProjectInPlace(std::string& bytes) {
  if (bytes.capacity() < bytes.size() + simdjson::SIMDJSON_PADDING) {
    bytes.reserve(bytes.size() + simdjson::SIMDJSON_PADDING);
  }
  return decodePadded(simdjson::padded_string_view(bytes.data(), bytes.size(), bytes.capacity()));
}

MusicDocument readProject(const std::filesystem::path& path) {
  // readFile leaves room for the parser's padding, so no second copy is made.
  std::string bytes = readFile(path);
  return decodeProjectInPlace(bytes);
}

void writeProject(const MusicDocument& document, const std::filesystem::path& path) {
  writeFileAtomically(path, encodeProject(document));
}

bool hasProjectExtension(const std::filesystem::path& path) {
  return text::asciiLower(path.extension().string()) == ".nsproj";
}

// ---- Summary for the recent list ----

RecentProjectSummary readRecentSummary(const std::filesystem::path& path) {
  RecentProjectSummary s;
  std::error_code ec;
  auto time = std::filesystem::last_write_time(path, ec);
  if (ec) return s;
  s.modified = std::chrono::file_clock::to_sys(time);
  if (!text::endsWith(text::asciiLower(path.string()), ".nsproj")) return s;

  struct Head {
    std::optional<std::string> characterName, colorHex;
  };
  std::optional<std::vector<Head>> tracks;
  try {
    simdjson::padded_string json = simdjson::padded_string::load(path.string());
    simdjson::padded_string_view view(json);
    if (view.size() >= 3 && std::string_view(view.data(), 3) == "\xEF\xBB\xBF")
      view = simdjson::padded_string_view(view.data() + 3, view.size() - 3, view.capacity() - 3);
    simdjson::ondemand::parser parser;
    simdjson::ondemand::document doc = parser.iterate(view);
    for (auto field : doc.get_object()) {
      std::string_view key = field.unescaped_key().value();
      if (key != "tracks") continue;
      Value v = field.value().value();
      if (isNull(v)) continue;
      tracks.emplace();
      // Only the head of each track is read, so damaged notes still give a summary.
      for (auto element : readArray(v, key)) {
        Head h;
        Value tv = element.value();
        for (auto f : readObject(tv, key)) {
          std::string_view k = f.unescaped_key().value();
          Value fv = f.value().value();
          if (isNull(fv)) continue;
          if (k == "characterName")
            h.characterName = std::string(readString(fv, k));
          else if (k == "colorHex")
            h.colorHex = std::string(readString(fv, k));
          else if (k == "isMuted")
            readBool(fv, k);
        }
        tracks->push_back(std::move(h));
      }
    }
  } catch (...) {
    return s;
  }
  if (!tracks) return s;
  s.trackCount = static_cast<int>(tracks->size());
  if (tracks->empty()) return s;
  const Head* chosen = &tracks->front();
  for (const auto& h : *tracks) {
    if (h.characterName && !h.characterName->empty()) {
      chosen = &h;
      break;
    }
  }
  s.voice = chosen->characterName.value_or("");
  s.colorHex = chosen->colorHex;
  return s;
}

}  // namespace melvo
