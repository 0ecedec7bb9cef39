// What an importer of other singing software met while reading: collected as plain lists
// while the song is built, then turned into notices in one step, so that every importer
// words the same finding the same way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "melvo/platform/uuid.h"

namespace melvo {

struct MusicDocument;

struct ImportFindings {
  // A place: the note (where it exists), its tick and what the "Where:" column shows.
  struct Place {
    std::optional<Uuid> id;
    std::int64_t tick = 0;
    std::string text;
  };
  struct NoteParams {
    std::optional<Uuid> id;
    std::int64_t tick = 0;
    std::vector<std::string> names;
  };
  struct PitchWhole : Place {
    int semis = 0;
  };
  struct Phoneme : Place {
    std::optional<std::string> kana;
  };
  struct Glottal : Place {
    bool kept = false;  // sung on as ー rather than left as a rest
  };
  // `id` is the previous note, which took the link's length.
  struct VowelLink : Place {
    std::int64_t duration = 0;
    std::string kana;
  };
  struct ForeignVoice {
    int count = 0;
    int edits = 0;
    std::string text;
  };

  std::vector<NoteParams> noteParams;
  std::unordered_map<Uuid, std::size_t> noteParamIndex;
  std::vector<Place> curves;
  std::vector<PitchWhole> pitchWhole;
  std::vector<Place> silent;
  std::vector<Phoneme> phoneme;
  std::vector<Place> rap;
  std::vector<Place> falsetto;
  std::vector<Place> breath;
  std::vector<Place> suffix;
  std::vector<Place> hyphen;
  std::vector<Glottal> glottal;
  std::vector<Place> hint;
  std::vector<Place> hintNoKana;
  std::vector<VowelLink> vowelLink;
  std::vector<Place> foreignNotes;
  std::vector<ForeignVoice> foreignVoice;
  std::vector<Place> dropped;
  std::vector<Place> pitchFix;
  std::vector<Place> tooLong;
  std::vector<Place> beyondExport;
  std::vector<Place> beyondTick;
  std::vector<Place> vcShort;
  std::vector<Place> utauBreath;
  std::vector<Place> broken;

  void addNoteParams(const Uuid& id, std::int64_t tick, std::vector<std::string> names);
  bool empty() const;
  // One notice per non-empty list, a place per entry, in the order of the fields above.
  void addNotices(MusicDocument& document, std::optional<int> trackIndex) const;
};

}  // namespace melvo
