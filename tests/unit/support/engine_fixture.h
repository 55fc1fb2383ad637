// An engine as after start-up, without a process around it: routing table, authentication store and a fake connector;
// no registrar unless the test asks for one (engine->init_registrar()).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "registrar/local_registrar.h"
#include "registrar/registrar.h"
#include "routing/routing_table_impl.h"
#include "support/fake_siplib.h"

class EngineFixture : public ::testing::Test {
 protected:
  static constexpr const char* kNetIp = "127.0.0.2";  ///< the terminal's network address
  static constexpr int kNetPort = 5060;

  EngineFixture() {
    IMS_User_Agent::ua_connector = &connector;
    engine = std::make_unique<IMS_engine_proxy>();
    IMS_engine_proxy::set_instance(engine.get());
    IMS_engine_proxy::arg_dynport = nullptr;
    IMS_engine_proxy::localhost_port = "5060";
    IMS_engine_proxy::net_intf_ip = kNetIp;
    IMS_engine_proxy::net_intf_port = std::to_string(kNetPort);
    IMS_engine_proxy::tcp_servconn_table.clear();
    table = std::make_unique<IMS_Proxy_RoutingTable_Impl>(engine.get());
    IMS_engine_proxy::rt = table.get();
    IMS_engine_proxy::rtintf = table.get();
    auth = std::make_unique<IMS_Proxy_Authenticate>(table.get());
    IMS_engine_proxy::ims_proxy_auth_ptr = auth.get();
  }
  ~EngineFixture() override {
    IMSE_Registrar::destroy();
    delete IMS_engine_proxy::local_registrar;
    IMS_engine_proxy::local_registrar = nullptr;
    IMS_engine_proxy::tcp_servconn_table.clear();
    IMS_engine_proxy::rt = nullptr;
    IMS_engine_proxy::rtintf = nullptr;
    IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
    IMS_Proxy_Authenticate::rt_ptr = nullptr;
    IMS_engine_proxy::net_intf_ip.clear();
    engine.reset();
    IMS_engine_proxy::set_instance(nullptr);
    IMS_User_Agent::ua_connector = nullptr;
  }

  /// Adds a domain; its key. Its TCP connection is connector.tcpClient(kNetIp, kNetPort, ip, port).
  std::string addDomain(const std::string& profile_id, const std::string& ip, int port, const std::string& transport) {
    Domain_Entry_T entry;
    entry.profile_id = profile_id;
    entry.proxy_ip = ip;
    entry.proxy_port = std::to_string(port);
    entry.proxy_transport = transport;
    EXPECT_TRUE(table->addDomain(entry));
    return table->findDomain(DT_PROFILE_ID, profile_id);
  }
  /// Adds a client at that port of the loopback address; its key.
  std::string addClient(int port, const std::string& profile_id = {}, const std::string& uri = {}) {
    ClientTable_Entry_T entry;
    entry.ua_port = std::to_string(port);
    entry.profile_id = profile_id;
    entry.uri = uri;
    return addClient(entry);
  }
  std::string addClient(const ClientTable_Entry_T& entry) {
    EXPECT_TRUE(table->addClient(entry));
    return table->findKey(CT_UA_PORT, entry.ua_port);
  }
  /// Enters an accepted connection into the engine's table; its tag.
  static std::string accept(FakeServerTcp& connection) {
    IMS_engine_proxy::inst->handle_default_tcp_connection_created(static_cast<SIPLIB_SIPConnection*>(&connection));
    return IMS_engine_proxy::tcp_servconn_table.back().tag;
  }

  FakeConnector connector;
  std::unique_ptr<IMS_engine_proxy> engine;
  std::unique_ptr<IMS_Proxy_RoutingTable_Impl> table;
  std::unique_ptr<IMS_Proxy_Authenticate> auth;
};
