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
