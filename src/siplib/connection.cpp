#include "siplib/connection.h"

#include <algorithm>

SIPLIB_SIPConnection::~SIPLIB_SIPConnection() = default;

int SIPLIB_SIPConnection::receive() {
  return -1;
}

bool SIPLIB_SIPMessageConnection::getSipMsgType(bool& is_request) const {
  is_request = message_ && message_->isRequest();
  return message_ && message_->valid();
}

std::string SIPLIB_SIPMessageConnection::getMethod() const {
  if (!message_ || !message_->valid()) return {};
  if (message_->isRequest()) return std::string(message_->method());
  // CSeq = 1*DIGIT LWS Method (RFC 3261 25.1)
  const std::string_view cseq = message_->header("CSeq").value_or("");
  const std::size_t blank = cseq.find_last_of(" \t");
  return std::string(blank == std::string_view::npos ? std::string_view() : cseq.substr(blank + 1));
}

std::string SIPLIB_SIPMessageConnection::getRequestURI() const {
  return message_ ? std::string(message_->requestUri()) : std::string();
}

int SIPLIB_SIPMessageConnection::getStatusCode() const {
  return message_ && message_->isResponse() ? message_->statusCode() : 0;
}

std::string_view SIPLIB_SIPMessageConnection::viewHeader(std::string_view name) const {
  return message_ ? message_->header(name).value_or(std::string_view()) : std::string_view();
}

int SIPLIB_SIPMessageConnection::getHeader(std::string_view name, std::string& value) const {
  if (!message_) return -1;
  const auto found = message_->header(name);
  if (!found) return -1;
  value = *found;
  return 0;
}

int SIPLIB_SIPMessageConnection::getHeader(std::string_view name, char* buffer, std::size_t size) const {
  if (!message_ || buffer == nullptr) return -1;
  const auto found = message_->header(name);
  if (!found || found->size() >= size) return -1;
  std::copy(found->begin(), found->end(), buffer);
  buffer[found->size()] = '\0';
  return 0;
}

std::size_t SIPLIB_SIPMessageConnection::getHeaders(std::string_view name, std::vector<std::string>& values) const {
  values.clear();
  if (!message_) return 0;
  const auto found = message_->headers(name);
  values.assign(found.begin(), found.end());
  return values.size();
}

std::size_t SIPLIB_SIPMessageConnection::getHeaderCount(std::string_view name, std::size_t& longest) const {
  longest = 0;
  if (!message_) return 0;
  const auto found = message_->headers(name);
  for (const auto value : found) longest = std::max(longest, value.size());
  return found.size();
}

int SIPLIB_SIPMessageConnection::setHeader(std::string_view name, std::string_view value) {
  SIPLIB_message* message = writable();
  return message != nullptr && message->setHeader(name, value) ? 0 : -1;
}

int SIPLIB_SIPMessageConnection::addHeader(std::string_view name, std::string_view value) {
  SIPLIB_message* message = writable();
  return message != nullptr && message->addHeader(name, value) ? 0 : -1;
}

int SIPLIB_SIPMessageConnection::removeHeader(std::string_view name) {
  SIPLIB_message* message = writable();
  return message != nullptr && message->removeHeader(name) ? 0 : -1;
}

int SIPLIB_SIPMessageConnection::getContent(std::string& body) const {
  if (!message_ || !message_->valid()) return -1;
  body = message_->body();
  return 0;
}

int SIPLIB_SIPMessageConnection::setContent(std::string_view body) {
  SIPLIB_message* message = writable();
  return message != nullptr && message->setBody(body) ? 0 : -1;
}
