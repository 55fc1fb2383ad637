#include "siplib/server_tcp_transport.h"

#include <dlfcn.h>
#include <sys/resource.h>

#include "siplib/socket_fakes.h"

namespace {
std::atomic<std::size_t> g_sent{0};
}

// In the place of the system's, which it calls: what a stream sends is counted.
extern "C" ssize_t sendmsg(int descriptor, const msghdr* message, int flags) {
  using Function = ssize_t (*)(int, const msghdr*, int);
  static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "sendmsg"));
  ++g_sent;
  return next(descriptor, message, flags);
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
  auto* transport = accepted(first);
  accepted(second);
  Peer third = Peer::connected(address);
  EXPECT_TRUE(until([&] { return third.ended(); }));
  EXPECT_EQ(1u, log.count("as many connections are open as may be"));
  first.close();
  EXPECT_EQ(transport, next<SIPLIB_SIPServerTcpTransport>("closed"));
  closeAndFree(transport);
  Peer fourth;
  EXPECT_NE(nullptr, accepted(fourth));
}

TEST_F(ServerTcpTransportTest, TheNetworkLeavesAQuarterOfTheConnectionsToTheLocalEndpoint) {
  config.max_connections = 8;
  start();
  const SocketAddress local = openLocal();
  std::vector<Peer> network(7);
  for (Peer& one : network) one = Peer::connected(address);
  EXPECT_TRUE(until([&] { return network.back().ended(); }));
  EXPECT_FALSE(network[5].ended());
  EXPECT_EQ(1u, log.count("as many connections are open as may be"));
  Peer first = Peer::connected(local);
  Peer second = Peer::connected(local);
  Peer third = Peer::connected(local);
  EXPECT_TRUE(until([&] { return third.ended(); }));
  EXPECT_FALSE(first.ended() || second.ended());
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
  settle(350ms);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
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
