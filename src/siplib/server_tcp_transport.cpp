#include "siplib/server_tcp_transport.h"

#include <utility>

#include "siplib/endpoint_listener.h"

namespace siplib {

ServerTcpTransport::ServerTcpTransport(std::shared_ptr<StackCore> core,
                                       std::shared_ptr<const EndpointListener> endpoint,
                                       std::shared_ptr<TcpStream> stream, const SocketAddress& local,
                                       const SocketAddress& peer)
    : core_(std::move(core)), endpoint_(std::move(endpoint)), local_(local), peer_(peer), stream_(std::move(stream)) {
}

std::shared_ptr<TcpStream> ServerTcpTransport::stream() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return stream_;
}

void ServerTcpTransport::start(bool accepted) {
  accepted_ = accepted;
  core_->keep(shared_from_this());
  if (const auto stream = this->stream()) stream->start(*this);
}

int ServerTcpTransport::receive() {
  SIPLIB_SIPMessageHandle next;
  bool drained = false;
  const bool received = inbox_.pop(next, drained);
  message_ = std::move(next);
  if (drained) {
    if (auto stream = this->stream()) core_->post([stream = std::move(stream)] { stream->resume(); });
  }
  return received ? 0 : -1;
}

int ServerTcpTransport::send() {
  if (!message_ || !message_->valid()) return -1;
  message_->completeLength();
  const auto stream = this->stream();
  const TcpStream::Sent sent = stream ? stream->sendSoon(slicesOf(*message_)) : TcpStream::Sent::Broken;
  if (sent == TcpStream::Sent::Taken) return 0;
  core_->log(dropped_, 4, "send", "message to %s dropped: %s", peer_.text().c_str(),
             sent == TcpStream::Sent::Full ? "too much waits for the peer already" : "the connection is closed");
  return -1;
}

void ServerTcpTransport::closeByUser() {
  std::shared_ptr<TcpStream> stream;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (std::exchange(closed_by_user_, true)) return;
    stream = std::move(stream_);
  }
  if (stream) stream->close();
  core_->post([self = shared_from_this(), stream = std::move(stream)] {
    if (stream) stream->letGo();
    self->core_->release(self);
    self->core_->retire(self);
  });
}

bool ServerTcpTransport::streamMessage(char* text, std::size_t length) {
  const auto stream = this->stream();
  if (!stream) return false;  // closed by the user
  SIPLIB_SIPServerTransportListener* const listener = accepted_ ? endpoint_->listener() : nullptr;
  SIPLIB_message* created = nullptr;
  bool taken = false;
  if (listener != nullptr) {
    taken = listener->handleIncomingMessage(text, static_cast<unsigned int>(length), &created);
  } else {
    created = new SIPLIB_message(text, length);
  }
  SIPLIB_SIPMessageHandle message(created);
  if (message && !endpoint_->trusted()) message->setFromNetwork();
  if (!taken) {
    core_->process(std::move(message), std::make_shared<StreamPath>(stream, local_, peer_));
    return true;
  }
  inbox_.push(std::move(message));
  listener->notifyRequest(this);
  return !inbox_.pauseWhenFull();
}

void ServerTcpTransport::streamClosed(TcpStream&, int level, std::string_view why, std::string unsent) {
  const auto self = shared_from_this();
  bool closed_by_user = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stream_.reset();
    closed_by_user = closed_by_user_;
  }
  // Told before it is logged: a line may fail for want of memory.
  if (!closed_by_user) {
    if (!accepted_) {
      core_->release(self);
    } else if (auto* const listener = endpoint_->listener()) {
      listener->notifyConnectionClosed(this);
    }
  }
  core_->log(level, "tcp", "connection of %s to %s ended: %.*s", peer_.text().c_str(), local_.text().c_str(),
             static_cast<int>(why.size()), why.data());
  if (!unsent.empty()) core_->log(4, "tcp", "connection ended with %zu bytes unsent", unsent.size());
}

}  // namespace siplib
