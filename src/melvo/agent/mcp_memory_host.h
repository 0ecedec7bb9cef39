// A host over a song in memory, with its own undo: the command layer without the program
// around it (fuzzing, and agents that only transform a file).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "melvo/agent/mcp_host.h"

namespace melvo {

class McpMemoryHost {
 public:
  explicit McpMemoryHost(MusicDocument document = MusicDocument{})
      : document_(std::move(document)) {}

  // Closures over this object, which must outlive them.
  McpHost host();

  const MusicDocument& document() const { return document_; }
  // A render's timing, as if one had run.
  void setTiming(PhonemeList phonemes) { timing_ = std::move(phonemes); }
  // A render's pitch curve, for a song whose first track was sung, clocked by the tempo map.
  void setPitch(PitchCurve curve) { pitch_ = std::move(curve); }

 private:
  MusicDocument document_;
  std::vector<std::pair<std::string, MusicDocument>> undo_, redo_;
  McpSelection selection_;
  int currentTrack_ = 0;
  bool dirty_ = false;
  std::optional<PhonemeList> timing_;
  std::vector<std::pair<std::string, PhonemeList>> timingUndo_;
  std::optional<PitchCurve> pitch_;
  std::vector<std::pair<std::string, PitchCurve>> pitchUndo_;
};

}  // namespace melvo
