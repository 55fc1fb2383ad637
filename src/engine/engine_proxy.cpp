// Life, command line and start-up of the engine.

#include "engine/engine_proxy.h"

#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

#include "auth/proxy_authenticate.h"
#include "engine/port_number.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "engine/sip_server_transport_listener.h"
#include "framework/ims_address.h"
#include "framework/listeners.h"
#include "framework/log.h"
#include "framework/utility.h"
#include "registrar/local_registrar.h"
#include "routing/routing_table_impl.h"
#include "siplib/connector.h"
#include "siplib/stack.h"

IMS_engine_proxy* IMS_engine_proxy::inst = nullptr;
const char* IMS_engine_proxy::arg_dynport = nullptr;
std::string IMS_engine_proxy::localhost_ip = "127.0.0.1";
std::string IMS_engine_proxy::localhost_port;
std::string IMS_engine_proxy::net_intf_ip;
std::string IMS_engine_proxy::net_intf_port = "5060";
IMS_Proxy_SipServerTransportListener* IMS_engine_proxy::serv_list = nullptr;
IMS_Proxy_SipClientTcpTransportListener* IMS_engine_proxy::client_list = nullptr;
IMS_Proxy_RoutingTable_Impl* IMS_engine_proxy::rt = nullptr;
IMS_Proxy_RoutingTable_Intf* IMS_engine_proxy::rtintf = nullptr;
IMS_Proxy_Authenticate* IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
IMS_local_registrar* IMS_engine_proxy::local_registrar = nullptr;
std::vector<IMS_PROXY_TCP_SERVER_CONN_T> IMS_engine_proxy::tcp_servconn_table;

namespace {

constexpr const char* kDynport = "dynport";
constexpr int kSipPort = 5060;
constexpr int kHighestPort = 65535;
/// How far a floating port may move.
constexpr int kPortsToTry = 100;

bool ports_float() {
  return IMS_engine_proxy::arg_dynport != nullptr && std::string_view(IMS_engine_proxy::arg_dynport) == "yes";
}

}  // namespace

IMS_engine_proxy::IMS_engine_proxy() {
  serv_list = new IMS_Proxy_SipServerTransportListener(this);
  client_list = new IMS_Proxy_SipClientTcpTransportListener(this);
  server_conn_listener_ = new IMS_UA_SipServerConnListener(this);
  client_conn_listener_ = new IMS_UA_SipClientConnListener(this);
  dialog_listener_ = new IMS_UA_SipDialogListener(this);
}

IMS_engine_proxy::~IMS_engine_proxy() {
  delete std::exchange(serv_list, nullptr);
  delete std::exchange(client_list, nullptr);
  delete server_conn_listener_;
  delete client_conn_listener_;
  delete dialog_listener_;
}

void IMS_engine_proxy::set_instance(IMS_engine_proxy* engine) {
  inst = engine;
}

void IMS_engine_proxy::set_options(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i) {
    const std::string_view word = argv[i];
    if (!word.empty() && word.substr(1) == kDynport) arg_dynport = argv[i + 1];
  }
  IMS_User_Agent::add_program_option(kDynport, "yes: the listening ports may float over 100 ports");
  IMS_User_Agent::set_options(argc, argv);
}

void IMS_engine_proxy::print_usage() {
  if (!IMS_daemon::__d_arg_h) return;
  IMS_log::loginfo(3, __func__, "Usage:");
  IMS_log::loginfo(3, __func__, "IMS Server options:");
  IMS_User_Agent::print_usage();
  std::exit(0);
}

int IMS_engine_proxy::run() {
  if (create_all_external_descriptors() != 1) IMS_log::loginfo(4, __func__, "Error Craeting External listen thread");

  SIPLIB_SIPStackConfig config;
  init_sipstack_info("/sipstackinit/ue-proxy/", config);
  if (SIPLIB_SIPInit(config) != 0) return 0;  // the library has said why
  ua_connector = SIPLIB_SIPStack::instance()->connector();
  if (!start()) return 0;

  wait_for_framework_init();
  handle_message();
  return 0;
}

bool IMS_engine_proxy::start() {
  constexpr const char* function = "run";
  SIPLIB_SIPConnectionNotifier* notifier = nullptr;
  if (ports_float()) {
    notifier = open_local_notifier(kSipPort);
  } else {
    notifier = conn_open(ua_connector, "sip:" + IMS_utility::itostring(kSipPort), nullptr);
    fill_myuri(kSipPort);
  }
  if (notifier == nullptr) return false;
  const int port = IMS_address::get_port("Contact", __ua_myuri);
  IMS_log::loginfo(5, function, "__ua_myuri=%s localport=%d", __ua_myuri.c_str(), port);
  notifier->setListener(server_conn_listener_);
  notifier->setDialogListener(dialog_listener_);

  auto* transport =
      static_cast<SIPLIB_SIPTransportNotifier*>(conn_open(ua_connector, "TCP", localhost_ip, port, nullptr, 0));
  if (transport == nullptr) {
    ua_connector->close(notifier);
    return false;
  }
  transport->setListener(serv_list);

  rt = new IMS_Proxy_RoutingTable_Impl(this);
  rtintf = rt;
  ims_proxy_auth_ptr = new IMS_Proxy_Authenticate(rt);
  init_registrar();
  initialize_state_tbl(states, 0, 1);

  localhost_port = IMS_utility::itostring(port);
  const std::string address = "<sip:" + localhost_ip + ":" + localhost_port;
  __ua_myuri = address + ">";
  IMS_log::loginfo(5, function, "__ua_myuri=%s localhost_port=%s localhost_ip=%s", __ua_myuri.c_str(),
                   localhost_port.c_str(), localhost_ip.c_str());

  std::string source_transport;
  get_xml_parameter("//srctransport", source_transport, "config");
  const std::string route = source_transport.empty() ? __ua_myuri : address + ";transport=" + source_transport + ">";
  IMS_log::loginfo(5, function, "Route as in .cap file=%s", route.c_str());
  create_cap_file(4, "Contact", __ua_myuri.c_str(), "Route", route.c_str());

  ClientTable_Entry_T registrar;
  registrar.ua_port = localhost_port;
  registrar.uri = "sip:registrar@" + localhost_ip;
  registrar.aors.emplace_back();
  registrar.packages = "local-reg-events";
  IMS_log::loginfo(5, function, "Adding registrar");
  if (!rt->addClient(registrar)) IMS_log::loginfo(3, function, "Adding registrar in routing table");
  return true;
}

void IMS_engine_proxy::init_registrar() {
  local_registrar = new (std::nothrow) IMS_local_registrar;
  if (local_registrar == nullptr) return;
  IMS_log::loginfo(5, __func__, "registrar = %p", static_cast<void*>(local_registrar));
  local_registrar->initialize(this);
}

SIPLIB_SIPTransportNotifier* IMS_engine_proxy::open_net_notifier(const std::string& ip, std::string& port) {
  const int first = portNumber(port);
  if (first < 1 || first > kHighestPort) return nullptr;  // nothing to float from either
  const int count = ports_float() ? kPortsToTry : 1;
  for (int candidate = first; candidate < first + count; ++candidate) {
    auto* notifier =
        static_cast<SIPLIB_SIPTransportNotifier*>(conn_open(ua_connector, "TCP", ip, candidate, nullptr, 0));
    if (notifier == nullptr) continue;
    notifier->setListener(serv_list);
    port = IMS_utility::itostring(candidate);
    return notifier;
  }
  return nullptr;
}
