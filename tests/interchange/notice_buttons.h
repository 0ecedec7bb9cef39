// Pressing a reader's notice button the way the issues list presses it: the sealed notice, the
// score check's row for it, and the repair its single suggestion makes.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "melvo/checking/score_validator.h"
#include "melvo/checking/suggestion_applier.h"
#include "melvo/model/music_document.h"

namespace melvo::test {

inline const ImportNotice* noticeOf(const MusicDocument& d, std::string_view key) {
  for (const ImportNotice& n : d.importNotices)
    if (n.kind->key == key) return &n;
  return nullptr;
}

// Presses the only button of the notice of kind `key`; the row must have words.
inline MusicDocument press(const MusicDocument& d, std::string_view key) {
  const ImportNotice* notice = noticeOf(d, key);
  if (!notice) ADD_FAILURE() << "no notice " << key;
  if (!notice) return d;
  for (const ValidationIssue& row : validate(d, {}, {})) {
    if (row.noticeID != notice->id) continue;
    EXPECT_FALSE(row.message.empty()) << key;
    if (row.suggestions.size() != 1) ADD_FAILURE() << key << " shows no single button";
    if (row.suggestions.size() != 1) return d;
    RepairResult r = applySuggestion(d, row, row.suggestions[0]);
    EXPECT_TRUE(r.complete) << key;
    return std::move(r.document);
  }
  ADD_FAILURE() << "no row for " << key;
  return d;
}

// "lyric@tick+duration/pitch" for each note of a track.
inline std::string notesOf(const MusicTrack& t) {
  std::string s;
  for (const NoteEvent& n : t.notes)
    s += (n.lyric.empty() ? "_" : n.lyric) + "@" + std::to_string(n.tick) + "+" +
         std::to_string(n.duration) + "/" + std::to_string(n.pitch) + " ";
  return s;
}

}  // namespace melvo::test
