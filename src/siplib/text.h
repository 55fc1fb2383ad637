// Small text tools that every reader of SIP text needs: character classes of RFC 3261 25.1, comparing without regard to
// case, trimming, numbers, quoted strings, comma lists. All are total: any bytes, no allocation, linear time, no
// reading outside of the view.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace siplib {

constexpr bool isBlank(char c) {
  return c == ' ' || c == '\t';
}
/// White space within a value: a fold's CRLF counts too (RFC 3261 25.1, LWS).
constexpr bool isLws(char c) {
  return isBlank(c) || c == '\r' || c == '\n';
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
/// ASCII only: SIP names know no other case.
constexpr char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

/// Which of the 256 characters a predicate holds for: one load where it would be a chain of comparisons.
template <class Predicate>
constexpr std::array<bool, 256> characterTable(Predicate predicate) {
  std::array<bool, 256> table{};
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = predicate(static_cast<char>(i));
  return table;
}

inline constexpr std::array<bool, 256> kTokenChars = characterTable([](char c) {
  return isAlpha(c) || isDigit(c) || (c != '\0' && std::string_view("-.!%*_+`'~").find(c) != std::string_view::npos);
});
/// One character of a token.
constexpr bool isTokenChar(char c) {
  return kTokenChars[static_cast<unsigned char>(c)];
}
/// A token of at least one character.
bool isToken(std::string_view text);

/// Without regard to case, character by character. Both texts have the same length.
bool equalLetters(std::string_view a, std::string_view b);

/// Byte for byte, as two words that may overlap: `size` is one to two times the size of a word.
template <class Word>
bool equalWords(const char* a, const char* b, std::size_t size) {
  const auto load = [](const char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
  };
  const std::size_t last = size - sizeof(Word);
  return ((load(a) ^ load(b)) | (load(a + last) ^ load(b + last))) == 0;
}

/// Without regard to case. Names are mostly written as the RFCs write them, and short: so the bytes are compared first.
inline bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  const std::size_t size = a.size();
  if (size != b.size()) return false;
  if (size >= sizeof(std::uint64_t) && size <= 2 * sizeof(std::uint64_t)) {
    if (equalWords<std::uint64_t>(a.data(), b.data(), size)) return true;
  } else if (size >= sizeof(std::uint32_t) && size < sizeof(std::uint64_t)) {
    if (equalWords<std::uint32_t>(a.data(), b.data(), size)) return true;
  }
  return equalLetters(a, b);
}

/// Without white space (see isLws) at either end.
constexpr std::string_view trim(std::string_view text) {
  while (!text.empty() && isLws(text.front())) text.remove_prefix(1);
  while (!text.empty() && isLws(text.back())) text.remove_suffix(1);
  return text;
}

/// The first position at or after `from` that is not white space; the size when there is none.
constexpr std::size_t skipLws(std::string_view text, std::size_t from) {
  while (from < text.size() && isLws(text[from])) ++from;
  return from;
}

/// A number of digits only, leading zeros allowed; nothing for an empty text, any other character, or more than
/// `largest`. Does not wrap around.
std::optional<std::uint32_t> decimal(std::string_view text, std::uint32_t largest);

/// True when the text holds CR, LF or NUL: what could end a header line for one reader or another.
bool breaksLine(std::string_view text);
/// True when the text holds no CR without its LF and no LF without its CR.
bool linesWhole(std::string_view text);

/// One character of a UTF-8 text.
struct Utf8 {
  std::uint32_t value = 0;
  std::size_t size = 0;  ///< in bytes
};
/// The character that begins at `at`, which is less than the size. Its size is 0 when none does: RFC 3629 has no
/// overlong forms, no surrogates and nothing above U+10FFFF.
Utf8 utf8At(std::string_view text, std::size_t at);

/// `open` is the position of a quote: the position after the quote that closes it, escapes seen (RFC 3261 25.1,
/// quoted-string); npos when nothing closes it.
std::size_t skipQuoted(std::string_view text, std::size_t open);

/// The first `wanted` at or after `from` that stands outside of quoted strings; npos when there is none, also when a
/// quote is not closed before it.
std::size_t findUnquoted(std::string_view text, char wanted, std::size_t from = 0);
/// The same, and outside of angle brackets. Quotes have no meaning between brackets (a URI has none).
std::size_t findOutside(std::string_view text, char wanted, std::size_t from = 0);

/// False when a quoted string is left open.
bool quotesBalanced(std::string_view text);
/// False when a bracket, or a quoted string outside of brackets, is left open.
bool bracketsBalanced(std::string_view text);

/// How a header's value divides into several.
enum class List : std::uint8_t {
  No,      ///< The line is one value.
  Quoted,  ///< At commas outside of quoted strings and angle brackets.
  Plain,   ///< At every comma: the grammar's words may hold single quotes and brackets (In-Reply-To).
};

/// Takes the next value of `text` from `position` on, without surrounding white space, and moves `position` behind it.
/// Empty pieces (", ,") are passed over. False when there is no further one. What an open quote or bracket swallows is
/// one value. Comments (in parentheses) occur in no list grammar of RFC 3261 and are ordinary text; a user part may
/// hold a single parenthesis.
bool nextElement(std::string_view text, List list, std::size_t& position, std::string_view& element);

}  // namespace siplib
