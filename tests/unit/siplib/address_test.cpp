#include "siplib/address.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "siplib/limits.h"
#include "siplib/sip_text.h"

namespace {

std::unique_ptr<SIPLIB_SIPAddress> make(std::string_view value, std::string_view header = "Contact") {
  const sip_test::Exact exact(value);
  return std::unique_ptr<SIPLIB_SIPAddress>(SIPLIB_SIPAddress::createSIPAddressObject(header, exact.view()));
}

std::string get(const SIPLIB_SIPAddress& address, std::string_view name) {
  std::string value = "(absent)";
  const int result = address.getParameter(name, value);
  EXPECT_EQ(result, value == "(absent)" ? -1 : 0);
  return value;
}

struct Case {
  const char* value;
  const char* display;
  const char* scheme;
  const char* user;
  const char* host;
  int port;
  const char* uri;
};

TEST(Address, IsTakenApart) {
  const Case cases[] = {
      {"<sip:a@b.c>", "", "sip", "a", "b.c", -1, "sip:a@b.c"},
      {"sip:a@b.c", "", "sip", "a", "b.c", -1, "sip:a@b.c"},
      {"sip:b.c", "", "sip", "", "b.c", -1, "sip:b.c"},
      {"  SIPS:a@b:5061 ", "", "SIPS", "a", "b", 5061, "SIPS:a@b:5061"},
      {"\"A \\\"B\\\" <c>, d\" <sip:a@b>;tag=1", "A \"B\" <c>, d", "sip", "a", "b", -1, "sip:a@b"},
      {"Bell, Alexander <sip:a.g.bell@example.com>;tag=43", "Bell, Alexander", "sip", "a.g.bell", "example.com", -1,
       "sip:a.g.bell@example.com"},
      {"caller<sip:caller@example.com>", "caller", "sip", "caller", "example.com", -1, "sip:caller@example.com"},
      {"\"\"<sip:b>", "", "sip", "", "b", -1, "sip:b"},
      {"\"W, T\" < sip:t@example.org >", "W, T", "sip", "t", "example.org", -1, "sip:t@example.org"},
      {"<sip:alice:secret@h:1;x=y?a=b>", "", "sip", "alice", "h", 1, "sip:alice@h:1"},
      {"<sip:a:@h>", "", "sip", "a", "h", -1, "sip:a@h"},
      {"<sip:@h>", "", "sip", "", "h", -1, "sip:h"},
      {"<sip:user@[2001:db8::1]:5060;transport=tcp>", "", "sip", "user", "[2001:db8::1]", 5060,
       "sip:user@[2001:db8::1]:5060"},
      {"<sip:[::ffff:192.0.2.2]>", "", "sip", "", "[::ffff:192.0.2.2]", -1, "sip:[::ffff:192.0.2.2]"},
      {"<sip:user;par=u%40example.net@example.com>", "", "sip", "user;par=u%40example.net", "example.com", -1,
       "sip:user;par=u%40example.net@example.com"},
      {"<sip:a?b/c,d@e>", "", "sip", "a?b/c,d", "e", -1, "sip:a?b/c,d@e"},
      {"sip:%00@h", "", "sip", "%00", "h", -1, "sip:%00@h"},
      {"sip:user@example.com?Route=%3Csip:x%3E", "", "sip", "user", "example.com", -1, "sip:user@example.com"},
      {"sip:host;tag=1234@elsewhere", "", "sip", "", "host", -1, "sip:host"},
      {"sip:+1972@gw1;unknownparam", "", "sip", "+1972", "gw1", -1, "sip:+1972@gw1"},
      {"<sip:h;transport=tcp;lr>", "", "sip", "", "h", -1, "sip:h"},
      {"tel:+1-201-555-0123", "", "tel", "+1-201-555-0123", "", -1, "tel:+1-201-555-0123"},
      {"<tel:7042;phone-context=example.com>;tag=1", "", "tel", "7042", "", -1, "tel:7042"},
      {"<urn:service:sos>", "", "urn", "service:sos", "", -1, "urn:service:sos"},
      {"<http://www.example.com>;tag=3", "", "http", "//www.example.com", "", -1, "http://www.example.com"},
      {"isbn:2983792873", "", "isbn", "2983792873", "", -1, "isbn:2983792873"},
  };
  for (const Case& one : cases) {
    const auto address = make(one.value);
    ASSERT_TRUE(address) << one.value;
    EXPECT_EQ(address->getDisplayName(), one.display) << one.value;
    EXPECT_EQ(address->getScheme(), one.scheme) << one.value;
    EXPECT_EQ(address->getUser(), one.user) << one.value;
    EXPECT_EQ(address->getHost(), one.host) << one.value;
    EXPECT_EQ(address->getPort(), one.port) << one.value;
    EXPECT_EQ(address->getURI(), one.uri) << one.value;
  }
}

TEST(Address, IsNotMadeOfWhatHasNoUri) {
  for (const char* value : {"",
                            " ",
                            "*",
                            "alan@example.com",
                            "\"A\"",
                            "<>",
                            "< >",
                            "<sip:>",
                            "sip:",
                            "<sip:a@>",
                            "<sip:a@b",
                            "sip:a@b>",
                            "\"A <sip:a@b>",
                            "\"A\\\" <sip:a@b>",
                            "<<sip:a@b>>",
                            "<sip:a@b>>",
                            "<sip:a@b> x",
                            "<sip:a@b>, <sip:c@d>",
                            "<sip:a@b c>",
                            "<sip:a b@c>",
                            "sip:a@b c",
                            "<sip:a@b:>",
                            "<sip:a@b:x>",
                            "<sip:a@b:65536>",
                            "<sip:a@b:99999999999999999999>",
                            "sip:2001:db8::10",
                            "<sip:a@[::1>",
                            "<sip:a@[::1]x>",
                            "<sip:a@b@c>",
                            "<sip:a@b;x=c@d>",
                            "<sip:a@b?x=c@d>",
                            "<1sip:a@b>",
                            "<:a@b>",
                            "<sip>",
                            "tel:",
                            "A sip:a@b",
                            "sip:a\"b\"@c",
                            "<sip:a@b>;x=\"y"}) {
    EXPECT_FALSE(make(value)) << value;
  }
  EXPECT_FALSE(make("<sip:a@b\r\n>"));
  EXPECT_FALSE(make(std::string_view("<sip:a\0@b>", 10)));
}

TEST(Address, ParametersOfTheUriComeBeforeTheHeaders) {
  const auto address = make("\"A;b=no\" <sip:a;c=user@b;transport=tcp;lr;x=1?y=2;z=3>;x=2;tag=t;q=\"a;b\" ; w = 5");
  ASSERT_TRUE(address);
  EXPECT_EQ(get(*address, "TRANSPORT"), "tcp");
  EXPECT_EQ(get(*address, "lr"), "");
  EXPECT_EQ(get(*address, "x"), "1");
  EXPECT_EQ(get(*address, "tag"), "t");
  EXPECT_EQ(get(*address, "q"), "\"a;b\"");
  EXPECT_EQ(get(*address, "w"), "5");
  EXPECT_EQ(get(*address, "b"), "(absent)");
  EXPECT_EQ(get(*address, "c"), "(absent)");
  EXPECT_EQ(get(*address, "z"), "(absent)");
  EXPECT_EQ(get(*address, ""), "(absent)");
}

TEST(Address, WithoutBracketsParametersAreTheHeaders) {
  const auto address = make("sip:a@b;tag=1;lr", "From");
  EXPECT_EQ(get(*address, "tag"), "1");
  EXPECT_FALSE(address->removeParameter("lr"));
  EXPECT_EQ(address->toString(), "sip:a@b;tag=1;lr");
}

TEST(Address, KeepsItsTextUntilChanged) {
  for (const char* value : {"\"A\"   <sip:a@b:1;x>  ;  y = 2", "sip:a@b;tag=1", "A B <sip:[::1]>"}) {
    EXPECT_EQ(make(value)->toString(), value);
  }
}

TEST(Address, AContactIsRewritten) {
  const auto address = make("\"A\"  <sip:alice:pw@127.0.0.1:5070;transport=tcp?x=y> ;expires=60;+g.a=\"b\"");
  ASSERT_TRUE(address->setHost("192.0.2.7"));
  ASSERT_TRUE(address->setPort(5060));
  ASSERT_TRUE(address->setUser(""));
  EXPECT_EQ(address->toString(), "\"A\"  <sip:192.0.2.7:5060;transport=tcp?x=y> ;expires=60;+g.a=\"b\"");
  EXPECT_EQ(address->getUser(), "");
  EXPECT_EQ(address->getURI(), "sip:192.0.2.7:5060");
  ASSERT_TRUE(address->setUser(""));
  ASSERT_TRUE(address->setUser("bob;x"));
  EXPECT_EQ(address->toString(), "\"A\"  <sip:bob;x@192.0.2.7:5060;transport=tcp?x=y> ;expires=60;+g.a=\"b\"");
  ASSERT_TRUE(address->setUser("carol"));
  EXPECT_EQ(address->getURI(), "sip:carol@192.0.2.7:5060");
}

TEST(Address, AChangedUriStandsInBrackets) {
  const auto address = make("sip:a@127.0.0.1:5070;expires=60");
  ASSERT_TRUE(address->setHost("h"));
  EXPECT_EQ(address->toString(), "<sip:a@h:5070>;expires=60");
  ASSERT_TRUE(address->setPort(1));
  ASSERT_TRUE(address->setUser(""));
  EXPECT_EQ(address->toString(), "<sip:h:1>;expires=60");
  EXPECT_EQ(get(*address, "expires"), "60");
  const auto blank = make("sip:a@b ;x");
  ASSERT_TRUE(blank->removeParameter("port") == false);
  ASSERT_TRUE(blank->setPort(9));
  EXPECT_EQ(blank->toString(), "<sip:a@b:9> ;x");
}

TEST(Address, ANewUserKeepsThePassword) {
  const auto address = make("<sip:a:pw@h>");
  ASSERT_TRUE(address->setUser("b"));
  EXPECT_EQ(address->toString(), "<sip:b:pw@h>");
}

TEST(Address, AnIpv6HostGetsItsBrackets) {
  const auto address = make("<sip:a@b:5060>");
  ASSERT_TRUE(address->setHost("2001:db8::1"));
  EXPECT_EQ(address->toString(), "<sip:a@[2001:db8::1]:5060>");
  ASSERT_TRUE(address->setHost("[::2]"));
  EXPECT_EQ(address->getHost(), "[::2]");
}

TEST(Address, RemovesPortAndUriParameters) {
  const auto address = make("<sip:a@b:5060;x=1;transport=tcp;lr>;x=2");
  ASSERT_TRUE(address->removeParameter("port"));
  EXPECT_FALSE(address->removeParameter("port"));
  ASSERT_TRUE(address->removeParameter("X"));
  EXPECT_FALSE(address->removeParameter("x"));
  ASSERT_TRUE(address->removeParameter("lr"));
  EXPECT_EQ(address->toString(), "<sip:a@b;transport=tcp>;x=2");
  EXPECT_EQ(address->getPort(), -1);
}

TEST(Address, NothingCanBeSmuggledIn) {
  const auto address = make("<sip:a@b>");
  for (const char* user : {"x@y", "x>", "<x", "x y", "x\r\ny", "\"x\"", "x:y", "x\ty"}) {
    EXPECT_FALSE(address->setUser(user)) << user;
  }
  EXPECT_FALSE(address->setUser(std::string_view("x\0", 2)));
  for (const char* host : {"", "a b", "a;b", "a>b", "a@b", "a:1", "[::1", "a\r\nb", "a?b"}) {
    EXPECT_FALSE(address->setHost(host)) << host;
  }
  for (const int port : {-1, 0, 65536}) EXPECT_FALSE(address->setPort(port));
  EXPECT_EQ(address->toString(), "<sip:a@b>");
}

TEST(Address, UrisWithoutHostKeepToTheirShape) {
  const auto address = make("<tel:123;phone-context=a>");
  EXPECT_FALSE(address->setHost("h"));
  EXPECT_FALSE(address->setPort(5060));
  EXPECT_FALSE(address->setUser(""));
  EXPECT_FALSE(address->setUser("1;2"));
  EXPECT_EQ(get(*address, "phone-context"), "a");
  ASSERT_TRUE(address->setUser("456"));
  EXPECT_EQ(address->toString(), "<tel:456;phone-context=a>");
}

TEST(Address, HasAsManyParametersAsTheLimitSays) {
  std::string value = "<sip:a@b>";
  for (std::size_t i = 0; i < siplib::limits().max_parameters; ++i) value += ";p" + std::to_string(i);
  EXPECT_TRUE(make(value));
  EXPECT_FALSE(make(value + ";x"));
}

}  // namespace
