#include "siplib/client_connection.h"

#include "siplib/layer.h"
#include "siplib/text.h"

namespace siplib {
namespace {

// RFC 3261 18.1.1: a larger request takes a transport with congestion control.
constexpr std::size_t kMaxUdpRequest = 1300;

bool looseRouted(const std::string& route) {
  const std::string uri = uriWithin(route);
  for (std::size_t at = uri.find(';'); at != std::string::npos; at = uri.find(';', at + 1)) {
    const std::string_view rest = std::string_view(uri).substr(at + 1);
    if (equalsIgnoreCase(rest.substr(0, rest.find_first_of(";=")), "lr")) return true;
  }
  return false;
}

}  // namespace

ClientConnection::ClientConnection(Layer& layer, std::shared_ptr<Dialog> dialog, const DialogData& data,
                                   std::string_view method)
    : layer_(layer), last_path_(data.last_path), dialog_(std::move(dialog)) {
  // RFC 3261 12.2.1.1.
  std::vector<std::string> routes = data.routes;
  std::string uri = data.target;
  if (!routes.empty()) {
    next_ = uriWithin(routes.front());
    if (!looseRouted(routes.front())) {
      routes.erase(routes.begin());
      routes.push_back('<' + uri + '>');
      uri = next_;
    }
  } else {
    next_ = uri;
  }
  message_ = SIPLIB_SIPMessageHandle(new SIPLIB_message(method, uri));
  message_->setHeader("Via", layer_.via("UDP", newBranch()));
  for (auto route = routes.rbegin(); route != routes.rend(); ++route) message_->addHeader("Route", *route);
  message_->setHeader("Max-Forwards", "70");
  message_->setHeader("From", data.local);
  message_->setHeader("To", data.remote);
  message_->setHeader("Call-ID", data.call_id);
  message_->setHeader("CSeq", std::to_string(data.local_number).append(" ").append(method));
  message_->setHeader("Contact", layer_.contact(false));
}

int ClientConnection::initRequest(std::string_view method, std::string_view request_uri, std::string_view from,
                                  std::string_view to) {
  if (message_ || !path_) return -1;
  SIPLIB_SIPMessageHandle request(new SIPLIB_message(method, request_uri));
  std::string tagged(from);
  if (headerParameter("From", from, "tag").empty()) tagged += ";tag=" + newTag();
  const bool filled = request->setHeader("Via", layer_.via(path_->reliable() ? "TCP" : "UDP", newBranch())) &&
                      request->setHeader("Max-Forwards", "70") && request->setHeader("From", tagged) &&
                      request->setHeader("To", to) && request->setHeader("Call-ID", newTag()) &&
                      request->setHeader("CSeq", std::string("1 ").append(method)) &&
                      request->setHeader("Contact", layer_.contact(path_->reliable()));
  Head head;
  if (!filled || readHead(*request, head)) return -1;
  message_ = std::move(request);
  return 0;
}

int ClientConnection::send() {
  if (sent_ || !message_ || !message_->isRequest() || !layer_.sendable(*this)) return -1;
  sent_ = true;
  const bool went = path_ ? sendOver(path_) : sendToHop();
  if (!went) layer_.fail(*this, *message_);
  layer_.sent(*this, *message_);
  return 0;
}

bool ClientConnection::sendToHop() {
  const Hop hop = hopOf(next_);
  if (hop.ip.empty()) return last_path_ && sendOver(last_path_);
  const bool tcp = hop.transport == "tcp";
  if (tcp || (hop.transport.empty() && message_->text().size() > kMaxUdpRequest)) {
    const std::shared_ptr<Path> path = layer_.paths().pathTo("TCP", hop.ip, hop.port);
    if (path && sendOver(path)) return true;
    if (tcp) return false;
  }
  const std::shared_ptr<Path> path = layer_.paths().pathTo("UDP", hop.ip, hop.port);
  return path && sendOver(path);
}

bool ClientConnection::sendOver(const std::shared_ptr<Path>& path) {
  const bool reliable = path->reliable();
  // Each way is a transaction of its own.
  message_->setHeader("Via", layer_.via(reliable ? "TCP" : "UDP", newBranch()));
  // The Contact follows the transport, unless the user gave another.
  if (message_->header("Contact") == layer_.contact(!reliable)) {
    message_->setHeader("Contact", layer_.contact(reliable));
  }
  return layer_.start(*this, path, *message_);
}

int ClientConnection::receive() {
  message_ = layer_.nextAnswer(*this);
  well_ = static_cast<bool>(message_);
  return well_ ? 0 : -1;
}

void ClientConnection::setListener(SIPLIB_SIPClientConnectionListener* listener) {
  const std::lock_guard lock(layer_.mutex());
  listener_ = listener;
}

int ClientConnection::getTransactionStatus() const {
  return well_ && layer_.inUse(*this) ? 0 : -1;
}

void ClientConnection::release() {
  layer_.release(*this);
}

SIPLIB_SIPDialog* ClientConnection::getDialog() const {
  return layer_.dialogOf(*this);
}

}  // namespace siplib
