// The rules that look at one note at a time (and at its neighbours on the sung line).
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "melvo/checking/score_validator_internal.h"
#include "melvo/platform/i18n.h"
#include "melvo/platform/text.h"

namespace melvo::validator_detail {
namespace {

std::string num(std::int64_t v) {
  return std::to_string(v);
}

bool isIn(char32_t c, std::initializer_list<char32_t> set) {
  return std::find(set.begin(), set.end(), c) != set.end();
}

// One note cut into its syllables, each on a note of its own: the first keeps its id, the
// others are added with the same pitch.
// `end` is where the note stops being sung (the next note's start when that comes first), so
// no part lands past a later note and re-orders the line.
SuggestionAction splitAction(const NoteEvent& n, int track, const std::vector<std::string>& syl,
                             std::int64_t end) {
  const std::int64_t count = static_cast<std::int64_t>(syl.size());
  const std::int64_t each = std::max<std::int64_t>(1, (end - n.tick) / count);
  S::Sequence seq;
  seq.actions.emplace_back(S::SetTiming{{{n.id, n.tick, each}}});
  seq.actions.emplace_back(S::SetLyrics{{{n.id, syl[0]}}});
  S::AddNotes add{track, {}};
  for (std::int64_t k = 1; k < count; ++k) {
    std::int64_t tick = addTicks(n.tick, k * each);
    std::int64_t duration = k + 1 == count ? std::max<std::int64_t>(1, end - tick) : each;
    add.notes.push_back({tick, duration, n.pitch, syl[static_cast<std::size_t>(k)]});
  }
  seq.actions.emplace_back(std::move(add));
  return seq;
}

std::string partialLine(std::string_view lyric) {
  ReadingState s = readingState(lyric);
  return trf("NEUTRINO は「%@」だけを歌い、後ろの「%@」は読みません（曲は歌えます）。",
             {s.readable, visibleLyric(s.rest)});
}

// A track whose notes all lack a lyric gets one row for all of them.
bool allLyricsEmpty(TrackCheck& c, std::vector<bool>& reported) {
  const TrackLine& line = c.line;
  const std::size_t n = line.notes.size();
  bool allEmpty = n > 0;
  for (std::size_t i = 0; i < n && allEmpty; ++i)
    allEmpty = text::trimWhitespaceAndNewlines(line.notes[i]->lyric).empty();
  if (!allEmpty) return false;
  Issue& row =
      c.add(Cat::emptyLyric, Sev::error, line.notes[0]->tick,
            trf("%dトラック：歌詞が1つも入っていません（%d音）", {c.trackNumber(), num(n)}));
  row.jumpNoteID = line.notes[0]->id;
  row.detail = c.lyricLossNotice
                   ? tr("ファイルの歌詞を付けられなかった所があります（知らせの行を見てください）。"
                        "歌詞を入力すると歌えます。")
                   : tr("読み込んだファイルに歌詞が入っていないため、すべての音が空になっています。"
                        "歌詞を書き出していないファイル（歌詞の入っていない MIDI "
                        "など）で起こります。歌詞を入力すると歌えます。");
  reported.assign(n, true);
  return true;
}

// Lyrics typed as phonemes ("k a"): one row for the track, with the ones that map to kana.
void phonemeTypedLyrics(TrackCheck& c, std::vector<bool>& reported) {
  const TrackLine& line = c.line;
  const std::size_t n = line.notes.size();
  std::vector<std::size_t> typed;
  for (std::size_t i = 0; i < n; ++i)
    if (line.notes[i]->phonemesEqualLyric()) typed.push_back(i);
  if (!typed.empty()) {
    const NoteEvent& first = *line.notes[typed[0]];
    Issue& row = c.add(Cat::invalidLyricChars, Sev::error, first.tick,
                       trf("%dトラック：音素で書かれた歌詞が %d 音あります（例「%@」）",
                           {c.trackNumber(), num(typed.size()), visibleLyric(first.lyric)}));
    row.jumpNoteID = first.id;
    row.detail =
        tr("音素（発音記号）で入力された歌詞は、NEUTRINO "
           "では読めません。仮名の歌詞に入れ直してください。");
    S::SetLyrics fix;
    S::RemoveNotes rest;
    std::string fixFrom, fixTo, restExample;
    for (std::size_t i : typed) {
      const NoteEvent& e = *line.notes[i];
      reported[i] = true;
      row.jumpPlaces.push_back({e.tick, e.id});
      if (auto kana = kanaFromPhonemes(e.lyric)) {
        if (fix.edits.empty()) fixFrom = e.lyric, fixTo = *kana;
        fix.edits.push_back({e.id, *kana});
      } else {
        if (rest.ids.empty()) restExample = e.lyric;
        rest.ids.push_back(e.id);
      }
    }
    // Each label is written before its repair is handed over: the count is of the list.
    if (!fix.edits.empty()) {
      std::string label = trf("仮名へ写せる %d 音を直す（例「%@」→「%@」）",
                              {num(fix.edits.size()), visibleLyric(fixFrom), fixTo});
      row.suggestions.push_back(suggestion(std::move(label), std::move(fix)));
    }
    if (!rest.ids.empty()) {
      std::string label = trf("仮名へ写せない %d 音を休符にする（例「%@」）",
                              {num(rest.ids.size()), visibleLyric(restExample)});
      row.suggestions.push_back(suggestion(std::move(label), std::move(rest)));
    }
    row.suggestions.push_back(suggestion(tr("このまま（歌詞を直す）"), S::KeepAsIs{}));
  }
}

// What the rules of the sung line share across its notes.
struct LineState {
  std::vector<bool> reported;  // notes a track-wide row has spoken for
  std::vector<std::size_t> sungIdx;
  std::size_t skipZeroUntil = 0;  // notes inside a reported run of very short notes
};

// One sung note and what every rule is told about it and its neighbours.
class NoteCheck {
 public:
  NoteCheck(TrackCheck& check, LineState& state, std::size_t sungPosition,
            const NoteEvent* previous, std::size_t previousIndex)
      : c(check),
        line(check.line),
        t(check.trackIndex),
        reported(state.reported),
        sungIdx(state.sungIdx),
        skipZeroUntil(state.skipZeroUntil),
        s(sungPosition),
        i(state.sungIdx[sungPosition]),
        note(*line.notes[i]),
        f(c.facts[i]),
        reading(c.readings[i]),
        next(s + 1 < sungIdx.size() ? line.notes[sungIdx[s + 1]] : nullptr),
        prev(previous),
        prevIndex(previousIndex),
        fatal((reading.kind && *reading.kind == SynthesisGate::Kind::macronAfterRest) ||
              f.reading == ReadingKind::empty || f.reading == ReadingKind::unreadable),
        byFatal(fatal ? Sev::error : Sev::warning),
        prevEnd(prev ? prev->endTick() : 0),
        gap(prev ? note.tick - prevEnd : 0),
        prevReadable(prev && !c.readings[prevIndex].kind.has_value()),
        prevStranded(prev && c.readings[prevIndex].strandedSokuon) {
    // The character class; invisible scalars are judged by their own row.
    if (!reported[i] && !f.allKana && !f.emptyTrimmed) {
      invisible = hasInvisibleScalars(note.lyric);
      cls = classifyLyricChars(invisible ? withoutInvisibleScalars(note.lyric) : note.lyric);
      if (invisible && cls == LyricClass::clean) cls = LyricClass::invisibleOnly;
    }
    classRow = cls != LyricClass::clean && cls != LyricClass::invisibleOnly;
  }

  // The rules, in the order their rows are listed.
  void run() {
    static constexpr void (NoteCheck::*kRules[])() = {
        &NoteCheck::emptyLyric,          &NoteCheck::tooManyPhonemes,
        &NoteCheck::undefinedLyric,      &NoteCheck::macronAfterRest,
        &NoteCheck::afterStrandedSokuon, &NoteCheck::characterClass,
        &NoteCheck::invisibleScalars,    &NoteCheck::shortRestBefore,
        &NoteCheck::nonStandardLength,   &NoteCheck::standaloneSpecial,
        &NoteCheck::veryShortNotes,      &NoteCheck::unreadableKanaAndYouon,
        &NoteCheck::ghostVelocity,       &NoteCheck::tieLyricDup,
        &NoteCheck::severalSyllables,
    };
    for (auto rule : kRules) (this->*rule)();
  }

 private:
  // The lyric as rows show it; built only for the few notes that get a row.
  const std::string& shown() {
    if (!shownText) shownText = visibleLyric(note.lyric);
    return *shownText;
  }

  // Whether a rest in this note's place would leave the next note, a lone っ, heading a phrase
  // right before a note that leans on it: the engine refuses that, so no rest is offered.
  bool restWouldStrandSokuon() const {
    if (s + 2 >= sungIdx.size()) return false;
    const std::size_t j = sungIdx[s + 1], k = sungIdx[s + 2];
    return line.ends[i] == line.ticks[j] && c.facts[j].onlySokuon &&
           line.ends[j] == line.ticks[k] && c.facts[k].startsWithSustain;
  }
  void offerRest(std::vector<S>& fixes) const {
    if (!restWouldStrandSokuon()) fixes.push_back(suggestion(tr("休符にする"), S::RemoveNote{}));
  }

  // Empty lyric.
  void emptyLyric() {
    if (reported[i] || !(f.emptyTrimmed)) return;
    Issue& row = c.add(Cat::emptyLyric, Sev::error, note.tick,
                       trf("%dトラック %@小節目：歌詞が空です",
                           {c.trackNumber(), num(c.ruler.barNumber(note.tick))}),
                       note.id);
    const bool tied = prev && gap <= c.th.thirtySecond;
    row.detail = tied ? tr("NEUTRINO "
                           "は空歌詞を許可しません。ひらがな/"
                           "カタカナで歌詞を入力してください。前の音符からのタイ／長音表現の場"
                           "合は、ここに母音を入れると正しく繋がります。")
                      : tr("NEUTRINO "
                           "は空歌詞を許可しません。ひらがな/"
                           "カタカナで歌詞を入力するか、この音を休符にしてください。");
    if (tied && prevReadable && !prevStranded) {
      // Empty notes right after one another are joined all at once.
      std::vector<std::size_t> run{i};
      if (gap == 0)
        for (std::size_t k = s + 1; k < sungIdx.size(); ++k) {
          const std::size_t j = sungIdx[k];
          if (!c.facts[j].emptyTrimmed || line.notes[j]->tick != line.notes[run.back()]->endTick())
            break;
          run.push_back(j);
        }
      if (run.size() >= 2) {
        S::SetLyrics edits;
        for (std::size_t j : run) edits.edits.push_back({line.notes[j]->id, "ー"});
        row.suggestions.push_back(
            suggestion(trf("前の音を伸ばす「ー」でつなぐ（歌詞の無い %d 音）", {num(run.size())}),
                       std::move(edits)));
      } else if (gap > 0) {
        S::Sequence seq;
        seq.actions.emplace_back(S::SetTiming{{{note.id, prevEnd, note.endTick() - prevEnd}}});
        seq.actions.emplace_back(S::SetLyric{"ー"});
        row.suggestions.push_back(suggestion(
            trf("前の音を伸ばす「ー」でつなぐ（隙間 %dtk を詰める）", {num(gap)}), std::move(seq)));
      } else {
        row.suggestions.push_back(
            suggestion(tr("前の音を伸ばす「ー」でつなぐ"), S::SetLyric{"ー"}));
      }
    }
    if (prevReadable)
      if (auto vowel = vowelOf(lyricForExport(prev->lyric))) {
        row.suggestions.push_back(suggestion(
            trf("前の音符「%@」の母音「%@」を入れる", {visibleLyric(prev->lyric), *vowel}),
            S::SetLyric{*vowel}));
      }
    row.suggestions.push_back(suggestion(tr("このまま（歌詞を入れる）"), S::KeepAsIs{}));
  }

  // Too many phonemes on one note stops the engine.
  void tooManyPhonemes() {
    if (reported[i] || !(f.phonemes >= 9)) return;
    Issue& row =
        c.add(Cat::multiSyllable, Sev::error, note.tick,
              trf("1音符に音素が %d 個「%@」（NEUTRINO は8個まで）", {num(f.phonemes), shown()}),
              note.id);
    row.detail = tr(SynthesisGate::detailKey(SynthesisGate::Kind::tooManyPhonemes));
    const auto syl = splittableSyllables(note.lyric);
    if (syl.size() >= 2)
      row.suggestions.push_back(
          suggestion(trf("音節ごとに音符を分ける（%d 音）", {num(syl.size())}),
                     splitAction(note, t, syl, line.ends[i])));
  }

  // What the gate refuses: a lyric the engine cannot read at all.
  void undefinedLyric() {
    using K = SynthesisGate::Kind;
    if (reported[i] || !reading.kind) return;
    const K kind = *reading.kind;
    // Also beside a row of its characters: that row says what is wrong, this one that the
    // engine stops on it.
    if (kind != K::undefinedLyric) return;
    Issue& row = c.add(Cat::invalidLyricChars, Sev::error, note.tick,
                       trf("NEUTRINO が読めない歌詞「%@」", {shown()}), note.id);
    row.detail = tr(SynthesisGate::detailKey(kind));
    row.suggestions.push_back(suggestion(tr("このまま（歌詞を直す）"), S::KeepAsIs{}));
  }

  // ー after a rest or an unreadable lyric: the gate refuses it.
  void macronAfterRest() {
    using K = SynthesisGate::Kind;
    if (reported[i] || !reading.kind) return;
    const K kind = *reading.kind;
    const bool runContinues = prev && c.readings[prevIndex].kind == K::macronAfterRest &&
                              note.tick == c.line.ends[prevIndex];
    if (!(kind == K::macronAfterRest && !runContinues)) return;
    std::vector<std::size_t> run{i};
    for (std::size_t k = s + 1; k < sungIdx.size(); ++k) {
      const std::size_t j = sungIdx[k];
      if (c.readings[j].kind != K::macronAfterRest || line.notes[j]->tick != line.ends[run.back()])
        break;
      run.push_back(j);
    }
    const std::string where = c.place(note.tick);
    const bool afterUnreadable = reading.afterUnreadable;
    std::string message =
        afterUnreadable
            ? (run.size() > 1 ? trf("読めない歌詞の後の「ー」が %d 音続いています（%@）",
                                    {num(run.size()), where})
                              : trf("読めない歌詞の後の「ー」（%@）", {where}))
            : (run.size() > 1
                   ? trf("休符の後の「ー」が %d 音続いています（%@）", {num(run.size()), where})
                   : trf("休符の後の「ー」（%@）", {where}));
    Issue& row = c.add(Cat::standaloneSpecial, Sev::error, note.tick, std::move(message), note.id);
    row.detail = tr(SynthesisGate::detailKey(kind, afterUnreadable));
    S::RemoveNotes removeRun;
    for (std::size_t j : run) {
      removeRun.ids.push_back(line.notes[j]->id);
      row.jumpPlaces.push_back({line.notes[j]->tick, line.notes[j]->id});
    }
    const std::int64_t runEnd = line.notes[run.back()]->endTick();
    if (afterUnreadable) {
      row.suggestions.push_back(suggestion(tr("このまま（前の歌詞を直す）"), S::KeepAsIs{}));
      row.suggestions.push_back(suggestion(
          trf("休符にする（続く「ー」も合わせて %d 音）", {num(run.size())}), removeRun));
    } else {
      if (prev && prevReadable && gap > 0) {
        if (!prevStranded)
          row.suggestions.push_back(
              suggestion(trf("「ー」にして前の音に続ける（隙間 %dtk を詰める）", {num(gap)}),
                         S::SetTiming{{{note.id, prevEnd, note.endTick() - prevEnd}}}));
        S::Sequence join;
        join.actions.emplace_back(S::SetTiming{{{prev->id, prev->tick, runEnd - prev->tick}}});
        join.actions.emplace_back(removeRun);
        row.suggestions.push_back(
            suggestion(trf("前の音に足す（「%@」の長さを伸ばす）", {visibleLyric(prev->lyric)}),
                       std::move(join)));
      }
      if (prev && !prev->hasBreathAfter) {
        S::Sequence rest;
        rest.actions.emplace_back(removeRun);
        rest.actions.emplace_back(S::SetBreath{{prev->id}, true});
        row.suggestions.push_back(
            suggestion(tr("休符にして前の音にブレスを付ける"), std::move(rest)));
      }
      row.suggestions.push_back(suggestion(
          trf("休符にする（続く「ー」も合わせて %d 音）", {num(run.size())}), removeRun));
      row.suggestions.push_back(suggestion(tr("このまま（歌詞を直す）"), S::KeepAsIs{}));
    }
  }

  // What follows a lone っ at the head of a phrase: the gate refuses it.
  void afterStrandedSokuon() {
    using K = SynthesisGate::Kind;
    if (reported[i] || !reading.kind) return;
    const K kind = *reading.kind;
    if (!(kind == K::afterStrandedSokuon)) return;
    Issue& row =
        c.add(Cat::standaloneSpecial, Sev::error, note.tick,
              trf("句の頭の「っ」に続く「%@」（%@）", {shown(), c.place(note.tick)}), note.id);
    row.detail = tr(SynthesisGate::detailKey(kind));
    if (f.onlyChouon && prev) {
      // ー after a lone っ: the two are one held っ.
      S::Sequence join;
      join.actions.emplace_back(
          S::SetTiming{{{prev->id, prev->tick, note.endTick() - prev->tick}}});
      join.actions.emplace_back(S::RemoveNotes{{note.id}});
      row.suggestions.push_back(
          suggestion(trf("前の音に足す（「%@」の長さを伸ばす）", {visibleLyric(prev->lyric)}),
                     std::move(join)));
    }
    offerRest(row.suggestions);
    row.suggestions.push_back(suggestion(tr("このまま（歌詞を直す）"), S::KeepAsIs{}));
  }

  // Rows of the character class.
  void characterClass() {
    if (reported[i] || !classRow) return;
    std::string message;
    std::vector<std::string> detail;
    Cat category = Cat::invalidLyricChars;
    std::vector<S> fixes;
    switch (cls) {
      case LyricClass::utauMark: {
        category = Cat::utauResidue;
        message = trf("UTAU の印が歌詞に入っています「%@」", {shown()});
        detail.push_back(
            tr("UTAU "
               "で使う印（休符の「R」・声の強さの「強」「弱」・「%"
               "」）は、歌詞ではありません。取り除いてください。"));
        if (auto cleaned = withoutUtauMarks(note.lyric)) {
          if (*cleaned != note.lyric)
            fixes.push_back(
                suggestion(trf("「%@」にする", {*cleaned}), S::SetLyric{std::move(*cleaned)}));
        } else {
          offerRest(fixes);
        }
        break;
      }
      case LyricClass::digitsOrLatin:
        category = Cat::mixedDigits;
        message = trf("歌詞に数字・英字「%@」", {shown()});
        detail.push_back(
            tr("NEUTRINO は ASCII "
               "文字を発音できません。ひらがなに置き換えてください（例「1番」→「いちばん」）。"));
        break;
      case LyricClass::otherNonKana: {
        message = trf("歌詞「%@」に非ひらがな/カタカナ文字", {shown()});
        detail.push_back(
            tr("ローマ字や漢字は NEUTRINO で読めません。ひらがな or "
               "カタカナへ変換してください。"));
        if (hasKanji(note.lyric)) {
          std::string reading = kanjiToHiragana(note.lyric);
          if (reading != note.lyric && !hasKanji(reading)) {
            auto syl = groupSyllables(lyricForExport(reading));
            if (syl.size() >= 2)
              detail.push_back(
                  trf("「%@」にすると、1つの音符に %d "
                      "音節が入ります。そのあと出る「1つの音符に何音も入っている」の行の釦で、音節"
                      "ごとに音符を分けられます（つないで歌わせる時は、そのままで構いません）。",
                      {reading, num(syl.size())}));
            fixes.push_back(suggestion(trf("「%@」にする", {reading}), S::SetLyric{reading}));
          }
        }
        break;
      }
      case LyricClass::symbol:
      case LyricClass::decorationMark: {
        category = Cat::symbols;
        const std::string cleaned = withoutReadOverMarks(note.lyric);
        if (cls == LyricClass::symbol) {
          if (hasKana(cleaned)) {
            message = trf("歌詞に記号「%@」", {shown()});
            detail.push_back(
                tr("記号は NEUTRINO "
                   "で発音されません。「歌詞と音符を自動で直す」で除去できます。"));
          } else {
            message = trf("記号だけの歌詞「%@」", {shown()});
            detail.push_back(
                tr("記号だけの歌詞です。何の音かを決められないため、「歌詞と音符を自動で直す」では"
                   "外しません。前の音を伸ばす時は「ー」に、歌わない音は休符にしてください。"));
          }
        } else if (note.lyric.find("※") != std::string::npos) {
          message = trf("歌詞「%@」に CeVIO・VoiSona のファルセットの記号「※」", {shown()});
          detail.push_back(
              tr("ファルセット「※」は CeVIO・VoiSona の記号で、NEUTRINO "
                 "では効きません。「歌詞と音符を自動で直す」の「記号（! ? 。 、 鉤括弧 "
                 "…）を歌詞から消す」で外せます。"));
        } else {
          message = trf("歌詞「%@」の母音脱落「’」は、この位置では効きません", {shown()});
          detail.push_back(
              tr("母音脱落「’」は、仮名が2つ以上ある音符の中で、子音のある仮名の後ろに付けた時"
                 "だけ効きます（例「す’き」は s k i と歌います）。この位置では NEUTRINO "
                 "が読み飛ばすため、外しても歌は変わりません。"));
          detail.push_back(
              tr("「歌詞と音符を自動で直す」の「記号（! ? 。 、 鉤括弧 "
                 "…）を歌詞から消す」で外せます。"));
        }
        if (hasKana(cleaned)) {
          fixes.push_back(suggestion(trf("「%@」にする", {cleaned}), S::SetLyric{cleaned}));
        } else {
          if (prev && prevReadable && !prevStranded && gap == 0)
            fixes.push_back(suggestion(trf("「%@」にする", {"ー"}), S::SetLyric{"ー"}));
          offerRest(fixes);
        }
        break;
      }
      default:
        break;
    }
    if (f.reading == ReadingKind::partial) detail.push_back(partialLine(note.lyric));
    if (f.reading == ReadingKind::unreadable)
      detail.push_back(tr(SynthesisGate::detailKey(SynthesisGate::Kind::undefinedLyric)));
    Issue& row = c.add(category, byFatal, note.tick, std::move(message), note.id);
    std::string d;
    for (const auto& part : detail) d += (d.empty() ? "" : "\n") + part;
    row.detail = std::move(d);
    row.suggestions = std::move(fixes);
  }

  // Invisible scalars, judged apart from the class.
  void invisibleScalars() {
    if (reported[i] || !(invisible || cls == LyricClass::invisibleOnly)) return;
    const std::string left = withoutInvisibleScalars(note.lyric);
    Issue& row = c.add(Cat::emojiControl, byFatal, note.tick,
                       trf("歌詞「%@」に見えない制御文字", {shown()}), note.id);
    row.detail =
        hasKana(left)
            ? trf("目に見えない制御文字（%@"
                  "）が入っています。書き出しでは外すので、歌う中身は変わりません。「歌詞と音符"
                  "を自動で直す」の「歌詞の絵文字と目に見えない字を消す」でも外せます。",
                  {shown()})
            : trf("歌詞が見えない制御文字（%@"
                  "）だけです。書き出しでは外すので、歌詞の無い音になります。歌詞を入力するか、"
                  "この音を休符にしてください。",
                  {shown()});
    if (!left.empty() && left != note.lyric)
      row.suggestions.push_back(suggestion(trf("「%@」にする", {left}), S::SetLyric{left}));
    else if (left.empty())
      offerRest(row.suggestions);
  }

  // A short rest before the note.
  void shortRestBefore() {
    if (!(prev && gap > 0 && gap <= c.th.shortGap && !f.onlyChouon)) return;
    Issue& row =
        c.add(Cat::shortRestBefore, Sev::info, note.tick,
              trf("直前に短い休符（%@・%dtk）", {noteLengthLabel(gap, c.document.ppq), num(gap)}),
              note.id);
    row.detail =
        gap <= c.th.tinyGap
            ? tr("NEUTRINO は短い休符でも音を区切り、音ごとに途切れます（MIDI "
                 "の書き出しでよくある隙間です）。前の音を伸ばして詰めると、つながって歌います。")
        : gap <= c.th.thirtySecond
            ? tr("NEUTRINO "
                 "は短い休符でも音を区切ります。譜に書かれた休符なら、このままで構いません。つな"
                 "げて歌わせたい時は、前の音を伸ばして詰めてください。")
            : tr("NEUTRINO "
                 "は短い休符前で無声音化しやすいです。促音「っ」かブレスへの置換を検討。");
    row.suggestions.push_back(
        suggestion(trf("前の音を伸ばして隙間を詰める（%dtk）", {num(gap)}),
                   S::SetTiming{{{prev->id, prev->tick, note.tick - prev->tick}}}));
    const std::string exported = lyricForExport(note.lyric);
    // Not on an empty lyric (a lone っ heading a phrase), nor where っ would be a ninth phoneme.
    if (gap > c.th.thirtySecond && !exported.empty() && !text::startsWith(exported, "っ") &&
        !text::startsWith(exported, "ッ") && countPhonemes("っ" + exported) <= 8)
      row.suggestions.push_back(
          suggestion(trf("「っ」を歌詞に追加（%@→っ%@）", {shown(), shown()}), S::PrependSokuon{}));
    if (!prev->hasBreathAfter)
      row.suggestions.push_back(
          suggestion(trf("直前の音符「%@」にブレス（♪）を付ける", {visibleLyric(prev->lyric)}),
                     S::BreathOnPreviousNote{}));
  }

  // A length no note value or dots can write.
  void nonStandardLength() {
    if (isStandardLength(note.duration, c.document.ppq)) return;
    Issue& row = c.add(Cat::decoration, Sev::info, note.tick,
                       trf("非標準長さ（%@・%dtk）",
                           {noteLengthLabel(note.duration, c.document.ppq), num(note.duration)}),
                       note.id);
    row.detail =
        tr("音符の長さの組み合わせで表せない長さです。NEUTRINO は長さどおりに歌います（2026-09-25 "
           "測定）が、読み込みの誤りで生じた長さのこともあります。元の譜と見比べてください。");
  }

  void standaloneSpecial() {
    // A small kana or ー with nothing to lean on. Plain kana is its own export form.
    std::string exportedText;
    std::string_view exported;
    if (!reported[i] && !reading.kind && !f.emptyTrimmed && f.scalars <= 4) {
      if (isPlainKana(note.lyric)) {
        exported = note.lyric;
      } else {
        exportedText = lyricForExport(note.lyric);
        exported = exportedText;
      }
    }
    if (!exported.empty() && isStandaloneSpecial(exported)) {
      const bool forward = exported == "っ" || exported == "ッ";
      const bool neighbour = forward ? (next && next->tick - note.endTick() <= c.th.halfBeat)
                                     : (prev && gap <= c.th.halfBeat);
      if (!neighbour) {
        Issue& row = c.add(Cat::standaloneSpecial, Sev::warning, note.tick,
                           trf("単独「%@」音符", {exported}), note.id);
        row.detail = joinLines(
            {forward ? tr("促音「っ」は後続のモーラに繋がって初めて発音されます。")
                     : tr("拗音「ゃゅょ」・長音「ー」は直前のモーラに繋がって初めて発音されます。"),
             tr("隣の音符が無い（または休符で分断されている）ため、このままでは NEUTRINO "
                "で発音されません。隣の音符へ統合してください。")});
        std::string big = bigKanaOf(exported);
        if (!big.empty())
          row.suggestions.push_back(suggestion(trf("「%@」にする", {big}), S::SetLyric{big}));
      }
    }
  }

  // Very short notes, alone or in runs.
  void veryShortNotes() {
    if (!(note.duration < c.th.sixtyFourth && s >= skipZeroUntil)) return;
    std::size_t runEnd = s + 1;  // in sungIdx
    while (runEnd < sungIdx.size()) {
      const NoteEvent& a = *line.notes[sungIdx[runEnd - 1]];
      const NoteEvent& b = *line.notes[sungIdx[runEnd]];
      if (b.duration >= c.th.sixtyFourth || b.tick - a.endTick() > 1) break;
      ++runEnd;
    }
    const std::size_t count = runEnd - s;
    skipZeroUntil = runEnd;
    const NoteEvent& last = *line.notes[sungIdx[runEnd - 1]];
    const std::int64_t after =
        runEnd < sungIdx.size() ? line.notes[sungIdx[runEnd]]->tick : maxTick;
    const std::int64_t before = prev ? prevEnd : 0;
    const std::int64_t need = static_cast<std::int64_t>(count) * c.th.thirtySecond;
    Issue* row = nullptr;
    if (count >= 2) {
      double lo = 1e18, hi = 0;
      S::SetLyrics merged;
      std::string mergedLyric;
      S::RemoveNotes others;
      for (std::size_t k = s; k < runEnd; ++k) {
        const NoteEvent& e = *line.notes[sungIdx[k]];
        double ms = (c.clock.seconds(e.endTick()) - c.clock.seconds(e.tick)) * 1000;
        lo = std::min(lo, ms);
        hi = std::max(hi, ms);
        mergedLyric += std::string(text::trimWhitespaceAndNewlines(e.lyric));
        if (k > s) others.ids.push_back(e.id);
      }
      row = &c.add(
          Cat::zeroLength, Sev::warning, note.tick,
          trf("%@から %d 音は、1音が %d〜%dms しかありません",
              {c.place(note.tick), num(count), num(std::llround(lo)), num(std::llround(hi))}),
          note.id);
      row->endTick = last.endTick();
      row->detail =
          tr("NEUTRINO は1音素を最短 10ms で歌うので、後ろの音が遅れます（2026-09-25 測定：最大 "
             "0.06秒）。まとめて1音にするか、長さを 32分音符に広げてください。");
      for (std::size_t k = s; k < runEnd; ++k)
        row->jumpPlaces.push_back({line.notes[sungIdx[k]]->tick, line.notes[sungIdx[k]]->id});
      if (countPhonemes(mergedLyric) <= 8) {
        S::Sequence seq;
        seq.actions.emplace_back(S::SetTiming{{{note.id, note.tick, last.endTick() - note.tick}}});
        seq.actions.emplace_back(S::SetLyrics{{{note.id, mergedLyric}}});
        seq.actions.emplace_back(std::move(others));
        row->suggestions.push_back(
            suggestion(trf("まとめて1音にする（%d 音 ⇒ 1音）", {num(count)}), std::move(seq)));
      }
    } else {
      row = &c.add(Cat::zeroLength, Sev::warning, note.tick,
                   trf("ごく短い音符（%@・%dtk）",
                       {noteLengthLabel(note.duration, c.document.ppq), num(note.duration)}),
                   note.id);
      row->detail =
          joinLines({tr("NEUTRINO は1音素を最短 10ms "
                        "で歌うため、極短の音は後ろの音を少し遅らせます（2026-09-25 測定）。"),
                     tr("とても短い音は、聞こえないことがあります（2026-09-27 測定：母音が 15ms "
                        "以下の音の約1割が −45dB 未満）。"),
                     tr("直す時は、ピアノロールでこの音を "
                        "32分音符以上に伸ばすか、前後の音とまとめてください。")});
    }
    // A note that shares its tick with chord notes the writer drops keeps its start: moved,
    // it would leave them to be sung in its place.
    bool chordInRun = false;
    for (std::size_t k = s; k < runEnd; ++k) {
      const std::size_t j = sungIdx[k];
      chordInRun |= j + 1 < line.notes.size() && line.ticks[j + 1] == line.ticks[j];
    }
    if (chordInRun) return;
    auto widened = [&](std::int64_t start) {
      S::SetTiming timing;
      for (std::size_t k = s; k < runEnd; ++k)
        timing.edits.push_back({line.notes[sungIdx[k]]->id,
                                start + static_cast<std::int64_t>(k - s) * c.th.thirtySecond,
                                c.th.thirtySecond});
      return timing;
    };
    if (after - note.tick >= need) {
      row->suggestions.push_back(
          suggestion(tr("長さを 32分音符に広げる（後ろの休符を使う）"), widened(note.tick)));
    } else if (last.endTick() - before >= need) {
      row->suggestions.push_back(suggestion(tr("長さを 32分音符に広げる（前の休符を使う）"),
                                            widened(last.endTick() - need)));
    } else if (prev && after - prev->tick >= need + c.th.thirtySecond) {
      // Take what is missing from the note before, which keeps at least a 32nd.
      S::SetTiming timing = widened(after - need);
      timing.edits.insert(timing.edits.begin(), {prev->id, prev->tick, after - need - prev->tick});
      row->suggestions.push_back(
          suggestion(tr("長さを 32分音符に広げる（前後の音から借りる）"), std::move(timing)));
    }
  }

  void unreadableKanaAndYouon() {
    if (!(!reported[i] && !f.emptyTrimmed)) return;
    // Kana the engine's table lacks, and small ゃゅょ that form no pair with the kana before.
    std::string_view lyric = note.lyric;
    std::size_t k = 0;
    char32_t before = 0;
    std::string unreadable, badPair;
    bool old = false, dji = false;
    while (k < lyric.size()) {
      std::size_t start = k;
      char32_t ch = text::nextScalar(lyric, k);
      if (unreadable.empty() && (std::find(std::begin(unreadableKana), std::end(unreadableKana),
                                           ch) != std::end(unreadableKana) ||
                                 isIn(ch, {U'ゐ', U'ゑ', U'ヰ', U'ヱ'}))) {
        unreadable = std::string(lyric.substr(start, k - start));
      }
      if (isIn(ch, {U'ゐ', U'ゑ', U'ヰ', U'ヱ'})) old = true;
      if (badPair.empty() && before != 0 && inKanaRange(before) &&
          std::find(std::begin(youonCharacters), std::end(youonCharacters), ch) !=
              std::end(youonCharacters) &&
          !kana::lookupPair(before, ch)) {
        badPair = text::fromScalar(before) + std::string(lyric.substr(start, k - start));
        dji = before == U'ぢ' || before == U'ヂ';
      }
      before = ch;
    }
    if (!unreadable.empty()) {
      Issue& row = c.add(Cat::unreadableKana, Sev::warning, note.tick,
                         trf("読めない仮名「%@」", {unreadable}), note.id);
      row.detail =
          tr("ひらがな/カタカナの範囲内ですが、NEUTRINO の表に無い字（ヶ・繰り返し記号・合字・ヷ "
             "など）です。ピアノロールで読める仮名に打ち直してください。");
      if (old)
        if (auto modern = replaceOldKana(note.lyric))
          row.suggestions.push_back(
              suggestion(trf("「%@」に置換", {*modern}), S::SetLyric{*modern}));
    }
    if (!badPair.empty()) {
      Issue& row = c.add(Cat::invalidYouon, Sev::warning, note.tick,
                         trf("不正な拗音「%@」", {badPair}), note.id);
      // Rebuild the lyric with the lone small kana made big (and ぢ made じ for the same sound).
      std::string big, same;
      std::size_t m = 0;
      char32_t b = 0;
      while (m < lyric.size()) {
        std::size_t start = m;
        char32_t ch = text::nextScalar(lyric, m);
        std::string_view piece = lyric.substr(start, m - start);
        const bool lone = b != 0 && inKanaRange(b) &&
                          std::find(std::begin(youonCharacters), std::end(youonCharacters), ch) !=
                              std::end(youonCharacters) &&
                          !kana::lookupPair(b, ch);
        big += lone ? bigKanaOf(piece) : std::string(piece);
        char32_t sameCh = ch;
        if (m < lyric.size()) {
          std::size_t peek = m;
          char32_t following = text::nextScalar(lyric, peek);
          if (ch == U'ぢ' && isIn(following, {U'ゃ', U'ゅ', U'ょ'})) sameCh = U'じ';
          if (ch == U'ヂ' && isIn(following, {U'ャ', U'ュ', U'ョ'})) sameCh = U'ジ';
        }
        text::appendScalar(same, sameCh);
        b = ch;
      }
      if (dji) {
        row.detail =
            tr("「ぢゃ・ぢゅ・ぢょ」は NEUTRINO "
               "の表に無く、「ぢ」と「や・ゆ・よ」の2つの音節で歌われます。「じゃ・じゅ・じょ」と"
               "同じ音ですので、そちらに直してください。");
        row.suggestions.push_back(
            suggestion(trf("「%@」にする（同じ音）", {same}), S::SetLyric{same}));
      } else {
        row.detail =
            tr("小書きの「ゃ・ゅ・ょ」は、前の字と組む形（きゃ・しゅ・でゃ・ゔゅ 等）が NEUTRINO "
               "の表に無いと、「や・ゆ・よ」として別の音節で歌われます。誤りなら大書き（や・ゆ・"
               "よ）等へ直してください。");
      }
      row.suggestions.push_back(
          suggestion(trf("「%@」にする（拗音→大書き）", {big}), S::SetLyric{big}));
    }
  }

  // Velocity 0: silent in other software, sung by the engine.
  void ghostVelocity() {
    if (!(note.velocity == 0)) return;
    Issue& row = c.add(Cat::ghostVelocity, Sev::warning, note.tick,
                       tr("velocity 0 の音符（合成では歌われます）"), note.id);
    row.detail =
        tr("velocity（音の強さ）は NEUTRINO "
           "へ渡らないため、この音も歌詞どおりに歌われます。元のソフトで鳴らさない音だった時は、"
           "休符にしてください。");
    row.suggestions.push_back(
        suggestion(tr("このまま歌わせる（velocity を 100 にする）"), S::SetVelocity{100}));
    offerRest(row.suggestions);
  }

  // A slur or tie into a note that sings the same syllable again.
  void tieLyricDup() {
    if (!(!reported[i] && prev && prev->slurToNext && line.ends[prevIndex] == note.tick &&
          f.allKana && !f.onlyChouon && prevReadable))
      return;
    const std::string before = lyricForExport(prev->lyric);
    auto syl = groupSyllables(before);
    if (!syl.empty() &&
        foldedToHiragana(syl.back()) == foldedToHiragana(lyricForExport(note.lyric)))
      if (auto vowel = vowelOf(before);
          vowel && *vowel != foldedToHiragana(lyricForExport(note.lyric))) {
        // A bare vowel after its own vowel already holds it (あ⌒あ): nothing to repair.
        Issue& row = c.add(Cat::tieLyricDup, Sev::warning, note.tick,
                           trf("スラー継続で歌詞が重複「%@」", {shown()}), note.id);
        row.detail =
            tr("スラー/"
               "タイで繋がる続きの音符に同じ音節が入っています。二重発音になるため、継続側は前の"
               "母音にして1音を伸ばす形にしてください。");
        row.suggestions.push_back(
            suggestion(trf("継続側を母音「%@」にする", {*vowel}), S::SetLyric{*vowel}));
      }
  }

  // Several syllables on one kana note.
  void severalSyllables() {
    if (!(!reported[i] && f.allKana && !fatal && f.phonemes < 9 && f.scalars >= 2 &&
          !c.keepWhole.count(note.id)))
      return;
    // A lyric that cannot be cut (あゝ) is left to its unreadable-kana row.
    // Nor one too short to give each syllable a 64th: its parts would be very short notes.
    const auto syl = splittableSyllables(note.lyric);
    if (syl.size() >= 2 &&
        (line.ends[i] - note.tick) / static_cast<std::int64_t>(syl.size()) >= c.th.sixtyFourth) {
      Issue& row = c.add(
          Cat::multiSyllable, Sev::warning, note.tick,
          trf("1つの音符に何音も入っている「%@」（%d 音節）", {shown(), num(syl.size())}), note.id);
      row.detail =
          joinLines({tr("1つの音符に複数の音節があると、NEUTRINO "
                        "は区切らずに繋いで歌う傾向があります（二重母音と「母音＋ん」は、1つの音"
                        "符にまとめる書き方ゆえ対象外です）。"),
                     tr("音節ごとに歌わせる時は、音符を音節ごとに分けてください。「歌詞と音符を自"
                        "動で直す」の「1つの音符に入った何音かを、1音ずつの音符に分ける」でも分け"
                        "られます。つないで歌わせる時は、このままで構いません。")});
      row.suggestions.push_back(
          suggestion(trf("音節ごとに音符を分ける（%d 音）", {num(syl.size())}),
                     splitAction(note, t, syl, line.ends[i])));
    }
  }

  TrackCheck& c;
  const TrackLine& line;
  const int t;
  std::vector<bool>& reported;
  const std::vector<std::size_t>& sungIdx;
  std::size_t& skipZeroUntil;
  const std::size_t s;  // in sungIdx
  const std::size_t i;  // in line.notes
  const NoteEvent& note;
  const LyricFacts& f;
  const SynthesisGate::NoteReading& reading;
  const NoteEvent* const next;
  const NoteEvent* const prev;
  const std::size_t prevIndex;
  const bool fatal;
  const Sev byFatal;
  const std::int64_t prevEnd;
  const std::int64_t gap;
  const bool prevReadable;
  // The note before is a lone っ at the head of a phrase: a ー or っ joined to it is refused
  // too, so no repair joins one to it.
  const bool prevStranded;
  LyricClass cls = LyricClass::clean;
  bool invisible = false;
  bool classRow = false;
  std::optional<std::string> shownText;
};

}  // namespace

void checkNotes(TrackCheck& c) {
  const std::size_t n = c.line.notes.size();
  LineState state;
  state.reported.assign(n, false);
  if (!allLyricsEmpty(c, state.reported)) phonemeTypedLyrics(c, state.reported);

  state.sungIdx.reserve(n);
  for (std::size_t i = 0; i < n; ++i)
    if (c.line.sung[i]) state.sungIdx.push_back(i);
  const NoteEvent* prev = nullptr;
  std::size_t prevIndex = 0;
  for (std::size_t s = 0; s < state.sungIdx.size(); ++s) {
    NoteCheck(c, state, s, prev, prevIndex).run();
    prevIndex = state.sungIdx[s];
    prev = c.line.notes[prevIndex];
  }
}

}  // namespace melvo::validator_detail
