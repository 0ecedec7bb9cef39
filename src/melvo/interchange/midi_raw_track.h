// What the MIDI reader hands to the lyric placement: each MTrk chunk as read, with its text
// already decoded, and the findings that wait for their track to be known.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "melvo/model/import_notice.h"
#include "melvo/model/note_event.h"
#include "melvo/platform/uuid.h"

namespace melvo::midi {

struct TextEvent {
  std::int64_t tick = 0;
  std::string text;
  int seq = 0;  // order in the file, breaks ties between events at one tick
};

// Points into the file's bytes, which outlive the reading.
struct TextBytes {
  std::int64_t tick = 0;
  std::string_view bytes;
  int seq = 0;
};

struct ChannelControls {
  std::vector<std::pair<std::int64_t, int>> bends;
  std::vector<std::pair<std::int64_t, int>> mods;
  std::vector<std::pair<std::int64_t, double>> ranges;  // pitch-bend range from that tick
};

struct RawTrack {
  int index = 0;
  std::string name;
  std::string_view nameBytes;
  std::vector<NoteEvent> notes;  // in order of onset
  std::vector<int> channels;     // in step with notes
  std::vector<TextEvent> lyrics;
  std::vector<TextEvent> texts;
  bool karaokeTag = false;
  std::vector<TextBytes> lyricBytes, textBytes;
  std::map<int, ChannelControls> controls;
  std::int64_t endTick = 0;
};

// A finding whose track is known only once the placement has settled the tracks: it names
// its note (the track is then found by it) or a track of the placement's own list.
struct PendingNotice {
  const ImportNoticeKind* kind = nullptr;
  std::optional<int> track;  // index into the placement's final tracks
  std::optional<Uuid> noteID;
  std::int64_t tick = 0;
  std::optional<std::string> text;
  int count = 1;
  std::vector<std::vector<SuggestionAction>> fixes;
};

}  // namespace melvo::midi
