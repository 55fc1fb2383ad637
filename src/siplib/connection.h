// The connections of the library: what carries messages, and what listens.
//
//   SIPLIB_SIPConnection
//    +- SIPLIB_SIPTransportNotifier        a handle on an endpoint (UDP socket and TCP listener of one address:port)
//    +- SIPLIB_SIPConnectionNotifier       the local endpoint's ordinary SIP processing (transactions)
//    +- SIPLIB_SIPMessageConnection        what has a current message
//        +- SIPLIB_SIPTransportConnection  moves messages as they are
//        |   +- SIPLIB_SIPServerTcpTransport, SIPLIB_SIPClientTcpTransport
//        |   +- SIPLIB_SIPServerUdpTransport, SIPLIB_SIPClientUdpTransport
//        +- SIPLIB_SIPServerConnection     one server transaction (transaction.h)
//        +- SIPLIB_SIPClientConnection     one client transaction (transaction.h)
//
// The transport classes are interfaces; the library's own sockets stand behind them, a test's fakes can too.
//
// Ownership: every connection belongs to the library; users hold plain pointers and end their use with
// SIPLIB_SIPConnector::close. How long each lives is said at its class. A pointer is valid at least until the end of
// the turn (one queued event) in which it was closed.
//
// Threads: the listeners (listener.h) are called on the I/O thread. Everything else here is called by one thread, the
// user's loop. Strings given out are copies.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "siplib/message.h"

class SIPLIB_SIPClientTcpTransportListener;
class SIPLIB_SIPDialogListener;
class SIPLIB_SIPServerConnection;
class SIPLIB_SIPServerConnectionListener;
class SIPLIB_SIPServerTransportListener;
class SIPLIB_SIPServerTcpTransport;
class SIPLIB_SIPServerUdpTransport;

/// The root. Events carry connections as `void*` made from this type: cast back to it first.
class SIPLIB_SIPConnection {
 public:
  virtual ~SIPLIB_SIPConnection();
  SIPLIB_SIPConnection(const SIPLIB_SIPConnection&) = delete;
  SIPLIB_SIPConnection& operator=(const SIPLIB_SIPConnection&) = delete;

  /// Takes the next received message out of the connection's inbox and makes it the current one. Each notification of a
  /// message answers to exactly one call. 0 when there was one (also one that did not parse), -1 otherwise (the
  /// connection then has no current message). The base has no inbox.
  virtual int receive();

 protected:
  SIPLIB_SIPConnection() = default;
};

/// A connection with a current message. Every reader answers "absent" while there is none or it does not parse.
class SIPLIB_SIPMessageConnection : public SIPLIB_SIPConnection {
 public:
  /// The current message, shared; empty when there is none.
  SIPLIB_SIPMessageHandle getSipMessageHandle() const { return message_; }
  /// Makes the message of another connection this one's too. Both see every later change.
  void setSipMessageHandle(SIPLIB_SIPMessageHandle message) { message_ = std::move(message); }

  /// True when there is a message; `is_request` then says which kind, else it is false.
  bool getSipMsgType(bool& is_request) const;
  /// The method of a request, or of the CSeq of a response; empty otherwise.
  std::string getMethod() const;
  /// Empty for a response.
  std::string getRequestURI() const;
  /// 0 for a request.
  int getStatusCode() const;

  /// The topmost value of the name: 0 and `value` set, or -1 and `value` as it was.
  int getHeader(std::string_view name, std::string& value) const;
  /// The same without a copy: good until the message's next change. Empty when absent.
  std::string_view viewHeader(std::string_view name) const;
  std::string_view viewRequestURI() const { return message_ ? message_->requestUri() : std::string_view(); }
  /// The same into a buffer of `size` bytes with a terminating NUL; a value that does not fit counts as absent.
  int getHeader(std::string_view name, char* buffer, std::size_t size) const;
  /// Every value of the name, topmost first; how many there are.
  std::size_t getHeaders(std::string_view name, std::vector<std::string>& values) const;
  /// How many values there are and the length of the longest.
  std::size_t getHeaderCount(std::string_view name, std::size_t& longest) const;
  /// 0 when done. Replaces the topmost value; see SIPLIB_message::setHeader.
  int setHeader(std::string_view name, std::string_view value);
  /// 0 when done. On top of the others of the name.
  int addHeader(std::string_view name, std::string_view value);
  /// 0 when the topmost value was removed, -1 when there was none.
  int removeHeader(std::string_view name);
  /// 0 when there is a message; an absent body is an empty text.
  int getContent(std::string& body) const;
  /// 0 when done. Content-Length follows.
  int setContent(std::string_view body);

  /// Sends the current message as it stands. 0 when it was taken (sent, or waiting for the connection to open), -1 when
  /// there is nothing to send, the connection is closed for good, or its queue is full (a log line says which).
  /// Never blocks, never calls back.
  virtual int send() = 0;

 protected:
  /// What setHeader, addHeader, removeHeader and setContent change; null when nothing can be changed. The current
  /// message, except while a server transaction's answer is prepared.
  virtual SIPLIB_message* writable() { return message_.get(); }

  SIPLIB_SIPMessageHandle message_;
};

/// A connection that moves messages as they are. Addresses are texts without brackets, ports in host order.
class SIPLIB_SIPTransportConnection : public SIPLIB_SIPMessageConnection {
 public:
  /// The address and port on this host. True when known (false after the end of a connection that never had one).
  virtual bool getLocalAddress(std::string& ip, int& port) const = 0;
  /// The other side. For a server UDP transport: the source of the current message's datagram.
  virtual bool getPeerAddress(std::string& ip, int& port) const = 0;
};

/// A TCP connection that a peer opened. Lives from accept until SIPLIB_SIPConnector::close; events queued before that
/// still find it. After its closing event it raises no other.
class SIPLIB_SIPServerTcpTransport : public SIPLIB_SIPTransportConnection {};

/// A TCP connection to a peer, one per (source, destination), living as long as the stack. From the loss of its socket
/// until SIPLIB_SIPConnector::closeLost answers the closing event, sends wait; after it a send opens the connection
/// again in the background and goes out when it is up. SIPLIB_SIPConnector::close closes it until the pair is opened
/// anew.
class SIPLIB_SIPClientTcpTransport : public SIPLIB_SIPTransportConnection {
 public:
  /// Null gives received messages to the ordinary SIP processing.
  virtual void setListener(SIPLIB_SIPClientTcpTransportListener* listener) = 0;
  /// The address and port that were asked for as source when it was opened; the socket's own may differ (see
  /// getLocalAddress).
  virtual void getSourceAddress(std::string& ip, int& port) const = 0;
  /// True while a socket is connected.
  virtual bool isOpen() const = 0;
};

/// The datagrams of an endpoint. One per endpoint, living as long as it. send() answers to the current message's
/// source.
class SIPLIB_SIPServerUdpTransport : public SIPLIB_SIPTransportConnection {};

/// A way to send datagrams to one peer, through the endpoint's socket, so that answers come back to it. Good until
/// closed.
class SIPLIB_SIPClientUdpTransport : public SIPLIB_SIPTransportConnection {};

/// A handle on an endpoint: one UDP socket and one TCP listener on the same address and port. Lives until closed; the
/// endpoint as long as any handle on it.
class SIPLIB_SIPTransportNotifier : public SIPLIB_SIPConnection {
 public:
  /// The listener of everything that arrives on this endpoint; shared by all its handles, the last one set counts. Null
  /// gives everything to the ordinary SIP processing. It stays the listener of the connections that it accepted, also
  /// after the endpoint is closed.
  virtual void setListener(SIPLIB_SIPServerTransportListener* listener) = 0;
  /// Within notifyIncomingConnection: the new connection; null when there is none (any more).
  virtual SIPLIB_SIPServerTcpTransport* acceptAndOpen() = 0;
  /// Within notifyUdpMsg: the endpoint's datagram transport, in whose inbox the message is. Null when closed.
  virtual SIPLIB_SIPServerUdpTransport* acceptOpenUdp() = 0;
  /// The address and port that the endpoint has for "TCP" or "UDP" (without regard to case). False for any other text.
  virtual bool getCurrentAddress(std::string_view transport, std::string& ip, int& port) const = 0;
};

/// The ordinary SIP processing of the local endpoint: REGISTER, SUBSCRIBE and NOTIFY as transactions. Lives until
/// closed.
class SIPLIB_SIPConnectionNotifier : public SIPLIB_SIPConnection {
 public:
  /// Told of every new request; null: requests are answered 503.
  virtual void setListener(SIPLIB_SIPServerConnectionListener* listener) = 0;
  virtual void setDialogListener(SIPLIB_SIPDialogListener* listener) = 0;
  /// Within notifyRequest: the new request's transaction; null when there is none (any more).
  virtual SIPLIB_SIPServerConnection* acceptAndOpen() = 0;
  virtual bool getCurrentAddress(std::string& ip, int& port) const = 0;
};
