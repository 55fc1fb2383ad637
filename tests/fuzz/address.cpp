// Addresses.
//
//   Name: value \n operations, one a line: "u..." set the user, "h..." the host, "p..." the port, "-..." remove a
//   parameter
//
// Promises: an address holds no CR, LF, NUL or open quote, before and after every change; what was set reads back, and
// the other parts read as before; its text makes an address again that reads the same. A refused change changes
// nothing.

#include "siplib/address.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "input.h"
#include "siplib/limits.h"
#include "siplib/text.h"

namespace {

using Address = std::unique_ptr<SIPLIB_SIPAddress>;

constexpr std::size_t kOperations = 24;

struct Parts {
  std::string display, scheme, user, host;
  int port = -1;
  std::vector<std::string> parameters;

  bool operator==(const Parts&) const = default;
};

Parts partsOf(const SIPLIB_SIPAddress& address, const std::vector<std::string>& names) {
  Parts parts{address.getDisplayName(),
              std::string(address.getScheme()),
              std::string(address.getUser()),
              std::string(address.getHost()),
              address.getPort(),
              {}};
  for (const std::string& name : names) {
    std::string value = "(absent)";
    const int result = address.getParameter(name, value);
    PROMISE(result == 0 || (result == -1 && value == "(absent)"));
    parts.parameters.push_back(value);
  }
  return parts;
}

void check(const SIPLIB_SIPAddress& address, std::string_view header, const std::vector<std::string>& names) {
  const std::string text(address.toString());
  PROMISE(!siplib::breaksLine(text) && siplib::quotesBalanced(text));
  const Parts parts = partsOf(address, names);
  PROMISE(!parts.scheme.empty() && parts.port >= -1 && parts.port <= 65535);
  PROMISE(!parts.host.empty() || parts.port == -1);
  const Address again(SIPLIB_SIPAddress::createSIPAddressObject(header, text));
  PROMISE(again != nullptr && partsOf(*again, names) == parts && again->getURI() == address.getURI());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = fuzz::view(data, size);
  std::string_view value = fuzz::cut(rest, "\n");
  const std::string_view header = fuzz::cut(value, ":");
  const Address address(SIPLIB_SIPAddress::createSIPAddressObject(header, value));
  if (!address) return 0;
  PROMISE(address->toString() == siplib::trim(value));

  auto operations = fuzz::split(rest, "\n");
  if (operations.size() > kOperations) operations.resize(kOperations);
  std::vector<std::string> names = {"tag", "transport", "lr", "mok", "mtk"};
  for (const std::string_view operation : operations)
    if (operation.starts_with('-')) names.emplace_back(operation.substr(1));
  check(*address, header, names);

  for (const std::string_view operation : operations) {
    if (operation.empty()) continue;
    const std::string argument(operation.substr(1));
    const std::string before(address->toString());
    Parts expected = partsOf(*address, names);
    bool done = false;
    bool parameters_kept = true;
    switch (operation[0]) {
      case 'u':
        done = address->setUser(argument);
        expected.user = argument;
        break;
      case 'h':
        done = address->setHost(argument);
        expected.host = address->getHost();
        PROMISE(!done || expected.host == argument || expected.host == "[" + argument + "]");
        break;
      case 'p': {
        const int port = std::atoi(argument.c_str());
        done = address->setPort(port);
        expected.port = port;
        break;
      }
      case '-': {
        std::size_t removed = 0;
        while (address->removeParameter(argument)) PROMISE(++removed <= siplib::limits().max_parameters + 1);
        done = removed > 0;
        if (siplib::equalsIgnoreCase(argument, "port"))
          expected.port = -1;
        else
          parameters_kept = false;
        break;
      }
      default:
        continue;
    }
    if (!done) {
      PROMISE(address->toString() == before);
      continue;
    }
    Parts now = partsOf(*address, names);
    if (!parameters_kept) {
      for (std::size_t i = 0; i < names.size(); ++i)
        PROMISE(siplib::equalsIgnoreCase(names[i], argument) || now.parameters[i] == expected.parameters[i]);
      now.parameters = expected.parameters;
    }
    PROMISE(now == expected);
    check(*address, header, names);
  }
  return 0;
}
