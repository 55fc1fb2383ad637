// The queue's events, and which operation each message is given to.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "siplib/transaction.h"
#include "support/engine_fixture.h"
#include "support/log_capture.h"

namespace {

constexpr const char* kLocalTo = "<sip:bob@127.0.0.1>";
constexpr const char* kNetworkTo = "<sip:bob@example.com>";

std::string request(const std::string& method, const std::string& to, const std::string& body = {}) {
  return sipRequest(method, "sip:bob@example.com",
                    {{"Via", "SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bK1"},
                     {"From", "<sip:alice@example.com>;tag=1"},
                     {"To", to},
                     {"Call-ID", "a"},
                     {"CSeq", "1 " + method}},
                    body);
}
std::string response(const std::string& to) {
  return sipResponse(200, "OK",
                     {{"Via", "SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK1"},
                      {"From", "<sip:alice@example.com>;tag=1"},
                      {"To", to},
                      {"Call-ID", "a"},
                      {"CSeq", "1 INVITE"}});
}

/// The forwarding operation that spoke in the log; each does so on every path.
std::string operation(const LogCapture& log) {
  std::string result;
  for (const LogCapture::Line& line : log.lines()) {
    const bool forwards = line.function.rfind("process_", 0) == 0 || line.function == "handle_proxy_message";
    if (!forwards || line.function == result) continue;
    result += result.empty() ? line.function : " and " + line.function;
  }
  return result;
}

class Dispatch : public EngineFixture {
 protected:
  Dispatch() { engine->initialize_state_tbl(IMS_engine_proxy::states, 0, 1); }

  template <class Transport>
  std::string of(Transport& transport, int (IMS_engine_proxy::*handler)(void*), const std::string& text) {
    transport.push(text);
    LogCapture log;
    EXPECT_EQ((engine.get()->*handler)(static_cast<SIPLIB_SIPConnection*>(&transport)), 0);
    EXPECT_TRUE(transport.inbox.empty());
    return operation(log);
  }
  /// What a server TCP transport with that local address gives the message to.
  std::string ofServerTcp(const std::string& local_ip, const std::string& text) {
    FakeServerTcp transport(local_ip, 5060, "127.0.0.1", 40000);
    return of(transport, &IMS_engine_proxy::handle_default_tcp_request_message, text);
  }
  /// The same of a client TCP transport with that peer.
  std::string ofClientTcp(const std::string& peer_ip, const std::string& text) {
    FakeClientTcp transport("127.0.0.1", 5060, peer_ip, 40000);
    return of(transport, &IMS_engine_proxy::handle_default_tcp_response_message, text);
  }
  std::string ofUdp(const std::string& local_ip, const std::string& text) {
    FakeServerUdp transport(local_ip, 5060, "127.0.0.1", 40000);
    return of(transport, &IMS_engine_proxy::handle_default_udp_message, text);
  }
};

// --- Classification

TEST_F(Dispatch, GivesEveryMessageOverTcpToItsOperation) {
  EXPECT_EQ(ofServerTcp(kNetIp, request("INVITE", kNetworkTo)), "process_network_to_ua_tcp_request");
  EXPECT_EQ(ofServerTcp(kNetIp, request("INVITE", kLocalTo)), "process_network_to_ua_tcp_request");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("INVITE", kNetworkTo)), "process_ua_to_network_tcp_request");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("INVITE", kLocalTo)), "process_ua_to_ua_tcp_request");
  EXPECT_EQ(ofClientTcp("127.0.0.3", response(kNetworkTo)), "process_network_to_ua_tcp_response");
  EXPECT_EQ(ofClientTcp("127.0.0.3", response(kLocalTo)), "process_network_to_ua_tcp_response");
  EXPECT_EQ(ofClientTcp("127.0.0.1", response(kNetworkTo)), "process_ua_to_network_tcp_response");
  EXPECT_EQ(ofClientTcp("127.0.0.1", response(kLocalTo)), "process_ua_to_ua_tcp_response");
}

TEST_F(Dispatch, GivesEveryMessageOverUdpToItsOperation) {
  EXPECT_EQ(ofUdp(kNetIp, request("INVITE", kNetworkTo)), "process_network_to_ua_udp_request");
  EXPECT_EQ(ofUdp(kNetIp, request("INVITE", kLocalTo)), "process_network_to_ua_udp_request");
  EXPECT_EQ(ofUdp(kNetIp, response(kNetworkTo)), "process_network_to_ua_udp_response");
  EXPECT_EQ(ofUdp(kNetIp, response(kLocalTo)), "process_network_to_ua_udp_response");
  EXPECT_EQ(ofUdp("127.0.0.1", request("INVITE", kNetworkTo)), "process_ua_to_network_udp_request");
  EXPECT_EQ(ofUdp("127.0.0.1", response(kNetworkTo)), "process_ua_to_network_udp_response");
  EXPECT_EQ(ofUdp("127.0.0.1", request("INVITE", kLocalTo)), "process_ua_to_ua_udp_request");
  EXPECT_EQ(ofUdp("127.0.0.1", response(kLocalTo)), "process_ua_to_ua_udp_response");
}

TEST_F(Dispatch, TheNetworksRequestsReachWhomTheyAreForAfterA100) {
  addDomain("1", "127.0.0.3", 5080, "TCP");
  ClientTable_Entry_T bob;
  bob.ua_port = "5070";
  bob.profile_id = "1";
  bob.aors = {{"bob@example.com", {}, {}, {}, {}}};
  addClient(bob);
  const auto invite = [](const std::string& transport) {
    return sipRequest("INVITE", "sip:bob@127.0.0.2",
                      {{"Via", "SIP/2.0/" + transport + " 127.0.0.3:5080;branch=z9hG4bK1"},
                       {"From", "<sip:alice@example.com>;tag=1"},
                       {"To", kNetworkTo},
                       {"Call-ID", "a"},
                       {"CSeq", "1 INVITE"}});
  };
  FakeServerTcp tcp(kNetIp, kNetPort, "127.0.0.3", 6000);
  of(tcp, &IMS_engine_proxy::handle_default_tcp_request_message, invite("TCP"));
  EXPECT_EQ(tcp.lastSent().statusCode(), 100);
  EXPECT_EQ(connector.tcpClient("127.0.0.1", 5060, "127.0.0.1", 5070)->lastSent().method(), "INVITE");
  FakeServerUdp udp(kNetIp, kNetPort, "127.0.0.3", 5080);
  of(udp, &IMS_engine_proxy::handle_default_udp_message, invite("UDP"));
  ASSERT_EQ(connector.udp_clients.size(), 2u);
  EXPECT_EQ(connector.udp_clients[0]->lastSent().method(), "INVITE");
  EXPECT_EQ(connector.udp_clients[1]->lastSent().statusCode(), 100);
}

TEST_F(Dispatch, DropsAnswersWhereOnlyRequestsAreLookedFor) {
  for (const char* ip : {"127.0.0.1", kNetIp}) {
    for (const char* to : {kNetworkTo, kLocalTo}) {
      FakeServerTcp tcp(ip, 5060, "127.0.0.1", 40000);
      tcp.push(response(to));
      LogCapture log(3);
      engine->handle_default_tcp_request_message(static_cast<SIPLIB_SIPConnection*>(&tcp));
      ASSERT_EQ(log.lines().size(), 1u);
      char text[100];
      std::snprintf(text, sizeof text, "response 200 on conn=%p dropped: only requests are looked for here",
                    static_cast<void*>(&tcp));
      EXPECT_TRUE(log.has(3, text));
      EXPECT_EQ(log.lines()[0].function, "handle_default_tcp_request_message");
    }
  }
  EXPECT_EQ(ofServerTcp("127.0.0.1", "rubbish"), "process_ua_to_network_tcp_request") << "what is no answer either";
  EXPECT_EQ(ofServerTcp(kNetIp, "rubbish"), "process_network_to_ua_tcp_request");
  EXPECT_EQ(ofClientTcp("127.0.0.3", request("INVITE", kNetworkTo)), "process_network_to_ua_tcp_response")
      << "and what a connection of our own carries it carries";
}

TEST_F(Dispatch, TakesAnotherLoopbackAddressForTheNetwork) {
  EXPECT_EQ(ofServerTcp("127.0.1.1", request("INVITE", kNetworkTo)), "process_network_to_ua_tcp_request");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("INVITE", "<sip:bob@127.0.0.2>")), "process_ua_to_network_tcp_request");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("INVITE", "<sip:bob@localhost>")), "process_ua_to_network_tcp_request");
}

TEST_F(Dispatch, TakesAMessageToTheProxysOwnAddressForARouteCommand) {
  for (const char* to : {"<sip:127.0.0.1>", "sip:127.0.0.1:5060", "<sip:127.0.0.1:5060;transport=tcp>"}) {
    EXPECT_EQ(ofServerTcp("127.0.0.1", request("MESSAGE", to)), "handle_proxy_message") << to;
    EXPECT_EQ(ofUdp("127.0.0.1", request("MESSAGE", to)), "handle_proxy_message") << to;
  }
}

TEST_F(Dispatch, TakesOnlyAMessageWithoutUserForARouteCommand) {
  const std::string command = request("MESSAGE", "<sip:127.0.0.1>", "<route-info/>");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("MESSAGE", kLocalTo)), "process_ua_to_ua_tcp_request");
  EXPECT_EQ(ofUdp("127.0.0.1", request("MESSAGE", kLocalTo)), "process_ua_to_ua_udp_request");
  EXPECT_EQ(ofServerTcp("127.0.0.1", request("OPTIONS", "<sip:127.0.0.1>")), "process_ua_to_ua_tcp_request");
  EXPECT_EQ(ofUdp("127.0.0.1", request("OPTIONS", "<sip:127.0.0.1>")), "process_ua_to_ua_udp_request");
  EXPECT_EQ(ofServerTcp(kNetIp, command), "process_network_to_ua_tcp_request") << "never over the network";
  EXPECT_EQ(ofUdp(kNetIp, command), "process_network_to_ua_udp_request") << "never over the network";
  EXPECT_EQ(ofClientTcp("127.0.0.1", command), "process_ua_to_ua_tcp_response") << "never on a connection of our own";
}

TEST_F(Dispatch, LogsAddressAndDestination) {
  FakeServerTcp tcp("127.0.0.1", 5060, "127.0.0.1", 40000);
  tcp.push(request("MESSAGE", "<sip:127.0.0.1>"));
  LogCapture log;
  engine->handle_default_tcp_request_message(static_cast<SIPLIB_SIPConnection*>(&tcp));
  char text[100];
  std::snprintf(text, sizeof text, "LocalAddress: ipaddr:port=127.0.0.1:5060, conn=%p", static_cast<void*>(&tcp));
  EXPECT_EQ(log.lines()[0].text, text);
  EXPECT_EQ(log.lines()[0].function, "handle_default_tcp_request_message");
  EXPECT_TRUE(log.has(5, "To:user=, To:host=127.0.0.1, method=MESSAGE"));
  EXPECT_TRUE(log.has(5, "MESSAGE on 127.0.0.1:5060 will be handled by Proxy"));
  log.clear();

  FakeServerUdp udp("127.0.0.1", 5060, "127.0.0.1", 40000);
  udp.push(request("INVITE", kLocalTo));
  engine->handle_default_udp_message(static_cast<SIPLIB_SIPConnection*>(&udp));
  EXPECT_TRUE(log.has_part(5, "LocalAddress: ipaddr:port=127.0.0.1:5060, conn="));
  EXPECT_TRUE(log.has(5, "To:user=bob, To:host=127.0.0.1, method=INVITE"));
  log.clear();

  FakeClientTcp client("127.0.0.1", 5060, "127.0.0.3", 5070);
  client.push(response(kLocalTo));
  engine->handle_default_tcp_response_message(static_cast<SIPLIB_SIPConnection*>(&client));
  EXPECT_EQ(log.lines()[0].text, "RemoteAddress: ipaddr:port=127.0.0.3:5070");
}

TEST_F(Dispatch, HandlesTwoMessagesOfOneConnectionOneByOne) {
  FakeServerTcp tcp("127.0.0.1", 5060, "127.0.0.1", 40000);
  tcp.push(request("MESSAGE", "<sip:127.0.0.1>", "<route-info><action>a</action></route-info>"));
  tcp.push(request("INVITE", kNetworkTo));
  engine->handle_notify_tcp_request(&tcp);
  engine->handle_notify_tcp_request(&tcp);
  LogCapture log;
  EXPECT_TRUE(engine->handle_one_message());
  EXPECT_EQ(tcp.getMethod(), "MESSAGE");
  EXPECT_EQ(operation(log), "handle_proxy_message");
  log.clear();
  EXPECT_TRUE(engine->handle_one_message());
  EXPECT_EQ(tcp.getMethod(), "INVITE");
  EXPECT_EQ(operation(log), "process_ua_to_network_tcp_request");
  EXPECT_FALSE(engine->handle_one_message());
}

TEST_F(Dispatch, ForwardsARequestOfALocalUserAgentOnItsDomainsConnection) {
  addDomain("1", "127.0.0.3", 5070, "TCP");
  addClient(40000, "1");
  FakeServerTcp tcp("127.0.0.1", 5060, "127.0.0.1", 50000);
  accept(tcp);
  tcp.push(request("INVITE", kNetworkTo));
  engine->handle_notify_tcp_request(&tcp);
  EXPECT_TRUE(engine->handle_one_message());
  EXPECT_EQ(connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070)->sent.size(), 1u);
}

TEST_F(Dispatch, DropsWhatDoesNotParseOrLacksEverything) {
  const std::vector<std::string> texts = {"",
                                          "rubbish",
                                          "INVITE sip:x SIP/2.0\r\n\r\n",
                                          "SIP/2.0 200 OK\r\n\r\n",
                                          request("INVITE", "not an address"),
                                          request("MESSAGE", "")};
  for (const std::string& text : texts) {
    for (const char* ip : {"127.0.0.1", "127.0.0.2"}) {
      FakeServerTcp tcp(ip, 5060, "127.0.0.1", 40000);
      FakeClientTcp client("127.0.0.1", 5060, ip, 40000);
      FakeServerUdp udp(ip, 5060, "127.0.0.1", 40000);
      of(tcp, &IMS_engine_proxy::handle_default_tcp_request_message, text);
      of(client, &IMS_engine_proxy::handle_default_tcp_response_message, text);
      of(udp, &IMS_engine_proxy::handle_default_udp_message, text);
      EXPECT_TRUE(tcp.sent.empty() && client.sent.empty() && udp.sent.empty());
    }
  }
  EXPECT_TRUE(connector.client_opens.empty());
}

TEST_F(Dispatch, SurvivesEventsWithoutAConnection) {
  LogCapture log(3);
  EXPECT_EQ(engine->handle_default_tcp_request_message(nullptr), 0);
  EXPECT_EQ(engine->handle_default_tcp_response_message(nullptr), 0);
  EXPECT_EQ(engine->handle_default_udp_message(nullptr), 0);
  EXPECT_EQ(engine->handle_registrar_request_message(static_cast<void*>(nullptr)), 0);
  EXPECT_EQ(engine->handle_registrar_response_message(static_cast<void*>(nullptr)), 0);
  EXPECT_EQ(engine->handle_default_framework_message(nullptr), 0);
  EXPECT_EQ(log.count(3), 6);
}

// --- The registrar's messages

TEST_F(Dispatch, HandsRegisterAndSubscribeToTheRegistrar) {
  FakeServerConnection reg(request("REGISTER", "<sip:127.0.0.1>"));
  FakeServerConnection subscribe(request("SUBSCRIBE", "<sip:registrar@127.0.0.1>"));
  LogCapture log;
  EXPECT_EQ(engine->handle_registrar_request_message(static_cast<SIPLIB_SIPConnection*>(&reg)), 0);
  EXPECT_TRUE(log.has(5, "Calling handle_registrar_register_message(ssc)"));
  EXPECT_EQ(log.lines().back().function, "handle_registrar_register_message");
  EXPECT_EQ(log.lines().back().text.rfind("ssc=0x", 0), 0u);
  EXPECT_EQ(engine->handle_registrar_request_message(static_cast<SIPLIB_SIPConnection*>(&subscribe)), 0);
  EXPECT_TRUE(log.has(5, "Calling handle_registrar_subscribe_message(ssc)"));
  EXPECT_EQ(log.lines().back().function, "handle_registrar_subscribe_message");
  EXPECT_FALSE(reg.released);
}

TEST_F(Dispatch, LetsGoOfOtherRequestsAtTheRegistrar) {
  FakeServerConnection options(request("OPTIONS", "<sip:registrar@127.0.0.1>"));
  LogCapture log;
  EXPECT_EQ(engine->handle_registrar_request_message(static_cast<SIPLIB_SIPConnection*>(&options)), 0);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"check why OPTIONS request message is reaching Registrar"});
  EXPECT_EQ(log.lines()[0].level, 3);
  EXPECT_TRUE(options.released);
  EXPECT_TRUE(options.answers.empty());
}

TEST_F(Dispatch, PassesRefreshTextsOn) {
  const char* text = "refresh all";
  char* owned = new char[std::strlen(text) + 1];
  std::strcpy(owned, text);
  engine->fill_queue_and_send_signal(MSG_FRAMEWORK_TEXT, owned);
  LogCapture log;
  EXPECT_TRUE(engine->handle_one_message());
  EXPECT_TRUE(log.has(5, "Handle Framework Message in Default state"));
  EXPECT_TRUE(log.has(5, "Calling handle_registrar_refresh_message(string&)"));
}

TEST_F(Dispatch, DoesNothingAtARegistrarThatIsNotThere) {
  std::string text = "x", first = "1", second = "2", third = "3";
  engine->handle_registrar_refresh_message(text);
  EXPECT_EQ(engine->get_credentials_from_registrar("1", first, second, third), 0);
  EXPECT_EQ(first + second + third, "123");
}

// --- Events

TEST_F(Dispatch, TurnsMessageTypesIntoEvents) {
  const std::map<std::uint32_t, unsigned int> events = {
      {1, 0x9006}, {2, 0x9005},  {3, 0x9001}, {4, 0x9003}, {5, 0x9000}, {6, 0x9002}, {7, 0x9003},
      {8, 0x9004}, {11, 0x9007}, {0, 0},      {9, 0},      {10, 0},     {12, 0},     {0xffffffff, 0}};
  for (const auto& [type, event] : events) {
    IMS_Queue_Message message{type, nullptr};
    LogCapture log;
    EXPECT_EQ(engine->get_event_id_from_message(&message), event) << type;
    EXPECT_EQ(log.texts(), std::vector<std::string>{"Message type = " + std::to_string(static_cast<int>(type)) +
                                                    ", eventid=" + std::to_string(event)});
  }
  EXPECT_EQ(engine->get_event_id_from_message(nullptr), 0u);
}

TEST_F(Dispatch, HasItsTableInOrder) {
  const IMS_STATE_TBL_T* row = IMS_engine_proxy::default_state;
  for (const unsigned int event : {0x9005u, 0x9006u, 0x9000u, 0x9001u, 0x9002u, 0x9003u, 0x9004u, 0x9007u}) {
    EXPECT_EQ(row->event_id, event);
    EXPECT_NE(row->handler, nullptr);
    ++row;
  }
  EXPECT_EQ(row->event_id, 0xffu);
  EXPECT_EQ(row->handler, nullptr);
  EXPECT_EQ(IMS_engine_proxy::states[0], IMS_engine_proxy::default_state);
}

TEST_F(Dispatch, IgnoresUnknownMessages) {
  engine->fill_queue_and_send_signal(static_cast<MSG_TYPE>(9), nullptr);
  LogCapture log;
  EXPECT_TRUE(engine->handle_one_message());
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(Dispatch, QueuesEachNotificationAndDoesNothingElse) {
  FakeServerTcp server;
  FakeServerUdp udp;
  FakeClientTcp client("127.0.0.1", 5060, "127.0.0.1", 40000);
  struct Case {
    void (IMS_engine_proxy::*notify)(SIPLIB_SIPConnection*);
    SIPLIB_SIPConnection* connection;
    const char* function;
    const char* text;
    int type;
    const char* handler;
  };
  const std::vector<Case> cases = {
      {&IMS_engine_proxy::handle_notify_tcp_incoming_conn, &server, "handle_notify_tcp_incoming_conn",
       "New Server Conn = %p", 6, "handle_default_tcp_connection_created"},
      {&IMS_engine_proxy::handle_notify_tcp_request, &server, "handle_notify_tcp_request", "Server Conn = %p", 5,
       "handle_default_tcp_request_message"},
      {&IMS_engine_proxy::handle_notify_tcp_response, &client, "handle_notify_tcp_response", "Client Conn = %p", 3,
       "handle_default_tcp_response_message"},
      {&IMS_engine_proxy::handle_notify_udp_message, &udp, "handle_notify_udp_message", "New Server Conn = %p", 8,
       "handle_default_udp_message"},
      {&IMS_engine_proxy::handle_notify_tcp_conn_closed, &server, "handle_notify_tcp_conn_closed",
       "Closed Server Conn = %p", 7, "handle_default_tcp_connection_closed"},
      {&IMS_engine_proxy::handle_notify_tcp_conn_closed, &client, "handle_notify_tcp_conn_closed",
       "Closed Client Conn = %p", 4, "handle_default_tcp_connection_closed"},
  };
  for (const Case& one : cases) {
    LogCapture log;
    (engine.get()->*one.notify)(one.connection);
    char text[100];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text, sizeof text, one.text, static_cast<void*>(one.connection));
#pragma GCC diagnostic pop
    EXPECT_EQ(log.texts(), std::vector<std::string>{text});
    EXPECT_EQ(log.lines()[0].function, one.function);
    EXPECT_EQ(log.lines()[0].level, 5);
    log.clear();

    EXPECT_TRUE(engine->handle_one_message());
    const std::vector<LogCapture::Line> lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].text.rfind("Message type = " + std::to_string(one.type) + ", eventid=", 0), 0u) << lines[0].text;
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.function == one.handler; }))
        << one.handler;
    EXPECT_FALSE(engine->handle_one_message());
  }
  EXPECT_EQ(server.receive_calls, 1);
  EXPECT_EQ(client.receive_calls, 1);
  EXPECT_EQ(udp.receive_calls, 1);
  EXPECT_TRUE(connector.closed(&server));
  EXPECT_EQ(connector.lost, std::vector<SIPLIB_SIPConnection*>{&client});
}

}  // namespace
