#include "engine/engine_proxy.h"
#include "framework/bounds.h"
#include "routing_fixture.h"

namespace {

using Keys = std::vector<std::string>;

std::string next(const std::string& key) {
  return std::to_string(std::stoul(key) + 1);
}

TEST_F(RoutingTable, AddDomainStoresAllFieldsAndOpensListenerAndConnection) {
  Domain_Entry_T entry = domain("1");
  entry.mode_flag = "no";
  entry.route_set = "<sip:127.0.0.9;lr>";
  entry.username = "alice";
  entry.password = "secret";
  entry.op_mode = "ietf-shared";
  entry.sa_info_list = {{1, 2, 3}};
  LogCapture log;
  const std::string key = add(entry);
  const DomainTable_Entry_T* stored = table.domain(key);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->domain.profile_id, "1");
  EXPECT_EQ(stored->domain.net_intf, "127.0.0.2");
  EXPECT_EQ(stored->domain.proxy_ip, "127.0.0.3");
  EXPECT_EQ(stored->domain.proxy_port, "5070");
  EXPECT_EQ(stored->domain.proxy_transport, "TCP");
  EXPECT_EQ(stored->domain.mode_flag, "no");
  EXPECT_EQ(stored->domain.route_set, "<sip:127.0.0.9;lr>");
  EXPECT_EQ(stored->domain.username, "alice");
  EXPECT_EQ(stored->domain.password, "secret");
  EXPECT_EQ(stored->domain.op_mode, "ietf-shared");
  ASSERT_EQ(stored->domain.sa_info_list.size(), 1U);
  EXPECT_EQ(stored->domain.sa_info_list[0].third, 3U);
  EXPECT_EQ(stored->client_count, 0U);
  EXPECT_EQ(stored->pnotifier, &engine.notifier);
  EXPECT_EQ(stored->tcp_client_conn, &engine.connections.front());
  EXPECT_EQ(IMS_engine_proxy::net_intf_ip, "127.0.0.2");
  EXPECT_EQ(engine.notifiers, Keys{"127.0.0.2:5062"});
  EXPECT_EQ(engine.opened, (std::vector<FakeEngine::Opened>{{"TCP", "127.0.0.2", 5062, "127.0.0.3", 5070}}));

  const Keys texts = log.texts();
  ASSERT_GE(texts.size(), 7U);
  EXPECT_EQ(Keys(texts.begin(), texts.begin() + 6),
            (Keys{"Domain Profile Id=1", "identifier=0, identifier_value=1", "Returning empty domain key",
                  "findDomain returning Domain key=", "Domain does not exist - adding domain key=" + key,
                  "profile_id=1, clients.size=0"}));
  EXPECT_TRUE(log.has_part(5, "dentry.pnotifier=0x"));
  EXPECT_TRUE(log.has(5,
                      "dentry.domain.proxy_ip=127.0.0.3, proxy_port=5070, proxy_transport=TCP, "
                      "route_set=<sip:127.0.0.9;lr>"));
}

TEST_F(RoutingTable, AKnownProfileIsNotAddedAgain) {
  const std::string key = add(domain("1"));
  {
    LogCapture log;
    Domain_Entry_T other = domain("1");
    other.proxy_ip = "127.0.0.9";
    EXPECT_FALSE(table.addDomain(other));
    EXPECT_TRUE(log.has(4, "Domain already exists"));
    EXPECT_TRUE(log.has(5, "findDomain returning Domain key=" + key));
  }
  EXPECT_EQ(table.domain(key)->domain.proxy_ip, "127.0.0.3");
  EXPECT_EQ(engine.notifiers.size(), 1U);
  EXPECT_EQ(add(domain("2")), next(key));
}

TEST_F(RoutingTable, AboveTheBoundADomainIsRefusedAndChangesNothing) {
  const std::size_t most = framework::bounds().routes;
  EXPECT_EQ(most, 256U);
  std::string last;
  for (std::size_t i = 0; i < most; ++i) last = add(domain("route " + std::to_string(i), "UDP"));
  const std::string orphan = add(client("6001", {}, "one more"));
  const std::size_t opened = engine.opened.size();
  const std::size_t notifiers = engine.notifiers.size();
  {
    LogCapture log(4);
    EXPECT_FALSE(table.addDomain(domain("one more")));
    EXPECT_EQ(log.texts(), (Keys{"Returning empty domain key",
                                 "There are 256 routes already - one of profile one more is not set (max-routes)"}));
  }
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, "one more"), "");
  EXPECT_EQ(table.client(orphan)->domain_key, "");
  EXPECT_EQ(engine.opened.size(), opened);
  EXPECT_EQ(engine.notifiers.size(), notifiers);
  EXPECT_EQ(engine.proxies.size(), most);

  EXPECT_TRUE(table.deleteDomain(DT_PROFILE_ID, "route 7"));
  const std::string key = add(domain("one more"));
  EXPECT_EQ(key, next(last));  // the refused one took no key
  EXPECT_EQ(table.client(orphan)->domain_key, key);
  EXPECT_EQ(table.domain(key)->client_count, 1U);
  EXPECT_FALSE(table.addDomain(domain("route 7")));
}

TEST_F(RoutingTable, ADomainLinksTheClientsOfItsProfileAndCountsThem) {
  const std::string first = add(client("6001", {}, "1"));
  const std::string second = add(client("6002", {}, "1"));
  const std::string other = add(client("6003", {}, "2"));
  EXPECT_EQ(table.client(first)->domain_key, "");

  const std::string key = add(domain("1"));
  EXPECT_EQ(table.client(first)->domain_key, key);
  EXPECT_EQ(table.client(second)->domain_key, key);
  EXPECT_EQ(table.client(other)->domain_key, "");
  EXPECT_EQ(table.domain(key)->client_count, 2U);

  LogCapture log;
  const std::string late = add(client("6004", {}, "1"));
  EXPECT_TRUE(log.has(5, "findDomain returning domain based on profile-id=1, key=" + key));
  EXPECT_TRUE(log.has(5, "Found an existing Domain Table entry for Profile id 1"));
  EXPECT_EQ(table.client(late)->domain_key, key);
  EXPECT_EQ(table.domain(key)->client_count, 3U);
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(table.domain(key)->client_count, 2U);
}

TEST_F(RoutingTable, ATcpConnectionIsOpenedForTcpInAnyCaseOnly) {
  EXPECT_NE(table.domain(add(domain("1", "tcp")))->tcp_client_conn, nullptr);
  EXPECT_EQ(engine.opened.size(), 1U);
  EXPECT_EQ(engine.opened[0].transport, "TCP");
  for (const char* transport : {"UDP", "TLS", "", "TCPX"}) {
    SCOPED_TRACE(transport);
    const std::string profile = std::string("profile ") + transport;
    EXPECT_EQ(table.domain(add(domain(profile, transport)))->tcp_client_conn, nullptr);
  }
  EXPECT_EQ(engine.opened.size(), 1U);
}

TEST_F(RoutingTable, AFailedConnectionToTheOutboundProxyIsNoRefusal) {
  engine.refuse_connections = true;
  LogCapture log;
  const std::string key = add(domain("1"));
  ASSERT_NE(table.domain(key), nullptr);
  EXPECT_EQ(table.domain(key)->tcp_client_conn, nullptr);
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(RoutingTable, WithoutLocalAddressADomainIsRefusedAndItsKeyIsGivenToTheNext) {
  const std::string before = add(domain("0"));
  IMS_engine_proxy::net_intf_ip.clear();
  const std::string orphan = add(client("6001", {}, "1"));
  {
    LogCapture log;
    Domain_Entry_T entry = domain("1");
    entry.net_intf = "no-such-interface";
    EXPECT_FALSE(table.addDomain(entry));
    EXPECT_TRUE(log.has(3, "net_intf_ip is empty"));
  }
  EXPECT_EQ(engine.notifiers.size(), 1U);
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, "1"), "");
  EXPECT_EQ(table.client(orphan)->domain_key, next(before));  // linked before the refusal, and kept so

  const std::string key = add(domain("2"));
  EXPECT_EQ(key, next(before));
  EXPECT_EQ(table.client(orphan)->domain_key, key);
  EXPECT_EQ(table.domain(key)->client_count, 0U);
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));  // it was never counted
  EXPECT_EQ(table.domain(key)->client_count, 0U);
}

TEST_F(RoutingTable, AClientThatHoldsTheKeyOfARefusedDomainCanBeDeleted) {
  add(client("6001", {}, "1"));
  engine.refuse_notifiers = true;
  EXPECT_FALSE(table.addDomain(domain("1")));
  EXPECT_TRUE(table.deleteClient(CT_UA_PORT, "6001"));
  EXPECT_EQ(table.findKey(CT_UA_PORT, "6001"), "");
}

TEST_F(RoutingTable, WithoutListenerADomainIsRefused) {
  engine.refuse_notifiers = true;
  LogCapture log;
  EXPECT_FALSE(table.addDomain(domain("1")));
  EXPECT_TRUE(log.has(3, "dentry.pnotifier is NULL"));
  EXPECT_TRUE(engine.opened.empty());
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, "1"), "");
}

TEST_F(RoutingTable, TheLocalAddressOfTheFirstDomainStays) {
  add(domain("1"));
  Domain_Entry_T entry = domain("2");
  entry.net_intf = "no-such-interface";
  add(entry);
  EXPECT_EQ(IMS_engine_proxy::net_intf_ip, "127.0.0.2");
  EXPECT_EQ(engine.notifiers.back(), "127.0.0.2:5062");
}

TEST_F(RoutingTable, TextsOfADomainAreReplaced) {
  const std::string key = add(domain("1"));
  LogCapture log;
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_PROXY_IP, std::string("127.0.0.4")));
  EXPECT_EQ(log.texts().front(), "identifier=0, identifier_value=1");
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_PROXY_PORT, std::string("5080")));
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_ROUTE_SET, std::string("<sip:127.0.0.8;lr>")));
  EXPECT_EQ(table.domain(key)->domain.proxy_ip, "127.0.0.4");
  EXPECT_EQ(table.domain(key)->domain.proxy_port, "5080");
  EXPECT_EQ(table.domain(key)->domain.route_set, "<sip:127.0.0.8;lr>");
  EXPECT_EQ(engine.opened.size(), 1U);  // nothing is opened again
  EXPECT_TRUE(engine.closed.empty());

  for (const auto field : {DT_PROFILE_ID, static_cast<DomainTable_Field_T>(1), DT_TCP_CLIENT_CONN, DT_PNOTIFIER}) {
    log.clear();
    EXPECT_FALSE(table.updateDomain(DT_PROFILE_ID, "1", field, std::string("x")));
    EXPECT_TRUE(log.has(4, "Returning: Invalid identifier"));
  }
  EXPECT_FALSE(table.updateDomain(DT_PROFILE_ID, "2", DT_PROXY_IP, std::string("127.0.0.4")));
  EXPECT_TRUE(log.has(4, "DOmain Entry does not exist "));
}

TEST_F(RoutingTable, HandlesOfADomainAreReplacedAndNothingIsClosed) {
  const std::string key = add(domain("1"));
  FakeClientTcp connection;
  FakeNotifier notifier;
  LogCapture log;
  const SIPLIB_SIPClientTcpTransport* handle = &connection;
  const SIPLIB_SIPTransportNotifier* listener = &notifier;
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_TCP_CLIENT_CONN, static_cast<const void*>(handle)));
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_PNOTIFIER, static_cast<const void*>(listener)));
  EXPECT_EQ(table.domain(key)->tcp_client_conn, handle);
  EXPECT_EQ(table.domain(key)->pnotifier, listener);
  EXPECT_TRUE(log.has_part(5, "Updated domain for tcp_client_conn=0x"));
  EXPECT_TRUE(log.has_part(5, "Updated domain for pnotifier=0x"));
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_TCP_CLIENT_CONN, static_cast<const void*>(nullptr)));
  EXPECT_EQ(table.domain(key)->tcp_client_conn, nullptr);
  EXPECT_TRUE(engine.closed.empty());

  EXPECT_FALSE(table.updateDomain(DT_PROFILE_ID, "1", DT_PROXY_PORT, static_cast<const void*>(handle)));
  EXPECT_TRUE(log.has(4, "Returning: Invalid identifier"));
  EXPECT_FALSE(table.updateDomain(DT_PROFILE_ID, "2", DT_PNOTIFIER, static_cast<const void*>(listener)));
  EXPECT_TRUE(log.has(4, "ERROR: Domain Entry does not exist "));
}

TEST_F(RoutingTable, AnEndedConnectionIsClosedOnceNobodyElseHasIt) {
  const std::string one = add(domain("1"));
  const std::string two = add(domain("2"));
  SIPLIB_SIPClientTcpTransport* const shared = table.domain(one)->tcp_client_conn;
  ASSERT_TRUE(table.updateDomain(DT_PROFILE_ID, "2", DT_TCP_CLIENT_CONN, static_cast<const void*>(shared)));
  table.endConnection(one);
  EXPECT_TRUE(engine.closed.empty());
  EXPECT_EQ(table.domain(one)->tcp_client_conn, nullptr);
  EXPECT_EQ(table.domain(two)->tcp_client_conn, shared);
  table.endConnection(one);  // has none
  EXPECT_TRUE(engine.closed.empty());
  table.endConnection(two);
  EXPECT_EQ(engine.closed, std::vector<SIPLIB_SIPClientTcpTransport*>{shared});
  EXPECT_EQ(table.domain(two)->tcp_client_conn, shared) << "its field keeps it";
  table.endConnection("no such domain");
  EXPECT_EQ(engine.closed.size(), 1U);
}

TEST_F(RoutingTable, AConnectionThatAClientHasToStaysOpen) {
  const std::string key = add(domain("1"));
  const std::string user = add(client("6001"));
  add(client("6002"));
  ASSERT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", DT_TCP_CLIENT_CONN,
                                 static_cast<const void*>(table.client(user)->tcp_client_conn)));
  table.endConnection(key);
  EXPECT_TRUE(engine.closed.empty());
  EXPECT_EQ(table.domain(key)->tcp_client_conn, nullptr);
}

TEST_F(RoutingTable, AnEndedConnectionThatAnotherDomainOpensAgainIsThatOnesOnly) {
  for (const char* const left : {"1", "2", "3"}) {
    SCOPED_TRACE(left);
    IMS_Proxy_RoutingTable_Impl other;
    for (const char* profile : {"1", "2", "3", "4"}) ASSERT_TRUE(other.addDomain(domain(profile)));
    const auto connection = [&](const char* profile) {
      return other.domain(other.findDomain(DT_PROFILE_ID, profile))->tcp_client_conn;
    };
    SIPLIB_SIPClientTcpTransport* const ended = connection(left);
    other.endConnection(other.findDomain(DT_PROFILE_ID, left));
    ASSERT_TRUE(other.updateDomain(DT_PROFILE_ID, "4", DT_TCP_CLIENT_CONN, static_cast<const void*>(ended)));
    EXPECT_EQ(connection("4"), ended);
    for (const std::string profile : {"1", "2", "3"}) {
      EXPECT_EQ(connection(profile.c_str()) == nullptr, profile == left) << profile;
    }
  }
}

TEST_F(RoutingTable, SecurityAssociationsAreOverwrittenByTheirIdOrAppended) {
  Domain_Entry_T entry = domain("1");
  entry.sa_info_list = {{1, 7, 3}, {4, 7, 6}, {8, 9, 10}};
  const std::string key = add(entry);
  LogCapture log;
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", std::vector<SA_Info_T>{{11, 7, 13}}));
  EXPECT_FALSE(log.has(5, "SA INFO was not found - adding it to sa_info_list"));
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", std::vector<SA_Info_T>{{21, 22, 23}}));
  EXPECT_EQ(log.count(5, "SA INFO was not found - adding it to sa_info_list"), 1);

  const std::vector<SA_Info_T>& stored = table.domain(key)->domain.sa_info_list;
  ASSERT_EQ(stored.size(), 4U);
  for (const std::size_t i : {0U, 1U}) {  // every one with the id
    EXPECT_EQ(stored[i].first, 11U);
    EXPECT_EQ(stored[i].id, 7U);
    EXPECT_EQ(stored[i].third, 13U);
  }
  EXPECT_EQ(stored[2].first, 8U);
  EXPECT_EQ(stored[3].id, 22U);
  EXPECT_TRUE(table.updateDomain(DT_PROFILE_ID, "1", std::vector<SA_Info_T>{}));
  EXPECT_FALSE(table.updateDomain(DT_PROFILE_ID, "2", std::vector<SA_Info_T>{{1, 2, 3}}));
  EXPECT_TRUE(log.has(4, "Domain Entry does not exist "));
}

TEST_F(RoutingTable, DeletingADomainUnlinksItsClientsAndDropsItsAuthentication) {
  const std::string key = add(domain("1"));
  const std::string first = add(client("6001", {}, "1"));
  const std::string other_domain = add(domain("2", "UDP"));
  const std::string second = add(client("6002", {}, "2"));
  LogCapture log;
  EXPECT_TRUE(table.deleteDomain(DT_PROFILE_ID, "1"));
  EXPECT_EQ(log.texts().front(), "identifier=0, identifier_value=1");
  EXPECT_EQ(log.texts().back(), "Deleted domain key=" + key);
  EXPECT_EQ(table.domain(key), nullptr);
  ASSERT_NE(table.client(first), nullptr);
  EXPECT_EQ(table.client(first)->domain_key, "");
  EXPECT_EQ(table.client(second)->domain_key, other_domain);
  EXPECT_EQ(engine.closed, (std::vector<SIPLIB_SIPClientTcpTransport*>{&engine.connections[0]}));
  EXPECT_EQ(engine.dropped_domains, Keys{key});
  EXPECT_TRUE(engine.dropped_clients.empty());

  EXPECT_TRUE(table.deleteDomain(DT_PROFILE_ID, "2"));  // without connection: nothing to close
  EXPECT_EQ(engine.closed.size(), 1U);
  EXPECT_FALSE(table.deleteDomain(DT_PROFILE_ID, "1"));
  EXPECT_TRUE(log.has(4, "ERROR: Domain entry does not exist "));
  EXPECT_EQ(add(domain("1")), next(other_domain));  // the old key is not used again
}

TEST_F(RoutingTable, DeletingADomainUnlinksEveryClientOfIt) {
  Keys clients;
  for (const char* port : {"6001", "6002", "6003"}) clients.push_back(add(client(port, {}, "1")));
  const std::string key = add(domain("1"));
  for (const std::string& one : clients) EXPECT_EQ(table.client(one)->domain_key, key);
  EXPECT_TRUE(table.deleteDomain(DT_PROFILE_ID, "1"));
  for (const std::string& one : clients) EXPECT_EQ(table.client(one)->domain_key, "");
}

TEST_F(RoutingTable, ADomainIsFoundByItsExactProfileId) {
  const std::string key = add(domain("12"));
  LogCapture log;
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, "12"), key);
  EXPECT_TRUE(log.has(5, "Found Domain entry with profile id=12 : domain key is " + key));
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, "1"), "");
  EXPECT_TRUE(log.has(4, "Returning empty domain key"));
  log.clear();
  EXPECT_EQ(table.findDomain(DT_PROXY_IP, "12"), "");
  EXPECT_EQ(log.texts(), (Keys{"identifier=2, identifier_value=12", "Returning: Invalid identifier"}));
  EXPECT_FALSE(table.deleteDomain(DT_PROXY_IP, "12"));
}

TEST_F(RoutingTable, AnEmptyProfileIdFindsNoDomainEvenIfOneHasIt) {
  EXPECT_TRUE(table.addDomain(domain("")));
  LogCapture log;
  EXPECT_EQ(table.findDomain(DT_PROFILE_ID, ""), "");
  EXPECT_EQ(log.texts(),
            (Keys{"identifier=0, identifier_value=", "Returning: Empty domain key as Profile-id is empty"}));
  EXPECT_EQ(log.count(4), 1);
}

TEST_F(RoutingTable, ADomainIsFoundByItsConnectionAndNotByItsListener) {
  add(domain("1"));
  const std::string key = add(domain("2"));
  SIPLIB_SIPClientTcpTransport* connection = &engine.connections[1];
  LogCapture log;
  EXPECT_EQ(table.findDomain_Connection(connection), key);
  EXPECT_TRUE(log.has_part(5, "Finding from domain table, pconn=0x"));
  EXPECT_TRUE(log.has_part(5, ": domain key is " + key));
  SIPLIB_SIPTransportNotifier* listener = &engine.notifier;
  EXPECT_EQ(table.findDomain_Connection(listener), "");
  EXPECT_TRUE(log.has(4, "Could not find Domain Key "));

  add(domain("3", "UDP"));  // has no connection
  EXPECT_EQ(table.findDomain_Connection(nullptr), "");
  EXPECT_TRUE(log.has(4, "Returning: Empty domain key as conn=NULL"));
}

}  // namespace
