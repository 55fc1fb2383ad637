// Connections and a connector without a network: what is sent is recorded, what is received is pushed in by the test.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "siplib/connection.h"
#include "siplib/connector.h"
#include "siplib/listener.h"
#include "siplib/transaction.h"

using FakeHeaders = std::vector<std::pair<std::string, std::string>>;

/// The text of a message; Content-Length is put in.
inline std::string sipText(std::string_view start_line, const FakeHeaders& headers, std::string_view body = {}) {
  std::string text(start_line);
  text += "\r\n";
  for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
  text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  text += body;
  return text;
}
inline std::string sipRequest(std::string_view method, std::string_view uri, const FakeHeaders& headers,
                              std::string_view body = {}) {
  return sipText(std::string(method) + " " + std::string(uri) + " SIP/2.0", headers, body);
}
inline std::string sipResponse(int status, std::string_view reason, const FakeHeaders& headers,
                               std::string_view body = {}) {
  return sipText("SIP/2.0 " + std::to_string(status) + " " + std::string(reason), headers, body);
}

/// What every fake transport has. `sent` holds the text of each message that a send took.
template <class Base>
class FakeTransport : public Base {
 public:
  FakeTransport() = default;
  FakeTransport(std::string own_ip, int own_port, std::string other_ip = {}, int other_port = 0)
      : local_ip(std::move(own_ip)), local_port(own_port), peer_ip(std::move(other_ip)), peer_port(other_port) {}

  std::string local_ip = "127.0.0.1";
  int local_port = 5060;
  std::string peer_ip = "127.0.0.1";
  int peer_port = 40000;
  bool open = true;     ///< false: send takes nothing
  int send_result = 0;  ///< what send answers while open; not 0: nothing is recorded
  std::vector<std::string> sent;
  std::deque<SIPLIB_SIPMessageHandle> inbox;
  int receive_calls = 0;

  /// Puts a message where receive() finds it.
  void push(std::string_view text) { inbox.emplace_back(new SIPLIB_message(text.data(), text.size())); }
  /// The message is the current one at once, as after receive().
  void set(std::string_view text) {
    this->message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
  }
  /// The current message as it stands; empty when there is none.
  std::string current() const { return this->message_ ? this->message_->text() : std::string(); }
  /// The last message sent, parsed; invalid when there is none.
  SIPLIB_message lastSent() const {
    const std::string text = sent.empty() ? std::string() : sent.back();
    return SIPLIB_message(text.data(), text.size());
  }

  int receive() override {
    ++receive_calls;
    if (inbox.empty()) {
      this->message_ = SIPLIB_SIPMessageHandle();
      return -1;
    }
    this->message_ = std::move(inbox.front());
    inbox.pop_front();
    return 0;
  }
  int send() override {
    if (!open || !this->message_ || !this->message_->valid()) return -1;
    if (send_result != 0) return send_result;
    sent.push_back(this->message_->text());
    return 0;
  }
  bool getLocalAddress(std::string& ip, int& port) const override {
    ip = local_ip;
    port = local_port;
    return true;
  }
  bool getPeerAddress(std::string& ip, int& port) const override {
    ip = peer_ip;
    port = peer_port;
    return true;
  }
};

class FakeServerTcp : public FakeTransport<SIPLIB_SIPServerTcpTransport> {
 public:
  using FakeTransport::FakeTransport;
};

class FakeServerUdp : public FakeTransport<SIPLIB_SIPServerUdpTransport> {
 public:
  using FakeTransport::FakeTransport;
};

class FakeClientUdp : public FakeTransport<SIPLIB_SIPClientUdpTransport> {
 public:
  using FakeTransport::FakeTransport;
};

/// Its source address is its local one.
class FakeClientTcp : public FakeTransport<SIPLIB_SIPClientTcpTransport> {
 public:
  using FakeTransport::FakeTransport;
  SIPLIB_SIPClientTcpTransportListener* listener = nullptr;

  void setListener(SIPLIB_SIPClientTcpTransportListener* value) override { listener = value; }
  void getSourceAddress(std::string& ip, int& port) const override {
    ip = local_ip;
    port = local_port;
  }
  bool isOpen() const override { return open; }
};

class FakeNotifier : public SIPLIB_SIPTransportNotifier {
 public:
  FakeNotifier() = default;
  FakeNotifier(std::string own_ip, int own_port) : ip(std::move(own_ip)), port(own_port) {}

  std::string ip = "127.0.0.1";
  int port = 5060;
  bool open = true;
  SIPLIB_SIPServerTransportListener* listener = nullptr;
  SIPLIB_SIPServerTcpTransport* next_tcp = nullptr;  ///< what acceptAndOpen gives
  SIPLIB_SIPServerUdpTransport* udp = nullptr;       ///< what acceptOpenUdp gives

  void setListener(SIPLIB_SIPServerTransportListener* value) override { listener = value; }
  SIPLIB_SIPServerTcpTransport* acceptAndOpen() override { return std::exchange(next_tcp, nullptr); }
  SIPLIB_SIPServerUdpTransport* acceptOpenUdp() override { return udp; }
  bool getCurrentAddress(std::string_view transport, std::string& own_ip, int& own_port) const override {
    if (transport != "TCP" && transport != "UDP" && transport != "tcp" && transport != "udp") return false;
    own_ip = ip;
    own_port = port;
    return true;
  }
};

/// The local endpoint's ordinary processing.
class FakeSipNotifier : public SIPLIB_SIPConnectionNotifier {
 public:
  std::string ip = "127.0.0.1";
  int port = 5060;
  bool open = true;
  SIPLIB_SIPServerConnectionListener* listener = nullptr;
  SIPLIB_SIPDialogListener* dialog_listener = nullptr;
  SIPLIB_SIPServerConnection* next = nullptr;

  void setListener(SIPLIB_SIPServerConnectionListener* value) override { listener = value; }
  void setDialogListener(SIPLIB_SIPDialogListener* value) override { dialog_listener = value; }
  SIPLIB_SIPServerConnection* acceptAndOpen() override { return std::exchange(next, nullptr); }
  bool getCurrentAddress(std::string& own_ip, int& own_port) const override {
    own_ip = ip;
    own_port = port;
    return true;
  }
};

/// Everything it opens it owns, until it ends: a closed connection can still be looked at.
class FakeConnector : public SIPLIB_SIPConnector {
 public:
  /// One call of an open operation, also a refused one. For a notifier the peer is empty.
  struct Open {
    std::string transport;
    std::string ip;
    int port;
    std::string peer_ip;
    int peer_port;
    bool operator==(const Open&) const = default;
  };

  std::vector<Open> notifier_opens;
  std::vector<Open> client_opens;
  std::vector<std::string> sip_notifier_opens;  ///< uris
  std::vector<SIPLIB_SIPConnection*> closes;    ///< in order, null included
  std::vector<SIPLIB_SIPConnection*> lost;      ///< closed as lost, in order
  std::vector<std::string> proxies;             ///< for which places are kept
  std::set<int> refused_ports;                  ///< own ports on which no notifier opens
  std::set<std::string> refused_peers;          ///< "ip:port" to which no client connection opens
  bool refuse_notifiers = false;
  bool refuse_clients = false;
  bool refuse_sip_notifier = false;
  std::string control_refused;  ///< why no peer may control the proxy; empty: all may

  std::vector<std::unique_ptr<FakeSipNotifier>> sip_notifiers;
  std::vector<std::unique_ptr<FakeNotifier>> notifiers;
  std::vector<std::unique_ptr<FakeClientUdp>> udp_clients;  ///< one per opening, in order
  using Pair = std::tuple<std::string, int, std::string, int>;
  std::map<Pair, std::unique_ptr<FakeClientTcp>> tcp_clients;  ///< one per (source, destination)

  /// The connection of a pair, or null.
  FakeClientTcp* tcpClient(const std::string& source_ip, int source_port, const std::string& ip, int port) const {
    const auto found = tcp_clients.find(Pair(source_ip, source_port, ip, port));
    return found == tcp_clients.end() ? nullptr : found->second.get();
  }
  /// The first connection to that peer from wherever, or null.
  FakeClientTcp* tcpClientTo(const std::string& ip, int port) const {
    for (const auto& [pair, client] : tcp_clients)
      if (std::get<2>(pair) == ip && std::get<3>(pair) == port) return client.get();
    return nullptr;
  }
  /// Null before the first.
  FakeClientUdp* lastUdp() const { return udp_clients.empty() ? nullptr : udp_clients.back().get(); }
  bool closed(const SIPLIB_SIPConnection* connection) const {
    return std::find(closes.begin(), closes.end(), connection) != closes.end();
  }

  bool mayControl(const SIPLIB_SIPTransportConnection&, std::string& why) override {
    why = control_refused;
    return control_refused.empty();
  }
  SIPLIB_SIPConnectionNotifier* openNotifier(std::string_view uri) override {
    sip_notifier_opens.emplace_back(uri);
    const std::string port(uri.substr(uri.rfind(':') + 1));
    if (refuse_sip_notifier || refused_ports.count(std::stoi(port)) != 0) return nullptr;
    sip_notifiers.push_back(std::make_unique<FakeSipNotifier>());
    sip_notifiers.back()->port = std::stoi(port);
    return sip_notifiers.back().get();
  }
  SIPLIB_SIPTransportNotifier* openTransportNotifier(std::string_view transport, std::string_view ip,
                                                     int port) override {
    notifier_opens.push_back({std::string(transport), std::string(ip), port, {}, 0});
    if (refuse_notifiers || refused_ports.count(port) != 0) return nullptr;
    notifiers.push_back(std::make_unique<FakeNotifier>(std::string(ip), port));
    return notifiers.back().get();
  }
  SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip, int source_port,
                                            std::string_view ip, int port) override {
    const std::string source(source_ip), peer(ip);
    client_opens.push_back({std::string(transport), source, source_port, peer, port});
    if (refuse_clients || refused_peers.count(peer + ":" + std::to_string(port)) != 0) return nullptr;
    if (transport == "TCP" || transport == "tcp") {
      auto& client = tcp_clients[Pair(source, source_port, peer, port)];
      if (!client) client = std::make_unique<FakeClientTcp>(source, source_port, peer, port);
      client->open = true;
      return client.get();
    }
    udp_clients.push_back(std::make_unique<FakeClientUdp>(source, source_port, peer, port));
    return udp_clients.back().get();
  }
  SIPLIB_SIPClientConnection* openClientTransaction(std::string_view, std::string_view, int) override {
    return nullptr;
  }
  int close(SIPLIB_SIPConnection* connection) override {
    closes.push_back(connection);
    if (connection == nullptr) return -1;
    if (auto* tcp = dynamic_cast<FakeClientTcp*>(connection)) tcp->open = false;
    if (auto* server = dynamic_cast<FakeServerTcp*>(connection)) server->open = false;
    if (auto* udp = dynamic_cast<FakeClientUdp*>(connection)) udp->open = false;
    if (auto* notifier = dynamic_cast<FakeNotifier*>(connection)) notifier->open = false;
    if (auto* notifier = dynamic_cast<FakeSipNotifier*>(connection)) notifier->open = false;
    return 0;
  }
  int closeLost(SIPLIB_SIPClientTcpTransport* transport) override {
    lost.push_back(transport);
    return transport == nullptr ? -1 : 0;
  }
  void keepPlacesFor(const std::vector<std::string>& addresses) override { proxies = addresses; }
};

/// A request at the registrar.
class FakeServerConnection : public SIPLIB_SIPServerConnection {
 public:
  explicit FakeServerConnection(std::string_view text) {
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
  }
  int status = 0;  ///< of the answer prepared last
  std::vector<int> answers;
  bool released = false;

  int initResponse(int value) override {
    status = value;
    return 0;
  }
  int send() override {
    answers.push_back(status);
    return 0;
  }
  void release() override { released = true; }
  SIPLIB_SIPDialog* getDialog() const override { return nullptr; }
};
