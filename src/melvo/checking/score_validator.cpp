#include "melvo/checking/score_validator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "melvo/checking/score_validator_internal.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace validator_detail {

TempoClock::TempoClock(const std::vector<TempoEvent>& sortedTempo, std::int64_t ppq)
    : tempo_(sortedTempo), q_(static_cast<double>(std::max<std::int64_t>(ppq, 1))) {
  // The same running sum as secondsAt(), so both give the same seconds to the last bit.
  at_.reserve(tempo_.size());
  double time = 0;
  std::int64_t previous = 0;
  double bpm = tempo_.empty() ? 120 : tempo_.front().bpm;
  for (const auto& e : tempo_) {
    time += static_cast<double>(e.tick - previous) * 60 / (q_ * bpm);
    at_.push_back(time);
    previous = e.tick;
    bpm = e.bpm;
  }
}

double TempoClock::seconds(std::int64_t tick) const {
  if (tempo_.empty()) return static_cast<double>(tick) * 60 / (q_ * 120);
  // The last event strictly before the tick.
  auto it = std::lower_bound(tempo_.begin(), tempo_.end(), tick,
                             [](const TempoEvent& e, std::int64_t t) { return e.tick < t; });
  if (it == tempo_.begin()) return static_cast<double>(tick) * 60 / (q_ * tempo_.front().bpm);
  std::size_t k = static_cast<std::size_t>(it - tempo_.begin()) - 1;
  return at_[k] + static_cast<double>(tick - tempo_[k].tick) * 60 / (q_ * tempo_[k].bpm);
}

Issue& TrackCheck::add(Cat category, Sev severity, std::int64_t tick, std::string message,
                       std::optional<Uuid> noteID) {
  Issue& row = out.emplace_back();
  row.id = Uuid::random();
  row.noteID = noteID;
  row.trackIndex = trackIndex;
  row.tick = tick;
  row.severity = severity;
  row.category = category;
  row.message = std::move(message);
  return row;
}

std::string joinLines(std::initializer_list<std::string> lines) {
  std::string out;
  for (const auto& l : lines) {
    if (!out.empty()) out += '\n';
    out += l;
  }
  return out;
}

S suggestion(std::string label, SuggestionAction action) {
  return S{std::move(label), std::move(action)};
}

}  // namespace validator_detail

using namespace validator_detail;

bool isStandardLength(std::int64_t duration, std::int64_t ppq) {
  if (duration <= 0 || ppq <= 0) return true;
  auto fits = [&](std::int64_t d) {
    const std::int64_t q = std::max<std::int64_t>(16, ppq) / 16;
    const std::int64_t r = d % q;
    if (r <= 1 || q - r <= 1) return true;
    const std::int64_t g = std::max<std::int64_t>(8, ppq) / 8;
    static constexpr std::int64_t kTuplets[][2] = {{3, 4}, {5, 6}, {6, 7}, {7, 8}, {9, 10}};
    for (const auto& [m, tol] : kTuplets) {
      const std::int64_t x = (d * m) % g;
      if (x < tol || x > g - tol) return true;
    }
    return false;
  };
  return fits(duration) || fits(duration + 1);
}

std::string noteLengthLabel(std::int64_t duration, std::int64_t ppq) {
  // Exact fractions of a quarter, as numerator/denominator of ppq.
  static constexpr struct {
    int num, den;
    const char* label;
  } kValues[] = {{4, 1, N_("全音符")},      {2, 1, N_("2分音符")},     {1, 1, N_("4分音符")},
                 {1, 2, N_("8分音符")},     {1, 4, N_("16分音符")},    {1, 8, N_("32分音符")},
                 {1, 16, N_("64分音符")},   {3, 2, N_("付点4分音符")}, {3, 4, N_("付点8分音符")},
                 {3, 8, N_("付点16分音符")}};
  if (ppq > 0 && duration > 0)
    for (const auto& v : kValues)
      if (duration * v.den == ppq * v.num) return tr(v.label);
  char buf[64];
  std::snprintf(
      buf, sizeof buf, "%.2f",
      static_cast<double>(duration) / static_cast<double>(std::max<std::int64_t>(ppq, 1)));
  return trf("%@拍", {buf});
}

std::string joinPlaces(const std::vector<std::string>& shown, std::size_t total) {
  constexpr std::size_t kShown = 7;
  std::string out;
  for (std::size_t i = 0; i < shown.size() && i < kShown; ++i) {
    if (i > 0) out += "・";
    out += shown[i];
  }
  if (total > kShown + 1) {
    out += trf("…ほか %d か所", {std::to_string(total - kShown)});
  } else if (total > kShown) {
    out += "…";
  }
  return out;
}

namespace {

std::string num(std::int64_t v) {
  return std::to_string(v);
}

std::string fixed1(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

// tr() for a text whose number is written "%.1f", which trf() leaves alone.
std::string withOneDecimal(const char* key, double v) {
  std::string s = tr(key);
  auto at = s.find("%.1f");
  if (at != std::string::npos) s.replace(at, 4, fixed1(v));
  return s;
}

// Places of the first notes of a list, as the messages show them.
std::string placesOf(const BarRuler& ruler, const std::vector<const NoteEvent*>& notes) {
  std::vector<std::string> shown;
  for (std::size_t i = 0; i < notes.size() && i < 7; ++i)
    shown.push_back(ruler.positionText(notes[i]->tick));
  return joinPlaces(shown, notes.size());
}

bool isLyricLossNotice(const ImportNotice& n) {
  static constexpr std::string_view kKeys[] = {"midiLyricNotPlaced",      "midiOrphanLyricsDropped",
                                               "midiOrphanLyricsIgnored", "midiLyricUnreadable",
                                               "midiLyricGarbled",        "mxUnsungLyricLine",
                                               "mxVoiceWithoutLyrics"};
  return std::find(std::begin(kKeys), std::end(kKeys), std::string_view(n.kind->key)) !=
         std::end(kKeys);
}

void checkChords(TrackCheck& c) {
  const TrackLine& line = c.line;
  const std::size_t n = line.notes.size();
  auto hasLyric = [](const NoteEvent* e) {
    return !text::trimWhitespaceAndNewlines(e->lyric).empty();
  };
  for (std::size_t a = 0; a < n;) {
    std::size_t b = a + 1;
    while (b < n && line.ticks[b] == line.ticks[a]) ++b;
    if (b - a < 2) {
      a = b;
      continue;
    }
    std::vector<const NoteEvent*> group(line.notes.begin() + a, line.notes.begin() + b);
    const NoteEvent* sung = group.front();
    const std::size_t others = group.size() - 1;
    const std::string where = c.place(sung->tick);
    std::vector<const NoteEvent*> byPitch = group;
    std::stable_sort(byPitch.begin(), byPitch.end(),
                     [](const NoteEvent* x, const NoteEvent* y) { return x->pitch < y->pitch; });
    std::vector<std::string> names;
    for (const auto* e : byPitch) names.push_back(pitchName(e->pitch));
    const std::string pitches = joinPlaces(names, names.size());
    auto removeAllBut = [&](const NoteEvent* keep) {
      S::RemoveNotes r;
      for (const auto* e : group)
        if (e != keep) r.ids.push_back(e->id);
      return r;
    };
    const bool samePitch = byPitch.front()->pitch == byPitch.back()->pitch;
    std::string message;
    std::vector<S> fixes;
    if (samePitch) {
      message = trf("%@：同じ高さの音（%@）が同じ時刻に %d 個重なっています。",
                    {where, pitchName(sung->pitch), num(group.size())});
      fixes.push_back(suggestion(tr("重なった音を1つにする"), removeAllBut(sung)));
      std::vector<std::string> offered{lyricForExport(sung->lyric)};
      for (const auto* e : group) {
        std::string lyric = lyricForExport(e->lyric);
        if (lyric.empty() || std::find(offered.begin(), offered.end(), lyric) != offered.end())
          continue;
        offered.push_back(lyric);
        fixes.push_back(
            suggestion(trf("「%@」の音だけを残す", {visibleLyric(lyric)}), removeAllBut(e)));
      }
    } else {
      std::size_t withLyric = 0;
      for (const auto* e : group) withLyric += hasLyric(e) ? 1 : 0;
      // The choice is plain when the writer's rule, not the stored order, picks the note.
      auto rank = [&](const NoteEvent* e) { return sungRank(*e, c.document.ppq); };
      std::size_t tied = 0;
      for (const auto* e : group) tied += rank(e) == rank(sung) ? 1 : 0;
      if (withLyric == 1) {
        message =
            trf("%@の和音（%@）は、歌詞「%@」の付いた %@ を歌います。ほかの %d 音は歌いません。",
                {where, pitches, visibleLyric(sung->lyric), pitchName(sung->pitch), num(others)});
      } else if (tied == 1) {
        message = trf("%@の和音（%@）は、%@ を歌います。ほかの %d 音は歌いません。",
                      {where, pitches, pitchName(sung->pitch), num(others)});
      } else {
        message = trf("%@：同じ時刻に音が %d つあります（%@）。どの音を歌いますか。",
                      {where, num(group.size()), pitches});
        // Keeping another note keeps the sung lyric on it.
        auto keep = [&](const NoteEvent* k) -> SuggestionAction {
          if (k == sung || hasLyric(k) || !hasLyric(sung)) return removeAllBut(k);
          S::Sequence seq;
          seq.actions.emplace_back(S::SetLyrics{{{k->id, sung->lyric}}});
          seq.actions.emplace_back(removeAllBut(k));
          return seq;
        };
        fixes.push_back(
            suggestion(trf("先頭の音（%@）を歌う", {pitchName(sung->pitch)}), keep(sung)));
        const NoteEvent* high = byPitch.back();
        const NoteEvent* low = byPitch.front();
        if (high->pitch != sung->pitch)
          fixes.push_back(
              suggestion(trf("いちばん高い音（%@）を歌う", {pitchName(high->pitch)}), keep(high)));
        if (low->pitch != sung->pitch)
          fixes.push_back(
              suggestion(trf("いちばん低い音（%@）を歌う", {pitchName(low->pitch)}), keep(low)));
      }
      S::MoveNotesToNewTrack move;
      for (const auto* e : group)
        if (e != sung) move.ids.push_back(e->id);
      move.trackName = tr("伴奏（和音から移した音）");
      fixes.push_back(suggestion(tr("ほかの音を伴奏として別トラックへ移す"), std::move(move)));
    }
    Issue& row =
        c.add(Cat::chordAtSameTick, Sev::warning, sung->tick, std::move(message), sung->id);
    row.detail = samePitch ? tr("書き出しでは、重なった音のうち1つだけを歌い、ほかは書き出しません"
                                "。重なった音は1つにしてください。")
                           : tr("NEUTRINO "
                                "は1本の旋律しか歌いません。書き出しでは、同じ時刻の音のうち歌詞の"
                                "ある音を1つ歌い、ほかは書き出しません。");
    row.suggestions = std::move(fixes);
    for (const auto* e : group) row.jumpPlaces.push_back({e->tick, e->id});
    a = b;
  }
}

using NotePointers = std::vector<const NoteEvent*>;

std::vector<Uuid> idsOf(const NotePointers& notes) {
  std::vector<Uuid> out;
  for (const auto* e : notes) out.push_back(e->id);
  return out;
}

void jumpTo(Issue& row, const NotePointers& notes) {
  for (const auto* e : notes) row.jumpPlaces.push_back({e->tick, e->id});
  if (notes.size() == 1) {
    row.noteID = notes[0]->id;
  } else {
    row.jumpNoteID = notes[0]->id;
  }
}

// Notes below what the engine can sing at all: it stops on them.
void tooLowRow(TrackCheck& c, const NotePointers& tooLow, const VoiceRange::Range& range) {
  const std::string lowName = pitchName(range.low), highName = pitchName(range.high);
  Issue& row = c.add(Cat::outOfRange, Sev::error, tooLow[0]->tick,
                     trf("%dトラック：低すぎて NEUTRINO が止まる音が %d 音あります（%@）",
                         {c.trackNumber(), num(tooLow.size()), placesOf(c.ruler, tooLow)}));
  jumpTo(row, tooLow);
  row.detail = tr(SynthesisGate::detailKey(SynthesisGate::Kind::pitchTooLow)) + std::string("\n") +
               trf("音を %@ 以上へ動かしてください（歌える範囲は %@〜%@ です）。",
                   {pitchName(SynthesisGate::lowestPitch), lowName, highName});
  // Each note goes up by whole octaves until it reaches the range (or at least the floor).
  std::map<int, std::vector<Uuid>> byOctaves;
  for (const auto* e : tooLow) {
    int k = 0;
    while (e->pitch + 12 * k < std::max(range.low, SynthesisGate::lowestPitch) &&
           e->pitch + 12 * (k + 1) <= 127)
      ++k;
    byOctaves[k].push_back(e->id);
  }
  S::Sequence up;
  for (auto& [k, list] : byOctaves)
    up.actions.emplace_back(S::TransposeNotes{std::move(list), 12 * k});
  row.suggestions.push_back(
      suggestion(trf("低すぎる音 %d 個をオクターブ上げて歌える範囲へ移す", {num(tooLow.size())}),
                 up.actions.size() == 1 ? up.actions[0] : SuggestionAction(std::move(up))));
  row.suggestions.push_back(suggestion(trf("低すぎる音 %d 個を休符にする", {num(tooLow.size())}),
                                       S::RemoveNotes{idsOf(tooLow)}));
}

// Notes outside the voice's range: sung at the range's edge. The whole-track moves are offered
// only when they leave fewer notes outside and push no note below what the engine can sing.
void outsideRangeRow(TrackCheck& c, const NotePointers& below, const NotePointers& above,
                     const VoiceRange::Range& range) {
  const TrackLine& line = c.line;
  const std::string lowName = pitchName(range.low), highName = pitchName(range.high);
  std::vector<const NoteEvent*> outside = below;
  outside.insert(outside.end(), above.begin(), above.end());
  std::sort(outside.begin(), outside.end(),
            [](const NoteEvent* x, const NoteEvent* y) { return x->tick < y->tick; });
  if (outside.empty()) return;
  // Every sung note, for the whole-track moves; only needed when some note is outside.
  std::vector<const NoteEvent*> all;
  for (std::size_t i = 0; i < line.notes.size(); ++i)
    if (line.sung[i]) all.push_back(line.notes[i]);
  const std::size_t count = outside.size();
  Issue* row;
  if (range.fromModel) {
    row = &c.add(Cat::outOfRange, Sev::warning, outside[0]->tick,
                 trf("%dトラック：%@ の歌える範囲（%@〜%@）の外の音が %d 音あります（%@）",
                     {c.trackNumber(), range.voice, lowName, highName, num(count),
                      placesOf(c.ruler, outside)}));
    std::string detail =
        tr("NEUTRINO "
           "は声ごとに歌える高さの範囲を持ち、外れた音は範囲の端の高さで歌います（2026-09-25 "
           "測定）。") +
        std::string("\n") +
        trf("直す時は、ピアノロールで音を歌える範囲（%@〜%@"
            "）へ動かしてください。範囲の端の高さで歌ってよければ、このままで構いません。",
            {lowName, highName});
    if (!below.empty())
      detail += std::string("\n") +
                tr("範囲より低い音は、端の高さで小さく歌われます（2026-09-27 に NAKUMO で測定：C2 "
                   "の母音の大きさは中央値 −37dB。範囲の中ほどの音は −18dB 前後、範囲の下の端 "
                   "F2〜C3 は −23〜−32dB）。");
    row->detail = std::move(detail);
  } else {
    row = &c.add(Cat::outOfRange, Sev::warning, outside[0]->tick,
                 trf("%dトラック：歌声音域 C2..C6 の外の音が %d 音あります（%@）",
                     {c.trackNumber(), num(count), placesOf(c.ruler, outside)}));
    row->detail = tr("歌声音域 C2..C6 外。キャラクターによっては不自然な合成結果になります。");
  }
  jumpTo(*row, outside);
  auto outsideAfter = [&](int shift) {
    std::size_t k = 0;
    for (const auto* e : all) {
      int p = std::clamp(e->pitch + shift, 0, 127);
      if (p >= SynthesisGate::lowestPitch && (p < range.low || p > range.high)) ++k;
    }
    return k;
  };
  auto inRange = [&](const std::vector<const NoteEvent*>& notes, int shift) {
    std::size_t k = 0;
    for (const auto* e : notes) {
      int p = e->pitch + shift;
      if (p >= range.low && p <= range.high) ++k;
    }
    return k;
  };
  auto pushesBelowFloor = [&](int shift) {
    for (const auto* e : all)
      if (e->pitch >= SynthesisGate::lowestPitch && e->pitch + shift < SynthesisGate::lowestPitch)
        return true;
    return false;
  };
  for (int shift : {-12, 12}) {
    const std::size_t after = outsideAfter(shift);
    if (after >= count || pushesBelowFloor(shift)) continue;
    S::TransposeNotes whole{idsOf(all), shift};
    row->suggestions.push_back(suggestion(
        shift < 0
            ? trf("トラックごとオクターブ下げる（外れる音 %d → %d）", {num(count), num(after)})
            : trf("トラックごとオクターブ上げる（外れる音 %d → %d）", {num(count), num(after)}),
        std::move(whole)));
  }
  if (const std::size_t k = inRange(above, -12); k > 0)
    row->suggestions.push_back(suggestion(
        trf("高すぎる音 %d 個だけオクターブ下げる（範囲に入る音 %d）", {num(above.size()), num(k)}),
        S::TransposeNotes{idsOf(above), -12}));
  if (const std::size_t k = inRange(below, 12); k > 0)
    row->suggestions.push_back(suggestion(
        trf("低すぎる音 %d 個だけオクターブ上げる（範囲に入る音 %d）", {num(below.size()), num(k)}),
        S::TransposeNotes{idsOf(below), 12}));
}

void checkRange(TrackCheck& c, const VoiceRange::Range& range) {
  const TrackLine& line = c.line;
  NotePointers tooLow, below, above;
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    const NoteEvent* e = line.notes[i];
    if (e->pitch < SynthesisGate::lowestPitch) {
      tooLow.push_back(e);
    } else if (e->pitch < range.low) {
      below.push_back(e);
    } else if (e->pitch > range.high) {
      above.push_back(e);
    }
  }
  if (!tooLow.empty()) tooLowRow(c, tooLow, range);
  outsideRangeRow(c, below, above, range);
}

void checkOverlaps(TrackCheck& c, bool cleanupTrims) {
  const TrackLine& line = c.line;
  const std::size_t n = line.notes.size();
  std::size_t next = 0;  // first note after the current tick group
  for (std::size_t i = 0; i < n; ++i) {
    if (next <= i) {
      next = i + 1;
      while (next < n && line.ticks[next] == line.ticks[i]) ++next;
    }
    if (next >= n) break;
    // A note that ends before the next tick cannot overlap it; a sung note's end is at most
    // that tick, and equal to its own end when that comes first.
    if (line.ends[i] < line.ticks[next]) continue;
    const NoteEvent& a = *line.notes[i];
    const NoteEvent& b = *line.notes[next];
    const std::int64_t overlap = a.endTick() - b.tick;
    if (overlap <= 0) continue;
    const bool same = a.pitch == b.pitch;
    Issue& row = c.add(same ? Cat::noteOverlap : Cat::polyphony, Sev::warning, a.tick,
                       same ? trf("同ピッチの音符が重なっています (%@)", {pitchName(a.pitch)})
                            : trf("高さの違う音符が重なっています (%@↔%@)",
                                  {pitchName(a.pitch), pitchName(b.pitch)}),
                       a.id);
    row.endTick = a.endTick();
    row.detail = cleanupTrims
                     ? trf("書き出しでは、前の音を後ろの音の頭で切って歌います（重なった %dtk "
                           "を前の音から削ります）。「歌詞と音符を自動で直す」の「前の音符が次の音"
                           "符に食い込む所を、次の音符の頭で切る」でも、同じように切れます。",
                           {num(overlap)})
                     : trf("書き出しでは、前の音を後ろの音の頭で切って歌います（重なった %dtk "
                           "を前の音から削ります）。",
                           {num(overlap)});
    row.suggestions.push_back(suggestion(tr("前の音を後ろの音の頭で切る"),
                                         S::SetTiming{{{a.id, a.tick, b.tick - a.tick}}}));
    row.jumpPlaces = {{a.tick, a.id}, {b.tick, b.id}};
  }
}

void checkBarCeiling(TrackCheck& c, std::optional<std::int64_t> ceiling) {
  const TrackLine& line = c.line;
  const CeilingLoss loss = ceilingLoss(line, ceiling);
  if (loss.empty()) return;
  std::vector<const NoteEvent*> crossing;
  for (std::size_t i : loss.crossing) crossing.push_back(line.notes[i]);
  // The notes in time order are the crossing ones, then the others: both lists follow the
  // line, and crossing notes start before the ceiling, the others at or after it. A long song
  // past the ceiling has most of its notes in the second list, so it is walked, not copied.
  const std::vector<std::size_t>& beyond = loss.beyond;
  const std::size_t firstIndex = crossing.empty() ? beyond[0] : loss.crossing[0];
  const NoteEvent& firstNote = *line.notes[firstIndex];
  const std::string first = c.place(firstNote.tick);
  std::string message;
  if (!beyond.empty() && !crossing.empty()) {
    message =
        trf("%dトラック：2000 小節目より後ろの音 %d 個は書き出せないため歌わず、2000 "
            "小節目の終わりをまたぐ音 %d 個は後ろの部分を歌いません（最初は %@）",
            {c.trackNumber(), num(beyond.size()), num(crossing.size()), first});
  } else if (!beyond.empty()) {
    message =
        trf("%dトラック：2000 小節目より後ろの音 %d 個は、書き出せないため歌いません（最初は %@）",
            {c.trackNumber(), num(beyond.size()), first});
  } else {
    message =
        trf("%dトラック：2000 小節目の終わりをまたぐ音 %d 個は、2000 "
            "小節目より後ろの部分を歌いません（%@）",
            {c.trackNumber(), num(crossing.size()), placesOf(c.ruler, crossing)});
  }
  Issue& row = c.add(Cat::beyondExportLimit, Sev::error, firstNote.tick, std::move(message));
  row.jumpNoteID = firstNote.id;
  row.jumpPlaces.reserve(crossing.size() + beyond.size());
  for (const auto* e : crossing) row.jumpPlaces.push_back({e->tick, e->id});
  for (std::size_t i : beyond) row.jumpPlaces.push_back({line.ticks[i], line.notes[i]->id});
  row.detail =
      tr("NEUTRINO へ渡す譜は 2000 "
         "小節までです。曲を途中で分けて別のファイルにするか、遠くの音をピアノロールで前へ移してく"
         "ださい。");
}

void checkPhrases(TrackCheck& c) {
  const TrackLine& line = c.line;
  std::size_t start = line.notes.size();
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    if (start == line.notes.size()) start = i;
    std::size_t next = i + 1;
    while (next < line.notes.size() && !line.sung[next]) ++next;
    const bool ends = next >= line.notes.size() ||
                      line.ticks[next] - line.ends[i] >= c.th.phraseBreak ||
                      line.notes[i]->hasBreathAfter;
    if (!ends) continue;
    const std::int64_t from = line.ticks[start], to = line.ends[i];
    const double seconds = c.clock.seconds(to) - c.clock.seconds(from);
    if (std::isfinite(seconds) && seconds > 8.0) {
      Issue& row =
          c.add(Cat::phraseTooLong, Sev::warning, from,
                withOneDecimal(N_("長いフレーズ（%.1f秒）"), seconds), line.notes[start]->id);
      row.endTick = to;
      row.detail =
          trf("%@小節目から%@小節目まで、休符・ブレスが無く約%@秒続いています。NEUTRINO "
              "は8秒超のフレーズで息切れしやすいので、途中に休符かブレスを入れてください。",
              {num(c.ruler.barNumber(from)),
               num(c.ruler.barNumber(std::max<std::int64_t>(from, to - 1))), fixed1(seconds)});
    }
    start = line.notes.size();
  }
}

void checkMaps(const MusicDocument& document, const BarRuler& ruler, std::vector<Issue>& out) {
  auto add = [&](Cat category, std::int64_t tick, std::string message, std::string detail) {
    Issue& row = out.emplace_back();
    row.id = Uuid::random();
    row.tick = tick;
    row.severity = Sev::warning;
    row.category = category;
    row.message = std::move(message);
    row.detail = std::move(detail);
  };
  const std::vector<TempoEvent> tempo = document.sortedTempoMap();
  for (const auto& e : tempo)
    if (!(e.bpm >= 1 && e.bpm <= 1000))
      add(Cat::tempoIssue, e.tick, withOneDecimal(N_("異常なテンポ (%.1f BPM)"), e.bpm),
          tr("BPM は 1〜1000 "
             "で指定してください。ピアノロールのテンポの欄で、速さを数で入れ直してください。"));
  for (std::size_t a = 0; a < tempo.size();) {
    std::size_t b = a + 1;
    while (b < tempo.size() && tempo[b].tick == tempo[a].tick) ++b;
    if (b - a >= 2) {
      std::vector<std::string> values;
      for (std::size_t k = a; k < b; ++k) values.push_back(compactNumber(tempo[k].bpm));
      const std::string last = values.back();
      add(Cat::tempoIssue, tempo[a].tick, tr("同じ位置にテンポが重複"),
          trf("%@に %d 個のテンポ（%@）があります。今は最後の ♩=%@ "
              "で鳴っています。「歌詞と音符を自動で直す」の「同じ所に2つあるテンポを、効いている方"
              "の1つにする」で、鳴っている ♩=%@ だけを残せます。",
              {ruler.positionText(tempo[a].tick), num(b - a), joinPlaces(values, values.size()),
               last, last}));
    }
    a = b;
  }
  std::vector<TimeSignatureEvent> meters = document.timeSignatures;
  std::stable_sort(meters.begin(), meters.end(),
                   [](const auto& x, const auto& y) { return x.tick < y.tick; });
  for (const auto& m : meters)
    if (m.denominator <= 0 || (m.denominator & (m.denominator - 1)) != 0)
      add(Cat::timeSigIssue, m.tick,
          trf("不正な拍子 (%d/%d)", {num(m.numerator), num(m.denominator)}),
          tr("拍子の分母は2の冪（2・4・8・16…）である必要があります。拍子の欄で入れ直してください"
             "。"));
  for (std::size_t a = 0; a < meters.size();) {
    std::size_t b = a + 1;
    while (b < meters.size() && meters[b].tick == meters[a].tick) ++b;
    if (b - a >= 2) {
      std::vector<std::string> values;
      for (std::size_t k = a; k < b; ++k)
        values.push_back(num(meters[k].numerator) + "/" + num(meters[k].denominator));
      const std::string last = values.back();
      add(Cat::timeSigIssue, meters[a].tick, tr("同じ位置に拍子が重複"),
          trf("%@に %d 個の拍子（%@）があります。今は最後の %@ "
              "で小節を数えています。「歌詞と音符を自動で直す」の「同じ所に2つある拍子を、効いてい"
              "る方の1つにする」で、効いている %@ だけを残せます。",
              {ruler.positionText(meters[a].tick), num(b - a), joinPlaces(values, values.size()),
               last, last}));
    }
    a = b;
  }
}

// Import notices with a live place, as rows. Places of the kinds that the check's own
// findings repeat are left out where such a finding stands.
void noticeRows(const MusicDocument& document, const std::vector<Issue>& findings,
                std::vector<Issue>& out) {
  if (document.importNotices.empty()) return;
  const auto notes = notesByID(document);
  std::unordered_set<Uuid> multiSyllableNotes;
  for (const auto& f : findings)
    if (f.category == Cat::multiSyllable && f.noteID) multiSyllableNotes.insert(*f.noteID);
  for (const ImportNotice& notice : document.importNotices) {
    const NoticeLiveness live = liveness(notice, notes);
    const bool suppressible = isSuppressedByValidatorFinding(notice.kind->key);
    std::vector<std::size_t> places;
    for (std::size_t p = 0; p < notice.places.size(); ++p) {
      if (!live.placeStillMeant[p]) continue;
      const auto& place = notice.places[p];
      if (suppressible && place.noteID && multiSyllableNotes.count(*place.noteID)) continue;
      places.push_back(p);
    }
    if (places.empty()) continue;
    Issue& row = out.emplace_back();
    row.id = Uuid::random();
    row.trackIndex = notice.trackIndex.value_or(0);
    row.severity = notice.kind->severity;
    row.category = notice.kind->category;
    row.message = substitute(tr(notice.kind->message), {num(places.size())});
    if (notice.kind->detail) row.detail = tr(notice.kind->detail);
    row.noticeID = notice.id;
    row.tick = notice.places[places[0]].tick;
    for (std::size_t p : places) {
      const auto& place = notice.places[p];
      row.tick = std::min(row.tick, place.tick);
      row.jumpPlaces.push_back({place.tick, place.noteID});
    }
    for (const auto& jp : row.jumpPlaces)
      if (jp.noteID) {
        row.jumpNoteID = jp.noteID;
        break;
      }
    bool anyFixes = false, stale = false;
    for (std::size_t p : places) {
      if (notice.places[p].fixes.empty()) continue;
      anyFixes = true;
      if (!live.fixesStillValid[p]) stale = true;
    }
    if (stale) {
      const std::string words = tr(
          "整えるなどで音が変わったため、この知らせの直す釦は出していません（元に戻すと出ます）。");
      row.detail = row.detail ? *row.detail + "\n" + words : words;
    } else if (anyFixes) {
      for (std::size_t b = 0; b < notice.kind->buttons.size(); ++b) {
        S::Sequence seq;
        for (std::size_t p : places) {
          const auto& fixes = notice.places[p].fixes;
          if (b < fixes.size())
            for (const auto& a : fixes[b]) seq.actions.push_back(a);
        }
        if (seq.actions.empty()) continue;
        row.suggestions.push_back(suggestion(
            tr(notice.kind->buttons[b]),
            seq.actions.size() == 1 ? seq.actions[0] : SuggestionAction(std::move(seq))));
      }
    }
  }
}

// The conditional forms of the sentences that say a render will fail.
struct Softening {
  const char* fatal;
  const char* conditional;
};
constexpr Softening kSoftenings[] = {
    {N_("NEUTRINO はこの歌詞を読めず、1音でもあると曲全体が失敗します。"),
     N_("合成に使う時は、NEUTRINO はこの歌詞を読めないため、曲全体が歌えなくなります。")},
    {N_("NEUTRINO は1つの音符に音素を8個まで読めます。9個以上あると NEUTRINO "
        "が途中で止まり、曲全体が歌えません（2026-09-25 測定）。音節ごとに音符を分けてください。"),
     N_("合成に使う時は、NEUTRINO "
        "は1つの音符に音素を8個までしか読めず、9個以上あると途中で止まるため、曲全体"
        "が歌えなくなります（2026-09-25 測定）。音節ごとに音符を分けてください。")},
    {N_("「ー」は直前の音の母音を伸ばします。直前の歌詞を NEUTRINO "
        "が読めないため、この「ー」も読めず、曲全体が歌えません。直前の歌詞を直すと、"
        "この「ー」も直ります。"),
     N_("合成に使う時は、直前の歌詞を NEUTRINO "
        "が読めないため、この「ー」も読めず、曲全体が歌えなくなります。"
        "「ー」は直前の音の母音を伸ばすので、直前の歌詞を直すと、この「ー」も直ります。")},
    {N_("「ー」は直前の音に続けて初めて読めます。間に休符があると（1 tick "
        "でも）、NEUTRINO は曲全体を歌いません。"),
     N_("合成に使う時は、「ー」の前に休符があると（1 tick でも）、NEUTRINO "
        "は曲全体を歌えなくなります。「ー」は直前の音に続けて初めて読めます。")},
    {N_("「っ」だけの音で句を始めると、続く「ー」「っ」を NEUTRINO "
        "は読めず、曲全体が失敗します（2026-09-25 "
        "測定）。「っ」の前に母音のある音を置くか、この音を休符にしてください。"),
     N_("合成に使う時は、「っ」だけの音で始まる句に続く「ー」「っ」を NEUTRINO "
        "が読めないため、曲全体が歌えなくなります（2026-09-25 "
        "測定）。「っ」の前に母音のある音を置くか、この音を休符にしてください。")},
    {N_("NEUTRINO はこの低さの音で止まり、曲全体が歌えません（2026-09-25 測定）。"),
     N_("合成に使う時は、NEUTRINO はこの低さの音で止まるため、曲全体が歌えなくなります（2026-09-25 "
        "測定）。")},
};

void soften(Issue& row, bool sungSetGiven) {
  if (row.severity != Sev::error) return;
  row.severity = Sev::warning;
  std::string detail = row.detail.value_or("");
  for (const auto& s : kSoftenings) {
    const std::string fatal = tr(s.fatal);
    for (auto at = detail.find(fatal); at != std::string::npos; at = detail.find(fatal, at + 1))
      detail.replace(at, fatal.size(), tr(s.conditional));
  }
  std::string head = sungSetGiven ? tr("このトラックは合成しません（合成するのは声の付いたトラック"
                                       "です）。合成に使う時は、次のとおり直してください。")
                                  : tr("このトラックは今は合成しません（合成するのは今選んでいるト"
                                       "ラックです）。合成に使う時は、次のとおり直してください。");
  row.detail = detail.empty() ? head : head + "\n" + detail;
}

}  // namespace

std::vector<ValidationIssue> validate(
    const MusicDocument& document, const std::vector<Uuid>& sungTrackIDs,
    const std::unordered_map<Uuid, VoiceRange::Range>& voiceRanges,
    const std::unordered_set<Uuid>& keepWhole, const ValidatorOptions& options) {
  std::vector<Issue> findings;
  const BarRuler ruler = document.barRuler();
  const TempoClock clock(document.sortedTempoMap(), document.ppq);
  const std::vector<int> sung =
      SynthesisGate::sungTrackIndices(document, sungTrackIDs, options.selectedTrack);

  const bool allMuted =
      !document.tracks.empty() && std::all_of(document.tracks.begin(), document.tracks.end(),
                                              [](const MusicTrack& t) { return t.isMuted; });
  const bool anySungNote =
      std::any_of(document.tracks.begin(), document.tracks.end(),
                  [](const MusicTrack& t) { return !t.isMuted && !t.notes.empty(); });
  std::vector<Issue> songRows;
  if (allMuted) {
    Issue& row = songRows.emplace_back();
    row.id = Uuid::random();
    row.severity = Sev::warning;
    row.category = Cat::allTracksMuted;
    row.wholeSong = true;
    row.message =
        tr("全部のトラックが消音のため、音符を検査していません。合成もできません。歌わせるトラック"
           "の消音を外してください。");
  } else {
    if (!anySungNote) {
      Issue& row = songRows.emplace_back();
      row.id = Uuid::random();
      row.severity = Sev::error;
      row.category = Cat::noSungNotes;
      row.wholeSong = true;
      row.message = tr("歌う音がありません");
      row.detail =
          tr("合成するトラックに音が1つもないため、合成しても何も歌いません。ピアノロールで歌詞のあ"
             "る音を入れてください。");
    }
    const bool lyricLoss = std::any_of(document.importNotices.begin(), document.importNotices.end(),
                                       isLyricLossNotice);
    const std::optional<std::int64_t> ceiling = scoreCeilingTick(document);
    for (std::size_t t = 0; t < document.tracks.size(); ++t) {
      const MusicTrack& track = document.tracks[t];
      if (track.isMuted || track.notes.empty()) continue;
      const std::size_t firstRow = findings.size();
      TrackCheck c{document,
                   static_cast<int>(t),
                   track,
                   ruler,
                   clock,
                   Thresholds(document.ppq),
                   TrackLine::of(track.notes, document.ppq),
                   {},
                   {},
                   keepWhole,
                   lyricLoss,
                   findings};
      c.facts.resize(c.line.notes.size());
      for (std::size_t i = 0; i < c.facts.size(); ++i)
        if (c.line.sung[i]) c.facts[i] = lyricFacts(c.line.notes[i]->lyric);
      c.readings = SynthesisGate::readLine(c.line, c.facts);
      checkNotes(c);
      checkChords(c);
      auto range = voiceRanges.find(track.id);
      checkRange(c, range != voiceRanges.end() ? range->second : VoiceRange::fixed());
      checkOverlaps(c, options.cleanupTrimsOverlaps);
      checkBarCeiling(c, ceiling);
      checkPhrases(c);
      if (std::find(sung.begin(), sung.end(), static_cast<int>(t)) == sung.end())
        for (std::size_t r = firstRow; r < findings.size(); ++r)
          soften(findings[r], !sungTrackIDs.empty());
    }
  }

  std::vector<Issue> out;
  noticeRows(document, findings, out);
  // Notice rows of a track that isn't sung are softened like the check's own rows.
  for (Issue& row : out) {
    auto notice = std::find_if(document.importNotices.begin(), document.importNotices.end(),
                               [&](const ImportNotice& n) { return row.noticeID == n.id; });
    if (notice == document.importNotices.end() || !notice->trackIndex) continue;
    if (std::find(sung.begin(), sung.end(), *notice->trackIndex) == sung.end())
      soften(row, !sungTrackIDs.empty());
  }
  for (auto& r : songRows) out.push_back(std::move(r));
  for (auto& r : findings) out.push_back(std::move(r));
  checkMaps(document, ruler, out);
  std::stable_sort(out.begin(), out.end(),
                   [](const Issue& a, const Issue& b) { return a.tick < b.tick; });
  return out;
}

}  // namespace melvo
