#include "siplib/endpoint.h"

#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

class EndpointTest : public StackTest {
 protected:
  EndpointTest() { open(); }
};

TEST_F(EndpointTest, BothSocketsHaveTheSamePort) {
  SIPLIB_SIPTransportNotifier* notifier = listenAt("127.0.0.2");
  ASSERT_NE(nullptr, notifier);
  std::string ip;
  int tcp = 0;
  int udp = 0;
  EXPECT_TRUE(notifier->getCurrentAddress("tcp", ip, tcp));
  EXPECT_EQ("127.0.0.2", ip);
  EXPECT_TRUE(notifier->getCurrentAddress("UDP", ip, udp));
  EXPECT_EQ(tcp, udp);
  EXPECT_GT(tcp, 0);
  EXPECT_FALSE(notifier->getCurrentAddress("SCTP", ip, udp));
}

TEST_F(EndpointTest, AListeningPortOfAnotherIsRefusedWithALine) {
  const Peer other = Peer::listening(at("127.0.0.2", 0));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "127.0.0.2", other.port()));
  EXPECT_EQ(1u, log.count("cannot listen on " + other.address().text() + " (TCP): Address already in use"));
}

TEST_F(EndpointTest, ADatagramPortOfAnotherIsRefusedWithALineAndTheListenerIsGone) {
  const Peer other = Peer::udp(at("127.0.0.2", 0));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "127.0.0.2", other.port()));
  EXPECT_EQ(1u, log.count("(UDP): Address already in use"));
  EXPECT_TRUE(Peer::listening(at("127.0.0.2", other.port())));
}

TEST_F(EndpointTest, NobodyElseGetsThePortNotEvenASecondStack) {
  const SocketAddress address = addressOf(listenAt("127.0.0.2"));
  EXPECT_FALSE(Peer::listening(address));
  EXPECT_FALSE(Peer::udp(address));
  const auto second =
      siplib::StackImpl::create(config, [](auto&, auto&, auto&) { return std::make_unique<FakeLayer>(); });
  EXPECT_EQ(nullptr, second->openTransportNotifier("TCP", address.ip(), address.port()));
}

TEST_F(EndpointTest, AnotherSocketOfAClientDoesNotOpenThePortToOthers) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const SocketAddress address = addressOf(listenAt("127.0.0.1"));
  auto* client = stack->openClient("TCP", address.ip(), address.port(), "127.0.0.1", server.port());
  ASSERT_NE(nullptr, client);
  EXPECT_EQ(address, server.accept().remote()) << "the client shares the listener's port";
  EXPECT_FALSE(Peer::listening(address));
}

TEST_F(EndpointTest, FurtherHandlesShareItAndTheLastOneClosesIt) {
  SIPLIB_SIPTransportNotifier* first = listenAt("127.0.0.2");
  const SocketAddress address = addressOf(first);
  SIPLIB_SIPTransportNotifier* second = stack->openTransportNotifier("UDP", "127.0.0.2", address.port());
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  EXPECT_EQ(address, addressOf(second));
  EXPECT_EQ(0, stack->close(first));
  EXPECT_EQ(0, stack->close(first)) << "twice in one turn";
  EXPECT_EQ(SocketAddress(), addressOf(first)) << "closed";
  settle();
  stack->endTurn();
  EXPECT_FALSE(Peer::listening(address));
  EXPECT_EQ(0, stack->close(second));
  settle();
  stack->endTurn();
  EXPECT_TRUE(Peer::listening(address));
  EXPECT_TRUE(Peer::udp(address));
}

TEST_F(EndpointTest, ReopenedAtOnceItIsOpen) {
  SIPLIB_SIPTransportNotifier* first = listenAt("127.0.0.2");
  const SocketAddress address = addressOf(first);
  stack->close(first);
  SIPLIB_SIPTransportNotifier* second = stack->openTransportNotifier("TCP", "127.0.0.2", address.port());
  ASSERT_NE(nullptr, second);
  second->setListener(&listener);
  settle();
  stack->endTurn();
  const Peer peer = Peer::connected(address);
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
}

TEST_F(EndpointTest, TheListenerOfTheHandleSetLastCountsAndSurvivesAnotherHandlesEnd) {
  SIPLIB_SIPTransportNotifier* first = listenAt("127.0.0.2");
  const SocketAddress address = addressOf(first);
  SIPLIB_SIPTransportNotifier* second = stack->openTransportNotifier("TCP", "127.0.0.2", address.port());
  Listener other;
  second->setListener(&other);
  stack->close(second);
  settle();
  stack->endTurn();
  const Peer peer = Peer::connected(address);
  EXPECT_TRUE(until([&] { return other.count("created") == 1; }));
  EXPECT_EQ(0u, listener.size());
}

TEST_F(EndpointTest, ARestartedProcessHasItsPortBackFromOldConnections) {
  const SocketAddress address = addressOf(listenAt("127.0.0.2"));
  const Peer peer = Peer::connected(address);
  auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_NE(nullptr, transport);
  stack->close(transport);  // this side closes first, so this side keeps TIME_WAIT
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  stack.reset();
  open();
  EXPECT_NE(nullptr, stack->openTransportNotifier("TCP", address.ip(), address.port())) << log.all();
}

TEST_F(EndpointTest, NothingIsReadBeforeTheReactorRuns) {
  const SocketAddress address = addressOf(stack->openTransportNotifier("TCP", "127.0.0.2", 0));
  const Peer peer = Peer::connected(address);
  ASSERT_TRUE(peer.send(request("OPTIONS", "early")));
  auto* later = stack->openTransportNotifier("TCP", "127.0.0.2", address.port());
  later->setListener(&listener);
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("request"));
}

TEST_F(EndpointTest, WhatIsNoAddressIsRefusedWithALine) {
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "localhost", 5060));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "127.0.0.1", 65536));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("SCTP", "127.0.0.1", 0));
  EXPECT_EQ(3u, log.count("no address to listen on"));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "192.0.2.1", 0));
  EXPECT_EQ(1u, log.count("cannot listen on 192.0.2.1:0 (TCP): Cannot assign requested address"));
}

TEST_F(EndpointTest, AnIpv6AddressServesWhereTheHostHasIt) {
  const bool has_it = static_cast<bool>(Peer::listening(at("::1", 0)));
  SIPLIB_SIPTransportNotifier* notifier = stack->openTransportNotifier("TCP", "[::1]", 0);
  ASSERT_EQ(has_it, notifier != nullptr);
  if (!has_it) return;
  notifier->setListener(&listener);
  const SocketAddress address = addressOf(notifier);
  EXPECT_EQ("::1", address.ip());
  auto* client = stack->openClient("TCP", "::1", address.port(), "[::1]", address.port());
  EXPECT_NE(nullptr, client);
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
  const Peer peer = Peer::udp(at("::1", 0));
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "six")));
  auto* datagrams = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, datagrams);
  EXPECT_EQ(0, datagrams->receive());
  std::string ip;
  int port = 0;
  EXPECT_TRUE(datagrams->getPeerAddress(ip, port));
  EXPECT_EQ(peer.address(), at(ip, port));
}

TEST_F(EndpointTest, TheLocalEndpointIsOneAndKnownToTheLayer) {
  for (const char* uri : {"", "sip:", "5060", "sip:localhost:0", "sip:99999", "sips:0", "sip:127.0.0.1:"}) {
    EXPECT_EQ(nullptr, stack->openNotifier(uri)) << uri;
  }
  EXPECT_EQ(7u, log.count("not of the form"));
  SIPLIB_SIPConnectionNotifier* local = stack->openNotifier("sip:127.0.0.3:0");
  ASSERT_NE(nullptr, local);
  std::string ip;
  int port = 0;
  EXPECT_TRUE(local->getCurrentAddress(ip, port));
  EXPECT_EQ("127.0.0.3", ip);
  EXPECT_EQ(ip + ":" + std::to_string(port), layer->local);
  EXPECT_EQ(nullptr, stack->openNotifier("sip:0"));
  stack->close(local);
  EXPECT_FALSE(local->getCurrentAddress(ip, port));
  settle();
  stack->endTurn();
  EXPECT_NE(nullptr, stack->openNotifier("sip:127.0.0.1:" + std::to_string(port)));
}

TEST_F(EndpointTest, AThousandHandlesComeAndGo) {
  const SocketAddress address = addressOf(listenAt("127.0.0.2"));
  comeAndGo([&](int) {
    auto* shared = stack->openTransportNotifier("TCP", "127.0.0.2", address.port());
    auto* own = stack->openTransportNotifier("TCP", "127.0.0.3", 0);
    ASSERT_NE(nullptr, shared);
    ASSERT_NE(nullptr, own);
    stack->close(shared);
    stack->close(own);
    reactor.poll();
    stack->endTurn();
  });
}

TEST_F(EndpointTest, ARestartedProcessHasItsPortBackFromOldClients) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const SocketAddress address = addressOf(listenAt("127.0.0.2"));
  auto* client = stack->openClient("TCP", address.ip(), address.port(), "127.0.0.1", server.port());
  ASSERT_NE(nullptr, client);
  const Peer peer = server.accept();
  ASSERT_EQ(address, peer.remote());
  stack->close(client);  // this side closes first, so this side keeps TIME_WAIT
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  stack.reset();
  open();
  EXPECT_NE(nullptr, stack->openTransportNotifier("TCP", address.ip(), address.port())) << log.all();
}

}  // namespace
