// Opens and closes connections. An interface, so that a test can stand in for the network.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "siplib/connection.h"

class SIPLIB_SIPClientConnection;
class SIPLIB_SIPClientTcpTransport;

/// Called by the user's loop thread only. Nothing here blocks or calls back.
class SIPLIB_SIPConnector {
 public:
  virtual ~SIPLIB_SIPConnector() = default;

  /// The local endpoint with its ordinary SIP processing. `uri` is "sip:port" or "sip:address:port"; without an
  /// address the loopback address 127.0.0.1. Opens UDP and TCP; one local endpoint per stack. Null when the port is
  /// taken by another process (or the uri is not of that form), with a log line.
  virtual SIPLIB_SIPConnectionNotifier* openNotifier(std::string_view uri) = 0;
  /// A handle on the endpoint `ip`:`port`, opened when it is not open yet. `transport` is "TCP" or "UDP", any case:
  /// both sockets are opened whichever is named. Port 0: one that the system chooses, the same for both. Null with a
  /// log line.
  virtual SIPLIB_SIPTransportNotifier* openTransportNotifier(std::string_view transport, std::string_view ip,
                                                             int port) = 0;
  /// A client connection. The source must be an endpoint of this stack, else null. "TCP": interned per pair; to a
  /// loopback peer the result is known at once (refused gives null, and the pair stays usable by a later call), to
  /// any other the connect runs on, and where it failed at once (no route, no address yet) the handle is closed and
  /// opened by the next send, as after a connect that failed slowly. "UDP": a light handle. Addresses are literal (IPv4
  /// or IPv6, with or without brackets); a name, or a port outside 1 to 65535, gives null. Every null has a log line.
  virtual SIPLIB_SIPTransportConnection* openClient(std::string_view transport, std::string_view source_ip,
                                                    int source_port, std::string_view ip, int port) = 0;
  /// A client transaction outside a dialog, to be sent to `ip`:`port` over `transport`. Null when there is no local
  /// endpoint.
  virtual SIPLIB_SIPClientConnection* openClientTransaction(std::string_view transport, std::string_view ip,
                                                            int port) = 0;
  /// Whether the stack's configuration lets the peer of a received message control the proxy; else `why` says in a few
  /// words why not. Asks the kernel only when the configuration names users.
  virtual bool mayControl(const SIPLIB_SIPTransportConnection& /*connection*/, std::string& /*why*/) { return true; }
  /// Ends the use of any connection, notifier, or transaction; see at each what that means. Null is accepted; so is one
  /// closed before in this turn. 0 when done, -1 for null. A client TCP connection is closed for good: only a new
  /// openClient of its pair opens it again, no send, and no event of an earlier loss; what waits is dropped.
  virtual int close(SIPLIB_SIPConnection* connection) = 0;
  /// The answer to a client TCP connection's closing event: gives up the lost socket. What waits is sent on a new one,
  /// or the next send opens it. Nothing when the loss is no longer so: it was closed for good meanwhile, or opened
  /// again. 0 when done, -1 for null.
  virtual int closeLost(SIPLIB_SIPClientTcpTransport* transport) = 0;

  /// The literal addresses of the network's proxies, all of them each time: connections that come from there have
  /// places that others cannot take, and no share of one peer binds them. What is no address is passed over.
  virtual void keepPlacesFor(const std::vector<std::string>& addresses) = 0;
};
