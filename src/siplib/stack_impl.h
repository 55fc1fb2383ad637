// The stack: its tables, its connector, and the paths of its ordinary SIP processing.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "siplib/client_table.h"
#include "siplib/client_udp_transport.h"
#include "siplib/connector.h"
#include "siplib/endpoint_table.h"
#include "siplib/stack.h"
#include "siplib/stack_core.h"
#include "siplib/transaction_layer.h"

namespace siplib {

/// Makes the ordinary SIP processing of a stack; null when it cannot be made.
using LayerMaker = std::function<std::unique_ptr<TransactionLayer>(const SIPLIB_SIPStackConfig&, Reactor&, PathMaker&)>;

class StackImpl final : public SIPLIB_SIPStack, public SIPLIB_SIPConnector, public PathMaker {
 public:
  /// Null when the configuration cannot work, with a log line.
  static std::unique_ptr<StackImpl> create(const SIPLIB_SIPStackConfig& config, const LayerMaker& make_layer);
  ~StackImpl() override;

  SIPLIB_SIPConnector* connector() override { return this; }
  void endTurn() override;
  void holdSending() override { core_->outgoing().hold(); }
  void releaseSending() override { core_->outgoing().release(); }

  SIPLIB_SIPConnectionNotifier* openNotifier(std::string_view uri) override;
  SIPLIB_SIPTransportNotifier* openTransportNotifier(std::string_view transport, std::string_view ip,
                                                     int port) override;
  SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip, int source_port,
                                            std::string_view ip, int port) override;
  SIPLIB_SIPClientConnection* openClientTransaction(std::string_view transport, std::string_view ip, int port) override;
  bool mayControl(const SIPLIB_SIPTransportConnection& connection, std::string& why) override;
  int close(SIPLIB_SIPConnection* connection) override;
  int closeLost(SIPLIB_SIPClientTcpTransport* transport) override;
  void keepPlacesFor(const std::vector<std::string>& addresses) override;

  std::shared_ptr<Path> pathTo(std::string_view transport, std::string_view ip, int port) override;

 private:
  explicit StackImpl(const SIPLIB_SIPStackConfig& config);

  const std::shared_ptr<StackCore> core_;
  EndpointTable endpoints_;
  ClientTable clients_;
  ClientUdpPool udp_clients_;

  /// Opened in this turn; see ClientTcpTransport::startDeferred.
  std::mutex fresh_mutex_;
  std::vector<std::shared_ptr<ClientTcpTransport>> fresh_;
};

}  // namespace siplib
