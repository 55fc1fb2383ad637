// Whose process a local peer is, by the kernel's socket tables (NETLINK_SOCK_DIAG).
//
// A TCP peer is found by its two ends; nobody else can have them while the connection is held here. A datagram says
// less: whoever has a socket on the same port of any local address can give it the sender's address, and a socket may
// be gone before it is looked for. So all sockets of the sender's port must be one user's. What is left is a moment:
// the port of a socket that was closed right after it sent can be another user's by then.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "siplib/socket_address.h"

namespace siplib {

/// The user id of the process that has the socket `peer`, an IPv4 loopback address; `local` is our end of the
/// connection. Nothing when it is not known for certain: `why` then says so in a few words. They ask the kernel anew
/// each time and do not block. Any thread.
std::optional<uid_t> tcpPeerOwner(const SocketAddress& peer, const SocketAddress& local, std::string& why);
std::optional<uid_t> udpPeerOwner(const SocketAddress& peer, std::string& why);

}  // namespace siplib
