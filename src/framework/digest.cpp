#include "framework/digest.h"

#include <osipparser2/osip_md5.h>
#include <strings.h>

#include <array>
#include <initializer_list>
#include <string_view>

namespace {

/// MD5 of the texts with ":" between them, as 32 hexadecimal digits.
void hash(std::initializer_list<std::string_view> texts, DIGEST_HASH_HEX_T& hex) {
  osip_MD5_CTX context;
  osip_MD5Init(&context);
  // The library takes its input as not const and does not write to it.
  const auto add = [&context](std::string_view text) {
    osip_MD5Update(&context, reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                   static_cast<unsigned int>(text.size()));
  };
  bool first = true;
  for (const std::string_view text : texts) {
    if (!first) add(":");
    first = false;
    add(text);
  }
  std::array<unsigned char, DIGEST_HASH_HEX_LEN / 2> sum{};
  osip_MD5Final(sum.data(), &context);
  constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < sum.size(); ++i) {
    hex[2 * i] = kDigits[sum[i] >> 4];
    hex[2 * i + 1] = kDigits[sum[i] & 15];
  }
  hex[DIGEST_HASH_HEX_LEN] = '\0';
}

}  // namespace

void DigestCalcHA1(const char* algorithm, const char* username, const char* realm, const char* password,
                   const char* nonce, const char* cnonce, DIGEST_HASH_HEX_T& session_key) {
  hash({username, realm, password}, session_key);
  if (::strcasecmp(algorithm, "MD5-sess") != 0) return;
  // The inner hash goes in as its hexadecimal text (RFC 2617 erratum 1649), as its peers do it.
  DIGEST_HASH_HEX_T inner;
  for (std::size_t i = 0; i < sizeof inner; ++i) inner[i] = session_key[i];
  hash({inner, nonce, cnonce}, session_key);
}

void DigestCalcResponse(const char* ha1, const char* nonce, const char* nonce_count, const char* cnonce,
                        const char* qop, const char* method, const char* uri, const char* entity_hash,
                        DIGEST_HASH_HEX_T& response) {
  DIGEST_HASH_HEX_T ha2;
  if (::strcasecmp(qop, "auth-int") == 0) {
    hash({method, uri, entity_hash}, ha2);
  } else {
    hash({method, uri}, ha2);
  }
  if (*qop == '\0') {
    hash({ha1, nonce, ha2}, response);
  } else {
    hash({ha1, nonce, nonce_count, cnonce, qop, ha2}, response);
  }
}
