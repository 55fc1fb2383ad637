#include "siplib/stack_impl.h"

#include <optional>
#include <string>

#include "siplib/peer_owner.h"
#include "siplib/text.h"

namespace siplib {
namespace {

const char* faultOf(const SIPLIB_SIPStackConfig& config) {
  const Limits& limits = config.limits;
  if (config.reactor == nullptr) return "no reactor";
  if (config.max_connections == 0) return "no connection allowed";
  if (limits.max_message == 0 || limits.max_head == 0 || limits.max_header_lines == 0) return "no message allowed";
  if (config.connect_timeout.count() <= 0 || config.idle_timeout.count() < 0 || config.head_timeout.count() <= 0) {
    return "a timeout that is not positive";
  }
  if (config.t1.count() <= 0 || config.t2.count() <= 0 || config.t4.count() <= 0) return "a timer that is not positive";
  return nullptr;
}

enum class Transport { Tcp, Udp };

std::optional<Transport> transportOf(std::string_view name) {
  if (equalsIgnoreCase(name, "TCP")) return Transport::Tcp;
  if (equalsIgnoreCase(name, "UDP")) return Transport::Udp;
  return std::nullopt;
}

/// "sip:port" or "sip:address:port".
std::optional<SocketAddress> localUri(std::string_view uri) {
  constexpr std::string_view scheme = "sip:";
  if (!equalsIgnoreCase(uri.substr(0, scheme.size()), scheme)) return std::nullopt;
  uri.remove_prefix(scheme.size());
  const std::size_t colon = uri.rfind(':');
  const auto port = decimal(colon == std::string_view::npos ? uri : uri.substr(colon + 1), 65535);
  if (!port) return std::nullopt;
  const std::string_view ip = colon == std::string_view::npos ? std::string_view("127.0.0.1") : uri.substr(0, colon);
  return SocketAddress::parse(ip, static_cast<int>(*port));
}

/// A peer's address: its port is never 0.
std::optional<SocketAddress> peerOf(std::string_view ip, int port) {
  return port == 0 ? std::nullopt : SocketAddress::parse(ip, port);
}

int lengthOf(std::string_view text) {
  return static_cast<int>(std::min<std::size_t>(text.size(), 64));
}

}  // namespace

std::unique_ptr<StackImpl> StackImpl::create(const SIPLIB_SIPStackConfig& config, const LayerMaker& make_layer) {
  if (const char* fault = faultOf(config); fault != nullptr) {
    if (config.log) config.log(3, "create", std::string("the stack's configuration cannot work: ") + fault);
    return nullptr;
  }
  std::unique_ptr<StackImpl> stack(new StackImpl(config));
  auto layer = make_layer(stack->core_->config(), *config.reactor, *stack);
  if (!layer) {
    stack->core_->log(3, "create", "the transaction layer cannot be made");
    return nullptr;
  }
  stack->core_->setLayer(std::move(layer));
  return stack;
}

StackImpl::StackImpl(const SIPLIB_SIPStackConfig& config)
    : core_(std::make_shared<StackCore>(config)), endpoints_(core_), clients_(core_) {
}

StackImpl::~StackImpl() {
  endpoints_.shutdown();
  clients_.shutdown();
  core_->shutdown();
}

void StackImpl::endTurn() {
  udp_clients_.endTurn();
  {
    const std::lock_guard<std::mutex> lock(fresh_mutex_);
    for (const auto& client : fresh_) client->startDeferred();
    fresh_.clear();
  }
  core_->layer().endTurn();
  core_->freeRetired();
}

SIPLIB_SIPConnectionNotifier* StackImpl::openNotifier(std::string_view uri) {
  const auto address = localUri(uri);
  if (!address) {
    core_->log(4, "openNotifier", "not of the form sip:address:port: %.*s", lengthOf(uri), uri.data());
    return nullptr;
  }
  return endpoints_.openConnectionNotifier(*address);
}

SIPLIB_SIPTransportNotifier* StackImpl::openTransportNotifier(std::string_view transport, std::string_view ip,
                                                              int port) {
  const auto address = SocketAddress::parse(ip, port);
  if (!address || !transportOf(transport)) {
    core_->log(4, "openTransportNotifier", "no address to listen on: %.*s %.*s port %d", lengthOf(transport),
               transport.data(), lengthOf(ip), ip.data(), port);
    return nullptr;
  }
  return endpoints_.openTransportNotifier(*address);
}

SIPLIB_SIPTransportConnection* StackImpl::openClient(std::string_view transport, std::string_view source_ip,
                                                     int source_port, std::string_view ip, int port) {
  const auto kind = transportOf(transport);
  const auto source = SocketAddress::parse(source_ip, source_port);
  const auto destination = peerOf(ip, port);
  if (!kind || !source || !destination || source->family() != destination->family()) {
    core_->log(4, "openClient", "no addresses to connect: %.*s (%.*s:%d,%.*s:%d)", lengthOf(transport),
               transport.data(), lengthOf(source_ip), source_ip.data(), source_port, lengthOf(ip), ip.data(), port);
    return nullptr;
  }
  auto endpoint = endpoints_.find(*source);
  if (!endpoint) {
    core_->log(4, "openClient", "%s is no endpoint of this stack; %s is not opened from it", source->text().c_str(),
               destination->text().c_str());
    return nullptr;
  }
  if (*kind == Transport::Udp) return udp_clients_.open(std::move(endpoint), *destination);

  const auto client = clients_.obtain(*source, *destination, true);
  if (!client->open()) return nullptr;
  const std::lock_guard<std::mutex> lock(fresh_mutex_);
  fresh_.push_back(client);
  return client.get();
}

SIPLIB_SIPClientConnection* StackImpl::openClientTransaction(std::string_view transport, std::string_view ip,
                                                             int port) {
  auto path = pathTo(transport, ip, port);
  return path ? core_->layer().openClient(std::move(path)) : nullptr;
}

bool StackImpl::mayControl(const SIPLIB_SIPTransportConnection& connection, std::string& why) {
  const auto owner = [&connection](std::string& unknown) -> std::optional<uid_t> {
    if (dynamic_cast<const SIPLIB_SIPServerUdpTransport*>(&connection) != nullptr) {
      unknown = kDatagramOwner;
      return std::nullopt;
    }
    std::string ip;
    int port = 0;
    const auto known = [&](bool found) { return found ? peerOf(ip, port) : std::nullopt; };
    const auto peer = known(connection.getPeerAddress(ip, port));
    const auto local = known(connection.getLocalAddress(ip, port));
    if (!peer || !local) {
      unknown = "its address is not known";
      return std::nullopt;
    }
    return tcpPeerOwner(*peer, *local, unknown);
  };
  return core_->mayControl(owner, why);
}

int StackImpl::close(SIPLIB_SIPConnection* connection) {
  if (connection == nullptr) return -1;
  if (auto* const closable = dynamic_cast<Closable*>(connection); closable != nullptr) {
    closable->closeByUser();
    return 0;
  }
  return core_->layer().close(connection) ? 0 : -1;
}

int StackImpl::closeLost(SIPLIB_SIPClientTcpTransport* transport) {
  if (transport == nullptr) return -1;
  auto* const client = dynamic_cast<ClientTcpTransport*>(transport);
  if (client == nullptr) return -1;
  client->closeLost();
  return 0;
}

void StackImpl::keepPlacesFor(const std::vector<std::string>& addresses) {
  std::vector<SocketAddress> known;
  for (const std::string& ip : addresses) {
    if (const auto address = SocketAddress::parse(ip, 0)) known.push_back(*address);
  }
  core_->places().keepFor(known);
}

std::shared_ptr<Path> StackImpl::pathTo(std::string_view transport, std::string_view ip, int port) {
  const auto kind = transportOf(transport);
  const SocketAddress local = core_->localAddress();
  const auto destination = peerOf(ip, port);
  if (!kind || !local.known() || !destination || local.family() != destination->family()) {
    core_->log(4, "pathTo", "no way from the local endpoint to %.*s:%d over %.*s", lengthOf(ip), ip.data(), port,
               lengthOf(transport), transport.data());
    return nullptr;
  }
  if (*kind == Transport::Tcp) {
    auto client = clients_.obtain(local, *destination, false);
    client->reopenable();
    return std::make_shared<ClientPath>(std::move(client));
  }
  const auto endpoint = endpoints_.find(local);
  if (!endpoint) return nullptr;
  return std::make_shared<DatagramPath>(endpoint, local, *destination);
}

}  // namespace siplib
