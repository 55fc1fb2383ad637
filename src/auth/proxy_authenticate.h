// The network's digest challenges, answered on behalf of the local clients.
//
// The store remembers per domain the challenges that the network sent, and per client of it what the client last sent.
// A challenged domain's later requests, of any of its clients, leave with credentials made here from the domain's user
// name and password. Nothing is sent from here; a false result leaves the message as it is so far and it is sent
// anyway. What a network can make the store keep is bounded (auth_records.h). Loop thread only, no lock.
#pragma once

#include <cstddef>
#include <cstdint>
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

  // --- The store (proxy_authenticate_store.cpp) ----------------------------------------------------------------------
  //
  // Domain and client keys are the routing table's. Positions are those in the lists of Auth_Info_T, -1 when not found;
  // one that does not exist does no harm.

  /// Appends a challenge; whether there is one of its kind and realm is not looked at. The domain's first takes its
  /// user name and password from the routing table, for good. Where the domain has as many as it may, the oldest
  /// gives way, with one line, one of the domain's proxy only where all are. Refused with one line when the table has
  /// no such domain or the challenge is too large.
  void create_auth_info(std::string domain_key, std::string auth_hdr, Auth_T type, std::string realm, std::string nonce,
                        bool from_proxy = false);
  /// The first challenge of that kind and realm (the realm with its quotes).
  bool check_if_auth_hdr_present(std::string domain_key, Auth_T type, std::string realm, int& auth_index);
  /// Whether anything is stored for the domain.
  bool is_auth_hdr_available_for_profile(std::string domain_key);
  /// The first record of the client within the domain.
  bool check_if_client_exists(std::string domain_key, std::string client_key, int& client_index);
  /// Appends a record of the client, made from its request, or makes the one that it has anew. False when the request
  /// is null, a key empty, or the table has no such client or domain: nothing would ever delete its record.
  bool add_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, std::string client_key,
                       int& client_index);
  /// Makes a client's record anew from the request. False when the request is null or there is no such position.
  bool update_client_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index);
  /// Neither changes what is stored: a challenge keeps the nonce slots that it began with.
  void update_nonce(std::string domain_key, int auth_index, std::string nonce);
  void update_nonce_age(std::string domain_key, int auth_index, std::string nonce);
  /// Forgets the domain; true always.
  bool delete_auth_info(std::string domain_key);
  /// Forgets the client within the domain; false when it was not known. The challenges stay.
  bool delete_client_auth_info(std::string domain_key, std::string client_key);
  /// Forgets the client within every domain. Its requests may have gone through others than its own.
  void forget_client(const std::string& client_key);
  /// What is stored for a domain; null when nothing is. Good until the next change.
  const Auth_Info_T* auth_info(const std::string& domain_key) const;

  // --- Challenges and credentials (proxy_authenticate_challenge.cpp) -------------------------------------------------

  /// Whether the operation mode is the one in which the proxy answers: exactly "ietf-shared".
  bool is_mode_ietf_shared(std::string mode);
  /// 401 or 407.
  bool is_request_challenged(SIPLIB_SIPTransportConnection* response) const;
  /// Records a 401's or 407's challenge: a new one, or the new text of a known kind and realm, but not in place of one
  /// of the domain's proxy when it came from elsewhere. False when there is none that can be read, or it is refused.
  bool update_auth_info_for_response(SIPLIB_SIPTransportConnection* response, std::string domain_key);
  /// Reads a 401's or 407's topmost challenge. True when it can be read; an absent realm or nonce leaves its text.
  bool get_response_auth_hdr_info(SIPLIB_SIPTransportConnection* response, std::string& auth_hdr, Auth_T& type,
                                  std::string& realm, std::string& nonce);
  /// Completes a client's request with credentials and keeps the client's record. False when the domain was never
  /// challenged or nothing could be made.
  bool update_auth_info_for_request(SIPLIB_SIPTransportConnection* request, std::string domain_key,
                                    std::string client_key);
  /// A request without credentials gets the proxy's (see add_proxy_auth_hdrs). One with as many as there are challenges
  /// gets up to kMaxCredentials of them made again where their nonce is known. Any other gets the proxy's too, in place
  /// of those of its own that name one of their realms or none; the rest of its own stays.
  bool update_proxy_auth_info(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index);
  /// Adds one header per challenge with its newest nonce slot's count advanced: for kMaxCredentials, those of the
  /// domain's proxy before others, the youngest first, no realm of a kind twice; they stand in stored order. False when
  /// there is no challenge, or at the first one that cannot be answered; headers added before stay.
  bool add_proxy_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key);
  /// Answers again, into `new_hdr`, the challenge whose nonce `client_hdr` has. False, and `new_hdr` as it was, when
  /// there is none of that kind, or no nonce; a null connection or header is refused with one line.
  bool replace_auth_hdrs(SIPLIB_SIPTransportConnection* request, std::string domain_key, Auth_T type,
                         const char* client_hdr, std::string& new_hdr, int client_index);
  /// Whether `nc` is the count of the client's recorded request; false for an empty one. The request is not looked at.
  bool is_retransmission(SIPLIB_SIPTransportConnection* request, std::string domain_key, int client_index,
                         std::string nc);

  // --- The digest (proxy_authenticate_digest.cpp) --------------------------------------------------------------------

  /// The answer to `challenge` as a header value. `nc` is the count to write. False when a text that the digest needs
  /// is empty or the challenge does not parse.
  bool generate_auth_header(Auth_T& kind, std::string const& challenge, std::string const& uri,
                            std::string const& method, std::string const& username, std::string const& password,
                            std::string& value, std::string const& nc);
  /// Reads the challenge's parameters; a missing one leaves its field. User name and password get quotes. True always.
  bool parse_auth_params(SIPLIB_SIPHeader* challenge, std::string const& uri, std::string const& method,
                         std::string const& username, std::string const& password, Req_Msg_T& values);
  /// Fills `cnonce` (zeroed by the caller) when the challenge has a qop. `scratch` is not used and may be null.
  void calculate_md5_digest(Req_Msg_T values, SIPLIB_UTIL_RANDOM_STRING_T& cnonce, unsigned char* scratch,
                            char (&response)[33]);
  /// Writes the values into the header and its text into `value`. Null for `header` leaves `value`.
  void construct_authentication_response(Req_Msg_T& values, SIPLIB_SIPHeader* header, std::string& value) const;
  /// Null counts as absent.
  bool is_qop_present(SIPLIB_SIPHeader* header);
  /// The first piece of `in` between quotes, or all of it when it has none. `in` and `out` may be one.
  void strip_quotes(std::string const& in, std::string& out);

  /// Where domains' credentials are; not owned.
  static IMS_Proxy_RoutingTable_Impl* rt_ptr;

 private:
  /// Null when there is no such position. Good until the next change of the store.
  Client_Info_T* client_at(const std::string& domain_key, int client_index);
  Auth_Hdrs_T* challenge_at(const std::string& domain_key, int auth_index);
  std::size_t challenge_count(const std::string& domain_key) const;
  /// Whether the response came from the address of the domain's outbound proxy; its port does not count.
  static bool is_from_proxy(const SIPLIB_SIPTransportConnection& response, const std::string& domain_key);
  /// The challenge of that position has come (again) with this text, of at most kMaxChallengeSize: it is the youngest
  /// now. Where the domain has more than it may, the oldest gives way, or it itself where all others are of the
  /// domain's proxy and it is not; positions change then.
  void keep_challenge(const std::string& domain_key, std::size_t position, const std::string& auth_hdr);

  std::map<std::string, Auth_Info_T> store_;
  std::uint64_t challenges_seen_ = 0;
};
