// What forwarding does to a message, over many generated ones: every byte that is not meant to change stays, and no
// input costs more than it should.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "siplib/address.h"
#include "siplib/header.h"
#include "siplib/limits.h"
#include "siplib/message.h"
#include "siplib/sip_text.h"
#include "support/cost.h"

namespace {

using sip_test::parse;

// A line in the pieces that a change tells apart.
struct Line {
  std::string name;
  std::string colon;  // with the blanks around it
  std::string first;  // the value, of a list its first element
  std::string rest;   // up to the line's CRLF
  std::string text() const { return name + colon + first + rest + "\r\n"; }
};

std::string textOf(const std::string& start_line, const std::vector<Line>& lines, const std::string& body) {
  std::string text = start_line;
  for (const Line& line : lines) text += line.text();
  return text + "\r\n" + body;
}

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  std::string startLine() {
    return pick({"INVITE sip:bob@example.com;mok=1 SIP/2.0\r\n", "SIP/2.0 180 Ringing\r\n", "SIP/2.0 200 \r\n",
                 "MESSAGE tel:+1-201;x=y SIP/2.0\r\n"});
  }

  // One Via line above one Contact line, others between and around them.
  std::vector<Line> lines(std::size_t body_size) {
    std::vector<Line> all;
    others(all, 5);
    all.push_back(list(pick({"Via", "v", "VIA"}), "SIP/2.0/TCP 127.0.0.1:" + std::to_string(below(65536))));
    others(all, 25);
    all.push_back(list(pick({"Contact", "m", "contact"}), "\"a, \\\"b\" <sip:u@127.0.0.1;x=y>;q=0.5"));
    others(all, 10);
    if (below(2) == 0) all.push_back({pick({"Content-Length", "l", "L"}), colon(), std::to_string(body_size), blank()});
    return all;
  }

  std::string body() {
    std::string text(below(300), '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random_()); });
    return text;
  }

 private:
  std::string pick(std::initializer_list<const char*> from) {
    return from.begin()[below(static_cast<unsigned>(from.size()))];
  }
  std::string blank() { return pick({"", " ", " ", " ", "\t", "  ", "\r\n ", " \r\n\t "}); }
  std::string colon() { return pick({":", ":", " :", "\t :"}) + blank(); }

  Line list(std::string name, std::string first) {
    Line line{std::move(name), colon(), std::move(first), ""};
    for (unsigned more = below(3); more > 0; --more) {
      line.rest += blank() + "," + blank() + pick({"<sip:a,b>;x=\",\"", "SIP/2.0/UDP h;branch=1", "<sip:x@y>"});
    }
    line.rest += blank();
    return line;
  }

  void others(std::vector<Line>& all, unsigned most) {
    for (unsigned more = below(most); more > 0; --more) {
      switch (below(4)) {
        case 0:
          all.push_back(
              {pick({"Subject", "s", "X-Odd"}), colon(), pick({"", "a, b", "\"open", "\xc3\xa9", "; ,"}), blank()});
          break;
        case 1:
          all.push_back({pick({"Authorization", "Date"}), colon(), "Digest realm=\"a, b\", nonce=\"c\"", blank()});
          break;
        case 2:
          all.push_back({pick({"From", "t"}), colon(), "\"x\" <sip:a@b>;tag=1", blank()});
          break;
        default:
          all.push_back(list(pick({"Supported", "k", "Record-Route", "Allow"}), pick({"100rel", "<sip:r;lr>"})));
      }
    }
  }

  std::mt19937 random_;
};

TEST(Forwarding, ChangesNothingButTheLinesItMeans) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator make(seed);
  for (int run = 0; run < 500; ++run) {
    const std::string start_line = make.startLine();
    const std::string body = make.body();
    std::vector<Line> lines = make.lines(body.size());
    const auto message = parse(textOf(start_line, lines, body));
    ASSERT_TRUE(message->valid()) << message->parseError() << "\n" << textOf(start_line, lines, body);
    ASSERT_EQ(message->text(), textOf(start_line, lines, body));

    const auto line = [&](std::initializer_list<const char*> names) {
      return std::find_if(lines.begin(), lines.end(), [&](const Line& one) {
        return std::find(names.begin(), names.end(), one.name) != names.end();
      });
    };
    ASSERT_EQ(message->header("Via"), line({"Via", "v", "VIA"})->first);
    ASSERT_TRUE(message->setHeader("Via", "SIP/2.0/TCP 192.0.2.1:5060;mok=7;st=abc"));
    line({"Via", "v", "VIA"})->first = "SIP/2.0/TCP 192.0.2.1:5060;mok=7;st=abc";
    ASSERT_TRUE(message->setHeader("Contact", "<sip:192.0.2.1;mok=7>"));
    line({"Contact", "m", "contact"})->first = "<sip:192.0.2.1;mok=7>";
    ASSERT_TRUE(message->addHeader("Record-Route", "<sip:127.0.0.1:5060>"));
    lines.insert(line({"Record-Route"}), {"Record-Route", ": ", "<sip:127.0.0.1:5060>", ""});
    ASSERT_TRUE(message->addHeader("User-agent", "ue"));
    lines.push_back({"User-agent", ": ", "ue", ""});
    ASSERT_EQ(message->text(), textOf(start_line, lines, body)) << "run " << run;

    message->removeHeaders("Authorization");
    std::erase_if(lines, [](const Line& one) { return one.name == "Authorization"; });
    ASSERT_EQ(message->text(), textOf(start_line, lines, body)) << "run " << run;

    // What was sent reads as it was meant.
    const auto received = parse(message->text());
    ASSERT_TRUE(received->valid());
    for (const char* name : {"Via", "Contact", "Record-Route", "Supported", "Allow", "Subject", "Date", "From"}) {
      ASSERT_EQ(received->headers(name), message->headers(name)) << name;
    }
  }
}

TEST(Forwarding, TakingAListApartLeavesWhatFollows) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Generator make(seed);
  for (int run = 0; run < 300; ++run) {
    const auto message = parse(textOf(make.startLine(), make.lines(0), ""));
    ASSERT_TRUE(message->valid()) << message->parseError();
    for (const char* name : {"Via", "Record-Route", "Supported", "Subject"}) {
      std::vector<std::string> values;
      for (const auto value : message->headers(name)) values.emplace_back(value);
      while (!values.empty()) {
        ASSERT_EQ(message->header(name), values.front());
        ASSERT_TRUE(message->removeHeader(name));
        values.erase(values.begin());
        std::vector<std::string> left;
        for (const auto value : message->headers(name)) left.emplace_back(value);
        ASSERT_EQ(left, values);
        ASSERT_EQ(parse(message->text())->headers(name), message->headers(name));
      }
      ASSERT_FALSE(message->removeHeader(name));
    }
  }
}

TEST(Forwarding, NoBytesAtAllDoHarm) {
  // Anything goes in, valid pieces among it; reading and changing stay within the memory (sanitizers watch).
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Generator make(seed);
  std::size_t valid = 0;
  for (int run = 0; run < 3000; ++run) {
    std::string text = textOf(make.startLine(), make.lines(3), "xyz");
    for (unsigned flips = make.below(6); flips > 0; --flips) {
      const std::size_t at = random() % text.size();
      if (make.below(3) == 0) {
        text.erase(at, make.below(10));
      } else {
        text[at] = "\r\n\0 :,;\"<>[]@=\\/a0\xff"[make.below(20)];
      }
      if (text.empty()) text = "x";
    }
    const auto message = parse(text);
    if (message->valid()) ++valid;
    for (const char* name : {"Via", "Contact", "From", "To", "Authorization", "Supported"}) {
      const std::string value(message->header(name).value_or(""));
      const sip_test::Exact exact(value);
      const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, exact.view()));
      if (header) {
        header->setParameter("host", "h");
        header->setParameter("port", "5");
        header->setParameter("branch", "b");
        header->removeParameter("x");
        header->removeParameter("realm");
        std::string read;
        EXPECT_TRUE(header->getHeaderValue(read));
        EXPECT_EQ(header->getParameter("branch", read), 0);
        EXPECT_EQ(read, "b");
      }
      const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject(name, exact.view()));
      if (address) {
        address->getDisplayName();
        address->removeParameter("x");
        address->removeParameter("port");
        if (address->setHost("h") && address->setPort(1) && address->setUser("")) {
          EXPECT_EQ(address->getURI(), std::string(address->getScheme()) + ":h:1");
        }
        const std::unique_ptr<SIPLIB_SIPAddress> again(
            SIPLIB_SIPAddress::createSIPAddressObject(name, address->toString()));
        ASSERT_TRUE(again) << address->toString();
        EXPECT_EQ(again->getURI(), address->getURI());
      }
      message->addHeader(name, "added");
      message->removeHeader(name);
      EXPECT_EQ(message->setHeader(name, value), message->valid());
    }
    message->setBody("body");
    EXPECT_EQ(parse(message->text())->valid(), message->valid());
  }
  EXPECT_GT(valid, 100u) << "most of the texts should not be refused at once";
}

// An optimised build stays under 5 ms with each of these; sanitizers and busy machines get ten times that, quadratic
// work would need far more.
constexpr double kMost = 0.05;

std::string repeat(std::string_view piece, std::size_t size) {
  std::string text;
  while (text.size() + piece.size() <= size) text += piece;
  return text;
}

TEST(Cost, NoMessageIsDear) {
  const std::size_t most = siplib::limits().max_head - 200;
  std::vector<std::string> dear;
  for (const char* piece :
       {",", "a,", "\",\",", "<,>,", "\"", "<", "\\", ";", " ", "\t,", "(", "a;b=\"c\",", "[", ":"}) {
    dear.push_back(sip_test::request("Via: " + repeat(piece, most) + "\n"));
  }
  const std::size_t lines = siplib::limits().max_header_lines - 2;
  for (const char* piece : {"a:\n", "Via: a\n", "v:,a\n", "Via: a,\n b\n", "Authorization: a\n", "X-Unknown: b\n"}) {
    dear.push_back(sip_test::request(repeat(piece, std::min(most, lines / 2 * std::string_view(piece).size()))));
  }
  dear.push_back(sip_test::request("Via: a" + repeat(",\n b", lines * 4) + "\n"));
  dear.push_back(sip_test::request("Via: a" + repeat("\n ", lines * 2) + repeat(",b", most - 1000) + "\n"));
  dear.push_back(std::string(65536, '\r'));
  dear.push_back(repeat("\r\n", 65536));
  dear.push_back(sip_test::request("", std::string(65000, 'x')));
  for (const std::string& text : dear) {
    EXPECT_LT(leastTime(
                  [&] {
                    const auto message = parse(text);
                    for (const char* name : {"Via", "X-Unknown", "Authorization"}) {
                      message->headers(name);
                      message->addHeader(name, "b");
                      message->setHeader(name, "c");
                      while (message->removeHeader(name)) {
                      }
                    }
                    message->text();
                  },
                  kMost),
              kMost)
        << text.substr(0, 80);
  }
}

TEST(Cost, NoHeaderOrAddressIsDear) {
  const std::size_t most = siplib::limits().max_message;
  for (const char* piece : {";a", ",a=b", "\"\"", "\\", "<>", "@", ":"}) {
    for (const char* start : {"SIP/2.0/UDP h", "Digest ", "<sip:a@b>", "\"", "<sip:"}) {
      const std::string value = start + repeat(piece, most - 20);
      for (const char* name : {"Via", "Authorization", "Contact"}) {
        EXPECT_LT(leastTime(
                      [&] {
                        delete SIPLIB_SIPHeader::createSIPHeaderObject(name, value);
                        delete SIPLIB_SIPAddress::createSIPAddressObject(name, value);
                      },
                      kMost),
                  kMost)
            << name << ": " << start << piece;
      }
    }
  }
}

}  // namespace
