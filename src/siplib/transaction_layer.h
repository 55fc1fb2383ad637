// Between the transports and libosip2: the ordinary SIP processing of the local endpoint.
//
// A message comes in as it was parsed by SIPLIB_message, checked again for what libosip2 gets wrong, and becomes an
// event of a transaction. What goes out is the text that this library wrote, once; a retransmission repeats the same
// bytes.
//
// Threads: `receive` on the I/O thread, the connections' operations on the user's thread; one mutex of the layer's own
// covers libosip2 and is never held while a listener is called.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "siplib/connection.h"
#include "siplib/stack.h"
#include "siplib/transaction.h"

namespace siplib {

class Reactor;

/// A way to the other side of a message: the socket that it came in on, or one that was opened for it. Shared, because
/// transactions outlive connections. send() from any thread; false when it is closed or refused.
class Path {
 public:
  virtual ~Path() = default;
  virtual bool send(std::string_view bytes) = 0;
  /// TCP, or the stack's way to itself.
  virtual bool reliable() const = 0;
  /// Addresses without brackets.
  virtual void local(std::string& ip, int& port) const = 0;
  virtual void peer(std::string& ip, int& port) const = 0;
  /// See peer_owner.h.
  virtual std::optional<uid_t> peerOwner(std::string& why) const {
    why = "it came by way of the proxy";
    return std::nullopt;
  }
};

/// What the layer needs of the sockets below.
class PathMaker {
 public:
  virtual ~PathMaker() = default;
  /// A way from the local endpoint to `ip`:`port` over "TCP" or "UDP"; null when there can be none. Any thread.
  virtual std::shared_ptr<Path> pathTo(std::string_view transport, std::string_view ip, int port) = 0;
};

class TransactionLayer {
 public:
  /// `config` gives the timers and the log; `local` the address of the local endpoint, known once it is open.
  static std::unique_ptr<TransactionLayer> create(const SIPLIB_SIPStackConfig& config, Reactor& reactor,
                                                  PathMaker& paths);
  virtual ~TransactionLayer() = default;

  /// The local endpoint's address, for Via and Contact.
  virtual void setLocal(std::string_view ip, int port) = 0;
  virtual void setListener(SIPLIB_SIPServerConnectionListener* listener, SIPLIB_SIPConnectionNotifier* notifier) = 0;
  virtual void setDialogListener(SIPLIB_SIPDialogListener* listener) = 0;
  /// The next request that waits for acceptAndOpen; null when none.
  virtual SIPLIB_SIPServerConnection* accept() = 0;

  /// A message of the ordinary SIP processing. `path` is the way back. Invalid messages are dropped with one line.
  virtual void receive(SIPLIB_SIPMessageHandle message, std::shared_ptr<Path> path) = 0;
  /// A client transaction outside a dialog over `path`.
  virtual SIPLIB_SIPClientConnection* openClient(std::shared_ptr<Path> path) = 0;
  /// True when the connection is one of this layer's, and is now closed.
  virtual bool close(SIPLIB_SIPConnection* connection) = 0;
  /// See SIPLIB_SIPStack::endTurn.
  virtual void endTurn() = 0;
};

}  // namespace siplib
