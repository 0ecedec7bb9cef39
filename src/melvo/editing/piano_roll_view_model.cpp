#include "melvo/editing/piano_roll_view_model.h"

#include <algorithm>
#include <cstdio>

namespace melvo {
namespace {

std::vector<Uuid> trackIDs(const MusicDocument& d) {
  std::vector<Uuid> ids;
  ids.reserve(d.tracks.size());
  for (const auto& t : d.tracks) ids.push_back(t.id);
  return ids;
}

const std::string& labelOf(const PianoRollViewModel::UndoEntry& e) {
  return std::visit([](const auto& x) -> const std::string& { return x.label; }, e);
}

}  // namespace

PianoRollViewModel::PianoRollViewModel(MusicDocument document) : _document(std::move(document)) {}

// ---- Song ----

void PianoRollViewModel::setDocument(MusicDocument document) {
  std::vector<Uuid> oldIDs = trackIDs(_document);
  _document = std::move(document);
  notify("document");
  runDocumentChangeHook(oldIDs);
}

void PianoRollViewModel::updateDocument(const std::function<void(MusicDocument&)>& change) {
  std::vector<Uuid> oldIDs = trackIDs(_document);
  change(_document);
  notify("document");
  runDocumentChangeHook(oldIDs);
}

void PianoRollViewModel::runDocumentChangeHook(const std::vector<Uuid>& oldIDs) {
  std::vector<Uuid> newIDs = trackIDs(_document);
  if (oldIDs != newIDs) {
    setPixelsPerBeat(kDefaultPixelsPerBeat);
    bool shared = std::any_of(oldIDs.begin(), oldIDs.end(), [&](const Uuid& id) {
      return std::find(newIDs.begin(), newIDs.end(), id) != newIDs.end();
    });
    if (!shared) {
      setArrangeScrollX(0);
    } else {
      const double ppq = _document.ppq > 0 ? static_cast<double>(_document.ppq) : 480.0;
      const double songWidth =
          static_cast<double>(_document.endTick()) / ppq * _arrangePixelsPerBeat;
      const double maxScroll = std::max(0.0, songWidth - arrangeViewportWidth);
      setArrangeScrollX(std::clamp(_arrangeScrollX, 0.0, maxScroll));
    }
  }
  const int count = static_cast<int>(_document.tracks.size());
  if (_currentTrackIndex >= count) setCurrentTrackIndex(std::max(count - 1, 0));
}

void PianoRollViewModel::commit(const std::string& label,
                                const std::function<void(MusicDocument&)>& change) {
  pushUndo(label);
  updateDocument(change);
  markDirty();
}

void PianoRollViewModel::appendConversionLog(ConversionLogEntry entry) {
  _conversionLog.push_back(std::move(entry));
  notify("conversionLog");
}

// ---- Undo ----

void PianoRollViewModel::trimHistory() {
  while (_undoStack.size() > kHistoryLimit) _undoStack.pop_front();
}

void PianoRollViewModel::pushEntry(UndoEntry entry) {
  _undoStack.push_back(std::move(entry));
  _redoStack.clear();
  trimHistory();
  notify("undoStack");
}

void PianoRollViewModel::pushUndo(const std::string& label) {
  if (_undoGroupDepth != 0) return;
  pushEntry(DocEntry{_document, label});
}

void PianoRollViewModel::pushF0Undo(const std::string& label) {
  if (!_editedPitchCurve) return;
  pushEntry(F0Entry{_editedPitchCurve->frequencies, label});
}

void PianoRollViewModel::pushTimingUndo(const std::string& label) {
  if (!_phonemes) return;
  pushEntry(TimingEntry{*_phonemes, label});
}

void PianoRollViewModel::undo() {
  performHistory(_undoStack, _redoStack);
}

void PianoRollViewModel::redo() {
  performHistory(_redoStack, _undoStack);
}

void PianoRollViewModel::performHistory(std::deque<UndoEntry>& from, std::deque<UndoEntry>& to) {
  if (from.empty()) return;
  UndoEntry entry = std::move(from.back());
  from.pop_back();

  if (auto* doc = std::get_if<DocEntry>(&entry)) {
    const bool mixChanged = mixSignature(_document) != mixSignature(doc->document);
    to.push_back(DocEntry{_document, doc->label});
    setDocument(std::move(doc->document));
    if (mixChanged && onTrackMixChanged) onTrackMixChanged();
  } else if (auto* f0 = std::get_if<F0Entry>(&entry)) {
    // The curve went away (a new render, a swap): the entry has nothing to act on.
    if (_editedPitchCurve) {
      to.push_back(F0Entry{_editedPitchCurve->frequencies, f0->label});
      _editedPitchCurve->frequencies = std::move(f0->frequencies);
      notify("editedPitchCurve");
    }
  } else if (auto* timing = std::get_if<TimingEntry>(&entry)) {
    if (_phonemes) {
      to.push_back(TimingEntry{*_phonemes, timing->label});
      setPhonemes(std::move(timing->phonemes));  // silent when equal
    }
  }
  // Redo entries can also grow past the limit after many undos of a full stack; the limit
  // counts steps in either direction.
  while (to.size() > kHistoryLimit) to.pop_front();
  notify("undoStack");
}

std::optional<std::string> PianoRollViewModel::undoLabel() const {
  if (_undoStack.empty()) return std::nullopt;
  return labelOf(_undoStack.back());
}

std::optional<std::string> PianoRollViewModel::redoLabel() const {
  if (_redoStack.empty()) return std::nullopt;
  return labelOf(_redoStack.back());
}

void PianoRollViewModel::withUndoGroup(const std::string& label,
                                       const std::function<void()>& body) {
  pushUndo(label);
  ++_undoGroupDepth;
  try {
    body();
  } catch (...) {
    --_undoGroupDepth;
    throw;
  }
  --_undoGroupDepth;
}

void PianoRollViewModel::clearHistory() {
  _undoStack.clear();
  _redoStack.clear();
  ++documentSwapSeq_;
  notify("undoStack");
}

// ---- Swapping ----

void PianoRollViewModel::resetLoop() {
  setLoopEnabled(false);
  setLoopStartTick(0);
  setLoopEndTick(0);
}

void PianoRollViewModel::swapDocument(MusicDocument document, std::optional<std::string> filePath) {
  setDocument(std::move(document));
  clearHistory();
  setSelectedNoteIDs({});
  setPendingScrollToNoteID(std::nullopt);
  setPendingScrollToTick(std::nullopt);
  setLastSynthesisExport(std::nullopt);
  setSynthSnapshot({});
  setWaveform(std::nullopt);
  setOriginalPitchCurve(std::nullopt);
  setEditedPitchCurve(std::nullopt);
  setPitchCurveTrackID(std::nullopt);
  setPhonemes(std::nullopt);
  setOriginalPhonemes(std::nullopt);
  resetLoop();
  setArrangeScrollX(0);
  setFilePath(std::move(filePath));
  setIsDirty(false);
}

// ---- Render snapshot ----

void PianoRollViewModel::takeSynthSnapshot() {
  std::vector<NoteFingerprint> prints;
  for (const auto& track : _document.tracks) {
    if (track.isMuted) continue;
    for (const auto& n : track.notes)
      prints.push_back(NoteFingerprint{n.id, n.tick, n.duration, n.pitch, n.lyric});
  }
  setSynthSnapshot(std::move(prints));
}

std::unordered_set<Uuid> PianoRollViewModel::changedNoteIDs() const {
  std::unordered_set<Uuid> changed;
  if (_synthSnapshot.empty()) return changed;
  std::unordered_map<Uuid, const NoteFingerprint*> byID;
  byID.reserve(_synthSnapshot.size());
  for (const auto& f : _synthSnapshot) byID.emplace(f.id, &f);
  for (const auto& track : _document.tracks) {
    if (track.isMuted) continue;
    for (const auto& n : track.notes) {
      auto it = byID.find(n.id);
      if (it == byID.end()) {
        changed.insert(n.id);
        continue;
      }
      const NoteFingerprint& f = *it->second;
      if (f.tick != n.tick || f.duration != n.duration || f.pitch != n.pitch || f.lyric != n.lyric)
        changed.insert(n.id);
    }
  }
  return changed;
}

std::vector<PianoRollViewModel::NoteFingerprint> PianoRollViewModel::removedFingerprints() const {
  std::vector<NoteFingerprint> removed;
  if (_synthSnapshot.empty()) return removed;
  std::unordered_set<Uuid> present;
  for (const auto& track : _document.tracks)
    for (const auto& n : track.notes) present.insert(n.id);
  for (const auto& f : _synthSnapshot)
    if (!present.count(f.id)) removed.push_back(f);
  return removed;
}

std::string PianoRollViewModel::mixSignature(const MusicDocument& document) {
  std::string sig;
  char buf[96];
  for (const auto& t : document.tracks) {
    sig += t.id.toString();
    std::snprintf(buf, sizeof buf, ":%.17g:%.17g:%d:%d;", t.volume, t.pan, t.isMuted ? 1 : 0,
                  t.isSolo ? 1 : 0);
    sig += buf;
  }
  return sig;
}

}  // namespace melvo
