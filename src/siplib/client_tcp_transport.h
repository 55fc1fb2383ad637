// A TCP connection to a peer, one per (source, destination), which outlives its sockets.
//
//   Closed --open/send--> Connecting --connected--> Open --lost--> Lost --closeLost--> Closed
//                             |                                               (and on, when sends wait)
//                             +--failed--> Closed
//
// The user's close leads from each of them to Closed for good, where open alone leads out.
//
// Sends wait while Connecting and Lost. To a loopback peer Connecting is passed over: the outcome is known at once.
//
// The stack's way to itself: a destination that is the stack's own local endpoint has no socket. What is sent goes to
// the ordinary SIP processing of that endpoint, never to a listener, and its answers come back as received messages.
//
// Threads: sends from any thread; open, close and the readers on the user's; the rest on the I/O thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "siplib/closable.h"
#include "siplib/connection.h"
#include "siplib/inbox.h"
#include "siplib/stack_core.h"
#include "siplib/tcp_stream.h"

namespace siplib {

class ClientTcpTransport final : public SIPLIB_SIPClientTcpTransport,
                                 public Closable,
                                 public StreamOwner,
                                 public std::enable_shared_from_this<ClientTcpTransport> {
 public:
  static constexpr std::size_t kMostReceived = 64;
  /// Most messages on their way between the stack and itself.
  static constexpr std::size_t kMostOwn = 256;

  ClientTcpTransport(std::shared_ptr<StackCore> core, const SocketAddress& source, const SocketAddress& destination);

  /// Opens it unless it is open. False when the connect to a loopback peer failed at once: one to any other may succeed
  /// with the next send.
  bool open();
  /// A close for good no longer counts: sends open it again.
  void reopenable();
  /// Any thread, `soon` the user's only: see TcpStream::sendSoon. False when it was not taken; a log line says why.
  bool sendBytes(Slices slices, bool soon = false);
  /// A connection that is up when open() returns is not read before its user could set the listener: not before
  /// setListener, a send, or this.
  void startDeferred();

  int receive() override;
  int send() override;
  void setListener(SIPLIB_SIPClientTcpTransportListener* listener) override;
  bool isOpen() const override;
  bool getLocalAddress(std::string& ip, int& port) const override;
  bool getPeerAddress(std::string& ip, int& port) const override { return destination_.get(ip, port); }
  void getSourceAddress(std::string& ip, int& port) const override { source_.get(ip, port); }
  void closeByUser() override;
  /// The user's answer to the loss.
  void closeLost();

  // I/O thread.
  bool streamMessage(char* text, std::size_t length) override;
  void streamClosed(TcpStream& stream, int level, std::string_view why, std::string unsent) override;
  /// A message that the ordinary SIP processing sent over the stack's way to itself.
  void ownMessage(std::string text);
  /// See peer_owner.h.
  std::optional<uid_t> peerOwner(std::string& why) const;
  /// The end of the stack.
  void shutdown() { watched_.reset(); }

  /// Users of the library hold it: it is never forgotten.
  void pin() { pinned_ = true; }
  /// True when nobody would miss it.
  bool forgettable() const;

  const SocketAddress& source() const { return source_; }
  const SocketAddress& destination() const { return destination_; }

 private:
  enum class State { Closed, Connecting, Open, Lost };
  struct Attempt;

  /// From Closed, with the lock: starts a connect. False when it failed at once. `opening`: for open(), whose caller
  /// tells of the failure too.
  bool begin(bool opening = false);
  /// With the lock: a connected socket becomes the stream; what waits goes first.
  void connected(FileDescriptor socket, ConnectionSlot slot, bool defer);
  /// With the lock: gives up what waits.
  void dropWaiting();
  /// With the lock: what was taken before the loss was known waits before all else, as if it were sent now. `unsent` is
  /// empty then, or as it was without memory for it.
  void putFirst(std::string& unsent);
  /// With the lock. False when too much waits.
  bool wait(Slices slices);
  bool sendOwn(Slices slices);
  void watchConnect(std::shared_ptr<Attempt> attempt);
  void connectEnded(int error);
  std::shared_ptr<Path> path();

  const std::shared_ptr<StackCore> core_;
  const SocketAddress source_;
  const SocketAddress destination_;
  std::atomic<SIPLIB_SIPClientTcpTransportListener*> listener_{nullptr};
  Inbox<SIPLIB_SIPMessageHandle> inbox_{kMostReceived};
  std::atomic<std::size_t> own_on_their_way_{0};
  std::atomic<bool> pinned_{false};
  mutable LogLimit dropped_;

  mutable std::mutex mutex_;
  State state_ = State::Closed;
  /// The destination was the local endpoint when it was opened.
  bool own_ = false;
  std::shared_ptr<TcpStream> stream_;
  std::shared_ptr<TcpStream> deferred_;
  std::shared_ptr<Attempt> attempt_;
  SocketAddress local_;
  /// Whole messages, one after the other.
  std::string waiting_;
  /// An open was asked for while Lost.
  bool open_wanted_ = false;
  /// Closed by the user; nothing but open() leads out.
  bool closed_for_good_ = false;

  // I/O thread: the attempt that is watched.
  std::shared_ptr<Attempt> watched_;
};

/// The way over a client transport, for the ordinary SIP processing.
class ClientPath final : public Path {
 public:
  explicit ClientPath(std::shared_ptr<ClientTcpTransport> transport) : transport_(std::move(transport)) {}
  bool send(std::string_view bytes) override;
  bool reliable() const override { return true; }
  void local(std::string& ip, int& port) const override { transport_->source().get(ip, port); }
  void peer(std::string& ip, int& port) const override { transport_->destination().get(ip, port); }
  std::optional<uid_t> peerOwner(std::string& why) const override { return transport_->peerOwner(why); }

 private:
  const std::shared_ptr<ClientTcpTransport> transport_;
};

}  // namespace siplib
