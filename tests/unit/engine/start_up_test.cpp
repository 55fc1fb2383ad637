// Command line, the engine's life, and what start-up opens, creates and publishes.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "engine/sip_server_transport_listener.h"
#include "framework/options.h"
#include "registrar/local_registrar.h"
#include "registrar/registrar.h"
#include "routing/routing_table_impl.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

class StartUp : public ::testing::Test {
 protected:
  StartUp() : config_dir_(IMS_User_Agent::config_dir()), run_dir_(IMS_User_Agent::run_dir()) {
    IMS_User_Agent::set_config_dir(dir.path());
    IMS_User_Agent::set_run_dir(dir.path());
    IMS_User_Agent::ua_connector = &connector;
    IMS_User_Agent::__ua_myuri.clear();
    IMS_engine_proxy::arg_dynport = nullptr;
    IMS_engine_proxy::localhost_port.clear();
    IMS_engine_proxy::net_intf_ip.clear();
    IMS_engine_proxy::net_intf_port = "5060";
    engine = std::make_unique<IMS_engine_proxy>();
    IMS_engine_proxy::set_instance(engine.get());
  }
  ~StartUp() override {
    // What a process keeps for ever ends with the test.
    IMSE_Registrar::destroy();
    delete IMS_engine_proxy::local_registrar;
    delete IMS_engine_proxy::ims_proxy_auth_ptr;
    delete IMS_engine_proxy::rt;
    IMS_engine_proxy::local_registrar = nullptr;
    IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
    IMS_engine_proxy::rt = nullptr;
    IMS_engine_proxy::rtintf = nullptr;
    IMS_Proxy_Authenticate::rt_ptr = nullptr;
    engine.reset();
    IMS_engine_proxy::set_instance(nullptr);
    IMS_engine_proxy::arg_dynport = nullptr;
    IMS_User_Agent::ua_connector = nullptr;
    IMS_User_Agent::set_config_dir(config_dir_);
    IMS_User_Agent::set_run_dir(run_dir_);
  }

  void options(std::vector<std::string> words) {
    words.insert(words.begin(), "ue-proxy");
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    kept_words.push_back(std::move(words));
    engine->set_options(static_cast<int>(arguments.size()), arguments.data());
  }
  std::string capFile() const { return readAll(dir / "ue-proxy.cap"); }

  TemporaryDir dir;
  FakeConnector connector;
  std::unique_ptr<IMS_engine_proxy> engine;

 private:
  std::vector<std::vector<std::string>> kept_words;  // arg_dynport points into them
  std::string config_dir_;
  std::string run_dir_;
};

// --- Command line

TEST_F(StartUp, TakesTheWordAfterDynport) {
  options({"-dynport", "yes"});
  ASSERT_NE(IMS_engine_proxy::arg_dynport, nullptr);
  EXPECT_STREQ(IMS_engine_proxy::arg_dynport, "yes");
}

TEST_F(StartUp, IgnoresDynportAsTheLastWord) {
  options({"-f", "-dynport"});
  EXPECT_EQ(IMS_engine_proxy::arg_dynport, nullptr);
}

TEST_F(StartUp, TakesAnyFirstCharacterAndTheLastPair) {
  options({"+dynport", "no"});
  EXPECT_STREQ(IMS_engine_proxy::arg_dynport, "no");
  options({"-dynport", "yes", "-f", "/dynport", "maybe"});
  EXPECT_STREQ(IMS_engine_proxy::arg_dynport, "maybe");
}

TEST_F(StartUp, PassesTheWholeLineToTheFramework) {
  options({"-dynport", "yes", "-r", "/somewhere/else"});
  EXPECT_EQ(IMS_User_Agent::run_dir(), "/somewhere/else");
  IMS_User_Agent::set_run_dir(dir.path());
}

TEST_F(StartUp, PrintsUsageOnlyWhenAskedAndThenEnds) {
  IMS_daemon::__d_arg_h = false;
  engine->print_usage();  // returns
  EXPECT_EXIT(
      {
        IMS_log::log_to_file(stderr);
        IMS_daemon::__d_arg_h = true;
        engine->print_usage();
      },
      ::testing::ExitedWithCode(0), "print_usage: Usage:(.|\n)*print_usage: IMS Server options:");
}

TEST_F(StartUp, TheUsageTellsOfDynport) {
  options({});
  EXPECT_NE(
      framework::usageText().find("\n  -dynport VALUE            yes: the listening ports may float over 100 ports\n"),
      std::string::npos)
      << framework::usageText();
}

// --- Life

TEST_F(StartUp, KeepsItsListenersAsLongAsItLives) {
  EXPECT_EQ(IMS_engine_proxy::inst, engine.get());
  EXPECT_NE(IMS_engine_proxy::serv_list, nullptr);
  EXPECT_NE(IMS_engine_proxy::client_list, nullptr);
  EXPECT_NE(engine->client_connection_listener(), nullptr);
  engine.reset();
  EXPECT_EQ(IMS_engine_proxy::serv_list, nullptr);
  EXPECT_EQ(IMS_engine_proxy::client_list, nullptr);
}

// --- Endpoints and tables

TEST_F(StartUp, OpensTheLocalEndpointAndEntersTheRegistrar) {
  LogCapture log;
  ASSERT_TRUE(engine->start());
  EXPECT_EQ(connector.sip_notifier_opens, std::vector<std::string>{"sip:5060"});
  EXPECT_EQ(connector.notifier_opens, std::vector<FakeConnector::Open>({{"TCP", "127.0.0.1", 5060, "", 0}}));
  EXPECT_NE(connector.sip_notifiers[0]->listener, nullptr);
  EXPECT_NE(connector.sip_notifiers[0]->dialog_listener, nullptr);
  EXPECT_EQ(connector.notifiers[0]->listener, IMS_engine_proxy::serv_list);

  EXPECT_EQ(IMS_engine_proxy::localhost_port, "5060");
  EXPECT_EQ(IMS_User_Agent::__ua_myuri, "<sip:127.0.0.1:5060>");
  ASSERT_NE(IMS_engine_proxy::rt, nullptr);
  EXPECT_EQ(IMS_engine_proxy::rtintf, IMS_engine_proxy::rt);
  ASSERT_NE(IMS_engine_proxy::ims_proxy_auth_ptr, nullptr);
  EXPECT_EQ(IMS_Proxy_Authenticate::rt_ptr, IMS_engine_proxy::rt);
  EXPECT_NE(IMS_engine_proxy::local_registrar, nullptr);
  EXPECT_NE(IMSE_Registrar::get_instance(), nullptr);

  const std::string key = IMS_engine_proxy::rt->findClient(CF_PACKAGES, "local-reg-events");
  const RoutingTable_Entry_T* registrar = IMS_engine_proxy::rt->client(key);
  ASSERT_NE(registrar, nullptr);
  EXPECT_EQ(registrar->ua_port, "5060");
  EXPECT_EQ(registrar->uri, "sip:registrar@127.0.0.1");
  EXPECT_EQ(registrar->packages, "local-reg-events");
  ASSERT_EQ(registrar->aors.size(), 1u);
  EXPECT_EQ(registrar->aors[0].aor + registrar->aors[0].events + registrar->aors[0].methods, "");
  EXPECT_EQ(registrar->profile_id, "");

  std::vector<std::string> own;
  for (const LogCapture::Line& line : log.lines())
    if (line.function == "run") own.push_back(line.text);
  EXPECT_EQ(own, (std::vector<std::string>{"__ua_myuri=<sip:127.0.0.1:5060> localport=5060",
                                           "__ua_myuri=<sip:127.0.0.1:5060> localhost_port=5060 localhost_ip=127.0.0.1",
                                           "Route as in .cap file=<sip:127.0.0.1:5060>", "Adding registrar"}));
  EXPECT_TRUE(log.has_part(5, "registrar = 0x"));
  EXPECT_EQ(log.count(3), 0);
}

TEST_F(StartUp, InstallsTheStateTable) {
  ASSERT_TRUE(engine->start());
  FakeServerTcp connection;
  engine->handle_notify_tcp_incoming_conn(&connection);
  EXPECT_TRUE(engine->handle_one_message());
  ASSERT_EQ(IMS_engine_proxy::tcp_servconn_table.size(), 1u);
  IMS_engine_proxy::tcp_servconn_table.clear();
}

TEST_F(StartUp, EndsWhenTheLocalPortIsTaken) {
  connector.refused_ports.insert(5060);
  EXPECT_FALSE(engine->start());
  EXPECT_EQ(connector.sip_notifier_opens.size(), 1u);
  EXPECT_TRUE(connector.notifier_opens.empty());
  EXPECT_EQ(IMS_engine_proxy::rt, nullptr);
}

TEST_F(StartUp, ClosesTheNotifierWhenTheTcpTransportCannotBeOpened) {
  connector.refuse_notifiers = true;
  EXPECT_FALSE(engine->start());
  ASSERT_EQ(connector.sip_notifiers.size(), 1u);
  EXPECT_TRUE(connector.closed(connector.sip_notifiers[0].get()));
  EXPECT_EQ(IMS_engine_proxy::rt, nullptr);
}

TEST_F(StartUp, FloatsPastTakenPortsWithDynport) {
  IMS_engine_proxy::arg_dynport = "yes";
  connector.refused_ports = {5060, 5061};
  ASSERT_TRUE(engine->start());
  EXPECT_EQ(IMS_engine_proxy::localhost_port, "5062");
  EXPECT_EQ(connector.notifier_opens.back(), (FakeConnector::Open{"TCP", "127.0.0.1", 5062, "", 0}));
  EXPECT_EQ(capFile(), "Contact: <sip:127.0.0.1:5062>\nRoute: <sip:127.0.0.1:5062>\n");
}

TEST_F(StartUp, DoesNotFloatForAnotherValue) {
  IMS_engine_proxy::arg_dynport = "Yes";
  connector.refused_ports.insert(5060);
  EXPECT_FALSE(engine->start());
}

TEST_F(StartUp, DoesNotNeedTheRegistrarsConnectionToItself) {
  connector.refuse_clients = true;
  EXPECT_TRUE(engine->start());
  EXPECT_NE(IMS_engine_proxy::rt->findClient(CF_PACKAGES, "local-reg-events"), "");
}

TEST_F(StartUp, EndsWithoutASipStackButNotWithoutAControlChannel) {
  // The framework's sockets were not opened: no control channel, and nothing for a stack to run on.
  LogCapture log;
  EXPECT_EQ(engine->run(), 0);
  EXPECT_EQ(log.lines()[0].text, "Error Craeting External listen thread");
  EXPECT_EQ(log.lines()[0].level, 4);
  EXPECT_EQ(log.lines()[0].function, "run");
  EXPECT_EQ(log.count(3), 1) << "one line says why";
  EXPECT_TRUE(connector.sip_notifier_opens.empty());
  EXPECT_TRUE(connector.notifier_opens.empty());
  EXPECT_EQ(IMS_engine_proxy::rt, nullptr);
}

// --- The capability file

TEST_F(StartUp, PublishesARouteEqualToTheContactWithoutSourceTransport) {
  ASSERT_TRUE(engine->start());
  EXPECT_EQ(capFile(), "Contact: <sip:127.0.0.1:5060>\nRoute: <sip:127.0.0.1:5060>\n");
}

TEST_F(StartUp, PublishesTheSourceTransportInTheRoute) {
  dir.write("config.xml", "<?xml version=\"1.0\"?><sipstackinit><srctransport>tcp</srctransport></sipstackinit>");
  LogCapture log;
  ASSERT_TRUE(engine->start());
  EXPECT_EQ(capFile(), "Contact: <sip:127.0.0.1:5060>\nRoute: <sip:127.0.0.1:5060;transport=tcp>\n");
  EXPECT_TRUE(log.has(5, "Route as in .cap file=<sip:127.0.0.1:5060;transport=tcp>"));
}

TEST_F(StartUp, GoesOnWithoutACapabilityFile) {
  IMS_User_Agent::set_run_dir(dir / "not/there");
  LogCapture log;
  EXPECT_TRUE(engine->start());
  EXPECT_GE(log.count(3), 1);
}

// --- Network-side listeners

TEST_F(StartUp, OpensANetworkListenerOnItsPortAlone) {
  std::string port = "6000";
  SIPLIB_SIPTransportNotifier* notifier = IMS_engine_proxy::open_net_notifier("127.0.0.2", port);
  ASSERT_NE(notifier, nullptr);
  EXPECT_EQ(port, "6000");
  EXPECT_EQ(connector.notifiers[0]->listener, IMS_engine_proxy::serv_list);
  connector.refused_ports.insert(6000);
  connector.notifier_opens.clear();
  EXPECT_EQ(IMS_engine_proxy::open_net_notifier("127.0.0.2", port), nullptr);
  EXPECT_EQ(port, "6000");
  EXPECT_EQ(connector.notifier_opens.size(), 1u);
}

TEST_F(StartUp, FloatsANetworkListenerOverAHundredPorts) {
  IMS_engine_proxy::arg_dynport = "yes";
  for (int taken = 6000; taken < 6099; ++taken) connector.refused_ports.insert(taken);
  std::string port = "6000";
  ASSERT_NE(IMS_engine_proxy::open_net_notifier("127.0.0.2", port), nullptr);
  EXPECT_EQ(port, "6099");
  EXPECT_EQ(connector.notifier_opens.size(), 100u);
  EXPECT_EQ(connector.notifier_opens.front(), (FakeConnector::Open{"TCP", "127.0.0.2", 6000, "", 0}));

  connector.refused_ports.insert(6099);
  connector.notifier_opens.clear();
  port = "6000";
  EXPECT_EQ(IMS_engine_proxy::open_net_notifier("127.0.0.2", port), nullptr);
  EXPECT_EQ(port, "6000");
  EXPECT_EQ(connector.notifier_opens.size(), 100u);
}

TEST_F(StartUp, OpensNoNetworkListenerOnWhatIsNoPort) {
  for (const char* dynport : {"no", "yes"}) {
    IMS_engine_proxy::arg_dynport = dynport;
    for (const char* text : {"", "x", "0", "-5", "65536", "99999999999999999999"}) {
      std::string port = text;
      EXPECT_EQ(IMS_engine_proxy::open_net_notifier("127.0.0.2", port), nullptr) << text;
      EXPECT_EQ(port, text);
    }
  }
  EXPECT_TRUE(connector.notifier_opens.empty());
}

TEST(PortNumber, ReadsWhatTheTextBeginsWith) {
  EXPECT_EQ(portNumber("5060"), 5060);
  EXPECT_EQ(portNumber("5060;x"), 5060);
  EXPECT_EQ(portNumber("65535"), 65535);
  EXPECT_EQ(portNumber("65536"), 65536);
  EXPECT_EQ(portNumber(" 5060"), 5060);
  EXPECT_EQ(portNumber("-1"), -1);
  EXPECT_EQ(portNumber("4294972356"), 2147483647) << "not 5060";
  EXPECT_EQ(portNumber("-99999999999999999999"), -2147483648LL);
  EXPECT_EQ(portNumber(""), 0);
  EXPECT_EQ(portNumber("x"), 0);
}

}  // namespace
