// The domain side of the routing table.
#include <algorithm>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/bounds.h"
#include "framework/log.h"
#include "framework/utility.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"

unsigned int IMS_Proxy_RoutingTable_Impl::current_dom_tbl_key = 0;

bool IMS_Proxy_RoutingTable_Impl::addDomain(Domain_Entry_T const& entry) {
  IMS_log::loginfo(5, __func__, "Domain Profile Id=%s", entry.profile_id.c_str());
  const std::string existing = findDomain(DT_PROFILE_ID, entry.profile_id);
  IMS_log::loginfo(5, __func__, "findDomain returning Domain key=%s", existing.c_str());
  if (!existing.empty()) {
    IMS_log::loginfo(4, __func__, "Domain already exists");
    return false;
  }
  if (domains_.size() >= framework::bounds().routes) {
    IMS_log::loginfo(4, __func__, "There are %zu routes already - one of profile %s is not set (max-routes)",
                     domains_.size(), entry.profile_id.c_str());
    return false;
  }
  const std::string key = std::to_string(current_dom_tbl_key);
  IMS_log::loginfo(5, __func__, "Domain does not exist - adding domain key=%s", key.c_str());

  // The clients are linked before anything can fail, and stay linked: after a refusal below they hold a key that is not
  // stored yet, and belong to the next domain that is added, which gets it.
  std::vector<std::string> linked;
  findClients_ProfileId(entry.profile_id, linked);
  for (const std::string& client_key : linked) clients_.find(client_key)->second.domain_key = key;

  DomainTable_Entry_T dentry;
  dentry.domain = entry;
  dentry.client_count = static_cast<std::uint32_t>(linked.size());
  if (IMS_engine_proxy::net_intf_ip.empty()) IMS_utility::getlocalip(entry.net_intf, IMS_engine_proxy::net_intf_ip);
  if (IMS_engine_proxy::net_intf_ip.empty()) {
    IMS_log::loginfo(3, __func__, "net_intf_ip is empty");
    return false;
  }
  // A deleted domain's stays open, for the network may still answer there; the next domain takes it over.
  if (spare_notifiers_.empty()) {
    dentry.pnotifier =
        IMS_engine_proxy::open_net_notifier(IMS_engine_proxy::net_intf_ip, IMS_engine_proxy::net_intf_port);
  } else {
    dentry.pnotifier = spare_notifiers_.back();
    spare_notifiers_.pop_back();
  }
  IMS_log::loginfo(5, __func__, "dentry.pnotifier=%p", static_cast<void*>(dentry.pnotifier));
  IMS_log::loginfo(5, __func__, "dentry.domain.proxy_ip=%s, proxy_port=%s, proxy_transport=%s, route_set=%s",
                   entry.proxy_ip.c_str(), entry.proxy_port.c_str(), entry.proxy_transport.c_str(),
                   entry.route_set.c_str());
  if (dentry.pnotifier == nullptr) {
    IMS_log::loginfo(3, __func__, "dentry.pnotifier is NULL");
    return false;
  }
  if (IMS_engine_proxy::is_tcp(entry.proxy_transport)) {
    setConnection(dentry, dynamic_cast<SIPLIB_SIPClientTcpTransport*>(IMS_engine_proxy::open_client_connection(
                              "TCP", IMS_engine_proxy::net_intf_ip, portNumber(IMS_engine_proxy::net_intf_port),
                              entry.proxy_ip, portNumber(entry.proxy_port))));
  }
  domains_[key] = std::move(dentry);
  ++current_dom_tbl_key;
  tellProxies();
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::updateDomain(DomainTable_Field_T const& type, std::string const& value,
                                               DomainTable_Field_T const& field, std::string const& text) {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  const auto found = domains_.find(findDomain(type, value));
  if (found == domains_.end()) {
    IMS_log::loginfo(4, __func__, "DOmain Entry does not exist ");
    return false;
  }
  Domain_Entry_T& entry = found->second.domain;
  switch (field) {
    case DT_PROXY_IP:
      entry.proxy_ip = text;
      tellProxies();
      return true;
    case DT_PROXY_PORT:
      entry.proxy_port = text;
      return true;
    case DT_ROUTE_SET:
      entry.route_set = text;
      return true;
    default:
      IMS_log::loginfo(4, __func__, "Returning: Invalid identifier");
      return false;
  }
}

bool IMS_Proxy_RoutingTable_Impl::updateDomain(DomainTable_Field_T const& type, std::string const& value,
                                               std::vector<SA_Info_T> const& sa_list) {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  const auto found = domains_.find(findDomain(type, value));
  if (found == domains_.end()) {
    IMS_log::loginfo(4, __func__, "Domain Entry does not exist ");
    return false;
  }
  std::vector<SA_Info_T>& stored = found->second.domain.sa_info_list;
  for (const SA_Info_T& given : sa_list) {
    bool known = false;
    for (SA_Info_T& association : stored) {
      if (association.id != given.id) continue;
      association = given;
      known = true;
    }
    if (known) continue;
    IMS_log::loginfo(5, __func__, "SA INFO was not found - adding it to sa_info_list");
    stored.push_back(given);
  }
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::updateDomain(DomainTable_Field_T const& type, std::string const& value,
                                               DomainTable_Field_T const& field, void const* handle) {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  const auto found = domains_.find(findDomain(type, value));
  if (found == domains_.end()) {
    IMS_log::loginfo(4, __func__, "ERROR: Domain Entry does not exist ");
    return false;
  }
  void* const pointer = const_cast<void*>(handle);
  switch (field) {
    case DT_TCP_CLIENT_CONN:
      setConnection(found->second, static_cast<SIPLIB_SIPClientTcpTransport*>(pointer));
      IMS_log::loginfo(5, __func__, "Updated domain for tcp_client_conn=%p", handle);
      return true;
    case DT_PNOTIFIER:
      found->second.pnotifier = static_cast<SIPLIB_SIPTransportNotifier*>(pointer);
      IMS_log::loginfo(5, __func__, "Updated domain for pnotifier=%p", handle);
      return true;
    default:
      IMS_log::loginfo(4, __func__, "Returning: Invalid identifier");
      return false;
  }
}

bool IMS_Proxy_RoutingTable_Impl::deleteDomain(DomainTable_Field_T const& type, std::string const& value) {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  const auto found = domains_.find(findDomain(type, value));
  if (found == domains_.end()) {
    IMS_log::loginfo(4, __func__, "ERROR: Domain entry does not exist ");
    return false;
  }
  endConnection(found->second);
  if (found->second.pnotifier != nullptr) spare_notifiers_.push_back(found->second.pnotifier);
  std::vector<std::string> linked;
  findClients_ProfileId(value, linked);
  for (const std::string& client_key : linked) clients_.find(client_key)->second.domain_key.clear();
  const std::string key = found->first;
  if (IMS_engine_proxy::ims_proxy_auth_ptr != nullptr) IMS_engine_proxy::ims_proxy_auth_ptr->delete_auth_info(key);
  domains_.erase(found);
  tellProxies();
  IMS_log::loginfo(5, __func__, "Deleted domain key=%s", key.c_str());
  return true;
}

// Who was left with a connection that is closed for good does not get it back because another has opened it again.
void IMS_Proxy_RoutingTable_Impl::setConnection(DomainTable_Entry_T& entry, SIPLIB_SIPClientTcpTransport* connection) {
  for (auto& [key, record] : domains_) {
    if (!record.connection_ended || record.tcp_client_conn != connection) continue;
    record.tcp_client_conn = nullptr;
    record.connection_ended = false;
  }
  entry.tcp_client_conn = connection;
  entry.connection_ended = false;
}

bool IMS_Proxy_RoutingTable_Impl::isShared(DomainTable_Entry_T const& entry) const {
  for (const auto& [key, record] : domains_) {
    if (&record == &entry || record.connection_ended) continue;
    if (record.tcp_client_conn == entry.tcp_client_conn) return true;
  }
  return std::any_of(clients_.begin(), clients_.end(),
                     [&](const auto& client) { return client.second.tcp_client_conn == entry.tcp_client_conn; });
}

void IMS_Proxy_RoutingTable_Impl::endConnection(std::string const& key) {
  const auto found = domains_.find(key);
  if (found != domains_.end()) endConnection(found->second);
}

void IMS_Proxy_RoutingTable_Impl::endConnection(DomainTable_Entry_T& entry) {
  if (entry.tcp_client_conn == nullptr) return;
  if (isShared(entry)) {
    entry.tcp_client_conn = nullptr;
    return;
  }
  IMS_engine_proxy::close_client_connection(entry.tcp_client_conn);
  entry.connection_ended = true;
}

void IMS_Proxy_RoutingTable_Impl::tellProxies() const {
  std::vector<std::string> addresses;
  for (const auto& [key, record] : domains_) addresses.push_back(record.domain.proxy_ip);
  IMS_engine_proxy::keep_places_for_proxies(addresses);
}

std::string IMS_Proxy_RoutingTable_Impl::findDomain(DomainTable_Field_T const& type, std::string const& value) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  if (type != DT_PROFILE_ID) {
    IMS_log::loginfo(4, __func__, "Returning: Invalid identifier");
    return {};
  }
  if (value.empty()) {
    IMS_log::loginfo(4, __func__, "Returning: Empty domain key as Profile-id is empty");
    return {};
  }
  for (const auto& [key, record] : domains_) {
    if (record.domain.profile_id != value) continue;
    IMS_log::loginfo(5, __func__, "Found Domain entry with profile id=%s : domain key is %s", value.c_str(),
                     key.c_str());
    return key;
  }
  IMS_log::loginfo(4, __func__, "Returning empty domain key");
  return {};
}

std::string IMS_Proxy_RoutingTable_Impl::findDomain_Connection(void* connection) const {
  IMS_log::loginfo(5, __func__, "Finding from domain table, pconn=%p", connection);
  if (connection == nullptr) {
    IMS_log::loginfo(4, __func__, "Returning: Empty domain key as conn=NULL");
    return {};
  }
  for (const auto& [key, record] : domains_) {
    if (record.tcp_client_conn != connection) continue;
    IMS_log::loginfo(5, __func__, "Found Domain entry for conn=%p: domain key is %s", connection, key.c_str());
    return key;
  }
  IMS_log::loginfo(4, __func__, "Could not find Domain Key ");
  return {};
}

const DomainTable_Entry_T* IMS_Proxy_RoutingTable_Impl::domain(std::string const& key) const {
  const auto found = domains_.find(key);
  return found == domains_.end() ? nullptr : &found->second;
}
