// Reading headers of a connection's message into fixed buffers, and sending it.
#pragma once

#include <cstddef>
#include <string_view>

class SIPLIB_SIPMessageConnection;

class IMS_Message {
 public:
  /// `connection` may be null.
  explicit IMS_Message(SIPLIB_SIPMessageConnection* connection) : connection_(connection) {}
  /// The topmost value with a terminating NUL; false, and an empty text, when it is absent or does not fit.
  bool get_header(std::string_view name, char* buffer, std::size_t size) const;
  /// Sends the connection's current message. 0 when taken.
  int send();

 private:
  SIPLIB_SIPMessageConnection* connection_;
};
