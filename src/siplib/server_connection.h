// A request that the local endpoint received, as its user sees it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "siplib/dialog.h"
#include "siplib/transaction.h"

namespace siplib {

class Layer;
struct Transaction;

class ServerConnection final : public SIPLIB_SIPServerConnection {
 public:
  ServerConnection(Layer& layer, SIPLIB_SIPMessageHandle request, Head head);

  /// The request is the one message: 0 once, then -1.
  int receive() override;
  int send() override;
  int initResponse(int status) override;
  void release() override;
  SIPLIB_SIPDialog* getDialog() const override;

 protected:
  SIPLIB_message* writable() override { return response_ ? response_.get() : message_.get(); }

 private:
  friend class Layer;

  Layer& layer_;
  // The user's.
  const SIPLIB_SIPMessageHandle request_;
  const Head head_;
  std::string tag_;
  SIPLIB_SIPMessageHandle response_;
  bool received_ = false;

  // Under the layer's lock.
  /// Null when the request was answered, has ended, or was released.
  Transaction* transaction_ = nullptr;
  std::shared_ptr<Dialog> dialog_;
  bool released_ = false;
  /// When it is taken back from a user that never lets go.
  std::chrono::steady_clock::time_point reclaim_;
};

}  // namespace siplib
