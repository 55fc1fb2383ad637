#include "siplib/address.h"

#include <algorithm>
#include <memory>

#include "siplib/limits.h"
#include "siplib/text.h"
#include "siplib/uri_text.h"

namespace {

constexpr std::size_t kNone = std::string_view::npos;

bool isSchemeChar(char c) {
  return siplib::isAlpha(c) || siplib::isDigit(c) || c == '+' || c == '-' || c == '.';
}

// What a URI's text cannot hold anywhere.
constexpr std::array<bool, 256> kEndsUri = siplib::characterTable(
    [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7f || c == '<' || c == '>' || c == '"'; });
bool endsUri(char c) {
  return kEndsUri[static_cast<unsigned char>(c)];
}

// What a walk over a URI stops at.
constexpr std::array<bool, 256> kStopsInUri =
    siplib::characterTable([](char c) { return kEndsUri[static_cast<unsigned char>(c)] || c == ':' || c == '@'; });

}  // namespace

SIPLIB_SIPAddress* SIPLIB_SIPAddress::createSIPAddressObject(std::string_view /*header*/, std::string_view value) {
  value = siplib::trim(value);
  if (value.empty() || siplib::breaksLine(value) || !siplib::quotesBalanced(value)) return nullptr;
  std::unique_ptr<SIPLIB_SIPAddress> address(new SIPLIB_SIPAddress(value));
  return address->parse() ? address.release() : nullptr;
}

SIPLIB_SIPAddress::~SIPLIB_SIPAddress() = default;

// name-addr or addr-spec, then the header's parameters.
bool SIPLIB_SIPAddress::parse() {
  const std::string_view text = text_;
  const std::size_t open = siplib::findUnquoted(text, '<');
  bracketed_ = open != kNone;
  display_ = header_parameters_ = {};
  std::size_t after = 0;
  if (bracketed_) {
    const std::size_t close = text.find('>', open);
    if (close == kNone) return false;
    const std::string_view display = siplib::trim(text.substr(0, open));
    display_.begin = static_cast<std::size_t>(display.data() - text.data());
    display_.end = display_.begin + display.size();
    if (!parseUri(open + 1, close)) return false;
    after = close + 1;
  } else {
    after = std::min(text.find(';'), text.size());
    if (!parseUri(0, after)) return false;
  }
  after = siplib::skipLws(text, after);
  header_parameters_ = {after, text.size()};
  if (after < text.size() && text[after] != ';') return false;
  // Each has its semicolon: mostly the text is too short for too many.
  const std::size_t most = siplib::limits().max_parameters;
  return text.size() <= most || count(uri_parameters_) + count(header_parameters_) <= most;
}

bool SIPLIB_SIPAddress::parseUri(std::size_t begin, std::size_t end) {
  const std::string_view text = text_;
  const std::string_view uri = siplib::trim(text.substr(begin, end - begin));
  uri_.begin = static_cast<std::size_t>(uri.data() - text.data());
  uri_.end = uri_.begin + uri.size();
  user_info_ = user_ = host_ = port_ = uri_parameters_ = {};

  std::size_t colon = kNone;       // behind the scheme
  std::size_t next_colon = kNone;  // the first after it
  std::size_t at = kNone;
  bool second_at = false;
  for (std::size_t i = uri_.begin; i < uri_.end; ++i) {
    const char c = text[i];
    if (!kStopsInUri[static_cast<unsigned char>(c)]) continue;
    if (c == ':') {
      if (colon == kNone) {
        colon = i;
      } else {
        next_colon = std::min(next_colon, i);
      }
    } else if (c == '@') {
      second_at = at != kNone;
      at = std::min(at, i);
    } else {
      return false;
    }
  }
  if (colon == kNone || colon == uri_.begin || !siplib::isAlpha(uri[0])) return false;
  scheme_ = {uri_.begin, colon};
  const std::string_view scheme = part(scheme_);
  const std::size_t rest = colon + 1;

  if (!siplib::equalsIgnoreCase(scheme, "sip") && !siplib::equalsIgnoreCase(scheme, "sips")) {
    if (!std::all_of(scheme.begin(), scheme.end(), isSchemeChar)) return false;
    user_ = {rest, std::min(text.find(';', rest), uri_.end)};
    uri_parameters_ = {user_.end, uri_.end};
    return !user_.empty();
  }

  // Neither parameters nor headers may hold an "@" (RFC 3261 25.1), a user part may hold their separators. With two of
  // them one reader's host is another's parameter.
  if (at == kNone) return parseHost(rest, uri_.end);
  if (second_at) return false;
  user_info_ = {rest, at + 1};
  user_ = {rest, std::min(next_colon, at)};
  return parseHost(at + 1, uri_.end);
}

bool SIPLIB_SIPAddress::parseHost(std::size_t begin, std::size_t end) {
  const std::string_view text = std::string_view(text_).substr(0, end);
  host_ = {begin, begin + siplib::hostLength(text.substr(begin))};
  if (host_.empty()) return false;
  std::size_t after = host_.end;
  if (after < end && text[after] == ':') {
    port_.begin = port_.end = after + 1;
    while (port_.end < end && siplib::isDigit(text[port_.end])) ++port_.end;
    if (!siplib::decimal(part(port_), 65535)) return false;
    after = port_.end;
  }
  if (after == end) {
    uri_parameters_ = {end, end};
    return true;
  }
  if (text[after] != ';' && text[after] != '?') return false;
  uri_parameters_ = {after, std::min(text.find('?', after), end)};
  return true;
}

// Finds a parameter in a run of ";name=value".
bool SIPLIB_SIPAddress::find(Range in, std::string_view name, Parameter& parameter) const {
  const std::string_view text = std::string_view(text_).substr(0, in.end);
  for (std::size_t at = in.begin; at < in.end;) {
    const std::size_t end = std::min(siplib::findUnquoted(text, ';', at + 1), in.end);
    const std::string_view piece = siplib::trim(text.substr(at + 1, end - at - 1));
    const std::size_t equals = piece.find('=');
    const std::string_view found = siplib::trim(piece.substr(0, equals));
    if (!found.empty() && siplib::equalsIgnoreCase(found, name)) {
      const std::string_view value =
          equals == kNone ? std::string_view(piece.data() + piece.size(), 0) : siplib::trim(piece.substr(equals + 1));
      const auto range = [&](std::string_view view) {
        const auto begin = static_cast<std::size_t>(view.data() - text.data());
        return Range{begin, begin + view.size()};
      };
      parameter = {{at, end}, range(found), range(value)};
      return true;
    }
    at = end;
  }
  return false;
}

std::size_t SIPLIB_SIPAddress::count(Range in) const {
  std::size_t many = 0;
  const std::string_view text = std::string_view(text_).substr(0, in.end);
  for (std::size_t at = in.begin; at < in.end; ++many) at = std::min(siplib::findUnquoted(text, ';', at + 1), in.end);
  return many;
}

std::string SIPLIB_SIPAddress::getDisplayName() const {
  const std::string_view display = part(display_);
  if (display.empty() || display[0] != '"' || siplib::skipQuoted(display, 0) != display.size()) {
    return std::string(display);
  }
  std::string name;
  for (std::size_t i = 1; i + 1 < display.size(); ++i) {
    if (display[i] == '\\') ++i;
    name += display[i];
  }
  return name;
}

int SIPLIB_SIPAddress::getPort() const {
  return port_.empty() ? -1 : static_cast<int>(*siplib::decimal(part(port_), 65535));
}

std::string SIPLIB_SIPAddress::getURI() const {
  std::string uri;
  getURI(uri);
  return uri;
}

void SIPLIB_SIPAddress::getURI(std::string& uri) const {
  uri.assign(getScheme()).append(":").append(getUser());
  if (host_.empty()) return;
  if (!user_.empty()) uri += '@';
  uri += part(host_);
  if (!port_.empty()) uri.append(":").append(part(port_));
}

int SIPLIB_SIPAddress::getParameter(std::string_view name, std::string& value) const {
  Parameter parameter;
  if (!find(uri_parameters_, name, parameter) && !find(header_parameters_, name, parameter)) return -1;
  value = part(parameter.value);
  return 0;
}

void SIPLIB_SIPAddress::replace(Range range, std::string_view with) {
  text_.replace(range.begin, range.end - range.begin, with);
  if (!bracketed_) {
    const std::size_t end = uri_.end - (range.end - range.begin) + with.size();
    text_.insert(end, ">").insert(uri_.begin, "<");
  }
  parse();
}

bool SIPLIB_SIPAddress::setUser(std::string_view user) {
  if (std::any_of(user.begin(), user.end(), [](char c) { return endsUri(c) || c == '@'; })) return false;
  if (host_.empty()) {
    if (user.empty() || user.find(';') != kNone) return false;
    replace(user_, user);
    return true;
  }
  if (user.find(':') != kNone) return false;
  if (user.empty()) {
    if (!user_info_.empty()) replace(user_info_, {});
  } else if (user_info_.empty()) {
    replace({host_.begin, host_.begin}, std::string(user) + "@");
  } else {
    replace(user_, user);
  }
  return true;
}

bool SIPLIB_SIPAddress::setHost(std::string_view host) {
  const std::string text = siplib::hostText(host);
  if (host_.empty() || text.empty()) return false;
  replace(host_, text);
  return true;
}

bool SIPLIB_SIPAddress::setPort(int port) {
  if (host_.empty() || port < 1 || port > 65535) return false;
  const std::string digits = std::to_string(port);
  if (port_.empty()) {
    replace({host_.end, host_.end}, ":" + digits);
  } else {
    replace(port_, digits);
  }
  return true;
}

bool SIPLIB_SIPAddress::removeParameter(std::string_view name) {
  if (siplib::equalsIgnoreCase(name, "port")) {
    if (port_.empty()) return false;
    replace({host_.end, port_.end}, {});
    return true;
  }
  Parameter parameter;
  if (!find(uri_parameters_, name, parameter)) return false;
  replace(parameter.all, {});
  return true;
}
