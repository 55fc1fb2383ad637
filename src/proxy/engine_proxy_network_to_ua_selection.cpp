// Which local client a fresh request of the network is for.
//
//   event -> feature tag -> address of record -> method -> content type
//
// A step that leaves exactly one candidate decides. There is no tie-break: several at the last step, and nobody gets
// the request.

#include <string>
#include <vector>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "routing/routing_table_impl.h"
#include "siplib/address.h"
#include "siplib/connection.h"

namespace {

using Keys = std::vector<std::string>;

/// The text in which feature tags are looked for.
void read_feature_tag_headers(SIPLIB_SIPTransportConnection* connection, std::string& text) {
  siplib::Scratch value;
  for (const char* name : {"Contact", "Accept-Contact", "P-Preferred-Identity", "P-Asserted-Identity"}) {
    if (connection->getHeader(name, value) == 0) text.append(value).append(" ");
  }
}

void select(const std::string& key, std::string& client_key, std::string& domain_key) {
  client_key = key;
  if (const RoutingTable_Entry_T* client = IMS_engine_proxy::rt->client(key)) domain_key = client->domain_key;
}

}  // namespace

void IMS_engine_proxy::get_clients_from_feature_tag_headers(SIPLIB_SIPTransportConnection* connection, Keys& keys) {
  siplib::Scratch text;
  read_feature_tag_headers(connection, text);
  if (!text.empty()) rt->findClients_FtrTag(text, keys);
}

void IMS_engine_proxy::find_domain_and_client_network_to_ua_request(SIPLIB_SIPTransportConnection* connection,
                                                                    SIPLIB_SIPAddress* /*from*/, SIPLIB_SIPAddress* to,
                                                                    const std::string& method, std::string& domain_key,
                                                                    std::string& client_key) {
  IMS_log::loginfo(5, __func__, "find_domain_and_client_network_to_ua_request");
  static thread_local ClientMatches keys;  // its room stays for the next request
  keys.clear();

  siplib::Scratch event;
  if (connection->getHeader("Event", event) == 0) {
    IMS_log::loginfo(5, __func__, "Event based routing, event=%s", event.c_str());
    rt->findClients(CF_EVENT, event, keys);
    if (keys.size() == 1) {
      select(keys.front(), client_key, domain_key);
      IMS_log::loginfo(5, __func__, "Found an unique client based on event=%s", event.c_str());
      return;
    }
    if (keys.empty()) {
      IMS_log::loginfo(3, __func__, "ERROR: No client supports event=%s", event.c_str());
      return;
    }
  }

  keys.clear();
  siplib::Scratch feature_tags;
  read_feature_tag_headers(connection, feature_tags);
  if (!feature_tags.empty()) rt->findClients_FtrTag(feature_tags, keys);
  if (keys.size() == 1) {
    select(keys.front(), client_key, domain_key);
    IMS_log::loginfo(5, __func__, "Found an unique client based on feature tag");
    return;
  }
  if (keys.size() > 1) {
    IMS_log::loginfo(4, __func__, "ERROR:found multiple clients (size=%d) having the same feature tag",
                     static_cast<int>(keys.size()));
  } else {
    if (to == nullptr) return;
    siplib::Scratch aor(to->getUser());
    aor.append("@").append(to->getHost());
    rt->findClients(CF_AOR, aor, keys);
    if (keys.size() == 1) {
      select(keys.front(), client_key, domain_key);
      IMS_log::loginfo(5, __func__, "No feature tag present, but found an unique client based on AOR=%s", aor.c_str());
      return;
    }
    IMS_log::loginfo(5, __func__,
                     "No feature tag present, no client or multiple clients, (size=%d) found based on AOR=%s",
                     static_cast<int>(keys.size()), aor.c_str());
  }

  ClientMatches of_method;  // stays empty when no feature tag and no AOR matched, see below
  if (keys.empty()) {
    rt->findClients(CF_METHOD, method, keys);
    if (keys.size() == 1) {
      select(keys.front(), client_key, domain_key);
      IMS_log::loginfo(5, __func__, "Found unique Client for method=%s ", method.c_str());
      return;
    }
    IMS_log::loginfo(5, __func__, "No feature tag/AOR present, matching clients=%d based on method=%s",
                     static_cast<int>(keys.size()), method.c_str());
  } else {
    IMS_log::loginfo(5, __func__, "We have a list FTRTAG/AOR matched clients size=%d", static_cast<int>(keys.size()));
    rt->findClients(CF_METHOD, method, keys, of_method);
    if (of_method.size() == 1) {
      select(of_method.front(), client_key, domain_key);
      IMS_log::loginfo(5, __func__, "Found an unique Client for method=%s from FTRTAG/AOR matched clients",
                       method.c_str());
      return;
    }
    if (of_method.empty()) {
      IMS_log::loginfo(3, __func__,
                       "ERROR: Couldn't find an unique Client for method=%s from FTRTAG/AOR matched clients",
                       method.c_str());
      return;
    }
  }

  // Deliberate: only among clients that a feature tag or an AOR named. Clients that merely support the method are no
  // candidates here, so that a content type alone never picks a client.
  siplib::Scratch content_type;
  if (connection->getHeader("Content-Type", content_type) != 0) {
    IMS_log::loginfo(
        3, __func__,
        "ERROR: No Content-Type header, no unique Client based on Content-Type from the given METHOD matched clients");
    return;
  }
  IMS_log::loginfo(5, __func__, "Need to find unique client based on Content-Type=%s", content_type.c_str());
  ClientMatches of_type;
  rt->findClients(CF_CONTENT_TYPE, content_type, of_method, of_type);
  if (of_type.size() == 1) {
    select(of_type.front(), client_key, domain_key);
    IMS_log::loginfo(5, __func__, "Found an unique Client for Content-Type=%s from METHOD matched clients size=%d",
                     content_type.c_str(), static_cast<int>(of_method.size()));
    return;
  }
  IMS_log::loginfo(
      3, __func__,
      "ERROR:  Couldn't find an unique Client based on Content-Type from the given METHOD matched clients");
}
