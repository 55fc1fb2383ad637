#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "framework/bounds.h"
#include "routing_fixture.h"

namespace {

using Keys = std::vector<std::string>;

/// The key that follows when nothing was refused a number.
std::string next(const std::string& key) {
  return std::to_string(std::stoul(key) + 1);
}

/// A value that no enumerator has.
template <class Enum>
Enum unknown(int value) {
  return static_cast<Enum>(value);
}

// --- Adding

TEST_F(RoutingTable, AddClientStoresAllFieldsAndOpensAConnectionToTheUserAgent) {
  ClientTable_Entry_T entry = client("6001", {"sip:alice@home.example"}, "7");
  entry.uri = "sip:alice@127.0.0.1:6001";
  entry.profile_name = "internet";
  entry.spare_text = "spare";
  entry.headers = {{"P-Access-Network-Info", "IEEE-802.11"}};
  entry.packages = "reg,presence";
  entry.aors[0].feature_tags = {"+g.oma.sip-im"};
  entry.aors[0].events = "reg";
  entry.aors[0].methods = "MESSAGE";
  entry.aors[0].content_types = "text/plain";

  const std::string key = add(entry);
  const RoutingTable_Entry_T* stored = table.client(key);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->ua_port, "6001");
  EXPECT_EQ(stored->uri, "sip:alice@127.0.0.1:6001");
  EXPECT_EQ(stored->profile_id, "7");
  EXPECT_EQ(stored->profile_name, "internet");
  EXPECT_EQ(stored->spare_text, "spare");
  ASSERT_EQ(stored->headers.size(), 1U);
  EXPECT_EQ(stored->headers[0].name, "P-Access-Network-Info");
  EXPECT_EQ(stored->headers[0].value, "IEEE-802.11");
  EXPECT_EQ(stored->packages, "reg,presence");
  ASSERT_EQ(stored->aors.size(), 1U);
  EXPECT_EQ(stored->aors[0].aor, "sip:alice@home.example");
  EXPECT_EQ(stored->aors[0].feature_tags, Keys{"+g.oma.sip-im"});
  EXPECT_EQ(stored->aors[0].events, "reg");
  EXPECT_EQ(stored->aors[0].methods, "MESSAGE");
  EXPECT_EQ(stored->aors[0].content_types, "text/plain");
  EXPECT_EQ(stored->domain_key, "");
  EXPECT_EQ(stored->tcp_client_conn, &engine.connections.front());
  EXPECT_EQ(engine.opened, (std::vector<FakeEngine::Opened>{{"TCP", "127.0.0.1", 5060, "127.0.0.1", 6001}}));
}

TEST_F(RoutingTable, AddClientSaysWhatItDoes) {
  LogCapture log;
  ASSERT_TRUE(table.addClient(client("6001", {"sip:alice@home.example"}, "7")));
  const std::string key = table.findKey(CT_UA_PORT, "6001");
  Keys expected = {"Adding a new client",
                   "Finding client with port=6001",
                   "identifier=0, identifier_value=6001",
                   "Could not find any Client entry, returning empty client key",
                   "findClient returning client based on port=6001, key=",
                   "Client UA Port does not exist - Adding client",
                   "pushing aor=home.example into domain_list",
                   "Profile Id=7",
                   "identifier=0, identifier_value=7",
                   "Returning empty domain key",
                   "findDomain returning domain based on profile-id=7, key=",
                   "Successfully Added Client key=" + key};
  Keys texts = log.texts();
  texts.resize(expected.size());
  EXPECT_EQ(texts, expected);
}

TEST_F(RoutingTable, AddClientRefusesAnEmptyPort) {
  LogCapture log;
  EXPECT_FALSE(table.addClient(client("")));
  EXPECT_EQ(log.texts(), (Keys{"Adding a new client", "ERROR: addClient called with empty ua_port"}));
  EXPECT_TRUE(log.has(4, "ERROR: addClient called with empty ua_port"));
}

TEST_F(RoutingTable, AddClientRefusesAKnownPortAndUsesNoKeyForIt) {
  const std::string first = add(client("6001"));
  {
    LogCapture log;
    EXPECT_FALSE(table.addClient(client("6001")));
    EXPECT_TRUE(log.has(4, "Client already exists - Cannot add client"));
    EXPECT_TRUE(log.has(5, "findClient returning client based on port=6001, key=" + first));
  }
  EXPECT_EQ(engine.opened.size(), 1U);
  EXPECT_EQ(add(client("6002")), next(first));
}

struct AorCase {
  const char* label;
  std::vector<std::string> aors;
  bool accepted;
};

const AorCase kAorCases[] = {
    {"no AOR", {}, true},
    {"one empty AOR", {""}, true},
    {"same domain, other users", {"sip:alice@home.example", "sip:bob@home.example"}, true},
    {"two domains", {"sip:alice@home.example", "sip:alice@work.example"}, false},
    {"domain and none", {"sip:alice@home.example", "alice"}, false},
    {"none twice", {"alice", "tel:+4930123"}, true},
    {"three pieces count as none", {"a@b@c", "alice"}, true},
    {"first, second, first", {"sip:a@one.example", "sip:a@two.example", "sip:a@one.example"}, false},
    {"domains compare with their case", {"sip:a@one.example", "sip:a@ONE.example"}, false},
    {"same domain three times", {"sip:a@one.example", "sip:b@one.example", "sip:c@one.example"}, true},
};

TEST_F(RoutingTable, AddClientAcceptsAorsOfOneDomainOnly) {
  int port = 6001;
  for (const AorCase& c : kAorCases) {
    SCOPED_TRACE(c.label);
    LogCapture log;
    EXPECT_EQ(table.addClient(client(std::to_string(port++), c.aors)), c.accepted);
    EXPECT_EQ(log.has(4, "ERROR: AORs have different domains for one entry. Cannot add client"), !c.accepted);
  }
}

TEST_F(RoutingTable, AddClientNamesTheDomainOfEachAor) {
  LogCapture log;
  EXPECT_FALSE(table.addClient(client("6001", {"sip:alice@home.example", "alice"})));
  EXPECT_EQ(log.count(5, "pushing aor=home.example into domain_list"), 1);
  EXPECT_EQ(log.count(5, "Pushing NULL domain"), 1);
  for (const LogCapture::Line& line : log.lines()) {
    EXPECT_TRUE(line.text != "Pushing NULL domain" || line.function == "addClient");
  }
}

TEST_F(RoutingTable, RefusedAorsUseNoKeyAndOpenNothing) {
  const std::string first = add(client("6001"));
  EXPECT_FALSE(table.addClient(client("6002", {"a@one.example", "a@two.example"})));
  EXPECT_EQ(engine.opened.size(), 1U);
  EXPECT_EQ(add(client("6003")), next(first));
}

TEST_F(RoutingTable, AClientWhoseConnectionFailsIsAddedWithoutOne) {
  engine.refuse_connections = true;
  LogCapture log;
  const std::string key = add(client("6001"));
  EXPECT_TRUE(log.has(4, "TCP Client connection with UA failed."));
  ASSERT_NE(table.client(key), nullptr);
  EXPECT_EQ(table.client(key)->tcp_client_conn, nullptr);
}

TEST_F(RoutingTable, APortThatIsNoNumberIsAddedAndOpensPortZero) {
  add(client("not-a-port"));
  EXPECT_EQ(engine.opened.back().port, 0);
}

TEST_F(RoutingTable, APortThatIsTooLargeIsNotCutToAnother) {
  add(client("4294972356"));
  EXPECT_GT(engine.opened.back().port, 65535);
  Domain_Entry_T entry = domain("1");
  entry.proxy_port = "4294972356";
  add(entry);
  EXPECT_GT(engine.opened.back().port, 65535);
}

TEST_F(RoutingTable, AKeyIsNeverGivenOutTwice) {
  const std::string first = add(client("6001"));
  ASSERT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(add(client("6001")), next(first));
  IMS_Proxy_RoutingTable_Impl other;  // the counter belongs to the class
  ASSERT_TRUE(other.addClient(client("6001")));
  EXPECT_EQ(other.findKey(CT_UA_PORT, "6001"), next(next(first)));
}

/// Runs in a process of its own, where no key was given out yet.
[[noreturn]] void eleven_clients_in_a_fresh_process(IMS_Proxy_RoutingTable_Impl& table) {
  bool good = true;
  for (int i = 0; i <= 10; ++i) {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(6000 + i);
    entry.uri = i == 2 || i == 10 ? "sip:wanted@127.0.0.1" : "sip:other@127.0.0.1";
    good = good && table.addClient(entry) && table.findKey(CT_UA_PORT, entry.ua_port) == std::to_string(i);
  }
  if (!good) std::cerr << "keys are not 0 to 10\n";
  if (table.findClient(CF_URI, "wanted") != "10") {
    std::cerr << "first is not 10\n";
    good = false;
  }
  Keys all;
  table.findClients_ProfileId("", all);
  if (all != Keys{"0", "1", "10", "2", "3", "4", "5", "6", "7", "8", "9"}) {
    std::cerr << "not walked in string order\n";
    good = false;
  }
  std::exit(good ? 0 : 1);
}

TEST_F(RoutingTable, ElevenClientsGetKeys0To10AndAreWalkedInStringOrder) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(eleven_clients_in_a_fresh_process(table), testing::ExitedWithCode(0), "");
}

TEST_F(RoutingTable, BothConstructorsStartEmpty) {
  IMS_Proxy_RoutingTable_Impl owned(nullptr);
  EXPECT_EQ(owned.findKey(CT_UA_PORT, "6001"), "");
  EXPECT_EQ(owned.client("0"), nullptr);
  EXPECT_EQ(owned.domain("0"), nullptr);
  EXPECT_EQ(table.client(""), nullptr);
}

// --- Deleting

TEST_F(RoutingTable, DeletingAClientDropsItsRecordAndItsAuthentication) {
  const std::string domain_key = add(domain("1"));
  const std::string key = add(client("6001", {}, "1"));
  ASSERT_EQ(table.domain(domain_key)->client_count, 1U);
  LogCapture log;
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(log.texts().front(), "Delete client field  - identifier type 0, identifier_value 6001");
  EXPECT_EQ(log.texts().back(), "Delete Client is Successful");
  EXPECT_EQ(table.client(key), nullptr);
  EXPECT_EQ(table.domain(domain_key)->client_count, 0U);
  EXPECT_EQ(engine.dropped_clients, (std::vector<std::pair<std::string, std::string>>{{domain_key, key}}));
  EXPECT_EQ(engine.forgotten_clients, std::vector<std::string>{key});
}

TEST_F(RoutingTable, DeletingAClientWithoutDomainStillDropsItsAuthentication) {
  const std::string key = add(client("6001"));
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(engine.dropped_clients, (std::vector<std::pair<std::string, std::string>>{{"", key}}));
  EXPECT_EQ(engine.forgotten_clients, std::vector<std::string>{key});
}

TEST_F(RoutingTable, DeletingAClientLeavesItsOpenConnectionOpen) {
  add(client("6001"));
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_TRUE(engine.closed.empty());
}

TEST_F(RoutingTable, DeletingAClientWithoutConnectionClosesTheNullHandle) {
  engine.refuse_connections = true;
  add(client("6001"));
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(engine.closed, (std::vector<SIPLIB_SIPClientTcpTransport*>{nullptr}));
}

TEST_F(RoutingTable, DeletingAnUnknownClientIsRefused) {
  LogCapture log;
  EXPECT_FALSE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_TRUE(log.has(4, "Client entry not found"));
  EXPECT_TRUE(engine.closed.empty());
  EXPECT_TRUE(engine.dropped_clients.empty());
}

// --- Field changes

TEST_F(RoutingTable, AppendingASingleFieldChangesNothing) {
  const std::string key = add(client("6001"));
  LogCapture log;
  EXPECT_TRUE(table.appendClientField(CT_UA_PORT, "6001", CT_UA_PORT, "9999"));
  EXPECT_EQ(log.texts().front(), "appending client field  - identifier type 0, identifier_value 6001");
  EXPECT_EQ(table.client(key)->ua_port, "6001");
  EXPECT_FALSE(table.appendClientField(CT_UA_PORT, "6002", CT_UA_PORT, "9999"));
  EXPECT_TRUE(log.has(4, "Client Entry does not exist "));
}

TEST_F(RoutingTable, HeadersAreAppendedInOrderAndReplacedAsAWhole) {
  const std::string key = add(client("6001"));
  LogCapture log;
  EXPECT_TRUE(table.appendClientField(CT_UA_PORT, "6001", std::vector<ClientHeader_T>{{"A", "1"}, {"B", "2"}}));
  EXPECT_TRUE(table.appendClientField(CT_UA_PORT, "6001", std::vector<ClientHeader_T>{{"C", "3"}}));
  ASSERT_EQ(table.client(key)->headers.size(), 3U);
  EXPECT_EQ(table.client(key)->headers[0].name, "A");
  EXPECT_EQ(table.client(key)->headers[2].value, "3");
  EXPECT_TRUE(log.has(5, "appending client field  - identifier type 0, identifier_value 6001"));

  EXPECT_TRUE(table.replaceClientField(CT_UA_PORT, "6001", std::vector<ClientHeader_T>{{"D", "4"}}));
  EXPECT_TRUE(log.has(5, "replacing HDR value to client field - - identifier type 0, identifier_value 6001"));
  ASSERT_EQ(table.client(key)->headers.size(), 1U);
  EXPECT_EQ(table.client(key)->headers[0].name, "D");

  EXPECT_FALSE(table.appendClientField(CT_UA_PORT, "6002", std::vector<ClientHeader_T>{{"A", "1"}}));
  EXPECT_FALSE(table.replaceClientField(CT_UA_PORT, "6002", std::vector<ClientHeader_T>{{"A", "1"}}));
  EXPECT_EQ(log.count(4, "Client Entry does not exist "), 2);
}

TEST_F(RoutingTable, OnlyAnAorEqualToTheFirstIsAppended) {
  const std::string key = add(client("6001", {"sip:alice@home.example"}));
  LogCapture log;
  EXPECT_FALSE(table.appendClientField(
      CT_UA_PORT, "6001",
      std::vector<ClientAOR_T>{{"sip:bob@home.example", {}, {}, {}, {}}, {"sip:alice@home.example", {}, {}, {}, {}}}));
  EXPECT_EQ(log.texts().front(), "adding new aor value to client field - - identifier type 0, identifier_value 6001");
  EXPECT_TRUE(log.has(4, "AOR domain mismatch"));
  EXPECT_EQ(table.client(key)->aors.size(), 1U);

  EXPECT_TRUE(table.appendClientField(CT_UA_PORT, "6001",
                                      std::vector<ClientAOR_T>{{"sip:alice@home.example", {}, "reg", {}, {}}}));
  ASSERT_EQ(table.client(key)->aors.size(), 2U);
  EXPECT_EQ(table.client(key)->aors[1].events, "reg");
}

TEST_F(RoutingTable, AorsAppendedBeforeAMismatchStay) {
  const std::string key = add(client("6001", {"sip:alice@home.example"}));
  EXPECT_FALSE(table.appendClientField(CT_UA_PORT, "6001",
                                       std::vector<ClientAOR_T>{{"sip:alice@home.example", {}, {}, {}, {}},
                                                                {"sip:alice@work.example", {}, {}, {}, {}},
                                                                {"sip:alice@home.example", {}, {}, {}, {}}}));
  EXPECT_EQ(table.client(key)->aors.size(), 2U);
}

TEST_F(RoutingTable, AppendingAnAorToAClientWithoutAnyIsRefused) {
  const std::string key = add(client("6001"));
  LogCapture log;
  EXPECT_FALSE(table.appendClientField(CT_UA_PORT, "6001",
                                       std::vector<ClientAOR_T>{{"sip:alice@home.example", {}, {}, {}, {}}}));
  EXPECT_EQ(log.count(4), 1);
  EXPECT_TRUE(table.client(key)->aors.empty());
  EXPECT_FALSE(table.appendClientField(CT_UA_PORT, "6002", std::vector<ClientAOR_T>{}));
  EXPECT_TRUE(log.has(4, "Client Entry does not exist "));
}

TEST_F(RoutingTable, ReplacingASingleFieldSucceedsEvenWithoutClient) {
  LogCapture log;
  EXPECT_TRUE(table.replaceClientField(CT_UA_PORT, "6001", CT_UA_PORT, "9999"));
  EXPECT_EQ(log.texts(), Keys{"replacing value to client field - - identifier type 0, identifier_value 6001"});
  EXPECT_EQ(table.findKey(CT_UA_PORT, "9999"), "");
}

TEST_F(RoutingTable, ReplacingAorsByNoneIsRefusedBeforeTheClientIsLookedUp) {
  const std::string key = add(client("6001", {"sip:alice@home.example"}));
  LogCapture log;
  EXPECT_FALSE(table.replaceClientField(CT_UA_PORT, "6001", std::vector<ClientAOR_T>{}));
  EXPECT_EQ(log.texts(), (Keys{"replacing AOR value to client field - - identifier type 0, identifier_value 6001",
                               " No AOR to be replaced"}));
  EXPECT_TRUE(log.has(4, " No AOR to be replaced"));
  EXPECT_EQ(table.client(key)->aors.size(), 1U);
}

TEST_F(RoutingTable, AorsAreReplacedWithinOneDomainOnly) {
  for (const AorCase& c : kAorCases) {
    if (c.aors.empty()) continue;
    SCOPED_TRACE(c.label);
    IMS_Proxy_RoutingTable_Impl other;
    ASSERT_TRUE(other.addClient(client("6001", {"sip:old@old.example"})));
    const std::vector<ClientAOR_T> given = client("", c.aors).aors;
    LogCapture log;
    EXPECT_EQ(other.replaceClientField(CT_UA_PORT, "6001", given), c.accepted);
    EXPECT_EQ(log.has(4, "AORs have different domains for one entry. Cannot Replace"), !c.accepted);
    const RoutingTable_Entry_T* stored = other.client(other.findKey(CT_UA_PORT, "6001"));
    ASSERT_NE(stored, nullptr);
    if (c.accepted) {
      ASSERT_EQ(stored->aors.size(), given.size());
      EXPECT_EQ(stored->aors.back().aor, given.back().aor);
    } else {
      ASSERT_EQ(stored->aors.size(), 1U);
      EXPECT_EQ(stored->aors[0].aor, "sip:old@old.example");
    }
  }
  LogCapture log;
  EXPECT_FALSE(table.replaceClientField(CT_UA_PORT, "6001", std::vector<ClientAOR_T>{{"sip:a@b", {}, {}, {}, {}}}));
  EXPECT_TRUE(log.has(4, "Client Entry does not exist "));
}

// --- What all clients bring together

/// Other bounds while it lives.
struct OtherBounds {
  explicit OtherBounds(std::size_t framework::Bounds::*bound, std::size_t value) {
    framework::Bounds other = usual;
    other.*bound = value;
    framework::setBounds(other);
  }
  ~OtherBounds() { framework::setBounds(usual); }
  framework::Bounds usual = framework::bounds();
};

struct Bounded {
  const char* setting;
  std::size_t framework::Bounds::*bound;
  std::size_t amount;  ///< of it, that each `laden` client brings
};
constexpr Bounded kBounded[] = {{"max-aors", &framework::Bounds::aors, 2},
                                {"max-feature-tags", &framework::Bounds::feature_tags, 3},
                                {"max-feature-tag-bytes", &framework::Bounds::feature_tag_bytes, 6},
                                {"max-text-bytes", &framework::Bounds::text_bytes, 28}};

ClientTable_Entry_T laden(const std::string& port) {
  ClientTable_Entry_T entry;
  entry.ua_port = port;
  entry.uri = "sip:u";
  entry.packages = "reg";
  entry.aors = {{"a@h", {"t", "ta"}, "ev", "met", "type"}, {"b@h", {"tag"}, "e", "me", "ty"}};
  return entry;
}
std::string above(const Bounded& row) {
  return std::string("the clients in the table would go above ") + row.setting;
}

TEST_F(RoutingTable, ClientsAreAddedUpToWhatAllMayBringTogether) {
  for (const Bounded& row : kBounded) {
    SCOPED_TRACE(row.setting);
    IMS_Proxy_RoutingTable_Impl other;
    const OtherBounds bounds(row.bound, 2 * row.amount);
    LogCapture log(4);
    EXPECT_TRUE(other.addClient(laden("6001")));
    EXPECT_TRUE(other.addClient(laden("6002")));
    EXPECT_FALSE(log.has(4, above(row)));
    const std::size_t opened = engine.opened.size();
    EXPECT_FALSE(other.addClient(laden("6003")));
    EXPECT_TRUE(log.has(4, above(row)));
    EXPECT_EQ(engine.opened.size(), opened) << "no connection for it";
    EXPECT_EQ(other.findKey(CT_UA_PORT, "6003"), "");
    EXPECT_TRUE(other.deleteClient(CT_UA_PORT, "6001"));
    EXPECT_TRUE(other.addClient(laden("6003"))) << "in place of one that left";
  }
}

TEST_F(RoutingTable, OneClientAboveWhatAllMayBringIsRefused) {
  for (const Bounded& row : kBounded) {
    SCOPED_TRACE(row.setting);
    IMS_Proxy_RoutingTable_Impl other;
    const OtherBounds bounds(row.bound, row.amount - 1);
    LogCapture log(4);
    EXPECT_FALSE(other.addClient(laden("6001")));
    EXPECT_TRUE(log.has(4, above(row)));
  }
}

TEST_F(RoutingTable, ReplacedAorsMakeRoomForThoseThatReplaceThem) {
  for (const Bounded& row : kBounded) {
    SCOPED_TRACE(row.setting);
    IMS_Proxy_RoutingTable_Impl other;
    const OtherBounds bounds(row.bound, row.amount);
    ASSERT_TRUE(other.addClient(laden("6001")));
    LogCapture log(4);
    std::vector<ClientAOR_T> aors = laden("6001").aors;
    EXPECT_TRUE(other.replaceClientField(CT_UA_PORT, "6001", aors));
    EXPECT_EQ(log.count(4), 0);
    aors.push_back({"c@h", {"x"}, "events", "", ""});
    EXPECT_FALSE(other.replaceClientField(CT_UA_PORT, "6001", aors));
    EXPECT_EQ(log.texts(), Keys{above(row)});
    EXPECT_EQ(other.client(other.findKey(CT_UA_PORT, "6001"))->aors.size(), 2U);
    aors = {{"a@h", {}, "", "", ""}};
    EXPECT_TRUE(other.replaceClientField(CT_UA_PORT, "6001", aors));
    EXPECT_TRUE(other.replaceClientField(CT_UA_PORT, "6001", laden("6001").aors)) << "and back";
  }
}

TEST_F(RoutingTable, AorsAreAppendedUpToWhatAllClientsMayBring) {
  for (const Bounded& row : kBounded) {
    SCOPED_TRACE(row.setting);
    IMS_Proxy_RoutingTable_Impl other;
    const OtherBounds bounds(row.bound, 2 * row.amount - 1);
    ASSERT_TRUE(other.addClient(laden("6001")));
    LogCapture log(4);
    const ClientAOR_T same{"a@h", {"ta", "tag"}, "events", "methods", "types"};
    EXPECT_FALSE(other.appendClientField(CT_UA_PORT, "6001", std::vector<ClientAOR_T>{same, same}));
    EXPECT_TRUE(log.has(4, above(row)));
    EXPECT_EQ(other.client(other.findKey(CT_UA_PORT, "6001"))->aors.size(), 3U) << "what fitted stays";
  }
}

// --- Reading

TEST_F(RoutingTable, GetClientCopiesTheRecordOut) {
  ClientTable_Entry_T entry = client("6001", {"sip:alice@home.example"}, "7");
  entry.uri = "sip:alice@127.0.0.1";
  entry.headers = {{"A", "1"}};
  add(entry);
  ClientTable_Entry_T out = client("1", {"sip:old@old.example", "sip:older@old.example"});
  LogCapture log;
  ASSERT_TRUE(table.getClient(CT_UA_PORT, "6001", out));
  EXPECT_EQ(log.texts().front(), "getClient - identifier type 0, identifier_value 6001");
  EXPECT_EQ(out.ua_port, "6001");
  EXPECT_EQ(out.uri, "sip:alice@127.0.0.1");
  EXPECT_EQ(out.profile_id, "7");
  ASSERT_EQ(out.aors.size(), 1U);
  EXPECT_EQ(out.aors[0].aor, "sip:alice@home.example");
  ASSERT_EQ(out.headers.size(), 1U);

  EXPECT_FALSE(table.getClient(CT_UA_PORT, "6002", out));
  EXPECT_TRUE(log.has(4, "Client Entry does not exist "));
  EXPECT_EQ(out.ua_port, "6001");
}

TEST_F(RoutingTable, AnyOtherIdentifierThanThePortFindsNobody) {
  add(client("6001", {"sip:alice@home.example"}));
  const auto type = unknown<ClientTable_Field_T>(1);
  {
    LogCapture log;
    ClientTable_Entry_T out;
    EXPECT_EQ(table.findKey(type, "6001"), "");
    EXPECT_TRUE(log.has(4, "INVALID Identifier 1"));
    EXPECT_FALSE(table.deleteClient(type, "6001"));
    EXPECT_FALSE(table.getClient(type, "6001", out));
    EXPECT_FALSE(table.appendClientField(type, "6001", CT_UA_PORT, "1"));
    EXPECT_FALSE(table.appendClientField(type, "6001", std::vector<ClientHeader_T>{}));
    EXPECT_FALSE(table.appendClientField(type, "6001", std::vector<ClientAOR_T>{}));
    EXPECT_FALSE(table.replaceClientField(type, "6001", std::vector<ClientHeader_T>{}));
    EXPECT_FALSE(table.replaceClientField(type, "6001", client("", {"sip:alice@home.example"}).aors));
  }
  EXPECT_NE(table.findKey(CT_UA_PORT, "6001"), "");
}

TEST_F(RoutingTable, FindKeyLogsWhatItReturns) {
  const std::string key = add(client("6001"));
  LogCapture log;
  EXPECT_EQ(table.findKey(CT_UA_PORT, "6001"), key);
  EXPECT_EQ(log.texts(), (Keys{"identifier=0, identifier_value=6001", "identifier=0, identifier_value=6001",
                               "Found Client entry : client key is " + key, "Returning key=" + key}));
}

TEST_F(RoutingTable, FindClientComparesThePortAndSearchesUriAndPackages) {
  ClientTable_Entry_T entry = client("6001");
  entry.uri = "sip:alice@127.0.0.1";
  entry.packages = "presence,reg-info";
  const std::string key = add(entry);
  struct {
    ClientFilter_Field_T filter;
    const char* value;
    bool found;
  } const cases[] = {
      {CF_UA_PORT, "6001", true},
      {CF_UA_PORT, "600", false},
      {CF_URI, "alice", true},
      {CF_URI, "ALICE", false},
      {CF_URI, "alice@", true},
      {CF_PACKAGES, "reg", true},
      {CF_PACKAGES, "presence,reg-info", true},
      {CF_PACKAGES, "Reg", false},
      {CF_PACKAGES, "6001", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.value) + " in " + std::to_string(c.filter));
    LogCapture log;
    EXPECT_EQ(table.findClient(c.filter, c.value), c.found ? key : "");
    EXPECT_EQ(log.has(5, "Found Client entry : client key is " + key), c.found);
    EXPECT_EQ(log.has(4, "Could not find any Client entry, returning empty client key"), !c.found);
  }
}

TEST_F(RoutingTable, FindClientRefusesOtherFiltersAndEmptyValues) {
  add(client("6001", {"6001"}));
  for (const int filter : {2, 3, 4, 5, 6}) {
    LogCapture log;
    EXPECT_EQ(table.findClient(unknown<ClientFilter_Field_T>(filter), "6001"), "");
    EXPECT_EQ(log.texts(), (Keys{"identifier=" + std::to_string(filter) + ", identifier_value=6001",
                                 "Returning: Invalid identifier"}));
    EXPECT_EQ(log.count(4), 1);
  }
  for (const int filter : {0, 1, 7}) {
    LogCapture log;
    EXPECT_EQ(table.findClient(unknown<ClientFilter_Field_T>(filter), ""), "");
    EXPECT_TRUE(
        log.has(4, "Returning empty client key as identifier_value is empty for identifier=" + std::to_string(filter)));
  }
}

TEST_F(RoutingTable, FindClientsSearchesTheTextOfEachAor) {
  ClientTable_Entry_T entry = client("6001", {"sip:alice@home.example"});
  entry.aors[0].events = "presence,reg-info";
  entry.aors[0].methods = "INVITE,MESSAGE";
  entry.aors[0].content_types = "text/plain";
  const std::string key = add(entry);
  add(client("6002", {"sip:carol@home.example"}));
  struct {
    ClientFilter_Field_T filter;
    const char* value;
    bool found;
    const char* log;
  } const cases[] = {
      {CF_EVENT, "reg", true, "search string is event : presence,reg-info"},
      {CF_EVENT, "INVITE", false, "search string is event : presence,reg-info"},
      {CF_METHOD, "MESSAGE", true, "search string is method: INVITE,MESSAGE"},
      {CF_METHOD, "message", false, "search string is method: INVITE,MESSAGE"},
      {CF_CONTENT_TYPE, "text", true, "search string is content type :  text/plain"},
      {CF_CONTENT_TYPE, "text/html", false, "search string is content type :  text/plain"},
      {CF_AOR, "alice@home", true, "search string is aor : sip:alice@home.example"},
      {CF_AOR, "bob", false, "search string is aor : sip:alice@home.example"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    LogCapture log;
    Keys out = {"old"};
    EXPECT_EQ(table.findClients(c.filter, c.value, out), c.found);
    EXPECT_EQ(out, c.found ? Keys{key} : Keys{});
    EXPECT_TRUE(log.has(5, c.log));
    EXPECT_EQ(log.has(5, "Adding client key=" + key), c.found);
    const std::string size = std::to_string(out.size());
    EXPECT_TRUE(log.has(5, "After sorting clients.size=" + size));
    EXPECT_TRUE(log.has(5, "After unique clients.size=" + size));
    EXPECT_EQ(log.has(4, "Could not find any Client entry for identifier=" + std::to_string(c.filter)), !c.found);
  }
}

TEST_F(RoutingTable, FindClientsGivesAClientOncePerMatchingAor) {
  ClientTable_Entry_T entry = client("6001", {"sip:a@home.example", "sip:b@home.example"});
  entry.aors[0].events = entry.aors[1].events = "reg";
  const std::string key = add(entry);
  LogCapture log;
  Keys out;
  EXPECT_TRUE(table.findClients(CF_EVENT, "reg", out));
  EXPECT_EQ(out, (Keys{key, key}));
  EXPECT_EQ(log.count(5, "Adding client key=" + key), 2);
  EXPECT_TRUE(log.has(5, "After unique clients.size=2"));
}

TEST_F(RoutingTable, FindClientsPutsDistinctKeysFirstAndKeepsTheRestAsItWas) {
  ClientTable_Entry_T twice = client("6001", {"sip:a@home.example", "sip:b@home.example"});
  twice.aors[0].events = twice.aors[1].events = "reg";
  ClientTable_Entry_T also_twice = twice;
  also_twice.ua_port = "6002";
  ClientTable_Entry_T once = client("6003", {"sip:a@home.example"});
  once.aors[0].events = "reg";
  Keys keys = {add(twice), add(also_twice), add(once)};
  Keys sorted = {keys[0], keys[0], keys[1], keys[1], keys[2]};
  std::sort(sorted.begin(), sorted.end());
  Keys distinct = keys;
  std::sort(distinct.begin(), distinct.end());

  LogCapture log;
  Keys out;
  EXPECT_TRUE(table.findClients(CF_EVENT, "reg", out));
  ASSERT_EQ(out.size(), 5U);
  EXPECT_EQ(Keys(out.begin(), out.begin() + 3), distinct);
  EXPECT_EQ(Keys(out.begin() + 3, out.end()), Keys(sorted.begin() + 3, sorted.end()));
  EXPECT_TRUE(log.has(5, "After unique clients.size=5"));
}

TEST_F(RoutingTable, FindClientsRefusesOtherFiltersAndEmptyValues) {
  add(client("6001", {"6001"}));
  for (const int filter : {0, 1, 2, 7}) {
    LogCapture log;
    Keys out = {"old"};
    EXPECT_FALSE(table.findClients(unknown<ClientFilter_Field_T>(filter), "6001", out));
    EXPECT_EQ(out, Keys{"old"});
    EXPECT_TRUE(log.has(4, "Returning  : Invalid identifier"));
    EXPECT_FALSE(table.findClients(unknown<ClientFilter_Field_T>(filter), "6001", {"0"}, out));
    EXPECT_EQ(out, Keys{"old"});
    EXPECT_TRUE(log.has(4, "Returning: Invalid identifier"));
  }
  LogCapture log;
  Keys out = {"old"};
  EXPECT_FALSE(table.findClients(CF_AOR, "", out));
  EXPECT_FALSE(table.findClients(CF_AOR, "", {"0"}, out));
  EXPECT_EQ(out, Keys{"old"});
  EXPECT_EQ(log.count(4, "Returning  : Invalid identifier Value"), 2);
}

TEST_F(RoutingTable, FindClientsAmongKeysLooksAtTheseOnly) {
  ClientTable_Entry_T twice = client("6001", {"sip:a@home.example", "sip:b@home.example"});
  twice.aors[0].methods = twice.aors[1].methods = "MESSAGE";
  ClientTable_Entry_T once = client("6002", {"sip:c@home.example"});
  once.aors[0].methods = "MESSAGE";
  ClientTable_Entry_T never = client("6003", {"sip:d@home.example"});
  const std::string first = add(twice);
  const std::string second = add(once);
  const std::string third = add(never);

  LogCapture log;
  Keys out = {"old"};
  EXPECT_TRUE(table.findClients(CF_METHOD, "MESSAGE", {first, third}, out));
  EXPECT_EQ(out, (Keys{first, first}));
  EXPECT_FALSE(log.has(5, "Adding client key=" + first));
  EXPECT_TRUE(log.has(5, "After sorting output.size=2"));
  EXPECT_TRUE(log.has(5, "After unique output.size=2"));
  EXPECT_TRUE(log.has(5, "Found Client entries"));

  EXPECT_TRUE(table.findClients(CF_METHOD, "MESSAGE", {second, "no such key", ""}, out));
  EXPECT_EQ(out, Keys{second});

  log.clear();
  EXPECT_FALSE(table.findClients(CF_METHOD, "MESSAGE", {third}, out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(log.has(4, "Could not find any Client entry in output "));

  Keys list = {first, second, third};
  EXPECT_TRUE(table.findClients(CF_AOR, "c@home", list, list));  // narrowing a list in place
  EXPECT_EQ(list, Keys{second});
}

TEST_F(RoutingTable, FeatureTagsAreSearchedInTheContactAndKeysAppended) {
  ClientTable_Entry_T entry = client("6001", {"sip:a@home.example"});
  entry.aors[0].feature_tags = {"+g.oma.sip-im", "+g.3gpp.cs-voice", "audio"};
  const std::string first = add(entry);
  entry = client("6002", {"sip:b@home.example", "sip:c@home.example"});
  entry.aors[0].feature_tags = {"video"};
  entry.aors[1].feature_tags = {"text"};
  const std::string second = add(entry);
  LogCapture log;
  Keys out;
  table.findClients_FtrTag("<sip:a@127.0.0.1>;+g.oma.sip-im;audio", out);
  EXPECT_EQ(out, (Keys{first, first}));
  EXPECT_EQ(log.texts().front(), "contact_string=<sip:a@127.0.0.1>;+g.oma.sip-im;audio ");
  EXPECT_EQ(log.count(5, "client key=" + first + ", AOR=sip:a@home.example"), 1);
  EXPECT_EQ(log.count(5, "client key=" + first + ", feature tag =+g.3gpp.cs-voice"), 1);
  EXPECT_TRUE(log.has(5, "After sorting clients.size=2"));
  EXPECT_TRUE(log.has(5, "After unique clients.size=2"));

  out = {"zzz"};
  table.findClients_FtrTag("audio", out);
  EXPECT_EQ(out, (Keys{first, "zzz"}));
  table.findClients_FtrTag("nothing of theirs", out);
  EXPECT_EQ(out, (Keys{first, "zzz"}));

  out.clear();
  table.findClients_FtrTag("text", out);  // of its second address of record
  EXPECT_EQ(out, Keys{second});
}

TEST_F(RoutingTable, FindClientsOfAProfileAppendsThem) {
  ClientTable_Entry_T entry = client("6001", {}, "1");
  entry.uri = "sip:alice@127.0.0.1";
  const std::string first = add(entry);
  add(client("6002", {}, "11"));
  LogCapture log;
  Keys out = {"zzz"};
  table.findClients_ProfileId("1", out);
  EXPECT_EQ(out, (Keys{"zzz", first}));
  EXPECT_EQ(log.texts(), (Keys{"Client: From=sip:alice@127.0.0.1, profile-id =1", "profile_id=1, clients.size=2"}));
}

TEST_F(RoutingTable, AClientIsFoundByItsConnection) {
  add(client("6001"));
  const std::string key = add(client("6002"));
  LogCapture log;
  EXPECT_EQ(table.findClient_Connection(&engine.connections[1]), key);
  EXPECT_TRUE(log.has_part(5, "Finding from routing table, pconn=0x"));
  EXPECT_TRUE(log.has_part(5, " : client key is " + key));

  FakeClientTcp stranger;
  EXPECT_EQ(table.findClient_Connection(&stranger), "");
  EXPECT_TRUE(log.has(4, "Could not find client Key "));

  engine.refuse_connections = true;
  add(client("6003"));
  EXPECT_EQ(table.findClient_Connection(nullptr), "");
  EXPECT_TRUE(log.has(4, "Returning: Empty client key as conn=NULL"));
}

TEST_F(RoutingTable, SaysBeforehandWhetherAnEntryHasRoomInThePlaceOfAnother) {
  const framework::Bounds before = framework::bounds();
  framework::Bounds few;
  few.text_bytes = 20;
  framework::setBounds(few);
  ClientTable_Entry_T one = client("6001", {"ab@x"}), other = client("6002", {"cd@x"});
  one.uri = "sip:a";
  other.uri = "sip:b";
  add(one);
  add(other);  // 2 bytes are left
  one.uri = "sip:abc";
  EXPECT_TRUE(table.hasRoomFor(one, "6001"));
  EXPECT_FALSE(table.hasRoomFor(one, "6003"));  // in nobody's place
  EXPECT_FALSE(table.addClient([&one] {
    ClientTable_Entry_T third = one;
    third.ua_port = "6003";
    return third;
  }()));
  one.uri = "sip:abcd";
  LogCapture log(4);
  EXPECT_FALSE(table.hasRoomFor(one, "6001"));
  EXPECT_EQ(log.texts(), std::vector<std::string>{"the clients in the table would go above max-text-bytes"});
  // What it says holds: asked first, nothing is lost.
  one.uri = "sip:abc";
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_TRUE(table.addClient(one));
  framework::setBounds(before);
}

}  // namespace
