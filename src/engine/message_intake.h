// What both transport listeners do with a received text before anyone else sees it: parse a copy, and recognise the
// answers to the registrar's own requests.
#pragma once

#include <memory>
#include <string_view>

#include "siplib/address.h"

class SIPLIB_message;

namespace intake {

/// Where local user agents and the registrar are.
inline constexpr std::string_view kLoopback = "127.0.0.1";

/// Where an address header points; both empty when the header is absent, too long or no address.
struct Target {
  std::unique_ptr<const SIPLIB_SIPAddress> address;  ///< What the views look at; may be null.
  std::string_view host;
  std::string_view user;
};

/// Parses a copy of the text that ends at its first NUL and is zero from there on. False, with a log line, when there
/// is no memory for it; `message` is then as it was. The caller owns the message, which may be one that does not parse.
bool parse(const char* text, unsigned int length, SIPLIB_message** message);
/// Reads "From" or "To". A value of 1000 bytes or more counts as absent.
Target target(const SIPLIB_message& message, std::string_view header);
/// True for a message from the registrar itself, which its own transactions wait for.
bool is_from_registrar(const SIPLIB_message& message);

}  // namespace intake
