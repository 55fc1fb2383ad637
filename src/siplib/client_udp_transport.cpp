#include "siplib/client_udp_transport.h"

#include <utility>

#include "siplib/socket.h"

namespace siplib {

ClientUdpPool::ClientUdpPool() = default;
ClientUdpPool::~ClientUdpPool() = default;

ClientUdpTransport* ClientUdpPool::open(std::shared_ptr<Endpoint> endpoint, const SocketAddress& destination) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (free_.empty()) {
    all_.push_back(std::make_unique<ClientUdpTransport>(*this));
    free_.push_back(all_.back().get());
  }
  ClientUdpTransport* const transport = free_.back();
  free_.pop_back();
  transport->open(std::move(endpoint), destination);
  return transport;
}

void ClientUdpPool::closed(ClientUdpTransport* transport) {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_.push_back(transport);
}

void ClientUdpPool::endTurn() {
  const std::lock_guard<std::mutex> lock(mutex_);
  free_.insert(free_.end(), closed_.begin(), closed_.end());
  closed_.clear();
}

void ClientUdpTransport::open(std::shared_ptr<Endpoint> endpoint, const SocketAddress& destination) {
  endpoint_ = std::move(endpoint);
  destination_ = destination;
}

int ClientUdpTransport::send() {
  if (!endpoint_ || !message_ || !message_->valid()) return -1;
  return endpoint_->sendSoon(*message_, destination_) ? 0 : -1;
}

bool ClientUdpTransport::getLocalAddress(std::string& ip, int& port) const {
  return endpoint_ && endpoint_->address().get(ip, port);
}

void ClientUdpTransport::closeByUser() {
  if (!endpoint_) return;
  endpoint_.reset();
  message_ = SIPLIB_SIPMessageHandle();
  pool_.closed(this);
}

}  // namespace siplib
