#include "siplib/transaction_layer.h"

#include "siplib/layer.h"

namespace siplib {

std::unique_ptr<TransactionLayer> TransactionLayer::create(const SIPLIB_SIPStackConfig& config, Reactor& reactor,
                                                           PathMaker& paths) {
  std::unique_ptr<Machines> machines = Machines::create();
  if (!machines) return nullptr;
  return std::make_unique<Layer>(config, reactor, paths, std::move(machines));
}

}  // namespace siplib
