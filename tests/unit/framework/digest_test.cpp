#include "framework/digest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr char kNonce[] = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
constexpr char kNoHash[] = "";

std::string ha1(const char* algorithm, const char* nonce = kNonce, const char* cnonce = "0a4f113b") {
  DIGEST_HASH_HEX_T key;
  DigestCalcHA1(algorithm, "Mufasa", "testrealm@host.com", "Circle Of Life", nonce, cnonce, key);
  return key;
}

std::string response(const std::string& key, const char* nc, const char* cnonce, const char* qop,
                     const char* entity = kNoHash) {
  DIGEST_HASH_HEX_T result;
  DigestCalcResponse(key.c_str(), kNonce, nc, cnonce, qop, "GET", "/dir/index.html", entity, result);
  return result;
}

// RFC 2617 section 3.5.
TEST(Digest, WorkedExampleOfTheRfc) {
  EXPECT_EQ(ha1("MD5"), "939e7578ed9e3c518a452acee763bce9");
  EXPECT_EQ(response(ha1("MD5"), "00000001", "0a4f113b", "auth"), "6629fae49393a05397450978507c4ef1");
}

TEST(Digest, WithoutQopCountAndCnonceStayOut) {
  EXPECT_EQ(response(ha1("MD5"), "", "", ""), "670fd8c2df070c60b045671b8b24ff02");
  EXPECT_EQ(response(ha1("MD5"), "00000001", "0a4f113b", ""), "670fd8c2df070c60b045671b8b24ff02");
}

TEST(Digest, CountMayBeEmptyBesideQop) {
  EXPECT_EQ(response(ha1("MD5"), "", "0a4f113b", "auth"), "f7596ba90271771f22df2f504b82e0f7");
}

TEST(Digest, SessionKeyTakesTheNoncesIn) {
  EXPECT_EQ(ha1("MD5-sess"), "5edb191b66dce1584c16cb7e7346fcee");
  EXPECT_EQ(ha1("md5-SESS"), ha1("MD5-sess"));
  EXPECT_NE(ha1("MD5-sess", kNonce, "other"), ha1("MD5-sess"));
}

TEST(Digest, OtherAlgorithmsCountAsMd5) {
  EXPECT_EQ(ha1(""), ha1("MD5"));
  EXPECT_EQ(ha1("AKAv1-MD5"), ha1("MD5"));
}

TEST(Digest, EntityHashCountsForAuthIntOnly) {
  EXPECT_EQ(response(ha1("MD5"), "00000001", "0a4f113b", "auth-int", "d41d8cd98f00b204e9800998ecf8427e"),
            "5e6610ecf9ba3017a4870ad48e3ad30b");
  EXPECT_EQ(response(ha1("MD5"), "00000001", "0a4f113b", "auth", "d41d8cd98f00b204e9800998ecf8427e"),
            "6629fae49393a05397450978507c4ef1");
}

}  // namespace
