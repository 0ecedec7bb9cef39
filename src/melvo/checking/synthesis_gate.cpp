#include "melvo/checking/synthesis_gate.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

#include "melvo/model/bar_ruler.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo {

LyricFacts lyricFacts(std::string_view lyric) {
  LyricFacts f;
  if (auto k = summarizePlainKana(lyric)) {
    // Nearly every note: one walk instead of a function per fact.
    f.emptyTrimmed = false;
    f.allKana = true;
    f.scalars = k->scalars;
    f.reading = k->reading;
    f.onlyChouon = k->onlyChouon;
    f.onlySokuon = k->onlySokuon;
    f.startsWithSustain = k->startsWithSustain;
    if (f.scalars >= 5 || f.onlyChouon) f.phonemes = k->phonemes;
    return f;
  }
  f.emptyTrimmed = text::trimWhitespaceAndNewlines(lyric).empty();
  bool allKana = true;
  bool sustainChar = false;
  std::size_t i = 0;
  while (i < lyric.size()) {
    char32_t c = text::nextScalar(lyric, i);
    ++f.scalars;
    if (!inKanaRange(c)) allKana = false;
    if (c == U'ー' || c == U'っ' || c == U'ッ') sustainChar = true;
  }
  f.allKana = allKana && f.scalars > 0;
  f.reading = readingState(lyric).kind;
  // The shapes can only hold when one of their characters is there.
  if (sustainChar) {
    f.onlyChouon = isOnlyChouon(lyric);
    f.onlySokuon = isOnlySokuon(lyric);
    f.startsWithSustain = startsWithSustain(lyric);
  }
  // No unit brings more than two phonemes a scalar, so nine need five scalars at least.
  if (f.scalars >= 5 || f.onlyChouon) f.phonemes = countPhonemes(lyric);
  return f;
}

namespace {

// The writer's order at one tick.
std::uint8_t writerRank(const NoteEvent& e, std::int64_t ppq) {
  return static_cast<std::uint8_t>(sungRank(e, ppq));
}

// Songs stored in time order, as they almost always are, in one walk over the notes: only the
// notes of one tick (chords) change places, so each such run is ordered on its own as it
// closes, which is the order the whole sort gives. False, with the line left partly built,
// when a note comes before the one stored ahead of it.
bool buildRisingLine(TrackLine& line, const NoteList& notes, std::int64_t ppq) {
  struct Entry {
    std::uint8_t rank;
    std::uint32_t stored;
    const NoteEvent* note;
    std::int64_t end;
  };
  std::vector<Entry> run;
  std::size_t runStart = 0;
  auto closeRun = [&](std::size_t runEnd) {
    if (runEnd - runStart < 2) return;
    run.clear();
    for (std::size_t i = runStart; i < runEnd; ++i)
      run.push_back(
          {writerRank(*line.notes[i], ppq), line.storedIndex[i], line.notes[i], line.ends[i]});
    std::stable_sort(run.begin(), run.end(),
                     [](const Entry& x, const Entry& y) { return x.rank < y.rank; });
    for (std::size_t i = runStart; i < runEnd; ++i) {
      const Entry& e = run[i - runStart];
      line.notes[i] = e.note;
      line.storedIndex[i] = e.stored;
      line.ends[i] = e.end;
    }
  };
  std::uint32_t k = 0;
  for (const NoteEvent& note : notes) {
    const std::int64_t tick = note.tick;
    if (k > 0 && tick != line.ticks.back()) {
      if (tick < line.ticks.back()) return false;
      closeRun(k);
      // The sung note of the run ends where this one begins, at the latest.
      line.ends[runStart] = std::min(line.ends[runStart], tick);
      runStart = k;
    }
    line.notes.push_back(&note);
    line.storedIndex.push_back(k);
    line.ticks.push_back(tick);
    line.ends.push_back(note.endTick());
    line.sung.push_back(k == runStart);
    ++k;
  }
  closeRun(k);
  return true;
}

}  // namespace

TrackLine TrackLine::of(const NoteList& notes, std::int64_t ppq) {
  TrackLine line;
  const std::size_t n = notes.size();
  line.notes.reserve(n);
  line.storedIndex.reserve(n);
  line.ticks.reserve(n);
  line.ends.reserve(n);
  line.sung.reserve(n);
  if (buildRisingLine(line, notes, ppq)) return line;

  line.notes.clear();
  line.storedIndex.clear();
  for (const NoteEvent& note : notes) {
    line.storedIndex.push_back(static_cast<std::uint32_t>(line.notes.size()));
    line.notes.push_back(&note);
  }
  std::vector<std::uint8_t> rank(n);
  for (std::size_t i = 0; i < n; ++i) rank[i] = writerRank(*line.notes[i], ppq);
  std::vector<std::uint32_t> order(line.storedIndex);
  std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    const std::int64_t ta = line.notes[a]->tick, tb = line.notes[b]->tick;
    if (ta != tb) return ta < tb;
    return rank[a] < rank[b];
  });
  std::vector<const NoteEvent*> sorted(n);
  for (std::size_t i = 0; i < n; ++i) sorted[i] = line.notes[order[i]];
  line.notes = std::move(sorted);
  line.storedIndex = std::move(order);
  line.ticks.resize(n);
  for (std::size_t i = 0; i < n; ++i) line.ticks[i] = line.notes[i]->tick;
  line.sung.assign(n, true);
  line.ends.resize(n);
  std::size_t nextSung = n;  // walking back: the next sung note after i
  for (std::size_t i = n; i-- > 0;) {
    const NoteEvent& e = *line.notes[i];
    line.sung[i] = i == 0 || line.ticks[i - 1] != line.ticks[i];
    std::int64_t end = e.endTick();
    if (line.sung[i]) {
      if (nextSung < n) end = std::min(end, line.ticks[nextSung]);
      nextSung = i;
    }
    line.ends[i] = end;
  }
  return line;
}

std::vector<SynthesisGate::NoteReading> SynthesisGate::readLine(
    const TrackLine& line, const std::vector<LyricFacts>& facts) {
  std::vector<NoteReading> out(line.notes.size());
  bool hadPrevious = false;
  bool previousReadable = true;
  bool stranded = false;
  std::int64_t previousEnd = 0;
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    const LyricFacts& f = facts[i];
    const std::int64_t tick = line.ticks[i];
    const bool joined = hadPrevious && previousEnd == tick;
    NoteReading& r = out[i];
    bool readable = true;
    if (f.reading == ReadingKind::empty) {
      r.kind = Kind::emptyLyric;
      readable = false;
      stranded = false;
    } else if (f.reading == ReadingKind::unreadable) {
      r.kind = Kind::undefinedLyric;
      readable = false;
      stranded = false;
    } else if (f.onlyChouon && !(joined && previousReadable)) {
      // One tick of rest before ー is enough to fail the engine.
      r.kind = Kind::macronAfterRest;
      r.afterUnreadable = joined;
      readable = false;
      stranded = false;
    } else if (f.phonemes > 8) {
      r.kind = Kind::tooManyPhonemes;
      stranded = false;
    } else if (stranded && joined && f.startsWithSustain) {
      r.kind = Kind::afterStrandedSokuon;
      stranded = false;
    } else {
      const bool phraseStart = !hadPrevious || tick > previousEnd;
      stranded = phraseStart && f.onlySokuon;
    }
    hadPrevious = true;
    previousReadable = readable;
    previousEnd = line.ends[i];
  }
  return out;
}

std::unordered_map<Uuid, SynthesisGate::Kind> SynthesisGate::noteKinds(const NoteList& notes,
                                                                       std::int64_t ppq) {
  TrackLine line = TrackLine::of(notes, ppq);
  std::vector<LyricFacts> facts(line.notes.size());
  for (std::size_t i = 0; i < facts.size(); ++i)
    if (line.sung[i]) facts[i] = lyricFacts(line.notes[i]->lyric);
  std::vector<NoteReading> readings = readLine(line, facts);
  std::unordered_map<Uuid, Kind> out;
  for (std::size_t i = 0; i < readings.size(); ++i)
    if (readings[i].kind) out.emplace(line.notes[i]->id, *readings[i].kind);
  return out;
}

const char* SynthesisGate::detailKey(Kind kind, bool afterUnreadable) {
  switch (kind) {
    case Kind::undefinedLyric:
      return N_("NEUTRINO はこの歌詞を読めず、1音でもあると曲全体が失敗します。");
    case Kind::tooManyPhonemes:
      return N_(
          "NEUTRINO は1つの音符に音素を8個まで読めます。9個以上あると NEUTRINO "
          "が途中で止まり、曲全体が歌えません（2026-09-25 "
          "測定）。音節ごとに音符を分けてください。");
    case Kind::macronAfterRest:
      return afterUnreadable
                 ? N_("「ー」は直前の音の母音を伸ばします。直前の歌詞を NEUTRINO "
                      "が読めないため、この「ー」も読めず、曲全体が歌えません。直前の歌詞を直すと、"
                      "この「ー」も直ります。")
                 : N_("「ー」は直前の音に続けて初めて読めます。間に休符があると（1 tick "
                      "でも）、NEUTRINO は曲全体を歌いません。");
    case Kind::afterStrandedSokuon:
      return N_(
          "「っ」だけの音で句を始めると、続く「ー」「っ」を NEUTRINO "
          "は読めず、曲全体が失敗します（2026-09-25 "
          "測定）。「っ」の前に母音のある音を置くか、この音を休符にしてください。");
    case Kind::pitchTooLow:
      return N_("NEUTRINO はこの低さの音で止まり、曲全体が歌えません（2026-09-25 測定）。");
    case Kind::emptyLyric:
    case Kind::beyondBarLimit:
    case Kind::noSungNotes:
      break;
  }
  return "";
}

const char* gateKindName(SynthesisGate::Kind kind) {
  switch (kind) {
    case SynthesisGate::Kind::emptyLyric:
      return "emptyLyric";
    case SynthesisGate::Kind::undefinedLyric:
      return "undefinedLyric";
    case SynthesisGate::Kind::macronAfterRest:
      return "macronAfterRest";
    case SynthesisGate::Kind::tooManyPhonemes:
      return "tooManyPhonemes";
    case SynthesisGate::Kind::pitchTooLow:
      return "pitchTooLow";
    case SynthesisGate::Kind::beyondBarLimit:
      return "beyondBarLimit";
    case SynthesisGate::Kind::noSungNotes:
      return "noSungNotes";
    case SynthesisGate::Kind::afterStrandedSokuon:
      return "afterStrandedSokuon";
  }
  return "";
}

std::vector<int> SynthesisGate::sungTrackIndices(const MusicDocument& document,
                                                 const std::vector<Uuid>& sungTrackIDs,
                                                 std::optional<int> selectedTrack) {
  std::vector<int> out;
  const int count = static_cast<int>(document.tracks.size());
  if (!sungTrackIDs.empty()) {
    for (int i = 0; i < count; ++i)
      if (std::find(sungTrackIDs.begin(), sungTrackIDs.end(), document.tracks[i].id) !=
          sungTrackIDs.end())
        out.push_back(i);
    return out;
  }
  if (selectedTrack && *selectedTrack >= 0 && *selectedTrack < count) return {*selectedTrack};
  if (auto preferred = document.preferredSungTrack(std::nullopt)) return {*preferred};
  if (count > 0) return {0};
  return out;
}

CeilingLoss ceilingLoss(const TrackLine& line, std::optional<std::int64_t> ceiling) {
  CeilingLoss loss;
  if (!ceiling) return loss;
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    if (line.ticks[i] >= *ceiling) {
      loss.beyond.push_back(i);
    } else if (line.ends[i] > *ceiling) {
      loss.crossing.push_back(i);
    }
  }
  return loss;
}

std::vector<SynthesisGate::Problem> SynthesisGate::problems(const MusicDocument& document,
                                                            const std::vector<Uuid>& sungTrackIDs,
                                                            std::optional<int> selectedTrack) {
  std::vector<Problem> out;
  const BarRuler ruler = document.barRuler();
  const std::optional<std::int64_t> ceiling = scoreCeilingTick(document);
  for (int t : sungTrackIndices(document, sungTrackIDs, selectedTrack)) {
    const MusicTrack& track = document.tracks[t];
    auto place = [&](std::int64_t tick) {
      return trf("Tr.%d %@", {std::to_string(t + 1), ruler.positionText(tick)});
    };
    if (track.notes.empty()) {
      out.push_back(
          {Uuid(),
           t,
           0,
           {},
           Kind::noSungNotes,
           trf("%@：歌う音がありません。ピアノロールで歌詞のある音を入れてください", {track.name}),
           trf("Tr.%d", {std::to_string(t + 1)})});
      continue;
    }
    TrackLine line = TrackLine::of(track.notes, document.ppq);
    // The notes themselves are read once, for their lyrics and the pitches the engine stops on;
    // the rest works on what was gathered, and only notes with a problem are visited again.
    std::vector<LyricFacts> facts(line.notes.size());
    std::vector<bool> tooLow(line.notes.size());
    for (std::size_t i = 0; i < facts.size(); ++i) {
      if (!line.sung[i]) continue;
      const NoteEvent& n = *line.notes[i];
      facts[i] = lyricFacts(n.lyric);
      tooLow[i] = n.pitch < lowestPitch;
    }
    std::vector<NoteReading> readings = readLine(line, facts);
    for (std::size_t i = 0; i < line.notes.size(); ++i) {
      if (!line.sung[i] || (!readings[i].kind && !tooLow[i])) continue;
      const NoteEvent& n = *line.notes[i];
      if (const auto& kind = readings[i].kind) {
        std::string message;
        switch (*kind) {
          case Kind::emptyLyric:
            message = tr("歌詞が空です");
            break;
          case Kind::undefinedLyric:
            message = tr("読めない歌詞");
            break;
          case Kind::macronAfterRest:
            message = readings[i].afterUnreadable ? tr("読めない歌詞の後の「ー」")
                                                  : tr("休符の後の「ー」");
            break;
          case Kind::afterStrandedSokuon:
            message = tr("句の頭の「っ」に続く「ー」「っ」");
            break;
          case Kind::tooManyPhonemes:
            message = trf("1音に音素が %d 個（NEUTRINO は8個まで）",
                          {std::to_string(countPhonemes(n.lyric))});
            break;
          default:
            break;
        }
        out.push_back({n.id, t, n.tick, n.lyric, *kind, std::move(message), place(n.tick)});
      }
      if (tooLow[i]) {
        out.push_back({n.id, t, n.tick, n.lyric, Kind::pitchTooLow,
                       trf("音が低すぎて NEUTRINO が止まります（%@。%@ 以上にしてください）",
                           {pitchName(n.pitch), pitchName(lowestPitch)}),
                       place(n.tick)});
      }
    }
    const CeilingLoss loss = ceilingLoss(line, ceiling);
    if (!loss.empty()) {
      const std::size_t first =
          std::min(loss.crossing.empty() ? line.notes.size() : loss.crossing[0],
                   loss.beyond.empty() ? line.notes.size() : loss.beyond[0]);
      const NoteEvent& n = *line.notes[first];
      std::size_t count = loss.beyond.size() + loss.crossing.size();
      out.push_back({n.id, t, n.tick, n.lyric, Kind::beyondBarLimit,
                     trf("2000 小節目より後ろにかかる音 %d 個は、その部分を書き出せないため歌いま"
                         "せん。曲を分けるか、遠くの音を前へ移してください",
                         {std::to_string(count)}),
                     place(n.tick)});
    }
  }
  return out;
}

std::string SynthesisGate::refusal(const std::vector<Problem>& problems) {
  if (problems.empty()) return {};
  bool noSung = false, low = false;
  std::size_t blocking = 0;
  for (const auto& p : problems) {
    if (p.kind == Kind::noSungNotes) noSung = true;
    if (p.kind == Kind::pitchTooLow) low = true;
    if (p.kind != Kind::beyondBarLimit) ++blocking;
  }
  if (noSung) return tr("歌う音がないため、合成を止めました（合成しても何も歌いません）。");
  if (blocking == 0) {
    return tr(
        "曲が 2000 小節より長く、NEUTRINO "
        "へ渡せない音があります。その音は歌われないため、合成を止め"
        "ました。");
  }
  if (low) {
    return trf(
        "NEUTRINO が歌えない音が %d "
        "音あります。このまま合成すると曲全体が失敗するため、合成を止めま"
        "した。",
        {std::to_string(blocking)});
  }
  return trf(
      "NEUTRINO が歌えない歌詞が %d 音あります。このまま合成すると曲全体が失敗するため、合成を止め"
      "ました。",
      {std::to_string(blocking)});
}

std::string SynthesisGate::refusalWithList(const std::vector<Problem>& problems) {
  if (problems.empty()) return {};
  // Enough lines to find the first few in the piano roll; the issues list has them all.
  constexpr std::size_t kShown = 10;
  std::string out = refusal(problems);
  for (std::size_t i = 0; i < problems.size() && i < kShown; ++i) {
    const Problem& p = problems[i];
    std::string lyric = p.lyric.empty() ? tr("(空)") : visibleLyric(p.lyric);
    out += '\n';
    out += p.place;
    if (p.kind != Kind::noSungNotes) out += "  " + lyric;
    out += "  " + p.text;
  }
  if (problems.size() > kShown)
    out += "\n" + trf("…ほか %d 音", {std::to_string(problems.size() - kShown)});
  out += '\n';
  out += tr(
      "「問題一覧」の各行に直し方の釦があります（伸ばしは「ー」・休符の印は休符へ・音素は仮名へ・記"
      "号を外す など）。");
  out += '\n';
  out += tr("釦の無い行は、ピアノロールで歌詞を打ち直すか、その音を休符にしてください。");
  return out;
}

namespace {

// A compiled pattern shared by all threads; match data is per call.
class Pattern {
 public:
  explicit Pattern(const char* source) {
    int error = 0;
    PCRE2_SIZE offset = 0;
    code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(source), PCRE2_ZERO_TERMINATED,
                          PCRE2_UTF | PCRE2_UCP, &error, &offset, nullptr);
    if (code_) pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
  }
  ~Pattern() { pcre2_code_free(code_); }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  // Calls onMatch(groups) for each match of the line, left to right.
  template <class F>
  bool forEach(std::string_view line, F&& onMatch) const {
    if (!code_) return false;
    std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> data(
        pcre2_match_data_create_from_pattern(code_, nullptr), &pcre2_match_data_free);
    bool any = false;
    PCRE2_SIZE start = 0;
    while (start <= line.size()) {
      int rc = pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(line.data()), line.size(), start, 0,
                           data.get(), nullptr);
      if (rc < 0) break;
      PCRE2_SIZE* ov = pcre2_get_ovector_pointer(data.get());
      std::vector<std::string_view> groups;
      for (int g = 1; g < rc; ++g)
        groups.push_back(line.substr(ov[2 * g], ov[2 * g + 1] - ov[2 * g]));
      onMatch(groups);
      any = true;
      start = ov[1] > ov[0] ? ov[1] : ov[1] + 1;
    }
    return any;
  }

 private:
  pcre2_code* code_ = nullptr;
};

std::int64_t toBar(std::string_view digits) {
  std::int64_t v = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') break;
    v = std::min<std::int64_t>(v * 10 + (c - '0'), 1'000'000'000);
  }
  return v;
}

}  // namespace

SynthesisGate::LogReading SynthesisGate::parseLog(const std::vector<std::string>& lines) {
  static const Pattern english("Undefined lyric `(.*?)` in measure (\\d+)");
  static const Pattern japanese("(\\d+)小節目に未定義の歌詞「(.*?)」");
  static const Pattern englishBar("in measure (\\d+)");
  static const Pattern japaneseBar("(\\d+)\\s*小節目");
  LogReading reading;
  for (const std::string& line : lines) {
    if (line.find("Added a rest to the first measure") != std::string::npos ||
        line.find("does not start with a rest") != std::string::npos) {
      reading.restAdded = true;
    }
    bool matched = english.forEach(line, [&](const auto& g) {
      reading.hits.push_back({toBar(g[1]), std::string(g[0])});
    });
    matched |= japanese.forEach(line, [&](const auto& g) {
      reading.hits.push_back({toBar(g[0]), std::string(g[1])});
    });
    if (matched) continue;
    englishBar.forEach(line, [&](const auto& g) { reading.hits.push_back({toBar(g[0]), {}}); });
    japaneseBar.forEach(line, [&](const auto& g) { reading.hits.push_back({toBar(g[0]), {}}); });
  }
  return reading;
}

std::string SynthesisGate::restBarLine(std::int64_t engineBar, std::int64_t melvoBar) {
  return trf(
      "NEUTRINO の %d 小節目は、Melvo の %d 小節目です（NEUTRINO が頭に休符の小節を足したため）",
      {std::to_string(engineBar), std::to_string(melvoBar)});
}

std::optional<Uuid> SynthesisGate::noteForLogHit(const MusicDocument& document, int trackIndex,
                                                 const LogHit& hit, bool restAdded) {
  if (trackIndex < 0 || trackIndex >= static_cast<int>(document.tracks.size())) return {};
  const std::int64_t bar = melvoBar(hit.measure, restAdded);
  if (bar < 1) return {};
  const BarRuler ruler = document.barRuler();
  TrackLine line = TrackLine::of(document.tracks[trackIndex].notes, document.ppq);
  const NoteEvent* first = nullptr;
  for (std::size_t i = 0; i < line.notes.size(); ++i) {
    if (!line.sung[i]) continue;
    const NoteEvent& n = *line.notes[i];
    const std::int64_t b = ruler.barNumber(n.tick);
    if (b < bar) continue;
    if (b > bar) break;
    if (!first) first = &n;
    if (hit.lyric && (n.lyric == *hit.lyric || lyricForExport(n.lyric) == *hit.lyric)) return n.id;
  }
  if (first) return first->id;
  return {};
}

namespace {
std::mutex rangeMutex;
std::map<std::string, std::optional<VoiceRange::Range>>& rangeCache() {
  static std::map<std::string, std::optional<VoiceRange::Range>> cache;
  return cache;
}
}  // namespace

std::optional<VoiceRange::Range> SynthesisGate::voiceRange(const std::filesystem::path& engineDir,
                                                           const std::string& voice) {
  if (voice.empty() || engineDir.empty()) return std::nullopt;
  const std::filesystem::path folder = engineDir / "model" / voice;
  const std::string key = folder.lexically_normal().string();
  {
    std::lock_guard lock(rangeMutex);
    auto it = rangeCache().find(key);
    if (it != rangeCache().end()) return it->second;
  }
  // Read outside the lock: a slow disk must not hold up other voices.
  std::optional<VoiceRange::Range> range = VoiceRange::readModel(folder);
  if (range) range->voice = voice;
  std::lock_guard lock(rangeMutex);
  return rangeCache().emplace(key, range).first->second;
}

void SynthesisGate::clearVoiceRangeCache() {
  std::lock_guard lock(rangeMutex);
  rangeCache().clear();
}

std::unordered_map<Uuid, VoiceRange::Range> SynthesisGate::voiceRanges(
    const MusicDocument& document, const std::filesystem::path& engineDir) {
  std::unordered_map<Uuid, VoiceRange::Range> out;
  for (const MusicTrack& t : document.tracks)
    if (auto r = voiceRange(engineDir, t.characterName)) out.emplace(t.id, *r);
  return out;
}

}  // namespace melvo
