// The one mutable owner of the open song. Views, menus, the agent port and the render flow
// read and change the song only through this object, on the main thread.
//
// Every change of the song is a commit: push an undo entry while the document is still old,
// change the document (its setter runs the change hook), mark the song dirty. Undo keeps whole
// documents; that is affordable because a MusicDocument copy shares its note chunks.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "melvo/editing/observable.h"
#include "melvo/editing/piano_roll_tool.h"
#include "melvo/editing/rendered_data.h"
#include "melvo/editing/scale_assist.h"
#include "melvo/model/music_document.h"
#include "melvo/model/validation_issue.h"
#include "melvo/platform/uuid.h"

// An observed field: `_name` with a reader `name()` and a setter that notifies "name" only on
// a real change.
#define MELVO_OBSERVED(Type, name, Setter, ...) \
 public:                                        \
  const Type& name() const {                    \
    return _##name;                             \
  }                                             \
  void Setter(Type value) {                     \
    assign(_##name, std::move(value), #name);   \
  }                                             \
                                                \
 private:                                       \
  Type _##name{__VA_ARGS__};

namespace melvo {

class NoteIDSet;

class PianoRollViewModel : public Observable {
 public:
  static constexpr std::size_t kHistoryLimit = 100;
  static constexpr double kDefaultPixelsPerBeat = 80.0;

  struct DocEntry {
    MusicDocument document;
    std::string label;
  };
  struct F0Entry {
    std::vector<float> frequencies;
    std::string label;
  };
  struct TimingEntry {
    PhonemeList phonemes;
    std::string label;
  };
  using UndoEntry = std::variant<DocEntry, F0Entry, TimingEntry>;

  struct NoteFingerprint {
    Uuid id;
    std::int64_t tick = 0;
    std::int64_t duration = 0;
    int pitch = 0;
    std::string lyric;
    bool operator==(const NoteFingerprint&) const = default;
  };

  struct ConversionLogEntry {
    Uuid id = Uuid::random();
    Uuid noteID;
    int trackIndex = 0;
    std::int64_t tick = 0;
    std::string action;
    std::string before;
    std::string after;
    double timestamp = 0;  // seconds since 2001-01-01
    bool operator==(const ConversionLogEntry&) const = default;
  };

  enum class NoteIssue { emptyLyric, unreadableLyric, overlap, outOfRange, notice };
  using NoteIssueMap = std::map<Uuid, NoteIssue>;

  struct BarMapping {
    int neutrino = 0;
    int melvo = 0;
    bool operator==(const BarMapping&) const = default;
  };

  explicit PianoRollViewModel(MusicDocument document = MusicDocument{});

  // ---- Song ----
  const MusicDocument& document() const { return _document; }
  // Replaces the document and runs the change hook. Callers outside a commit are rare (the
  // swap, undo); everything else goes through commit().
  void setDocument(MusicDocument document);
  // Changes the document in place (cheaper than copy-and-set for one note) and runs the hook.
  void updateDocument(const std::function<void(MusicDocument&)>& change);
  void markDirty() { setIsDirty(true); }

  // One commit: push undo (unless a group already did), change, mark dirty.
  void commit(const std::string& label, const std::function<void(MusicDocument&)>& change);
  void appendConversionLog(ConversionLogEntry entry);

  // ---- Undo ----
  void pushUndo(const std::string& label);
  void pushF0Undo(const std::string& label);
  void pushTimingUndo(const std::string& label);
  void undo();
  void redo();
  bool canUndo() const { return !_undoStack.empty(); }
  bool canRedo() const { return !_redoStack.empty(); }
  std::optional<std::string> undoLabel() const;
  std::optional<std::string> redoLabel() const;
  void withUndoGroup(const std::string& label, const std::function<void()>& body);
  void clearHistory();
  const std::deque<UndoEntry>& undoStack() const { return _undoStack; }
  const std::deque<UndoEntry>& redoStack() const { return _redoStack; }
  int undoGroupDepth() const { return _undoGroupDepth; }
  std::uint64_t documentSwapSeq() const { return documentSwapSeq_; }

  // ---- Swapping the song (open, new, restore) ----
  void swapDocument(MusicDocument document, std::optional<std::string> filePath);
  void resetLoop();

  // ---- Notes changed since the last render ----
  void takeSynthSnapshot();
  std::unordered_set<Uuid> changedNoteIDs() const;
  std::vector<NoteFingerprint> removedFingerprints() const;

  // ---- Note editing (note_operations.cpp) ----
  // Each operation is one commit (one undo step) on the current track and the selection, and
  // returns whether it committed: an operation that would change nothing pushes no step.
  // Ticks stay in 0..maxTick, durations in 1..maxTick, pitches in 0..127.

  // A note at the grid cell of `tick`, `_defaultNoteLength` long, velocity 100, no lyric,
  // its pitch snapped by the scale assist; selects it alone. The id of the new note.
  std::optional<Uuid> addNote(std::int64_t tick, int pitch);
  // The selection as one group: the deltas are held so that every note stays in range. A
  // change of pitch snaps each note under the scale lock.
  bool moveNotes(std::int64_t deltaTick, int deltaPitch);
  bool resizeNotes(std::int64_t deltaTick);
  bool setLengthFromMenu(QuantizeValue value);
  // Cuts the note at the grid line nearest `tick`, which must lie strictly inside it. Both
  // halves keep pitch, velocity and the rest; the lyric is shared out by syllable (a lone
  // syllable keeps the first half and the second holds it with "ー"); slur and breath go
  // to the second half. The new half's id, or nothing.
  std::optional<Uuid> splitNote(const Uuid& id, std::int64_t tick);
  // Selected neighbours: one of the same pitch become one note, one of another pitch is
  // slurred to the next.
  bool mergeNotes();
  static const char* mergeMenuLabel();  // "合成 / スラー化  ⌘M"
  bool deleteNotes();
  // Copies the selection, sorted by tick, into `_clipboard`; the number copied. Not a commit.
  std::size_t copySelected();
  bool cutSelected();
  // New ids, shifted so that the first lands on `tick`, appended to the current track and
  // selected.
  bool pasteNotes(std::int64_t tick);
  // Text from the system clipboard: notes of our own format are pasted at `tick`; any other
  // text is taken as lyrics and flows onto the selection.
  bool pasteText(std::string_view text, std::int64_t tick);
  // What a copy puts on the system clipboard: our format, and the lyrics as plain text.
  std::string clipboardText() const;
  std::string clipboardLyricsText() const;
  bool transpose(int semitones);
  bool setVelocity(int value);  // 1..127
  bool setLyric(const Uuid& id, std::string text);
  struct BulkLyricsResult {
    bool committed = false;
    std::size_t assigned = 0;
    std::size_t leftover = 0;  // syllables beyond the last selected note, dropped
  };
  BulkLyricsResult applyBulkLyrics(std::string_view text);
  // Every selected note breathes after it, or, when all already do, none does.
  bool toggleBreath();
  const char* breathMenuLabel() const;  // "ブレスを挿入 (♪)" or "ブレスを削除 (♪)"
  bool insertTime(std::int64_t atTick, std::int64_t ticks);
  bool deleteTime(std::int64_t atTick, std::int64_t ticks);

  // Grid helpers at the document's ppq.
  std::int64_t gridTicks() const;
  std::int64_t snapDown(std::int64_t tick) const;
  std::int64_t snapNearest(std::int64_t tick) const;
  // The selected notes of the current track, sorted by tick.
  std::vector<NoteEvent> selectedNotes() const;

  // Text that changes whenever volume, pan, mute or solo of any track changes.
  static std::string mixSignature(const MusicDocument& document);

  // ---- Callbacks ----
  std::function<void(const Uuid& oldTrackID, const Uuid& newTrackID)> onTrackDuplicated;
  std::function<void()> onTrackMixChanged;
  // A mix edit (a slider drag) names its undo step here so that the whole drag is one step.
  std::optional<std::string> pendingMixUndoLabel;

  // Not observed: the viewport is the view's business, but the scroll clamp needs it.
  double arrangeViewportWidth = 0;

  MELVO_OBSERVED(int, currentTrackIndex, setCurrentTrackIndex, 0)
  MELVO_OBSERVED(std::optional<std::string>, filePath, setFilePath)
  MELVO_OBSERVED(bool, isDirty, setIsDirty, false)
  // View geometry that the change hook adjusts.
  MELVO_OBSERVED(double, pixelsPerBeat, setPixelsPerBeat, kDefaultPixelsPerBeat)
  MELVO_OBSERVED(double, noteHeight, setNoteHeight, 16.0)
  MELVO_OBSERVED(double, arrangePixelsPerBeat, setArrangePixelsPerBeat, 24.0)
  MELVO_OBSERVED(double, arrangeScrollX, setArrangeScrollX, 0.0)
  MELVO_OBSERVED(double, velocityLaneHeight, setVelocityLaneHeight, 80.0)
  // Tools.
  MELVO_OBSERVED(PianoRollTool, currentTool, setCurrentTool, PianoRollTool::arrow)
  MELVO_OBSERVED(QuantizeValue, quantizeValue, setQuantizeValue, QuantizeValue::sixteenth)
  MELVO_OBSERVED(QuantizeValue, defaultNoteLength, setDefaultNoteLength, QuantizeValue::quarter)
  MELVO_OBSERVED(ScaleAssist, scaleAssist, setScaleAssist)
  MELVO_OBSERVED(bool, scaleOnlyDisplay, setScaleOnlyDisplay, false)
  // Checking.
  MELVO_OBSERVED(std::vector<ValidationIssue>, liveIssues, setLiveIssues)
  MELVO_OBSERVED(bool, liveValidationRan, setLiveValidationRan, false)
  MELVO_OBSERVED(std::vector<ConversionLogEntry>, conversionLog, setConversionLog)
  MELVO_OBSERVED(NoteIssueMap, noteIssues, setNoteIssues)
  // Navigation.
  MELVO_OBSERVED(std::optional<Uuid>, pendingScrollToNoteID, setPendingScrollToNoteID)
  MELVO_OBSERVED(std::optional<std::int64_t>, pendingScrollToTick, setPendingScrollToTick)
  MELVO_OBSERVED(std::optional<Uuid>, expandedVoiceTrackID, setExpandedVoiceTrackID)
  // Render relation.
  MELVO_OBSERVED(std::optional<MusicDocument>, lastSynthesisExport, setLastSynthesisExport)
  MELVO_OBSERVED(std::vector<BarMapping>, lastSynthesisLogMapping, setLastSynthesisLogMapping)
  MELVO_OBSERVED(std::vector<NoteFingerprint>, synthSnapshot, setSynthSnapshot)
  // Selection and transport.
  // Written out rather than observed by the macro: a new selection drops its lookup cache.
 public:
  const std::set<Uuid>& selectedNoteIDs() const { return _selectedNoteIDs; }
  void setSelectedNoteIDs(std::set<Uuid> value);

 private:
  std::set<Uuid> _selectedNoteIDs;

  MELVO_OBSERVED(std::int64_t, playheadTick, setPlayheadTick, 0)
  MELVO_OBSERVED(bool, isPlaying, setIsPlaying, false)
  MELVO_OBSERVED(bool, loopEnabled, setLoopEnabled, false)
  MELVO_OBSERVED(std::int64_t, loopStartTick, setLoopStartTick, 0)
  MELVO_OBSERVED(std::int64_t, loopEndTick, setLoopEndTick, 0)
  // Rendered data.
  MELVO_OBSERVED(std::optional<Waveform>, waveform, setWaveform)
  MELVO_OBSERVED(bool, showWaveform, setShowWaveform, true)
  MELVO_OBSERVED(std::optional<PitchCurve>, originalPitchCurve, setOriginalPitchCurve)
  MELVO_OBSERVED(std::optional<PitchCurve>, editedPitchCurve, setEditedPitchCurve)
  MELVO_OBSERVED(std::optional<Uuid>, pitchCurveTrackID, setPitchCurveTrackID)
  MELVO_OBSERVED(bool, showPitchCurve, setShowPitchCurve, true)
  MELVO_OBSERVED(std::optional<std::string>, f0FilePath, setF0FilePath)
  MELVO_OBSERVED(std::optional<PhonemeList>, phonemes, setPhonemes)
  MELVO_OBSERVED(std::optional<PhonemeList>, originalPhonemes, setOriginalPhonemes)
  MELVO_OBSERVED(bool, showPhonemes, setShowPhonemes, true)
  MELVO_OBSERVED(std::optional<std::string>, timingFilePath, setTimingFilePath)
  MELVO_OBSERVED(bool, timingEditMode, setTimingEditMode, false)
  MELVO_OBSERVED(bool, f0EditMode, setF0EditMode, false)
  MELVO_OBSERVED(double, f0BrushHalfSec, setF0BrushHalfSec, 0.05)
  MELVO_OBSERVED(bool, f0Calibrated, setF0Calibrated, false)
  MELVO_OBSERVED(double, f0DisplayOffsetSec, setF0DisplayOffsetSec, 0.0)
  MELVO_OBSERVED(std::int64_t, f0ScoreFirstTick, setF0ScoreFirstTick, 0)
  MELVO_OBSERVED(int, f0TransposeSemitones, setF0TransposeSemitones, 0)
  // Lyric popover.
  MELVO_OBSERVED(bool, editorPopoverOpen, setEditorPopoverOpen, false)
  MELVO_OBSERVED(std::optional<Uuid>, lyricEditingNoteID, setLyricEditingNoteID)
  MELVO_OBSERVED(std::string, lyricEditingText, setLyricEditingText)
  // Other.
  MELVO_OBSERVED(std::vector<NoteEvent>, clipboard, setClipboard)

 private:
  void runDocumentChangeHook(const std::vector<Uuid>& oldTrackIDs);
  MusicTrack* currentTrack();
  const MusicTrack* currentTrack() const;
  // Positions of the selected notes in the current track, in list order.
  std::vector<std::size_t> selectedPositions() const;
  // The selection as a flat lookup table, built once per selection; shared, so that a change
  // of selection during an edit cannot pull it from under the edit.
  std::shared_ptr<const NoteIDSet> selectedLookup() const;
  // Runs `edit` on a copy of the notes at `positions` of the current track and commits the
  // notes it changed.
  bool editSelected(const std::string& label, const std::vector<std::size_t>& positions,
                    const std::function<void(NoteEvent&)>& edit);
  // Applies `change` to a copy and commits it only when the song differs.
  bool commitIfChanged(const std::string& label, const std::function<void(MusicDocument&)>& change);
  void performHistory(std::deque<UndoEntry>& from, std::deque<UndoEntry>& to);
  void pushEntry(UndoEntry entry);
  void trimHistory();

  MusicDocument _document;
  std::deque<UndoEntry> _undoStack;
  std::deque<UndoEntry> _redoStack;
  int _undoGroupDepth = 0;
  std::uint64_t documentSwapSeq_ = 0;  // not observed: jobs compare it, views do not care
  // What the last look-up of the selection found: its table and the positions, which a
  // repeated edit of the same notes (a drag) checks instead of walking the track again.
  struct SelectionCache;
  mutable std::shared_ptr<SelectionCache> selectionCache_;
};

}  // namespace melvo
