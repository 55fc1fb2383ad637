// Transactions and dialogs of the local endpoint, for requests that this process itself answers or sends: REGISTER,
// SUBSCRIBE, NOTIFY and other non-INVITE requests. libosip2 keeps their state machines (RFC 3261 17.1.2, 17.2.2);
// retransmissions are absorbed or answered below this interface. INVITE is not served: it is answered 501.
//
// Threads: as connection.h says. Ownership: the library's; `release` or SIPLIB_SIPConnector::close ends the user's use
// (either, both, in any order within one turn).
#pragma once

#include <string>
#include <string_view>

#include "siplib/connection.h"

class SIPLIB_SIPClientConnection;
class SIPLIB_SIPClientConnectionListener;

/// A dialog made by a 2xx answer to a SUBSCRIBE (RFC 6665, as notifier) or by the first answer or NOTIFY to a SUBSCRIBE
/// of our own (as subscriber). Lives until it is terminated and no transaction of it is in use; a user that keeps the
/// pointer must let go of it when it sends the terminating NOTIFY or is told of its end.
class SIPLIB_SIPDialog {
 public:
  virtual ~SIPLIB_SIPDialog() = default;
  /// A new request within the dialog: To, From, Call-ID, the next CSeq, Route set, Max-Forwards, Via and Contact are
  /// filled in, the Request-URI is the remote target. Null when the dialog is over. After a NOTIFY with
  /// Subscription-State "terminated" was sent, the dialog is over; the answers to its NOTIFYs are still told, that to
  /// the terminating one included, but their transactions are no longer well (getTransactionStatus).
  virtual SIPLIB_SIPClientConnection* getNewClientConnection(std::string_view method) = 0;
  virtual bool isTerminated() const = 0;
};

/// A request that was received, to be answered once. It is the current message from the start; receive() says 0 once,
/// then -1. One that is not answered within 64*T1 has ended, as nobody waits for its answer any more; one that its user
/// never lets go of is taken back after 640*T1.
class SIPLIB_SIPServerConnection : public SIPLIB_SIPMessageConnection {
 public:
  /// Prepares the answer: status and its usual reason phrase, Via, From, To (with a tag), Call-ID, CSeq taken over, for
  /// a 2xx to SUBSCRIBE also Contact; setHeader, addHeader and setContent then speak of the answer, the readers still
  /// of the request. 0 when done, -1 when the request was answered already or has ended.
  virtual int initResponse(int status) = 0;
  /// Ends the user's use. A request left unanswered stays so: what its sender repeats is absorbed until 64*T1 are over.
  virtual void release() = 0;
  /// The dialog that the request belongs to, or that its 2xx answer has made; null when none.
  virtual SIPLIB_SIPDialog* getDialog() const = 0;
};

/// A request that is sent, and its answers. receive() makes the next answer the current message; -1 when there is none,
/// because the use has ended since the notification was raised: the event is void then.
///
/// The object outlives its use until each notification raised for it was answered by a receive(), or by a receive() or
/// close in a later turn than its release: an event that still waits in a queue never names freed memory.
class SIPLIB_SIPClientConnection : public SIPLIB_SIPMessageConnection {
 public:
  /// Null: answers are absorbed without notice.
  virtual void setListener(SIPLIB_SIPClientConnectionListener* listener) = 0;
  /// Fills in a request outside a dialog: To and From as given (a tag is added to From), Call-ID, CSeq, Via,
  /// Max-Forwards, Contact. 0 when done, -1 when it already has one.
  virtual int initRequest(std::string_view method, std::string_view request_uri, std::string_view from,
                          std::string_view to) = 0;
  /// 0 when the transaction is well; not 0 when the answer could not be taken in, or the use has ended (released, or
  /// the dialog is over): whoever takes an event from a queue asks this first, and when it is not 0 closes the
  /// connection and drops the event. A request that no answer reached in 64*T1 or that could not be sent gets the
  /// status 408 (RFC 3261 8.1.3.1) and is well.
  virtual int getTransactionStatus() const = 0;
  /// Ends the user's use; late answers are absorbed.
  virtual void release() = 0;
  /// Null outside a dialog.
  virtual SIPLIB_SIPDialog* getDialog() const = 0;
};
