#include <algorithm>

#include "auth_fixture.h"
#include "framework/digest.h"
#include "siplib/limits.h"

namespace {

const std::string kPlain = R"(Digest realm="home.example", nonce="n1")";
const std::string kQop = R"(Digest realm="home.example", nonce="n1", qop="auth")";
const std::string kPlainAnswer =
    R"(Digest realm="home.example", nonce="n1", username="alice", uri=sip:bob@home.example, response="1c7c44c3baed97aaafff2cfe437665fa")";
const std::string kProxyPlain = R"(Digest realm="proxy.example", nonce="p1")";
const std::string kProxyAnswer =
    R"(Digest realm="proxy.example", nonce="p1", username="alice", uri=sip:bob@home.example, response="c309837e3cc31c2d29f2b4fd7d392018")";

/// A header of the client's own that answers the nonce.
std::string own(const std::string& nonce, const std::string& nc = "") {
  std::string value = R"(Digest username="client", realm="home.example", nonce=")" + nonce + R"(", uri="sip:b@c")";
  if (!nc.empty()) value += R"(, qop=auth, cnonce="c", nc=)" + nc;
  return value + R"(, response="0")";
}

/// The challenge made as long as said.
std::string sized(const std::string& challenge, std::size_t size) {
  const std::string padded = challenge + ", opaque=\"";
  return padded + std::string(size - padded.size() - 1, 'o') + "\"";
}

/// A challenge that somebody else made up.
std::string stray(int number) {
  return "Digest realm=\"stray " + std::to_string(number) + "\", nonce=\"s\"";
}
std::string stray(int number, std::size_t size) {
  return sized(stray(number), size);
}

// --- Responses

TEST_F(Authenticate, OnlyTheExactModeIsShared) {
  LogCapture log;
  EXPECT_TRUE(auth.is_mode_ietf_shared("ietf-shared"));
  EXPECT_TRUE(log.has(5, "IETF Shared Mode"));
  for (const std::string mode : {"", "ietf", "IETF-SHARED", "ietf-shared ", "ims"}) {
    EXPECT_FALSE(auth.is_mode_ietf_shared(mode));
    EXPECT_TRUE(log.has(5, "Mode is " + mode));
  }
}

TEST_F(Authenticate, ChallengesAre401And407) {
  for (const int status : {100, 200, 400, 401, 403, 407, 408, 494, 699}) {
    SCOPED_TRACE(status);
    set_response(response, status);
    LogCapture log;
    const bool challenged = status == 401 || status == 407;
    EXPECT_EQ(auth.is_request_challenged(&response), challenged);
    EXPECT_EQ(log.texts(), (Texts{" The status code is " + std::to_string(status),
                                  challenged ? "The Request is Challenged" : "The Request is Not Challenged"}));
  }
  LogCapture log;
  EXPECT_FALSE(auth.is_request_challenged(nullptr));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
}

TEST_F(Authenticate, AChallengeIsReadFromTheHeaderOfItsStatus) {
  struct {
    const char* label;
    int status;
    FakeHeaders headers;
    bool result;
    Auth_T type;
    std::string auth_hdr, realm, nonce;
  } const cases[] = {
      {"401", 401, {{"WWW-Authenticate", kPlain}}, true, AUTH_WWW, kPlain, "\"home.example\"", "\"n1\""},
      {"407", 407, {{"Proxy-Authenticate", kPlain}}, true, AUTH_PROXY, kPlain, "\"home.example\"", "\"n1\""},
      {"401 with the other header", 401, {{"Proxy-Authenticate", kPlain}}, false, AUTH_WWW, "", "", ""},
      {"407 with the other header", 407, {{"WWW-Authenticate", kPlain}}, false, AUTH_PROXY, "", "", ""},
      {"no header", 401, {}, false, AUTH_WWW, "", "", ""},
      {"no realm",
       401,
       {{"WWW-Authenticate", "Digest nonce=\"n\""}},
       true,
       AUTH_WWW,
       "Digest nonce=\"n\"",
       "",
       "\"n\""},
      {"no nonce",
       401,
       {{"WWW-Authenticate", "Digest realm=\"r\""}},
       true,
       AUTH_WWW,
       "Digest realm=\"r\"",
       "\"r\"",
       ""},
      {"neither", 401, {{"WWW-Authenticate", "Digest"}}, true, AUTH_WWW, "Digest", "", ""},
      {"unbalanced quotes",
       401,
       {{"WWW-Authenticate", "Digest realm=\"r"}},
       false,
       AUTH_WWW,
       "Digest realm=\"r",
       "",
       ""},
      {"no challenge", 200, {{"WWW-Authenticate", kPlain}}, false, AUTH_WWW, "", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    set_response(response, c.status, c.headers);
    LogCapture log;
    std::string auth_hdr, realm, nonce;
    Auth_T type = AUTH_WWW;
    EXPECT_EQ(auth.get_response_auth_hdr_info(&response, auth_hdr, type, realm, nonce), c.result);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(auth_hdr, c.auth_hdr);
    EXPECT_EQ(realm, c.realm);
    EXPECT_EQ(nonce, c.nonce);
    EXPECT_EQ(log.texts().front(), "Status Code is " + std::to_string(c.status));
    EXPECT_EQ(log.texts().back(), "Auth Hdr is " + c.auth_hdr + " nonce is " + c.nonce + " realm is " + c.realm +
                                      "  auth type is " + std::to_string(c.type) + " retval is " +
                                      std::to_string(static_cast<int>(c.result)));
    EXPECT_EQ(log.has(4, "Status Code Invalid"), c.status == 200);
    EXPECT_EQ(log.has_part(4, "cannot be read"), !c.result && !c.auth_hdr.empty());
  }
  LogCapture log;
  std::string text;
  Auth_T type = AUTH_WWW;
  EXPECT_FALSE(auth.get_response_auth_hdr_info(nullptr, text, type, text, text));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
}

TEST_F(Authenticate, AResponseWithoutReadableChallengeRecordsNothing) {
  std::string many = "Digest realm=\"r\", nonce=\"n\"";
  for (int i = 0; i < 200; ++i) many += ", p" + std::to_string(i) + "=1";
  const FakeHeaders cases[] = {{},
                               {{"WWW-Authenticate", "Digest realm=\"r"}},
                               {{"WWW-Authenticate", "Digest realm=\"r\", nonce=\"n"}},
                               {{"WWW-Authenticate", many}}};
  for (const FakeHeaders& headers : cases) {
    set_response(response, 401, headers);
    const std::string before = response.current();
    LogCapture log;
    EXPECT_FALSE(auth.update_auth_info_for_response(&response, home));
    EXPECT_TRUE(log.has(5, "update_auth_info_for_response : domain key is " + home));
    EXPECT_TRUE(log.has(5, "Auth Header is ABSENT in RESPONSE"));
    EXPECT_EQ(log.has_part(4, "WWW-Authenticate of the response cannot be read"), !headers.empty());
    EXPECT_EQ(auth.auth_info(home), nullptr);
    EXPECT_EQ(response.current(), before);
  }
  LogCapture log;
  EXPECT_FALSE(auth.update_auth_info_for_response(nullptr, home));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
}

TEST_F(Authenticate, TheFirstChallengeOfARealmMakesAnEntry) {
  LogCapture log;
  EXPECT_TRUE(challenge(407, kPlain));
  EXPECT_TRUE(log.has(5, "Auth Header is Present in RESPONSE  - value is " + kPlain));
  EXPECT_TRUE(log.has(5, "Auth Type is 1, Realm is \"home.example\", network nonce is \"n1\""));
  EXPECT_EQ(log.texts().back(), "Auth Header not present : Created  auth entry ");
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 1U);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs[0].auth_type, AUTH_PROXY);
  EXPECT_TRUE(challenge(401, kPlain));  // the other kind of the same realm is another challenge
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs.size(), 2U);
}

TEST_F(Authenticate, ASecondChallengeOfARealmReplacesTheTextAndKeepsTheSlots) {
  ASSERT_TRUE(challenge(401, kQop));
  set_request(request);
  ASSERT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  ASSERT_EQ(slot().nc, "1");

  LogCapture log;
  ASSERT_TRUE(challenge(401, R"(Digest realm="home.example", nonce="n2", qop="auth")"));
  EXPECT_TRUE(log.has(5, "Auth Header is already present in Proxy - auth index 0"));
  EXPECT_TRUE(log.has(5, "nonce value has changed for this Auth entry  - Update Nonce"));
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 1U);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs[0].auth_hdr, R"(Digest realm="home.example", nonce="n2", qop="auth")");
  EXPECT_EQ(slot().nonce, "\"n1\"");
  EXPECT_EQ(slot().nc, "1");

  set_request(request);
  ASSERT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(parameter("Authorization", "nonce"), "\"n2\"");
  EXPECT_EQ(parameter("Authorization", "nc"), "2");
}

TEST_F(Authenticate, AChallengeOfAnUnknownDomainIsNotRecorded) {
  set_response(response, 401, {{"WWW-Authenticate", kPlain}});
  LogCapture log;
  EXPECT_FALSE(auth.update_auth_info_for_response(&response, "no such key"));
  EXPECT_FALSE(log.has(5, "Auth Header not present : Created  auth entry "));
  EXPECT_EQ(log.count(4), 1);
}

TEST_F(Authenticate, TenThousandRealmsAreBounded) {
  LogCapture log(4);
  for (int i = 0; i < 10000; ++i) EXPECT_TRUE(challenge(401, stray(i)));
  const std::size_t most = framework::bounds().challenges;
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs.size(), most);
  EXPECT_EQ(log.count(4), 10000 - static_cast<int>(most));                    // one for each that gave way
  EXPECT_TRUE(challenge(401, "Digest realm=\"stray 9999\", nonce=\"new\""));  // a known realm gets its new text
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs.size(), most);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs.back().auth_hdr, "Digest realm=\"stray 9999\", nonce=\"new\"");
}

TEST_F(Authenticate, AChallengeIsAnsweredHoweverManyStraysCameBeforeIt) {
  for (const int strays : {1, 7, 8, 32, 1000}) {
    SCOPED_TRACE(strays);
    for (int i = 0; i < strays; ++i) challenge(i % 2 == 0 ? 401 : 407, stray(i));
    ASSERT_TRUE(challenge(401, kPlain));
    set_request(request);
    const std::size_t before = request.current().size();
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization").front(), kPlainAnswer);  // stored last, so on top
    EXPECT_LE(values("Authorization").size() + values("Proxy-Authorization").size(), kMaxCredentials);
    EXPECT_LT(request.current().size() - before, 2048U);
    auth.delete_auth_info(home);
  }
}

TEST_F(Authenticate, AChallengeThatStraysPushedOutIsAnsweredAgainAfterItsNext) {
  ASSERT_TRUE(challenge(401, kPlain));
  for (const int strays : {8, 31, 32, 100}) {
    SCOPED_TRACE(strays);
    for (int i = 0; i < strays; ++i) ASSERT_TRUE(challenge(401, stray(i)));
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization").size(), kMaxCredentials);
    Texts all = values("Authorization");
    EXPECT_EQ(std::count(all.begin(), all.end(), kPlainAnswer), 0);
    ASSERT_TRUE(challenge(401, kPlain));
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    all = values("Authorization");
    EXPECT_EQ(all.size(), kMaxCredentials);
    EXPECT_EQ(std::count(all.begin(), all.end(), kPlainAnswer), 1);
  }
}

TEST_F(Authenticate, AChallengeThatCameAgainIsYoung) {
  for (std::size_t i = 0; i < framework::bounds().challenges; ++i)
    ASSERT_TRUE(challenge(401, stray(static_cast<int>(i))));
  ASSERT_TRUE(challenge(401, stray(0)));
  ASSERT_TRUE(challenge(401, kPlain));
  const std::vector<Auth_Hdrs_T>& stored = auth.auth_info(home)->auth_hdrs;
  ASSERT_EQ(stored.size(), framework::bounds().challenges);
  EXPECT_EQ(stored[0].realm, "\"stray 0\"");  // where it was
  EXPECT_EQ(stored[1].realm, "\"stray 2\"");
  EXPECT_EQ(stored.back().realm, "\"home.example\"");
}

TEST_F(Authenticate, TheYoungestEightAreAnsweredInTheOrderOfStoring) {
  for (int i = 0; i < 12; ++i) ASSERT_TRUE(challenge(401, stray(i)));
  for (const int again : {5, 1, 2}) ASSERT_TRUE(challenge(401, stray(again)));  // youngest: 2 1 5 11 10 9 8 7
  set_request(request);
  LogCapture log;
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  Texts realms;
  for (const std::string& value : values("Authorization")) realms.push_back(value.substr(0, value.find(',')));
  Texts expected;
  for (const int number : {11, 10, 9, 8, 7, 5, 2, 1}) {  // topmost first
    expected.push_back("Digest realm=\"stray " + std::to_string(number) + "\"");
  }
  EXPECT_EQ(realms, expected);
  EXPECT_TRUE(log.has(5, "Number of Auth Headers maintained by Proxy  12"));
  EXPECT_EQ(log.count(5, "This is the latest nonce value to be used"), 8);
}

TEST_F(Authenticate, UpToEightAreAllAnswered) {
  for (int i = 0; i < 8; ++i) ASSERT_TRUE(challenge(i < 4 ? 401 : 407, stray(i)));
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization").size(), 4U);
  EXPECT_EQ(values("Proxy-Authorization").size(), 4U);
}

// A judge looks for the first answer with its realm; one that a stranger planted under another spelling of the realm
// must not stand before the right one.
TEST_F(Authenticate, TheProxysChallengesAreAnsweredBeforeYoungerOnesFromElsewhere) {
  response.peer_ip = "192.0.2.1";
  challenge(401, "Digest realm=\"home\", nonce=\"n\"");
  response.peer_ip = "192.0.2.9";
  challenge(401, "Digest realm=\"HOME\", nonce=\"s\"");
  for (int i = 0; i < 12; ++i) challenge(401, "Digest realm=\"stray " + std::to_string(i) + "\", nonce=\"s\"");
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  const Texts answers = values("Authorization");
  ASSERT_EQ(answers.size(), kMaxCredentials);
  // The one stored first goes in first, and each further one above it.
  EXPECT_NE(answers.back().find("realm=\"home\""), std::string::npos) << answers.back();
  for (std::size_t i = 0; i + 1 < answers.size(); ++i) {
    EXPECT_NE(answers[i].find("\"stray " + std::to_string(11 - i) + "\""), std::string::npos) << answers[i];
  }
}

TEST_F(Authenticate, OfOneRealmInSeveralSpellingsTheYoungestIsAnswered) {
  ASSERT_TRUE(challenge(401, kPlain));
  const Texts spellings = {"home.example", R"("home\.example")", R"("Home.Example")"};
  for (const std::string& spelling : spellings) {
    ASSERT_TRUE(challenge(401, "Digest realm=" + spelling + ", nonce=\"planted\""));
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(parameter("Authorization", "nonce"), "\"planted\"");
    ASSERT_TRUE(challenge(401, kPlain));
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  }
  ASSERT_TRUE(challenge(407, kPlain));  // the other kind is another judge's
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kPlainAnswer});
}

TEST_F(Authenticate, AStrangersLargeChallengesDisplaceNothingAndMakeNoRequestLarge) {
  ASSERT_TRUE(challenge(401, kPlain));
  const Auth_Info_T* const stored = auth.auth_info(home);
  LogCapture log(4);
  for (const std::size_t size : {kMaxChallengeSize + 1, std::size_t{15000}}) {
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(challenge(401, stray(i, size)));
    EXPECT_FALSE(challenge(401, sized(kPlain, size)));  // nor does one of a known realm take its place
    EXPECT_TRUE(log.has(4, "Domain " + home + " has 1 challenges already - one of " + std::to_string(size) +
                               " bytes is not kept, realm \"stray 2\""));
    EXPECT_TRUE(log.has(4, "New challenge of " + std::to_string(size) + " bytes is not kept, domain " + home +
                               " realm \"home.example\""));
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  }
  EXPECT_EQ(log.count(4), 8);
  // The largest that are kept: as many as others, and the eight answers are little larger than they.
  for (std::size_t i = 1; i < framework::bounds().challenges; ++i) {
    EXPECT_TRUE(challenge(401, stray(static_cast<int>(i), kMaxChallengeSize)));
  }
  EXPECT_TRUE(challenge(401, sized(kPlain, kMaxChallengeSize)));
  EXPECT_EQ(log.count(4), 8);
  EXPECT_EQ(stored->auth_hdrs.size(), framework::bounds().challenges);
  EXPECT_EQ(stored->auth_hdrs[0].auth_hdr, sized(kPlain, kMaxChallengeSize));
  set_request(request);
  const std::size_t plain = request.current().size();
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization").size(), kMaxCredentials);
  EXPECT_LT(request.current().size() - plain, kMaxCredentials * (kMaxChallengeSize + 512));
}

TEST_F(Authenticate, AnAnswerIsAtMostTwiceAsLargeAsItsChallenge) {
  const std::string nonce = "Digest realm=\"r\", nonce=";
  ASSERT_TRUE(challenge(401, nonce + std::string(kMaxChallengeSize - nonce.size(), '\\')));  // all to be escaped
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  ASSERT_EQ(values("Authorization").size(), 1U);
  EXPECT_GT(values("Authorization")[0].size(), 2 * kMaxChallengeSize - 64);
  EXPECT_LT(values("Authorization")[0].size(), 2 * kMaxChallengeSize + 256);
}

TEST_F(Authenticate, AFirstChallengeThatIsNotKeptLeavesClientsTheirOwnCredentials) {
  LogCapture log(4);
  auth.create_auth_info(home, "Digest realm=\"r\", nonce=\"" + std::string(kMaxChallengeSize, 'n') + "\"", AUTH_WWW,
                        "\"r\"", "\"n\"");
  EXPECT_EQ(log.count(4), 1);
  EXPECT_EQ(auth.auth_info(home), nullptr);
  set_request(request, {{"Authorization", own("n1")}});
  const std::string before = request.current();
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(request.current(), before);
}

TEST_F(Authenticate, AChallengeWithoutRealmOrNonceIsAnsweredWithEmptyOnes) {
  ASSERT_TRUE(challenge(401, "Digest"));
  ASSERT_TRUE(challenge(401, "Digest"));  // the same again
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 1U);
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(parameter("Authorization", "realm"), "\"\"");
  EXPECT_EQ(parameter("Authorization", "nonce"), "\"\"");
}

// --- Requests: what is added

TEST_F(Authenticate, RequestsOfADomainThatWasNeverChallengedPassUnchanged) {
  set_request(request, {{"Authorization", own("x")}});
  const std::string before = request.current();
  LogCapture log;
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(log.texts(), (Texts{"update_auth_info_for_request : domain_key " + home + ", client_key " + k,
                                "Auth Entry NOT Found for this Profile " + home,
                                "No Auth hdrs avaiable for this profile - Nothing to be done in Proxy"}));
  EXPECT_EQ(request.current(), before);
  EXPECT_EQ(auth.auth_info(home), nullptr);
  EXPECT_FALSE(auth.update_auth_info_for_request(nullptr, home, k));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
}

TEST_F(Authenticate, AnyClientOfAChallengedDomainGetsAnAuthorization) {
  ASSERT_TRUE(challenge(401, kPlain));
  for (const std::string& client : {k1, k2, k1}) {
    SCOPED_TRACE(client);
    set_request(request);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, client));
    EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
    EXPECT_TRUE(values("Proxy-Authorization").empty());
  }
  EXPECT_EQ(auth.auth_info(home)->clients.size(), 2U);
}

TEST_F(Authenticate, ANewClientIsAddedBeforeAndAKnownOneRefreshedAfterItsRequestIsCompleted) {
  ASSERT_TRUE(challenge(401, kQop));
  set_request(request);
  LogCapture log;
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(log.texts().back(), "Client does not exist  - new  client index - 0 and retval is 1");
  EXPECT_TRUE(log.has(5, "Auth Header is avaliable for this profile - " + home));
  EXPECT_EQ(auth.auth_info(home)->clients[0].hdr_type, 2);

  set_request(request, {}, "INVITE", "2");
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_TRUE(log.has(5, "Client already exists - client index - 0"));
  EXPECT_EQ(log.texts().back(), "Updating client info - retval is 1");
  const Client_Info_T& client = auth.auth_info(home)->clients[0];
  EXPECT_EQ(client.hdr_type, 0);
  EXPECT_EQ(client.cseq, "2 INVITE");
  EXPECT_EQ(client.nonce, "\"n1\"");
  EXPECT_EQ(client.nc, "2");
  EXPECT_EQ(client.cnonce, "\"\"");
}

TEST_F(Authenticate, AFreshNonceIsUsedWithCount1AndEachHeaderAdvancesIt) {
  ASSERT_TRUE(challenge(401, kQop));
  for (int count = 1; count <= 3; ++count) {
    set_request(request);
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(parameter("Authorization", "nonce"), "\"n1\"");
    EXPECT_EQ(parameter("Authorization", "nc"), std::to_string(count));
    EXPECT_EQ(parameter("Authorization", "cnonce"), "\"\"");
    EXPECT_EQ(parameter("Authorization", "qop"), "auth");
    EXPECT_EQ(slot().nc, std::to_string(count));
    EXPECT_TRUE(log.has(5, "qop is present "));
    EXPECT_TRUE(log.has(5, "nonce_cnt_value is " + std::to_string(count - 1)));
  }
}

TEST_F(Authenticate, WithoutQopTheCountStays) {
  ASSERT_TRUE(challenge(401, kPlain));
  set_request(request);
  EXPECT_TRUE(auth.add_proxy_auth_hdrs(&request, home));
  EXPECT_EQ(slot().nc, "0");
}

TEST_F(Authenticate, OneHeaderPerChallengeIsAdded) {
  ASSERT_TRUE(challenge(401, kPlain));
  ASSERT_TRUE(challenge(407, kProxyPlain));
  set_request(request);
  LogCapture log;
  EXPECT_TRUE(auth.update_proxy_auth_info(&request, home, 0));
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kProxyAnswer});
  EXPECT_EQ(log.texts().front(), "Headers to be updated for domain key " + home);
  EXPECT_TRUE(log.has(5, "Number of Auth Headers in request 0 and val1 is 0"));
  EXPECT_TRUE(log.has(5, "Number of Proxy-Auth Headers in request 0 and val2 is 0"));
  EXPECT_TRUE(log.has(5, "Number of Auth Headers maintained by Proxy  2"));
  EXPECT_TRUE(log.has(5, "Just Add all Headers maintained by proxy one by one"));
  EXPECT_TRUE(log.has(5, "username is alice, password is secret"));
  EXPECT_EQ(log.count(5, "This is the latest nonce value to be used"), 2);
  EXPECT_EQ(log.texts().back(), "Returning from addHeaders - retval is 1");
}

TEST_F(Authenticate, TwoRealmsOfOneKindGiveTwoHeadersTheLaterOnTop) {
  ASSERT_TRUE(challenge(401, kPlain));
  ASSERT_TRUE(challenge(401, kProxyPlain));
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization"), (Texts{kProxyAnswer, kPlainAnswer}));
}

TEST_F(Authenticate, AFailedAnswerEndsTheAddingAndKeepsEarlierHeaders) {
  ASSERT_TRUE(challenge(401, kPlain));
  auth.create_auth_info(home, "Digest realm=\"open", AUTH_PROXY, "r", "n");
  auth.create_auth_info(home, kProxyPlain, AUTH_PROXY, "p", "n");
  set_request(request);
  LogCapture log;
  EXPECT_FALSE(auth.add_proxy_auth_hdrs(&request, home));
  EXPECT_TRUE(log.has(4, "Error in generating headers - returning false"));
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_TRUE(values("Proxy-Authorization").empty());
}

TEST_F(Authenticate, ADomainWithoutUserNameGetsNoHeader) {
  home = add_domain("nameless", "", "secret");
  ASSERT_TRUE(challenge(401, kPlain));
  set_request(request);
  const std::string before = request.current();
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(request.current(), before);
}

TEST_F(Authenticate, NothingIsAddedForAnUnknownDomainOrConnection) {
  set_request(request);
  LogCapture log;
  EXPECT_FALSE(auth.add_proxy_auth_hdrs(&request, "none"));
  EXPECT_EQ(log.texts(), (Texts{"username is , password is ", "Returning from addHeaders - retval is 0"}));
  EXPECT_FALSE(auth.add_proxy_auth_hdrs(nullptr, home));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL  - returning false"));
  EXPECT_FALSE(auth.update_proxy_auth_info(nullptr, home, 0));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
  EXPECT_EQ(auth.auth_info("none"), nullptr);
}

TEST_F(Authenticate, AConnectionWithoutMessageDoesNoHarm) {
  ASSERT_TRUE(challenge(401, kPlain));
  FakeServerTcp idle;
  EXPECT_FALSE(auth.is_request_challenged(&idle));
  EXPECT_FALSE(auth.update_auth_info_for_response(&idle, home));
  EXPECT_FALSE(auth.update_auth_info_for_request(&idle, home, k));
}

// --- Requests: a client with credentials of its own

TEST_F(Authenticate, AnAnswerOfTheClientsOwnToAKnownNonceIsMadeAgain) {
  ASSERT_TRUE(challenge(401, kPlain));
  ASSERT_TRUE(challenge(407, kProxyPlain));
  const std::string www = own("n1");
  const std::string proxy = own("p1");
  set_request(request, {{"Authorization", www}, {"Proxy-Authorization", proxy}});
  LogCapture log;
  EXPECT_TRUE(auth.update_proxy_auth_info(&request, home, 0));
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kProxyAnswer});
  Texts steps;
  for (const std::string& text : log.texts()) {
    for (const char* step : {"Headers to be replaced", "Removed Header", "Added Authorization", "Removing proxy-Auth",
                             "Adding Header", "forming", "Nonce value", "Update the", "Could not", "Number of"}) {
      if (text.starts_with(step)) steps.push_back(text);
    }
  }
  EXPECT_EQ(steps, (Texts{"Number of Auth Headers in request 1 and val1 is 1",
                          "Number of Proxy-Auth Headers in request 1 and val2 is 1",
                          "Number of Auth Headers maintained by Proxy  2", "Headers to be replaced is " + www,
                          "forming auth hdr object for hdrs - " + www, "Nonce value and type matched - nonce is \"n1\"",
                          "Update the Auth header)", "Removed Header", "Added Authorization Header " + kPlainAnswer,
                          "Headers to be replaced is " + proxy, "forming auth hdr object for hdrs - " + proxy,
                          "Nonce value and type matched - nonce is \"p1\"", "Update the Auth header)",
                          "Removing proxy-Auth header", "Adding Header maintained by proxy " + kProxyAnswer}));
  EXPECT_TRUE(log.has(5, "auth_type is 1, uri is  sip:bob@home.example method is INVITE"));
}

TEST_F(Authenticate, NoMoreThanEightAnswersOfTheClientsOwnAreMadeAgain) {
  for (const std::string& known : {kPlain, sized(kPlain, kMaxChallengeSize)}) {
    SCOPED_TRACE(known.size());
    ASSERT_TRUE(challenge(401, known));
    FakeHeaders headers = {{"Authorization", own("n1")}};
    for (int i = 0; headers.size() < 20; ++i) {
      ASSERT_TRUE(challenge(407, stray(i)));
      headers.emplace_back("Authorization", own("n1"));
    }
    set_request(request, headers);
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    const Texts all = values("Authorization");
    EXPECT_EQ(all.size(), 20U);
    const auto kept = static_cast<std::size_t>(std::count(all.begin(), all.end(), own("n1")));
    EXPECT_EQ(20U - kept, kMaxCredentials);
    auth.delete_auth_info(home);
  }
}

TEST_F(Authenticate, AllAnswersOfOneKindAreMadeAgainTheLaterOnTop) {
  for (const auto& [status, name] : {std::pair(401, "Authorization"), std::pair(407, "Proxy-Authorization")}) {
    SCOPED_TRACE(name);
    auth.delete_auth_info(home);
    ASSERT_TRUE(challenge(status, kPlain));
    ASSERT_TRUE(challenge(status, kProxyPlain));
    set_request(request, {{name, own("n1")}, {name, own("p1")}});
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values(name), (Texts{kProxyAnswer, kPlainAnswer}));
  }
}

TEST_F(Authenticate, AnAnswerToAnUnknownNonceStaysTheClientsOwn) {
  ASSERT_TRUE(challenge(401, kPlain));
  for (const std::string& value : {own("other"), std::string("Digest nonce=\"n1")}) {
    set_request(request, {{"Authorization", value}});
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization"), Texts{value});
    EXPECT_TRUE(log.has(5, "Could not replace Auth headers - returning false") ||
                log.has(4, "auth_hdr_obj is  NULL - returning false"));
  }
}

TEST_F(Authenticate, WithoutNonceNothingIsKnown) {
  const Texts no_nonce = {R"(Digest username="client", realm="home.example", response="0")",
                          R"(Digest username="client", realm="home.example", nonce="", response="0")",
                          R"(Digest username="client", realm="home.example", nonce=, response="0")",
                          R"(Digest username="client", realm="home.example", nonce, response="0")"};
  const Texts challenges = {kPlain, R"(Digest realm="home.example")", R"(Digest realm="home.example", nonce="")"};
  for (const std::string& known : challenges) {
    SCOPED_TRACE(known);
    auth.delete_auth_info(home);
    ASSERT_TRUE(challenge(401, known));
    for (const std::string& value : no_nonce) {
      set_request(request, {{"Authorization", value}});
      LogCapture log;
      EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
      EXPECT_EQ(values("Authorization"), Texts{value});
      EXPECT_TRUE(log.has(5, "Could not replace Auth headers - returning false"));
    }
  }
}

TEST_F(Authenticate, ANonceIsKnownForItsKindOnly) {
  ASSERT_TRUE(challenge(407, kPlain));
  const std::string value = own("n1");
  set_request(request, {{"Authorization", value}});
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization"), Texts{value});
  set_request(request, {{"Proxy-Authorization", value}});
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kPlainAnswer});
}

TEST_F(Authenticate, AnotherNumberOfHeadersThanChallengesIsReplacedByTheProxysOwn) {
  ASSERT_TRUE(challenge(401, kPlain));
  ASSERT_TRUE(challenge(407, kProxyPlain));
  set_request(request, {{"Authorization", own("n1")}});
  {
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_TRUE(log.has(4, "This is Scenario 3 - not handled here - returning true"));
    EXPECT_TRUE(log.has(5, "Scenario 3- Just Add all Headers maintained by proxy one by one"));
    EXPECT_EQ(log.count(5, "Removed Header"), 1);
  }
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kProxyAnswer});

  set_request(request, {{"Authorization", own("1")},
                        {"Authorization", own("2")},
                        {"Proxy-Authorization", "Digest realm=\"proxy.example\", nonce=\"3\""}});
  LogCapture log;
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(log.count(5, "Removed Header"), 2);
  EXPECT_EQ(values("Authorization"), Texts{kPlainAnswer});
  EXPECT_EQ(values("Proxy-Authorization"), Texts{kProxyAnswer});
}

TEST_F(Authenticate, AnswersOfTheClientsOwnToOtherRealmsStay) {
  ASSERT_TRUE(challenge(401, kPlain));
  ASSERT_TRUE(challenge(407, kProxyPlain));
  const auto of_realm = [](const std::string& realm, const std::string& nonce) {
    return "Digest username=\"client\", realm=" + realm + ", nonce=\"" + nonce + "\", response=\"0\"";
  };
  const std::string other_kind = of_realm("\"proxy.example\"", "1");
  const std::string stranger = of_realm("\"elsewhere\"", "2");
  const std::string third = of_realm("\"third\"", "5");
  {
    // Nothing to remove: the client's lines stay as they are, in spelling and place.
    set_request(request, {{"authorization", stranger},
                          {"X-Between", "x"},
                          {"AUTHORIZATION", other_kind},
                          {"X", "y"},
                          {"Authorization", third}});
    const std::string before = request.current();
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_EQ(values("Authorization"), (Texts{kPlainAnswer, stranger, other_kind, third}));
    EXPECT_EQ(values("Proxy-Authorization"), Texts{kProxyAnswer});
    EXPECT_EQ(log.count(5, "Removed Header"), 0);
    const std::string after = request.current();
    const std::size_t at = before.find("authorization: ");
    const std::size_t end = before.find("\r\n\r\n");
    EXPECT_NE(after.find(before.substr(at, end - at)), std::string::npos) << after;
  }
  set_request(request, {{"Authorization", stranger},
                        {"Authorization", own("n1")},
                        {"Authorization", "Digest nonce=\"no realm\""},
                        {"Authorization", other_kind},
                        {"Authorization", "Digest realm=\"open"},
                        {"Authorization", of_realm("HOME.example", "4")},
                        {"Authorization", "Digest realm=, nonce=\"empty\""},
                        {"Authorization", third},
                        {"Proxy-Authorization", of_realm(R"("proxy\.example")", "6")},
                        {"Proxy-Authorization", stranger}});
  LogCapture log;
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(values("Authorization"), (Texts{kPlainAnswer, stranger, other_kind, third}));
  EXPECT_EQ(values("Proxy-Authorization"), (Texts{kProxyAnswer, stranger}));
  EXPECT_EQ(log.count(5, "Removed Header"), 5);
}

TEST_F(Authenticate, AnAnswerOfTheClientsOwnStaysWhereTheProxyGivesNone) {
  ASSERT_TRUE(challenge(401, kPlain));
  for (int i = 0; i < 8; ++i) ASSERT_TRUE(challenge(401, stray(i)));
  set_request(request, {{"Authorization", own("n1")}});
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  ASSERT_EQ(values("Authorization").size(), kMaxCredentials + 1);
  EXPECT_EQ(values("Authorization").back(), own("n1"));
}

TEST_F(Authenticate, TheResultOfTheAddingDoesNotMatterInScenario3) {
  home = add_domain("nameless", "", "secret");
  ASSERT_TRUE(challenge(401, kPlain));
  set_request(request, {{"Authorization", own("1")}, {"Authorization", own("2")}});
  EXPECT_TRUE(auth.update_proxy_auth_info(&request, home, 0));
  EXPECT_TRUE(values("Authorization").empty());
}

TEST_F(Authenticate, ARetransmissionDoesNotAdvanceTheCount) {
  ASSERT_TRUE(challenge(401, kQop));
  // The record of a new client is made from this very request, so its own count counts as seen.
  set_request(request, {{"Authorization", own("n1", "00000001")}});
  {
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_TRUE(log.has(5, "Retransmission as nonce_count is same as old value"));
  }
  EXPECT_EQ(slot().nc, "0");
  EXPECT_EQ(parameter("Authorization", "nc"), "0");

  set_request(request, {{"Authorization", own("n1", "00000002")}});
  {
    LogCapture log;
    EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
    EXPECT_TRUE(log.has(5, "NEW transmission as nonce_count has changed"));
    EXPECT_TRUE(log.has(5, "qop is present and this is not retransmission"));
    EXPECT_TRUE(log.has(5, "nonce_cnt_value is 0"));
  }
  EXPECT_EQ(slot().nc, "1");
  EXPECT_EQ(parameter("Authorization", "nc"), "1");

  // The record now has the count of the request as it left.
  set_request(request, {{"Authorization", own("n1", "1")}});
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(slot().nc, "1");
}

TEST_F(Authenticate, ARetransmissionIsToldByTheCountAlone) {
  ASSERT_TRUE(challenge(401, kQop));
  set_request(request, {{"Authorization", own("n1", "00000001")}});
  int index = -1;
  ASSERT_TRUE(auth.add_client_info(&request, home, k, index));
  LogCapture log;
  EXPECT_FALSE(auth.is_retransmission(&request, home, index, ""));
  EXPECT_TRUE(auth.is_retransmission(&request, home, index, "00000001"));
  EXPECT_FALSE(auth.is_retransmission(&request, home, index, "1"));
  EXPECT_EQ(log.texts(), (Texts{"No nonce count present - cannot say if retransmission",
                                "Retransmission as nonce_count is same as old value",
                                "NEW transmission as nonce_count has changed"}));
}

TEST_F(Authenticate, AnOwnHeaderWithoutQopDoesNotAdvanceTheCount) {
  ASSERT_TRUE(challenge(401, kQop));
  set_request(request, {{"Authorization", own("n1")}});
  std::string value;
  EXPECT_TRUE(auth.replace_auth_hdrs(&request, home, AUTH_WWW, own("n1").c_str(), value, 0));
  EXPECT_EQ(slot().nc, "0");
}

TEST_F(Authenticate, ReplacingWithoutConnectionOrHeaderIsRefused) {
  ASSERT_TRUE(challenge(401, kPlain));
  set_request(request);
  LogCapture log;
  std::string value = "untouched";
  EXPECT_FALSE(auth.replace_auth_hdrs(nullptr, home, AUTH_WWW, own("n1").c_str(), value, 0));
  EXPECT_FALSE(auth.replace_auth_hdrs(&request, home, AUTH_WWW, nullptr, value, 0));
  EXPECT_EQ(log.count(4, "conn ptr is NULL  OR auth hdr is absent - returning false"), 2);
  EXPECT_FALSE(auth.replace_auth_hdrs(&request, home, AUTH_WWW, "", value, 0));
  EXPECT_TRUE(log.has(4, "auth_hdr_obj is  NULL - returning false"));
  EXPECT_FALSE(auth.replace_auth_hdrs(&request, "none", AUTH_WWW, own("n1").c_str(), value, 0));
  EXPECT_TRUE(log.has(5, "Could not replace Auth headers - returning false"));
  EXPECT_EQ(value, "untouched");
}

TEST_F(Authenticate, SecretsAppearAtLevel5Only) {
  LogCapture log(4);
  ASSERT_TRUE(challenge(401, kQop));
  EXPECT_FALSE(challenge(401, "Digest realm=\"open"));
  set_request(request);
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  set_request(request, {{"Authorization", own("1")}, {"Authorization", own("2")}});
  EXPECT_TRUE(auth.update_auth_info_for_request(&request, home, k));
  EXPECT_EQ(log.read().find("secret"), std::string::npos);
  EXPECT_GT(log.count(4), 0);
}

}  // namespace
