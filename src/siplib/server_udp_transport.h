// The datagrams of an endpoint that its listener took.
#pragma once

#include <memory>

#include "siplib/connection.h"
#include "siplib/inbox.h"
#include "siplib/socket_address.h"
#include "siplib/stack_core.h"

namespace siplib {

class Endpoint;

class ServerUdpTransport final : public SIPLIB_SIPServerUdpTransport, public Retired {
 public:
  /// Most datagrams that wait for receive(); above it they are dropped, as a full socket buffer would.
  static constexpr std::size_t kMostReceived = 1024;

  struct Datagram {
    SIPLIB_SIPMessageHandle message;
    SocketAddress source;
  };

  explicit ServerUdpTransport(const SocketAddress& local) : local_(local) {}
  void setEndpoint(const std::shared_ptr<Endpoint>& endpoint) { endpoint_ = endpoint; }

  // I/O thread.
  bool full() const { return inbox_.full(); }
  void push(Datagram&& datagram) { inbox_.push(std::move(datagram)); }

  int receive() override;
  int send() override;
  bool getLocalAddress(std::string& ip, int& port) const override { return local_.get(ip, port); }
  bool getPeerAddress(std::string& ip, int& port) const override { return source_.get(ip, port); }
  bool awaited() const override { return !inbox_.empty(); }

 private:
  const SocketAddress local_;
  std::weak_ptr<Endpoint> endpoint_;
  Inbox<Datagram> inbox_{kMostReceived};
  SocketAddress source_;
};

}  // namespace siplib
