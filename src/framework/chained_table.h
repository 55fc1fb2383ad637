// A hash table that never stops to move house: it grows and shrinks by one chain for each entry (linear hashing), so
// that no insertion costs more than another. Entries are the caller's and carry their link.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace framework {

/// `Entry` has the members `hash` (std::uint32_t, not changed while it is in the table) and `next` (Entry*, the
/// table's). Owns nothing. Equal entries may stand in it several times.
template <class Entry>
class ChainedTable {
 public:
  /// An entry with this hash for which `equal` holds, or null.
  template <class Equal>
  Entry* find(std::uint32_t hash, Equal equal) const {
    if (chains_.empty()) return nullptr;
    const Chain& chain = chains_[place(hash)];
    if ((chain.marks & mark(hash)) == 0) return nullptr;
    Entry* entry = chain.first;
    while (entry != nullptr && !(entry->hash == hash && equal(*entry))) entry = entry->next;
    return entry;
  }

  // For callers that look up much at once: what the next step reads is asked of the memory before others' steps are
  // done.

  void fetchChain(std::uint32_t hash) const {
    if (!chains_.empty()) __builtin_prefetch(&chains_[place(hash)]);
  }
  /// The entry that `find` looks at first, asked for too; null when there is none.
  const Entry* fetchEntry(std::uint32_t hash) const {
    if (chains_.empty()) return nullptr;
    const Chain& chain = chains_[place(hash)];
    if ((chain.marks & mark(hash)) == 0) return nullptr;
    __builtin_prefetch(&chain.first->hash);
    return chain.first;
  }

  void insert(Entry* entry) {
    chains_.emplace_back();
    if (const std::size_t last = chains_.size() - 1; last > 0) distribute(chains_[last - std::bit_floor(last)]);
    push(entry);
  }

  /// The entry is in the table.
  void erase(Entry* entry) {
    Chain& chain = chains_[place(entry->hash)];
    Entry** link = &chain.first;
    while (*link != entry) link = &(*link)->next;
    *link = entry->next;
    distribute(chain);  // its marks anew
    Chain last = chains_.back();
    chains_.pop_back();
    distribute(last);
  }

  /// `visit` may destroy the entry that it gets.
  template <class Visit>
  void forEach(Visit visit) const {
    for (const Chain& chain : chains_) {
      Entry* entry = chain.first;
      while (entry != nullptr) {
        Entry* const following = entry->next;
        visit(entry);
        entry = following;
      }
    }
  }

  /// Number of entries.
  std::size_t size() const { return chains_.size(); }

 private:
  struct Chain {
    Entry* first = nullptr;
    std::uint64_t marks = 0;  ///< of its entries' hashes: most of what is not there is told without looking at an entry
  };

  static std::uint64_t mark(std::uint32_t hash) { return std::uint64_t{1} << (hash >> 26); }
  /// As many low bits of the hash as give a place among twice the power of two that fits, one bit less when it is none.
  std::size_t place(std::uint32_t hash) const {
    const std::size_t power = std::bit_floor(chains_.size());
    const std::size_t wide = hash & (2 * power - 1);
    return wide < chains_.size() ? wide : wide & (power - 1);
  }
  void push(Entry* entry) {
    Chain& chain = chains_[place(entry->hash)];
    entry->next = chain.first;
    chain.first = entry;
    chain.marks |= mark(entry->hash);
  }
  /// Puts the entries of the chain where they belong now.
  void distribute(Chain& chain) {
    Entry* entry = chain.first;
    chain = {};
    while (entry != nullptr) {
      Entry* const following = entry->next;
      push(entry);
      entry = following;
    }
  }

  std::deque<Chain> chains_;  // as many as entries
};

}  // namespace framework
