// The endpoints of one stack and the handles on them.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "siplib/connection.h"
#include "siplib/endpoint.h"
#include "siplib/stack_core.h"

namespace siplib {

class EndpointTable {
 public:
  explicit EndpointTable(std::shared_ptr<StackCore> core) : core_(std::move(core)) {}
  EndpointTable(const EndpointTable&) = delete;
  EndpointTable& operator=(const EndpointTable&) = delete;

  /// A handle on the endpoint, which is opened when it is not open; null with a log line.
  SIPLIB_SIPTransportNotifier* openTransportNotifier(const SocketAddress& address);
  /// The same with the ordinary SIP processing; null also when there is a local endpoint already.
  SIPLIB_SIPConnectionNotifier* openConnectionNotifier(const SocketAddress& address);
  /// Null when there is none.
  std::shared_ptr<Endpoint> find(const SocketAddress& address) const;

  /// A handle's end: `handle` is freed when the I/O thread cannot be using it any more, the endpoint with the last.
  void release(const std::shared_ptr<Endpoint>& endpoint, SIPLIB_SIPTransportNotifier* notifier,
               std::shared_ptr<Retired> handle);
  /// The end of the stack.
  void shutdown();

 private:
  std::shared_ptr<Endpoint> obtain(const SocketAddress& address);

  const std::shared_ptr<StackCore> core_;
  mutable std::mutex mutex_;
  std::unordered_map<SocketAddress, std::shared_ptr<Endpoint>> endpoints_;
  std::unordered_set<std::shared_ptr<Retired>> handles_;
};

}  // namespace siplib
