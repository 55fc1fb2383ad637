// The network's digest challenges, answered on behalf of the local clients.
//
// The store remembers per domain the challenges that the network sent, and per client of it what the client last sent.
// A challenged domain's later requests, of any of its clients, leave with credentials made here from the domain's user
// name and password. Nothing is sent from here; a false result leaves the message as it is so far and it is sent
// anyway. What a network can make the store keep is bounded (auth_records.h). Loop thread only, no lock.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "auth/auth_records.h"
#include "siplib/random.h"

class IMS_Proxy_RoutingTable_Impl;
class SIPLIB_SIPHeader;
class SIPLIB_SIPTransportConnection;

class IMS_Proxy_Authenticate {
 public:
  IMS_Proxy_Authenticate() = default;
  /// Sets `rt_ptr`.
  explicit IMS_Proxy_Authenticate(IMS_Proxy_RoutingTable_Impl* routing_table);

  // --- The store (proxy_authenticate_store.cpp). Positions are -1 when not found. ------------------------------------

  void create_auth_info(std::string domain_key, std::string auth_hdr, Auth_T type, std::string realm,
                        std::string nonce);
  bool check_if_auth_hdr_present(std::string domain_key, Auth_T type, std::string realm, int& auth_index);
  bool is_auth_hdr_available_for_profile(std::string domain_key);
  bool check_if_client_exists(std::string domain_key, std::string client_key, int& client_index);
  bool add_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, std::string client_key,
                       int& client_index);
  bool update_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index);
  void update_nonce(std::string domain_key, int auth_index, std::string nonce);
  void update_nonce_age(std::string domain_key, int auth_index, std::string nonce);
  bool delete_auth_info(std::string domain_key);
  bool delete_client_auth_info(std::string domain_key, std::string client_key);
  /// What is stored for a domain; null when nothing is. Good until the next change.
  const Auth_Info_T* auth_info(const std::string& domain_key) const;

  // --- Challenges and credentials (proxy_authenticate_challenge.cpp) -------------------------------------------------

  bool is_mode_ietf_shared(std::string mode);
  bool is_request_challenged(SIPLIB_SIPTransportConnection* response) const;
  bool update_auth_info_for_response(SIPLIB_SIPTransportConnection* response, std::string domain_key);
  bool get_response_auth_hdr_info(SIPLIB_SIPTransportConnection* response, std::string& auth_hdr, Auth_T& type,
                                  std::string& realm, std::string& nonce);
  bool update_auth_info_for_request(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                    std::string client_key);
  bool update_proxy_auth_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index);
  bool add_proxy_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key);
  bool replace_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key, Auth_T type,
                         const char* client_hdr, std::string& new_hdr, int client_index);
  bool is_retransmission(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index,
                         std::string nc);

  // --- The digest (proxy_authenticate_digest.cpp) --------------------------------------------------------------------

  /// The answer to `challenge` as a header value. `nc` is the count to write. False when a text that the digest needs
  /// is empty or the challenge does not parse.
  bool generate_auth_header(Auth_T& kind, std::string const& challenge, std::string const& uri,
                            std::string const& method, std::string const& username, std::string const& password,
                            std::string& value, std::string const& nc);
  bool parse_auth_params(SIPLIB_SIPHeader* challenge, std::string const& uri, std::string const& method,
                         std::string const& username, std::string const& password, Req_Msg_T& values);
  /// Fills `cnonce` (zeroed by the caller) when the challenge has a qop. `scratch` is not used and may be null.
  void calculate_md5_digest(Req_Msg_T values, SIPLIB_UTIL_RANDOM_STRING_T& cnonce, unsigned char* scratch,
                            char (&response)[33]);
  void construct_authentication_response(Req_Msg_T& values, SIPLIB_SIPHeader* header, std::string& value) const;
  bool is_qop_present(SIPLIB_SIPHeader* header);
  /// What stands between the first pair of quotes, or the whole text without any. `in` and `out` may be one.
  void strip_quotes(std::string const& in, std::string& out);

  /// Where domains' credentials are; not owned.
  static IMS_Proxy_RoutingTable_Impl* rt_ptr;

 private:
  /// Null when there is no such position. Good until the next change of the store.
  Client_Info_T* client_at(const std::string& domain_key, int client_index);
  Auth_Hdrs_T* challenge_at(const std::string& domain_key, int auth_index);
  /// Whether the domain can keep so many bytes of challenge more, when `replaced` bytes of what it has go.
  static bool has_room(const Auth_Info_T& info, std::size_t added, std::size_t replaced);
  std::size_t challenge_count(const std::string& domain_key) const;

  std::map<std::string, Auth_Info_T> store_;
};
