// Small helpers of the framework.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class IMS_utility {
 public:
  /// Splits `text` at every character of `separators`; empty pieces are not given. `pieces` is replaced.
  static void tokenize(std::string_view text, std::vector<std::string>& pieces, std::string_view separators);
  static std::string itostring(long long value);
  /// The local address that `selector` names: an interface (its first IPv4 address, else its first global IPv6
  /// address), "ipv4" or "ipv6" (the address of the default route's interface), or an address of this host written out.
  /// Empty when there is none. True when `address` is not empty.
  static bool getlocalip(const std::string& selector, std::string& address);
  /// The last part of a path.
  static std::string pretrim_filepath(const char* path);
};
