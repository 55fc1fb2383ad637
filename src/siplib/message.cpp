#include "siplib/message.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

#include "siplib/head_reader.h"
#include "siplib/header_table.h"
#include "siplib/limits.h"
#include "siplib/text.h"

using siplib::HeaderId;
using siplib::List;

namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kVersion = "SIP/2.0";

// Lines and bytes that forwarding adds to a message as a rule: Record-Route, User-agent, credentials, a client's own
// headers; new Via, Contact and Route lines. More costs another chunk, nothing else.
constexpr std::size_t kSpareLines = 8;
constexpr std::size_t kSpareBytes = 1024;

// What most messages that are too large for their own room are content with.
constexpr std::size_t kUsualChunk = 16384;
using Chunks = siplib::RecycledBlocks<kUsualChunk, 8>;

// Names, values and bodies that could overflow the 32-bit sizes below are refused; the limits keep received ones far
// from it.
constexpr std::size_t kLargestPart = std::size_t{1} << 30;

// A Request-URI: nothing is asked of it but that it cannot end before the version does.
bool isUriText(std::string_view uri) {
  return !uri.empty() && std::all_of(uri.begin(), uri.end(), [](char c) {
    return static_cast<unsigned char>(c) > ' ' && static_cast<unsigned char>(c) != 0x7f;
  });
}

char* put(char* to, std::string_view text) {
  if (!text.empty()) std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

std::string_view number(std::size_t value, char (&digits)[24]) {
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  return {digits, static_cast<std::size_t>(end - digits)};
}

}  // namespace

// One header line. `text` is what is sent. `value` is what is read: within `text` when it is not folded, else an
// unfolded copy; a list's first element can be split off both in step, because folds are white space to both.
struct SIPLIB_message::Line {
  char* text;
  const char* value;
  std::uint32_t size;
  std::uint32_t value_size;
  std::uint32_t name_size;
  std::uint32_t raw_begin;  // the value in `text`, without surrounding white space
  std::uint32_t raw_end;
  HeaderId id;

  std::string_view name() const { return {text, name_size}; }
  std::string_view raw() const { return {text + raw_begin, raw_end - raw_begin}; }
  std::string_view read() const { return {value, value_size}; }
};

struct SIPLIB_message::Chunk {
  Chunk* next;
  bool recycled;
};

SIPLIB_message::SIPLIB_message(const char* text, std::size_t length) : SIPLIB_message() {
  parse_error_ = parse(std::string_view(text, text == nullptr ? 0 : length));
  valid_ = parse_error_.empty();
  if (valid_) return;
  is_request_ = false;
  status_ = 0;
  line_count_ = line_room_ = 0;
  lines_ = nullptr;
  start_line_ = method_ = request_uri_ = reason_ = body_ = {};
  dropChunks();
}

SIPLIB_message::SIPLIB_message(int status, std::string_view reason) : SIPLIB_message() {
  if (status < 100 || status > 699) {
    parse_error_ = "the status is not 100 to 699";
  } else if (siplib::breaksLine(reason) || reason.size() > kLargestPart) {
    parse_error_ = "the reason phrase breaks the line";
  } else {
    char digits[24];
    siplib::Scratch line(kVersion);
    line.append(" ").append(number(static_cast<std::size_t>(status), digits)).append(" ").append(reason);
    start(line);
  }
}

SIPLIB_message::SIPLIB_message(std::string_view method, std::string_view request_uri) : SIPLIB_message() {
  if (!siplib::isToken(method) || method.size() > kLargestPart) {
    parse_error_ = "the method is not a token";
  } else if (!isUriText(request_uri) || request_uri.size() > kLargestPart) {
    parse_error_ = "the Request-URI is empty or holds white space";
  } else {
    siplib::Scratch line(method);
    line.append(" ").append(request_uri).append(" ").append(kVersion);
    start(line);
  }
}

SIPLIB_message::~SIPLIB_message() {
  dropChunks();
}

// A message made here: its start line, Content-Length, the blank line.
void SIPLIB_message::start(std::string_view line) {
  made_here_ = true;
  takeRoom(line.size() + kSpareBytes + kSpareLines * sizeof(Line));
  line_room_ = kSpareLines;
  lines_ = reinterpret_cast<Line*>(room(line_room_ * sizeof(Line)));
  char* const text = room(line.size() + 2);
  put(put(text, line), kCrLf);
  start_line_ = {text, line.size() + 2};
  parse_error_ = parseStartLine({text, line.size()});
  valid_ = parse_error_.empty();
  setBody({});
}

// --- memory ---

// The first room of a message. Lines come first in it; both kinds of beginning keep them aligned.
void SIPLIB_message::takeRoom(std::size_t size) {
  static_assert(sizeof(Chunk) % alignof(Line) == 0 && alignof(Line) <= alignof(std::max_align_t));
  free_ = own_room_;
  free_end_ = own_room_ + kOwnRoom;
  if (size > kOwnRoom) takeChunk(size);
}

void SIPLIB_message::takeChunk(std::size_t size) {
  const bool recycled = sizeof(Chunk) + size <= kUsualChunk;
  if (recycled) size = kUsualChunk - sizeof(Chunk);
  auto* const memory = static_cast<char*>(recycled ? Chunks::take() : ::operator new(sizeof(Chunk) + size));
  chunks_ = ::new (memory) Chunk{chunks_, recycled};
  free_ = memory + sizeof(Chunk);
  free_end_ = free_ + size;
}

char* SIPLIB_message::room(std::size_t size) {
  if (static_cast<std::size_t>(free_end_ - free_) < size) takeChunk(std::max(size, 2 * kSpareBytes));
  char* const place = free_;
  free_ += size;
  return place;
}

void SIPLIB_message::dropChunks() {
  while (chunks_ != nullptr) {
    Chunk* const next = chunks_->next;
    if (chunks_->recycled) {
      Chunks::give(chunks_);
    } else {
      ::operator delete(chunks_);
    }
    chunks_ = next;
  }
  free_ = free_end_ = nullptr;
}

// --- parsing ---

std::string_view SIPLIB_message::parse(std::string_view text) {
  const siplib::Limits& limits = siplib::limits();
  if (text.size() > limits.max_message || text.size() > kLargestPart) return "the message is larger than the limit";
  while (text.starts_with(kCrLf)) text.remove_prefix(2);
  if (text.empty()) return "the message is empty";

  // Line ends up to the blank line. Start line and blank line are no headers; continuations count, as they cost as
  // much.
  std::string_view head;
  std::size_t line_ends = 0;
  for (std::size_t at = 0; !head.ends_with("\r\n\r\n"); ++line_ends) {
    at = text.find('\n', at) + 1;
    if (at > limits.max_head) return "the head is larger than the limit";
    if (at == 0) return text.size() > limits.max_head ? "the head is larger than the limit" : "the head has no end";
    head = text.substr(0, at);
  }
  if (head.find('\0') != std::string_view::npos) return "the head holds a NUL";
  const std::size_t lines = line_ends - 2;
  if (lines > limits.max_header_lines) return "there are more header lines than the limit";

  line_room_ = static_cast<std::uint32_t>(lines + kSpareLines);
  takeRoom(line_room_ * sizeof(Line) + text.size() + kSpareBytes);
  lines_ = reinterpret_cast<Line*>(room(line_room_ * sizeof(Line)));
  char* const own = room(text.size());
  put(own, text);

  siplib::HeadReader reader({own, head.size()});
  siplib::HeadLine line;
  while (reader.next(line)) {
    Line* const entry = ::new (lines_ + line_count_++) Line{};
    entry->text = own + (line.text.data() - own);
    entry->size = static_cast<std::uint32_t>(line.text.size());
    entry->name_size = static_cast<std::uint32_t>(line.name.size());
    entry->id = line.id;
    takeValue(*entry, line.value, line.folded);
  }
  if (!reader.fault().empty()) return reader.fault();
  has_length_ = reader.contentLength().has_value();

  const std::string_view rest = std::string_view(own, text.size()).substr(head.size());
  const std::size_t length = reader.contentLength().value_or(rest.size());
  if (length > rest.size()) return "Content-Length is larger than the rest of the text";
  body_ = rest.substr(0, length);
  start_line_ = {own, reader.startLine().size() + 2};
  return parseStartLine(reader.startLine());
}

std::string_view SIPLIB_message::parseStartLine(std::string_view line) {
  if (siplib::equalsIgnoreCase(line.substr(0, 4), "SIP/")) {
    if (!siplib::equalsIgnoreCase(line.substr(0, 8), "SIP/2.0 ")) return "the version is not SIP/2.0";
    const auto status = siplib::decimal(line.substr(8, 3), 699);
    // The blank before an absent reason phrase is often forgotten.
    if (line.size() < 11 || !status || *status < 100 || (line.size() > 11 && line[11] != ' ')) {
      return "the status is not 100 to 699";
    }
    status_ = static_cast<int>(*status);
    if (line.size() > 12) reason_ = line.substr(12);
    return {};
  }
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
  if (second == std::string_view::npos) return "the start line has no three parts";
  if (!siplib::isToken(line.substr(0, first))) return "the method is not a token";
  if (!isUriText(line.substr(first + 1, second - first - 1))) return "the Request-URI is empty or holds white space";
  if (!siplib::equalsIgnoreCase(line.substr(second + 1), kVersion)) return "the version is not SIP/2.0";
  is_request_ = true;
  method_ = line.substr(0, first);
  request_uri_ = line.substr(first + 1, second - first - 1);
  return {};
}

// Finds the value in the line's text.
void SIPLIB_message::place(Line& line) {
  const std::string_view all(line.text, line.size - kCrLf.size());
  const std::string_view value = all.substr(all.find(':', line.name_size) + 1);
  takeValue(line, value, value.find('\r') != std::string_view::npos);
}

// Makes `value`, all behind the colon, what is read: in place, or unfolded in a copy.
void SIPLIB_message::takeValue(Line& line, std::string_view value, bool folded) {
  const std::string_view raw = siplib::trim(value);
  line.raw_begin = static_cast<std::uint32_t>(raw.data() - line.text);
  line.raw_end = line.raw_begin + static_cast<std::uint32_t>(raw.size());
  line.value = raw.data();
  line.value_size = static_cast<std::uint32_t>(raw.size());
  if (!folded || raw.find('\r') == std::string_view::npos) return;
  char* const copy = room(raw.size());
  char* to = copy;
  for (std::size_t i = 0; i < raw.size();) {
    if (raw[i] != '\r') {
      *to++ = raw[i++];
      continue;
    }
    while (to != copy && siplib::isBlank(to[-1])) --to;
    i = siplib::skipLws(raw, i);
    *to++ = ' ';
  }
  line.value = copy;
  line.value_size = static_cast<std::uint32_t>(to - copy);
}

// --- reading ---

SIPLIB_message::Line* SIPLIB_message::find(std::string_view name, HeaderId id) const {
  for (Line* line = lines_; line != lines_ + line_count_; ++line) {
    if (line->id == id && (id != siplib::kUnknownHeader || siplib::equalsIgnoreCase(line->name(), name))) return line;
  }
  return nullptr;
}

std::optional<std::string_view> SIPLIB_message::header(std::string_view name) const {
  const HeaderId id = siplib::headerId(name);
  const Line* const line = find(name, id);
  if (line == nullptr) return std::nullopt;
  std::string_view first = line->read();
  std::size_t position = 0;
  if (siplib::headerList(id) != List::No &&
      !siplib::nextElement(line->read(), siplib::headerList(id), position, first)) {
    return std::string_view();
  }
  return first;
}

std::size_t SIPLIB_message::headerCount(std::string_view name) const {
  return headers(name).size();
}

std::vector<std::string_view> SIPLIB_message::headers(std::string_view name) const {
  const HeaderId id = siplib::headerId(name);
  const List list = siplib::headerList(id);
  std::vector<std::string_view> values;
  for (const Line* line = lines_; line != lines_ + line_count_; ++line) {
    if (line->id != id || (id == siplib::kUnknownHeader && !siplib::equalsIgnoreCase(line->name(), name))) continue;
    std::string_view element;
    std::size_t position = 0;
    if (list == List::No || !siplib::nextElement(line->read(), list, position, element)) {
      values.push_back(list == List::No ? line->read() : std::string_view());
      continue;
    }
    do {
      values.push_back(element);
    } while (siplib::nextElement(line->read(), list, position, element));
  }
  return values;
}

std::size_t SIPLIB_message::headerLines(std::string_view name, std::string_view text) const {
  const HeaderId id = siplib::headerId(name);
  std::size_t count = 0;
  for (const Line* line = lines_; line != lines_ + line_count_; ++line) {
    if (line->id != id || (id == siplib::kUnknownHeader && !siplib::equalsIgnoreCase(line->name(), name))) continue;
    if (line->read().find(text) != std::string_view::npos) ++count;
  }
  return count;
}

bool SIPLIB_message::headHolds(std::string_view text) const {
  if (!valid_ || text.empty()) return valid_;
  // By its last character: in a parameter's name with its "=", that is the rarest.
  const auto holds = [&](std::string_view run) {
    for (std::size_t at = run.find(text.back()); at != std::string_view::npos; at = run.find(text.back(), at + 1)) {
      if (run.substr(0, at + 1).ends_with(text)) return true;
    }
    return false;
  };
  // Lines that nobody has touched stand side by side: one search for all of them.
  std::string_view run = start_line_;
  for (const Line* line = lines_; line != lines_ + line_count_; ++line) {
    if (line->text == run.data() + run.size()) {
      run = {run.data(), run.size() + line->size};
      continue;
    }
    if (holds(run)) return true;
    run = {line->text, line->size};
  }
  return holds(run);
}

// --- changing ---

bool SIPLIB_message::refusesChange(std::string_view name, std::string_view value, HeaderId id) const {
  if (!valid_ || !siplib::isToken(name) || siplib::breaksLine(value)) return true;
  if (name.size() > kLargestPart || value.size() > kLargestPart) return true;
  return id == siplib::kContentLength && siplib::decimal(value, kLargestPart) != body_.size();
}

void SIPLIB_message::insert(std::size_t index, std::string_view name, std::string_view value, HeaderId id) {
  const std::size_t size = name.size() + 2 + value.size() + 2;
  char* const text = room(size);
  put(put(put(put(text, name), ": "), value), kCrLf);
  insertLine(index, text, size, name.size(), id);
}

void SIPLIB_message::insertLine(std::size_t index, char* text, std::size_t size, std::size_t name_size, HeaderId id) {
  if (line_count_ == line_room_) {
    const std::uint32_t more = 2 * line_room_;
    // Sizes in this memory are any; the records need their alignment.
    char* const memory = room(more * sizeof(Line) + alignof(Line));
    const std::size_t odd = reinterpret_cast<std::uintptr_t>(memory) % alignof(Line);
    auto* const lines = reinterpret_cast<Line*>(memory + (odd == 0 ? 0 : alignof(Line) - odd));
    std::memcpy(lines, lines_, line_count_ * sizeof(Line));
    lines_ = lines;
    line_room_ = more;
  }
  std::memmove(lines_ + index + 1, lines_ + index, (line_count_ - index) * sizeof(Line));
  ++line_count_;
  Line* const line = ::new (lines_ + index) Line{};
  line->text = text;
  line->size = static_cast<std::uint32_t>(size);
  line->name_size = static_cast<std::uint32_t>(name_size);
  line->id = id;
  place(*line);
  if (id == siplib::kContentLength) has_length_ = true;
}

void SIPLIB_message::erase(Line* line) {
  std::memmove(line, line + 1, static_cast<std::size_t>(lines_ + line_count_ - (line + 1)) * sizeof(Line));
  --line_count_;
}

// Puts `value` in the place of the bytes `begin` to `end` of the line's raw value.
void SIPLIB_message::rewrite(Line& line, std::size_t begin, std::size_t end, std::string_view value) {
  const std::string_view before(line.text, line.raw_begin + begin);
  const std::string_view after(line.text + line.raw_begin + end, line.size - line.raw_begin - end);
  const std::size_t size = before.size() + value.size() + after.size();
  char* const text = room(size);
  put(put(put(text, before), value), after);
  line.text = text;
  line.size = static_cast<std::uint32_t>(size);
  place(line);
}

bool SIPLIB_message::setHeader(std::string_view name, std::string_view value) {
  const HeaderId id = siplib::headerId(name);
  if (refusesChange(name, value, id)) return false;
  Line* const line = find(name, id);
  if (line == nullptr) return addHeader(name, value);
  const std::string_view raw = line->raw();
  std::string_view first = raw;
  std::size_t position = 0;
  if (siplib::headerList(id) != List::No && !siplib::nextElement(raw, siplib::headerList(id), position, first)) {
    first = raw;
  }
  const auto begin = static_cast<std::size_t>(first.data() - raw.data());
  rewrite(*line, begin, begin + first.size(), value);
  return true;
}

bool SIPLIB_message::addHeader(std::string_view name, std::string_view value) {
  const HeaderId id = siplib::headerId(name);
  if (refusesChange(name, value, id)) return false;
  const Line* const top = find(name, id);
  insert(top != nullptr ? static_cast<std::size_t>(top - lines_) : lastPlace(), name, value, id);
  return true;
}

bool SIPLIB_message::appendHeader(std::string_view name, std::string_view value) {
  const HeaderId id = siplib::headerId(name);
  if (refusesChange(name, value, id)) return false;
  insert(lastPlace(), name, value, id);
  return true;
}

bool SIPLIB_message::appendLines(std::string_view name, const SIPLIB_message& other) {
  const HeaderId id = siplib::headerId(name);
  if (!valid_ || !other.valid_ || &other == this || id == siplib::kContentLength) return false;
  bool found = false;
  for (const Line* line = other.lines_; line != other.lines_ + other.line_count_; ++line) {
    if (line->id != id || (id == siplib::kUnknownHeader && !siplib::equalsIgnoreCase(line->name(), name))) continue;
    char* const text = room(line->size);
    put(text, {line->text, line->size});
    insertLine(lastPlace(), text, line->size, line->name_size, id);
    found = true;
  }
  return found;
}

// Where a further line goes: a message made here keeps its Content-Length last.
std::size_t SIPLIB_message::lastPlace() const {
  const bool length_last = made_here_ && line_count_ > 0 && lines_[line_count_ - 1].id == siplib::kContentLength;
  return length_last ? line_count_ - 1 : line_count_;
}

bool SIPLIB_message::removeHeader(std::string_view name) {
  const HeaderId id = siplib::headerId(name);
  Line* const line = find(name, id);
  if (line == nullptr || id == siplib::kContentLength) return false;
  const List list = siplib::headerList(id);
  std::string_view element;
  std::size_t position = 0;
  const std::string_view raw = line->raw();
  if (list == List::No || !siplib::nextElement(raw, list, position, element) ||
      !siplib::nextElement(raw, list, position, element)) {
    erase(line);
    return true;
  }
  // The name moves up to the second element, over the first: no copy of the rest, so a long list can be taken apart
  // one by one. There is room: a first element and its comma are at least as long as the ": " written here.
  const auto begin = static_cast<std::uint32_t>(element.data() - line->text);
  const bool folded = line->value != line->text + line->raw_begin;
  const std::uint32_t skip = begin - (line->name_size + 2);
  std::memmove(line->text + skip, line->text, line->name_size);
  line->text += skip;
  line->size -= skip;
  std::memcpy(line->text + line->name_size, ": ", 2);
  line->raw_end -= skip;
  line->raw_begin = line->name_size + 2;
  if (!folded) {
    line->value = line->text + line->raw_begin;
    line->value_size = line->raw_end - line->raw_begin;
    return true;
  }
  const std::string_view read = line->read();
  position = 0;
  siplib::nextElement(read, list, position, element);
  siplib::nextElement(read, list, position, element);
  const auto passed = static_cast<std::uint32_t>(element.data() - read.data());
  line->value += passed;
  line->value_size -= passed;
  return true;
}

std::size_t SIPLIB_message::removeHeaders(std::string_view name) {
  const HeaderId id = siplib::headerId(name);
  if (id == siplib::kContentLength) return 0;
  const std::size_t count = headerCount(name);
  Line* const end = lines_ + line_count_;
  Line* const kept = std::remove_if(lines_, end, [&](const Line& line) {
    return line.id == id && (id != siplib::kUnknownHeader || siplib::equalsIgnoreCase(line.name(), name));
  });
  line_count_ = static_cast<std::uint32_t>(kept - lines_);
  return count;
}

bool SIPLIB_message::setBody(std::string_view body) {
  if (!valid_ || body.size() > kLargestPart) return false;
  char* const text = room(2 + body.size());
  put(put(text, kCrLf), body);
  body_ = {text + 2, body.size()};

  if (!has_length_) {
    addLength();
    return true;
  }
  char digits[24];
  const std::string_view length = number(body.size(), digits);
  Line* const line = find({}, siplib::kContentLength);
  rewrite(*line, 0, line->raw_end - line->raw_begin, length);
  // Further ones said the same as the first; one is enough.
  Line* const end = lines_ + line_count_;
  Line* const kept =
      std::remove_if(line + 1, end, [](const Line& other) { return other.id == siplib::kContentLength; });
  line_count_ = static_cast<std::uint32_t>(kept - lines_);
  return true;
}

void SIPLIB_message::addLength() {
  char digits[24];
  insert(line_count_, "Content-Length", number(body_.size(), digits), siplib::kContentLength);
}

// --- sending ---

void SIPLIB_message::gather(std::vector<iovec>& out) const {
  if (!valid_) return;
  std::string_view slice = start_line_;
  const auto add = [&](const char* text, std::size_t size) {
    if (text == slice.data() + slice.size()) {
      slice = {slice.data(), slice.size() + size};
      return;
    }
    out.push_back({const_cast<char*>(slice.data()), slice.size()});
    slice = {text, size};
  };
  for (const Line* line = lines_; line != lines_ + line_count_; ++line) add(line->text, line->size);
  add(body_.data() - 2, body_.size() + 2);
  out.push_back({const_cast<char*>(slice.data()), slice.size()});
}

std::string SIPLIB_message::text() const {
  std::vector<iovec> slices;
  gather(slices);
  std::string all;
  for (const iovec& slice : slices) all.append(static_cast<const char*>(slice.iov_base), slice.iov_len);
  return all;
}
