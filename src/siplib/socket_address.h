// One IPv4 or IPv6 address and port, as sockets and tables need it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace siplib {

class SocketAddress {
 public:
  /// No address; known() is false.
  SocketAddress() : v6_{} {}
  /// A literal address, an IPv6 one with or without brackets, with a scope ("fe80::1%eth0") if need be. Nothing for a
  /// name, or a port outside 0 to 65535.
  static std::optional<SocketAddress> parse(std::string_view ip, int port);
  static SocketAddress localOf(int descriptor);

  bool known() const { return any_.sa_family != AF_UNSPEC; }
  int family() const { return any_.sa_family; }
  /// Without brackets; empty when not known.
  std::string ip() const;
  int port() const;
  SocketAddress withPort(int port) const;
  bool isLoopback() const;
  /// ip:port, for log lines.
  std::string text() const;
  /// Gives ip and port out; false when not known.
  bool get(std::string& ip_out, int& port_out) const;

  const sockaddr* data() const { return &any_; }
  socklen_t size() const { return family() == AF_INET6 ? sizeof v6_ : sizeof v4_; }
  /// For calls that write an address.
  sockaddr* buffer() { return &any_; }
  static constexpr socklen_t capacity() { return sizeof(sockaddr_in6); }

  bool operator==(const SocketAddress& other) const;
  std::size_t hash() const;

 private:
  union {
    sockaddr any_;
    sockaddr_in v4_;
    sockaddr_in6 v6_;
  };
};

}  // namespace siplib

template <>
struct std::hash<siplib::SocketAddress> {
  std::size_t operator()(const siplib::SocketAddress& address) const { return address.hash(); }
};
