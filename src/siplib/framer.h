// Messages out of a byte stream (RFC 3261 18.3): a message ends where its Content-Length says. SIPLIB_message reads
// every piece that comes out of here with the same eyes (HeadReader), so both see the same end.
//
//   const auto room = framer.reserve();
//   framer.commit(recv(socket, room.data(), room.size(), 0));
//   for (auto frame = framer.next(); frame.kind != Framer::Kind::NeedMore; frame = framer.next()) ...
//
// What breaks a stream is only what makes the end of a message uncertain: Content-Length values that differ or are no
// numbers of allowed size, a bare CR or LF in a head (others may see other lines there), a head or message above the
// limits. Everything else, a start line or header that makes no sense, comes out as a message, does not parse as one,
// and the stream goes on: one caller's nonsense that a network proxy relays does not cost the others their connection.
//
// A message without Content-Length has no body: RFC 3261 18.3 requires the header on a stream, and a peer that leaves
// it out nevertheless means that. To wait for the end of the stream, as for a body of unknown length, would take what
// follows for a body; to refuse the message would cost its sender the connection for a head that is whole.
//
// Time is linear in the bytes, however small the pieces they come in. Memory is what one message needs, at most
// max_message + kRead, and goes back to kKeep after a large one.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace siplib {

/// Not thread-safe: one stream, one thread.
class Framer {
 public:
  enum class Kind {
    NeedMore,   ///< Nothing whole is left: read more.
    Message,    ///< `text` is one message, head and body.
    KeepAlive,  ///< A double CRLF between messages, to be answered with a single one (RFC 5626 4.4.1).
    Malformed,  ///< The stream cannot be framed, `reason` says why. For ever: close it.
  };
  struct Frame {
    Kind kind = Kind::NeedMore;
    char* text = nullptr;  ///< In the framer's buffer, not NUL-terminated; good until the next call of any operation.
    std::size_t length = 0;
    const char* reason = nullptr;  ///< Static text for a log line.
  };

  /// Bytes kept between messages, and the least that `reserve` offers.
  static constexpr std::size_t kKeep = 4096;
  static constexpr std::size_t kRead = 2048;

  /// Where to read into: at least kRead bytes. Take all frames out first: what was read and is not taken out stays, and
  /// the room grows.
  std::span<char> reserve();
  /// `count` bytes stand at the beginning of what `reserve` gave.
  void commit(std::size_t count);
  /// What comes next. One read may hold several messages: call it until NeedMore or Malformed.
  Frame next();
  /// After NeedMore: a message has begun (line ends between messages begin none); and its head is whole.
  bool begun() const { return begin_ < end_ && buffer_[begin_] != '\r'; }
  bool hasHead() const { return total_ != 0; }

 private:
  Frame fail(std::string_view why);
  bool findHeadEnd(std::string_view& fault);

  std::unique_ptr<char[]> buffer_;
  std::size_t size_ = 0;
  std::size_t begin_ = 0;    // of the message that is being read
  std::size_t end_ = 0;      // of what was read
  std::size_t scanned_ = 0;  // up to here no head ends
  std::size_t total_ = 0;    // of the message, once its head is whole; 0 before
  const char* reason_ = nullptr;
};

}  // namespace siplib
