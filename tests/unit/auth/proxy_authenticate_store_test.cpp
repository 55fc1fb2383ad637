#include "auth_fixture.h"

namespace {

const std::string kChallenge = R"(Digest realm="home.example", nonce="n1")";

// --- Challenges

TEST_F(Authenticate, AChallengeIsStoredWithTheDomainsCredentials) {
  LogCapture log;
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "\"home.example\"", "\"n1\"");
  EXPECT_EQ(log.texts(), (Texts{"Create Auth entry for domain " + home + ",auth hdr " + kChallenge +
                                    ",type 0,realm \"home.example\" nonce \"n1\"",
                                "Auth entry for domain key  does not exist - Create a new entry",
                                "username is alice, password is secret"}));
  const Auth_Info_T* info = auth.auth_info(home);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->username, "alice");
  EXPECT_EQ(info->password, "secret");
  EXPECT_TRUE(info->clients.empty());
  ASSERT_EQ(info->auth_hdrs.size(), 1U);
  EXPECT_EQ(info->auth_hdrs[0].auth_type, AUTH_WWW);
  EXPECT_EQ(info->auth_hdrs[0].realm, "\"home.example\"");
  EXPECT_EQ(info->auth_hdrs[0].auth_hdr, kChallenge);
  EXPECT_EQ(slot().age, 3);
  EXPECT_EQ(slot().nonce, "\"n1\"");
  EXPECT_EQ(slot().nc, "0");
  for (const std::size_t i : {1U, 2U}) {
    EXPECT_EQ(slot(0, i).age, 0);
    EXPECT_EQ(slot(0, i).nonce, "");
    EXPECT_EQ(slot(0, i).nc, "");
  }
}

TEST_F(Authenticate, TwoChallengesOfOneRealmAreTwoAndTheFirstIsFound) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n1");
  LogCapture log;
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n2");
  EXPECT_FALSE(log.has(5, "Auth entry for domain key  does not exist - Create a new entry"));
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 2U);
  log.clear();
  int index = 7;
  EXPECT_TRUE(auth.check_if_auth_hdr_present(home, AUTH_WWW, "r", index));
  EXPECT_EQ(index, 0);
  EXPECT_EQ(log.texts(),
            (Texts{" Searching for domain_key " + home + ", Auth Type 0, realm r", "Auth Entry exists for this Profile",
                   "Auth Entry Found for realm/auth type- auth index 0"}));
}

TEST_F(Authenticate, AChallengeIsFoundByItsKindAndRealmOnly) {
  auth.create_auth_info(home, kChallenge, AUTH_PROXY, "r", "n");
  auth.create_auth_info(home, kChallenge, AUTH_PROXY, "s", "n");
  struct {
    std::string domain;
    Auth_T type;
    std::string realm;
    int index;
  } const cases[] = {{home, AUTH_PROXY, "r", 0},  {home, AUTH_PROXY, "s", 1}, {home, AUTH_WWW, "r", -1},
                     {home, AUTH_PROXY, "t", -1}, {home, AUTH_PROXY, "", -1}, {"none", AUTH_PROXY, "r", -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.domain + " " + c.realm);
    LogCapture log;
    int index = 7;
    EXPECT_EQ(auth.check_if_auth_hdr_present(c.domain, c.type, c.realm, index), c.index >= 0);
    EXPECT_EQ(index, c.index);
    EXPECT_EQ(log.has(5, "Auth Entry Not Found for this Profile realm/auth type"), c.index < 0);
  }
  EXPECT_EQ(auth.auth_info("none"), nullptr);  // a search makes no entry
}

TEST_F(Authenticate, AChallengeOfAnUnknownDomainIsRefused) {
  LogCapture log;
  auth.create_auth_info("no such key", kChallenge, AUTH_WWW, "r", "n");
  EXPECT_EQ(log.count(4), 1);
  EXPECT_EQ(auth.auth_info("no such key"), nullptr);
  IMS_Proxy_Authenticate::rt_ptr = nullptr;
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  EXPECT_EQ(log.count(4), 2);
  EXPECT_EQ(auth.auth_info(home), nullptr);
}

TEST_F(Authenticate, TheOldestChallengeOfAFullDomainGivesWay) {
  for (std::size_t i = 0; i < framework::bounds().challenges; ++i) {
    auth.create_auth_info(home, kChallenge, AUTH_WWW, "realm " + std::to_string(i), "n");
  }
  LogCapture log(4);
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "one more", "n");
  const std::vector<Auth_Hdrs_T>& stored = auth.auth_info(home)->auth_hdrs;
  ASSERT_EQ(stored.size(), framework::bounds().challenges);
  EXPECT_EQ(stored.front().realm, "realm 1");
  EXPECT_EQ(stored.back().realm, "one more");
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.has_part(4, "realm 0"));
  EXPECT_EQ(log.read().find("secret"), std::string::npos);
  const std::string other = add_domain("other", "bob", "word");
  auth.create_auth_info(other, kChallenge, AUTH_WWW, "r", "n");
  EXPECT_EQ(auth.auth_info(other)->auth_hdrs.size(), 1U);
}

TEST_F(Authenticate, TheProxysChallengesGiveWayToNoOther) {
  response.peer_ip = "192.0.2.1";
  EXPECT_TRUE(challenge(401, "Digest realm=\"home\", nonce=\"n\""));
  const std::size_t most = framework::bounds().challenges;
  response.peer_ip = "192.0.2.9";
  for (std::size_t i = 0; i < most + 2; ++i) {
    challenge(401, "Digest realm=\"stray " + std::to_string(i) + "\", nonce=\"s\"");
  }
  const std::vector<Auth_Hdrs_T>& stored = auth.auth_info(home)->auth_hdrs;
  ASSERT_EQ(stored.size(), most);
  EXPECT_EQ(stored.front().realm, "\"home\"");
  EXPECT_EQ(stored.back().realm, "\"stray " + std::to_string(most + 1) + "\"") << "others are kept where there is room";
  response.peer_ip = "192.0.2.1";
  for (std::size_t i = 0; i < most; ++i) challenge(401, "Digest realm=\"" + std::to_string(i) + "\", nonce=\"n\"");
  response.peer_ip = "192.0.2.9";
  challenge(401, "Digest realm=\"late\", nonce=\"s\"");
  ASSERT_EQ(stored.size(), most);
  for (const Auth_Hdrs_T& one : stored) EXPECT_TRUE(one.from_proxy) << one.realm;
  EXPECT_EQ(stored.front().realm, "\"0\"") << "of the proxy's own the oldest";
}

TEST_F(Authenticate, AChallengeFromElsewhereDoesNotReplaceTheProxys) {
  const std::string stray = "Digest realm=\"home\", nonce=\"s\"";
  const std::string genuine = "Digest realm=\"home\", nonce=\"n\"";
  response.peer_ip = "192.0.2.9";
  EXPECT_TRUE(challenge(401, stray));
  response.peer_ip = "192.0.2.1";
  EXPECT_TRUE(challenge(401, genuine));
  response.peer_ip = "192.0.2.9";
  LogCapture log(4);
  EXPECT_FALSE(challenge(401, stray));
  EXPECT_TRUE(
      log.has(4, "Challenge from elsewhere is not kept in place of the proxy's, domain " + home + " realm \"home\""));
  const std::vector<Auth_Hdrs_T>& stored = auth.auth_info(home)->auth_hdrs;
  ASSERT_EQ(stored.size(), 1U);
  EXPECT_EQ(stored[0].auth_hdr, genuine);
  EXPECT_TRUE(challenge(407, stray)) << "another kind";
  EXPECT_EQ(stored.size(), 2U);
}

TEST_F(Authenticate, ADomainIsKnownFromItsFirstChallengeUntilItIsDeleted) {
  LogCapture log;
  EXPECT_FALSE(auth.is_auth_hdr_available_for_profile(home));
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  EXPECT_TRUE(auth.is_auth_hdr_available_for_profile(home));
  EXPECT_TRUE(auth.delete_auth_info(home));
  EXPECT_FALSE(auth.is_auth_hdr_available_for_profile(home));
  EXPECT_TRUE(auth.delete_auth_info(home));
  EXPECT_EQ(log.count(5, "Auth Entry NOT Found for this Profile " + home), 2);
  EXPECT_EQ(log.count(5, "Auth Entry Found for this Profile " + home), 1);
  EXPECT_EQ(log.count(5, "Deleted Auth Info for Profile " + home), 2);
}

TEST_F(Authenticate, DeletingADomainOfTheTableDropsItsChallenges) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  EXPECT_TRUE(table.deleteDomain(DT_PROFILE_ID, "home"));
  EXPECT_EQ(auth.auth_info(home), nullptr);
}

TEST_F(Authenticate, AChallengeThatIsTooLargeIsRefused) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  LogCapture log(4);
  const std::string large(kMaxChallengeSize + 1, 'x');
  auth.create_auth_info(home, large, AUTH_WWW, "large", "n");
  EXPECT_TRUE(log.has(4, "Domain " + home + " has 1 challenges already - one of " + std::to_string(large.size()) +
                             " bytes is not kept, realm large"));
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 1U);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs[0].realm, "r");
  auth.create_auth_info(home, large.substr(1), AUTH_WWW, "whole", "n");
  ASSERT_EQ(auth.auth_info(home)->auth_hdrs.size(), 2U);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs[1].realm, "whole");
  EXPECT_EQ(log.count(4), 1);
}

// --- Clients

struct RequestCase {
  const char* label;
  FakeHeaders headers;
  Client_Info_T expected;
  std::vector<std::string> log;
};

const std::string kPlain = R"(Digest username="u", realm="r", nonce="n", cnonce="c", nc=00000001)";
const std::string kQop = R"(Digest username="u", realm="r", nonce="n", qop=auth, cnonce="c", nc=00000001)";

std::vector<RequestCase> request_cases() {
  return {
      {"no credentials", {}, {"", "1 INVITE", 2, "", "", "", ""}, {" No Auth Header is PRESENT"}},
      {"an empty header", {{"Authorization", ""}}, {"", "1 INVITE", 2, "", "", "", ""}, {" No Auth Header is PRESENT"}},
      {"Authorization without qop",
       {{"Authorization", kPlain}},
       {"", "1 INVITE", 0, "\"n\"", "", "\"r\"", ""},
       {" Header is Authorization ", " Either Authorization/Proxy-Authorization is present - " + kPlain}},
      {"Authorization with qop",
       {{"Authorization", kQop}},
       {"", "1 INVITE", 0, "\"n\"", "00000001", "\"r\"", "\"c\""},
       {" Header is Authorization ", " Either Authorization/Proxy-Authorization is present - " + kQop,
        "qop is present - nonce_count is 00000001"}},
      {"Proxy-Authorization",
       {{"Proxy-Authorization", kQop}},
       {"", "1 INVITE", 1, "\"n\"", "00000001", "\"r\"", "\"c\""},
       {" Header is Proxy-Auth ", " Either Authorization/Proxy-Authorization is present - " + kQop,
        "qop is present - nonce_count is 00000001"}},
      {"both: Authorization counts",
       {{"Proxy-Authorization", kQop}, {"Authorization", kPlain}},
       {"", "1 INVITE", 0, "\"n\"", "", "\"r\"", ""},
       {" Header is Authorization ", " Either Authorization/Proxy-Authorization is present - " + kPlain}},
      {"an unreadable header",
       {{"Authorization", "Digest nonce=\"n"}},
       {"", "1 INVITE", 0, "", "", "", ""},
       {" Header is Authorization ", " Either Authorization/Proxy-Authorization is present - Digest nonce=\"n"}},
  };
}

/// `expected` has no client key.
void expect_equal(const Client_Info_T& info, const std::string& client_key, const Client_Info_T& expected) {
  EXPECT_EQ(info.client_key, client_key);
  EXPECT_EQ(info.cseq, expected.cseq);
  EXPECT_EQ(info.hdr_type, expected.hdr_type);
  EXPECT_EQ(info.nonce, expected.nonce);
  EXPECT_EQ(info.nc, expected.nc);
  EXPECT_EQ(info.realm, expected.realm);
  EXPECT_EQ(info.cnonce, expected.cnonce);
}

TEST_F(Authenticate, AClientIsAddedAsItsRequestSays) {
  for (const RequestCase& c : request_cases()) {
    SCOPED_TRACE(c.label);
    auth.delete_client_auth_info(home, k);
    set_request(request, c.headers);
    LogCapture log;
    int index = -1;
    ASSERT_TRUE(auth.add_client_info(&request, home, k, index));
    EXPECT_EQ(index, 0);
    expect_equal(auth.auth_info(home)->clients.at(0), k, c.expected);
    Texts expected = {" domain_key is " + home + ", client_key is " + k};
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    if (c.expected.hdr_type == 2) expected.emplace_back("This is the typicalcase of first unchallenged request");
    expected.push_back("Client added to list - index is " + std::to_string(index) + " ");
    EXPECT_EQ(log.texts(), expected);
  }
  EXPECT_EQ(auth.auth_info(home)->username, "");  // an entry that a client made has no credentials
}

TEST_F(Authenticate, AClientIsRefreshedAsItsRequestSays) {
  set_request(request, {{"Proxy-Authorization", kQop}}, "REGISTER", "9");
  int index = -1;
  ASSERT_TRUE(auth.add_client_info(&request, home, k1, index));
  ASSERT_TRUE(auth.add_client_info(&request, home, k, index));
  for (const RequestCase& c : request_cases()) {
    SCOPED_TRACE(c.label);
    set_request(request, c.headers);
    LogCapture log;
    ASSERT_TRUE(auth.update_client_info(&request, home, index));
    expect_equal(auth.auth_info(home)->clients.at(1), k, c.expected);
    Texts expected = {"Client info to be updated  for client index - 1"};
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    if (c.expected.hdr_type == 2) expected.emplace_back("This is the typical case of first unchallenged request");
    expected.emplace_back("Cseq updated for this client entry  1 INVITE");
    const std::string value = c.expected.hdr_type == 2                    ? ""
                              : c.headers.back().first == "Authorization" ? c.headers.back().second
                                                                          : kQop;
    expected.push_back("Auth Hdr is " + value + " nonce is " + c.expected.nonce + " realm is " + c.expected.realm +
                       "  auth type is " + std::to_string(c.expected.hdr_type));
    EXPECT_EQ(log.texts(), expected);
  }
  EXPECT_EQ(auth.auth_info(home)->clients.at(0).cseq, "9 REGISTER");
}

TEST_F(Authenticate, AClientWithoutRequestOrKeysIsRefused) {
  set_request(request);
  int index = 7;
  LogCapture log;
  EXPECT_FALSE(auth.add_client_info(nullptr, home, k, index));
  EXPECT_FALSE(auth.add_client_info(&request, "", k, index));
  EXPECT_FALSE(auth.add_client_info(&request, home, "", index));
  EXPECT_EQ(log.count(4, "Error - either conn is NULL or keys are emoty"), 3);
  EXPECT_EQ(auth.auth_info(home), nullptr);
  EXPECT_FALSE(auth.update_client_info(nullptr, home, 0));
  EXPECT_TRUE(log.has(4, "conn ptr is NULL - returning false"));
}

TEST_F(Authenticate, AClientHasOneRecordWithinADomain) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  int index = -1;
  for (const std::string& key : {k1, k2, k1}) {
    set_request(request, {}, "INVITE", key == k1 ? "2" : "1");
    ASSERT_TRUE(auth.add_client_info(&request, home, key, index));
  }
  EXPECT_EQ(index, 0);
  ASSERT_EQ(auth.auth_info(home)->clients.size(), 2U);
  EXPECT_EQ(auth.auth_info(home)->clients[0].cseq, "2 INVITE");
}

TEST_F(Authenticate, NoRecordIsKeptOfAClientOrDomainThatTheTableDoesNotHave) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  set_request(request);
  int index = -1;
  LogCapture log(4);
  EXPECT_FALSE(auth.add_client_info(&request, home, "no such key", index));
  EXPECT_FALSE(auth.add_client_info(&request, "no such key", k, index));
  EXPECT_EQ(log.count(4), 2);
  EXPECT_EQ(auth.auth_info("no such key"), nullptr);
  ASSERT_TRUE(table.deleteClient(CT_UA_PORT, "6000"));
  EXPECT_FALSE(auth.add_client_info(&request, home, k, index));
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, home, k));
  IMS_Proxy_Authenticate::rt_ptr = nullptr;
  EXPECT_FALSE(auth.add_client_info(&request, home, k1, index));
  EXPECT_EQ(index, -1);
  EXPECT_TRUE(auth.auth_info(home)->clients.empty());
}

TEST_F(Authenticate, LongTextsOfAClientAreKeptCut) {
  const std::string huge(3000, 'x');
  set_request(request, {{"Authorization", "Digest realm=\"" + huge + "\", nonce=\"" + huge +
                                              "\", qop=auth, nc=" + huge + ", cnonce=\"" + huge + "\""}});
  int index = -1;
  ASSERT_TRUE(auth.add_client_info(&request, home, k, index));
  const auto expect_bounded = [&] {
    const Client_Info_T& info = auth.auth_info(home)->clients.at(0);
    for (const std::string* text : {&info.cseq, &info.nonce, &info.nc, &info.realm, &info.cnonce}) {
      EXPECT_LE(text->capacity(), kMaxClientText + 16);
    }
    EXPECT_EQ(info.nonce, "\"" + huge.substr(0, kMaxClientText - 1));
  };
  expect_bounded();
  ASSERT_TRUE(auth.update_client_info(&request, home, index));
  expect_bounded();
}

TEST_F(Authenticate, AClientThatGoesIsForgottenInEveryDomain) {
  const std::string other = add_domain("other", "bob", "word");
  for (const std::string& domain : {home, other}) auth.create_auth_info(domain, kChallenge, AUTH_WWW, "r", "n");
  set_request(request);
  int index = -1;
  for (const std::string& domain : {home, other}) {
    for (const std::string& key : {k1, k2}) ASSERT_TRUE(auth.add_client_info(&request, domain, key, index));
  }
  LogCapture log;
  ASSERT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  for (const std::string& domain : {home, other}) {
    ASSERT_EQ(auth.auth_info(domain)->clients.size(), 1U);
    EXPECT_EQ(auth.auth_info(domain)->clients[0].client_key, k2);
    EXPECT_EQ(auth.auth_info(domain)->auth_hdrs.size(), 1U);
  }
  EXPECT_EQ(log.count(5, "client key " + k1 + "  and domain key " + home), 1);
  EXPECT_EQ(log.count(5, "Deleted Client Auth Info successfully"), 1);
  EXPECT_TRUE(log.has(5, "Client " + k1 + " is forgotten in domain " + other + " too"));
  log.clear();
  ASSERT_TRUE(table.deleteClient(CT_UA_PORT, "6000"));
  EXPECT_FALSE(log.has_part(5, "is forgotten"));  // nothing was kept of it
}

TEST_F(Authenticate, ClientsThatComeAndGoThroughAnotherDomainLeaveNothing) {
  const std::string other = add_domain("other", "bob", "word");
  auth.create_auth_info(other, kChallenge, AUTH_WWW, "r", "n");
  for (int round = 0; round < 1000; ++round) {
    const std::string key = add_client("7000");
    set_request(request, {}, "REGISTER");
    ASSERT_TRUE(auth.update_auth_info_for_request(&request, other, key));
    ASSERT_EQ(auth.auth_info(other)->clients.size(), 1U);
    ASSERT_TRUE(table.deleteClient(CT_UA_PORT, "7000"));
  }
  EXPECT_TRUE(auth.auth_info(other)->clients.empty());
  EXPECT_EQ(auth.auth_info(home), nullptr);
}

TEST_F(Authenticate, ADomainsRecordsGoWithIt) {
  const std::string other = add_domain("other", "bob", "word");
  auth.create_auth_info(other, kChallenge, AUTH_WWW, "r", "n");
  set_request(request);
  ASSERT_TRUE(auth.update_auth_info_for_request(&request, other, k));
  ASSERT_TRUE(table.deleteDomain(DT_PROFILE_ID, "other"));
  EXPECT_EQ(auth.auth_info(other), nullptr);
  EXPECT_FALSE(auth.update_auth_info_for_request(&request, other, k));
  EXPECT_EQ(auth.auth_info(other), nullptr);
}

TEST_F(Authenticate, PositionsThatDoNotExistDoNoHarm) {
  set_request(request);
  LogCapture log;
  for (const int index : {-1, 0, 1}) {
    EXPECT_FALSE(auth.update_client_info(&request, home, index));
    auth.update_nonce(home, index, "n");
    auth.update_nonce_age(home, index, "n");
    EXPECT_FALSE(auth.is_retransmission(&request, home, index, "1"));
  }
  EXPECT_EQ(log.count(4), 6);
  EXPECT_EQ(auth.auth_info(home), nullptr);
}

TEST_F(Authenticate, AClientIsFoundByItsKeyWithinItsDomain) {
  set_request(request);
  int index = -1;
  ASSERT_TRUE(auth.add_client_info(&request, home, k1, index));
  ASSERT_TRUE(auth.add_client_info(&request, home, k2, index));
  LogCapture log;
  EXPECT_TRUE(auth.check_if_client_exists(home, k2, index));
  EXPECT_EQ(index, 1);
  EXPECT_EQ(log.texts(), (Texts{"Checking if client exists for client key = " + k2 + ", domain key " + home,
                                "Found client entry - index = 1"}));
  EXPECT_FALSE(auth.check_if_client_exists(home, k, index));
  EXPECT_EQ(index, -1);
  EXPECT_FALSE(auth.check_if_client_exists("none", k1, index));
  EXPECT_EQ(log.count(5, "No client entry found"), 2);
  EXPECT_EQ(auth.auth_info("none"), nullptr);
}

TEST_F(Authenticate, DeletingAClientLeavesChallengesAndOthers) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n");
  set_request(request);
  int index = -1;
  for (const std::string& key : {k1, k2}) ASSERT_TRUE(auth.add_client_info(&request, home, key, index));
  LogCapture log;
  EXPECT_FALSE(auth.delete_client_auth_info(home, k));
  EXPECT_FALSE(auth.delete_client_auth_info("none", k1));
  EXPECT_FALSE(auth.delete_client_auth_info("", k1));
  EXPECT_TRUE(log.has(5, "client key " + k + "  and domain key " + home));
  EXPECT_EQ(log.count(5, "Could not find client key to be deleted"), 3);
  EXPECT_EQ(auth.auth_info(home)->clients.size(), 2U);
  EXPECT_TRUE(auth.delete_client_auth_info(home, k1));
  EXPECT_TRUE(log.has(5, "Deleted Client Auth Info successfully"));
  ASSERT_EQ(auth.auth_info(home)->clients.size(), 1U);
  EXPECT_EQ(auth.auth_info(home)->clients[0].client_key, k2);
  EXPECT_EQ(auth.auth_info(home)->auth_hdrs.size(), 1U);
  EXPECT_EQ(auth.auth_info("none"), nullptr);
  EXPECT_EQ(auth.auth_info(""), nullptr);
}

// --- Nonces

TEST_F(Authenticate, ANewNonceNeverReachesTheStoredSlots) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n1");
  for (const char* nonce : {"n2", "n3", "n4", "n5"}) {
    LogCapture log;
    auth.update_nonce(home, 0, nonce);
    EXPECT_EQ(log.texts(), (Texts{std::string("nonce value to be checked - ") + nonce,
                                  "nonce value has changed for this Auth entry  - Update Nonce"}));
    auth.update_nonce_age(home, 0, nonce);
    EXPECT_EQ(slot().age, 3);
    EXPECT_EQ(slot().nonce, "n1");
    EXPECT_EQ(slot().nc, "0");
    EXPECT_EQ(slot(0, 1).age, 0);
    EXPECT_EQ(slot(0, 2).age, 0);
    EXPECT_EQ(slot(0, 2).nonce, "");
  }
}

TEST_F(Authenticate, AKnownNonceIsLeftAlone) {
  auth.create_auth_info(home, kChallenge, AUTH_WWW, "r", "n1");
  LogCapture log;
  auth.update_nonce(home, 0, "n1");
  EXPECT_EQ(log.texts(),
            (Texts{"nonce value to be checked - n1", "nonce value found for this Auth entry - returning"}));
}

}  // namespace
