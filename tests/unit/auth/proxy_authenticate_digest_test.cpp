#include "auth_fixture.h"
#include "framework/digest.h"

namespace {

/// request-digest as the framework computes it, in quotes.
std::string digest(const Req_Msg_T& v) {
  DIGEST_HASH_HEX_T ha1;
  DIGEST_HASH_HEX_T result;
  DigestCalcHA1(v.algorithm.c_str(), v.username.c_str(), v.realm.c_str(), v.password.c_str(), v.nonce.c_str(),
                v.cnonce.c_str(), ha1);
  DigestCalcResponse(ha1, v.nonce.c_str(), v.nc.c_str(), v.cnonce.c_str(), v.qop.c_str(), v.method.c_str(),
                     v.uri.c_str(), "", result);
  return std::string("\"") + result + "\"";
}

struct AnswerCase {
  const char* label;
  std::string challenge;
  std::string uri;
  std::string method;
  std::string username;
  std::string password;
  std::string answer;
};

// The responses were computed apart from this code: MD5(MD5(user:realm:password):nonce:MD5(method:uri)).
const AnswerCase kWithoutQop[] = {
    {"the values of RFC 2617 3.5 without qop",
     R"(Digest realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093", opaque="5ccc069c403ebaf9f0171e9517f40e41")",
     "/dir/index.html", "GET", "Mufasa", "Circle Of Life",
     R"(Digest realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093", opaque="5ccc069c403ebaf9f0171e9517f40e41", username="Mufasa", uri=/dir/index.html, response="670fd8c2df070c60b045671b8b24ff02")"},
    {"what is set stands where the challenge had it, the rest stays",
     R"(Digest stale=FALSE, nonce="n1", algorithm=MD5, domain="sip:home.example", realm="home.example", x-own=1)",
     "sip:bob@home.example", "INVITE", "alice", "secret",
     R"(Digest stale=FALSE, nonce="n1", algorithm=MD5, domain="sip:home.example", realm="home.example", x-own=1, username="alice", uri=sip:bob@home.example, response="1c7c44c3baed97aaafff2cfe437665fa")"},
    {"a challenge without realm", R"(Digest nonce="n1")", "sip:bob@home.example", "INVITE", "alice", "secret",
     R"(Digest nonce="n1", username="alice", realm="", uri=sip:bob@home.example, response="d4bf4f2d701f3bb32100ceb2e26c711b")"},
    {"a challenge without nonce", R"(Digest realm="home.example")", "sip:bob@home.example", "INVITE", "alice", "secret",
     R"(Digest realm="home.example", username="alice", nonce="", uri=sip:bob@home.example, response="679914cee44e6d9f1dbd687b950f7c8c")"},
    {"an empty password", R"(Digest realm="home.example",nonce="n1")", "sip:bob@home.example", "INVITE", "alice", "",
     R"(Digest realm="home.example",nonce="n1", username="alice", uri=sip:bob@home.example, response="f06aa2aacb8ddbb094a0548e9d420053")"},
};

TEST_F(Authenticate, AChallengeWithoutQopIsAnsweredWithoutQopCnonceAndNc) {
  for (const AnswerCase& c : kWithoutQop) {
    SCOPED_TRACE(c.label);
    for (const Auth_T type : {AUTH_WWW, AUTH_PROXY}) {
      LogCapture log;
      Auth_T kind = type;
      std::string value;
      EXPECT_TRUE(auth.generate_auth_header(kind, c.challenge, c.uri, c.method, c.username, c.password, value, "7"));
      EXPECT_EQ(value, c.answer);
      EXPECT_EQ(log.texts().front(), "auth_hdr is " + c.challenge + ", uri is  " + c.uri + " method is " + c.method);
      EXPECT_TRUE(log.has(5, type == AUTH_WWW ? "auth_header is Authorization" : "auth_header is Proxy-Authorization"));
      EXPECT_EQ(log.texts().back(), "Generated header value " + c.answer);
      EXPECT_EQ(generated_cnonce(log), "");
      EXPECT_TRUE(log.has(5, "nc "));
    }
  }
}

// The count is set after the digest is made, and the client nonce of the digest never gets into the header. Both are
// what the peers of this system know, and stay.
TEST_F(Authenticate, AChallengeWithQopIsAnsweredWithTheCountAndAnEmptyCnonceOverADigestOfNeither) {
  struct {
    const char* challenge;
    const char* head;
    const char* algorithm;
  } const cases[] = {
      {R"(Digest realm="r", nonce="n", qop="auth")", R"(Digest realm="r", nonce="n", qop=auth)", ""},
      {R"(Digest realm="r", nonce="n", qop="auth,auth-int")", R"(Digest realm="r", nonce="n", qop=auth)", ""},
      {R"(Digest realm="r", nonce="n", qop="auth-int")", R"(Digest realm="r", nonce="n", qop=auth)", ""},
      {R"(Digest qop="auth", realm="r", nonce="n", algorithm=MD5-sess)",
       R"(Digest qop=auth, realm="r", nonce="n", algorithm=MD5-sess)", "MD5-sess"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.challenge);
    LogCapture log;
    Auth_T kind = AUTH_WWW;
    std::string value;
    ASSERT_TRUE(
        auth.generate_auth_header(kind, c.challenge, "sip:bob@home.example", "INVITE", "alice", "secret", value, "5"));
    const std::string cnonce = generated_cnonce(log);
    ASSERT_EQ(cnonce.size(), 32U);
    EXPECT_EQ(cnonce.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz"), std::string::npos);
    const std::string expected = digest({c.algorithm, "alice", "r", "", "secret", "n", cnonce, "auth", "INVITE",
                                         "sip:bob@home.example", "", "", "", ""});
    EXPECT_EQ(value, std::string(c.head) +
                         R"(, username="alice", uri=sip:bob@home.example, cnonce="", nc=5, response=)" + expected);
  }
}

TEST_F(Authenticate, EveryDigestHasAClientNonceOfItsOwn) {
  const std::string challenge = R"(Digest realm="r", nonce="n", qop="auth")";
  Texts values(2);
  for (std::string& value : values) {
    Auth_T kind = AUTH_WWW;
    ASSERT_TRUE(auth.generate_auth_header(kind, challenge, "sip:b@c", "INVITE", "alice", "secret", value, "1"));
  }
  EXPECT_NE(values[0], values[1]);
}

TEST_F(Authenticate, WithoutCountAnAnswerWithQopLeavesNcOut) {
  Auth_T kind = AUTH_WWW;
  std::string value;
  ASSERT_TRUE(auth.generate_auth_header(kind, R"(Digest realm="r", nonce="n", qop="auth")", "sip:b@c", "INVITE",
                                        "alice", "secret", value, ""));
  EXPECT_TRUE(value.starts_with(R"(Digest realm="r", nonce="n", qop=auth, username="alice", uri=sip:b@c, cnonce="", )"
                                R"(response=")"))
      << value;
}

TEST_F(Authenticate, WithoutTheTextsThatADigestNeedsThereIsNoHeader) {
  const std::string challenge = R"(Digest realm="r", nonce="n")";
  struct {
    std::string challenge, uri, method, username;
  } const cases[] = {{"", "sip:b@c", "INVITE", "alice"},
                     {challenge, "", "INVITE", "alice"},
                     {challenge, "sip:b@c", "", "alice"},
                     {challenge, "sip:b@c", "INVITE", ""}};
  for (const auto& c : cases) {
    LogCapture log;
    Auth_T kind = AUTH_WWW;
    std::string value = "untouched";
    EXPECT_FALSE(auth.generate_auth_header(kind, c.challenge, c.uri, c.method, c.username, "secret", value, "1"));
    EXPECT_EQ(value, "untouched");
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST_F(Authenticate, AChallengeThatCannotBeReadGivesNoHeader) {
  std::string many = "Digest realm=\"r\", nonce=\"n\"";
  for (int i = 0; i < 200; ++i) many += ", p" + std::to_string(i) + "=1";
  for (const std::string& challenge : {std::string("Digest realm=\"r"), many, std::string("=")}) {
    LogCapture log;
    Auth_T kind = AUTH_PROXY;
    std::string value;
    EXPECT_FALSE(auth.generate_auth_header(kind, challenge, "sip:b@c", "INVITE", "alice", "secret", value, "1"));
    EXPECT_TRUE(log.has(4, "Failed creating SIPLIB authentication header"));
    EXPECT_EQ(value, "");
  }
}

TEST_F(Authenticate, AnAnswerHoldsNothingThatWouldEndItsLine) {
  LogCapture log;
  Auth_T kind = AUTH_WWW;
  std::string value;
  EXPECT_TRUE(auth.generate_auth_header(kind, R"(Digest realm="r", nonce="n")", "sip:a\r\nX: y@c", "INVITE", "alice",
                                        "secret", value, "1"));
  EXPECT_TRUE(log.has(4, "uri cannot be written into the answer"));
  EXPECT_EQ(value.find("uri="), std::string::npos);
  EXPECT_EQ(value.find_first_of("\r\n"), std::string::npos);
}

TEST_F(Authenticate, ARequestUriThatWouldEndItsParameterIsWrittenInQuotes) {
  struct {
    const char* uri;
    const char* written;
  } const cases[] = {
      {"sip:a,realm=x@c", R"("sip:a,realm=x@c")"},
      {"sip:\"@c", R"("sip:\"@c")"},
      {"\"sip:a@c\"", R"("\"sip:a@c\"")"},
      {"sip:a b@c", R"("sip:a b@c")"},
      {"sip:a\tb@c", "\"sip:a\tb@c\""},
      {"sip:a\x0b@c", "\"sip:a\x0b@c\""},
      {R"(sip:a\,b@c)", R"("sip:a\\,b@c")"},
      {R"(sip:a\b@c)", R"("sip:a\\b@c")"},
      // Everything else as it stands.
      {"sip:a;b=c@d:5060;transport=tcp?x=y&z='<>", "sip:a;b=c@d:5060;transport=tcp?x=y&z='<>"},
      {"sip:\xc3\xa4@c", "sip:\xc3\xa4@c"},
      {"tel:+1(2)3", "tel:+1(2)3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.uri);
    LogCapture log(4);
    Auth_T kind = AUTH_WWW;
    std::string value;
    EXPECT_TRUE(auth.generate_auth_header(kind, R"(Digest realm="r", nonce="n")", c.uri, "INVITE", "alice", "secret",
                                          value, "1"));
    const Req_Msg_T as_it_stands = {"", "alice", "r", "", "secret", "n", "", "", "INVITE", c.uri, "", "", "", ""};
    EXPECT_EQ(value, std::string(R"(Digest realm="r", nonce="n", username="alice", uri=)") + c.written +
                         ", response=" + digest(as_it_stands));
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST_F(Authenticate, AUserNameIsWrittenWholeWithinItsQuotes) {
  struct {
    const char* username;
    const char* written;
  } const cases[] = {{"al\"ice", R"("al\"ice")"},
                     {"\"alice\"", R"("\"alice\"")"},
                     {"\"", R"("\"")"},
                     {R"(home\alice)", R"("home\\alice")"},
                     {R"(alice\)", R"("alice\\")"},
                     {"a, realm=x", R"("a, realm=x")"},
                     {"alice", R"("alice")"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.username);
    LogCapture log(4);
    Auth_T kind = AUTH_WWW;
    std::string value;
    EXPECT_TRUE(auth.generate_auth_header(kind, R"(Digest realm="r", nonce="n")", "sip:b@c", "INVITE", c.username,
                                          "secret", value, "1"));
    const Req_Msg_T as_it_stands = {"", c.username, "r",       "", "secret", "n", "",
                                    "", "INVITE",   "sip:b@c", "", "",       "",  ""};
    EXPECT_EQ(value, std::string(R"(Digest realm="r", nonce="n", username=)") + c.written +
                         ", uri=sip:b@c, response=" + digest(as_it_stands));
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST_F(Authenticate, WhatIsTakenFromTheChallengeStaysOneValueEach) {
  struct {
    const char* challenge;
    const char* head;
  } const cases[] = {
      {R"(Digest realm="a \"b\", c", nonce="\\", opaque=",")", R"(Digest realm="a \"b\", c", nonce="\\", opaque=",")"},
      {R"(Digest realm=r, nonce=bm9uY2U=, opaque=o/o==)", R"(Digest realm=r, nonce=bm9uY2U=, opaque=o/o==)"},
      {R"(Digest realm=a b, nonce="n"m, opaque=o"p", algorithm=MD5 x)",
       R"(Digest realm="a b", nonce="\"n\"m", opaque="o\"p\"", algorithm="MD5 x")"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.challenge);
    Auth_T kind = AUTH_WWW;
    std::string value;
    EXPECT_TRUE(auth.generate_auth_header(kind, c.challenge, "sip:b@c", "INVITE", "alice", "secret", value, "1"));
    EXPECT_TRUE(value.starts_with(std::string(c.head) + R"(, username="alice", uri=sip:b@c, response=")")) << value;
  }
}

TEST_F(Authenticate, ALongNonceIsAnswered) {
  const std::string nonce(64 * 1024, 'n');
  Auth_T kind = AUTH_WWW;
  std::string value;
  LogCapture log(4);
  EXPECT_TRUE(auth.generate_auth_header(kind, "Digest realm=\"r\", nonce=\"" + nonce + "\"", "sip:b@c", "INVITE",
                                        "alice", "secret", value, "1"));
  EXPECT_NE(value.find("nonce=\"" + nonce + "\""), std::string::npos);
}

TEST_F(Authenticate, ParametersAreReadAsTheyStandAndMissingOnesStay) {
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(
      "Authorization",
      R"(Digest algorithm=MD5, realm="r", domain="d", nonce="n", opaque="o", qop="auth,auth-int", stale=true)"));
  ASSERT_NE(header, nullptr);
  Req_Msg_T values;
  LogCapture log;
  EXPECT_TRUE(auth.parse_auth_params(header.get(), "sip:b@c", "INVITE", "alice", "secret", values));
  EXPECT_EQ(values.algorithm, "MD5");
  EXPECT_EQ(values.realm, "\"r\"");
  EXPECT_EQ(values.domain, "\"d\"");
  EXPECT_EQ(values.nonce, "\"n\"");
  EXPECT_EQ(values.opaque, "\"o\"");
  EXPECT_EQ(values.qop, "\"auth,auth-int\"");
  EXPECT_EQ(values.stale, "true");
  EXPECT_EQ(values.username, "\"alice\"");
  EXPECT_EQ(values.password, "\"secret\"");
  EXPECT_EQ(values.uri, "sip:b@c");
  EXPECT_EQ(values.method, "INVITE");
  EXPECT_EQ(log.texts(), (Texts{"Req Msg values are", "algo is MD5", "username is \"alice\"", "password is \"secret\"",
                                "realm is \"r\"", "qopis \"auth,auth-int\"", "requri is sip:b@c", "methodis INVITE",
                                "nonce is \"n\""}));

  const std::unique_ptr<SIPLIB_SIPHeader> bare(SIPLIB_SIPHeader::createSIPHeaderObject("Authorization", "Digest"));
  ASSERT_NE(bare, nullptr);
  EXPECT_TRUE(auth.parse_auth_params(bare.get(), "sip:x@y", "BYE", "bob", "", values));
  EXPECT_EQ(values.realm, "\"r\"");
  EXPECT_EQ(values.nonce, "\"n\"");
  EXPECT_EQ(values.username, "\"bob\"");
  EXPECT_EQ(values.password, "\"\"");
  EXPECT_TRUE(auth.parse_auth_params(nullptr, "sip:x@y", "BYE", "bob", "", values));
}

TEST_F(Authenticate, TheDigestIsMadeOfValuesWithoutQuotes) {
  const Req_Msg_T values = {"\"MD5\"",
                            "\"Mufasa\"",
                            "\"testrealm@host.com\"",
                            "",
                            "\"Circle Of Life\"",
                            "\"dcd98b7102dd2f0e8b11d0f600bfb0c093\"",
                            "\"left over\"",
                            "",
                            "GET",
                            "/dir/index.html",
                            "",
                            "",
                            "",
                            "00000001"};
  LogCapture log;
  SIPLIB_UTIL_RANDOM_STRING_T cnonce = {};
  char computed[33] = "";
  auth.calculate_md5_digest(values, cnonce, nullptr, computed);
  EXPECT_STREQ(computed, "670fd8c2df070c60b045671b8b24ff02");  // without qop neither count nor client nonce counts
  EXPECT_STREQ(cnonce, "");
  const Texts texts = log.texts();
  ASSERT_EQ(texts.size(), 23U);
  EXPECT_EQ(texts[0], "inp string is \"MD5\", out_str is MD5");
  EXPECT_EQ(Texts(texts.begin() + 10, texts.begin() + 21),
            (Texts{"REq Msg values are", "algo is MD5", "username is Mufasa", "password is Circle Of Life",
                   "realm is testrealm@host.com", "qopis ", "nc ", "cnonce is ", "requri is /dir/index.html",
                   "method is GET", "nonce is dcd98b7102dd2f0e8b11d0f600bfb0c093"}));
  EXPECT_EQ(texts[21], "HA1 is 939e7578ed9e3c518a452acee763bce9");
  EXPECT_EQ(texts[22], "Generated response is 670fd8c2df070c60b045671b8b24ff02");
}

TEST_F(Authenticate, TheDigestWithQopTakesTheGeneratedClientNonceAndTheGivenCount) {
  Req_Msg_T values = {"MD5",      "alice",  "\"r\"",   "", "secret", "\"n\"", "given",
                      "\"auth\"", "INVITE", "sip:b@c", "", "",       "",      "\"00000007\""};
  SIPLIB_UTIL_RANDOM_STRING_T cnonce = {};
  char computed[33] = "";
  LogCapture log;
  auth.calculate_md5_digest(values, cnonce, nullptr, computed);
  EXPECT_EQ(generated_cnonce(log), cnonce);
  EXPECT_TRUE(log.has(5, "nc 00000007"));
  EXPECT_EQ("\"" + std::string(computed) + "\"", digest({"MD5", "alice", "r", "", "secret", "n", cnonce, "auth",
                                                         "INVITE", "sip:b@c", "", "", "", "00000007"}));
}

TEST_F(Authenticate, AnAnswerIsNotWrittenIntoNothing) {
  Req_Msg_T values;
  values.realm = "\"r\"";
  std::string value = "untouched";
  LogCapture log;
  auth.construct_authentication_response(values, nullptr, value);
  EXPECT_EQ(log.texts(), (Texts{"construct_authentication_response for foll type - ", "REq Msg values are", "algo is ",
                                "username is ", "password is ", "realm is \"r\"", "qopis ", "requri is ", "method is ",
                                "auth hdr is NULL - cannot proceed"}));
  EXPECT_EQ(log.count(4), 1);
  EXPECT_EQ(value, "untouched");
}

TEST_F(Authenticate, QopIsPresentWhenTheParameterIs) {
  struct {
    const char* value;
    bool present;
    const char* log;
  } const cases[] = {{R"(Digest realm="r", qop="auth")", true, "qop value is present \"auth\""},
                     {"Digest qop=", true, "qop value is present "},
                     {R"(Digest realm="qop=auth")", false, "qop value is absent"}};
  for (const auto& c : cases) {
    const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject("Authorization", c.value));
    ASSERT_NE(header, nullptr);
    LogCapture log;
    EXPECT_EQ(auth.is_qop_present(header.get()), c.present);
    EXPECT_EQ(log.texts(), Texts{c.log});
  }
  EXPECT_FALSE(auth.is_qop_present(nullptr));
}

TEST_F(Authenticate, QuotesAreStripped) {
  struct {
    const char* in;
    const char* out;
  } const cases[] = {{"", ""},   {"plain", "plain"}, {"\"quoted\"", "quoted"}, {"\"\"", ""},
                     {"\"", ""}, {"a\"b\"", "a"},    {"\"a\"b", "a"},          {"\" \"", " "}};
  for (const auto& c : cases) {
    LogCapture log;
    std::string out = "old";
    auth.strip_quotes(c.in, out);
    EXPECT_EQ(out, c.out);
    EXPECT_EQ(log.texts(), Texts{std::string("inp string is ") + c.in + ", out_str is " + c.out});
  }
}

}  // namespace
