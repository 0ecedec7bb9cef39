// A track's notes. Undo keeps whole documents, so copying a note list must not copy notes:
// the notes live in chunks behind shared pointers, a copy shares every chunk, and a change
// copies only the chunk it touches. Reading works like a vector.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

#include "melvo/model/note_event.h"

namespace melvo {

class NoteList {
 public:
  static constexpr std::size_t kChunk = 256;

  class const_iterator {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = NoteEvent;
    using difference_type = std::ptrdiff_t;
    using pointer = const NoteEvent*;
    using reference = const NoteEvent&;

    const_iterator() = default;
    reference operator*() const { return (*list_->chunks_[chunk_])[offset_]; }
    pointer operator->() const { return &**this; }
    const_iterator& operator++() {
      ++index_;
      if (++offset_ == list_->chunks_[chunk_]->size()) {
        ++chunk_;
        offset_ = 0;
      }
      return *this;
    }
    const_iterator operator++(int) {
      auto c = *this;
      ++*this;
      return c;
    }
    const_iterator& operator--() { return *this = list_->iteratorAt(index_ - 1); }
    const_iterator operator--(int) {
      auto c = *this;
      --*this;
      return c;
    }
    const_iterator& operator+=(difference_type d) { return *this = list_->iteratorAt(index_ + d); }
    const_iterator& operator-=(difference_type d) { return *this += -d; }
    friend const_iterator operator+(const_iterator it, difference_type d) { return it += d; }
    friend const_iterator operator+(difference_type d, const_iterator it) { return it += d; }
    friend const_iterator operator-(const_iterator it, difference_type d) { return it -= d; }
    friend difference_type operator-(const const_iterator& a, const const_iterator& b) {
      return static_cast<difference_type>(a.index_) - static_cast<difference_type>(b.index_);
    }
    reference operator[](difference_type d) const { return *(*this + d); }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.index_ == b.index_;
    }
    friend auto operator<=>(const const_iterator& a, const const_iterator& b) {
      return a.index_ <=> b.index_;
    }
    std::size_t index() const { return index_; }

   private:
    friend class NoteList;
    const_iterator(const NoteList* l, std::size_t chunk, std::size_t offset, std::size_t index)
        : list_(l), chunk_(chunk), offset_(offset), index_(index) {}
    const NoteList* list_ = nullptr;
    std::size_t chunk_ = 0, offset_ = 0, index_ = 0;
  };
  using iterator = const_iterator;
  using value_type = NoteEvent;
  using size_type = std::size_t;

  NoteList() = default;
  NoteList(std::vector<NoteEvent> notes) { assign(std::move(notes)); }
  NoteList(std::initializer_list<NoteEvent> notes) { assign(std::vector<NoteEvent>(notes)); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const NoteEvent& operator[](std::size_t i) const;
  const NoteEvent& front() const { return (*this)[0]; }
  const NoteEvent& back() const { return (*this)[size_ - 1]; }
  const_iterator begin() const { return const_iterator(this, 0, 0, 0); }
  const_iterator end() const { return const_iterator(this, chunks_.size(), 0, size_); }

  // Writable access to one note; copies its chunk first when another list shares it.
  NoteEvent& mutableAt(std::size_t i);
  void set(std::size_t i, NoteEvent note) { mutableAt(i) = std::move(note); }
  void push_back(NoteEvent note);
  void insert(std::size_t i, NoteEvent note);
  void erase(std::size_t i);
  void clear();
  void assign(std::vector<NoteEvent> notes);
  // Takes over chunks built elsewhere, each as it is; lists of kChunk notes (the last one
  // shorter) keep indexing by division. A reader of 200,000 notes thus skips a copy.
  void assignChunks(std::vector<std::vector<NoteEvent>> chunks);
  // Removes every note for which `pred` holds; returns how many went. Untouched chunks stay
  // shared.
  template <typename Pred>
  std::size_t removeIf(Pred pred);
  std::vector<NoteEvent> toVector() const { return std::vector<NoteEvent>(begin(), end()); }

  // True when the two lists share the storage of at least one chunk (for tests and for
  // skipping work on unchanged tracks).
  bool sharesStorageWith(const NoteList& other) const;
  bool sameStorage(const NoteList& other) const { return chunks_ == other.chunks_; }

  friend bool operator==(const NoteList& a, const NoteList& b);

 private:
  using Chunk = std::vector<NoteEvent>;
  std::pair<std::size_t, std::size_t> locate(std::size_t i) const;
  const_iterator iteratorAt(std::size_t i) const;
  Chunk& detach(std::size_t chunk);
  void reindex();

  std::vector<std::shared_ptr<Chunk>> chunks_;
  std::vector<std::size_t> starts_;  // index of each chunk's first note
  std::size_t size_ = 0;
  bool uniform_ = true;  // every chunk but the last holds kChunk notes
};

template <typename Pred>
std::size_t NoteList::removeIf(Pred pred) {
  std::size_t removed = 0;
  for (std::size_t c = 0; c < chunks_.size(); ++c) {
    const Chunk& chunk = *chunks_[c];
    bool any = false;
    for (const auto& n : chunk)
      if (pred(n)) {
        any = true;
        break;
      }
    if (!any) continue;
    Chunk kept;
    kept.reserve(chunk.size());
    for (const auto& n : chunk) {
      if (pred(n)) {
        ++removed;
      } else {
        kept.push_back(n);
      }
    }
    chunks_[c] = std::make_shared<Chunk>(std::move(kept));
  }
  if (removed) reindex();
  return removed;
}

}  // namespace melvo
