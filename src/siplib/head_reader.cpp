#include "siplib/head_reader.h"

#include <algorithm>
#include <cstdint>

#include "siplib/limits.h"
#include "siplib/text.h"

namespace siplib {

HeadReader::HeadReader(std::string_view head) : rest_(head) {
  start_line_ = physicalLine();
  if (!start_line_.empty()) start_line_.remove_suffix(2);
  // To some readers this is a header, to others part of the start line.
  if (!rest_.empty() && isBlank(rest_.front())) failFraming("the start line is folded");
}

void HeadReader::failFraming(std::string_view why) {
  if (fault_.empty()) fault_ = why;
  framing_fault_ = why;
  rest_ = {};
}

std::string_view HeadReader::physicalLine() {
  if (rest_.empty()) return {};
  const std::size_t end = rest_.find('\r');
  if (end == std::string_view::npos || end + 1 >= rest_.size() || rest_[end + 1] != '\n' ||
      rest_.substr(0, end).find('\n') != std::string_view::npos) {
    failFraming("the head holds a bare CR or LF");
    return {};
  }
  const std::string_view line = rest_.substr(0, end + 2);
  rest_.remove_prefix(end + 2);
  return line;
}

bool HeadReader::next(HeadLine& line) {
  while (true) {
    line.text = physicalLine();
    if (line.text.size() <= 2) return false;
    line.folded = false;
    while (!rest_.empty() && isBlank(rest_.front())) {
      const std::string_view more = physicalLine();
      if (more.empty()) return false;
      line.text = {line.text.data(), line.text.size() + more.size()};
      line.folded = true;
    }
    const std::size_t colon = line.text.find(':');
    if (colon == std::string_view::npos) {
      if (fault_.empty()) fault_ = "a header line has no colon";
      continue;
    }
    // Blanks before the colon are allowed (RFC 3261 25.1, HCOLON): "Via :" is a Via to everyone.
    line.name = line.text.substr(0, colon);
    while (!line.name.empty() && isBlank(line.name.back())) line.name.remove_suffix(1);
    if (!isToken(line.name)) {
      if (fault_.empty()) fault_ = "a header name is not a token";
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
