#include "siplib/peer_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "siplib/socket.h"

namespace siplib {
namespace {

// The kernel's answer about one socket is smaller.
constexpr std::size_t kAnswer = 4096;

struct Request {
  nlmsghdr header;
  inet_diag_req_v2 diag;
};

const sockaddr_in& ipv4(const SocketAddress& address) {
  return *reinterpret_cast<const sockaddr_in*>(address.data());
}

Request requestFor(const SocketAddress& peer, const SocketAddress& local) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.diag.sdiag_family = AF_INET;
  request.diag.sdiag_protocol = IPPROTO_TCP;
  request.diag.idiag_states = ~0U;
  inet_diag_sockid& id = request.diag.id;
  std::fill(std::begin(id.idiag_cookie), std::end(id.idiag_cookie), INET_DIAG_NOCOOKIE);
  id.idiag_sport = ipv4(peer).sin_port;
  id.idiag_dport = ipv4(local).sin_port;
  id.idiag_src[0] = ipv4(peer).sin_addr.s_addr;
  id.idiag_dst[0] = ipv4(local).sin_addr.s_addr;
  return request;
}

/// The answer to the question for a socket when there is none.
bool isNone(const nlmsghdr& message) {
  nlmsgerr error;
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof error)) return false;
  std::memcpy(&error, NLMSG_DATA(&message), sizeof error);
  return error.error == -ENOENT;
}

/// Asks the kernel for the socket; left as it is when there is none. False when there was no answer.
bool ask(const Request& request, inet_diag_msg& socket) {
  const FileDescriptor kernel(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  const sockaddr_nl address{AF_NETLINK, 0, 0, 0};
  if (!kernel || ::sendto(kernel.get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&address),
                          sizeof address) < 0) {
    return false;
  }
  alignas(nlmsghdr) char answer[kAnswer];
  // The kernel has answered before the question's call ended.
  const ssize_t got = ::recv(kernel.get(), answer, sizeof answer, MSG_DONTWAIT);
  const auto* const message = reinterpret_cast<const nlmsghdr*>(answer);
  if (got <= 0 || !NLMSG_OK(message, static_cast<unsigned int>(got))) return false;
  if (message->nlmsg_type == NLMSG_ERROR) return isNone(*message);
  if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY || message->nlmsg_len < NLMSG_LENGTH(sizeof socket)) return false;
  std::memcpy(&socket, NLMSG_DATA(message), sizeof socket);
  return true;
}

/// Other hosts' sockets are not in these tables, and another address of this host may be one of theirs.
bool isAskable(const SocketAddress& address) {
  return address.family() == AF_INET && address.isLoopback();
}

}  // namespace

std::optional<uid_t> tcpPeerOwner(const SocketAddress& peer, const SocketAddress& local, std::string& why) {
  if (!isAskable(peer) || !isAskable(local)) {
    why = "no loopback address";
    return std::nullopt;
  }
  const Request request = requestFor(peer, local);
  inet_diag_msg socket{};
  if (!ask(request, socket)) {
    why = "the kernel does not tell";
    return std::nullopt;
  }
  // Without such a connection the kernel names who listens on the port. One that its process has closed has no owner
  // any more and is shown as user 0.
  if (socket.idiag_inode == 0 || socket.idiag_state == TCP_LISTEN ||
      socket.id.idiag_sport != request.diag.id.idiag_sport || socket.id.idiag_dport != request.diag.id.idiag_dport) {
    why = "its socket is gone";
    return std::nullopt;
  }
  return socket.idiag_uid;
}

}  // namespace siplib
