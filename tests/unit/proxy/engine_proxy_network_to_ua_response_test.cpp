#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

class NetworkToUaResponse : public ProxyFixture {
 protected:
  NetworkToUaResponse() {
    domain_key = addNetwork();
    key = addClient(5070, "1");
    tag = accept(ua);
  }
  void tcp(const std::string& text) {
    toNetwork().set(text);
    engine->process_network_to_ua_tcp_response(&toNetwork());
  }
  void udpMessage(const std::string& text) {
    network_udp.set(text);
    engine->process_network_to_ua_udp_response(&network_udp);
  }
  static std::string response(const std::string& via, const FakeHeaders& more = {}, int status = 200,
                              std::string_view cseq = "1 INVITE") {
    FakeHeaders headers = {{"Via", via},
                           {"From", "<sip:alice@home.net>;tag=a1"},
                           {"To", "<sip:bob@home.net>;tag=b1"},
                           {"Call-ID", "call-1@terminal"},
                           {"CSeq", std::string(cseq)}};
    headers.insert(headers.end(), more.begin(), more.end());
    return sipResponse(status, "Whatever", headers);
  }
  std::string domain_key, key, tag;
};

TEST_F(NetworkToUaResponse, GoesBackOnTheConnectionOfTheStTag) {
  accept(other_ua);
  LogCapture log;
  tcp(response(
      "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;rport=5060;mok=" + key + ";st=" + tag + ";received=127.0.0.2",
      {{"Contact", "<sip:bob@127.0.0.3:5080;transport=tcp>;q=1"}}));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_TRUE(other_ua.sent.empty());
  EXPECT_EQ(value(ua.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport=5060");
  EXPECT_EQ(value(ua.sent[0], "Contact"), "<sip:bob@127.0.0.3:5080;transport=tcp;mok=" + key + ">;q=1");
  EXPECT_TRUE(log.has_part(5, "Received a response on connection=0x"));
  EXPECT_TRUE(log.has(5, "Via Client key=" + key + ";st=" + tag));
  EXPECT_TRUE(log.has_part(5, "Sent the response on connection=0x"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(NetworkToUaResponse, AConnectionOfTheNetworkIsNoUserAgents) {
  const std::string networks = accept(network);
  LogCapture log(3);
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=" + networks));
  EXPECT_TRUE(network.sent.empty());
  EXPECT_EQ(log.texts(), std::vector<std::string>{"sc is NULL for stag = " + networks});
}

TEST_F(NetworkToUaResponse, OverUdpGoesToTheClientsPort) {
  LogCapture log;
  udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;mtk=" + key + ";st=0",
                      {{"Contact", "<sip:bob@127.0.0.3:5080>"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", "127.0.0.1", 5060, "127.0.0.1", 5070}));
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(value(out.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1");
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:bob@127.0.0.3:5080;mtk=" + key + ">");
  EXPECT_TRUE(connector.closed(&out));
  EXPECT_TRUE(log.has_part(5, "Sent the response on connection=0x"));
}

TEST_F(NetworkToUaResponse, UdpDoesNotPickTheConnectionByTheStTag) {
  udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=" + tag));
  EXPECT_TRUE(ua.sent.empty());
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  EXPECT_EQ(connector.udp_clients[0]->sent.size(), 1U);
}

TEST_F(NetworkToUaResponse, OfTwoTagsInTheViaMokWins) {
  const std::string second = addClient(5071, "1");
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mtk=" + second + ";mok=" + key + ";st=" + tag));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_EQ(value(ua.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;mtk=" + second);
}

/// The cut begins at the client's tag; a profile tag stands before it and stays. User agents ignore it.
TEST_F(NetworkToUaResponse, TheProfileTagBeforeTheClientTagStaysInTheVia) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;profile=1;mok=" + key + ";st=" + tag));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_EQ(value(ua.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;profile=1");
}

TEST_F(NetworkToUaResponse, AContactWithoutBracketsStaysUntagged) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=" + tag,
               {{"Contact", "sip:bob@127.0.0.3"}}));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_EQ(value(ua.sent[0], "Contact"), "sip:bob@127.0.0.3");
}

TEST_F(NetworkToUaResponse, WithoutKeyOrStTagIsDroppedOnBothTransports) {
  struct Row {
    std::string tags, key, st;
  };
  const Row rows[] = {
      {";mok=" + key, key, ""},
      {";mok=" + key + ";st=", key, ""},
      {";st=" + tag, "", tag},
      {";mok=;st=" + tag, "", tag},
      {"", "", ""},
      {";mok=424242;st=" + tag, "424242", tag},
  };
  for (const Row& row : rows) {
    LogCapture log;
    tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1" + row.tags));
    udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1" + row.tags));
    EXPECT_TRUE(ua.sent.empty()) << row.tags;
    EXPECT_TRUE(connector.udp_clients.empty()) << row.tags;
    EXPECT_EQ(log.count(3, "ERROR: Either client key/tag is empty"), 2) << row.tags;
    EXPECT_EQ(log.count(3, "ERROR: check why returning client_key=" + row.key + ", stag=" + row.st), 2) << row.tags;
  }
  EXPECT_EQ(table->client("424242"), nullptr);
}

TEST_F(NetworkToUaResponse, AMissingOrBrokenViaIsDropped) {
  for (const std::string& text :
       {sipResponse(200, "OK", {{"CSeq", "1 INVITE"}}), response("nonsense"), std::string("garbage\r\n\r\n")}) {
    LogCapture log;
    tcp(text);
    udpMessage(text);
    EXPECT_TRUE(ua.sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
    EXPECT_EQ(log.count(3, "createSIPHeaderObject failed for viah"), 2);
    EXPECT_EQ(log.count(3, "ERROR: check why returning client_key=, stag="), 2);
  }
}

TEST_F(NetworkToUaResponse, AConnectionThatHasGoneDropsTheResponse) {
  LogCapture log;
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=gone"));
  EXPECT_TRUE(ua.sent.empty());
  EXPECT_TRUE(log.has(3, "sc is NULL for stag = gone"));
}

TEST_F(NetworkToUaResponse, AUdpConnectionThatDoesNotOpenDropsTheResponse) {
  connector.refused_peers.insert("127.0.0.1:5070");
  LogCapture log;
  udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=0"));
  EXPECT_TRUE(connector.udp_clients.empty());
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dst)=(127.0.0.1:5060,127.0.0.1:5070)"));
}

TEST_F(NetworkToUaResponse, AConnectionThatTakesNothingGetsOneLine) {
  ua.send_result = -1;
  LogCapture log(4);
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=" + tag));
  EXPECT_TRUE(log.has_part(3, " of client key=" + key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(NetworkToUaResponse, AUdpConnectionThatTakesNothingIsClosedWithOneLine) {
  DeafConnector deaf;
  IMS_User_Agent::ua_connector = &deaf;
  LogCapture log(4);
  udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + key + ";st=0"));
  ASSERT_EQ(deaf.udp_clients.size(), 1U);
  EXPECT_TRUE(deaf.closed(deaf.udp_clients[0].get()));
  EXPECT_TRUE(log.has_part(3, " of client key=" + key + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

class Challenge : public NetworkToUaResponse {
 protected:
  Challenge() {
    own = addSharedDomain("21", 5021, "ietf-shared");
    named = addSharedDomain("22", 5022, "ietf-shared");
    other_mode = addSharedDomain("23", 5023, "3gpp");
    client = addClient(6021, "21");
    client_of_other_mode = addClient(6023, "23");
  }
  std::string addSharedDomain(const std::string& profile_id, int port, const std::string& mode) {
    Domain_Entry_T entry;
    entry.profile_id = profile_id;
    entry.proxy_ip = kProxyIp;
    entry.proxy_port = std::to_string(port);
    entry.proxy_transport = "TCP";
    entry.op_mode = mode;
    EXPECT_TRUE(table->addDomain(entry));
    return table->findDomain(DT_PROFILE_ID, profile_id);
  }
  static FakeHeaders challenge(const char* name = "WWW-Authenticate") {
    return {{name, "Digest realm=\"home.net\", nonce=\"n1\""}};
  }
  std::string own, named, other_mode, client, client_of_other_mode;
};

TEST_F(Challenge, IsRecordedForTheClientsDomainAndForwarded) {
  LogCapture log;
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client + ";st=" + tag,
               challenge("Proxy-Authenticate"), 407));
  EXPECT_NE(auth->auth_info(own), nullptr);
  EXPECT_TRUE(log.has(5, "Request is CHALLENGED"));
  EXPECT_TRUE(log.has(5, "Mode is ietf-shared, domain key is " + own));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_EQ(value(ua.sent[0], "Proxy-Authenticate"), "Digest realm=\"home.net\", nonce=\"n1\"");
}

TEST_F(Challenge, ToARegisterWithAProfileIsRecordedForThatProfilesDomain) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;profile=22;mok=" + client + ";st=" + tag, challenge(), 401,
               "1 REGISTER"));
  EXPECT_NE(auth->auth_info(named), nullptr);
  EXPECT_EQ(auth->auth_info(own), nullptr);
  EXPECT_EQ(ua.sent.size(), 1U);
}

/// The profile is read before the Via is restored, which may cut it away.
TEST_F(Challenge, FindsAProfileThatStandsBehindTheClientTag) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client + ";profile=22;st=" + tag, challenge(),
               401));
  EXPECT_NE(auth->auth_info(named), nullptr);
  EXPECT_EQ(auth->auth_info(own), nullptr);
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_EQ(value(ua.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:6021;branch=z9hG4bK-1");
}

TEST_F(Challenge, OverUdpIsRecordedToo) {
  udpMessage(response("SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client + ";st=0", challenge(), 401));
  EXPECT_NE(auth->auth_info(own), nullptr);
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  EXPECT_EQ(connector.udp_clients[0]->sent.size(), 1U);
}

TEST_F(Challenge, InAnotherModeIsOnlyForwardedAndLaterRequestsStayAsTheyAre) {
  LogCapture log;
  const std::string via = "SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client_of_other_mode + ";st=" + tag;
  tcp(response(via, challenge(), 401));
  tcp(response(via, challenge("Proxy-Authenticate"), 407));
  EXPECT_EQ(auth->auth_info(other_mode), nullptr);
  EXPECT_EQ(ua.sent.size(), 2U);
  EXPECT_EQ(log.count(5, "Mode is 3gpp, domain key is " + other_mode), 2);
  forward(&IMS_engine_proxy::process_ua_to_network_tcp_request, ua,
          fromClient("INVITE", "SIP/2.0/TCP 127.0.0.1:6023;branch=z9hG4bK-2", {{"Authorization", "Digest own=1"}}));
  const FakeClientTcp& out = *connector.tcpClient(kNetIp, kNetPort, kProxyIp, 5023);
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(values(out.sent[0], "Authorization"), std::vector<std::string>{"Digest own=1"});
  EXPECT_EQ(value(out.sent[0], "Proxy-Authorization"), "(absent)");
}

TEST_F(Challenge, IsRecordedAlsoWhenTheClientsConnectionHasGone) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client + ";st=gone", challenge(), 401));
  EXPECT_NE(auth->auth_info(own), nullptr);
  EXPECT_TRUE(ua.sent.empty());
}

TEST_F(Challenge, ForAProfileThatIsGoneIsOnlyForwarded) {
  LogCapture log;
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;profile=99;mok=" + client + ";st=" + tag, challenge(),
               401));
  EXPECT_EQ(auth->auth_info(own), nullptr);
  EXPECT_EQ(auth->auth_info(""), nullptr);
  EXPECT_EQ(ua.sent.size(), 1U);
  EXPECT_TRUE(log.has(5, "Mode is , domain key is "));
}

TEST_F(Challenge, IsNothingElse) {
  tcp(response("SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bK-1;mok=" + client + ";st=" + tag, challenge(), 403));
  EXPECT_EQ(auth->auth_info(own), nullptr);
  EXPECT_EQ(ua.sent.size(), 1U);
}

}  // namespace
