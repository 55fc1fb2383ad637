#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "engine/failing_new.h"
#include "engine/recording_user_agent.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "siplib/message.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"

namespace {

class ClientTcpTransportListener : public ::testing::Test {
 protected:
  /// True when the message is the proxy's.
  bool take(const std::string& text) {
    const std::unique_ptr<char[]> bytes(new char[text.size()]);
    std::memcpy(bytes.get(), text.data(), text.size());
    SIPLIB_message* received = nullptr;
    const bool result = listener.handleIncomingMessage(bytes.get(), static_cast<unsigned int>(text.size()), &received);
    message.reset(received);
    return result;
  }

  RecordingUserAgent agent;
  IMS_Proxy_SipClientTcpTransportListener listener{&agent};
  IMS_Proxy_SipClientTcpTransportListener orphan{nullptr};
  std::unique_ptr<SIPLIB_message> message;
  LogCapture log;
};

TEST_F(ClientTcpTransportListener, GivesAnswersToTheRegistrarsOwnRequestsBack) {
  EXPECT_FALSE(take(sipResponse(200, "OK", {{"From", "<sip:registrar@127.0.0.1>;tag=1"}})));
  EXPECT_TRUE(log.has(5, "Incoming Response message From:host=127.0.0.1, From:user=registrar"));
  EXPECT_TRUE(log.has(5, "Redirected response to Registrar"));
  EXPECT_TRUE(message);
}

TEST_F(ClientTcpTransportListener, GivesEveryOtherAnswerToTheProxy) {
  EXPECT_TRUE(take(sipResponse(200, "OK", {{"From", "\"A\" <sip:alice@example.com>;tag=1"}})));
  EXPECT_TRUE(log.has(5, "Incoming Response message From:host=example.com, From:user=alice"));
  EXPECT_TRUE(take(sipResponse(200, "OK", {{"From", "<sip:registrar@example.com>;tag=1"}})));
  EXPECT_TRUE(take(sipResponse(200, "OK", {{"From", "<sip:Registrar@127.0.0.1>;tag=1"}})));
  EXPECT_TRUE(take(sipResponse(200, "OK", {})));
  EXPECT_FALSE(log.has(5, "Redirected response to Registrar"));
}

TEST_F(ClientTcpTransportListener, LooksAtFromOfRequestsTooAndAtNothingElse) {
  EXPECT_FALSE(take(sipRequest("NOTIFY", "sip:x@127.0.0.1", {{"From", "<sip:registrar@127.0.0.1>"}})));
  EXPECT_TRUE(take(sipRequest("REGISTER", "sip:127.0.0.1", {{"From", "<sip:a@b>"}, {"To", "<sip:127.0.0.1>"}})));
  EXPECT_EQ(log.count(5, "Incoming Response message From:host=b, From:user=a"), 1);
}

TEST_F(ClientTcpTransportListener, ShowsZeroesForWhatFollowsANul) {
  std::string text = sipResponse(200, "OK", {{"From", "<sip:a@b>"}}, "x?secret");
  text[text.find('?')] = '\0';
  EXPECT_TRUE(take(text));
  ASSERT_TRUE(message && message->valid());
  EXPECT_EQ(message->body(), std::string("x") + std::string(7, '\0'));
}

TEST_F(ClientTcpTransportListener, GivesWhatDoesNotParseToTheProxy) {
  EXPECT_TRUE(take("SIP/2.0 two hundred\r\n\r\n"));
  ASSERT_TRUE(message);
  EXPECT_FALSE(message->valid());
}

TEST_F(ClientTcpTransportListener, KeepsAMessageForTheProxyWhenMemoryRunsOut) {
  const std::string text = sipResponse(200, "OK", {{"From", "<sip:registrar@127.0.0.1>;tag=1"}});
  {
    const FailingNew failing(1);
    EXPECT_TRUE(take(text + '\0'));
  }
  EXPECT_TRUE(log.has(3, "Memory allocation failed for buffer"));
  EXPECT_FALSE(message);
  {
    const FailingNew failing(1);
    EXPECT_TRUE(take(text));
  }
  EXPECT_TRUE(log.has(3, "new SIPLIB_message(tmp_buf,buflen) failed"));
  EXPECT_FALSE(message);
}

TEST_F(ClientTcpTransportListener, TellsTheEngine) {
  FakeClientTcp connection;
  listener.notifyResponse(&connection);
  listener.notifyConnectionClosed(&connection);
  const RecordingUserAgent::Calls expected = {{"response", &connection}, {"closed", &connection}};
  EXPECT_EQ(agent.calls, expected);
}

TEST_F(ClientTcpTransportListener, SaysWhatIsMissing) {
  FakeClientTcp connection;
  listener.notifyResponse(nullptr);
  listener.notifyConnectionClosed(nullptr);
  EXPECT_EQ(log.count(4, "Null client connection"), 2);
  log.clear();
  orphan.notifyResponse(nullptr);
  orphan.notifyConnectionClosed(&connection);
  EXPECT_EQ(log.count(4, "Null user_agent"), 2);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(agent.calls.empty());
}

}  // namespace
