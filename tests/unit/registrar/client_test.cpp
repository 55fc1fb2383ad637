#include "registrar/client.h"

#include <gtest/gtest.h>

#include "fakes.h"
#include "registrar/int_client.h"
#include "support/log_capture.h"

namespace {

using fake::Register;
using fake::Request;

/// An internal client has everything of a client and nothing of its own.
class ClientTest : public ::testing::Test {
 protected:
  /// Classifies, and lets go as the registrar does at the end of the turn.
  int classify(const Register& message) {
    Request request(message.text());
    const int result = client.process_register(&request);
    client.forget_request(&request);
    request.endTurn();
    return result;
  }
  /// Classifies and accepts.
  int accepted(const Register& message) {
    Request request(message.text());
    const int result = client.process_register(&request);
    EXPECT_EQ(client.accept(), 0);
    EXPECT_EQ(request.status(), 200);
    EXPECT_EQ(request.releases, 1);
    request.endTurn();
    return result;
  }
  bool matches(const Register& message) {
    Request request(message.text());
    return client.is_match(&request) == 1;
  }
  IMSE_IntClient client{std::make_unique<RegisterXmlData>("", 0)};
};

}  // namespace

TEST_F(ClientTest, TheFirstRegisterIsNewAndRemembered) {
  LogCapture log;
  EXPECT_EQ(classify({.port = 5070, .expires = "3600"}), IMSE_REGISTER_NEW);
  EXPECT_EQ(client.get_port(), 5070);
  EXPECT_EQ(client.get_expiry_value(), 3600);
  EXPECT_EQ(client.state(), IMSE_CLIENT_NEW);
  EXPECT_TRUE(log.has(5, "IMSE_REG: Client:get_headers returns call-1 1 REGISTER sip:alice@home.net 5070"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Client::process_register 0    0 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: process_register: Expires 3600 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: process_register: Contact <sip:alice@127.0.0.1:5070> 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Client::get_expiry_value 3600"));
}

TEST_F(ClientTest, AFirstRegisterThatEndsIsInvalid) {
  EXPECT_EQ(classify({.expires = "0"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.expires = ""}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.expires = "soon"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({}), IMSE_REGISTER_NEW);
}

TEST_F(ClientTest, TheSameRegisterTwiceIsARetransmissionAndChangesNothing) {
  EXPECT_EQ(classify({.cseq = 5, .expires = "3600"}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.cseq = 5, .expires = "60"}), IMSE_REGISTER_RETRANSMISSION);
  EXPECT_EQ(client.get_expiry_value(), 3600);
}

TEST_F(ClientTest, ALowerCSeqIsInvalid) {
  EXPECT_EQ(classify({.cseq = 5}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.cseq = 4}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.cseq = 5}), IMSE_REGISTER_RETRANSMISSION);
}

TEST_F(ClientTest, AnotherCallIdRegistersAgainWhateverElseItSays) {
  EXPECT_EQ(classify({}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.call_id = "call-2", .cseq = 9, .expires = "0"}), IMSE_REGISTER_AGAIN);
  EXPECT_EQ(classify({.cseq = 1}), IMSE_REGISTER_RETRANSMISSION);
}

TEST_F(ClientTest, TheSameCallIdFromElsewhereIsInvalid) {
  EXPECT_EQ(classify({}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.port = 5071, .cseq = 2}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.from = "sip:bob@home.net", .cseq = 2}), IMSE_REGISTER_INVALID);
}

TEST_F(ClientTest, AHigherCSeqGoesOn) {
  EXPECT_EQ(accepted({.cseq = 1, .expires = "3600"}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.cseq = 2, .expires = "60"}), IMSE_REGISTER_REFRESH);
  EXPECT_EQ(client.get_expiry_value(), 60);
  EXPECT_EQ(classify({.cseq = 3, .expires = ""}), IMSE_REGISTER_DEREGISTRATION);
  EXPECT_EQ(client.get_expiry_value(), 0);
}

TEST_F(ClientTest, AfterAChallengeTheNextIsNewAndAfterA200ARefresh) {
  Request request(Register{}.text());
  EXPECT_EQ(client.process_register(&request), IMSE_REGISTER_NEW);
  LogCapture log;
  EXPECT_EQ(client.authorize(), 0);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"IMSE_REG: authorize", "IMSE_REG: send_response send status 0"}));
  EXPECT_EQ(request.status(), 401);
  EXPECT_EQ(request.answered("WWW-Authenticate"), "(none)");
  EXPECT_EQ(client.state(), IMSE_CLIENT_CHALLENGED);
  EXPECT_EQ(accepted({.cseq = 2}), IMSE_REGISTER_NEW);
  EXPECT_EQ(client.state(), IMSE_CLIENT_REGISTERED);
  EXPECT_EQ(classify({.cseq = 3}), IMSE_REGISTER_REFRESH);
}

TEST_F(ClientTest, NothingSetsARegisteredClientBack) {
  accepted({});
  Request request(Register{.cseq = 2}.text());
  client.process_register(&request);
  EXPECT_EQ(client.authorize(), 0);
  EXPECT_EQ(client.state(), IMSE_CLIENT_REGISTERED);
}

TEST_F(ClientTest, WithoutAUsableContactOrIdentityARegisterIsInvalid) {
  EXPECT_EQ(classify({.contact = ""}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.contact = "<sip:alice@127.0.0.1>"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.contact = "*"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.contact = "<sip:alice@127.0.0.1:0>"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.contact = "<sip:alice@127.0.0.1:65536>"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.contact = "<sip:alice@127.0.0.1:70000>"}), IMSE_REGISTER_INVALID);
  Request no_call_id(sipRequest(
      "REGISTER", "sip:127.0.0.1",
      {{"From", "<sip:a@h.net>"}, {"CSeq", "1 REGISTER"}, {"Contact", "<sip:127.0.0.1:5070>"}, {"Expires", "60"}}));
  EXPECT_EQ(client.process_register(&no_call_id), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.cseq = 2, .contact = ""}), IMSE_REGISTER_INVALID);
}

TEST_F(ClientTest, NumbersOutOfRangeStayNumbers) {
  EXPECT_EQ(classify({.cseq = 1, .expires = "99999999999999999999"}), IMSE_REGISTER_NEW);
  EXPECT_EQ(client.get_expiry_value(), 2147483647);
  Request huge(sipRequest("REGISTER", "sip:127.0.0.1",
                          {{"From", "<sip:alice@home.net>"},
                           {"Call-ID", "call-1"},
                           {"CSeq", "99999999999999999999 REGISTER"},
                           {"Contact", "<sip:127.0.0.1:5070>"},
                           {"Expires", "5"}}));
  EXPECT_EQ(client.process_register(&huge), IMSE_REGISTER_REFRESH);
  EXPECT_EQ(client.get_expiry_value(), 5);
  client.forget_request(&huge);
}

TEST_F(ClientTest, ATimeBelowZeroIsInvalidAndChangesNothing) {
  EXPECT_EQ(classify({.cseq = 1, .expires = "-5"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(classify({.cseq = 1}), IMSE_REGISTER_NEW);
  EXPECT_EQ(classify({.cseq = 2, .expires = "-99999999999999999999"}), IMSE_REGISTER_INVALID);
  EXPECT_EQ(client.get_expiry_value(), 3600);
  EXPECT_EQ(classify({.cseq = 2}), IMSE_REGISTER_REFRESH) << "the number is not used up";
}

TEST_F(ClientTest, The200OfAnInternalClientCarriesExpiresAndContactOnly) {
  Request request(Register{.expires = "600"}.text());
  client.process_register(&request);
  LogCapture log;
  EXPECT_EQ(client.accept(), 0);
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Expires"), "600");
  EXPECT_EQ(request.answered("Contact"), "<sip:alice@127.0.0.1:5070>");
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "(none)");
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"IMSE_REG: Client send_response: expires set 0 status",
                                                   "IMSE_REG: Client send_response: contact set 0 status",
                                                   "IMSE_REG: send_response send status 0"}));
}

TEST_F(ClientTest, AnAnswerOtherThan200CarriesNoHeadersOfItsOwn) {
  Request request(Register{}.text());
  client.process_register(&request);
  LogCapture log;
  EXPECT_EQ(client.reject(403), 0);
  EXPECT_TRUE(log.has(5, "IMSE_REG: reject"));
  EXPECT_EQ(request.status(), 403);
  EXPECT_EQ(request.answered("Expires"), "(none)");
  EXPECT_EQ(request.answered("Contact"), "(none)");
  EXPECT_EQ(request.releases, 1);
}

TEST_F(ClientTest, EachRequestIsAnsweredOnce) {
  Request request(Register{}.text());
  client.process_register(&request);
  EXPECT_EQ(client.reject(400), 0);
  EXPECT_EQ(client.reject(400), 1);
  LogCapture log;
  EXPECT_EQ(client.accept(), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: accept: send_response fails"));
  EXPECT_EQ(request.answers.size(), 1u);
  EXPECT_EQ(request.releases, 1);
}

TEST_F(ClientTest, ARequestThatTakesNoAnswerIsLetGo) {
  Request request(Register{}.text());
  request.refuse_answer = true;
  client.process_register(&request);
  LogCapture log(4);
  EXPECT_EQ(client.accept(), 1);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"IMSE_REG: send_response: init response failure",
                                                   "IMSE_REG: accept: send_response fails"}));
  EXPECT_EQ(request.releases, 1);
  EXPECT_EQ(client.state(), IMSE_CLIENT_NEW);
  EXPECT_EQ(client.authorize(), 1);
  EXPECT_EQ(client.state(), IMSE_CLIENT_NEW);
}

TEST_F(ClientTest, AFailedSendCountsAsAnswered) {
  Request request(Register{}.text());
  request.send_result = -1;
  client.process_register(&request);
  EXPECT_EQ(client.accept(), 0);
  EXPECT_EQ(client.state(), IMSE_CLIENT_REGISTERED);
  EXPECT_EQ(request.releases, 1);
}

TEST_F(ClientTest, MatchesByPortOrByFrom) {
  accepted({.port = 5070, .from = "sip:alice@home.net"});
  LogCapture log;
  EXPECT_TRUE(matches({.port = 5070, .from = "sip:bob@home.net", .call_id = "other"}));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Client::is_match "));
  EXPECT_TRUE(log.has(5, "IMSE_REG: is_match: Port matches"));
  EXPECT_TRUE(matches({.port = 5071, .from = "sip:alice@home.net", .call_id = "other"}));
  EXPECT_TRUE(log.has(5, "IMSE_REG: is_match: from address matches"));
  EXPECT_FALSE(matches({.port = 5071, .from = "sip:bob@home.net"}));
  EXPECT_FALSE(matches({.contact = ""}));
  EXPECT_TRUE(log.has(5, "REGISTRAR:get headers failed"));
}

TEST_F(ClientTest, AnAnonymousClientMatchesByPortOnly) {
  accepted({.port = 5070, .from = "sip:anonymous@127.0.0.1"});
  LogCapture log;
  EXPECT_FALSE(matches({.port = 5071, .from = "sip:anonymous@127.0.0.1"}));
  EXPECT_TRUE(log.has(5, "IMSE_REG: is_match: anonymous user match failed"));
  EXPECT_TRUE(matches({.port = 5070, .from = "sip:anonymous@127.0.0.1"}));
}

TEST_F(ClientTest, NoCredentialsEverMatch) {
  EXPECT_EQ(client.match_credentails(), 0);
}

TEST_F(ClientTest, ForgetsOnlyTheRequestNamed) {
  Request request(Register{}.text());
  Request other(Register{}.text());
  client.process_register(&request);
  client.forget_request(&other);
  EXPECT_EQ(client.reject(400), 0);
}

TEST(Client, ReleasesARequestThatIsStillPendingWhenItEnds) {
  Request request(Register{}.text());
  LogCapture log;
  {
    IMSE_IntClient client(std::make_unique<RegisterXmlData>("", 0));
    client.process_register(&request);
  }
  EXPECT_EQ(request.releases, 1);
  EXPECT_TRUE(request.answers.empty());
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Client::IMSE_Client"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Client::~IMSE_Client"));
}
