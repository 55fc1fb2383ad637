// What transactions and dialogs read of a message.
#include "siplib/transaction_head.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <string>

#include "siplib/transaction_fakes.h"

namespace {

using transaction_fakes::parsed;
using transaction_fakes::Request;

siplib::Head headOf(const Request& request) {
  siplib::Head head;
  EXPECT_EQ(nullptr, siplib::readHead(*parsed(request.text()), head));
  return head;
}

TEST(TransactionHead, AnAnswerIsHardlyLargerThanItsRequestAndKeepsItsVias) {
  std::mt19937 random(11);
  const auto any = [&](std::initializer_list<const char*> texts) {
    return std::string(texts.begin()[random() % texts.size()]);
  };
  int valid = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string lines;
    for (std::size_t line = 0; line <= random() % 3; ++line) {
      lines += any({"Via:", "v:", "VIA \t: ", "V:\r\n "}) + any({"", "SIP/2.0/UDP h;branch=z9hG4bK1", ",,", "x"});
      const std::size_t elements = random() % 40 == 0 ? random() % 6000 : random() % 5;
      for (std::size_t i = 0; i < elements; ++i)
        lines += "," + any({"", "a", " ", "\r\n b", "SIP/2.0/TCP [::1]:5060", "\"q,\\\"q\"", "a;b=\"\""});
      lines += "\r\n";
    }
    const std::string text = any({"REGISTER sip:127.0.0.1 SIP/2.0\r\n", "SUBSCRIBE sip:r@127.0.0.1 SIP/2.0\r\n"}) +
                             any({"From", "f"}) + ": <sip:alice@127.0.0.1>;tag=9fxced76sl\r\n" + lines +
                             any({"To", "t"}) + ":<sip:alice@127.0.0.1>\r\n" + any({"Call-ID", "i"}) +
                             ": 3848276298220188511@127.0.0.1\r\nCSeq: 1 REGISTER\r\nMax-Forwards: 70\r\n" +
                             "Contact: <sip:alice@127.0.0.1:5071>\r\nContent-Length: 0\r\n\r\n";
    const auto request = parsed(text);
    if (!request->valid()) continue;  // larger than the limits
    ++valid;
    const SIPLIB_SIPMessageHandle answer(siplib::newAnswer(*request, 481, "0123456789abcdef0123456789abcdef"));
    const std::string sent = answer->text();
    ASSERT_LE(2 * sent.size(), 3 * text.size()) << text;
    ASSERT_NE(sent.find(lines), std::string::npos) << "in their order, as they came";
    ASSERT_EQ(request->headers("Via"), parsed(sent)->headers("Via"));
  }
  EXPECT_GT(valid, 1500);
}

TEST(TransactionHead, ReadsWhatIsThere) {
  Request request;
  request.via = "SIP/2.0/UDP [::1]:5071;rport;branch=z9hG4bKx";
  request.from = "\"a;tag=no\" <sip:a@127.0.0.1;tag=no>;x=y;TAG=f1";
  request.to = "sip:b@127.0.0.1;tag=t1";
  request.cseq = "007";
  const siplib::Head head = headOf(request);
  EXPECT_EQ(request.via, head.via);
  EXPECT_EQ("z9hG4bKx", head.branch);
  EXPECT_EQ(5071, head.sent_by_port);
  EXPECT_TRUE(head.rport);
  EXPECT_EQ("f1", head.from_tag);
  EXPECT_EQ("t1", head.to_tag);
  EXPECT_EQ("call-1", head.call_id);
  EXPECT_EQ(7u, head.number);
  EXPECT_EQ("REGISTER", head.method);
}

TEST(TransactionHead, AViaWithoutPortMeans5060) {
  Request request;
  request.via = "SIP/2.0/UDP 127.0.0.1";
  const siplib::Head head = headOf(request);
  EXPECT_EQ(5060, head.sent_by_port);
  EXPECT_EQ("", head.branch);
  EXPECT_FALSE(head.rport);
}

TEST(TransactionHead, ACSeqIsANumberAndAMethodAndNothingElse) {
  for (const char* cseq : {"1", "REGISTER", "-1 REGISTER", "1 REGISTER REGISTER", "1REGISTER", "2147483648 REGISTER"}) {
    const std::string text = std::string("REGISTER sip:a SIP/2.0\r\nVia: SIP/2.0/UDP a\r\nFrom: <sip:a>\r\n") +
                             "To: <sip:a>\r\nCall-ID: 1\r\nCSeq: " + cseq + "\r\n\r\n";
    siplib::Head head;
    EXPECT_NE(nullptr, siplib::readHead(SIPLIB_message(text.data(), text.size()), head)) << cseq;
  }
}

TEST(TransactionHead, FromAndToAreRefusedWhereTheirTagsCannotBeRead) {
  for (const char* bad : {"<sip:a@1\"7.0.0.1>", "\"open <sip:a@127.0.0.1>;tag=1", "<sip:a@127.0.0.1", ";tag=1"}) {
    Request from;
    from.from = bad;
    Request to;
    to.to = bad;
    siplib::Head head;
    EXPECT_STREQ("From cannot be read", siplib::readHead(*parsed(from.text()), head)) << bad;
    EXPECT_STREQ("To cannot be read", siplib::readHead(*parsed(to.text()), head)) << bad;
  }
}

TEST(TransactionHead, UrisAreFoundWithinValues) {
  struct Row {
    const char* value;
    const char* uri;
  };
  const Row rows[] = {
      {"<sip:a@127.0.0.1;lr>;q=1", "sip:a@127.0.0.1;lr"},
      {"\"<sip:x@y>\" <sip:a@b>", "sip:a@b"},
      {"\"quote \\\" <\" <sip:a@b?subject=x>", "sip:a@b"},
      {"sip:a@b;expires=3", "sip:a@b"},
      {"sip:a@b?x=y", "sip:a@b"},
      {"< sip:a@b >", "sip:a@b"},
      {"<sip:a@b", ""},
      {"\"open <sip:a@b>", ""},
      {"", ""},
  };
  for (const Row& row : rows) EXPECT_EQ(row.uri, siplib::uriWithin(row.value)) << row.value;
}

TEST(TransactionHead, AHopIsALiteralAddress) {
  const siplib::Hop plain = siplib::hopOf("sip:a@127.0.0.3");
  EXPECT_EQ("127.0.0.3", plain.ip);
  EXPECT_EQ(5060, plain.port);
  EXPECT_EQ("", plain.transport);
  const siplib::Hop v6 = siplib::hopOf("sip:[2001:db8::1]:5099;transport=TCP");
  EXPECT_EQ("2001:db8::1", v6.ip);
  EXPECT_EQ(5099, v6.port);
  EXPECT_EQ("tcp", v6.transport);
  EXPECT_EQ("", siplib::hopOf("sip:a@host.example").ip);
  EXPECT_EQ("", siplib::hopOf("sips:a@127.0.0.1").ip);
  EXPECT_EQ("", siplib::hopOf("tel:+1").ip);
  EXPECT_EQ("", siplib::hopOf("").ip);
}

TEST(TransactionHead, ContactsNameAddressAndTransport) {
  EXPECT_EQ("<sip:127.0.0.1:5060>", siplib::contactValue("127.0.0.1", 5060, false));
  EXPECT_EQ("<sip:[::1]:5061;transport=tcp>", siplib::contactValue("::1", 5061, true));
}

TEST(TransactionHead, BranchesAndTagsAreNewEachTime) {
  EXPECT_NE(siplib::newTag(), siplib::newTag());
  EXPECT_NE(siplib::newBranch(), siplib::newBranch());
  EXPECT_TRUE(siplib::newBranch().starts_with("z9hG4bK"));
}

TEST(TransactionHead, AnAnswerToARequestWithoutHeadersIsStillAMessage) {
  const SIPLIB_SIPMessageHandle answer(siplib::newAnswer(*parsed("OPTIONS sip:a SIP/2.0\r\n\r\n"), 400, "t"));
  EXPECT_EQ(0u, answer->text().find("SIP/2.0 400 Bad Request\r\n"));
  EXPECT_FALSE(answer->header("To"));
}

// A peer can put eight thousand Vias into a head; what they cost may grow with their number, not with its square.
TEST(TransactionHead, AnAnswerTakesAllViasInTheirOrderAndInProportionalTime) {
  const auto answered = [](std::size_t count, std::string& text) {
    Request request;
    for (std::size_t i = 1; i < count; ++i) request.via += ',' + std::to_string(i % 10);
    const SIPLIB_SIPMessageHandle received = parsed(request.text());
    double least = 1e9;
    for (int round = 0; round < 5; ++round) {
      const std::clock_t begin = std::clock();
      text = SIPLIB_SIPMessageHandle(siplib::newAnswer(*received, 200, "t"))->text();
      least = std::min(least, static_cast<double>(std::clock() - begin));
    }
    return std::max(least, 1.0);
  };
  std::string few, many;
  const double short_time = answered(500, few);
  const double long_time = answered(7500, many);
  EXPECT_EQ(0u, few.find("SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKone,1,2,"));
  EXPECT_NE(std::string::npos, many.find(",8,9\r\nFrom: "));
  EXPECT_LT(long_time / short_time, 60) << "15 times as many; the square would be 225";
}

}  // namespace
