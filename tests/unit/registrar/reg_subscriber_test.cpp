#include "registrar/reg_subscriber.h"

#include <gtest/gtest.h>

#include "fakes.h"
#include "framework/bounds.h"
#include "support/log_capture.h"

namespace {

using Texts = std::vector<std::string>;

struct Subscribe {
  std::string event = "local-reg-events";
  std::string from = "<sip:regua@127.0.0.1>;tag=1";
  std::string expires = "600";
  std::string left_out{};

  std::string text() const {
    FakeHeaders headers = {{"Call-ID", "sub-1"}, {"CSeq", "1 SUBSCRIBE"},
                           {"From", from},       {"To", "<sip:registrar@127.0.0.1>"},
                           {"Event", event},     {"Contact", "<sip:regua@127.0.0.1:5080>"},
                           {"Expires", expires}};
    std::erase_if(headers, [this](const auto& header) { return header.first == left_out; });
    return sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1", headers);
  }
};

class SubscriberTest : public ::testing::Test {
 protected:
  /// One SUBSCRIBE in the subscription's dialog.
  int handle(const Subscribe& message) {
    request = std::make_unique<fake::Request>(message.text());
    request->dialog = &dialog;
    const int result = subscriber->handle_subscribe(request.get());
    request->endTurn();
    return result;
  }
  /// An answer to the last NOTIFY.
  int answer(int status) {
    fake::Notify& notify = *dialog.made.back();
    notify.answer(status);
    return subscriber->received_response(&notify);
  }
  std::unique_ptr<IMSE_NotifyXmlData> document(unsigned short id) { return std::make_unique<IMSE_NotifyXmlData>(id); }
  /// The profile id in the last NOTIFY's document.
  std::string lastId() const {
    return fake::Dialog::between(dialog.made.back()->body(), "<zel-profile-id>", "</zel-profile-id>");
  }

  FakeConnector connector;
  fake::Listener listener;
  fake::Dialog dialog;
  std::unique_ptr<fake::Request> request;
  std::unique_ptr<IMSE_RegSubscriber> subscriber =
      std::make_unique<IMSE_RegSubscriber>(&connector, std::string(), &listener);
};

}  // namespace

TEST_F(SubscriberTest, TheWatcherIsAcceptedAndToldAtOnce) {
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::INITIALISED);
  LogCapture log;
  EXPECT_EQ(handle({}), 0);
  EXPECT_EQ(request->status(), 200);
  EXPECT_EQ(dialog.methods, Texts{"NOTIFY"});
  const fake::Notify& notify = *dialog.made.at(0);
  EXPECT_EQ(notify.header("Event"), "local-reg-events");
  EXPECT_EQ(notify.header("Subscription-State"), "active");
  EXPECT_EQ(notify.header("Expires"), "600");
  EXPECT_EQ(notify.header("Content-Type"), "(none)");
  EXPECT_EQ(notify.body(), "");
  EXPECT_EQ(notify.listener, &listener);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::SUBS_NOTIFY_SENT);
  EXPECT_FALSE(subscriber->is_terminated());
  EXPECT_TRUE(log.has(5, "REGISTRAR:Subscriber from <sip:regua@127.0.0.1>;tag=1"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_RegSubscriber::get_expires 600"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: send_notify conn->send status 0"));
}

TEST_F(SubscriberTest, TracesASubscription) {
  LogCapture log;
  subscriber = std::make_unique<IMSE_RegSubscriber>(&connector, std::string(), &listener);
  EXPECT_EQ(log.texts().at(0), "IMSE_REG: IMSE_RegSubscriber::IMSE_RegSubscriber");
  log.clear();
  handle({});
  const std::string d = fake::pointer(&dialog), none = fake::pointer(nullptr), l = fake::pointer(&listener);
  EXPECT_EQ(
      log.texts(),
      (Texts{"IMSE_REG: IMSE_RegSubscriber::handle_subscribe " + fake::pointer(request.get()) + ".",
             "IMSE_REG: IMSE_RegSubscriber::handle_initial_subs", "IMSE_REG: IMSE_RegSubscriber::get_headers",
             "REGISTRAR:Subscriber from <sip:regua@127.0.0.1>;tag=1", "IMSE_REG: IMSE_RegSubscriber::get_expires 600",
             "IMSE_REG: handle_initial_subs " + d + " 0", "IMSE_REG: IMSE_RegSubscriber::send_notify " + none + " 1",
             "IMSE_REG: send_notify: ua_listener " + l, "IMSE_REG: send_notify conn->send status 0"}));
  auto waiting = document(1);
  const std::string w = fake::pointer(waiting.get());
  log.clear();
  subscriber->send_notify(std::move(waiting), "active");
  answer(200);
  Texts said;
  for (const auto& line : log.lines()) {
    if (line.function == "send_notify" || line.function == "received_response") said.push_back(line.text);
  }
  EXPECT_EQ(said,
            (Texts{"IMSE_REG: IMSE_RegSubscriber::send_notify " + w + " 2",
                   "IMSE_REG: send_notify Subs SUBS_NOTIFY_SENT state,Pushing to Queue",
                   "IMSE_REG: IMSE_RegSubscriber::received_response 0 1", "IMSE_REG: received_response 0 200",
                   "IMSE_REG: received response Queue is not empty",
                   "IMSE_REG: IMSE_RegSubscriber::send_notify " + w + " 3", "IMSE_REG: send_notify: ua_listener " + l,
                   "IMSE_REG: send_notify: Valid XML", "IMSE_REG: send_notify conn->send status 0"}));
  log.clear();
  subscriber.reset();
  EXPECT_EQ(log.texts().at(0), "IMSE_REG: IMSE_RegSubscriber::~IMSE_RegSubscriber");
}

TEST_F(SubscriberTest, OnlyTheExactEventIsKnown) {
  for (const char* event : {"local-reg-events;id=1", "reg", "Local-Reg-Events"}) {
    LogCapture log;
    EXPECT_EQ(handle({.event = event}), 1);
    EXPECT_TRUE(log.has(4, std::string("IMSE_REG: handle_subscribe: Bad event ") + event));
  }
  LogCapture log;
  EXPECT_EQ(handle({.left_out = "Event"}), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: handle_subscribe: Bad event "));
  EXPECT_TRUE(request->answers.empty());
  EXPECT_TRUE(dialog.made.empty());
}

TEST_F(SubscriberTest, OnlyTheRegistrationAgentMayWatch) {
  for (const char* from :
       {"<sip:regua@127.0.0.2>;tag=1", "<sip:Regua@127.0.0.1>;tag=1", "<sip:regua@127.0.0.1:5080>"}) {
    EXPECT_EQ(handle({.from = from}), 1) << from;
    EXPECT_TRUE(request->answers.empty());
  }
  LogCapture log;
  EXPECT_EQ(handle({.from = "<sip:eve@127.0.0.1>;tag=1"}), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: Someone else subscribing sip:eve@127.0.0.1"));
  // Refused ones leave no trace.
  EXPECT_EQ(handle({}), 0);
}

TEST_F(SubscriberTest, AFirstSubscribeThatEndsIsRefused) {
  EXPECT_EQ(handle({.expires = "0"}), 1);
  EXPECT_EQ(handle({.expires = "never"}), 1);
  EXPECT_EQ(handle({.left_out = "Expires"}), 1);
  EXPECT_TRUE(dialog.made.empty());
}

TEST_F(SubscriberTest, AFirstSubscribeWithoutAnIdentifyingHeaderIsRefused) {
  struct Case {
    const char* header;
    const char* line;
  };
  for (const Case& one :
       {Case{"Call-ID", "IMSE_REG: subscriber call-id failed"}, Case{"CSeq", "IMSE_REG: get_headers: CSeq failed"},
        Case{"From", "IMSE_REG: get_headers: From failed"}, Case{"To", "IMSE_REG: get_headers: To failed"},
        Case{"Contact", "IMSE_REG: get_headers: Contact failed"}}) {
    LogCapture log(4);
    EXPECT_NE(handle({.left_out = one.header}), 0);
    EXPECT_EQ(log.texts(), (Texts{one.line, "IMSE_REG: handle_initial_subs: get headers fail"}));
  }
}

TEST_F(SubscriberTest, AFirstSubscribeThatTakesNoAnswerBeginsNothing) {
  request = std::make_unique<fake::Request>(Subscribe{}.text());
  request->dialog = &dialog;
  request->refuse_answer = true;
  EXPECT_EQ(subscriber->handle_subscribe(request.get()), 1);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::INITIALISED);
  EXPECT_TRUE(dialog.made.empty());
}

TEST_F(SubscriberTest, ARefreshIsAnsweredAndFollowedByANotifyWithoutBody) {
  handle({});
  answer(200);
  EXPECT_EQ(handle({.expires = "99"}), 0);
  EXPECT_EQ(request->status(), 200);
  EXPECT_EQ(request->releases, 1);
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "active -"}));
  // The expiry stays that of the first.
  EXPECT_EQ(dialog.made.back()->header("Expires"), "600");
}

TEST_F(SubscriberTest, UnsubscribingEndsWithATerminatedNotify) {
  handle({});
  answer(200);
  EXPECT_EQ(handle({.expires = "0"}), 0);
  EXPECT_EQ(request->status(), 200);
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "terminated -"}));
  EXPECT_EQ(dialog.made.back()->header("Expires"), "600");
  EXPECT_TRUE(subscriber->is_terminated());
  subscriber.reset();
  EXPECT_EQ(dialog.notifies().size(), 2u);
}

TEST_F(SubscriberTest, OnlyTheTextZeroUnsubscribes) {
  handle({});
  answer(200);
  EXPECT_EQ(handle({.expires = "00"}), 0);
  EXPECT_FALSE(subscriber->is_terminated());
}

TEST_F(SubscriberTest, ATerminatedNotifyDoesNotWait) {
  handle({});
  EXPECT_EQ(subscriber->send_notify(document(1), "active"), 0);
  EXPECT_EQ(handle({.expires = "0"}), 0);
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "terminated -"}));
}

TEST_F(SubscriberTest, ASubscribeOfAnotherDialogIsRefused) {
  handle({});
  fake::Dialog other;
  fake::Request stranger(Subscribe{}.text());
  stranger.dialog = &other;
  LogCapture log;
  EXPECT_EQ(subscriber->handle_subscribe(&stranger), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: IMSE_RegSubscriber: dialog pointer doesn't match"));
  EXPECT_TRUE(stranger.answers.empty());
}

TEST_F(SubscriberTest, ASubscribeInTheDialogWithoutExpiresIsAnswered500) {
  handle({});
  LogCapture log;
  EXPECT_EQ(handle({.left_out = "Expires"}), 1);
  EXPECT_EQ(request->status(), 500);
  EXPECT_EQ(request->releases, 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: get_expires fails"));
}

TEST_F(SubscriberTest, WhatComesWhileANotifyIsOutGoesOneByOneInOrder) {
  handle({});
  LogCapture log;
  for (unsigned short id = 1; id <= 3; ++id) EXPECT_EQ(subscriber->send_notify(document(id), "active"), 0);
  EXPECT_EQ(log.count(4, "IMSE_REG: send_notify Subs SUBS_NOTIFY_SENT state,Pushing to Queue"), 3);
  EXPECT_EQ(dialog.made.size(), 1u);
  for (unsigned short id = 1; id <= 3; ++id) {
    EXPECT_EQ(answer(200), 0);
    EXPECT_EQ(dialog.made.size(), 1u + id);
    EXPECT_EQ(lastId(), std::to_string(id));
    EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::SUBS_NOTIFY_SENT);
  }
  EXPECT_EQ(answer(299), 0);
  EXPECT_EQ(dialog.made.size(), 4u);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::NOTIFY_ANSWERED);
  EXPECT_EQ(log.count(5, "IMSE_REG: received response Queue is not empty"), 3);
  EXPECT_EQ(dialog.made[0]->releases, 1);
}

TEST_F(SubscriberTest, ADocumentTravelsAsXmlWithoutANul) {
  handle({});
  answer(200);
  EXPECT_EQ(subscriber->send_notify(document(7), "active"), 0);
  const fake::Notify& notify = *dialog.made.back();
  EXPECT_EQ(notify.header("Content-Type"), "application/xml");
  EXPECT_EQ(notify.body().substr(0, 38), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
  EXPECT_EQ(notify.body().find('\0'), std::string::npos);
  EXPECT_EQ(notify.header("Content-Length"), std::to_string(notify.body().size()));
  // Event, Subscription-State, Expires, in this order.
  EXPECT_LT(notify.sent.find("Event:"), notify.sent.find("Subscription-State:"));
  EXPECT_LT(notify.sent.find("Subscription-State:"), notify.sent.find("Expires:"));
}

TEST_F(SubscriberTest, AProvisionalAnswerChangesNothing) {
  handle({});
  subscriber->send_notify(document(1), "active");
  EXPECT_EQ(answer(100), 0);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::SUBS_NOTIFY_SENT);
  EXPECT_EQ(dialog.made.size(), 1u);
  EXPECT_EQ(dialog.made[0]->releases, 0);
}

TEST_F(SubscriberTest, AnErrorAnswerEndsTheSubscription) {
  for (const int status : {300, 408, 481, 603}) {
    subscriber = std::make_unique<IMSE_RegSubscriber>(&connector, std::string(), &listener);
    dialog.made.clear();
    handle({});
    LogCapture log;
    EXPECT_EQ(answer(status), 1);
    EXPECT_TRUE(log.has(4, "REGISTRAR:Subscriber Error response received"));
    EXPECT_EQ(dialog.notifies(), (Texts{"active -", "terminated -"}));
    EXPECT_TRUE(subscriber->is_terminated());
    EXPECT_EQ(dialog.made[0]->releases, 1);
  }
}

TEST_F(SubscriberTest, AnAnswerThatCannotBeReadEndsTheSubscription) {
  handle({});
  fake::Notify& notify = *dialog.made.back();
  LogCapture log;
  EXPECT_EQ(subscriber->received_response(&notify), 1);
  EXPECT_TRUE(log.has(5, "IMSE_REG: received_response -1 0"));
  EXPECT_TRUE(log.has(4, "REGISTRAR:Subscriber Error response received"));
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "terminated -"}));
  EXPECT_TRUE(subscriber->is_terminated());
  EXPECT_EQ(dialog.made[0]->releases, 1);
}

TEST_F(SubscriberTest, AnAnswerOfAnotherDialogOrABrokenTransactionIsTheEnd) {
  handle({});
  fake::Dialog other;
  fake::Notify stray(&other);
  stray.answer(200);
  LogCapture log;
  EXPECT_EQ(subscriber->received_response(&stray), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: received_response: dialog pointer doesn't match"));
  dialog.made[0]->transaction_status = -1;
  EXPECT_EQ(answer(200), 1);
  EXPECT_FALSE(subscriber->is_terminated());
}

TEST_F(SubscriberTest, NothingIsSentBeforeOrAfterTheSubscription) {
  LogCapture log;
  EXPECT_EQ(subscriber->send_notify(document(1), "active"), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify Subscriber in DELETED/INITIALISED state,failure"));
  handle({});
  handle({.expires = "0"});
  EXPECT_EQ(subscriber->send_notify(document(1), "active"), 1);
  EXPECT_EQ(subscriber->send_notify(document(1), "terminated"), 1);
}

TEST_F(SubscriberTest, TheEndOfALivingSubscriptionIsTold) {
  handle({});
  subscriber->send_notify(document(1), "active");
  subscriber.reset();
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "terminated -"}));
}

TEST_F(SubscriberTest, OneThatNeverBeganEndsSilently) {
  subscriber.reset();
  EXPECT_TRUE(dialog.made.empty());
}

TEST_F(SubscriberTest, AFailedAttemptLeavesTheState) {
  handle({});
  answer(200);
  LogCapture log;
  dialog.refuse = true;
  EXPECT_EQ(subscriber->send_notify(document(1), "active"), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify get connection failed"));
  dialog.refuse = false;
  dialog.refuse_headers = true;
  EXPECT_EQ(subscriber->send_notify(document(1), "active"), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify failure"));
  EXPECT_TRUE(connector.closed(dialog.made.back().get()));
  dialog.refuse_headers = false;
  auto too_large = document(1);
  too_large->set_max_size(10);
  EXPECT_EQ(subscriber->send_notify(std::move(too_large), "active"), 1);
  EXPECT_TRUE(connector.closed(dialog.made.back().get()));
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::NOTIFY_ANSWERED);
  EXPECT_EQ(dialog.notifies().size(), 1u);
}

TEST_F(SubscriberTest, WithoutADialogThereIsNoSubscription) {
  request = std::make_unique<fake::Request>(Subscribe{}.text());
  LogCapture log;
  EXPECT_EQ(subscriber->handle_subscribe(request.get()), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: send_notify: INVALID dialogptr"));
  // No dialog is nobody's: it matches nothing.
  fake::Request refresh(Subscribe{}.text());
  EXPECT_EQ(subscriber->handle_subscribe(&refresh), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: IMSE_RegSubscriber: dialog pointer doesn't match"));
  fake::Notify stray(nullptr);
  stray.answer(200);
  EXPECT_EQ(subscriber->received_response(&stray), 1);
  EXPECT_TRUE(log.has(4, "IMSE_REG: received_response: dialog pointer doesn't match"));
}

TEST_F(SubscriberTest, TheAnswerToASubscribeSaysForHowLong) {
  handle({.expires = "600 "});
  EXPECT_EQ(request->answered("Expires"), "600");
  answer(200);
  handle({.expires = "99"});
  EXPECT_EQ(request->answered("Expires"), "99");
  answer(200);
  // What is no time leaves it as it is.
  for (const char* odd : {"00", "-5", "x"}) {
    handle({.expires = odd});
    EXPECT_EQ(request->answered("Expires"), "600") << odd;
    answer(200);
  }
  handle({.expires = "0"});
  EXPECT_EQ(request->answered("Expires"), "0");
}

TEST_F(SubscriberTest, ATimeBelowZeroBeginsNoSubscription) {
  EXPECT_EQ(handle({.expires = "-5"}), 1);
  EXPECT_TRUE(dialog.made.empty());
}

TEST_F(SubscriberTest, ANotifyThatCouldNotBeSentWaitsForItsAnswer) {
  dialog.send_result = -1;
  handle({});
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::SUBS_NOTIFY_SENT);
  EXPECT_EQ(answer(408), 1);
}

TEST_F(SubscriberTest, AWaitingDocumentThatCannotGoDoesNotHoldUpTheNext) {
  handle({});
  auto too_large = document(1);
  too_large->set_max_size(10);
  subscriber->send_notify(std::move(too_large), "active");
  subscriber->send_notify(document(2), "active");
  subscriber->send_notify(document(3), "active");
  answer(200);
  EXPECT_EQ(lastId(), "2");
  answer(200);
  EXPECT_EQ(lastId(), "3");
}

TEST_F(SubscriberTest, TheQueueDoesNotGrowWithRefreshes) {
  handle({});
  const std::size_t bound = framework::bounds().waiting_notifies;
  for (std::size_t i = 0; i < bound; ++i) EXPECT_EQ(handle({.expires = "99"}), 0);
  LogCapture log(4);
  EXPECT_EQ(handle({.expires = "99"}), 0);
  EXPECT_EQ(request->status(), 200);
  EXPECT_TRUE(log.lines().empty());
  for (std::size_t i = 0; i < bound; ++i) answer(200);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::SUBS_NOTIFY_SENT);
  answer(200);
  EXPECT_EQ(subscriber->state(), IMSE_RegSubscriber::NOTIFY_ANSWERED);
  EXPECT_EQ(dialog.made.size(), bound + 1);
}

TEST_F(SubscriberTest, WhenTooManyWaitAllAreDroppedAndTheWatcherIsStaleUntilItAnswers) {
  handle({});
  const std::size_t bound = framework::bounds().waiting_notifies;
  for (std::size_t i = 0; i < bound; ++i) EXPECT_EQ(subscriber->send_notify(document(1), "active"), 0);
  EXPECT_FALSE(subscriber->is_stale());
  LogCapture log(4);
  EXPECT_EQ(subscriber->send_notify(document(2), "active"), 0);
  EXPECT_TRUE(subscriber->is_stale());
  EXPECT_EQ(subscriber->send_notify(document(3), "active"), 0);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: 256 NOTIFYs for a watcher that does not answer are dropped"});
  EXPECT_EQ(answer(200), 0);
  EXPECT_EQ(dialog.made.size(), 1u) << "nothing of it goes out";
  EXPECT_TRUE(subscriber->take_stale());
  EXPECT_FALSE(subscriber->take_stale());
  EXPECT_EQ(subscriber->send_notify(document(4), "active"), 0);
  EXPECT_EQ(lastId(), "4");
}

TEST_F(SubscriberTest, WaitingDocumentsAreBoundedInBytesToo) {
  handle({});
  IMSE_UA_INFO_T info;
  info.aors = {{std::string(50000, 'a'), {}}};
  std::size_t waiting = 0;
  for (; !subscriber->is_stale() && waiting < 200; ++waiting) {
    auto large = std::make_unique<IMSE_NotifyXmlData>(std::string("add"), 1);
    large->add_ua_info(info);
    EXPECT_EQ(subscriber->send_notify(std::move(large), "active"), 0);
  }
  EXPECT_LT(waiting * 50000, 5u * 1024 * 1024);
  EXPECT_GT(waiting * 50000, 4u * 1024 * 1024);
}

TEST_F(SubscriberTest, WhatTellsEverythingWaitsWhateverWaitsAlready) {
  handle({});
  const std::size_t bound = framework::bounds().waiting_notifies;
  for (std::size_t i = 0; i < bound; ++i) subscriber->send_notify(document(1), "active");
  for (int i = 0; i < 10; ++i) {
    auto whole = document(2);
    whole->set_whole(true);
    subscriber->send_notify(std::move(whole), "active");
  }
  EXPECT_FALSE(subscriber->is_stale());
  // A change that has left makes room for one.
  answer(200);
  subscriber->send_notify(document(3), "active");
  EXPECT_FALSE(subscriber->is_stale());
  subscriber->send_notify(document(3), "active");
  EXPECT_TRUE(subscriber->is_stale());
}
