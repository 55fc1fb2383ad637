#include "registrar/client.h"

#include "framework/ims_address.h"
#include "framework/log.h"
#include "registrar/text_number.h"
#include "siplib/transaction.h"

using registrar::to_int;

namespace {

/// The lines of get_headers, which every comparison writes; gives its result.
int trace(const IMSE_Client::Identity& identity) {
  IMS_log::loginfo(5, "get_headers", "IMSE_REG: get_headers");
  if (!identity.whole) return 1;
  IMS_log::loginfo(5, "get_headers", "IMSE_REG: Client:get_headers returns %s %s %s %d", identity.call_id.c_str(),
                   identity.cseq.c_str(), identity.from.c_str(), identity.port);
  return 0;
}

}  // namespace

ClientAmount IMSE_Client::held_by_all_;

IMSE_Client::IMSE_Client(std::unique_ptr<RegisterXmlData> body) : body_(std::move(body)) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Client::IMSE_Client");
}

IMSE_Client::~IMSE_Client() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Client::~IMSE_Client");
  if (request_ != nullptr) request_->release();
  held_by_all_ -= held_;
}

void IMSE_Client::hold(const ClientAmount& amount) {
  held_ = amount;
  held_by_all_ += amount;
}

int IMSE_Client::get_client_info(ClientTable_Entry_T& entry) {
  return body_->get_client_info(entry);
}

int IMSE_Client::process_register(SIPLIB_SIPServerConnection* request) {
  request_ = request;
  std::string call_id, cseq, from, expires_text, contact;
  int port = -1;
  const int headers = get_headers(request, call_id, cseq, from, port);
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Client::process_register %d %s %s %s %d %d", headers, call_id_.c_str(),
                   cseq_.c_str(), from_.c_str(), port_, expires_);
  const int has_expires = request->getHeader("Expires", expires_text);
  IMS_log::loginfo(5, __func__, "IMSE_REG: process_register: Expires %s %d", expires_text.c_str(), has_expires);
  const int has_contact = request->getHeader("Contact", contact);
  IMS_log::loginfo(5, __func__, "IMSE_REG: process_register: Contact %s %d", contact.c_str(), has_contact);
  // Without a Contact and its port there is no party to register.
  if (headers != 0) return IMSE_REGISTER_INVALID;

  const int expires = has_expires == 0 ? to_int(expires_text) : 0;
  if (expires < 0) return IMSE_REGISTER_INVALID;
  if (call_id_.empty()) {
    if (expires == 0) return IMSE_REGISTER_INVALID;
    call_id_ = call_id;
    cseq_ = cseq;
    from_ = from;
    port_ = static_cast<std::uint16_t>(port);
    contact_ = contact;
    expires_ = expires;
    return IMSE_REGISTER_NEW;
  }
  if (call_id != call_id_) return IMSE_REGISTER_AGAIN;
  if (port != port_ || from != from_) return IMSE_REGISTER_INVALID;
  const int stored = to_int(cseq_);
  const int number = to_int(cseq);
  if (stored == number) return IMSE_REGISTER_RETRANSMISSION;
  if (stored > number) return IMSE_REGISTER_INVALID;
  cseq_ = cseq;
  expires_ = expires;
  if (expires == 0) return IMSE_REGISTER_DEREGISTRATION;
  return state_ == IMSE_CLIENT_CHALLENGED ? IMSE_REGISTER_NEW : IMSE_REGISTER_REFRESH;
}

int IMSE_Client::authorize() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: authorize");
  const int result = send_response(401);
  if (result == 0 && state_ == IMSE_CLIENT_NEW) state_ = IMSE_CLIENT_CHALLENGED;
  return result;
}

int IMSE_Client::accept() {
  const int result = send_response(200);
  if (result != 0) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: accept: send_response fails");
    return result;
  }
  set_registered();
  return 0;
}

int IMSE_Client::reject(int status) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: reject");
  return send_response(status);
}

IMSE_Client::Identity IMSE_Client::read_identity(SIPLIB_SIPServerConnection* request) {
  Identity identity;
  std::string from, contact;
  if (request->getHeader("Call-ID", identity.call_id) != 0 || request->getHeader("CSeq", identity.cseq) != 0 ||
      request->getHeader("From", from) != 0 || IMS_address::get_element("From", from, "uri", identity.from) != 0 ||
      request->getHeader("Contact", contact) != 0) {
    return identity;
  }
  identity.port = IMS_address::get_port("Contact", contact);
  identity.whole = identity.port >= 1 && identity.port <= 65535;
  return identity;
}

int IMSE_Client::get_headers(SIPLIB_SIPServerConnection* request, std::string& call_id, std::string& cseq,
                             std::string& from, int& port) {
  const Identity identity = read_identity(request);
  call_id = identity.call_id;
  cseq = identity.cseq;
  from = identity.from;
  port = identity.port;
  return trace(identity);
}

int IMSE_Client::send_response(int status) {
  return answer(status, "IMSE_REG: send_response: init response failure", nullptr);
}

int IMSE_Client::answer(int status, const char* failure, const std::string* profile_id) {
  if (request_ == nullptr) return 1;
  SIPLIB_SIPServerConnection* const request = request_;
  request_ = nullptr;
  if (request->initResponse(status) != 0) {
    IMS_log::loginfo(4, "send_response", "%s", failure);
    request->release();
    return 1;
  }
  if (status == 200) {
    if (profile_id != nullptr) request->setHeader("Zel-Profile-ID", *profile_id);
    const int expires_set = request->setHeader("Expires", std::to_string(expires_));
    IMS_log::loginfo(5, "send_response", "IMSE_REG: Client send_response: expires set %d status", expires_set);
    const int contact_set = request->setHeader("Contact", contact_);
    IMS_log::loginfo(5, "send_response", "IMSE_REG: Client send_response: contact set %d status", contact_set);
  }
  const int sent = request->send();
  IMS_log::loginfo(5, "send_response", "IMSE_REG: send_response send status %d", sent);
  request->release();
  return 0;
}

int IMSE_Client::is_match(SIPLIB_SIPServerConnection* request) const {
  return is_match(read_identity(request));
}

int IMSE_Client::is_match(const Identity& request) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Client::is_match ");
  if (trace(request) != 0) {
    IMS_log::loginfo(5, __func__, "REGISTRAR:get headers failed");
    return 0;
  }
  if (request.port == port_) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: is_match: Port matches");
    return 1;
  }
  if (from_ == "sip:anonymous@127.0.0.1") {
    IMS_log::loginfo(5, __func__, "IMSE_REG: is_match: anonymous user match failed");
    return 0;
  }
  if (request.from != from_) return 0;
  IMS_log::loginfo(5, __func__, "IMSE_REG: is_match: from address matches");
  return 1;
}

int IMSE_Client::get_expiry_value() const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Client::get_expiry_value %d", expires_);
  return expires_;
}

void IMSE_Client::forget_request(const SIPLIB_SIPServerConnection* request) {
  if (request_ == request) request_ = nullptr;
}
