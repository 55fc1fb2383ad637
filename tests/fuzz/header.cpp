// Header objects.
//
//   Name: value \n operations, one a line: "=name=value" set a parameter, "-name" remove it, "?name" read it
//
// Promises: a value without CR, LF, NUL or open quote is all that an object is ever made of, and all that it becomes; a
// parameter that was set reads back, and every other one reads as before; removing ends; what the object has become
// makes an object again that reads the same. A refused change changes nothing.

#include "siplib/header.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "input.h"
#include "siplib/limits.h"
#include "siplib/text.h"

namespace {

using Header = std::unique_ptr<SIPLIB_SIPHeader>;

constexpr std::size_t kOperations = 24;
constexpr const char* kAbsent = "(absent)";

std::string textOf(const SIPLIB_SIPHeader& header) {
  std::string text;
  PROMISE(header.getHeaderValue(text) && !text.empty());
  return text;
}

std::string read(const SIPLIB_SIPHeader& header, const std::string& name) {
  std::string value = kAbsent;
  const int result = header.getParameter(name, value);
  PROMISE(result == 0 ? true : result == -1 && value == kAbsent);
  const int number = header.getParameterNumber(name);
  PROMISE(number >= -1 && number <= 65535 && (result == 0 || number == -1));
  return value;
}

using Names = std::vector<std::string>;

std::vector<std::string> readAll(const SIPLIB_SIPHeader& header, const Names& names) {
  std::vector<std::string> values;
  for (const std::string& name : names) values.push_back(read(header, name));
  return values;
}

void check(std::string_view name, const SIPLIB_SIPHeader& header, const Names& names) {
  const std::string text = textOf(header);
  PROMISE(!siplib::breaksLine(text) && siplib::quotesBalanced(text));
  const Header again(SIPLIB_SIPHeader::createSIPHeaderObject(name, text));
  PROMISE(again != nullptr);
  PROMISE(textOf(*again) == siplib::trim(text) && again->mainValue() == header.mainValue());
  PROMISE(readAll(*again, names) == readAll(header, names));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = fuzz::view(data, size);
  std::string_view value = fuzz::cut(rest, "\n");
  const std::string_view header_name = fuzz::cut(value, ":");
  const Header header(SIPLIB_SIPHeader::createSIPHeaderObject(header_name, value));
  if (!header) return 0;
  PROMISE(textOf(*header) == siplib::trim(value));

  auto operations = fuzz::split(rest, "\n");
  if (operations.size() > kOperations) operations.resize(kOperations);
  Names names = {"host", "port", "branch", "tag", "realm", "nonce"};
  for (const std::string_view operation : operations) {
    if (operation.empty()) continue;
    const std::string_view line = operation.substr(1);
    names.emplace_back(line.substr(0, line.find('=')));
  }
  check(header_name, *header, names);

  for (std::string_view operation : operations) {
    if (operation.empty()) continue;
    const char kind = operation[0];
    operation.remove_prefix(1);
    const std::string name(fuzz::cut(operation, "="));
    const std::string before = textOf(*header);
    const auto values = readAll(*header, names);
    if (kind == '=') {
      const std::string new_value(operation);
      if (!header->setParameter(name, new_value)) {
        PROMISE(textOf(*header) == before);
        continue;
      }
      const std::string now = read(*header, name);
      // An empty one may be written as quotes, or leave the parameter out.
      PROMISE(new_value.empty() || now == siplib::trim(new_value) || now == "[" + new_value + "]");
    } else if (kind == '-') {
      std::size_t removed = 0;
      while (header->removeParameter(name)) PROMISE(++removed <= siplib::limits().max_parameters + 1);
      if (removed == 0) PROMISE(textOf(*header) == before);
      PROMISE(siplib::equalsIgnoreCase(name, "host") || read(*header, name) == kAbsent);
    } else {
      continue;
    }
    const auto values_now = readAll(*header, names);
    for (std::size_t i = 0; i < names.size(); ++i)
      PROMISE(siplib::equalsIgnoreCase(names[i], name) || values_now[i] == values[i]);
    check(header_name, *header, names);
  }
  return 0;
}
