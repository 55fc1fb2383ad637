#include "siplib/dialog.h"

#include <algorithm>

#include "siplib/layer.h"

namespace siplib {

SIPLIB_SIPClientConnection* Dialog::getNewClientConnection(std::string_view method) {
  return layer_.openWithin(shared_from_this(), method);
}

bool Dialog::isTerminated() const {
  const std::lock_guard lock(layer_.mutex());
  return data_.terminated;
}

std::string Dialog::key(std::string_view call_id, std::string_view local_tag) {
  return std::string(call_id).append("\n").append(local_tag);
}

void Dialog::confirm(std::string_view remote_tag, std::string_view remote, const SIPLIB_message& message) {
  data_.remote_tag = remote_tag;
  data_.remote = remote;
  data_.routes.clear();
  for (const std::string_view route : message.headers("Record-Route")) data_.routes.emplace_back(route);
  // In an answer the nearest proxy stands last, in a request first (RFC 3261 12.1.1, 12.1.2).
  if (message.isResponse()) std::reverse(data_.routes.begin(), data_.routes.end());
  refreshTarget(message);
}

void Dialog::refreshTarget(const SIPLIB_message& message) {
  const auto contact = message.header("Contact");
  if (!contact) return;
  std::string uri = uriWithin(*contact);
  if (!uri.empty() && uri != "*") data_.target = std::move(uri);
}

}  // namespace siplib
