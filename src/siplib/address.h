// One address taken apart: display name, URI and header parameters of From, To, Contact, Route and their kind
// (RFC 3261 20.10, name-addr / addr-spec). What is not changed keeps its text.
#pragma once

#include <memory>
#include <string>
#include <string_view>

/// Not thread-safe; made, used and deleted by one thread. The caller owns it.
class SIPLIB_SIPAddress {
 public:
  /// `header` is the name of the header that the value comes from ("From", "To", "Contact"): in a value without
  /// angle brackets, parameters belong to the header, not to the URI (RFC 3261 20.10). Null when the value is empty,
  /// holds no URI with a host (so for "*" too), or has unbalanced quotes or brackets. URI schemes other than sip and
  /// sips (tel:, urn:) give an object whose host is empty and whose user is the scheme-specific part.
  static SIPLIB_SIPAddress* createSIPAddressObject(std::string_view header, std::string_view value);
  ~SIPLIB_SIPAddress();
  SIPLIB_SIPAddress(const SIPLIB_SIPAddress&) = delete;
  SIPLIB_SIPAddress& operator=(const SIPLIB_SIPAddress&) = delete;

  /// Without quotes; empty when absent.
  std::string getDisplayName() const;
  std::string getScheme() const;
  /// The user part, without password, as it stands (no unescaping); empty when absent.
  std::string getUser() const;
  /// As it stands, an IPv6 address in its brackets; empty for a URI without host.
  std::string getHost() const;
  /// -1 when the URI has none.
  int getPort() const;
  /// scheme:user@host:port, without URI parameters and headers.
  std::string getURI() const;
  /// A URI parameter, or else a header parameter; 0 when there, -1 when not.
  int getParameter(std::string_view name, std::string& value) const;

  /// An empty user removes the user part and its "@" (and the password with it).
  bool setUser(std::string_view user);
  bool setHost(std::string_view host);
  /// 1 to 65535.
  bool setPort(int port);
  /// "port" removes the URI's port; any other name the URI parameter of that name. False when it was not there.
  bool removeParameter(std::string_view name);
  /// The whole value as it would stand in a message. When a change of the URI needs them, angle brackets are there.
  std::string toString() const;

 private:
  struct State;
  explicit SIPLIB_SIPAddress(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};
