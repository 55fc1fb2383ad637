#include "siplib/header.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "siplib/limits.h"
#include "siplib/sip_text.h"

namespace {

std::unique_ptr<SIPLIB_SIPHeader> make(std::string_view name, std::string_view value) {
  const sip_test::Exact exact(value);
  return std::unique_ptr<SIPLIB_SIPHeader>(SIPLIB_SIPHeader::createSIPHeaderObject(name, exact.view()));
}

std::string whole(const SIPLIB_SIPHeader& header) {
  std::string value;
  EXPECT_TRUE(header.getHeaderValue(value));
  return value;
}

// The parameter, or "(absent)".
std::string get(const SIPLIB_SIPHeader& header, std::string_view name) {
  std::string value = "(absent)";
  const int result = header.getParameter(name, value);
  EXPECT_EQ(result, value == "(absent)" ? -1 : 0);
  return value;
}

constexpr std::string_view kVia = "SIP/2.0/TCP 127.0.0.1:5070;rport;branch=z9hG4bK1 ; x = \"a;b\"";

TEST(ViaHeader, ReadsSentByAndParameters) {
  const auto via = make("Via", kVia);
  ASSERT_TRUE(via);
  EXPECT_EQ(get(*via, "host"), "127.0.0.1");
  EXPECT_EQ(get(*via, "PORT"), "5070");
  EXPECT_EQ(via->getParameterNumber("port"), 5070);
  EXPECT_EQ(get(*via, "Branch"), "z9hG4bK1");
  EXPECT_EQ(get(*via, "rport"), "");
  EXPECT_EQ(get(*via, "x"), "\"a;b\"");
  EXPECT_EQ(get(*via, "b"), "(absent)");
  EXPECT_EQ(get(*via, ""), "(absent)");
  EXPECT_EQ(via->getParameterNumber("branch"), -1);
  EXPECT_EQ(via->mainValue(), "SIP/2.0/TCP 127.0.0.1:5070");
  EXPECT_EQ(whole(*via), kVia);
  EXPECT_TRUE(make("v", kVia));
}

TEST(ViaHeader, ReadsBlanksWhereTheyMayBe) {
  const auto via = make("Via", "  SIP  / 2.0  / UDP   [2001:db8::9:1] : 6050  ;  branch = z9hG4bK2  ");
  ASSERT_TRUE(via);
  EXPECT_EQ(get(*via, "host"), "[2001:db8::9:1]");
  EXPECT_EQ(get(*via, "port"), "6050");
  EXPECT_EQ(get(*via, "branch"), "z9hG4bK2");
  ASSERT_TRUE(via->setParameter("host", "10.0.0.1"));
  ASSERT_TRUE(via->setParameter("branch", "b"));
  EXPECT_EQ(whole(*via), "SIP  / 2.0  / UDP   10.0.0.1 : 6050  ;  branch = b");
}

TEST(ViaHeader, AnyTokensAreAProtocolAndNothingElse) {
  const auto via = make("Via", "a/b/c h");
  ASSERT_TRUE(via);
  EXPECT_EQ(get(*via, "host"), "h");
  for (const char* none : {"@IP/2.0/UDP h", "SIP/@.0/UDP h", "SIP/2.0/@DP h", "/2.0/UDP h", "SIP//UDP h", "SIP/2.0/ h"})
    EXPECT_FALSE(make("Via", none)) << none;
}

TEST(ViaHeader, WithoutPort) {
  const auto via = make("Via", "SIP/2.0/UDP host.example.com");
  ASSERT_TRUE(via);
  EXPECT_EQ(get(*via, "port"), "(absent)");
  EXPECT_EQ(via->getParameterNumber("port"), -1);
  EXPECT_FALSE(via->removeParameter("port"));
  ASSERT_TRUE(via->setParameter("port", "5061"));
  EXPECT_EQ(whole(*via), "SIP/2.0/UDP host.example.com:5061");
  ASSERT_TRUE(via->setParameter("port", "5062"));
  EXPECT_EQ(whole(*via), "SIP/2.0/UDP host.example.com:5062");
  ASSERT_TRUE(via->removeParameter("port"));
  EXPECT_EQ(whole(*via), "SIP/2.0/UDP host.example.com");
}

TEST(ViaHeader, AChangeKeepsAllOtherText) {
  const auto via = make("Via", kVia);
  ASSERT_TRUE(via->setParameter("host", "192.0.2.10"));
  ASSERT_TRUE(via->setParameter("port", "5060"));
  EXPECT_EQ(whole(*via), "SIP/2.0/TCP 192.0.2.10:5060;rport;branch=z9hG4bK1 ; x = \"a;b\"");
  ASSERT_TRUE(via->setParameter("branch", "z9hG4bK-nobranch"));
  ASSERT_TRUE(via->setParameter("rport", "7"));
  ASSERT_TRUE(via->setParameter("received", "::1"));
  EXPECT_EQ(whole(*via), "SIP/2.0/TCP 192.0.2.10:5060;rport=7;branch=z9hG4bK-nobranch ; x = \"a;b\";received=::1");
  ASSERT_TRUE(via->setParameter("rport", ""));
  ASSERT_TRUE(via->removeParameter("branch"));
  ASSERT_TRUE(via->removeParameter("x"));
  EXPECT_FALSE(via->removeParameter("x"));
  EXPECT_EQ(whole(*via), "SIP/2.0/TCP 192.0.2.10:5060;rport ;received=::1");
}

TEST(ViaHeader, AnIpv6HostGetsItsBrackets) {
  const auto via = make("Via", "SIP/2.0/UDP h:1;branch=b");
  ASSERT_TRUE(via->setParameter("host", "2001:db8::1"));
  EXPECT_EQ(whole(*via), "SIP/2.0/UDP [2001:db8::1]:1;branch=b");
  ASSERT_TRUE(via->setParameter("host", "[::1]"));
  EXPECT_EQ(whole(*via), "SIP/2.0/UDP [::1]:1;branch=b");
}

TEST(ViaHeader, RefusesWhatIsNoSentBy) {
  const auto via = make("Via", kVia);
  for (const char* host : {"", "a b", "a;b", "a,b", "a:5", "[::1", "::1]", "[]", "a\r\nb", "\"a\"", "a@b"}) {
    EXPECT_FALSE(via->setParameter("host", host)) << host;
  }
  for (const char* port : {"", "0", "65536", "-1", "5a", " 5", "99999999999999999999"}) {
    EXPECT_FALSE(via->setParameter("port", port)) << port;
  }
  EXPECT_FALSE(via->removeParameter("host"));
  EXPECT_EQ(whole(*via), kVia);
}

TEST(ViaHeader, IsNotMadeWithoutItsShape) {
  for (const char* value : {"",
                            " ",
                            "SIP/2.0/UDP",
                            "SIP/2.0/UDP ",
                            "SIP/2.0/UDP ;branch=x",
                            "SIP/2.0 host",
                            "SIP/2.0/ host",
                            "/2.0/UDP h",
                            "SIP 2.0 UDP host",
                            "SIP/2.0/UDPhost",
                            "host",
                            "SIP/2.0/UDP h:",
                            "SIP/2.0/UDP h:;x",
                            "SIP/2.0/UDP h:a",
                            "SIP/2.0/UDP h:5 x",
                            "SIP/2.0/UDP h x",
                            "SIP/2.0/UDP [::1",
                            "SIP/2.0/UDP h;x=\"a",
                            "SIP/2.0/UDP <h>",
                            "SIP/2.0/UDP h;x=1\r\nVia: y",
                            "SIP/2.0/UDP h,i"}) {
    EXPECT_FALSE(make("Via", value)) << value;
  }
  EXPECT_FALSE(make("Via", std::string_view("SIP/2.0/UDP h;\0", 15)));
}

TEST(ViaHeader, ParametersCannotBeSmuggledIn) {
  const auto via = make("Via", kVia);
  for (const char* value : {"a;b", "a,b", "\"a", "a\r\nb", "a\nb", "\"a\";c"}) {
    EXPECT_FALSE(via->setParameter("branch", value)) << value;
  }
  EXPECT_FALSE(via->setParameter("branch", std::string_view("a\0", 2)));
  for (const char* name : {"", "a b", "a=b", "a;b", "\"a\""}) EXPECT_FALSE(via->setParameter(name, "v")) << name;
  EXPECT_EQ(whole(*via), kVia);
  EXPECT_TRUE(via->setParameter("branch", "\"a;,b\""));
}

TEST(ViaHeader, EmptyPiecesAreNoParameters) {
  const auto via = make("Via", "SIP/2.0/UDP 192.0.2.15;;;=x; ;a=1");
  ASSERT_TRUE(via);
  EXPECT_EQ(get(*via, "a"), "1");
  EXPECT_EQ(get(*via, ""), "(absent)");
}

TEST(GenericHeader, ReadsItsParameters) {
  const auto event = make("Event", "reg;id=17;x;y=;z=\"a;b\"");
  ASSERT_TRUE(event);
  EXPECT_EQ(event->mainValue(), "reg");
  EXPECT_EQ(get(*event, "ID"), "17");
  EXPECT_EQ(event->getParameterNumber("id"), 17);
  EXPECT_EQ(get(*event, "x"), "");
  EXPECT_EQ(get(*event, "y"), "");
  EXPECT_EQ(get(*event, "z"), "\"a;b\"");
  EXPECT_EQ(get(*event, "host"), "(absent)");
  ASSERT_TRUE(event->setParameter("host", "any text"));
  EXPECT_EQ(whole(*event), "reg;id=17;x;y=;z=\"a;b\";host=any text");
}

TEST(GenericHeader, NumbersAreSixteenBits) {
  const auto header = make("Event", "a;b=65535;c=65536;d=-1;e=1x;f=007;g=99999999999999999999999;h=\"5\";i");
  EXPECT_EQ(header->getParameterNumber("b"), 65535);
  EXPECT_EQ(header->getParameterNumber("f"), 7);
  for (const char* name : {"c", "d", "e", "g", "h", "i", "j"}) EXPECT_EQ(header->getParameterNumber(name), -1) << name;
}

TEST(GenericHeader, ParametersInsideAUriAreTheUris) {
  const auto contact = make("Contact", "\"x;y=1\" <sip:a@b;transport=tcp>;expires=60");
  ASSERT_TRUE(contact);
  EXPECT_EQ(get(*contact, "transport"), "(absent)");
  EXPECT_EQ(get(*contact, "expires"), "60");
  EXPECT_EQ(contact->mainValue(), "\"x;y=1\" <sip:a@b;transport=tcp>");
  EXPECT_FALSE(contact->setParameter("expires", "1, <sip:evil>")) << "a list's comma would begin another value";
}

TEST(GenericHeader, NothingIsMadeOfWhatIsLeftOpenOrHasNoMainValue) {
  // The bracket ends within the quotes, so what looks closed is not; a parameter added would be part of it.
  for (const char* value : {"<sip:a@b", "\"A\" <sip:a@b;x=\"<c>\";q=1", "a <", "<a> \"b", "<a\">;x=<b>\";q=1"}) {
    EXPECT_FALSE(make("Contact", value)) << value;
  }
  EXPECT_TRUE(make("Contact", "<sip:a@b>;x=<"));
  EXPECT_FALSE(make("Event", ";id=1")) << "removing the parameter would leave nothing";
}

TEST(GenericHeader, OfSeveralOfANameTheFirstCounts) {
  const auto header = make("X-Any", "v;a=1;a=2");
  EXPECT_EQ(get(*header, "a"), "1");
  ASSERT_TRUE(header->setParameter("a", "3"));
  EXPECT_EQ(whole(*header), "v;a=3;a=2");
  ASSERT_TRUE(header->removeParameter("a"));
  EXPECT_EQ(whole(*header), "v;a=2");
}

TEST(GenericHeader, CommasAreTextWhereThereIsNoList) {
  const auto header = make("Subject", "a, b;x=c, d");
  EXPECT_EQ(get(*header, "x"), "c, d");
  EXPECT_TRUE(header->setParameter("x", "e,f"));
  EXPECT_EQ(whole(*header), "a, b;x=e,f");
}

constexpr std::string_view kChallenge =
    "Digest realm=\"ims, \\\"home\\\"\", nonce = \"n=1;2\" ,qop=\"auth,auth-int\", algorithm=MD5, x, uri=sip:a;b";

TEST(AuthenticationHeader, ReadsItsParametersAsTheyStand) {
  for (const char* name : {"WWW-Authenticate", "proxy-authenticate", "Authorization", "Proxy-Authorization"}) {
    const auto header = make(name, kChallenge);
    ASSERT_TRUE(header) << name;
    EXPECT_EQ(header->mainValue(), "Digest");
    EXPECT_EQ(get(*header, "Realm"), "\"ims, \\\"home\\\"\"");
    EXPECT_EQ(get(*header, "nonce"), "\"n=1;2\"");
    EXPECT_EQ(get(*header, "qop"), "\"auth,auth-int\"");
    EXPECT_EQ(get(*header, "algorithm"), "MD5");
    EXPECT_EQ(get(*header, "x"), "");
    EXPECT_EQ(get(*header, "uri"), "sip:a;b");
    EXPECT_EQ(get(*header, "opaque"), "(absent)");
    EXPECT_EQ(whole(*header), kChallenge);
  }
}

TEST(AuthenticationHeader, AChallengeBecomesItsAnswer) {
  const auto header = make("Authorization", "Digest realm=\"r\", nonce=\"n\", domain=\"d\", qop=\"auth,auth-int\"");
  ASSERT_TRUE(header->setParameter("username", "\"u\""));
  ASSERT_TRUE(header->setParameter("realm", "\"r\""));
  ASSERT_TRUE(header->setParameter("nonce", "\"n2\""));
  ASSERT_TRUE(header->setParameter("uri", "sip:a@b;x=1"));
  ASSERT_TRUE(header->setParameter("algorithm", ""));
  ASSERT_TRUE(header->setParameter("qop", "auth"));
  ASSERT_TRUE(header->setParameter("cnonce", ""));
  ASSERT_TRUE(header->setParameter("nc", "1"));
  ASSERT_TRUE(header->setParameter("response", "\"0123\""));
  EXPECT_EQ(whole(*header),
            "Digest realm=\"r\", nonce=\"n2\", domain=\"d\", qop=auth, username=\"u\", uri=sip:a@b;x=1, cnonce=\"\", "
            "nc=1, response=\"0123\"");
}

TEST(AuthenticationHeader, AnEmptyValueIsQuotedWhereTheGrammarQuotes) {
  const auto header = make("Authorization", "Digest algorithm=MD5");
  for (const char* name : {"username", "realm", "nonce", "uri", "response", "cnonce", "opaque", "domain"}) {
    ASSERT_TRUE(header->setParameter(name, ""));
    EXPECT_EQ(get(*header, name), "\"\"");
  }
  ASSERT_TRUE(header->setParameter("nc", ""));
  EXPECT_EQ(get(*header, "nc"), "(absent)");
  ASSERT_TRUE(header->setParameter("algorithm", ""));
  EXPECT_EQ(get(*header, "algorithm"), "(absent)");
  EXPECT_TRUE(whole(*header).starts_with("Digest username=\"\", realm=\"\""));
}

TEST(AuthenticationHeader, RemovesFromEitherEnd) {
  const auto header = make("Authorization", "Digest a=1, b=2 , c=3");
  ASSERT_TRUE(header->removeParameter("a"));
  EXPECT_EQ(whole(*header), "Digest b=2 , c=3");
  ASSERT_TRUE(header->removeParameter("c"));
  ASSERT_TRUE(header->removeParameter("b"));
  EXPECT_EQ(header->mainValue(), "Digest");
  ASSERT_TRUE(header->setParameter("d", "4"));
  EXPECT_EQ(get(*header, "d"), "4");
}

TEST(AuthenticationHeader, APieceWithoutNameNeverFollowsTheScheme) {
  const auto header = make("Authorization", "Digest a=1, = x, b=2, =y");
  ASSERT_TRUE(header);
  ASSERT_TRUE(header->removeParameter("a"));
  EXPECT_EQ(whole(*header), "Digest b=2, =y");
  ASSERT_TRUE(header->removeParameter("b"));
  EXPECT_EQ(whole(*header), "Digest");
}

TEST(AuthenticationHeader, ASchemeAloneIsEnoughAndNeeded) {
  EXPECT_TRUE(make("Authorization", "Digest"));
  EXPECT_EQ(make("Authorization", "NoOneKnowsThisScheme opaque-data=here")->mainValue(), "NoOneKnowsThisScheme");
  for (const char* value : {"", "realm=\"x\"", "realm = \"x\"", "\"Digest\" a=b", ", a=b", "Digest realm=\"x",
                            "Digest, a=b", "Digest realm=\"a\", nonce=\"b\\\""}) {
    EXPECT_FALSE(make("Authorization", value)) << value;
  }
  const auto header = make("Authorization", "Digest");
  ASSERT_TRUE(header->setParameter("a", "1"));
  EXPECT_EQ(whole(*header), "Digest a=1");
}

TEST(AuthenticationHeader, ACommaOutsideQuotesIsRefused) {
  const auto header = make("Authorization", "Digest a=1");
  EXPECT_FALSE(header->setParameter("uri", "sip:a,b@c"));
  EXPECT_TRUE(header->setParameter("uri", "\"sip:a,b@c\""));
  EXPECT_TRUE(header->setParameter("x", "a;b"));
  EXPECT_FALSE(header->setParameter("x", "\"a"));
  EXPECT_FALSE(header->setParameter("x", "a\r\nb"));
}

TEST(AnyHeader, HasAsManyParametersAsTheLimitSays) {
  std::string generic = "v";
  std::string digest = "Digest ";
  for (std::size_t i = 0; i < siplib::limits().max_parameters; ++i) {
    generic += ";p" + std::to_string(i);
    digest += (i == 0 ? "p=" : ", p=") + std::to_string(i);
  }
  const auto header = make("Event", generic);
  ASSERT_TRUE(header);
  EXPECT_FALSE(header->setParameter("one-more", "1"));
  EXPECT_TRUE(header->setParameter("p1", "1"));
  EXPECT_FALSE(make("Event", generic + ";x"));
  EXPECT_TRUE(make("Authorization", digest));
  EXPECT_FALSE(make("Authorization", digest + ",x=1"));
}

}  // namespace
