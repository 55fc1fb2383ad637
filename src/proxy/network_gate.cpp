#include "proxy/network_gate.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "siplib/address.h"
#include "siplib/connection.h"

namespace network_gate {

namespace {

bool holds(std::string_view text, std::string_view mark) {
  return text.find(mark) != std::string_view::npos;
}

/// As is_dest_local compares, which would take a user agent's next message for a local one.
bool is_local(const SIPLIB_SIPAddress* address) {
  return address != nullptr && address->getHost() == IMS_engine_proxy::localhost_ip;
}

bool is_local(std::string_view name, std::string_view value) {
  if (!holds(value, IMS_engine_proxy::localhost_ip)) return false;
  return is_local(std::unique_ptr<SIPLIB_SIPAddress>(SIPLIB_SIPAddress::createSIPAddressObject(name, value)).get());
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
    for (const std::string_view value : message.headers(name)) {
      if (holds(value, mark)) return name;
    }
  }
  return nullptr;
}

/// Asks the user agent to send a request of its own to the terminal itself: a route command, say.
bool leads_inside(const SIPLIB_message& message) {
  if (message.isRequest()) return message.method() == "REFER" && any_is_local(message, "Refer-To");
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

}  // namespace

bool admits_request(const char* function, const SIPLIB_SIPTransportConnection* connection, const std::string& method,
                    const SIPLIB_SIPAddress* from, const SIPLIB_SIPAddress* to) {
  const SIPLIB_SIPMessageHandle message = connection->getSipMessageHandle();
  if (!message) return true;
  constexpr const char* what = "request";
  // Its answer would be taken for one to the registrar's own NOTIFY.
  if (is_local(from) && from->getUser() == "registrar") return drop(function, what, "its From is the registrar");
  // A dialog with it would go on between local user agents. A MESSAGE begins none, and its answer leads nowhere.
  if (method != "MESSAGE" && (is_local(from) || is_local(to))) return drop(function, what, "its From or To is local");
  if (leads_inside(*message)) return drop(function, what, "it refers to a local user");
  // Its answer would be led by the key of its choice.
  const std::string_view via = connection->viewHeader("Via");
  if (holds(via, "mok=") || holds(via, "mtk=")) return drop(function, what, "a client key in its Via");
  if (const char* where = local_dialog_tag(*message)) return drop_tagged(function, what, where);
  return true;
}

bool admits_response(const char* function, const SIPLIB_SIPTransportConnection* connection) {
  const SIPLIB_SIPMessageHandle message = connection->getSipMessageHandle();
  if (!message) return true;
  constexpr const char* what = "response";
  // No request that went to the network was of or for a local address.
  for (const char* name : {"From", "To"}) {
    if (is_local(name, connection->viewHeader(name))) return drop(function, what, "its From or To is local");
  }
  if (leads_inside(*message)) return drop(function, what, "it refers to a local user");
  if (const char* where = local_dialog_tag(*message)) return drop_tagged(function, what, where);
  return true;
}

}  // namespace network_gate
