// What a REGISTER does to a client that is already known.

#include "registrar_fixture.h"

using RegistrarExistingTest = RegistrarFixture;

// --- The state machine as a table ------------------------------------------------------------------------------------

namespace {

enum Kind { EXT, INT };
enum Auth { OFF, ON };
/// Whether the client replaces another that is still there (it was challenged when it came with a new Call-ID).
enum Previous { NONE, PREV };

struct Row {
  int register_class;
  Kind kind;
  Auth auth;  ///< in force when the REGISTER of the row comes
  Previous previous;
  int status;
  std::size_t clients;                  ///< left in the list
  std::vector<std::string> operations;  ///< on the routing table
  std::vector<std::string> notifies;    ///< sent for it
};

// A challenged module with a previous client cannot be: a module's new Call-ID is refused.
const Row kRows[] = {
    {0, EXT, OFF, NONE, 200, 1, {"add 5070"}, {"active CREATE"}},
    {0, EXT, ON, NONE, 403, 0, {}, {}},
    {0, INT, OFF, NONE, 200, 1, {"add 6000"}, {}},
    {0, INT, ON, NONE, 403, 0, {}, {}},
    {0, EXT, OFF, PREV, 200, 1, {"delete 5070", "add 5070"}, {}},
    {0, EXT, ON, PREV, 403, 1, {}, {}},
    {1, EXT, OFF, NONE, 200, 1, {}, {}},
    {1, EXT, ON, NONE, 401, 2, {}, {}},
    {1, INT, OFF, NONE, 403, 1, {}, {}},
    {1, INT, ON, NONE, 403, 1, {}, {}},
    // The one to replace is itself only challenged: it has no domain to take over.
    {1, EXT, OFF, PREV, 403, 2, {}, {}},
    {1, EXT, ON, PREV, 401, 3, {}, {}},
    {2, EXT, OFF, NONE, 200, 1, {}, {}},
    {2, EXT, ON, NONE, 200, 1, {}, {}},
    {2, INT, OFF, NONE, 200, 1, {}, {}},
    {2, INT, ON, NONE, 200, 1, {}, {}},
    {2, EXT, OFF, PREV, 200, 2, {}, {}},
    {2, EXT, ON, PREV, 200, 2, {}, {}},
    {3, EXT, OFF, NONE, 200, 1, {}, {}},
    {3, EXT, ON, NONE, 401, 1, {}, {}},
    {3, INT, OFF, NONE, 200, 1, {}, {}},
    {3, INT, ON, NONE, 401, 1, {}, {}},
    {3, EXT, OFF, PREV, 200, 2, {}, {}},
    {3, EXT, ON, PREV, 401, 2, {}, {}},
    {4, EXT, OFF, NONE, 200, 0, {"delete 5070"}, {"active DELETE"}},
    {4, EXT, ON, NONE, 401, 1, {}, {}},
    {4, INT, OFF, NONE, 200, 0, {"delete 6000"}, {}},
    {4, INT, ON, NONE, 401, 1, {}, {}},
    {4, EXT, OFF, PREV, 200, 1, {"delete 5070"}, {}},
    {4, EXT, ON, PREV, 401, 2, {}, {}},
    {5, EXT, OFF, NONE, 400, 1, {}, {}},
    {5, EXT, ON, NONE, 400, 1, {}, {}},
    {5, INT, OFF, NONE, 400, 1, {}, {}},
    {5, INT, ON, NONE, 400, 1, {}, {}},
    {5, EXT, OFF, PREV, 400, 2, {}, {}},
    {5, EXT, ON, PREV, 400, 2, {}, {}},
};

class ExistingClientTable : public RegistrarFixture, public ::testing::WithParamInterface<Row> {};

std::string rowName(const ::testing::TestParamInfo<Row>& info) {
  const Row& row = info.param;
  return "Class" + std::to_string(row.register_class) + (row.kind == EXT ? "External" : "Internal") +
         (row.auth == ON ? "Authenticated" : "Plain") + (row.previous == PREV ? "Replacing" : "");
}

}  // namespace

TEST_P(ExistingClientTable, AnswersAndLeavesWhatItShould) {
  const Row& row = GetParam();
  subscribe();
  answerAll();
  Register message = row.kind == EXT ? Register{} : module();
  message.cseq = 10;

  // Bring the client there: challenged for a class 0, registered otherwise, challenged as a successor with a previous.
  const auto authenticate = [this](bool on) { registrar->set_authentication(on, on); };
  const bool challenged = row.previous == PREV || row.register_class == 0;
  if (row.previous == PREV) {
    ASSERT_EQ(status(message), 200);
    message.call_id = "successor";
  }
  authenticate(challenged);
  ASSERT_EQ(status(message), challenged ? 401 : 200);
  if (row.previous == PREV && row.register_class == 3) {
    // A challenged one that is answered 200 by a retransmission counts as registered; the next one refreshes.
    ASSERT_EQ(status(message), 200);
  }
  answerAll();
  authenticate(row.auth == ON);

  if (row.register_class == 0 || row.register_class == 3 || row.register_class == 4) message.cseq = 11;
  if (row.register_class == 1) message.call_id = "another";
  if (row.register_class == 4) message.expires = "0";
  if (row.register_class == 5) message.cseq = 9;
  table.operations.clear();
  const std::size_t told = dialog.notifies().size();
  LogCapture log;
  const fake::Request& request = send(message);

  EXPECT_TRUE(
      log.has(5, "IMSE_REG: IMSE_Registrar::handle_existing_client_register " + std::to_string(row.register_class)));
  EXPECT_EQ(request.status(), row.status);
  EXPECT_TRUE(connector.closed(&request));
  EXPECT_EQ(clientCount(), row.clients);
  EXPECT_EQ(table.operations, row.operations);
  answerAll();
  Texts notifies = dialog.notifies();
  notifies.erase(notifies.begin(), notifies.begin() + static_cast<std::ptrdiff_t>(told));
  EXPECT_EQ(notifies, row.notifies);
}

INSTANTIATE_TEST_SUITE_P(Rows, ExistingClientTable, ::testing::ValuesIn(kRows), rowName);

// --- One by one ------------------------------------------------------------------------------------------------------

TEST_F(RegistrarExistingTest, ANewCallIdOnAModulesPortIsRefused) {
  EXPECT_EQ(status(module()), 200);
  LogCapture log;
  EXPECT_EQ(status({.port = 6000, .call_id = "other"}), 403);
  EXPECT_TRUE(log.has(5, "IMSE_REG: RE-REG on existing client "));
  EXPECT_TRUE(log.has(4, "IMSE_REG: not expecting re-reg for iclients"));
  EXPECT_EQ(clientCount(), 1u);
}

TEST_F(RegistrarExistingTest, AModuleOnAnExternalUserAgentsPortIsRefused) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  EXPECT_EQ(status(module(5070)), 400);
  EXPECT_TRUE(log.has(4, "IMSE_REG: Int client registering on a port where external UA is registered"));
  EXPECT_EQ(clientCount(), 1u);
}

TEST_F(RegistrarExistingTest, ARetransmissionGetsTheSame200Again) {
  const std::string first = send({}).answers.at(0);
  EXPECT_EQ(send({}).answers.at(0), first);
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
}

TEST_F(RegistrarExistingTest, AModulesEndIsSilent) {
  subscribe();
  answerAll();
  EXPECT_EQ(status(module()), 200);
  Register end = module();
  end.cseq = 2;
  end.expires = "0";
  EXPECT_EQ(send(end).answered("Expires"), "0");
  EXPECT_EQ(table.operations, (Texts{"add 6000", "delete 6000"}));
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_EQ(dialog.notifies(), Texts{"active -"});
}

TEST_F(RegistrarExistingTest, ARefreshEchoesTheNewExpiryAndChangesNothingElse) {
  subscribe();
  EXPECT_EQ(status({}), 200);
  answerAll();
  const Texts told = dialog.notifies();
  const fake::Request& request = send({.cseq = 2, .expires = "77"});
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Expires"), "77");
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "1");
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  EXPECT_EQ(clientCount(), 1u);
  answerAll();
  EXPECT_EQ(dialog.notifies(), told);
}

TEST_F(RegistrarExistingTest, AReregistrationReplacesTheClientUnderItsOldId) {
  subscribe();
  EXPECT_EQ(status(bob()), 200);
  EXPECT_EQ(status({}), 200);
  answerAll();
  const Texts told = dialog.notifies();
  IMSE_Client* const old = registrar->clients().back().get();
  LogCapture log;
  const fake::Request& request = send({.call_id = "call-2", .cseq = 1, .expires = "50"});
  EXPECT_EQ(request.status(), 200);
  EXPECT_EQ(request.answered("Expires"), "50");
  EXPECT_EQ(request.answered("Zel-Profile-ID"), "1");
  EXPECT_TRUE(log.has(5, "IMSE_REG: handle_existing_client: process register 0"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: imse_registrar_pre_client_replace"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: Replacing 3 with 2"));
  EXPECT_TRUE(log.has(5, "IMSE_REG:"));
  EXPECT_EQ(clientCount(), 2u);
  EXPECT_NE(registrar->clients().back().get(), old);
  EXPECT_EQ(external(1).get_ua_id(), 2u);
  EXPECT_EQ(external(1).get_prev_client(), nullptr);
  EXPECT_EQ(registrar->domains()[0]->clients(), (std::vector<IMSE_ExtClient*>{&external(0), &external(1)}));
  EXPECT_EQ(table.operations, (Texts{"add 5071", "add 5070"}));
  answerAll();
  EXPECT_EQ(dialog.notifies(), told);
  // The new Call-ID is the one that counts now.
  EXPECT_EQ(send({.call_id = "call-2", .cseq = 2}).status(), 200);
  EXPECT_EQ(clientCount(), 2u);
}

TEST_F(RegistrarExistingTest, AReregistrationThatNoLongerMatchesIsRefused) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  Register moved{.call_id = "call-2"};
  moved.body = fake::uaInfo("home", fake::aor("sip:new@home.net", ""));
  EXPECT_EQ(status(moved), 403);
  EXPECT_TRUE(log.has(4, "IMSE_REG:client validate failed "));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
  EXPECT_EQ(status({.cseq = 2}), 200);
}

TEST_F(RegistrarExistingTest, AReregistrationWithoutAUsableBodyIsRefused) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  const fake::Request& request = send({.call_id = "call-2", .body = "<other/>"});
  EXPECT_EQ(request.status(), 400);
  EXPECT_TRUE(connector.closed(&request));
  EXPECT_TRUE(log.has(4, "IMSE_REG: Unable to create object for new client"));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(status({.cseq = 2}), 200);
}

TEST_F(RegistrarExistingTest, AReregistrationThatCannotBeAnsweredLeavesTheOldClient) {
  EXPECT_EQ(status({}), 200);
  last = std::make_unique<fake::Request>(Register{.call_id = "call-2"}.text());
  last->refuse_answer = true;
  deliver();
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
  EXPECT_EQ(status({.cseq = 2}), 200);
}

TEST_F(RegistrarExistingTest, AnEndUnderAStrangeCallIdIsClosedWithoutAnAnswer) {
  EXPECT_EQ(status({}), 200);
  LogCapture log;
  const fake::Request& request = send({.call_id = "call-2", .expires = "0"});
  EXPECT_TRUE(log.has(4, "IMSE_REG: default handler RE-REG ,can't enter here"));
  EXPECT_TRUE(request.answers.empty());
  EXPECT_EQ(request.releases, 0);
  EXPECT_TRUE(connector.closed(&request));
  EXPECT_EQ(clientCount(), 1u);
  // The old client holds nothing of it: a later turn would touch a request that is gone.
  EXPECT_EQ(status({.cseq = 2}), 200);
  IMSE_Registrar::destroy();
}

TEST_F(RegistrarExistingTest, AUserAgentThatMovedToAnotherPortIsReachedThere) {
  EXPECT_EQ(status({.port = 5070}), 200);
  EXPECT_EQ(status({.port = 5079, .call_id = "call-2"}), 200);
  EXPECT_EQ(external().get_port(), 5079);
  EXPECT_EQ(external().get_ua_id(), 1u);
  EXPECT_EQ(table.operations, (Texts{"add 5070", "delete 5070", "add 5079"}));
  EXPECT_EQ(table.entries.at(0).profile_id, "1");
  // The old port is another's to have.
  EXPECT_EQ(status(bob(5070)), 200);
  EXPECT_EQ(status({.port = 5079, .call_id = "call-2", .cseq = 2, .expires = "0"}), 200);
  ASSERT_EQ(table.entries.size(), 1u);
  EXPECT_EQ(table.entries[0].ua_port, "5070");
}

TEST_F(RegistrarExistingTest, ARegistrationThatSaysTheSameKeepsItsEntry) {
  EXPECT_EQ(status({}), 200);
  EXPECT_EQ(status({.call_id = "call-2"}), 200);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
}

TEST_F(RegistrarExistingTest, OtherAddressesOfRecordAreReplacedWithinTheEntry) {
  EXPECT_EQ(status({}), 200);
  Register again{.call_id = "call-2"};
  again.body = fake::uaInfo("home", fake::aor("sip:new@home.net", "<events>reg</events>"));
  EXPECT_EQ(status(again), 200);
  EXPECT_EQ(table.operations, (Texts{"add 5070", "replace 5070"}));
  ASSERT_EQ(table.entries.at(0).aors.size(), 1u);
  EXPECT_EQ(table.entries[0].aors[0].aor, "sip:new@home.net");
  // Methods alone are a difference too.
  again.call_id = "call-3";
  again.body = fake::uaInfo("home", fake::aor("sip:new@home.net", "<events>reg</events><methods>MESSAGE</methods>"));
  EXPECT_EQ(status(again), 200);
  EXPECT_EQ(table.entries[0].aors[0].methods, "MESSAGE");
}

TEST_F(RegistrarExistingTest, AnotherNameOnTheSamePortIsAnEntryOfItsOwn) {
  EXPECT_EQ(status({}), 200);
  EXPECT_EQ(status({.from = "sip:alice2@home.net", .call_id = "call-2"}), 200);
  EXPECT_EQ(table.operations, (Texts{"add 5070", "delete 5070", "add 5070"}));
  EXPECT_EQ(table.entries.at(0).uri, "sip:alice2@home.net");
}

TEST_F(RegistrarExistingTest, APortThatIsTakenIsRefusedAndEverythingStays) {
  ClientTable_Entry_T own;
  own.ua_port = "5060";
  table.entries.push_back(own);  // the registrar's
  EXPECT_EQ(status({}), 200);
  EXPECT_EQ(status(bob()), 200);
  subscribe();
  answerAll();
  for (const int port : {5060, 5071}) {
    LogCapture log(4);
    Register moved{.port = port, .call_id = "call-2"};
    moved.body = fake::uaInfo("home", fake::aor("sip:alice@home.net", "<feature-tag>x</feature-tag>"));
    const fake::Request& request = send(moved);
    EXPECT_EQ(request.status(), 400) << port;
    EXPECT_EQ(log.texts(), Texts{"IMSE_REG: the routing table does not take the new entry of a known user agent"});
  }
  EXPECT_EQ(table.operations, (Texts{"add 5070", "add 5071"}));
  ASSERT_NE(table.entry("5070"), nullptr);
  EXPECT_EQ(table.entry("5070")->aors.at(0).events, "reg");
  EXPECT_EQ(clientCount(), 2u);
  EXPECT_EQ(registrar->domains()[0]->clients().size(), 2u);
  // It is still there to refresh and to leave, and leaves with its own entry.
  EXPECT_EQ(status({.cseq = 2}), 200);
  EXPECT_EQ(status({.cseq = 3, .expires = "0"}), 200);
  EXPECT_NE(table.entry("5060"), nullptr);
  EXPECT_EQ(table.entry("5070"), nullptr);
}

TEST_F(RegistrarExistingTest, AddressesThatTheTableDoesNotTakeAreRefusedAndEverythingStays) {
  EXPECT_EQ(status({}), 200);
  table.refuse_aors = true;
  Register again{.port = 5079, .call_id = "call-2"};
  again.body = fake::uaInfo("home", fake::aor("sip:alice@home.net", "<events>reg</events>"));
  EXPECT_EQ(status(again), 400);
  EXPECT_EQ(external().get_port(), 5070);
  ASSERT_EQ(table.entries.size(), 1u);
  EXPECT_EQ(table.entries[0].ua_port, "5070");
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
}

TEST_F(RegistrarExistingTest, AnEntryThatTheTableHasNoRoomForIsRefusedAndEverythingStays) {
  EXPECT_EQ(status({}), 200);
  table.full = true;
  EXPECT_EQ(status({.from = "sip:alice-with-a-longer-name@home.net", .call_id = "call-2"}), 400);
  EXPECT_EQ(status({.port = 5079, .call_id = "call-3"}), 400);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  ASSERT_EQ(table.entries.size(), 1u);
  EXPECT_EQ(table.entries[0].uri, "sip:alice@home.net");
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
  EXPECT_EQ(status({.cseq = 2, .expires = "0"}), 200);
  EXPECT_TRUE(table.entries.empty());
}

TEST_F(RegistrarExistingTest, AMoveThatCannotBeAnsweredDoesNotHappen) {
  EXPECT_EQ(status({}), 200);
  Register moved{.port = 5079, .call_id = "call-2"};
  moved.body = fake::uaInfo("home", fake::aor("sip:new@home.net", "<events>reg</events>"));
  last = std::make_unique<fake::Request>(moved.text());
  last->refuse_answer = true;
  deliver();
  EXPECT_EQ(external().get_port(), 5070);
  ASSERT_EQ(table.entries.size(), 1u);
  EXPECT_EQ(table.entries[0].ua_port, "5070");
  EXPECT_EQ(table.entries[0].aors.at(0).aor, "sip:alice@home.net");
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
}

TEST_F(RegistrarExistingTest, AChallengedSuccessorDoesNotTakeAPortThatIsTakenMeanwhile) {
  EXPECT_EQ(status({}), 200);
  registrar->set_authentication(false, true);
  EXPECT_EQ(status({.port = 5079, .call_id = "call-2"}), 401);
  registrar->set_authentication(false, false);
  ClientTable_Entry_T other;
  other.ua_port = "5079";
  table.entries.push_back(other);
  EXPECT_EQ(status({.port = 5079, .call_id = "call-2", .cseq = 2}), 400);
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(external().get_port(), 5070);
  EXPECT_NE(table.entry("5070"), nullptr);
}

TEST_F(RegistrarExistingTest, ATimeBelowZeroIsRefusedAndChangesNothing) {
  EXPECT_EQ(status({.expires = "-5"}), 400);
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_EQ(status({}), 200);
  EXPECT_EQ(status({.cseq = 2, .expires = "-5"}), 400);
  EXPECT_EQ(status({.call_id = "call-2", .expires = "-1"}), 400);
  EXPECT_EQ(external().get_expiry_value(), 3600);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
}

TEST_F(RegistrarExistingTest, AChallengedSuccessorIsFoundFirst) {
  EXPECT_EQ(status({}), 200);
  registrar->set_authentication(false, true);
  EXPECT_EQ(status({.call_id = "call-2"}), 401);
  EXPECT_EQ(clientCount(), 2u);
  EXPECT_EQ(external(0).state(), IMSE_CLIENT_CHALLENGED);
  EXPECT_EQ(external(0).get_prev_client(), &external(1));
  registrar->set_authentication(false, false);
  LogCapture log;
  EXPECT_EQ(send({.call_id = "call-2", .cseq = 2}).answers.size(), 1u);
  EXPECT_TRUE(log.has(5, "IMSE_REG : RE-REG --> previous client exists"));
  EXPECT_TRUE(log.has(5, "IMSE_REG: removing the prev client from proxy"));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(external().get_prev_client(), nullptr);
  EXPECT_EQ(registrar->domains()[0]->clients(), std::vector<IMSE_ExtClient*>{&external()});
  EXPECT_EQ(table.operations, (Texts{"add 5070", "delete 5070", "add 5070"}));
}

TEST_F(RegistrarExistingTest, AChallengedSuccessorThatNoLongerMatchesIsDropped) {
  EXPECT_EQ(status({}), 200);
  registrar->set_authentication(false, true);
  Register moved{.call_id = "call-2"};
  moved.body = fake::uaInfo("home", fake::aor("sip:new@home.net", ""));
  EXPECT_EQ(status(moved), 401);
  registrar->set_authentication(false, false);
  moved.cseq = 2;
  LogCapture log;
  EXPECT_EQ(status(moved), 403);
  EXPECT_TRUE(log.has(4, "IMSE_REG: re-reg,client has changed domain prop"));
  EXPECT_EQ(clientCount(), 1u);
  EXPECT_EQ(status({.cseq = 2}), 200);
}

TEST_F(RegistrarExistingTest, ASuccessorForgetsAPreviousClientThatAnotherReplaced) {
  EXPECT_EQ(status({.port = 5070}), 200);
  registrar->set_authentication(false, true);
  const Register by_from{.port = 5080, .call_id = "call-2"};
  EXPECT_EQ(status(by_from), 401);
  Register by_port = bob(5070);
  EXPECT_EQ(status(by_port), 401);
  ASSERT_EQ(clientCount(), 3u);
  EXPECT_EQ(external(0).get_prev_client(), &external(2));
  EXPECT_EQ(external(1).get_prev_client(), &external(2));
  registrar->set_authentication(false, false);
  // The first of the two takes the place.
  Register answer = by_from;
  answer.cseq = 2;
  EXPECT_EQ(status(answer), 200);
  ASSERT_EQ(clientCount(), 2u);
  EXPECT_EQ(external(0).get_prev_client(), nullptr);
  // The other is a new client now.
  by_port.cseq = 2;
  EXPECT_EQ(status(by_port), 200);
  EXPECT_EQ(table.operations, (Texts{"add 5070", "delete 5070", "add 5080", "add 5070"}));
}

TEST_F(RegistrarExistingTest, AChallengedClientThatIsAdmittedIsNoNewClient) {
  registrar->set_authentication(true, true);
  EXPECT_EQ(status({}), 401);
  registrar->set_authentication(false, false);
  LogCapture log;
  EXPECT_EQ(status({.cseq = 2}), 200);
  EXPECT_TRUE(log.has(5, "IMSE_REG: Successfully processed the Existing client object"));
  EXPECT_EQ(external().get_ua_id(), 1u);
}

TEST_F(RegistrarExistingTest, AChallengedClientThatCannotBeAdmittedIsDropped) {
  registrar->set_authentication(true, true);
  EXPECT_EQ(status({}), 401);
  EXPECT_EQ(status(module()), 401);
  registrar->set_authentication(false, false);
  table.refuse = true;
  LogCapture log;
  EXPECT_EQ(status({.cseq = 2}), 400);
  Register second = module();
  second.cseq = 2;
  EXPECT_EQ(status(second), 400);
  EXPECT_EQ(log.count(4, "IMSE_REG: Couldn't process the existing client object. Removing from the client list"), 2);
  EXPECT_EQ(clientCount(), 0u);
}

TEST_F(RegistrarExistingTest, ChallengedSuccessorsDoNotFillTheListWithoutEnd) {
  EXPECT_EQ(status({}), 200);
  registrar->set_authentication(false, true);
  for (std::size_t i = 1; i < framework::bounds().clients; ++i) {
    ASSERT_EQ(status({.call_id = "again-" + std::to_string(i)}), 401);
  }
  EXPECT_EQ(status({.call_id = "too-many"}), 400);
  EXPECT_EQ(clientCount(), framework::bounds().clients);
}

TEST_F(RegistrarExistingTest, ADeregistrationThatCannotBeAnsweredStillRemoves) {
  EXPECT_EQ(status({}), 200);
  last = std::make_unique<fake::Request>(Register{.cseq = 2, .expires = "0"}.text());
  last->refuse_answer = true;
  deliver();
  EXPECT_EQ(clientCount(), 0u);
  EXPECT_TRUE(table.entries.empty());
}

TEST_F(RegistrarExistingTest, AChallengedClientThatLeavesHasNoDomainToLeave) {
  registrar->set_authentication(false, true);
  EXPECT_EQ(status({}), 401);
  registrar->set_authentication(false, false);
  LogCapture log;
  EXPECT_EQ(status({.cseq = 2, .expires = "0"}), 200);
  EXPECT_TRUE(log.has(4, "IMSE_REG:client get domain failed "));
  EXPECT_EQ(clientCount(), 0u);
}

TEST_F(RegistrarExistingTest, AnInvalidRegisterIsRefusedAndChangesNothing) {
  EXPECT_EQ(status({.cseq = 5}), 200);
  EXPECT_EQ(status({.cseq = 4}), 400);
  EXPECT_EQ(status({.from = "sip:bob@home.net", .cseq = 6}), 400);
  EXPECT_EQ(status({.cseq = 5}), 200);
  EXPECT_EQ(table.operations, Texts{"add 5070"});
  EXPECT_EQ(clientCount(), 1u);
}
