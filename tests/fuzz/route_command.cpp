// Route commands.
//
//   the body of the MESSAGE
//
// Promises: a command that does not parse has no values; one that does has those of the document; its address text
// comes apart in pieces that are not empty and hold no colon.

#include <string>
#include <vector>

#include "framework/set_route_xml.h"
#include "framework/utility.h"
#include "framework/xml_document.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  const std::string text(fuzz::view(data, size));
  IMSSetRouteXml command;
  command.set_text(text.c_str(), static_cast<int>(text.size()) + 1);
  const bool parsed = command.parseXml() == 0;
  framework::XmlDocument document;
  std::string error;
  PROMISE(document.parse(text.data(), text.size(), error) == parsed);
  const struct {
    const char* xpath;
    const std::string& value;
  } values[] = {{"//action", command.action()},
                {"//zel-profile-id", command.profile_id()},
                {"//device-name", command.device_name()},
                {"//ip-type-port", command.ip_type_port()}};
  for (const auto& [xpath, value] : values) {
    std::string expected;
    document.first(xpath, expected);
    PROMISE(value == expected && (parsed || value.empty()));
  }
  std::vector<std::string> pieces;
  IMS_utility::tokenize(command.ip_type_port(), pieces, ":");
  for (const std::string& piece : pieces) PROMISE(!piece.empty() && piece.find(':') == std::string::npos);
  return 0;
}
