// What a search of the client table found, counted.
//
// A search gives a list of keys: each client's as often as something of it matches, sorted, and then compacted without
// being shortened (the distinct keys first; what stands behind them keeps the value that the sorted list has there).
// How many there are, and which, decides who gets a request. A list may have a hundred thousand elements where a few
// clients are found, so it is kept as the sorted list's runs, from which all of that follows.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

class ClientMatches {
 public:
  /// Elements of the list.
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  /// The first key; there is one.
  const std::string& front() const { return *runs_.front().key; }

  void clear() {
    runs_.clear();
    size_ = 0;
  }
  /// A key that is greater than those added before and stays where it is; nothing for 0 times.
  void add(const std::string& key, std::size_t times) {
    if (times == 0) return;
    runs_.push_back({&key, times});
    size_ += times;
  }
  /// Each distinct key, in order, with the number of elements that have it.
  template <class Visit>
  void for_each_key(Visit visit) const {
    std::size_t begin = 0;
    for (const Run& run : runs_) {
      const std::size_t end = begin + run.times;
      const std::size_t behind = std::max(begin, runs_.size());
      visit(*run.key, 1 + (end > behind ? end - behind : 0));
      begin = end;
    }
  }
  /// The elements, one after the other.
  template <class Visit>
  void for_each(Visit visit) const {
    for (const Run& run : runs_) visit(*run.key);
    std::size_t position = 0;
    for (const Run& run : runs_) {
      for (std::size_t i = 0; i < run.times; ++i, ++position) {
        if (position >= runs_.size()) visit(*run.key);
      }
    }
  }
  /// Appends each key as often as something of its client matches: the list before it was compacted.
  void append_to(std::vector<std::string>& keys) const {
    for (const Run& run : runs_) keys.insert(keys.end(), run.times, *run.key);
  }
  std::vector<std::string> list() const {
    std::vector<std::string> keys;
    keys.reserve(size_);
    for_each([&keys](const std::string& key) { keys.push_back(key); });
    return keys;
  }

 private:
  struct Run {
    const std::string* key;
    std::size_t times;
  };
  std::vector<Run> runs_;
  std::size_t size_ = 0;
};
