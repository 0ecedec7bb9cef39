// What the MIDI reader hands to the lyric placement: each MTrk chunk as read, with its text
// already decoded, and the findings that wait for their track to be known.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "melvo/model/import_notice.h"
#include "melvo/model/note_event.h"
#include "melvo/model/note_list.h"
#include "melvo/platform/uuid.h"

namespace melvo::midi {

// Until the texts are decoded, `text` is the event's bytes in the file; after, it points into
// the file (plain ASCII) or into the decoded strings the reader keeps until the song is built.
// Lyrics repeat a few syllables, so no event owns a string of its own.
struct TextEvent {
  std::int64_t tick = 0;
  std::string_view text;
  int seq = 0;  // order in the file, breaks ties between events at one tick
  // The reader's number for the event's bytes until they are decoded (0: plain ASCII).
  std::uint32_t entry = 0;
};

// A track's notes in the chunks a song's note list keeps, so that the finished track takes
// them over as they are: 200,000 notes are written once, not copied into the song afterwards.
// Indexes like a vector.
class NoteChunks {
 public:
  static constexpr std::size_t kChunk = NoteList::kChunk;
  using Chunk = std::vector<NoteEvent>;

  template <bool Const>
  class Iter {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = NoteEvent;
    using difference_type = std::ptrdiff_t;
    using reference = std::conditional_t<Const, const NoteEvent&, NoteEvent&>;
    using pointer = std::conditional_t<Const, const NoteEvent*, NoteEvent*>;
    using Owner = std::conditional_t<Const, const NoteChunks, NoteChunks>;

    Iter() = default;
    Iter(Owner* owner, difference_type i) : owner_(owner), i_(i) {}

    reference operator*() const { return (*owner_)[std::size_t(i_)]; }
    pointer operator->() const { return &**this; }
    reference operator[](difference_type d) const { return (*owner_)[std::size_t(i_ + d)]; }
    Iter& operator++() {
      ++i_;
      return *this;
    }
    Iter operator++(int) {
      Iter c = *this;
      ++i_;
      return c;
    }
    Iter& operator--() {
      --i_;
      return *this;
    }
    Iter operator--(int) {
      Iter c = *this;
      --i_;
      return c;
    }
    Iter& operator+=(difference_type d) {
      i_ += d;
      return *this;
    }
    Iter& operator-=(difference_type d) {
      i_ -= d;
      return *this;
    }
    friend Iter operator+(Iter it, difference_type d) { return it += d; }
    friend Iter operator+(difference_type d, Iter it) { return it += d; }
    friend Iter operator-(Iter it, difference_type d) { return it -= d; }
    friend difference_type operator-(const Iter& a, const Iter& b) { return a.i_ - b.i_; }
    friend bool operator==(const Iter& a, const Iter& b) { return a.i_ == b.i_; }
    friend auto operator<=>(const Iter& a, const Iter& b) { return a.i_ <=> b.i_; }

   private:
    Owner* owner_ = nullptr;
    difference_type i_ = 0;
  };
  using iterator = Iter<false>;
  using const_iterator = Iter<true>;
  using value_type = NoteEvent;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  NoteEvent& operator[](std::size_t i) { return chunks_[i / kChunk][i % kChunk]; }
  const NoteEvent& operator[](std::size_t i) const { return chunks_[i / kChunk][i % kChunk]; }
  NoteEvent& front() { return (*this)[0]; }
  NoteEvent& back() { return (*this)[size_ - 1]; }
  iterator begin() { return {this, 0}; }
  iterator end() { return {this, std::ptrdiff_t(size_)}; }
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, std::ptrdiff_t(size_)}; }

  // Asks for the note ahead of a walk: notes are spread over chunks, which the processor's
  // own look-ahead does not follow.
  void prefetch(std::size_t i) const {
    if (i < size_) __builtin_prefetch(&(*this)[i]);
  }

  // Room for the chunk list of `notes` notes; the chunks themselves come as notes arrive.
  void reserve(std::size_t notes) { chunks_.reserve((notes + kChunk - 1) / kChunk); }
  // Copies or moves `n` straight into its place.
  template <typename Note>
  NoteEvent& push_back(Note&& n) {
    if (size_ % kChunk == 0) {
      chunks_.emplace_back();
      chunks_.back().reserve(kChunk);
    }
    ++size_;
    return chunks_.back().emplace_back(std::forward<Note>(n));
  }
  // Keeps the first `n` notes.
  void truncate(std::size_t n) {
    if (n >= size_) return;
    chunks_.resize((n + kChunk - 1) / kChunk);
    if (!chunks_.empty()) {
      Chunk& last = chunks_.back();
      last.erase(last.begin() + std::ptrdiff_t(n - (chunks_.size() - 1) * kChunk), last.end());
    }
    size_ = n;
  }
  void clear() { truncate(0); }
  std::vector<Chunk> takeChunks() {
    std::vector<Chunk> out;
    out.swap(chunks_);
    size_ = 0;
    return out;
  }

 private:
  std::vector<Chunk> chunks_;  // all full but the last
  std::size_t size_ = 0;
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
  NoteChunks notes;
  bool inOnsetOrder = true;            // by tick, the higher first at one tick
  std::vector<std::uint8_t> channels;  // in step with notes
  std::vector<TextEvent> lyrics;
  std::vector<TextEvent> texts;
  bool karaokeTag = false;
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
