// The head of a message read line by line, and the one place where its Content-Length is understood: SIPLIB_message and
// Framer both read through it, so a stream is never cut where a message sees no end.
//
// Line ends are CRLF and nothing else (RFC 3261 7). A bare CR or LF is a line end to some readers and text to others,
// so a head that holds one is refused whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "siplib/header_table.h"

namespace siplib {

/// One header line with its continuations.
struct HeadLine {
  std::string_view text;   ///< All of it, with the closing CRLF.
  std::string_view name;   ///< A token.
  std::string_view value;  ///< Between the colon and the closing CRLF, with folds and surrounding white space.
  HeaderId id = kUnknownHeader;
  bool folded = false;
};

class HeadReader {
 public:
  /// `head` is everything from the start line to the blank line that ends the head, both included. Only the view is
  /// kept.
  explicit HeadReader(std::string_view head);

  /// Without its CRLF.
  std::string_view startLine() const { return start_line_; }

  /// The next header line. False at the end, and where reading cannot go on (see framingFault). Lines that are no
  /// header lines are passed over and noted in `fault`.
  bool next(HeadLine& line);
  /// All of them, looking for Content-Length only: for a framer, to whom the names mean nothing. `fault` then tells
  /// framing faults alone.
  void skipToEnd();

  /// After the last line: the value that every Content-Length line had; nothing when there was none.
  std::optional<std::size_t> contentLength() const { return content_length_; }

  /// What is wrong with the head, the first thing found; empty when nothing is. Static text.
  std::string_view fault() const { return fault_; }
  /// What makes the message's length uncertain; empty when nothing does. Static text.
  std::string_view framingFault() const { return framing_fault_; }

 private:
  // One line as it stands, with its CRLF; empty at the end.
  std::string_view physicalLine();
  // The same with its continuations.
  bool logicalLine(HeadLine& line);
  // The name and the colon behind it; 0 when there is no such colon.
  static std::size_t colonOf(std::string_view line, std::string_view& name);
  void takeContentLength(std::string_view value);
  void fail(std::string_view why) {
    if (fault_.empty()) fault_ = why;
  }
  void failFraming(std::string_view why);

  std::string_view rest_;
  std::string_view start_line_;
  std::string_view fault_;
  std::string_view framing_fault_;
  std::optional<std::size_t> content_length_;
};

}  // namespace siplib
