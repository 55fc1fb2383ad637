#include "siplib/stack.h"

#include <random>

#include "siplib/socket_fakes.h"

namespace {

using namespace socket_fakes;

SIPLIB_SIPStackConfig working(siplib::Reactor& reactor) {
  SIPLIB_SIPStackConfig config;
  config.reactor = &reactor;
  return config;
}

TEST(Stack, AConfigurationThatCannotWorkIsRefusedWithALine) {
  siplib::Reactor reactor;
  const std::vector<std::function<void(SIPLIB_SIPStackConfig&)>> faults{
      [](auto& config) { config.reactor = nullptr; },
      [](auto& config) { config.max_connections = 0; },
      [](auto& config) { config.limits.max_message = 0; },
      [](auto& config) { config.connect_timeout = 0ms; },
      [](auto& config) { config.idle_timeout = -1s; },
      [](auto& config) { config.t1 = 0ms; },
      [](auto& config) { config.limits.max_head = 0; },
      [](auto& config) { config.limits.max_header_lines = 0; },
      [](auto& config) { config.head_timeout = 0s; },
      [](auto& config) { config.t2 = 0ms; },
      [](auto& config) { config.t4 = 0ms; },
  };
  for (const auto& fault : faults) {
    SIPLIB_SIPStackConfig config = working(reactor);
    Log log;
    config.log = [&](int level, const char*, std::string_view text) { log.add(level, text); };
    fault(config);
    EXPECT_EQ(nullptr, SIPLIB_SIPStack::create(config));
    EXPECT_EQ(1u, log.count("3 the stack's configuration cannot work"));
    EXPECT_NE(0, SIPLIB_SIPInit(config));
    EXPECT_EQ(nullptr, SIPLIB_SIPStack::instance());
  }
  SIPLIB_SIPStackConfig quiet;
  EXPECT_EQ(nullptr, SIPLIB_SIPStack::create(quiet)) << "and says nothing where nobody listens";
}

TEST(Stack, TheProcessHasOne) {
  static siplib::Reactor* const reactor = new siplib::Reactor;  // as long as the process, as the stack
  const siplib::Limits before = siplib::limits();
  SIPLIB_SIPStackConfig config = working(*reactor);
  config.limits.max_parameters = 63;
  EXPECT_EQ(0, SIPLIB_SIPInit(config));
  EXPECT_EQ(63u, siplib::limits().max_parameters);
  SIPLIB_SIPStack* const stack = SIPLIB_SIPStack::instance();
  ASSERT_NE(nullptr, stack);
  EXPECT_NE(nullptr, stack->connector());
  EXPECT_NE(0, SIPLIB_SIPInit(config)) << "and keeps it";
  EXPECT_EQ(stack, SIPLIB_SIPStack::instance());
  stack->endTurn();
  siplib::setLimits(before);
}

class RealStackTest : public StackTest {};

TEST_F(RealStackTest, ItsOrdinaryProcessingAnswersOnTheLocalEndpoint) {
  const auto real = SIPLIB_SIPStack::create(config);
  ASSERT_NE(nullptr, real);
  SIPLIB_SIPConnectionNotifier* local = real->connector()->openNotifier("sip:0");
  ASSERT_NE(nullptr, local);
  std::string ip;
  int port = 0;
  ASSERT_TRUE(local->getCurrentAddress(ip, port));
  const Peer peer = Peer::connected(at(ip, port));
  ASSERT_TRUE(peer.send(request("REGISTER", "nobody")));
  std::string text;
  EXPECT_TRUE(readUntil(peer, text, [&] { return text.find("\r\n\r\n") != std::string::npos; }));
  EXPECT_EQ(503, parsed(text)->statusCode()) << "no listener";
  EXPECT_EQ(0, real->connector()->close(local));
  reactor.poll();
  real->endTurn();
}

TEST_F(RealStackTest, ClosingNothingIsHarmless) {
  open();
  EXPECT_EQ(-1, stack->close(nullptr));
  class Foreign : public SIPLIB_SIPConnection {
  } foreign;
  EXPECT_EQ(-1, stack->close(&foreign));
}

TEST_F(RealStackTest, NothingIsFormattedBelowTheThreshold) {
  config.log_enabled = [](int level) { return level <= 3; };
  open();
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "nowhere", 1));
  EXPECT_EQ("", log.all());
  const Peer other = Peer::listening(at("127.0.0.2", 0));
  EXPECT_EQ(nullptr, stack->openTransportNotifier("TCP", "127.0.0.2", other.port()));
  EXPECT_EQ(1u, log.count("3 cannot listen on"));
}

TEST_F(RealStackTest, EndsWithEverythingOpen) {
  open();
  const SocketAddress local = openLocal();
  const Peer server = Peer::listening(at("127.0.0.1", 0));
  stack->openClient("TCP", local.ip(), local.port(), "127.0.0.1", server.port());
  stack->openClient("UDP", local.ip(), local.port(), "127.0.0.1", server.port());
  const Peer peer = Peer::connected(local);
  ASSERT_TRUE(peer.send(request("OPTIONS", "waits")));
  EXPECT_TRUE(until([&] { return listener.count("request") == 1; }));
  stack->close(stack->openTransportNotifier("TCP", local.ip(), local.port()));
  stack.reset();
  reactor.poll();  // what was posted finds the end
  EXPECT_TRUE(peer.ended() || peer.read().empty());
}

TEST_F(RealStackTest, WhatWasClosedInItsLastTurnGoesWithIt) {
  std::size_t before = 0;
  for (int i = 0; i < 60; ++i) {
    if (i == 10) before = allocatedBytes();
    open();
    EXPECT_EQ(0, stack->close(listenAt("127.0.0.2")));
    reactor.poll();
    stack.reset();
    reactor.poll();
  }
  EXPECT_LT(allocatedBytes(), before + 5000) << "less than 100 bytes a stack";
}

// The user on one thread, the sockets on another, peers that come, talk and go: every message is answered once, every
// accepted connection ends once, and nothing is left.
TEST_F(RealStackTest, TwoThreadsAndManyPeers) {
  config.idle_timeout = 1s;
  open();
  const SocketAddress local = openLocal();
  const std::size_t before = openDescriptors();
  std::thread io([&] { reactor.run(); });

  constexpr int kPeers = 3;
  constexpr int kRounds = 12;
  constexpr int kMessages = 40;
  std::atomic<int> peers_done{0};
  std::atomic<int> answered{0};
  std::vector<std::thread> peers;
  for (int p = 0; p < kPeers; ++p) {
    peers.emplace_back([&, p] {
      std::mt19937 random(static_cast<unsigned>(p));
      const Peer udp = Peer::udp(at("127.0.0.1", 0));
      for (int round = 0; round < kRounds; ++round) {
        Peer tcp = Peer::connected(local);
        ASSERT_TRUE(tcp);
        std::string out;
        for (int i = 0; i < kMessages; ++i) out += request("MESSAGE", "m", std::string(random() % 400, 'b'));
        for (std::size_t sent = 0; sent < out.size();) {
          const std::size_t piece = std::min<std::size_t>(1 + random() % 3000, out.size() - sent);
          ASSERT_TRUE(tcp.send(out.substr(sent, piece)));
          sent += piece;
        }
        ASSERT_TRUE(udp.sendTo(local, request("OPTIONS", "u")));
        std::string in;
        const auto end = std::chrono::steady_clock::now() + 2s;
        while (in.size() < out.size() && std::chrono::steady_clock::now() < end) {
          if (tcp.readable(10ms)) in += tcp.read();
        }
        EXPECT_EQ(out, in);
        if (in == out) answered += kMessages;
        if (round % 2 == 0) tcp.reset();
      }
      ++peers_done;
    });
  }

  // The echo server below is the user; meanwhile it opens, uses and closes connections of its own.
  const Peer server = Peer::listening(at("127.0.0.1", 0), 128);
  int created = 0;
  int closed = 0;
  int turns = 0;
  int opened = 0;
  const auto end = std::chrono::steady_clock::now() + 20s;
  while ((peers_done < kPeers || closed < created || created < kPeers * kRounds) &&
         std::chrono::steady_clock::now() < end) {
    Event event;
    if (!listener.take(event)) {
      std::this_thread::sleep_for(50us);
      stack->endTurn();
      continue;
    }
    if (event.kind == "created") ++created;
    if (event.kind == "request") {
      auto* transport = dynamic_cast<SIPLIB_SIPServerTcpTransport*>(event.connection);
      ASSERT_EQ(0, transport->receive());
      ASSERT_EQ(0, transport->send());
    }
    if (event.kind == "datagram") {
      auto* transport = dynamic_cast<SIPLIB_SIPServerUdpTransport*>(event.connection);
      ASSERT_EQ(0, transport->receive());
      transport->send();
    }
    if (event.kind == "closed") {
      ++closed;
      stack->close(event.connection);
    }
    if (event.kind == "response") {
      EXPECT_EQ(0, event.connection->receive());
    }
    if (event.kind == "lost") stack->closeLost(dynamic_cast<SIPLIB_SIPClientTcpTransport*>(event.connection));
    if (++turns % 10 == 0) {
      auto* connection = stack->openClient("TCP", local.ip(), local.port(), "127.0.0.1", server.port());
      auto* client = dynamic_cast<SIPLIB_SIPClientTcpTransport*>(connection);
      if (client != nullptr) {
        client->setListener(&listener);
        sendText(client, request("OPTIONS", "c"));
        ++opened;
        if (opened % 2 == 0) stack->close(client);
      }
      while (server.readable(0ms)) {
        Peer accepted = server.accept();
        accepted.send(answer(200, "c"));
        if (opened % 3 == 0) accepted.reset();
      }
      auto* udp = stack->openClient("UDP", local.ip(), local.port(), "127.0.0.1", server.port());
      sendText(udp, request("OPTIONS", "d"));
      stack->close(udp);
      auto* handle = stack->openTransportNotifier("TCP", "127.0.0.3", 0);
      stack->close(handle);
    }
    stack->endTurn();
  }
  for (auto& peer : peers) peer.join();
  EXPECT_EQ(kPeers * kRounds * kMessages, answered);
  EXPECT_EQ(kPeers * kRounds, created);
  EXPECT_EQ(kPeers * kRounds, closed);
  reactor.post([&] { reactor.stop(); });
  io.join();
  EXPECT_GT(opened, 10);
  stack.reset();
  EXPECT_LE(openDescriptors(), before);
}

}  // namespace
