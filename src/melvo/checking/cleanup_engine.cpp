#include "melvo/checking/cleanup_engine.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

#include "melvo/checking/kana_table.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/checking/score_validator.h"
#include "melvo/model/bar_ruler.h"
#include "melvo/model/sung_line.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/reference_date.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

// The pass labels; they are also the keys of the report's counts.
constexpr const char* kNfc = N_("濁点正規化（NFC）");
constexpr const char* kUtau = N_("UTAU 残骸除去");
constexpr const char* kOldKana = N_("古い仮名→今の仮名");
constexpr const char* kSymbols = N_("記号除去");
constexpr const char* kWhitespace = N_("空白除去");
constexpr const char* kEmoji = N_("絵文字・制御文字除去");
constexpr const char* kHalfWidth = N_("半角カナ→全角");
constexpr const char* kKanji = N_("漢字→ひらがな");
constexpr const char* kParticle = N_("助詞「を」→「お」");
constexpr const char* kForeign = N_("外来音節（ヴ/ファ等）");
constexpr const char* kChouon = N_("単独「ー」→前母音");
constexpr const char* kSokuon = N_("単独「っ」→次音に統合");
constexpr const char* kYouon = N_("単独「ゃゅょ」→前音に統合");
constexpr const char* kSplit = N_("多音節→音節ごとに分割");
constexpr const char* kZeroLength = N_("長さ 0 の音符を削除");
constexpr const char* kTinyDeleted = N_("ごく短い音符を削除");
constexpr const char* kTinyMerged = N_("ごく短い音符をまとめる");
constexpr const char* kChord = N_("コード→単旋律化");
constexpr const char* kOverlap = N_("音符の重なりを整える");
constexpr const char* kTieSlur = N_("タイ/スラー二重解消");
constexpr const char* kHeadBars = N_("冒頭空小節切り詰め");
constexpr const char* kTieLyricDup = N_("タイでつないだ後ろの音符に、前と同じ歌詞が入っている");
constexpr const char* kInvalidYouon =
    N_("「あゃ」のように、小さい「ゃゅょ」がつながらない字の後に在る");
constexpr const char* kGhostVelocity = N_("強さ 0 の音符（ゴーストノート）");
constexpr const char* kTempoDedup = N_("テンポ重複解消");
constexpr const char* kMeterDedup = N_("拍子重複解消");

// "空(そら)" or "空（そら）": the reading in brackets, when there is one.
std::optional<std::string> bracketReading(std::string_view lyric) {
  for (auto [open, close] : {std::pair<std::string_view, std::string_view>{"(", ")"},
                             std::pair<std::string_view, std::string_view>{"（", "）"}}) {
    const auto a = lyric.find(open);
    if (a == std::string_view::npos) continue;
    const auto b = lyric.find(close, a + open.size());
    if (b == std::string_view::npos) continue;
    std::string inside(lyric.substr(a + open.size(), b - a - open.size()));
    inside = text::withoutScalars(inside, [](char32_t c) { return isLyricSymbol(c); });
    if (!text::trimWhitespace(inside).empty()) return inside;
  }
  return std::nullopt;
}

// Whether `later` only holds on the sound of `earlier`: no lyric, only ー, or the bare vowel
// `earlier` ends on (か then あ, the form the earlier passes leave of か ー). A later note
// that repeats the whole last syllable (あ then あ) sings it anew as far as the check is
// concerned, so it is not a hold.
bool holdsOn(std::string_view earlier, std::string_view later) {
  const std::string form = lyricForExport(later);
  std::size_t i = 0;
  bool onlyChouon = true;
  while (i < form.size() && onlyChouon) onlyChouon = text::nextScalar(form, i) == U'ー';
  if (onlyChouon) return true;
  const std::string before = lyricForExport(earlier);
  const auto vowel = vowelOf(before);
  const auto syllables = groupSyllables(before);
  return vowel && form == *vowel && !syllables.empty() && syllables.back() != form;
}

// Whether small `youon` makes one entry of the kana table with the last kana of `before`.
bool pairsWith(std::string_view before, std::string_view youon) {
  char32_t last = 0;
  for (std::size_t i = 0; i < before.size();) last = text::nextScalar(before, i);
  std::size_t k = 0;
  return last != 0 && !youon.empty() && kana::lookupPair(last, text::nextScalar(youon, k));
}

// A note the engine sings wherever it stands: a lyric it reads that leans on nothing, on a
// pitch it survives.
bool singsAlone(const NoteEvent& n) {
  const ReadingKind r = readingState(n.lyric).kind;
  return (r == ReadingKind::readable || r == ReadingKind::partial) && !startsWithSustain(n.lyric) &&
         countPhonemes(n.lyric) <= 8 && n.pitch >= 23;
}

std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (std::size_t k = 0; k < parts.size(); ++k) out += (k ? "／" : "") + parts[k];
  return out;
}

// The event in force at `cut` moves to the start; earlier ones go, later ones move back.
template <typename Event>
void shiftMap(std::vector<Event>& events, std::int64_t cut) {
  std::stable_sort(events.begin(), events.end(),
                   [](const Event& a, const Event& b) { return a.tick < b.tick; });
  std::vector<Event> out;
  for (const auto& e : events) {
    if (e.tick <= cut) {
      if (!out.empty() && out.back().tick == 0) out.pop_back();
      out.push_back(e);
      out.back().tick = 0;
    } else {
      out.push_back(e);
      out.back().tick -= cut;
    }
  }
  events = std::move(out);
}

class Cleaner {
 public:
  Cleaner(MusicDocument d, std::unordered_set<Uuid> keepWhole) : doc_(std::move(d)) {
    report_.keepWhole = std::move(keepWhole);
    // The passes compare each note with its neighbour in time; a song whose notes were
    // stored out of order (an importer, an agent) must not slip past them.
    for (auto& t : doc_.tracks) sortByTick(t.notes);
  }

  // Whether the writer sings notes[i] rather than another note starting with it. A chord
  // note it drops is left for the chord pass: split, its later parts would be sung.
  bool isSungAtItsTick(const NoteList& notes, std::size_t i) const {
    const int rank = sungRank(notes[i], doc_.ppq);
    for (std::size_t k = i; k-- > 0 && notes[k].tick == notes[i].tick;)
      if (sungRank(notes[k], doc_.ppq) <= rank) return false;
    for (std::size_t k = i + 1; k < notes.size() && notes[k].tick == notes[i].tick; ++k)
      if (sungRank(notes[k], doc_.ppq) < rank) return false;
    return true;
  }

  // Stable, so that notes at one tick keep the order the chord rule reads.
  static void sortByTick(NoteList& notes) {
    auto earlier = [](const NoteEvent& a, const NoteEvent& b) { return a.tick < b.tick; };
    if (std::is_sorted(notes.begin(), notes.end(), earlier)) return;
    std::vector<NoteEvent> sorted(notes.begin(), notes.end());
    std::stable_sort(sorted.begin(), sorted.end(), earlier);
    notes.assign(std::move(sorted));
  }

  // A pass that only rewrites lyrics: `rewrite` gives the new lyric, or nothing to keep it.
  // The log may name a narrower action than the pass (a reading taken from brackets).
  struct Rewrite {
    std::string lyric;
    const char* logLabel = nullptr;
  };
  void lyricPass(const char* label,
                 const std::function<std::optional<Rewrite>(const NoteEvent&)>& f) {
    begin(label);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size(); ++i) {
        auto r = f(notes[i]);
        if (!r || r->lyric == notes[i].lyric) continue;
        NoteEvent& n = notes.mutableAt(i);
        record(label, n, t, n.lyric, r->lyric, r->logLabel);
        n.lyric = std::move(r->lyric);
        n.sourcePhonemes.reset();
      }
    });
  }

  void utauResidue() {
    begin(kUtau);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size();) {
        const NoteEvent& n = notes[i];
        // The class rule, and R with spaces around it, which the class leaves to a later pass.
        const std::string_view trimmed = text::trimWhitespace(n.lyric);
        if (trimmed != "R" && trimmed != "r" &&
            classifyLyricChars(n.lyric) != LyricClass::utauMark) {
          ++i;
          continue;
        }
        std::optional<std::string> s = withoutUtauMarks(n.lyric);
        if (!s) {
          // A rest: the chord notes the writer dropped under it go too unless they can be
          // sung in its place (a lyric of their own, a pitch the engine sings).
          std::vector<Uuid> silent;
          if (isSungAtItsTick(notes, i))
            for (std::size_t k = 0; k < notes.size(); ++k)
              if (k != i && notes[k].tick == n.tick && !singsAlone(notes[k]))
                silent.push_back(notes[k].id);
          record(kUtau, n, t, n.lyric, tr("(休符)"));
          notes.erase(i);
          for (const Uuid& id : silent)
            for (std::size_t k = 0; k < notes.size(); ++k)
              if (notes[k].id == id) {
                record(kUtau, notes[k], t, notes[k].lyric, tr("(削除)"));
                notes.erase(k);
                if (k < i) --i;
                break;
              }
          continue;
        }
        if (*s != n.lyric) {
          NoteEvent& m = notes.mutableAt(i);
          record(kUtau, m, t, m.lyric, *s);
          m.lyric = std::move(*s);
        }
        ++i;
      }
    });
  }

  void standaloneChouon() {
    begin(kChouon);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 1; i < notes.size(); ++i) {
        if (!isOnlyChouon(notes[i].lyric)) continue;
        const auto morae = splitMorae(lyricForExport(notes[i - 1].lyric));
        if (morae.empty()) continue;
        const auto vowel = vowelOf(morae.back());
        if (!vowel) continue;
        NoteEvent& n = notes.mutableAt(i);
        record(kChouon, n, t, n.lyric, *vowel);
        n.lyric = *vowel;
      }
    });
  }

  void standaloneSokuon() {
    begin(kSokuon);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i + 1 < notes.size(); ++i) {
        const std::string l = lyricForExport(notes[i].lyric);
        if ((l != "っ" && l != "ッ") || notes[i + 1].tick != notes[i].endTick()) continue;
        const NoteEvent gone = notes[i];
        NoteEvent& next = notes.mutableAt(i + 1);
        const std::string before = joined({gone.lyric, next.lyric});
        next.duration = next.endTick() - gone.tick;
        next.tick = gone.tick;
        next.lyric = "っ" + next.lyric;
        next.sourcePhonemes.reset();
        record(kSokuon, next, t, before, next.lyric);
        notes.erase(i);
      }
    });
  }

  void standaloneYouon() {
    begin(kYouon);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 1; i < notes.size();) {
        const std::string l = lyricForExport(notes[i].lyric);
        const NoteEvent& prev = notes[i - 1];
        // Only onto a note it touches, which it pairs with: joined over a rest or after a
        // kana it forms no table entry with, it would be a wrong small kana in its turn.
        if (!isCharacterIn(l, youonCharacters) || prev.pitch != notes[i].pitch ||
            prev.tick >= notes[i].tick || prev.endTick() < notes[i].tick ||
            !pairsWith(lyricForExport(prev.lyric), l)) {
          ++i;
          continue;
        }
        const NoteEvent gone = notes[i];
        NoteEvent& p = notes.mutableAt(i - 1);
        const std::string before = joined({p.lyric, gone.lyric});
        p.duration = std::max(p.duration, gone.endTick() - p.tick);
        p.lyric += l;
        p.sourcePhonemes.reset();
        record(kYouon, p, t, before, p.lyric);
        notes.erase(i);
      }
    });
  }

  void multiSyllable() {
    begin(kSplit);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size(); ++i) {
        const NoteEvent n = notes[i];
        if (report_.keepWhole.count(n.id) || !isSungAtItsTick(notes, i)) continue;
        const auto syl = splittableSyllables(n.lyric);
        // The sung length: up to the next note's start when that comes first, so that no
        // part lands past a later note.
        std::int64_t end = n.endTick();
        for (std::size_t k = i + 1; k < notes.size(); ++k)
          if (notes[k].tick > n.tick) {
            end = std::min(end, notes[k].tick);
            break;
          }
        // Parts shorter than a 64th would be merged straight back by the very-short pass.
        const auto count = static_cast<std::int64_t>(syl.size());
        if (count < 2 || (end - n.tick) / count < veryShortBelow(doc_.ppq)) continue;
        // Equal parts, the last taking what the division leaves, as the row's repair does.
        // Every part keeps the note's values; the breath and the slur come after the last.
        const std::int64_t each = std::max<std::int64_t>(1, (end - n.tick) / count);
        NoteEvent& first = notes.mutableAt(i);
        first.duration = each;
        first.lyric = syl[0];
        first.sourcePhonemes.reset();
        first.hasBreathAfter = false;
        first.slurToNext = false;
        // The parts go after the chord partners at the note's tick: the list stays in time
        // order, and a partner still sees the note it shares its tick with.
        std::size_t at = i + 1;
        while (at < notes.size() && notes[at].tick == n.tick) ++at;
        for (std::int64_t k = 1; k < count; ++k) {
          const std::int64_t tick = addTicks(n.tick, k * each);
          const std::int64_t duration =
              k + 1 == count ? std::max<std::int64_t>(1, end - tick) : each;
          const bool last = k + 1 == count;
          notes.insert(at++, NoteEvent::make(Uuid::random(), tick, duration, n.pitch, n.velocity,
                                             syl[static_cast<std::size_t>(k)], last && n.slurToNext,
                                             last && n.hasBreathAfter));
        }
        record(kSplit, n, t, n.lyric, joined(syl));
      }
    });
  }

  void veryShortNotes() {
    begin(kTinyDeleted);
    begin(kTinyMerged);
    const std::int64_t ppq = doc_.ppq;
    auto tiny = [&](const NoteEvent& n) { return n.duration < veryShortBelow(ppq); };
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size();) {
        if (tiny(notes[i]) && lyricForExport(notes[i].lyric).empty()) {
          record(kTinyDeleted, notes[i], t, notes[i].lyric, tr("(削除)"));
          notes.erase(i);
        } else {
          ++i;
        }
      }
      // A run of tiny sung notes, as the check counts one (gaps of at most a tick), becomes
      // one note when the engine can read the whole; else every part stays as it was, since
      // a run merged only in part still sings the same tiny notes. Notes apart stay apart:
      // joining them would make one long note over the rest between them.
      for (std::size_t i = 0; i < notes.size();) {
        std::size_t j = i + 1;
        if (tiny(notes[i]))
          while (j < notes.size() && tiny(notes[j]) && notes[j].tick - notes[j - 1].endTick() <= 1)
            ++j;
        if (j == i + 1) {
          ++i;
          continue;
        }
        std::vector<std::string> parts;
        std::string lyric;
        std::int64_t end = notes[i].endTick();
        for (std::size_t k = i; k < j; ++k) {
          parts.push_back(notes[k].lyric);
          lyric += notes[k].lyric;
          end = std::max(end, notes[k].endTick());
        }
        if (countPhonemes(lyric) > 8) {
          i = j;
          continue;
        }
        NoteEvent& n = notes.mutableAt(i);
        record(kTinyMerged, n, t, joined(parts), lyric);
        n.lyric = lyric;
        n.duration = std::max<std::int64_t>(1, end - n.tick);
        n.sourcePhonemes.reset();
        // The last part's breath and slur end the merged note.
        n.hasBreathAfter = notes[j - 1].hasBreathAfter;
        n.slurToNext = notes[j - 1].slurToNext;
        for (std::size_t k = j; k-- > i + 1;) notes.erase(k);
        ++i;
      }
    });
  }

  // Of notes starting together, the one the score writer would sing stays: one with a lyric,
  // then one that isn't very short, then the earlier.
  void chordToMonophonic() {
    begin(kChord);
    auto rank = [&](const NoteEvent& n) { return sungRank(n, doc_.ppq); };
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t a = 0; a < notes.size();) {
        std::size_t b = a + 1;
        while (b < notes.size() && notes[b].tick == notes[a].tick) ++b;
        if (b - a > 1) {
          std::size_t keep = a;
          for (std::size_t k = a + 1; k < b; ++k)
            if (rank(notes[k]) < rank(notes[keep])) keep = k;
          const std::string sung = notes[keep].pitchName();
          for (std::size_t k = b; k-- > a;) {
            if (k == keep) continue;
            const NoteEvent& gone = notes[k];
            record(kChord, gone, t, gone.lyric.empty() ? gone.pitchName() : gone.lyric,
                   trf("(削除・歌う音は %@)", {sung}));
            notes.erase(k);
          }
          b = a + 1;
        }
        a = b;
      }
    });
  }

  void overlap() {
    begin(kOverlap);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size(); ++i) {
        std::size_t j = i + 1;
        while (j < notes.size() && notes[j].tick == notes[i].tick) ++j;
        if (j == notes.size() || notes[i].endTick() <= notes[j].tick) continue;
        NoteEvent& n = notes.mutableAt(i);
        const std::int64_t before = n.duration;
        n.duration = notes[j].tick - n.tick;
        record(kOverlap, n, t, std::to_string(before), std::to_string(n.duration));
      }
    });
  }

  // A tie already holds the note on, so a slur over the same pair says it twice; the slur
  // goes. A tie here is a note running straight into one of its own pitch that only holds
  // the sound on. A later note that repeats the syllable is the ambiguous "same lyric after a
  // tie", which is the user's call, so its slur stays for that decision.
  void tieSlurConflict() {
    begin(kTieSlur);
    forEachTrack([&](int t, NoteList& notes) {
      for (std::size_t i = 0; i < notes.size(); ++i) {
        if (!notes[i].slurToNext) continue;
        const std::int64_t end = notes[i].endTick();
        bool tied = false;
        for (std::size_t j = i + 1; j < notes.size() && notes[j].tick <= end && !tied; ++j)
          tied = notes[j].tick == end && notes[j].pitch == notes[i].pitch &&
                 holdsOn(notes[i].lyric, notes[j].lyric);
        if (!tied) continue;
        NoteEvent& n = notes.mutableAt(i);
        n.slurToNext = false;
        // The slur mark against nothing, as the breath mark is logged.
        record(kTieSlur, n, t, "⌒", "");
      }
    });
  }

  // Whole bars of silence before the first note go, and the song moves forward with its
  // tempo, meter and key; muted tracks move too so that the tracks stay together.
  void emptyHeadBars() {
    begin(kHeadBars);
    std::optional<std::int64_t> first;
    for (const auto& track : doc_.tracks)
      for (const auto& n : track.notes) first = std::min(first.value_or(n.tick), n.tick);
    if (!first) return;
    const BarRuler ruler(doc_.ppq, doc_.timeSignatures);
    const BarPosition at = ruler.position(*first);
    const std::int64_t cut = at.barStartTick;
    if (cut <= 0) return;
    for (auto& track : doc_.tracks)
      for (std::size_t i = 0; i < track.notes.size(); ++i) track.notes.mutableAt(i).tick -= cut;
    shiftMap(doc_.tempoMap, cut);
    shiftMap(doc_.timeSignatures, cut);
    shiftMap(doc_.keySignatures, cut);
    shiftImportNotices(doc_, 0, -cut);
    record(kHeadBars, Uuid(), -1, 0,
           trf("空の小節 %d 個（%dtk）", {std::to_string(at.barNumber - 1), std::to_string(cut)}),
           tr("(詰めました)"));
  }

  // The three findings that may be intended, treated as the user decided. Each automatic fix
  // applies the row's first repair to the song as it stands after the earlier ones.
  void ambiguous(const CleanupPolicy& policy, const std::vector<Uuid>& sung) {
    struct Kind {
      ValidationIssue::Category category;
      AmbiguousPattern pattern;
      const char* label;
    };
    const Kind kinds[] = {
        {ValidationIssue::Category::invalidYouon, AmbiguousPattern::invalidYouon, kInvalidYouon},
        {ValidationIssue::Category::tieLyricDup, AmbiguousPattern::tieLyricDup, kTieLyricDup},
        {ValidationIssue::Category::ghostVelocity, AmbiguousPattern::ghostVelocity, kGhostVelocity},
    };
    const auto rows = validate(doc_, sung, {}, report_.keepWhole);
    for (const auto& row : rows) {
      const Kind* kind = nullptr;
      for (const auto& k : kinds)
        if (k.category == row.category) kind = &k;
      if (!kind || row.noticeID) continue;
      switch (policy.decision(kind->pattern)) {
        case CleanupDecision::ask:
          report_.pendingDecisions.push_back(row);
          break;
        case CleanupDecision::autoSkip:
          break;
        case CleanupDecision::autoFix: {
          if (row.suggestions.empty()) break;
          begin(kind->label);
          const auto& first = row.suggestions.front();
          RepairResult r =
              applySuggestionAction(doc_, first.action, row, first.label + tr("（自動修正）"));
          doc_ = std::move(r.document);
          for (auto& e : r.log) {
            ++report_.byCategory[kind->label];
            report_.entryCategories.push_back(kind->label);
            report_.entries.push_back(std::move(e));
          }
          break;
        }
      }
    }
  }

  template <typename Event>
  void keepLastPerTick(const char* label, std::vector<Event>& events,
                       const std::function<std::string(const Event&)>& show) {
    begin(label);
    std::vector<Event> kept;
    for (std::size_t i = 0; i < events.size(); ++i) {
      bool later = false;
      for (std::size_t k = i + 1; k < events.size(); ++k) later |= events[k].tick == events[i].tick;
      if (later) {
        record(label, Uuid(), -1, events[i].tick, show(events[i]), tr("(削除)"));
      } else {
        kept.push_back(events[i]);
      }
    }
    events = std::move(kept);
  }

  MusicDocument& document() { return doc_; }
  CleanupReport& report() { return report_; }

 private:
  // Lyric passes walk the tracks that are heard and hold notes.
  void forEachTrack(const std::function<void(int, NoteList&)>& f) {
    for (std::size_t t = 0; t < doc_.tracks.size(); ++t) {
      MusicTrack& track = doc_.tracks[t];
      if (track.isMuted || track.notes.empty()) continue;
      f(static_cast<int>(t), track.notes);
    }
  }
  void begin(const char* label) {
    if (!report_.byCategory.count(label)) {
      report_.byCategory[label] = 0;
      report_.categoryOrder.push_back(label);
    }
  }
  void record(const char* label, const NoteEvent& n, int track, std::string before,
              std::string after, const char* logLabel = nullptr) {
    record(label, n.id, track, n.tick, std::move(before), std::move(after), logLabel);
  }
  void record(const char* label, const Uuid& id, int track, std::int64_t tick, std::string before,
              std::string after, const char* logLabel = nullptr) {
    ++report_.byCategory[label];
    report_.entryCategories.push_back(label);
    report_.entries.push_back(
        {id, track, tick, tr(logLabel ? logLabel : label), std::move(before), std::move(after)});
  }

  MusicDocument doc_;
  CleanupReport report_;
};

std::size_t sungNotes(const MusicDocument& d, const std::vector<Uuid>& sung) {
  std::size_t count = 0;
  for (const auto& t : d.tracks) {
    const bool counted =
        sung.empty() ? !t.isMuted : std::find(sung.begin(), sung.end(), t.id) != sung.end();
    if (counted) count += t.notes.size();
  }
  return count;
}

}  // namespace

CleanupDecision CleanupPolicy::decision(AmbiguousPattern p) const {
  switch (p) {
    case AmbiguousPattern::invalidYouon:
      return invalidYouon;
    case AmbiguousPattern::tieLyricDup:
      return tieLyricDup;
    case AmbiguousPattern::ghostVelocity:
      return ghostVelocity;
  }
  return CleanupDecision::ask;
}

const std::vector<CleanupSwitch>& implementedCleanupSwitches() {
  static const std::vector<CleanupSwitch> all{
      {"nfcNormalize", &CleanupOptions::nfcNormalize, kNfc},
      {"utauResidue", &CleanupOptions::utauResidue, kUtau},
      {"unreadableKana", &CleanupOptions::unreadableKana, kOldKana},
      {"symbols", &CleanupOptions::symbols, kSymbols},
      {"whitespace", &CleanupOptions::whitespace, kWhitespace},
      {"emojiControl", &CleanupOptions::emojiControl, kEmoji},
      {"halfWidthKana", &CleanupOptions::halfWidthKana, kHalfWidth},
      {"kanjiToHiragana", &CleanupOptions::kanjiToHiragana, kKanji},
      {"particleHa", &CleanupOptions::particleHa, kParticle},
      {"foreignKana", &CleanupOptions::foreignKana, kForeign},
      {"standaloneChouon", &CleanupOptions::standaloneChouon, kChouon},
      {"standaloneSokuon", &CleanupOptions::standaloneSokuon, kSokuon},
      {"standaloneYouon", &CleanupOptions::standaloneYouon, kYouon},
      {"multiSyllable", &CleanupOptions::multiSyllable, kSplit},
      {"zeroLength", &CleanupOptions::zeroLength, kZeroLength},
      {"chordToMonophonic", &CleanupOptions::chordToMonophonic, kChord},
      {"overlap", &CleanupOptions::overlap, kOverlap},
      {"tieSlurConflict", &CleanupOptions::tieSlurConflict, kTieSlur},
      {"tempoDedup", &CleanupOptions::tempoDedup, kTempoDedup},
      {"timeSigDedup", &CleanupOptions::timeSigDedup, kMeterDedup},
      {"emptyHeadBars", &CleanupOptions::emptyHeadBars, kHeadBars},
  };
  return all;
}

CleanupResult runCleanup(const MusicDocument& document, const CleanupOptions& o,
                         const std::vector<Uuid>& sungTrackIDs,
                         const std::unordered_set<Uuid>& keepWhole, const CleanupPolicy& policy) {
  using Rewrite = Cleaner::Rewrite;
  Cleaner c(document, keepWhole);
  c.report().startTime = referenceSecondsNow();
  const std::size_t sungBefore = sungNotes(document, sungTrackIDs);
  auto simple = [](std::string lyric) -> std::optional<Rewrite> {
    return Rewrite{std::move(lyric)};
  };

  // One run must leave nothing for a second: a later pass can leave work for an earlier one
  // (an automatic fix spells out a syllable the split then sees, an overlap cut leaves a very
  // short note), so the passes go round again, at most a few times, until nothing changes.
  for (int round = 0; round < 4; ++round) {
    const MusicDocument before = c.document();
    c.report().pendingDecisions.clear();
    if (o.nfcNormalize)
      c.lyricPass(kNfc,
                  [&](const NoteEvent& n) { return simple(text::composeVoicedMarks(n.lyric)); });
    if (o.utauResidue) c.utauResidue();
    if (o.unreadableKana)
      c.lyricPass(kOldKana, [](const NoteEvent& n) -> std::optional<Rewrite> {
        if (auto s = replaceOldKana(n.lyric)) return Rewrite{*s};
        return std::nullopt;
      });
    if (o.symbols)
      c.lyricPass(kSymbols, [](const NoteEvent& n) -> std::optional<Rewrite> {
        if (auto reading = bracketReading(n.lyric)) return Rewrite{*reading, N_("読み仮名を採用")};
        // What the score check offers for its symbol, ※ and ’ rows.
        std::string s = withoutReadOverMarks(n.lyric);
        // A lyric of symbols only is something the user typed on purpose; the check shows it.
        if (text::trimWhitespaceAndNewlines(s).empty()) return std::nullopt;
        return Rewrite{std::move(s)};
      });
    if (o.whitespace)
      c.lyricPass(kWhitespace, [](const NoteEvent& n) -> std::optional<Rewrite> {
        return Rewrite{text::withoutScalars(n.lyric, text::isWhitespaceOrNewline)};
      });
    if (o.emojiControl)
      c.lyricPass(kEmoji, [](const NoteEvent& n) -> std::optional<Rewrite> {
        return Rewrite{text::withoutScalars(
            n.lyric, [](char32_t ch) { return isInvisibleScalar(ch) || isEmojiScalar(ch); })};
      });
    if (o.halfWidthKana)
      c.lyricPass(kHalfWidth, [&](const NoteEvent& n) { return simple(widenHalfKana(n.lyric)); });
    if (o.kanjiToHiragana)
      c.lyricPass(kKanji, [&](const NoteEvent& n) { return simple(kanjiToHiragana(n.lyric)); });
    if (o.particleHa)
      c.lyricPass(kParticle, [](const NoteEvent& n) -> std::optional<Rewrite> {
        if (n.lyric == "を") return Rewrite{"お"};
        return std::nullopt;
      });
    if (o.foreignKana)
      c.lyricPass(kForeign, [](const NoteEvent& n) -> std::optional<Rewrite> {
        return Rewrite{katakanaLettersToHiragana(n.lyric), N_("カタカナ→ひらがな")};
      });
    if (o.standaloneChouon) c.standaloneChouon();
    if (o.standaloneSokuon) c.standaloneSokuon();
    if (o.standaloneYouon) c.standaloneYouon();
    if (o.multiSyllable) c.multiSyllable();
    if (o.zeroLength) c.veryShortNotes();
    if (o.chordToMonophonic) c.chordToMonophonic();
    if (o.overlap) c.overlap();
    if (o.tieSlurConflict) c.tieSlurConflict();
    MusicDocument& d = c.document();
    if (o.tempoDedup) c.keepLastPerTick<TempoEvent>(kTempoDedup, d.tempoMap, tempoText);
    if (o.timeSigDedup)
      c.keepLastPerTick<TimeSignatureEvent>(kMeterDedup, d.timeSignatures, meterText);
    if (o.emptyHeadBars) c.emptyHeadBars();
    c.ambiguous(policy, sungTrackIDs);
    if (c.document() == before) break;
  }
  CleanupReport& report = c.report();
  MusicDocument& d = c.document();
  report.sungNotesBecameZero = sungBefore > 0 && sungNotes(d, sungTrackIDs) == 0;
  report.endTime = referenceSecondsNow();
  return {std::move(d), std::move(report)};
}

}  // namespace melvo
