// Small songs for the score check's tests.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "melvo/checking/score_validator.h"
#include "melvo/platform/i18n.h"

namespace melvo::test {

inline NoteEvent note(std::int64_t tick, std::int64_t duration, std::string lyric, int pitch = 60) {
  return NoteEvent::make(Uuid::random(), tick, duration, pitch, 100, std::move(lyric));
}

// One unmuted track of notes at 120 bpm, ppq 480, 4/4.
inline MusicDocument song(std::vector<NoteEvent> notes, std::int64_t ppq = 480) {
  MusicDocument d;
  d.ppq = ppq;
  d.tracks[0].notes = NoteList(std::move(notes));
  return d;
}

// Legato notes of one mora each from tick 0, `length` ticks apiece.
inline std::vector<NoteEvent> legato(const std::vector<std::string>& lyrics, std::int64_t length,
                                     std::int64_t from = 0) {
  std::vector<NoteEvent> out;
  for (const auto& l : lyrics) {
    out.push_back(note(from, length, l));
    from += length;
  }
  return out;
}

// Songs broken on purpose, for the repairs: 0 lyric faults of many kinds and a ghost note;
// 1 note shapes (a chord, an overlap, a short gap, a tiny note, notes out of range, a note
// that ends past the next one); 2 duplicate tempo and meter events and an import notice that
// carries a fix.
inline MusicDocument brokenSong(int which) {
  if (which == 0) {
    std::vector<NoteEvent> n = legato({"ねこ", "R", "空", "！", "", "ゐ", "っ", "た", "あ", "ー",
                                       "あゃ", "ｶ", "か゛", "さ強", "😀な", "きょうは"},
                                      480);
    n[8].velocity = 0;
    return song(std::move(n));
  }
  if (which == 1)
    return song({note(0, 480, "か", 60), note(0, 480, "", 64), note(0, 480, "", 67),
                 note(480, 600, "き", 62), note(960, 400, "く", 62), note(1400, 480, "け", 62),
                 note(1880, 1, "", 62), note(1920, 480, "こ", 20), note(2400, 480, "さ", 110),
                 note(2900, 480, "し", 64)});
  MusicDocument d = song(legato({"あ", "", "う"}, 480));
  d.tempoMap = {{0, 120}, {0, 90}, {960, 140}, {960, 150}};
  d.timeSignatures = {{0, 4, 4}, {0, 3, 4}};
  const Uuid target = d.tracks[0].notes[1].id;
  d.addNotice(notice_kinds::midiTextNotLyrics, 0, target, 480, std::string("い"),
              {{ValidationIssue::Suggestion::SetLyrics{{{target, "い"}}}}});
  return d;
}

inline std::vector<ValidationIssue> check(const MusicDocument& d,
                                          const std::vector<Uuid>& sung = {}) {
  return validate(d, sung, {});
}

inline std::vector<ValidationIssue> rowsOf(const std::vector<ValidationIssue>& rows,
                                           ValidationIssue::Category c) {
  std::vector<ValidationIssue> out;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(out),
               [&](const auto& r) { return r.category == c; });
  return out;
}

// The Japanese texts are the ones the rules are written in.
struct JapaneseTexts {
  JapaneseTexts() { i18n::setLanguage("ja"); }
  ~JapaneseTexts() { i18n::setLanguage("en"); }
};

}  // namespace melvo::test
