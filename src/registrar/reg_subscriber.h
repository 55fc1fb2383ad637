// The one subscription to the package "local-reg-events".
//
// Checks and answers SUBSCRIBEs, keeps the dialog, and sends NOTIFYs one at a time: while one is unanswered, further
// "active" ones wait in a queue, and each 2xx lets one go. Only the terminal's registration agent may watch. When too
// many wait, all are dropped and the watcher is stale: what happens next is not queued either, and its next answer lets
// the registrar tell it everything anew.
//
//   INITIALISED -> SUBSCRIBED -> SUBS_NOTIFY_SENT <-> NOTIFY_ANSWERED -> DELETED
//
// Loop thread only.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <utility>

#include "registrar/notify_xml_data.h"

class IMSE_Domain;
class SIPLIB_SIPClientConnection;
class SIPLIB_SIPClientConnectionListener;
class SIPLIB_SIPConnector;
class SIPLIB_SIPDialog;
class SIPLIB_SIPServerConnection;

class IMSE_RegSubscriber {
 public:
  enum State { INITIALISED = 0, SUBSCRIBED = 1, SUBS_NOTIFY_SENT = 2, NOTIFY_ANSWERED = 3, DELETED = 4 };
  /// Neither is owned. `listener` gets the answers to the NOTIFYs.
  IMSE_RegSubscriber(SIPLIB_SIPConnector* connector, const std::string& local_name,
                     SIPLIB_SIPClientConnectionListener* listener);
  /// Tells a watcher whose subscription still lives that it is over.
  ~IMSE_RegSubscriber();
  IMSE_RegSubscriber(const IMSE_RegSubscriber&) = delete;
  IMSE_RegSubscriber& operator=(const IMSE_RegSubscriber&) = delete;

  /// 0 when the request was answered here, 1 when it is refused (the caller answers 400).
  int handle_subscribe(SIPLIB_SIPServerConnection* request);
  /// Sends the document, or queues it behind a NOTIFY that is not answered yet; "terminated" goes out at once. Null:
  /// without body. 0 when sent or queued, 1 otherwise; the document is taken over always.
  int send_notify(std::unique_ptr<IMSE_NotifyXmlData> document, const std::string& subscription_state);
  /// An answer to a NOTIFY. 1 when the subscription is over, else 0.
  int received_response(SIPLIB_SIPClientConnection* response);
  bool is_terminated() const { return state_ == DELETED; }
  /// True once after documents had to be dropped because the watcher did not answer: it must be told everything anew.
  /// To be asked when it has answered.
  bool take_stale() { return std::exchange(stale_, false); }
  bool is_stale() const { return stale_; }
  State state() const { return state_; }

 private:
  /// The headers that identify a subscription.
  struct Headers {
    std::string call_id;
    std::string cseq;
    std::string from;
    std::string to;
    std::string contact;  ///< URI
    std::string event;
  };

  int handle_initial_subs(SIPLIB_SIPServerConnection* request);
  /// `expires`: what it asks for.
  int handle_refresh(SIPLIB_SIPServerConnection* request, int expires);
  int handle_unsubs(SIPLIB_SIPServerConnection* request);
  /// 0, or 1 with a line that names the first missing one.
  static int get_headers(SIPLIB_SIPServerConnection* request, Headers& headers);
  /// 1 when there is one, 0 when it is missing.
  static int get_expires(SIPLIB_SIPServerConnection* request, std::string& expires);
  /// Fills the headers and body in; false when one is refused.
  bool fill_notify(SIPLIB_SIPClientConnection* notify, IMSE_NotifyXmlData* document,
                   const std::string& subscription_state) const;

  /// Puts the document behind those that wait; null: one without body.
  void wait(std::unique_ptr<IMSE_NotifyXmlData> document);
  std::unique_ptr<IMSE_NotifyXmlData> next();
  void count_out(const IMSE_NotifyXmlData* document);
  /// The watcher would not know the profile that they speak of.
  void drop_documents_of(const IMSE_Domain* domain);
  /// So much waits that what happens further is not kept document by document.
  bool is_full() const;

  Headers initial_;  ///< of the SUBSCRIBE that began it; empty until it is accepted
  int expires_ = 0;  ///< seconds; of the SUBSCRIBE that began it
  SIPLIB_SIPDialog* dialog_ = nullptr;
  State state_ = INITIALISED;
  SIPLIB_SIPConnector* connector_;
  std::string local_name_;
  SIPLIB_SIPClientConnectionListener* listener_;
  std::deque<std::unique_ptr<IMSE_NotifyXmlData>> pending_;  ///< oldest first; null: without body
  // Of those, the ones that tell of changes: there is no end to these.
  std::size_t changes_ = 0;
  std::size_t changes_size_ = 0;  ///< bytes
  bool stale_ = false;
};
