#include "siplib/framer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "siplib/limits.h"
#include "siplib/sip_text.h"
#include "support/cost.h"

namespace siplib {
namespace {

using sip_test::crlf;
using sip_test::request;

// What came out: messages as they are, "ping" for a keep-alive, "broken: why" at the end.
using Frames = std::vector<std::string>;

// Takes everything out.
void drain(Framer& framer, Frames& out) {
  while (true) {
    const Framer::Frame frame = framer.next();
    switch (frame.kind) {
      case Framer::Kind::NeedMore:
        return;
      case Framer::Kind::Message:
        out.emplace_back(frame.text, frame.length);
        break;
      case Framer::Kind::KeepAlive:
        out.emplace_back("ping");
        break;
      case Framer::Kind::Malformed:
        out.push_back(std::string("broken: ") + frame.reason);
        return;
    }
  }
}

// Reads `bytes` as from a socket that gives at most `piece` at a time.
void feed(Framer& framer, std::string_view bytes, std::size_t piece, Frames& out) {
  while (!bytes.empty() && (out.empty() || !out.back().starts_with("broken"))) {
    const auto room = framer.reserve();
    ASSERT_GE(room.size(), Framer::kRead);
    const std::size_t count = std::min({piece, bytes.size(), room.size()});
    std::memcpy(room.data(), bytes.data(), count);
    framer.commit(count);
    bytes.remove_prefix(count);
    drain(framer, out);
  }
}

Frames frames(std::string_view bytes, std::size_t piece = std::string::npos) {
  Framer framer;
  Frames out;
  feed(framer, bytes, piece, out);
  return out;
}

const std::string kOne = request("To: a\nl : 4\n", "\r\n\r\n");
const std::string kTwo = request("To: b\nContent-Length:\n 0\n");
const std::string kThree = crlf("SIP/2.0 200 OK\nCONTENT-LENGTH: 003\nX: y\n\nabc");

class FramerTest : public ::testing::Test {
 protected:
  ~FramerTest() override { setLimits(before_); }
  Limits before_ = limits();
};

TEST_F(FramerTest, MessagesComeOutWholeHoweverTheyAreCut) {
  const std::string stream = kOne + kTwo + "\r\n" + kThree + "\r\n\r\n" + kTwo + kOne;
  const Frames expected = {kOne, kTwo, kThree, "ping", kTwo, kOne};
  EXPECT_EQ(frames(stream), expected);
  for (std::size_t piece = 1; piece < 40; ++piece) EXPECT_EQ(frames(stream, piece), expected) << piece;
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  for (int run = 0; run < 50; ++run) {
    Framer framer;
    Frames out;
    for (std::string_view rest = stream; !rest.empty();) {
      const std::size_t count = std::min<std::size_t>(1 + random() % 90, rest.size());
      feed(framer, rest.substr(0, count), 1 + random() % 20, out);
      rest.remove_prefix(count);
    }
    ASSERT_EQ(out, expected) << "seed " << seed;
  }
}

TEST_F(FramerTest, APartOfAMessageWaits) {
  for (std::size_t size = 0; size < kThree.size(); ++size) {
    EXPECT_EQ(frames(std::string_view(kThree).substr(0, size)), Frames{}) << size;
  }
}

TEST_F(FramerTest, KeepAlives) {
  EXPECT_EQ(frames("\r\n"), Frames{});
  EXPECT_EQ(frames("\r\n\r\n"), Frames{"ping"});
  EXPECT_EQ(frames("\r\n\r\n", 1), Frames{"ping"});
  EXPECT_EQ(frames("\r\n\r\n\r\n\r\n\r\n"), (Frames{"ping", "ping"}));
  EXPECT_EQ(frames("\r\n" + kTwo), Frames{kTwo});
  EXPECT_EQ(frames("\r\n\r\n\r\n" + kTwo, 1), (Frames{"ping", kTwo}));
}

TEST_F(FramerTest, WithoutContentLengthThereIsNoBody) {
  const std::string bare = request("To: a\n");
  EXPECT_EQ(frames(bare + kTwo), (Frames{bare, kTwo}));
}

TEST_F(FramerTest, WhatDoesNotParseButEndsClearlyPasses) {
  for (const std::string& odd :
       {crlf("nonsense\nContent-Length: 2\n\nxy"), crlf("SIP/2.0 999 Bad\n\n"), crlf("a\n\n"),
        request("no colon\n: no name\nT o: x\nl: 2\n", "xy"), request("To: " + std::string(1, '\0') + "\n")}) {
    EXPECT_EQ(frames(odd + kTwo), (Frames{odd, kTwo}));
    EXPECT_FALSE(sip_test::parse(odd)->valid());
  }
}

TEST_F(FramerTest, BreaksWhereTheEndIsUncertain) {
  const auto why = [](std::string_view text) {
    const Frames out = frames(text, 1);
    return out.empty() ? std::string("nothing") : out.back();
  };
  EXPECT_EQ(why(request("l: 3\nContent-Length: 4\n", "abcdef")), "broken: two Content-Length values differ");
  for (const char* line : {"l: -1\n", "l:\n", "l: 1x\n", "l: 1, 1\n", "l: 1 1\n", "l: 18446744073709551616\n",
                           "l: 4294967296\n", "l: 65537\n"}) {
    EXPECT_EQ(why(request(line, "abcdef")), "broken: Content-Length is not a number of allowed size") << line;
  }
  EXPECT_EQ(why("OPTIONS sip:a SIP/2.0\nTo: x\n\n"), "broken: the head holds a bare CR or LF");
  EXPECT_EQ(why("OPTIONS sip:a SIP/2.0\r\nTo: x\rl: 5\r\n\r\n"), "broken: the head holds a bare CR or LF");
  EXPECT_EQ(why("OPTIONS sip:a SIP/2.0\r\n l: 5\r\n\r\n"), "broken: the start line is folded");
  EXPECT_EQ(why("\nOPTIONS"), "broken: the head holds a bare CR or LF");
  EXPECT_EQ(why("\rOPTIONS"), "broken: a bare CR between messages");
  EXPECT_EQ(why("\r\n\rOPTIONS"), "broken: a bare CR between messages");
}

TEST_F(FramerTest, EqualContentLengthsAgree) {
  const std::string twice = request("l: 2\nContent-Length: 02\n", "xy");
  EXPECT_EQ(frames(twice + kTwo), (Frames{twice, kTwo}));
}

TEST_F(FramerTest, StaysBroken) {
  Framer framer;
  Frames out;
  feed(framer, "a\n", 10, out);
  out.clear();
  const auto room = framer.reserve();
  std::memcpy(room.data(), kTwo.data(), kTwo.size());
  framer.commit(kTwo.size());
  EXPECT_EQ(framer.next().kind, Framer::Kind::Malformed);
  EXPECT_EQ(framer.next().kind, Framer::Kind::Malformed);
  EXPECT_STREQ(framer.next().reason, "the head holds a bare CR or LF");
}

TEST_F(FramerTest, KeepsToTheLimits) {
  setLimits({.max_message = 200, .max_head = 100});
  const auto sized = [](std::size_t head, std::size_t body) {
    std::string text = request("To: \nl: " + std::to_string(body) + "\n", std::string(body, 'b'));
    text.insert(text.find("\r\nl:"), head - (text.size() - body), 'x');
    return text;
  };
  EXPECT_EQ(frames(sized(100, 100)), Frames{sized(100, 100)});
  EXPECT_EQ(frames(sized(101, 0)), Frames{"broken: the head is larger than the limit"});
  EXPECT_EQ(frames(sized(101, 0), 1), Frames{"broken: the head is larger than the limit"});
  EXPECT_EQ(frames(std::string(101, 'x')), Frames{"broken: the head is larger than the limit"});
  EXPECT_EQ(frames(std::string(100, 'x')), Frames{});
  EXPECT_EQ(frames(sized(100, 101)), Frames{"broken: the message is larger than the limit"});
}

TEST_F(FramerTest, AgreesWithTheMessageOnWhereItEnds) {
  const char* const lines[] = {"l: 3\n",
                               "Content-Length : 3\n",
                               "X: y\n Content-Length: 9\n",
                               "Content-Length:\n\t3 \n",
                               "content-length:00000000000000000000003\nl:3\n",
                               "X-Content-Length: 9\nL:3\n",
                               "To: x\\\n l: 9\nl: 3\n",
                               "To: \"\n l: 9\"\nl:3\n",
                               "K: l: 9\nl:3\n"};
  for (const char* head : lines) {
    const std::string stream = request(head, "abcdef");
    const Frames out = frames(stream);
    ASSERT_FALSE(out.empty()) << head;
    const auto message = sip_test::parse(out[0]);
    EXPECT_TRUE(message->valid()) << head << message->parseError();
    EXPECT_EQ(message->text(), out[0]) << head;
    EXPECT_EQ(message->body(), sip_test::parse(stream)->body().substr(0, message->body().size()));
  }
}

TEST_F(FramerTest, ShrinksAfterALargeMessage) {
  Framer framer;
  Frames out;
  const std::string large = request("l: 60000\n", std::string(60000, 'b'));
  feed(framer, large + kTwo, 70000, out);
  EXPECT_EQ(out.size(), 2u);
  EXPECT_EQ(framer.reserve().size(), Framer::kKeep);
}

TEST_F(FramerTest, RoomIsBoundedByTheLargestMessage) {
  Framer framer;
  Frames out;
  const std::string large = request("l: 65000\n", std::string(65000, 'b'));
  std::size_t most = 0;
  for (std::size_t fed = 0; fed < large.size();) {
    const auto room = framer.reserve();
    most = std::max(most, room.size());
    const std::size_t count = std::min({room.size(), large.size() - fed, std::size_t{1000}});
    std::memcpy(room.data(), large.data() + fed, count);
    framer.commit(count);
    fed += count;
    drain(framer, out);
  }
  EXPECT_EQ(out.size(), 1u);
  EXPECT_LE(most, limits().max_message + Framer::kRead);
}

TEST_F(FramerTest, SingleBytesCostNoMoreThanTheirNumber) {
  constexpr double most = 0.1;
  // A reader that looked from the beginning each time would need 30,000 * 15,000 steps here.
  std::string lines;
  while (lines.size() < 15000) lines += "X: yyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy\n";
  const std::string text = request(lines + "l: 15000\n", std::string(15000, 'b'));
  EXPECT_LT(leastTime([&] { EXPECT_EQ(frames(text, 1).size(), 1u); }, most), most);
  std::string small;
  while (small.size() < 60000) small += crlf("a\n\n");
  EXPECT_LT(leastTime([&] { EXPECT_EQ(frames(small).size(), small.size() / 5); }, most), most);
}

}  // namespace
}  // namespace siplib
