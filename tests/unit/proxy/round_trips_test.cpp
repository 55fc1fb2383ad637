// Whole exchanges through the proxy: what a user agent or the network gets back is what it sent, and later requests of
// the dialog find their way by what stands in the messages.
#include <gtest/gtest.h>

#include "proxy/proxy_fixture.h"

namespace {

class RoundTrip : public ProxyFixture {
 protected:
  RoundTrip() {
    addNetwork();
    ClientTable_Entry_T entry;
    entry.ua_port = "5070";
    entry.uri = "sip:alice@127.0.0.1";
    entry.profile_id = "1";
    entry.aors = {makeAor("alice@home.net")};
    alice = addClient(entry);
    entry.ua_port = "5071";
    entry.uri = "sip:bob@127.0.0.1";
    entry.aors = {makeAor("bob@home.net")};
    bob = addClient(entry);
    accept(ua);
    accept(other_ua);
    accept(network);
  }
  /// The URI in a Contact: where the next request of the dialog goes.
  static std::string target(const std::string& text) {
    const std::string contact = value(text, "Contact");
    return contact.substr(1, contact.find('>') - 1);
  }
  std::string lastUdp() const { return connector.lastUdp()->sent.at(0); }

  std::string alice, bob;
};

constexpr const char* kUaVias[] = {"SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport",
                                   "SIP/2.0/TCP 127.0.0.1:5070;rport;branch=z9hG4bK-1;alias",
                                   "SIP/2.0/TCP 127.0.0.1:5070"};
const FakeHeaders kUaContact = {{"Contact", "<sip:alice@127.0.0.1:5070>"}};
const FakeHeaders kNetworkContact = {{"Contact", "<sip:bob@127.0.0.3:5080>"}};

TEST_F(RoundTrip, UaToNetworkOverTcp) {
  for (const std::string via : kUaVias) {
    forward(&IMS_engine_proxy::process_ua_to_network_tcp_request, ua, fromClient("INVITE", via, kUaContact));
    const std::string out = toNetwork().sent.back();
    EXPECT_NE(value(out, "Via"), via);
    toNetwork().set(answer(out, 200, "OK", kNetworkContact));
    engine->process_network_to_ua_tcp_response(&toNetwork());
    EXPECT_EQ(values(ua.sent.back(), "Via"), std::vector<std::string>{via});
  }
  EXPECT_TRUE(other_ua.sent.empty());
  // The caller's next request, to the tagged contact, and its answer.
  forward(&IMS_engine_proxy::process_ua_to_network_tcp_request, ua,
          fromClient("BYE", kUaVias[0], {}, target(ua.sent.back())));
  const std::string bye = toNetwork().sent.back();
  EXPECT_EQ(uri(bye), "sip:bob@127.0.0.3:5080;mok=" + alice);
  toNetwork().set(answer(bye, 200, "OK"));
  engine->process_network_to_ua_tcp_response(&toNetwork());
  EXPECT_EQ(value(ua.sent.back(), "Via"), kUaVias[0]);
  // The network's request to the caller's tagged contact.
  forward(&IMS_engine_proxy::process_network_to_ua_tcp_request, network,
          fromNetwork("BYE", "SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1", {}, target(toNetwork().sent.front())));
  EXPECT_EQ(toClient(5070).sent.size(), 1U);
}

TEST_F(RoundTrip, UaToNetworkOverUdp) {
  const std::string via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
  forward(&IMS_engine_proxy::process_ua_to_network_udp_request, udp, fromClient("INVITE", via, kUaContact));
  network_udp.set(answer(lastUdp(), 200, "OK", kNetworkContact));
  engine->process_network_to_ua_udp_response(&network_udp);
  EXPECT_EQ(values(lastUdp(), "Via"), std::vector<std::string>{via});
  EXPECT_EQ(connector.lastUdp()->peer_port, 5070);
  EXPECT_EQ(target(lastUdp()), "sip:bob@127.0.0.3:5080;mok=" + alice);
}

TEST_F(RoundTrip, NetworkToUaOverTcp) {
  for (const std::string via :
       {"SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1", "SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bK-n1;rport;x=\"a;b\"",
        "SIP/2.0/TCP 127.0.0.3:5080;rport", "SIP/2.0/TCP 127.0.0.3:5080"}) {
    forward(&IMS_engine_proxy::process_network_to_ua_tcp_request, network, fromNetwork("MESSAGE", via));
    const std::string in = toClient(5070).sent.back();
    toClient(5070).set(answer(in, 200, "OK", kUaContact));
    engine->process_ua_to_network_tcp_response(&toClient(5070));
    EXPECT_EQ(values(network.sent.back(), "Via"),
              (std::vector<std::string>{via, "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"}));
  }
}

TEST_F(RoundTrip, NetworkToUaOverUdpAndBackWithinTheDialog) {
  const std::string via = "SIP/2.0/UDP 127.0.0.3:5080;branch=z9hG4bK-n1";
  forward(&IMS_engine_proxy::process_network_to_ua_udp_request, network_udp,
          fromNetwork("INVITE", via, kNetworkContact));
  ASSERT_EQ(connector.udp_clients.size(), 2U);  // to the client; the 100
  const std::string invite = connector.udp_clients[0]->sent.at(0);
  udp.set(answer(invite, 200, "OK", kUaContact));
  engine->process_ua_to_network_udp_response(&udp);
  const std::string ok = lastUdp();
  EXPECT_EQ(value(ok, "Via"), via);
  EXPECT_EQ(connector.lastUdp()->peer_port, kProxyPort);
  EXPECT_EQ(target(ok), "sip:alice@127.0.0.1:5070;mtk=" + alice);
  // Both sides go on with the tagged contacts.
  forward(&IMS_engine_proxy::process_network_to_ua_udp_request, network_udp, fromNetwork("ACK", via, {}, target(ok)));
  EXPECT_EQ(connector.lastUdp()->peer_port, 5070);
  forward(&IMS_engine_proxy::process_ua_to_network_udp_request, udp,
          fromClient("BYE", "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-3", {}, target(invite)));
  EXPECT_EQ(connector.lastUdp()->peer_port, kProxyPort);
  EXPECT_EQ(value(lastUdp(), "Via"), "SIP/2.0/UDP 127.0.0.2:5060;branch=z9hG4bK-3;mtk=" + alice + ";st=0");
}

TEST_F(RoundTrip, ABodyIsForwardedByteForByte) {
  const std::string body("v=0\r\na=\0\xff\r\n\r\nINVITE sip:x SIP/2.0\r\n", 36);
  forward(&IMS_engine_proxy::process_ua_to_network_tcp_request, ua,
          fromClient("INVITE", kUaVias[0], {{"Content-Type", "application/sdp"}}, "sip:bob@home.net", body));
  const std::string out = toNetwork().sent.at(0);
  ASSERT_TRUE(out.ends_with("\r\n\r\n" + body));
  toNetwork().set(answer(out, 200, "OK", {}, body));
  engine->process_network_to_ua_tcp_response(&toNetwork());
  EXPECT_TRUE(ua.sent.at(0).ends_with("\r\n\r\n" + body));
}

std::string localRequest(std::string_view method, const std::string& via, std::string_view request_uri,
                         const FakeHeaders& more = {}) {
  FakeHeaders headers = {{"Via", via},
                         {"From", "<sip:alice@127.0.0.1>;tag=a1"},
                         {"To", "<sip:bob@127.0.0.1>"},
                         {"Call-ID", "local-1"},
                         {"CSeq", "1 " + std::string(method)}};
  headers.insert(headers.end(), more.begin(), more.end());
  return sipRequest(method, request_uri, headers);
}

TEST_F(RoundTrip, LocalDialogOverUdpGoesOnFromBothSides) {
  const std::string via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
  udp.set(localRequest("INVITE", via, "sip:bob@127.0.0.1", kUaContact));
  engine->process_ua_to_ua_udp_request(&udp);
  EXPECT_EQ(connector.lastUdp()->peer_port, 5071);
  const std::string invite = lastUdp();
  udp.set(answer(invite, 200, "OK", {{"Contact", "<sip:bob@127.0.0.1:5071>"}}));
  engine->process_ua_to_ua_udp_response(&udp);
  EXPECT_EQ(connector.lastUdp()->peer_port, 5070);
  const std::string ok = lastUdp();
  EXPECT_EQ(value(ok, "Via"), via);

  udp.set(localRequest("ACK", via, target(ok)));
  engine->process_ua_to_ua_udp_request(&udp);
  EXPECT_EQ(connector.lastUdp()->peer_port, 5071);

  const std::string bob_via = "SIP/2.0/UDP 127.0.0.1:5071;branch=z9hG4bK-2";
  udp.set(localRequest("BYE", bob_via, target(invite)));
  engine->process_ua_to_ua_udp_request(&udp);
  EXPECT_EQ(connector.lastUdp()->peer_port, 5070);
  udp.set(answer(lastUdp(), 200, "OK"));
  engine->process_ua_to_ua_udp_response(&udp);
  EXPECT_EQ(connector.lastUdp()->peer_port, 5071);
  EXPECT_EQ(value(lastUdp(), "Via"), bob_via);
}

/// Over TCP the called side's contact comes back with the st text in its dcli: the calling side's later requests name
/// no client. Those of the called side arrive.
TEST_F(RoundTrip, LocalDialogOverTcpGoesOnFromTheCalledSideOnly) {
  const std::string via = "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
  ua.set(localRequest("INVITE", via, "sip:bob@127.0.0.1", kUaContact));
  engine->process_ua_to_ua_tcp_request(&ua);
  ASSERT_EQ(toClient(5071).sent.size(), 1U);
  const std::string invite = toClient(5071).sent[0];
  toClient(5071).set(answer(invite, 200, "OK", {{"Contact", "<sip:bob@127.0.0.1:5071>"}}));
  engine->process_ua_to_ua_tcp_response(&toClient(5071));
  ASSERT_EQ(ua.sent.size(), 1U);
  const std::string ok = ua.sent[0];
  EXPECT_EQ(value(ok, "Via"), via);

  LogCapture log(4);
  ua.set(localRequest("ACK", via, target(ok)));
  engine->process_ua_to_ua_tcp_request(&ua);
  EXPECT_EQ(toClient(5071).sent.size(), 1U);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"ERROR: check why dst_client_key/src_client_key empty"});

  const std::string bob_via = "SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bK-2";
  other_ua.set(localRequest("BYE", bob_via, target(invite)));
  engine->process_ua_to_ua_tcp_request(&other_ua);
  ASSERT_EQ(toClient(5070).sent.size(), 1U);
  toClient(5070).set(answer(toClient(5070).sent[0], 200, "OK"));
  engine->process_ua_to_ua_tcp_response(&toClient(5070));
  ASSERT_EQ(other_ua.sent.size(), 1U);
  EXPECT_EQ(value(other_ua.sent[0], "Via"), bob_via);
}

}  // namespace
