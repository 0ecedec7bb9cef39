// Generated songs: lyrics drawn from the whole kana blocks (small kana, ゝ ゞ ヶ ー and the
// rest), symbols and UTAU marks, with overlaps, chords, ties, breaths, ghost notes and pitches
// past every range. For each song, every repair of every row and the whole clean-up must leave
// it no worse: no new error row, no new refusal, nothing lost without a log line. The clean-up
// must also be done in one run and leave no row of a kind its own words say it repairs.
//
// A fixed list of seeds runs in CI; MELVO_PROPERTY_SEEDS=N runs N more for a longer search.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "checking/score_validator_support.h"
#include "melvo/checking/cleanup_engine.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/checking/synthesis_gate.h"
#include "melvo/platform/text.h"

namespace melvo {
namespace {

using test::note;
using Cat = ValidationIssue::Category;
using Sev = ValidationIssue::Severity;

class SongMaker {
 public:
  explicit SongMaker(unsigned seed) : rng_(seed) {}

  MusicDocument song() {
    MusicDocument d;
    d.ppq = 480;
    d.tracks[0].notes = NoteList(notes());
    if (chance(0.5)) d.tracks[0].characterName = "V";
    if (chance(0.25)) {
      MusicTrack second;
      second.name = "2";
      second.notes = NoteList(notes());
      second.isMuted = chance(0.3);
      if (chance(0.5)) second.characterName = "W";
      d.tracks.push_back(std::move(second));
    }
    if (chance(0.15)) d.tempoMap.push_back({0, 90});
    if (chance(0.1)) d.timeSignatures.push_back({0, 3, 4});
    return d;
  }

 private:
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
  int between(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  template <class T>
  const T& oneOf(const std::vector<T>& v) {
    return v[static_cast<std::size_t>(between(0, static_cast<int>(v.size()) - 1))];
  }

  // Any kana scalar, or one of the marks that lean on their neighbours.
  std::string kana() {
    static const std::vector<std::string> marks = {"ー", "ゝ", "ゞ", "ヽ", "ヾ", "ヶ", "ヵ",
                                                   "っ", "ゃ", "ゅ", "ょ", "ぁ", "ッ", "ャ"};
    if (chance(0.25)) return oneOf(marks);
    std::string out;
    const char32_t c = chance(0.7) ? static_cast<char32_t>(between(0x3041, 0x3096))
                                   : static_cast<char32_t>(between(0x30A1, 0x30FA));
    text::appendScalar(out, c);
    return out;
  }

  std::string lyric() {
    const int roll = between(0, 99);
    if (roll < 7) return "";
    if (roll < 12) return chance(0.7) ? "ー" : "ーー";
    if (roll < 16) return chance(0.8) ? "っ" : "ッ";
    if (roll < 20) return oneOf<std::string>({"ゃ", "ゅ", "ょ"});
    if (roll < 25) return oneOf<std::string>({"！", "か！", "※か", "き’", "す’き", "「そら」"});
    if (roll < 29) return oneOf<std::string>({"R", "か強", "さ%", "弱"});
    if (roll < 31) return oneOf<std::string>({"a", "か1", "\u200Bか"});
    std::string out;
    for (int k = between(1, 4); k > 0; --k) out += kana();
    return out;
  }

  std::vector<NoteEvent> notes() {
    std::vector<NoteEvent> out;
    std::int64_t tick = between(0, 3) == 0 ? 1920 * between(1, 2) : 0;
    for (int k = between(2, 14); k > 0; --k) {
      const int shape = between(0, 99);
      std::int64_t duration = shape < 12 ? between(1, 29) : 60 * between(1, 16);
      NoteEvent n = note(tick, duration, lyric(), between(15, 100));
      if (chance(0.1))
        n.velocity = 0;
      else
        n.velocity = between(1, 127);
      n.slurToNext = chance(0.2);
      n.hasBreathAfter = chance(0.1);
      out.push_back(n);
      // Where the next note starts: touching, a tick or a rest later, overlapping, or at
      // the same tick (a chord).
      const int next = between(0, 99);
      if (next < 55)
        tick += duration;
      else if (next < 60)
        tick += duration + 1;
      else if (next < 75)
        tick += duration + 60 * between(1, 8);
      else if (next < 85)
        tick += std::max<std::int64_t>(1, duration / 2);
      // else a chord: same tick
    }
    return out;
  }

  std::mt19937 rng_;
};

std::vector<unsigned> seeds() {
  std::vector<unsigned> out;
  for (unsigned s = 1; s <= 40; ++s) out.push_back(s);
  // Songs a longer search once caught: a rest that left a lone っ heading a phrase before ー,
  // and a split of a chord note the writer drops, whose later parts were then sung.
  for (unsigned s : {1291u, 1484u}) out.push_back(s);
  if (const char* more = std::getenv("MELVO_PROPERTY_SEEDS"))
    for (unsigned s = 0, n = static_cast<unsigned>(std::atoi(more)); s < n; ++s)
      out.push_back(1000 + s);
  return out;
}

std::string describe(const MusicDocument& d) {
  std::ostringstream os;
  for (std::size_t t = 0; t < d.tracks.size(); ++t) {
    os << "track " << t << (d.tracks[t].isMuted ? " muted" : "") << " voice '"
       << d.tracks[t].characterName << "':";
    for (const auto& n : d.tracks[t].notes)
      os << " [" << n.tick << "+" << n.duration << " p" << n.pitch << " v" << n.velocity << " '"
         << n.lyric << "'" << (n.slurToNext ? "⌒" : "") << (n.hasBreathAfter ? "♪" : "") << "]";
    os << "\n";
  }
  return os.str();
}

// The tracks a render of the generated song sings. Kept from the original song: a repair
// that empties the sung track must not make another track the sung one.
std::vector<Uuid> sungSet;
std::vector<Uuid> sungOf(const MusicDocument&) {
  return sungSet;
}
void singAsGenerated(const MusicDocument& d) {
  sungSet.clear();
  for (int i : d.voicedTrackIndices(false))
    sungSet.push_back(d.tracks[static_cast<std::size_t>(i)].id);
  if (sungSet.empty() && !d.tracks.empty()) sungSet.push_back(d.tracks[0].id);
}

std::map<Uuid, NoteEvent> notesOf(const MusicDocument& d) {
  std::map<Uuid, NoteEvent> out;
  for (const auto& t : d.tracks)
    for (const auto& n : t.notes) out.emplace(n.id, n);
  return out;
}

// Error rows by category. A repair may move a finding to another note (a chord row that
// keeps another note keeps the sung lyric, faults and all), so rows count per category; a
// trade of one refusal for another still shows in the refusals, counted per kind.
std::multiset<Cat> errors(const MusicDocument& d) {
  std::multiset<Cat> out;
  for (const auto& r : validate(d, sungOf(d), {}))
    if (r.severity == Sev::error && r.category != Cat::noSungNotes) out.insert(r.category);
  return out;
}

// Refusals by kind. A note cut from a note too low for the engine keeps its pitch: its
// refusal is the old one's, so low pitches count only on notes that were there before.
std::multiset<SynthesisGate::Kind> refusals(const MusicDocument& d, const MusicDocument& original) {
  const auto old = notesOf(original);
  std::multiset<SynthesisGate::Kind> out;
  // A song whose every sung note was refused may end with none: "nothing to sing" is then
  // the old refusal in other words.
  const auto was = SynthesisGate::problems(original, sungOf(original));
  for (const auto& p : SynthesisGate::problems(d, sungOf(d))) {
    if (p.kind == SynthesisGate::Kind::pitchTooLow && !old.count(p.noteID)) continue;
    if (p.kind == SynthesisGate::Kind::noSungNotes && !was.empty()) continue;
    out.insert(p.kind);
  }
  return out;
}

template <class Set>
std::vector<typename Set::value_type> added(const Set& before, const Set& after) {
  std::vector<typename Set::value_type> out;
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                      std::back_inserter(out));
  return out;
}

// A note that vanished or lost its velocity, breath or slur must have a line in the log:
// one naming it, or a merge line that joins its lyric with "／".
void expectNothingLostSilently(const MusicDocument& before, const MusicDocument& after,
                               const std::vector<RepairLogEntry>& log) {
  const auto now = notesOf(after);
  std::set<Uuid> logged;
  for (const auto& e : log) logged.insert(e.noteID);
  for (const auto& [id, old] : notesOf(before)) {
    auto it = now.find(id);
    const bool lost = it == now.end() || it->second.velocity != old.velocity ||
                      it->second.hasBreathAfter != old.hasBreathAfter ||
                      it->second.slurToNext != old.slurToNext;
    if (!lost || logged.count(id)) continue;
    bool merged = false;
    for (const auto& e : log)
      merged |=
          e.before.find("／") != std::string::npos && e.before.find(old.lyric) != std::string::npos;
    EXPECT_TRUE(merged) << "silently lost: '" << old.lyric << "' at " << old.tick;
  }
}

// What a row's own words promise the clean-up removes.
bool claimedByCleanup(const ValidationIssue& row) {
  if (row.category == Cat::utauResidue || row.category == Cat::chordAtSameTick) return true;
  const std::string detail = row.detail.value_or("");
  return detail.find("「歌詞と音符を自動で直す」") != std::string::npos &&
         detail.find("では外しません") == std::string::npos;
}

class RepairPropertyOverSongs : public ::testing::Test {
 protected:
  test::JapaneseTexts japanese;
};

TEST_F(RepairPropertyOverSongs, EveryRepairLeavesTheSongNoWorse) {
  for (unsigned seed : seeds()) {
    const MusicDocument d = SongMaker(seed).song();
    singAsGenerated(d);
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + describe(d));
    const auto errorsBefore = errors(d);
    const auto refusalsBefore = refusals(d, d);
    for (const auto& row : validate(d, sungOf(d), {})) {
      for (const auto& sug : row.suggestions) {
        if (!sug.action.changesSong()) continue;
        SCOPED_TRACE(row.message + " / " + sug.label);
        const RepairResult r = applySuggestion(d, row, sug);
        for (const auto& e : added(errorsBefore, errors(r.document)))
          ADD_FAILURE() << "new error row of category " << static_cast<int>(e);
        for (const auto& p : added(refusalsBefore, refusals(r.document, d)))
          ADD_FAILURE() << "new refusal " << gateKindName(p);
        expectNothingLostSilently(d, r.document, r.log);
      }
    }
    if (HasFailure()) return;
  }
}

// The clean-up with its defaults and with every pass and fix on.
void expectCleanupDoneInOneRunKeepingItsWord(const MusicDocument& d) {
  CleanupOptions all;
  all.standaloneSokuon = true;
  const CleanupPolicy fixAll{CleanupDecision::autoFix, CleanupDecision::autoFix,
                             CleanupDecision::autoFix};
  singAsGenerated(d);
  for (const auto& [options, policy] :
       {std::pair{CleanupOptions{}, CleanupPolicy{}}, std::pair{all, fixAll}}) {
    SCOPED_TRACE(describe(d));
    const auto sung = sungOf(d);
    const auto first = runCleanup(d, options, sung, {}, policy);
    for (const auto& e : added(errors(d), errors(first.document)))
      ADD_FAILURE() << "new error row of category " << static_cast<int>(e);
    for (const auto& p : added(refusals(d, d), refusals(first.document, d)))
      ADD_FAILURE() << "new refusal " << gateKindName(p);
    expectNothingLostSilently(d, first.document, first.report.entries);

    const auto second = runCleanup(first.document, options, sung, {}, policy);
    EXPECT_EQ(second.document, first.document) << "after:\n" << describe(first.document);
    for (const auto& e : second.report.entries)
      ADD_FAILURE() << "second run: " << e.action << " " << e.before << " → " << e.after;

    for (const auto& row : validate(first.document, sung, {}))
      if (claimedByCleanup(row))
        ADD_FAILURE() << "after the clean-up: " << row.message << "\n" << describe(first.document);
  }
}

TEST_F(RepairPropertyOverSongs, CleanupIsDoneInOneRunAndKeepsItsWord) {
  for (unsigned seed : seeds()) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    expectCleanupDoneInOneRunKeepingItsWord(SongMaker(seed).song());
    if (HasFailure()) return;
  }
}

// Hand-made songs bring what the generator does not draw: kanji, emoji, half-width kana,
// import notices.
TEST_F(RepairPropertyOverSongs, CleanupKeepsItsWordOnSongsBrokenByHand) {
  for (int which = 0; which < 3; ++which) {
    SCOPED_TRACE("broken song " + std::to_string(which));
    expectCleanupDoneInOneRunKeepingItsWord(test::brokenSong(which));
  }
}

}  // namespace
}  // namespace melvo
