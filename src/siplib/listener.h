// What the library tells its user, and the one question it asks.
//
// The contract: for each complete message that a transport received, the library first calls `handleIncomingMessage` of
// the transport's listener with the raw text. True: the message is the listener's; it goes into the connection's inbox,
// then the matching notification is raised, exactly once. False: the library's ordinary SIP processing takes it and
// no notification is raised. The message created there belongs to the library from then on, whatever the answer; none
// created (null) is handled as one that does not parse.
//
// All are called on the I/O thread, never while the library holds a lock; they may open, close and send. Order: the
// notifications of one connection come in the order of its bytes; its closing is the last.
#pragma once

class SIPLIB_message;
class SIPLIB_SIPClientConnection;
class SIPLIB_SIPClientTcpTransport;
class SIPLIB_SIPConnectionNotifier;
class SIPLIB_SIPDialog;
class SIPLIB_SIPServerTcpTransport;
class SIPLIB_SIPTransportNotifier;

/// For an endpoint and the connections accepted on it.
class SIPLIB_SIPServerTransportListener {
 public:
  virtual ~SIPLIB_SIPServerTransportListener() = default;
  /// Call acceptAndOpen on the notifier, within this call.
  virtual void notifyIncomingConnection(SIPLIB_SIPTransportNotifier* notifier) = 0;
  virtual void notifyConnectionClosed(SIPLIB_SIPServerTcpTransport* transport) = 0;
  /// A message, request or response, is in the transport's inbox.
  virtual void notifyRequest(SIPLIB_SIPServerTcpTransport* transport) = 0;
  /// Call acceptOpenUdp on the notifier, within this call.
  virtual void notifyUdpMsg(SIPLIB_SIPTransportNotifier* notifier) = 0;
  /// `text` is `length` bytes, not NUL-terminated, and dies with the call.
  virtual bool handleIncomingMessage(char* text, unsigned int length, SIPLIB_message** message) = 0;
};

/// For client TCP transports.
class SIPLIB_SIPClientTcpTransportListener {
 public:
  virtual ~SIPLIB_SIPClientTcpTransportListener() = default;
  /// A message, response or request, is in the transport's inbox.
  virtual void notifyResponse(SIPLIB_SIPClientTcpTransport* transport) = 0;
  /// The socket is lost. Raised once for each loss of an opened connection; not for a close of the user's own.
  virtual void notifyConnectionClosed(SIPLIB_SIPClientTcpTransport* transport) = 0;
  virtual bool handleIncomingMessage(char* text, unsigned int length, SIPLIB_message** message) = 0;
};

/// For the ordinary SIP processing: a new request.
class SIPLIB_SIPServerConnectionListener {
 public:
  virtual ~SIPLIB_SIPServerConnectionListener() = default;
  /// Call acceptAndOpen on the notifier, within this call. Retransmissions never get here.
  virtual void notifyRequest(SIPLIB_SIPConnectionNotifier* notifier) = 0;
};

/// For client transactions: an answer, provisional ones other than 100 too, or the end without one (status 408).
class SIPLIB_SIPClientConnectionListener {
 public:
  virtual ~SIPLIB_SIPClientConnectionListener() = default;
  virtual void notifyResponse(SIPLIB_SIPClientConnection* connection) = 0;
};

/// For dialogs.
class SIPLIB_SIPDialogListener {
 public:
  virtual ~SIPLIB_SIPDialogListener() = default;
  /// The dialog is over; the pointer is good during the call only.
  virtual void notifyDialogTerminated(SIPLIB_SIPDialog* dialog) = 0;
};
