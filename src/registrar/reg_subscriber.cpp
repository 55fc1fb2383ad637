#include "registrar/reg_subscriber.h"

#include <new>
#include <string_view>

#include "framework/bounds.h"
#include "framework/ims_address.h"
#include "framework/log.h"
#include "registrar/domain.h"
#include "registrar/text_number.h"
#include "siplib/connector.h"
#include "siplib/transaction.h"

namespace {

constexpr const char* kEvent = "local-reg-events";
constexpr const char* kWatcher = "sip:regua@127.0.0.1";

/// Bytes of waiting documents about changes; they are kept as texts, so that is about the memory they take.
constexpr std::size_t kMaxWaiting = std::size_t{4} * 1024 * 1024;

/// Answers a request and lets go of it. `expires` goes into a 200.
void answer(SIPLIB_SIPServerConnection* request, int status, int expires = 0) {
  if (request->initResponse(status) == 0) {
    if (status == 200) request->setHeader("Expires", std::to_string(expires));
    request->send();
  }
  request->release();
}

}  // namespace

IMSE_RegSubscriber::IMSE_RegSubscriber(SIPLIB_SIPConnector* connector, const std::string& local_name,
                                       SIPLIB_SIPClientConnectionListener* listener)
    : connector_(connector), local_name_(local_name), listener_(listener) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::IMSE_RegSubscriber");
}

IMSE_RegSubscriber::~IMSE_RegSubscriber() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::~IMSE_RegSubscriber");
  send_notify(nullptr, "terminated");
}

int IMSE_RegSubscriber::handle_subscribe(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::handle_subscribe %p.", static_cast<void*>(request));
  std::string event;
  if (request->getHeader("Event", event) != 0 || event != kEvent) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: handle_subscribe: Bad event %s", event.c_str());
    return 1;
  }
  if (initial_.call_id.empty()) return handle_initial_subs(request);
  if (dialog_ == nullptr || request->getDialog() != dialog_) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: IMSE_RegSubscriber: dialog pointer doesn't match");
    return 1;
  }
  std::string expires;
  if (get_expires(request, expires) == 0) {
    answer(request, 500);
    return 1;
  }
  return expires == "0" ? handle_unsubs(request) : handle_refresh(request, registrar::to_int(expires));
}

int IMSE_RegSubscriber::handle_initial_subs(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::handle_initial_subs");
  Headers headers;
  if (const int failure = get_headers(request, headers); failure != 0) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: handle_initial_subs: get headers fail");
    return failure;
  }
  IMS_log::loginfo(5, __func__, "REGISTRAR:Subscriber from %s", headers.from.c_str());
  std::string from;
  if (IMS_address::get_element("From", headers.from, "uri", from) != 0 || from != kWatcher) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Someone else subscribing %s", from.c_str());
    return 1;
  }
  std::string expires_text;
  const int expires = get_expires(request, expires_text) == 1 ? registrar::to_int(expires_text) : 0;
  if (expires <= 0 || request->initResponse(200) != 0) return 1;
  request->setHeader("Expires", std::to_string(expires));
  const int sent = request->send();
  initial_ = std::move(headers);
  expires_ = expires;
  dialog_ = request->getDialog();
  IMS_log::loginfo(5, __func__, "IMSE_REG: handle_initial_subs %p %d", static_cast<void*>(dialog_), sent);
  state_ = SUBSCRIBED;
  // Without a dialog there is no way to the watcher, and nothing to refresh or end: no subscription.
  return send_notify(nullptr, "active") != 0 && dialog_ == nullptr ? 1 : 0;
}

int IMSE_RegSubscriber::handle_refresh(SIPLIB_SIPServerConnection* request, int expires) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::handle_refresh");
  // Read for the log only: the subscription stays as it began, its expiry included.
  Headers headers;
  get_headers(request, headers);
  // It does not end by itself, so what is asked for is granted.
  answer(request, 200, expires > 0 ? expires : expires_);
  send_notify(nullptr, "active");
  return 0;
}

int IMSE_RegSubscriber::handle_unsubs(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::handle_unsubs");
  Headers headers;
  get_headers(request, headers);
  answer(request, 200);
  send_notify(nullptr, "terminated");
  state_ = DELETED;
  return 0;
}

int IMSE_RegSubscriber::get_headers(SIPLIB_SIPServerConnection* request, Headers& headers) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::get_headers");
  std::string contact;
  const char* failure = nullptr;
  if (request->getHeader("Call-ID", headers.call_id) != 0) {
    failure = "IMSE_REG: subscriber call-id failed";
  } else if (request->getHeader("CSeq", headers.cseq) != 0) {
    failure = "IMSE_REG: get_headers: CSeq failed";
  } else if (request->getHeader("From", headers.from) != 0) {
    failure = "IMSE_REG: get_headers: From failed";
  } else if (request->getHeader("To", headers.to) != 0) {
    failure = "IMSE_REG: get_headers: To failed";
  } else if (request->getHeader("Contact", contact) != 0 ||
             IMS_address::get_element("Contact", contact, "uri", headers.contact) != 0) {
    failure = "IMSE_REG: get_headers: Contact failed";
  } else if (request->getHeader("Event", headers.event) != 0) {
    failure = "IMSE_REG: get_headers: Event failed";
  }
  if (failure == nullptr) return 0;
  IMS_log::loginfo(4, __func__, "%s", failure);
  return 1;
}

int IMSE_RegSubscriber::get_expires(SIPLIB_SIPServerConnection* request, std::string& expires) {
  if (request->getHeader("Expires", expires) != 0) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: get_expires fails");
    return 0;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::get_expires %s", expires.c_str());
  return 1;
}

int IMSE_RegSubscriber::send_notify(std::unique_ptr<IMSE_NotifyXmlData> document,
                                    const std::string& subscription_state) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::send_notify %p %d", static_cast<void*>(document.get()),
                   state_);
  if (state_ == INITIALISED || state_ == DELETED) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify Subscriber in DELETED/INITIALISED state,failure");
    return 1;
  }
  if (state_ == SUBS_NOTIFY_SENT && subscription_state != "terminated") {
    wait(std::move(document));
    return 0;
  }
  if (dialog_ == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify: INVALID dialogptr");
    return 1;
  }
  SIPLIB_SIPClientConnection* notify = dialog_->getNewClientConnection("NOTIFY");
  if (notify == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify get connection failed");
    return 1;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: send_notify: ua_listener %p", static_cast<void*>(listener_));
  notify->setListener(listener_);
  bool filled = false;
  try {
    filled = fill_notify(notify, document.get(), subscription_state);
  } catch (const std::bad_alloc&) {  // a failure like any other
  }
  if (!filled) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify failure");
    connector_->close(notify);
    return 1;
  }
  // One that could not be sent gets its answer too, a 408.
  const int sent = notify->send();
  IMS_log::loginfo(5, __func__, "IMSE_REG: send_notify conn->send status %d", sent);
  state_ = SUBS_NOTIFY_SENT;
  if (document != nullptr && document->domain() != nullptr) document->domain()->document_sent(*document);
  return 0;
}

void IMSE_RegSubscriber::wait(std::unique_ptr<IMSE_NotifyXmlData> document) {
  if (document == nullptr && is_full()) {
    // One without body tells nothing that those before it do not.
    IMS_log::loginfo(5, "send_notify", "IMSE_REG: send_notify queue is full, one without body left out");
    return;
  }
  if (document != nullptr && stale_) {
    IMS_log::loginfo(5, "send_notify", "IMSE_REG: send_notify left out, the watcher is told everything anew");
    return;
  }
  if (document != nullptr && !document->whole() && is_full()) {
    IMS_log::loginfo(4, "send_notify", "IMSE_REG: %d NOTIFYs for a watcher that does not answer are dropped",
                     static_cast<int>(pending_.size()));
    pending_.clear();
    changes_ = changes_size_ = 0;
    stale_ = true;
    return;
  }
  IMS_log::loginfo(4, "send_notify", "IMSE_REG: send_notify Subs SUBS_NOTIFY_SENT state,Pushing to Queue");
  if (document == nullptr || !document->whole()) {
    ++changes_;
    changes_size_ += document != nullptr ? document->size() : 0;
  }
  pending_.push_back(std::move(document));
}

std::unique_ptr<IMSE_NotifyXmlData> IMSE_RegSubscriber::next() {
  std::unique_ptr<IMSE_NotifyXmlData> document = std::move(pending_.front());
  pending_.pop_front();
  count_out(document.get());
  return document;
}

void IMSE_RegSubscriber::count_out(const IMSE_NotifyXmlData* document) {
  if (document != nullptr && document->whole()) return;
  --changes_;
  changes_size_ -= document != nullptr ? document->size() : 0;
}

void IMSE_RegSubscriber::drop_documents_of(const IMSE_Domain* domain) {
  std::erase_if(pending_, [&](const std::unique_ptr<IMSE_NotifyXmlData>& document) {
    if (document == nullptr || document->domain() != domain) return false;
    count_out(document.get());
    return true;
  });
}

bool IMSE_RegSubscriber::is_full() const {
  return changes_ >= framework::bounds().waiting_notifies || changes_size_ >= kMaxWaiting;
}

bool IMSE_RegSubscriber::fill_notify(SIPLIB_SIPClientConnection* notify, IMSE_NotifyXmlData* document,
                                     const std::string& subscription_state) const {
  if (notify->setHeader("Event", initial_.event) != 0 ||
      notify->setHeader("Subscription-State", subscription_state) != 0 ||
      notify->setHeader("Expires", std::to_string(expires_)) != 0) {
    return false;
  }
  if (document == nullptr) return true;
  IMS_log::loginfo(5, "send_notify", "IMSE_REG: send_notify: Valid XML");
  if (document->encodeXml() != 0) return false;
  // The length counts the NUL at the end, which is no part of the body.
  const std::string_view body(document->text(), static_cast<std::size_t>(document->length() - 1));
  return notify->setHeader("Content-Type", "application/xml") == 0 && notify->setContent(body) == 0;
}

int IMSE_RegSubscriber::received_response(SIPLIB_SIPClientConnection* response) {
  if (dialog_ == nullptr || response->getDialog() != dialog_) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: received_response: dialog pointer doesn't match");
    return 1;
  }
  const int read = response->receive();
  const int transaction = response->getTransactionStatus();
  if (transaction != 0) return 1;
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_RegSubscriber::received_response %d %d", transaction,
                   static_cast<int>(pending_.size()));
  const int code = response->getStatusCode();
  IMS_log::loginfo(5, __func__, "IMSE_REG: received_response %d %d", read, code);
  if (code == 0 || code > 299) {
    IMS_log::loginfo(4, __func__, "REGISTRAR:Subscriber Error response received");
    send_notify(nullptr, "terminated");
    state_ = DELETED;
    response->release();
    return 1;
  }
  if (code < 200) return 0;
  state_ = NOTIFY_ANSWERED;
  response->release();
  // One goes out for each answer. One that cannot go out has no answer that would let the next one go.
  while (state_ == NOTIFY_ANSWERED && !pending_.empty()) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: received response Queue is not empty");
    std::unique_ptr<IMSE_NotifyXmlData> document = next();
    IMSE_Domain* const domain = document != nullptr ? document->domain() : nullptr;
    const bool create = document != nullptr && document->kind() == IMSE_NotifyXmlData::CREATE;
    if (send_notify(std::move(document), "active") == 0 || domain == nullptr) continue;
    domain->document_lost();
    if (create) drop_documents_of(domain);
  }
  return 0;
}
