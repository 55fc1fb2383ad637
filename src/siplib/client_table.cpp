#include "siplib/client_table.h"

#include <algorithm>

namespace siplib {

std::shared_ptr<ClientTcpTransport> ClientTable::obtain(const SocketAddress& source, const SocketAddress& destination,
                                                        bool forever) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto found = clients_.find({source, destination});
  if (found == clients_.end()) {
    if (clients_.size() >= sweep_at_) sweep();
    found = clients_.emplace(Key(source, destination), std::make_shared<ClientTcpTransport>(core_, source, destination))
                .first;
  }
  if (forever) found->second->pin();
  return found->second;
}

// Nobody can take a new share while the lock is held, so a count of one stays one.
void ClientTable::sweep() {
  std::erase_if(clients_,
                [](const auto& entry) { return entry.second.use_count() == 1 && entry.second->forgettable(); });
  sweep_at_ = std::max(kSweepFrom, clients_.size() * 2);
}

void ClientTable::shutdown() {
  for (const auto& [key, client] : clients_) client->shutdown();
  clients_.clear();
}

}  // namespace siplib
