#include "siplib/socket_address.h"

#include <gtest/gtest.h>

namespace {

using siplib::SocketAddress;

TEST(SocketAddress, ReadsLiteralAddresses) {
  const auto v4 = SocketAddress::parse("192.0.2.7", 5060);
  ASSERT_TRUE(v4);
  EXPECT_EQ("192.0.2.7", v4->ip());
  EXPECT_EQ(5060, v4->port());
  EXPECT_EQ("192.0.2.7:5060", v4->text());
  EXPECT_FALSE(v4->isLoopback());
  const auto v6 = SocketAddress::parse("[2001:DB8::1]", 65535);
  ASSERT_TRUE(v6);
  EXPECT_EQ("2001:db8::1", v6->ip());
  EXPECT_EQ("[2001:db8::1]:65535", v6->text());
  EXPECT_EQ(v6, SocketAddress::parse("2001:db8:0::1", 65535));
  EXPECT_EQ("fe80::1%lo", SocketAddress::parse("fe80::1%lo", 1)->ip());
}

TEST(SocketAddress, RefusesWhatIsNoAddress) {
  for (const char* text : {"", "localhost", "127.0.0", "127.0.0.256", "1.2.3.4 ", "[::1", "::1]", "[]", "fe80::1%",
                           "fe80::1%no-such-interface", "0x7f.1"}) {
    EXPECT_FALSE(SocketAddress::parse(text, 5060)) << text;
  }
  EXPECT_FALSE(SocketAddress::parse(std::string(1000, '1'), 5060));
  EXPECT_FALSE(SocketAddress::parse(std::string_view("127.0.0.1\0x", 11), 5060));
  EXPECT_FALSE(SocketAddress::parse("127.0.0.1", -1));
  EXPECT_FALSE(SocketAddress::parse("127.0.0.1", 65536));
}

TEST(SocketAddress, KnowsLoopback) {
  EXPECT_TRUE(SocketAddress::parse("127.0.0.1", 1)->isLoopback());
  EXPECT_TRUE(SocketAddress::parse("127.255.0.9", 1)->isLoopback());
  EXPECT_TRUE(SocketAddress::parse("::1", 1)->isLoopback());
  EXPECT_FALSE(SocketAddress::parse("128.0.0.1", 1)->isLoopback());
  EXPECT_FALSE(SocketAddress().isLoopback());
}

TEST(SocketAddress, ComparesAddressAndPort) {
  const auto one = *SocketAddress::parse("127.0.0.1", 1);
  EXPECT_EQ(one, *SocketAddress::parse("127.0.0.1", 1));
  EXPECT_EQ(one.hash(), SocketAddress::parse("127.0.0.1", 1)->hash());
  EXPECT_FALSE(one == *SocketAddress::parse("127.0.0.1", 2));
  EXPECT_FALSE(one == *SocketAddress::parse("127.0.0.2", 1));
  EXPECT_FALSE(one == SocketAddress());
  EXPECT_EQ(SocketAddress(), SocketAddress());
  EXPECT_EQ(one, SocketAddress::parse("127.0.0.1", 9)->withPort(1));
  const auto six = *SocketAddress::parse("fe80::1%lo", 1);
  EXPECT_EQ(six, *SocketAddress::parse("fe80::1%lo", 1));
  EXPECT_EQ(six.hash(), SocketAddress::parse("fe80::1%lo", 1)->hash());
  EXPECT_FALSE(six == *SocketAddress::parse("fe80::1%lo", 2));
  EXPECT_FALSE(six == *SocketAddress::parse("fe80::2%lo", 1));
  EXPECT_FALSE(six == *SocketAddress::parse("fe80::1", 1)) << "another link";
  EXPECT_FALSE(six == one);
  EXPECT_EQ(six, SocketAddress::parse("fe80::1%lo", 9)->withPort(1));
}

TEST(SocketAddress, AnUnknownOneGivesNothingOut) {
  std::string ip = "as it was";
  int port = 7;
  EXPECT_FALSE(SocketAddress().get(ip, port));
  EXPECT_EQ("as it was", ip);
  EXPECT_EQ(7, port);
  EXPECT_FALSE(SocketAddress::localOf(-1).known());
}

}  // namespace
