#include "siplib/server_udp_transport.h"

#include <utility>

#include "siplib/endpoint.h"
#include "siplib/socket.h"

namespace siplib {

int ServerUdpTransport::receive() {
  Datagram next;
  bool drained = false;
  const bool received = inbox_.pop(next, drained);
  message_ = std::move(next.message);
  source_ = next.source;
  return received ? 0 : -1;
}

int ServerUdpTransport::send() {
  if (!message_ || !message_->valid() || !source_.known()) return -1;
  const auto endpoint = endpoint_.lock();
  return endpoint && endpoint->sendSoon(*message_, source_) ? 0 : -1;
}

}  // namespace siplib
