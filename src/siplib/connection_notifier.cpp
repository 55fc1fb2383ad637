#include "siplib/connection_notifier.h"

#include "siplib/endpoint_table.h"

namespace siplib {

void ConnectionNotifier::setListener(SIPLIB_SIPServerConnectionListener* listener) {
  if (!closed_) core_->layer().setListener(listener, this);
}

void ConnectionNotifier::setDialogListener(SIPLIB_SIPDialogListener* listener) {
  if (!closed_) core_->layer().setDialogListener(listener);
}

SIPLIB_SIPServerConnection* ConnectionNotifier::acceptAndOpen() {
  return closed_ ? nullptr : core_->layer().accept();
}

bool ConnectionNotifier::getCurrentAddress(std::string& ip, int& port) const {
  return !closed_ && endpoint_->address().get(ip, port);
}

void ConnectionNotifier::closeByUser() {
  if (closed_.exchange(true)) return;
  core_->setLocalAddress(SocketAddress());
  endpoint_->listener()->setTrusted(false);
  core_->layer().setListener(nullptr, nullptr);
  core_->layer().setDialogListener(nullptr);
  table_.release(endpoint_, nullptr, shared_from_this());
}

}  // namespace siplib
