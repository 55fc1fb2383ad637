#include "framework/ims_message.h"

#include "siplib/connection.h"

bool IMS_Message::get_header(std::string_view name, char* buffer, std::size_t size) const {
  if (buffer == nullptr || size == 0) return false;
  buffer[0] = '\0';
  if (connection_ != nullptr && connection_->getHeader(name, buffer, size) == 0) return true;
  buffer[0] = '\0';
  return false;
}

int IMS_Message::send() {
  return connection_ == nullptr ? -1 : connection_->send();
}
