#include <gtest/gtest.h>

#include <algorithm>

#include "melvo/model/note_list.h"

namespace melvo {
namespace {

NoteEvent note(std::int64_t tick) {
  return NoteEvent::make(Uuid::random(), tick, 10, 60);
}

NoteList ramp(std::size_t n) {
  std::vector<NoteEvent> v;
  for (std::size_t i = 0; i < n; ++i) v.push_back(note(static_cast<std::int64_t>(i)));
  return NoteList(std::move(v));
}

TEST(NoteList, ReadsLikeAVectorAcrossChunks) {
  NoteList l = ramp(NoteList::kChunk * 3 + 7);
  ASSERT_EQ(l.size(), NoteList::kChunk * 3 + 7);
  std::int64_t expected = 0;
  for (const auto& n : l) EXPECT_EQ(n.tick, expected++);
  EXPECT_EQ(l[NoteList::kChunk].tick, static_cast<std::int64_t>(NoteList::kChunk));
  EXPECT_EQ((l.end() - l.begin()), static_cast<std::ptrdiff_t>(l.size()));
  EXPECT_EQ((l.begin() + 300)->tick, 300);
  // Algorithms that need random access work.
  auto it = std::lower_bound(l.begin(), l.end(), 500,
                             [](const NoteEvent& n, std::int64_t t) { return n.tick < t; });
  EXPECT_EQ(it->tick, 500);
  EXPECT_EQ(l.toVector().size(), l.size());
}

TEST(NoteList, CopyIsSharedUntilOneNoteChanges) {
  NoteList a = ramp(NoteList::kChunk * 4);
  NoteList b = a;
  EXPECT_TRUE(b.sameStorage(a));
  b.mutableAt(NoteList::kChunk + 1).lyric = "あ";
  // Only the touched chunk was copied; the original is untouched.
  EXPECT_EQ(a[NoteList::kChunk + 1].lyric, "");
  EXPECT_EQ(b[NoteList::kChunk + 1].lyric, "あ");
  EXPECT_FALSE(b.sameStorage(a));
  EXPECT_TRUE(b.sharesStorageWith(a));
  EXPECT_NE(a, b);
}

TEST(NoteList, InsertEraseAndRemoveIfKeepIndexing) {
  NoteList l = ramp(NoteList::kChunk * 2);
  NoteList before = l;
  // Grow one chunk past the split point so that chunks become uneven.
  for (int i = 0; i < static_cast<int>(NoteList::kChunk) + 3; ++i) l.insert(5, note(-1));
  EXPECT_EQ(l.size(), NoteList::kChunk * 3 + 3);
  EXPECT_EQ(l[4].tick, 4);
  EXPECT_EQ(l[5].tick, 0);  // clamped -1
  EXPECT_EQ(l[5 + NoteList::kChunk + 3].tick, 5);
  EXPECT_EQ(l.back().tick, static_cast<std::int64_t>(NoteList::kChunk * 2 - 1));
  std::size_t removed = l.removeIf([](const NoteEvent& n) { return n.tick == 0; });
  EXPECT_EQ(removed, NoteList::kChunk + 4);
  EXPECT_EQ(l.front().tick, 1);
  l.erase(0);
  EXPECT_EQ(l.front().tick, 2);
  std::int64_t prev = -1;
  for (const auto& n : l) {
    EXPECT_GT(n.tick, prev);
    prev = n.tick;
  }
  EXPECT_EQ(before.size(), NoteList::kChunk * 2);  // the copy taken before is unchanged
  EXPECT_EQ(before[5].tick, 5);

  // An insert grows the only chunk past kChunk; appending then starts a second chunk behind an
  // oversized first one, and indexing must still find every note.
  NoteList grown = ramp(NoteList::kChunk);
  grown.insert(0, note(5000));
  grown.push_back(note(6000));
  grown.push_back(note(7000));
  ASSERT_EQ(grown.size(), NoteList::kChunk + 3);
  EXPECT_EQ(grown[0].tick, 5000);
  EXPECT_EQ(grown[NoteList::kChunk].tick, static_cast<std::int64_t>(NoteList::kChunk - 1));
  EXPECT_EQ(grown[NoteList::kChunk + 1].tick, 6000);
  EXPECT_EQ(grown.back().tick, 7000);
  std::size_t i = 0;
  for (const auto& n : grown) EXPECT_EQ(grown[i++].tick, n.tick) << i;
}

TEST(NoteList, AdoptedChunksIndexWhateverTheirSizes) {
  // Full chunks index by division; an empty or short one in the middle must not break that.
  std::vector<std::vector<NoteEvent>> chunks(4);
  std::int64_t t = 0;
  for (std::size_t c : {std::size_t(0), std::size_t(2)})
    for (std::size_t i = 0; i < NoteList::kChunk; ++i) chunks[c].push_back(note(t++));
  chunks[3] = {note(t++), note(t++)};
  NoteList l;
  l.assignChunks(std::move(chunks));
  ASSERT_EQ(l.size(), 2 * NoteList::kChunk + 2);
  for (std::size_t i = 0; i < l.size(); ++i) EXPECT_EQ(l[i].tick, std::int64_t(i));
  std::vector<std::vector<NoteEvent>> uneven(2);
  uneven[0] = {note(0), note(1), note(2)};
  for (std::size_t i = 0; i < NoteList::kChunk; ++i) uneven[1].push_back(note(3 + std::int64_t(i)));
  l.assignChunks(std::move(uneven));
  ASSERT_EQ(l.size(), NoteList::kChunk + 3);
  EXPECT_EQ(l[NoteList::kChunk].tick, std::int64_t(NoteList::kChunk));
  EXPECT_EQ(l.back().tick, std::int64_t(NoteList::kChunk + 2));
}

}  // namespace
}  // namespace melvo
