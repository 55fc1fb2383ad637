#include "siplib/connection.h"

#include <gtest/gtest.h>

namespace {

class Connection final : public SIPLIB_SIPMessageConnection {
 public:
  int send() override { return -1; }
};

SIPLIB_SIPMessageHandle message(std::string_view text) {
  return SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
}

constexpr std::string_view invite =
    "INVITE sip:b@127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.1:1, SIP/2.0/TCP 127.0.0.100:2\r\nFrom: <sip:a@h>\r\n"
    "CSeq: 7 INVITE\r\nContent-Length: 4\r\n\r\nbody";
constexpr std::string_view ringing = "SIP/2.0 180 Ringing\r\nCSeq: 7 \t INVITE\r\n\r\n";

void expectAbsent(Connection& connection) {
  bool is_request = true;
  EXPECT_FALSE(connection.getSipMsgType(is_request));
  EXPECT_FALSE(is_request);
  EXPECT_EQ("", connection.getMethod());
  EXPECT_EQ("", connection.getRequestURI());
  EXPECT_EQ(0, connection.getStatusCode());
  std::string value = "as it was";
  EXPECT_EQ(-1, connection.getHeader("Via", value));
  EXPECT_EQ("as it was", value);
  char buffer[8];
  EXPECT_EQ(-1, connection.getHeader("Via", buffer, sizeof buffer));
  std::vector<std::string> values{"old"};
  EXPECT_EQ(0u, connection.getHeaders("Via", values));
  EXPECT_TRUE(values.empty());
  std::size_t longest = 9;
  EXPECT_EQ(0u, connection.getHeaderCount("Via", longest));
  EXPECT_EQ(0u, longest);
  EXPECT_EQ(-1, connection.setHeader("Via", "x"));
  EXPECT_EQ(-1, connection.addHeader("Via", "x"));
  EXPECT_EQ(-1, connection.removeHeader("Via"));
  EXPECT_EQ(-1, connection.getContent(value));
  EXPECT_EQ(-1, connection.setContent("x"));
}

TEST(SipMessageConnection, WithoutAMessageEverythingIsAbsent) {
  Connection connection;
  EXPECT_EQ(-1, connection.receive());
  expectAbsent(connection);
}

TEST(SipMessageConnection, AMessageThatDoesNotParseIsAbsentInEveryReader) {
  Connection connection;
  connection.setSipMessageHandle(message("nonsense"));
  expectAbsent(connection);
}

TEST(SipMessageConnection, ReadsARequest) {
  Connection connection;
  connection.setSipMessageHandle(message(invite));
  bool is_request = false;
  EXPECT_TRUE(connection.getSipMsgType(is_request));
  EXPECT_TRUE(is_request);
  EXPECT_EQ("INVITE", connection.getMethod());
  EXPECT_EQ("sip:b@127.0.0.1", connection.getRequestURI());
  EXPECT_EQ(0, connection.getStatusCode());
  std::string value;
  EXPECT_EQ(0, connection.getHeader("v", value));
  EXPECT_EQ("SIP/2.0/TCP 127.0.0.1:1", value);
  std::vector<std::string> vias;
  EXPECT_EQ(2u, connection.getHeaders("Via", vias));
  EXPECT_EQ("SIP/2.0/TCP 127.0.0.100:2", vias.at(1));
  std::size_t longest = 0;
  EXPECT_EQ(2u, connection.getHeaderCount("via", longest));
  EXPECT_EQ(vias[1].size(), longest);
  EXPECT_EQ(0, connection.getContent(value));
  EXPECT_EQ("body", value);
}

TEST(SipMessageConnection, ReadsAnAnswerAndItsMethod) {
  Connection connection;
  connection.setSipMessageHandle(message(ringing));
  bool is_request = true;
  EXPECT_TRUE(connection.getSipMsgType(is_request));
  EXPECT_FALSE(is_request);
  EXPECT_EQ("INVITE", connection.getMethod());
  EXPECT_EQ("", connection.getRequestURI());
  EXPECT_EQ(180, connection.getStatusCode());
  std::string body = "x";
  EXPECT_EQ(0, connection.getContent(body));
  EXPECT_EQ("", body);
}

TEST(SipMessageConnection, AValueThatDoesNotFitItsBufferIsAbsent) {
  Connection connection;
  connection.setSipMessageHandle(message(invite));
  char exact[10];
  EXPECT_EQ(0, connection.getHeader("From", exact, sizeof exact));
  EXPECT_STREQ("<sip:a@h>", exact);
  EXPECT_EQ(-1, connection.getHeader("From", exact, sizeof exact - 1));
  EXPECT_EQ(-1, connection.getHeader("From", exact, 0));
  EXPECT_EQ(-1, connection.getHeader("From", nullptr, 10));
}

TEST(SipMessageConnection, ChangesTheMessage) {
  Connection connection;
  connection.setSipMessageHandle(message(invite));
  EXPECT_EQ(0, connection.setHeader("Via", "SIP/2.0/TCP 127.0.0.9"));
  EXPECT_EQ(0, connection.addHeader("Route", "<sip:r>"));
  EXPECT_EQ(-1, connection.setHeader("Via", "a\r\nSmuggled: b"));
  EXPECT_EQ(0, connection.removeHeader("From"));
  EXPECT_EQ(-1, connection.removeHeader("From"));
  EXPECT_EQ(0, connection.setContent("longer body"));
  std::string value;
  EXPECT_EQ(0, connection.getHeader("Via", value));
  EXPECT_EQ("SIP/2.0/TCP 127.0.0.9", value);
  EXPECT_EQ(0, connection.getHeader("Route", value));
  EXPECT_EQ(0, connection.getHeader("Content-Length", value));
  EXPECT_EQ("11", value);
}

TEST(SipMessageConnection, TwoConnectionsShareOneMessage) {
  Connection one;
  Connection other;
  one.setSipMessageHandle(message(invite));
  other.setSipMessageHandle(one.getSipMessageHandle());
  EXPECT_EQ(0, other.setHeader("Subject", "shared"));
  std::string value;
  EXPECT_EQ(0, one.getHeader("Subject", value));
  EXPECT_EQ("shared", value);
}

}  // namespace
