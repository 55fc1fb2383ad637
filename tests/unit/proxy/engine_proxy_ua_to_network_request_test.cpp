#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

constexpr auto kTcp = &IMS_engine_proxy::process_ua_to_network_tcp_request;
constexpr auto kUdp = &IMS_engine_proxy::process_ua_to_network_udp_request;
constexpr const char* kVia = "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
constexpr const char* kUdpVia = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
const FakeHeaders kContact = {{"Contact", "\"A\" <sip:alice@127.0.0.1:5070;transport=tcp;ob>;q=1"}};

class UaToNetworkRequest : public ProxyFixture {
 protected:
  UaToNetworkRequest() {
    domain_key = addNetwork();
    ClientTable_Entry_T entry;
    entry.ua_port = "5070";
    entry.profile_id = "1";
    entry.headers = {{"X-First", "one"}, {"P-Access-Network-Info", "3GPP-E-UTRAN-FDD"}};
    key = addClient(entry);
    tag = accept(ua);
  }
  /// Nothing left on any connection.
  void expectNothingSent() {
    EXPECT_TRUE(toNetwork().sent.empty());
    EXPECT_TRUE(ua.sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
  }
  std::string domain_key, key, tag;
};

TEST_F(UaToNetworkRequest, FreshInviteOverTcp) {
  LogCapture log;
  forward(kTcp, ua, fromClient("INVITE", kVia, kContact, "sip:bob@home.net", "v=0\r\n"));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  const std::string& sent = toNetwork().sent[0];
  EXPECT_EQ(uri(sent), "sip:bob@home.net");
  EXPECT_EQ(values(sent, "Via"),
            std::vector<std::string>{"SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag});
  EXPECT_EQ(value(sent, "Contact"), "\"A\" <sip:127.0.0.2:5060;transport=tcp;ob;mok=" + key + ">;q=1");
  EXPECT_EQ(value(sent, "X-First"), "one");
  EXPECT_EQ(value(sent, "P-Access-Network-Info"), "3GPP-E-UTRAN-FDD");
  EXPECT_EQ(value(sent, "User-agent"), userAgentText());
  EXPECT_EQ(value(sent, "From"), "\"Alice\" <sip:alice@home.net>;tag=a1");
  EXPECT_EQ(value(sent, "Max-Forwards"), "70");
  EXPECT_TRUE(sent.ends_with("\r\n\r\nv=0\r\n"));

  EXPECT_TRUE(log.has_part(5, "Received a request on connection=0x"));
  EXPECT_TRUE(log.has(5, "Req-URI is sip:bob@home.net"));
  EXPECT_TRUE(log.has(5, " mok_pos is -1, mtk_pos is -1"));
  EXPECT_TRUE(log.has(5, "FRESH REQUEST, Client key=" + key + ";Domain key=" + domain_key));
  EXPECT_TRUE(log.has(5, "string to be added in Via and Contact is ;mok=" + key));
  EXPECT_TRUE(log.has(5, "CurrentAddress (ip:port) (127.0.0.2:5060)"));
  EXPECT_TRUE(log.has(5, "Adding Header: X-First=one"));
  EXPECT_TRUE(log.has(5, "Adding User-agent=" + userAgentText()));
  EXPECT_TRUE(log.has_part(5, "Sent the request on connection=0x"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(UaToNetworkRequest, FreshInviteOverUdp) {
  LogCapture log;
  forward(kUdp, udp, fromClient("INVITE", kUdpVia, kContact));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, kNetPort, kProxyIp, kProxyPort}));
  EXPECT_EQ(value(out.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=0");
  EXPECT_EQ(value(out.sent[0], "Contact"), "\"A\" <sip:127.0.0.2:5060;transport=tcp;ob;mok=" + key + ">;q=1");
  EXPECT_TRUE(connector.closed(&out));
  EXPECT_TRUE(log.has_part(5, "Sent the request on connection=0x"));
  EXPECT_TRUE(toNetwork().sent.empty());
}

TEST_F(UaToNetworkRequest, OverUdpViaAndContactHoldTheTcpAddressAndTheSocketTheUdpOne) {
  TwoAddressNotifier notifier;
  SIPLIB_SIPTransportNotifier* handle = &notifier;
  table->updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, handle);
  forward(kUdp, udp, fromClient("INVITE", kUdpVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", "127.0.0.4", 5065, kProxyIp, kProxyPort}));
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(value(out.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.4:5064;branch=z9hG4bK-1;rport;mok=" + key + ";st=0");
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:127.0.0.4:5064;mok=" + key + ">");
}

TEST_F(UaToNetworkRequest, AnIpv6AddressStandsInBrackets) {
  TwoAddressNotifier notifier;
  notifier.ip = "2001:db8::4";
  SIPLIB_SIPTransportNotifier* handle = &notifier;
  table->updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, handle);
  forward(kTcp, ua, fromClient("INVITE", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}}));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(value(toNetwork().sent[0], "Via"),
            "SIP/2.0/TCP [2001:db8::4]:5064;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag);
  EXPECT_EQ(value(toNetwork().sent[0], "Contact"), "<sip:[2001:db8::4]:5064;mok=" + key + ">");
}

TEST_F(UaToNetworkRequest, UserAgentIsAddedAndReplacesNothing) {
  forward(kTcp, ua, fromClient("INVITE", kVia, {{"User-Agent", "softphone/1"}}));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(values(toNetwork().sent[0], "User-Agent"), (std::vector<std::string>{userAgentText(), "softphone/1"}));
}

TEST_F(UaToNetworkRequest, OnlyTheTopmostViaIsRewritten) {
  forward(kTcp, ua, fromClient("INVITE", kVia, {{"Via", "SIP/2.0/TCP 127.0.0.1:5999;branch=z9hG4bK-0"}}));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(values(toNetwork().sent[0], "Via"),
            (std::vector<std::string>{"SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag,
                                      "SIP/2.0/TCP 127.0.0.1:5999;branch=z9hG4bK-0"}));
}

TEST_F(UaToNetworkRequest, AConnectionThatIsNotInTheTableGivesNoStTag) {
  FakeServerTcp unknown;
  forward(kTcp, unknown, fromClient("INVITE", kVia));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(value(toNetwork().sent[0], "Via"), "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key);
}

TEST_F(UaToNetworkRequest, RegisterLeavesWithABareContact) {
  forward(kTcp, ua, fromClient("REGISTER", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070;transport=tcp>;expires=60"}}));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(value(toNetwork().sent[0], "Contact"), "<sip:127.0.0.2:5060;transport=tcp>;expires=60");
  EXPECT_EQ(value(toNetwork().sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag);
}

TEST_F(UaToNetworkRequest, RegisterGoesToTheProfileThatItNames) {
  addDomain("9", "127.0.0.5", 5090, "TCP");
  const std::string other_domain_key = table->findDomain(DT_PROFILE_ID, "9");
  LogCapture log;
  forward(kTcp, ua, fromClient("REGISTER", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}, {"Zel-Profile-ID", "9"}}));
  const FakeClientTcp& out = *connector.tcpClient(kNetIp, kNetPort, "127.0.0.5", 5090);
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_TRUE(toNetwork().sent.empty());
  EXPECT_EQ(value(out.sent[0], "Zel-Profile-ID"), "(absent)");
  EXPECT_EQ(value(out.sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;profile=9;mok=" + key + ";st=" + tag);
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:127.0.0.2:5060>");
  EXPECT_TRUE(log.has(5, "Removing Zel-Profile-ID=9 from method=REGISTER"));
  EXPECT_TRUE(log.has(5, "Adding profile-ID to request- profile is 9"));
  EXPECT_TRUE(log.has(5, "FRESH REQUEST, Client key=" + key + ";Domain key=" + other_domain_key));
}

TEST_F(UaToNetworkRequest, SubscribeGoesToTheProfileThatItNamesAndItsContactHoldsBothTags) {
  addDomain("9", "127.0.0.5", 5090, "UDP");
  forward(kUdp, udp,
          fromClient("SUBSCRIBE", kUdpVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}, {"Zel-Profile-ID", "9"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const std::string& sent = connector.udp_clients[0]->sent.at(0);
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, kNetPort, "127.0.0.5", 5090}));
  EXPECT_EQ(value(sent, "Via"), "SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;rport;profile=9;mok=" + key + ";st=0");
  EXPECT_EQ(value(sent, "Contact"), "<sip:127.0.0.2:5060;profile=9;mok=" + key + ">");
  EXPECT_EQ(value(sent, "Zel-Profile-ID"), "(absent)");
}

TEST_F(UaToNetworkRequest, NoSecondProfileHeaderGetsPast) {
  for (const char* method : {"REGISTER", "SUBSCRIBE"}) {
    forward(kTcp, ua, fromClient(method, kVia, {{"zel-profile-id ", "1"}, {"Subject", "x"}, {"ZEL-Profile-ID", "9"}}));
    ASSERT_FALSE(toNetwork().sent.empty()) << method;
    EXPECT_EQ(values(toNetwork().sent.back(), "Zel-Profile-ID"), std::vector<std::string>{}) << method;
    EXPECT_EQ(value(toNetwork().sent.back(), "Subject"), "x") << method;
  }
}

TEST_F(UaToNetworkRequest, AHeaderOfTheClientsRecordCannotBringAnother) {
  ClientTable_Entry_T entry;
  entry.ua_port = "5071";
  entry.profile_id = "1";
  entry.headers = {{"X-A", "v\r\nX-Evil: 1"}, {"X-B\r\nX-Evil", "1"}, {"X-C", "v\nX-Evil: 1"}, {"X D", "1"}, {"", "1"},
                   {"Content-Length", "77"},  {"X-Good", "kept"}};
  addClient(entry);
  forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-1"));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  const std::string& sent = toNetwork().sent[0];
  EXPECT_EQ(sent.find("X-Evil"), std::string::npos) << sent;
  EXPECT_EQ(sent.find("X D"), std::string::npos) << sent;
  EXPECT_EQ(values(sent, "Content-Length"), std::vector<std::string>{"0"}) << sent;
  EXPECT_EQ(value(sent, "X-Good"), "kept");
}

TEST_F(UaToNetworkRequest, OtherMethodsKeepTheProfileHeaderAndTheirOwnDomain) {
  addDomain("9", "127.0.0.5", 5090, "TCP");
  for (const char* method : {"MESSAGE", "INVITE", "register"}) {
    forward(kTcp, ua, fromClient(method, kVia, {{"Zel-Profile-ID", "9"}}));
    ASSERT_FALSE(toNetwork().sent.empty()) << method;
    EXPECT_EQ(value(toNetwork().sent.back(), "Zel-Profile-ID"), "9") << method;
    EXPECT_EQ(value(toNetwork().sent.back(), "Via"),
              "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag);
  }
  EXPECT_EQ(toNetwork().sent.size(), 3U);
  EXPECT_TRUE(connector.tcpClient(kNetIp, kNetPort, "127.0.0.5", 5090)->sent.empty());
}

TEST_F(UaToNetworkRequest, AProfileThatNamesNoDomainDropsTheRequest) {
  for (const char* profile : {"77", ""}) {
    LogCapture log;
    forward(kTcp, ua, fromClient("REGISTER", kVia, {{"Zel-Profile-ID", profile}}));
    expectNothingSent();
    EXPECT_TRUE(log.has(4, "ERROR: Either client or domain key is empty"));
    EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty"));
    EXPECT_EQ(log.has(5, std::string("Adding profile-ID to request- profile is ") + profile), *profile != '\0');
  }
}

/// Of two tags the one that stands later counts; the network-to-UA direction goes by the earlier one.
TEST_F(UaToNetworkRequest, SubsequentRequestGoesByTheLaterTag) {
  const std::string second = addClient(5071, "1");
  struct Row {
    std::string tags;
    std::string written;
    std::vector<std::string> lines;
  };
  const std::string base = "sip:bob@127.0.0.3:5080";
  const Row rows[] = {
      {";mok=" + key + ";mtk=" + second, ";mtk=" + second, {" MT SIDE request : Req-URI is "}},
      {";mtk=" + second + ";mok=" + key, ";mok=" + key, {" MO SIDE request : Req-URI is "}},
      {";mok=" + second + ";mtk=" + key, ";mtk=" + key, {" MT SIDE request : Req-URI is "}},
      {";mok=" + second, ";mok=" + second, {" Dialog with a  new type of UA", " MO SIDE IS OUR UA: Req-URI is "}},
      {";mtk=" + second, ";mtk=" + second, {" Dialog with a  new type of UA", " MT SIDE IS OUR UA : Req-URI is "}},
  };
  for (const Row& row : rows) {
    LogCapture log;
    // The port in the Via belongs to nobody: only the key in the Request-URI counts.
    forward(
        kTcp, ua,
        fromClient("BYE", "SIP/2.0/TCP 127.0.0.1:6666;branch=z9hG4bK-2", {{"Zel-Profile-ID", "9"}}, base + row.tags));
    ASSERT_FALSE(toNetwork().sent.empty()) << row.tags;
    EXPECT_EQ(value(toNetwork().sent.back(), "Via"),
              "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-2" + row.written + ";st=" + tag)
        << row.tags;
    EXPECT_EQ(value(toNetwork().sent.back(), "Zel-Profile-ID"), "9");
    for (const std::string& line : row.lines)
      EXPECT_TRUE(log.has(5, line.back() == 'A' ? line : line + base + row.tags)) << line;
    EXPECT_TRUE(log.has(5, "SUBSEQUENT REQUEST, Client key=" + row.written.substr(5) + ";Domain key=" + domain_key));
  }
  EXPECT_EQ(toNetwork().sent.size(), std::size(rows));
}

TEST_F(UaToNetworkRequest, SubsequentRequestWritesNoProfileTag) {
  forward(kTcp, ua,
          fromClient("SUBSCRIBE", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}},
                     "sip:127.0.0.3:5080;profile=1;mok=" + key));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(value(toNetwork().sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport;mok=" + key + ";st=" + tag);
  EXPECT_EQ(value(toNetwork().sent[0], "Contact"), "<sip:127.0.0.2:5060;mok=" + key + ">");
}

TEST_F(UaToNetworkRequest, AKeyThatNamesNobodyDropsTheRequest) {
  for (const char* bad : {";mok=424242", ";mtk=", ";mok=;x=1", ";mtk=-1", ";mok=0x0"}) {
    LogCapture log;
    forward(kTcp, ua, fromClient("BYE", kVia, {}, std::string("sip:bob@h") + bad));
    forward(kUdp, udp, fromClient("BYE", kUdpVia, {}, std::string("sip:bob@h") + bad));
    expectNothingSent();
    EXPECT_EQ(log.count(4, "ERROR: Either client or domain key is empty"), 2) << bad;
    EXPECT_EQ(log.count(3, "ERROR: check why domain_key empty"), 2) << bad;
    EXPECT_EQ(table->client("424242"), nullptr);
  }
}

TEST_F(UaToNetworkRequest, ADeletedClientsKeyDropsTheRequest) {
  ASSERT_TRUE(table->deleteClient(CT_UA_PORT, "5070"));
  LogCapture log;
  forward(kTcp, ua, fromClient("BYE", kVia, {}, "sip:bob@h;mok=" + key));
  expectNothingSent();
  EXPECT_TRUE(log.has(4, "ERROR: Either client or domain key is empty"));
}

TEST_F(UaToNetworkRequest, AnUnknownPortDropsTheRequest) {
  LogCapture log;
  forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:6666;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(4, "ERROR: Can't find any client for port=6666"));
  EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty"));
  log.clear();
  forward(kUdp, udp, fromClient("INVITE", "SIP/2.0/UDP 127.0.0.1;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(4, "ERROR: Can't find any client for port=0"));
  EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty"));
}

TEST_F(UaToNetworkRequest, AClientWithoutDomainDropsTheRequest) {
  addClient(5071, "55");
  LogCapture log;
  forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(4, "ERROR: Either client or domain key is empty"));
  EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty"));
}

TEST_F(UaToNetworkRequest, ADomainThatWasRefusedAfterItsClientsWereLinkedDropsTheRequest) {
  addClient(5071, "55");
  connector.refuse_notifiers = true;
  Domain_Entry_T refused;
  refused.profile_id = "55";
  ASSERT_FALSE(table->addDomain(refused));
  ASSERT_FALSE(table->client(table->findKey(CT_UA_PORT, "5071"))->domain_key.empty());
  LogCapture log;
  forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(4, "ERROR: Either client or domain key is empty"));
}

TEST_F(UaToNetworkRequest, AMissingOrBrokenViaDropsTheRequest) {
  for (const std::string& text : {sipRequest("INVITE", "sip:bob@h", {{"From", "<sip:a@h>"}, {"To", "<sip:b@h>"}}),
                                  fromClient("INVITE", "nonsense"), std::string("garbage\r\n\r\n")}) {
    LogCapture log;
    forward(kTcp, ua, text);
    expectNothingSent();
    EXPECT_TRUE(log.has(3, "createSIPHeaderObject failed for viah")) << text;
    EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty")) << text;
  }
}

TEST_F(UaToNetworkRequest, ABrokenContactDropsTheRequest) {
  for (const char* contact : {"<sip:unclosed", "*"}) {
    LogCapture log;
    forward(kTcp, ua, fromClient("REGISTER", kVia, {{"Contact", contact}}));
    expectNothingSent();
    EXPECT_TRUE(log.has(3, "createSIPAddressObject failed for addr")) << contact;
    EXPECT_TRUE(log.has(3, "ERROR: check why domain_key empty")) << contact;
  }
}

TEST_F(UaToNetworkRequest, WithoutContactNoneIsPutIn) {
  forward(kTcp, ua, fromClient("MESSAGE", kVia));
  ASSERT_EQ(toNetwork().sent.size(), 1U);
  EXPECT_EQ(value(toNetwork().sent[0], "Contact"), "(absent)");
}

TEST_F(UaToNetworkRequest, AUdpConnectionThatDoesNotOpenDropsTheRequest) {
  connector.refused_peers.insert("127.0.0.3:5080");
  LogCapture log;
  forward(kUdp, udp, fromClient("INVITE", kUdpVia));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dest)=(127.0.0.2:5060,127.0.0.3:5080)"));
}

TEST_F(UaToNetworkRequest, AUdpConnectionThatTakesNothingIsClosedWithOneLine) {
  DeafConnector deaf;
  IMS_User_Agent::ua_connector = &deaf;
  LogCapture log(4);
  forward(kUdp, udp, fromClient("INVITE", kUdpVia));
  ASSERT_EQ(deaf.udp_clients.size(), 1U);
  EXPECT_TRUE(deaf.closed(deaf.udp_clients[0].get()));
  EXPECT_TRUE(log.has_part(3, " of domain key=" + domain_key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(UaToNetworkRequest, ADomainWithoutTcpConnectionDropsTheRequestWithOneLine) {
  const std::string udp_domain = addDomain("9", "127.0.0.5", 5090, "UDP");
  addClient(5071, "9");
  LogCapture log(4);
  forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "no connection for domain key=" + udp_domain + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(UaToNetworkRequest, AConnectionThatTakesNothingGetsOneLine) {
  toNetwork().send_result = -1;
  LogCapture log(4);
  forward(kTcp, ua, fromClient("INVITE", kVia));
  EXPECT_TRUE(log.has_part(3, " of domain key=" + domain_key + ", message dropped"));
  EXPECT_TRUE(log.has_part(3, "not sent on connection=0x"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(UaToNetworkRequest, ADomainWithoutListenerDropsTheRequest) {
  TwoAddressNotifier closed;
  closed.open = false;
  SIPLIB_SIPTransportNotifier* const handles[] = {nullptr, &closed};
  for (SIPLIB_SIPTransportNotifier* handle : handles) {
    table->updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, handle);
    LogCapture log;
    forward(kTcp, ua, fromClient("INVITE", kVia));
    forward(kUdp, udp, fromClient("INVITE", kUdpVia));
    expectNothingSent();
    EXPECT_EQ(log.count(3, "no TCP address for domain key=" + domain_key + ", message dropped"), 2);
  }
}

TEST_F(UaToNetworkRequest, CredentialsAreAddedOnlyInTheSharedMode) {
  for (const bool shared : {false, true}) {
    const std::string profile = shared ? "31" : "30";
    const int proxy_port = shared ? 5031 : 5030;
    const int ua_port = shared ? 6031 : 6030;
    Domain_Entry_T entry;
    entry.profile_id = profile;
    entry.proxy_ip = kProxyIp;
    entry.proxy_port = std::to_string(proxy_port);
    entry.proxy_transport = "TCP";
    entry.username = "alice";
    entry.password = "secret";
    entry.op_mode = shared ? "ietf-shared" : "3gpp";
    ASSERT_TRUE(table->addDomain(entry));
    addClient(ua_port, profile);
    auth->create_auth_info(table->findDomain(DT_PROFILE_ID, profile), "Digest realm=\"home.net\", nonce=\"n1\"",
                           AUTH_PROXY, "\"home.net\"", "\"n1\"");
    forward(kTcp, ua, fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:" + std::to_string(ua_port) + ";branch=z9hG4bK-1"));
    const FakeClientTcp& out = *connector.tcpClient(kNetIp, kNetPort, kProxyIp, proxy_port);
    ASSERT_EQ(out.sent.size(), 1U);
    const std::string credentials = value(out.sent[0], "Proxy-Authorization");
    if (shared) {
      EXPECT_NE(credentials.find("nonce=\"n1\""), std::string::npos) << credentials;
    } else {
      EXPECT_EQ(credentials, "(absent)");
    }
  }
}

}  // namespace
