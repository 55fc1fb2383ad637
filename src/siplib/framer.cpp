#include "siplib/framer.h"

#include <algorithm>
#include <cstring>

#include "siplib/head_reader.h"
#include "siplib/limits.h"

namespace siplib {

std::span<char> Framer::reserve() {
  const std::size_t held = end_ - begin_;
  // A message that has begun is moved to the front at most once, so moving costs no more than reading.
  if (held == 0) {
    scanned_ = end_ = begin_ = 0;
    if (size_ > kKeep) {
      buffer_.reset();
      size_ = 0;
    }
  } else if (size_ - end_ < kRead && begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, held);
    scanned_ -= begin_;
    end_ = held;
    begin_ = 0;
  }
  if (size_ - end_ < kRead) {
    const std::size_t needed = end_ + kRead;
    const std::size_t most = std::max(limits().max_message + kRead, needed);
    const std::size_t larger = std::clamp(2 * size_, std::max(kKeep, needed), std::max(most, kKeep));
    auto buffer = std::make_unique_for_overwrite<char[]>(larger);
    if (end_ > 0) std::memcpy(buffer.get(), buffer_.get(), end_);
    buffer_ = std::move(buffer);
    size_ = larger;
  }
  return {buffer_.get() + end_, size_ - end_};
}

void Framer::commit(std::size_t count) {
  end_ += std::min(count, size_ - end_);
}

// Static texts only, so they end in a NUL.
Framer::Frame Framer::fail(std::string_view why) {
  reason_ = why.data();
  buffer_.reset();
  size_ = begin_ = end_ = scanned_ = total_ = 0;
  return {.kind = Kind::Malformed, .reason = reason_};
}

Framer::Frame Framer::next() {
  if (reason_ != nullptr) return {.kind = Kind::Malformed, .reason = reason_};
  if (total_ == 0) {
    // Line ends before a start line: two are a question, one is an answer or the end of what came before (RFC 3261 7.5,
    // RFC 5626 4.4.1).
    constexpr std::string_view kPing = "\r\n\r\n";
    while (begin_ < end_ && buffer_[begin_] == '\r') {
      const std::string_view lines(buffer_.get() + begin_, std::min(end_ - begin_, kPing.size()));
      if (lines == kPing) {
        begin_ += kPing.size();
        return {.kind = Kind::KeepAlive};
      }
      if (kPing.starts_with(lines)) return {};
      if (!lines.starts_with("\r\n") || lines[2] == '\r') return fail("a bare CR between messages");
      begin_ += 2;
    }
    scanned_ = std::max(scanned_, begin_);
    std::string_view fault;
    const bool whole = findHeadEnd(fault);
    if (!fault.empty()) return fail(fault);
    if (!whole) return {};
  }
  if (end_ - begin_ < total_) return {};
  const Frame frame{.kind = Kind::Message, .text = buffer_.get() + begin_, .length = total_};
  begin_ += total_;
  scanned_ = begin_;
  total_ = 0;
  return frame;
}

// Looks on from where it last stopped; sets `total_` when the head is whole.
bool Framer::findHeadEnd(std::string_view& fault) {
  const std::string_view text(buffer_.get(), end_);
  std::string_view head;
  while (!head.ends_with("\r\n\r\n")) {
    const std::size_t line_end = text.find('\n', scanned_);
    scanned_ = line_end == std::string_view::npos ? end_ : line_end + 1;
    head = text.substr(begin_, scanned_ - begin_);
    if (head.size() > limits().max_head) {
      fault = "the head is larger than the limit";
    } else if (line_end != std::string_view::npos && !head.ends_with("\r\n")) {
      fault = "the head holds a bare CR or LF";
    }
    if (line_end == std::string_view::npos || !fault.empty()) return false;
  }
  HeadReader reader(head);
  reader.skipToEnd();
  fault = reader.framingFault();
  total_ = head.size() + reader.contentLength().value_or(0);
  if (fault.empty() && total_ > limits().max_message) fault = "the message is larger than the limit";
  return fault.empty();
}

}  // namespace siplib
