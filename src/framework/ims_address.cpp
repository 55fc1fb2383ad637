#include "framework/ims_address.h"

#include <memory>
#include <string_view>

#include "siplib/address.h"

namespace {

/// The URI of a value that was found to be an address: between the angle brackets, or the text up to the header's
/// parameters.
std::string uriOf(std::string_view text) {
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (quoted && text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    } else if (!quoted && text[i] == '<') {
      const std::size_t end = text.find('>', i);
      return std::string(text.substr(i + 1, end == std::string_view::npos ? end : end - i - 1));
    }
  }
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  const std::size_t end = text.find_first_of("; \t", begin);
  return std::string(text.substr(begin, end == std::string_view::npos ? end : end - begin));
}

}  // namespace

int IMS_address::get_element(const std::string& header, const std::string& text, const std::string& element,
                             std::string& value) {
  const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject(header, text));
  if (!address) return -1;
  std::string found;
  if (element == "uri") {
    found = uriOf(text);
  } else if (element == "user") {
    found = address->getUser();
  } else if (element == "host") {
    found = address->getHost();
  } else if (element == "display") {
    found = address->getDisplayName();
  } else if (element == "port" && address->getPort() >= 0) {
    found = std::to_string(address->getPort());
  }
  if (found.empty()) return -1;
  value = std::move(found);
  return 0;
}

int IMS_address::get_port(const std::string& header, const std::string& text) {
  const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject(header, text));
  return address ? address->getPort() : -1;
}
