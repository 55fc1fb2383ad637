// What the user of a received request sees.
#include "siplib/transaction_fakes.h"

namespace {

using namespace transaction_fakes;

class ServerConnectionTest : public TransactionTest {
 protected:
  SIPLIB_SIPServerConnection* take(const Request& request) {
    const std::size_t before = user.requests.size();
    receive(request.text());
    return user.requests.size() == before + 1 ? user.requests.back() : nullptr;
  }
};

TEST_F(ServerConnectionTest, TheRequestIsTheCurrentMessage) {
  Request request;
  request.body = "<ua-info/>";
  request.more = "Content-Type: application/xml\r\nExpires: 60\r\n";
  SIPLIB_SIPServerConnection* connection = take(request);
  ASSERT_NE(nullptr, connection);
  EXPECT_EQ("REGISTER", connection->getMethod());
  EXPECT_EQ("sip:127.0.0.1", connection->getRequestURI());
  std::string value;
  EXPECT_EQ(0, connection->getHeader("Expires", value));
  EXPECT_EQ("60", value);
  EXPECT_EQ(0, connection->getContent(value));
  EXPECT_EQ("<ua-info/>", value);
  EXPECT_EQ(nullptr, connection->getDialog());
}

TEST_F(ServerConnectionTest, ReceiveAnswersOnce) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  EXPECT_EQ(0, connection->receive());
  EXPECT_EQ("REGISTER", connection->getMethod());
  EXPECT_EQ(-1, connection->receive());
  EXPECT_EQ(0, answer(connection, 200));
}

TEST_F(ServerConnectionTest, AnAnswerTakesOverWhatTheRequestSays) {
  Request request;
  request.via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKtop\r\nVia: SIP/2.0/TCP 127.0.0.9;branch=z9hG4bKlow";
  SIPLIB_SIPServerConnection* connection = take(request);
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, connection->initResponse(200));
  EXPECT_EQ(0, connection->setHeader("Expires", "600"));
  EXPECT_EQ(0, connection->addHeader("Zel-Profile-ID", "1"));
  EXPECT_EQ(0, connection->setContent("body"));
  std::string value;
  EXPECT_EQ(-1, connection->getHeader("Expires", value));
  EXPECT_EQ("REGISTER", connection->getMethod());
  ASSERT_EQ(0, connection->send());

  const auto sent = udp->last();
  ASSERT_TRUE(sent);
  EXPECT_EQ(200, sent->statusCode());
  EXPECT_EQ("OK", sent->reasonPhrase());
  const auto vias = sent->headers("Via");
  ASSERT_EQ(2u, vias.size());
  EXPECT_EQ("SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKtop", vias[0]);
  EXPECT_EQ("SIP/2.0/TCP 127.0.0.9;branch=z9hG4bKlow", vias[1]);
  EXPECT_EQ(request.from, *sent->header("From"));
  EXPECT_EQ(0u, sent->header("To")->find("<sip:alice@127.0.0.1>;tag="));
  EXPECT_GT(sent->header("To")->size(), std::string("<sip:alice@127.0.0.1>;tag=").size());
  EXPECT_EQ("call-1", *sent->header("Call-ID"));
  EXPECT_EQ("1 REGISTER", *sent->header("CSeq"));
  EXPECT_EQ("600", *sent->header("Expires"));
  EXPECT_EQ("1", *sent->header("Zel-Profile-ID"));
  EXPECT_EQ("body", sent->body());
  EXPECT_FALSE(sent->header("Contact"));
}

TEST_F(ServerConnectionTest, TheToTagOfARegisterStays) {
  Request request;
  request.to = "<sip:alice@127.0.0.1>;tag=mine";
  SIPLIB_SIPServerConnection* connection = take(request);
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, answer(connection, 481));
  EXPECT_EQ("<sip:alice@127.0.0.1>;tag=mine", *udp->last()->header("To"));
}

TEST_F(ServerConnectionTest, ProvisionalAndFinalAnswerHaveOneTag) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, answer(connection, 100));
  EXPECT_EQ("<sip:alice@127.0.0.1>", *udp->last()->header("To"));
  ASSERT_EQ(0, answer(connection, 182));
  const std::string to(*udp->last()->header("To"));
  ASSERT_EQ(0, answer(connection, 200));
  EXPECT_EQ(to, *udp->last()->header("To"));
  EXPECT_EQ(3u, udp->count());
}

TEST_F(ServerConnectionTest, IsAnsweredOnce) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  EXPECT_EQ(-1, connection->send());
  EXPECT_EQ(-1, connection->initResponse(99));
  EXPECT_EQ(-1, connection->initResponse(700));
  ASSERT_EQ(0, answer(connection, 200));
  EXPECT_EQ(-1, connection->initResponse(400));
  EXPECT_EQ(-1, connection->send());
  EXPECT_EQ(1u, udp->count());
}

TEST_F(ServerConnectionTest, ReleasedUnansweredStaysUnansweredAndAbsorbsRepeats) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  connection->release();
  EXPECT_EQ(-1, connection->initResponse(200));
  EXPECT_EQ(-1, connection->receive());
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  EXPECT_FALSE(layer->close(connection));
  EXPECT_EQ(nullptr, take({}));
  EXPECT_EQ(0u, udp->count());
}

TEST_F(ServerConnectionTest, ClosedUnansweredStaysUnanswered) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  EXPECT_TRUE(layer->close(connection));
  EXPECT_TRUE(layer->close(connection));
  connection->release();
  connection->release();
  EXPECT_EQ(0u, udp->count());
  layer->endTurn();
  layer->endTurn();
}

TEST_F(ServerConnectionTest, ClosedInTheTurnItIsAnsweredStaysUsable) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, answer(connection, 200));
  connection->release();
  EXPECT_TRUE(layer->close(connection));
  EXPECT_EQ("REGISTER", connection->getMethod());
  EXPECT_EQ(nullptr, connection->getDialog());
  layer->endTurn();
  EXPECT_EQ(1u, udp->count());
}

TEST_F(ServerConnectionTest, OneHeldUnansweredEndsWhenNobodyWaitsAnyMore) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  ASSERT_TRUE(until([&] { return logged("4 REGISTER not answered by us, Call-ID call-1"); }));
  EXPECT_EQ(-1, connection->initResponse(200));
  connection->release();
  layer->endTurn();
  EXPECT_EQ(0u, udp->count());
}

TEST_F(ServerConnectionTest, AnAnswerMadeButNotSentInTimeIsNotSent) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, connection->initResponse(200));
  ASSERT_TRUE(until([&] { return logged("not answered by us"); }));
  EXPECT_EQ(-1, connection->send());
  EXPECT_EQ(0u, udp->count());
}

TEST_F(ServerConnectionTest, OneNeverLetGoOfIsTakenBack) {
  config.t1 = 1ms;
  open();
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_NE(nullptr, take({}));
  ASSERT_TRUE(until([&] { return logged("3 requests taken back that their user never let go of"); }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 640ms);
  EXPECT_TRUE(layer->close(user.requests.back()));
  layer->endTurn();
  EXPECT_FALSE(layer->close(user.requests.back()));
}

TEST_F(ServerConnectionTest, AHeaderThatWouldSmuggleIsRefused) {
  SIPLIB_SIPServerConnection* connection = take({});
  ASSERT_NE(nullptr, connection);
  ASSERT_EQ(0, connection->initResponse(200));
  EXPECT_NE(0, connection->setHeader("Expires", "1\r\nX: y"));
  ASSERT_EQ(0, connection->send());
  EXPECT_FALSE(udp->last()->header("X"));
}

TEST_F(ServerConnectionTest, A2xxToSubscribeMakesADialogAndSaysWhereWeAre) {
  Request request = subscribe();
  request.more += "Record-Route: <sip:127.0.0.7;lr>\r\nRecord-Route: <sip:127.0.0.8;lr>\r\n";
  SIPLIB_SIPServerConnection* connection = take(request);
  ASSERT_NE(nullptr, connection);
  EXPECT_EQ(nullptr, connection->getDialog());
  ASSERT_EQ(0, answer(connection, 200));
  EXPECT_NE(nullptr, connection->getDialog());
  EXPECT_EQ("<sip:127.0.0.1:5060>", *udp->last()->header("Contact"));
  const auto routes = udp->last();
  ASSERT_EQ(2u, routes->headers("Record-Route").size());
  EXPECT_EQ("<sip:127.0.0.7;lr>", routes->headers("Record-Route")[0]);
}

TEST_F(ServerConnectionTest, ContactOverTcpSaysTcp) {
  Request request = subscribe();
  request.via = "SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bKtcp";
  receive(request.text(), tcp);
  ASSERT_EQ(1u, user.requests.size());
  ASSERT_EQ(0, answer(user.requests[0], 202));
  EXPECT_EQ("<sip:127.0.0.1:5060;transport=tcp>", *tcp->last()->header("Contact"));
}

TEST_F(ServerConnectionTest, NoDialogWithoutContactOr2xx) {
  Request no_contact = subscribe();
  no_contact.more = "Event: x\r\n";
  ASSERT_NE(nullptr, take(no_contact));
  ASSERT_EQ(0, answer(user.requests.back(), 200));
  EXPECT_EQ(nullptr, user.requests.back()->getDialog());
  const std::string why = "4 no dialog: the SUBSCRIBE has no From tag or no Contact, Call-ID call-1";
  EXPECT_EQ(why, lines.back());
  lines.clear();

  Request refused = subscribe();
  refused.via += "3";
  ASSERT_NE(nullptr, take(refused));
  ASSERT_EQ(0, answer(user.requests.back(), 489));
  EXPECT_EQ(nullptr, user.requests.back()->getDialog());
}

}  // namespace
