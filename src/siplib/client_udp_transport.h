// Datagrams to one peer through an endpoint's socket. One is opened for every message, so they come from a pool.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "siplib/closable.h"
#include "siplib/connection.h"
#include "siplib/endpoint.h"

namespace siplib {

class ClientUdpTransport;

class ClientUdpPool {
 public:
  ClientUdpPool();
  ~ClientUdpPool();
  ClientUdpPool(const ClientUdpPool&) = delete;
  ClientUdpPool& operator=(const ClientUdpPool&) = delete;

  ClientUdpTransport* open(std::shared_ptr<Endpoint> endpoint, const SocketAddress& destination);
  void closed(ClientUdpTransport* transport);
  /// Makes what was closed in the turn usable again.
  void endTurn();

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<ClientUdpTransport>> all_;
  std::vector<ClientUdpTransport*> free_;
  std::vector<ClientUdpTransport*> closed_;
};

class ClientUdpTransport final : public SIPLIB_SIPClientUdpTransport, public Closable {
 public:
  explicit ClientUdpTransport(ClientUdpPool& pool) : pool_(pool) {}
  void open(std::shared_ptr<Endpoint> endpoint, const SocketAddress& destination);

  int send() override;
  bool getLocalAddress(std::string& ip, int& port) const override;
  bool getPeerAddress(std::string& ip, int& port) const override { return destination_.get(ip, port); }
  void closeByUser() override;

 private:
  ClientUdpPool& pool_;
  /// Null when closed.
  std::shared_ptr<Endpoint> endpoint_;
  SocketAddress destination_;
};

}  // namespace siplib
