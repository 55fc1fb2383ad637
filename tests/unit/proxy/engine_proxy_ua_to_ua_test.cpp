#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

constexpr const char* kVia = "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
constexpr const char* kUdpVia = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport";

class UaToUa : public ProxyFixture {
 protected:
  UaToUa() {
    alice = addAgent(5070, "sip:alice@127.0.0.1");
    bob = addAgent(5071, "sip:bob@127.0.0.1", "presence", "presence-server");
    tag = accept(ua);
  }
  std::string addAgent(int port, const std::string& agent_uri, const std::string& events = {},
                       const std::string& packages = {}) {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(port);
    entry.uri = agent_uri;
    entry.aors = {makeAor("", {}, events)};
    entry.packages = packages;
    return addClient(entry);
  }
  static std::string request(std::string_view method, const std::string& via, const FakeHeaders& more = {},
                             const std::string& to = "<sip:bob@127.0.0.1:5060>",
                             std::string_view request_uri = "sip:bob@127.0.0.1:5060") {
    FakeHeaders headers = {{"Via", via},
                           {"From", "<sip:alice@127.0.0.1>;tag=a1"},
                           {"To", to},
                           {"Call-ID", "local-1"},
                           {"CSeq", "1 " + std::string(method)}};
    headers.insert(headers.end(), more.begin(), more.end());
    return sipRequest(method, request_uri, headers);
  }
  static std::string response(const std::string& via, const FakeHeaders& more = {}) {
    FakeHeaders headers = {
        {"Via", via}, {"From", "<sip:alice@127.0.0.1>;tag=a1"}, {"To", "<sip:bob@127.0.0.1>"}, {"CSeq", "1 INVITE"}};
    headers.insert(headers.end(), more.begin(), more.end());
    return sipResponse(200, "OK", headers);
  }
  void tcpRequest(const std::string& text) {
    ua.set(text);
    engine->process_ua_to_ua_tcp_request(&ua);
  }
  void udpRequest(const std::string& text) {
    udp.set(text);
    engine->process_ua_to_ua_udp_request(&udp);
  }
  void tcpResponse(const std::string& text) {
    toClient(5071).set(text);
    engine->process_ua_to_ua_tcp_response(&toClient(5071));
  }
  void udpResponse(const std::string& text) {
    udp.set(text);
    engine->process_ua_to_ua_udp_response(&udp);
  }
  void expectNothingSent() {
    EXPECT_TRUE(toClient(5070).sent.empty());
    EXPECT_TRUE(toClient(5071).sent.empty());
    EXPECT_TRUE(ua.sent.empty());
    EXPECT_TRUE(connector.udp_clients.empty());
  }
  std::string alice, bob, tag;
};

TEST_F(UaToUa, FreshRequestReachesTheClientWithTheUriOfTo) {
  LogCapture log;
  tcpRequest(request("MESSAGE", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070;ob>;q=1"}}));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  const std::string& sent = toClient(5071).sent[0];
  // No semicolon before "st=": the dcli of such a Via reads back with the tag's text in it.
  EXPECT_EQ(value(sent, "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;rport;scli=" + alice + ";dcli=" + bob + "st=" + tag);
  EXPECT_EQ(value(sent, "Contact"), "<sip:alice@127.0.0.1:5070;ob;scli=" + bob + ";dcli=" + alice + ">;q=1");
  EXPECT_EQ(value(sent, "Record-Route"), "<sip:127.0.0.1:5060>");
  EXPECT_EQ(value(sent, "User-agent"), "(absent)");
  EXPECT_TRUE(log.has_part(5, "Received a request on connection=0x"));
  EXPECT_TRUE(log.has(5, "TO contains the name of the destination client"));
  EXPECT_TRUE(log.has(5, "Fresh request, scli(SourceClient)=" + alice + ", dcli(Destination Client)=" + bob));
  EXPECT_TRUE(log.has_part(5, "Sent the request on connection=0x"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(UaToUa, FreshRequestOverUdp) {
  LogCapture log;
  udpRequest(request("MESSAGE", kUdpVia, {{"Contact", "<sip:alice@127.0.0.1:5070>"}}));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", "127.0.0.1", 5060, "127.0.0.1", 5071}));
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(value(out.sent[0], "Via"),
            "SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-1;rport;scli=" + alice + ";dcli=" + bob + ";st=0");
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:alice@127.0.0.1:5070;scli=" + bob + ";dcli=" + alice + ">");
  EXPECT_EQ(value(out.sent[0], "Record-Route"), "<sip:127.0.0.1:5060>");
  EXPECT_TRUE(connector.closed(&out));
  EXPECT_TRUE(log.has_part(5, "Sent the request on connection=0x"));
}

TEST_F(UaToUa, TheHostOfTheViaStaysAsTheClientWroteIt) {
  udpRequest(request("MESSAGE", "SIP/2.0/UDP terminal.local:5070;branch=z9hG4bK-1"));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  EXPECT_EQ(value(connector.udp_clients[0]->sent.at(0), "Via"),
            "SIP/2.0/UDP terminal.local:5060;branch=z9hG4bK-1;scli=" + alice + ";dcli=" + bob + ";st=0");
}

TEST_F(UaToUa, RecordRouteGoesOnTopOfOthers) {
  tcpRequest(request("INVITE", kVia, {{"Record-Route", "<sip:127.0.0.1:5999;lr>"}}));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(values(toClient(5071).sent[0], "Record-Route"),
            (std::vector<std::string>{"<sip:127.0.0.1:5060>", "<sip:127.0.0.1:5999;lr>"}));
}

TEST_F(UaToUa, AConnectionThatIsNotInTheTableGivesNoStTag) {
  other_ua.set(request("MESSAGE", kVia));
  engine->process_ua_to_ua_tcp_request(&other_ua);
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5071).sent[0], "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;rport;scli=" + alice + ";dcli=" + bob);
}

TEST_F(UaToUa, SubscribeWithoutUserGoesToTheClientOfThePackage) {
  LogCapture log;
  tcpRequest(request("SUBSCRIBE", kVia, {{"Event", "presence-server"}}, "<sip:127.0.0.1>", "sip:127.0.0.1:5060"));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_TRUE(log.has(5, "TO doesn't contain the name of the destination client"));
  EXPECT_TRUE(log.has(5, "Routing based on EVENT(method=SUBSCRIBE) presence-server"));
  EXPECT_TRUE(log.has(5, "Found a destination client based on package presence-server"));
}

TEST_F(UaToUa, NotifyWithoutUserGoesToTheOneClientOfTheEvent) {
  LogCapture log;
  tcpRequest(request("NOTIFY", kVia, {{"Event", "presence"}}, "<sip:127.0.0.1:5060>", "sip:127.0.0.1:5060"));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_TRUE(log.has(5, "Found a destination client based on event supported=presence"));
}

TEST_F(UaToUa, WithoutUserWhatNoEventLeadsAnywhereIsRefused) {
  addAgent(5072, "sip:carol@127.0.0.1", "presence,dialog");
  struct Row {
    const char* what;
    const char* method;
    FakeHeaders headers;
  };
  const Row rows[] = {
      {"an event that two clients support", "NOTIFY", {{"Event", "presence"}}},
      {"an event that nobody supports", "NOTIFY", {{"Event", "conference"}}},
      {"a package is not an event", "NOTIFY", {{"Event", "presence-server"}}},
      {"an event is not a package", "SUBSCRIBE", {{"Event", "dialog"}}},
      {"no event", "SUBSCRIBE", {}},
      {"an empty event", "SUBSCRIBE", {{"Event", ""}}},
      {"another method", "PUBLISH", {{"Event", "presence-server"}}},
      {"another method without event", "INVITE", {}},
  };
  for (const Row& row : rows) {
    LogCapture log;
    tcpRequest(request(row.method, kVia, row.headers, "<sip:127.0.0.1>"));
    expectNothingSent();
    EXPECT_TRUE(log.has(3, std::string("ERROR: Can't route ") + row.method + " request")) << row.what;
    EXPECT_TRUE(log.has(4, "ERROR: check why dst_client_key/src_client_key empty")) << row.what;
  }
}

TEST_F(UaToUa, AnUnknownDestinationIsRefused) {
  LogCapture log;
  tcpRequest(request("MESSAGE", kVia, {}, "<sip:nobody@127.0.0.1:5060;x=y>"));
  udpRequest(request("MESSAGE", kUdpVia, {}, "<sip:nobody@127.0.0.1:5060;x=y>"));
  expectNothingSent();
  EXPECT_EQ(log.count(3, "ERROR: Can't find any destination client based on from_address (sip:nobody@127.0.0.1)"), 2);
  EXPECT_EQ(log.count(4, "ERROR: check why dst_client_key/src_client_key empty"), 1);  // TCP
  EXPECT_EQ(log.count(3, "ERROR: check why dst_client_key/src_client_key empty"), 1);  // UDP
}

TEST_F(UaToUa, AnUnknownSourceIsRefused) {
  LogCapture log;
  tcpRequest(request("MESSAGE", "SIP/2.0/TCP 127.0.0.1:6666;branch=z9hG4bK-1"));
  tcpRequest(request("MESSAGE", "SIP/2.0/TCP 127.0.0.1;branch=z9hG4bK-1"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "ERROR: Can't find any client based on port (6666)"));
  EXPECT_TRUE(log.has(3, "ERROR: Can't find any client based on port (0)"));
}

TEST_F(UaToUa, ABrokenToOrViaIsRefused) {
  LogCapture log;
  tcpRequest(request("MESSAGE", kVia, {}, "<sip:unclosed"));
  EXPECT_TRUE(log.has(3, "createSIPAddressObject failed for addr"));
  log.clear();
  tcpRequest(request("MESSAGE", "nonsense"));
  tcpRequest("garbage\r\n\r\n");
  EXPECT_EQ(log.count(3, "createSIPHeaderObject failed for viah"), 2);
  expectNothingSent();
}

TEST_F(UaToUa, InDialogRequestLosesItsRoutesAndGoesToTheDcliClient) {
  LogCapture log;
  const std::string in_dialog = "sip:alice@127.0.0.1:5070;scli=" + bob + ";dcli=" + alice;
  tcpRequest(request("BYE", "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-2",
                     {{"Route", "<sip:127.0.0.1:5060>, <sip:127.0.0.1:5061>"},
                      {"Route", "<sip:127.0.0.1:5062>"},
                      {"Contact", "<sip:bob@127.0.0.1:5071>"}},
                     "<sip:nobody@127.0.0.1>", in_dialog));
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  const std::string& sent = toClient(5070).sent[0];
  EXPECT_EQ(value(sent, "Route"), "(absent)");
  EXPECT_EQ(value(sent, "Record-Route"), "(absent)");
  EXPECT_EQ(value(sent, "Via"),
            "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-2;scli=" + bob + ";dcli=" + alice + "st=" + tag);
  EXPECT_EQ(value(sent, "Contact"), "<sip:bob@127.0.0.1:5071;scli=" + alice + ";dcli=" + bob + ">");
  EXPECT_TRUE(log.has(5, "Request within a Dialog: scli(Source Client)=" + bob + ";dcli(Destination Client)=" + alice));
}

TEST_F(UaToUa, AContactThatIsTaggedAlreadyIsRetagged) {
  tcpRequest(request("INVITE", kVia, {{"Contact", "<sip:alice@127.0.0.1:5070;scli=77;dcli=78;ob>"}}));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5071).sent[0], "Contact"), "<sip:alice@127.0.0.1:5070;scli=" + bob + ";dcli=" + alice + ">");
}

TEST_F(UaToUa, InDialogRequestForNobodyIsDroppedWithOneLine) {
  for (const std::string& dcli : {std::string("424242"), bob + "st=" + tag, std::string()}) {
    LogCapture log(3);
    tcpRequest(request("BYE", kVia, {}, "<sip:bob@127.0.0.1>", "sip:127.0.0.1;scli=" + alice + ";dcli=" + dcli));
    EXPECT_EQ(log.count(3), 0) << log.read();
    udpRequest(request("BYE", kUdpVia, {}, "<sip:bob@127.0.0.1>", "sip:127.0.0.1;scli=" + alice + ";dcli=" + dcli));
    EXPECT_EQ(log.count(3), 1) << log.read();
    EXPECT_TRUE(log.has(3, "ERROR: check why dst_client_key/src_client_key empty"));
    expectNothingSent();
  }
  LogCapture log(4);
  tcpRequest(request("BYE", kVia, {}, "<sip:bob@127.0.0.1>", "sip:127.0.0.1;scli=" + alice + ";dcli=424242"));
  EXPECT_TRUE(log.has(4, "ERROR: check why dst_client_key/src_client_key empty"));
  EXPECT_EQ(table->client("424242"), nullptr);
}

TEST_F(UaToUa, AnEmptyScliIsAFreshRequest) {
  tcpRequest(request("MESSAGE", kVia, {{"Route", "<sip:127.0.0.1:5060>"}}, "<sip:bob@127.0.0.1>",
                     "sip:127.0.0.1;scli=;dcli=424242"));
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(value(toClient(5071).sent[0], "Route"), "<sip:127.0.0.1:5060>");
}

TEST_F(UaToUa, AClientWithoutConnectionDropsTheRequestWithOneLine) {
  connector.refused_peers.insert("127.0.0.1:5072");
  const std::string carol = addAgent(5072, "sip:carol@127.0.0.1");
  LogCapture log(4);
  tcpRequest(request("MESSAGE", kVia, {}, "<sip:carol@127.0.0.1>"));
  EXPECT_TRUE(log.has(3, "no connection for client key=" + carol + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
  log.clear();
  udpRequest(request("MESSAGE", kUdpVia, {}, "<sip:carol@127.0.0.1>"));
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dst)=(127.0.0.1:5060,127.0.0.1:5072)"));
  expectNothingSent();
}

TEST_F(UaToUa, AConnectionThatTakesNothingGetsOneLine) {
  toClient(5071).send_result = -1;
  LogCapture log(4);
  tcpRequest(request("MESSAGE", kVia));
  EXPECT_TRUE(log.has_part(3, " of client key=" + bob + ", message dropped"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(UaToUa, ResponseGoesBackOnTheConnectionOfTheStTag) {
  accept(other_ua);
  LogCapture log;
  tcpResponse(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;rport;scli=" + alice + ";dcli=" + bob + "st=" + tag,
                       {{"Contact", "<sip:bob@127.0.0.1:5071>"}}));
  ASSERT_EQ(ua.sent.size(), 1U);
  EXPECT_TRUE(other_ua.sent.empty());
  EXPECT_EQ(value(ua.sent[0], "Via"), "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport");
  EXPECT_EQ(value(ua.sent[0], "Contact"), "<sip:bob@127.0.0.1:5071;scli=" + alice + ";dcli=" + bob + "st=" + tag + ">");
  EXPECT_TRUE(log.has_part(5, "Received a response on connection=0x"));
  EXPECT_TRUE(
      log.has(5, "scli(Source Client)=" + alice + ";dcli(Destination Client)=" + bob + "st=" + tag + ";st=" + tag));
  EXPECT_TRUE(log.has_part(5, "Sent the response on connection=0x"));
}

TEST_F(UaToUa, AConnectionOfTheNetworkIsNoUserAgents) {
  const std::string networks = accept(network);
  LogCapture log(3);
  tcpResponse(
      response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;scli=" + alice + ";dcli=" + bob + "st=" + networks));
  EXPECT_TRUE(network.sent.empty());
  EXPECT_EQ(log.texts(), std::vector<std::string>{"sc is NULL for stag = " + networks});
}

TEST_F(UaToUa, ResponseOverUdpGoesToTheSourceClientsPort) {
  LogCapture log;
  udpResponse(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-1;scli=" + alice + ";dcli=" + bob + ";st=0",
                       {{"Contact", "<sip:bob@127.0.0.1:5071;scli=9;dcli=8>"}}));
  EXPECT_TRUE(log.has_part(5, "Received a response on connection=0x"));
  EXPECT_TRUE(log.has_part(5, "Sent the response on connection=0x"));
  ASSERT_EQ(connector.udp_clients.size(), 1U);
  const FakeClientUdp& out = *connector.udp_clients[0];
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", "127.0.0.1", 5060, "127.0.0.1", 5070}));
  ASSERT_EQ(out.sent.size(), 1U);
  EXPECT_EQ(value(out.sent[0], "Via"), "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1");
  EXPECT_EQ(value(out.sent[0], "Contact"), "<sip:bob@127.0.0.1:5071;scli=" + alice + ";dcli=" + bob + ">");
  EXPECT_TRUE(connector.closed(&out));
}

TEST_F(UaToUa, AResponseWithoutScliIsDropped) {
  LogCapture log;
  tcpResponse(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;dcli=" + bob + ";st=" + tag));
  udpResponse(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-1;scli=;dcli=" + bob + ";st=0"));
  expectNothingSent();
  EXPECT_EQ(log.count(5, "ERROR: check why scli is not present"), 2);
  EXPECT_EQ(log.count(3, "ERROR: check why returning src_client_key=, stag="), 2);
}

TEST_F(UaToUa, AResponseThatLacksATagOrNamesNobodyIsDropped) {
  struct Row {
    std::string tags, key, st;
  };
  const Row rows[] = {
      {";scli=" + alice + ";st=" + tag, alice, tag},
      {";scli=" + alice + ";dcli=;st=" + tag, alice, tag},
      {";scli=" + alice + ";dcli=" + bob, alice, ""},
      {";scli=424242;dcli=" + bob + ";st=" + tag, "424242", tag},
  };
  for (const Row& row : rows) {
    LogCapture log;
    tcpResponse(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1" + row.tags));
    udpResponse(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-1" + row.tags));
    expectNothingSent();
    EXPECT_EQ(log.count(3, "ERROR: Either source client/destination client key/tag is empty"), 2) << row.tags;
    EXPECT_EQ(log.count(3, "ERROR: check why returning src_client_key=" + row.key + ", stag=" + row.st), 2) << row.tags;
  }
}

TEST_F(UaToUa, AResponseWithBrokenViaIsDropped) {
  LogCapture log;
  tcpResponse(response("nonsense"));
  udpResponse("garbage\r\n\r\n");
  expectNothingSent();
  EXPECT_EQ(log.count(3, "createSIPHeaderObject failed"), 2);
  EXPECT_FALSE(log.has_part(3, "viah"));
}

TEST_F(UaToUa, AResponseWhoseConnectionHasGoneIsDropped) {
  LogCapture log;
  tcpResponse(response("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK-1;scli=" + alice + ";dcli=" + bob + "st=gone"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "sc is NULL for stag = gone"));
  log.clear();
  connector.refused_peers.insert("127.0.0.1:5070");
  udpResponse(response("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK-1;scli=" + alice + ";dcli=" + bob + ";st=0"));
  expectNothingSent();
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dst)=(127.0.0.1:5060,127.0.0.1:5070)"));
}

}  // namespace
