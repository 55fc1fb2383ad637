// What one message may cost. Every limit protects the process from a peer; each says what happens above it.
#pragma once

#include <cstddef>

namespace siplib {

/// Sizes in bytes, counts in pieces. Set once before the first message is read (SIPLIB_SIPInit does it),
/// read by any thread afterwards.
struct Limits {
  /// Largest message, head and body. UDP cannot carry more; above it a stream is closed, a datagram dropped.
  std::size_t max_message = std::size_t{64} * 1024;
  /// Largest head (start line and headers). Above it the message does not parse.
  std::size_t max_head = std::size_t{16} * 1024;
  /// Most header lines. libosip2 reads 256 lines in under 0.4 ms, and its time grows with the square.
  std::size_t max_header_lines = 256;
  /// Most parameters in one header value. Above it the header object is not made.
  std::size_t max_parameters = 64;
};

/// The limits in force in this process.
const Limits& limits();
void setLimits(const Limits& limits);

}  // namespace siplib
