// A stack on loopback sockets with a recording layer and recording listeners, and plain sockets as its peers.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Of the sanitizers' runtime; their header is not always installed.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

#include "siplib/listener.h"
#include "siplib/reactor.h"
#include "siplib/socket_address.h"
#include "siplib/stack_impl.h"

namespace socket_fakes {

using namespace std::chrono_literals;
using siplib::SocketAddress;

inline SocketAddress at(const std::string& ip, int port) {
  return *SocketAddress::parse(ip, port);
}

/// A complete message; `name` goes into Call-ID.
inline std::string request(const std::string& method, const std::string& name, const std::string& body = {},
                           const std::string& from = "<sip:a@127.0.0.1>;tag=1") {
  return method + " sip:127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/TCP 127.0.0.1:9;branch=z9hG4bK" + name + "\r\nFrom: " + from +
         "\r\nTo: <sip:b@127.0.0.1>\r\nCall-ID: " + name + "\r\nCSeq: 1 " + method +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
inline std::string answer(int status, const std::string& name) {
  return "SIP/2.0 " + std::to_string(status) +
         " Text\r\nVia: SIP/2.0/TCP 127.0.0.1:9;branch=z9hG4bK1\r\nFrom: <sip:a@127.0.0.1>;tag=1\r\nTo: "
         "<sip:b@127.0.0.1>;tag=2\r\nCall-ID: " +
         name + "\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n";
}
inline SIPLIB_SIPMessageHandle parsed(std::string_view text) {
  return SIPLIB_SIPMessageHandle(new SIPLIB_message(text.data(), text.size()));
}
inline std::string callId(const SIPLIB_SIPMessageHandle& message) {
  return message ? std::string(message->header("Call-ID").value_or("?")) : "none";
}

inline std::size_t openDescriptors() {
  std::size_t count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

/// Bytes that this process holds of the heap.
inline std::size_t allocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

/// A peer's socket. Blocking, with a deadline on everything.
class Peer {
 public:
  Peer() = default;
  explicit Peer(int descriptor) : descriptor_(descriptor) {}
  Peer(Peer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Peer& operator=(Peer&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Peer() { close(); }
  void close() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }
  /// The peer's end goes with a reset, and so without TIME_WAIT.
  void reset() {
    const linger none{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close();
  }

  static Peer bound(int type, const SocketAddress& address) {
    Peer peer(::socket(address.family(), type | SOCK_CLOEXEC, 0));
    if (::bind(peer.descriptor_, address.data(), address.size()) != 0) peer.close();
    return peer;
  }
  static Peer udp(const SocketAddress& address) { return bound(SOCK_DGRAM, address); }
  static Peer listening(const SocketAddress& address, int backlog = 16) {
    Peer peer(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(peer.descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(peer.descriptor_, address.data(), address.size()) != 0 || ::listen(peer.descriptor_, backlog) != 0) {
      peer.close();
    }
    return peer;
  }
  static Peer connected(const SocketAddress& to, const SocketAddress& from = at("127.0.0.1", 0)) {
    Peer peer = bound(SOCK_STREAM, from);
    if (peer && ::connect(peer.descriptor_, to.data(), to.size()) != 0) peer.close();
    return peer;
  }

  explicit operator bool() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  SocketAddress address() const { return SocketAddress::localOf(descriptor_); }
  int port() const { return address().port(); }
  SocketAddress remote() const {
    SocketAddress address;
    socklen_t size = SocketAddress::capacity();
    getpeername(descriptor_, address.buffer(), &size);
    return address;
  }

  bool readable(std::chrono::milliseconds wait) const {
    pollfd ready{descriptor_, POLLIN, 0};
    return ::poll(&ready, 1, static_cast<int>(wait.count())) > 0;
  }
  Peer accept() const { return readable(2s) ? Peer(::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC)) : Peer(); }
  bool send(std::string_view bytes) const {
    return ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool sendTo(const SocketAddress& to, std::string_view bytes) const {
    return ::sendto(descriptor_, bytes.data(), bytes.size(), 0, to.data(), to.size()) ==
           static_cast<ssize_t>(bytes.size());
  }
  /// Whatever is there now.
  std::string read() const {
    std::string text(70000, '\0');
    const ssize_t count = ::recv(descriptor_, text.data(), text.size(), MSG_DONTWAIT);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
  }
  /// True when the other side has closed, or reset, and everything was read.
  bool ended() const {
    char byte = 0;
    const ssize_t count = ::recv(descriptor_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
  }

 private:
  int descriptor_ = -1;
};

class Log {
 public:
  void add(int level, std::string_view text) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::to_string(level) + ' ' + std::string(text));
  }
  std::size_t count(std::string_view part) const {
    const std::lock_guard lock(mutex_);
    std::size_t found = 0;
    for (const auto& line : lines_) found += line.find(part) != std::string::npos ? 1U : 0U;
    return found;
  }
  std::string all() const {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const auto& line : lines_) text += line + '\n';
    return text;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// Stands in for the transactions: keeps what reaches it, with the way back.
class FakeLayer final : public siplib::TransactionLayer {
 public:
  struct Received {
    SIPLIB_SIPMessageHandle message;
    std::shared_ptr<siplib::Path> path;
  };
  void setLocal(std::string_view ip, int port) override { local = std::string(ip) + ':' + std::to_string(port); }
  void setListener(SIPLIB_SIPServerConnectionListener*, SIPLIB_SIPConnectionNotifier* notifier) override {
    listening = notifier != nullptr;
  }
  void setDialogListener(SIPLIB_SIPDialogListener*) override {}
  SIPLIB_SIPServerConnection* accept() override { return nullptr; }
  void receive(SIPLIB_SIPMessageHandle message, std::shared_ptr<siplib::Path> path) override {
    if (on_receive) on_receive(*message, *path);
    received.push_back({std::move(message), std::move(path)});
  }
  SIPLIB_SIPClientConnection* openClient(std::shared_ptr<siplib::Path> path) override {
    opened.push_back(std::move(path));
    return nullptr;
  }
  bool close(SIPLIB_SIPConnection*) override { return false; }
  void endTurn() override {}

  std::string local;
  bool listening = false;
  std::vector<Received> received;
  std::vector<std::shared_ptr<siplib::Path>> opened;
  std::function<void(const SIPLIB_message&, siplib::Path&)> on_receive;
};

/// What the listeners noted, in their order, as the user's queue would hold it.
struct Event {
  std::string kind;  // "created", "request", "closed", "datagram", "response", "lost"
  SIPLIB_SIPConnection* connection = nullptr;
};

class Listener final : public SIPLIB_SIPServerTransportListener, public SIPLIB_SIPClientTcpTransportListener {
 public:
  void notifyIncomingConnection(SIPLIB_SIPTransportNotifier* notifier) override {
    if (!accept) return;
    add("created", notifier->acceptAndOpen());
  }
  void notifyConnectionClosed(SIPLIB_SIPServerTcpTransport* transport) override { add("closed", transport); }
  void notifyRequest(SIPLIB_SIPServerTcpTransport* transport) override { add("request", transport); }
  void notifyUdpMsg(SIPLIB_SIPTransportNotifier* notifier) override {
    if (accept) add("datagram", notifier->acceptOpenUdp());
  }
  void notifyResponse(SIPLIB_SIPClientTcpTransport* transport) override { add("response", transport); }
  void notifyConnectionClosed(SIPLIB_SIPClientTcpTransport* transport) override { add("lost", transport); }
  /// Texts that hold "ordinary" are not for the user; those that hold "nothing" make no message.
  bool handleIncomingMessage(char* text, unsigned int length, SIPLIB_message** message) override {
    const std::string_view view(text, length);
    if (view.find("nothing") == std::string_view::npos) *message = new SIPLIB_message(text, length);
    return view.find("ordinary") == std::string_view::npos;
  }

  void add(const char* kind, SIPLIB_SIPConnection* connection) {
    const std::lock_guard lock(mutex_);
    events_.push_back({kind, connection});
  }
  std::size_t count(std::string_view kind) const {
    const std::lock_guard lock(mutex_);
    std::size_t found = 0;
    for (const auto& event : events_) found += event.kind == kind ? 1U : 0U;
    return found;
  }
  std::size_t size() const {
    const std::lock_guard lock(mutex_);
    return events_.size();
  }
  bool take(Event& event) {
    const std::lock_guard lock(mutex_);
    if (events_.empty()) return false;
    event = events_.front();
    events_.pop_front();
    return true;
  }

  std::atomic<bool> accept{true};

 private:
  mutable std::mutex mutex_;
  std::deque<Event> events_;
};

class StackTest : public testing::Test {
 protected:
  StackTest() {
    config.reactor = &reactor;
    config.log = [this](int level, const char*, std::string_view text) { log.add(level, text); };
  }
  ~StackTest() override { stack.reset(); }

  void open() {
    stack = siplib::StackImpl::create(config, [this](auto&, auto&, auto&) {
      auto made = std::make_unique<FakeLayer>();
      layer = made.get();
      return made;
    });
    ASSERT_NE(nullptr, stack);
  }
  /// A handle on a fresh port of `ip`, with the listener.
  SIPLIB_SIPTransportNotifier* listenAt(const std::string& ip) {
    SIPLIB_SIPTransportNotifier* notifier = stack->openTransportNotifier("TCP", ip, 0);
    if (notifier != nullptr) notifier->setListener(&listener);
    return notifier;
  }
  /// The local endpoint on a port of the system's choice, with the listener.
  SocketAddress openLocal() {
    SIPLIB_SIPConnectionNotifier* local = stack->openNotifier("sip:0");
    std::string ip;
    int port = 0;
    if (local == nullptr || !local->getCurrentAddress(ip, port)) return {};
    SIPLIB_SIPTransportNotifier* notifier = stack->openTransportNotifier("tcp", ip, port);
    if (notifier != nullptr) notifier->setListener(&listener);
    return at(ip, port);
  }
  static SocketAddress addressOf(const SIPLIB_SIPTransportNotifier* notifier) {
    std::string ip;
    int port = 0;
    return notifier != nullptr && notifier->getCurrentAddress("TCP", ip, port) ? at(ip, port) : SocketAddress();
  }

  /// Runs the reactor until it holds. Bounded.
  bool until(const std::function<bool()>& holds, std::chrono::milliseconds most = 3s) {
    const auto end = std::chrono::steady_clock::now() + most;
    while (true) {
      reactor.poll();
      if (holds()) return true;
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(200us);
    }
  }
  /// Gives everything that could happen the time to happen.
  void settle(std::chrono::milliseconds time = 30ms) {
    until([] { return false; }, time);
  }
  /// The next event; its kind is empty when none comes.
  Event next() {
    Event event;
    until([&] { return listener.take(event); });
    return event;
  }
  /// Many rounds leave memory and descriptors where the first ones did.
  void comeAndGo(const std::function<void(int)>& round) {
    settle(5ms);
    const std::size_t descriptors = openDescriptors();
    std::size_t bytes = 0;
    for (int i = 0; i < 1000; ++i) {
      if (i == 100) bytes = allocatedBytes();
      round(i);
      if (HasFatalFailure()) return;
    }
    settle(5ms);
    stack->endTurn();
    EXPECT_EQ(descriptors, openDescriptors());
    EXPECT_LT(allocatedBytes(), bytes + 30000) << "less than 34 bytes a round";
  }
  template <class Transport>
  Transport* next(const std::string& kind) {
    const Event event = next();
    EXPECT_EQ(kind, event.kind) << log.all();
    return event.kind == kind ? dynamic_cast<Transport*>(event.connection) : nullptr;
  }
  /// Reads from the peer until it holds.
  bool readUntil(const Peer& peer, std::string& text, const std::function<bool()>& holds) {
    return until([&] {
      text += peer.read();
      return holds();
    });
  }
  bool reads(const Peer& peer, const std::string& expected) {
    std::string text;
    readUntil(peer, text, [&] { return text.size() >= expected.size(); });
    return text == expected;
  }
  int sendText(SIPLIB_SIPMessageConnection* connection, const std::string& text) {
    connection->setSipMessageHandle(parsed(text));
    return connection->send();
  }

  Log log;
  siplib::Reactor reactor;
  SIPLIB_SIPStackConfig config;
  FakeLayer* layer = nullptr;
  Listener listener;
  std::unique_ptr<siplib::StackImpl> stack;
};

}  // namespace socket_fakes
