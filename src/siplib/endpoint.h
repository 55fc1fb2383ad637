// One address and port of this host: a TCP listener and a UDP socket. Interned per stack; open as long as any handle on
// it (a notifier) is.
//
// The sockets are opened at once, so that a taken port is known; nothing is read before the I/O thread runs. The last
// handle's end closes it on the I/O thread, unless a new handle came before.
#pragma once

#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "siplib/connection.h"
#include "siplib/endpoint_listener.h"
#include "siplib/peer_owner.h"
#include "siplib/server_udp_transport.h"
#include "siplib/socket.h"
#include "siplib/stack_core.h"

namespace siplib {

class ServerTcpTransport;

class Endpoint final : public std::enable_shared_from_this<Endpoint> {
 public:
  /// Null when either socket cannot be had, with a log line. Port 0: one that is free for both.
  static std::shared_ptr<Endpoint> open(const std::shared_ptr<StackCore>& core, const SocketAddress& address);

  Endpoint(std::shared_ptr<StackCore> core, const SocketAddress& address, FileDescriptor listener,
           FileDescriptor datagrams);

  const SocketAddress& address() const { return address_; }
  const std::shared_ptr<EndpointListener>& listener() const { return listener_; }

  /// One more handle of either kind; `notifier` is null for the local endpoint's.
  void addHandle(SIPLIB_SIPTransportNotifier* notifier);
  /// True when it was the last.
  bool removeHandle(SIPLIB_SIPTransportNotifier* notifier);
  bool hasHandles() const;
  /// The notifier that the listener is told of.
  void setCurrent(SIPLIB_SIPTransportNotifier* notifier);

  /// Sends one datagram; one to the local endpoint goes to its ordinary SIP processing, never to a listener. Any
  /// thread. False with a log line.
  bool send(Slices slices, const SocketAddress& peer);
  /// The message as it stands, for the user's thread: it may wait in Outgoing, and what then goes wrong is in the log
  /// only. One from the network never goes to the local endpoint.
  bool sendSoon(const SIPLIB_message& message, const SocketAddress& peer);
  /// For Outgoing: several, each with its address and its text.
  void send(std::span<mmsghdr> datagrams);

  // I/O thread.
  void start();
  /// Closes the sockets.
  void letGo();
  /// A datagram: asks the listener, then delivers it. `own`: from the ordinary SIP processing of this stack.
  void datagram(char* text, std::size_t length, const SocketAddress& from, bool own);

  // I/O thread, within a notification.
  SIPLIB_SIPServerTcpTransport* takeIncoming();
  SIPLIB_SIPServerUdpTransport* takeDatagram();

 private:
  static constexpr std::size_t kMostOwn = 256;

  bool sendOwn(Slices slices, const SocketAddress& local);
  std::shared_ptr<const FileDescriptor> datagramSocket() const;
  void dropped(const SocketAddress& peer, const char* why);
  void acceptReady();
  void incoming(FileDescriptor socket, const SocketAddress& peer);
  void pauseAccepting(int error);
  void datagramsReady();
  SIPLIB_SIPTransportNotifier* current() const;

  const std::shared_ptr<StackCore> core_;
  const SocketAddress address_;
  const std::shared_ptr<EndpointListener> listener_ = std::make_shared<EndpointListener>();

  mutable std::mutex mutex_;
  std::vector<SIPLIB_SIPTransportNotifier*> handles_;
  SIPLIB_SIPTransportNotifier* current_ = nullptr;
  /// Shared, so that a send on another thread ends before the descriptor does.
  std::shared_ptr<const FileDescriptor> datagrams_;
  std::atomic<std::size_t> own_on_their_way_{0};
  LogLimit send_limit_;

  // I/O thread.
  FileDescriptor listening_;
  std::unique_ptr<Reactor::Watch> listening_watch_;
  std::unique_ptr<Reactor::Watch> datagrams_watch_;
  std::unique_ptr<Reactor::Timer> accept_again_;
  const std::shared_ptr<ServerUdpTransport> udp_;
  std::shared_ptr<ServerTcpTransport> incoming_;
  ServerUdpTransport::Datagram* staged_ = nullptr;
  LogLimit accept_limit_{std::chrono::seconds(5)};
  LogLimit receive_limit_;
};

/// The way back to the source of a datagram.
class DatagramPath final : public Path {
 public:
  DatagramPath(std::weak_ptr<Endpoint> endpoint, const SocketAddress& local, const SocketAddress& peer)
      : endpoint_(std::move(endpoint)), local_(local), peer_(peer) {}
  bool send(std::string_view bytes) override;
  bool reliable() const override { return false; }
  void local(std::string& ip, int& port) const override { local_.get(ip, port); }
  void peer(std::string& ip, int& port) const override { peer_.get(ip, port); }
  std::optional<uid_t> peerOwner(std::string& why) const override {
    why = kDatagramOwner;
    return std::nullopt;
  }

 private:
  const std::weak_ptr<Endpoint> endpoint_;
  const SocketAddress local_;
  const SocketAddress peer_;
};

}  // namespace siplib
