// The clean-up over small songs: what each pass changes, what it must leave, that every change
// is logged and that the whole run is one undo step.
#include <gtest/gtest.h>

#include <algorithm>

#include "checking/score_validator_support.h"
#include "melvo/checking/cleanup_engine.h"
#include "melvo/checking/lyric_rules.h"
#include "melvo/editing/piano_roll_view_model.h"
#include "melvo/editing/suggestion_applier_commit.h"

namespace melvo {
namespace {

using test::legato;
using test::note;
using test::song;

class Cleanup : public ::testing::Test {
 protected:
  test::JapaneseTexts japanese;

  static std::vector<std::string> lyrics(const MusicDocument& d, int track = 0) {
    std::vector<std::string> out;
    for (const auto& n : d.tracks[static_cast<std::size_t>(track)].notes) out.push_back(n.lyric);
    return out;
  }
  static CleanupResult run(const MusicDocument& d, CleanupOptions o = {}) {
    return runCleanup(d, o, {});
  }
};

TEST_F(Cleanup, LyricPassesTurnForeignSpellingsIntoHiragana) {
  auto d = song(legato(
      {"か゛", "さ強", "ゐ", "想(そう)", "！", "あ　い", "な😀", "ｶ", "を", "ヴァ", "R", "Ra"},
      480));
  const auto r = run(d);
  // "あ　い" becomes あい, which is one syllable and stays whole; Ra has a Latin letter.
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"が", "さ", "い", "そう", "！", "あい",
                                                          "な", "か", "お", "ゔぁ", "Ra"}));
  EXPECT_EQ(r.report.byCategory.at("UTAU 残骸除去"), 2);
  EXPECT_EQ(r.report.byCategory.at("記号除去"), 1);
  bool readingLogged = false;
  for (const auto& e : r.report.entries)
    readingLogged |= e.action == "読み仮名を採用" && e.before == "想(そう)" && e.after == "そう";
  EXPECT_TRUE(readingLogged);
  // Every change has its line, and the counts add up to the lines.
  int total = 0;
  for (const auto& [label, count] : r.report.byCategory) total += count;
  EXPECT_EQ(total, static_cast<int>(r.report.entries.size()));
}

TEST_F(Cleanup, SwitchedOffPassLeavesItsCaseAlone) {
  auto d = song(legato({"ｶ", "を"}, 480));
  CleanupOptions o;
  o.halfWidthKana = false;
  o.particleHa = false;
  o.foreignKana = false;
  const auto r = run(d, o);
  EXPECT_EQ(lyrics(r.document)[1], "を");
  EXPECT_EQ(lyrics(r.document)[0], "ｶ");
  EXPECT_EQ(r.report.byCategory.count("半角カナ→全角"), 0u);
}

TEST_F(Cleanup, SplitsSeveralSyllablesButNotOneOrLatin) {
  auto d = song(legato({"ねこ", "あい", "aい", "きょうは"}, 480));
  const Uuid keep = d.tracks[0].notes[3].id;
  auto r = run(d);
  EXPECT_EQ(lyrics(r.document),
            (std::vector<std::string>{"ね", "こ", "あい", "aい", "きょう", "は"}));
  const auto& n = r.document.tracks[0].notes;
  EXPECT_EQ(n[0].duration + n[1].duration, 480);
  EXPECT_EQ(n[1].tick, 240);
  EXPECT_EQ(n[1].pitch, 60);
  r = runCleanup(d, {}, {}, {keep});
  EXPECT_EQ(lyrics(r.document).back(), "きょうは");
}

TEST_F(Cleanup, LoneSmallKanaAndChouonJoinTheirNeighbours) {
  auto d = song(legato({"あ", "ー", "ー", "っ", "た", "き", "ょ"}, 480));
  auto r = run(d);
  // っ is kept unless asked for.
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"あ", "あ", "あ", "っ", "た", "きょ"}));
  EXPECT_EQ(r.document.tracks[0].notes.back().duration, 960);
  CleanupOptions o;
  o.standaloneSokuon = true;
  r = run(d, o);
  EXPECT_EQ(lyrics(r.document), (std::vector<std::string>{"あ", "あ", "あ", "った", "きょ"}));
  EXPECT_EQ(r.document.tracks[0].notes[3].tick, 1440);
  EXPECT_EQ(r.document.tracks[0].notes[3].duration, 960);
}

TEST_F(Cleanup, VeryShortNotesGoOrMergeWithinEightPhonemes) {
  // ppq 480: shorter than 30 ticks counts as very short.
  std::vector<NoteEvent> n{note(0, 10, ""),         note(10, 10, "か"),    note(20, 10, "き"),
                           note(480, 10, "かきん"), note(490, 10, "かき"), note(960, 480, "く"),
                           note(1920, 10, "さ"),    note(2400, 10, "し"),  note(2411, 10, "す")};
  // Five and four phonemes would make nine, which stops the engine.
  ASSERT_EQ(countPhonemes("かきん") + countPhonemes("かき"), 9);
  CleanupOptions o;
  o.multiSyllable = false;
  auto r = run(song(n), o);
  // さ is a rest away from し: joining them would hold one note over the rest. A gap of one
  // tick still counts as running on.
  EXPECT_EQ(lyrics(r.document),
            (std::vector<std::string>{"かき", "かきん", "かき", "く", "さ", "しす"}));
  const auto& out = r.document.tracks[0].notes;
  EXPECT_EQ(out[0].duration, 20);
  EXPECT_EQ(out[4].duration, 10);
  EXPECT_EQ(out[5].tick, 2400);
  EXPECT_EQ(out[5].duration, 21);
  EXPECT_EQ(r.report.byCategory.at("ごく短い音符を削除"), 1);
  EXPECT_EQ(r.report.byCategory.at("ごく短い音符をまとめる"), 2);
}

TEST_F(Cleanup, SlurOverATieOfOnePitchGoes) {
  // Pairs that touch, each slurred: a tie on one pitch (か ー, ら and no lyric), a new
  // syllable (さ し), a change of pitch (た ー), a repeated syllable (か か); and one pair
  // with a rest between (な ー).
  std::vector<NoteEvent> n{
      note(0, 480, "か"),    note(480, 480, "ー"),      note(960, 480, "さ"),
      note(1440, 480, "し"), note(1920, 480, "た"),     note(2400, 480, "ー", 62),
      note(2880, 480, "か"), note(3360, 480, "か"),     note(3840, 480, "ら"),
      note(4320, 480, ""),   note(4800, 480, "な", 62), note(5760, 480, "ー", 62)};
  for (std::size_t i : {0, 2, 4, 6, 8, 10}) n[i].slurToNext = true;
  const auto d = song(n);
  auto r = run(d);
  std::vector<bool> slurs;
  for (const auto& x : r.document.tracks[0].notes) slurs.push_back(x.slurToNext);
  ASSERT_EQ(slurs.size(), n.size());
  EXPECT_EQ(slurs, (std::vector<bool>{false, false, true, false, true, false, true, false, false,
                                      false, true, false}));
  EXPECT_EQ(r.report.byCategory.at("タイ/スラー二重解消"), 2);
  int logged = 0;
  for (std::size_t i = 0; i < r.report.entries.size(); ++i)
    if (r.report.entryCategories[i] == "タイ/スラー二重解消") {
      EXPECT_TRUE(r.report.entries[i].noteID == n[0].id || r.report.entries[i].noteID == n[8].id);
      ++logged;
    }
  EXPECT_EQ(logged, 2);
  // The repeated syllable is still the user's decision.
  ASSERT_EQ(r.report.pendingDecisions.size(), 1u);
  EXPECT_EQ(r.report.pendingDecisions[0].noteID, n[7].id);

  CleanupOptions o;
  o.tieSlurConflict = false;
  EXPECT_TRUE(run(d, o).document.tracks[0].notes[0].slurToNext);
}

TEST_F(Cleanup, DuplicateMapEventsKeepTheOneThatPlays) {
  auto d = song(legato({"あ"}, 480));
  d.tempoMap = {{0, 120}, {0, 90}, {960, 140}};
  d.timeSignatures = {{0, 4, 4}, {0, 3, 4}};
  const auto r = run(d);
  ASSERT_EQ(r.document.tempoMap.size(), 2u);
  EXPECT_EQ(r.document.tempoMap[0].bpm, 90);
  ASSERT_EQ(r.document.timeSignatures.size(), 1u);
  EXPECT_EQ(r.document.timeSignatures[0].numerator, 3);
}

TEST_F(Cleanup, OnlyRestMarksSetTheGuardAndUndoRestoresAll) {
  PianoRollViewModel model(song(legato({"R", "r", "R"}, 480)));
  const MusicDocument original = model.document();
  const auto report = commitCleanup(model, {}, {});
  EXPECT_TRUE(report.sungNotesBecameZero);
  EXPECT_TRUE(model.document().tracks[0].notes.empty());
  EXPECT_EQ(model.undoLabel(), std::optional<std::string>("歌詞と音符を自動で直す"));
  EXPECT_EQ(model.conversionLog().size(), 3u);
  model.undo();
  EXPECT_EQ(model.document(), original);
  EXPECT_FALSE(run(song(legato({"R", "あ"}, 480))).report.sungNotesBecameZero);
}

TEST_F(Cleanup, ChordsOverlapsAndSilentOpeningBars) {
  // Two empty bars of 4/4, then a chord whose lyric note is not the first, then an overlap.
  std::vector<NoteEvent> n{note(3840, 480, "", 64), note(3840, 480, "か", 60),
                           note(3840, 240, "", 67), note(4320, 960, "き", 62),
                           note(4800, 480, "く", 62)};
  auto d = song(n);
  d.tempoMap = {{0, 100}, {1920, 130}, {5000, 90}};
  d.timeSignatures = {{0, 4, 4}, {3840, 3, 4}};
  const auto r = run(d);
  const auto& out = r.document.tracks[0].notes;
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].lyric, "か");
  EXPECT_EQ(out[0].tick, 0);
  EXPECT_EQ(out[1].duration, 480);  // cut where く begins
  EXPECT_EQ(out[2].tick, 960);
  EXPECT_EQ(r.report.byCategory.at("コード→単旋律化"), 2);
  // The tempo in force at the cut starts the song; the meter of the first sung bar too.
  ASSERT_EQ(r.document.tempoMap.size(), 2u);
  EXPECT_EQ(r.document.tempoMap[0].bpm, 130);
  EXPECT_EQ(r.document.tempoMap[1].tick, 5000 - 3840);
  ASSERT_EQ(r.document.timeSignatures.size(), 1u);
  EXPECT_EQ(r.document.timeSignatures[0].numerator, 3);
  bool logged = false;
  for (const auto& e : r.report.entries) logged |= e.before == "空の小節 2 個（3840tk）";
  EXPECT_TRUE(logged);
  // Notes at one position are a chord, not an overlap: with the chord pass off they stay.
  CleanupOptions o;
  o.chordToMonophonic = false;
  EXPECT_EQ(run(d, o).document.tracks[0].notes[0].duration, 480);

  // The same song stored out of order is cleaned the same way.
  std::reverse(n.begin(), n.end());
  auto shuffled = song(n);
  shuffled.tempoMap = d.tempoMap;
  shuffled.timeSignatures = d.timeSignatures;
  const auto again = run(shuffled);
  ASSERT_EQ(again.document.tracks[0].notes.size(), 3u);
  EXPECT_EQ(again.document.tracks[0].notes[1].duration, 480);
}

// Each switch the command offers turns a pass on and off; a switch without its pass would
// be a promise the clean-up does not keep. The passes run in one fixed order, since a later
// pass relies on what an earlier one left (the split sees the lyric the kana passes made).
TEST_F(Cleanup, EveryOfferedSwitchRunsItsPassInTheFixedOrder) {
  const auto d = song(legato({"あ"}, 480));
  CleanupOptions all;
  all.standaloneSokuon = true;
  const auto ran = run(d, all).report.categoryOrder;
  EXPECT_EQ(ran, (std::vector<std::string>{"濁点正規化（NFC）",
                                           "UTAU 残骸除去",
                                           "古い仮名→今の仮名",
                                           "記号除去",
                                           "空白除去",
                                           "絵文字・制御文字除去",
                                           "半角カナ→全角",
                                           "漢字→ひらがな",
                                           "助詞「を」→「お」",
                                           "外来音節（ヴ/ファ等）",
                                           "単独「ー」→前母音",
                                           "単独「っ」→次音に統合",
                                           "単独「ゃゅょ」→前音に統合",
                                           "多音節→音節ごとに分割",
                                           "ごく短い音符を削除",
                                           "ごく短い音符をまとめる",
                                           "コード→単旋律化",
                                           "音符の重なりを整える",
                                           "タイ/スラー二重解消",
                                           "テンポ重複解消",
                                           "拍子重複解消",
                                           "冒頭空小節切り詰め"}));
  for (const auto& s : implementedCleanupSwitches()) {
    CleanupOptions o = all;
    o.*(s.field) = false;
    EXPECT_NE(run(d, o).report.categoryOrder, ran) << s.name;
  }
}

TEST_F(Cleanup, GhostNotesFollowTheUsersDecision) {
  auto d = song(legato({"か", "き"}, 480));
  d.tracks[0].notes.mutableAt(1).velocity = 0;
  auto r = run(d);
  ASSERT_EQ(r.report.pendingDecisions.size(), 1u);
  EXPECT_EQ(r.report.pendingDecisions[0].category, ValidationIssue::Category::ghostVelocity);
  EXPECT_EQ(r.document.tracks[0].notes[1].velocity, 0);

  CleanupPolicy policy;
  policy.ghostVelocity = CleanupDecision::autoSkip;
  r = runCleanup(d, {}, {}, {}, policy);
  EXPECT_TRUE(r.report.pendingDecisions.empty());
  EXPECT_EQ(r.document, d);

  policy.ghostVelocity = CleanupDecision::autoFix;
  r = runCleanup(d, {}, {}, {}, policy);
  EXPECT_TRUE(r.report.pendingDecisions.empty());
  EXPECT_EQ(r.document.tracks[0].notes[1].velocity, 100);
  EXPECT_EQ(r.document.tracks[0].notes[0].velocity, 100);
  ASSERT_EQ(r.report.entries.size(), 1u);
  EXPECT_TRUE(r.report.entries[0].action.ends_with("（自動修正）")) << r.report.entries[0].action;
  EXPECT_EQ(r.report.byCategory.at("強さ 0 の音符（ゴーストノート）"), 1);
}

TEST_F(Cleanup, MutedTracksAreLeftAlone) {
  auto d = song(legato({"ｶ"}, 480));
  d.tracks.push_back(d.tracks[0]);
  d.tracks[1].id = Uuid::random();
  d.tracks[1].isMuted = true;
  const auto r = run(d);
  EXPECT_EQ(lyrics(r.document, 0)[0], "か");
  EXPECT_EQ(lyrics(r.document, 1)[0], "ｶ");
}

// Every kind of row whose text says the clean-up repairs it: after the clean-up the check
// shows none of them. Each lyric sits on its own note with rests around it, so that no row
// stands for a neighbour's fault.
TEST_F(Cleanup, CheckAfterFixShowsNoRowTheCleanupClaims) {
  using Cat = ValidationIssue::Category;
  std::vector<NoteEvent> notes;
  std::int64_t tick = 0;
  for (const char* lyric : {"R", "あ強", "さ%", "た弱%", "か！", "「そら」", "※か", "き’", "ｶ",
                            "か\u200B", "ゐ", "いちばん", "あかさたなはまやらわ"}) {
    notes.push_back(note(tick, 480, lyric));
    tick += 960;
  }
  notes.push_back(note(tick, 480, "ま"));  // a chord: two notes at one tick
  notes.push_back(note(tick, 480, "み", 64));
  tick += 960;
  notes.push_back(note(tick, 960, "む"));  // overlaps the next
  notes.push_back(note(tick + 480, 480, "め"));
  auto d = song(std::move(notes));
  d.tempoMap.push_back({0, 100.0});  // two tempos and two meters at one tick
  d.timeSignatures.push_back({0, 3, 4});

  const std::vector<Cat> claimed = {Cat::utauResidue,    Cat::symbols,       Cat::emojiControl,
                                    Cat::unreadableKana, Cat::multiSyllable, Cat::chordAtSameTick,
                                    Cat::noteOverlap,    Cat::tempoIssue,    Cat::timeSigIssue};
  const auto before = test::check(d);
  for (Cat c : claimed)
    EXPECT_FALSE(test::rowsOf(before, c).empty()) << "no row to repair: " << static_cast<int>(c);
  const auto after = test::check(run(d).document);
  for (Cat c : claimed)
    for (const auto& row : test::rowsOf(after, c))
      ADD_FAILURE() << "still shown after the clean-up: " << row.message;
}

}  // namespace
}  // namespace melvo
