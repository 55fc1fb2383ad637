#include "siplib/transport_notifier.h"

#include "siplib/endpoint_table.h"
#include "siplib/text.h"

namespace siplib {

void TransportNotifier::setListener(SIPLIB_SIPServerTransportListener* listener) {
  if (closed_) return;
  endpoint_->setCurrent(this);
  endpoint_->listener()->setListener(listener);
}

SIPLIB_SIPServerTcpTransport* TransportNotifier::acceptAndOpen() {
  return closed_ ? nullptr : endpoint_->takeIncoming();
}

SIPLIB_SIPServerUdpTransport* TransportNotifier::acceptOpenUdp() {
  return closed_ ? nullptr : endpoint_->takeDatagram();
}

bool TransportNotifier::getCurrentAddress(std::string_view transport, std::string& ip, int& port) const {
  if (closed_ || (!equalsIgnoreCase(transport, "TCP") && !equalsIgnoreCase(transport, "UDP"))) return false;
  return endpoint_->address().get(ip, port);
}

void TransportNotifier::closeByUser() {
  if (closed_.exchange(true)) return;
  table_.release(endpoint_, this, shared_from_this());
}

}  // namespace siplib
