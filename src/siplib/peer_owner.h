// Whose process a local peer is, by the kernel's socket tables (NETLINK_SOCK_DIAG).
//
// A TCP peer is found by its two ends; nobody else can have them while the connection is held here. A datagram's sender
// is never known: whoever has a socket on the same port of any local address can give it another's source, and may have
// closed that socket before it is looked for.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "siplib/socket_address.h"

namespace siplib {

/// Why the user who sent a datagram is not known.
constexpr const char* kDatagramOwner = "a datagram does not tell whose it is";

/// The user id of the process that has the socket `peer`, an IPv4 loopback address; `local` is our end of the
/// connection. Nothing when it is not known for certain: `why` then says so in a few words. It asks the kernel anew
/// each time and does not block. Any thread.
std::optional<uid_t> tcpPeerOwner(const SocketAddress& peer, const SocketAddress& local, std::string& why);

}  // namespace siplib
