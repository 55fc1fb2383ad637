#include "siplib/header.h"

#include <algorithm>
#include <array>
#include <memory>

#include "siplib/header_table.h"
#include "siplib/limits.h"
#include "siplib/text.h"
#include "siplib/uri_text.h"

namespace {

constexpr std::array<std::string_view, 4> kAuthentication = {"WWW-Authenticate", "Proxy-Authenticate", "Authorization",
                                                             "Proxy-Authorization"};

// RFC 3261 25.1: what a digest's grammar puts in quotes, whatever the value.
constexpr std::array<std::string_view, 8> kQuoted = {"username", "realm",  "nonce",  "uri",
                                                     "response", "cnonce", "opaque", "domain"};

template <std::size_t Size>
bool isOneOf(std::string_view name, const std::array<std::string_view, Size>& names) {
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view known) { return siplib::equalsIgnoreCase(known, name); });
}

}  // namespace

SIPLIB_SIPHeader* SIPLIB_SIPHeader::createSIPHeaderObject(std::string_view name, std::string_view value) {
  value = siplib::trim(value);
  if (value.empty() || siplib::breaksLine(value)) return nullptr;
  const siplib::HeaderId id = siplib::headerId(name);
  Shape shape = Shape::Parameters;
  if (id != siplib::kUnknownHeader && id == siplib::headerId("Via")) shape = Shape::Via;
  if (isOneOf(name, kAuthentication)) shape = Shape::Authentication;
  std::unique_ptr<SIPLIB_SIPHeader> header(
      new SIPLIB_SIPHeader(shape, siplib::headerList(id) != siplib::List::No, value));
  if (!header->findMain()) return nullptr;
  // Each for itself: a quote within brackets and one in a parameter are no pair.
  const std::string_view main = header->part({0, header->main_end_});
  const std::string_view rest = header->part({header->main_end_, value.size()});
  if (!siplib::quotesBalanced(main) || !siplib::quotesBalanced(rest)) return nullptr;
  // Mostly there are not even separators enough for too many.
  const std::size_t most = siplib::limits().max_parameters;
  const auto separators = static_cast<std::size_t>(std::count(rest.begin(), rest.end(), header->separator()));
  return separators < most || header->count() <= most ? header.release() : nullptr;
}

SIPLIB_SIPHeader::~SIPLIB_SIPHeader() = default;

// Finds where the parameters begin; false when the text does not have its shape.
bool SIPLIB_SIPHeader::findMain() {
  const std::string_view text = text_;
  if (shape_ == Shape::Authentication) {
    std::size_t end = 0;
    while (end < text.size() && siplib::isTokenChar(text[end])) ++end;
    const std::size_t after = siplib::skipLws(text, end);
    main_end_ = end;
    return end > 0 && (after == text.size() || (after > end && text[after] != '='));
  }
  main_end_ = std::min(siplib::findOutside(text, ';'), text.size());
  // A parameter added behind something open would be part of it; without a main value removing could leave nothing.
  if (main_end_ == 0 || (main_end_ == text.size() && !siplib::bracketsBalanced(text))) return false;
  return shape_ != Shape::Via || findSentBy();
}

// sent-protocol LWS sent-by (RFC 3261 25.1): "SIP / 2.0 / UDP host : port", blanks anywhere but in the words.
bool SIPLIB_SIPHeader::findSentBy() {
  const std::string_view text = std::string_view(text_).substr(0, main_end_);
  std::size_t at = 0;
  for (int word = 0; word < 3; ++word) {
    at = siplib::skipLws(text, at);
    const std::size_t begin = at;
    while (at < text.size() && siplib::isTokenChar(text[at])) ++at;
    if (at == begin) return false;
    if (word == 2) break;
    at = siplib::skipLws(text, at);
    if (at == text.size() || text[at] != '/') return false;
    ++at;
  }
  if (at == text.size() || !siplib::isLws(text[at])) return false;
  host_.begin = siplib::skipLws(text, at);
  host_.end = host_.begin + siplib::hostLength(text.substr(host_.begin));
  if (host_.end == host_.begin) return false;
  port_ = {};
  at = siplib::skipLws(text, host_.end);
  if (at == text.size()) return true;
  if (text[at] != ':') return false;
  port_.begin = port_.end = siplib::skipLws(text, at + 1);
  while (port_.end < text.size() && siplib::isDigit(text[port_.end])) ++port_.end;
  return port_.end > port_.begin && siplib::skipLws(text, port_.end) == text.size();
}

// The parameter at or after `position`, which then stands behind it. Pieces without a name are passed over.
bool SIPLIB_SIPHeader::next(std::size_t& position, Parameter& parameter) const {
  const std::string_view text = text_;
  while (position < text.size()) {
    const std::size_t end = std::min(siplib::findUnquoted(text, separator(), position), text.size());
    const std::string_view piece = siplib::trim(text.substr(position, end - position));
    position = end == text.size() ? end : end + 1;
    const std::string_view name = siplib::trim(piece.substr(0, piece.find('=')));
    if (name.empty()) continue;
    const auto begin = static_cast<std::size_t>(piece.data() - text.data());
    const auto name_begin = static_cast<std::size_t>(name.data() - text.data());
    parameter.all = {begin, begin + piece.size()};
    parameter.name = {name_begin, name_begin + name.size()};
    parameter.value = {parameter.all.end, parameter.all.end};
    const std::size_t equals = piece.find('=');
    parameter.has_value = equals != std::string_view::npos;
    if (parameter.has_value) parameter.value.begin = siplib::skipLws(text, begin + equals + 1);
    if (parameter.value.begin > parameter.value.end) parameter.value.begin = parameter.value.end;
    return true;
  }
  return false;
}

bool SIPLIB_SIPHeader::find(std::string_view name, Parameter& parameter) const {
  for (std::size_t position = main_end_; next(position, parameter);) {
    if (siplib::equalsIgnoreCase(part(parameter.name), name)) return true;
  }
  return false;
}

std::size_t SIPLIB_SIPHeader::count() const {
  Parameter parameter;
  std::size_t many = 0;
  for (std::size_t position = main_end_; next(position, parameter);) ++many;
  return many;
}

int SIPLIB_SIPHeader::getParameter(std::string_view name, std::string& value) const {
  if (shape_ == Shape::Via && siplib::equalsIgnoreCase(name, "host")) {
    value = part(host_);
    return 0;
  }
  if (shape_ == Shape::Via && siplib::equalsIgnoreCase(name, "port")) {
    if (port_.end == port_.begin) return -1;
    value = part(port_);
    return 0;
  }
  Parameter parameter;
  if (!find(name, parameter)) return -1;
  value = part(parameter.value);
  return 0;
}

int SIPLIB_SIPHeader::getParameterNumber(std::string_view name) const {
  std::string value;
  if (getParameter(name, value) != 0) return -1;
  const auto number = siplib::decimal(value, 65535);
  return number ? static_cast<int>(*number) : -1;
}

void SIPLIB_SIPHeader::replace(Range range, std::string_view with) {
  text_.replace(range.begin, range.end - range.begin, with);
  findMain();
}

bool SIPLIB_SIPHeader::endsParameter(std::string_view value) const {
  if (siplib::breaksLine(value) || !siplib::quotesBalanced(value)) return true;
  const auto holds = [&](char c) { return siplib::findUnquoted(value, c) != std::string_view::npos; };
  return holds(separator()) || (list_ && holds(','));
}

// Every message's Via comes here twice: the places behind the new text are moved, not searched for again.
bool SIPLIB_SIPHeader::setSentBy(std::string_view name, std::string_view value) {
  const auto put = [this](Range& range, std::string_view text) {
    text_.replace(range.begin, range.end - range.begin, text);
    const std::size_t end = range.begin + text.size();
    const std::size_t moved = end - range.end;  // modulo, when it got shorter
    main_end_ += moved;
    range.end = end;
    return moved;
  };
  if (siplib::equalsIgnoreCase(name, "host")) {
    const bool plain = siplib::hostLength(value) == value.size();
    const std::string bracketed = plain ? std::string() : siplib::hostText(value);
    if (!plain) value = bracketed;
    if (value.empty()) return false;
    const std::size_t moved = put(host_, value);
    if (port_.end > port_.begin) port_ = {port_.begin + moved, port_.end + moved};
    return true;
  }
  const auto number = siplib::decimal(value, 65535);
  if (!number || *number == 0) return false;
  if (port_.end == port_.begin) {
    Range colon{host_.end, host_.end};
    put(colon, ":");
    port_ = {colon.end, colon.end};
  }
  put(port_, value);
  return true;
}

bool SIPLIB_SIPHeader::setParameter(std::string_view name, std::string_view value) {
  if (!siplib::isToken(name)) return false;
  if (shape_ == Shape::Via && (siplib::equalsIgnoreCase(name, "host") || siplib::equalsIgnoreCase(name, "port"))) {
    return setSentBy(name, value);
  }
  if (endsParameter(value)) return false;
  std::string written(value);
  if (value.empty() && shape_ == Shape::Authentication) {
    if (!isOneOf(name, kQuoted)) {
      removeParameter(name);
      return true;
    }
    written = "\"\"";
  }
  Parameter parameter;
  if (find(name, parameter)) {
    if (written.empty()) {
      replace({parameter.name.end, parameter.all.end}, {});
    } else if (parameter.has_value) {
      replace(parameter.value, written);
    } else {
      replace({parameter.name.end, parameter.all.end}, "=" + written);
    }
    return true;
  }
  const std::size_t many = count();
  if (many >= siplib::limits().max_parameters) return false;
  if (shape_ == Shape::Authentication) {
    text_.append(many == 0 ? " " : ", ");
  } else {
    text_.append(";");
  }
  text_.append(name);
  if (!written.empty()) text_.append("=").append(written);
  return true;
}

bool SIPLIB_SIPHeader::removeParameter(std::string_view name) {
  if (shape_ == Shape::Via && siplib::equalsIgnoreCase(name, "host")) return false;
  if (shape_ == Shape::Via && siplib::equalsIgnoreCase(name, "port")) {
    if (port_.end == port_.begin) return false;
    replace({host_.end, port_.end}, {});
    return true;
  }
  Parameter parameter;
  if (!find(name, parameter)) return false;
  Range range = parameter.all;
  // Goes with the separator before it; the first of an authentication value with all up to the next parameter: a piece
  // without name cannot follow the scheme.
  const std::string_view text = text_;
  std::size_t before = range.begin;
  while (before > main_end_ && siplib::isLws(text[before - 1])) --before;
  if (before > main_end_) {
    range.begin = before - 1;
  } else if (std::size_t position = range.end; next(position, parameter)) {
    range.end = parameter.all.begin;
  } else {
    range = {main_end_, text.size()};
  }
  replace(range, {});
  return true;
}

bool SIPLIB_SIPHeader::getHeaderValue(std::string& value) const {
  value = text_;
  return true;
}

std::string SIPLIB_SIPHeader::mainValue() const {
  return std::string(siplib::trim(std::string_view(text_).substr(0, main_end_)));
}
