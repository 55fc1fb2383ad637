#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

class UaToNetworkResponse : public ProxyFixture {
 protected:
  UaToNetworkResponse() {
    domain_key = addNetwork();
    key = addClient(5070, "1");
    tag = accept(network);
  }
  void tcp(const std::string& text) {
    toClient(5070).set(text);
    engine->process_ua_to_network_tcp_response(&toClient(5070));
  }
  void udpMessage(const std::string& text) {
    udp.set(text);
    engine->process_ua_to_network_udp_response(&udp);
  }
  static std::string response(const std::string& via, const FakeHeaders& more = {}) {
    FakeHeaders headers = {{"Via", via},
                           {"Via", "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"},
                           {"From", "<sip:bob@home.net>;tag=b1"},
                           {"To", "<sip:alice@home.net>;tag=a1"},
                           {"Call-ID", "call-2@home.net"},
                           {"CSeq", "7 INVITE"}};
    headers.insert(headers.end(), more.begin(), more.end());
    return sipResponse(180, "Ringing", headers);
  }
  void expectNothingSent() {
    EXPECT_TRUE(network.sent.empty());
    EXPECT_TRUE(toClient(5070).sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
  }
  std::string domain_key, key, tag;
};

TEST_F(UaToNetworkResponse, LeavesOnTheConnectionOfTheRequest) {
  FakeServerTcp another;
  accept(another);
  LogCapture log;
  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=" + tag + ";received=127.0.0.1",
               {{"Contact", "<sip:alice@127.0.0.1:5070;transport=tcp>;+g.x"}}));
  ASSERT_EQ(network.sent.size(), 1U);
  EXPECT_TRUE(another.sent.empty());
  const std::string& sent = network.sent[0];
  EXPECT_EQ(values(sent, "Via"), (std::vector<std::string>{"SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1",
                                                           "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"}));
  EXPECT_EQ(value(sent, "Contact"), "<sip:alice@127.0.0.1:5070;transport=tcp;mtk=" + key + ">;+g.x");
  EXPECT_EQ(value(sent, "User-agent"), userAgentText());
  EXPECT_TRUE(log.has_part(5, "Received a response on connection=0x"));
  EXPECT_TRUE(log.has(5, "Domain key=" + domain_key + ";Client key=" + key + ";st=" + tag));
  EXPECT_TRUE(log.has(5, " NW Proxy Address (ip:port) (127.0.0.3:5080)"));
  EXPECT_TRUE(log.has(5, "Adding User-agent=" + userAgentText()));
  EXPECT_TRUE(log.has_part(5, "Sent the response on connection=0x"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(UaToNetworkResponse, AConnectionOfAUserAgentIsNotTheNetworks) {
  // The network knows the tag from that user agent's requests, and may have sent it back in its own.
  const std::string agents = accept(ua);
  LogCapture log(3);
  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;st=" + agents + ";mtk=" + key + ";st=" + tag));
  expectNothingSent();
  EXPECT_TRUE(ua.sent.empty());
  EXPECT_EQ(log.texts(), std::vector<std::string>{" sc is NULL for stag = " + agents});
}

TEST_F(UaToNetworkResponse, OverUdpLeavesForTheDomainsProxyFromItsUdpAddress) {
  TwoAddressNotifier notifier;
  SIPLIB_SIPTransportNotifier* handle = &notifier;
  table->updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, handle);
  LogCapture log;
  udpMessage(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1;mok=" + key + ";st=0",
                      {{"Contact", "<sip:alice@127.0.0.1:5070>"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", "127.0.0.4", 5065, kProxyIp, kProxyPort}));
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(value(out.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.3:5080;branch=z9hG4bK-n1");
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:alice@127.0.0.1:5070;mok=" + key + ">");
  EXPECT_TRUE(connector.closed(&out));
  EXPECT_TRUE(log.has(5, "CurrentAddress (ip:port) (127.0.0.4:5065)"));
  EXPECT_TRUE(log.has_part(5, "Sent the response on conn=0x"));
}

TEST_F(UaToNetworkResponse, ABranchThatTheProxyPutInIsTakenOut) {
  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;rport;branch=z9hG4bK-nobranch;mtk=" + key + ";st=" + tag));
  ASSERT_EQ(network.sent.size(), 1U);
  EXPECT_EQ(value(network.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.3:5080;rport");
}

TEST_F(UaToNetworkResponse, AProfileHeaderSteersToThatDomainAndIsRemoved) {
  addDomain("2", "127.0.0.5", 5090, "UDP");
  udpMessage(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=0", {{"Zel-Profile-ID", "2"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, kNetPort, "127.0.0.5", 5090}));
  const std::string& sent = connector.udp_clients[0]->sent.at(0);
  EXPECT_EQ(value(sent, "Via"), "SIP/2.0/UDP 127.0.0.5:5090;branch=z9hG4bK-n1");
  EXPECT_EQ(value(sent, "Zel-Profile-ID"), "(absent)");

  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=" + tag,
               {{"Zel-Profile-ID", "2"}, {"zel-profile-id ", "1"}}));
  ASSERT_EQ(network.sent.size(), 1U);
  EXPECT_EQ(value(network.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.5:5090;branch=z9hG4bK-n1");
  EXPECT_EQ(value(network.sent[0], "Zel-Profile-ID"), "(absent)");
}

TEST_F(UaToNetworkResponse, WithoutKeyDomainOrStTagIsDroppedOnBothTransports) {
  const std::string homeless = addClient(5071, "55");
  struct Row {
    std::string tags;
    FakeHeaders more;
    std::string domain, st;
  };
  const Row rows[] = {
      {";mtk=" + key, {}, domain_key, ""},
      {";st=" + tag, {}, "", tag},
      {";mtk=;st=" + tag, {}, "", tag},
      {"", {}, "", ""},
      {";mtk=" + homeless + ";st=" + tag, {}, "", tag},
      {";mtk=" + key + ";st=" + tag, {{"Zel-Profile-ID", "77"}}, "", tag},
      {";mok=424242;st=" + tag, {}, "", tag},
      {";mok=424242;st=" + tag, {{"Zel-Profile-ID", "1"}}, domain_key, tag},
      {";mtk=;st=" + tag, {{"Zel-Profile-ID", "1"}}, "", tag},
  };
  for (const Row& row : rows) {
    LogCapture log;
    tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1" + row.tags, row.more));
    udpMessage(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1" + row.tags, row.more));
    expectNothingSent();
    EXPECT_EQ(log.count(3, "ERROR: Either client/domain key/tag is empty"), 2) << row.tags;
    EXPECT_EQ(log.count(3, "ERROR: check why returning domain_key=" + row.domain + ", stag=" + row.st), 2) << row.tags;
  }
  EXPECT_EQ(table->client("424242"), nullptr);
}

TEST_F(UaToNetworkResponse, AMissingOrBrokenViaIsDropped) {
  for (const std::string& text :
       {sipResponse(200, "OK", {{"CSeq", "1 INVITE"}}), response("nonsense"), std::string("garbage\r\n\r\n")}) {
    LogCapture log;
    tcp(text);
    udpMessage(text);
    expectNothingSent();
    EXPECT_EQ(log.count(3, "createSIPHeaderObject failed for viah"), 2);
    EXPECT_EQ(log.count(3, "ERROR: check why returning domain_key=, stag="), 2);
  }
}

TEST_F(UaToNetworkResponse, AConnectionThatHasGoneDropsTheResponse) {
  LogCapture log;
  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=gone"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, " sc is NULL for stag = gone"));
}

TEST_F(UaToNetworkResponse, AUdpConnectionThatDoesNotOpenDropsTheResponse) {
  connector.refused_peers.insert("127.0.0.3:5080");
  LogCapture log;
  udpMessage(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=0"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dest)=(127.0.0.2:5060,127.0.0.3:5080)"));
}

TEST_F(UaToNetworkResponse, ADomainWithoutListenerDropsTheUdpResponse) {
  SIPLIB_SIPTransportNotifier* none = nullptr;
  table->updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, none);
  LogCapture log(4);
  udpMessage(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=0"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "no UDP address for domain key=" + domain_key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(UaToNetworkResponse, AConnectionThatTakesNothingGetsOneLine) {
  network.send_result = -1;
  LogCapture log(4);
  tcp(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=" + tag));
  EXPECT_TRUE(log.has_part(3, " of domain key=" + domain_key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

}  // namespace
