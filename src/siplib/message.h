// A SIP message that keeps its text.
//
// A proxy owes its peers every byte that it does not mean to change. So a message is one owned buffer with views
// into it: the start line, the header lines in their order, the body. A change replaces or inserts a line; sending
// gathers the untouched slices and the changed lines (`gather`), it never renders the message anew.
//
// What it is not: a validator of every header. It checks what framing and safety need (see `parseError`) and leaves
// the meaning of values to SIPLIB_SIPHeader and SIPLIB_SIPAddress.
//
// Reading by name follows JSR 180 (SIP API for Java ME): get, set and remove mean the topmost value of that name,
// add puts the new value on top of the others. Names are compared without regard to case; compact forms (RFC 3261
// 7.3.3) and full forms are one name. For headers whose grammar is a comma-separated list (RFC 3261 7.3.1) every
// element is a value of its own; for the others (Authorization, Date, ...) a line is one value.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// One message, request or response. Not thread-safe: used by one thread at a time, handed over through a queue.
/// Views returned by any reader stay valid until the next change of the message.
class SIPLIB_message {
 public:
  /// Parses `length` bytes at `text` (copied). Never fails to construct: see `valid`. `text` may be null when
  /// `length` is 0.
  SIPLIB_message(const char* text, std::size_t length);
  /// A new response "SIP/2.0 status reason" without headers.
  SIPLIB_message(int status, std::string_view reason);
  /// A new request "method uri SIP/2.0" without headers.
  SIPLIB_message(std::string_view method, std::string_view request_uri);
  ~SIPLIB_message();
  SIPLIB_message(const SIPLIB_message&) = delete;
  SIPLIB_message& operator=(const SIPLIB_message&) = delete;

  /// False when the text does not parse. Every reader of such a message answers "absent", every change is refused,
  /// and nothing can be sent of it.
  bool valid() const { return valid_; }
  /// Why it does not parse, for a log line; empty for a valid message. Static text.
  std::string_view parseError() const { return parse_error_; }

  bool isRequest() const { return valid_ && is_request_; }
  bool isResponse() const { return valid_ && !is_request_; }
  /// Empty for a response.
  std::string_view method() const { return method_; }
  /// Empty for a response.
  std::string_view requestUri() const { return request_uri_; }
  /// 100 to 699; 0 for a request.
  int statusCode() const { return status_; }
  /// Empty for a request; may be empty for a response.
  std::string_view reasonPhrase() const { return reason_; }

  /// The topmost value of the name, without surrounding white space, folds replaced by one blank each.
  std::optional<std::string_view> header(std::string_view name) const;
  /// How many values of the name there are.
  std::size_t headerCount(std::string_view name) const;
  /// Every value of the name, topmost first.
  std::vector<std::string_view> headers(std::string_view name) const;

  /// Replaces the topmost value, or adds the header when there is none. False when the message is not valid, the
  /// name is not a token, or the value holds CR, LF or NUL (one header can never smuggle in another).
  bool setHeader(std::string_view name, std::string_view value);
  /// Puts a new header line with the value above the others of its name; as the last line when there is none.
  /// Refusals as for setHeader.
  bool addHeader(std::string_view name, std::string_view value);
  /// Removes the topmost value. False when there is none.
  bool removeHeader(std::string_view name);
  /// Removes every value of the name and gives their number.
  std::size_t removeHeaders(std::string_view name);

  /// The body: exactly Content-Length bytes when the header was there, else the rest of the text. May hold any byte.
  std::string_view body() const { return body_; }
  /// Replaces the body; Content-Length follows.
  bool setBody(std::string_view body);

  /// Appends the slices that make up the message as it stands, in order, to `out`. They point into this message and
  /// are good until its next change or its end. A Content-Length line is among them always for a message made or
  /// given a body here; for a received one as it was received. Nothing is appended for an invalid message.
  void gather(std::vector<iovec>& out) const;
  /// The same in one text, for tests and for what is not on the fast path.
  std::string text() const;

 private:
  friend class SIPLIB_SIPMessageHandle;

  // The implementer of message.cpp owns this section; nothing outside reads it.
  struct Line;
  bool valid_ = false;
  bool is_request_ = false;
  int status_ = 0;
  std::uint32_t references_ = 0;
  std::string_view parse_error_;
  std::string_view method_;
  std::string_view request_uri_;
  std::string_view reason_;
  std::string_view body_;
};

/// Shared ownership of one message: after setSipMessageHandle two connections see the same message. The count is
/// not atomic, as the message itself is not thread-safe; hand both over together. May be empty.
class SIPLIB_SIPMessageHandle {
 public:
  SIPLIB_SIPMessageHandle() = default;
  /// Takes over a message made with `new`; null gives an empty handle.
  explicit SIPLIB_SIPMessageHandle(SIPLIB_message* message);
  SIPLIB_SIPMessageHandle(const SIPLIB_SIPMessageHandle& other);
  SIPLIB_SIPMessageHandle(SIPLIB_SIPMessageHandle&& other) noexcept
      : message_(std::exchange(other.message_, nullptr)) {}
  SIPLIB_SIPMessageHandle& operator=(SIPLIB_SIPMessageHandle other) noexcept {
    std::swap(message_, other.message_);
    return *this;
  }
  ~SIPLIB_SIPMessageHandle();

  SIPLIB_message* get() const { return message_; }
  SIPLIB_message* operator->() const { return message_; }
  SIPLIB_message& operator*() const { return *message_; }
  explicit operator bool() const { return message_ != nullptr; }

 private:
  SIPLIB_message* message_ = nullptr;
};
