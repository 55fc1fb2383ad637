#include "siplib/client_tcp_transport.h"

#include <sys/resource.h>

#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

class ClientTcpTransportTest : public StackTest {
 protected:
  void start() {
    open();
    source = openLocal();
    ASSERT_TRUE(source.known());
    server = Peer::listening(at("127.0.0.1", 0));
    destination = server.address();
  }
  SIPLIB_SIPClientTcpTransport* connect(const SocketAddress& to) {
    auto* connection = stack->openClient("TCP", source.ip(), source.port(), to.ip(), to.port());
    auto* transport = dynamic_cast<SIPLIB_SIPClientTcpTransport*>(connection);
    if (transport != nullptr) transport->setListener(&listener);
    return transport;
  }
  /// Listens on the same port again.
  void serveAgain() {
    server = Peer::listening(destination);
    ASSERT_TRUE(server);
  }
  /// A listener whose backlog is full: a connect to it neither succeeds nor fails.
  void fillBacklog() {
    server = Peer::listening(at("127.0.0.1", 0), 0);
    destination = server.address();
    for (int i = 0; i < 4; ++i) {
      backlog.push_back(Peer(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)));
      ::connect(backlog.back().get(), destination.data(), destination.size());
    }
  }

  SocketAddress source;
  SocketAddress destination;
  Peer server;
  Peer peer;
  std::vector<Peer> backlog;
};

TEST_F(ClientTcpTransportTest, OpensFromTheSourceAndCarriesMessagesBothWays) {
  start();
  auto* transport = connect(destination);
  ASSERT_NE(nullptr, transport);
  EXPECT_TRUE(transport->isOpen());
  peer = server.accept();
  EXPECT_EQ(source, peer.remote()) << "the source port was free for this pair";
  std::string ip;
  int port = 0;
  EXPECT_TRUE(transport->getPeerAddress(ip, port));
  EXPECT_EQ(destination, at(ip, port));
  transport->getSourceAddress(ip, port);
  EXPECT_EQ(source, at(ip, port));
  EXPECT_TRUE(transport->getLocalAddress(ip, port));
  EXPECT_EQ(source, at(ip, port));

  const std::string text = request("OPTIONS", "out");
  EXPECT_EQ(0, sendText(transport, text));
  EXPECT_TRUE(reads(peer, text));
  ASSERT_TRUE(peer.send(answer(200, "one") + answer(200, "two")));
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("response"));
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("response"));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("one", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("two", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(-1, transport->receive());
}

TEST_F(ClientTcpTransportTest, ThePairIsOneObject) {
  start();
  auto* transport = connect(destination);
  EXPECT_EQ(transport, connect(destination));
  const Peer other = Peer::listening(at("127.0.0.1", 0));
  EXPECT_NE(transport, connect(other.address()));
  peer = server.accept();
  EXPECT_FALSE(server.readable(20ms)) << "and has one socket";
}

TEST_F(ClientTcpTransportTest, RefusedIsNullAndThePairUsableLater) {
  start();
  server.close();
  EXPECT_EQ(nullptr, connect(destination));
  EXPECT_EQ(1u, log.count("connecting " + source.text() + " to " + destination.text() + " failed: Connection refused"));
  serveAgain();
  auto* transport = connect(destination);
  ASSERT_NE(nullptr, transport);
  EXPECT_TRUE(server.accept());
}

TEST_F(ClientTcpTransportTest, AllThatATurnOpensWithoutAListenerAreReadFromItsEnd) {
  start();
  Peer other = Peer::listening(at("127.0.0.1", 0));
  std::vector<Peer> peers;
  for (const Peer* each : {&server, &other}) {
    const SocketAddress to = each->address();
    ASSERT_NE(nullptr, stack->openClient("TCP", source.ip(), source.port(), to.ip(), to.port()));
    peers.push_back(each->accept());
    ASSERT_TRUE(peers.back().send(request("OPTIONS", "early")));
  }
  settle();
  EXPECT_EQ(0u, layer->received.size());
  stack->endTurn();
  EXPECT_TRUE(until([&] { return layer->received.size() == 2; }));
}

TEST_F(ClientTcpTransportTest, WithoutDescriptorsAnOpeningFailsWithALineThatSaysSo) {
  start();
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  auto* const refused = connect(destination);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ(nullptr, refused);
  EXPECT_EQ(1u,
            log.count("4 connecting " + source.text() + " to " + destination.text() + " failed: Too many open files"));
  EXPECT_NE(nullptr, connect(destination));
}

TEST_F(ClientTcpTransportTest, WhatIsNoEndpointIsNoSource) {
  start();
  EXPECT_EQ(nullptr, stack->openClient("TCP", "127.0.0.1", destination.port(), source.ip(), source.port()));
  EXPECT_EQ(nullptr, stack->openClient("UDP", "127.0.0.7", source.port(), "127.0.0.1", 5));
  EXPECT_EQ(2u, log.count("is no endpoint of this stack"));
}

TEST_F(ClientTcpTransportTest, WhatIsNoAddressIsRefusedWithALine) {
  start();
  EXPECT_EQ(nullptr, stack->openClient("TCP", source.ip(), source.port(), "localhost", 5060));
  EXPECT_EQ(nullptr, stack->openClient("TCP", source.ip(), source.port(), "127.0.0.1", 0));
  EXPECT_EQ(nullptr, stack->openClient("TCP", source.ip(), source.port(), "127.0.0.1", 65536));
  EXPECT_EQ(nullptr, stack->openClient("TCP", source.ip(), source.port(), "::1", 5060));
  EXPECT_EQ(nullptr, stack->openClient("TLS", source.ip(), source.port(), "127.0.0.1", 5060));
  EXPECT_EQ(nullptr, stack->openClient("TCP", "", source.port(), "127.0.0.1", 5060));
  EXPECT_EQ(6u, log.count("no addresses to connect"));
}

TEST_F(ClientTcpTransportTest, OneClosedForGoodIsOpenedByAnOpeningOnly) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_FALSE(transport->isOpen());
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  stack->endTurn();
  settle();
  EXPECT_EQ(0u, listener.size()) << "no event for the user's own close";
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_EQ(1u, log.count("4 message to " + destination.text() + " dropped: the connection is closed"));
  EXPECT_EQ(0, stack->closeLost(transport));
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_FALSE(server.readable(20ms));

  EXPECT_EQ(transport, stack->openClient("TCP", source.ip(), source.port(), destination.ip(), destination.port()));
  peer = server.accept();
  ASSERT_TRUE(peer);
  EXPECT_EQ(source.ip(), peer.remote().ip());
  const std::string text = request("OPTIONS", "again");
  EXPECT_EQ(0, sendText(transport, text));
  EXPECT_TRUE(reads(peer, text));
  ASSERT_TRUE(peer.send(answer(200, "back")));
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("response")) << "the listener stays";
}

TEST_F(ClientTcpTransportTest, OneClosedForGoodIsNotOpenedByAnOpeningThatWasRefused) {
  start();
  auto* transport = connect(destination);
  server.accept().reset();
  server.close();
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_EQ(nullptr, connect(destination));
  serveAgain();
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_FALSE(server.readable(20ms));
}

TEST_F(ClientTcpTransportTest, ALossThatIsStillToBeAnsweredRevivesNothingThatWasClosedForGood) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "waits")));
  EXPECT_EQ(transport, connect(destination)) << "an opening that waits for the answer";
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_EQ(1u, log.count("that waited for the connection to " + destination.text() + " dropped"));
  EXPECT_EQ(0, stack->closeLost(transport));
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_FALSE(transport->isOpen());
  EXPECT_FALSE(server.readable(20ms));
}

TEST_F(ClientTcpTransportTest, ALossThatIsStillToBeAnsweredEndsNoConnectionThatWasOpenedSince) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_EQ(transport, connect(destination));
  peer = server.accept();
  EXPECT_EQ(0, stack->closeLost(transport));
  EXPECT_TRUE(transport->isOpen());
  const std::string text = request("OPTIONS", "x");
  EXPECT_EQ(0, sendText(transport, text));
  EXPECT_TRUE(reads(peer, text));
}

TEST_F(ClientTcpTransportTest, OneClosedForGoodIsNotRevivedByTheEndThatASendFound) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  settle(5ms);
  peer.reset();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "x"))) << "the I/O thread does not know of the reset yet";
  EXPECT_EQ(0, stack->close(transport));
  settle();
  EXPECT_EQ(0u, listener.size());
  EXPECT_FALSE(server.readable(0ms));
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
}

TEST_F(ClientTcpTransportTest, ThePathsOfTheLayerOpenAnewWhatTheUserClosed) {
  start();
  stack->close(connect(destination));
  const Peer first = server.accept();
  const auto path = stack->pathTo("tcp", destination.ip(), destination.port());
  EXPECT_TRUE(path->send("hello"));
  EXPECT_TRUE(reads(server.accept(), "hello"));
}

TEST_F(ClientTcpTransportTest, ANetworkPeerThatCannotBeReachedNowIsAHandleAllTheSame) {
  start();
  const SocketAddress unreachable = at("192.0.2.1", 5060);  // from a loopback address: no way, at once
  auto* transport = connect(unreachable);
  ASSERT_NE(nullptr, transport);
  EXPECT_FALSE(transport->isOpen());
  const std::string line = "4 connecting " + source.text() + " to " + unreachable.text() + " failed: ";
  EXPECT_EQ(1u, log.count(line)) << log.all();
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_EQ(2u, log.count(line)) << "the send has tried again";
  EXPECT_EQ(transport, connect(unreachable));
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ClientTcpTransportTest, ALoopbackPeerThatRefusesAnOpeningIsNoFault) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  server.close();
  stack->closeLost(transport);
  EXPECT_EQ(nullptr, connect(destination));
  const std::string line = " connecting " + source.text() + " to " + destination.text() + " failed: Connection refused";
  EXPECT_EQ(1u, log.count("5" + line)) << "its user agent may speak UDP only";
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "x")));
  EXPECT_EQ(1u, log.count("4" + line)) << "here a message is lost";
}

TEST_F(ClientTcpTransportTest, AMessageWithoutContentLengthGetsOneOnItsWay) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  const std::string head = "MESSAGE sip:b@h SIP/2.0\r\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\r\nX: y\r\n";
  EXPECT_EQ(0, sendText(transport, head + "\r\nhello"));
  EXPECT_TRUE(reads(peer, head + "Content-Length: 5\r\n\r\nhello"));
  EXPECT_EQ(0, sendText(transport, head + "\r\n"));
  EXPECT_TRUE(reads(peer, head + "Content-Length: 0\r\n\r\n"));
  for (const char* form : {"l:5", "CONTENT-LENGTH : 5", "Content-Length:\r\n 5"}) {
    const std::string text = "MESSAGE sip:b@h SIP/2.0\r\n" + std::string(form) + "\r\nX: y\r\n\r\nhello";
    EXPECT_EQ(0, sendText(transport, text));
    EXPECT_TRUE(reads(peer, text)) << form;
  }
}

TEST_F(ClientTcpTransportTest, ALossIsToldOnceAndSendsWaitForTheUsersClose) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  peer.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_FALSE(transport->isOpen());
  const std::string one = request("OPTIONS", "one");
  const std::string two = request("OPTIONS", "two");
  EXPECT_EQ(0, sendText(transport, one));
  EXPECT_EQ(0, sendText(transport, two));
  settle();
  EXPECT_FALSE(server.readable(0ms)) << "nothing happens before the close";
  EXPECT_EQ(0, stack->closeLost(transport));
  peer = server.accept();
  ASSERT_TRUE(peer);
  EXPECT_TRUE(transport->isOpen());
  EXPECT_TRUE(reads(peer, one + two));
  settle();
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ClientTcpTransportTest, ALossWithoutSendsStaysClosedAndTheNextSendReachesThePeer) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  stack->closeLost(transport);
  settle();
  EXPECT_FALSE(server.readable(0ms));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "next")));
  EXPECT_TRUE(server.accept());
}

TEST_F(ClientTcpTransportTest, AnOpenWhileLostIsDoneByTheClose) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_EQ(transport, connect(destination));
  EXPECT_FALSE(transport->isOpen());
  stack->closeLost(transport);
  EXPECT_TRUE(transport->isOpen());
  EXPECT_TRUE(server.accept());
}

TEST_F(ClientTcpTransportTest, WhatWaitsWhileLostIsBoundedAndDroppedWhenThePeerIsGone) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  server.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  transport->setSipMessageHandle(parsed(request("MESSAGE", "x", std::string(60000, 'b'))));
  int taken = 0;
  while (taken < 100 && transport->send() == 0) ++taken;
  EXPECT_EQ(4, taken) << "256 KiB";
  EXPECT_EQ(1u, log.count("too much waits for the connection already"));
  stack->closeLost(transport);
  EXPECT_FALSE(transport->isOpen());
  EXPECT_EQ(1u, log.count("that waited for the connection to"));
}

TEST_F(ClientTcpTransportTest, WhatWasDroppedDoesNotReachARestartedPeer) {
  start();
  auto* transport = connect(destination);
  server.accept().close();
  server.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "dropped")));
  stack->closeLost(transport);
  EXPECT_EQ(1u, log.count("that waited for the connection to"));
  serveAgain();
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "later")));
  peer = server.accept();
  EXPECT_TRUE(reads(peer, request("OPTIONS", "later")));
}

TEST_F(ClientTcpTransportTest, TheLossThatASendFindsIsToldAndTheMessageReachesTheRestartedPeer) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  settle(5ms);
  peer.reset();
  const std::string text = request("OPTIONS", "kept");
  EXPECT_EQ(0, sendText(transport, text)) << "the socket knows of the reset, the I/O thread does not yet";
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  stack->closeLost(transport);
  peer = server.accept();
  ASSERT_TRUE(peer);
  EXPECT_TRUE(reads(peer, text));
  settle();
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ClientTcpTransportTest, WithoutAListenerALossLeavesItClosedAndUsable) {
  start();
  auto* transport = stack->openClient("TCP", source.ip(), source.port(), destination.ip(), destination.port());
  ASSERT_NE(nullptr, transport);
  stack->endTurn();  // from here on it is read
  peer = server.accept();
  ASSERT_TRUE(peer.send(answer(200, "plain")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; })) << "ordinary processing";
  peer.close();
  EXPECT_TRUE(until([&] { return log.count("ended: closed by the peer") == 1; }));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "x")));
  EXPECT_TRUE(server.accept());
}

TEST_F(ClientTcpTransportTest, APairThatIsTakenGetsAnotherPortOfTheAddress) {
  start();
  const Peer taken = Peer::connected(source, at("127.0.0.1", 0));  // the peer came from its listening port itself
  ASSERT_TRUE(taken);
  const SocketAddress from = taken.address();
  next<SIPLIB_SIPServerTcpTransport>("created");
  const int on = 1;
  setsockopt(taken.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  Peer sharing(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  setsockopt(sharing.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  ASSERT_EQ(0, ::bind(sharing.get(), from.data(), from.size()));
  ASSERT_EQ(0, ::listen(sharing.get(), 4));
  auto* transport = connect(from);
  ASSERT_NE(nullptr, transport) << log.all();
  std::string ip;
  int port = 0;
  EXPECT_TRUE(transport->getLocalAddress(ip, port));
  EXPECT_EQ(source.ip(), ip);
  EXPECT_NE(source.port(), port);
  transport->getSourceAddress(ip, port);
  EXPECT_EQ(source, at(ip, port));
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "x")));
  peer = sharing.accept();
  EXPECT_TRUE(until([&] { return !peer.read().empty(); }));
}

TEST_F(ClientTcpTransportTest, ANetworkEndpointReachesItselfFromAnotherPort) {
  start();
  source = addressOf(listenAt("127.0.0.2"));
  auto* transport = connect(source);
  ASSERT_NE(nullptr, transport);
  auto* other = next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "round")));
  EXPECT_EQ(other, next<SIPLIB_SIPServerTcpTransport>("request"));
}

TEST_F(ClientTcpTransportTest, SendsWaitWhileItConnectsAndGoOutInOrder) {
  start();
  fillBacklog();
  auto* transport = connect(destination);
  ASSERT_NE(nullptr, transport);
  EXPECT_FALSE(transport->isOpen());
  const std::string one = request("OPTIONS", "one");
  const std::string two = request("OPTIONS", "two");
  EXPECT_EQ(0, sendText(transport, one));
  EXPECT_EQ(0, sendText(transport, two));
  // Room in the backlog: the kernel's next try succeeds.
  std::vector<Peer> served;
  EXPECT_TRUE(until([&] {
    if (server.readable(0ms)) served.push_back(server.accept());
    return transport->isOpen();
  }));
  std::string text;
  EXPECT_TRUE(until([&] {
    if (server.readable(0ms)) served.push_back(server.accept());
    for (const auto& each : served) text += each.read();
    return text.size() >= one.size() + two.size();
  }));
  EXPECT_EQ(one + two, text);
}

TEST_F(ClientTcpTransportTest, AConnectThatTakesTooLongIsGivenUpWithItsSends) {
  config.connect_timeout = 50ms;
  start();
  fillBacklog();
  auto* transport = connect(destination);
  ASSERT_NE(nullptr, transport);
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "x")));
  EXPECT_TRUE(until([&] { return log.count("failed: Connection timed out") == 1; }));
  EXPECT_EQ(1u, log.count("that waited for the connection to"));
  EXPECT_FALSE(transport->isOpen());
  EXPECT_EQ(0u, listener.size()) << "it was never open";
}

TEST_F(ClientTcpTransportTest, AConnectCanBeClosed) {
  start();
  fillBacklog();
  settle(5ms);
  const std::size_t before = openDescriptors();
  auto* transport = connect(destination);
  settle(5ms);
  EXPECT_EQ(0, sendText(transport, request("OPTIONS", "x")));
  EXPECT_EQ(0, stack->close(transport));
  settle(5ms);
  EXPECT_EQ(before, openDescriptors());
  EXPECT_EQ(1u, log.count("that waited for the connection to"));
  EXPECT_NE(nullptr, connect(destination));
  stack->close(transport);  // before the I/O thread knew of it
  settle(5ms);
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(ClientTcpTransportTest, AnIdleOneIsClosedAndTold) {
  config.idle_timeout = 1s;
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
  EXPECT_TRUE(until([&] { return peer.ended(); }));
}

TEST_F(ClientTcpTransportTest, AboveTheMostConnectionsNoneIsOpened) {
  config.max_connections = 1;
  start();
  EXPECT_NE(nullptr, connect(destination));
  const Peer other = Peer::listening(at("127.0.0.1", 0));
  EXPECT_EQ(nullptr, connect(other.address()));
  EXPECT_EQ(1u, log.count("as many connections are open as may be"));
}

TEST_F(ClientTcpTransportTest, ToTheLocalEndpointItReachesTheLayerAndTheAnswerIsReceived) {
  start();
  auto* transport = connect(source);
  ASSERT_NE(nullptr, transport);
  EXPECT_TRUE(transport->isOpen());
  layer->on_receive = [](const SIPLIB_message& message, siplib::Path& path) {
    EXPECT_TRUE(path.send(answer(200, std::string(*message.header("Call-ID")) + "-answer")));
  };
  EXPECT_EQ(0, sendText(transport, request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(layer->received.empty()) << "never within the call";
  EXPECT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("response"));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("mine-answer", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(1u, layer->received.size());
  EXPECT_TRUE(layer->received[0].path->reliable());
  EXPECT_EQ(0u, listener.size()) << "no connection was made and no server listener asked";
}

TEST_F(ClientTcpTransportTest, WhatCameFromTheNetworkNeverGoesTheWayToItself) {
  start();
  auto* way = connect(source);
  auto* notifier = listenAt("127.0.0.2");
  peer = Peer::connected(addressOf(notifier));
  ASSERT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
  ASSERT_TRUE(peer.send(request("SUBSCRIBE", "stranger")));
  auto* accepted = next<SIPLIB_SIPServerTcpTransport>("request");
  ASSERT_NE(nullptr, accepted);
  ASSERT_EQ(0, accepted->receive());
  way->setSipMessageHandle(accepted->getSipMessageHandle());
  EXPECT_EQ(-1, way->send());
  EXPECT_EQ(1u, log.count("3 request from the network to the local endpoint dropped"));
  // The same message goes to any other peer.
  auto* elsewhere = connect(destination);
  const Peer agent = server.accept();
  elsewhere->setSipMessageHandle(accepted->getSipMessageHandle());
  EXPECT_EQ(0, elsewhere->send());
  EXPECT_TRUE(reads(agent, request("SUBSCRIBE", "stranger")));
  // And the way is open for one that was made here.
  EXPECT_EQ(0, sendText(way, request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
}

TEST_F(ClientTcpTransportTest, AConnectionFromANetworkEndpointCarriesTheNetworksMessages) {
  start();
  auto* agent = connect(destination);
  peer = server.accept();
  ASSERT_TRUE(peer.send(answer(200, "from an agent")));
  EXPECT_EQ(agent, next<SIPLIB_SIPClientTcpTransport>("response"));
  EXPECT_EQ(0, agent->receive());
  EXPECT_FALSE(agent->getSipMessageHandle()->fromNetwork());

  source = addressOf(listenAt("127.0.0.2"));
  auto* outside = connect(destination);
  const Peer stranger = server.accept();
  ASSERT_TRUE(stranger.send(answer(200, "from outside")));
  EXPECT_EQ(outside, next<SIPLIB_SIPClientTcpTransport>("response"));
  EXPECT_EQ(0, outside->receive());
  EXPECT_TRUE(outside->getSipMessageHandle()->fromNetwork());
}

TEST_F(ClientTcpTransportTest, APeerThatIsNotReceivedFromIsNotReadFrom) {
  start();
  auto* transport = connect(destination);
  peer = server.accept();
  constexpr std::size_t all = 200;
  for (std::size_t i = 0; i < all; ++i) ASSERT_TRUE(peer.send(answer(200, std::to_string(i))));
  settle(50ms);
  EXPECT_EQ(siplib::ClientTcpTransport::kMostReceived, listener.count("response"));
  for (std::size_t i = 0; i < all; ++i) {
    ASSERT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("response")) << i;
    ASSERT_EQ(0, transport->receive());
    ASSERT_EQ(std::to_string(i), callId(transport->getSipMessageHandle()));
    ASSERT_LE(listener.count("response"), siplib::ClientTcpTransport::kMostReceived);
  }
}

TEST_F(ClientTcpTransportTest, WhatTheLocalEndpointSendsIsDroppedWhenTooMuchWaits) {
  start();
  auto* transport = connect(source);
  // Nobody can be told to wait here: it is this process that sends.
  bool all_came = false;
  layer->on_receive = [&](const SIPLIB_message& message, siplib::Path& path) {
    if (!message.isRequest()) return;
    for (std::size_t i = 0; i < 2 * siplib::ClientTcpTransport::kMostReceived; ++i)
      EXPECT_TRUE(path.send(answer(200, std::to_string(i))));
    reactor.post([&] { all_came = true; });
  };
  EXPECT_EQ(0, sendText(transport, request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(until([&] { return all_came; }));
  EXPECT_EQ(siplib::ClientTcpTransport::kMostReceived, listener.count("response"));
  EXPECT_EQ(1u, log.count("message from the local endpoint dropped: too many wait already"));
  for (std::size_t i = 0; i < siplib::ClientTcpTransport::kMostReceived; ++i) {
    ASSERT_EQ(0, transport->receive());
    ASSERT_EQ(std::to_string(i), callId(transport->getSipMessageHandle())) << "the first ones are kept";
  }
  EXPECT_EQ(-1, transport->receive());
}

TEST_F(ClientTcpTransportTest, TheLayersOwnAnswersToItselfEnd) {
  start();
  auto* transport = connect(source);
  layer->on_receive = [](const SIPLIB_message& message, siplib::Path& path) {
    if (message.isRequest()) path.send(answer(200, "ordinary"));
  };
  EXPECT_EQ(0, sendText(transport, request("SUBSCRIBE", "mine")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 2; }));
  settle();
  EXPECT_EQ(2u, layer->received.size());
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ClientTcpTransportTest, TheWayToItselfIsBounded) {
  start();
  auto* transport = connect(source);
  transport->setSipMessageHandle(parsed(request("OPTIONS", "x")));
  std::size_t taken = 0;
  while (taken < 10000 && transport->send() == 0) ++taken;
  EXPECT_EQ(siplib::ClientTcpTransport::kMostOwn, taken);
  EXPECT_EQ(1u, log.count("too many are on their way"));
  EXPECT_TRUE(until([&] { return layer->received.size() == taken; }));
  EXPECT_EQ(0, transport->send());
}

TEST_F(ClientTcpTransportTest, ANetworkPeersRequestIsNotOrdinary) {
  start();
  source = addressOf(listenAt("127.0.0.2"));
  connect(destination);
  peer = server.accept();
  ASSERT_TRUE(peer.send(request("REGISTER", "ordinary")));
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return !text.empty(); }));
  EXPECT_EQ(403, parsed(text)->statusCode());
  EXPECT_TRUE(layer->received.empty());
}

TEST_F(ClientTcpTransportTest, PathsOfTheLayerUseThePairsAndOpenThem) {
  start();
  const auto path = stack->pathTo("tcp", destination.ip(), destination.port());
  ASSERT_NE(nullptr, path);
  EXPECT_TRUE(path->reliable());
  EXPECT_FALSE(server.readable(0ms));
  EXPECT_TRUE(path->send("hello"));
  peer = server.accept();
  EXPECT_EQ(source, peer.remote());
  EXPECT_TRUE(reads(peer, "hello"));
  EXPECT_TRUE(connect(destination)->isOpen()) << "the same";
  EXPECT_FALSE(server.readable(20ms));
  EXPECT_EQ(nullptr, stack->pathTo("TCP", "no-address", 5060));
  EXPECT_EQ(nullptr, stack->pathTo("TCP", "::1", 5060));
}

TEST_F(ClientTcpTransportTest, PathsToManyPeersAreForgotten) {
  start();
  for (int port = 1; port <= 2000; ++port) ASSERT_NE(nullptr, stack->pathTo("TCP", "127.0.0.1", port));
  auto* transport = connect(destination);
  for (int port = 1; port <= 2000; ++port) ASSERT_NE(nullptr, stack->pathTo("TCP", "127.0.0.1", port));
  EXPECT_TRUE(transport->isOpen()) << "what the user holds stays";
}

TEST_F(ClientTcpTransportTest, AThousandOpensAndCloses) {
  config.log_enabled = [](int) { return false; };
  start();
  comeAndGo([&](int i) {
    auto* transport = connect(destination);
    ASSERT_NE(nullptr, transport);
    peer = server.accept();
    if (i % 2 == 0) {
      peer.reset();
      ASSERT_EQ(transport, next<SIPLIB_SIPClientTcpTransport>("lost"));
    }
    stack->close(transport);
    reactor.poll();
    stack->endTurn();
    peer.reset();
  });
  EXPECT_EQ(0u, listener.size());
}

}  // namespace
