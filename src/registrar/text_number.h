// Numbers as header values and bodies carry them.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

namespace registrar {

/// What atoi gives: the leading number, 0 when there is none. Beyond the range of int, where atoi is undefined, the
/// nearest int.
inline int to_int(const std::string& text) {
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<int>(
      std::clamp<long long>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace registrar
