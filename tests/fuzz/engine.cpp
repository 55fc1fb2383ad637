// The whole engine in one process: listeners, dispatch, routing table, forwarding, credentials, registrar, fed with a
// sequence of events on fake transports.
//
//   events between "\n%%", each a letter and its text:
//     u v  a message on a TCP connection of a user agent        d  a datagram of a user agent
//     n    a message on a TCP connection of the network proxy   e  a datagram of the network
//     a b  a message on the connection opened to a user agent   p  a message on the one opened to the network proxy
//     x    the connection (u, v or n) was closed by its peer, a new one follows
//     y    the connection (a, b or p) was lost
//     s    the status of the answer to the oldest NOTIFY        t  a text of the control channel
//   An input that is no such sequence is one message, taken on every connection in turn.
//   Line ends become CRLF; {A} {B} stand for the keys of two clients, {D} {E} for those of two domains, {U} {V} {N} for
//   the tags of the connections.
//
// Promises, after each event: nothing that does not parse is sent and nothing is sent for it; no connection gets two
// messages for one event, and none more than two go out in all; a forwarded message keeps its kind, method or status,
// Call-ID, CSeq and body; every datagram connection is closed again; each connection in a table is one that the library
// still knows; a port, a profile or an accepted connection stands once in its table; a request to the registrar is
// answered once at most, and nothing holds it afterwards (whatever is over is freed at once, so a handle kept would be
// seen by AddressSanitizer).

#include "engine/engine_proxy.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "engine/sip_server_transport_listener.h"
#include "framework/bounds.h"
#include "input.h"
#include "registrar/client.h"
#include "registrar/domain.h"
#include "registrar/local_registrar.h"
#include "registrar/registrar.h"
#include "routing/routing_table_impl.h"
#include "siplib/transaction.h"
#include "support/fake_siplib.h"

namespace {

constexpr std::size_t kEvents = 40;

/// A NOTIFY; freed as soon as its use is over.
class Notify : public SIPLIB_SIPClientConnection {
 public:
  explicit Notify(SIPLIB_SIPDialog* dialog) : dialog_(dialog) {
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message("NOTIFY", "sip:regua@127.0.0.1:5080"));
  }
  bool released = false;
  bool sent = false;
  bool ends_dialog = false;

  void answer(int status) { inbox_.push_back(status); }
  int receive() override {
    message_ = SIPLIB_SIPMessageHandle();
    if (inbox_.empty()) return -1;
    message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(inbox_.front(), "Reason"));
    inbox_.pop_front();
    return 0;
  }
  int send() override {
    PROMISE(!sent && !released && message_ && message_->isRequest());
    const std::string text = message_->text();
    PROMISE(SIPLIB_message(text.data(), text.size()).valid());
    sent = true;
    ends_dialog = message_->header("Subscription-State") == "terminated";
    return 0;
  }
  void setListener(SIPLIB_SIPClientConnectionListener* /*listener*/) override {}
  int initRequest(std::string_view, std::string_view, std::string_view, std::string_view) override { return -1; }
  int getTransactionStatus() const override { return released ? -1 : 0; }
  void release() override { released = true; }
  SIPLIB_SIPDialog* getDialog() const override { return dialog_; }

 private:
  SIPLIB_SIPDialog* dialog_;
  std::deque<int> inbox_;
};

class Dialog : public SIPLIB_SIPDialog {
 public:
  std::vector<std::unique_ptr<Notify>> notifies;

  SIPLIB_SIPClientConnection* getNewClientConnection(std::string_view method) override {
    PROMISE(method == "NOTIFY");
    if (isTerminated()) return nullptr;
    notifies.push_back(std::make_unique<Notify>(this));
    return notifies.back().get();
  }
  bool isTerminated() const override {
    return std::any_of(notifies.begin(), notifies.end(), [](const auto& notify) { return notify->ends_dialog; });
  }
};

/// A request at the registrar; good for one event.
class Request : public SIPLIB_SIPServerConnection {
 public:
  Request(SIPLIB_SIPMessageHandle message, std::unique_ptr<Dialog>& dialog) : dialog_(dialog) {
    message_ = std::move(message);
  }
  int answers = 0;

  int initResponse(int status) override {
    if (answers > 0) return -1;
    response_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(status, "Reason"));
    PROMISE(response_->valid());
    return 0;
  }
  int send() override {
    PROMISE(response_);
    const std::string text = response_->text();
    PROMISE(SIPLIB_message(text.data(), text.size()).valid());
    ++answers;
    if (message_->method() == "SUBSCRIBE" && response_->statusCode() < 300 && !dialog_)
      dialog_ = std::make_unique<Dialog>();
    response_ = SIPLIB_SIPMessageHandle();
    return 0;
  }
  void release() override {}
  SIPLIB_SIPDialog* getDialog() const override { return dialog_.get(); }

 protected:
  SIPLIB_message* writable() override { return response_ ? response_.get() : message_.get(); }

 private:
  std::unique_ptr<Dialog>& dialog_;
  SIPLIB_SIPMessageHandle response_;
};

class World {
 public:
  World() {
    IMS_User_Agent::set_config_dir("/nonexistent");
    IMS_User_Agent::ua_connector = &connector_;
    engine_ = std::make_unique<IMS_engine_proxy>();
    IMS_engine_proxy::set_instance(engine_.get());
    engine_->initialize_state_tbl(IMS_engine_proxy::states, 0, 1);
    IMS_engine_proxy::arg_dynport = nullptr;
    IMS_engine_proxy::localhost_port = "5060";
    IMS_engine_proxy::net_intf_ip = "127.0.0.2";
    IMS_engine_proxy::net_intf_port = "5060";
    table_ = std::make_unique<IMS_Proxy_RoutingTable_Impl>(engine_.get());
    IMS_engine_proxy::rt = table_.get();
    IMS_engine_proxy::rtintf = table_.get();
    auth_ = std::make_unique<IMS_Proxy_Authenticate>(table_.get());
    IMS_engine_proxy::ims_proxy_auth_ptr = auth_.get();
    engine_->init_registrar();

    Domain_Entry_T domain;
    domain.profile_id = "1";
    domain.proxy_ip = "127.0.0.3";
    domain.proxy_port = "5080";
    domain.proxy_transport = "TCP";
    domain.username = "alice@home.net";
    domain.password = "secret";
    domain.op_mode = "ietf-shared";
    PROMISE(table_->addDomain(domain));
    domain.profile_id = "2";
    domain.proxy_ip = "127.0.0.4";
    domain.proxy_transport = "UDP";
    PROMISE(table_->addDomain(domain));
    ClientTable_Entry_T client;
    client.ua_port = "5070";
    client.uri = "sip:alice@127.0.0.1";
    client.profile_id = "1";
    client.aors = {{"alice@home.net", {"+g.tag=\"a\""}, "reg,presence", "MESSAGE", "text/plain"}};
    client.headers = {{"P-Preferred-Identity", "<sip:alice@home.net>"}};
    PROMISE(table_->addClient(client));
    client.ua_port = "5071";
    client.uri = "sip:bob@127.0.0.1";
    client.profile_id = "2";
    client.aors = {{"bob@home.net", {"+g.tag=\"b\""}, "", "INVITE,MESSAGE", ""}};
    PROMISE(table_->addClient(client));
    network_ = connector_.tcpClientTo("127.0.0.3", 5080);
    for (const char which : {'u', 'v', 'n'}) accept(which);
    words_ = {{"{A}", table_->findKey(CT_UA_PORT, "5070")},
              {"{B}", table_->findKey(CT_UA_PORT, "5071")},
              {"{D}", table_->findDomain(DT_PROFILE_ID, "1")},
              {"{E}", table_->findDomain(DT_PROFILE_ID, "2")},
              {"{U}", "tag-u"},
              {"{V}", "tag-v"},
              {"{N}", "tag-n"}};
  }
  ~World() {
    IMSE_Registrar::destroy();
    delete IMS_engine_proxy::local_registrar;
    IMS_engine_proxy::local_registrar = nullptr;
    IMS_engine_proxy::tcp_servconn_table.clear();
    IMS_engine_proxy::rt = nullptr;
    IMS_engine_proxy::rtintf = nullptr;
    IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
    IMS_Proxy_Authenticate::rt_ptr = nullptr;
    IMS_engine_proxy::net_intf_ip.clear();
    engine_.reset();
    IMS_engine_proxy::set_instance(nullptr);
    IMS_User_Agent::ua_connector = nullptr;
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void event(std::string_view text) {
    if (text.empty()) return;
    const char kind = text[0];
    text.remove_prefix(text.size() > 1 && text[1] == '\n' ? 2 : 1);
    closing_ = false;
    registrar_ = false;
    received_ = SIPLIB_SIPMessageHandle();
    switch (kind) {
      case 'u':
      case 'v':
      case 'n':
        take(*accepted_.at(kind), text, kind != 'n');
        break;
      case 'd':
        take(udp_, text, true);
        break;
      case 'e':
        take(network_udp_, text, false);
        break;
      case 'a':
        takeAsClient(connector_.tcpClient("127.0.0.1", 5060, "127.0.0.1", 5070), text);
        break;
      case 'b':
        takeAsClient(connector_.tcpClient("127.0.0.1", 5060, "127.0.0.1", 5071), text);
        break;
      case 'p':
        takeAsClient(network_, text);
        break;
      case 'x':
        lose(text);
        break;
      case 'y':
        loseClient(text);
        break;
      case 's':
        answerNotify(text);
        break;
      case 't': {
        auto* const copy = new char[text.size() + 1];
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
        engine_->fill_queue_and_send_signal(MSG_FRAMEWORK_TEXT, copy);
        turn();
        break;
      }
      default:
        return;
    }
    check();
  }

 private:
  void accept(char which) {
    auto& place = accepted_[which];
    place = which == 'n'
                ? std::make_unique<FakeServerTcp>("127.0.0.2", 5060, "127.0.0.3", 45000)
                : std::make_unique<FakeServerTcp>("127.0.0.1", 5060, "127.0.0.1", which == 'u' ? 41000 : 41001);
    FakeNotifier notifier;
    notifier.next_tcp = place.get();
    IMS_engine_proxy::serv_list->notifyIncomingConnection(&notifier);
    turn();
    // A tag is random; here it is one that an input can name.
    IMS_engine_proxy::tcp_servconn_table.back().tag = std::string("tag-") + which;
  }
  void turn() {
    while (engine_->handle_one_message()) {
    }
  }
  std::string wire(std::string_view text) const {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) result += '\r';
      result += text[i];
    }
    for (const auto& [word, meaning] : words_)
      for (std::size_t at = 0; (at = result.find(word, at)) != std::string::npos; at += meaning.size())
        result.replace(at, word.size(), meaning);
    return result;
  }
  template <class Transport>
  void take(Transport& transport, std::string_view text, bool local) {
    std::string bytes = wire(text);
    SIPLIB_message* message = nullptr;
    auto* const listener = IMS_engine_proxy::serv_list;
    const bool for_proxy =
        listener->handleIncomingMessage(bytes.data(), static_cast<unsigned int>(bytes.size()), &message);
    SIPLIB_SIPMessageHandle handle(message);
    remember(handle);
    if (!for_proxy) {
      // The library hands on only what it can make a transaction of, and only what is local.
      if (!local || !handle || !handle->isRequest() || !handle->header("Call-ID") || !handle->header("CSeq")) return;
      registrar_ = true;
      Request request(handle, dialog_);
      engine_->fill_queue_and_send_signal(MSG_REGISTRAR_REQUEST, static_cast<SIPLIB_SIPConnection*>(&request));
      turn();
      PROMISE(request.answers <= 1);
      return;
    }
    transport.inbox.push_back(handle);
    if constexpr (std::is_same_v<Transport, FakeServerTcp>) {
      listener->notifyRequest(&transport);
    } else {
      FakeNotifier notifier;
      notifier.udp = &transport;
      listener->notifyUdpMsg(&notifier);
    }
    turn();
    transport.setSipMessageHandle(SIPLIB_SIPMessageHandle());
  }
  void takeAsClient(FakeClientTcp* transport, std::string_view text) {
    if (transport == nullptr) return;
    std::string bytes = wire(text);
    SIPLIB_message* message = nullptr;
    auto* const listener = IMS_engine_proxy::client_list;
    const bool for_proxy =
        listener->handleIncomingMessage(bytes.data(), static_cast<unsigned int>(bytes.size()), &message);
    const SIPLIB_SIPMessageHandle handle(message);
    if (!for_proxy) return;
    remember(handle);
    transport->inbox.push_back(handle);
    listener->notifyResponse(transport);
    turn();
    transport->setSipMessageHandle(SIPLIB_SIPMessageHandle());
  }
  void lose(std::string_view which) {
    const auto found = which.empty() ? accepted_.end() : accepted_.find(which[0]);
    if (found == accepted_.end()) return;
    closing_ = true;
    IMS_engine_proxy::serv_list->notifyConnectionClosed(found->second.get());
    turn();
    PROMISE(connector_.closed(found->second.get()));
    accept(found->first);
  }
  void loseClient(std::string_view which) {
    FakeClientTcp* const client = which.starts_with('a')   ? connector_.tcpClient("127.0.0.1", 5060, "127.0.0.1", 5070)
                                  : which.starts_with('b') ? connector_.tcpClient("127.0.0.1", 5060, "127.0.0.1", 5071)
                                                           : network_;
    if (client == nullptr) return;
    closing_ = true;
    IMS_engine_proxy::client_list->notifyConnectionClosed(client);
    turn();
    PROMISE(!connector_.lost.empty() && connector_.lost.back() == client);
    client->open = true;  // the next send opens it again
  }
  void answerNotify(std::string_view text) {
    if (!dialog_) return;
    for (const auto& notify : dialog_->notifies) {
      if (!notify->sent || notify->released) continue;
      const int status = std::atoi(std::string(text.substr(0, 4)).c_str());
      notify->answer(status >= 100 && status <= 699 ? status : 408);
      engine_->fill_queue_and_send_signal(MSG_REGISTRAR_RESPONSE, static_cast<SIPLIB_SIPConnection*>(notify.get()));
      turn();
      return;
    }
  }

  /// As it came, before the engine changes it.
  void remember(const SIPLIB_SIPMessageHandle& message) {
    if (!message) return;
    const std::string text = message->text();
    received_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
  }
  void checkSent(const std::string& text) const {
    const SIPLIB_message sent(text.data(), text.size());
    PROMISE(sent.valid() || sent.parseError().find("limit") != std::string_view::npos);
    PROMISE(received_ && received_->valid() && !closing_ && !registrar_);
    if (!sent.valid()) return;
    if (received_->isResponse() || sent.isRequest()) {
      PROMISE(sent.isRequest() == received_->isRequest() && sent.method() == received_->method());
      PROMISE(sent.statusCode() == received_->statusCode() && sent.body() == received_->body());
    } else {
      PROMISE(sent.statusCode() == 100 || sent.statusCode() == 200);
    }
    for (const char* name : {"Call-ID", "CSeq"}) PROMISE(sent.header(name) == received_->header(name));
  }
  template <class Transport>
  void collect(Transport& transport, std::size_t& sends) const {
    PROMISE(transport.sent.size() <= 1);
    for (const std::string& text : transport.sent) checkSent(text);
    sends += transport.sent.size();
    transport.sent.clear();
  }
  void check() {
    std::size_t sends = 0;
    std::set<const void*> known;
    for (auto& [which, transport] : accepted_) {
      collect(*transport, sends);
      known.insert(transport.get());
    }
    for (auto& [pair, transport] : connector_.tcp_clients) {
      collect(*transport, sends);
      known.insert(transport.get());
    }
    for (auto& transport : connector_.udp_clients) {
      collect(*transport, sends);
      PROMISE(!transport->open);
    }
    collect(udp_, sends);
    collect(network_udp_, sends);
    PROMISE(sends <= 2);
    connector_.udp_clients.clear();
    endNotifies();
    connector_.closes.clear();
    connector_.client_opens.clear();
    connector_.notifier_opens.clear();
    for (const auto& notifier : connector_.notifiers) known.insert(notifier.get());
    checkTables(known);
  }
  void checkTables(const std::set<const void*>& known) const {
    std::set<const void*> connections;
    std::set<std::string> tags;
    for (const auto& record : IMS_engine_proxy::tcp_servconn_table) {
      PROMISE(known.count(record.connection) == 1 && connections.insert(record.connection).second);
      PROMISE(!record.tag.empty() && tags.insert(record.tag).second);
    }
    PROMISE(connections.size() == accepted_.size());
    std::set<std::string> ports, profiles;
    // Keys are never given out twice, so the first and some hundred more are all there are.
    const int first = std::min(std::atoi(words_.at("{A}").c_str()), std::atoi(words_.at("{D}").c_str()));
    const int last = std::max(std::atoi(words_.at("{A}").c_str()), std::atoi(words_.at("{D}").c_str())) + 100;
    for (int key = first; key < last; ++key) {
      if (const RoutingTable_Entry_T* client = table_->client(std::to_string(key))) {
        PROMISE(client->tcp_client_conn == nullptr || known.count(client->tcp_client_conn) == 1);
        PROMISE(ports.insert(client->ua_port).second);
      }
      if (const DomainTable_Entry_T* domain = table_->domain(std::to_string(key))) {
        PROMISE(domain->tcp_client_conn == nullptr || known.count(domain->tcp_client_conn) == 1);
        PROMISE(domain->pnotifier != nullptr && known.count(domain->pnotifier) == 1);
        PROMISE(profiles.insert(domain->domain.profile_id).second);
      }
    }
    const IMSE_Registrar* const registrar = IMSE_Registrar::get_instance();
    PROMISE(registrar->clients().size() <= framework::bounds().clients);
    PROMISE(registrar->domains().size() <= framework::bounds().profiles);
    for (const auto& client : registrar->clients()) PROMISE(client != nullptr);
  }
  /// What is over is freed, as the library does at the end of a turn.
  void endNotifies() {
    if (!dialog_) return;
    for (const auto& notify : dialog_->notifies)
      if (connector_.closed(notify.get())) notify->released = true;
    if (dialog_->isTerminated()) {
      dialog_.reset();
    } else {
      std::erase_if(dialog_->notifies, [](const auto& notify) { return notify->released; });
    }
  }

  // The dialog outlives the engine: ending its subscription is the last that the registrar does.
  std::unique_ptr<Dialog> dialog_;
  FakeConnector connector_;
  std::unique_ptr<IMS_engine_proxy> engine_;
  std::unique_ptr<IMS_Proxy_RoutingTable_Impl> table_;
  std::unique_ptr<IMS_Proxy_Authenticate> auth_;
  std::map<char, std::unique_ptr<FakeServerTcp>> accepted_;
  FakeServerUdp udp_{"127.0.0.1", 5060};
  FakeServerUdp network_udp_{"127.0.0.2", 5060};
  FakeClientTcp* network_ = nullptr;
  std::map<std::string, std::string> words_;
  SIPLIB_SIPMessageHandle received_;
  bool closing_ = false;
  bool registrar_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  World world;
  const std::string_view input = fuzz::view(data, size);
  if (input.size() > 1 && input[1] != '\n' && input.find("\n%%") == std::string_view::npos) {
    for (const char* which : {"u\n", "n\n", "d\n", "e\n", "a\n", "p\n"}) world.event(which + std::string(input));
    return 0;
  }
  std::size_t count = 0;
  for (const std::string_view event : fuzz::split(input, "\n%%")) {
    if (++count > kEvents) break;
    world.event(event);
  }
  return 0;
}
