// Messages out of a byte stream.
//
//   four bytes that choose the cuts, then the stream
//
// Promises: however the stream is cut, the same messages, keep-alives and end come out; every message stands in the
// stream as it is, one behind the other with keep-alives alone between them; none ends elsewhere than the message
// itself would say; memory stays within one message and one read.

#include "siplib/framer.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "input.h"
#include "siplib/limits.h"
#include "siplib/message.h"

namespace {

using siplib::Framer;

struct Out {
  Framer::Kind kind;
  std::string text;

  bool operator==(const Out&) const = default;
};

/// `next_piece` says how many bytes the next read gives.
template <typename NextPiece>
std::vector<Out> run(std::string_view stream, NextPiece next_piece) {
  Framer framer;
  std::vector<Out> out;
  while (!stream.empty()) {
    const auto room = framer.reserve();
    PROMISE(room.size() >= Framer::kRead && room.size() <= siplib::limits().max_message + Framer::kRead);
    const std::size_t count = std::min({std::max<std::size_t>(next_piece(), 1), stream.size(), room.size()});
    std::memcpy(room.data(), stream.data(), count);
    framer.commit(count);
    stream.remove_prefix(count);
    for (auto frame = framer.next(); frame.kind != Framer::Kind::NeedMore; frame = framer.next()) {
      if (frame.kind == Framer::Kind::Malformed) {
        PROMISE(frame.reason != nullptr && framer.next().kind == Framer::Kind::Malformed);
        out.push_back({frame.kind, frame.reason});
        return out;
      }
      out.push_back({frame.kind, frame.kind == Framer::Kind::Message ? std::string(frame.text, frame.length) : ""});
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  std::uint32_t seed = 0;
  std::memcpy(&seed, data, sizeof seed);
  const std::string_view stream = fuzz::view(data + 4, size - 4);
  const std::vector<Out> whole = run(stream, [&] { return stream.size(); });
  std::minstd_rand random(seed);
  const std::uint32_t largest = 1 + seed % 97;
  PROMISE(run(stream, [&] { return 1 + random() % largest; }) == whole);
  if (size < 2000) PROMISE(run(stream, [] { return 1; }) == whole);

  std::size_t at = 0;
  for (const Out& out : whole) {
    if (out.kind == Framer::Kind::Malformed) break;
    if (out.kind == Framer::Kind::KeepAlive) {
      PROMISE(stream.substr(at).starts_with("\r\n\r\n"));
      at += 4;
      continue;
    }
    if (stream.substr(at).starts_with("\r\n")) at += 2;
    PROMISE(!out.text.empty() && out.text[0] != '\r' && stream.substr(at).starts_with(out.text));
    at += out.text.size();
    const SIPLIB_message message(out.text.data(), out.text.size());
    PROMISE(message.valid() ? message.text() == out.text
                            : message.parseError().find("Content-Length") == std::string_view::npos &&
                                  message.parseError() != "the head has no end");
  }
  return 0;
}
