#include "siplib/message.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "siplib/limits.h"
#include "siplib/sip_text.h"

namespace {

using sip_test::crlf;
using sip_test::parse;
using sip_test::request;

std::string error(std::string_view text) {
  return std::string(parse(text)->parseError());
}

std::vector<std::string> values(const SIPLIB_message& message, std::string_view name) {
  std::vector<std::string> all;
  for (const auto value : message.headers(name)) all.emplace_back(value);
  return all;
}

using Values = std::vector<std::string>;

class Limited : public ::testing::Test {
 protected:
  ~Limited() override { siplib::setLimits(before_); }
  siplib::Limits before_ = siplib::limits();
};
using MessageLimits = Limited;

const std::string kInvite = crlf(
    "INVITE sip:bob@example.com SIP/2.0\n"
    "Via: SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK1\n"
    "v: SIP/2.0/UDP 10.0.0.1 , SIP/2.0/UDP 10.0.0.2\n"
    "Max-Forwards: 70\n"
    "f: \"A, B\" <sip:a@example.com>;tag=1\n"
    "To: <sip:bob@example.com>\n"
    "Call-ID: c1\n"
    "CSeq: 1 INVITE\n"
    "m : <sip:a@127.0.0.1:5070;transport=tcp>\n"
    "Subject: I am, a\n"
    "\t folded  \n"
    "  subject\n"
    "Content-Length: 5\n"
    "\n"
    "v=0\n");

TEST(Message, ReadsTheStartLineOfARequest) {
  const auto message = parse(request(""));
  ASSERT_TRUE(message->valid()) << message->parseError();
  EXPECT_TRUE(message->isRequest());
  EXPECT_FALSE(message->isResponse());
  EXPECT_EQ(message->method(), "OPTIONS");
  EXPECT_EQ(message->requestUri(), "sip:user@example.com");
  EXPECT_EQ(message->statusCode(), 0);
  EXPECT_EQ(message->reasonPhrase(), "");
  EXPECT_EQ(message->parseError(), "");
}

TEST(Message, ReadsTheStartLineOfAResponse) {
  const auto message = parse("SIP/2.0 404 Not Found\r\n\r\n");
  ASSERT_TRUE(message->valid()) << message->parseError();
  EXPECT_TRUE(message->isResponse());
  EXPECT_FALSE(message->isRequest());
  EXPECT_EQ(message->statusCode(), 404);
  EXPECT_EQ(message->reasonPhrase(), "Not Found");
  EXPECT_EQ(message->method(), "");
  EXPECT_EQ(message->requestUri(), "");
}

TEST(Message, AResponseMayHaveNoReasonPhrase) {
  EXPECT_EQ(parse("SIP/2.0 100 \r\n\r\n")->statusCode(), 100);
  EXPECT_EQ(parse("SIP/2.0 699\r\n\r\n")->statusCode(), 699);
  EXPECT_EQ(parse("SIP/2.0 699\r\n\r\n")->reasonPhrase(), "");
}

TEST(Message, RefusesBadStartLines) {
  for (const char* line : {"INVITE  sip:a@b SIP/2.0",
                           "INVITE sip:a@b  SIP/2.0",
                           "INVITE sip:a@b SIP/2.0 ",
                           " INVITE sip:a@b SIP/2.0",
                           "INVITE sip:a@b;x y SIP/2.0",
                           "INVITE sip:a@b\t SIP/2.0",
                           "INVITE  SIP/2.0",
                           "INVITE sip:a@b",
                           "INVITE sip:a@b SIP/3.0",
                           "INVITE sip:a@b SIP/2.00",
                           "INVITE sip:a@b HTTP/1.1",
                           "INV<ITE sip:a@b SIP/2.0",
                           "INVITE",
                           "x",
                           "SIP/2.0",
                           "SIP/2.0 ",
                           "SIP/2.0 099 Low",
                           "SIP/2.0 700 High",
                           "SIP/2.0 4294967301 Wrap",
                           "SIP/2.0 20 Short",
                           "SIP/2.0 2000 Long",
                           "SIP/2.0 +20 Sign",
                           "SIP/2.0 20x x",
                           "SIP/2.0  200 Two",
                           "SIP/1.0 200 Old",
                           "SIP/7.0 200 New",
                           "SIP/2.0 200\tOK",
                           "sip:a@b INVITE SIP/2.0"}) {
    const auto message = parse(std::string(line) + "\r\nVia: x\r\n\r\n");
    EXPECT_FALSE(message->valid()) << line;
    EXPECT_NE(message->parseError(), "") << line;
    EXPECT_EQ(message->header("Via"), std::nullopt) << line;
    EXPECT_EQ(message->statusCode(), 0) << line;
  }
}

TEST(Message, SaysWhatIsWrongWithAStartLine) {
  const auto why = [](const std::string& line) { return error(line + "\r\nVia: x\r\n\r\n"); };
  EXPECT_EQ(why("INVITE"), "the start line has no three parts");
  EXPECT_EQ(why("INVITE sip:a@b"), "the start line has no three parts");
  EXPECT_EQ(why("INV<ITE sip:a@b SIP/2.0"), "the method is not a token");
  EXPECT_EQ(why(" sip:a@b SIP/2.0"), "the method is not a token");
  EXPECT_EQ(why("INVITE  SIP/2.0"), "the Request-URI is empty or holds white space");
  EXPECT_EQ(why("INVITE sip:a@b\t SIP/2.0"), "the Request-URI is empty or holds white space");
  EXPECT_EQ(why("INVITE sip:a@b\x7f SIP/2.0"), "the Request-URI is empty or holds white space");
  EXPECT_EQ(why("INVITE sip:a@b SIP/3.0"), "the version is not SIP/2.0");
  EXPECT_EQ(why("INVITE sip:a@b c SIP/2.0"), "the version is not SIP/2.0");
  EXPECT_EQ(why("SIP/3.0 200 OK"), "the version is not SIP/2.0");
  EXPECT_EQ(why("SIP/2.0 099 Low"), "the status is not 100 to 699");
  EXPECT_EQ(why("SIP/2.0 20"), "the status is not 100 to 699");
  EXPECT_EQ(why("SIP/2.0 2000"), "the status is not 100 to 699");
  EXPECT_EQ(error("\r\n\r\n"), "the message is empty");
  EXPECT_EQ(SIPLIB_message(99, "Low").parseError(), "the status is not 100 to 699");
  EXPECT_EQ(SIPLIB_message(200, "OK\r\nVia: x").parseError(), "the reason phrase breaks the line");
  EXPECT_EQ(SIPLIB_message("IN VITE", "sip:a").parseError(), "the method is not a token");
  EXPECT_EQ(SIPLIB_message("INVITE", "").parseError(), "the Request-URI is empty or holds white space");
}

TEST(Message, TheVersionComparesWithoutRegardToCase) {
  EXPECT_TRUE(parse("INVITE sip:a@b sip/2.0\r\n\r\n")->valid());
  EXPECT_TRUE(parse("sip/2.0 200 OK\r\n\r\n")->isResponse());
}

TEST(Message, AnInvalidMessageAnswersAbsentAndRefusesChanges) {
  auto message = parse("garbage\r\nVia: x\r\n\r\n");
  EXPECT_FALSE(message->valid());
  EXPECT_FALSE(message->isRequest());
  EXPECT_FALSE(message->isResponse());
  EXPECT_EQ(message->headerCount("Via"), 0u);
  EXPECT_TRUE(message->headers("Via").empty());
  EXPECT_FALSE(message->setHeader("Via", "y"));
  EXPECT_FALSE(message->addHeader("Via", "y"));
  EXPECT_FALSE(message->removeHeader("Via"));
  EXPECT_EQ(message->removeHeaders("Via"), 0u);
  EXPECT_FALSE(message->setBody("x"));
  EXPECT_EQ(message->body(), "");
  EXPECT_EQ(message->text(), "");
  std::vector<iovec> slices;
  message->gather(slices);
  EXPECT_TRUE(slices.empty());
}

TEST(Message, RefusesNothing) {
  EXPECT_FALSE(SIPLIB_message(nullptr, 0).valid());
  EXPECT_FALSE(SIPLIB_message(nullptr, 7).valid());
  EXPECT_FALSE(parse("")->valid());
  EXPECT_FALSE(parse("\r\n\r\n")->valid());
}

TEST(Message, SkipsLineEndsBeforeTheStartLine) {
  const auto message = parse("\r\n\r\n\r\n" + request("To: x\n"));
  ASSERT_TRUE(message->valid()) << message->parseError();
  EXPECT_EQ(message->text(), request("To: x\n"));
}

TEST(Message, RefusesAHeadThatReadersCouldReadDifferently) {
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\nTo: x\n\n"), "the head has no end");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\nTo: x\r\n"), "the head has no end");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\nTo: x\nFrom: y\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\nTo: x\rFrom: y\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\nTo: x\n\r\nFrom: y\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\nTo: x\r\r\nFrom: y\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\nTo: x\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a\r SIP/2.0\r\nTo: x\r\n\r\n"), "the head holds a bare CR or LF");
  EXPECT_EQ(error("OPTIONS sip:a SIP/2.0\r\n To: x\r\n\r\n"), "the start line is folded");
  EXPECT_EQ(error(request("To: " + std::string(1, '\0') + "x\n")), "the head holds a NUL");
  EXPECT_EQ(error("OPTIONS sip:" + std::string(1, '\0') + " SIP/2.0\r\nTo: x\r\n\r\n"), "the head holds a NUL");
}

TEST(Message, RefusesLinesThatAreNoHeaders) {
  EXPECT_EQ(error(request("To x\n")), "a header line has no colon");
  EXPECT_EQ(error(request(": x\n")), "a header name is not a token");
  EXPECT_EQ(error(request(" \n: x\n")), "the start line is folded");
  EXPECT_EQ(error(request("T o: x\n")), "a header name is not a token");
  EXPECT_EQ(error(request("To\n : x\n")), "a header name is not a token");
  EXPECT_EQ(error(request("<To>: x\n")), "a header name is not a token");
  EXPECT_EQ(error(request("(o: x\n")), "a header name is not a token");
  EXPECT_EQ(error(request(":: x\n")), "a header name is not a token");
}

TEST(Message, ABlankBeforeTheColonBelongsToNoName) {
  const auto message = parse(request("Via : a\nVia\t: b\nTo:x\n"));
  ASSERT_TRUE(message->valid()) << message->parseError();
  EXPECT_EQ(values(*message, "Via"), (Values{"a", "b"}));
  EXPECT_EQ(message->header("to"), "x");
}

TEST(Message, ParsesWithoutFromOrTo) {
  EXPECT_TRUE(parse(request(""))->valid());
}

TEST(Message, ContentLengthCutsTheBody) {
  const auto message = parse(request("Content-Length: 3\n", "abcdef"));
  ASSERT_TRUE(message->valid());
  EXPECT_EQ(message->body(), "abc");
  EXPECT_EQ(message->text(), request("Content-Length: 3\n", "abc"));
  EXPECT_EQ(parse(request("l:0003\n", "abcdef"))->body(), "abc");
  EXPECT_EQ(parse(request("Content-Length :\n  3\n", "abcdef"))->body(), "abc");
}

TEST(Message, WithoutContentLengthTheRestIsTheBody) {
  const std::string body("a\0b\n\r\xff", 6);
  const auto message = parse(request("To: x\n", body));
  ASSERT_TRUE(message->valid());
  EXPECT_EQ(message->body(), body);
  EXPECT_EQ(message->text(), request("To: x\n", body));
}

TEST(Message, RefusesAContentLengthThatIsNoClearNumber) {
  for (const char* line :
       {"Content-Length: -1\n", "Content-Length: +3\n", "Content-Length: 3 3\n", "Content-Length: 3,3\n",
        "Content-Length: \n", "Content-Length: 0x3\n", "l: 3a\n", "Content-Length: 18446744073709551619\n",
        "Content-Length: 4294967299\n", "Content-Length: 99999999999999999999999999999999\n",
        "Content-Length: 3\nl: 4\n", "Content-Length: 3\nTo: x\nContent-length : 2\n"}) {
    EXPECT_FALSE(parse(request(line, "abcdef"))->valid()) << line;
  }
  EXPECT_EQ(error(request("Content-Length: 7\n", "abcdef")), "Content-Length is larger than the rest of the text");
}

TEST(Message, EqualContentLengthsAreFine) {
  const auto message = parse(request("Content-Length: 3\nl: 03\n", "abcdef"));
  ASSERT_TRUE(message->valid());
  EXPECT_EQ(message->body(), "abc");
}

TEST_F(MessageLimits, BoundSizeHeadAndLines) {
  siplib::setLimits({.max_message = 200, .max_head = 100, .max_header_lines = 3});
  const std::string base = request("");  // 40 bytes
  EXPECT_TRUE(parse(base + std::string(200 - base.size(), 'x'))->valid());
  EXPECT_EQ(error(base + std::string(201 - base.size(), 'x')), "the message is larger than the limit");

  const std::string to = "To: " + std::string(100 - base.size() - 6, 'x') + "\n";
  ASSERT_EQ(request(to).size(), 100u);
  EXPECT_TRUE(parse(request(to))->valid());
  EXPECT_EQ(error(request("x" + to)), "the head is larger than the limit");

  EXPECT_TRUE(parse(request("A:\nB:\nC:\n"))->valid());
  EXPECT_EQ(error(request("A:\nB:\nC:\nD:\n")), "there are more header lines than the limit");
  EXPECT_EQ(error(request("A:\nB:\nC:\n c\n")), "there are more header lines than the limit");
}

TEST(Message, ReadsTheTopmostValueByAnyFormOfItsName) {
  const auto message = parse(kInvite);
  ASSERT_TRUE(message->valid()) << message->parseError();
  EXPECT_EQ(message->header("VIA"), "SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK1");
  EXPECT_EQ(message->header("v"), message->header("Via"));
  EXPECT_EQ(message->header("From"), "\"A, B\" <sip:a@example.com>;tag=1");
  EXPECT_EQ(message->header("contact"), "<sip:a@127.0.0.1:5070;transport=tcp>");
  EXPECT_EQ(message->header("cseq"), "1 INVITE");
  EXPECT_EQ(message->header("Route"), std::nullopt);
  EXPECT_EQ(message->header(""), std::nullopt);
  EXPECT_EQ(message->header("Vi"), std::nullopt);
}

TEST(Message, AListIsReadAsSingleValues) {
  const auto message = parse(kInvite);
  EXPECT_EQ(values(*message, "Via"),
            (Values{"SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK1", "SIP/2.0/UDP 10.0.0.1", "SIP/2.0/UDP 10.0.0.2"}));
  EXPECT_EQ(message->headerCount("Via"), 3u);
  EXPECT_EQ(message->headerCount("Route"), 0u);
  EXPECT_TRUE(message->headers("Route").empty());
}

TEST(Message, CommasInQuotesAndBracketsDivideNothing) {
  const auto message =
      parse(request("Contact: \"x, \\\"y\" <sip:a,b@c;m=\",>, sip:d@e\n ,<sip:f>\n"
                    "Accept-Contact: *;methods=\"INVITE,BYE\", *;audio\n"
                    "In-Reply-To: a\"b@c, <d@e\n"));
  ASSERT_TRUE(message->valid());
  EXPECT_EQ(values(*message, "m"), (Values{"\"x, \\\"y\" <sip:a,b@c;m=\",>", "sip:d@e", "<sip:f>"}));
  EXPECT_EQ(values(*message, "a"), (Values{"*;methods=\"INVITE,BYE\"", "*;audio"}));
  EXPECT_EQ(values(*message, "In-Reply-To"), (Values{"a\"b@c", "<d@e"}));
}

TEST(Message, AnOpenQuoteOrBracketSwallowsTheRestOfItsLine) {
  const auto message = parse(request("Contact: \"a, b, c\nContact: <d, e\nContact: f\n"));
  EXPECT_EQ(values(*message, "Contact"), (Values{"\"a, b, c", "<d, e", "f"}));
}

TEST(Message, HeadersThatAreNoListsKeepTheirCommas) {
  const auto message = parse(
      request("WWW-Authenticate: Digest realm=\"a\", nonce=\"b\"\nProxy-Authorization: Digest a=b, c=d\n"
              "Authorization: Digest a=b, c=d\nProxy-Authenticate: Digest a=b, c=d\n"
              "Date: Sat, 13 Nov 2010 23:29:00 GMT\nSubject: a, b\nX-Unknown: a, b\nUser-Agent: a, b\nServer: a, b\n"));
  for (const char* name : {"WWW-Authenticate", "Proxy-Authorization", "Authorization", "Proxy-Authenticate", "Date",
                           "Subject", "X-Unknown", "User-Agent", "Server"}) {
    EXPECT_EQ(message->headerCount(name), 1u) << name;
    EXPECT_NE(message->header(name)->find(", "), std::string_view::npos) << name;
  }
}

TEST(Message, EmptyListPiecesArePassedOver) {
  const auto message = parse(request("Supported: , a,,b ,\nRequire:\nAllow: ,\n"));
  EXPECT_EQ(values(*message, "Supported"), (Values{"a", "b"}));
  EXPECT_EQ(values(*message, "Require"), (Values{""}));
  EXPECT_EQ(message->header("Require"), "");
  EXPECT_EQ(values(*message, "Allow"), (Values{""}));
  EXPECT_EQ(message->header("Allow"), "");
}

TEST(Message, FoldsAreReadAsOneBlank) {
  const auto message = parse(kInvite);
  EXPECT_EQ(message->header("Subject"), "I am, a folded subject");
  const auto folds = parse(request("Subject:\n  x\n \n y\n \n"));
  ASSERT_TRUE(folds->valid()) << folds->parseError();
  EXPECT_EQ(folds->header("Subject"), "x y");
}

// --- changes ---

TEST(Message, SettingReplacesTheTopmostValueAndKeepsEveryOtherByte) {
  auto message = parse(kInvite);
  ASSERT_TRUE(message->setHeader("Via", "SIP/2.0/TCP 127.0.0.2:5060"));
  ASSERT_TRUE(message->setHeader("Contact", "<sip:127.0.0.2>"));
  ASSERT_TRUE(message->setHeader("subject", "short"));
  std::string expected = kInvite;
  const auto change = [&](std::string_view from, std::string_view to) {
    expected.replace(expected.find(from), from.size(), to);
  };
  change("SIP/2.0/TCP 127.0.0.1:5070;branch=z9hG4bK1", "SIP/2.0/TCP 127.0.0.2:5060");
  change("<sip:a@127.0.0.1:5070;transport=tcp>", "<sip:127.0.0.2>");
  change("I am, a\r\n\t folded  \r\n  subject", "short");
  EXPECT_EQ(message->text(), expected);
  EXPECT_EQ(message->header("v"), "SIP/2.0/TCP 127.0.0.2:5060");
  EXPECT_EQ(message->headerCount("Via"), 3u);
}

TEST(Message, SettingAListReplacesItsFirstElementOnly) {
  auto message = parse(request("Route:  <sip:a,b>\n  ,\n\t<sip:c> ,<sip:d>  \nRoute: <sip:e>\n"));
  ASSERT_TRUE(message->setHeader("Route", "<sip:x>"));
  EXPECT_EQ(message->text(), request("Route:  <sip:x>\n  ,\n\t<sip:c> ,<sip:d>  \nRoute: <sip:e>\n"));
  EXPECT_EQ(values(*message, "Route"), (Values{"<sip:x>", "<sip:c>", "<sip:d>", "<sip:e>"}));
  ASSERT_TRUE(message->setHeader("Route", "<sip:y>"));
  EXPECT_EQ(message->text(), request("Route:  <sip:y>\n  ,\n\t<sip:c> ,<sip:d>  \nRoute: <sip:e>\n"));
}

TEST(Message, SettingAnAbsentHeaderAddsItAsTheLast) {
  auto message = parse(request("To: x\n", "body"));
  ASSERT_TRUE(message->setHeader("Route", "<sip:x>"));
  EXPECT_EQ(message->text(), request("To: x\nRoute: <sip:x>\n", "body"));
}

TEST(Message, SettingAnEmptyHeader) {
  auto message = parse(request("Supported:\nTo: x\nAllow: ,\n"));
  ASSERT_TRUE(message->setHeader("Supported", "path"));
  ASSERT_TRUE(message->setHeader("Allow", "BYE"));
  ASSERT_TRUE(message->setHeader("To", ""));
  EXPECT_EQ(message->header("Supported"), "path");
  EXPECT_EQ(message->header("Allow"), "BYE");
  EXPECT_EQ(message->header("To"), "");
  ASSERT_TRUE(message->setHeader("To", "y"));
  EXPECT_EQ(message->header("To"), "y");
}

TEST(Message, AddingPutsANewLineOnTop) {
  auto message = parse(request("To: x\nv: a, b\nVia: c\n"));
  ASSERT_TRUE(message->addHeader("Via", "n"));
  ASSERT_TRUE(message->addHeader("User-agent", "u"));
  ASSERT_TRUE(message->addHeader("user-agent", "w"));
  EXPECT_EQ(message->text(), request("To: x\nVia: n\nv: a, b\nVia: c\nuser-agent: w\nUser-agent: u\n"));
  EXPECT_EQ(values(*message, "Via"), (Values{"n", "a", "b", "c"}));
  EXPECT_EQ(message->header("User-Agent"), "w");
}

TEST(Message, RemovingTakesTheTopmostValueOnly) {
  auto message = parse(request("To: x\nVia:   a  ,\n b , c\nv: d\nSubject: s\n"));
  ASSERT_TRUE(message->removeHeader("Via"));
  EXPECT_EQ(message->text(), request("To: x\nVia: b , c\nv: d\nSubject: s\n"));
  EXPECT_EQ(message->header("Via"), "b");
  ASSERT_TRUE(message->removeHeader("Via"));
  EXPECT_EQ(message->text(), request("To: x\nVia: c\nv: d\nSubject: s\n"));
  EXPECT_EQ(values(*message, "Via"), (Values{"c", "d"}));
  ASSERT_TRUE(message->removeHeader("v"));
  ASSERT_TRUE(message->removeHeader("via"));
  EXPECT_FALSE(message->removeHeader("Via"));
  EXPECT_EQ(message->text(), request("To: x\nSubject: s\n"));
  EXPECT_FALSE(message->removeHeader("Route"));
}

TEST(Message, RemovingFromTheShortestListKeepsTheName) {
  auto message = parse(request("v:a,b,c\nTo: x\n"));
  ASSERT_TRUE(message->removeHeader("Via"));
  EXPECT_EQ(message->text(), request("v: b,c\nTo: x\n"));
  ASSERT_TRUE(message->removeHeader("Via"));
  EXPECT_EQ(message->text(), request("v: c\nTo: x\n"));
  auto folded = parse(request("v:a,\n b,\n c\n"));
  ASSERT_TRUE(folded->removeHeader("Via"));
  EXPECT_EQ(folded->text(), request("v: b,\n c\n"));
  EXPECT_EQ(folded->header("Via"), "b");
  ASSERT_TRUE(folded->removeHeader("Via"));
  EXPECT_EQ(folded->header("Via"), "c");
  EXPECT_EQ(folded->text(), request("v: c\n"));
}

TEST(Message, ValuesThatAreNoListsAreRemovedLineByLine) {
  auto message = parse(request("Authorization: Digest a=b, c=d\nTo: x\nAuthorization: Digest e=f, g=h\n"));
  ASSERT_TRUE(message->removeHeader("Authorization"));
  EXPECT_EQ(message->text(), request("To: x\nAuthorization: Digest e=f, g=h\n"));
}

TEST(Message, RemovingAllCountsValues) {
  auto message = parse(request("Route: a, b\nTo: x\nRoute: c\nX: 1\nx: 2\n"));
  EXPECT_EQ(message->removeHeaders("route"), 3u);
  EXPECT_EQ(message->removeHeaders("Route"), 0u);
  EXPECT_EQ(message->removeHeaders("X"), 2u);
  EXPECT_EQ(message->text(), request("To: x\n"));
}

TEST(Message, AValueCannotSmuggleALine) {
  auto message = parse(request("To: x\n"));
  for (const std::string_view bad : {std::string_view("a\r\nVia: b"), std::string_view("a\nb"), std::string_view("a\r"),
                                     std::string_view("a\0b", 3)}) {
    EXPECT_FALSE(message->setHeader("To", bad));
    EXPECT_FALSE(message->addHeader("To", bad));
  }
  for (const char* bad : {"", "a b", "a:", "a\r\nb", " To"}) {
    EXPECT_FALSE(message->setHeader(bad, "x"));
    EXPECT_FALSE(message->addHeader(bad, "x"));
  }
  EXPECT_EQ(message->text(), request("To: x\n"));
}

TEST(Message, AValueMayComeFromTheMessageItself) {
  auto message = parse(request("Via: a, b\nTo: x\n"));
  ASSERT_TRUE(message->setHeader("To", *message->header("Via")));
  ASSERT_TRUE(message->setHeader("Via", message->headers("Via")[1]));
  ASSERT_TRUE(message->setBody(*message->header("To")));
  EXPECT_EQ(message->text(), request("Via: b, b\nTo: a\nContent-Length: 1\n", "a"));
}

TEST(Message, ManyChangesKeepTheirOrder) {
  auto message = parse(request("To: x\n"));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(message->addHeader("X-" + std::to_string(i), std::string(50, 'v')));
  std::string expected = "To: x\n";
  for (int i = 0; i < 100; ++i) expected += "X-" + std::to_string(i) + ": " + std::string(50, 'v') + "\n";
  EXPECT_EQ(message->text(), request(expected));
}

TEST(Message, TheBodySetsContentLength) {
  auto message = parse(request("l :  2  \nTo: x\nContent-Length: 2\n", "ab"));
  ASSERT_TRUE(message->setBody("hello"));
  ASSERT_TRUE(message->setBody(std::string_view("hel\0o!", 6)));
  EXPECT_EQ(message->body(), std::string_view("hel\0o!", 6));
  EXPECT_EQ(message->text(), request("l :  6  \nTo: x\n", std::string_view("hel\0o!", 6)));
  auto none = parse(request("To: x\n", "ab"));
  ASSERT_TRUE(none->setBody(""));
  EXPECT_EQ(none->text(), request("To: x\nContent-Length: 0\n"));
}

TEST(Message, ContentLengthIsWhatTheBodySays) {
  auto message = parse(request("Content-Length: 2\n", "ab"));
  EXPECT_FALSE(message->setHeader("Content-Length", "3"));
  EXPECT_FALSE(message->addHeader("l", "0"));
  EXPECT_FALSE(message->removeHeader("Content-Length"));
  EXPECT_EQ(message->removeHeaders("l"), 0u);
  EXPECT_TRUE(message->setHeader("Content-Length", "2"));
  EXPECT_EQ(message->text(), request("Content-Length: 2\n", "ab"));
}

TEST(Message, AResponseMadeHere) {
  SIPLIB_message message(100, "Trying");
  ASSERT_TRUE(message.valid());
  EXPECT_TRUE(message.isResponse());
  EXPECT_EQ(message.statusCode(), 100);
  EXPECT_EQ(message.reasonPhrase(), "Trying");
  ASSERT_TRUE(message.addHeader("Via", "a"));
  ASSERT_TRUE(message.setHeader("To", "b"));
  EXPECT_EQ(message.text(), crlf("SIP/2.0 100 Trying\nVia: a\nTo: b\nContent-Length: 0\n\n"));
  ASSERT_TRUE(message.setBody("xyz"));
  EXPECT_EQ(message.text(), crlf("SIP/2.0 100 Trying\nVia: a\nTo: b\nContent-Length: 3\n\nxyz"));
  EXPECT_TRUE(parse(message.text())->valid());
  EXPECT_TRUE(SIPLIB_message(200, "").valid());
}

TEST(Message, ARequestMadeHere) {
  SIPLIB_message message("NOTIFY", "sip:a@b");
  ASSERT_TRUE(message.valid());
  EXPECT_TRUE(message.isRequest());
  EXPECT_EQ(message.method(), "NOTIFY");
  EXPECT_EQ(message.requestUri(), "sip:a@b");
  EXPECT_EQ(message.text(), crlf("NOTIFY sip:a@b SIP/2.0\nContent-Length: 0\n\n"));
}

TEST(Message, NothingBadIsMadeHere) {
  EXPECT_FALSE(SIPLIB_message(99, "Low").valid());
  EXPECT_FALSE(SIPLIB_message(700, "High").valid());
  EXPECT_FALSE(SIPLIB_message(-1, "Negative").valid());
  EXPECT_FALSE(SIPLIB_message(200, "OK\r\nVia: x").valid());
  EXPECT_FALSE(SIPLIB_message("", "sip:a").valid());
  EXPECT_FALSE(SIPLIB_message("IN VITE", "sip:a").valid());
  EXPECT_FALSE(SIPLIB_message("INVITE", "").valid());
  EXPECT_FALSE(SIPLIB_message("INVITE", "sip:a SIP/2.0\r\nVia: x").valid());
  EXPECT_NE(SIPLIB_message("INVITE", "sip:a b").parseError(), "");
}

TEST(Message, UntouchedLinesAreOneSlice) {
  auto message = parse(kInvite);
  std::vector<iovec> slices;
  message->gather(slices);
  EXPECT_EQ(slices.size(), 1u);
  ASSERT_TRUE(message->setHeader("Via", "x"));
  ASSERT_TRUE(message->setHeader("Contact", "y"));
  slices.clear();
  message->gather(slices);
  EXPECT_EQ(slices.size(), 5u);
  message->gather(slices);
  EXPECT_EQ(slices.size(), 10u) << "slices are appended";
}

TEST(Message, CopiedLinesStandAsTheyDidInTheOther) {
  auto request = parse(crlf("OPTIONS sip:a SIP/2.0\nv: a , ,b\nX: 1\nVIA \t:c,\n  d\nVia:\nx: 2\n\n"));
  SIPLIB_message answer(200, "OK");
  EXPECT_TRUE(answer.appendLines("Via", *request));
  EXPECT_TRUE(answer.appendLines("x", *request)) << "a name that is not known";
  EXPECT_TRUE(answer.addHeader("To", "t"));
  EXPECT_EQ(answer.text(), crlf("SIP/2.0 200 OK\nv: a , ,b\nVIA \t:c,\n  d\nVia:\nX: 1\nx: 2\nTo: t\n"
                                "Content-Length: 0\n\n"));
  EXPECT_EQ(answer.headers("Via"), (std::vector<std::string_view>{"a", "b", "c", "d", ""}));
  EXPECT_TRUE(answer.setHeader("Via", "new"));
  EXPECT_EQ(answer.text().find(crlf("SIP/2.0 200 OK\nv: new , ,b\n")), 0u);
  EXPECT_EQ(request->header("Via"), "a") << "a copy";

  EXPECT_FALSE(answer.appendLines("Route", *request));
  EXPECT_FALSE(answer.appendLines("Content-Length", *parse(kInvite)));
  EXPECT_FALSE(answer.appendLines("Via", *parse("nonsense")));
  EXPECT_FALSE(answer.appendLines("Via", answer));
  EXPECT_FALSE(SIPLIB_message(99, "").appendLines("Via", *request));
}

TEST(Message, AMissingContentLengthIsAddedOnce) {
  const std::string head = crlf("MESSAGE sip:a SIP/2.0\nX: y\n");
  auto message = parse(head + "\r\nbody");
  message->completeLength();
  message->completeLength();
  EXPECT_EQ(message->text(), head + crlf("Content-Length: 4\n\n") + "body");
  EXPECT_TRUE(message->setBody("longer"));
  EXPECT_EQ(message->text(), head + crlf("Content-Length: 6\n\n") + "longer");
  for (const char* form : {"l:4\r\n", "content-LENGTH :\r\n 4\r\n", "Content-Length: 4\r\nl: 04\r\n"}) {
    const std::string text = head + form + "\r\nbody";
    auto whole = parse(text);
    whole->completeLength();
    EXPECT_EQ(whole->text(), text);
  }
  auto nonsense = parse("nonsense");
  nonsense->completeLength();
  EXPECT_EQ(nonsense->text(), "");
}

TEST(Message, AHandleSharesAndEndsTheMessage) {
  SIPLIB_SIPMessageHandle empty;
  EXPECT_FALSE(empty);
  SIPLIB_SIPMessageHandle none(nullptr);
  EXPECT_FALSE(none);
  SIPLIB_SIPMessageHandle first(new SIPLIB_message(200, "OK"));
  SIPLIB_SIPMessageHandle second = first;
  second->setHeader("To", "x");
  EXPECT_EQ(first->header("To"), "x");
  first = empty;
  EXPECT_FALSE(first);
  EXPECT_EQ(second->header("To"), "x");
  SIPLIB_SIPMessageHandle third = std::move(second);
  EXPECT_EQ(third->header("To"), "x");
  const auto& same = third;
  third = same;
  EXPECT_EQ((*third).statusCode(), 200);
}

TEST(Message, ItsHeadIsSearchedAsItStands) {
  const auto message = parse(crlf("INVITE sip:a;tag=1 SIP/2.0\nVia: one\nX: two\nContent-Length: 5\n\nthree"));
  for (const char* text : {"a;tag", "SIP/2.0", "one", "two", "Length: 5"})
    EXPECT_TRUE(message->headHolds(text)) << text;
  EXPECT_FALSE(message->headHolds("three")) << "the body";
  EXPECT_FALSE(message->headHolds("ONE"));
  EXPECT_TRUE(message->setHeader("Via", "other"));
  EXPECT_TRUE(message->addHeader("Y", "four"));
  EXPECT_FALSE(message->headHolds("one"));
  for (const char* text : {"a;tag", "other", "two", "four"}) EXPECT_TRUE(message->headHolds(text)) << text;
  EXPECT_FALSE(parse("rubbish")->headHolds("rubbish")) << "one that does not parse has no head";
}

TEST(Message, ComesFromTheNetworkOnlyWhenATransportSaysSo) {
  for (int round = 0; round < 3; ++round) {  // the memory of one is the next one's
    auto message = std::make_unique<SIPLIB_message>(200, "OK");
    EXPECT_FALSE(message->fromNetwork());
    message->setFromNetwork();
    EXPECT_TRUE(message->fromNetwork());
  }
}

}  // namespace
