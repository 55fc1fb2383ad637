// Subscriptions, from either side.
#include <algorithm>

#include "siplib/transaction_fakes.h"

namespace {

using namespace transaction_fakes;

class DialogTest : public TransactionTest {
 protected:
  /// The last request that left for the watcher.
  SIPLIB_SIPMessageHandle last(const std::string& way = "UDP 127.0.0.1:5070") {
    const auto path = paths.made(way);
    return path ? path->last() : SIPLIB_SIPMessageHandle();
  }
  SIPLIB_SIPClientConnection* notify(SIPLIB_SIPDialog* dialog, const std::string& state = "active",
                                     const std::string& body = {}) {
    SIPLIB_SIPClientConnection* connection = dialog->getNewClientConnection("NOTIFY");
    if (!connection) return nullptr;
    connection->setListener(&user);
    connection->setHeader("Event", "local-reg-events");
    connection->setHeader("Subscription-State", state);
    if (!body.empty()) connection->setContent(body);
    EXPECT_EQ(0, connection->send());
    return connection;
  }
  /// A SUBSCRIBE within the dialog that was made with the last answer to `first`.
  Request within(const Request& first, int cseq) {
    Request request = first;
    request.to = std::string(*udp->last()->header("To"));
    request.cseq = std::to_string(cseq);
    request.via += "-" + request.cseq;
    return request;
  }
};

// ---- as notifier

TEST_F(DialogTest, ANotifyIsFilledIn) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  ASSERT_NE(nullptr, dialog);
  const std::string to(*udp->last()->header("To"));
  EXPECT_EQ(dialog, notify(dialog)->getDialog());
  const auto request = last();
  ASSERT_TRUE(request);
  EXPECT_EQ("NOTIFY", request->method());
  EXPECT_EQ("sip:regua@127.0.0.1:5070", request->requestUri());
  EXPECT_EQ(first.from, *request->header("To"));
  EXPECT_EQ(to, *request->header("From"));
  EXPECT_EQ(first.call_id, *request->header("Call-ID"));
  EXPECT_EQ("1 NOTIFY", *request->header("CSeq"));
  EXPECT_EQ("70", *request->header("Max-Forwards"));
  EXPECT_EQ(0u, request->header("Via")->find("SIP/2.0/UDP 127.0.0.1:5060;branch=z9hG4bK"));
  EXPECT_EQ("<sip:127.0.0.1:5060>", *request->header("Contact"));
  EXPECT_EQ("active", *request->header("Subscription-State"));
  EXPECT_EQ("0", *request->header("Content-Length"));
  EXPECT_FALSE(request->header("Route"));
  notify(dialog);
  EXPECT_EQ("2 NOTIFY", *last()->header("CSeq"));
}

TEST_F(DialogTest, RoutesAreFollowed) {
  Request first = subscribe();
  first.more += "Record-Route: <sip:127.0.0.7:5077;lr>, <sip:127.0.0.8;lr>\r\n";
  notify(subscribed(first));
  const auto request = last("UDP 127.0.0.7:5077");
  ASSERT_TRUE(request);
  EXPECT_EQ("sip:regua@127.0.0.1:5070", request->requestUri());
  const auto routes = request->headers("Route");
  ASSERT_EQ(2u, routes.size());
  EXPECT_EQ("<sip:127.0.0.7:5077;lr>", routes[0]);
  EXPECT_EQ("<sip:127.0.0.8;lr>", routes[1]);
}

TEST_F(DialogTest, AStrictRouterGetsTheRequestInItsName) {
  Request first = subscribe();
  first.more += "Record-Route: <sip:127.0.0.7>\r\nRecord-Route: <sip:127.0.0.8;lr>\r\n";
  notify(subscribed(first));
  const auto request = last("UDP 127.0.0.7:5060");
  ASSERT_TRUE(request);
  EXPECT_EQ("sip:127.0.0.7", request->requestUri());
  const auto routes = request->headers("Route");
  ASSERT_EQ(2u, routes.size());
  EXPECT_EQ("<sip:127.0.0.8;lr>", routes[0]);
  EXPECT_EQ("<sip:regua@127.0.0.1:5070>", routes[1]);
}

TEST_F(DialogTest, TheContactChoosesTheTransport) {
  Request first = subscribe();
  first.more = "Contact: \"a;<b\" <sip:regua@127.0.0.1:5070;transport=TCP?x=y>;q=1\r\n";
  notify(subscribed(first));
  const auto request = last("TCP 127.0.0.1:5070");
  ASSERT_TRUE(request);
  EXPECT_EQ("sip:regua@127.0.0.1:5070;transport=TCP", request->requestUri());
  EXPECT_EQ(0u, request->header("Via")->find("SIP/2.0/TCP 127.0.0.1:5060;branch="));
  EXPECT_EQ("<sip:127.0.0.1:5060;transport=tcp>", *request->header("Contact"));
}

TEST_F(DialogTest, ALargeNotifyGoesOverTcp) {
  SIPLIB_SIPDialog* dialog = subscribed();
  notify(dialog, "active", std::string(1300, 'x'));
  ASSERT_TRUE(last("TCP 127.0.0.1:5070"));
  EXPECT_EQ(0u, last("TCP 127.0.0.1:5070")->header("Via")->find("SIP/2.0/TCP "));
  EXPECT_FALSE(last("UDP 127.0.0.1:5070"));
  notify(dialog, "active", std::string(100, 'x'));
  EXPECT_TRUE(last("UDP 127.0.0.1:5070"));
}

TEST_F(DialogTest, TheLimitIs1300Bytes) {
  SIPLIB_SIPDialog* dialog = subscribed();
  notify(dialog, "active", std::string(500, 'x'));
  const std::size_t head = last()->text().size() - 500;
  notify(dialog, "active", std::string(1300 - head - 1, 'x'));  // Content-Length has a digit more from 1000 on
  EXPECT_TRUE(last("UDP 127.0.0.1:5070"));
  EXPECT_LE(last()->text().size(), 1300u);
  EXPECT_FALSE(last("TCP 127.0.0.1:5070"));
  notify(dialog, "active", std::string(1300 - head + 1, 'x'));
  EXPECT_TRUE(last("TCP 127.0.0.1:5070"));
}

TEST_F(DialogTest, ALargeNotifyGoesOverUdpWhereTcpCannotBe) {
  SIPLIB_SIPDialog* dialog = subscribed();
  paths.none["TCP 127.0.0.1:5070"] = true;
  SIPLIB_SIPClientConnection* connection = notify(dialog, "active", std::string(2000, 'x'));
  ASSERT_TRUE(last());
  EXPECT_EQ(0u, last()->header("Via")->find("SIP/2.0/UDP "));
  EXPECT_EQ("<sip:127.0.0.1:5060>", *last()->header("Contact"));
  EXPECT_EQ("1 NOTIFY", *last()->header("CSeq"));
  receive(answerTo(*last(), 200));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_EQ(0, connection->receive());
  EXPECT_EQ(200, connection->getStatusCode());
}

TEST_F(DialogTest, ALargeNotifyGoesOverUdpWhereTcpFails) {
  SIPLIB_SIPDialog* dialog = subscribed();
  paths.pathTo("TCP", "127.0.0.1", 5070);
  paths.made("TCP 127.0.0.1:5070")->open = false;
  notify(dialog, "active", std::string(2000, 'x'));
  ASSERT_TRUE(last());
  EXPECT_EQ("<sip:127.0.0.1:5060>", *last()->header("Contact"));
  receive(answerTo(*last(), 200));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_EQ(1u, user.answers.size());
}

TEST_F(DialogTest, ALargeNotifyGoesOverUdpWhereTheContactAsksForIt) {
  Request first = subscribe();
  first.more = "Contact: <sip:regua@127.0.0.1:5070;transport=udp>\r\n";
  notify(subscribed(first), "active", std::string(2000, 'x'));
  EXPECT_TRUE(last());
  EXPECT_FALSE(paths.made("TCP 127.0.0.1:5070"));
}

TEST_F(DialogTest, AContactThatIsAskedForOverTcpHasNoOtherWay) {
  Request first = subscribe();
  first.more = "Contact: <sip:regua@127.0.0.1:5070;transport=tcp>\r\n";
  paths.none["TCP 127.0.0.1:5070"] = true;
  SIPLIB_SIPClientConnection* connection = notify(subscribed(first));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
  EXPECT_FALSE(last());
}

TEST_F(DialogTest, AContactWithAHostNameIsReachedTheWayItCame) {
  Request first = subscribe();
  first.more = "Contact: <sip:regua@watcher.example>\r\n";
  SIPLIB_SIPDialog* dialog = subscribed(first);
  notify(dialog);
  ASSERT_EQ(2u, udp->count());
  EXPECT_EQ("sip:regua@watcher.example", udp->last()->requestUri());
  EXPECT_TRUE(paths.paths.empty());
}

TEST_F(DialogTest, ANotifyThatNothingAnswersIs408) {
  config.t1 = 1ms;
  open();
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* connection = notify(dialog);
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(408, connection->getStatusCode());
  EXPECT_EQ(dialog, connection->getDialog());
  EXPECT_NE(nullptr, notify(dialog, "terminated"));
  layer->close(connection);
  layer->endTurn();
}

TEST_F(DialogTest, AnErrorLeavesTheDialogToItsUser) {
  SIPLIB_SIPDialog* dialog = subscribed();
  notify(dialog);
  receive(answerTo(*last(), 481));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_FALSE(dialog->isTerminated());
  EXPECT_TRUE(user.ended.empty());
  EXPECT_NE(nullptr, notify(dialog, "terminated"));
}

TEST_F(DialogTest, ATerminatingNotifyEndsIt) {
  for (const char* state : {"terminated", "terminated;reason=timeout", "Terminated ; expires=0"}) {
    Request first = subscribe();
    first.via += std::to_string(user.requests.size());
    first.call_id = state;
    SIPLIB_SIPDialog* dialog = subscribed(first);
    ASSERT_NE(nullptr, dialog) << state;
    notify(dialog, "active;expires=600");
    EXPECT_FALSE(dialog->isTerminated()) << state;
    notify(dialog, state);
    EXPECT_EQ(state, *last()->header("Subscription-State"));
    EXPECT_TRUE(dialog->isTerminated()) << state;
    EXPECT_EQ(nullptr, dialog->getNewClientConnection("NOTIFY")) << state;
    EXPECT_TRUE(user.ended.empty());
    layer->endTurn();
  }
}

TEST_F(DialogTest, TheAnswerToTheTerminatingNotifyIsToldAndSaysThatItIsOver) {
  SIPLIB_SIPClientConnection* connection = notify(subscribed(), "terminated");
  layer->endTurn();
  receive(answerTo(*last(), 500));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_EQ(connection, user.answers[0]);
  EXPECT_NE(0, connection->getTransactionStatus());
  EXPECT_EQ(nullptr, connection->getDialog());
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  EXPECT_TRUE(layer->close(connection));  // the event's
  layer->endTurn();
  EXPECT_FALSE(layer->close(connection));
}

TEST_F(DialogTest, TheTimeoutOfATerminatingNotifyIsTold) {
  config.t1 = 1ms;
  open();
  SIPLIB_SIPClientConnection* connection = notify(subscribed(), "terminated");
  layer->endTurn();
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_TRUE(logged("NOTIFY not answered"));
  EXPECT_NE(0, connection->getTransactionStatus());
  EXPECT_TRUE(layer->close(connection));
}

TEST_F(DialogTest, ANotifyUnderWayIsNoLongerWellOnceItsDialogIsOver) {
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* connection = notify(dialog);
  const auto active = last();
  EXPECT_EQ(0, connection->getTransactionStatus());
  notify(dialog, "terminated");
  EXPECT_NE(0, connection->getTransactionStatus());
  layer->endTurn();
  receive(answerTo(*active, 200));
  ASSERT_TRUE(until([&] { return !user.answers.empty(); }));
  EXPECT_EQ(connection, user.answers[0]);
  EXPECT_TRUE(layer->close(connection));
}

TEST_F(DialogTest, AnAnswerInTheQueueNeverReachesALaterSubscriber) {
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* connection = notify(dialog);
  receive(answerTo(*last(), 200));
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  // The event waits; the subscription ends and another begins.
  notify(dialog, "terminated");
  layer->endTurn();
  Request second = subscribe();
  second.via += "second";
  second.call_id = "second";
  ASSERT_NE(nullptr, subscribed(second));
  EXPECT_NE(0, connection->getTransactionStatus());
  EXPECT_EQ(nullptr, connection->getDialog());
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  EXPECT_EQ(-1, connection->receive());  // the event's
  layer->endTurn();
  EXPECT_FALSE(layer->close(connection));
}

TEST_F(DialogTest, AVoidEventIsDroppedWithAClose) {
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* connection = notify(dialog);
  receive(answerTo(*last(), 183));
  receive(answerTo(*last(), 200));
  ASSERT_TRUE(until([&] { return user.answers.size() == 2; }));
  notify(dialog, "terminated");
  // In the turn of its end a close stands for no event.
  EXPECT_TRUE(layer->close(connection));
  EXPECT_TRUE(layer->close(connection));
  layer->endTurn();
  for (int event = 0; event < 2; ++event) {
    EXPECT_NE(0, connection->getTransactionStatus());
    EXPECT_TRUE(layer->close(connection));
    EXPECT_TRUE(layer->close(connection));
    layer->endTurn();
  }
  EXPECT_FALSE(layer->close(connection));
}

TEST_F(DialogTest, EndedWithinTheTurnOfTheAnswerThatEndsIt) {
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* connection = notify(dialog);
  receive(answerTo(*last(), 481));
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  EXPECT_EQ(dialog, connection->getDialog());
  ASSERT_EQ(0, connection->receive());
  EXPECT_EQ(481, connection->getStatusCode());
  notify(dialog, "terminated");
  connection->release();
  EXPECT_TRUE(layer->close(connection));
  EXPECT_TRUE(dialog->isTerminated());
  layer->endTurn();
}

TEST_F(DialogTest, RefreshAndUnsubscribeBelongToIt) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  Request refresh = within(first, 2);
  receive(refresh.text());
  ASSERT_EQ(2u, user.requests.size());
  SIPLIB_SIPServerConnection* connection = user.requests.back();
  EXPECT_EQ(dialog, connection->getDialog());
  ASSERT_EQ(0, answer(connection, 200));
  EXPECT_EQ(dialog, connection->getDialog());
  EXPECT_EQ(refresh.to, *udp->last()->header("To"));
  EXPECT_EQ("<sip:127.0.0.1:5060>", *udp->last()->header("Contact"));
  layer->close(connection);
  layer->endTurn();

  receive(within(first, 3).text());
  connection = user.requests.back();
  ASSERT_EQ(0, answer(connection, 200));
  connection->release();
  notify(dialog, "terminated");
  layer->close(connection);
  layer->endTurn();
  // Gone: the next one belongs to nothing.
  receive(within(first, 4).text());
  EXPECT_EQ(3u, user.requests.size());
  EXPECT_EQ(481, udp->last()->statusCode());
}

TEST_F(DialogTest, TheTargetFollowsARefreshThatIsAccepted) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  Request refresh = within(first, 2);
  refresh.more = "Contact: <sip:regua@127.0.0.1:5072>\r\n";
  receive(refresh.text());
  ASSERT_EQ(0, answer(user.requests.back(), 500));
  notify(dialog);
  EXPECT_EQ("sip:regua@127.0.0.1:5070", last()->requestUri());
  refresh.via += "3";
  refresh.cseq = "3";
  receive(refresh.text());
  ASSERT_EQ(0, answer(user.requests.back(), 200));
  notify(dialog);
  ASSERT_TRUE(last("UDP 127.0.0.1:5072"));
  EXPECT_EQ("sip:regua@127.0.0.1:5072", last("UDP 127.0.0.1:5072")->requestUri());
}

TEST_F(DialogTest, ARefreshThatNamesNoAddressLeavesTheTarget) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  int cseq = 1;
  for (const char* contact : {"", "Contact: <>\r\n", "Contact: *\r\n"}) {
    Request refresh = within(first, ++cseq);
    refresh.more = contact;
    receive(refresh.text());
    ASSERT_EQ(0, answer(user.requests.back(), 200));
    notify(dialog);
    EXPECT_EQ("sip:regua@127.0.0.1:5070", last()->requestUri()) << contact;
    EXPECT_EQ(std::to_string(cseq - 1) + " NOTIFY", *last()->header("CSeq")) << contact;
  }
}

TEST_F(DialogTest, ARequestOutOfOrderIsAnswered500) {
  const Request first = subscribe();
  subscribed(first);
  receive(within(first, 5).text());
  ASSERT_EQ(2u, user.requests.size());
  receive(within(first, 4).text());
  EXPECT_EQ(2u, user.requests.size());
  EXPECT_EQ(500, udp->last()->statusCode());
  EXPECT_EQ("4 SUBSCRIBE answered 500: CSeq out of order", lines.back());
}

TEST_F(DialogTest, AnotherRequestWithTheLastNumberIsNotOutOfOrder) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  for (const char* branch : {"-first", "-second"}) {
    Request request = within(first, 5);
    request.via += branch;
    receive(request.text());
    EXPECT_EQ(dialog, user.requests.back()->getDialog());
  }
  EXPECT_EQ(3u, user.requests.size());
}

TEST_F(DialogTest, ARequestWithForeignTagsIsAnswered481AndNobodyHearsOfIt) {
  const Request first = subscribe();
  SIPLIB_SIPDialog* dialog = subscribed(first);
  const std::string to(*udp->last()->header("To"));
  Request other_local = within(first, 2);
  other_local.to += "x";
  Request other_remote = first;
  other_remote.to = to;
  other_remote.via += "-r";
  other_remote.from = "<sip:regua@127.0.0.1>;tag=w2";
  Request other_call = first;
  other_call.to = to;
  other_call.via += "-c";
  other_call.call_id += "x";
  Request options = other_call;
  options.method = "OPTIONS";
  options.via += "-o";
  for (const Request& request : {other_local, other_remote, other_call, options}) {
    const std::size_t before = udp->count();
    receive(request.text());
    ASSERT_EQ(before + 1, udp->count());
    EXPECT_EQ(481, udp->last()->statusCode());
    EXPECT_EQ(request.to, *udp->last()->header("To"));
  }
  EXPECT_EQ(1u, user.requests.size());
  EXPECT_FALSE(dialog->isTerminated());
  EXPECT_TRUE(logged("SUBSCRIBE answered 481: no such dialog"));
  // It still takes what is its own.
  receive(within(first, 3).text());
  EXPECT_EQ(2u, user.requests.size());
}

TEST_F(DialogTest, ARegisterBelongsToNoDialogWhateverItsTags) {
  const Request first = subscribe();
  subscribed(first);
  Request request = within(first, 1);
  request.method = "REGISTER";
  receive(request.text());
  Request unknown;
  unknown.to += ";tag=old";
  unknown.via += "2";
  receive(unknown.text());
  ASSERT_EQ(3u, user.requests.size());
  EXPECT_EQ(nullptr, user.requests[1]->getDialog());
  EXPECT_EQ(nullptr, user.requests[2]->getDialog());
}

TEST_F(DialogTest, ASubscribeWithoutFromTagIsAnswered400) {
  Request request = subscribe();
  request.from = "<sip:regua@127.0.0.1>";
  receive(request.text());
  ASSERT_EQ(1u, udp->count());
  EXPECT_EQ(400, udp->last()->statusCode());
  EXPECT_TRUE(user.requests.empty());
  EXPECT_TRUE(logged("SUBSCRIBE answered 400: no From tag"));
}

TEST_F(DialogTest, AMethodThatIsNoneIsRefused) {
  SIPLIB_SIPDialog* dialog = subscribed();
  EXPECT_EQ(nullptr, dialog->getNewClientConnection(""));
  EXPECT_EQ(nullptr, dialog->getNewClientConnection("NOT IFY"));
  EXPECT_NE(nullptr, dialog->getNewClientConnection("NOTIFY"));
}

TEST_F(DialogTest, OneMadeButNotSentIsNotSentAfterTheEnd) {
  SIPLIB_SIPDialog* dialog = subscribed();
  SIPLIB_SIPClientConnection* unsent = dialog->getNewClientConnection("NOTIFY");
  notify(dialog, "terminated");
  EXPECT_EQ(-1, unsent->send());
  EXPECT_TRUE(layer->close(unsent));
  layer->endTurn();
  EXPECT_FALSE(layer->close(unsent));
}

TEST_F(DialogTest, OverALossyWayEachNotifyIsOneRequest) {
  SIPLIB_SIPDialog* dialog = subscribed();
  paths.pathTo("UDP", "127.0.0.1", 5070);
  unsigned count = 0;
  paths.made("UDP 127.0.0.1:5070")->wire = [&](const std::string& text) {
    // Of three datagrams one is lost, one comes once, one twice.
    const unsigned copies = count++ % 3;
    const std::string answer = answerTo(*parsed(text), 200);
    for (unsigned copy = 0; copy < copies; ++copy) reactor.post([this, answer] { receive(answer); });
  };
  for (int number = 1; number <= 9; ++number) {
    SIPLIB_SIPClientConnection* connection = notify(dialog);
    ASSERT_TRUE(until([&] { return user.answers.size() == static_cast<std::size_t>(number); }));
    ASSERT_EQ(0, connection->receive());
    EXPECT_EQ(200, connection->getStatusCode());
    layer->close(connection);
    layer->endTurn();
  }
  pass(20ms);
  EXPECT_EQ(9u, user.answers.size());
}

// ---- as subscriber

class SubscriberTest : public DialogTest {
 protected:
  SIPLIB_SIPClientConnection* subscribeTo(const std::string& more = {}) {
    SIPLIB_SIPClientConnection* connection = layer->openClient(udp);
    connection->setListener(&user);
    EXPECT_EQ(0, connection->initRequest("SUBSCRIBE", "sip:registrar@127.0.0.1:5070", "<sip:regua@127.0.0.1>",
                                         "<sip:registrar@127.0.0.1>"));
    connection->setHeader("Event", "local-reg-events");
    connection->setHeader("Expires", "600");
    if (!more.empty()) connection->setHeader("P", more);
    EXPECT_EQ(0, connection->send());
    return connection;
  }
  static constexpr const char* kContact = "Contact: <sip:registrar@127.0.0.1:5070>\r\n";

  /// A NOTIFY of the peer.
  Request notification(const SIPLIB_message& request, const std::string& state, int cseq = 1) {
    Request notify;
    notify.method = "NOTIFY";
    notify.uri = "sip:127.0.0.1:5060";
    notify.via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKnotify" + std::to_string(cseq);
    notify.from = "<sip:registrar@127.0.0.1>;tag=peer";
    notify.to = std::string(*request.header("From"));
    notify.call_id = std::string(*request.header("Call-ID"));
    notify.cseq = std::to_string(cseq);
    notify.more = kContact + std::string("Event: local-reg-events\r\nSubscription-State: ") + state + "\r\n";
    return notify;
  }
};

TEST_F(SubscriberTest, A2xxMakesADialog) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  EXPECT_EQ(nullptr, connection->getDialog());
  const auto request = udp->last();
  receive(answerTo(*request, 200, "peer",
                   std::string(kContact) + "Record-Route: <sip:127.0.0.8;lr>\r\n"
                                           "Record-Route: <sip:127.0.0.7;lr>\r\n"));
  SIPLIB_SIPDialog* dialog = connection->getDialog();
  ASSERT_NE(nullptr, dialog);
  layer->close(connection);
  layer->endTurn();

  SIPLIB_SIPClientConnection* refresh = dialog->getNewClientConnection("SUBSCRIBE");
  ASSERT_NE(nullptr, refresh);
  refresh->setListener(&user);
  refresh->setHeader("Expires", "0");
  ASSERT_EQ(0, refresh->send());
  const auto second = last("UDP 127.0.0.7:5060");
  ASSERT_TRUE(second);
  EXPECT_EQ("2 SUBSCRIBE", *second->header("CSeq"));
  EXPECT_EQ("sip:registrar@127.0.0.1:5070", second->requestUri());
  EXPECT_EQ(*request->header("From"), *second->header("From"));
  EXPECT_EQ("<sip:registrar@127.0.0.1>;tag=peer", *second->header("To"));
  EXPECT_EQ("<sip:127.0.0.8;lr>", second->headers("Route")[1]);
}

TEST_F(SubscriberTest, AboveTheBoundASubscriptionHasNoDialog) {
  SIPLIB_SIPClientConnection* connection = nullptr;
  for (int number = 0; number <= 256; ++number) {
    connection = subscribeTo();
    receive(answerTo(*udp->last(), 200, "peer", kContact));
    EXPECT_EQ(number < 256, connection->getDialog() != nullptr) << number;
    layer->close(connection);
    layer->endTurn();
  }
}

TEST_F(SubscriberTest, NotifiesBelongToItAndTheLastOneEndsIt) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  const auto request = udp->last();
  receive(answerTo(*request, 200, "peer", kContact));
  SIPLIB_SIPDialog* dialog = connection->getDialog();
  ASSERT_NE(nullptr, dialog);

  receive(notification(*request, "active").text());
  ASSERT_EQ(1u, user.requests.size());
  EXPECT_EQ(dialog, user.requests[0]->getDialog());
  ASSERT_EQ(0, answer(user.requests[0], 200));
  pass(2ms);
  EXPECT_TRUE(user.ended.empty());

  receive(notification(*request, "terminated;reason=timeout", 2).text());
  ASSERT_EQ(2u, user.requests.size());
  EXPECT_FALSE(dialog->isTerminated());
  ASSERT_EQ(0, answer(user.requests[1], 200));
  EXPECT_TRUE(dialog->isTerminated());
  ASSERT_TRUE(until([&] { return user.ended.size() == 1; }));
  EXPECT_EQ(dialog, user.ended[0]);
  EXPECT_EQ(nullptr, dialog->getNewClientConnection("SUBSCRIBE"));
}

TEST_F(SubscriberTest, AUserThatIsToldOfTheEndFindsTheDialogAlive) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  const auto request = udp->last();
  receive(answerTo(*request, 200, "peer", kContact));
  receive(notification(*request, "terminated").text());
  ASSERT_EQ(0, answer(user.requests[0], 200));
  layer->close(user.requests[0]);
  layer->close(connection);
  layer->endTurn();
  layer->endTurn();
  // The listener gets the pointer only now; it is good during its call.
  struct Listener : SIPLIB_SIPDialogListener {
    void notifyDialogTerminated(SIPLIB_SIPDialog* dialog) override { over = dialog->isTerminated(); }
    bool over = false;
  } listener;
  layer->setDialogListener(&listener);
  EXPECT_TRUE(until([&] { return listener.over; }));
}

TEST_F(SubscriberTest, ANotifyBeforeTheAnswerMakesTheDialog) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  const auto request = udp->last();
  receive(notification(*request, "active").text());
  ASSERT_EQ(1u, user.requests.size());
  SIPLIB_SIPDialog* dialog = user.requests[0]->getDialog();
  ASSERT_NE(nullptr, dialog);
  ASSERT_EQ(0, answer(user.requests[0], 200));
  receive(answerTo(*request, 200, "peer", kContact));
  EXPECT_EQ(dialog, connection->getDialog());
  EXPECT_NE(nullptr, dialog->getNewClientConnection("SUBSCRIBE"));
}

TEST_F(SubscriberTest, ASecondNotifierIsAStranger) {
  subscribeTo();
  const auto request = udp->last();
  receive(answerTo(*request, 200, "peer", kContact));
  Request forked = notification(*request, "active");
  forked.from = "<sip:registrar@127.0.0.1>;tag=fork";
  receive(forked.text());
  EXPECT_TRUE(user.requests.empty());
  EXPECT_EQ(481, udp->last()->statusCode());
}

TEST_F(SubscriberTest, ARefusedSubscribeMakesNone) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  const auto request = udp->last();
  receive(answerTo(*request, 403));
  EXPECT_EQ(nullptr, connection->getDialog());
  receive(notification(*request, "active").text());
  EXPECT_TRUE(user.requests.empty());
  EXPECT_EQ(481, udp->last()->statusCode());
  pass(2ms);
  EXPECT_TRUE(user.ended.empty());
  layer->endTurn();
}

TEST_F(SubscriberTest, ASubscribeThatCannotBeSentMakesNone) {
  udp->open = false;
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  ASSERT_TRUE(until([&] { return user.answers.size() == 1; }));
  EXPECT_EQ(nullptr, connection->getDialog());
  layer->endTurn();
}

TEST_F(SubscriberTest, ARefreshAnswered481EndsIt) {
  SIPLIB_SIPClientConnection* connection = subscribeTo();
  receive(answerTo(*udp->last(), 200, "peer", kContact));
  SIPLIB_SIPDialog* dialog = connection->getDialog();
  ASSERT_NE(nullptr, dialog);
  SIPLIB_SIPClientConnection* refresh = dialog->getNewClientConnection("SUBSCRIBE");
  refresh->setListener(&user);
  ASSERT_EQ(0, refresh->send());
  receive(answerTo(*last(), 481));
  ASSERT_TRUE(until([&] { return user.ended.size() == 1; }));
  EXPECT_EQ(2u, user.answers.size());
  EXPECT_EQ(0, refresh->receive());
  EXPECT_EQ(481, refresh->getStatusCode());
}

}  // namespace
