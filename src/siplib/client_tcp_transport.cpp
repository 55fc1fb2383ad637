#include "siplib/client_tcp_transport.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "siplib/listener.h"

namespace siplib {
namespace {

/// Back to the transport that the stack used to reach itself.
class OwnPath final : public Path {
 public:
  explicit OwnPath(std::shared_ptr<ClientTcpTransport> transport, StackCore& core)
      : transport_(std::move(transport)), core_(core) {}
  bool send(std::string_view bytes) override {
    core_.post(
        [transport = transport_, text = std::string(bytes)]() mutable { transport->ownMessage(std::move(text)); });
    return true;
  }
  bool reliable() const override { return true; }
  void local(std::string& ip, int& port) const override { transport_->destination().get(ip, port); }
  void peer(std::string& ip, int& port) const override { transport_->source().get(ip, port); }

 private:
  const std::shared_ptr<ClientTcpTransport> transport_;
  StackCore& core_;  // lives as long as the transport
};

}  // namespace

/// One connect that runs. The watch ends before the socket: members go in reverse order.
struct ClientTcpTransport::Attempt {
  FileDescriptor socket;
  ConnectionSlot slot;
  std::unique_ptr<Reactor::Watch> watch;
  std::unique_ptr<Reactor::Timer> timer;
};

ClientTcpTransport::ClientTcpTransport(std::shared_ptr<StackCore> core, const SocketAddress& source,
                                       const SocketAddress& destination)
    : core_(std::move(core)), source_(source), destination_(destination) {
}

bool ClientTcpTransport::open() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::Lost) open_wanted_ = true;
  // Who gets no handle has not opened it: closed for good stays so.
  if (state_ == State::Closed && !begin(true) && destination_.isLoopback()) return false;
  closed_for_good_ = false;
  return true;
}

void ClientTcpTransport::reopenable() {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_for_good_ = false;
}

bool ClientTcpTransport::begin(bool opening) {
  own_ = destination_ == core_->localAddress();
  if (own_) {
    state_ = State::Open;
    local_ = source_;
    return true;
  }
  int error = EMFILE;
  ConnectionSlot slot = core_->places().take(For::Own);
  if (slot) {
    OpenedConnection opened = openConnection(source_, destination_);
    error = opened.error;
    if (opened.socket) {
      local_ = SocketAddress::localOf(opened.socket.get());
      if (opened.connected) {
        connected(std::move(opened.socket), std::move(slot), true);
      } else {
        auto attempt = std::make_shared<Attempt>(Attempt{std::move(opened.socket), std::move(slot), nullptr, nullptr});
        core_->post([self = shared_from_this(), attempt] { self->watchConnect(attempt); });
        attempt_ = std::move(attempt);
        state_ = State::Connecting;
      }
      return true;
    }
  }
  // A user agent that speaks UDP only refuses every time that it registers.
  const bool usual = opening && slot && error == ECONNREFUSED && destination_.isLoopback();
  core_->log(usual ? 5 : 4, "open", "connecting %s to %s failed: %s", source_.text().c_str(),
             destination_.text().c_str(), slot ? strerrordesc_np(error) : "as many connections are open as may be");
  dropWaiting();
  return false;
}

void ClientTcpTransport::connected(FileDescriptor socket, ConnectionSlot slot, bool defer) {
  stream_ = std::make_shared<TcpStream>(core_, std::move(socket), std::move(slot));
  state_ = State::Open;
  core_->log(5, "open", "connected %s to %s", local_.text().c_str(), destination_.text().c_str());
  if (defer && listener_ == nullptr && waiting_.empty()) {
    deferred_ = stream_;
    return;
  }
  stream_->preload(std::exchange(waiting_, std::string()));
  core_->post([self = shared_from_this(), stream = stream_] { stream->start(*self); });
}

void ClientTcpTransport::startDeferred() {
  std::shared_ptr<TcpStream> stream;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stream = std::move(deferred_);
  }
  if (stream) core_->post([self = shared_from_this(), stream = std::move(stream)] { stream->start(*self); });
}

void ClientTcpTransport::watchConnect(std::shared_ptr<Attempt> attempt) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (attempt_ != attempt) return;  // closed meanwhile
  }
  watched_ = std::move(attempt);
  const int descriptor = watched_->socket.get();
  try {
    watched_->watch = core_->reactor().watch(
        descriptor, [] {}, [this, descriptor] { connectEnded(connectResult(descriptor)); });
    if (!watched_->watch) return connectEnded(ENOSPC);
    watched_->watch->wantWrite(true);
    watched_->timer = core_->reactor().timer([this] { connectEnded(ETIMEDOUT); });
    watched_->timer->start(core_->config().connect_timeout);
  } catch (const std::bad_alloc&) {
    connectEnded(ENOMEM);
  }
}

void ClientTcpTransport::connectEnded(int error) {
  const auto self = shared_from_this();
  const auto attempt = std::move(watched_);
  attempt->watch.reset();
  attempt->timer.reset();
  const std::lock_guard<std::mutex> lock(mutex_);
  if (attempt_ != attempt) return;
  attempt_.reset();
  if (error == 0) {
    local_ = SocketAddress::localOf(attempt->socket.get());
    if (local_ == destination_) error = ECONNREFUSED;  // TCP has connected it to itself
  }
  if (error == 0) return connected(std::move(attempt->socket), std::move(attempt->slot), false);
  state_ = State::Closed;
  core_->log(4, "open", "connecting %s to %s failed: %s", source_.text().c_str(), destination_.text().c_str(),
             strerrordesc_np(error));
  dropWaiting();
}

void ClientTcpTransport::dropWaiting() {
  if (waiting_.empty()) return;
  core_->log(4, "send", "%zu bytes that waited for the connection to %s dropped", waiting_.size(),
             destination_.text().c_str());
  waiting_ = std::string();
}

bool ClientTcpTransport::wait(Slices slices) {
  if (!waiting_.empty() && waiting_.size() + sizeOf(slices) > TcpStream::kMostWaiting) return false;
  appendTo(waiting_, slices);
  return true;
}

bool ClientTcpTransport::sendBytes(Slices slices, bool soon) {
  // A second round when the socket was found broken and another thread has already replaced it.
  const char* why = "the connection broke";
  for (int round = 0; round < 2; ++round) {
    std::shared_ptr<TcpStream> stream;
    bool deferred = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (state_ == State::Closed && closed_for_good_) {
        why = "the connection is closed";
        break;
      }
      if (state_ == State::Closed && !begin()) return false;
      if (state_ != State::Open) {
        if (wait(slices)) return true;
        why = "too much waits for the connection already";
        break;
      }
      stream = stream_;
      deferred = deferred_ != nullptr;
    }
    if (!stream) return sendOwn(slices);
    if (deferred) startDeferred();
    const TcpStream::Sent sent = soon ? stream->sendSoon(slices) : stream->send(slices);
    if (sent == TcpStream::Sent::Taken) return true;
    if (sent == TcpStream::Sent::Full) {
      why = "too much waits for the peer already";
      break;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Open && stream_ == stream && wait(slices)) return true;  // its loss is about to be told
  }
  core_->log(dropped_, 4, "send", "message to %s dropped: %s", destination_.text().c_str(), why);
  return false;
}

bool ClientTcpTransport::sendOwn(Slices slices) {
  if (own_on_their_way_.fetch_add(1) >= kMostOwn) {
    --own_on_their_way_;
    core_->log(dropped_, 4, "send", "message to the local endpoint dropped: too many are on their way");
    return false;
  }
  std::string text;
  appendTo(text, slices);
  core_->post([self = shared_from_this(), text = std::move(text)] {
    --self->own_on_their_way_;
    SIPLIB_SIPMessageHandle message(new SIPLIB_message(text.data(), text.size()));
    self->core_->process(std::move(message), std::make_shared<OwnPath>(self, *self->core_));
  });
  return true;
}

void ClientTcpTransport::ownMessage(std::string text) {
  streamMessage(text.data(), text.size());
}

int ClientTcpTransport::send() {
  if (!message_ || !message_->valid()) return -1;
  if (message_->fromNetwork() && destination_ == core_->localAddress()) {
    core_->tellKeptOut(*message_);
    return -1;
  }
  message_->completeLength();
  return sendBytes(slicesOf(*message_), true) ? 0 : -1;
}

int ClientTcpTransport::receive() {
  SIPLIB_SIPMessageHandle next;
  bool drained = false;
  const bool received = inbox_.pop(next, drained);
  message_ = std::move(next);
  if (drained) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stream_) core_->post([stream = stream_] { stream->resume(); });
  }
  return received ? 0 : -1;
}

void ClientTcpTransport::setListener(SIPLIB_SIPClientTcpTransportListener* listener) {
  listener_ = listener;
  startDeferred();
}

bool ClientTcpTransport::isOpen() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return state_ == State::Open;
}

bool ClientTcpTransport::getLocalAddress(std::string& ip, int& port) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return local_.get(ip, port);
}

std::optional<uid_t> ClientTcpTransport::peerOwner(std::string& why) const {
  SocketAddress local;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    local = local_;
  }
  return tcpPeerOwner(destination_, local, why);
}

bool ClientTcpTransport::forgettable() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return !pinned_ && state_ == State::Closed;
}

void ClientTcpTransport::closeByUser() {
  std::shared_ptr<TcpStream> stream;
  std::shared_ptr<Attempt> attempt;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_for_good_ = true;
    open_wanted_ = false;
    stream = std::move(stream_);
    attempt = std::move(attempt_);
    deferred_.reset();
    state_ = State::Closed;
    dropWaiting();
  }
  if (stream) stream->close();
  if (!stream && !attempt) return;
  core_->post([self = shared_from_this(), stream = std::move(stream), attempt = std::move(attempt)] {
    if (stream) stream->letGo();
    if (attempt && self->watched_ == attempt) self->watched_.reset();
  });
}

void ClientTcpTransport::closeLost() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::Lost) return;
  state_ = State::Closed;
  if (std::exchange(open_wanted_, false) || !waiting_.empty()) begin();
}

std::shared_ptr<Path> ClientTcpTransport::path() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (own_) return std::make_shared<OwnPath>(shared_from_this(), *core_);
  return std::make_shared<ClientPath>(shared_from_this());
}

bool ClientTcpTransport::streamMessage(char* text, std::size_t length) {
  SIPLIB_SIPClientTcpTransportListener* const listener = listener_;
  SIPLIB_message* created = nullptr;
  bool taken = false;
  if (listener != nullptr) {
    taken = listener->handleIncomingMessage(text, static_cast<unsigned int>(length), &created);
  } else {
    created = new SIPLIB_message(text, length);
  }
  SIPLIB_SIPMessageHandle message(created);
  if (message && source_ != core_->localAddress()) message->setFromNetwork();
  if (!taken) {
    core_->process(std::move(message), path());
    return true;
  }
  if (!inbox_.push(std::move(message))) {
    core_->log(dropped_, 4, "receive", "message from the local endpoint dropped: too many wait already");
    return true;
  }
  listener->notifyResponse(this);
  return !inbox_.pauseWhenFull();
}

void ClientTcpTransport::putFirst(std::string& unsent) {
  try {
    unsent.append(waiting_);
    waiting_.swap(unsent);
    unsent.clear();
  } catch (const std::bad_alloc&) {
    // What waits already waits on.
  }
}

void ClientTcpTransport::streamClosed(TcpStream& stream, int level, std::string_view why, std::string unsent) {
  SIPLIB_SIPClientTcpTransportListener* const listener = listener_;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stream_.get() != &stream) return;
    stream_.reset();
    deferred_.reset();
    putFirst(unsent);
    // Nobody to close it where nobody listens.
    state_ = listener != nullptr ? State::Lost : State::Closed;
    if (state_ == State::Closed && !waiting_.empty()) begin();
  }
  // Told before it is logged: a line may fail for want of memory.
  if (listener != nullptr) listener->notifyConnectionClosed(this);
  core_->log(level, "tcp", "connection %s to %s ended: %.*s", local_.text().c_str(), destination_.text().c_str(),
             static_cast<int>(why.size()), why.data());
  if (!unsent.empty()) core_->log(4, "tcp", "connection ended with %zu bytes unsent", unsent.size());
}

bool ClientPath::send(std::string_view bytes) {
  iovec place;
  return transport_->sendBytes(sliceOf(bytes, place));
}

}  // namespace siplib
