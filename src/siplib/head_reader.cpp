#include "siplib/head_reader.h"

#include <algorithm>
#include <cstdint>

#include "siplib/limits.h"
#include "siplib/text.h"

namespace siplib {

HeadReader::HeadReader(std::string_view head) : rest_(head) {
  if (!linesWhole(head)) failFraming("the head holds a bare CR or LF");
  start_line_ = physicalLine();
  if (!start_line_.empty()) start_line_.remove_suffix(2);
  // To some readers this is a header, to others part of the start line.
  if (!rest_.empty() && isBlank(rest_.front())) failFraming("the start line is folded");
}

void HeadReader::failFraming(std::string_view why) {
  fail(why);
  framing_fault_ = why;
  rest_ = {};
}

std::string_view HeadReader::physicalLine() {
  const std::size_t end = rest_.find('\n');
  if (end == std::string_view::npos) return {};
  const std::string_view line = rest_.substr(0, end + 1);
  rest_.remove_prefix(end + 1);
  return line;
}

bool HeadReader::logicalLine(HeadLine& line) {
  line.text = physicalLine();
  if (line.text.size() <= 2) return false;
  line.folded = false;
  while (!rest_.empty() && isBlank(rest_.front())) {
    line.text = {line.text.data(), line.text.size() + physicalLine().size()};
    line.folded = true;
  }
  return true;
}

// The CRLF ends both walks.
std::size_t HeadReader::colonOf(std::string_view line, std::string_view& name) {
  std::size_t end = 0;
  while (isTokenChar(line[end])) ++end;
  std::size_t colon = end;
  // Blanks before the colon are allowed (RFC 3261 25.1, HCOLON): "Via :" is a Via to everyone.
  while (isBlank(line[colon])) ++colon;
  if (end == 0 || line[colon] != ':') return 0;
  name = line.substr(0, end);
  return colon;
}

bool HeadReader::next(HeadLine& line) {
  while (logicalLine(line)) {
    const std::size_t colon = colonOf(line.text, line.name);
    if (colon == 0) {
      const bool any = line.text.find(':') != std::string_view::npos;
      fail(any ? "a header name is not a token" : "a header line has no colon");
      continue;
    }
    line.value = line.text.substr(colon + 1, line.text.size() - colon - 3);
    line.id = headerId(line.name);
    if (line.id == kContentLength) {
      takeContentLength(trim(line.value));
      if (!framing_fault_.empty()) return false;
    }
    return true;
  }
  return false;
}

void HeadReader::skipToEnd() {
  HeadLine line;
  while (framing_fault_.empty() && logicalLine(line)) {
    // "Content-Length" or "l".
    const char first = lower(line.text[0]);
    if (first != 'c' && first != 'l') continue;
    const std::size_t colon = colonOf(line.text, line.name);
    if (colon == 0 || headerId(line.name) != kContentLength) continue;
    takeContentLength(trim(line.text.substr(colon + 1, line.text.size() - colon - 3)));
  }
}

void HeadReader::takeContentLength(std::string_view value) {
  const std::size_t largest = std::min<std::size_t>(limits().max_message, UINT32_MAX);
  const auto length = decimal(value, static_cast<std::uint32_t>(largest));
  if (!length) {
    failFraming("Content-Length is not a number of allowed size");
  } else if (content_length_ && *content_length_ != *length) {
    failFraming("two Content-Length values differ");
  } else {
    content_length_ = *length;
  }
}

}  // namespace siplib
