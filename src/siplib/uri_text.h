// Host texts as they stand in a Via's sent-by and in a URI.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace siplib {

/// How much of the beginning of `text` is a host: a name, an IPv4 address, or an IPv6 address in its brackets. 0 when
/// it does not begin with one. What is in the brackets is not judged: odd addresses are carried, not understood.
std::size_t hostLength(std::string_view text);

/// `host` as it is written in a URI or Via: an IPv6 address without brackets gets them. Empty when it is no host.
std::string hostText(std::string_view host);

}  // namespace siplib
