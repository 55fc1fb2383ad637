#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

constexpr auto kTcp = &IMS_engine_proxy::process_network_to_ua_tcp_request;
constexpr auto kUdp = &IMS_engine_proxy::process_network_to_ua_udp_request;
constexpr const char* kVia = "SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1";
constexpr const char* kUdpVia = "SIP/2.0/UDP 127.0.0.3:5080;branch=z9hG4bK-n1";
const FakeHeaders kContact = {{"Contact", "<sip:bob@127.0.0.3:5080;transport=tcp>;+g.x"}};

class NetworkToUaRequest : public ProxyFixture {
 protected:
  NetworkToUaRequest() {
    domain_key = addNetwork();
    key = addAlice(5070, "1", "alice@home.net");
    tag = accept(network);
  }
  std::string addAlice(int port, const std::string& profile_id, const std::string& aor) {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(port);
    entry.profile_id = profile_id;
    entry.aors = {makeAor(aor)};
    return addClient(entry);
  }
  void expectNothingSent() {
    EXPECT_TRUE(toClient(5070).sent.empty());
    EXPECT_TRUE(network.sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
  }
  std::string domain_key, key, tag;
};

TEST_F(NetworkToUaRequest, FreshInviteOverTcpAfterA100) {
  LogCapture log;
  forward(kTcp, network, fromNetwork("INVITE", kVia, kContact, "sip:alice@127.0.0.2:5060", "v=0\r\n"));

  ASSERT_EQ(network.sent.size(), 1U);
  EXPECT_TRUE(network.sent[0].starts_with("SIP/2.0 100 trying\r\n"));
  EXPECT_EQ(values(network.sent[0], "Via"),
            (std::vector<std::string>{kVia, "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"}));

  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  const std::string& sent = toClient(5070).sent[0];
  EXPECT_EQ(uri(sent), "sip:alice@127.0.0.2:5060");
  EXPECT_EQ(values(sent, "Via"),
            (std::vector<std::string>{"SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=" + tag,
                                      "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"}));
  EXPECT_EQ(value(sent, "Contact"), "<sip:bob@127.0.0.3:5080;transport=tcp;mtk=" + key + ">;+g.x");
  EXPECT_EQ(value(sent, "User-agent"), "(absent)");
  EXPECT_TRUE(sent.ends_with("\r\n\r\nv=0\r\n"));

  EXPECT_TRUE(log.has(5, "Req-URI is sip:alice@127.0.0.2:5060"));
  EXPECT_TRUE(log.has(5, "FRESH REQUEST, Domain key=" + domain_key + ", Client key=" + key));
  EXPECT_TRUE(log.has(5, "string to be added in Via and Contact is ;mtk=" + key));
  EXPECT_TRUE(log.has(5, "Via ip:port(127.0.0.3:5080) Domain table entry ip:port(127.0.0.3:5080)"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(NetworkToUaRequest, FreshInviteOverUdpAfterA100) {
  LogCapture log;
  forward(kUdp, network_udp, fromNetwork("INVITE", kUdpVia, kContact));
  ASSERT_EQ(connector.udp_clients.size(), 2U);
  const FakeClientUdp& to_client = *connector.udp_clients[0];
  const FakeClientUdp& to_network = *connector.udp_clients[1];
  EXPECT_EQ(connector.client_opens[connector.client_opens.size() - 2],
            (FakeConnector::Open{"UDP", "127.0.0.1", 5060, "127.0.0.1", 5070}));
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, kNetPort, kProxyIp, kProxyPort}));

  ASSERT_EQ(to_network.sent.size(), 1U);
  EXPECT_TRUE(to_network.sent[0].starts_with("SIP/2.0 100 trying\r\n"));
  EXPECT_EQ(value(to_network.sent[0], "Via"), kUdpVia);
  ASSERT_EQ(to_client.sent.size(), 1U);
  EXPECT_EQ(value(to_client.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key + ";st=0");
  EXPECT_EQ(value(to_client.sent[0], "Contact"), "<sip:bob@127.0.0.3:5080;transport=tcp;mtk=" + key + ">;+g.x");
  EXPECT_TRUE(connector.closed(&to_client));
  EXPECT_TRUE(log.has_part(5, "Received a request on connection=0x"));
  EXPECT_TRUE(log.has(5, " Sending 100 Trying for method=INVITE"));
  EXPECT_TRUE(log.has_part(5, "Sent the request on connection=0x"));
  EXPECT_TRUE(toClient(5070).sent.empty());
}

TEST_F(NetworkToUaRequest, OnlyInviteAndReferGetA100) {
  for (const char* method : {"INVITE", "REFER"}) {
    forward(kTcp, network, fromNetwork(method, kVia));
    EXPECT_EQ(network.sent.size(), 1U) << method;
    network.sent.clear();
    forward(kUdp, network_udp, fromNetwork(method, kUdpVia));
    EXPECT_EQ(connector.udp_clients.size(), 2U) << method;
    connector.udp_clients.clear();
  }
  for (const char* method : {"MESSAGE", "NOTIFY", "BYE", "ACK", "OPTIONS", "invite"}) {
    forward(kTcp, network, fromNetwork(method, kVia));
    EXPECT_TRUE(network.sent.empty()) << method;
    forward(kUdp, network_udp, fromNetwork(method, kUdpVia));
    EXPECT_EQ(connector.udp_clients.size(), 1U) << method;
    connector.udp_clients.clear();
  }
  EXPECT_EQ(toClient(5070).sent.size(), 8U);
}

TEST_F(NetworkToUaRequest, A100ThatWouldLackAHeaderIsNotSentAndTheRequestGoesOn) {
  LogCapture log(4);
  forward(
      kTcp, network,
      sipRequest(
          "INVITE", "sip:127.0.0.2",
          {{"Via", kVia}, {"From", "<sip:bob@home.net>;tag=1"}, {"To", "<sip:alice@home.net>"}, {"CSeq", "1 INVITE"}}));
  EXPECT_TRUE(network.sent.empty());
  EXPECT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_TRUE(log.has_part(4, "100 trying not sent: Call-ID")) << log.read();
}

TEST_F(NetworkToUaRequest, AViaWithoutBranchGetsOneToBeTakenOutAgain) {
  LogCapture log;
  forward(kTcp, network, fromNetwork("MESSAGE", "SIP/2.0/TCP 127.0.0.3:5080;rport"));
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5070).sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;rport;branch=z9hG4bK-nobranch;mtk=" + key + ";st=" + tag);
  EXPECT_TRUE(log.has(5, "set Branch "));
}

TEST_F(NetworkToUaRequest, AConnectionThatIsNotInTheTableGivesNoStTag) {
  FakeServerTcp unknown;
  forward(kTcp, unknown, fromNetwork("MESSAGE", kVia));
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5070).sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + key);
}

TEST_F(NetworkToUaRequest, OnlyTheDomainsOwnProxyMayAsk) {
  for (const char* via :
       {"SIP/2.0/TCP 127.0.0.9:5080;branch=z9hG4bK-n1", "SIP/2.0/TCP 127.0.0.3:5081;branch=z9hG4bK-n1",
        "SIP/2.0/TCP proxy.home.net:5080;branch=z9hG4bK-n1", "SIP/2.0/TCP 127.0.0.3;branch=z9hG4bK-n1",
        "SIP/2.0/TCP 127.0.0.3:05080;branch=z9hG4bK-n1"}) {
    LogCapture log;
    forward(kTcp, network, fromNetwork("INVITE", via));
    forward(kUdp, network_udp, fromNetwork("INVITE", via));
    expectNothingSent();
    EXPECT_EQ(log.count(3, "ERROR ? : Request coming from ip:port not in the domain table"), 2) << via;
    EXPECT_TRUE(log.has(3, "ERROR: check why client or domain key empty")) << via;
    EXPECT_TRUE(log.has(4, "ERROR: check why client_key/domain_key empty")) << via;
  }
}

TEST_F(NetworkToUaRequest, AViaWithoutPortMeans5060) {
  addDomain("2", "127.0.0.5", 5060, "TCP");
  const std::string other = addAlice(5071, "2", "carol@home.net");
  LogCapture log;
  forward(
      kTcp, network,
      sipRequest(
          "MESSAGE", "sip:127.0.0.2",
          {{"Via", "SIP/2.0/TCP 127.0.0.5;branch=z9hG4bK-n1"}, {"From", "<sip:b@h>"}, {"To", "<sip:carol@home.net>"}}));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5071).sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mtk=" + other + ";st=" + tag);
  EXPECT_TRUE(log.has(5, "Via ip:port(127.0.0.5:5060) Domain table entry ip:port(127.0.0.5:5060)"));
}

/// Of two tags the one that stands earlier counts; the UA-to-network direction goes by the later one.
TEST_F(NetworkToUaRequest, SubsequentRequestGoesByTheEarlierTag) {
  const std::string second = addAlice(5071, "1", "x@home.net");
  struct Row {
    std::string tags;
    int port;
    std::string written;
    std::vector<std::string> lines;
  };
  const std::string base = "sip:127.0.0.2:5060";
  const Row rows[] = {
      {";mtk=" + second + ";mok=" + key, 5071, ";mtk=" + second, {" MT SIDE request : Req-URI is "}},
      {";mok=" + key + ";mtk=" + second, 5070, ";mok=" + key, {" MO SIDE request : Req-URI is "}},
      {";mok=" + second, 5071, ";mok=" + second, {" Dialog with a  new type of UA", " MO SIDE IS OUR UA: Req-URI is "}},
      {";mtk=" + second,
       5071,
       ";mtk=" + second,
       {" Dialog with a  new type of UA", " MT SIDE IS OUR UA : Req-URI is "}},
  };
  for (const Row& row : rows) {
    LogCapture log;
    forward(kTcp, network, fromNetwork("BYE", kVia, {}, base + row.tags));
    ASSERT_FALSE(toClient(row.port).sent.empty()) << row.tags;
    EXPECT_EQ(value(toClient(row.port).sent.back(), "Via"),
              "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1" + row.written + ";st=" + tag)
        << row.tags;
    EXPECT_EQ(uri(toClient(row.port).sent.back()), base + row.tags);
    for (const std::string& line : row.lines)
      EXPECT_TRUE(log.has(5, line.back() == 'A' ? line : line + base + row.tags)) << line;
    EXPECT_TRUE(log.has(5, "SUBSEQUENT REQUEST, Client key=" + row.written.substr(5) + ";Domain key=" + domain_key));
  }
  EXPECT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_EQ(toClient(5071).sent.size(), 3U);
}

TEST_F(NetworkToUaRequest, ATagThatStandsTwiceStandsWhereItsFirstDoes) {
  const std::string second = addAlice(5071, "1", "x@home.net");
  forward(kTcp, network,
          fromNetwork("BYE", kVia, {}, "sip:127.0.0.2:5060;mok=" + key + ";mtk=" + second + ";mok=" + second));
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5070).sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mok=" + key + ";st=" + tag);
  EXPECT_TRUE(toClient(5071).sent.empty());
}

TEST_F(NetworkToUaRequest, AProfileInTheRequestUriNamesTheDomain) {
  const std::string named = addDomain("2", "127.0.0.5", 5090, "UDP");
  LogCapture log;
  const std::string request_uri = "sip:127.0.0.2:5060;profile=2;mok=" + key;
  forward(kTcp, network, fromNetwork("NOTIFY", "SIP/2.0/TCP 127.0.0.5:5090;branch=z9hG4bK-n1", {}, request_uri));
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5070).sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-n1;mok=" + key + ";st=" + tag);
  EXPECT_TRUE(log.has(5, "SUBSEQUENT Request for REG_UA"));
  EXPECT_TRUE(log.has(5, "SUBSEQUENT REQUEST, Client key=" + key + ";Domain key=" + named));
  // The client's own domain's proxy is not that domain's.
  forward(kTcp, network, fromNetwork("NOTIFY", kVia, {}, request_uri));
  EXPECT_EQ(toClient(5070).sent.size(), 1U);
  EXPECT_TRUE(log.has(3, "ERROR ? : Request coming from ip:port not in the domain table"));
}

TEST_F(NetworkToUaRequest, AKeyOrProfileThatNamesNobodyDropsTheRequest) {
  for (const std::string& bad :
       {std::string(";mok=424242"), std::string(";mtk="), ";profile=77;mok=" + key, std::string(";mok=;mtk=;x")}) {
    LogCapture log;
    forward(kTcp, network, fromNetwork("BYE", kVia, {}, "sip:127.0.0.2" + bad));
    forward(kUdp, network_udp, fromNetwork("BYE", kUdpVia, {}, "sip:127.0.0.2" + bad));
    expectNothingSent();
    EXPECT_EQ(log.count(3, "ERROR: check why client or domain key empty"), 3) << bad;  // twice in the rewrite
    EXPECT_EQ(log.count(4, "ERROR: check why client_key/domain_key empty"), 1) << bad;
  }
  EXPECT_EQ(table->client("424242"), nullptr);
}

TEST_F(NetworkToUaRequest, AProfileIsReadForAnyKeyButNotForAnEmptyOne) {
  LogCapture log;
  forward(kTcp, network, fromNetwork("BYE", kVia, {}, "sip:127.0.0.2;profile=1;mok=424242"));
  EXPECT_TRUE(log.has(5, "SUBSEQUENT Request for REG_UA"));
  EXPECT_TRUE(log.has(5, "SUBSEQUENT REQUEST, Client key=424242;Domain key=" + domain_key));
  log.clear();
  forward(kTcp, network, fromNetwork("BYE", kVia, {}, "sip:127.0.0.2;profile=1;mok="));
  EXPECT_FALSE(log.has(5, "SUBSEQUENT Request for REG_UA"));
  EXPECT_TRUE(log.has(5, "SUBSEQUENT REQUEST, Client key=;Domain key="));
  expectNothingSent();
}

TEST_F(NetworkToUaRequest, ARequestForNobodyIsDroppedUnanswered) {
  LogCapture log;
  forward(kTcp, network,
          sipRequest("INVITE", "sip:127.0.0.2",
                     {{"Via", kVia}, {"From", "<sip:b@h>"}, {"To", "<sip:stranger@home.net>"}, {"CSeq", "1 INVITE"}}));
  expectNothingSent();
  EXPECT_TRUE(log.has(5, "FRESH REQUEST, Domain key=, Client key="));
  EXPECT_EQ(log.count(3, "ERROR: check why client or domain key empty"), 2);
}

TEST_F(NetworkToUaRequest, AClientWithoutDomainDropsTheRequest) {
  ASSERT_TRUE(table->deleteDomain(DT_PROFILE_ID, "1"));
  LogCapture log;
  forward(kTcp, network, fromNetwork("INVITE", kVia));
  expectNothingSent();
  EXPECT_EQ(log.count(3, "ERROR: check why client or domain key empty"), 2);
}

TEST_F(NetworkToUaRequest, AMissingOrBrokenViaDropsTheRequest) {
  for (const std::string& text : {sipRequest("INVITE", "sip:h", {{"To", "<sip:alice@home.net>"}}),
                                  fromNetwork("INVITE", "nonsense"), std::string("garbage\r\n\r\n")}) {
    LogCapture log;
    forward(kTcp, network, text);
    forward(kUdp, network_udp, text);
    expectNothingSent();
    EXPECT_EQ(log.count(3, "createSIPHeaderObject failed for viah"), 2) << text;
    EXPECT_EQ(log.count(3, "ERROR: check why client or domain key empty"), 1) << text;
    EXPECT_EQ(log.count(4, "ERROR: check why client_key/domain_key empty"), 1) << text;
  }
}

TEST_F(NetworkToUaRequest, AUdpConnectionThatDoesNotOpenDropsTheRequestAndThe100) {
  connector.refused_peers.insert("127.0.0.1:5070");
  LogCapture log;
  forward(kUdp, network_udp, fromNetwork("INVITE", kUdpVia));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dst)=(127.0.0.1:5060,127.0.0.1:5070)"));
}

TEST_F(NetworkToUaRequest, AClientWithoutConnectionDropsTheRequestAndThe100) {
  connector.refused_peers.insert("127.0.0.1:5071");
  const std::string unreachable = addAlice(5071, "1", "carol@home.net");
  LogCapture log(4);
  forward(kTcp, network, fromNetwork("INVITE", kVia, {}, "sip:127.0.0.2;mtk=" + unreachable));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "no connection for client key=" + unreachable + ", message dropped"));
  EXPECT_EQ(log.count(3), 1) << log.read();
}

TEST_F(NetworkToUaRequest, AConnectionThatTakesNothingGetsOneLine) {
  toClient(5070).send_result = -1;
  LogCapture log(4);
  forward(kTcp, network, fromNetwork("MESSAGE", kVia));
  EXPECT_TRUE(log.has_part(3, " of client key=" + key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1) << log.read();
}

TEST_F(NetworkToUaRequest, AUdpConnectionThatTakesNothingIsClosedWithOneLine) {
  DeafConnector deaf;
  IMS_User_Agent::ua_connector = &deaf;
  LogCapture log(4);
  forward(kUdp, network_udp, fromNetwork("MESSAGE", kUdpVia));
  ASSERT_EQ(deaf.udp_clients.size(), 1U);
  EXPECT_TRUE(deaf.closed(deaf.udp_clients[0].get()));
  EXPECT_TRUE(log.has_part(3, " of client key=" + key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

}  // namespace
