#include "melvo/interchange/tempo_notices.h"

#include <algorithm>

#include "melvo/model/sung_line.h"
#include "melvo/platform/text.h"

namespace melvo {

void addTempoInsideNoteNotices(MusicDocument& document) {
  if (document.tempoMap.empty()) return;
  std::vector<std::int64_t> tempoTicks;
  tempoTicks.reserve(document.tempoMap.size());
  for (const auto& t : document.tempoMap) tempoTicks.push_back(t.tick);
  std::sort(tempoTicks.begin(), tempoTicks.end());

  std::vector<int> tracks;
  for (std::size_t i = 0; i < document.tracks.size(); ++i) {
    const auto& t = document.tracks[i];
    if (!t.isMuted && !t.notes.empty()) tracks.push_back(static_cast<int>(i));
  }
  if (tracks.empty()) {
    for (std::size_t i = 0; i < document.tracks.size(); ++i) tracks.push_back(static_cast<int>(i));
  }

  for (int index : tracks) {
    // The notes as they will be written, so that the places match the score's ties.
    const auto notes = normalizedNotes(document.tracks[index].notes, document.ppq);
    for (const NoteEvent& n : notes) {
      auto next = std::upper_bound(tempoTicks.begin(), tempoTicks.end(), n.tick);
      if (next == tempoTicks.end() || *next >= sungNoteEnd(n.tick, n.duration)) {
        continue;
      }
      const std::string_view lyric = text::trimWhitespaceAndNewlines(n.lyric);
      document.addNotice(notice_kinds::tempoInsideNote, index, n.id, n.tick,
                         lyric.empty() ? std::nullopt : std::optional<std::string>(lyric));
    }
  }
}

}  // namespace melvo
