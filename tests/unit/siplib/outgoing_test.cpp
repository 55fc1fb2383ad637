#include "siplib/outgoing.h"

#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

class OutgoingTest : public StackTest {
 protected:
  OutgoingTest() {
    open();
    source = openLocal();
    server = Peer::listening(at("127.0.0.1", 0));
  }
  SIPLIB_SIPClientTcpTransport* connect() {
    const SocketAddress to = server.address();
    auto* transport = dynamic_cast<SIPLIB_SIPClientTcpTransport*>(
        stack->openClient("TCP", source.ip(), source.port(), to.ip(), to.port()));
    if (transport == nullptr) return nullptr;
    transport->setListener(&listener);
    peer = server.accept();
    settle(5ms);
    return transport;
  }
  SIPLIB_SIPTransportConnection* datagramsTo(const SocketAddress& to, const SocketAddress& from) {
    return stack->openClient("UDP", from.ip(), from.port(), to.ip(), to.port());
  }
  /// The Call-IDs of `count` datagrams, in their order.
  static std::vector<std::string> idsOf(const Peer& peer, std::size_t count) {
    std::vector<std::string> ids;
    while (ids.size() < count && peer.readable(1s)) ids.push_back(callId(parsed(peer.read())));
    return ids;
  }

  SocketAddress source;
  Peer server;
  Peer peer;
};

TEST_F(OutgoingTest, NothingWaitsUnlessHeld) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "one")));
  EXPECT_TRUE(peer.readable(1s));
}

TEST_F(OutgoingTest, MessagesOfOneConnectionLeaveTogetherAndInOrder) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  std::string all;
  stack->holdSending();
  for (const char* name : {"one", "two", "three"}) {
    EXPECT_EQ(0, sendText(transport, request("OPTIONS", name)));
    all += request("OPTIONS", name);
  }
  settle(5ms);
  EXPECT_FALSE(peer.readable(20ms)) << "held";
  stack->releaseSending();
  ASSERT_TRUE(peer.readable(1s));
  EXPECT_EQ(all, peer.read()) << "one piece";
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "four")));
  EXPECT_TRUE(reads(peer, request("OPTIONS", "four"))) << "no longer held";
}

TEST_F(OutgoingTest, DatagramsOfSeveralSocketsKeepTheirPeersTheirOrderAndTheirSource) {
  const SocketAddress other = addressOf(listenAt("127.0.0.2"));
  const Peer one = Peer::udp(at("127.0.0.1", 0));
  const Peer two = Peer::udp(at("127.0.0.3", 0));
  stack->holdSending();
  std::vector<std::string> expected;
  for (int i = 0; i < 40; ++i) {  // more than one call to the kernel takes
    const std::string name = std::to_string(i);
    auto* to_one = datagramsTo(one.address(), i % 3 == 0 ? source : other);
    auto* to_two = datagramsTo(two.address(), other);
    EXPECT_EQ(0, sendText(to_one, request("OPTIONS", name)));
    EXPECT_EQ(0, sendText(to_two, request("OPTIONS", name)));
    EXPECT_EQ(0, stack->close(to_one));
    EXPECT_EQ(0, stack->close(to_two));
    stack->endTurn();
    expected.push_back(name);
  }
  stack->releaseSending();
  EXPECT_EQ(expected, idsOf(one, expected.size()));
  EXPECT_EQ(expected, idsOf(two, expected.size()));
  EXPECT_FALSE(one.readable(5ms));
}

TEST_F(OutgoingTest, AMessageThatIsChangedAfterItsSendLeavesAsItWas) {
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* transport = datagramsTo(udp.address(), source);
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "before")));
  transport->setHeader("Call-ID", "after");
  stack->releaseSending();
  EXPECT_EQ(std::vector<std::string>{"before"}, idsOf(udp, 1));
}

TEST_F(OutgoingTest, WhatAnEndpointWasToSendBeforeItsCloseStillLeaves) {
  SIPLIB_SIPTransportNotifier* notifier = listenAt("127.0.0.2");
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* transport = datagramsTo(udp.address(), addressOf(notifier));
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "one")));
  EXPECT_EQ(0, stack->close(notifier));
  settle(5ms);
  stack->releaseSending();
  EXPECT_EQ(std::vector<std::string>{"one"}, idsOf(udp, 1));
}

TEST_F(OutgoingTest, AFaultOfOneDatagramIsToldAndTheOthersLeave) {
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* good = datagramsTo(udp.address(), source);
  auto* broadcast = datagramsTo(at("255.255.255.255", 9), source);  // the system refuses it: no SO_BROADCAST
  stack->holdSending();
  EXPECT_EQ(0, sendText(good, request("OPTIONS", "one")));
  EXPECT_EQ(0, sendText(broadcast, request("OPTIONS", "lost")));
  EXPECT_EQ(0, sendText(good, request("OPTIONS", "two")));
  stack->releaseSending();
  EXPECT_EQ((std::vector<std::string>{"one", "two"}), idsOf(udp, 2));
  EXPECT_EQ(1u, log.count("to 255.255.255.255:9 dropped: ")) << log.all();
}

TEST_F(OutgoingTest, AnEarlierDatagramsRefusalCostsNoLaterOne) {
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* good = datagramsTo(udp.address(), source);
  Peer gone = Peer::udp(at("127.0.0.1", 0));
  auto* refused = datagramsTo(gone.address(), source);
  gone.close();
  for (int round = 0; round < 2; ++round) {
    stack->holdSending();
    EXPECT_EQ(0, sendText(refused, request("OPTIONS", "nobody")));
    EXPECT_EQ(0, sendText(good, request("OPTIONS", "one")));
    stack->releaseSending();
    EXPECT_EQ(std::vector<std::string>{"one"}, idsOf(udp, 1));
  }
}

TEST_F(OutgoingTest, TheLargestDatagramLeavesAndALargerOneIsRefusedAtOnce) {
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* transport = datagramsTo(udp.address(), source);
  const std::size_t head = request("MESSAGE", "x", std::string(60000, 'b')).size() - 60000;
  const std::size_t most = siplib::Outgoing::kLargestDatagram - head;
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "first")));
  EXPECT_EQ(0, sendText(transport, request("MESSAGE", "x", std::string(most, 'b'))));
  EXPECT_EQ(-1, sendText(transport, request("MESSAGE", "x", std::string(most + 1, 'b'))));
  stack->releaseSending();
  EXPECT_EQ((std::vector<std::string>{"first", "x"}), idsOf(udp, 2));
}

TEST_F(OutgoingTest, MuchForOneConnectionIsNotPutOffAndAllOfItArrives) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  const std::string one = request("MESSAGE", "x", std::string(5000, 'b'));
  std::string all;
  stack->holdSending();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(0, sendText(transport, one));
    all += one;
  }
  EXPECT_TRUE(peer.readable(1s)) << "while still held";
  stack->releaseSending();
  EXPECT_TRUE(reads(peer, all));
}

TEST_F(OutgoingTest, WhatIsHeldForAPeerThatDoesNotReadIsBoundedAndLeavesWhenItReads) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  const std::string one = request("MESSAGE", "x", std::string(10000, 'b'));
  std::size_t taken = 0;
  for (bool more = true; more && taken < 5000;) {
    stack->holdSending();
    for (int i = 0; i < 8 && more; ++i) {
      more = sendText(transport, one) == 0;
      taken += more ? 1 : 0;
    }
    stack->releaseSending();
  }
  ASSERT_LT(taken, 5000u);
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return text.size() >= taken * one.size(); }));
  ASSERT_EQ(taken * one.size(), text.size());
  for (std::size_t i = 0; i < taken; ++i) ASSERT_EQ(0, text.compare(i * one.size(), one.size(), one)) << i;
}

TEST_F(OutgoingTest, WhatWasSentBeforeACloseStillLeaves) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  auto* notifier = listenAt("127.0.0.2");
  const SocketAddress other = addressOf(notifier);
  const Peer udp = Peer::udp(at("127.0.0.1", 0));
  auto* datagrams = datagramsTo(udp.address(), other);
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "last")));
  stack->close(transport);
  EXPECT_EQ(0, sendText(datagrams, request("OPTIONS", "last")));
  stack->close(notifier);
  stack->releaseSending();
  settle();
  EXPECT_TRUE(reads(peer, request("OPTIONS", "last")));
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(std::vector<std::string>{"last"}, idsOf(udp, 1));
}

TEST_F(OutgoingTest, MessagesThatTheFlushFoundNoConnectionForReachTheRestartedPeer) {
  auto* transport = connect();
  ASSERT_NE(nullptr, transport);
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "one")));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "two")));
  peer.reset();
  stack->releaseSending();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "three"))) << "waits for the next connection";
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  stack->closeLost(transport);
  peer = server.accept();
  ASSERT_TRUE(peer);
  EXPECT_TRUE(reads(peer, request("OPTIONS", "one") + request("OPTIONS", "two") + request("OPTIONS", "three")));
}

TEST_F(OutgoingTest, MessagesThatAnAcceptedConnectionCouldNotTakeAreCountedInTheLog) {
  const SocketAddress address = addressOf(listenAt("127.0.0.2"));
  Peer caller = Peer::connected(address);
  auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_NE(nullptr, transport);
  stack->holdSending();
  EXPECT_EQ(0, sendText(transport, answer(200, "one")));
  caller.reset();
  stack->releaseSending();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_EQ(1u, log.count("connection ended with " + std::to_string(answer(200, "one").size()) + " bytes unsent"));
  stack->close(transport);
  settle();
}

}  // namespace
