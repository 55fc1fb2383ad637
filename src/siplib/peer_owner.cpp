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

// More sockets than this on one port are nobody's phone, and reading them all is work that a peer would choose.
constexpr int kMostSockets = 64;
// The kernel's answers come in pieces of at most this size.
constexpr std::size_t kAnswer = 16384;

struct Request {
  nlmsghdr header;
  inet_diag_req_v2 diag;
};

Request requestFor(int family, int protocol, int flags) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  request.diag.sdiag_family = static_cast<std::uint8_t>(family);
  request.diag.sdiag_protocol = static_cast<std::uint8_t>(protocol);
  request.diag.idiag_states = ~0U;
  std::fill(std::begin(request.diag.id.idiag_cookie), std::end(request.diag.id.idiag_cookie), INET_DIAG_NOCOOKIE);
  return request;
}

const sockaddr_in& ipv4(const SocketAddress& address) {
  return *reinterpret_cast<const sockaddr_in*>(address.data());
}

/// One question to the kernel.
class Question {
 public:
  Question() : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}

  /// Calls `take` with each socket of the answer, until it says false. False then, and when there was no answer.
  template <typename Take>
  bool ask(const Request& request, Take take) {
    const sockaddr_nl kernel{AF_NETLINK, 0, 0, 0};
    if (!socket_ || ::sendto(socket_.get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&kernel),
                             sizeof kernel) < 0) {
      return false;
    }
    const bool many = (request.header.nlmsg_flags & NLM_F_DUMP) != 0;
    for (;;) {
      alignas(nlmsghdr) char answer[kAnswer];
      // The kernel has answered before the question's call ended, or does so in this one.
      const ssize_t got = ::recv(socket_.get(), answer, sizeof answer, MSG_DONTWAIT);
      if (got <= 0) return false;
      auto left = static_cast<unsigned int>(got);
      const auto* message = reinterpret_cast<const nlmsghdr*>(answer);
      for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == NLMSG_DONE) return true;
        if (message->nlmsg_type == NLMSG_ERROR) return isNone(*message);
        if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY) return false;
        inet_diag_msg socket;
        if (message->nlmsg_len < NLMSG_LENGTH(sizeof socket)) return false;
        std::memcpy(&socket, NLMSG_DATA(message), sizeof socket);
        if (!take(socket)) return false;
        if (!many) return true;
      }
    }
  }

 private:
  /// The answer to the question for one socket when there is none.
  static bool isNone(const nlmsghdr& message) {
    nlmsgerr error;
    if (message.nlmsg_len < NLMSG_LENGTH(sizeof error)) return false;
    std::memcpy(&error, NLMSG_DATA(&message), sizeof error);
    return error.error == -ENOENT;
  }

  FileDescriptor socket_;
};

/// Other hosts' sockets are not in these tables, and another address of this host may be one of theirs.
bool isAskable(const SocketAddress& address) {
  return address.family() == AF_INET && address.isLoopback();
}

enum class Reach { Never, IfAsked, Always };
/// Whether datagrams of the socket can come from the peer's address: always when it is bound to it, and from any other
/// address of this host when they name their source themselves (IP_PKTINFO).
Reach reachOf(const inet_diag_msg& socket, const SocketAddress& peer) {
  const auto& bound = socket.id.idiag_src;
  in_addr_t address = bound[0];
  if (socket.idiag_family == AF_INET6) {
    const bool any = bound[0] == 0 && bound[1] == 0 && bound[2] == 0 && bound[3] == 0;
    const bool mapped = bound[0] == 0 && bound[1] == 0 && bound[2] == htonl(0xffff);
    if (!any && !mapped) return Reach::Never;
    address = bound[3];
  }
  return address == INADDR_ANY || address == ipv4(peer).sin_addr.s_addr ? Reach::Always : Reach::IfAsked;
}

}  // namespace

std::optional<uid_t> tcpPeerOwner(const SocketAddress& peer, const SocketAddress& local, std::string& why) {
  if (!isAskable(peer) || !isAskable(local)) {
    why = "no loopback address";
    return std::nullopt;
  }
  Request request = requestFor(AF_INET, IPPROTO_TCP, 0);
  inet_diag_sockid& id = request.diag.id;
  id.idiag_sport = ipv4(peer).sin_port;
  id.idiag_dport = ipv4(local).sin_port;
  id.idiag_src[0] = ipv4(peer).sin_addr.s_addr;
  id.idiag_dst[0] = ipv4(local).sin_addr.s_addr;
  std::optional<uid_t> owner;
  const bool told = Question().ask(request, [&](const inet_diag_msg& socket) {
    // Without such a connection the kernel names who listens on the port. One that its process has closed has no owner
    // any more and is shown as user 0.
    if (socket.idiag_state != TCP_LISTEN && socket.id.idiag_sport == id.idiag_sport &&
        socket.id.idiag_dport == id.idiag_dport && socket.idiag_inode != 0) {
      owner = socket.idiag_uid;
    }
    return true;
  });
  if (!owner) why = told ? "its socket is gone" : "the kernel does not tell";
  return owner;
}

std::optional<uid_t> udpPeerOwner(const SocketAddress& peer, std::string& why) {
  if (!isAskable(peer)) {
    why = "no loopback address";
    return std::nullopt;
  }
  std::optional<uid_t> owner;
  bool found = false;
  int seen = 0;
  why.clear();
  for (const int family : {AF_INET, AF_INET6}) {
    Request request = requestFor(family, IPPROTO_UDP, NLM_F_DUMP);
    request.diag.id.idiag_sport = ipv4(peer).sin_port;
    const bool told = Question().ask(request, [&](const inet_diag_msg& socket) {
      const Reach reach = reachOf(socket, peer);
      if (socket.id.idiag_sport != request.diag.id.idiag_sport || reach == Reach::Never) return true;
      if (++seen > kMostSockets || socket.idiag_inode == 0 || owner.value_or(socket.idiag_uid) != socket.idiag_uid) {
        why = "its port is shared";
        return false;
      }
      owner = socket.idiag_uid;
      found = found || reach == Reach::Always;
      return true;
    });
    if (!told && why.empty()) why = "the kernel does not tell";
  }
  if (why.empty() && !found) why = "its socket is gone";
  return why.empty() ? owner : std::nullopt;
}

}  // namespace siplib
