// What stands beside the routing table: the engine that opens connections for it and the authentication store.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "routing/routing_table_impl.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"

/// Records what the table asked of its neighbours.
struct FakeEngine {
  struct Opened {
    std::string transport;
    std::string source_ip;
    int source_port;
    std::string ip;
    int port;
    bool operator==(const Opened&) const = default;
  };
  bool refuse_connections = false;
  bool refuse_notifiers = false;
  std::vector<Opened> opened;
  std::vector<SIPLIB_SIPClientTcpTransport*> closed;
  std::vector<std::string> notifiers;                                ///< "ip:port" of each that was asked for
  std::vector<std::string> proxies;                                  ///< for which places are kept
  std::vector<std::string> dropped_domains;                          ///< delete_auth_info
  std::vector<std::pair<std::string, std::string>> dropped_clients;  ///< delete_client_auth_info: domain, client
  std::vector<std::string> forgotten_clients;                        ///< forget_client
  std::deque<FakeClientTcp> connections;
  FakeNotifier notifier;
  IMS_Proxy_Authenticate store;
};

/// The engine of the running test.
extern FakeEngine* fake_engine;

class RoutingTable : public testing::Test {
 protected:
  RoutingTable();
  ~RoutingTable() override;

  static ClientTable_Entry_T client(const std::string& port, const std::vector<std::string>& aors = {},
                                    const std::string& profile_id = "") {
    ClientTable_Entry_T entry;
    entry.ua_port = port;
    for (const std::string& aor : aors) entry.aors.push_back({aor, {}, {}, {}, {}});
    entry.profile_id = profile_id;
    return entry;
  }
  static Domain_Entry_T domain(const std::string& profile_id, const std::string& transport = "TCP") {
    Domain_Entry_T entry;
    entry.profile_id = profile_id;
    entry.net_intf = "127.0.0.2";
    entry.proxy_ip = "127.0.0.3";
    entry.proxy_port = "5070";
    entry.proxy_transport = transport;
    return entry;
  }
  /// Adds and gives the key.
  std::string add(const ClientTable_Entry_T& entry) {
    EXPECT_TRUE(table.addClient(entry));
    return table.findKey(CT_UA_PORT, entry.ua_port);
  }
  std::string add(const Domain_Entry_T& entry) {
    EXPECT_TRUE(table.addDomain(entry));
    return table.findDomain(DT_PROFILE_ID, entry.profile_id);
  }

  FakeEngine engine;
  IMS_Proxy_RoutingTable_Impl table;
};
