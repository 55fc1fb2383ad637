#include "siplib/peer_owner.h"

#include <sys/fsuid.h>
#include <sys/resource.h>

#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

struct Owner {
  std::optional<uid_t> uid;
  std::string why;
};

Owner tcpOwner(const SocketAddress& peer, const SocketAddress& local) {
  Owner owner;
  owner.uid = siplib::tcpPeerOwner(peer, local, owner.why);
  return owner;
}

/// While it lives, sockets of this thread are made as another user's; that takes a privilege.
class AnotherUser {
 public:
  static constexpr uid_t kUid = 65534;
  AnotherUser() : before_(static_cast<uid_t>(::setfsuid(kUid))) {}
  ~AnotherUser() { ::setfsuid(before_); }
  AnotherUser(const AnotherUser&) = delete;
  AnotherUser& operator=(const AnotherUser&) = delete;
  bool granted() const { return before_ != kUid && static_cast<uid_t>(::setfsuid(kUid)) == kUid; }

 private:
  uid_t before_;
};

TEST(PeerOwner, AConnectionIsItsProcesses) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const Peer client = Peer::connected(server.address());
  const Peer accepted = server.accept();
  EXPECT_EQ(tcpOwner(client.address(), server.address()).uid, ::geteuid());
  EXPECT_EQ(tcpOwner(server.address(), client.address()).uid, ::geteuid()) << "the accepted end, from the other side";
}

TEST(PeerOwner, AnotherUsersConnectionIsTheirs) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  Peer client;
  uid_t expected = ::geteuid();
  {
    const AnotherUser user;
    if (user.granted()) expected = AnotherUser::kUid;
    client = Peer::connected(server.address());
  }
  EXPECT_EQ(tcpOwner(client.address(), server.address()).uid, expected);
}

// The kernel shows such a socket as user 0's.
TEST(PeerOwner, AClosedConnectionIsNobodys) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  Peer client = Peer::connected(server.address());
  const Peer accepted = server.accept();
  const SocketAddress gone = client.address();
  client.close();
  const Owner owner = tcpOwner(gone, server.address());
  EXPECT_EQ(owner.uid, std::nullopt);
  EXPECT_EQ(owner.why, "its socket is gone");
}

TEST(PeerOwner, WhoListensOnAPortIsNotWhoConnectedFromIt) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const Owner owner = tcpOwner(server.address(), at("127.0.0.1", 9));
  EXPECT_EQ(owner.uid, std::nullopt);
  EXPECT_EQ(owner.why, "its socket is gone");
}

TEST(PeerOwner, AConnectionThatNobodyHasAcceptedIsNobodys) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const Peer client = Peer::connected(server.address());
  EXPECT_EQ(tcpOwner(server.address(), client.address()).uid, std::nullopt);
}

TEST(PeerOwner, OnlyLoopbackAddressesAreAskedAbout) {
  for (const SocketAddress& address : {at("192.0.2.1", 5060), at("::1", 5060), SocketAddress()}) {
    EXPECT_EQ(tcpOwner(address, at("127.0.0.1", 5060)).why, "no loopback address");
    EXPECT_EQ(tcpOwner(at("127.0.0.1", 5060), address).why, "no loopback address");
  }
}

TEST(PeerOwner, WithoutDescriptorsNobodyIsKnown) {
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  const Peer client = Peer::connected(server.address());
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const Owner owner = tcpOwner(client.address(), server.address());
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(owner.uid, std::nullopt);
  EXPECT_EQ(owner.why, "the kernel does not tell");
}

class ControlUidsTest : public StackTest {
 protected:
  void start(std::optional<std::vector<uid_t>> uids) {
    config.control_uids = std::move(uids);
    open();
    local = openLocal();
  }
  /// The status of the answer, 0 for none; the layer is given what is not refused.
  int refusal(const Peer& peer) {
    std::string text;
    until([&] { return !(text += peer.read()).empty() || !layer->received.empty(); });
    layer->received.clear();
    return text.empty() ? 0 : parsed(text)->statusCode();
  }
  int overUdp(const std::string& method) {
    const Peer peer = Peer::udp(at("127.0.0.1", 0));
    EXPECT_TRUE(peer.sendTo(local, request(method, "ordinary")));
    return refusal(peer);
  }
  int overTcp(const std::string& method) {
    const Peer peer = Peer::connected(local);
    EXPECT_TRUE(peer.send(request(method, "ordinary")));
    return refusal(peer);
  }
  const std::string mine = std::to_string(::geteuid());
  SocketAddress local;
};

TEST_F(ControlUidsTest, AUserWhoIsNamedMayOverTcp) {
  start(std::vector<uid_t>{::geteuid() + 1, ::geteuid()});
  for (const char* const method : {"REGISTER", "SUBSCRIBE", "MESSAGE", "ACK"}) EXPECT_EQ(overTcp(method), 0);
  EXPECT_EQ(log.count("refused"), 0u);
}

TEST_F(ControlUidsTest, AnyOtherIsAnswered403WithALineThatNamesTheUser) {
  start(std::vector<uid_t>{::geteuid() + 1});
  EXPECT_EQ(overTcp("REGISTER"), 403);
  EXPECT_EQ(log.count("4 REGISTER from 127.0.0.1:"), 1u);
  EXPECT_EQ(log.count(" refused: user id " + mine + " may not control the proxy"), 1u);
  EXPECT_EQ(overTcp("SUBSCRIBE"), 403);
  EXPECT_EQ(log.count(" refused: user id " + mine + " may not control the proxy"), 2u);
}

// Whoever has a socket can name another's as a datagram's source, and close its own before it is looked for.
TEST_F(ControlUidsTest, TheSenderOfADatagramIsNeverKnown) {
  start(std::vector<uid_t>{::geteuid()});
  for (const char* const method : {"REGISTER", "SUBSCRIBE", "MESSAGE"}) EXPECT_EQ(overUdp(method), 403) << method;
  EXPECT_EQ(log.count(" refused: its user is not known: a datagram does not tell whose it is"), 3u) << log.all();
}

// Each takes one of the transactions, of which there is a number for all.
TEST_F(ControlUidsTest, EveryMethodIsAskedAbout) {
  start(std::vector<uid_t>{::geteuid() + 1});
  for (const char* const method : {"MESSAGE", "NOTIFY", "OPTIONS", "INVITE", "CANCEL", "BYE", "JUNK"}) {
    EXPECT_EQ(overTcp(method), 403) << method;
    EXPECT_EQ(overUdp(method), 403) << method;
  }
}

TEST_F(ControlUidsTest, AnAckIsDroppedWithoutAnAnswerAndResponsesAreTaken) {
  start(std::vector<uid_t>{::geteuid() + 1});
  const Peer peer = Peer::udp(at("127.0.0.1", 0));
  ASSERT_TRUE(peer.sendTo(local, request("ACK", "ordinary")));
  ASSERT_TRUE(peer.sendTo(local, answer(200, "ordinary")));
  ASSERT_TRUE(until([&] { return layer->received.size() == 1; }));
  EXPECT_TRUE(layer->received[0].message->isResponse());
  EXPECT_EQ(log.count("4 ACK from 127.0.0.1:"), 1u);
  EXPECT_EQ(peer.read(), "");
}

TEST_F(ControlUidsTest, AListOfNobodyKeepsEverybodyOut) {
  start(std::vector<uid_t>());
  EXPECT_EQ(overTcp("REGISTER"), 403);
}

TEST_F(ControlUidsTest, WithoutAListNobodyIsAsked) {
  start(std::nullopt);
  Peer peer = Peer::udp(at("127.0.0.1", 0));
  ASSERT_TRUE(peer.sendTo(local, request("REGISTER", "ordinary")));
  peer.close();
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; }));
}

TEST_F(ControlUidsTest, ASenderThatIsGoneIsRefused) {
  start(std::vector<uid_t>{::geteuid()});
  Peer peer = Peer::connected(local);
  ASSERT_TRUE(peer.send(request("REGISTER", "ordinary")));
  peer.close();
  EXPECT_TRUE(until([&] { return log.count("refused: its user is not known: its socket is gone") == 1; }));
  EXPECT_TRUE(layer->received.empty());
}

TEST_F(ControlUidsTest, AConnectionThatTheStackOpenedIsToldAsWell) {
  start(std::vector<uid_t>{::geteuid()});
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  ASSERT_NE(nullptr, stack->openClient("TCP", local.ip(), local.port(), "127.0.0.1", server.port()));
  const Peer peer = server.accept();
  stack->endTurn();
  ASSERT_TRUE(peer.send(request("REGISTER", "ordinary")));
  EXPECT_TRUE(until([&] { return layer->received.size() == 1; })) << log.all();
}

TEST_F(ControlUidsTest, WhatComesByWayOfTheStackItselfIsRefused) {
  start(std::vector<uid_t>{::geteuid()});
  for (const char* const transport : {"TCP", "UDP"}) {
    auto* const own = stack->openClient(transport, local.ip(), local.port(), local.ip(), local.port());
    ASSERT_NE(nullptr, own);
    own->setSipMessageHandle(parsed(request("SUBSCRIBE", "ordinary")));
    EXPECT_EQ(0, own->send());
    stack->endTurn();
  }
  EXPECT_TRUE(until([&] { return log.count("refused: its user is not known: it came by way of the proxy") == 2; }));
  EXPECT_TRUE(until([&] { return layer->received.size() == 2; })) << "the answers";
  for (const auto& one : layer->received) EXPECT_EQ(403, one.message->statusCode());
}

TEST_F(ControlUidsTest, TheUserOfAConnectionIsToldToo) {
  start(std::vector<uid_t>{::geteuid() + 1});
  const Peer stream = Peer::connected(local);
  const Peer datagrams = Peer::udp(at("127.0.0.1", 0));
  ASSERT_TRUE(stream.send(request("MESSAGE", "one")));
  ASSERT_TRUE(datagrams.sendTo(local, request("MESSAGE", "two")));
  int told = 0;
  for (Event event; until([&] { return listener.take(event); }) && told < 2;) {
    if (event.kind != "request" && event.kind != "datagram") continue;
    auto& connection = dynamic_cast<SIPLIB_SIPTransportConnection&>(*event.connection);
    connection.receive();
    std::string why;
    EXPECT_FALSE(stack->mayControl(connection, why));
    EXPECT_EQ(why, event.kind == "datagram" ? "its user is not known: a datagram does not tell whose it is"
                                            : "user id " + mine + " may not control the proxy");
    if (++told == 2) break;
  }
  EXPECT_EQ(told, 2);
}

}  // namespace
