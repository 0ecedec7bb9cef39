// What the agent's commands may reach of the running program: a record of closures, so the
// command layer runs as well against a plain document in memory as against AppState. An
// absent closure means that this host cannot do that thing.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "melvo/editing/phoneme_list.h"
#include "melvo/editing/pitch_curve.h"
#include "melvo/model/music_document.h"
#include "melvo/model/validation_issue.h"
#include "melvo/platform/json.h"

namespace melvo {

struct McpSelection {
  std::set<Uuid> noteIDs;
  std::int64_t loopStart = 0;
  std::int64_t loopEnd = 0;
  bool loopEnabled = false;
};

struct McpHistory {
  std::vector<std::string> undo;  // newest first
  std::vector<std::string> redo;  // newest first
};

// The phoneme timing of the last render, and how far its clock runs ahead of the song's.
struct McpTiming {
  PhonemeList phonemes;
  double offsetSec = 0;
};

// The pitch curve of the last render: as drawn now and as the engine made it, the track it
// was made for, and the curve's clock for a tick of the song.
struct McpPitch {
  PitchCurve edited;
  PitchCurve original;
  std::optional<Uuid> trackID;
  int transposeSemitones = 0;
  std::function<double(std::int64_t tick)> seconds;
};

enum class McpSingScope { all, track, range, rangeTrack };

struct McpHost {
  using Change = std::function<void(MusicDocument&)>;

  // Nothing open: nullptr.
  std::function<const MusicDocument*()> document;
  std::function<bool()> isDirty;
  std::function<std::optional<std::string>()> documentPath;
  // Opens a file as the open song; a refusal or failure is its words.
  std::function<std::optional<std::string>(const std::string& path)> open;
  // Writes the song to `path` (checked: absolute, ".nsproj", its folder exists), which
  // becomes the song's file; a failure is its words.
  std::function<std::optional<std::string>(const std::string& path)> save;
  // One undo step named `label`.
  std::function<void(const std::string& label, const Change& change)> commit;
  std::function<std::optional<McpPitch>()> pitch;
  // One undo step of the curve (not of the song).
  std::function<void(const std::string& label, PitchCurve edited)> commitPitch;
  std::function<std::optional<McpTiming>()> timing;
  // One undo step of the timing (not of the song).
  std::function<void(const std::string& label, PhonemeList phonemes)> commitTiming;
  std::function<std::vector<ValidationIssue>()> issues;
  // One undo step; false when it changed nothing.
  std::function<bool(const std::string& label, const ValidationIssue& row,
                     const ValidationIssue::Suggestion& suggestion)>
      applySuggestion;
  // Starts a render of `scope` (a range scope over the loop range); a refusal is its words.
  std::function<std::optional<std::string>(McpSingScope scope)> sing;
  // The state of the last render started through this port.
  std::function<Json()> singStatus;
  std::function<int()> currentTrack;
  std::function<bool(int track)> selectTrack;
  std::function<bool()> isSynthesizing;
  std::function<McpHistory()> history;
  std::function<void(bool redo)> undoRedo;
  std::function<McpSelection()> selection;
  std::function<void(const McpSelection&)> setSelection;
};

}  // namespace melvo
