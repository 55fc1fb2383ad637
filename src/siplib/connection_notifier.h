// The local endpoint's handle: its requests are transactions.
#pragma once

#include <atomic>
#include <memory>

#include "siplib/closable.h"
#include "siplib/connection.h"
#include "siplib/endpoint.h"
#include "siplib/stack_core.h"

namespace siplib {

class EndpointTable;

class ConnectionNotifier final : public SIPLIB_SIPConnectionNotifier,
                                 public Closable,
                                 public Retired,
                                 public std::enable_shared_from_this<ConnectionNotifier> {
 public:
  ConnectionNotifier(std::shared_ptr<StackCore> core, EndpointTable& table, std::shared_ptr<Endpoint> endpoint)
      : core_(std::move(core)), table_(table), endpoint_(std::move(endpoint)) {}

  void setListener(SIPLIB_SIPServerConnectionListener* listener) override;
  void setDialogListener(SIPLIB_SIPDialogListener* listener) override;
  SIPLIB_SIPServerConnection* acceptAndOpen() override;
  bool getCurrentAddress(std::string& ip, int& port) const override;
  void closeByUser() override;

 private:
  const std::shared_ptr<StackCore> core_;
  EndpointTable& table_;
  const std::shared_ptr<Endpoint> endpoint_;
  std::atomic<bool> closed_{false};
};

}  // namespace siplib
