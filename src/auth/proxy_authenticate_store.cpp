// The store: challenges per domain, and what each client of it last sent.
#include <algorithm>
#include <memory>
#include <string>

#include "auth/proxy_authenticate.h"
#include "framework/bounds.h"
#include "framework/log.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"
#include "siplib/header.h"
#include "siplib/socket_address.h"

IMS_Proxy_RoutingTable_Impl* IMS_Proxy_Authenticate::rt_ptr = nullptr;

namespace {

/// Fills everything but the client key from the request's own credentials and its CSeq. `caller` names the operation in
/// the log, `first_request` is its line for a request without credentials; gives the header value, empty when there is
/// none.
std::string read_request(const char* caller, const char* first_request, SIPLIB_SIPTransportConnection* request,
                         Client_Info_T& info) {
  info = {info.client_key, {}, 2, {}, {}, {}, {}};
  std::string value;
  std::unique_ptr<SIPLIB_SIPHeader> header;
  request->getHeader("Authorization", value);
  if (!value.empty()) {
    IMS_log::loginfo(5, caller, " Header is Authorization ");
    info.hdr_type = 0;
    header.reset(SIPLIB_SIPHeader::createSIPHeaderObject("Authorization", value));
  } else {
    request->getHeader("Proxy-Authorization", value);
    if (!value.empty()) {
      IMS_log::loginfo(5, caller, " Header is Proxy-Auth ");
      info.hdr_type = 1;
      header.reset(SIPLIB_SIPHeader::createSIPHeaderObject("Proxy-Authorization", value));
    }
  }
  if (value.empty()) {
    IMS_log::loginfo(5, caller, " No Auth Header is PRESENT");
    IMS_log::loginfo(5, caller, "%s", first_request);
  } else {
    IMS_log::loginfo(5, caller, " Either Authorization/Proxy-Authorization is present - %s", value.c_str());
  }
  if (header) {
    header->getParameter("nonce", info.nonce);
    header->getParameter("realm", info.realm);
    std::string qop;
    if (header->getParameter("qop", qop) == 0) {
      header->getParameter("cnonce", info.cnonce);
      header->getParameter("nc", info.nc);
      IMS_log::loginfo(5, caller, "qop is present - nonce_count is %s", info.nc.c_str());
    }
  }
  request->getHeader("CSeq", info.cseq);
  for (std::string* text : {&info.cseq, &info.nonce, &info.nc, &info.realm, &info.cnonce}) {
    if (text->size() > kMaxClientText) *text = text->substr(0, kMaxClientText);  // a new one, with room for no more
  }
  return value;
}

}  // namespace

IMS_Proxy_Authenticate::IMS_Proxy_Authenticate(IMS_Proxy_RoutingTable_Impl* routing_table) {
  rt_ptr = routing_table;
}

void IMS_Proxy_Authenticate::create_auth_info(std::string domain_key, std::string auth_hdr, Auth_T type,
                                              std::string realm, std::string nonce, bool from_proxy) {
  IMS_log::loginfo(5, __func__, "Create Auth entry for domain %s,auth hdr %s,type %d,realm %s nonce %s",
                   domain_key.c_str(), auth_hdr.c_str(), static_cast<int>(type), realm.c_str(), nonce.c_str());
  // Refused before an entry is made: of a domain with an entry but no challenge, clients' own credentials would go.
  if (auth_hdr.size() > kMaxChallengeSize) {
    IMS_log::loginfo(4, __func__, "Domain %s has %zu challenges already - one of %zu bytes is not kept, realm %s",
                     domain_key.c_str(), challenge_count(domain_key), auth_hdr.size(), realm.c_str());
    return;
  }
  auto found = store_.find(domain_key);
  if (found == store_.end()) {
    const DomainTable_Entry_T* record = rt_ptr == nullptr ? nullptr : rt_ptr->domain(domain_key);
    if (record == nullptr) {
      IMS_log::loginfo(4, __func__, "There is no domain %s - its challenge is not kept", domain_key.c_str());
      return;
    }
    IMS_log::loginfo(5, __func__, "Auth entry for domain key  does not exist - Create a new entry");
    found = store_.emplace(domain_key, Auth_Info_T{record->domain.username, record->domain.password, {}, {}}).first;
    IMS_log::loginfo(5, __func__, "username is %s, password is %s", found->second.username.c_str(),
                     found->second.password.c_str());
  }
  std::vector<Auth_Hdrs_T>& stored = found->second.auth_hdrs;
  stored.push_back({type, realm, {}, {{{3, nonce, "0"}, {}, {}}}, 0, from_proxy});
  keep_challenge(domain_key, stored.size() - 1, auth_hdr);
}

bool IMS_Proxy_Authenticate::check_if_auth_hdr_present(std::string domain_key, Auth_T type, std::string realm,
                                                       int& auth_index) {
  auth_index = -1;
  IMS_log::loginfo(5, __func__, " Searching for domain_key %s, Auth Type %d, realm %s", domain_key.c_str(),
                   static_cast<int>(type), realm.c_str());
  if (const Auth_Info_T* info = auth_info(domain_key)) {
    IMS_log::loginfo(5, __func__, "Auth Entry exists for this Profile");
    for (std::size_t i = 0; i < info->auth_hdrs.size(); ++i) {
      if (info->auth_hdrs[i].auth_type != type || info->auth_hdrs[i].realm != realm) continue;
      auth_index = static_cast<int>(i);
      IMS_log::loginfo(5, __func__, "Auth Entry Found for realm/auth type- auth index %d", auth_index);
      return true;
    }
  }
  IMS_log::loginfo(5, __func__, "Auth Entry Not Found for this Profile realm/auth type");
  return false;
}

bool IMS_Proxy_Authenticate::is_auth_hdr_available_for_profile(std::string domain_key) {
  const bool available = auth_info(domain_key) != nullptr;
  IMS_log::loginfo(5, __func__,
                   available ? "Auth Entry Found for this Profile %s" : "Auth Entry NOT Found for this Profile %s",
                   domain_key.c_str());
  return available;
}

bool IMS_Proxy_Authenticate::check_if_client_exists(std::string domain_key, std::string client_key, int& client_index) {
  client_index = -1;
  IMS_log::loginfo(5, __func__, "Checking if client exists for client key = %s, domain key %s", client_key.c_str(),
                   domain_key.c_str());
  if (const Auth_Info_T* info = auth_info(domain_key)) {
    for (std::size_t i = 0; i < info->clients.size(); ++i) {
      if (info->clients[i].client_key != client_key) continue;
      client_index = static_cast<int>(i);
      IMS_log::loginfo(5, __func__, "Found client entry - index = %d", client_index);
      return true;
    }
  }
  IMS_log::loginfo(5, __func__, "No client entry found");
  return false;
}

bool IMS_Proxy_Authenticate::add_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                             std::string client_key, int& client_index) {
  IMS_log::loginfo(5, __func__, " domain_key is %s, client_key is %s", domain_key.c_str(), client_key.c_str());
  if (request == nullptr || domain_key.empty() || client_key.empty()) {
    IMS_log::loginfo(4, __func__, "Error - either conn is NULL or keys are emoty");
    return false;
  }
  if (rt_ptr == nullptr || rt_ptr->client(client_key) == nullptr || rt_ptr->domain(domain_key) == nullptr) {
    IMS_log::loginfo(4, __func__, "There is no client %s or domain %s - nothing is kept of it", client_key.c_str(),
                     domain_key.c_str());
    return false;
  }
  Client_Info_T info;
  info.client_key = client_key;
  read_request(__func__, "This is the typicalcase of first unchallenged request", request, info);
  std::vector<Client_Info_T>& clients = store_[domain_key].clients;
  auto client = std::find_if(clients.begin(), clients.end(),
                             [&](const Client_Info_T& known) { return known.client_key == client_key; });
  if (client == clients.end()) client = clients.emplace(client);
  *client = std::move(info);
  client_index = static_cast<int>(client - clients.begin());
  IMS_log::loginfo(5, __func__, "Client added to list - index is %d ", client_index);
  return true;
}

bool IMS_Proxy_Authenticate::update_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                                int client_index) {
  if (request == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Client info to be updated  for client index - %d", client_index);
  Client_Info_T* info = client_at(domain_key, client_index);
  if (info == nullptr) {
    IMS_log::loginfo(4, __func__, "Domain %s has no client %d", domain_key.c_str(), client_index);
    return false;
  }
  const std::string value =
      read_request(__func__, "This is the typical case of first unchallenged request", request, *info);
  IMS_log::loginfo(5, __func__, "Cseq updated for this client entry  %s", info->cseq.c_str());
  IMS_log::loginfo(5, __func__, "Auth Hdr is %s nonce is %s realm is %s  auth type is %d", value.c_str(),
                   info->nonce.c_str(), info->realm.c_str(), info->hdr_type);
  return true;
}

void IMS_Proxy_Authenticate::update_nonce(std::string domain_key, int auth_index, std::string nonce) {
  IMS_log::loginfo(5, __func__, "nonce value to be checked - %s", nonce.c_str());
  const Auth_Hdrs_T* challenge = challenge_at(domain_key, auth_index);
  if (challenge == nullptr) {
    IMS_log::loginfo(4, __func__, "Domain %s has no challenge %d", domain_key.c_str(), auth_index);
    return;
  }
  for (const Nonce_Slot_T& slot : challenge->nonces) {
    if (slot.nonce != nonce) continue;
    IMS_log::loginfo(5, __func__, "nonce value found for this Auth entry - returning");
    return;
  }
  IMS_log::loginfo(5, __func__, "nonce value has changed for this Auth entry  - Update Nonce");
  update_nonce_age(domain_key, auth_index, nonce);
}

void IMS_Proxy_Authenticate::update_nonce_age(std::string domain_key, int auth_index, std::string nonce) {
  const Auth_Hdrs_T* stored = challenge_at(domain_key, auth_index);
  if (stored == nullptr) return;
  // Deliberately on a copy that nobody keeps: the stored slots, and with them the nonce count, go on as they are, and
  // the new nonce is taken from the stored header text alone.
  Auth_Hdrs_T challenge = *stored;
  Nonce_Slot_T* empty = nullptr;
  for (Nonce_Slot_T& slot : challenge.nonces) {
    if (slot.age == 0) {
      empty = &slot;
    } else if (slot.age == 1) {
      slot = {3, nonce, "0"};
    } else {
      --slot.age;
    }
  }
  if (empty != nullptr) *empty = {3, nonce, "0"};
}

bool IMS_Proxy_Authenticate::delete_auth_info(std::string domain_key) {
  store_.erase(domain_key);
  IMS_log::loginfo(5, __func__, "Deleted Auth Info for Profile %s", domain_key.c_str());
  return true;
}

bool IMS_Proxy_Authenticate::delete_client_auth_info(std::string domain_key, std::string client_key) {
  IMS_log::loginfo(5, __func__, "client key %s  and domain key %s", client_key.c_str(), domain_key.c_str());
  if (const auto found = store_.find(domain_key); found != store_.end()) {
    std::vector<Client_Info_T>& clients = found->second.clients;
    const auto client = std::find_if(clients.begin(), clients.end(),
                                     [&](const Client_Info_T& info) { return info.client_key == client_key; });
    if (client != clients.end()) {
      clients.erase(client);
      IMS_log::loginfo(5, __func__, "Deleted Client Auth Info successfully");
      return true;
    }
  }
  IMS_log::loginfo(5, __func__, "Could not find client key to be deleted");
  return false;
}

void IMS_Proxy_Authenticate::forget_client(const std::string& client_key) {
  for (auto& [domain_key, info] : store_) {
    if (std::erase_if(info.clients, [&](const Client_Info_T& known) { return known.client_key == client_key; }) == 0) {
      continue;
    }
    IMS_log::loginfo(5, __func__, "Client %s is forgotten in domain %s too", client_key.c_str(), domain_key.c_str());
  }
}

const Auth_Info_T* IMS_Proxy_Authenticate::auth_info(const std::string& domain_key) const {
  const auto found = store_.find(domain_key);
  return found == store_.end() ? nullptr : &found->second;
}

Client_Info_T* IMS_Proxy_Authenticate::client_at(const std::string& domain_key, int client_index) {
  const auto found = store_.find(domain_key);
  if (found == store_.end() || client_index < 0) return nullptr;
  const auto index = static_cast<std::size_t>(client_index);
  return index < found->second.clients.size() ? &found->second.clients[index] : nullptr;
}

Auth_Hdrs_T* IMS_Proxy_Authenticate::challenge_at(const std::string& domain_key, int auth_index) {
  const auto found = store_.find(domain_key);
  if (found == store_.end() || auth_index < 0) return nullptr;
  const auto index = static_cast<std::size_t>(auth_index);
  return index < found->second.auth_hdrs.size() ? &found->second.auth_hdrs[index] : nullptr;
}

std::size_t IMS_Proxy_Authenticate::challenge_count(const std::string& domain_key) const {
  const Auth_Info_T* info = auth_info(domain_key);
  return info == nullptr ? 0 : info->auth_hdrs.size();
}

bool IMS_Proxy_Authenticate::is_from_proxy(const SIPLIB_SIPTransportConnection& response,
                                           const std::string& domain_key) {
  const DomainTable_Entry_T* record = rt_ptr == nullptr ? nullptr : rt_ptr->domain(domain_key);
  std::string ip;
  int port = 0;
  if (record == nullptr || !response.getPeerAddress(ip, port)) return false;
  const auto peer = siplib::SocketAddress::parse(ip, 0);
  return peer && peer == siplib::SocketAddress::parse(record->domain.proxy_ip, 0);
}

void IMS_Proxy_Authenticate::keep_challenge(const std::string& domain_key, std::size_t position,
                                            const std::string& auth_hdr) {
  std::vector<Auth_Hdrs_T>& stored = store_[domain_key].auth_hdrs;
  stored[position].auth_hdr = auth_hdr;
  stored[position].last_seen = ++challenges_seen_;
  // Anybody can make the network's side of the store full. What the network asks for again and again is young, and what
  // a stranger planted gives way to it.
  if (stored.size() <= framework::bounds().challenges) return;
  const auto oldest = std::min_element(stored.begin(), stored.end(),
                                       [](const Auth_Hdrs_T& a, const Auth_Hdrs_T& b) { return a.below(b); });
  IMS_log::loginfo(4, __func__, "Domain %s has too many challenges - the oldest gives way, realm %s",
                   domain_key.c_str(), oldest->realm.c_str());
  stored.erase(oldest);
}
