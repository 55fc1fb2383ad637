// The known headers: one row each, and nothing about a header's syntax is said anywhere else. A header that is not here
// is one value a line and has no compact form.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "siplib/text.h"

namespace siplib {

struct HeaderRow {
  std::string_view name;
  char compact;  ///< The one-letter form in lower case (RFC 3261 7.3.3); 0 when there is none.
  List list;     ///< Whether a line may hold several values (RFC 3261 7.3.1).
  std::string_view reference;
};

/// A row's number plus one, so that 0 is free for "not in the table".
using HeaderId = std::uint8_t;
inline constexpr HeaderId kUnknownHeader = 0;
inline constexpr HeaderId kContentLength = 1;

std::span<const HeaderRow> headerTable();

/// By full or compact name, without regard to case. The whole name is compared; the hash only finds the row.
HeaderId headerId(std::string_view name);

/// How the values of this header divide; List::No for an unknown one.
List headerList(HeaderId id);

}  // namespace siplib
