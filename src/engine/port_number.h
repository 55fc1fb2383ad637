// The ports that tables, commands and options carry as texts.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

/// What atoi gives: the decimal number that the text begins with, 0 when there is none. Beyond the range of int, where
/// atoi is undefined, the nearest int. It may be no port: the connector opens nothing outside 1 to 65535.
inline int portNumber(const std::string& text) {
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<int>(
      std::clamp<long long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}
