// A hash table that never stops to move house: it grows and shrinks by one chain for each entry (linear hashing), so
// that no insertion costs more than another. Entries are the caller's and carry their link.
#pragma once

#include <bit>
#include <cstddef>
#include <deque>

namespace framework {

/// `Entry` has the members `hash` (any unsigned number, not changed while it is in the table) and `next` (Entry*, the
/// table's). Owns nothing. Equal entries may stand in it several times.
template <class Entry>
class ChainedTable {
 public:
  /// An entry with this hash for which `equal` holds, or null.
  template <class Hash, class Equal>
  Entry* find(Hash hash, Equal equal) const {
    if (chains_.empty()) return nullptr;
    Entry* entry = chains_[place(hash)];
    while (entry != nullptr && !(entry->hash == hash && equal(*entry))) entry = entry->next;
    return entry;
  }

  void insert(Entry* entry) {
    chains_.push_back(nullptr);
    if (const std::size_t last = chains_.size() - 1; last > 0) redistribute(last - std::bit_floor(last));
    push(entry);
  }

  /// The entry is in the table.
  void erase(Entry* entry) {
    Entry** link = &chains_[place(entry->hash)];
    while (*link != entry) link = &(*link)->next;
    *link = entry->next;
    Entry* homeless = chains_.back();
    chains_.pop_back();
    while (homeless != nullptr) {
      Entry* const following = homeless->next;
      push(homeless);
      homeless = following;
    }
  }

  /// `visit` may destroy the entry that it gets.
  template <class Visit>
  void forEach(Visit visit) const {
    for (Entry* entry : chains_) {
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
  /// As many low bits of the hash as give a place among twice the power of two that fits, one bit less when it is none.
  template <class Hash>
  std::size_t place(Hash hash) const {
    const std::size_t power = std::bit_floor(chains_.size());
    const std::size_t wide = static_cast<std::size_t>(hash) & (2 * power - 1);
    return wide < chains_.size() ? wide : wide & (power - 1);
  }
  void push(Entry* entry) {
    Entry*& chain = chains_[place(entry->hash)];
    entry->next = chain;
    chain = entry;
  }
  /// Some entries of the chain belong to the newest one now.
  void redistribute(std::size_t from) {
    Entry* entry = chains_[from];
    chains_[from] = nullptr;
    while (entry != nullptr) {
      Entry* const following = entry->next;
      push(entry);
      entry = following;
    }
  }

  std::deque<Entry*> chains_;  // as many as entries
};

}  // namespace framework
