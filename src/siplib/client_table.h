// The client TCP transports of one stack, one per (source, destination).
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "siplib/client_tcp_transport.h"
#include "siplib/stack_core.h"

namespace siplib {

class ClientTable {
 public:
  explicit ClientTable(std::shared_ptr<StackCore> core) : core_(std::move(core)) {}
  ClientTable(const ClientTable&) = delete;
  ClientTable& operator=(const ClientTable&) = delete;

  /// Never null. `forever`: it lives as long as the stack, since users hold it; one that only the ordinary SIP
  /// processing has asked for is forgotten some time after its last use.
  std::shared_ptr<ClientTcpTransport> obtain(const SocketAddress& source, const SocketAddress& destination,
                                             bool forever);
  /// The end of the stack.
  void shutdown();

 private:
  using Key = std::pair<SocketAddress, SocketAddress>;
  struct Hash {
    std::size_t operator()(const Key& key) const { return key.first.hash() * 31 + key.second.hash(); }
  };
  void sweep();

  static constexpr std::size_t kSweepFrom = 64;

  const std::shared_ptr<StackCore> core_;
  std::mutex mutex_;
  std::unordered_map<Key, std::shared_ptr<ClientTcpTransport>, Hash> clients_;
  std::size_t sweep_at_ = kSweepFrom;
};

}  // namespace siplib
