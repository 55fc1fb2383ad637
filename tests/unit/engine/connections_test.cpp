// The table of accepted connections, opening, closing and reopening, and the 100 trying.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "engine/sip_client_tcp_transport_listener.h"
#include "support/engine_fixture.h"
#include "support/log_capture.h"

namespace {

std::string format(const char* text, const void* pointer) {
  char buffer[200];
  // NOLINTNEXTLINE: the formats are this file's literals
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(buffer, sizeof buffer, text, pointer);
#pragma GCC diagnostic pop
  return buffer;
}

class Connections : public EngineFixture {
 protected:
  int created(SIPLIB_SIPConnection* connection) { return engine->handle_default_tcp_connection_created(connection); }
  int closed(SIPLIB_SIPConnection* connection) { return engine->handle_default_tcp_connection_closed(connection); }
};

// --- The table

TEST_F(Connections, GiveEachAcceptedConnectionATagOfItsOwn) {
  FakeServerTcp first("127.0.0.1", 5060), second(kNetIp, 5061);
  LogCapture log;
  EXPECT_EQ(created(&first), 0);
  EXPECT_EQ(created(&second), 0);
  const auto& records = IMS_engine_proxy::tcp_servconn_table;
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].connection, &first);
  EXPECT_EQ(records[0].local_address, "127.0.0.1");
  EXPECT_EQ(records[0].local_port, 5060);
  EXPECT_EQ(records[1].local_address, kNetIp);
  EXPECT_EQ(records[1].local_port, 5061);
  EXPECT_FALSE(records[0].tag.empty());
  EXPECT_NE(records[0].tag, records[1].tag);
  EXPECT_TRUE(
      log.has(5, format("Added entry in tcp_servconn_table, conn=%p, addr=127.0.0.2, lport=5061, tag=", &second) +
                     records[1].tag));

  log.clear();
  const std::string first_tag = records[0].tag, second_tag = records[1].tag;
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(&first), first_tag);
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(&second), second_tag);
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(first_tag), &first);
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(second_tag), &second);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                format("Searching Server Table for Conn=%p", &first), "FOUND matching Server Connection at index=0",
                format("Searching Server Table for Conn=%p", &second), "FOUND matching Server Connection at index=1",
                "Searching Server Table for tag =" + first_tag, "FOUND matching Server Connection at index=0",
                "Searching Server Table for tag =" + second_tag, "FOUND matching Server Connection at index=1"}));
}

TEST_F(Connections, AreNotFoundWhenUnknown) {
  FakeServerTcp stranger;
  LogCapture log;
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(&stranger), "");
  EXPECT_TRUE(log.has(3, format("Didn't find matching Server Conn=%p", &stranger)));
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(std::string("no-such-tag")), nullptr);
  EXPECT_TRUE(log.has(3, "Didn't find matching Server Conn, tag=no-such-tag"));
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(std::string()), nullptr);
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(static_cast<SIPLIB_SIPConnection*>(nullptr)), "");
}

TEST_F(Connections, AreForgottenWhenAServerConnectionCloses) {
  FakeServerTcp first, second;
  const std::string tag = accept(first);
  const std::string other = accept(second);
  LogCapture log;
  EXPECT_EQ(closed(&first), 0);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{format("conn=%p", &first), format("Tcp Server Connection = %p", &first),
                                      format("deleted entry %p", &first)}));
  EXPECT_EQ(log.lines()[0].function, "handle_default_tcp_connection_closed");
  EXPECT_TRUE(connector.closed(&first));
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(tag), nullptr);
  EXPECT_EQ(IMS_engine_proxy::find_tcp_server_conn(other), &second);
  EXPECT_TRUE(connector.client_opens.empty());
}

TEST_F(Connections, NotInTheTableAreNotClosed) {
  FakeServerTcp stranger;
  LogCapture log;
  IMS_engine_proxy::close_server_connection(&stranger);
  EXPECT_EQ(log.texts(), std::vector<std::string>{format("entry=%p not found in tcp_servconn_table", &stranger)});
  EXPECT_EQ(log.lines()[0].level, 4);
  EXPECT_TRUE(connector.closes.empty());
}

TEST_F(Connections, EventsWithoutAConnectionAreLoggedAndDropped) {
  FakeServerUdp datagrams;
  LogCapture log;
  EXPECT_EQ(created(nullptr), 0);
  EXPECT_EQ(created(&datagrams), 0);
  EXPECT_EQ(closed(nullptr), 0);
  EXPECT_EQ(closed(&datagrams), 0);
  EXPECT_EQ(log.count(3), 4);
  EXPECT_TRUE(IMS_engine_proxy::tcp_servconn_table.empty());
  EXPECT_TRUE(connector.closes.empty());
}

// --- Opening and closing

TEST_F(Connections, OpenedOverTcpGetTheListener) {
  LogCapture log;
  SIPLIB_SIPTransportConnection* connection =
      IMS_engine_proxy::open_client_connection("tcp", "127.0.0.1", 5060, "127.0.0.1", 40001);
  FakeClientTcp* opened = connector.tcpClient("127.0.0.1", 5060, "127.0.0.1", 40001);
  ASSERT_NE(opened, nullptr);
  EXPECT_EQ(connection, opened);
  EXPECT_EQ(opened->listener, IMS_engine_proxy::client_list);
  EXPECT_TRUE(log.has(5, "Successfully opened client conn (src,dest)=(127.0.0.1:5060,127.0.0.1:40001)"));
}

TEST_F(Connections, OpenOverUdpWithoutAListener) {
  SIPLIB_SIPTransportConnection* connection =
      IMS_engine_proxy::open_client_connection("UDP", kNetIp, 5060, "127.0.0.3", 5070);
  EXPECT_EQ(connection, connector.lastUdp());
  EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, 5060, "127.0.0.3", 5070}));
}

TEST_F(Connections, ThatCannotBeOpenedAreNull) {
  connector.refuse_clients = true;
  LogCapture log;
  EXPECT_EQ(IMS_engine_proxy::open_client_connection("TCP", kNetIp, 5060, "127.0.0.3", 5070), nullptr);
  EXPECT_TRUE(log.has(4, "client conn open failed (src,dest)=(127.0.0.2:5060,127.0.0.3:5070)"));
}

TEST_F(Connections, AreClosedThroughTheConnector) {
  FakeClientTcp client;
  IMS_engine_proxy::close_client_connection(&client);
  EXPECT_TRUE(connector.closed(&client));
  IMS_engine_proxy::close_client_connection(nullptr);
  EXPECT_EQ(connector.closes.size(), 1u);
}

TEST_F(Connections, TellTcpWithoutRegardToCase) {
  EXPECT_TRUE(IMS_engine_proxy::is_tcp("TCP"));
  EXPECT_TRUE(IMS_engine_proxy::is_tcp("tcp"));
  EXPECT_FALSE(IMS_engine_proxy::is_tcp("TCPX"));
  EXPECT_FALSE(IMS_engine_proxy::is_tcp("UDP"));
  EXPECT_FALSE(IMS_engine_proxy::is_tcp(""));
}

// --- A lost client connection

TEST_F(Connections, LostToALocalUserAgentLeaveTheDomainsAlone) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "TCP");
  const SIPLIB_SIPClientTcpTransport* before = table->domain(key)->tcp_client_conn;
  addClient(40001);
  FakeClientTcp* lost = connector.tcpClient("127.0.0.1", 5060, "127.0.0.1", 40001);
  ASSERT_NE(lost, nullptr);
  connector.client_opens.clear();
  LogCapture log;
  EXPECT_EQ(closed(lost), 0);
  EXPECT_TRUE(log.has(5, "LOCAL DOMAIN  - hence connection not reopened"));
  EXPECT_EQ(table->domain(key)->tcp_client_conn, before);
  EXPECT_EQ(connector.lost, std::vector<SIPLIB_SIPConnection*>{lost});
  EXPECT_TRUE(connector.closes.empty()) << "what is closed for good is not opened by the next message";
  // Tried all the same, with peer and source swapped.
  EXPECT_EQ(connector.client_opens, std::vector<FakeConnector::Open>({{"TCP", "127.0.0.1", 40001, "127.0.0.1", 5060}}));
}

TEST_F(Connections, LostToANetworkProxyAreReopenedWithPeerAndSourceSwapped) {
  addDomain("7", "127.0.0.9", 5070, "UDP");
  const std::string key = addDomain("1", "127.0.0.3", 5070, "TCP");
  FakeClientTcp* lost = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  ASSERT_NE(lost, nullptr);
  connector.client_opens.clear();
  LogCapture log;
  EXPECT_EQ(closed(lost), 0);
  EXPECT_EQ(connector.client_opens, std::vector<FakeConnector::Open>({{"TCP", "127.0.0.3", 5070, kNetIp, kNetPort}}));
  const FakeClientTcp* reopened = connector.tcpClient("127.0.0.3", 5070, kNetIp, kNetPort);
  ASSERT_NE(reopened, nullptr);
  EXPECT_EQ(table->domain(key)->tcp_client_conn, reopened);

  const std::vector<LogCapture::Line> lines = log.lines();
  std::vector<std::string> own;
  for (const auto& line : lines)
    if (line.function == "handle_default_tcp_connection_closed") own.push_back(line.text);
  EXPECT_EQ(own, (std::vector<std::string>{format("conn=%p", lost), "Tcp Client Connection ",
                                           format("conn=%p (src,dst)= (127.0.0.2:5060, 127.0.0.3:5070)", lost),
                                           format("Closing Client Connection conn=%p", lost),
                                           "key=" + key + format(", tcp_client_conn=%p", reopened)}));
}

TEST_F(Connections, ThatCannotBeReopenedStayWithTheirDomain) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "TCP");
  FakeClientTcp* lost = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  connector.refuse_clients = true;
  LogCapture log;
  EXPECT_EQ(closed(lost), 0);
  EXPECT_EQ(table->domain(key)->tcp_client_conn, lost);
  EXPECT_EQ(log.lines().back().text, "client conn open failed (src,dest)=(127.0.0.3:5070,127.0.0.2:5060)");
  EXPECT_EQ(log.lines().back().level, 4);
}

TEST_F(Connections, OfADeletedDomainAreReopenedForNobody) {
  addDomain("1", "127.0.0.3", 5070, "TCP");
  FakeClientTcp* lost = connector.tcpClient(kNetIp, kNetPort, "127.0.0.3", 5070);
  table->deleteDomain(DT_PROFILE_ID, "1");
  LogCapture log;
  EXPECT_EQ(closed(lost), 0);
  EXPECT_EQ(log.lines().back().text,
            format("key=, tcp_client_conn=%p", connector.tcpClient("127.0.0.3", 5070, kNetIp, kNetPort)));
}

// --- 100 trying

class Trying : public Connections {
 protected:
  static std::string invite(const FakeHeaders& changes = {}) {
    FakeHeaders headers = {{"Via", "SIP/2.0/TCP 127.0.0.3:5070;branch=z9hG4bK1"},
                           {"Via", "SIP/2.0/UDP 192.0.2.1;branch=z9hG4bK0;received=192.0.2.9"},
                           {"Record-Route", "<sip:127.0.0.3;lr>"},
                           {"Max-Forwards", "70"},
                           {"From", "\"A\" <sip:alice@example.com>;tag=1"},
                           {"To", "<sip:bob@example.com>"},
                           {"Call-ID", "abc@192.0.2.1"},
                           {"CSeq", "7 INVITE"}};
    for (const auto& [name, value] : changes) {
      for (auto header = headers.begin(); header != headers.end(); ++header) {
        if (header->first != name) continue;
        if (value.empty())
          headers.erase(header);
        else
          header->second = value;
        break;
      }
    }
    return sipRequest("INVITE", "sip:bob@127.0.0.2", headers, "v=0\r\n");
  }
};

TEST_F(Trying, GoesBackOnTheConnectionOfTheRequest) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "TCP");
  FakeServerTcp network(kNetIp, kNetPort, "127.0.0.3", 6000);
  network.set(invite());
  const SIPLIB_SIPMessageHandle request = network.getSipMessageHandle();
  LogCapture log;
  engine->send_100_trying("TCP", &network, key);
  ASSERT_EQ(network.sent.size(), 1u);
  EXPECT_EQ(network.sent[0].rfind("SIP/2.0 100 trying\r\n"
                                  "To: <sip:bob@example.com>\r\n"
                                  "From: \"A\" <sip:alice@example.com>;tag=1\r\n"
                                  "Call-ID: abc@192.0.2.1\r\n"
                                  "CSeq: 7 INVITE\r\n"
                                  "Via: SIP/2.0/TCP 127.0.0.3:5070;branch=z9hG4bK1\r\n"
                                  "Via: SIP/2.0/UDP 192.0.2.1;branch=z9hG4bK0;received=192.0.2.9\r\n",
                                  0),
            0u)
      << network.sent[0];
  const SIPLIB_message sent = network.lastSent();
  EXPECT_EQ(sent.body(), "");
  EXPECT_FALSE(sent.header("Record-Route"));
  EXPECT_FALSE(sent.header("Max-Forwards"));
  EXPECT_TRUE(log.has(5, "Sending 100 Trying"));
  // Whoever still has the request can forward it.
  EXPECT_EQ(request->method(), "INVITE");
  EXPECT_TRUE(connector.udp_clients.empty());
}

TEST_F(Trying, LeavesOverUdpThroughAConnectionOfItsOwn) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "UDP");
  for (const char* transport : {"UDP", "udp"}) {
    FakeServerUdp network(kNetIp, kNetPort, "127.0.0.3", 5070);
    network.set(invite());
    connector.udp_clients.clear();
    connector.closes.clear();
    LogCapture log;
    engine->send_100_trying(transport, &network, key);
    EXPECT_TRUE(network.sent.empty());
    ASSERT_NE(connector.lastUdp(), nullptr);
    EXPECT_EQ(connector.client_opens.back(), (FakeConnector::Open{"UDP", kNetIp, kNetPort, "127.0.0.3", 5070}));
    ASSERT_EQ(connector.lastUdp()->sent.size(), 1u);
    EXPECT_EQ(connector.lastUdp()->lastSent().statusCode(), 100);
    EXPECT_EQ(connector.lastUdp()->lastSent().headerCount("Via"), 2u);
    EXPECT_TRUE(connector.closed(connector.lastUdp()));
    EXPECT_EQ(network.getMethod(), "INVITE") << "the request stays on its connection";
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "Sending 100 Trying", "CurrentAddress (ip:port) (127.0.0.2:5060)",
                               "Successfully opened client conn (src,dest,UDP)=(127.0.0.2:5060,127.0.0.3:5070)"}));
  }
}

TEST_F(Trying, IsGivenUpWhenTheUdpConnectionCannotBeOpened) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "UDP");
  FakeServerUdp network(kNetIp, kNetPort, "127.0.0.3", 5070);
  network.set(invite());
  connector.refused_peers.insert("127.0.0.3:5070");
  LogCapture log;
  engine->send_100_trying("UDP", &network, key);
  EXPECT_TRUE(log.has(3, "UDP client conn is NULL (src,dest)=(127.0.0.2:5060,127.0.0.3:5070)"));
  EXPECT_TRUE(network.sent.empty());
}

TEST_F(Trying, IsGivenUpForADomainThatIsGone) {
  FakeServerUdp network(kNetIp, kNetPort, "127.0.0.3", 5070);
  network.set(invite());
  LogCapture log;
  engine->send_100_trying("UDP", &network, "no-such-domain");
  EXPECT_EQ(log.count(3), 1);
  EXPECT_TRUE(network.sent.empty());
  EXPECT_TRUE(connector.udp_clients.empty());
}

TEST_F(Trying, IsNotSentWithoutAHeaderThatItNeeds) {
  const std::string key = addDomain("1", "127.0.0.3", 5070, "TCP");
  const std::string too_long = "<sip:" + std::string(251, 'x') + ">";
  const std::vector<FakeHeaders> lacking = {{{"To", ""}},
                                            {{"From", ""}},
                                            {{"Call-ID", ""}},
                                            {{"CSeq", ""}},
                                            {{"From", too_long}},
                                            {{"To", too_long}},
                                            {{"Call-ID", std::string(256, 'c')}}};
  for (const FakeHeaders& change : lacking) {
    FakeServerTcp network(kNetIp, kNetPort, "127.0.0.3", 6000);
    network.set(invite(change));
    LogCapture log(4);
    engine->send_100_trying("TCP", &network, key);
    EXPECT_TRUE(network.sent.empty()) << change[0].first;
    EXPECT_EQ(log.lines().size(), 1u) << change[0].first;
    EXPECT_TRUE(log.has_part(4, "100 trying not sent: " + change[0].first));
    EXPECT_EQ(network.getMethod(), "INVITE");
  }
}

TEST_F(Trying, CopiesTheViasAsTheyCame) {
  std::string list = "SIP/2.0/TCP 127.0.0.3:5070;branch=z9hG4bK1";
  for (int i = 0; i < 3000; ++i) list += i % 100 == 0 ? ",\r\n\tx" : ",x";
  const std::string vias = "v:" + list + "\r\nVia : SIP/2.0/UDP h2\r\n";
  const std::string text = "INVITE sip:bob@127.0.0.2 SIP/2.0\r\n" + vias +
                           "f:<sip:a@h>;tag=1\r\nt:<sip:b@h>\r\ni:c\r\nCSeq:1 INVITE\r\n\r\n";
  FakeServerTcp network(kNetIp, kNetPort, "127.0.0.3", 6000);
  network.set(text);
  engine->send_100_trying("TCP", &network, "");
  ASSERT_EQ(network.sent.size(), 1u);
  EXPECT_NE(network.sent[0].find("\r\n" + vias), std::string::npos);
  EXPECT_LE(2 * network.sent[0].size(), 3 * text.size());
}

TEST_F(Trying, TakesHeadersThatJustFit) {
  FakeServerTcp network(kNetIp, kNetPort, "127.0.0.3", 6000);
  network.set(invite({{"Call-ID", std::string(255, 'c')}}));
  engine->send_100_trying("TCP", &network, "");
  EXPECT_EQ(network.sent.size(), 1u);
}

TEST_F(Trying, NeedsAConnectionWithAMessage) {
  LogCapture log(4);
  engine->send_100_trying("TCP", nullptr, "0");
  FakeServerTcp network;
  engine->send_100_trying("TCP", &network, "0");
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(network.sent.empty());
}

}  // namespace
