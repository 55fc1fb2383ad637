#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "engine/sip_client_tcp_transport_listener.h"
#include "registrar/domain.h"
#include "support/engine_fixture.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

std::string routeInfo(const std::string& profile_id) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<route-info>\n  <profile-info>\n    <zel-profile-id>" +
         profile_id + "</zel-profile-id>\n  </profile-info>\n</route-info>\n";
}

std::string command(const std::string& action, const std::string& profile_id, const std::string& ip_type_port,
                    const std::string& device_name = "127.0.0.2") {
  return "<?xml version=\"1.0\"?><route-info><action>" + action + "</action><profile-info><zel-profile-id>" +
         profile_id + "</zel-profile-id></profile-info><device-name>" + device_name + "</device-name><ip-type-port>" +
         ip_type_port + "</ip-type-port></route-info>";
}

class RouteCommand : public EngineFixture {
 protected:
  static std::string message(const std::string& body, const FakeHeaders& more = {}) {
    FakeHeaders headers = {{"Via", "SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bKr"},
                           {"Max-Forwards", "70"},
                           {"From", "<sip:fw@127.0.0.1>;tag=f"},
                           {"To", "<sip:127.0.0.1>"},
                           {"Call-ID", "route-1"},
                           {"CSeq", "3 MESSAGE"},
                           {"Content-Type", "application/xml"}};
    headers.insert(headers.end(), more.begin(), more.end());
    return sipRequest("MESSAGE", "sip:127.0.0.1:5060", headers, body);
  }
  /// How many answers the command got.
  std::size_t run(const std::string& body) {
    local.sent.clear();
    local.set(message(body));
    engine->handle_proxy_message(&local);
    return local.sent.size();
  }
  /// The body of the one answer.
  std::string answer() const {
    if (local.sent.size() != 1) return "(" + std::to_string(local.sent.size()) + " answers)";
    const SIPLIB_message sent = local.lastSent();
    EXPECT_EQ(sent.statusCode(), 200);
    return std::string(sent.body());
  }
  const DomainTable_Entry_T* domain(const std::string& profile_id) const {
    return table->domain(table->findDomain(DT_PROFILE_ID, profile_id));
  }

  FakeServerTcp local{"127.0.0.1", 5060, "127.0.0.1", 40000};
};

TEST_F(RouteCommand, OneOfAUserWhoMayNotControlIsDroppedWithOneLine) {
  ASSERT_EQ(run(command("set-route", "1", "127.0.0.3:TCP:5070")), 1u);
  connector.control_refused = "user id 7 may not control the proxy";
  LogCapture log(4);
  for (const char* const action : {"set-route", "update-route", "delete-route"}) {
    EXPECT_EQ(run(command(action, "1", "127.0.0.4:TCP:5070")), 0u);
  }
  EXPECT_EQ(run(""), 0u);
  EXPECT_EQ(log.count(4, "route command from 127.0.0.1:40000 dropped: user id 7 may not control the proxy"), 4);
  EXPECT_EQ(log.lines().size(), 4u);
  ASSERT_NE(domain("1"), nullptr);
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.3");
}

TEST_F(RouteCommand, SetRouteAddsADomain) {
  LogCapture log;
  EXPECT_EQ(run(command("set-route", "1", "127.0.0.3:TCP:5070", "eth9")), 1u);
  EXPECT_EQ(answer(), routeInfo("1"));
  const DomainTable_Entry_T* entry = domain("1");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->domain.profile_id, "1");
  EXPECT_EQ(entry->domain.net_intf, "eth9");
  EXPECT_EQ(entry->domain.proxy_ip, "127.0.0.3");
  EXPECT_EQ(entry->domain.proxy_port, "5070");
  EXPECT_EQ(entry->domain.proxy_transport, "TCP");
  EXPECT_EQ(entry->domain.mode_flag, "no");
  EXPECT_EQ(entry->domain.route_set, "");
  EXPECT_EQ(entry->domain.username, "");
  EXPECT_EQ(entry->domain.password, "");
  EXPECT_EQ(entry->domain.op_mode, "");
  EXPECT_TRUE(entry->domain.sa_info_list.empty());
  EXPECT_EQ(entry->tcp_client_conn, connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070));
  EXPECT_FALSE(log.has(5, "returned from get_credentials"));
  EXPECT_TRUE(log.has(5, "ip_type_port=127.0.0.3:TCP:5070, proxy_ip=127.0.0.3, proxy_transport=TCP"));
  EXPECT_TRUE(log.has(5, "proxy_port=5070, device_name=eth9, profile_id=1, action=set-route"));
  char pointer[40];
  std::snprintf(pointer, sizeof pointer, "conn=%x",
                static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(&local)));
  EXPECT_EQ(log.lines()[0].text, pointer);
  EXPECT_EQ(log.lines()[0].function, "handle_proxy_message");
}

TEST_F(RouteCommand, SetRouteTakesTheCredentialsThatTheRegistrarHas) {
  const TemporaryDir dir;
  dir.write("profiles/home.xml",
            "<network-profile><impi>alice@example.com</impi><secret>sesame</secret>"
            "<operation-mode>ietf-shared</operation-mode></network-profile>");
  const std::string config_dir = IMS_User_Agent::config_dir();
  IMS_User_Agent::set_config_dir(dir.path());
  engine->init_registrar();
  FakeServerConnection reg(sipRequest("REGISTER", "sip:127.0.0.1",
                                      {{"Via", "SIP/2.0/TCP 127.0.0.1:40001;branch=z9hG4bK1"},
                                       {"From", "<sip:alice@127.0.0.1>;tag=1"},
                                       {"To", "<sip:alice@127.0.0.1>"},
                                       {"Contact", "<sip:alice@127.0.0.1:40001>"},
                                       {"Expires", "3600"},
                                       {"Call-ID", "reg"},
                                       {"CSeq", "1 REGISTER"},
                                       {"Content-Type", "application/xml"}},
                                      "<ua-info><profile-info><name>home</name></profile-info></ua-info>"));
  engine->handle_registrar_register_message(&reg);
  ASSERT_EQ(IMSE_Registrar::get_instance()->domains().size(), 1u);
  const std::string id = std::to_string(IMSE_Registrar::get_instance()->domains()[0]->get_prof_id());

  LogCapture log;
  EXPECT_EQ(run(command("set-route", id, "127.0.0.3:TCP:5070")), 1u);
  ASSERT_NE(domain(id), nullptr);
  EXPECT_EQ(domain(id)->domain.username, "alice@example.com");
  EXPECT_EQ(domain(id)->domain.password, "sesame");
  EXPECT_EQ(domain(id)->domain.op_mode, "ietf-shared");
  EXPECT_TRUE(log.has(5, "returned from get_credentials"));
  EXPECT_TRUE(log.has(5, "username is alice@example.com, password is sesame, op_mode is ietf-shared"));
  IMS_User_Agent::set_config_dir(config_dir);
}

TEST_F(RouteCommand, SetRouteIgnoresTokensBeyondTheThird) {
  EXPECT_EQ(run(command("set-route", "1", "127.0.0.3:UDP:5070:more:and more")), 1u);
  ASSERT_NE(domain("1"), nullptr);
  EXPECT_EQ(domain("1")->domain.proxy_port, "5070");
  EXPECT_EQ(domain("1")->tcp_client_conn, nullptr);
}

TEST_F(RouteCommand, SetRouteOfAKnownProfileKeepsTheDomainAndIsAnswered) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  EXPECT_EQ(run(command("set-route", "1", "127.0.0.4:UDP:5080")), 1u);
  EXPECT_EQ(answer(), routeInfo("1"));
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.3");
  EXPECT_EQ(domain("1")->domain.proxy_transport, "TCP");
}

TEST_F(RouteCommand, SetRouteThatCannotListenIsAnsweredAllTheSame) {
  connector.refuse_notifiers = true;
  EXPECT_EQ(run(command("set-route", "1", "127.0.0.3:TCP:5070")), 1u);
  EXPECT_EQ(answer(), routeInfo("1"));
  EXPECT_EQ(domain("1"), nullptr);
}

TEST_F(RouteCommand, DeleteRouteRemovesTheDomainWhateverTheAddressIs) {
  for (const char* address : {"", "rubbish", "127.0.0.3:TCP", "127.0.0.3:TCP:5070"}) {
    run(command("set-route", "1", "127.0.0.3:TCP:5070"));
    FakeClientTcp* connection = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
    LogCapture log;
    EXPECT_EQ(run(command("delete-route", "1", address)), 1u);
    EXPECT_EQ(answer(), routeInfo("1"));
    EXPECT_EQ(domain("1"), nullptr);
    EXPECT_FALSE(connection->open);
    EXPECT_FALSE(log.has_part(5, "ip_type_port="));
  }
}

TEST_F(RouteCommand, DeleteRouteOfAnUnknownProfileIsAnswered) {
  EXPECT_EQ(run(command("delete-route", "99", "")), 1u);
  EXPECT_EQ(answer(), routeInfo("99"));
}

TEST_F(RouteCommand, UpdateRouteMovesATcpDomain) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070", "eth9"));
  FakeClientTcp* old = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  EXPECT_EQ(run(command("update-route", "1", "127.0.0.4:TCP:5080", "eth1")), 1u);
  EXPECT_EQ(answer(), routeInfo("1"));
  EXPECT_FALSE(old->open);
  const DomainTable_Entry_T* entry = domain("1");
  EXPECT_EQ(entry->domain.proxy_ip, "127.0.0.4");
  EXPECT_EQ(entry->domain.proxy_port, "5080");
  EXPECT_EQ(entry->domain.net_intf, "eth9");
  ASSERT_NE(entry->tcp_client_conn, nullptr);
  EXPECT_EQ(entry->tcp_client_conn, connector.tcpClient(kNetIp, kNetPort, "127.0.0.4", 5080));
  EXPECT_EQ(connector.tcpClient(kNetIp, kNetPort, "127.0.0.4", 5080)->listener, IMS_engine_proxy::client_list);
}

TEST_F(RouteCommand, UpdateRouteChangesTheAddressOrThePortAlone) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  run(command("update-route", "1", "127.0.0.3:TCP:5071"));
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.3");
  EXPECT_EQ(domain("1")->domain.proxy_port, "5071");
  run(command("update-route", "1", "127.0.0.4:TCP:5071"));
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.4");
  EXPECT_EQ(domain("1")->domain.proxy_port, "5071");
  EXPECT_EQ(domain("1")->tcp_client_conn, connector.tcpClient(kNetIp, kNetPort, "127.0.0.4", 5071));
}

TEST_F(RouteCommand, UpdateRouteWithOnlyAnotherTransportChangesNothing) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  const FakeClientTcp* connection = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  const std::size_t opens = connector.client_opens.size();
  EXPECT_EQ(run(command("update-route", "1", "127.0.0.3:UDP:5070")), 1u);
  EXPECT_EQ(answer(), routeInfo("1"));
  EXPECT_TRUE(connection->open);
  EXPECT_EQ(connector.client_opens.size(), opens);
  EXPECT_TRUE(connector.closes.empty());
  EXPECT_EQ(domain("1")->domain.proxy_transport, "TCP");
}

TEST_F(RouteCommand, UpdateRouteToUdpClosesTheConnectionAndOpensNone) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  const FakeClientTcp* connection = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  const std::size_t opens = connector.client_opens.size();
  LogCapture log;
  EXPECT_EQ(run(command("update-route", "1", "127.0.0.4:UDP:5080")), 1u);
  EXPECT_TRUE(log.has(5, "UDP mode is specified for client connection"));
  EXPECT_FALSE(connection->open);
  EXPECT_EQ(connector.client_opens.size(), opens);
  EXPECT_EQ(domain("1")->tcp_client_conn, connection) << "the field keeps its old value";
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.4");
  EXPECT_EQ(domain("1")->domain.proxy_port, "5080");
  EXPECT_EQ(domain("1")->domain.proxy_transport, "TCP") << "the transport is never changed";
}

TEST_F(RouteCommand, UpdateRouteKnowsTcpInCapitalsOnly) {
  for (const char* transport : {"tcp", "Tcp", "TCP ", "TLS"}) {
    run(command("delete-route", "1", ""));
    run(command("set-route", "1", "127.0.0.3:tcp:5070"));
    ASSERT_NE(domain("1")->tcp_client_conn, nullptr) << "set-route knows it in any case";
    const std::size_t opens = connector.client_opens.size();
    LogCapture log;
    EXPECT_EQ(run(command("update-route", "1", std::string("127.0.0.4:") + transport + ":5080")), 1u);
    EXPECT_TRUE(log.has(5, "UDP mode is specified for client connection")) << transport;
    EXPECT_EQ(connector.client_opens.size(), opens);
  }
}

TEST_F(RouteCommand, TwoProfilesWithOneProxyShareItsConnectionToTheLast) {
  for (const char* first : {"delete-route", "update-route"}) {
    run(command("set-route", "1", "127.0.0.3:TCP:5070"));
    run(command("set-route", "2", "127.0.0.3:TCP:5070"));
    FakeClientTcp* shared = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
    ASSERT_EQ(domain("2")->tcp_client_conn, shared);
    run(command(first, "1", "127.0.0.4:UDP:5080"));
    EXPECT_FALSE(connector.closed(shared)) << first;
    EXPECT_EQ(domain("2")->tcp_client_conn, shared);
    if (domain("1") != nullptr) {
      EXPECT_EQ(domain("1")->tcp_client_conn, nullptr) << "nothing leads to the old proxy";
    }
    run(command("update-route", "2", "127.0.0.4:TCP:5080"));
    EXPECT_TRUE(connector.closed(shared));
    EXPECT_EQ(domain("2")->tcp_client_conn, connector.tcpClient(kNetIp, kNetPort, "127.0.0.4", 5080));
    run(command("delete-route", "1", ""));
    run(command("delete-route", "2", ""));
    connector.closes.clear();
  }
}

TEST_F(RouteCommand, AnotherProfileThatOpensTheOldProxyLeavesTheFirstWithoutIt) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  FakeClientTcp* old = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  run(command("update-route", "1", "127.0.0.4:UDP:5080"));
  EXPECT_EQ(domain("1")->tcp_client_conn, old) << "closed for good, so it may stay";
  run(command("set-route", "2", "127.0.0.3:TCP:5070"));
  EXPECT_EQ(domain("2")->tcp_client_conn, old);
  EXPECT_EQ(domain("1")->tcp_client_conn, nullptr);
  connector.closes.clear();
  run(command("delete-route", "1", ""));
  EXPECT_FALSE(connector.closed(old));
  run(command("delete-route", "2", ""));
  EXPECT_TRUE(connector.closed(old));
}

TEST_F(RouteCommand, AConnectionThatAClientHasTooIsLeftToIt) {
  IMS_engine_proxy::net_intf_ip = IMS_engine_proxy::localhost_ip;  // all on one address
  addClient(5070);
  run(command("set-route", "1", "127.0.0.1:TCP:5070"));
  FakeClientTcp* shared = connector.tcpClient("127.0.0.1", kNetPort, "127.0.0.1", 5070);
  ASSERT_EQ(domain("1")->tcp_client_conn, shared);
  run(command("delete-route", "1", ""));
  EXPECT_FALSE(connector.closed(shared));
}

TEST_F(RouteCommand, TheLibraryIsToldTheProxiesOfAllDomains) {
  using Addresses = std::set<std::string>;
  const auto told = [&] { return Addresses(connector.proxies.begin(), connector.proxies.end()); };
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  EXPECT_EQ(told(), (Addresses{"127.0.0.3"}));
  run(command("set-route", "2", "127.0.0.4:UDP:5070"));
  EXPECT_EQ(told(), (Addresses{"127.0.0.3", "127.0.0.4"}));
  run(command("update-route", "1", "127.0.0.5:UDP:5070"));
  EXPECT_EQ(told(), (Addresses{"127.0.0.5", "127.0.0.4"}));
  run(command("delete-route", "1", ""));
  EXPECT_EQ(told(), (Addresses{"127.0.0.4"}));
}

TEST_F(RouteCommand, AThousandRoutesThatComeAndGoOpenOneListener) {
  for (int i = 0; i < 1000; ++i) {
    run(command("set-route", "1", "127.0.0.3:UDP:5070"));
    ASSERT_NE(domain("1")->pnotifier, nullptr);
    run(command("delete-route", "1", ""));
  }
  EXPECT_EQ(connector.notifiers.size(), 1u);
  EXPECT_TRUE(connector.notifiers[0]->open) << "nobody closes it";
  run(command("set-route", "1", "127.0.0.3:UDP:5070"));
  run(command("set-route", "2", "127.0.0.3:UDP:5070"));
  EXPECT_NE(domain("1")->pnotifier, domain("2")->pnotifier) << "each domain has its own";
  EXPECT_EQ(connector.notifiers.size(), 2u);
}

TEST_F(RouteCommand, UpdateRouteOfAUdpDomainToTcpOpensAConnection) {
  run(command("set-route", "1", "127.0.0.3:UDP:5070"));
  EXPECT_EQ(run(command("update-route", "1", "127.0.0.4:TCP:5080")), 1u);
  EXPECT_TRUE(connector.closes.empty());
  EXPECT_EQ(domain("1")->tcp_client_conn, connector.tcpClient(kNetIp, kNetPort, "127.0.0.4", 5080));
  EXPECT_NE(domain("1")->tcp_client_conn, nullptr);
}

TEST_F(RouteCommand, UpdateRouteThatCannotConnectLeavesTheDomainWithoutConnection) {
  run(command("set-route", "1", "127.0.0.3:TCP:5070"));
  connector.refused_peers.insert("127.0.0.4:5080");
  EXPECT_EQ(run(command("update-route", "1", "127.0.0.4:TCP:5080")), 1u);
  EXPECT_EQ(domain("1")->tcp_client_conn, nullptr);
  EXPECT_EQ(domain("1")->domain.proxy_ip, "127.0.0.4");
}

TEST_F(RouteCommand, UpdateRouteOfAnUnknownProfileIsNotAnswered) {
  LogCapture log;
  EXPECT_EQ(run(command("update-route", "99", "127.0.0.4:TCP:5080")), 0u);
  EXPECT_TRUE(log.has(3, "ERROR: update-route called for a non-existing entry"));
}

TEST_F(RouteCommand, OtherActionsAreAcknowledgedWithoutEffect) {
  LogCapture log;
  EXPECT_EQ(run(command("dance", "5", "a:b:c")), 1u);
  EXPECT_EQ(answer(), routeInfo("5"));
  EXPECT_EQ(domain("5"), nullptr);
  EXPECT_TRUE(log.has(5, "proxy_port=c, device_name=127.0.0.2, profile_id=5, action=dance"));
}

TEST_F(RouteCommand, WithoutABodyIsNotAnswered) {
  LogCapture log;
  EXPECT_EQ(run(""), 0u);
  EXPECT_TRUE(log.has(3, "ERROR: check why the getContent() returns empty string"));
  EXPECT_EQ(log.count(3), 1);
}

TEST_F(RouteCommand, WithFewerThanThreeTokensIsNotAnswered) {
  for (const char* address : {"", "127.0.0.3", "127.0.0.3:TCP", "127.0.0.3::5070", "::::"}) {
    for (const char* action : {"set-route", "update-route", "dance"}) {
      LogCapture log;
      EXPECT_EQ(run(command(action, "1", address)), 0u);
      EXPECT_TRUE(log.has(3, "ERROR: check why address/transport/port is incorrect"));
    }
  }
  EXPECT_EQ(domain("1"), nullptr);
}

TEST_F(RouteCommand, ThatDoesNotParseIsRefused) {
  const std::string good = command("set-route", "1", "127.0.0.3:TCP:5070");
  const std::vector<std::string> bodies = {"rubbish",
                                           "<",
                                           good.substr(0, good.size() / 2),
                                           std::string(3, '\0'),
                                           "<!DOCTYPE a [<!ENTITY b 'c'>]>" + good,
                                           std::string(70000, ' ') + good};
  for (const std::string& body : bodies) {
    LogCapture log;
    EXPECT_EQ(run(body), 0u);
    EXPECT_TRUE(log.has_part(3, "ERROR: check why")) << body.substr(0, 40);
  }
  EXPECT_EQ(domain("1"), nullptr);
}

TEST_F(RouteCommand, AnswerCopiesTheHeadersOfTheRequestInOrder) {
  local.set(message(command("dance", "5", "a:b:c"), {{"Via", "SIP/2.0/UDP 192.0.2.1;branch=z9hG4bKx"}}));
  LogCapture log;
  engine->send_message_ok(&local);
  ASSERT_EQ(local.sent.size(), 1u);
  EXPECT_EQ(local.sent[0].rfind("SIP/2.0 200 OK\r\n"
                                "From: <sip:fw@127.0.0.1>;tag=f\r\n"
                                "To: <sip:127.0.0.1>\r\n"
                                "Call-ID: route-1\r\n"
                                "CSeq: 3 MESSAGE\r\n"
                                "Max-Forwards: 70\r\n"
                                "Via: SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bKr\r\n",
                                0),
            0u)
      << local.sent[0];
  const SIPLIB_message sent = local.lastSent();
  EXPECT_EQ(sent.headerCount("Via"), 1u) << "the topmost alone";
  EXPECT_FALSE(sent.header("Content-Type"));
  EXPECT_EQ(sent.body(), routeInfo("5"));
  EXPECT_TRUE(log.has(5, "Sending 200 OK on MESSAGE "));
  EXPECT_TRUE(log.has_part(5, "Body in 200 OK MESSAGE = <?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
}

TEST_F(RouteCommand, AnswerLeavesOutWhatIsLongerThanItsBuffer) {
  local.set(message(command("dance", "5", "a:b:c"), {}));
  local.setHeader("Call-ID", std::string(256, 'c'));
  LogCapture log(4);
  engine->send_message_ok(&local);
  EXPECT_FALSE(local.lastSent().header("Call-ID"));
  EXPECT_TRUE(local.lastSent().header("CSeq"));
  EXPECT_EQ(log.lines().size(), 1u);

  local.set(message(command("dance", "5", "a:b:c"), {}));
  local.setHeader("Call-ID", std::string(255, 'c'));
  local.setHeader("Via", "SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bK" + std::string(500, 'v'));
  engine->send_message_ok(&local);
  EXPECT_EQ(local.lastSent().header("Call-ID")->size(), 255u);
  EXPECT_GT(local.lastSent().header("Via")->size(), 500u) << "the Via has no limit";
}

TEST_F(RouteCommand, AnswerWithoutABodyNamesNoProfile) {
  local.set(message(""));
  LogCapture log;
  engine->send_message_ok(&local);
  EXPECT_TRUE(log.has(5, "ERROR: check why the getContent() returns empty string"));
  EXPECT_EQ(local.lastSent().body(), routeInfo(""));
}

TEST_F(RouteCommand, OverUdpIsAnsweredOnItsConnection) {
  FakeServerUdp datagrams("127.0.0.1", 5060, "127.0.0.1", 40000);
  datagrams.set(message(command("set-route", "1", "127.0.0.3:UDP:5070")));
  engine->handle_proxy_message(&datagrams);
  ASSERT_EQ(datagrams.sent.size(), 1u);
  EXPECT_EQ(datagrams.lastSent().body(), routeInfo("1"));
  EXPECT_NE(domain("1"), nullptr);
}

TEST_F(RouteCommand, NeedsAConnection) {
  LogCapture log;
  engine->handle_proxy_message(nullptr);
  engine->send_message_ok(nullptr);
  EXPECT_EQ(log.count(3), 2);
}

}  // namespace
