// Pieces of an address header's value, as texts.
#pragma once

#include <string>

class IMS_address {
 public:
  /// `element` "uri" (the URI as it stands, with its parameters, without brackets), "user", "host", "port", "display".
  /// 0 and `value` set; -1 when the value is no address or has no such element.
  static int get_element(const std::string& header, const std::string& text, const std::string& element,
                         std::string& value);
  /// The port of the URI; -1 when the value is no address or names none.
  static int get_port(const std::string& header, const std::string& text);
};
