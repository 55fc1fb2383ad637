// In which of the stored texts a value stands. Equal texts are kept, and searched, once; each search is linear in the
// text, whatever the bytes are. The signature of a text, a bit for each pair of neighbouring bytes, tells of most texts
// in which the value does not stand without looking at them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A value to search for. Views the value.
class SearchedValue {
 public:
  /// Not empty.
  explicit SearchedValue(std::string_view value);
  bool stands_in(std::string_view text) const;
  /// Of any text, the value's too.
  static std::uint64_t signature(std::string_view text);
  bool may_stand_in(std::uint64_t signature) const { return (signature_ & ~signature) == 0; }

 private:
  std::string_view value_;
  std::uint64_t signature_;
  std::vector<std::uint32_t>& borders_;  ///< of each beginning of the value: the longest part that starts and ends it
};

/// Texts belong to clients, which are small numbers here. Loop thread only.
class TextIndex {
 public:
  /// The same text of the same client may be added several times, and counts as often.
  void add(const std::string& text, std::uint32_t client);
  /// What was added.
  void remove(const std::string& text, std::uint32_t client);
  /// Adds to counts[client], for each client, in how many of its texts the value stands.
  void count(std::string_view value, std::vector<std::size_t>& counts) const;

 private:
  struct Use {
    std::uint32_t client;
    std::uint32_t times;
  };
  struct Text {
    std::string text;
    std::vector<Use> uses;
    std::size_t place = 0;  ///< in texts_
  };
  struct Entry {
    std::uint64_t signature;
    Text* text;
  };
  std::map<std::string_view, std::unique_ptr<Text>> by_text_;
  std::vector<Entry> texts_;  ///< the same, in no order, for walking
};
