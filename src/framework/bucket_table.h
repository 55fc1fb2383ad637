// A hash table that never stops to move house: it grows and shrinks by one bucket at a time (linear hashing), so that
// no insertion costs more than another. A bucket is a line of the cache and has its entries' hashes in it: that line
// alone tells what is not there.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace framework {

/// `Entry` has the member `hash` (std::uint32_t, not changed while it is in the table). Owns no entry. Equal entries
/// may stand in it several times.
template <class Entry>
class BucketTable {
 public:
  /// An entry with this hash for which `equal` holds, or null.
  template <class Equal>
  Entry* find(std::uint32_t hash, Equal equal) const {
    if (size_ == 0) return nullptr;
    for (const Bucket* bucket = &bucket_at(place(hash)); bucket != nullptr; bucket = after(*bucket)) {
      for (std::size_t i = 0; i < kEntries; ++i) {
        if (bucket->hashes[i] != hash || bucket->entries[i] == nullptr) continue;
        if (equal(*bucket->entries[i])) return bucket->entries[i];
      }
    }
    return nullptr;
  }

  // For callers that look up much at once: what the next step reads is asked of the memory before others' steps are
  // done.

  void fetchBucket(std::uint32_t hash) const {
    if (size_ != 0) __builtin_prefetch(&bucket_at(place(hash)));
  }
  /// The entry that `find` looks at first, asked for too; null when there is none.
  const Entry* fetchEntry(std::uint32_t hash) const {
    const Entry* const entry = find(hash, [](const Entry&) { return true; });
    if (entry != nullptr) __builtin_prefetch(entry);
    return entry;
  }

  void insert(Entry* entry) {
    if (size_++ == buckets_ * kLoad) extend();
    push(entry);
  }

  /// The entry is in the table.
  void erase(const Entry* entry) {
    Bucket* bucket = &bucket_at(place(entry->hash));
    auto found = std::find(bucket->entries.begin(), bucket->entries.end(), entry);
    while (found == bucket->entries.end()) {
      bucket = &spilled_[bucket->more - 1];
      found = std::find(bucket->entries.begin(), bucket->entries.end(), entry);
    }
    *found = nullptr;
    if (--size_ <= (buckets_ - 1) * kLoad) shrink();
  }

  std::size_t size() const { return size_; }

  /// `visit` may destroy the entry that it gets.
  template <class Visit>
  void forEach(Visit visit) const {
    for (std::size_t i = 0; i < buckets_; ++i) {
      for (const Bucket* bucket = &bucket_at(i); bucket != nullptr; bucket = after(*bucket)) {
        for (Entry* const entry : bucket->entries) {
          if (entry != nullptr) visit(entry);
        }
      }
    }
  }

 private:
  static constexpr std::size_t kEntries = 5;  ///< fill a line
  static constexpr std::size_t kLoad = 3;     ///< entries for each bucket; those that get more spill over
  static constexpr std::size_t kBlock = 256;  ///< buckets that are made at once

  struct alignas(64) Bucket {
    std::array<Entry*, kEntries> entries{};  ///< null where there is room
    std::array<std::uint32_t, kEntries> hashes{};
    std::uint32_t more = 0;  ///< 1 + place of the next one in spilled_
  };
  static_assert(sizeof(Bucket) == 64);

  Bucket& bucket_at(std::size_t place) const { return blocks_[place / kBlock][place % kBlock]; }
  const Bucket* after(const Bucket& bucket) const { return bucket.more == 0 ? nullptr : &spilled_[bucket.more - 1]; }
  /// As many low bits of the hash as give a place among twice the power of two that fits, one bit less when it is none.
  std::size_t place(std::uint32_t hash) const {
    const std::size_t power = std::bit_floor(buckets_);
    const std::size_t wide = hash & (2 * power - 1);
    return wide < buckets_ ? wide : wide & (power - 1);
  }
  void push(Entry* entry) {
    Bucket* bucket = &bucket_at(place(entry->hash));
    auto room = std::find(bucket->entries.begin(), bucket->entries.end(), nullptr);
    while (room == bucket->entries.end()) {
      if (bucket->more == 0) bucket->more = make_spilled();
      bucket = &spilled_[bucket->more - 1];
      room = std::find(bucket->entries.begin(), bucket->entries.end(), nullptr);
    }
    *room = entry;
    bucket->hashes[static_cast<std::size_t>(room - bucket->entries.begin())] = entry->hash;
  }
  /// Puts the entries of the bucket where they belong now.
  void distribute(std::size_t from) {
    Bucket old = bucket_at(from);
    bucket_at(from) = {};
    for (;;) {
      for (Entry* const entry : old.entries) {
        if (entry != nullptr) push(entry);
      }
      if (old.more == 0) return;
      const std::uint32_t spilled = old.more;
      old = spilled_[spilled - 1];
      spilled_[spilled - 1] = {};
      free_spilled_.push_back(spilled);
    }
  }
  void extend() {
    if (buckets_ % kBlock == 0) blocks_.push_back(std::make_unique<Bucket[]>(kBlock));
    const std::size_t last = buckets_++;
    if (last > 0) distribute(last - std::bit_floor(last));
  }
  void shrink() {
    const std::size_t last = --buckets_;
    if (last > 0) distribute(last);
    if (last % kBlock == 0) blocks_.pop_back();
    if (buckets_ == 0) {
      spilled_.clear();
      free_spilled_ = {};
    }
  }
  std::uint32_t make_spilled() {
    if (free_spilled_.empty()) {
      spilled_.emplace_back();
      return static_cast<std::uint32_t>(spilled_.size());
    }
    const std::uint32_t spilled = free_spilled_.back();
    free_spilled_.pop_back();
    return spilled;
  }

  std::vector<std::unique_ptr<Bucket[]>> blocks_;
  std::size_t buckets_ = 0;
  std::size_t size_ = 0;
  std::deque<Bucket> spilled_;
  std::vector<std::uint32_t> free_spilled_;
};

}  // namespace framework
