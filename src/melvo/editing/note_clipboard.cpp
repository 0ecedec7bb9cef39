#include "melvo/editing/note_clipboard.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "melvo/platform/json.h"

namespace melvo {
namespace {

constexpr std::string_view kFormatKey = "melvoNotes";
constexpr std::int64_t kFormatVersion = 1;
// As many notes as an importer accepts.
constexpr std::size_t kMaxNotes = 200000;

std::int64_t rescale(std::int64_t tick, std::int64_t from, std::int64_t to) {
  if (from == to) return tick;
  // Both sides are bounded (ticks by maxTick, ppq checked), so a double is exact enough.
  const double v =
      std::trunc(static_cast<double>(tick) * static_cast<double>(to) / static_cast<double>(from));
  return static_cast<std::int64_t>(std::clamp(v, 0.0, static_cast<double>(maxTick)));
}

const Json* member(const Json& o, std::string_view key, Json::Type type) {
  const Json* v = o.find(key);
  return v && v->type() == type ? v : nullptr;
}

}  // namespace

std::string encodeClipboard(const std::vector<NoteEvent>& notes, std::int64_t ppq) {
  Json list = Json::array();
  for (const auto& n : notes) {
    Json o = Json::Object{{"duration", n.duration},     {"hasBreathAfter", n.hasBreathAfter},
                          {"lyric", n.lyric},           {"pitch", n.pitch},
                          {"slurToNext", n.slurToNext}, {"tick", n.tick},
                          {"velocity", n.velocity}};
    if (n.sourcePhonemes) o["sourcePhonemes"] = *n.sourcePhonemes;
    list.push(std::move(o));
  }
  return Json(Json::Object{{std::string(kFormatKey), kFormatVersion},
                           {"notes", std::move(list)},
                           {"ppq", ppq}})
      .dump();
}

std::optional<std::vector<NoteEvent>> decodeClipboard(std::string_view text, std::int64_t ppq) {
  // Cheap refusal of ordinary text before any parsing.
  if (text.find(kFormatKey) == std::string_view::npos) return std::nullopt;
  Json root;
  try {
    root = Json::parse(text);
  } catch (const JsonError&) {
    return std::nullopt;
  }
  const Json* version = member(root, kFormatKey, Json::Type::Int);
  const Json* from = member(root, "ppq", Json::Type::Int);
  const Json* list = member(root, "notes", Json::Type::Array);
  if (!version || version->asInt() != kFormatVersion || !from || !list) return std::nullopt;
  const std::int64_t sourcePpq = from->asInt();
  if (sourcePpq < 1 || sourcePpq > 1'000'000 || list->size() > kMaxNotes) return std::nullopt;
  const std::int64_t targetPpq = std::clamp<std::int64_t>(ppq, 1, 1'000'000);

  std::vector<NoteEvent> notes;
  notes.reserve(list->size());
  for (const Json& o : list->asArray()) {
    const Json* tick = member(o, "tick", Json::Type::Int);
    const Json* duration = member(o, "duration", Json::Type::Int);
    const Json* pitch = member(o, "pitch", Json::Type::Int);
    if (!tick || !duration || !pitch) return std::nullopt;
    NoteEvent n = NoteEvent::make(Uuid::random(), tick->asInt(), duration->asInt(), pitch->asInt());
    n.tick = rescale(n.tick, sourcePpq, targetPpq);
    n.duration = std::max<std::int64_t>(1, rescale(n.duration, sourcePpq, targetPpq));
    if (const Json* v = o.find("velocity")) {
      if (!v->isInt()) return std::nullopt;
      n.velocity = static_cast<int>(std::clamp<std::int64_t>(
          v->asInt(), std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
    }
    if (const Json* v = o.find("lyric")) {
      if (!v->isString()) return std::nullopt;
      n.lyric = v->asString();
    }
    if (const Json* v = o.find("slurToNext")) {
      if (!v->isBool()) return std::nullopt;
      n.slurToNext = v->asBool();
    }
    if (const Json* v = o.find("hasBreathAfter")) {
      if (!v->isBool()) return std::nullopt;
      n.hasBreathAfter = v->asBool();
    }
    if (const Json* v = o.find("sourcePhonemes")) {
      if (!v->isString()) return std::nullopt;
      n.sourcePhonemes = v->asString();
    }
    notes.push_back(std::move(n));
  }
  return notes;
}

std::string clipboardLyrics(const std::vector<NoteEvent>& notes) {
  std::string out;
  for (const auto& n : notes) {
    if (n.lyric.empty()) continue;
    if (!out.empty()) out += ' ';
    out += n.lyric;
  }
  return out;
}

}  // namespace melvo
