#include "registrar/ext_client.h"

#include <gtest/gtest.h>

#include <ctime>

#include "fakes.h"
#include "registrar/domain.h"
#include "support/log_capture.h"

namespace {

using fake::aor;
using fake::Register;
using fake::Request;
using fake::uaInfo;

std::unique_ptr<IMSE_ExtClient> makeClient(const std::string& text, std::uint32_t id = 1) {
  auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(body->parseXml(), 0);
  return std::make_unique<IMSE_ExtClient>(std::move(body), id);
}

std::unique_ptr<IMSE_ExtClient> withAor(const std::string& uri, const std::string& capabilities) {
  return makeClient(uaInfo("home", aor(uri, capabilities)));
}

}  // namespace

TEST(ExtClient, GivesTheRoutingTableItsAddressesAndItsDomain) {
  IMSE_Domain::profile_id_counter = 7;
  IMSE_Domain domain("home", nullptr);
  const auto client = makeClient(uaInfo("home", aor("sip:a@home.net",
                                                    "<events>reg</events><sip-headers>"
                                                    "<header>P-A:b</header></sip-headers>")));
  Request request(Register{.port = 5090}.text());
  client->process_register(&request);
  client->set_domain(&domain);
  ClientTable_Entry_T entry;
  EXPECT_EQ(client->get_client_info(entry), 0);
  EXPECT_EQ(entry.ua_port, "5090");
  EXPECT_EQ(entry.uri, "sip:alice@home.net");
  ASSERT_EQ(entry.aors.size(), 1u);
  EXPECT_EQ(entry.aors[0].events, "reg");
  EXPECT_EQ(entry.profile_id, "7");
  EXPECT_EQ(entry.profile_name, "home");
  // The headers are for watchers.
  EXPECT_TRUE(entry.headers.empty());
  EXPECT_EQ(entry.packages, "");
  client->forget_request(&request);
}

TEST(ExtClient, The200CarriesTheProfileIdToo) {
  IMSE_Domain::profile_id_counter = 3;
  IMSE_Domain domain("home", nullptr);
  const auto client = withAor("sip:a@home.net", "");
  Request request(Register{.expires = "600"}.text());
  client->process_register(&request);
  client->set_domain(&domain);
  LogCapture log;
  EXPECT_EQ(client->accept(), 0);
  EXPECT_EQ(client->state(), IMSE_CLIENT_REGISTERED);
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "3");
  EXPECT_EQ(request.answered("Expires"), "600");
  EXPECT_EQ(request.answered("Contact"), "<sip:alice@127.0.0.1:5070>");
  EXPECT_LT(request.answers[0].find("Zel-Profile-ID"), request.answers[0].find("Expires"));
  EXPECT_LT(request.answers[0].find("Expires"), request.answers[0].find("Contact"));
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                "IMSE_REG: IMSE_ExtClient::send_response", "IMSE_REG: Client send_response: expires set 0 status",
                "IMSE_REG: Client send_response: contact set 0 status", "IMSE_REG: send_response send status 0"}));
}

TEST(ExtClient, ARequestThatTakesNoAnswerIsLetGo) {
  const auto client = withAor("sip:a@home.net", "");
  Request request(Register{}.text());
  request.refuse_answer = true;
  client->process_register(&request);
  LogCapture log(4);
  EXPECT_EQ(client->accept(), 1);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"IMSE_REG: Extclient send_response failed"});
  EXPECT_EQ(request.releases, 1);
  EXPECT_EQ(client->state(), IMSE_CLIENT_NEW);
}

TEST(ExtClient, TellsWatchersIdPreferenceAddressesAndHeaders) {
  const auto client = makeClient(uaInfo("home",
                                        aor("sip:a@home.net",
                                            "<feature-tag>x</feature-tag><feature-tag>y</feature-tag><sip-headers>"
                                            "<header>P-A:1</header></sip-headers>") +
                                            aor("sip:b@home.net", ""),
                                        "1200"),
                                 42);
  IMSE_UA_INFO_T info;
  EXPECT_EQ(client->get_ua_info(info), 0);
  EXPECT_EQ(info.id, 42);
  EXPECT_EQ(info.reg_expires_pref, 1200);
  ASSERT_EQ(info.aors.size(), 2u);
  EXPECT_EQ(info.aors[0].aor, "sip:a@home.net");
  EXPECT_EQ(info.aors[0].feature_tags, (std::vector<std::string>{"x", "y"}));
  EXPECT_TRUE(info.aors[1].feature_tags.empty());
  ASSERT_EQ(info.sip_headers.size(), 1u);
  EXPECT_EQ(info.sip_headers[0].name, "P-A");
  EXPECT_EQ(client->get_nw_profile_name(), "home");
}

TEST(ExtClient, CompetesForAnAddressWithACommonFeatureTag) {
  const auto own = withAor("sip:a@home.net", "<feature-tag>a</feature-tag><feature-tag>b</feature-tag>");
  LogCapture log;
  EXPECT_EQ(own->match_routing_info(withAor("sip:a@home.net", "<feature-tag>b</feature-tag>").get()), 1);
  EXPECT_TRUE(log.has(5, "IMSE_REG: ExtClient match_rout_info aor match found"));
  EXPECT_EQ(own->match_routing_info(withAor("sip:a@home.net", "<feature-tag>B</feature-tag>").get()), 0);
  EXPECT_EQ(own->match_routing_info(withAor("sip:a@home.net", "").get()), 0);
  EXPECT_EQ(own->match_routing_info(withAor("sip:z@home.net", "<feature-tag>b</feature-tag>").get()), 0);
  EXPECT_EQ(own->match_routing_info(makeClient(uaInfo("home", "")).get()), 0);
}

TEST(ExtClient, CompetesForACommonEventPackageUnderWhateverAddress) {
  const auto own = withAor("sip:a@home.net", "<events>reg,presence</events>");
  EXPECT_EQ(own->match_routing_info(withAor("sip:z@home.net", "<events>dialog,presence</events>").get()), 1);
  EXPECT_EQ(own->match_routing_info(withAor("sip:z@home.net", "<events>dialog</events>").get()), 0);
  EXPECT_EQ(own->match_routing_info(withAor("sip:z@home.net", "<events>presence.winfo</events>").get()), 0);
}

TEST(ExtClient, TheEventPackagesOfEveryAddressCount) {
  const auto own = makeClient(uaInfo("home", aor("sip:a@home.net", "<events>reg</events>") +
                                                 aor("sip:b@home.net", "<events>dialog,presence</events>")));
  const auto other = makeClient(uaInfo("home", aor("sip:c@home.net", "<events>conference</events>") +
                                                   aor("sip:d@home.net", "<events>presence</events>")));
  EXPECT_EQ(own->match_routing_info(other.get()), 1);
  EXPECT_EQ(other->match_routing_info(own.get()), 1);
}

TEST(ExtClient, AnyOfSeveralAddressesMayCompete) {
  const auto own = makeClient(uaInfo("home", aor("sip:a@home.net", "<feature-tag>x</feature-tag>") +
                                                 aor("sip:b@home.net", "<events>reg</events>") +
                                                 aor("sip:a@home.net", "<feature-tag>y</feature-tag>")));
  const auto other = makeClient(uaInfo("home", aor("sip:c@home.net", "<events>dialog</events>") +
                                                   aor("sip:a@home.net", "<feature-tag>y</feature-tag>")));
  EXPECT_EQ(own->match_routing_info(other.get()), 1);
  EXPECT_EQ(other->match_routing_info(own.get()), 1);
  const ClientAOR_T aor_of_tag_x{"sip:b@home.net", {"x"}, "", "", ""};
  EXPECT_EQ(own->match_routing_info(&aor_of_tag_x), 0);
}

TEST(ExtClient, ListsMatchInOneEqualText) {
  using Set = std::set<std::string>;
  using List = std::vector<std::string>;
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{"a", "b"}, List{"b"}), 1);
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{"a", "b"}, List{"c", "A"}), 0);
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{}, List{}), 0);
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{"reg", "presence"}, std::string("dialog,presence")), 1);
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{"reg"}, std::string("")), 0);
  // Two texts without a package have none in common.
  EXPECT_EQ(IMSE_ExtClient::match_lists(Set{}, std::string("")), 0);
}

TEST(ExtClient, ComparingThousandsOfAddressesIsQuick) {
  std::string own, other;
  while (own.size() < 60 * 1024) own += "<aor>a<x><events>b</events></x></aor>";
  while (other.size() < 60 * 1024) other += "<aor>a<x><events>c</events></x></aor>";
  const auto one = makeClient(uaInfo("home", own));
  const auto two = makeClient(uaInfo("home", other));
  const std::clock_t before = std::clock();
  EXPECT_EQ(one->match_routing_info(two.get()), 0);
  // Processor time. Pair by pair this takes seconds.
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
}

TEST(ExtClient, LeavesItsDomainWhenItEnds) {
  IMSE_Domain domain("home", nullptr);
  auto client = withAor("sip:a@home.net", "");
  client->set_domain(&domain);
  EXPECT_EQ(domain.add(client.get(), true), 0);
  client.reset();
  EXPECT_TRUE(domain.clients().empty());
}
