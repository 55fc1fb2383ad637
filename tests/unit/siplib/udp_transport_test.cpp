#include "siplib/client_udp_transport.h"
#include "siplib/server_udp_transport.h"
#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

class UdpTransportTest : public StackTest {
 protected:
  UdpTransportTest() {
    open();
    notifier = listenAt("127.0.0.2");
    address = addressOf(notifier);
  }
  SIPLIB_SIPTransportConnection* client(const SocketAddress& to) {
    return stack->openClient("udp", address.ip(), address.port(), to.ip(), to.port());
  }

  SIPLIB_SIPTransportNotifier* notifier = nullptr;
  SocketAddress address;
  Peer peer = Peer::udp(at("127.0.0.1", 0));
};

TEST_F(UdpTransportTest, DatagramsAreReceivedWithTheirSourcesAndAnswered) {
  const Peer other = Peer::udp(at("127.0.0.3", 0));
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "one")));
  ASSERT_TRUE(other.sendTo(address, request("OPTIONS", "two")));
  auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, transport);
  EXPECT_EQ(transport, next<SIPLIB_SIPServerUdpTransport>("datagram")) << "one per endpoint";
  std::string ip;
  int port = 0;
  EXPECT_TRUE(transport->getLocalAddress(ip, port));
  EXPECT_EQ(address, at(ip, port));
  EXPECT_FALSE(transport->getPeerAddress(ip, port)) << "no current message";

  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("one", callId(transport->getSipMessageHandle()));
  EXPECT_TRUE(transport->getPeerAddress(ip, port));
  EXPECT_EQ(peer.address(), at(ip, port));
  EXPECT_EQ(0, transport->receive());
  EXPECT_TRUE(transport->getPeerAddress(ip, port));
  EXPECT_EQ(other.address(), at(ip, port));
  const std::string text = answer(200, "two");
  EXPECT_EQ(0, sendText(transport, text));
  EXPECT_TRUE(reads(other, text));
  EXPECT_EQ(-1, transport->receive());
  EXPECT_EQ(-1, sendText(transport, text)) << "no current message, no source";
}

TEST_F(UdpTransportTest, WhatDoesNotParseIsDeliveredAndKeepAlivesAreNot) {
  ASSERT_TRUE(peer.sendTo(address, "\r\n\r\n"));
  ASSERT_TRUE(peer.sendTo(address, std::string(4, '\0')));
  ASSERT_TRUE(peer.sendTo(address, ""));
  ASSERT_TRUE(peer.sendTo(address, "what is this"));
  ASSERT_TRUE(peer.sendTo(address, "nothing"));
  for (int i = 0; i < 2; ++i) {
    auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
    ASSERT_NE(nullptr, transport);
    EXPECT_EQ(0, transport->receive());
    EXPECT_EQ("", transport->getMethod());
  }
  settle();
  EXPECT_EQ(0u, listener.size());
}

TEST_F(UdpTransportTest, ADatagramThatIsNotTakenLeavesNoMessageBehind) {
  listener.accept = false;
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "lost")));
  settle();
  listener.accept = true;
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "kept")));
  auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, transport);
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("kept", callId(transport->getSipMessageHandle()));
}

TEST_F(UdpTransportTest, AboveTheMostThatWaitDatagramsAreDroppedWithOneLine) {
  constexpr std::size_t most = siplib::ServerUdpTransport::kMostReceived;
  for (std::size_t i = 0; i < most + 100; ++i) {
    ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", std::to_string(i))));
    if (i % 50 == 0) settle(1ms);
  }
  settle(20ms);
  EXPECT_EQ(most, listener.count("datagram"));
  EXPECT_EQ(1u, log.count("too many wait already"));
  auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
  for (std::size_t i = 0; i < most; ++i) {
    ASSERT_EQ(0, transport->receive());
    ASSERT_EQ(std::to_string(i), callId(transport->getSipMessageHandle()));
  }
  EXPECT_EQ(-1, transport->receive());
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "again")));
  EXPECT_TRUE(until([&] { return transport->receive() == 0; }));
}

TEST_F(UdpTransportTest, AClientSendsFromTheEndpointAndAnswersComeBackToIt) {
  auto* connection = client(peer.address());
  ASSERT_NE(nullptr, connection);
  std::string ip;
  int port = 0;
  EXPECT_TRUE(connection->getLocalAddress(ip, port));
  EXPECT_EQ(address, at(ip, port));
  EXPECT_TRUE(connection->getPeerAddress(ip, port));
  EXPECT_EQ(peer.address(), at(ip, port));
  const std::string text = request("OPTIONS", "out");
  EXPECT_EQ(0, sendText(connection, text));
  EXPECT_EQ(0, stack->close(connection));
  EXPECT_EQ(0, stack->close(connection)) << "twice in one turn";
  EXPECT_EQ(-1, connection->send()) << "closed";
  EXPECT_FALSE(connection->getLocalAddress(ip, port));
  std::string got(2000, '\0');
  SocketAddress from;
  socklen_t size = SocketAddress::capacity();
  ASSERT_TRUE(peer.readable(1s));
  const auto count = recvfrom(peer.get(), got.data(), got.size(), 0, from.buffer(), &size);
  got.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  EXPECT_EQ(text, got);
  EXPECT_EQ(address, from);
  ASSERT_TRUE(peer.sendTo(from, answer(200, "back")));
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerUdpTransport>("datagram"));
  stack->endTurn();
}

TEST_F(UdpTransportTest, ClosedClientsAreUsedAgainAfterTheTurn) {
  auto* first = client(peer.address());
  stack->close(first);
  auto* second = client(peer.address());
  EXPECT_NE(first, second) << "still the same turn";
  stack->close(second);
  stack->endTurn();
  auto* third = client(at("127.0.0.1", 7));
  EXPECT_TRUE(third == first || third == second);
  EXPECT_FALSE(third->getSipMessageHandle());
  EXPECT_EQ(-1, third->send());
}

TEST_F(UdpTransportTest, ADatagramThatIsTooLargeIsRefusedWithALine) {
  auto* connection = client(peer.address());
  const std::string head = request("MESSAGE", "x", std::string(10000, 'b'));
  const std::size_t room = 65507 - (head.size() - 10000);
  EXPECT_EQ(0, sendText(connection, request("MESSAGE", "x", std::string(room, 'b'))));
  EXPECT_EQ(-1, sendText(connection, request("MESSAGE", "x", std::string(room + 1, 'b'))));
  EXPECT_EQ(1u, log.count("datagram " + address.text() + " to " + peer.address().text() + " dropped: too large"));
}

TEST_F(UdpTransportTest, APeerThatIsNotThereDoesNotStopTheEndpoint) {
  const SocketAddress gone = Peer::udp(at("127.0.0.1", 0)).address();
  auto* connection = client(gone);
  for (int i = 0; i < 5; ++i) {
    sendText(connection, request("OPTIONS", "x"));
    settle(2ms);
  }
  EXPECT_EQ(-1, sendText(client(at("192.0.2.1", 5060)), request("OPTIONS", "x"))) << "not from a loopback address";
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "alive")));
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerUdpTransport>("datagram"));
}

TEST_F(UdpTransportTest, AnEventThatStillWaitsFindsTheTransportOfAClosedEndpoint) {
  ASSERT_TRUE(peer.sendTo(address, request("OPTIONS", "one")));
  EXPECT_TRUE(until([&] { return listener.count("datagram") == 1; }));
  stack->close(notifier);
  settle();
  stack->endTurn();
  auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("one", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(-1, sendText(transport, answer(200, "one"))) << "the endpoint is gone";
  stack->endTurn();
}

TEST_F(UdpTransportTest, AClientOutlivesItsEndpointWithoutUse) {
  auto* connection = client(peer.address());
  stack->close(notifier);
  EXPECT_EQ(nullptr, client(peer.address())) << "no endpoint any more";
  settle();
  stack->endTurn();
  EXPECT_EQ(-1, sendText(connection, request("OPTIONS", "x")));
  EXPECT_EQ(1u, log.count("the endpoint is closed"));
  EXPECT_TRUE(Peer::udp(address)) << "the port is free";
  stack->close(connection);
}

TEST_F(UdpTransportTest, OrdinaryMessagesReachTheLayerOnlyFromTheLocalEndpoint) {
  const SocketAddress local = openLocal();
  ASSERT_TRUE(peer.sendTo(local, request("REGISTER", "ordinary")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  const auto path = layer->received[0].path;
  EXPECT_FALSE(path->reliable());
  EXPECT_TRUE(path->send("the answer"));
  EXPECT_TRUE(reads(peer, "the answer"));

  ASSERT_TRUE(peer.sendTo(address, request("REGISTER", "ordinary")));
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return !text.empty(); }));
  EXPECT_EQ(403, parsed(text)->statusCode());
  EXPECT_EQ(1u, log.count("4 REGISTER from " + peer.address().text() + " refused"));
  EXPECT_EQ(1u, layer->received.size());
  ASSERT_TRUE(peer.sendTo(address, answer(200, "ordinary")));
  ASSERT_TRUE(peer.sendTo(address, answer(481, "ordinary")));
  ASSERT_TRUE(peer.sendTo(address, "REGISTER sip:x SIP/2.0\r\nCall-ID: ordinary\r\n\r\n"));
  settle();
  EXPECT_EQ(1u, log.count("3 response 200 from " + peer.address().text() + " dropped: not on the local endpoint"));
  EXPECT_EQ(0u, log.count("response 481")) << "a line once in a while";
  EXPECT_EQ(1u, layer->received.size());
  EXPECT_EQ("", peer.read()) << "nowhere to send an answer to";
  EXPECT_EQ(0u, listener.size());
}

TEST_F(UdpTransportTest, ToTheLocalEndpointADatagramReachesTheLayerAndTheAnswerTheListener) {
  const SocketAddress local = openLocal();
  layer->on_receive = [](const SIPLIB_message& message, siplib::Path& path) {
    if (message.isRequest()) path.send(answer(200, "back"));
  };
  auto* connection = client(local);
  EXPECT_EQ(0, sendText(connection, request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(layer->received.empty()) << "never within the call";
  auto* transport = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, transport);
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("back", callId(transport->getSipMessageHandle()));
  std::string ip;
  int port = 0;
  EXPECT_TRUE(transport->getLocalAddress(ip, port));
  EXPECT_EQ(address, at(ip, port)) << "received on the endpoint that sent";
  EXPECT_TRUE(transport->getPeerAddress(ip, port));
  EXPECT_EQ(local, at(ip, port));
  EXPECT_EQ(1u, layer->received.size());
  EXPECT_EQ(0u, listener.size());

  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "again"))) << "an answer to the source, the same way";
  EXPECT_TRUE(until([&] { return layer->received.size() == 2; }));
}

TEST_F(UdpTransportTest, TheWayBackToItselfMayOutliveTheStack) {
  EXPECT_EQ(0, sendText(client(openLocal()), request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  const auto path = layer->received[0].path;
  EXPECT_TRUE(path->send(answer(200, "in time")));
  stack.reset();
  reactor.poll();
  EXPECT_FALSE(path->send(answer(200, "late")));
}

TEST_F(UdpTransportTest, WhatCameFromTheNetworkNeverGoesTheWayToItself) {
  const SocketAddress local = openLocal();
  auto* way = client(local);
  ASSERT_TRUE(peer.sendTo(address, request("REGISTER", "stranger")));
  auto* received = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, received);
  ASSERT_EQ(0, received->receive());
  EXPECT_TRUE(received->getSipMessageHandle()->fromNetwork());
  way->setSipMessageHandle(received->getSipMessageHandle());
  EXPECT_EQ(-1, way->send());
  EXPECT_EQ(1u, log.count("3 request from the network to the local endpoint dropped"));

  auto* agents = stack->openTransportNotifier("UDP", local.ip(), local.port());
  ASSERT_NE(nullptr, agents);
  agents->setListener(&listener);
  ASSERT_TRUE(peer.sendTo(local, request("SUBSCRIBE", "agent")));
  received = next<SIPLIB_SIPServerUdpTransport>("datagram");
  ASSERT_NE(nullptr, received);
  ASSERT_EQ(0, received->receive());
  EXPECT_FALSE(received->getSipMessageHandle()->fromNetwork()) << "its memory may be the stranger's";
  way->setSipMessageHandle(received->getSipMessageHandle());
  EXPECT_EQ(0, way->send());
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  settle();
  EXPECT_EQ(1u, layer->received.size());
}

TEST_F(UdpTransportTest, TheWayToItselfIsBounded) {
  const SocketAddress local = openLocal();
  auto* connection = client(local);
  connection->setSipMessageHandle(parsed(request("OPTIONS", "x")));
  std::size_t taken = 0;
  while (taken < 10000 && connection->send() == 0) ++taken;
  EXPECT_EQ(256u, taken);
  EXPECT_EQ(1u, log.count("datagram to the local endpoint dropped: too many are on their way"));
  EXPECT_TRUE(until([&] { return layer->received.size() == taken; }));
  EXPECT_EQ(0, connection->send());
}

TEST_F(UdpTransportTest, PathsOfTheLayerSendFromTheLocalEndpoint) {
  EXPECT_EQ(nullptr, stack->pathTo("UDP", "127.0.0.1", peer.port())) << "there is none yet";
  EXPECT_EQ(nullptr, stack->openClientTransaction("UDP", "127.0.0.1", peer.port()));
  const SocketAddress local = openLocal();
  const auto path = stack->pathTo("UDP", "127.0.0.1", peer.port());
  ASSERT_NE(nullptr, path);
  std::string ip;
  int port = 0;
  path->local(ip, port);
  EXPECT_EQ(local, at(ip, port));
  EXPECT_TRUE(path->send("hello"));
  EXPECT_TRUE(reads(peer, "hello"));
  stack->openClientTransaction("UDP", "127.0.0.1", peer.port());
  EXPECT_EQ(1u, layer->opened.size());
}

}  // namespace
