#include "melvo/model/note_list.h"

#include <algorithm>
#include <stdexcept>

namespace melvo {

const NoteEvent& NoteList::operator[](std::size_t i) const {
  auto [c, o] = locate(i);
  return (*chunks_[c])[o];
}

std::pair<std::size_t, std::size_t> NoteList::locate(std::size_t i) const {
  if (i >= size_) throw std::out_of_range("note index out of range");
  if (uniform_) return {i / kChunk, i % kChunk};
  auto it = std::upper_bound(starts_.begin(), starts_.end(), i);
  std::size_t c = static_cast<std::size_t>(it - starts_.begin()) - 1;
  return {c, i - starts_[c]};
}

NoteList::const_iterator NoteList::iteratorAt(std::size_t i) const {
  if (i >= size_) return end();
  auto [c, o] = locate(i);
  return const_iterator(this, c, o, i);
}

NoteList::Chunk& NoteList::detach(std::size_t c) {
  if (chunks_[c].use_count() > 1) chunks_[c] = std::make_shared<Chunk>(*chunks_[c]);
  return *chunks_[c];
}

void NoteList::reindex() {
  // Drop chunks that became empty, then rebuild the start table.
  chunks_.erase(std::remove_if(chunks_.begin(), chunks_.end(),
                               [](const std::shared_ptr<Chunk>& c) { return c->empty(); }),
                chunks_.end());
  starts_.resize(chunks_.size());
  size_ = 0;
  uniform_ = true;
  for (std::size_t c = 0; c < chunks_.size(); ++c) {
    starts_[c] = size_;
    size_ += chunks_[c]->size();
    if (c + 1 < chunks_.size() && chunks_[c]->size() != kChunk) uniform_ = false;
  }
}

NoteEvent& NoteList::mutableAt(std::size_t i) {
  auto [c, o] = locate(i);
  return detach(c)[o];
}

void NoteList::push_back(NoteEvent note) {
  if (chunks_.empty() || chunks_.back()->size() >= kChunk) {
    // The old last chunk stops being last; an insert may have grown it past kChunk, and then
    // an index can no longer be found by division.
    if (!chunks_.empty() && chunks_.back()->size() != kChunk) uniform_ = false;
    chunks_.push_back(std::make_shared<Chunk>());
    chunks_.back()->reserve(kChunk);
    starts_.push_back(size_);
  }
  detach(chunks_.size() - 1).push_back(std::move(note));
  ++size_;
}

void NoteList::insert(std::size_t i, NoteEvent note) {
  if (i >= size_) {
    push_back(std::move(note));
    return;
  }
  auto [c, o] = locate(i);
  Chunk& chunk = detach(c);
  chunk.insert(chunk.begin() + static_cast<std::ptrdiff_t>(o), std::move(note));
  // Keep chunks small so that the next copy-on-write stays cheap.
  if (chunk.size() >= 2 * kChunk) {
    auto tail = std::make_shared<Chunk>(chunk.begin() + kChunk, chunk.end());
    chunk.resize(kChunk);
    chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(c) + 1, std::move(tail));
  }
  reindex();
}

void NoteList::erase(std::size_t i) {
  auto [c, o] = locate(i);
  Chunk& chunk = detach(c);
  chunk.erase(chunk.begin() + static_cast<std::ptrdiff_t>(o));
  reindex();
}

void NoteList::clear() {
  chunks_.clear();
  starts_.clear();
  size_ = 0;
  uniform_ = true;
}

void NoteList::assign(std::vector<NoteEvent> notes) {
  clear();
  chunks_.reserve((notes.size() + kChunk - 1) / kChunk);
  for (std::size_t start = 0; start < notes.size(); start += kChunk) {
    std::size_t end = std::min(notes.size(), start + kChunk);
    auto chunk = std::make_shared<Chunk>(std::make_move_iterator(notes.begin() + start),
                                         std::make_move_iterator(notes.begin() + end));
    chunks_.push_back(std::move(chunk));
  }
  reindex();
}

void NoteList::assignChunks(std::vector<std::vector<NoteEvent>> chunks) {
  clear();
  chunks_.reserve(chunks.size());
  for (auto& c : chunks)
    if (!c.empty()) chunks_.push_back(std::make_shared<Chunk>(std::move(c)));
  reindex();
}

bool NoteList::sharesStorageWith(const NoteList& other) const {
  for (const auto& a : chunks_)
    for (const auto& b : other.chunks_)
      if (a == b) return true;
  return false;
}

bool operator==(const NoteList& a, const NoteList& b) {
  if (a.size_ != b.size_) return false;
  if (a.chunks_ == b.chunks_) return true;
  return std::equal(a.begin(), a.end(), b.begin());
}

}  // namespace melvo
