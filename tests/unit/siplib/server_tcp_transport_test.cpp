#include "siplib/server_tcp_transport.h"

#include <dlfcn.h>
#include <sys/resource.h>

#include "siplib/socket_fakes.h"

namespace {
std::atomic<std::size_t> g_sent{0};
std::atomic<std::size_t> g_accepts{0};
}  // namespace

// In the place of the system's, which they call: what a stream sends, and what an endpoint accepts, is counted.
extern "C" ssize_t sendmsg(int descriptor, const msghdr* message, int flags) {
  using Function = ssize_t (*)(int, const msghdr*, int);
  static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "sendmsg"));
  ++g_sent;
  return next(descriptor, message, flags);
}
extern "C" int accept4(int descriptor, sockaddr* address, socklen_t* size, int flags) {
  using Function = int (*)(int, sockaddr*, socklen_t*, int);
  static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "accept4"));
  ++g_accepts;
  return next(descriptor, address, size, flags);
}

namespace {

using namespace socket_fakes;

class ServerTcpTransportTest : public StackTest {
 protected:
  void start() {
    open();
    address = addressOf(listenAt("127.0.0.2"));
    ASSERT_TRUE(address.known());
  }
  /// A connection, accepted.
  SIPLIB_SIPServerTcpTransport* accepted(Peer& from) {
    from = Peer::connected(address);
    return next<SIPLIB_SIPServerTcpTransport>("created");
  }
  /// A connection from that address which has delivered a message.
  SIPLIB_SIPServerTcpTransport* heard(Peer& from, const std::string& ip) {
    from = Peer::connected(address, at(ip, 0));
    auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
    EXPECT_TRUE(from.send(request("OPTIONS", "x")));
    EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
    return transport;
  }
  void closeAndFree(SIPLIB_SIPConnection* connection) {
    EXPECT_EQ(0, stack->close(connection));
    settle(5ms);
    stack->endTurn();
  }

  SocketAddress address;
  Peer peer;
};

TEST_F(ServerTcpTransportTest, TellsOfTheConnectionItsMessagesAndItsEndInOrder) {
  start();
  peer = Peer::connected(address);
  ASSERT_TRUE(peer.send(request("OPTIONS", "one") + answer(200, "two")));
  const SocketAddress from = peer.address();
  peer.close();
  auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_NE(nullptr, transport);
  std::string ip;
  int port = 0;
  EXPECT_TRUE(transport->getLocalAddress(ip, port));
  EXPECT_EQ(address, at(ip, port));
  EXPECT_TRUE(transport->getPeerAddress(ip, port));
  EXPECT_EQ(from, at(ip, port));
  EXPECT_FALSE(transport->getSipMessageHandle()) << "nothing was received yet";

  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("one", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("two", callId(transport->getSipMessageHandle()));
  EXPECT_EQ(-1, transport->receive());
  EXPECT_FALSE(transport->getSipMessageHandle());
  EXPECT_TRUE(transport->getLocalAddress(ip, port)) << "still known";
  EXPECT_EQ(-1, sendText(transport, answer(200, "late")));
  EXPECT_EQ(1u, log.count("the connection is closed"));
  closeAndFree(transport);
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ServerTcpTransportTest, SendsTheMessageAsItStands) {
  start();
  auto* transport = accepted(peer);
  const std::string text = request("MESSAGE", "x", "hello");
  EXPECT_EQ(0, sendText(transport, text));
  EXPECT_TRUE(reads(peer, text));
  EXPECT_EQ(-1, sendText(transport, "nonsense"));
  transport->setSipMessageHandle({});
  EXPECT_EQ(-1, transport->send());
}

TEST_F(ServerTcpTransportTest, AMessageInPiecesIsOneMessage) {
  start();
  auto* transport = accepted(peer);
  const std::string text = request("MESSAGE", "pieces", std::string(3000, 'b'));
  for (std::size_t i = 0; i < text.size(); i += 700) {
    ASSERT_TRUE(peer.send(text.substr(i, 700)));
    settle(2ms);
  }
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ(text, transport->getSipMessageHandle()->text());
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ServerTcpTransportTest, WhatDoesNotParseIsDeliveredAndAbsent) {
  start();
  auto* transport = accepted(peer);
  ASSERT_TRUE(peer.send("what is this\r\nContent-Length: 0\r\n\r\n"));
  ASSERT_TRUE(peer.send("nothing SIP/2.0\r\nContent-Length: 0\r\n\r\n" + request("OPTIONS", "after")));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
    EXPECT_EQ(0, transport->receive());
    EXPECT_EQ("", transport->getMethod());
  }
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(0, transport->receive());
  EXPECT_EQ("after", callId(transport->getSipMessageHandle()));
}

TEST_F(ServerTcpTransportTest, AKeepAliveIsAnswered) {
  start();
  accepted(peer);
  ASSERT_TRUE(peer.send("\r\n\r\n"));
  EXPECT_TRUE(reads(peer, "\r\n"));
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ServerTcpTransportTest, ManyKeepAlivesAreAnsweredTogether) {
  start();
  accepted(peer);
  constexpr std::size_t count = 8000;
  std::string questions;
  for (std::size_t i = 0; i < count; ++i) questions += "\r\n\r\n";
  const std::size_t before = g_sent;
  ASSERT_TRUE(peer.send(questions));
  std::string answers;
  EXPECT_TRUE(until([&] {
    answers += peer.read();
    return answers.size() >= 2 * count;
  }));
  EXPECT_EQ(2 * count, answers.size());
  EXPECT_EQ(std::string::npos, answers.find_first_not_of("\r\n"));
  const std::size_t calls = g_sent - before;
  EXPECT_GT(calls, 0u);
  EXPECT_LT(calls, count / 10);
}

TEST_F(ServerTcpTransportTest, AStreamThatCannotBeFramedIsClosedWithOneLine) {
  start();
  auto* transport = accepted(peer);
  ASSERT_TRUE(peer.send("OPTIONS sip:a SIP/2.0\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n"));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  EXPECT_EQ(1u, log.count("4 connection of " + peer.address().text()));
  closeAndFree(transport);
}

TEST_F(ServerTcpTransportTest, AConnectionThatNobodyAcceptsIsClosed) {
  start();
  listener.accept = false;
  peer = Peer::connected(address);
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  EXPECT_EQ(1u, log.count("nobody accepted it"));
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ServerTcpTransportTest, AcceptingOutsideOfTheNotificationGivesNothing) {
  open();
  auto* notifier = listenAt("127.0.0.2");
  EXPECT_EQ(nullptr, notifier->acceptAndOpen());
}

TEST_F(ServerTcpTransportTest, TheUsersCloseRaisesNoEvent) {
  start();
  auto* transport = accepted(peer);
  EXPECT_EQ(0, stack->close(transport));
  EXPECT_EQ(0, stack->close(transport)) << "twice in one turn";
  EXPECT_EQ(-1, sendText(transport, request("OPTIONS", "late")));
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  settle();
  EXPECT_EQ(0u, listener.size());
  EXPECT_EQ(0u, log.count("unsent")) << "nothing was";
  stack->endTurn();
}

TEST_F(ServerTcpTransportTest, AnEventThatStillWaitsFindsTheClosedTransport) {
  start();
  auto* transport = accepted(peer);
  ASSERT_TRUE(peer.send(request("OPTIONS", "one")));
  EXPECT_TRUE(until([&] { return listener.count("request") == 1; }));
  stack->close(transport);
  settle();
  stack->endTurn();
  stack->endTurn();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(0, transport->receive());
  stack->endTurn();
}

TEST_F(ServerTcpTransportTest, APeerThatIsNotReceivedFromIsNotReadFrom) {
  start();
  auto* transport = accepted(peer);
  constexpr std::size_t all = 200;
  for (std::size_t i = 0; i < all; ++i) ASSERT_TRUE(peer.send(request("OPTIONS", std::to_string(i))));
  settle(50ms);
  EXPECT_EQ(siplib::ServerTcpTransport::kMostReceived, listener.count("request"));
  for (std::size_t i = 0; i < all; ++i) {
    ASSERT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request")) << i;
    ASSERT_EQ(0, transport->receive());
    ASSERT_EQ(std::to_string(i), callId(transport->getSipMessageHandle()));
    ASSERT_LE(listener.count("request"), siplib::ServerTcpTransport::kMostReceived);
  }
  settle();
  EXPECT_EQ(0u, listener.size());
}

TEST_F(ServerTcpTransportTest, APeerThatDoesNotReadCostsABoundedQueueAndGetsEverythingThatWasTaken) {
  start();
  auto* transport = accepted(peer);
  transport->setSipMessageHandle(parsed(request("MESSAGE", "x", std::string(60000, 'b'))));
  std::size_t taken = 0;
  while (taken < 1000 && transport->send() == 0) ++taken;
  ASSERT_LT(taken, 1000u);
  EXPECT_EQ(-1, transport->send());
  EXPECT_GE(log.count("too much waits for the peer already"), 1u);
  const std::string one = transport->getSipMessageHandle()->text();
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return text.size() >= taken * one.size(); }));
  settle();
  text += peer.read();
  ASSERT_EQ(taken * one.size(), text.size());
  for (std::size_t i = 0; i < taken; ++i) ASSERT_EQ(0, text.compare(i * one.size(), one.size(), one)) << i;
  EXPECT_EQ(0, transport->send()) << "and the connection goes on";
}

TEST_F(ServerTcpTransportTest, AResetPeerIsToldAsTheEnd) {
  start();
  auto* transport = accepted(peer);
  peer.reset();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  settle();
  EXPECT_EQ(0u, listener.size());
  closeAndFree(transport);
}

TEST_F(ServerTcpTransportTest, TheEndThatASendFindsIsToldOnce) {
  start();
  auto* transport = accepted(peer);
  peer.reset();
  // The reset is found by whichever comes first.
  for (int i = 0; i < 3; ++i) sendText(transport, request("OPTIONS", "x"));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  settle();
  EXPECT_EQ(0u, listener.size());
  closeAndFree(transport);
}

TEST_F(ServerTcpTransportTest, OrdinaryMessagesReachTheLayerOnlyFromTheLocalEndpoint) {
  open();
  const SocketAddress local = openLocal();
  const SocketAddress network = addressOf(listenAt("127.0.0.2"));
  peer = Peer::connected(local);
  auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_TRUE(peer.send(request("REGISTER", "ordinary")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  EXPECT_EQ("ordinary", callId(layer->received[0].message));
  const auto path = layer->received[0].path;
  EXPECT_TRUE(path->reliable());
  std::string ip;
  int port = 0;
  path->peer(ip, port);
  EXPECT_EQ(peer.address(), at(ip, port));
  path->local(ip, port);
  EXPECT_EQ(local, at(ip, port));
  EXPECT_TRUE(path->send("the answer"));
  EXPECT_TRUE(reads(peer, "the answer"));
  EXPECT_EQ(0u, listener.size());
  peer.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_FALSE(path->send("too late"));
  closeAndFree(transport);

  Peer far = Peer::connected(network, at("127.0.0.9", 0));
  next<SIPLIB_SIPServerTcpTransport>("created");
  ASSERT_TRUE(far.send(request("REGISTER", "ordinary")));
  std::string text;
  EXPECT_TRUE(readUntil(far, text, [&] { return text.find("\r\n\r\n") != std::string::npos; }));
  const auto refusal = parsed(text);
  EXPECT_EQ(403, refusal->statusCode());
  EXPECT_EQ("SIP/2.0/TCP 127.0.0.1:9;branch=z9hG4bKordinary", refusal->header("Via"));
  EXPECT_EQ("<sip:a@127.0.0.1>;tag=1", refusal->header("From"));
  EXPECT_EQ(0u, refusal->header("To")->find("<sip:b@127.0.0.1>;tag="));
  EXPECT_EQ("ordinary", refusal->header("Call-ID"));
  EXPECT_EQ("1 REGISTER", refusal->header("CSeq"));
  EXPECT_EQ("0", refusal->header("Content-Length"));
  EXPECT_EQ(1u, log.count("4 REGISTER from " + far.address().text() + " refused"));
  EXPECT_EQ(1u, layer->received.size());

  ASSERT_TRUE(far.send(request("REGISTER", "ordinary")));
  std::string repeated;
  EXPECT_TRUE(readUntil(far, repeated, [&] { return repeated.size() >= text.size(); }));
  EXPECT_EQ(text, repeated) << "the same tag";

  ASSERT_TRUE(far.send(request("ACK", "ordinary")));
  ASSERT_TRUE(far.send(answer(200, "ordinary-answer")));
  EXPECT_TRUE(until([&] { return log.count("3 response 200 from " + far.address().text() + " dropped") == 1; }));
  EXPECT_EQ("", far.read()) << "neither has an answer";
  EXPECT_EQ(1u, layer->received.size()) << "nobody in the network was asked anything by it";
}

TEST_F(ServerTcpTransportTest, AnOrdinaryMessageThatDoesNotParseIsDroppedWithALineThatNamesItsSender) {
  open();
  peer = Peer::connected(openLocal());
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
  const std::string broken = "ordinary nonsense\r\nContent-Length: 0\r\n\r\n";
  ASSERT_TRUE(peer.send(broken + request("OPTIONS", "ordinary")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  const std::string line = "4 message from " + peer.address().text() + " dropped: ";
  EXPECT_EQ(1u, log.count(line + std::string(parsed(broken)->parseError()))) << log.all();
  EXPECT_TRUE(peer.read().empty());
}

TEST_F(ServerTcpTransportTest, AMessageThatFindsNoMemoryEndsItsConnectionAloneWithALine) {
  open();
  const SocketAddress local = openLocal();
  layer->on_receive = [](const SIPLIB_message& message, siplib::Path&) {
    if (message.header("Call-ID") == "ordinary dear") throw std::bad_alloc();
  };
  peer = Peer::connected(local);
  const auto* transport = next<SIPLIB_SIPServerTcpTransport>("created");
  const Peer other = Peer::connected(local);
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
  ASSERT_TRUE(peer.send(request("OPTIONS", "ordinary dear")));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  EXPECT_EQ(1u, log.count("3 connection of " + peer.address().text() + " to " + local.text() + " ended: no memory"));
  ASSERT_TRUE(other.send(request("OPTIONS", "ordinary")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
}

TEST_F(ServerTcpTransportTest, EveryViaIsCopiedToARefusalInItsOrder) {
  start();
  accepted(peer);
  ASSERT_TRUE(peer.send(
      "SUBSCRIBE sip:127.0.0.1 SIP/2.0\r\nv: SIP/2.0/TCP 127.0.0.4;branch=z9hG4bK1, SIP/2.0/UDP h2\r\n"
      "Via: SIP/2.0/TCP h3\r\nf: <sip:a@h>\r\nt: <sip:b@h>;tag=known\r\ni: ordinary\r\nCSeq: 3 SUBSCRIBE\r\n\r\n"));
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return text.find("\r\n\r\n") != std::string::npos; }));
  const auto refusal = parsed(text);
  const std::vector<std::string_view> vias{"SIP/2.0/TCP 127.0.0.4;branch=z9hG4bK1", "SIP/2.0/UDP h2", "SIP/2.0/TCP h3"};
  EXPECT_EQ(vias, refusal->headers("Via"));
  EXPECT_EQ("<sip:b@h>;tag=known", refusal->header("To"));
  EXPECT_EQ(0u, text.find("SIP/2.0 403 Forbidden\r\nv: SIP/2.0/TCP 127.0.0.4;branch=z9hG4bK1, SIP/2.0/UDP h2\r\n"
                          "Via: SIP/2.0/TCP h3\r\nFrom: "))
      << "the lines as they came";
}

TEST_F(ServerTcpTransportTest, ARefusalIsNeverMuchLargerThanItsRequest) {
  start();
  accepted(peer);
  const std::string least = "SUBSCRIBE a SIP/2.0\r\nv:ordinary\r\nt:b\r\n\r\n";
  ASSERT_TRUE(peer.send(least));
  EXPECT_TRUE(until([&] { return log.count("SUBSCRIBE from") == 1; }));
  settle();
  EXPECT_EQ("", peer.read());
  std::string many = "SUBSCRIBE sip:127.0.0.1 SIP/2.0\r\nv:ordinary";
  for (int i = 0; i < 6000; ++i) many += ",a";
  many += "\r\nt:b\r\n\r\n";
  ASSERT_TRUE(peer.send(many));
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return text.ends_with("\r\n\r\n"); }));
  EXPECT_LE(text.size(), many.size() + 100);
  EXPECT_EQ(6001u, parsed(text)->headerCount("Via"));
}

TEST_F(ServerTcpTransportTest, WithoutAListenerEverythingIsOrdinaryAndTheLibraryCleansUp) {
  open();
  SIPLIB_SIPConnectionNotifier* notifier = stack->openNotifier("sip:0");
  std::string ip;
  int port = 0;
  ASSERT_TRUE(notifier->getCurrentAddress(ip, port));
  settle(5ms);
  const std::size_t before = openDescriptors();
  peer = Peer::connected(at(ip, port));
  ASSERT_TRUE(peer.send(request("REGISTER", "r") + "nonsense\r\n\r\n"));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
  EXPECT_EQ(1u, log.count(" dropped: ")) << "the nonsense";
  peer.close();
  EXPECT_TRUE(until([&] { return openDescriptors() == before; }));
}

TEST_F(ServerTcpTransportTest, ConnectionsOutliveTheirEndpoint) {
  open();
  auto* notifier = listenAt("127.0.0.2");
  address = addressOf(notifier);
  auto* transport = accepted(peer);
  closeAndFree(notifier);
  EXPECT_FALSE(Peer::connected(address));
  ASSERT_TRUE(peer.send(request("OPTIONS", "still")));
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_EQ(0, transport->receive());
  peer.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  closeAndFree(transport);
}

TEST_F(ServerTcpTransportTest, AboveTheMostConnectionsNewOnesAreClosed) {
  config.max_connections = 2;
  start();
  Peer first;
  Peer second;
  auto* transport = heard(first, "127.0.1.1");
  heard(second, "127.0.1.2");
  Peer third = Peer::connected(address, at("127.0.1.3", 0));
  EXPECT_TRUE(until([&] { return third.ended(); }));
  EXPECT_EQ(1u, log.count("4 connection of " + third.address().text() + " to " + address.text() +
                          " refused: as many connections are open as may be"));
  EXPECT_FALSE(first.ended() || second.ended());
  first.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  closeAndFree(transport);
  Peer fourth;
  EXPECT_NE(nullptr, heard(fourth, "127.0.1.4"));
}

TEST_F(ServerTcpTransportTest, TheNetworkLeavesAQuarterOfTheConnectionsToTheLocalEndpoint) {
  config.max_connections = 8;
  start();
  const SocketAddress local = openLocal();
  std::vector<Peer> network(6);
  for (std::size_t i = 0; i < network.size(); ++i) heard(network[i], "127.0.1." + std::to_string(i + 1));
  Peer late = Peer::connected(address, at("127.0.1.7", 0));
  EXPECT_TRUE(until([&] { return late.ended(); }));
  EXPECT_FALSE(network[5].ended());
  EXPECT_EQ(1u, log.count("as many connections are open as may be"));
  std::vector<Peer> phones(2);
  address = local;
  heard(phones[0], "127.0.0.1");
  phones[1] = Peer::connected(local);
  EXPECT_TRUE(until([&] { return phones[1].ended(); })) << "the last is for what the stack opens";
  EXPECT_FALSE(phones[0].ended());
}

TEST_F(ServerTcpTransportTest, UserAgentsLeaveAnEighthOfTheConnectionsToWhatTheStackOpens) {
  config.max_connections = 16;
  open();
  address = openLocal();
  std::vector<Peer> chatty(14);
  for (Peer& one : chatty) heard(one, "127.0.0.1");
  Peer late = Peer::connected(address);
  EXPECT_TRUE(until([&] { return late.ended(); }));
  const auto opens = [&](const Peer& server) {
    return stack->openClient("TCP", address.ip(), address.port(), "127.0.0.1", server.port()) != nullptr;
  };
  const Peer servers[] = {Peer::listening(at("127.0.0.1", 0)), Peer::listening(at("127.0.0.1", 0)),
                          Peer::listening(at("127.0.0.1", 0))};
  EXPECT_TRUE(opens(servers[0]) && opens(servers[1])) << log.all();
  EXPECT_FALSE(opens(servers[2]));
  for (const Peer& one : chatty) EXPECT_FALSE(one.ended());
}

TEST_F(ServerTcpTransportTest, WhatTheStackHasOpenedIsNotKeptOnceMore) {
  config.max_connections = 16;
  open();
  address = openLocal();
  const Peer servers[] = {Peer::listening(at("127.0.0.1", 0)), Peer::listening(at("127.0.0.1", 0))};
  for (const Peer& server : servers) {
    ASSERT_NE(nullptr, stack->openClient("TCP", address.ip(), address.port(), "127.0.0.1", server.port()));
  }
  std::vector<Peer> chatty(14);
  for (Peer& one : chatty) heard(one, "127.0.0.1");
  for (const Peer& one : chatty) EXPECT_FALSE(one.ended());
}

TEST_F(ServerTcpTransportTest, WhoHasBeenSilentLongestGivesWayAndIsTold) {
  config.max_connections = 2;
  start();
  const SocketAddress local = openLocal();
  address = local;
  Peer busy;
  heard(busy, "127.0.0.1");
  Peer silent;
  auto* transport = accepted(silent);
  ASSERT_TRUE(silent.send("\r\n\r\nOPTIONS sip:b SIP/2.0\r\n"));
  EXPECT_TRUE(reads(silent, "\r\n"));
  Peer phone;
  auto* newer = accepted(phone);
  EXPECT_NE(transport, newer);
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_TRUE(until([&] { return silent.ended(); }));
  EXPECT_EQ(1u, log.count("5 connection of " + silent.address().text() + " to " + local.text() +
                          " ended: gave way to another"));
  ASSERT_TRUE(phone.send(request("OPTIONS", "x")));
  EXPECT_EQ(newer, next<SIPLIB_SIPServerTcpTransport>("request"));
  EXPECT_FALSE(busy.ended() || phone.ended());
  closeAndFree(transport);
}

TEST_F(ServerTcpTransportTest, WhatTheStackOpensFindsAPlaceAmongSilentOnes) {
  config.max_connections = 4;
  open();
  address = openLocal();
  std::vector<Peer> idle(4);
  for (Peer& one : idle) accepted(one);
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  EXPECT_NE(nullptr, stack->openClient("TCP", address.ip(), address.port(), "127.0.0.1", server.port()));
  EXPECT_TRUE(until([&] { return idle[0].ended(); }));
  EXPECT_FALSE(idle[1].ended());
}

TEST_F(ServerTcpTransportTest, AStrangerLeavesRoomForOthersAndAllOfThemForTheProxies) {
  config.max_connections = 32;  // 24 for the network: 6 an address, 6 kept
  start();
  stack->keepPlacesFor({"127.0.1.99", "no address", "::1"});
  std::vector<Peer> chatty(7);
  for (std::size_t i = 0; i < 6; ++i) heard(chatty[i], "127.0.1.1");
  chatty[6] = Peer::connected(address, at("127.0.1.1", 0));
  EXPECT_TRUE(until([&] { return chatty[6].ended(); })) << "more than its share";
  std::vector<Peer> others(12);
  for (std::size_t i = 0; i < others.size(); ++i) heard(others[i], "127.0.2." + std::to_string(1 + i / 6));
  Peer late = Peer::connected(address, at("127.0.2.3", 0));
  EXPECT_TRUE(until([&] { return late.ended(); })) << "the rest is kept";
  std::vector<Peer> proxy(6);
  for (Peer& one : proxy) heard(one, "127.0.1.99");
  Peer more = Peer::connected(address, at("127.0.1.99", 0));
  EXPECT_TRUE(until([&] { return more.ended(); }));
  for (const Peer& one : proxy) EXPECT_FALSE(one.ended());
}

TEST_F(ServerTcpTransportTest, AConnectionThatDeliversNoWholeHeadInTimeIsClosed) {
  config.head_timeout = 1s;
  start();
  const auto begin = std::chrono::steady_clock::now();
  std::vector<Peer> closed(4);
  for (Peer& one : closed) accepted(one);
  Peer talked;
  heard(talked, "127.0.1.1");
  ASSERT_TRUE(closed[1].send("OPTIONS sip:b SIP/2.0\r\n"));
  const std::string body = request("MESSAGE", "x", "body");
  ASSERT_TRUE(closed[3].send(body.substr(0, body.size() - 1)));
  auto next_line = begin;
  EXPECT_TRUE(until([&] {
    if (std::chrono::steady_clock::now() >= next_line) {  // gives nobody more time
      closed[1].send("X: y\r\n");
      closed[2].send("\r\n\r\n");
      next_line += 50ms;
    }
    return listener.count("closed") == 4;
  })) << log.all();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 990ms);
  EXPECT_EQ(0u, log.count("4 connection of")) << log.all();
  EXPECT_EQ(4u, log.count("ended: no whole message came in time"));
  EXPECT_FALSE(talked.ended()) << "between messages it may be quiet";
}

TEST_F(ServerTcpTransportTest, AMessageThatIsNotFinishedInTimeEndsTheConnection) {
  config.head_timeout = 1s;
  start();
  Peer half;
  Peer whole;
  auto* transport = heard(half, "127.0.1.1");
  heard(whole, "127.0.1.2");
  settle(600ms);
  const std::string text = request("MESSAGE", "x", "body");
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(half.send(text + text.substr(0, 40)));
  ASSERT_TRUE(whole.send(text.substr(0, 40)));
  settle(20ms);
  ASSERT_TRUE(whole.send(text.substr(40) + "\r\n\r\n\r\n"));
  Event event;
  EXPECT_TRUE(until([&] { return listener.take(event) && event.kind == "closed"; })) << log.all();
  EXPECT_EQ(transport, event.connection);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 990ms) << "from the first byte of the message";
  settle(1200ms);
  whole.read();
  EXPECT_FALSE(whole.ended()) << "line ends begin no message";
}

TEST_F(ServerTcpTransportTest, APeerThatIsNotReadFromIsNotBlamedForItsUnfinishedMessage) {
  config.head_timeout = 1s;
  start();
  auto* transport = accepted(peer);
  const std::string text = request("OPTIONS", "x");
  std::string all;
  for (std::size_t i = 0; i < siplib::ServerTcpTransport::kMostReceived; ++i) all += text;
  ASSERT_TRUE(peer.send(all + text.substr(0, 20)));
  EXPECT_TRUE(until([&] { return listener.count("request") == siplib::ServerTcpTransport::kMostReceived; }));
  settle(1300ms);
  EXPECT_FALSE(peer.ended());
  while (transport->receive() == 0) {
  }
  ASSERT_TRUE(peer.send(text.substr(20)));
  EXPECT_TRUE(until([&] { return listener.count("request") == siplib::ServerTcpTransport::kMostReceived + 1; }));
}

TEST_F(ServerTcpTransportTest, AMessageWithoutContentLengthGetsOneOnTheStream) {
  start();
  auto* transport = accepted(peer);
  EXPECT_EQ(0, sendText(transport, "SIP/2.0 200 OK\r\nVia: x\r\n\r\nbody"));
  EXPECT_TRUE(reads(peer, "SIP/2.0 200 OK\r\nVia: x\r\nContent-Length: 4\r\n\r\nbody"));
}

TEST_F(ServerTcpTransportTest, AQuietConnectionIsClosedAndABusyOneIsNot) {
  config.idle_timeout = 1s;
  start();
  Peer busy;
  auto* quiet = accepted(peer);
  accepted(busy);
  settle(600ms);
  ASSERT_TRUE(busy.send("\r\n\r\n"));
  EXPECT_EQ(quiet, next<SIPLIB_SIPServerTcpTransport>("closed"));
  EXPECT_TRUE(until([&] { return peer.ended(); }));
  EXPECT_FALSE(busy.ended() && busy.read().empty());
  EXPECT_EQ(0u, listener.size());
  next<SIPLIB_SIPServerTcpTransport>("closed");
}

TEST_F(ServerTcpTransportTest, WithoutDescriptorsAcceptingPausesAndGoesOn) {
  start();
  settle(5ms);
  peer = Peer::bound(SOCK_STREAM, at("127.0.0.1", 0));
  rlimit saved{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  rlimit few = saved;
  few.rlim_cur = openDescriptors() + 20;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  std::vector<Peer> fill;
  for (int one = dup(peer.get()); one >= 0; one = dup(peer.get())) fill.emplace_back(one);
  EXPECT_EQ(0, ::connect(peer.get(), address.data(), address.size()));
  const std::size_t before = g_accepts;
  settle(350ms);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
  EXPECT_LT(g_accepts - before, 10u) << "ten times a second";
  EXPECT_EQ(1u, log.count("cannot accept on " + address.text() + ": Too many open files"));
  EXPECT_EQ(0u, listener.size());
  EXPECT_NE(nullptr, next<SIPLIB_SIPServerTcpTransport>("created"));
}

TEST_F(ServerTcpTransportTest, AThousandConnectionsComeAndGo) {
  config.log_enabled = [](int) { return false; };
  start();
  comeAndGo([&](int i) {
    auto* transport = accepted(peer);
    ASSERT_NE(nullptr, transport);
    ASSERT_TRUE(peer.send(request("OPTIONS", "x")));
    ASSERT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("request"));
    ASSERT_EQ(0, transport->receive());
    if (i % 2 == 0) {
      peer.reset();
      ASSERT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
    }
    stack->close(transport);
    reactor.poll();
    stack->endTurn();
    peer.reset();
  });
  EXPECT_EQ(0u, listener.size());
}

}  // namespace
