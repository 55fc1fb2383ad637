#include "siplib/socket_address.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <charconv>
#include <cstring>

namespace siplib {

namespace {

// Four numbers of 0 to 255 without leading zeros, as inet_pton has it. Every message that leaves by datagram asks
// twice.
bool parseIpv4(std::string_view text, in_addr& address) {
  std::uint32_t all = 0;
  std::size_t at = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && (at == text.size() || text[at++] != '.')) return false;
    const std::size_t begin = at;
    std::uint32_t number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && at < begin + 3; ++at) {
      number = number * 10 + static_cast<std::uint32_t>(text[at] - '0');
    }
    if (at == begin || number > 255 || (text[begin] == '0' && at > begin + 1)) return false;
    all = all << 8 | number;
  }
  address.s_addr = htonl(all);
  return at == text.size();
}

}  // namespace

std::optional<SocketAddress> SocketAddress::parse(std::string_view ip, int port) {
  if (port < 0 || port > 65535) return std::nullopt;
  if (ip.size() >= 2 && ip.front() == '[' && ip.back() == ']') ip = ip.substr(1, ip.size() - 2);
  SocketAddress address;
  if (parseIpv4(ip, address.v4_.sin_addr)) {
    address.v4_.sin_family = AF_INET;
    address.v4_.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }
  address = SocketAddress();
  char text[INET6_ADDRSTRLEN + IF_NAMESIZE];
  if (ip.empty() || ip.size() >= sizeof text || ip.find('\0') != std::string_view::npos) return std::nullopt;
  std::memcpy(text, ip.data(), ip.size());
  text[ip.size()] = '\0';

  if (char* scope = std::strchr(text, '%'); scope != nullptr) {
    *scope = '\0';
    address.v6_.sin6_scope_id = if_nametoindex(scope + 1);
    if (address.v6_.sin6_scope_id == 0) return std::nullopt;
  }
  if (inet_pton(AF_INET6, text, &address.v6_.sin6_addr) != 1) return std::nullopt;
  address.v6_.sin6_family = AF_INET6;
  address.v6_.sin6_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

SocketAddress SocketAddress::localOf(int descriptor) {
  SocketAddress address;
  socklen_t size = capacity();
  if (getsockname(descriptor, address.buffer(), &size) != 0) return {};
  return address;
}

// inet_ntop writes an IPv4 address with printf, which costs more than all else that a message's address is asked for.
std::string SocketAddress::ip() const {
  if (family() == AF_INET) {
    const std::uint32_t address = ntohl(v4_.sin_addr.s_addr);
    char text[sizeof "255.255.255.255"];
    char* end = text;
    for (const int shift : {24, 16, 8, 0}) {
      if (end != text) *end++ = '.';
      end = std::to_chars(end, text + sizeof text, (address >> shift) & 0xff).ptr;
    }
    return std::string(text, end);
  }
  if (family() != AF_INET6) return {};
  char text[INET6_ADDRSTRLEN];
  std::string out = inet_ntop(AF_INET6, &v6_.sin6_addr, text, sizeof text);
  char name[IF_NAMESIZE];
  if (v6_.sin6_scope_id != 0 && if_indextoname(v6_.sin6_scope_id, name) != nullptr) out.append("%").append(name);
  return out;
}

int SocketAddress::port() const {
  if (family() == AF_INET) return ntohs(v4_.sin_port);
  return family() == AF_INET6 ? ntohs(v6_.sin6_port) : 0;
}

SocketAddress SocketAddress::withPort(int port) const {
  SocketAddress other = *this;
  if (family() == AF_INET) other.v4_.sin_port = htons(static_cast<std::uint16_t>(port));
  if (family() == AF_INET6) other.v6_.sin6_port = htons(static_cast<std::uint16_t>(port));
  return other;
}

bool SocketAddress::isLoopback() const {
  if (family() == AF_INET) return (ntohl(v4_.sin_addr.s_addr) >> 24) == 127;
  return family() == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&v6_.sin6_addr);
}

std::string SocketAddress::text() const {
  if (!known()) return "(none)";
  const std::string port_text = std::to_string(port());
  return family() == AF_INET6 ? "[" + ip() + "]:" + port_text : ip() + ":" + port_text;
}

bool SocketAddress::get(std::string& ip_out, int& port_out) const {
  if (!known()) return false;
  ip_out = ip();
  port_out = port();
  return true;
}

bool SocketAddress::operator==(const SocketAddress& other) const {
  if (family() != other.family()) return false;
  if (family() == AF_INET)
    return v4_.sin_port == other.v4_.sin_port && v4_.sin_addr.s_addr == other.v4_.sin_addr.s_addr;
  if (family() != AF_INET6) return true;
  return v6_.sin6_port == other.v6_.sin6_port && v6_.sin6_scope_id == other.v6_.sin6_scope_id &&
         std::memcmp(&v6_.sin6_addr, &other.v6_.sin6_addr, sizeof v6_.sin6_addr) == 0;
}

std::size_t SocketAddress::hash() const {
  const char* bytes = family() == AF_INET6 ? reinterpret_cast<const char*>(&v6_.sin6_addr)
                                           : reinterpret_cast<const char*>(&v4_.sin_addr);
  const std::size_t length = family() == AF_INET6 ? sizeof v6_.sin6_addr : sizeof v4_.sin_addr;
  return std::hash<std::string_view>()(std::string_view(bytes, length)) ^
         (static_cast<std::size_t>(port()) * 0x9e3779b9U);
}

}  // namespace siplib
