#include "framework/utility.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>

namespace {

using Pieces = std::vector<std::string>;

Pieces split(std::string_view text, std::string_view separators) {
  Pieces pieces{"old"};
  IMS_utility::tokenize(text, pieces, separators);
  return pieces;
}

std::string local(const std::string& selector) {
  std::string address = "old";
  const bool found = IMS_utility::getlocalip(selector, address);
  EXPECT_EQ(found, !address.empty());
  return address;
}

TEST(Utility, TokenizeSplitsAtEverySeparatorAndGivesNoEmptyPieces) {
  EXPECT_EQ(split("192.0.2.10:TCP:5060", ":"), (Pieces{"192.0.2.10", "TCP", "5060"}));
  EXPECT_EQ(split("::a::b::", ":"), (Pieces{"a", "b"}));
  EXPECT_EQ(split("a,b;c", ",;"), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split("", ":"), Pieces{});
  EXPECT_EQ(split(":::", ":"), Pieces{});
  EXPECT_EQ(split("whole", ":"), Pieces{"whole"});
  EXPECT_EQ(split("whole", ""), Pieces{"whole"});
}

TEST(Utility, TokenizeOfAQuotedTextGivesWhatStandsBetweenTheQuotes) {
  EXPECT_EQ(split("\"value\"", "\"").front(), "value");
  EXPECT_EQ(split("\"\"", "\""), Pieces{});
}

TEST(Utility, TokenizeMayReadFromItsOwnPieces) {
  Pieces pieces{"a-long-enough-text-to-be-on-the-heap:b"};
  IMS_utility::tokenize(pieces[0], pieces, ":");
  EXPECT_EQ(pieces, (Pieces{"a-long-enough-text-to-be-on-the-heap", "b"}));
}

TEST(Utility, NumbersAndPaths) {
  EXPECT_EQ(IMS_utility::itostring(0), "0");
  EXPECT_EQ(IMS_utility::itostring(-5060), "-5060");
  EXPECT_EQ(IMS_utility::pretrim_filepath("/usr/sbin/ue-proxy"), "ue-proxy");
  EXPECT_EQ(IMS_utility::pretrim_filepath("ue-proxy"), "ue-proxy");
  EXPECT_EQ(IMS_utility::pretrim_filepath("./"), "");
  EXPECT_EQ(IMS_utility::pretrim_filepath(nullptr), "");
}

TEST(Utility, EveryLoopbackAddressIsThisHosts) {
  EXPECT_EQ(local("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(local("127.0.0.2"), "127.0.0.2");
  EXPECT_EQ(local("127.200.3.4"), "127.200.3.4");
}

TEST(Utility, AddressOfAnotherHostOrOfNoneIsRefused) {
  EXPECT_EQ(local("192.0.2.7"), "");
  EXPECT_EQ(local("0.0.0.0"), "");
  EXPECT_EQ(local("255.255.255.255"), "");
  EXPECT_EQ(local("127.255.255.255"), "");
  EXPECT_EQ(local("224.0.0.1"), "");
  EXPECT_EQ(local("2001:db8::1"), "");
  EXPECT_EQ(local("::"), "");
  EXPECT_EQ(local("ff02::1"), "");
}

TEST(Utility, AnythingElseGivesAnEmptyText) {
  EXPECT_EQ(local(""), "");
  EXPECT_EQ(local("no-such-interface"), "");
  EXPECT_EQ(local("127.0.0.1 "), "");
  EXPECT_EQ(local("256.0.0.1"), "");
  EXPECT_EQ(local("localhost"), "");
}

TEST(Utility, InterfaceGivesItsFirstAddress) {
  EXPECT_EQ(local("lo"), "127.0.0.1");
}

TEST(Utility, DefaultRoutesAddressIsOneOfAnInterface) {
  for (const int family : {AF_INET, AF_INET6}) {
    const std::string address = local(family == AF_INET ? "ipv4" : "ipv6");
    if (address.empty()) continue;  // a machine without such a route
    ifaddrs* list = nullptr;
    ASSERT_EQ(::getifaddrs(&list), 0);
    bool found = false;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family) continue;
      char text[INET6_ADDRSTRLEN] = "";
      const void* const raw =
          family == AF_INET ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr)
                            : &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr;
      ::inet_ntop(family, raw, text, sizeof text);
      found = found || (address == text && (entry->ifa_flags & IFF_LOOPBACK) == 0);
    }
    ::freeifaddrs(list);
    EXPECT_TRUE(found) << address;
  }
}

}  // namespace
