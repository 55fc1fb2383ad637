// The ports that tables, commands and options carry as texts.
#pragma once

#include <charconv>
#include <string_view>

/// The decimal number that the text begins with; 0 when there is none, -1 when it is too large for a port. Nothing can
/// be opened on either.
inline int portNumber(std::string_view text) {
  int number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc::result_out_of_range || number > 65535 ? -1 : number;
}
