// One header value taken apart: the main value and its parameters, read and changed by name.
//
// Parameters keep their order and their text. Two shapes of value are known:
//   value;name=value;...             Via, Contact, Event and most others (RFC 3261 25.1, generic-param)
//   scheme name=value, name=value    WWW-Authenticate, Proxy-Authenticate, Authorization, Proxy-Authorization
//                                    (RFC 3261 20.7, 20.44; RFC 2617)
// In a Via, "host" and "port" are parameters too: the sent-by (RFC 3261 20.42).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "siplib/recycled.h"

/// Not thread-safe; made, used and deleted by one thread. The caller owns it.
class SIPLIB_SIPHeader final : public siplib::Recycled<SIPLIB_SIPHeader> {
 public:
  /// Null when `value` is empty, does not have the shape that the name asks for (parameters only, a Via without
  /// sent-by, an authentication value without scheme, a quote or bracket left open), holds CR, LF or NUL, or has more
  /// parameters than the limit. `name` may be the compact form; surrounding white space of `value` is left out.
  static SIPLIB_SIPHeader* createSIPHeaderObject(std::string_view name, std::string_view value);
  ~SIPLIB_SIPHeader();
  SIPLIB_SIPHeader(const SIPLIB_SIPHeader&) = delete;
  SIPLIB_SIPHeader& operator=(const SIPLIB_SIPHeader&) = delete;

  /// 0 when the parameter is there: `value` gets its text as it stands, quotes included (empty for a parameter
  /// without "="). -1 when it is not; `value` stays. Names compare without regard to case.
  int getParameter(std::string_view name, std::string& value) const;
  /// The same as a decimal number; -1 when absent or not a number of 0 to 65535.
  int getParameterNumber(std::string_view name) const;
  /// Replaces the parameter where it stands, or appends it. The value is written as given, except that in an
  /// authentication header an empty value is written as "" for a parameter whose grammar is a quoted string
  /// (username, realm, nonce, uri, response, cnonce, opaque, domain) and leaves out any other; elsewhere an empty value
  /// leaves the name without "=". False when name or value hold what would end the parameter or the line (CR, LF, NUL,
  /// an open quote; outside quotes ";", or "," in an authentication header; "," too in a header that is a list), and
  /// when it would be one parameter more than the limit. Of a Via, "host" takes a host (an IPv6 address gets its
  /// brackets when it comes without), "port" a number of 1 to 65535.
  bool setParameter(std::string_view name, std::string_view value);
  /// False when it was not there. The host of a Via cannot be removed. Of several parameters of one name, this and all
  /// the others here mean the first.
  bool removeParameter(std::string_view name);
  /// The whole value as it would stand in a message; true always (the value is never empty).
  bool getHeaderValue(std::string& value) const;
  /// The value without its parameters: "SIP/2.0/UDP host:port" of a Via, "Digest" of a challenge.
  std::string mainValue() const;

 private:
  enum class Shape : std::uint8_t { Parameters, Via, Authentication };
  struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
  };
  struct Parameter {
    Range all;  // without separators
    Range name;
    Range value;
    bool has_value = false;
  };

  SIPLIB_SIPHeader(Shape shape, bool list, std::string_view value) : shape_(shape), list_(list), text_(value) {}
  bool findMain();
  bool findSentBy();
  bool next(std::size_t& position, Parameter& parameter) const;
  bool find(std::string_view name, Parameter& parameter) const;
  std::size_t count() const;
  bool endsParameter(std::string_view value) const;
  char separator() const { return shape_ == Shape::Authentication ? ',' : ';'; }
  std::string_view part(Range range) const {
    return std::string_view(text_).substr(range.begin, range.end - range.begin);
  }
  bool setSentBy(std::string_view name, std::string_view value);
  void replace(Range range, std::string_view with);

  Shape shape_;
  bool list_;
  siplib::Scratch text_;
  std::size_t main_end_ = 0;  // the end of the value without parameters
  Range host_;                // of a Via
  Range port_;                // of a Via, empty when it has none
};
