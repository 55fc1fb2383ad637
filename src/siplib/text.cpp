#include "siplib/text.h"

#include <algorithm>
#include <cstring>

namespace siplib {
namespace {

constexpr std::size_t kNone = std::string_view::npos;

// Position of the first `wanted` outside of quotes, or npos. `closed` tells whether every quote up to there was closed.
// Character by character: mostly few stand before it, or before a quote.
std::size_t scanQuotes(std::string_view text, char wanted, std::size_t from, bool& closed) {
  closed = true;
  while (from < text.size()) {
    if (text[from] == wanted) return from;
    if (text[from] != '"') {
      ++from;
      continue;
    }
    from = skipQuoted(text, from);
    closed = from != kNone;
  }
  return kNone;
}

// The same outside of quotes and brackets.
std::size_t scanBrackets(std::string_view text, char wanted, std::size_t from, bool& closed) {
  closed = true;
  while (from < text.size()) {
    const char c = text[from];
    if (c == wanted) return from;
    if (c == '"') {
      from = skipQuoted(text, from);
    } else if (c == '<') {
      from = text.find('>', from);
      if (from != kNone) ++from;
    } else {
      ++from;
      continue;
    }
    if (from == kNone) {
      closed = false;
      return from;
    }
  }
  return kNone;
}

}  // namespace

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

bool equalLetters(std::string_view a, std::string_view b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::optional<std::uint32_t> decimal(std::string_view text, std::uint32_t largest) {
  if (text.empty()) return std::nullopt;
  std::uint64_t number = 0;
  for (const char c : text) {
    if (!isDigit(c)) return std::nullopt;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
    if (number > largest) return std::nullopt;
  }
  return static_cast<std::uint32_t>(number);
}

// Each value of each forwarded message passes here, mostly short: eight characters at a time, the last eight once more.
// What is found at first is any below 14; a tab is one too.
bool breaksLine(std::string_view text) {
  constexpr std::uint64_t ones = ~std::uint64_t{0} / 255;
  constexpr std::size_t step = sizeof(std::uint64_t);
  const auto holdsLow = [&](std::size_t at) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, step);
    return ((word - ones * 14) & ~word & (ones << 7)) != 0;
  };
  if (text.size() >= step) {
    bool low = holdsLow(text.size() - step);
    for (std::size_t at = 0; at + step < text.size(); at += step) low = low || holdsLow(at);
    if (!low) return false;
  }
  return std::any_of(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

// Each head passes here: without a way out of the loop, and one byte wide, the compiler compares sixteen characters at
// once.
bool linesWhole(std::string_view text) {
  if (text.empty()) return true;
  unsigned char broken = text.front() == '\n' || text.back() == '\r' ? 1 : 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    broken = static_cast<unsigned char>(broken | ((text[i] == '\n') ^ (text[i - 1] == '\r')));
  }
  return broken == 0;
}

Utf8 utf8At(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const std::uint32_t lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const std::size_t size = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
  if (size == 0 || size > text.size() - at) return {};
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  std::uint32_t value = lead & (0x7fU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {};
    value = (value << 6) | (byte(i) & 0x3fU);
  }
  if (value < kLeast[size] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return {};
  return {value, size};
}

std::size_t skipQuoted(std::string_view text, std::size_t open) {
  for (std::size_t i = open + 1; i < text.size(); ++i) {
    if (text[i] == '"') return i + 1;
    if (text[i] == '\\') ++i;
  }
  return kNone;
}

std::size_t findUnquoted(std::string_view text, char wanted, std::size_t from) {
  bool closed = true;
  return scanQuotes(text, wanted, from, closed);
}

std::size_t findOutside(std::string_view text, char wanted, std::size_t from) {
  if (from >= text.size()) return kNone;
  const std::size_t at = text.find(wanted, from);
  const std::string_view before = text.substr(from, at - from);
  if (before.find('"') == kNone && before.find('<') == kNone) return at;
  bool closed = true;
  return scanBrackets(text, wanted, from, closed);
}

bool quotesBalanced(std::string_view text) {
  for (std::size_t quote = text.find('"'); quote != kNone; quote = text.find('"', quote)) {
    quote = skipQuoted(text, quote);
    if (quote == kNone) return false;
  }
  return true;
}

bool bracketsBalanced(std::string_view text) {
  bool closed = true;
  scanBrackets(text, '\0', 0, closed);
  return closed;
}

bool nextElement(std::string_view text, List list, std::size_t& position, std::string_view& element) {
  while (position < text.size()) {
    std::size_t comma = kNone;
    if (list != List::No) comma = text.find(',', position);
    if (list == List::Quoted && comma != kNone) comma = findOutside(text, ',', position);
    const std::size_t end = std::min(comma, text.size());
    element = trim(text.substr(position, end - position));
    position = end == text.size() ? end : end + 1;
    if (!element.empty()) return true;
  }
  return false;
}

}  // namespace siplib
