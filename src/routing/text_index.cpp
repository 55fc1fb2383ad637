#include "routing/text_index.h"

#include <algorithm>
#include <cstring>

namespace {

std::vector<std::uint32_t>& border_room() {
  static thread_local std::vector<std::uint32_t> room;  // stays for the next search
  return room;
}

}  // namespace

SearchedValue::SearchedValue(std::string_view value)
    : value_(value), signature_(signature(value)), borders_(border_room()) {
  borders_.assign(value.size(), 0);
  std::uint32_t border = 0;
  for (std::size_t i = 1; i < value.size(); ++i) {
    while (border > 0 && value[i] != value[border]) border = borders_[border - 1];
    if (value[i] == value[border]) ++border;
    borders_[i] = border;
  }
}

bool SearchedValue::stands_in(std::string_view text) const {
  std::size_t matched = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (value_.size() - matched > text.size() - i) return false;
    while (matched > 0 && text[i] != value_[matched]) matched = borders_[matched - 1];
    if (text[i] == value_[matched] && ++matched == value_.size()) return true;
  }
  return false;
}

std::uint64_t SearchedValue::signature(std::string_view text) {
  std::uint64_t bits = 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const unsigned pair = static_cast<unsigned char>(text[i - 1]) * 256U + static_cast<unsigned char>(text[i]);
    bits |= std::uint64_t{1} << (pair * 2654435769U >> 26);
  }
  return bits;
}

void TextIndex::add(const std::string& text, std::uint32_t client) {
  auto found = by_text_.find(text);
  if (found == by_text_.end()) {
    auto made = std::make_unique<Text>();
    made->text = text;
    made->place = texts_.size();
    texts_.push_back({SearchedValue::signature(text), made.get()});
    const std::string_view key = made->text;
    found = by_text_.emplace(key, std::move(made)).first;
  }
  std::vector<Use>& uses = found->second->uses;
  const auto known = std::find_if(uses.begin(), uses.end(), [client](const Use& use) { return use.client == client; });
  if (known != uses.end()) {
    ++known->times;
  } else {
    uses.push_back({client, 1});
  }
}

void TextIndex::remove(const std::string& text, std::uint32_t client) {
  const auto found = by_text_.find(text);
  std::vector<Use>& uses = found->second->uses;
  const auto known = std::find_if(uses.begin(), uses.end(), [client](const Use& use) { return use.client == client; });
  if (--known->times > 0) return;
  uses.erase(known);
  if (!uses.empty()) return;
  Entry& freed = texts_[found->second->place];
  freed = texts_.back();
  freed.text->place = found->second->place;
  texts_.pop_back();
  by_text_.erase(found);
}

void TextIndex::count(std::string_view value, std::vector<std::size_t>& counts) const {
  const SearchedValue searched(value);
  for (const Entry& entry : texts_) {
    if (!searched.may_stand_in(entry.signature) || !searched.stands_in(entry.text->text)) continue;
    for (const Use& use : entry.text->uses) counts[use.client] += use.times;
  }
}
