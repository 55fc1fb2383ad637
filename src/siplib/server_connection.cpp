#include "siplib/server_connection.h"

#include "siplib/layer.h"

namespace siplib {

ServerConnection::ServerConnection(Layer& layer, SIPLIB_SIPMessageHandle request, Head head)
    : layer_(layer), request_(std::move(request)), head_(std::move(head)), tag_(newTag()) {
  message_ = request_;
}

int ServerConnection::receive() {
  if (!layer_.inUse(*this) || received_) {
    message_ = SIPLIB_SIPMessageHandle();
    return -1;
  }
  received_ = true;
  message_ = request_;
  return 0;
}

int ServerConnection::initResponse(int status) {
  if (status < 100 || status > 699 || !layer_.answerable(*this)) return -1;
  response_ = SIPLIB_SIPMessageHandle(newAnswer(*request_, status, tag_));
  if (status >= 200 && status < 300 && head_.method == "SUBSCRIBE") {
    // RFC 3261 12.1.1: the subscriber learns its routes and our address from the answer.
    const auto routes = request_->headers("Record-Route");
    for (auto route = routes.rbegin(); route != routes.rend(); ++route) response_->addHeader("Record-Route", *route);
    response_->setHeader("Contact", layer_.contactFor(*this));
  }
  return 0;
}

int ServerConnection::send() {
  if (!response_) return -1;
  const SIPLIB_SIPMessageHandle response = std::move(response_);
  return layer_.answer(*this, *response);
}

void ServerConnection::release() {
  layer_.release(*this);
}

SIPLIB_SIPDialog* ServerConnection::getDialog() const {
  return layer_.dialogOf(*this);
}

}  // namespace siplib
