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

#include "siplib/recycled.h"

/// One message, request or response. Not thread-safe: used by one thread at a time, handed over through a queue.
/// Views returned by any reader stay valid until the next change of the message.
///
/// What does not parse, each because two readers could see two different messages in it or because it could cost too
/// much: a line end other than CRLF, a bare CR or LF or a NUL in the head; no blank line after the head; a start line
/// that is not exactly "method SP uri SP SIP/2.0" or "SIP/2.0 SP status [SP reason]" with a status of 100 to 699; a
/// header line without colon or whose name is not a token; Content-Length values that differ, are no numbers, or exceed
/// the text; sizes above siplib::limits(). CRLFs before the start line are skipped (RFC 3261 7.5), text behind the body
/// is dropped (RFC 3261 18.3), blanks before a colon are allowed (RFC 3261 25.1). Nothing is asked of the values: a
/// message without From, or with a nonsensical one, parses.
class SIPLIB_message final : public siplib::Recycled<SIPLIB_message> {
 public:
  /// Parses `length` bytes at `text` (copied). Never fails to construct: see `valid`. `text` may be null when
  /// `length` is 0.
  SIPLIB_message(const char* text, std::size_t length);
  /// A new response "SIP/2.0 status reason" without headers but Content-Length. Not valid when the status is not 100 to
  /// 699 or the reason holds CR, LF or NUL.
  SIPLIB_message(int status, std::string_view reason);
  /// A new request "method uri SIP/2.0" without headers but Content-Length. Not valid when the method is not a token or
  /// the URI is empty or holds a blank or control character.
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
  /// How many values of the name there are. A list header without any element ("Supported:") has one, empty.
  std::size_t headerCount(std::string_view name) const;
  /// Every value of the name, topmost first.
  std::vector<std::string_view> headers(std::string_view name) const;
  /// How many lines of the name hold the text, lists and all; every one when the text is empty. Allocates nothing.
  std::size_t headerLines(std::string_view name, std::string_view text = {}) const;
  /// True when the text stands anywhere in the start line or the header lines: one search, before a closer look.
  bool headHolds(std::string_view text) const;

  /// True for a message that came in anywhere but on the local endpoint. It never goes the stack's way to itself. A
  /// message made here, or received from a user agent, is not.
  bool fromNetwork() const { return from_network_; }
  /// The transport says so, once, as it comes in.
  void setFromNetwork() { from_network_ = true; }

  /// Replaces the topmost value, or adds the header when there is none. Every other byte of the line stays: the form of
  /// the name, the rest of a list. False when the message is not valid, the name is not a token, or the value holds CR,
  /// LF or NUL (one header can never smuggle in another). Content-Length belongs to the body: this and the next two
  /// refuse to make it anything but the body's length.
  bool setHeader(std::string_view name, std::string_view value);
  /// Puts a new header line with the value above the others of its name; as the last line when there is none (in a new
  /// message above its Content-Length). Refusals as for setHeader.
  bool addHeader(std::string_view name, std::string_view value);
  /// Puts a new header line below all others (in a new message above its Content-Length), also those of its name: for
  /// many values that are copied in their order, at the same cost each. Refusals as for setHeader.
  bool appendHeader(std::string_view name, std::string_view value);
  /// Copies every header line of the name from `other` below all others (in a new message above its Content-Length), as
  /// it stands there: the form of the name, folds, a list in one line. So an answer's Vias take no more room than the
  /// request's. False when either message is not valid, for Content-Length, and when `other` has no such line.
  bool appendLines(std::string_view name, const SIPLIB_message& other);
  /// Removes the topmost value. False when there is none.
  bool removeHeader(std::string_view name);
  /// Removes every value of the name and gives their number.
  std::size_t removeHeaders(std::string_view name);

  /// The body: exactly Content-Length bytes when the header was there, else the rest of the text. May hold any byte.
  std::string_view body() const { return body_; }
  /// Replaces the body; Content-Length follows. False when the message is not valid.
  bool setBody(std::string_view body);
  /// Adds a Content-Length line, as the last, where there is none: what leaves on a stream has to say where it ends
  /// (RFC 3261 18.3). Costs nothing where there is one.
  void completeLength() {
    if (!has_length_ && valid_) addLength();
  }

  /// Appends the slices that make up the message as it stands, in order, to `out`. They point into this message and
  /// are good until its next change or its end. A Content-Length line is among them always for a message made or
  /// given a body here; for a received one as it was received. Nothing is appended for an invalid message. Adjacent
  /// untouched lines are one slice, so a forwarded message is a handful of them.
  void gather(std::vector<iovec>& out) const;
  /// The same in one text, for tests and for what is not on the fast path.
  std::string text() const;

 private:
  friend class SIPLIB_SIPMessageHandle;

  // The lines' records, the received text and what changes add stand in the message's own room, or in chunks that live
  // as long as it does. Nothing is given back before the end; what a change replaces is simply left behind.
  struct Line;
  struct Chunk;
  /// Enough for a message of up to about 2 KiB and what forwarding does to it; makes the whole a page.
  static constexpr std::size_t kOwnRoom = 3904;

  /// The constructors begin with this one, so that what throws half-way (no memory) leaves nothing behind.
  /// Not defaulted: that would fill the room with zeros first.
  SIPLIB_message() {}
  char* room(std::size_t size);
  void takeRoom(std::size_t size);
  void takeChunk(std::size_t size);
  void dropChunks();
  std::string_view parse(std::string_view text);
  std::string_view parseStartLine(std::string_view line);
  void start(std::string_view line);
  Line* find(std::string_view name, std::uint8_t id) const;
  bool refusesChange(std::string_view name, std::string_view value, std::uint8_t id) const;
  std::size_t lastPlace() const;
  void insert(std::size_t index, std::string_view name, std::string_view value, std::uint8_t id);
  void insertLine(std::size_t index, char* text, std::size_t size, std::size_t name_size, std::uint8_t id);
  void addLength();
  void erase(Line* line);
  void rewrite(Line& line, std::size_t begin, std::size_t end, std::string_view value);
  void place(Line& line);
  void takeValue(Line& line, std::string_view value, bool folded);

  bool valid_ = false;
  bool is_request_ = false;
  bool made_here_ = false;
  bool from_network_ = false;
  bool has_length_ = false;  // a Content-Length line is among the lines
  int status_ = 0;
  std::uint32_t references_ = 0;
  std::uint32_t line_count_ = 0;
  std::uint32_t line_room_ = 0;
  Line* lines_ = nullptr;
  Chunk* chunks_ = nullptr;
  char* free_ = nullptr;
  char* free_end_ = nullptr;
  std::string_view parse_error_;
  std::string_view start_line_;  // with its CRLF
  std::string_view method_;
  std::string_view request_uri_;
  std::string_view reason_;
  std::string_view body_;  // always right behind the blank line
  alignas(std::max_align_t) char own_room_[kOwnRoom];
};

/// Shared ownership of one message: after setSipMessageHandle two connections see the same message. The count is
/// not atomic, as the message itself is not thread-safe; hand both over together. May be empty.
class SIPLIB_SIPMessageHandle {
 public:
  SIPLIB_SIPMessageHandle() = default;
  /// Takes over a message made with `new`; null gives an empty handle.
  explicit SIPLIB_SIPMessageHandle(SIPLIB_message* message) : message_(message) { hold(); }
  SIPLIB_SIPMessageHandle(const SIPLIB_SIPMessageHandle& other) : message_(other.message_) { hold(); }
  SIPLIB_SIPMessageHandle(SIPLIB_SIPMessageHandle&& other) noexcept
      : message_(std::exchange(other.message_, nullptr)) {}
  SIPLIB_SIPMessageHandle& operator=(SIPLIB_SIPMessageHandle other) noexcept {
    std::swap(message_, other.message_);
    return *this;
  }
  ~SIPLIB_SIPMessageHandle() {
    if (message_ != nullptr && --message_->references_ == 0) delete message_;
  }

  SIPLIB_message* get() const { return message_; }
  SIPLIB_message* operator->() const { return message_; }
  SIPLIB_message& operator*() const { return *message_; }
  explicit operator bool() const { return message_ != nullptr; }

 private:
  void hold() {
    if (message_ != nullptr) ++message_->references_;
  }
  SIPLIB_message* message_ = nullptr;
};
