#include "siplib/text.h"

#include <algorithm>
#include <cstring>

namespace siplib {
namespace {

// Position of the first `wanted` outside of quotes (and brackets, if they count), or npos. `closed` tells whether
// every quote and bracket up to there was closed.
std::size_t scan(std::string_view text, char wanted, std::size_t from, bool brackets, bool& closed) {
  closed = true;
  while (from < text.size()) {
    const char c = text[from];
    if (c == wanted) return from;
    if (c == '"') {
      from = skipQuoted(text, from);
      if (from == std::string_view::npos) {
        closed = false;
        return from;
      }
    } else if (c == '<' && brackets) {
      from = text.find('>', from);
      if (from == std::string_view::npos) {
        closed = false;
        return from;
      }
      ++from;
    } else {
      ++from;
    }
  }
  return std::string_view::npos;
}

}  // namespace

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  // Names are mostly written as the RFCs write them.
  if (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0) return true;
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

// Each value of each forwarded message passes here: without a way out the compiler compares many characters at once.
bool breaksLine(std::string_view text) {
  bool found = false;
  for (const char c : text) found |= (c == '\r') | (c == '\n') | (c == '\0');
  return found;
}

std::size_t skipQuoted(std::string_view text, std::size_t open) {
  for (std::size_t i = open + 1; i < text.size(); ++i) {
    if (text[i] == '"') return i + 1;
    if (text[i] == '\\') ++i;
  }
  return std::string_view::npos;
}

std::size_t findUnquoted(std::string_view text, char wanted, std::size_t from) {
  if (from >= text.size()) return std::string_view::npos;
  // Mostly nothing is quoted, and the library's search is faster than a walk.
  const std::size_t at = text.find(wanted, from);
  if (text.substr(from, at - from).find('"') == std::string_view::npos) return at;
  bool closed = true;
  return scan(text, wanted, from, false, closed);
}

std::size_t findOutside(std::string_view text, char wanted, std::size_t from) {
  if (from >= text.size()) return std::string_view::npos;
  const std::size_t at = text.find(wanted, from);
  const std::string_view before = text.substr(from, at - from);
  if (before.find('"') == std::string_view::npos && before.find('<') == std::string_view::npos) return at;
  bool closed = true;
  return scan(text, wanted, from, true, closed);
}

bool quotesBalanced(std::string_view text) {
  if (text.find('"') == std::string_view::npos) return true;
  bool closed = true;
  scan(text, '\0', 0, false, closed);
  return closed;
}

bool bracketsBalanced(std::string_view text) {
  bool closed = true;
  scan(text, '\0', 0, true, closed);
  return closed;
}

bool nextElement(std::string_view text, List list, std::size_t& position, std::string_view& element) {
  while (position < text.size()) {
    std::size_t comma = std::string_view::npos;
    if (list != List::No) comma = text.find(',', position);
    if (list == List::Quoted && comma != std::string_view::npos) comma = findOutside(text, ',', position);
    const std::size_t end = std::min(comma, text.size());
    element = trim(text.substr(position, end - position));
    position = end == text.size() ? end : end + 1;
    if (!element.empty()) return true;
  }
  return false;
}

}  // namespace siplib
