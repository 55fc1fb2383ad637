// What transactions and dialogs go by in a message, read once and checked.
//
// libosip2 accepts messages without From, To or Call-ID and lets large numbers wrap around, so nothing reaches its
// machines that did not pass here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "siplib/message.h"

namespace siplib {

struct Head {
  /// The topmost Via: its whole value, and of it the branch (may be empty: RFC 2543), host and port of the sent-by
  /// (5060 when it has none), and whether it has the parameter rport (RFC 3581).
  std::string via;
  std::string branch;
  std::string sent_by;
  int sent_by_port = 5060;
  bool rport = false;
  /// Whole values, and their tags (empty when absent).
  std::string from;
  std::string from_tag;
  std::string to;
  std::string to_tag;
  std::string call_id;
  /// CSeq.
  std::uint32_t number = 0;
  std::string method;
};

/// Reads the head of a valid message. Null when all is well, else what is wrong (static text): a header is missing, is
/// there twice, or cannot be read; the CSeq number is not one of 0 to 2^31-1 or its method not the request's (RFC 3261
/// 8.1.1.5). What could be read is in `head` then.
const char* readHead(const SIPLIB_message& message, Head& head);

/// Names a server transaction (RFC 3261 17.2.3). Requests with the same key are one request and its retransmissions.
std::string serverKey(const Head& head, std::string_view request_uri);
/// Names a client transaction (RFC 3261 17.1.3).
std::string clientKey(const Head& head);
/// The branch that says it is unique (RFC 3261 8.1.1.7), new for each call.
std::string newBranch();
/// New for each call.
std::string newTag();

/// A parameter of the header value itself (not of a URI within it); empty when absent.
std::string headerParameter(std::string_view name, std::string_view value, std::string_view parameter);
/// The URI within a Contact, Route or Record-Route value, with its parameters, without "?headers"; empty when none.
std::string uriWithin(std::string_view value);
/// Where a URI leads to when its host is a literal address.
struct Hop {
  /// Without brackets; empty when the host is a name or the URI is not a sip URI: nothing is looked up here.
  std::string ip;
  int port = 5060;
  /// Lower case; empty when the URI leaves it open.
  std::string transport;
};
Hop hopOf(std::string_view uri);
/// "<sip:ip:port>", for TCP with its transport parameter.
std::string contactValue(std::string_view ip, int port, bool reliable);

/// A new answer to the request: Via, From, To (given the tag when it has none and this is not 100), Call-ID and CSeq
/// taken over (RFC 3261 8.2.6.2). The caller owns it.
SIPLIB_message* newAnswer(const SIPLIB_message& request, int status, std::string_view to_tag);

}  // namespace siplib
