// Reason phrases.
#pragma once

#include <string_view>

namespace siplib {

/// The usual phrase of a status (RFC 3261 21, RFC 6665 7.3, RFC 3329); for one that has none, that of its class (x00).
/// Empty outside 100 to 699. Static text.
std::string_view reasonPhrase(int status);

}  // namespace siplib
