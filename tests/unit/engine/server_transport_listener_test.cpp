#include "engine/sip_server_transport_listener.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include "engine/failing_new.h"
#include "engine/recording_user_agent.h"
#include "siplib/message.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"

namespace {

struct Intake {
  bool for_proxy;
  std::unique_ptr<SIPLIB_message> message;
};

/// Hands the text over as the library does: exactly so many bytes, nothing behind them.
Intake take(SIPLIB_SIPServerTransportListener& listener, const std::string& text) {
  const std::unique_ptr<char[]> bytes(new char[text.size()]);
  std::memcpy(bytes.get(), text.data(), text.size());
  SIPLIB_message* message = nullptr;
  const bool for_proxy = listener.handleIncomingMessage(bytes.get(), static_cast<unsigned int>(text.size()), &message);
  return {for_proxy, std::unique_ptr<SIPLIB_message>(message)};
}

std::string request(const std::string& method, const std::string& to) {
  return sipRequest(method, "sip:x@example.com",
                    {{"Via", "SIP/2.0/UDP 127.0.0.1:40000;branch=z9hG4bK1"},
                     {"From", "<sip:alice@example.com>;tag=1"},
                     {"To", to},
                     {"Call-ID", "a"},
                     {"CSeq", "1 " + method}});
}

std::string response(const std::string& from) {
  return sipResponse(200, "OK",
                     {{"Via", "SIP/2.0/UDP 127.0.0.1:40000;branch=z9hG4bK1"},
                      {"From", from},
                      {"To", "<sip:regua@127.0.0.1>;tag=2"},
                      {"Call-ID", "a"},
                      {"CSeq", "1 NOTIFY"}});
}

class ServerTransportListener : public ::testing::Test {
 protected:
  RecordingUserAgent agent;
  IMS_Proxy_SipServerTransportListener listener{&agent};
  IMS_Proxy_SipServerTransportListener orphan{nullptr};
  LogCapture log;
};

TEST_F(ServerTransportListener, GivesRegistersToTheLoopbackAddressToTheRegistrarWhateverTheirUser) {
  EXPECT_FALSE(take(listener, request("REGISTER", "<sip:127.0.0.1>")).for_proxy);
  EXPECT_TRUE(log.has(5, "Incoming Request message To:host=127.0.0.1, To:user=, method=REGISTER"));
  EXPECT_TRUE(log.has(5, "Redirected REGISTER Request to Registrar"));
  EXPECT_FALSE(take(listener, request("REGISTER", "<sip:anyone@127.0.0.1:5060>")).for_proxy);
}

TEST_F(ServerTransportListener, GivesRegistersToANetworkHostToTheProxy) {
  const Intake intake = take(listener, request("REGISTER", "<sip:alice@example.com>"));
  EXPECT_TRUE(intake.for_proxy);
  ASSERT_TRUE(intake.message);
  EXPECT_EQ(intake.message->method(), "REGISTER");
  EXPECT_TRUE(log.has(5, "REGISTER Request will be handled at the Proxy"));
}

TEST_F(ServerTransportListener, GivesOnlySubscribesThatNameTheRegistrarToIt) {
  EXPECT_FALSE(take(listener, request("SUBSCRIBE", "<sip:registrar@127.0.0.1>")).for_proxy);
  EXPECT_TRUE(log.has(5, "Redirected SUBSCRIBE Request to Registrar"));
  EXPECT_TRUE(take(listener, request("SUBSCRIBE", "<sip:bob@127.0.0.1>")).for_proxy);
  EXPECT_TRUE(take(listener, request("SUBSCRIBE", "<sip:127.0.0.1>")).for_proxy);
  EXPECT_TRUE(take(listener, request("SUBSCRIBE", "<sip:registrar@example.com>")).for_proxy);
  EXPECT_EQ(log.count(5, "SUBSCRIBE Request will be handled at the Proxy"), 3);
}

TEST_F(ServerTransportListener, GivesOtherRequestsToTheProxyEvenWhenTheyNameTheRegistrar) {
  EXPECT_TRUE(take(listener, request("MESSAGE", "<sip:registrar@127.0.0.1>")).for_proxy);
  EXPECT_TRUE(take(listener, request("register", "<sip:127.0.0.1>")).for_proxy);
  EXPECT_TRUE(take(listener, request("REGISTER", "<sip:localhost>")).for_proxy);
}

TEST_F(ServerTransportListener, GivesAnswersToTheRegistrarsOwnRequestsBack) {
  EXPECT_FALSE(take(listener, response("<sip:registrar@127.0.0.1>;tag=9")).for_proxy);
  EXPECT_TRUE(log.has(5, "Incoming Response message From:host=127.0.0.1, From:user=registrar"));
  EXPECT_TRUE(log.has(5, "Redirected response to Registrar"));
  EXPECT_TRUE(take(listener, response("<sip:registrar@example.com>;tag=9")).for_proxy);
  EXPECT_TRUE(take(listener, response("<sip:alice@127.0.0.1>;tag=9")).for_proxy);
}

TEST_F(ServerTransportListener, ReadsAHeaderOfAThousandBytesAsAbsent) {
  // "<sip:" + user + "@127.0.0.1>" is 16 bytes longer than the user.
  const std::string fits = "<sip:" + std::string(999 - 16, 'u') + "@127.0.0.1>";
  ASSERT_EQ(fits.size(), 999u);
  EXPECT_FALSE(take(listener, request("REGISTER", fits)).for_proxy);
  const std::string too_long = "<sip:" + std::string(1000 - 16, 'u') + "@127.0.0.1>";
  EXPECT_TRUE(take(listener, request("REGISTER", too_long)).for_proxy);
  EXPECT_TRUE(log.has(5, "Incoming Request message To:host=, To:user=, method=REGISTER"));
}

TEST_F(ServerTransportListener, ShowsZeroesForWhatFollowsANul) {
  std::string text = sipRequest("MESSAGE", "sip:x@example.com", {{"To", "<sip:x@example.com>"}}, "ab?secret");
  text[text.find('?')] = '\0';
  const Intake intake = take(listener, text);
  EXPECT_TRUE(intake.for_proxy);
  ASSERT_TRUE(intake.message && intake.message->valid());
  EXPECT_EQ(intake.message->body(), std::string("ab") + std::string(7, '\0'));
}

TEST_F(ServerTransportListener, GivesWhatDoesNotParseToTheProxyWithOneLine) {
  std::string with_nul = "INVITE sip:x@example.com SIP/2.0\r\nTo: ?x\r\n\r\n";
  with_nul[with_nul.find('?')] = '\0';
  for (const std::string& text : {std::string("nonsense\r\n\r\n"), with_nul, std::string(1, '\0'), std::string()}) {
    log.clear();
    const Intake intake = take(listener, text);
    EXPECT_TRUE(intake.for_proxy);
    ASSERT_TRUE(intake.message);
    EXPECT_FALSE(intake.message->valid());
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.has_part(4, "does not parse"));
  }
}

TEST_F(ServerTransportListener, TakesARequestWithoutTo) {
  const Intake intake = take(listener, sipRequest("REGISTER", "sip:127.0.0.1", {{"Call-ID", "1"}}));
  EXPECT_TRUE(intake.for_proxy);
  EXPECT_TRUE(intake.message && intake.message->valid());
}

TEST_F(ServerTransportListener, KeepsAMessageForTheProxyWhenMemoryRunsOut) {
  const std::string text = request("REGISTER", "<sip:127.0.0.1>");
  {
    const FailingNew failing(1);
    const Intake intake = take(listener, text + '\0');
    EXPECT_TRUE(intake.for_proxy);
    EXPECT_FALSE(intake.message);
  }
  EXPECT_TRUE(log.has(3, "Memory allocation failed for buffer"));
  {
    const FailingNew failing(1);
    const Intake intake = take(listener, text);
    EXPECT_TRUE(intake.for_proxy);
    EXPECT_FALSE(intake.message);
  }
  EXPECT_TRUE(log.has(3, "new SIPLIB_message(tmp_buf,buflen) failed"));
}

TEST_F(ServerTransportListener, AcceptsConnectionsAndDatagramsAndTellsTheEngine) {
  FakeNotifier notifier;
  FakeServerTcp accepted;
  FakeServerUdp datagrams;
  notifier.next_tcp = &accepted;
  notifier.udp = &datagrams;
  listener.notifyIncomingConnection(&notifier);
  listener.notifyRequest(&accepted);
  listener.notifyUdpMsg(&notifier);
  listener.notifyConnectionClosed(&accepted);
  const RecordingUserAgent::Calls expected = {
      {"incoming", &accepted}, {"request", &accepted}, {"udp", &datagrams}, {"closed", &accepted}};
  EXPECT_EQ(agent.calls, expected);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ServerTransportListener, SaysWhatIsMissing) {
  FakeNotifier notifier;
  FakeServerTcp accepted;

  listener.notifyIncomingConnection(nullptr);
  listener.notifyUdpMsg(nullptr);
  EXPECT_EQ(log.count(4, "Null SIPTransportNotifier"), 2);
  log.clear();

  listener.notifyIncomingConnection(&notifier);
  listener.notifyUdpMsg(&notifier);
  listener.notifyRequest(nullptr);
  listener.notifyConnectionClosed(nullptr);
  EXPECT_EQ(log.count(4, "Null server connection"), 4);
  log.clear();

  notifier.next_tcp = &accepted;
  orphan.notifyIncomingConnection(&notifier);
  EXPECT_EQ(notifier.next_tcp, nullptr) << "accepted before the user agent is looked at";
  orphan.notifyUdpMsg(&notifier);
  orphan.notifyRequest(nullptr);
  orphan.notifyConnectionClosed(&accepted);
  EXPECT_EQ(log.count(4, "Null user_agent"), 4);
  EXPECT_EQ(log.lines().size(), 4u);
  EXPECT_EQ(log.lines()[0].function, "notifyIncomingConnection");
  EXPECT_TRUE(agent.calls.empty());
}

}  // namespace
