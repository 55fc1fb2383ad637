// A proxy between local user agents and one network proxy, and the messages that pass through it.
//
//   user agents 127.0.0.1:PORT  <->  127.0.0.1:5060 [proxy] 127.0.0.2:5060  <->  127.0.0.3:5080 network proxy
#pragma once

#include <string>
#include <string_view>

#include "engine/engine_proxy.h"
#include "framework/ims_local_registrar.h"
#include "siplib/address.h"
#include "siplib/message.h"
#include "support/engine_fixture.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"

/// A listener whose TCP and UDP addresses can be told apart.
class TwoAddressNotifier : public SIPLIB_SIPTransportNotifier {
 public:
  void setListener(SIPLIB_SIPServerTransportListener* /*listener*/) override {}
  SIPLIB_SIPServerTcpTransport* acceptAndOpen() override { return nullptr; }
  SIPLIB_SIPServerUdpTransport* acceptOpenUdp() override { return nullptr; }
  bool getCurrentAddress(std::string_view transport, std::string& own_ip, int& own_port) const override {
    if (!open) return false;
    own_ip = ip;
    own_port = transport == "TCP" ? 5064 : 5065;
    return true;
  }
  std::string ip = "127.0.0.4";
  bool open = true;
};

/// Opens datagram connections that take nothing.
class DeafConnector : public FakeConnector {
 public:
  SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip, int source_port,
                                            std::string_view ip, int port) override {
    SIPLIB_SIPTransportConnection* opened = FakeConnector::openClient(transport, source_ip, source_port, ip, port);
    if (transport == "UDP") udp_clients.back()->send_result = -1;
    return opened;
  }
};

class ProxyFixture : public EngineFixture {
 protected:
  static constexpr const char* kProxyIp = "127.0.0.3";
  static constexpr int kProxyPort = 5080;

  using RequestOperation = void (IMS_engine_proxy::*)(SIPLIB_SIPTransportConnection*, const std::string&,
                                                      SIPLIB_SIPAddress*, SIPLIB_SIPAddress*);

  std::string addNetwork(const std::string& profile_id = "1", const std::string& transport = "TCP") {
    return addDomain(profile_id, kProxyIp, kProxyPort, transport);
  }
  /// The connection that the proxy opened to the network proxy.
  FakeClientTcp& toNetwork() { return *connector.tcpClient(kNetIp, kNetPort, kProxyIp, kProxyPort); }
  /// The connection that the proxy opened to the user agent.
  FakeClientTcp& toClient(int port) { return *connector.tcpClient("127.0.0.1", 5060, "127.0.0.1", port); }

  /// Gives the operation the request as the dispatcher does, with its From and To.
  template <class Connection>
  void forward(RequestOperation operation, Connection& connection, const std::string& text) {
    connection.set(text);
    bool is_request = false;
    std::string method;
    SIPLIB_SIPAddress* from = nullptr;
    SIPLIB_SIPAddress* to = nullptr;
    IMS_engine_proxy::get_from_to_method(&connection, is_request, method, from, to);
    (engine.get()->*operation)(&connection, method, from, to);
    delete from;
    delete to;
  }

  static std::string value(const std::string& text, std::string_view name) {
    const SIPLIB_message message(text.data(), text.size());
    const auto found = message.header(name);
    return found ? std::string(*found) : std::string("(absent)");
  }
  static std::vector<std::string> values(const std::string& text, std::string_view name) {
    const SIPLIB_message message(text.data(), text.size());
    const auto found = message.headers(name);
    return {found.begin(), found.end()};
  }
  static std::string uri(const std::string& text) {
    return std::string(SIPLIB_message(text.data(), text.size()).requestUri());
  }
  static std::string userAgentText() { return IMS_LocalRegistrar::form_user_agent_header(); }

  /// What a peer answers to a request that it got.
  static std::string answer(const std::string& request, int status, std::string_view reason,
                            const FakeHeaders& more = {}, std::string_view body = {}) {
    FakeHeaders headers;
    for (const char* name : {"Via", "Record-Route"})
      for (const std::string& each : values(request, name)) headers.emplace_back(name, each);
    for (const char* name : {"From", "To", "Call-ID", "CSeq"}) headers.emplace_back(name, value(request, name));
    headers.insert(headers.end(), more.begin(), more.end());
    return sipResponse(status, reason, headers, body);
  }

  FakeServerTcp ua{"127.0.0.1", 5060, "127.0.0.1", 41000};  ///< opened by a user agent
  FakeServerTcp other_ua{"127.0.0.1", 5060, "127.0.0.1", 41001};
  FakeServerTcp network{"127.0.0.2", 5060, "127.0.0.3", 45000};  ///< opened by the network proxy
  FakeServerUdp udp{"127.0.0.1", 5060};                          ///< where datagrams of user agents arrive
  FakeServerUdp network_udp{"127.0.0.2", 5060};
};

/// A request from a user agent of the terminal to somebody in the network.
inline std::string fromClient(std::string_view method, const std::string& via, const FakeHeaders& more = {},
                              std::string_view request_uri = "sip:bob@home.net", std::string_view body = {}) {
  FakeHeaders headers = {{"Via", via},
                         {"Max-Forwards", "70"},
                         {"From", "\"Alice\" <sip:alice@home.net>;tag=a1"},
                         {"To", "<sip:bob@home.net>"},
                         {"Call-ID", "call-1@terminal"},
                         {"CSeq", "1 " + std::string(method)}};
  headers.insert(headers.end(), more.begin(), more.end());
  return sipRequest(method, request_uri, headers, body);
}

/// A request from the network for alice.
inline std::string fromNetwork(std::string_view method, const std::string& via, const FakeHeaders& more = {},
                               std::string_view request_uri = "sip:alice@127.0.0.2:5060", std::string_view body = {}) {
  FakeHeaders headers = {{"Via", via},
                         {"Via", "SIP/2.0/UDP bob.home.net:5060;branch=z9hG4bK-bob"},
                         {"Max-Forwards", "68"},
                         {"From", "<sip:bob@home.net>;tag=b1"},
                         {"To", "<sip:alice@home.net>"},
                         {"Call-ID", "call-2@home.net"},
                         {"CSeq", "7 " + std::string(method)}};
  headers.insert(headers.end(), more.begin(), more.end());
  return sipRequest(method, request_uri, headers, body);
}

/// An address of record for a test's client.
inline ClientAOR_T makeAor(std::string aor, std::vector<std::string> feature_tags = {}, std::string events = {},
                           std::string methods = {}, std::string content_types = {}) {
  return {std::move(aor), std::move(feature_tags), std::move(events), std::move(methods), std::move(content_types)};
}
