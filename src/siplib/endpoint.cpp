#include "siplib/endpoint.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "siplib/limits.h"
#include "siplib/outgoing.h"
#include "siplib/server_tcp_transport.h"

namespace siplib {
namespace {

constexpr std::size_t kMostAccepted = 16;
constexpr std::size_t kMostDatagrams = 16;
constexpr std::size_t kDatagramRoom = 65536;
constexpr std::chrono::milliseconds kAcceptPause{100};

/// Room for one recvmmsg. One per I/O thread; its pages cost nothing until they are written.
struct DatagramBatch {
  std::array<mmsghdr, kMostDatagrams> headers{};
  std::array<iovec, kMostDatagrams> slices{};
  std::array<SocketAddress, kMostDatagrams> sources;
  std::unique_ptr<char[]> room = std::make_unique_for_overwrite<char[]>(kMostDatagrams * kDatagramRoom);

  int receive(int descriptor) {
    for (std::size_t i = 0; i < kMostDatagrams; ++i) {
      slices[i] = {room.get() + i * kDatagramRoom, kDatagramRoom};
      headers[i].msg_hdr = {};
      headers[i].msg_hdr.msg_name = sources[i].buffer();
      headers[i].msg_hdr.msg_namelen = SocketAddress::capacity();
      headers[i].msg_hdr.msg_iov = &slices[i];
      headers[i].msg_hdr.msg_iovlen = 1;
    }
    return ::recvmmsg(descriptor, headers.data(), kMostDatagrams, MSG_DONTWAIT, nullptr);
  }
};

bool isKeepAlive(const char* text, std::size_t length) {
  return std::all_of(text, text + length, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

/// Back to the endpoint that the stack used to reach itself by datagram.
class OwnDatagramPath final : public Path {
 public:
  OwnDatagramPath(StackCore& core, std::weak_ptr<Endpoint> endpoint, const SocketAddress& local,
                  const SocketAddress& peer)
      : core_(core.weak_from_this()), endpoint_(std::move(endpoint)), local_(local), peer_(peer) {}
  bool send(std::string_view bytes) override {
    const auto core = core_.lock();
    const auto endpoint = endpoint_.lock();
    if (!core || !endpoint) return false;
    core->post([endpoint, from = local_, text = std::string(bytes)]() mutable {
      endpoint->datagram(text.data(), text.size(), from, true);
    });
    return true;
  }
  bool reliable() const override { return true; }
  void local(std::string& ip, int& port) const override { local_.get(ip, port); }
  void peer(std::string& ip, int& port) const override { peer_.get(ip, port); }

 private:
  const std::weak_ptr<StackCore> core_;
  const std::weak_ptr<Endpoint> endpoint_;
  const SocketAddress local_;
  const SocketAddress peer_;
};

}  // namespace

std::shared_ptr<Endpoint> Endpoint::open(const std::shared_ptr<StackCore>& core, const SocketAddress& address) {
  // A port that the system picked for TCP may be taken for UDP: then another pick.
  const int rounds = address.port() == 0 ? 16 : 1;
  OpenedSocket listener;
  OpenedSocket datagrams;
  for (int round = 0; round < rounds; ++round) {
    listener = openListener(address);
    if (!listener.socket) break;
    const SocketAddress actual = SocketAddress::localOf(listener.socket.get());
    datagrams = openDatagram(actual);
    if (datagrams.socket) {
      auto endpoint = std::make_shared<Endpoint>(core, actual, std::move(listener.socket), std::move(datagrams.socket));
      endpoint->udp_->setEndpoint(endpoint);
      core->post([endpoint] { endpoint->start(); });
      return endpoint;
    }
  }
  core->log(3, "open", "cannot listen on %s (%s): %s", address.text().c_str(), listener.error != 0 ? "TCP" : "UDP",
            strerrordesc_np(listener.error != 0 ? listener.error : datagrams.error));
  return nullptr;
}

Endpoint::Endpoint(std::shared_ptr<StackCore> core, const SocketAddress& address, FileDescriptor listener,
                   FileDescriptor datagrams)
    : core_(std::move(core)),
      address_(address),
      datagrams_(std::make_shared<const FileDescriptor>(std::move(datagrams))),
      listening_(std::move(listener)),
      udp_(std::make_shared<ServerUdpTransport>(address)) {
}

void Endpoint::addHandle(SIPLIB_SIPTransportNotifier* notifier) {
  const std::lock_guard<std::mutex> lock(mutex_);
  handles_.push_back(notifier);
  if (current_ == nullptr) current_ = notifier;
}

bool Endpoint::removeHandle(SIPLIB_SIPTransportNotifier* notifier) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find(handles_.begin(), handles_.end(), notifier);
  if (found != handles_.end()) handles_.erase(found);
  if (current_ == notifier) {
    const auto other = std::find_if(handles_.begin(), handles_.end(), [](auto* handle) { return handle != nullptr; });
    current_ = other != handles_.end() ? *other : nullptr;
  }
  return handles_.empty();
}

bool Endpoint::hasHandles() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return !handles_.empty();
}

void Endpoint::setCurrent(SIPLIB_SIPTransportNotifier* notifier) {
  const std::lock_guard<std::mutex> lock(mutex_);
  current_ = notifier;
}

SIPLIB_SIPTransportNotifier* Endpoint::current() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return current_;
}

void Endpoint::start() {
  listening_watch_ = core_->reactor().watch(
      listening_.get(), [this] { acceptReady(); }, [] {});
  datagrams_watch_ = core_->reactor().watch(
      datagrams_->get(), [this] { datagramsReady(); }, [] {});
  if (!listening_watch_ || !datagrams_watch_) {
    core_->log(3, "start", "the system cannot watch the sockets of %s", address_.text().c_str());
    return;
  }
  listening_watch_->wantRead(true);
  datagrams_watch_->wantRead(true);
}

void Endpoint::letGo() {
  listening_watch_.reset();
  datagrams_watch_.reset();
  accept_again_.reset();
  listening_.reset();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    datagrams_.reset();
  }
  core_->retire(udp_);
}

void Endpoint::acceptReady() {
  const auto self = shared_from_this();
  for (std::size_t count = 0; count < kMostAccepted && listening_; ++count) {
    SocketAddress peer;
    socklen_t size = SocketAddress::capacity();
    FileDescriptor socket(::accept4(listening_.get(), peer.buffer(), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
      incoming(std::move(socket), peer);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      return pauseAccepting(errno);
    }
    // Anything else is the fault of that one connection.
  }
}

// The connection stays in the backlog and keeps the listener readable: without a pause this would be a busy loop.
void Endpoint::pauseAccepting(int error) {
  core_->log(accept_limit_, 3, "accept", "cannot accept on %s: %s", address_.text().c_str(), strerrordesc_np(error));
  if (!accept_again_) {
    accept_again_ = core_->reactor().timer([this] {
      if (listening_watch_) listening_watch_->wantRead(true);
    });
  }
  accept_again_->start(kAcceptPause);
  listening_watch_->wantRead(false);
}

void Endpoint::incoming(FileDescriptor socket, const SocketAddress& peer) {
  ConnectionSlot slot = core_->places().take(listener_->trusted() ? For::Local : For::Network, peer);
  if (!slot) {
    core_->log(accept_limit_, 4, "accept", "connection of %s to %s refused: as many connections are open as may be",
               peer.text().c_str(), address_.text().c_str());
    return;
  }
  const SocketAddress local = SocketAddress::localOf(socket.get());
  auto stream = std::make_shared<TcpStream>(core_, std::move(socket), std::move(slot));
  const auto transport = std::make_shared<ServerTcpTransport>(core_, listener_, std::move(stream), local, peer);
  SIPLIB_SIPServerTransportListener* const listener = listener_->listener();
  SIPLIB_SIPTransportNotifier* const notifier = current();
  if (listener == nullptr || notifier == nullptr) return transport->start(false);
  incoming_ = transport;
  listener->notifyIncomingConnection(notifier);
  if (incoming_ != nullptr) {
    incoming_.reset();
    core_->log(accept_limit_, 4, "accept", "connection of %s to %s closed: nobody accepted it", peer.text().c_str(),
               address_.text().c_str());
    return;
  }
  core_->log(5, "accept", "connection of %s to %s", peer.text().c_str(), address_.text().c_str());
  transport->start(true);
}

SIPLIB_SIPServerTcpTransport* Endpoint::takeIncoming() {
  return std::exchange(incoming_, nullptr).get();
}

SIPLIB_SIPServerUdpTransport* Endpoint::takeDatagram() {
  if (auto* const staged = std::exchange(staged_, nullptr)) udp_->push(std::move(*staged));
  return udp_.get();
}

void Endpoint::datagramsReady() {
  const auto self = shared_from_this();
  thread_local DatagramBatch batch;
  const int count = batch.receive(datagrams_->get());
  // A negative count is nothing to read, or the fault of an earlier send: either way there is nothing to do.
  for (int i = 0; i < count && listening_; ++i) {
    const auto index = static_cast<std::size_t>(i);
    const mmsghdr& header = batch.headers[index];
    char* const text = static_cast<char*>(batch.slices[index].iov_base);
    const SocketAddress& source = batch.sources[index];
    if ((header.msg_hdr.msg_flags & MSG_TRUNC) != 0 || header.msg_len > limits().max_message) {
      core_->log(receive_limit_, 4, "receive", "datagram of %s dropped: too large", source.text().c_str());
    } else if (!isKeepAlive(text, header.msg_len)) {
      datagram(text, header.msg_len, source, false);
    }
  }
}

void Endpoint::datagram(char* text, std::size_t length, const SocketAddress& from, bool own) {
  SIPLIB_SIPServerTransportListener* const listener = listener_->listener();
  SIPLIB_message* created = nullptr;
  bool taken = false;
  if (listener != nullptr) {
    taken = listener->handleIncomingMessage(text, static_cast<unsigned int>(length), &created);
  } else {
    created = new SIPLIB_message(text, length);
  }
  SIPLIB_SIPMessageHandle message(created);
  if (message && !own && !listener_->trusted()) message->setFromNetwork();
  if (!taken) {
    core_->process(std::move(message), std::make_shared<DatagramPath>(weak_from_this(), address_, from));
    return;
  }
  SIPLIB_SIPTransportNotifier* const notifier = current();
  if (notifier == nullptr || udp_->full()) {
    core_->log(receive_limit_, 4, "receive", "datagram of %s dropped: %s", from.text().c_str(),
               notifier == nullptr ? "the endpoint is closed" : "too many wait already");
    return;
  }
  ServerUdpTransport::Datagram staged{std::move(message), from};
  staged_ = &staged;
  listener->notifyUdpMsg(notifier);
  staged_ = nullptr;
}

std::shared_ptr<const FileDescriptor> Endpoint::datagramSocket() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return datagrams_;
}

void Endpoint::dropped(const SocketAddress& peer, const char* why) {
  core_->log(send_limit_, 4, "send", "datagram %s to %s dropped: %s", address_.text().c_str(), peer.text().c_str(),
             why);
}

bool Endpoint::send(Slices slices, const SocketAddress& peer) {
  if (const SocketAddress local = core_->localAddress(); local == peer) return sendOwn(slices, local);
  const auto socket = datagramSocket();
  const char* why = nullptr;
  if (!socket) {
    why = "the endpoint is closed";
  } else if (sizeOf(slices) > Outgoing::kLargestDatagram) {
    why = "too large";
  } else {
    ssize_t sent = sendSlices(socket->get(), slices, &peer);
    // An answer to an earlier datagram, which this one never left for.
    if (sent < 0 && errno == ECONNREFUSED) sent = sendSlices(socket->get(), slices, &peer);
    if (sent >= 0) return true;
    why = strerrordesc_np(errno);
  }
  dropped(peer, why);
  return false;
}

bool Endpoint::sendSoon(const SIPLIB_message& message, const SocketAddress& peer) {
  const Slices slices = slicesOf(message);
  Outgoing& outgoing = core_->outgoing();
  if (const SocketAddress local = core_->localAddress(); local == peer) {
    if (!message.fromNetwork()) return sendOwn(slices, local);
    core_->tellKeptOut(message);
    return false;
  }
  if (!outgoing.held() || sizeOf(slices) > Outgoing::kLargestDatagram) return send(slices, peer);
  outgoing.add(shared_from_this(), slices, peer);
  return true;
}

void Endpoint::send(std::span<mmsghdr> datagrams) {
  const auto socket = datagramSocket();
  bool again = true;
  while (!datagrams.empty()) {
    const auto count = static_cast<unsigned int>(datagrams.size());
    const int sent = socket ? ::sendmmsg(socket->get(), datagrams.data(), count, MSG_NOSIGNAL | MSG_DONTWAIT) : -1;
    if (sent > 0) {
      datagrams = datagrams.subspan(static_cast<std::size_t>(sent));
      again = true;
      continue;
    }
    // What is told is the first one's fault, or the answer to an earlier datagram: then this one never left.
    if (socket && (errno == EINTR || (errno == ECONNREFUSED && std::exchange(again, false)))) continue;
    SocketAddress peer;
    std::memcpy(peer.buffer(), datagrams[0].msg_hdr.msg_name, datagrams[0].msg_hdr.msg_namelen);
    dropped(peer, socket ? strerrordesc_np(errno) : "the endpoint is closed");
    datagrams = datagrams.subspan(1);
    again = true;
  }
}

bool Endpoint::sendOwn(Slices slices, const SocketAddress& local) {
  if (own_on_their_way_.fetch_add(1) >= kMostOwn) {
    --own_on_their_way_;
    core_->log(send_limit_, 4, "send", "datagram to the local endpoint dropped: too many are on their way");
    return false;
  }
  std::string text;
  appendTo(text, slices);
  core_->post([self = shared_from_this(), local, text = std::move(text)] {
    --self->own_on_their_way_;
    SIPLIB_SIPMessageHandle message(new SIPLIB_message(text.data(), text.size()));
    self->core_->process(std::move(message),
                         std::make_shared<OwnDatagramPath>(*self->core_, self, local, self->address_));
  });
  return true;
}

bool DatagramPath::send(std::string_view bytes) {
  const auto endpoint = endpoint_.lock();
  iovec place;
  return endpoint && endpoint->send(sliceOf(bytes, place), peer_);
}

}  // namespace siplib
