// Challenges taken from responses, credentials put into requests.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "framework/log.h"
#include "siplib/connection.h"
#include "siplib/header.h"
#include "siplib/text.h"

namespace {

const char* header_name(Auth_T kind) {
  return kind == AUTH_WWW ? "Authorization" : "Proxy-Authorization";
}

/// One request more with the slot's nonce. An empty count stays empty.
void advance_nonce_count(const char* caller, Nonce_Slot_T& slot) {
  if (slot.nc.empty()) return;
  const unsigned long long count = std::strtoull(slot.nc.c_str(), nullptr, 10);
  IMS_log::loginfo(5, caller, "nonce_cnt_value is %d", static_cast<int>(count));
  slot.nc = std::to_string(count + 1);
}

/// What a parameter's value says: without its quotes and their escapes.
std::string parameter_text(const std::string& value) {
  if (value.empty() || value[0] != '"' || siplib::skipQuoted(value, 0) != value.size()) return value;
  std::string text;
  for (std::size_t i = 1; i + 1 < value.size(); ++i) {
    if (value[i] == '\\') ++i;
    text += value[i];
  }
  return text;
}

/// A challenge that a request answers, and what its realm says.
struct Answered {
  Auth_Hdrs_T* challenge;
  std::string realm;
};

/// Whether one of them has the realm, as a judge may see it: some compare without regard to case.
bool has_realm(const std::vector<Answered>& answered, Auth_T kind, const std::string& realm) {
  return std::any_of(answered.begin(), answered.end(), [&](const Answered& one) {
    return one.challenge->auth_type == kind && siplib::equalsIgnoreCase(one.realm, realm);
  });
}

/// The challenges that one request answers, in stored order: those of the proxy before others, the youngest first, no
/// realm of a kind twice. So a judge never has to choose between two answers, and what others planted cannot stand
/// before what the network asked for last.
std::vector<Answered> answered_challenges(std::vector<Auth_Hdrs_T>& stored) {
  std::vector<Auth_Hdrs_T*> by_rank;
  for (Auth_Hdrs_T& challenge : stored) by_rank.push_back(&challenge);
  std::sort(by_rank.begin(), by_rank.end(), [](const Auth_Hdrs_T* a, const Auth_Hdrs_T* b) { return b->below(*a); });
  std::vector<Answered> answered;
  for (Auth_Hdrs_T* const challenge : by_rank) {
    if (answered.size() == kMaxCredentials) break;
    std::string realm = parameter_text(challenge->realm);
    if (!has_realm(answered, challenge->auth_type, realm)) answered.push_back({challenge, std::move(realm)});
  }
  std::sort(answered.begin(), answered.end(), [](const Answered& a, const Answered& b) {
    return a.challenge < b.challenge;  // they stand in one array
  });
  return answered;
}

/// Removes those of the client's own headers of this kind (`values`, topmost first) that stand against an answer to
/// come, or name no realm; the others keep their order. Gives the number removed.
std::size_t remove_replaced(SIPLIB_SIPTransportConnection* request, Auth_T kind, const std::vector<std::string>& values,
                            const std::vector<Answered>& answered) {
  const char* const name = header_name(kind);
  std::vector<std::size_t> gone;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::unique_ptr<SIPLIB_SIPHeader> own(SIPLIB_SIPHeader::createSIPHeaderObject(name, values[i]));
    std::string realm;
    const bool named = own && own->getParameter("realm", realm) == 0 && !realm.empty();
    if (!named || has_realm(answered, kind, parameter_text(realm))) gone.push_back(i);
  }
  if (gone.empty()) return 0;
  // The library removes the topmost one: down to the last that goes all are taken off, and the others put back on top.
  for (std::size_t i = 0; i <= gone.back(); ++i) request->removeHeader(name);
  for (std::size_t i = gone.back(); i-- > 0;) {
    if (!std::binary_search(gone.begin(), gone.end(), i)) request->addHeader(name, values[i]);
  }
  return gone.size();
}

}  // namespace

bool IMS_Proxy_Authenticate::is_mode_ietf_shared(std::string mode) {
  if (mode == "ietf-shared") {
    IMS_log::loginfo(5, __func__, "IETF Shared Mode");
    return true;
  }
  IMS_log::loginfo(5, __func__, "Mode is %s", mode.c_str());
  return false;
}

// --- Responses ------------------------------------------------------------------------------------------------------

bool IMS_Proxy_Authenticate::is_request_challenged(SIPLIB_SIPTransportConnection* response) const {
  if (response == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  const int status = response->getStatusCode();
  IMS_log::loginfo(5, __func__, " The status code is %d", status);
  const bool challenged = status == 401 || status == 407;
  IMS_log::loginfo(5, __func__, challenged ? "The Request is Challenged" : "The Request is Not Challenged");
  return challenged;
}

bool IMS_Proxy_Authenticate::get_response_auth_hdr_info(SIPLIB_SIPTransportConnection* response, std::string& auth_hdr,
                                                        Auth_T& type, std::string& realm, std::string& nonce) {
  if (response == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  const int status = response->getStatusCode();
  IMS_log::loginfo(5, __func__, "Status Code is %d", status);
  bool result = false;
  if (status == 401 || status == 407) {
    type = status == 401 ? AUTH_WWW : AUTH_PROXY;
    const char* const name = type == AUTH_WWW ? "WWW-Authenticate" : "Proxy-Authenticate";
    response->getHeader(name, auth_hdr);
    const std::unique_ptr<SIPLIB_SIPHeader> challenge(SIPLIB_SIPHeader::createSIPHeaderObject(name, auth_hdr));
    if (challenge) {
      challenge->getParameter("nonce", nonce);
      challenge->getParameter("realm", realm);
      result = true;
    } else if (!auth_hdr.empty()) {
      IMS_log::loginfo(4, __func__, "%s of the response cannot be read - %s", name, auth_hdr.c_str());
    }
  } else {
    IMS_log::loginfo(4, __func__, "Status Code Invalid");
  }
  IMS_log::loginfo(5, __func__, "Auth Hdr is %s nonce is %s realm is %s  auth type is %d retval is %d",
                   auth_hdr.c_str(), nonce.c_str(), realm.c_str(), static_cast<int>(type), static_cast<int>(result));
  return result;
}

bool IMS_Proxy_Authenticate::update_auth_info_for_response(SIPLIB_SIPTransportConnection* response,
                                                           std::string domain_key) {
  IMS_log::loginfo(5, __func__, "update_auth_info_for_response : domain key is %s", domain_key.c_str());
  if (response == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  std::string auth_hdr;
  std::string realm;
  std::string nonce;
  Auth_T type = AUTH_WWW;
  if (!get_response_auth_hdr_info(response, auth_hdr, type, realm, nonce)) {
    IMS_log::loginfo(5, __func__, "Auth Header is ABSENT in RESPONSE");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Auth Header is Present in RESPONSE  - value is %s", auth_hdr.c_str());
  IMS_log::loginfo(5, __func__, "Auth Type is %d, Realm is %s, network nonce is %s", static_cast<int>(type),
                   realm.c_str(), nonce.c_str());
  const bool from_proxy = is_from_proxy(*response, domain_key);
  int index = -1;
  if (check_if_auth_hdr_present(domain_key, type, realm, index)) {
    IMS_log::loginfo(5, __func__, "Auth Header is already present in Proxy - auth index %d", index);
    Auth_Hdrs_T& known = *challenge_at(domain_key, index);
    if (known.from_proxy && !from_proxy) {
      IMS_log::loginfo(4, __func__, "Challenge from elsewhere is not kept in place of the proxy's, domain %s realm %s",
                       domain_key.c_str(), realm.c_str());
      return false;
    }
    update_nonce(domain_key, index, nonce);
    if (auth_hdr.size() > kMaxChallengeSize) {
      IMS_log::loginfo(4, __func__, "New challenge of %zu bytes is not kept, domain %s realm %s", auth_hdr.size(),
                       domain_key.c_str(), realm.c_str());
      return false;
    }
    known.from_proxy = from_proxy;
    keep_challenge(domain_key, static_cast<std::size_t>(index), auth_hdr);
    return true;
  }
  const std::uint64_t before = challenges_seen_;
  create_auth_info(domain_key, auth_hdr, type, realm, nonce, from_proxy);
  if (challenges_seen_ == before) return false;  // refused, and logged there
  IMS_log::loginfo(5, __func__, "Auth Header not present : Created  auth entry ");
  return true;
}

// --- Requests -------------------------------------------------------------------------------------------------------

bool IMS_Proxy_Authenticate::update_auth_info_for_request(SIPLIB_SIPTransportConnection* request,
                                                          std::string domain_key, std::string client_key) {
  IMS_log::loginfo(5, __func__, "update_auth_info_for_request : domain_key %s, client_key %s", domain_key.c_str(),
                   client_key.c_str());
  if (request == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  if (!is_auth_hdr_available_for_profile(domain_key)) {
    IMS_log::loginfo(5, __func__, "No Auth hdrs avaiable for this profile - Nothing to be done in Proxy");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Auth Header is avaliable for this profile - %s", domain_key.c_str());
  bool result = false;
  int index = -1;
  if (check_if_client_exists(domain_key, client_key, index)) {
    IMS_log::loginfo(5, __func__, "Client already exists - client index - %d", index);
    // The credentials first: the client's record is made from the request as it leaves.
    if (update_proxy_auth_info(request, domain_key, index)) {
      result = update_client_info(request, domain_key, index);
      IMS_log::loginfo(5, __func__, "Updating client info - retval is %d", static_cast<int>(result));
    }
  } else if (add_client_info(request, domain_key, client_key, index)) {
    result = update_proxy_auth_info(request, domain_key, index);
    IMS_log::loginfo(5, __func__, "Client does not exist  - new  client index - %d and retval is %d", index,
                     static_cast<int>(result));
  }
  return result;
}

bool IMS_Proxy_Authenticate::update_proxy_auth_info(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                                    int client_index) {
  if (request == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL - returning false");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Headers to be updated for domain key %s", domain_key.c_str());
  std::vector<std::string> www;
  std::vector<std::string> proxy;
  const std::size_t val1 = request->getHeaders("Authorization", www);
  const std::size_t val2 = request->getHeaders("Proxy-Authorization", proxy);
  const std::size_t known = challenge_count(domain_key);
  IMS_log::loginfo(5, __func__, "Number of Auth Headers in request %d and val1 is %d", static_cast<int>(www.size()),
                   static_cast<int>(val1));
  IMS_log::loginfo(5, __func__, "Number of Proxy-Auth Headers in request %d and val2 is %d",
                   static_cast<int>(proxy.size()), static_cast<int>(val2));
  IMS_log::loginfo(5, __func__, "Number of Auth Headers maintained by Proxy  %d", static_cast<int>(known));

  if (www.empty() && proxy.empty()) {
    IMS_log::loginfo(5, __func__, "Just Add all Headers maintained by proxy one by one");
    return add_proxy_auth_hdrs(request, domain_key);
  }
  if (www.size() + proxy.size() != known) {
    IMS_log::loginfo(4, __func__, "This is Scenario 3 - not handled here - returning true");
    IMS_log::loginfo(5, __func__, "Scenario 3- Just Add all Headers maintained by proxy one by one");
    std::vector<Answered> answered;
    if (const auto found = store_.find(domain_key); found != store_.end()) {
      answered = answered_challenges(found->second.auth_hdrs);
    }
    for (std::size_t removed = remove_replaced(request, AUTH_WWW, www, answered); removed > 0; --removed) {
      IMS_log::loginfo(5, __func__, "Removed Header");
    }
    remove_replaced(request, AUTH_PROXY, proxy, answered);
    add_proxy_auth_hdrs(request, domain_key);
    return true;
  }

  // The client answered as many challenges as are known: each of its answers is made again where possible. Not without
  // end: all of them may name one nonce, that of the largest challenge.
  std::size_t made = 0;
  const auto answer_again = [&](Auth_T kind, std::vector<std::string>& values) {
    for (std::string& value : values) {
      IMS_log::loginfo(5, "update_proxy_auth_info", "Headers to be replaced is %s", value.c_str());
      if (made == kMaxCredentials) continue;
      std::string answer;
      if (!replace_auth_hdrs(request, domain_key, kind, value.c_str(), answer, client_index)) continue;
      ++made;
      value = std::move(answer);
    }
  };
  answer_again(AUTH_WWW, www);
  for (std::size_t i = 0; i < www.size(); ++i) {
    request->removeHeader("Authorization");
    IMS_log::loginfo(5, __func__, "Removed Header");
  }
  for (const std::string& value : www) {
    request->addHeader("Authorization", value);
    IMS_log::loginfo(5, __func__, "Added Authorization Header %s", value.c_str());
  }
  answer_again(AUTH_PROXY, proxy);
  for (std::size_t i = 0; i < proxy.size(); ++i) {
    request->removeHeader("Proxy-Authorization");
    IMS_log::loginfo(5, __func__, "Removing proxy-Auth header");
  }
  for (const std::string& value : proxy) {
    request->addHeader("Proxy-Authorization", value);
    IMS_log::loginfo(5, __func__, "Adding Header maintained by proxy %s", value.c_str());
  }
  return true;
}

bool IMS_Proxy_Authenticate::add_proxy_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key) {
  const auto found = store_.find(domain_key);
  const std::string username = found == store_.end() ? std::string() : found->second.username;
  const std::string password = found == store_.end() ? std::string() : found->second.password;
  IMS_log::loginfo(5, __func__, "username is %s, password is %s", username.c_str(), password.c_str());
  if (request == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL  - returning false");
    return false;
  }
  bool result = false;
  if (found != store_.end()) {
    for (const Answered& answered : answered_challenges(found->second.auth_hdrs)) {
      Auth_Hdrs_T& challenge = *answered.challenge;
      for (Nonce_Slot_T& slot : challenge.nonces) {
        if (slot.age != 3) continue;
        IMS_log::loginfo(5, __func__, "This is the latest nonce value to be used");
        Auth_T kind = challenge.auth_type;
        const char* const name = header_name(kind);
        const std::unique_ptr<SIPLIB_SIPHeader> header(
            SIPLIB_SIPHeader::createSIPHeaderObject(name, challenge.auth_hdr));
        if (is_qop_present(header.get())) {
          IMS_log::loginfo(5, __func__, "qop is present ");
          advance_nonce_count(__func__, slot);
        }
        std::string value;
        result = generate_auth_header(kind, challenge.auth_hdr, request->getRequestURI(), request->getMethod(),
                                      username, password, value, slot.nc);
        if (!result) {
          IMS_log::loginfo(4, __func__, "Error in generating headers - returning false");
          return false;
        }
        request->addHeader(name, value);
        break;
      }
    }
  }
  IMS_log::loginfo(5, __func__, "Returning from addHeaders - retval is %d", static_cast<int>(result));
  return result;
}

bool IMS_Proxy_Authenticate::replace_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                               Auth_T type, const char* client_hdr, std::string& new_hdr,
                                               int client_index) {
  const auto found = store_.find(domain_key);
  const std::string username = found == store_.end() ? std::string() : found->second.username;
  const std::string password = found == store_.end() ? std::string() : found->second.password;
  IMS_log::loginfo(5, __func__, "username is %s, password is %s", username.c_str(), password.c_str());
  if (request == nullptr || client_hdr == nullptr) {
    IMS_log::loginfo(4, __func__, "conn ptr is NULL  OR auth hdr is absent - returning false");
    return false;
  }
  IMS_log::loginfo(5, __func__, "forming auth hdr object for hdrs - %s", client_hdr);
  const std::unique_ptr<SIPLIB_SIPHeader> own(SIPLIB_SIPHeader::createSIPHeaderObject(header_name(type), client_hdr));
  if (!own) {
    IMS_log::loginfo(4, __func__, "auth_hdr_obj is  NULL - returning false");
    return false;
  }
  std::string nonce;
  std::string nc;
  own->getParameter("nonce", nonce);
  own->getParameter("nc", nc);
  // Slots without nonce are empty ones: an answer that names none answers none of them.
  const bool names_one = !parameter_text(nonce).empty();
  if (found != store_.end() && names_one) {
    for (Auth_Hdrs_T& challenge : found->second.auth_hdrs) {
      if (challenge.auth_type != type) continue;
      for (Nonce_Slot_T& slot : challenge.nonces) {
        if (slot.nonce != nonce) continue;
        IMS_log::loginfo(5, __func__, "Nonce value and type matched - nonce is %s", nonce.c_str());
        IMS_log::loginfo(5, __func__, "Update the Auth header)");
        if (is_qop_present(own.get()) && !is_retransmission(request, domain_key, client_index, nc)) {
          IMS_log::loginfo(5, __func__, "qop is present and this is not retransmission");
          advance_nonce_count(__func__, slot);
        }
        const std::string uri = request->getRequestURI();
        const std::string method = request->getMethod();
        IMS_log::loginfo(5, __func__, "username is %s, password is %s", username.c_str(), password.c_str());
        IMS_log::loginfo(5, __func__, "auth_type is %d, uri is  %s method is %s", static_cast<int>(type), uri.c_str(),
                         method.c_str());
        return generate_auth_header(type, challenge.auth_hdr, uri, method, username, password, new_hdr, slot.nc);
      }
    }
  }
  IMS_log::loginfo(5, __func__, "Could not replace Auth headers - returning false");
  return false;
}

bool IMS_Proxy_Authenticate::is_retransmission(SIPLIB_SIPTransportConnection* /*request*/, std::string domain_key,
                                               int client_index, std::string nc) {
  if (nc.empty()) {
    IMS_log::loginfo(5, __func__, "No nonce count present - cannot say if retransmission");
    return false;
  }
  const Client_Info_T* client = client_at(domain_key, client_index);
  if (client != nullptr && client->nc == nc) {
    IMS_log::loginfo(5, __func__, "Retransmission as nonce_count is same as old value");
    return true;
  }
  IMS_log::loginfo(5, __func__, "NEW transmission as nonce_count has changed");
  return false;
}
