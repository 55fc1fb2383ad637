// The digest functions of RFC 2617 section 5, MD5 and MD5-sess.
#pragma once

constexpr unsigned int DIGEST_HASH_HEX_LEN = 32;
/// 32 hexadecimal digits in lower case and a NUL.
using DIGEST_HASH_HEX_T = char[DIGEST_HASH_HEX_LEN + 1];

/// H(A1) (RFC 2617 3.2.2.2). `algorithm` "MD5-sess" in any case takes nonce and cnonce in, anything else is MD5. Texts
/// are NUL-terminated and not null.
void DigestCalcHA1(const char* algorithm, const char* username, const char* realm, const char* password,
                   const char* nonce, const char* cnonce, DIGEST_HASH_HEX_T& session_key);
/// request-digest (RFC 2617 3.2.2.1). With an empty `qop` nonce count and cnonce stay out. `entity_hash` is used for
/// "auth-int" only.
void DigestCalcResponse(const char* ha1, const char* nonce, const char* nonce_count, const char* cnonce,
                        const char* qop, const char* method, const char* uri, const char* entity_hash,
                        DIGEST_HASH_HEX_T& response);
