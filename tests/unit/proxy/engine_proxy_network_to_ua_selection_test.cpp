#include <gtest/gtest.h>

#include <memory>

#include "proxy/proxy_fixture.h"

namespace {

constexpr int kNobody = -1;
using Aors = std::vector<ClientAOR_T>;

struct Row {
  const char* what;
  std::vector<Aors> clients;  ///< the addresses of record of each
  const char* method;
  FakeHeaders headers;  ///< To too
  int chosen;           ///< position in `clients`
  int level;            ///< of `line`
  const char* line;     ///< must be logged
};

const FakeHeaders kToAlice = {{"To", "\"Alice\" <sip:alice@home.net:5099;x=y>;tag=1"}};

FakeHeaders toAlice(FakeHeaders more) {
  more.insert(more.begin(), kToAlice.begin(), kToAlice.end());
  return more;
}

const char kNoContentType[] =
    "ERROR: No Content-Type header, no unique Client based on Content-Type from the given METHOD matched clients";
const char kNotByContentType[] =
    "ERROR:  Couldn't find an unique Client based on Content-Type from the given METHOD matched clients";

const std::vector<Row>& rows() {
  // makeAor(aor, feature tags, events, methods, content types)
  static const std::vector<Row> all = {
      {"one client supports the event",
       {{makeAor("a@x.net", {}, "presence,reg")}, {makeAor("alice@home.net", {}, "dialog")}},
       "NOTIFY",
       toAlice({{"Event", "reg"}}),
       0,
       5,
       "Found an unique client based on event=reg"},
      {"nobody supports the event: refused although the AOR fits",
       {{makeAor("alice@home.net", {"+sip.im"}, "presence", "NOTIFY")}},
       "NOTIFY",
       toAlice({{"Event", "dialog"}, {"Contact", "<sip:b@h>;+sip.im"}}),
       kNobody,
       3,
       "ERROR: No client supports event=dialog"},
      {"an empty event is supported by nobody",
       {{makeAor("alice@home.net", {}, "presence", "NOTIFY")}},
       "NOTIFY",
       toAlice({{"Event", ""}}),
       kNobody,
       3,
       "ERROR: No client supports event="},
      {"two support the event, the feature tag tells",
       {{makeAor("a@x.net", {"+sip.video"}, "reg")}, {makeAor("b@x.net", {"+sip.im"}, "reg")}},
       "SUBSCRIBE",
       toAlice({{"Event", "reg"}, {"Accept-Contact", "*;+sip.im"}}),
       1,
       5,
       "Found an unique client based on feature tag"},
      {"two support the event, a third has the feature tag: the event list is forgotten",
       {{makeAor("a@x.net", {}, "reg")}, {makeAor("b@x.net", {}, "reg")}, {makeAor("c@x.net", {"+sip.im"})}},
       "SUBSCRIBE",
       toAlice({{"Event", "reg"}, {"Accept-Contact", "*;+sip.im"}}),
       2,
       5,
       "Found an unique client based on feature tag"},
      {"one client that supports the event with two AORs counts twice, and the AOR decides",
       {{makeAor("alice@home.net", {}, "reg"), makeAor("ally@home.net", {}, "reg")}},
       "SUBSCRIBE",
       toAlice({{"Event", "reg"}}),
       0,
       5,
       "No feature tag present, but found an unique client based on AOR=alice@home.net"},
      {"feature tag in Contact",
       {{makeAor("a@x.net", {"+sip.video"})}, {makeAor("b@x.net", {"+sip.im"})}},
       "INVITE",
       toAlice({{"Contact", "<sip:b@h>;+sip.video"}}),
       0,
       5,
       "Found an unique client based on feature tag"},
      {"feature tag in P-Preferred-Identity",
       {{makeAor("a@x.net", {"svc:one"})}, {makeAor("b@x.net", {"svc:two"})}},
       "INVITE",
       toAlice({{"P-Preferred-Identity", "<sip:svc:two@h>"}}),
       1,
       5,
       "Found an unique client based on feature tag"},
      {"feature tag in P-Asserted-Identity",
       {{makeAor("a@x.net", {"svc:one"})}, {makeAor("b@x.net", {"svc:two"})}},
       "INVITE",
       toAlice({{"P-Asserted-Identity", "<sip:svc:one@h>"}}),
       0,
       5,
       "Found an unique client based on feature tag"},
      {"the feature tag goes before the AOR",
       {{makeAor("alice@home.net")}, {makeAor("b@x.net", {"+sip.im"})}},
       "MESSAGE",
       toAlice({{"Contact", "<sip:b@h>;+sip.im"}}),
       1,
       5,
       "Found an unique client based on feature tag"},
      {"two have the feature tag, the method tells, the AOR is not asked",
       {{makeAor("alice@home.net", {"+sip.im"}, "", "INVITE")}, {makeAor("b@x.net", {"+sip.im"}, "", "MESSAGE")}},
       "MESSAGE",
       toAlice({{"Contact", "<sip:b@h>;+sip.im"}}),
       1,
       5,
       "Found an unique Client for method=MESSAGE from FTRTAG/AOR matched clients"},
      {"two have the feature tag: said at level 4",
       {{makeAor("a@x.net", {"+sip.im"}, "", "MESSAGE")}, {makeAor("b@x.net", {"+sip.im"}, "", "INVITE")}},
       "MESSAGE",
       toAlice({{"Contact", "<sip:b@h>;+sip.im"}}),
       0,
       4,
       "ERROR:found multiple clients (size=2) having the same feature tag"},
      {"one client with two of the tags counts twice; its one AOR with the method makes it one again",
       {{makeAor("a@x.net", {"+sip.im", "+sip.video"}, "", "INVITE")}},
       "INVITE",
       toAlice({{"Contact", "<sip:b@h>;+sip.im;+sip.video"}}),
       kNobody,  // the list keeps both entries, so the method finds it twice
       3,
       kNoContentType},
      {"two have the feature tag, neither the method",
       {{makeAor("a@x.net", {"+sip.im"}, "", "INVITE")}, {makeAor("b@x.net", {"+sip.im"}, "", "INVITE")}},
       "MESSAGE",
       toAlice({{"Contact", "<sip:b@h>;+sip.im"}}),
       kNobody,
       3,
       "ERROR: Couldn't find an unique Client for method=MESSAGE from FTRTAG/AOR matched clients"},
      {"the AOR alone, without scheme, port and parameters",
       {{makeAor("bob@home.net")}, {makeAor("alice@home.net")}},
       "MESSAGE",
       kToAlice,
       1,
       5,
       "No feature tag present, but found an unique client based on AOR=alice@home.net"},
      {"a tag that nobody has is as none",
       {{makeAor("bob@home.net", {"+sip.im"})}, {makeAor("alice@home.net")}},
       "MESSAGE",
       toAlice({{"Contact", "<sip:b@h>;+sip.other"}}),
       1,
       5,
       "No feature tag present, but found an unique client based on AOR=alice@home.net"},
      {"two have the AOR, the method tells",
       {{makeAor("alice@home.net", {}, "", "INVITE")}, {makeAor("alice@home.net", {}, "", "MESSAGE")}},
       "MESSAGE",
       kToAlice,
       1,
       5,
       "No feature tag present, no client or multiple clients, (size=2) found based on AOR=alice@home.net"},
      {"two have AOR and method, the content type tells",
       {{makeAor("alice@home.net", {}, "", "MESSAGE", "text/plain")},
        {makeAor("alice@home.net", {}, "", "MESSAGE", "message/cpim")}},
       "MESSAGE",
       toAlice({{"Content-Type", "message/cpim"}}),
       1,
       5,
       "Found an unique Client for Content-Type=message/cpim from METHOD matched clients size=2"},
      {"two have AOR, method and content type",
       {{makeAor("alice@home.net", {}, "", "MESSAGE", "text/plain")},
        {makeAor("alice@home.net", {}, "", "MESSAGE", "text/plain")}},
       "MESSAGE",
       toAlice({{"Content-Type", "text/plain"}}),
       kNobody,
       3,
       kNotByContentType},
      {"two have AOR and method, no content type",
       {{makeAor("alice@home.net", {}, "", "MESSAGE", "text/plain")},
        {makeAor("alice@home.net", {}, "", "MESSAGE", "message/cpim")}},
       "MESSAGE",
       kToAlice,
       kNobody,
       3,
       kNoContentType},
      {"only the method",
       {{makeAor("a@x.net", {}, "", "MESSAGE")}, {makeAor("b@x.net", {}, "", "INVITE")}},
       "MESSAGE",
       kToAlice,
       0,
       5,
       "Found unique Client for method=MESSAGE "},
      {"three support the method, one of them the content type: nobody",
       {{makeAor("a@x.net", {}, "", "MESSAGE", "text/plain")},
        {makeAor("b@x.net", {}, "", "MESSAGE", "message/cpim")},
        {makeAor("c@x.net", {}, "", "MESSAGE", "text/html")}},
       "MESSAGE",
       toAlice({{"Content-Type", "message/cpim"}}),
       kNobody,
       3,
       kNotByContentType},
      {"the same, with the count of the method told",
       {{makeAor("a@x.net", {}, "", "MESSAGE", "text/plain")}, {makeAor("b@x.net", {}, "", "MESSAGE")}},
       "MESSAGE",
       toAlice({{"Content-Type", "text/plain"}}),
       kNobody,
       5,
       "No feature tag/AOR present, matching clients=2 based on method=MESSAGE"},
      {"nobody supports the method",
       {{makeAor("a@x.net", {}, "", "INVITE")}},
       "MESSAGE",
       kToAlice,
       kNobody,
       3,
       kNoContentType},
      {"one client whose two AORs support the method counts twice and is nobody's",
       {{makeAor("a@x.net", {}, "", "MESSAGE", "text/plain"), makeAor("b@x.net", {}, "", "MESSAGE", "text/plain")}},
       "MESSAGE",
       toAlice({{"Content-Type", "text/plain"}}),
       kNobody,
       5,
       "No feature tag/AOR present, matching clients=2 based on method=MESSAGE"},
      {"no To and no feature tag: refused before the method",
       {{makeAor("a@x.net", {}, "", "MESSAGE")}},
       "MESSAGE",
       {},
       kNobody,
       5,
       "find_domain_and_client_network_to_ua_request"},
      {"no To, but the feature tag tells",
       {{makeAor("a@x.net", {"+sip.im"})}},
       "MESSAGE",
       {{"Contact", "<sip:b@h>;+sip.im"}},
       0,
       5,
       "Found an unique client based on feature tag"},
      {"method names are compared as they stand",
       {{makeAor("a@x.net", {}, "", "MESSAGE")}},
       "message",
       kToAlice,
       kNobody,
       5,
       "No feature tag/AOR present, matching clients=0 based on method=message"},
      {"nobody is registered", {}, "INVITE", kToAlice, kNobody, 3, kNoContentType},
  };
  return all;
}

class Selection : public ProxyFixture, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(Selection, Chooses) {
  const Row& row = rows()[GetParam()];
  SCOPED_TRACE(row.what);
  const std::string own_domain = addNetwork();
  std::vector<std::string> keys;
  for (const Aors& aors : row.clients) {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(5070 + keys.size());
    entry.profile_id = "1";
    entry.aors = aors;
    keys.push_back(addClient(entry));
  }
  FakeHeaders headers = {{"Via", "SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-9"}, {"From", "<sip:bob@home.net>"}};
  headers.insert(headers.end(), row.headers.begin(), row.headers.end());
  network.set(sipRequest(row.method, "sip:127.0.0.2", headers));
  bool is_request = false;
  std::string method;
  SIPLIB_SIPAddress* from = nullptr;
  SIPLIB_SIPAddress* to = nullptr;
  IMS_engine_proxy::get_from_to_method(&network, is_request, method, from, to);

  LogCapture log;
  std::string domain_key, client_key;
  engine->find_domain_and_client_network_to_ua_request(&network, from, to, method, domain_key, client_key);
  const std::string expected = row.chosen == kNobody ? std::string() : keys[static_cast<std::size_t>(row.chosen)];
  EXPECT_EQ(client_key, expected);
  EXPECT_EQ(domain_key, row.chosen == kNobody ? std::string() : own_domain);
  EXPECT_TRUE(log.has(row.level, row.line)) << log.read();
  EXPECT_TRUE(log.has(5, "find_domain_and_client_network_to_ua_request"));
  delete from;
  delete to;
}

INSTANTIATE_TEST_SUITE_P(ClientsAndHeaders, Selection, ::testing::Range(std::size_t{0}, rows().size()));

TEST_F(ProxyFixture, SelectionGivesTheDomainOfTheChosenClient) {
  addNetwork("1");
  const std::string second = addDomain("2", "127.0.0.5", 5090, "UDP");
  ClientTable_Entry_T entry;
  entry.ua_port = "5070";
  entry.profile_id = "2";
  entry.aors = {makeAor("alice@home.net")};
  const std::string key = addClient(entry);
  network.set(fromNetwork("MESSAGE", "SIP/2.0/TCP h"));
  const std::unique_ptr<SIPLIB_SIPAddress> to(SIPLIB_SIPAddress::createSIPAddressObject("To", "<sip:alice@home.net>"));
  std::string domain_key, client_key;
  engine->find_domain_and_client_network_to_ua_request(&network, nullptr, to.get(), "MESSAGE", domain_key, client_key);
  EXPECT_EQ(client_key, key);
  EXPECT_EQ(domain_key, second);
}

TEST_F(ProxyFixture, FeatureTagHeadersAreReadAsOneTextInTheirOrder) {
  LogCapture log;
  std::vector<std::string> keys;
  network.set(fromNetwork("MESSAGE", "SIP/2.0/TCP h",
                          {{"P-Asserted-Identity", "<sip:d@h>"},
                           {"Accept-Contact", "*;b"},
                           {"Contact", "<sip:a@h>"},
                           {"P-Preferred-Identity", "<sip:c@h>"}}));
  engine->get_clients_from_feature_tag_headers(&network, keys);
  EXPECT_TRUE(log.has(5, "contact_string=<sip:a@h> *;b <sip:c@h> <sip:d@h>  "));
  log.clear();
  network.set(fromNetwork("MESSAGE", "SIP/2.0/TCP h"));
  engine->get_clients_from_feature_tag_headers(&network, keys);
  EXPECT_TRUE(keys.empty());
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
