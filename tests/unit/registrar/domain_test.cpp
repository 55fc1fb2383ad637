#include "registrar/domain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <random>

#include "fakes.h"
#include "registrar/ext_client.h"
#include "registrar/reg_subscriber.h"
#include "support/log_capture.h"

namespace {

using fake::aor;
using fake::uaInfo;
using Texts = std::vector<std::string>;

bool no_memory = false;

}  // namespace

// As the library's own, but told by a test to fail.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (no_memory) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

std::unique_ptr<IMSE_ExtClient> makeClient(const std::string& user, std::uint32_t id) {
  const std::string text = uaInfo("home", aor("sip:" + user + "@home.net", "<feature-tag>" + user + "</feature-tag>"));
  auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(body->parseXml(), 0);
  return std::make_unique<IMSE_ExtClient>(std::move(body), id);
}

/// The state by itself: losing the subscriber takes it back to 0, so no operation makes one that contradicts.
IMSE_Domain::NotifyState& notifyState(IMSE_Domain& domain);
template <auto Member>
struct NotifyStateAccess {
  friend IMSE_Domain::NotifyState& notifyState(IMSE_Domain& domain) { return domain.*Member; }
};
template struct NotifyStateAccess<&IMSE_Domain::notify_state_>;

/// A domain, two clients, and a subscription that can be opened; every NOTIFY is answered unless told otherwise.
class DomainTest : public ::testing::Test {
 protected:
  DomainTest() { IMSE_Domain::profile_id_counter = 1; }

  IMSE_RegSubscriber* subscribe() {
    subscriber = std::make_unique<IMSE_RegSubscriber>(&connector, std::string(), &listener);
    fake::Request request(sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1",
                                     {{"From", "<sip:regua@127.0.0.1>;tag=1"},
                                      {"To", "<sip:registrar@127.0.0.1>"},
                                      {"Call-ID", "s"},
                                      {"CSeq", "1 SUBSCRIBE"},
                                      {"Contact", "<sip:regua@127.0.0.1:5080>"},
                                      {"Event", "local-reg-events"},
                                      {"Expires", "600"}}));
    request.dialog = &dialog;
    EXPECT_EQ(subscriber->handle_subscribe(&request), 0);
    answer();
    return subscriber.get();
  }
  /// A 200 to the last NOTIFY.
  void answer() {
    dialog.made.back()->answer(200);
    EXPECT_EQ(subscriber->received_response(dialog.made.back().get()), 0);
  }
  /// What was sent since the subscription's own first NOTIFY.
  Texts told() const {
    Texts all = dialog.notifies();
    if (!all.empty()) all.erase(all.begin());
    return all;
  }
  int add(IMSE_ExtClient& client, bool notify = true) {
    const int result = domain->add(&client, notify);
    if (subscriber && subscriber->state() == IMSE_RegSubscriber::SUBS_NOTIFY_SENT) answer();
    return result;
  }
  int remove(IMSE_ExtClient& client, bool notify = true) {
    const int result = domain->remove(&client, notify);
    if (subscriber && subscriber->state() == IMSE_RegSubscriber::SUBS_NOTIFY_SENT) answer();
    return result;
  }

  FakeConnector connector;
  fake::Listener listener;
  fake::Dialog dialog;
  std::unique_ptr<IMSE_RegSubscriber> subscriber;
  std::unique_ptr<IMSE_Domain> domain = std::make_unique<IMSE_Domain>("home", nullptr);
  std::unique_ptr<IMSE_ExtClient> alice = makeClient("alice", 1);
  std::unique_ptr<IMSE_ExtClient> bob = makeClient("bob", 2);
};

}  // namespace

TEST(Domain, IdsCountFromOneAndAreNotReused) {
  IMSE_Domain::profile_id_counter = 1;
  {
    IMSE_Domain one("one", nullptr);
    IMSE_Domain two("two", nullptr);
    EXPECT_EQ(one.get_prof_id(), 1);
    EXPECT_EQ(two.get_prof_id(), 2);
  }
  EXPECT_EQ(IMSE_Domain("one", nullptr).get_prof_id(), 3);
}

TEST(Domain, MatchesItsNameExactly) {
  IMSE_Domain domain("home", nullptr);
  EXPECT_TRUE(domain.is_match("home"));
  EXPECT_FALSE(domain.is_match("Home"));
  EXPECT_FALSE(domain.is_match("home "));
  EXPECT_EQ(domain.get_prof_name(), "home");
}

TEST(Domain, ReadsItsProfileOnce) {
  const fake::ConfigDir config;
  config.profile(
      "home",
      "<network-profile><operation-mode>shared-ietf</operation-mode><reg><initial-retry-after>1</initial-retry-after>"
      "<max-attempts>2</max-attempts></reg><link><max-attempts>3</max-attempts></link><impi>i@home.net</impi>"
      "<IEEE><access-type>wifi</access-type><AP-id-type>mac</AP-id-type></IEEE><_3gpp><access-type>lte</access-type>"
      "</_3gpp><initial-route-set>sip:p</initial-route-set><secret>s1</secret></network-profile>");
  IMSE_Domain domain("home", nullptr);
  const IMSE_REG_NW_PROFILE_T& profile = domain.nw_profile();
  EXPECT_EQ(profile.operation_mode, "shared-ietf");
  EXPECT_EQ(profile.reg_initial_retry_after, "1");
  EXPECT_EQ(profile.reg_max_attempts, "2");
  EXPECT_EQ(profile.link_max_attempts, "3");
  EXPECT_EQ(profile.ieee_access_type, "wifi");
  EXPECT_EQ(profile.ap_id_type, "mac");
  EXPECT_EQ(profile.access_type_3gpp, "lte");
  EXPECT_EQ(profile.initial_route_set, "sip:p");
  EXPECT_EQ(profile.policy, "");
}

TEST(Domain, EveryKeyFillsAFieldOfItsOwn) {
  const fake::ConfigDir config;
  // Each element's text is its path; what is not below a parent of its own stands directly below the root.
  config.profile(
      "all",
      "<p><operation-mode>1</operation-mode><reg><initial-retry-after>2</initial-retry-after><refresh-retry-after>3"
      "</refresh-retry-after><max-attempts>4</max-attempts><ignore-retry-after>5</ignore-retry-after></reg><link>"
      "<max-attempts>6</max-attempts><interval>7</interval></link><reg-expiry>8</reg-expiry><compression>9</"
      "compression>"
      "<policy>10</policy><nw-reg-event-support>11</nw-reg-event-support><uicc-applications>12</uicc-applications>"
      "<sa-in-algo>13</sa-in-algo><sa-enc-algo>14</sa-enc-algo><impi>15</impi><impu>16</impu><access-network>17"
      "</access-network><authorized-AP>18</authorized-AP><IEEE><access-type>19</access-type><AP-id-type>20</AP-id-type>"
      "</IEEE><authorized-plmns>21</authorized-plmns><_3gpp><access-type>22</access-type></_3gpp><ue-sip-port>23"
      "</ue-sip-port><ue-trans-pref>24</ue-trans-pref><ue-threshold-pref>25</ue-threshold-pref><registrar-address>26"
      "</registrar-address><registrar-realm>27</registrar-realm><domain-name>28</domain-name><disc-pref>29</disc-pref>"
      "<dns-realm>30</dns-realm><dns-services>31</dns-services><ip-address>32</ip-address><napi-profile-name>33"
      "</napi-profile-name><initial-route-set>34</initial-route-set></p>");
  IMSE_Domain domain("all", nullptr);
  const IMSE_REG_NW_PROFILE_T& p = domain.nw_profile();
  const Texts values = {p.operation_mode,
                        p.reg_initial_retry_after,
                        p.reg_refresh_retry_after,
                        p.reg_max_attempts,
                        p.reg_ignore_retry_after,
                        p.link_max_attempts,
                        p.link_interval,
                        p.reg_expiry,
                        p.compression,
                        p.policy,
                        p.nw_reg_event_support,
                        p.uicc_applications,
                        p.sa_in_algo,
                        p.sa_enc_algo,
                        p.impi,
                        p.impu,
                        p.access_network,
                        p.authorized_ap,
                        p.ieee_access_type,
                        p.ap_id_type,
                        p.authorized_plmns,
                        p.access_type_3gpp,
                        p.ue_sip_port,
                        p.ue_trans_pref,
                        p.ue_threshold_pref,
                        p.registrar_address,
                        p.registrar_realm,
                        p.domain_name,
                        p.disc_pref,
                        p.dns_realm,
                        p.dns_services,
                        p.ip_address,
                        p.napi_profile_name,
                        p.initial_route_set};
  for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(values[i], std::to_string(i + 1));
  EXPECT_EQ(values.size(), 34u);
}

TEST(Domain, ABrokenProfileReadsAsAnEmptyOneWithOneLine) {
  const fake::ConfigDir config;
  config.profile("broken", "<network-profile><impi>x</network-profile>");
  LogCapture log(4);
  IMSE_Domain domain("broken", nullptr);
  EXPECT_EQ(domain.nw_profile().impi, "");
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Domain, ANameThatIsNoDocumentNameHasAnEmptyProfile) {
  const fake::ConfigDir config;
  config.profile("home", "<network-profile><impi>x</impi></network-profile>");
  for (const char* name : {"../profiles/home", "/etc/passwd", "home/../home", "\x01home", ".home"}) {
    EXPECT_EQ(IMSE_Domain(name, nullptr).nw_profile().impi, "") << name;
  }
}

TEST(Domain, TheSecretIsReadWhenAsked) {
  const fake::ConfigDir config;
  config.profile("home", "<p><impi>i@home.net</impi><operation-mode>m</operation-mode><secret>one</secret></p>");
  IMSE_Domain domain("home", nullptr);
  config.profile("home", "<p><impi>changed</impi><operation-mode>m</operation-mode><secret>two!</secret></p>");
  std::string first, second, third;
  domain.get_profile_credentials(first, second, third);
  EXPECT_EQ(first, "i@home.net");
  EXPECT_EQ(second, "two!");
  EXPECT_EQ(third, "m");
}

TEST_F(DomainTest, WithoutASubscriberTakesClientsOnlyWhileNothingWasSent) {
  EXPECT_EQ(domain->add(alice.get(), true), 0);
  EXPECT_EQ(domain->clients(), std::vector<IMSE_ExtClient*>{alice.get()});
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  EXPECT_TRUE(dialog.notifies().empty());
}

TEST_F(DomainTest, WithoutASubscriberTakesNobodyOnceSomethingWasSent) {
  for (const auto state : {IMSE_Domain::CREATE_SENT, IMSE_Domain::DELETE_SENT}) {
    notifyState(*domain) = state;
    EXPECT_EQ(domain->add(alice.get(), true), 1);
    EXPECT_EQ(domain->add(alice.get(), false), 1);
    EXPECT_TRUE(domain->clients().empty());
  }
}

TEST_F(DomainTest, AnUpdateOfALeavingClientNeedsASubscriber) {
  domain->add(alice.get(), true);
  domain->add(bob.get(), true);
  notifyState(*domain) = IMSE_Domain::CREATE_SENT;
  EXPECT_EQ(domain->remove(alice.get(), true), 1);
  EXPECT_EQ(domain->clients().size(), 2u);
  EXPECT_EQ(domain->remove(alice.get(), false), 0);
  // The last one leaves all the same; nobody was told.
  EXPECT_EQ(domain->remove(bob.get(), true), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
}

TEST_F(DomainTest, TracesEveryChange) {
  IMSE_RegSubscriber* const watcher = subscribe();
  LogCapture log;
  domain->set_subscriber(watcher);
  add(*alice);
  add(*bob, false);
  remove(*bob);
  remove(*alice);
  domain->unset_subscriber();
  Texts said;
  for (const auto& line : log.lines()) {
    if (line.text.find("IMSE_Domain:") != std::string::npos) said.push_back(line.text);
  }
  const std::string a = fake::pointer(alice.get()), b = fake::pointer(bob.get()), w = fake::pointer(watcher);
  EXPECT_EQ(said,
            (Texts{"IMSE_REG: IMSE_Domain::set_subscriber " + w + " 0 0",
                   "IMSE_REG: IMSE_Domain::add " + a + " 1 " + w + " 0",
                   "IMSE_REG: IMSE_Domain::send_notify_and_add " + a + " 1", "IMSE_REG: IMSE_Domain:add send_notify 0",
                   "IMSE_REG: IMSE_Domain::add " + b + " 0 " + w + " 1",
                   "IMSE_REG: IMSE_Domain::send_notify_update_add 0, add, " + b + " ",
                   "IMSE_REG: IMSE_Domain::add send_notify 0", "IMSE_REG: IMSE_Domain::remove 1 " + b + " 1 2 " + w,
                   "IMSE_REG: IMSE_Domain::send_notify_update_delete 1, delete, " + b + " ",
                   "IMSE_REG: IMSE_Domain::remove send_notify 0", "IMSE_REG: IMSE_Domain::remove 1 " + a + " 1 1 " + w,
                   "IMSE_REG: IMSE_Domain::send_notify_delete " + w + ".", "IMSE_REG: IMSE_Domain::unset_subscriber"}));
}

TEST_F(DomainTest, AsksWhatIsToldBeforeItMakesTheDocument) {
  domain->set_subscriber(subscribe());
  const auto order = [](const LogCapture& log) {
    Texts said;
    for (const auto& line : log.lines()) {
      for (const char* word : {"get_nw_expiry_value", "IMSE_NotifyXmlData create", "IMSE_NotifyXmlData update"}) {
        if (line.text.find(word) != std::string::npos) said.emplace_back(word);
      }
    }
    return said;
  };
  {
    LogCapture log;
    add(*alice);
    EXPECT_EQ(order(log), (Texts{"get_nw_expiry_value", "IMSE_NotifyXmlData create"}));
  }
  {
    LogCapture log;
    add(*bob);
    EXPECT_EQ(order(log), (Texts{"get_nw_expiry_value", "IMSE_NotifyXmlData update"}));
  }
  LogCapture log;
  remove(*bob);
  EXPECT_EQ(order(log), (Texts{"get_nw_expiry_value", "IMSE_NotifyXmlData update"}));
}

TEST_F(DomainTest, TheFirstClientIsACreateTheSecondAnUpdate) {
  domain->set_subscriber(subscribe());
  EXPECT_TRUE(told().empty());
  LogCapture log;
  EXPECT_EQ(add(*alice), 0);
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Domain:add send_notify 0"));
  EXPECT_EQ(add(*bob), 0);
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Domain::add send_notify 0"));
  EXPECT_EQ(told(), (Texts{"active CREATE", "active UPDATE add"}));
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  const std::string create = dialog.made[1]->body();
  EXPECT_NE(create.find("<name>home</name>"), std::string::npos);
  EXPECT_NE(create.find("<id>1</id>"), std::string::npos);
  EXPECT_EQ(create.find("<id>2</id>"), std::string::npos);
  const std::string update = dialog.made[2]->body();
  EXPECT_EQ(update.find("<id>1</id>"), std::string::npos);
  EXPECT_NE(update.find("<id>2</id>"), std::string::npos);
}

TEST_F(DomainTest, TheLastClientToLeaveIsADelete) {
  domain->set_subscriber(subscribe());
  add(*alice);
  add(*bob);
  EXPECT_EQ(remove(*alice), 0);
  EXPECT_EQ(remove(*bob), 0);
  EXPECT_EQ(told(), (Texts{"active CREATE", "active UPDATE add", "active UPDATE delete", "active DELETE"}));
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::DELETE_SENT);
  EXPECT_TRUE(domain->clients().empty());
  EXPECT_EQ(add(*alice), 0);
  EXPECT_EQ((told().empty() ? "" : told().back()), "active CREATE");
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
}

TEST_F(DomainTest, AReplacementIsSilentAndLeavesTheState) {
  domain->set_subscriber(subscribe());
  add(*alice);
  EXPECT_EQ(remove(*alice, false), 0);
  EXPECT_EQ(told(), Texts{"active CREATE"});
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  EXPECT_TRUE(domain->clients().empty());
  EXPECT_EQ(add(*alice, false), 0);
  EXPECT_EQ(add(*bob, false), 0);
  EXPECT_EQ(remove(*bob, false), 0);
  EXPECT_EQ(told(), Texts{"active CREATE"});
}

TEST_F(DomainTest, AddingSilentlyCountsAsTold) {
  domain->set_subscriber(subscribe());
  EXPECT_EQ(add(*alice, false), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  EXPECT_TRUE(told().empty());
}

TEST_F(DomainTest, AFailedCreateOrUpdateLeavesTheClientOut) {
  domain->set_subscriber(subscribe());
  dialog.refuse = true;
  EXPECT_EQ(domain->add(alice.get(), true), 1);
  EXPECT_TRUE(domain->clients().empty());
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  dialog.refuse = false;
  add(*alice);
  dialog.refuse = true;
  EXPECT_EQ(domain->add(bob.get(), true), 1);
  EXPECT_EQ(domain->clients(), std::vector<IMSE_ExtClient*>{alice.get()});
}

TEST_F(DomainTest, AFailedDeleteUpdateDoesNotStopTheRemoval) {
  domain->set_subscriber(subscribe());
  add(*alice);
  add(*bob);
  dialog.refuse = true;
  EXPECT_EQ(domain->remove(alice.get(), true), 0);
  EXPECT_EQ(domain->clients(), std::vector<IMSE_ExtClient*>{bob.get()});
  EXPECT_EQ(domain->remove(bob.get(), true), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::DELETE_SENT);
}

TEST_F(DomainTest, RemovingAStrangerFails) {
  LogCapture log;
  EXPECT_EQ(domain->remove(alice.get(), true), 1);
  EXPECT_TRUE(log.has_part(5, "IMSE_REG: IMSE_Domain::remove 1 "));
}

TEST_F(DomainTest, WithoutASubscriberClientsLeaveSilently) {
  domain->add(alice.get(), true);
  domain->add(bob.get(), true);
  EXPECT_EQ(domain->remove(alice.get(), true), 0);
  EXPECT_EQ(domain->remove(bob.get(), true), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
}

TEST_F(DomainTest, ANewSubscriberIsToldOfEveryClientInOneCreate) {
  domain->add(alice.get(), true);
  domain->add(bob.get(), true);
  domain->set_subscriber(subscribe());
  EXPECT_EQ(told(), Texts{"active CREATE"});
  const std::string body = dialog.made[1]->body();
  EXPECT_LT(body.find("<id>1</id>"), body.find("<id>2</id>"));
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  answer();
  // The same one again has heard it all.
  domain->set_subscriber(subscriber.get());
  EXPECT_EQ(told(), Texts{"active CREATE"});
}

TEST_F(DomainTest, AFailedCreateForANewSubscriberLeavesTheState) {
  domain->add(alice.get(), true);
  IMSE_RegSubscriber* const watcher = subscribe();
  dialog.refuse = true;
  domain->set_subscriber(watcher);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
}

TEST_F(DomainTest, NoSubscriberToSetChangesNothing) {
  domain->set_subscriber(subscribe());
  LogCapture log;
  domain->set_subscriber(nullptr);
  EXPECT_TRUE(log.has(4, "IMSE_REG: set_subscriber Returning without subscribing"));
  EXPECT_EQ(add(*alice), 0);
  EXPECT_EQ(told(), Texts{"active CREATE"});
}

TEST_F(DomainTest, LosingTheSubscriberForgetsWhatItWasTold) {
  domain->set_subscriber(subscribe());
  add(*alice);
  domain->unset_subscriber();
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  EXPECT_EQ(domain->add(bob.get(), true), 0);
  EXPECT_EQ(told(), Texts{"active CREATE"});
}

TEST_F(DomainTest, FindsAClientThatCompetes) {
  domain->add(alice.get(), true);
  LogCapture log;
  EXPECT_TRUE(domain->is_client_exist(makeClient("alice", 9).get()));
  EXPECT_FALSE(domain->is_client_exist(bob.get()));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Domain::is_client_exist returns 1"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Domain::is_client_exist returns 0"));
}

TEST_F(DomainTest, WithoutMemoryForADocumentNothingIsSent) {
  domain->set_subscriber(subscribe());
  LogCapture log(4);
  no_memory = true;
  EXPECT_EQ(domain->add(alice.get(), true), 1);
  no_memory = false;
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify_and_add: memory allocation failed "));
  add(*alice);
  no_memory = true;
  EXPECT_EQ(domain->add(bob.get(), true), 1);
  no_memory = false;
  EXPECT_TRUE(log.has(4, "IMSE_REG: IMSE_Domain::add memory allocation failed "));
  add(*bob);
  no_memory = true;
  EXPECT_EQ(domain->remove(alice.get(), true), 1);
  no_memory = false;
  EXPECT_TRUE(log.has(4, "IMSE_REG:IMSE_Domain::remove memory allocation failed "));
  EXPECT_EQ(domain->clients().size(), 2u);
  remove(*alice);
  no_memory = true;
  EXPECT_EQ(domain->remove(bob.get(), true), 0);
  no_memory = false;
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify_delete: memory allocation failed"));
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  domain->unset_subscriber();
  domain->add(alice.get(), true);
  no_memory = true;
  domain->set_subscriber(subscriber.get());
  no_memory = false;
  EXPECT_TRUE(log.has(4, "IMSE_REG: set_subscriber: memory allocation failed"));
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
}

// --- Who competes with whom

TEST_F(DomainTest, WantsWhatAComparisonOfEachClientWithTheNewOneFinds) {
  constexpr int kSteps = 4000;
  constexpr unsigned kSeed = 20261121;
  std::printf("%d random clients, seed %u\n", kSteps, kSeed);
  IMS_log::set_level(3);
  std::mt19937 engine(kSeed);
  const auto below = [&engine](int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(engine); };
  const auto word = [&below](const std::string& kind, int many) { return kind + std::to_string(below(many)); };
  // Tags and events of the same texts, addresses that begin or end like others.
  const auto random_client = [&](std::uint32_t id) {
    std::string aors;
    for (int left = below(4); left > 0; --left) {
      std::string capabilities;
      for (int tags = below(4); tags > 0; --tags) {
        capabilities += "<feature-tag>" + word(below(4) == 0 ? "e" : "t", 30) + "</feature-tag>";
      }
      std::string events;
      for (int more = std::max(0, below(5) - 2); more > 0; --more) {
        events += (events.empty() ? "" : below(4) == 0 ? ",," : ",") + word("e", 60);
      }
      if (!events.empty()) capabilities += "<events>" + events + "</events>";
      aors += aor(word("a", 12), capabilities);
    }
    const std::string text = uaInfo("home", aors);
    auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(body->parseXml(), 0);
    return std::make_unique<IMSE_ExtClient>(std::move(body), id);
  };
  const auto compete = [](const IMSE_ExtClient& own, const IMSE_ExtClient& other) {
    return other.get_aor() != nullptr &&
           std::any_of(other.get_aor()->begin(), other.get_aor()->end(),
                       [&own](const auto& one) { return own.match_routing_info(one.get()) == 1; });
  };
  std::vector<std::unique_ptr<IMSE_ExtClient>> present;
  int found = 0;
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    auto one = random_client(static_cast<std::uint32_t>(step));
    const bool expected =
        std::any_of(present.begin(), present.end(), [&](const auto& own) { return compete(*own, *one); });
    EXPECT_EQ(domain->is_client_exist(one.get()), expected);
    found += expected;
    // A re-registration is taken in although it competes. Grows to about ten and falls back to none.
    if (present.size() < 10 && below(2) == 0) {
      EXPECT_EQ(domain->add(one.get(), false), 0);
      present.push_back(std::move(one));
    }
    for (int leaving = step % 200 == 199 ? 10 : below(8) == 0 ? 1 : 0; leaving > 0 && !present.empty(); --leaving) {
      const auto gone = present.begin() + below(static_cast<int>(present.size()));
      EXPECT_EQ(domain->remove(gone->get(), false), 0);
      present.erase(gone);
    }
  }
  for (const auto& one : present) domain->forget(one.get());
  // Neither always nor never, or nothing was compared.
  EXPECT_GT(found, kSteps / 10);
  EXPECT_LT(found, kSteps * 9 / 10);
}

// --- More than one document can hold
// ----------------------------------------------------------------------------------

namespace {

std::unique_ptr<IMSE_ExtClient> makeLargeClient(const std::string& user, std::uint32_t id, std::size_t size) {
  const std::string text = uaInfo(
      "home",
      aor("sip:" + user + "@home.net", "<events>x</events><feature-tag>" + std::string(size, 't') + "</feature-tag>"));
  auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(body->parseXml(), 0);
  return std::make_unique<IMSE_ExtClient>(std::move(body), id);
}

}  // namespace

TEST_F(DomainTest, WhatOneCreateCannotHoldFollowsInUpdates) {
  std::vector<std::unique_ptr<IMSE_ExtClient>> clients;
  for (std::uint32_t id = 1; id <= 5; ++id) {
    clients.push_back(makeLargeClient("u" + std::to_string(id), id, 25000));
    EXPECT_EQ(domain->add(clients.back().get(), true), 0);
  }
  domain->set_subscriber(subscribe());
  for (int more = 0; more < 3; ++more) answer();
  EXPECT_EQ(told(), (Texts{"active CREATE", "active UPDATE add", "active UPDATE add"}));
  std::string ids;
  for (const auto& notify : dialog.made) {
    const std::string body = notify->body();
    EXPECT_LE(body.size(), IMSE_NotifyXmlData::kMaxSize);
    for (std::size_t at = 0; (at = body.find("<id>", at)) != std::string::npos; ++at) ids += body[at + 4];
  }
  EXPECT_EQ(ids, "12345");
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
}

TEST_F(DomainTest, AUserAgentThatFillsADocumentFollowsTheProfile) {
  const auto large = makeLargeClient("large", 7, IMSE_NotifyXmlData::kMaxSize - 600);
  domain->set_subscriber(subscribe());
  EXPECT_EQ(add(*large), 0);
  EXPECT_EQ(told(), (Texts{"active CREATE", "active UPDATE add"}));
  EXPECT_EQ(dialog.made[1]->body().find("<ua-info>"), std::string::npos);
  EXPECT_NE(dialog.made[2]->body().find("<id>7</id>"), std::string::npos);
}

TEST_F(DomainTest, AProfileTooLargeForAnyDocumentIsNotToldAndKeepsNobodyOut) {
  const fake::ConfigDir config;
  config.profile("large", "<p><policy>" + std::string(61000, 'x') + "</policy></p>");
  domain = std::make_unique<IMSE_Domain>("large", nullptr);
  EXPECT_EQ(domain->add(alice.get(), true), 0);
  LogCapture log(4);
  domain->set_subscriber(subscribe());
  EXPECT_EQ(log.texts().size(), 1u);
  EXPECT_TRUE(log.has_part(4, "IMSE_REG: the settings of network profile large are too large for a NOTIFY: 6"));
  EXPECT_EQ(add(*bob), 0);
  EXPECT_EQ(domain->clients().size(), 2u);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(remove(*bob), 0);
}

TEST_F(DomainTest, ACreateThatFailsWhenItsTurnComesIsSentAgainWithAllAtTheNextChance) {
  IMSE_RegSubscriber* const watcher = subscribe();
  domain->add(alice.get(), true);
  domain->add(bob.get(), true);
  watcher->send_notify(nullptr, "active");  // is out, so the others wait
  domain->set_subscriber(watcher);
  const auto carol = makeClient("carol", 3);
  EXPECT_EQ(domain->add(carol.get(), true), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
  dialog.refuse_headers = true;
  answer();
  dialog.refuse_headers = false;
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  EXPECT_EQ(watcher->state(), IMSE_RegSubscriber::NOTIFY_ANSWERED) << "its update went with it";
  // Silently it does not count either.
  const auto dave = makeClient("dave", 4);
  EXPECT_EQ(add(*dave, false), 0);
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::NOTHING_SENT);
  const auto eve = makeClient("eve", 5);
  EXPECT_EQ(add(*eve), 0);
  EXPECT_EQ(told(), (Texts{"active -", "active CREATE"}));
  const std::string body = dialog.made.back()->body();
  for (const char* id : {"<id>1</id>", "<id>2</id>", "<id>3</id>", "<id>4</id>", "<id>5</id>"})
    EXPECT_NE(body.find(id), std::string::npos) << id;
  EXPECT_EQ(domain->notify_state(), IMSE_Domain::CREATE_SENT);
}
