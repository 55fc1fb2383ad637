// Who is told of what arrives on an endpoint. Shared with the connections accepted there, which can outlive it.
#pragma once

#include <atomic>

#include "siplib/listener.h"

namespace siplib {

class EndpointListener {
 public:
  SIPLIB_SIPServerTransportListener* listener() const { return listener_.load(std::memory_order_acquire); }
  void setListener(SIPLIB_SIPServerTransportListener* listener) {
    listener_.store(listener, std::memory_order_release);
  }
  /// True for the local endpoint: its requests reach the ordinary SIP processing.
  bool trusted() const { return trusted_.load(std::memory_order_acquire); }
  void setTrusted(bool trusted) { trusted_.store(trusted, std::memory_order_release); }

 private:
  std::atomic<SIPLIB_SIPServerTransportListener*> listener_{nullptr};
  std::atomic<bool> trusted_{false};
};

}  // namespace siplib
