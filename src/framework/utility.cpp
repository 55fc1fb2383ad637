#include "framework/utility.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

namespace {

std::string textOf(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address->sa_family == AF_INET) {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  } else {
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
  }
  return text;
}

bool isGlobal(const in6_addr& address) {
  return !IN6_IS_ADDR_LINKLOCAL(&address) && !IN6_IS_ADDR_LOOPBACK(&address) && !IN6_IS_ADDR_MULTICAST(&address) &&
         !IN6_IS_ADDR_UNSPECIFIED(&address);
}

/// The interface's first address of the family (AF_INET, or AF_INET6 of global scope); empty when it has none.
std::string addressOf(const std::string& interface, int family) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family || interface != entry->ifa_name) continue;
    if (family == AF_INET6 && !isGlobal(reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr)) continue;
    return textOf(entry->ifa_addr);
  }
  return {};
}

/// Reads the kernel's routing table; of several default routes the one with the lowest metric.
std::string defaultInterface(int family) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(
      std::fopen(family == AF_INET ? "/proc/net/route" : "/proc/net/ipv6_route", "re"), std::fclose);
  if (!file) return {};
  std::string best;
  unsigned long best_metric = std::numeric_limits<unsigned long>::max();
  char line[512];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    char interface[IF_NAMESIZE] = "";
    unsigned long metric = 0;
    unsigned int flags = 0;
    bool is_default = false;
    if (family == AF_INET) {
      unsigned int destination = 1;
      unsigned int mask = 1;
      // The first line holds the names of the columns and does not scan.
      if (std::sscanf(line, "%15s %x %*x %x %*d %*d %lu %x", interface, &destination, &flags, &metric, &mask) != 5) {
        continue;
      }
      is_default = destination == 0 && mask == 0;
    } else {
      char destination[33] = "";
      unsigned int length = 1;
      if (std::sscanf(line, "%32s %x %*32s %*x %*32s %lx %*x %*x %x %15s", destination, &length, &metric, &flags,
                      interface) != 5) {
        continue;
      }
      is_default = length == 0 && std::strspn(destination, "0") == 32;
    }
    if (!is_default || (flags & RTF_UP) == 0 || (flags & RTF_REJECT) != 0 || metric >= best_metric) continue;
    best_metric = metric;
    best = interface;
  }
  return best;
}

/// An address is this host's when a socket can be bound to it: every address of 127.0.0.0/8 is, though only one of
/// them stands at the interface. Nothing is sent.
bool isOurs(const sockaddr* address, socklen_t size) {
  const int probe = ::socket(address->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  // A broadcast address can be bound too, but not connected to.
  bool ours = ::bind(probe, address, size) == 0;
  if (ours) {
    sockaddr_storage self{};
    socklen_t self_size = sizeof self;
    ours = ::getsockname(probe, reinterpret_cast<sockaddr*>(&self), &self_size) == 0 &&
           ::connect(probe, reinterpret_cast<const sockaddr*>(&self), self_size) == 0;
  }
  ::close(probe);
  return ours;
}

/// True when the selector is an address written out; `address` then has it when it is this host's.
bool literalAddress(const std::string& selector, std::string& address) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  if (::inet_pton(AF_INET, selector.c_str(), &v4.sin_addr) == 1) {
    const in_addr_t number = ntohl(v4.sin_addr.s_addr);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&v4);
    if (number != INADDR_ANY && !IN_MULTICAST(number) && isOurs(plain, sizeof v4)) address = textOf(plain);
    return true;
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  if (::inet_pton(AF_INET6, selector.c_str(), &v6.sin6_addr) == 1) {
    const auto* const plain = reinterpret_cast<const sockaddr*>(&v6);
    if (!IN6_IS_ADDR_UNSPECIFIED(&v6.sin6_addr) && !IN6_IS_ADDR_MULTICAST(&v6.sin6_addr) && isOurs(plain, sizeof v6)) {
      address = textOf(plain);
    }
    return true;
  }
  return false;
}

}  // namespace

void IMS_utility::tokenize(std::string_view text, std::vector<std::string>& pieces, std::string_view separators) {
  std::vector<std::string> found;  // `text` may be a view of one of the old pieces
  std::size_t begin = text.find_first_not_of(separators);
  while (begin != std::string_view::npos) {
    const std::size_t end = text.find_first_of(separators, begin);
    found.emplace_back(text.substr(begin, end == std::string_view::npos ? end : end - begin));
    begin = text.find_first_not_of(separators, end);
  }
  pieces = std::move(found);
}

std::string IMS_utility::itostring(long long value) {
  return std::to_string(value);
}

bool IMS_utility::getlocalip(const std::string& selector, std::string& address) {
  address.clear();
  if (selector.empty() || literalAddress(selector, address)) return !address.empty();
  if (selector == "ipv4" || selector == "ipv6") {
    const int family = selector == "ipv4" ? AF_INET : AF_INET6;
    const std::string interface = defaultInterface(family);
    if (!interface.empty()) address = addressOf(interface, family);
  } else {
    address = addressOf(selector, AF_INET);
    if (address.empty()) address = addressOf(selector, AF_INET6);
  }
  return !address.empty();
}

std::string IMS_utility::pretrim_filepath(const char* path) {
  if (path == nullptr) return {};
  const char* const slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}
