#include "siplib/endpoint_table.h"

#include <utility>

#include "siplib/connection_notifier.h"
#include "siplib/transport_notifier.h"

namespace siplib {

std::shared_ptr<Endpoint> EndpointTable::obtain(const SocketAddress& address) {
  if (const auto found = endpoints_.find(address); found != endpoints_.end()) return found->second;
  auto endpoint = Endpoint::open(core_, address);
  if (endpoint) endpoints_.emplace(endpoint->address(), endpoint);
  return endpoint;
}

SIPLIB_SIPTransportNotifier* EndpointTable::openTransportNotifier(const SocketAddress& address) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto endpoint = obtain(address);
  if (!endpoint) return nullptr;
  const auto handle = std::make_shared<TransportNotifier>(*this, endpoint);
  endpoint->addHandle(handle.get());
  handles_.insert(handle);
  return handle.get();
}

SIPLIB_SIPConnectionNotifier* EndpointTable::openConnectionNotifier(const SocketAddress& address) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (core_->localAddress().known()) {
    core_->log(4, "openNotifier", "%s refused: the local endpoint is %s", address.text().c_str(),
               core_->localAddress().text().c_str());
    return nullptr;
  }
  const auto endpoint = obtain(address);
  if (!endpoint) return nullptr;
  const auto handle = std::make_shared<ConnectionNotifier>(core_, *this, endpoint);
  endpoint->addHandle(nullptr);
  endpoint->listener()->setTrusted(true);
  core_->setLocalAddress(endpoint->address());
  core_->layer().setLocal(endpoint->address().ip(), endpoint->address().port());
  handles_.insert(handle);
  return handle.get();
}

std::shared_ptr<Endpoint> EndpointTable::find(const SocketAddress& address) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = endpoints_.find(address);
  return found != endpoints_.end() && found->second->hasHandles() ? found->second : nullptr;
}

void EndpointTable::release(const std::shared_ptr<Endpoint>& endpoint, SIPLIB_SIPTransportNotifier* notifier,
                            std::shared_ptr<Retired> handle) {
  core_->outgoing().flush();  // what was sent before the close still leaves
  endpoint->removeHandle(notifier);
  core_->post([this, endpoint, handle = std::move(handle)] {
    // The sockets are closed under the lock: who opens the same address next finds either the endpoint or a free port.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!endpoint->hasHandles() && endpoints_.erase(endpoint->address()) > 0) endpoint->letGo();
    handles_.erase(handle);
    core_->retire(handle);
  });
}

void EndpointTable::shutdown() {
  for (const auto& [address, endpoint] : endpoints_) endpoint->letGo();
  endpoints_.clear();
  handles_.clear();
}

}  // namespace siplib
