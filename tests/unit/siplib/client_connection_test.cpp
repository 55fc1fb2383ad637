// What the user of a request that is sent sees.
#include "siplib/transaction_fakes.h"

namespace {

using namespace transaction_fakes;

class ClientConnectionTest : public TransactionTest {
 protected:
  SIPLIB_SIPClientConnection* made(const std::shared_ptr<siplib::Path>& path, const std::string& method = "MESSAGE") {
    SIPLIB_SIPClientConnection* connection = layer->openClient(path);
    connection->setListener(&user);
    EXPECT_EQ(
        0, connection->initRequest(method, "sip:bob@127.0.0.1:5070", "<sip:alice@127.0.0.1>", "<sip:bob@127.0.0.1>"));
    return connection;
  }
  SIPLIB_SIPClientConnection* sent(const std::shared_ptr<siplib::Path>& path, const std::string& method = "MESSAGE") {
    SIPLIB_SIPClientConnection* connection = made(path, method);
    EXPECT_EQ(0, connection->send());
    return connection;
  }
};

TEST_F(ClientConnectionTest, ARequestOutsideADialogIsFilledIn) {
  SIPLIB_SIPClientConnection* connection = made(udp);
  EXPECT_EQ(0, connection->setHeader("Content-Type", "text/plain"));
  EXPECT_EQ(0, connection->setContent("hello"));
  ASSERT_EQ(0, connection->send());
  EXPECT_EQ(nullptr, connection->getDialog());
  const auto request = udp->last();
  ASSERT_TRUE(request);
  EXPECT_EQ("MESSAGE", request->method());
  EXPECT_EQ("sip:bob@127.0.0.1:5070", request->requestUri());
  EXPECT_EQ(0u, request->header("Via")->find("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK"));
  EXPECT_TRUE(request->header("Via")->ends_with(";rport"));
  EXPECT_EQ("70", *request->header("Max-Forwards"));
  EXPECT_EQ(0u, request->header("From")->find("<sip:alice@127.0.0.1>;tag="));
  EXPECT_EQ("<sip:bob@127.0.0.1>", *request->header("To"));
  EXPECT_FALSE(request->header("Call-ID")->empty());
  EXPECT_EQ("1 MESSAGE", *request->header("CSeq"));
  EXPECT_EQ("<sip:127.0.0.1:5060>", *request->header("Contact"));
  EXPECT_EQ("5", *request->header("Content-Length"));
  EXPECT_EQ("hello", request->body());
}

TEST_F(ClientConnectionTest, OverTcpViaAndContactSaySo) {
  sent(tcp);
  EXPECT_EQ(0u, tcp->last()->header("Via")->find("SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bK"));
  EXPECT_FALSE(tcp->last()->header("Via")->ends_with(";rport"));
  EXPECT_EQ("<sip:127.0.0.1:5060;transport=tcp>", *tcp->last()->header("Contact"));
}

TEST_F(ClientConnectionTest, WhatTheUserSetsIsSent) {
  SIPLIB_SIPClientConnection* connection = layer->openClient(udp);
  connection->setListener(&user);
  ASSERT_EQ(0, connection->initRequest("REGISTER", "sip:127.0.0.1", "<sip:alice@127.0.0.1>;tag=mine",
                                       "<sip:alice@127.0.0.1>"));
  connection->setHeader("Call-ID", "again");
  connection->setHeader("CSeq", "7 REGISTER");
  connection->setHeader("Contact", "<sip:127.0.0.1:5099>");
  ASSERT_EQ(0, connection->send());
  EXPECT_EQ("<sip:alice@127.0.0.1>;tag=mine", *udp->last()->header("From"));
  EXPECT_EQ("again", *udp->last()->header("Call-ID"));
  EXPECT_EQ("7 REGISTER", *udp->last()->header("CSeq"));
  EXPECT_EQ("<sip:127.0.0.1:5099>", *udp->last()->header("Contact"));
}

TEST_F(ClientConnectionTest, IsMadeAndSentOnce) {
  SIPLIB_SIPClientConnection* connection = layer->openClient(udp);
  EXPECT_EQ(-1, connection->send());
  EXPECT_EQ(-1, connection->receive());
  connection = made(udp);
  EXPECT_EQ(-1, connection->initRequest("MESSAGE", "sip:b", "<sip:a@b>", "<sip:a@b>"));
  EXPECT_EQ(0, connection->send());
  EXPECT_EQ(-1, connection->send());
  EXPECT_EQ(1u, udp->count());
}

TEST_F(ClientConnectionTest, WhatCannotBeARequestIsRefused) {
  SIPLIB_SIPClientConnection* connection = layer->openClient(udp);
  EXPECT_EQ(-1, connection->initRequest("ME SSAGE", "sip:b@127.0.0.1", "<sip:a@127.0.0.1>", "<sip:b@127.0.0.1>"));
  EXPECT_EQ(-1, connection->initRequest("MESSAGE", "sip:b@127.0.0.1\r\nX: y", "<sip:a@b>", "<sip:a@b>"));
  EXPECT_EQ(-1, connection->initRequest("MESSAGE", "sip:b@127.0.0.1", "<sip:a@b>\r\nX: y", "<sip:a@b>"));
  EXPECT_EQ(-1, connection->initRequest("MESSAGE", "sip:b@127.0.0.1", "<sip:a@b>", ""));
  EXPECT_EQ(0, connection->initRequest("MESSAGE", "sip:b@127.0.0.1", "<sip:a@b>", "<sip:a@b>"));
}

TEST_F(ClientConnectionTest, AnAnswerIsToldAndReceived) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  receive(answerTo(*udp->last(), 202, "bob", "Expires: 30\r\n"));
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  EXPECT_EQ(connection, user.answers[0]);
  EXPECT_EQ("MESSAGE", connection->getMethod());
  EXPECT_EQ(0, connection->getStatusCode());
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(0, connection->getTransactionStatus());
  EXPECT_EQ(202, connection->getStatusCode());
  EXPECT_EQ("MESSAGE", connection->getMethod());
  std::string value;
  EXPECT_EQ(0, connection->getHeader("Expires", value));
  EXPECT_EQ("30", value);
  EXPECT_EQ(-1, connection->receive());
  EXPECT_EQ(-1, connection->getTransactionStatus());
  EXPECT_EQ(0, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, RepeatsTheSameBytesUntilAnswered) {
  sent(udp);
  ASSERT_TRUE(until([&] { return udp->count() >= 5; }));
  for (const std::string& text : udp->sent()) EXPECT_EQ(udp->sent()[0], text);
  receive(answerTo(*udp->last(), 200));
  const std::size_t before = udp->count();
  pass(100ms);
  EXPECT_EQ(before, udp->count());
}

TEST_F(ClientConnectionTest, RepetitionsGrowFurtherApart) {
  config.t1 = 20ms;
  config.t2 = 80ms;
  open();
  const auto begin = std::chrono::steady_clock::now();
  sent(udp);
  // At 20, 60, 140, 220 ms.
  ASSERT_TRUE(until([&] { return udp->count() == 5; }));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 220ms);
}

TEST_F(ClientConnectionTest, NothingIsRepeatedOverTcp) {
  sent(tcp);
  pass(100ms);
  EXPECT_EQ(1u, tcp->count());
}

TEST_F(ClientConnectionTest, AProvisionalAnswerSlowsRepetitionsDown) {
  config.t1 = 10ms;
  config.t2 = 2s;
  open();
  sent(udp);
  receive(answerTo(*udp->last(), 100, ""));
  const std::size_t before = udp->count();
  pass(100ms);
  EXPECT_EQ(before, udp->count());
  EXPECT_TRUE(user.answers.empty());
}

TEST_F(ClientConnectionTest, ProvisionalAnswersOtherThan100AreTold) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  receive(answerTo(*udp->last(), 100, ""));
  receive(answerTo(*udp->last(), 183));
  receive(answerTo(*udp->last(), 200));
  ASSERT_TRUE(until([&] { return user.answers.size() == 2; }));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(183, connection->getStatusCode());
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(200, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, AFloodOfProvisionalAnswersIsBounded) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  for (int count = 0; count < 100; ++count) receive(answerTo(*udp->last(), 183));
  receive(answerTo(*udp->last(), 200));
  int received = 0;
  while (connection->receive() == 0) ++received;
  EXPECT_EQ(17, received);
}

TEST_F(ClientConnectionTest, NoAnswerIs408After64T1) {
  config.t1 = 5ms;
  open();
  const auto begin = std::chrono::steady_clock::now();
  SIPLIB_SIPClientConnection* connection = sent(udp);
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 320ms);
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(0, connection->getTransactionStatus());
  EXPECT_EQ(408, connection->getStatusCode());
  EXPECT_EQ("MESSAGE", connection->getMethod());
  EXPECT_TRUE(logged("4 MESSAGE not answered, Call-ID "));
  const std::size_t before = udp->count();
  receive(answerTo(*udp->last(), 200));
  pass(50ms);
  EXPECT_EQ(1u, user.answers.size());
  EXPECT_EQ(before, udp->count());
}

TEST_F(ClientConnectionTest, A408OfOursNamesItsRequest) {
  config.t1 = 1ms;
  open();
  SIPLIB_SIPClientConnection* connection = sent(udp);
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  ASSERT_EQ(0, connection->receive());
  const auto answer = connection->getSipMessageHandle();
  ASSERT_TRUE(answer);
  for (const char* name : {"Via", "From", "To", "Call-ID", "CSeq"}) {
    EXPECT_EQ(udp->last()->header(name), answer->header(name)) << name;
  }
}

TEST_F(ClientConnectionTest, NoAnswerOverTcpIs408Too) {
  config.t1 = 1ms;
  open();
  SIPLIB_SIPClientConnection* connection = sent(tcp);
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, AProvisionalAnswerDoesNotPutTheEndOff) {
  config.t1 = 2ms;
  open();
  SIPLIB_SIPClientConnection* connection = sent(udp);
  receive(answerTo(*udp->last(), 100, ""));
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, WhatCannotBeSentIs408AndNeverToldWithinSend) {
  udp->open = false;
  SIPLIB_SIPClientConnection* connection = sent(udp);
  EXPECT_TRUE(user.answers.empty());
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, OnlyNonInviteTransactionsAreBegun) {
  for (const char* method : {"INVITE", "ACK"}) {
    user.answers.clear();
    SIPLIB_SIPClientConnection* connection = sent(udp, method);
    ASSERT_EQ(2u, lines.size()) << method;
    EXPECT_EQ("4 request not sent: not one of a non-INVITE transaction", lines[0]);
    EXPECT_TRUE(lines[1].starts_with("4 " + std::string(method) + " could not be sent, Call-ID ")) << lines[1];
    lines.clear();
    ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
    ASSERT_EQ(0, connection->receive());
    EXPECT_EQ(408, connection->getStatusCode());
  }
  EXPECT_EQ(0u, udp->count());
}

TEST_F(ClientConnectionTest, AWayLostLaterIs408) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  udp->open = false;
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }, 300ms));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
}

TEST_F(ClientConnectionTest, RepeatedAnswersAreAbsorbed) {
  sent(udp);
  const std::string text = answerTo(*udp->last(), 200);
  receive(text);
  receive(text);
  receive(answerTo(*udp->last(), 403));
  pass(70ms);
  receive(text);
  pass(5ms);
  EXPECT_EQ(1u, user.answers.size());
}

TEST_F(ClientConnectionTest, AnswersThatAreNotOursAreDropped) {
  sent(udp);
  const std::string good = answerTo(*udp->last(), 200);
  std::string text = good;
  text.insert(text.find("Via:"), "Via: SIP/2.0/UDP 127.0.0.9;branch=z9hG4bKx\r\n");
  receive(text);
  EXPECT_EQ("4 response dropped: response for somebody else", lines.back());
  text = good;
  text.replace(text.find("1 MESSAGE"), 9, "2 MESSAGE");
  receive(text);
  text = good;
  text.replace(text.find("1 MESSAGE"), 9, "1 OPTIONS");
  receive(text);
  text = good;
  text.insert(text.find("z9hG4bK") + 7, "-");  // no branch of ours has one
  receive(text);
  text = good;
  text.erase(text.find("Call-ID"), text.find("CSeq") - text.find("Call-ID"));
  receive(text);
  pass(5ms);
  EXPECT_TRUE(user.answers.empty());
  receive(good);
  EXPECT_TRUE(until([&] { return user.answers.size() == 1; }));
}

TEST_F(ClientConnectionTest, WithoutListenerAnswersAreAbsorbed) {
  SIPLIB_SIPClientConnection* connection = made(udp);
  connection->setListener(nullptr);
  ASSERT_EQ(0, connection->send());
  receive(answerTo(*udp->last(), 200));
  pass(5ms);
  EXPECT_EQ(-1, connection->receive());
  EXPECT_TRUE(user.answers.empty());
}

TEST_F(ClientConnectionTest, ReleasedItsLateAnswersAreAbsorbed) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  connection->release();
  connection->release();
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  EXPECT_FALSE(layer->close(connection));
  receive(answerTo(*udp->last(), 200));
  pass(70ms);
  EXPECT_TRUE(user.answers.empty());
}

TEST_F(ClientConnectionTest, ReleasedItIsStillRepeatedUntilAnswered) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  layer->close(connection);
  layer->endTurn();
  ASSERT_TRUE(until([&] { return udp->count() >= 3; }));
  receive(answerTo(*udp->last(), 200));
  const std::size_t before = udp->count();
  pass(60ms);
  EXPECT_EQ(before, udp->count());
}

TEST_F(ClientConnectionTest, AnEventThatStillWaitsFindsItAlive) {
  SIPLIB_SIPClientConnection* connection = sent(udp);
  receive(answerTo(*udp->last(), 183));
  receive(answerTo(*udp->last(), 200));
  ASSERT_TRUE(until([&] { return user.answers.size() == 2; }));
  // The first event: the user is done with it. The second is in the queue.
  ASSERT_EQ(0, connection->receive());
  layer->close(connection);
  layer->endTurn();
  EXPECT_NE(0, connection->getTransactionStatus());
  EXPECT_EQ(nullptr, connection->getDialog());
  EXPECT_EQ(-1, connection->receive());
  EXPECT_EQ(0, connection->getStatusCode());
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  EXPECT_FALSE(layer->close(connection));
}

TEST_F(ClientConnectionTest, AnAnswerJustBeforeTheReleaseIsNotTold) {
  udp->open = false;
  SIPLIB_SIPClientConnection* connection = sent(udp);  // 408 is on its way
  layer->close(connection);
  layer->endTurn();
  pass(5ms);
  layer->endTurn();
  EXPECT_TRUE(user.answers.empty());
  EXPECT_FALSE(layer->close(connection));
}

TEST_F(ClientConnectionTest, ClosedUnsentIsFreed) {
  SIPLIB_SIPClientConnection* connection = made(udp);
  EXPECT_TRUE(layer->close(connection));
  EXPECT_EQ(-1, connection->send());
  layer->endTurn();
  EXPECT_EQ(0u, udp->count());
}

}  // namespace
