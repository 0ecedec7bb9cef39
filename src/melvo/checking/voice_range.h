// The pitches a voice can sing. The engine sings a note outside its voice's range at the edge
// of the range, so the validator warns about such notes; each voice model states its range in
// its own info.toml.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace melvo {

struct VoiceRange {
  struct Range {
    int low = 36;
    int high = 84;
    std::string voice;       // the voice's display name
    bool fromModel = false;  // read from the model's own file
    bool operator==(const Range&) const = default;
  };

  // C2..C6, for voices whose model says nothing.
  static Range fixed();

  // "C4" is 60; sharps as "#" or "♯", flats as "b" or "♭", octaves may be negative. Names
  // outside MIDI's 0..127 are refused.
  static std::optional<int> pitchFromNoteName(std::string_view name);

  // The keys bottom_key and top_key of an info.toml text; nullopt when either is missing or
  // unreadable, or when they are in the wrong order.
  static std::optional<Range> fromInfoToml(std::string_view text, std::string voice);

  // Reads <modelDir>/info.toml; the voice is named after the folder. Never throws.
  static std::optional<Range> readModel(const std::filesystem::path& modelDir);
};

}  // namespace melvo
