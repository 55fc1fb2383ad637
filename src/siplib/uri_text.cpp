#include "siplib/uri_text.h"

#include <algorithm>

#include "siplib/text.h"

namespace siplib {
namespace {

// RFC 3261 25.1 gives a hostname letters, digits, "-" and "."; "_" and bytes above ASCII are seen in the field.
constexpr std::array<bool, 256> kHostChars = characterTable([](char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || static_cast<unsigned char>(c) >= 0x80;
});
bool isHostChar(char c) {
  return kHostChars[static_cast<unsigned char>(c)];
}

bool isAddressChar(char c) {
  return isAlpha(c) || isDigit(c) || c == ':' || c == '.' || c == '%' || c == '-';
}

}  // namespace

std::size_t hostLength(std::string_view text) {
  if (text.empty()) return 0;
  if (text[0] != '[') {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isHostChar) - text.begin());
  }
  const auto end = std::find_if_not(text.begin() + 1, text.end(), isAddressChar);
  const auto length = static_cast<std::size_t>(end - text.begin());
  return end != text.end() && *end == ']' && length > 1 ? length + 1 : 0;
}

std::string hostText(std::string_view host) {
  std::string text(host);
  if (!text.empty() && text[0] != '[' && std::count(text.begin(), text.end(), ':') > 1) text = "[" + text + "]";
  return hostLength(text) == text.size() ? text : std::string();
}

}  // namespace siplib
