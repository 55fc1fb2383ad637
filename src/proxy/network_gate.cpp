#include "proxy/network_gate.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "siplib/address.h"
#include "siplib/connection.h"
#include "siplib/text.h"

namespace network_gate {

namespace {

bool holds(std::string_view text, std::string_view mark) {
  return text.find(mark) != std::string_view::npos;
}

/// As is_dest_local compares, which would take a user agent's next message for a local one.
bool is_local(const SIPLIB_SIPAddress* address) {
  return address != nullptr && address->getHost() == IMS_engine_proxy::localhost_ip;
}

/// A reader more lenient than ours finds an address where we find none, or a second one behind the first.
bool is_local(std::string_view name, std::string_view value) {
  if (!holds(value, IMS_engine_proxy::localhost_ip)) return false;
  const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject(name, value));
  if (!address || is_local(address.get())) return true;
  const std::size_t end = value.find('>');
  return end != std::string_view::npos && holds(value.substr(end), IMS_engine_proxy::localhost_ip);
}

bool holds_key(std::string_view text) {
  return holds(text, "mok=") || holds(text, "mtk=");
}

bool any_holds_key(const SIPLIB_message& message, std::string_view name) {
  return message.headerLines(name, "mok=") > 0 || message.headerLines(name, "mtk=") > 0;
}

bool any_is_local(const SIPLIB_message& message, std::string_view name) {
  const auto values = message.headers(name);
  return std::any_of(values.begin(), values.end(), [&](std::string_view value) { return is_local(name, value); });
}

/// Where a user agent could have the tags of a local dialog from; null when they stand nowhere of these.
const char* local_dialog_tag(const SIPLIB_message& message) {
  constexpr std::string_view mark = "scli=";
  if (!message.headHolds(mark)) return nullptr;
  if (holds(message.requestUri(), mark)) return "Request-URI";
  if (holds(message.header("Via").value_or(""), mark)) return "Via";
  for (const char* name : {"Contact", "Record-Route"}) {
    if (message.headerLines(name, mark) > 0) return name;
  }
  return nullptr;
}

bool is_refer(const SIPLIB_message& message) {
  return siplib::equalsIgnoreCase(message.method(), "REFER");
}

/// Asks the user agent to send a request of its own to the terminal itself: a route command, say.
bool leads_inside(const SIPLIB_message& message) {
  if (message.isRequest()) return is_refer(message) && any_is_local(message, "Refer-To");
  return message.statusCode() >= 300 && message.statusCode() < 400 && any_is_local(message, "Contact");
}

bool drop(const char* function, const char* what, const char* why) {
  IMS_log::loginfo(3, function, "%s from the network dropped: %s", what, why);
  return false;
}

bool drop_tagged(const char* function, const char* what, const char* where) {
  IMS_log::loginfo(3, function, "%s from the network dropped: a local dialog's tag in its %s", what, where);
  return false;
}

/// What requests and answers have in common: where a user agent's later requests would be led.
bool admits(const char* function, const char* what, const SIPLIB_message& message) {
  for (const char* name : {"From", "To"}) {
    // The topmost counts here; which of them an answer goes on with is the user agent's choice.
    if (message.headerLines(name) > 1 && message.headerLines(name, IMS_engine_proxy::localhost_ip) > 0 &&
        any_is_local(message, name)) {
      return drop(function, what, "a further From or To is local");
    }
  }
  if (leads_inside(message)) return drop(function, what, "it refers to a local user");
  if (const char* where = local_dialog_tag(message)) return drop_tagged(function, what, where);
  if (message.headerLines("Record-Route", IMS_engine_proxy::localhost_ip) > 0 && any_is_local(message, "Record-Route"))
    return drop(function, what, "a local address in its Record-Route");
  if (any_holds_key(message, "Record-Route")) return drop(function, what, "a client key in its Record-Route");
  return true;
}

}  // namespace

bool admits_request(const char* function, const SIPLIB_SIPTransportConnection* connection, const std::string& method,
                    const SIPLIB_SIPAddress* from) {
  const SIPLIB_SIPMessageHandle message = connection->getSipMessageHandle();
  if (!message) return true;
  constexpr const char* what = "request";
  // Its answer would be taken for one to the registrar's own NOTIFY.
  if (is_local(from) && from->getUser() == "registrar") return drop(function, what, "its From is the registrar");
  // A dialog with it would go on between local user agents. A MESSAGE begins none, and its answer leads nowhere.
  if (method != "MESSAGE" &&
      (is_local("From", connection->viewHeader("From")) || is_local("To", connection->viewHeader("To")))) {
    return drop(function, what, "its From or To is local");
  }
  if (is_refer(*message) && any_holds_key(*message, "Refer-To")) {
    return drop(function, what, "a client key in its Refer-To");
  }
  // Its answer would be led by the key of its choice.
  if (holds_key(connection->viewHeader("Via"))) return drop(function, what, "a client key in its Via");
  return admits(function, what, *message);
}

bool admits_response(const char* function, const SIPLIB_SIPTransportConnection* connection) {
  const SIPLIB_SIPMessageHandle message = connection->getSipMessageHandle();
  if (!message) return true;
  constexpr const char* what = "response";
  // No request that went to the network was of or for a local address.
  for (const char* name : {"From", "To"}) {
    if (is_local(name, connection->viewHeader(name))) return drop(function, what, "its From or To is local");
  }
  return admits(function, what, *message);
}

bool admits_contact(const char* function, const SIPLIB_SIPTransportConnection* connection, std::string_view tag) {
  const SIPLIB_SIPMessageHandle message = connection->getSipMessageHandle();
  if (!message || !any_holds_key(*message, "Contact")) return true;
  const char* const what = message->isRequest() ? "request" : "response";
  const auto values = message->headers("Contact");
  const std::string_view contact = values.front();
  const std::size_t begin = contact.find('<');
  const std::size_t end = contact.find('>');
  // The tag goes before the first ">": there the URI must end, and what it holds of keys stand within it.
  const bool whole = begin != std::string_view::npos && end != std::string_view::npos && begin < end &&
                     !holds_key(contact.substr(0, begin)) && !holds_key(contact.substr(end));
  const bool others = std::any_of(values.begin() + 1, values.end(), holds_key);
  // The same name again would be read first.
  if (whole && !others && !holds(contact, tag.substr(1, tag.find('=')))) return true;
  return drop(function, what, "a client key of another in its Contact");
}

}  // namespace network_gate
