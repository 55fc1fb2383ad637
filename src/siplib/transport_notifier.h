// A user's handle on an endpoint.
#pragma once

#include <atomic>
#include <memory>

#include "siplib/closable.h"
#include "siplib/connection.h"
#include "siplib/endpoint.h"
#include "siplib/stack_core.h"

namespace siplib {

class EndpointTable;

class TransportNotifier final : public SIPLIB_SIPTransportNotifier,
                                public Closable,
                                public Retired,
                                public std::enable_shared_from_this<TransportNotifier> {
 public:
  TransportNotifier(EndpointTable& table, std::shared_ptr<Endpoint> endpoint)
      : table_(table), endpoint_(std::move(endpoint)) {}

  void setListener(SIPLIB_SIPServerTransportListener* listener) override;
  SIPLIB_SIPServerTcpTransport* acceptAndOpen() override;
  SIPLIB_SIPServerUdpTransport* acceptOpenUdp() override;
  bool getCurrentAddress(std::string_view transport, std::string& ip, int& port) const override;
  void closeByUser() override;

 private:
  EndpointTable& table_;
  const std::shared_ptr<Endpoint> endpoint_;
  std::atomic<bool> closed_{false};
};

}  // namespace siplib
