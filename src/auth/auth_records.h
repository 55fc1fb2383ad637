// What the authentication store remembers. Values of header parameters stand as in the message, quotes included.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The largest challenge that is kept, in bytes of header text; how many are kept is a setting (bounds.h). A digest
/// challenge has some hundred bytes. What strangers make up cannot be larger, and an answer is little longer than its
/// challenge (twice where all of it must be escaped): with kMaxCredentials that is what one request can grow by. At
/// 70 us per KiB of challenge, as measured, the answers to one request take little more than 1 ms.
constexpr std::size_t kMaxChallengeSize = std::size_t{2} * 1024;

/// The most credentials that are added to one request. Strangers can make the store full of challenges; the youngest
/// are the ones that the network still asks for.
constexpr std::size_t kMaxCredentials = 8;

/// What is kept of each text in a client's record; the rest is cut off. Every client can have a record in every domain.
constexpr std::size_t kMaxClientText = 1024;

/// Which challenge: a 401's WWW-Authenticate or a 407's Proxy-Authenticate.
enum Auth_T { AUTH_WWW = 0, AUTH_PROXY = 1 };

/// One nonce of a challenge. `age`: 3 newest, 2 older, 1 oldest, 0 empty. `nc`: its count, decimal.
struct Nonce_Slot_T {
  int age = 0;
  std::string nonce;
  std::string nc;
};

/// One challenge of a domain.
struct Auth_Hdrs_T {
  Auth_T auth_type = AUTH_WWW;
  std::string realm;
  std::string auth_hdr;  ///< the whole header value
  std::array<Nonce_Slot_T, 3> nonces;
  std::uint64_t last_seen = 0;  ///< when its last 401 or 407 came, in the order of all; the largest is the youngest
  bool from_proxy = false;      ///< it came from the address of the domain's outbound proxy: outranks any that did not

  /// Whether it gives way to the other, and the other is answered first.
  bool below(const Auth_Hdrs_T& other) const {
    return from_proxy != other.from_proxy ? other.from_proxy : last_seen < other.last_seen;
  }
};

/// What one client last sent towards a domain.
struct Client_Info_T {
  std::string client_key;
  std::string cseq;
  int hdr_type = 2;  ///< 0 Authorization, 1 Proxy-Authorization, 2 neither
  std::string nonce;
  std::string nc;
  std::string realm;
  std::string cnonce;
};

/// Everything of one domain. A client or challenge is named by its position.
struct Auth_Info_T {
  std::string username;
  std::string password;
  std::vector<Client_Info_T> clients;
  std::vector<Auth_Hdrs_T> auth_hdrs;
};

/// The values of one digest computation.
struct Req_Msg_T {
  std::string algorithm;
  std::string username;
  std::string realm;
  std::string domain;
  std::string password;
  std::string nonce;
  std::string cnonce;
  std::string qop;
  std::string method;
  std::string uri;
  std::string response;
  std::string opaque;
  std::string stale;
  std::string nc;
};
