#include "registrar/registrar.h"

#include <algorithm>

#include "registrar_fixture.h"
#include "support/cost.h"

using RegistrarTest = RegistrarFixture;

TEST(Registrar, NeedsEverythingAndIsMadeOnce) {
  FakeConnector connector;
  fake::RoutingTable table;
  fake::Listener listener;
  LogCapture log;
  EXPECT_EQ(IMSE_Registrar::init_registrar(nullptr, &table, &listener), nullptr);
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Registrar::init_registrar"));
  EXPECT_EQ(IMSE_Registrar::init_registrar(&connector, nullptr, &listener), nullptr);
  EXPECT_EQ(IMSE_Registrar::init_registrar(&connector, &table, nullptr), nullptr);
  EXPECT_EQ(log.count(4, "IMSE_REG: init registrar failed"), 3);
  EXPECT_EQ(IMSE_Registrar::get_instance(), nullptr);
  IMSE_Registrar* const first = IMSE_Registrar::init_registrar(&connector, &table, &listener);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(log.has(5, "IMSE_REG: REGISTRAR:initialized"));
  EXPECT_EQ(IMSE_Registrar::init_registrar(&connector, &table, &listener), nullptr);
  EXPECT_TRUE(log.has(4, "IMSE_REG: REGISTRAR:init failed. Re-initing the registrar"));
  EXPECT_EQ(IMSE_Registrar::get_instance(), first);
  IMSE_Registrar::destroy();
  EXPECT_EQ(IMSE_Registrar::get_instance(), nullptr);
  EXPECT_TRUE(log.has(5, "IMSE_REG: IMSE_Registrar::~IMSE_Registrar"));
  IMSE_Registrar::destroy();
}

TEST_F(RegistrarTest, AnUnknownPortWithANewProfileIsAdmitted) {
  LogCapture log;
  const fake::Request& request = send({});
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "1");
  EXPECT_EQ(request.answered("Expires"), "3600");
  EXPECT_EQ(request.answered("Contact"), "<sip:alice@127.0.0.1:5070>");
  EXPECT_TRUE(connector.closed(&request));
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  EXPECT_EQ(table.entries[0].profile_id, "1");
  EXPECT_EQ(table.entries[0].profile_name, "home");
  EXPECT_EQ(table.entries[0].uri, "sip:alice@home.net");
  ASSERT_EQ(registrar->domains().size(), 1u);
  EXPECT_EQ(registrar->domains()[0]->clients().size(), 1u);
  EXPECT_EQ(clientCount(), 1u);
  Texts said;
  for (const auto& line : log.lines()) {
    if (line.function == "handle_new_client_register" || line.function == "process_ext_client_new_register")
      said.push_back(line.text);
  }
  EXPECT_EQ(said,
            (Texts{"IMSE_REG: REGISTER message type 0", "IMSE_REG: IMSE_Registrar::process_ext_client_new_register",
                   "IMSE_REG: Domain list updated", "IMSE_REG: Added external client entry on the table ",
                   "IMSE_REG: Successfully processed client. Adding to local client list "}));
}

TEST_F(RegistrarTest, AModuleIsAdmittedWithoutDomainOrNotify) {
  subscribe();
  answerAll();
  LogCapture log;
  const fake::Request& request = send(module());
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "(none)");
  EXPECT_EQ(table.operations, Texts{"add 6000"});
  EXPECT_EQ(table.entries[0].packages, "reg");
  EXPECT_TRUE(registrar->domains().empty());
  EXPECT_EQ(dialog.notifies(), Texts{"active -"});
  EXPECT_TRUE(log.has(5, "IMSE_REG: Added an entry for the internal client in routing table"));
}

TEST_F(RegistrarTest, UserAgentsOfOneProfileShareItsDomain) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  EXPECT_EQ(send(bob()).answered("Zel-Profile-ID"), "1");
  EXPECT_TRUE(log.has(5, "IMSE_REG:domain match found for"));
  Register other = bob(5072);
  other.from = "sip:carol@work.net";
  other.body = fake::uaInfo("work", fake::aor("sip:carol@work.net", ""));
  EXPECT_EQ(send(other).answered("Zel-Profile-ID"), "2");
  EXPECT_EQ(registrar->domains().size(), 2u);
}

TEST_F(RegistrarTest, AnOverlappingUserAgentOfTheSameProfileIsRefused) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  Register overlapping = bob();
  overlapping.body = fake::uaInfo("home", fake::aor("sip:bob@home.net", "<events>reg</events>"));
  EXPECT_EQ(status(overlapping), 403);
  EXPECT_TRUE(log.has(4, "IMSE_REG:client validate failed "));
  EXPECT_TRUE(log.has(4, "IMSE_REG: Client processing failed. Deleting the client object"));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  // In another profile the same routing does not matter.
  overlapping.body = fake::uaInfo("work", fake::aor("sip:bob@home.net", "<events>reg</events>"));
  EXPECT_EQ(status(overlapping), 200);
}

TEST_F(RegistrarTest, ABodyThatIsNoneIsAnswered400AndNotClosed) {
  for (const Register& message : {Register{.body = "<other/>"}, Register{.body = ""}, Register{.content_type = ""},
                                  Register{.content_type = "text/plain"}, Register{.body = "<ua-info>"}}) {
    LogCapture log(4);
    const fake::Request& request = send(message);
    EXPECT_EQ(request.status(), 400);
    EXPECT_EQ(request.releases, 1);
    EXPECT_FALSE(connector.closed(&request));
    EXPECT_TRUE(log.has(4, "IMSE_REG: handle_registrar_register_message: object creation failed"));
  }
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(table.operations.empty());
}

TEST_F(RegistrarTest, WithoutContactOrItsPortNobodyIsRegistered) {
  for (const char* contact : {"", "<sip:alice@127.0.0.1>", "*", "<sip:alice@127.0.0.1:99999>"}) {
    LogCapture log(4);
    EXPECT_EQ(status({.contact = contact}), 400) << contact;
    EXPECT_EQ(log.texts(), Texts{"IMSE_REG:default handler "});
  }
  EXPECT_EQ(clientCount(), 0u);
}

TEST_F(RegistrarTest, AFirstRegisterThatEndsIsAnswered400) {
  EXPECT_EQ(status({.expires = "0"}), 400);
  EXPECT_EQ(status({.expires = ""}), 400);
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(table.operations.empty());
}

TEST_F(RegistrarTest, AnEmptyProfileNameIsAnswered400) {
  LogCapture log(4);
  EXPECT_EQ(status({.body = "<ua-info><profile-info><name><!-- --> </name></profile-info></ua-info>"}), 400);
  EXPECT_EQ(log.texts(), (Texts{"Error in parsing eclient XML 622", "IMSE_REG: Invalid content",
                                "IMSE_REG: handle_registrar_register_message: object creation failed"}));
  log.clear();
  Register message = bob();
  message.body = "<ua-info><profile-info><name><![CDATA[]]></name></profile-info></ua-info>";
  EXPECT_EQ(status(message), 400);
  EXPECT_EQ(log.texts(), (Texts{"IMSE_REG:Invalid network profile",
                                "IMSE_REG: Client processing failed. Deleting the client object"}));
  EXPECT_EQ(clientCount(), 0u);
}

TEST_F(RegistrarTest, TracesWhatItDoesWithARegister) {
  const auto traced = [this](const Register& message) {
    LogCapture log;
    send(message);
    Texts said;
    for (const auto& line : log.lines()) {
      // Body and headers have tests of their own.
      if (line.function.starts_with("handle_") || line.function == "create_client" || line.function == "reject" ||
          line.function.starts_with("process_"))
        said.push_back(std::to_string(line.level) + " " + line.text);
    }
    return said;
  };
  const Texts begin = {"5 IMSE_REG: IMSE_Registrar::handle_registrar_register_message"};
  const auto then = [&begin](const Texts& more) {
    Texts all = begin;
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  EXPECT_EQ(traced(module()),
            then({"5 IMSE_REG: IMSE_ClientFactory::create_client", "5 IMSE_REG: IMSE_Client::process_register 0    0 0",
                  "5 IMSE_REG: process_register: Expires 3600 0",
                  "5 IMSE_REG: process_register: Contact <sip:alice@127.0.0.1:6000> 0",
                  "5 IMSE_REG: REGISTER message type 0", "5 IMSE_REG: IMSE_Registrar::process_int_client_new_register",
                  "5 IMSE_REG: Added an entry for the internal client in routing table",
                  "5 IMSE_REG: Successfully processed client. Adding to local client list "}));
  EXPECT_EQ(traced(module()),
            then({"5 IMSE_REG: handle_registrar_register_message: client object match found",
                  "5 IMSE_REG: IMSE_Client::process_register 0 module-1 1 REGISTER sip:module@127.0.0.1 6000 3600",
                  "5 IMSE_REG: process_register: Expires 3600 0",
                  "5 IMSE_REG: process_register: Contact <sip:alice@127.0.0.1:6000> 0",
                  "5 IMSE_REG: IMSE_Registrar::handle_existing_client_register 2",
                  "5 IMSE_REG: IMSE_Registrar::handle_existing_client_retransmission"}));
  EXPECT_EQ(traced({.content_type = ""}),
            then({"5 IMSE_REG: IMSE_ClientFactory::create_client", "4 IMSE_REG: Content-Type absent ",
                  "4 IMSE_REG: handle_registrar_register_message: object creation failed",
                  "5 IMSE_REG: IMSE_Registrar::reject 400 "}));
}

TEST_F(RegistrarTest, ARefusedTableEntryIsAnswered400) {
  table.refuse = true;
  LogCapture log(4);
  EXPECT_EQ(status({}), 400);
  EXPECT_TRUE(log.has(4, "IMSE_REG: External Client table entry addition failed. Reject client"));
  EXPECT_EQ(status(module()), 400);
  EXPECT_TRUE(log.has(4, "IMSE_REG: Internal client table entry addition failed"));
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(registrar->domains()[0]->clients().empty());
}

TEST_F(RegistrarTest, AFailedDomainInsertionIsAnswered400AndTheTableEntryStays) {
  subscribe();
  answerAll();
  dialog.refuse = true;
  LogCapture log(4);
  EXPECT_EQ(status({}), 400);
  EXPECT_TRUE(log.has(4, "IMSE_REG: External Client addition to the domain failed. Reject client"));
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  EXPECT_EQ(table.entries.size(), 1u);
}

TEST_F(RegistrarTest, ARequestThatTakesNo200LeavesNothingBehind) {
  LogCapture log(4);
  last = std::make_unique<fake::Request>(Register{}.text());
  last->refuse_answer = true;
  deliver();
  EXPECT_TRUE(log.has(4, "IMSE_REG: Unable to send 200ok.  Removing external client from routing table"));
  EXPECT_EQ(table.operations, (Texts{"add 5070", "delete 5070"}));
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(registrar->domains()[0]->clients().empty());
  last = std::make_unique<fake::Request>(module().text());
  last->refuse_answer = true;
  deliver();
  EXPECT_TRUE(log.has(4, "IMSE_REG: Unable to send 200ok. Internal Client entry deleted from routing table"));
  EXPECT_EQ(table.entries.size(), 0u);
  EXPECT_EQ(clientCount(), 0u);
  // The party can try again.
  EXPECT_EQ(status({}), 200);
}

TEST_F(RegistrarTest, WhoMustAuthenticateIsChallengedAndWaitsInTheList) {
  registrar->set_authentication(false, true);
  LogCapture log;
  EXPECT_EQ(status({}), 401);
  EXPECT_TRUE(log.has(5, "IMSE_REG adding client to the list"));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(external().state(), IMSE_CLIENT_CHALLENGED);
  EXPECT_TRUE(table.operations.empty());
  EXPECT_EQ(status(module()), 200);
  registrar->set_authentication(true, false);
  Register refresh = module();
  refresh.cseq = 2;
  EXPECT_EQ(status(refresh), 401);
  Register other = module(6002);
  other.from = "sip:other@127.0.0.1";
  EXPECT_EQ(status(other), 401);
  EXPECT_EQ(clientCount(), 3u);
}

TEST_F(RegistrarTest, AChallengeThatCannotBeSentDropsTheClient) {
  registrar->set_authentication(true, true);
  LogCapture log(4);
  last = std::make_unique<fake::Request>(Register{}.text());
  last->refuse_answer = true;
  deliver();
  EXPECT_TRUE(log.has(4, "IMSE_REG:Auth failed"));
  EXPECT_EQ(clientCount(), 0u);
}

TEST_F(RegistrarTest, TheWatcherHearsOfEveryoneInOrder) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  const fake::Request& request = subscribe();
  EXPECT_EQ(request.status(), 200);
  EXPECT_TRUE(connector.closed(&request));
  EXPECT_TRUE(log.has(5, "IMSE_REG: handle_registrar_subscribe_message 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: setting subscriber"));
  EXPECT_EQ(status(bob()), 200);
  Register leaving = bob();
  leaving.cseq = 2;
  leaving.expires = "0";
  EXPECT_EQ(status(leaving), 200);
  EXPECT_EQ(status({.cseq = 2, .expires = "0"}), 200);
  EXPECT_EQ(dialog.notifies(), Texts{"active -"});
  answerAll();
  EXPECT_EQ(dialog.notifies(),
            (Texts{"active -", "active CREATE", "active UPDATE add", "active UPDATE delete", "active DELETE"}));
  for (std::size_t i = 0; i < dialog.made.size(); ++i) EXPECT_TRUE(connector.closed(dialog.made[i].get())) << i;
}

TEST_F(RegistrarTest, ARefusedSubscribeLeavesNoSubscriber) {
  const fake::Request& stranger = subscribe("600", "sip:eve@127.0.0.1");
  EXPECT_EQ(stranger.status(), 400);
  EXPECT_EQ(stranger.releases, 1);
  EXPECT_FALSE(connector.closed(&stranger));
  EXPECT_EQ(registrar->subscriber(), nullptr);
  EXPECT_EQ(subscribe("0").status(), 400);
  EXPECT_EQ(subscribe("600", "sip:regua@127.0.0.1", "reg").status(), 400);
  EXPECT_EQ(registrar->subscriber(), nullptr);
}

TEST_F(RegistrarTest, ARefusedSubscribeLeavesTheSubscriberThere) {
  subscribe();
  EXPECT_EQ(subscribe("600", "sip:regua@127.0.0.1", "reg").status(), 400);
  EXPECT_NE(registrar->subscriber(), nullptr);
}

TEST_F(RegistrarTest, ASubscribeAnswered500IsNotAnsweredAgain) {
  subscribe();
  last = std::make_unique<fake::Request>(
      sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1", {{"Event", "local-reg-events"}}));
  last->dialog = &dialog;
  registrar->handle_registrar_subscribe_message(last.get());
  EXPECT_EQ(last->status(), 500);
}

TEST_F(RegistrarTest, AfterUnsubscribingNoDomainUsesTheSubscriber) {
  EXPECT_EQ(status({}), 200);
  subscribe();
  answerAll();
  LogCapture log;
  EXPECT_EQ(subscribe("0").status(), 200);
  EXPECT_TRUE(log.has(5, "IMSE_REG: deleting subscription"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: setting subscriber"));
  EXPECT_EQ(registrar->subscriber(), nullptr);
  EXPECT_EQ(status(bob()), 200);
  EXPECT_EQ(dialog.notifies().back(), "terminated -");
}

TEST_F(RegistrarTest, AfterAnErrorAnswerNoDomainUsesTheSubscriber) {
  EXPECT_EQ(status({}), 200);
  subscribe();
  answer(200);
  LogCapture log;
  fake::Notify* const notify = dialog.made.back().get();
  answer(481);
  EXPECT_TRUE(log.has(5, "IMSE_REG:deleting subscription"));
  EXPECT_TRUE(connector.closed(notify));
  EXPECT_EQ(registrar->subscriber(), nullptr);
  EXPECT_EQ(registrar->domains()[0]->notify_state(), IMSE_Domain::NOTHING_SENT);
  EXPECT_EQ(status(bob()), 200);
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "active CREATE", "terminated -"}));
  // A watcher that comes back hears it all again.
  subscribe();
  answerAll();
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "active CREATE", "terminated -", "active -", "active CREATE"}));
}

TEST_F(RegistrarTest, AnAnswerWithoutASubscriberIsClosed) {
  fake::Notify stray(&dialog);
  LogCapture log;
  registrar->handle_registrar_response_message(&stray);
  EXPECT_TRUE(log.has(5, "IMSE_REG: subscriber is NULL"));
  EXPECT_TRUE(connector.closed(&stray));
}

TEST_F(RegistrarTest, AnAnswerOfAnEndedSubscriptionDoesNotEndTheOneThatThereIs) {
  subscribe();
  fake::Notify late(&dialog);
  late.transaction_status = -1;
  late.answer(481);
  LogCapture log(4);
  registrar->handle_registrar_response_message(&late);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: answer to a NOTIFY of an ended subscription absorbed"});
  EXPECT_TRUE(connector.closed(&late));
  EXPECT_NE(registrar->subscriber(), nullptr);
}

TEST_F(RegistrarTest, ASubscriptionWithoutADialogLeavesNothingBehind) {
  last = std::make_unique<fake::Request>(sipRequest("SUBSCRIBE", "sip:registrar@127.0.0.1",
                                                    {{"From", "<sip:regua@127.0.0.1>;tag=1"},
                                                     {"To", "<sip:registrar@127.0.0.1>"},
                                                     {"Call-ID", "s"},
                                                     {"CSeq", "1 SUBSCRIBE"},
                                                     {"Contact", "<sip:regua@127.0.0.1:5080>"},
                                                     {"Event", "local-reg-events"},
                                                     {"Expires", "600"}}));
  registrar->handle_registrar_subscribe_message(last.get());
  last->endTurn();
  EXPECT_EQ(registrar->subscriber(), nullptr);
  EXPECT_EQ(status({}), 200);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
}

TEST_F(RegistrarTest, AProvisionalAnswerDoesNotEndTheTransaction) {
  subscribe();
  fake::Notify* const notify = dialog.made.back().get();
  answer(100);
  EXPECT_FALSE(connector.closed(notify));
  answer(200);
  EXPECT_TRUE(connector.closed(notify));
}

TEST_F(RegistrarTest, ALivingSubscriptionIsToldOfTheEnd) {
  EXPECT_EQ(status({}), 200);
  subscribe();
  answerAll();
  IMSE_Registrar::destroy();
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "active CREATE", "terminated -"}));
}

TEST_F(RegistrarTest, GivesTheCredentialsOfAProfile) {
  const fake::ConfigDir config;
  config.profile("home",
                 "<p><impi>alice@home.net</impi><secret>xyz</secret><operation-mode>shared</operation-mode></p>");
  EXPECT_EQ(status({}), 200);
  std::string first, second, third;
  LogCapture log;
  EXPECT_EQ(registrar->get_profile_credentials("1", first, second, third), 1);
  EXPECT_EQ(first, "alice@home.net");
  EXPECT_EQ(second, "xyz");
  EXPECT_EQ(third, "shared");
  EXPECT_EQ(log.texts(), (Texts{"IMSE_REG: IMSE_Registrar::get_profile_credentials 1",
                                "IMSE_REG: IMSE_Domain::get_profile_credentials",
                                "IMSE_REG: returning impi impu alice@home.net xyz shared"}));
  first = "kept";
  EXPECT_EQ(registrar->get_profile_credentials("2", first, second, third), 0);
  EXPECT_EQ(registrar->get_profile_credentials("", first, second, third), 0);
  EXPECT_EQ(registrar->get_profile_credentials("99999999999", first, second, third), 0);
  EXPECT_EQ(first, "kept");
}

TEST_F(RegistrarTest, ARefreshTextIsOnlyLogged) {
  LogCapture log;
  std::string text = "anything";
  registrar->handle_registrar_refresh_message(text);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: IMSE_Registrar::handle_registrar_refresh_message"});
}

TEST_F(RegistrarTest, TakesNoMoreClientsThanItsLimit) {
  for (std::size_t i = 0; i < framework::bounds().clients; ++i) {
    Register one = module(10000 + static_cast<int>(i));
    one.from = "sip:anonymous@127.0.0.1";
    ASSERT_EQ(status(one), 200) << i;
  }
  LogCapture log(4);
  EXPECT_EQ(status(module()), 400);
  EXPECT_EQ(log.texts(), Texts{"IMSE_REG: 256 clients are registered, no further one is taken"});
  // Those who are there go on.
  Register known = module(10000);
  known.from = "sip:anonymous@127.0.0.1";
  known.cseq = 2;
  known.expires = "0";
  EXPECT_EQ(status(known), 200);
  EXPECT_EQ(status(module()), 200);
}

// A Contact that is dear to read is read once for a REGISTER, not once for every client that it is compared with.
TEST_F(RegistrarTest, ComparingWithManyClientsCostsNoMoreThanReadingOnce) {
  const auto read = [this] {
    Register bad = module();
    bad.contact = std::string(16000, ',');
    EXPECT_EQ(status(bad), 400);
  };
  const double alone = leastTime(read);
  for (int i = 0; i < 200; ++i) {
    Register one = module(10000 + i);
    one.from = "sip:anonymous@127.0.0.1";
    ASSERT_EQ(status(one), 200) << i;
  }
  const double bound = 20 * alone;  // to read it for each would be 200 times or half as much
  EXPECT_LT(leastTime(read, bound), bound);
}

TEST_F(RegistrarTest, WhoMovesFromPortToPortLeavesNothingInTheRoutingTable) {
  for (int port = 10000; port < 14000; port += 2) {
    ASSERT_EQ(status({.port = port}), 200);
    ASSERT_EQ(status({.port = port + 1, .call_id = "moved"}), 200);
    ASSERT_EQ(status({.port = port + 1, .call_id = "moved", .cseq = 2, .expires = "0"}), 200);
    ASSERT_TRUE(table.entries.empty());
  }
}

TEST_F(RegistrarTest, EntriesThatStayBehindDoNotFillTheRoutingTableWithoutEnd) {
  // One that came and went is not counted.
  ASSERT_EQ(status({.port = 9999}), 200);
  ASSERT_EQ(status({.port = 9999, .cseq = 2, .expires = "0"}), 200);
  subscribe();
  answerAll();
  dialog.refuse = true;  // what cannot be told is refused, and keeps its entry
  int port = 10000;
  while (port < 12000 && table.entries.size() < framework::bounds().routing_entries) {
    ASSERT_EQ(status({.port = port, .call_id = "c" + std::to_string(port)}), 400);
    ++port;
  }
  EXPECT_EQ(port, 10000 + static_cast<int>(framework::bounds().routing_entries));
  LogCapture log(4);
  EXPECT_EQ(status(module()), 400);
  EXPECT_EQ(log.texts(), (Texts{"IMSE_REG: 1024 entries are in the routing table, no further one is taken",
                                "IMSE_REG: Internal client table entry addition failed",
                                "IMSE_REG: Client processing failed. Deleting the client object"}));
}

TEST_F(RegistrarTest, KnowsNoMoreProfilesThanItsLimit) {
  for (std::size_t i = 0; i < framework::bounds().profiles; ++i) {
    Register one = bob(10000 + static_cast<int>(i));
    one.from = "sip:anonymous@127.0.0.1";
    one.body = fake::uaInfo("profile" + std::to_string(i), "");
    ASSERT_EQ(status(one), 200) << i;
  }
  LogCapture log(4);
  EXPECT_EQ(status(bob()), 400);
  EXPECT_TRUE(log.has(4, "IMSE_REG: 64 network profiles are known, no further one is taken"));
  Register known = bob();
  known.body = fake::uaInfo("profile3", "");
  EXPECT_EQ(status(known), 200);
}

TEST_F(RegistrarTest, AWatcherThatDoesNotAnswerKeepsNobodyOutAndIsToldTheTruthWhenItAnswers) {
  EXPECT_EQ(status({}), 200);
  subscribe();
  answer(200);  // the create of "home" is out
  const auto user = [](int number) {
    Register one = bob(10000 + number);
    const std::string name = "u" + std::to_string(number);
    one.from = "sip:" + name + "@home.net";
    one.call_id = name;
    one.body =
        fake::uaInfo(number % 2 == 0 ? "home" : "work", fake::aor(one.from, "<feature-tag>" + name + "</feature-tag>"));
    return one;
  };
  for (int number = 0; number < 200; ++number) ASSERT_EQ(status(user(number)), 200);
  EXPECT_FALSE(registrar->subscriber()->is_stale());
  const auto leave = [&](Register one) {
    one.cseq = 2;
    one.expires = "0";
    return status(one);
  };
  for (int number = 0; number < 200; ++number) {
    if (number == 6) continue;
    ASSERT_EQ(leave(user(number)), 200);
  }
  EXPECT_TRUE(registrar->subscriber()->is_stale());
  EXPECT_EQ(dialog.made.size(), 2u);
  answerAll();
  // "home" has the first one and number 6; "work" came and went unheard.
  ASSERT_EQ(dialog.notifies(), (Texts{"active -", "active CREATE", "active CREATE"}));
  const std::string told = dialog.made.back()->body();
  EXPECT_NE(told.find("<name>home</name>"), std::string::npos);
  EXPECT_NE(told.find("sip:alice@home.net"), std::string::npos);
  EXPECT_NE(told.find("sip:u6@home.net"), std::string::npos);
  EXPECT_EQ(told.find("sip:u8@home.net"), std::string::npos);
  // From here on as ever.
  EXPECT_EQ(status(user(300)), 200);
  EXPECT_EQ(status(user(301)), 200);
  answerAll();
  EXPECT_EQ(dialog.notifies().size(), 5u);
  EXPECT_EQ(dialog.notifies()[3], "active UPDATE add");
  EXPECT_EQ(dialog.notifies()[4], "active CREATE");
}

TEST_F(RegistrarTest, AProfileThatEmptiedWhileTheWatcherWasSilentIsToldWithItsDelete) {
  framework::Bounds few;
  few.waiting_notifies = 1;
  const framework::Bounds before = framework::bounds();
  framework::setBounds(few);
  EXPECT_EQ(status({}), 200);
  Register other = bob();
  other.body = fake::uaInfo("work", fake::aor("sip:bob@home.net", "<feature-tag>b</feature-tag>"));
  EXPECT_EQ(status(other), 200);
  subscribe();
  answer(200);
  answer(200);  // both creates are out, the second unanswered
  other.cseq = 2;
  other.expires = "0";
  EXPECT_EQ(status({.cseq = 2, .expires = "0"}), 200);
  EXPECT_EQ(status(other), 200);
  EXPECT_TRUE(registrar->subscriber()->is_stale());
  answerAll();
  EXPECT_EQ(dialog.notifies(), (Texts{"active -", "active CREATE", "active CREATE", "active DELETE", "active DELETE"}));
  EXPECT_FALSE(registrar->subscriber()->is_stale());
  framework::setBounds(before);
}

namespace {

/// Room for two user agents as number() makes them, and for no third: one bound, the others are far.
struct Total {
  const char* setting;
  std::size_t framework::Bounds::*bound;
  std::size_t value;
};
const Total kTotals[] = {{"max-aors", &framework::Bounds::aors, 4},
                         {"max-feature-tags", &framework::Bounds::feature_tags, 6},
                         {"max-feature-tag-bytes", &framework::Bounds::feature_tag_bytes, 30},
                         {"max-text-bytes", &framework::Bounds::text_bytes, 82}};

/// An external user agent with 2 addresses, 3 feature tags of 15 bytes in all, and 41 bytes of other texts.
fake::Register number(int n, const std::string& call = "call") {
  const std::string name = std::to_string(n);
  fake::Register one{.port = 7000 + n, .from = "sip:u" + name + "@home.net", .call_id = call + name};
  one.body = fake::uaInfo(
      "home", fake::aor("a" + name + "@h.net", "<feature-tag>one-" + name + "</feature-tag><feature-tag>two-" + name +
                                                   "</feature-tag>" + "<feature-tag>six-" + name +
                                                   "</feature-tag><events>ev" + name + "</events>") +
                  fake::aor("b" + name + "@h.net", "<methods>BYE</methods><events>x" + name + "..</events>"));
  return one;
}

}  // namespace

class RegistrarTotals : public RegistrarTest, public ::testing::WithParamInterface<Total> {
 protected:
  RegistrarTotals() {
    framework::Bounds few;
    few.*GetParam().bound = GetParam().value;
    framework::setBounds(few);
  }
  ~RegistrarTotals() override { framework::setBounds(before_); }

  /// Registers and gives the setting that kept it out, nothing when none did.
  std::string refused(const Register& message) {
    const LogCapture log(4);
    const int code = status(message);
    if (code == 200) return {};
    EXPECT_EQ(code, 400);
    const std::string begin = "IMSE_REG: Content above ";
    for (const std::string& line : log.texts()) {
      if (line.starts_with(begin)) return line.substr(begin.size(), line.find(':', begin.size()) - begin.size());
    }
    return "another reason";
  }

 private:
  const framework::Bounds before_ = framework::bounds();
};

INSTANTIATE_TEST_SUITE_P(Each, RegistrarTotals, ::testing::ValuesIn(kTotals));

TEST_P(RegistrarTotals, WhatAllTogetherMayBringIsKeptAndWhatIsAboveIsAnswered400) {
  EXPECT_EQ(refused(number(1)), "");
  EXPECT_EQ(refused(number(2)), "");
  EXPECT_EQ(refused(number(3)), GetParam().setting);
  EXPECT_EQ(clientCount(), 2u);
  EXPECT_EQ(table.entries.size(), 2u);
}

TEST_P(RegistrarTotals, WhoLeavesOrIsRefusedGivesItsShareBack) {
  EXPECT_EQ(refused(number(1)), "");
  // Refused for its event, with a body that counted until then.
  Register same = number(2);
  const std::size_t at = same.body.find("<events>ev2");
  same.body.replace(at, 11, "<events>ev1");
  EXPECT_EQ(status(same), 403);
  EXPECT_EQ(refused(number(2)), "");
  Register gone = number(1);
  gone.cseq = 2;
  gone.expires = "0";
  gone.body.clear();
  EXPECT_EQ(status(gone), 200);
  EXPECT_EQ(refused(number(3)), "");
  EXPECT_EQ(refused(number(4)), GetParam().setting);
}

TEST_P(RegistrarTotals, WhoRegistersAnewCountsOnce) {
  EXPECT_EQ(refused(number(1)), "");
  EXPECT_EQ(refused(number(2)), "");
  for (int again = 0; again < 3; ++again) {
    EXPECT_EQ(refused(number(1, "again" + std::to_string(again) + "-")), "");
  }
  EXPECT_EQ(clientCount(), 2u);
  EXPECT_EQ(refused(number(3)), GetParam().setting);
  // With more than before it would be above: what was there stays.
  Register more = number(1, "more-");
  more.from += "/abc";
  const std::size_t at = more.body.find("</ua-info>");
  more.body.insert(at, fake::aor("c@h.net", "<feature-tag>further</feature-tag>"));
  EXPECT_EQ(refused(more), GetParam().setting);
  ASSERT_NE(table.entry("7001"), nullptr);
  EXPECT_EQ(table.entry("7001")->aors.size(), 2u);
}

TEST_F(RegistrarTest, MoreRegistrationsOfOnePortThanThereAreEntriesLeaveNothingBehind) {
  for (std::size_t i = 0; i <= framework::bounds().routing_entries; ++i) {
    ASSERT_EQ(status({.call_id = "c" + std::to_string(i), .cseq = 1}), 200);
    ASSERT_EQ(status({.call_id = "c" + std::to_string(i), .cseq = 2, .expires = "0"}), 200);
  }
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(table.entries.empty());
  ASSERT_EQ(registrar->domains().size(), 1u);
  EXPECT_TRUE(registrar->domains()[0]->clients().empty());
}
