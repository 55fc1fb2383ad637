// A terminal in one process: the engine as start-up leaves it, on fake transports, with the real registrar behind the
// real SIP processing, entered in the routing table under the proxy's own port, and the library's own way to itself.
// Around it stand parties, who send and are sent to:
//
//   a b  user agents of profile 1      m  an internal module       1 2  the profiles' outbound proxies
//   c d  user agents of profile 2      w  the watcher              x    a stranger in the network
//   z    a program of the terminal that never registered
//
// What they do is a step, a letter for who, one for how, and a text:
//     u  a datagram                              t  on a TCP connection that they opened to the proxy
//     o  on the TCP connection that the proxy opened to them
//     r  an honest answer to the oldest request that waits for one: status, then header lines
//     i j  an honest request within the dialog of the last message they were sent (datagram, TCP): method, header lines
//   A text that begins with "@" is put together: start line, header lines that take the place of the usual ones
//   ("-Name" leaves one out), a blank line, the body. Any other text goes as it stands; line ends become CRLF. {a} {b}
//   {c} {d} {m} {w} stand for keys of clients, {R} for the registrar's, {ta} .. {tx} for the tags of accepted
//   connections, {n} for a text that only this step has; {N} is a branch of a NOTIFY that waits for its answer. Tags
//   are random: who is in the network has those of user agents' connections, from their requests, and nobody else's.
#pragma once

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "engine/sip_server_transport_listener.h"
#include "input.h"
#include "registrar/client_factory.h"
#include "registrar/domain.h"
#include "registrar/ext_client.h"
#include "registrar/local_registrar.h"
#include "registrar/reg_subscriber.h"
#include "registrar/registrar.h"
#include "routing/routing_table_impl.h"
#include "siplib/client_tcp_transport.h"
#include "siplib/framer.h"
#include "siplib/reactor.h"
#include "siplib/stack_core.h"
#include "siplib/transaction_layer.h"
#include "strict_sip.h"
#include "support/fake_siplib.h"
#include "support/temp_dir.h"

/// As PROMISE, where `terminal_` is at hand: the exchange is told too.
#define HOLDS(condition) ((condition) ? static_cast<void>(0) : terminal_.explain(#condition, __FILE__, __LINE__))

namespace fuzz {

inline constexpr const char* kLocalIp = "127.0.0.1";
inline constexpr const char* kNetworkIp = "127.0.0.2";
inline constexpr int kPort = 5060;
inline constexpr std::string_view kSecrets[] = {"secret-of-home-5b1f", "secret-of-work-c93a"};
inline constexpr std::string_view kIdentities[] = {"impi-home-77d0", "impi-work-18e2"};

enum class Way { Datagram, Accepted, Opened, Processing };

struct Party;

/// One message that left.
struct Sent {
  Way way;
  Party* to;  ///< null: nobody that we know
  std::string ip;
  int port;
  std::string text;
};

struct Party {
  char name;
  bool local;
  std::string ip;
  int port;
  std::string profile;
  std::string user;
  std::unique_ptr<FakeServerTcp> accepted{};

  /// A request that waits for an answer.
  struct Asked {
    std::string text;
    Way way;
    Party* from;
  };
  std::deque<Asked> asked{};
  /// The last message with a Contact that was sent to it, and who caused it.
  std::string last{};
  Party* last_from = nullptr;
};

/// The ordinary SIP processing, with what reaches it counted.
class CountedLayer final : public siplib::TransactionLayer {
 public:
  CountedLayer(std::unique_ptr<siplib::TransactionLayer> layer, std::size_t& received)
      : layer_(std::move(layer)), received_(received) {}
  void setLocal(std::string_view ip, int port) override { layer_->setLocal(ip, port); }
  void setListener(SIPLIB_SIPServerConnectionListener* listener, SIPLIB_SIPConnectionNotifier* notifier) override {
    layer_->setListener(listener, notifier);
  }
  void setDialogListener(SIPLIB_SIPDialogListener* listener) override { layer_->setDialogListener(listener); }
  SIPLIB_SIPServerConnection* accept() override { return layer_->accept(); }
  void receive(SIPLIB_SIPMessageHandle message, std::shared_ptr<siplib::Path> path) override {
    ++received_;
    layer_->receive(std::move(message), std::move(path));
  }
  SIPLIB_SIPClientConnection* openClient(std::shared_ptr<siplib::Path> path) override {
    return layer_->openClient(std::move(path));
  }
  bool close(SIPLIB_SIPConnection* connection) override { return layer_->close(connection); }
  void endTurn() override { layer_->endTurn(); }

 private:
  const std::unique_ptr<siplib::TransactionLayer> layer_;
  std::size_t& received_;
};

/// The handle on the ordinary SIP processing.
class LocalNotifier final : public SIPLIB_SIPConnectionNotifier {
 public:
  explicit LocalNotifier(siplib::TransactionLayer& layer) : layer_(layer) {}
  void setListener(SIPLIB_SIPServerConnectionListener* listener) override { layer_.setListener(listener, this); }
  void setDialogListener(SIPLIB_SIPDialogListener* listener) override { layer_.setDialogListener(listener); }
  SIPLIB_SIPServerConnection* acceptAndOpen() override { return layer_.accept(); }
  bool getCurrentAddress(std::string& ip, int& port) const override {
    ip = kLocalIp;
    port = kPort;
    return true;
  }

 private:
  siplib::TransactionLayer& layer_;
};

class Terminal : public siplib::PathMaker {
 public:
  Terminal() : connector_(*this) {
    addParties();
    core_ = std::make_shared<siplib::StackCore>(settings());
    core_->setLayer(
        std::make_unique<CountedLayer>(siplib::TransactionLayer::create(core_->config(), reactor_, *this), processed_));
    start();
    registerAll();
  }
  ~Terminal() override {
    IMSE_Registrar::destroy();
    delete std::exchange(IMS_engine_proxy::local_registrar, nullptr);
    delete std::exchange(IMS_engine_proxy::ims_proxy_auth_ptr, nullptr);
    delete std::exchange(IMS_engine_proxy::rt, nullptr);
    IMS_engine_proxy::rtintf = nullptr;
    IMS_Proxy_Authenticate::rt_ptr = nullptr;
    IMS_engine_proxy::tcp_servconn_table.clear();
    IMS_engine_proxy::net_intf_ip.clear();
    engine_.reset();
    IMS_engine_proxy::set_instance(nullptr);
    IMS_User_Agent::ua_connector = nullptr;
    core_->shutdown();
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  static bool isStep(std::string_view text) { return text.size() > 2 && (text[2] == '\n' || text[2] == '@'); }
  /// One step; false when the text is none. What left is in `sent()` then.
  bool step(std::string_view text) {
    if (!isStep(text)) return false;
    Party* const who = party(text[0]);
    const char how = text[1];
    if (who == nullptr || std::string_view("utorij").find(how) == std::string_view::npos) return false;
    text.remove_prefix(text[2] == '\n' ? 3 : 2);
    sent_.clear();
    processed_ = 0;
    honest_to_ = nullptr;
    honest_ = how == 'r' || how == 'i' || how == 'j';
    mark_ = "mark" + std::to_string(++steps_) + '-';
    who_ = who;
    std::string bytes;
    Way way = how == 'u' || how == 'i' ? Way::Datagram : how == 'o' ? Way::Opened : Way::Accepted;
    if (how == 'r') {
      if (!answerOf(*who, filled(text), bytes, way)) return false;
    } else if (how == 'i' || how == 'j') {
      if (!laterRequestOf(*who, filled(text), bytes)) return false;
    } else {
      bytes = text.starts_with('@') ? made(*who, filled(text.substr(1)), way == Way::Datagram ? "UDP" : "TCP")
                                    : withLineEnds(filled(text));
    }
    way_ = way;
    received_ = receive(*who, way, bytes);
    settle();
    remember();
    return true;
  }

  const std::vector<Sent>& sent() const { return sent_; }
  /// Tells what came and what left, and stops.
  [[noreturn]] void explain(const char* promise, const char* file, int line) const {
    std::fprintf(stderr, "step %d, from %c:\n%s\n", steps_, who_->name, received_.c_str());
    for (const Sent& one : sent_)
      std::fprintf(stderr, "---- to %c (%s:%d):\n%s\n", one.to != nullptr ? one.to->name : '?', one.ip.c_str(),
                   one.port, one.text.c_str());
    broken(promise, file, line);
  }
  /// The proxy's own answer to who asked, or what the registrar says: not passed on.
  bool isOwn(const Sent& one) const {
    if (one.way == Way::Processing) return true;
    if (received_.starts_with("SIP/2.0 ")) return false;
    const bool done = one.text.starts_with("SIP/2.0 200 OK\r\n") && one.text.find("<route-info>") != std::string::npos;
    return done || one.text.starts_with("SIP/2.0 100 trying\r\n");
  }
  /// What the last step put in, who did, and how.
  const std::string& received() const { return received_; }
  const Party& who() const { return *who_; }
  Way way() const { return way_; }
  /// True when the step was an honest one; `honestTo` is then who caused what it goes on with.
  bool honest() const { return honest_; }
  const Party* honestTo() const { return honest_to_; }
  /// The text that only this step has.
  const std::string& mark() const { return mark_; }
  /// How many messages of the last step reached the ordinary SIP processing.
  std::size_t processed() const { return processed_; }
  Party* party(char name) {
    for (Party& one : parties_)
      if (one.name == name) return &one;
    return nullptr;
  }
  const std::deque<Party>& parties() const { return parties_; }
  std::string keyOf(const Party& party) const { return keys_.at(party.name); }
  std::string tagOf(const SIPLIB_SIPConnection* connection) const {
    for (const auto& record : IMS_engine_proxy::tcp_servconn_table)
      if (record.connection == connection) return record.tag;
    return {};
  }

  /// Everything that only the terminal itself may change, as a text.
  std::string tables() const {
    const IMSE_Registrar& registrar = *IMSE_Registrar::get_instance();
    std::string text;
    const auto add = [&](auto... values) { ((text += std::to_string(values) + ' '), ...); };
    for (const auto& client : registrar.clients())
      add(reinterpret_cast<std::uintptr_t>(client.get()), client->get_port(), client->state(),
          client->get_expiry_value());
    for (const auto& domain : registrar.domains()) {
      add(domain->get_prof_id(), domain->notify_state(), domain->clients().size());
      text += domain->get_prof_name() + ' ';
    }
    const IMSE_RegSubscriber* const subscriber = registrar.subscriber();
    add(reinterpret_cast<std::uintptr_t>(subscriber), subscriber != nullptr ? subscriber->state() : -1);
    const int first = std::min(std::atoi(keys_.at('R').c_str()), first_domain_);
    for (int key = first; key < first + kKeysToLookAt; ++key) {
      if (const RoutingTable_Entry_T* client = IMS_engine_proxy::rt->client(std::to_string(key))) {
        text += client->ua_port + ' ' + client->uri + ' ' + client->domain_key + ' ';
        add(reinterpret_cast<std::uintptr_t>(client->tcp_client_conn), client->aors.size(), client->headers.size());
      }
      if (const DomainTable_Entry_T* domain = IMS_engine_proxy::rt->domain(std::to_string(key))) {
        text += domain->domain.profile_id + ' ' + domain->domain.proxy_ip + ' ' + domain->domain.proxy_port + ' ';
        add(reinterpret_cast<std::uintptr_t>(domain->tcp_client_conn),
            reinterpret_cast<std::uintptr_t>(domain->pnotifier), domain->client_count);
      }
    }
    return text;
  }

  // siplib::PathMaker: where the ordinary SIP processing sends by itself.
  std::shared_ptr<siplib::Path> pathTo(std::string_view transport, std::string_view ip, int port) override {
    if (port == 0) return nullptr;
    return std::make_shared<RecordingPath>(*this, partyAt(ip, port), std::string(ip), port, transport != "UDP");
  }

 private:
  static constexpr int kKeysToLookAt = 200;
  /// Rounds of the loop after which what one step began must have come to rest.
  static constexpr int kMostRounds = 100;

  class RecordingPath final : public siplib::Path {
   public:
    RecordingPath(Terminal& terminal, Party* to, std::string ip, int port, bool reliable)
        : terminal_(terminal), to_(to), ip_(std::move(ip)), port_(port), reliable_(reliable) {}
    bool send(std::string_view bytes) override {
      terminal_.sent_.push_back({Way::Processing, to_, ip_, port_, std::string(bytes)});
      return true;
    }
    bool reliable() const override { return reliable_; }
    void local(std::string& ip, int& port) const override {
      ip = to_ != nullptr && !to_->local ? kNetworkIp : kLocalIp;
      port = kPort;
    }
    void peer(std::string& ip, int& port) const override {
      ip = ip_;
      port = port_;
    }

   private:
    Terminal& terminal_;
    Party* const to_;
    const std::string ip_;
    const int port_;
    const bool reliable_;
  };

  /// A datagram's way to the local endpoint itself: nothing leaves, answers come back as received.
  class OwnPath final : public siplib::Path {
   public:
    explicit OwnPath(Terminal& terminal) : terminal_(terminal) {}
    bool send(std::string_view bytes) override {
      terminal_.reactor_.post([this_one = &terminal_, text = std::string(bytes)] { this_one->receiveOwn(text); });
      return true;
    }
    bool reliable() const override { return false; }
    void local(std::string& ip, int& port) const override {
      ip = kLocalIp;
      port = kPort;
    }
    void peer(std::string& ip, int& port) const override { local(ip, port); }

   private:
    Terminal& terminal_;
  };

  /// As the fake one, but for the local endpoint's processing and the way to itself, which are the library's.
  class Connector final : public FakeConnector {
   public:
    explicit Connector(Terminal& terminal) : terminal_(terminal) {}
    SIPLIB_SIPConnectionNotifier* openNotifier(std::string_view /*uri*/) override {
      const auto address = *siplib::SocketAddress::parse(kLocalIp, kPort);
      terminal_.core_->setLocalAddress(address);
      terminal_.core_->layer().setLocal(kLocalIp, kPort);
      notifier_ = std::make_unique<LocalNotifier>(terminal_.core_->layer());
      return notifier_.get();
    }
    SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip, int source_port,
                                              std::string_view ip, int port) override {
      const auto source = siplib::SocketAddress::parse(source_ip, source_port);
      const auto destination = siplib::SocketAddress::parse(ip, port);
      if (!source || !destination) return nullptr;
      if (destination == terminal_.core_->localAddress() && IMS_engine_proxy::is_tcp(std::string(transport))) {
        if (!own_) own_ = std::make_shared<siplib::ClientTcpTransport>(terminal_.core_, *source, *destination);
        return own_->open() ? own_.get() : nullptr;
      }
      // Only from an endpoint of the terminal.
      if (source_port != kPort || (source_ip != kLocalIp && source_ip != kNetworkIp)) return nullptr;
      return FakeConnector::openClient(transport, source_ip, source_port, ip, port);
    }
    int close(SIPLIB_SIPConnection* connection) override {
      if (connection == nullptr) return -1;
      if (connection == own_.get()) {
        own_->closeByUser();
        return 0;
      }
      if (terminal_.core_->layer().close(connection)) return 0;
      return FakeConnector::close(connection);
    }

   private:
    Terminal& terminal_;
    std::unique_ptr<LocalNotifier> notifier_;
    std::shared_ptr<siplib::ClientTcpTransport> own_;
  };

  // --- Setting up

  /// Only what a step does happens: no time passes.
  SIPLIB_SIPStackConfig settings() {
    SIPLIB_SIPStackConfig config;
    config.t1 = config.t2 = config.t4 = std::chrono::hours(1);
    config.reactor = &reactor_;
    config.log = [](int level, const char* where, std::string_view text) {
      IMS_log::loginfo(level, where, "%.*s", static_cast<int>(text.size()), text.data());
    };
    return config;
  }
  void addParties() {
    const auto add = [this](char name, bool local, const char* ip, int port, const char* profile, const char* user) {
      parties_.push_back({name, local, ip, port, profile, user});
    };
    add('a', true, kLocalIp, 5071, "1", "alice@home.net");
    add('b', true, kLocalIp, 5072, "1", "bob@home.net");
    add('c', true, kLocalIp, 5073, "2", "carol@work.net");
    add('d', true, kLocalIp, 5074, "2", "dave@work.net");
    add('m', true, kLocalIp, 5075, "", "module@127.0.0.1");
    add('w', true, kLocalIp, 5080, "", "regua@127.0.0.1");
    add('z', true, kLocalIp, 5099, "", "zoe@127.0.0.1");
    add('1', false, "127.0.0.3", 5080, "1", "peer@home.net");
    add('2', false, "127.0.0.4", 5080, "2", "peer@work.net");
    add('x', false, "127.0.0.9", 5060, "", "stranger@elsewhere.net");
  }
  static const std::string& configDirectory() {
    static const TemporaryDir directory;
    static const bool written = [] {
      for (int i = 0; i < 2; ++i) {
        directory.write(std::string("profiles/") + (i == 0 ? "home" : "work") + ".xml",
                        "<network-profile><operation-mode>ietf-shared</operation-mode><impi>" +
                            std::string(kIdentities[i]) + "</impi><secret>" + std::string(kSecrets[i]) +
                            "</secret></network-profile>");
      }
      return true;
    }();
    static_cast<void>(written);
    return directory.path();
  }
  void start() {
    IMS_User_Agent::set_config_dir(configDirectory());
    IMS_User_Agent::set_run_dir("/nonexistent");
    IMS_User_Agent::ua_connector = &connector_;
    IMSE_Domain::profile_id_counter = 1;
    IMSE_ClientFactory::ua_id_counter = 0;
    IMS_engine_proxy::arg_dynport = nullptr;
    IMS_engine_proxy::net_intf_port = "5060";
    engine_ = std::make_unique<IMS_engine_proxy>();
    IMS_engine_proxy::set_instance(engine_.get());
    PROMISE(engine_->start());
    for (Party& one : parties_) {
      one.accepted =
          std::make_unique<FakeServerTcp>(one.local ? kLocalIp : kNetworkIp, kPort, one.ip, 40000 + one.name);
      FakeNotifier notifier;
      notifier.next_tcp = one.accepted.get();
      IMS_engine_proxy::serv_list->notifyIncomingConnection(&notifier);
    }
    settle();
    keys_['R'] = IMS_engine_proxy::rt->findKey(CT_UA_PORT, "5060");
    PROMISE(!keys_['R'].empty());
  }
  void registerAll() {
    step(
        "wu@SUBSCRIBE sip:registrar@127.0.0.1 SIP/2.0\nTo: <sip:registrar@127.0.0.1>\nEvent: local-reg-events\n"
        "Expires: 3600");
    for (const Party& one : parties_) {
      if (one.profile.empty() || !one.local) continue;
      const bool home = one.profile == "1";
      step(std::string(1, one.name) + "u@REGISTER sip:127.0.0.1 SIP/2.0\nTo: <sip:x@127.0.0.1>\nExpires: 3600\n" +
           "Content-Type: application/xml\n\n<ua-info><profile-info><name>" + (home ? "home" : "work") +
           "</name></profile-info><aor>sip:" + one.user + "<ua-specific-parameters><feature-tag>+g.of-" + one.name +
           "</feature-tag><events>event-" + one.name + "</events><methods>INVITE,MESSAGE</methods><content-type>" +
           "text/plain</content-type><sip-headers><header>P-Own:of-" + one.name +
           "</header></sip-headers></ua-specific-parameters></aor></ua-info>");
    }
    step(
        "mu@REGISTER sip:127.0.0.1 SIP/2.0\nTo: <sip:x@127.0.0.1>\nExpires: 3600\nContent-Type: application/xml\n\n"
        "<module-info><package-info>presence</package-info></module-info>");
    for (const char* profile : {"1", "2"}) {
      step(std::string("zu@MESSAGE sip:127.0.0.1 SIP/2.0\nTo: <sip:127.0.0.1>\nContent-Type: application/xml\n\n") +
           "<route-info><action>set-route</action><profile-info><zel-profile-id>" + profile +
           "</zel-profile-id></profile-info><device-name>127.0.0.2</device-name><ip-type-port>127.0.0." +
           (*profile == '1' ? "3" : "4") + ":TCP:5080</ip-type-port></route-info>");
    }
    first_domain_ = std::atoi(IMS_engine_proxy::rt->findDomain(DT_PROFILE_ID, "1").c_str());
    PROMISE(!IMS_engine_proxy::rt->findDomain(DT_PROFILE_ID, "2").empty());
    for (const Party& one : parties_) {
      if (!one.local) continue;
      keys_[one.name] = IMS_engine_proxy::rt->findKey(CT_UA_PORT, std::to_string(one.port));
      PROMISE(!keys_[one.name].empty() || one.name == 'z' || one.name == 'w');
    }
    for (const auto& [name, key] : keys_) words_.emplace_back(std::string("{") + name + '}', key);
    for (Party& one : parties_) {
      one.asked.clear();
      one.last.clear();
    }
  }

  // --- What is sent in

  std::string filled(std::string_view text) const {
    std::string result(text);
    const auto replace = [&](std::string_view word, std::string_view meaning) {
      for (std::size_t at = 0; (at = result.find(word, at)) != std::string::npos; at += meaning.size())
        result.replace(at, word.size(), meaning);
    };
    for (const auto& [word, meaning] : words_) replace(word, meaning);
    for (const Party& one : parties_)
      replace(std::string("{t") + one.name + '}',
              who_->local || one.local || &one == who_ ? tagOf(one.accepted.get()) : "unknown");
    replace("{n}", mark_);
    replace("{N}", notify_branch_);
    return result;
  }
  static std::string withLineEnds(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) result += '\r';
      result += text[i];
    }
    return result;
  }
  using Lines = std::vector<std::pair<std::string, std::string>>;
  /// The usual lines with those of the text in their place, and the body.
  static std::string put(std::string_view start, Lines lines, std::string_view own, std::string_view body) {
    bool length = true;
    for (const std::string_view line : split(own, "\n")) {
      if (line.empty()) continue;
      const bool out = line[0] == '-';
      const std::string_view name = line.substr(out ? 1 : 0, line.find(':') - (out ? 1 : 0));
      const auto same = [&](const auto& one) { return strict::lower(one.first) == strict::lower(name); };
      if (strict::lower(name) == "content-length") length = false;
      const auto place = std::find_if(lines.begin(), lines.end(), [&](const auto& one) {
        return same(one) && one.second.find('\x01') == std::string::npos;
      });
      if (out) {
        if (place != lines.end()) lines.erase(place);
      } else if (place != lines.end()) {
        // Marked as the text's own: a second line of the name is one more.
        place->second = std::string(line) + '\x01';
      } else {
        lines.emplace_back(name, std::string(line) + '\x01');
      }
    }
    std::string text = std::string(start) + "\r\n";
    for (auto& [name, value] : lines) {
      if (value.ends_with('\x01'))
        text.append(value, 0, value.size() - 1).append("\r\n");
      else
        text.append(name).append(": ").append(value).append("\r\n");
    }
    if (length) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text.append("\r\n").append(body);
  }
  std::string made(const Party& who, std::string text, const char* transport) const {
    const std::size_t blank = text.find("\n\n");
    const std::string body = blank == std::string::npos ? std::string() : text.substr(blank + 2);
    text.erase(std::min(blank, text.size()));
    std::string_view rest = text;
    const std::string_view start = cut(rest, "\n");
    const std::string at = who.ip + ':' + std::to_string(who.port);
    const std::string_view method = start.substr(0, start.find(' '));
    const bool response = start.starts_with("SIP/");
    return put(start,
               {{"Via", std::string("SIP/2.0/") + transport + ' ' + at + ";branch=z9hG4bK" + mark_},
                {"Max-Forwards", "70"},
                {"From", "<sip:" + who.user + ">;tag=f" + who.name},
                {"To", "<sip:someone@far.net>"},
                {"Call-ID", "call-" + mark_ + who.name},
                {"CSeq", "1 " + std::string(response ? "INVITE" : method)},
                {"Contact", "<sip:" + who.user.substr(0, who.user.find('@')) + '@' + at + '>'}},
               rest, body);
  }
  bool answerOf(Party& who, const std::string& text, std::string& bytes, Way& way) {
    if (who.asked.empty()) return false;
    const Party::Asked asked = who.asked.front();
    const auto request = strict::read(asked.text, false);
    if (!request) return false;
    std::string_view rest = text;
    const std::string status(cut(rest, "\n"));
    if (!strict::isDigits(status, 3) || status < "100" || status > "699") return false;
    if (status >= "200") who.asked.pop_front();
    way = asked.way;
    honest_to_ = asked.from;
    std::string head;
    for (const strict::Line& line : request->lines) {
      if (line.name != "via" && line.name != "from" && line.name != "to" && line.name != "call-id" &&
          line.name != "cseq" && line.name != "record-route")
        continue;
      head += line.name + ": " + line.value;
      if (line.name == "to" && line.value.find(";tag=") == std::string::npos) head += std::string(";tag=t") + who.name;
      head += "\r\n";
    }
    const std::string at = who.ip + ':' + std::to_string(who.port);
    bytes = put("SIP/2.0 " + status + " Reason\r\n" + head.substr(0, head.size() - 2),
                {{"Contact", "<sip:" + who.user.substr(0, who.user.find('@')) + '@' + at + '>'}}, rest, {});
    return true;
  }
  bool laterRequestOf(Party& who, const std::string& text, std::string& bytes) {
    const auto last = strict::read(who.last, false);
    if (!last) return false;
    const auto target = strict::readAddress(strict::elements(last->value("contact")).front());
    if (!target || target->uri.find_first_of("\r\n") != std::string::npos) return false;
    std::string_view rest = text;
    const std::string method(cut(rest, "\n"));
    if (!strict::isToken(method) || method == "REGISTER") return false;
    honest_to_ = who.last_from;
    std::string routes;
    for (const strict::Line& line : last->lines)
      if (line.name == "record-route") routes += "Route: " + line.value + "\n";
    // Who was asked names the asker in To.
    const std::string us = last->value(last->is_request ? "to" : "from");
    const std::string them = last->value(last->is_request ? "from" : "to");
    bytes = made(who,
                 method + ' ' + target->uri + " SIP/2.0\nFrom: " + us + "\nTo: " + them + "\n" +
                     "Call-ID: " + last->value("call-id") + '\n' + routes + std::string(rest),
                 "UDP");
    return true;
  }

  /// What is behind the first message on a connection is left out. The message as the listener was asked about it.
  std::string receive(Party& who, Way way, std::string bytes) {
    if (way == Way::Datagram) {
      FakeServerUdp& transport = who.local ? local_udp_ : network_udp_;
      transport.peer_ip = who.ip;
      transport.peer_port = who.port;
      FakeNotifier notifier;
      notifier.udp = &transport;
      const auto path = std::make_shared<RecordingPath>(*this, &who, who.ip, who.port, false);
      take(path, who.local, bytes.data(), bytes.size(), *IMS_engine_proxy::serv_list,
           [&](SIPLIB_SIPMessageHandle message) {
             transport.inbox.push_back(std::move(message));
             IMS_engine_proxy::serv_list->notifyUdpMsg(&notifier);
           });
      return bytes;
    }
    FakeClientTcp* const opened = way == Way::Opened ? connector_.tcpClientTo(who.ip, who.port) : nullptr;
    if (way == Way::Opened && opened == nullptr) return {};
    const auto path = std::make_shared<RecordingPath>(*this, &who, who.ip, who.port, true);
    siplib::Framer framer;
    for (std::string_view left = bytes; !left.empty();) {
      const auto room = framer.reserve();
      const std::size_t count = std::min(room.size(), left.size());
      left.copy(room.data(), count);
      left.remove_prefix(count);
      framer.commit(count);
      for (;;) {
        const siplib::Framer::Frame frame = framer.next();
        if (frame.kind == siplib::Framer::Kind::Malformed) return {};  // it would be closed
        if (frame.kind == siplib::Framer::Kind::NeedMore) break;
        if (frame.kind == siplib::Framer::Kind::KeepAlive) continue;
        std::string message(frame.text, frame.length);
        if (opened != nullptr) {
          take(path, who.local, frame.text, frame.length, *IMS_engine_proxy::client_list,
               [&](SIPLIB_SIPMessageHandle taken) {
                 opened->inbox.push_back(std::move(taken));
                 IMS_engine_proxy::client_list->notifyResponse(opened);
               });
        } else {
          take(path, who.local, frame.text, frame.length, *IMS_engine_proxy::serv_list,
               [&](SIPLIB_SIPMessageHandle taken) {
                 who.accepted->inbox.push_back(std::move(taken));
                 IMS_engine_proxy::serv_list->notifyRequest(who.accepted.get());
               });
        }
        return message;
      }
    }
    return {};
  }
  /// The library's part of the bargain: asks the listener, then either delivers or processes.
  template <class Listener, class Deliver>
  void take(std::shared_ptr<siplib::Path> path, bool local, char* text, std::size_t length, Listener& listener,
            Deliver deliver) {
    SIPLIB_message* created = nullptr;
    const bool taken = listener.handleIncomingMessage(text, static_cast<unsigned int>(length), &created);
    SIPLIB_SIPMessageHandle message(created);
    if (message && !local) message->setFromNetwork();
    if (taken)
      deliver(std::move(message));
    else
      core_->process(std::move(message), std::move(path));
  }
  /// A datagram from the local endpoint to itself.
  void receiveOwn(std::string bytes) {
    local_udp_.peer_ip = kLocalIp;
    local_udp_.peer_port = kPort;
    FakeNotifier notifier;
    notifier.udp = &local_udp_;
    take(std::make_shared<OwnPath>(*this), true, bytes.data(), bytes.size(), *IMS_engine_proxy::serv_list,
         [&](SIPLIB_SIPMessageHandle message) {
           local_udp_.inbox.push_back(std::move(message));
           IMS_engine_proxy::serv_list->notifyUdpMsg(&notifier);
         });
  }

  // --- What comes of it

  /// Until nothing moves any more.
  void settle() {
    int quiet = 0;
    for (int round = 0; quiet < 3; ++round) {
      PROMISE(round < kMostRounds);
      ++quiet;
      reactor_.poll();
      while (engine_->handle_one_message()) {
        quiet = 0;
        core_->layer().endTurn();
        core_->freeRetired();
      }
      if (collect()) quiet = 0;
      if (watch()) quiet = 0;
    }
    for (FakeServerUdp* const transport : {&local_udp_, &network_udp_})
      transport->setSipMessageHandle(SIPLIB_SIPMessageHandle());
    connector_.closes.clear();
    connector_.client_opens.clear();
    connector_.notifier_opens.clear();
  }
  Party* partyAt(std::string_view ip, int port) {
    for (Party& one : parties_)
      if (one.ip == ip && one.port == port) return &one;
    return nullptr;
  }
  template <class Transport>
  bool collectFrom(Transport& transport, Way way, Party* to) {
    for (std::string& text : transport.sent)
      sent_.push_back({way, to, transport.peer_ip, transport.peer_port, std::move(text)});
    return !std::exchange(transport.sent, {}).empty();
  }
  bool collect() {
    bool any = false;
    for (Party& one : parties_)
      if (one.accepted) any |= collectFrom(*one.accepted, Way::Accepted, &one);
    for (auto& [pair, transport] : connector_.tcp_clients)
      any |= collectFrom(*transport, Way::Opened, partyAt(transport->peer_ip, transport->peer_port));
    for (auto& transport : connector_.udp_clients) {
      PROMISE(!transport->open);
      if (transport->peer_ip == kLocalIp && transport->peer_port == kPort) {
        for (const std::string& text : std::exchange(transport->sent, {})) {
          const SIPLIB_SIPMessageHandle message(new SIPLIB_message(text.data(), text.size()));
          core_->process(message, std::make_shared<OwnPath>(*this));
          any = true;
        }
      }
      any |= collectFrom(*transport, Way::Datagram, partyAt(transport->peer_ip, transport->peer_port));
    }
    connector_.udp_clients.clear();
    for (FakeServerUdp* const transport : {&local_udp_, &network_udp_})
      any |= collectFrom(*transport, Way::Datagram, partyAt(transport->peer_ip, transport->peer_port));
    return any;
  }
  /// The watcher answers each NOTIFY but the last that a step leaves, so that there is one to forge an answer to.
  bool watch() {
    bool any = false;
    for (; watched_ < sent_.size(); ++watched_) {
      const Sent& one = sent_[watched_];
      if (one.way != Way::Processing || !one.text.starts_with("NOTIFY ")) continue;
      if (!waiting_notify_.empty()) {
        const std::string answer = answerTo(waiting_notify_);
        receive(*party('w'), Way::Datagram, answer);
        any = true;
      }
      waiting_notify_ = one.text;
      if (const auto notify = strict::read(one.text, false)) {
        const std::string via = notify->value("via");
        const std::size_t at = via.find("branch=");
        if (at != std::string::npos) notify_branch_ = via.substr(at + 7, via.find(';', at) - at - 7);
      }
    }
    return any;
  }
  static std::string answerTo(const std::string& request) {
    const auto notify = strict::read(request, false);
    std::string text = "SIP/2.0 200 OK\r\n";
    if (!notify) return text;
    for (const strict::Line& line : notify->lines)
      if (line.name == "via" || line.name == "from" || line.name == "to" || line.name == "call-id" ||
          line.name == "cseq")
        text += line.raw;
    return text + "Content-Length: 0\r\n\r\n";
  }
  /// For the honest steps.
  void remember() {
    watched_ = 0;
    for (const Sent& one : sent_) {
      if (one.to == nullptr || one.way == Way::Processing) continue;
      const auto message = strict::read(one.text, false);
      if (!message) continue;
      if (message->is_request && message->method != "ACK" && one.to->asked.size() < 8)
        one.to->asked.push_back({one.text, one.way, who_});
      if (message->find("contact") != nullptr) {
        one.to->last = one.text;
        one.to->last_from = who_;
      }
    }
  }

  siplib::Reactor reactor_;
  std::size_t processed_ = 0;
  std::vector<Sent> sent_;
  std::size_t watched_ = 0;
  std::deque<Party> parties_;
  std::shared_ptr<siplib::StackCore> core_;
  Connector connector_;
  std::unique_ptr<IMS_engine_proxy> engine_;
  FakeServerUdp local_udp_{kLocalIp, kPort};
  FakeServerUdp network_udp_{kNetworkIp, kPort};
  std::map<char, std::string> keys_;
  int first_domain_ = 0;
  std::vector<std::pair<std::string, std::string>> words_;
  std::string waiting_notify_;
  std::string notify_branch_;

  // Of the last step.
  int steps_ = 0;
  Party* who_ = nullptr;
  Way way_ = Way::Datagram;
  bool honest_ = false;
  Party* honest_to_ = nullptr;
  std::string mark_;
  std::string received_;
};

}  // namespace fuzz
