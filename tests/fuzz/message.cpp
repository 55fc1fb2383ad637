// Message parse and edit.
//
//   a message, or
//   a message \n%%\n operations, one a line: "=Name: value" set, "+Name: value" add, "-Name" remove the topmost,
//   "!Name" remove all, "#text" set the body; what does not parse is a method and a URI, whose request is changed
//
// Promises: a message that parses is sent as it was received, byte for byte, and its text parses again to the same; its
// head holds no bare CR or LF and no NUL; the framer sees the same end. One that does not parse reads as empty, takes
// no change, and nothing is sent of it. A change that is accepted reads back, touches one line only, leaves every byte
// and every value of every other name, and leaves a message that parses; a refused one changes nothing. A message made
// here of the words of the first line is refused or parses to what it was made of.

#include "siplib/message.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "input.h"
#include "siplib/framer.h"
#include "siplib/header_table.h"
#include "siplib/text.h"

namespace {

using Values = std::vector<std::string>;

constexpr std::size_t kOperations = 16;
constexpr std::size_t kNamesWatched = 24;

/// A message's text taken apart without the library: a line has its continuations.
struct Parts {
  std::string start;
  std::vector<std::string> lines;
  std::string body;
};

Parts partsOf(const std::string& text) {
  Parts parts;
  std::size_t at = text.find("\r\n") + 2;
  parts.start = text.substr(0, at);
  while (text.compare(at, 2, "\r\n") != 0) {
    std::size_t end = at;
    do {
      end = text.find("\r\n", end) + 2;
    } while (text[end] == ' ' || text[end] == '\t');
    parts.lines.push_back(text.substr(at, end - at));
    at = end;
  }
  parts.body = text.substr(at + 2);
  return parts;
}

std::string nameOf(const std::string& line) {
  const std::string name = line.substr(0, line.find(':'));
  return std::string(siplib::trim(name));
}

bool oneName(std::string_view a, std::string_view b) {
  return siplib::equalsIgnoreCase(a, b) ||
         (siplib::headerId(a) != siplib::kUnknownHeader && siplib::headerId(a) == siplib::headerId(b));
}

Values valuesOf(const SIPLIB_message& message, std::string_view name) {
  const auto values = message.headers(name);
  return {values.begin(), values.end()};
}

/// Texts above a limit do not parse again: the limits are for what comes in.
bool parsesAgain(const SIPLIB_message& again) {
  return again.valid() || again.parseError().find("limit") != std::string_view::npos;
}

void checkInvalid(SIPLIB_message& message) {
  PROMISE(!message.parseError().empty());
  PROMISE(!message.isRequest() && !message.isResponse() && message.statusCode() == 0);
  PROMISE(message.method().empty() && message.requestUri().empty() && message.body().empty());
  PROMISE(!message.header("Via") && message.headers("Via").empty() && message.headerCount("To") == 0);
  PROMISE(!message.setHeader("To", "x") && !message.addHeader("To", "x") && !message.removeHeader("To"));
  PROMISE(message.removeHeaders("To") == 0 && !message.setBody("x"));
  PROMISE(message.text().empty());
}

void checkValid(const SIPLIB_message& message, std::string_view received) {
  PROMISE(message.parseError().empty());
  PROMISE(message.isRequest() != message.isResponse());
  PROMISE(message.isRequest() ? !message.method().empty() && !message.requestUri().empty() && message.statusCode() == 0
                              : message.statusCode() >= 100 && message.statusCode() <= 699);
  while (received.starts_with("\r\n")) received.remove_prefix(2);
  const std::string text = message.text();
  PROMISE(received.starts_with(text));
  PROMISE(message.header("Content-Length") || text.size() == received.size());

  const std::string_view head = std::string_view(text).substr(0, text.size() - message.body().size());
  PROMISE(head.ends_with("\r\n\r\n") && head.find('\0') == std::string_view::npos);
  for (std::size_t i = 0; i < head.size(); ++i) {
    if (head[i] == '\r') PROMISE(head[i + 1] == '\n');
    if (head[i] == '\n') PROMISE(head[i - 1] == '\r');
  }

  const SIPLIB_message again(text.data(), text.size());
  PROMISE(again.valid() && again.text() == text && again.body() == message.body());
  const Parts parts = partsOf(text);
  for (std::size_t i = 0; i < std::min(parts.lines.size(), kNamesWatched); ++i) {
    const std::string name = nameOf(parts.lines[i]);
    PROMISE(siplib::isToken(name));
    const Values values = valuesOf(message, name);
    PROMISE(!values.empty() && message.headerCount(name) == values.size() && *message.header(name) == values[0]);
    for (const std::string& value : values) PROMISE(!siplib::breaksLine(value) && value == siplib::trim(value));
  }
}

/// On a stream the message ends where the message itself says.
void checkFraming(const SIPLIB_message& message) {
  const std::string text = message.text();
  siplib::Framer framer;
  std::size_t fed = 0;
  siplib::Framer::Frame frame;
  while (fed < text.size() && frame.kind == siplib::Framer::Kind::NeedMore) {
    const auto room = framer.reserve();
    const std::size_t count = std::min(room.size(), text.size() - fed);
    std::memcpy(room.data(), text.data() + fed, count);
    framer.commit(count);
    fed += count;
    frame = framer.next();
  }
  PROMISE(frame.kind == siplib::Framer::Kind::Message);
  const std::size_t end = message.header("Content-Length") ? text.size() : text.size() - message.body().size();
  PROMISE(frame.length == end && std::string_view(frame.text, frame.length) == std::string_view(text).substr(0, end));
}

/// How many lines differ, and by how many there are more.
std::size_t touched(const Parts& before, const Parts& after, std::ptrdiff_t& more) {
  const auto& a = before.lines;
  const auto& b = after.lines;
  const std::size_t least = std::min(a.size(), b.size());
  std::size_t front = 0;
  while (front < least && a[front] == b[front]) ++front;
  std::size_t back = 0;
  while (back < least - front && a[a.size() - 1 - back] == b[b.size() - 1 - back]) ++back;
  more = static_cast<std::ptrdiff_t>(b.size()) - static_cast<std::ptrdiff_t>(a.size());
  return std::max(a.size(), b.size()) - front - back;
}

std::vector<std::string> linesOfOthers(const Parts& parts, std::string_view name) {
  std::vector<std::string> lines;
  for (const std::string& line : parts.lines)
    if (!oneName(name, nameOf(line))) lines.push_back(line);
  return lines;
}

void apply(SIPLIB_message& message, std::string_view operation) {
  const char kind = operation[0];
  operation.remove_prefix(1);
  const std::string text_before = message.text();
  const Parts before = partsOf(text_before);
  if (kind == '#') {
    PROMISE(message.setBody(operation));
    PROMISE(message.body() == operation && *message.header("Content-Length") == std::to_string(operation.size()));
    const std::string text = message.text();
    const Parts after = partsOf(text);
    PROMISE(after.start == before.start && linesOfOthers(after, "l") == linesOfOthers(before, "l"));
    const SIPLIB_message again(text.data(), text.size());
    PROMISE(parsesAgain(again) && (!again.valid() || again.body() == operation));
    return;
  }

  const std::string name(fuzz::cut(operation, ":"));
  const std::string value(operation);
  const Values own = valuesOf(message, name);
  std::vector<std::string> others;
  std::vector<Values> others_values;
  for (const std::string& line : before.lines) {
    const std::string other = nameOf(line);
    if (others.size() == kNamesWatched) break;
    if (oneName(name, other)) continue;
    others.push_back(other);
    others_values.push_back(valuesOf(message, other));
  }

  bool done = false;
  std::size_t removed = 0;
  if (kind == '=') done = message.setHeader(name, value);
  if (kind == '+') done = message.addHeader(name, value);
  if (kind == '-') done = message.removeHeader(name);
  if (kind == '!') done = (removed = message.removeHeaders(name)) > 0;
  const std::string text = message.text();
  if (!done) {
    PROMISE(text == text_before);
    return;
  }
  const Parts after = partsOf(text);
  PROMISE(after.start == before.start && after.body == before.body && after.body == message.body());
  PROMISE(linesOfOthers(after, name) == linesOfOthers(before, name));
  for (std::size_t i = 0; i < others.size(); ++i) PROMISE(valuesOf(message, others[i]) == others_values[i]);
  std::ptrdiff_t more = 0;
  const std::size_t lines = touched(before, after, more);
  const Values now = valuesOf(message, name);
  const std::string trimmed(siplib::trim(value));
  const bool list = siplib::headerList(siplib::headerId(name)) != siplib::List::No;
  const bool plain = !list || (!trimmed.empty() && trimmed.find_first_of(",\"<>\\") == std::string::npos);
  Values expected = own;
  switch (kind) {
    case '=':
      PROMISE(siplib::isToken(name) && !siplib::breaksLine(value));
      PROMISE(lines <= 1 && more == (own.empty() ? 1 : 0));
      if (expected.empty()) expected.emplace_back();
      expected[0] = trimmed;
      PROMISE(!plain || now == expected);
      break;
    case '+':
      PROMISE(siplib::isToken(name) && !siplib::breaksLine(value));
      PROMISE(lines == 1 && more == 1);
      expected.insert(expected.begin(), trimmed);
      PROMISE(!plain || now == expected);
      break;
    case '-':
      PROMISE(lines == 1 && (more == 0 || more == -1));
      expected.erase(expected.begin());
      PROMISE(now == expected);
      break;
    default:
      PROMISE(removed == own.size() && now.empty());
      break;
  }
  const SIPLIB_message again(text.data(), text.size());
  PROMISE(parsesAgain(again) && (!again.valid() || (again.text() == text && valuesOf(again, name) == now)));
}

void applyAll(SIPLIB_message& message, std::string_view operations) {
  std::size_t count = 0;
  for (const std::string_view operation : fuzz::split(operations, "\n")) {
    if (operation.empty() || std::string_view("=+-!#").find(operation[0]) == std::string_view::npos) continue;
    if (++count > kOperations) break;
    apply(message, operation);
  }
}

/// Messages made here; their head is ours alone.
void checkMade(std::string_view line, std::string_view operations) {
  std::string_view rest = line;
  const std::string_view first = fuzz::cut(rest, " ");
  SIPLIB_message request(first, rest);
  if (request.valid()) {
    PROMISE(request.method() == first && request.requestUri() == rest);
    checkValid(request, request.text());
    checkFraming(request);
    applyAll(request, operations);
  } else {
    checkInvalid(request);
  }
  const int status = std::atoi(std::string(first.substr(0, 5)).c_str());
  SIPLIB_message response(status, rest);
  if (response.valid()) {
    PROMISE(response.statusCode() == status && response.reasonPhrase() == rest);
    checkValid(response, response.text());
    applyAll(response, operations);
  } else {
    checkInvalid(response);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = fuzz::view(data, size);
  const std::string_view received = fuzz::cut(rest, "\n%%\n");
  SIPLIB_message message(received.data(), received.size());
  if (!message.valid()) {
    checkInvalid(message);
    checkMade(received, rest);
    return 0;
  }
  checkValid(message, received);
  checkFraming(message);
  applyAll(message, rest);
  return 0;
}
