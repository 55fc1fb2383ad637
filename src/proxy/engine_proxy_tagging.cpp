// The tags that carry the proxy's routing through its peers' messages, and the inspection of a message.
//
//   mok, mtk    client key of the local side of a dialog with the network (it began the dialog, or was called)
//   scli, dcli  source and destination client keys of a message between two local clients
//   st          tag of the accepted TCP connection on which the request came; "0" for UDP
//   profile     network profile that a REGISTER or SUBSCRIBE asked for
//
// A request leaves with them in the top Via, from where its answer brings them back, and in the Contact, from where
// the peer's later requests of the dialog bring them back in their Request-URI. Nothing else is remembered.

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "proxy/forwarding.h"
#include "siplib/address.h"
#include "siplib/connection.h"

namespace {

constexpr std::size_t kLongestMethod = 16;

/// From or To taken apart; null with one line when it is absent or does not parse.
SIPLIB_SIPAddress* read_address(const char* function, const SIPLIB_SIPTransportConnection* connection, const char* name,
                                const char* name_in_capitals) {
  const std::string_view value = connection->viewHeader(name);
  IMS_log::loginfo(5, function, "%s=%.*s", name, static_cast<int>(value.size()), value.data());
  SIPLIB_SIPAddress* const address = SIPLIB_SIPAddress::createSIPAddressObject(name, value);
  if (address == nullptr) IMS_log::loginfo(3, function, "createSIPAddressObject() failed for %s", name_in_capitals);
  return address;
}

}  // namespace

// A plain search: the text may be a URI or a header value, and a parameter whose name merely ends in `name` is taken
// too. Only ";" and a blank end a value, so that tags are read from bare Via values and Request-URIs alone.
bool IMS_engine_proxy::get_parameter(const std::string& name, const std::string& text, std::string& value) {
  const std::size_t found = text.find(name + "=");
  if (found == std::string::npos) {
    IMS_log::loginfo(4, __func__, "Didn't find parameter with name=%s", name.c_str());
    return false;
  }
  const std::size_t begin = found + name.size() + 1;
  std::size_t end = text.find(';', begin);
  if (end == std::string::npos) end = text.find(' ', begin);
  value.assign(text, begin, end == std::string::npos ? end : end - begin);
  IMS_log::loginfo(5, __func__, "name=%s, value=%s", name.c_str(), value.c_str());
  return !value.empty();
}

void IMS_engine_proxy::get_from_to_method(SIPLIB_SIPTransportConnection* connection, bool& is_request,
                                          std::string& method, SIPLIB_SIPAddress*& from, SIPLIB_SIPAddress*& to) {
  IMS_log::loginfo(5, __func__, "entered, connection ptr=%p", static_cast<const void*>(connection));
  connection->getSipMsgType(is_request);
  if (is_request) {
    method = connection->getMethod();
    if (method.size() > kLongestMethod) method.resize(kLongestMethod);
  }

  from = read_address(__func__, connection, "From", "FROM");
  to = read_address(__func__, connection, "To", "TO");
  IMS_log::loginfo(5, __func__, "reqmsg=%d, method=%s", is_request ? 1 : 0, method.c_str());
}

bool IMS_engine_proxy::is_dest_local(SIPLIB_SIPTransportConnection* connection, bool& is_request, std::string& method,
                                     SIPLIB_SIPAddress*& from, SIPLIB_SIPAddress*& to) {
  get_from_to_method(connection, is_request, method, from, to);
  if (from == nullptr || to == nullptr) {
    IMS_log::loginfo(4, __func__, "FROM/TO is NULL");
    return false;
  }
  // The text is compared, not the address: "localhost" or 127.0.0.2 is the network's.
  if (from->getHost() == localhost_ip || to->getHost() == localhost_ip) {
    IMS_log::loginfo(5, __func__, "FROM/TO is 127.0.0.1");
    return true;
  }
  IMS_log::loginfo(5, __func__, "FROM and TO doesn't contain 127.0.0.1");
  return false;
}

// In a Via mok wins wherever it stands; in a Request-URI the place decides (forwarding::dialog_tag).
std::string IMS_engine_proxy::get_client_key_from_via(std::string& key, const std::string& via) {
  IMS_log::loginfo(5, __func__, "Via Header is %s", via.c_str());
  const int mok_pos = forwarding::position(via, "mok=");
  const int mtk_pos = forwarding::position(via, "mtk=");
  IMS_log::loginfo(5, __func__, " mok_pos is %d, mtk_pos is %d", mok_pos, mtk_pos);
  if (mok_pos >= 0) {
    get_parameter("mok", via, key);
    return ";mok=" + key;
  }
  if (mtk_pos >= 0) {
    get_parameter("mtk", via, key);
    return ";mtk=" + key;
  }
  return {};
}

bool IMS_engine_proxy::get_profile_id_from_via(SIPLIB_SIPTransportConnection* connection, std::string& profile) {
  get_parameter("profile", siplib::Scratch(connection->viewHeader("Via")), profile);
  IMS_log::loginfo(5, __func__, "Profile is %s", profile.c_str());
  return !profile.empty();
}

void IMS_engine_proxy::update_contact(std::string& contact, const std::string& marker, const std::string& tags) {
  const std::size_t old_tags = contact.find(marker);
  const std::size_t end_of_uri = contact.find('>');
  if (old_tags != std::string::npos && end_of_uri != std::string::npos) {
    // Deliberate: when the ">" comes first, the whole rest of the value goes with the old tags.
    contact.erase(old_tags, end_of_uri > old_tags ? end_of_uri - old_tags : std::string::npos);
  }
  IMS_log::loginfo(5, __func__, "### before contact=%s", contact.c_str());
  forwarding::insert_tags(contact, tags);
  IMS_log::loginfo(5, __func__, "### after contact=%s", contact.c_str());
}
