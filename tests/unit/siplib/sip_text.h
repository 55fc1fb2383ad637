// Helpers of the tests of siplib's readers.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "siplib/message.h"

namespace sip_test {

/// A copy that ends where its heap block ends, so that reading one byte too far is caught.
class Exact {
 public:
  explicit Exact(std::string_view text) : size_(text.size()), bytes_(new char[text.size()]) {
    if (size_ > 0) std::memcpy(bytes_.get(), text.data(), size_);
  }
  const char* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }
  std::string_view view() const { return {bytes_.get(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> bytes_;
};

inline std::unique_ptr<SIPLIB_message> parse(std::string_view text) {
  const Exact exact(text);
  return std::make_unique<SIPLIB_message>(exact.data(), exact.size());
}

/// "first\r\nsecond\r\n" of "first\nsecond\n".
inline std::string crlf(std::string_view lines) {
  std::string text;
  for (const char c : lines) {
    if (c == '\n') text += '\r';
    text += c;
  }
  return text;
}

/// A request with these header lines ("A: b\nC: d\n") and body.
inline std::string request(std::string_view header_lines, std::string_view body = {}) {
  return crlf("OPTIONS sip:user@example.com SIP/2.0\n") + crlf(header_lines) + "\r\n" + std::string(body);
}

}  // namespace sip_test
