// One address taken apart: display name, URI and header parameters of From, To, Contact, Route and their kind
// (RFC 3261 20.10, name-addr / addr-spec). What is not changed keeps its text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "siplib/recycled.h"

/// Not thread-safe; made, used and deleted by one thread. The caller owns it.
class SIPLIB_SIPAddress final : public siplib::Recycled<SIPLIB_SIPAddress> {
 public:
  /// `header` is the name of the header that the value comes from ("From", "To", "Contact"): in a value without
  /// angle brackets, parameters belong to the header, not to the URI (RFC 3261 20.10), and "?" begins URI headers. Null
  /// when the value is empty, holds no URI (so for "*" too) or a sip or sips one without host or with a port that is no
  /// number of 0 to 65535, two "@" in the URI, unbalanced quotes or brackets, CR, LF or NUL, or more parameters than
  /// the limit. URI schemes other than sip and sips (tel:, urn:) give an object whose host is empty and whose user is
  /// the scheme-specific part up to its first ";".
  static SIPLIB_SIPAddress* createSIPAddressObject(std::string_view header, std::string_view value);
  ~SIPLIB_SIPAddress();
  SIPLIB_SIPAddress(const SIPLIB_SIPAddress&) = delete;
  SIPLIB_SIPAddress& operator=(const SIPLIB_SIPAddress&) = delete;

  /// Without quotes and their escapes; empty when absent.
  std::string getDisplayName() const;
  // Views are good until the address is changed, or its end.
  /// As it stands.
  std::string_view getScheme() const { return part(scheme_); }
  /// The user part, without password, as it stands (no unescaping); empty when absent. May hold ";" and "?": all before
  /// the "@" is the user's.
  std::string_view getUser() const { return part(user_); }
  /// As it stands, an IPv6 address in its brackets; empty for a URI without host.
  std::string_view getHost() const { return part(host_); }
  /// -1 when the URI has none.
  int getPort() const;
  /// scheme:user@host:port, without password, URI parameters and headers.
  std::string getURI() const;
  void getURI(std::string& uri) const;
  /// A URI parameter, or else a header parameter; 0 when there, -1 when not (`value` then stays). The text as it
  /// stands, empty for a parameter without "=".
  int getParameter(std::string_view name, std::string& value) const;

  /// An empty user removes the user part and its "@" (and the password with it). False when `user` holds what would end
  /// it, or when it is empty and the URI has no host. A password stays with a new user.
  bool setUser(std::string_view user);
  /// An IPv6 address gets its brackets when it comes without. False when it is no host, or the URI's scheme has none.
  bool setHost(std::string_view host);
  /// 1 to 65535. False for a URI whose scheme has no host.
  bool setPort(int port);
  /// "port" removes the URI's port; any other name the URI parameter of that name. False when it was not there.
  bool removeParameter(std::string_view name);
  /// The whole value as it would stand in a message. A URI that was changed stands in angle brackets, because only
  /// there can it have parameters of its own, which is what changed URIs are for; until then the text is what it was.
  std::string_view toString() const { return text_; }

 private:
  struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
    bool empty() const { return begin == end; }
  };
  struct Parameter {
    Range all;  // with the ";" before it
    Range name;
    Range value;
  };

  explicit SIPLIB_SIPAddress(std::string_view value) : text_(value) {}
  bool parse();
  bool parseUri(std::size_t begin, std::size_t end);
  bool parseHost(std::size_t begin, std::size_t end);
  bool find(Range in, std::string_view name, Parameter& parameter) const;
  std::size_t count(Range in) const;
  std::string_view part(Range range) const {
    return std::string_view(text_).substr(range.begin, range.end - range.begin);
  }
  void replace(Range range, std::string_view with);

  siplib::Scratch text_;
  Range display_;
  Range uri_;
  Range scheme_;
  Range user_info_;  // with the "@"; empty when there is none
  Range user_;
  Range host_;
  Range port_;  // the digits
  Range uri_parameters_;
  Range header_parameters_;
  bool bracketed_ = false;
};
