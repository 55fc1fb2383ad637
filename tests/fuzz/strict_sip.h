// A second reader of SIP messages, for comparing what left the proxy with what came: RFC 3261 section 25.1, strictly,
// and nothing of the proxy's own library in it.
//
// read() holds a message to what every reader must agree on: the start line, the ends of lines, names, folds, the
// body's length. valuesHold() asks the grammar of the values that routing rests on. The first must hold for whatever is
// forwarded; the second is for telling whether forwarding made a message worse, since a proxy passes on values that it
// need not understand.
#pragma once

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace strict {

inline bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || std::string_view("-.!%*_+`'~").find(static_cast<char>(c)) != std::string_view::npos;
  });
}

inline bool isDigits(std::string_view text, std::size_t most) {
  return !text.empty() && text.size() <= most &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= '0' && c <= '9'; });
}

inline std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

inline std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

/// One header line.
struct Line {
  std::string name;   ///< in lower case, never the compact form
  std::string raw;    ///< every byte of it, folds and the last CRLF included
  std::string value;  ///< trimmed, each fold one blank
};

struct Message {
  bool is_request = false;
  std::string method;
  std::string uri;
  int status = 0;
  std::string start_line;
  std::vector<Line> lines;
  std::string body;

  /// The first line of that name, or null.
  const Line* find(std::string_view name) const {
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const Line& line) { return line.name == name; });
    return found == lines.end() ? nullptr : &*found;
  }
  std::string value(std::string_view name) const {
    const Line* const line = find(name);
    return line == nullptr ? std::string() : line->value;
  }
};

inline std::string fullName(std::string_view name) {
  std::string result = lower(name);
  if (result.size() != 1) return result;
  constexpr std::pair<char, const char*> compact[] = {{'a', "accept-contact"},
                                                      {'b', "referred-by"},
                                                      {'c', "content-type"},
                                                      {'d', "request-disposition"},
                                                      {'e', "content-encoding"},
                                                      {'f', "from"},
                                                      {'i', "call-id"},
                                                      {'j', "reject-contact"},
                                                      {'k', "supported"},
                                                      {'l', "content-length"},
                                                      {'m', "contact"},
                                                      {'o', "event"},
                                                      {'r', "refer-to"},
                                                      {'s', "subject"},
                                                      {'t', "to"},
                                                      {'u', "allow-events"},
                                                      {'v', "via"},
                                                      {'x', "session-expires"},
                                                      {'y', "identity"}};
  for (const auto& [letter, full] : compact)
    if (letter == result[0]) return full;
  return result;
}

/// Where an element of a comma-separated list ends, or another mark stands, outside of quotes and angle brackets;
/// npos when nowhere, also when a quote or bracket stays open.
inline std::size_t findOutside(std::string_view text, char mark, std::size_t from = 0) {
  bool quoted = false;
  bool bracketed = false;
  for (std::size_t i = from; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        quoted = false;
    } else if (c == mark && (!bracketed || mark == '>')) {
      return i;
    } else if (c == '"' && !bracketed) {
      quoted = true;
    } else if (c == '<') {
      bracketed = true;
    } else if (c == '>') {
      bracketed = false;
    }
  }
  return std::string_view::npos;
}

/// The elements of a list, trimmed.
inline std::vector<std::string> elements(std::string_view list) {
  std::vector<std::string> result;
  for (;;) {
    const std::size_t comma = findOutside(list, ',');
    result.emplace_back(trim(list.substr(0, comma)));
    if (comma == std::string_view::npos) return result;
    list.remove_prefix(comma + 1);
  }
}

/// The message that stands at the beginning of the text; nothing when it is none. `stream`: its end is told by
/// Content-Length alone. Without one it has no body: that is a fault of the sender's (18.3), but all who take such a
/// message, and old user agents send them, agree on where it ends.
inline std::optional<Message> read(std::string_view text, bool stream) {
  Message message;
  while (text.starts_with("\r\n")) text.remove_prefix(2);  // 7.5
  const std::size_t head_end = text.find("\r\n\r\n");
  if (head_end == std::string_view::npos) return std::nullopt;
  std::string_view head = text.substr(0, head_end + 2);
  const std::string_view rest = text.substr(head_end + 4);
  for (std::size_t i = 0; i < head.size(); ++i) {
    if (head[i] == '\0') return std::nullopt;
    if (head[i] == '\n' && (i == 0 || head[i - 1] != '\r')) return std::nullopt;
    if (head[i] == '\r' && (i + 1 == head.size() || head[i + 1] != '\n')) return std::nullopt;
  }

  const std::size_t start_end = head.find("\r\n");
  const std::string_view start = head.substr(0, start_end);
  head.remove_prefix(start_end + 2);
  message.start_line = start;
  if (lower(start.substr(0, 8)) == "sip/2.0 ") {
    if (start.size() < 12 || !isDigits(start.substr(8, 3), 3) || start[11] != ' ') {
      // Without a reason phrase many leave the blank out as well; nothing can be read differently for it.
      if (start.size() != 11 || !isDigits(start.substr(8, 3), 3)) return std::nullopt;
    }
    std::from_chars(start.data() + 8, start.data() + 11, message.status);
    if (message.status < 100 || message.status > 699) return std::nullopt;
  } else {
    const std::size_t first = start.find(' ');
    const std::size_t last = start.rfind(' ');
    if (first == std::string_view::npos || last <= first) return std::nullopt;
    message.is_request = true;
    message.method = start.substr(0, first);
    message.uri = start.substr(first + 1, last - first - 1);
    if (!isToken(message.method) || message.uri.empty()) return std::nullopt;
    if (message.uri.find_first_of(" \t") != std::string::npos) return std::nullopt;
    if (lower(start.substr(last + 1)) != "sip/2.0") return std::nullopt;
  }

  std::optional<std::size_t> length;
  while (!head.empty()) {
    std::size_t end = head.find("\r\n") + 2;
    while (end < head.size() && (head[end] == ' ' || head[end] == '\t')) end = head.find("\r\n", end) + 2;
    Line line;
    line.raw = head.substr(0, end);
    head.remove_prefix(end);
    const std::size_t colon = line.raw.find(':');
    if (colon == std::string::npos) return std::nullopt;
    const std::string_view name = trim(std::string_view(line.raw).substr(0, colon));
    if (!isToken(name) || line.raw[0] == ' ' || line.raw[0] == '\t') return std::nullopt;
    line.name = fullName(name);
    // A fold is a line end and the blanks around it; it reads as one blank.
    const std::string_view value = std::string_view(line.raw).substr(colon + 1);
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] != '\r') {
        line.value += value[i];
        continue;
      }
      while (!line.value.empty() && (line.value.back() == ' ' || line.value.back() == '\t')) line.value.pop_back();
      while (i + 1 < value.size() && (value[i + 1] == '\n' || value[i + 1] == ' ' || value[i + 1] == '\t')) ++i;
      line.value += ' ';
    }
    line.value = trim(line.value);
    if (line.name == "content-length") {
      if (!isDigits(line.value, 10)) return std::nullopt;
      std::size_t stated = 0;
      std::from_chars(line.value.data(), line.value.data() + line.value.size(), stated);
      if (stated > rest.size() || (length && *length != stated)) return std::nullopt;
      length = stated;
    }
    message.lines.push_back(std::move(line));
  }
  message.body = rest.substr(0, length.value_or(stream ? 0 : rest.size()));
  return message;
}

/// sent-protocol LWS sent-by *( SEMI via-params ), taken apart.
struct Via {
  std::string protocol;  ///< "SIP/2.0/UDP"
  std::string host;
  std::string port;        ///< empty when absent
  std::string parameters;  ///< from the first semicolon on, every byte
};

inline bool isHost(std::string_view host) {
  if (host.starts_with('[')) {
    return host.size() > 2 && host.back() == ']' &&
           host.substr(1, host.size() - 2).find_first_not_of("0123456789abcdefABCDEF:.") == std::string_view::npos;
  }
  return !host.empty() && std::all_of(host.begin(), host.end(),
                                      [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '.'; });
}

inline bool areParameters(std::string_view text) {
  while (!text.empty()) {
    if (text[0] != ';') return false;
    text.remove_prefix(1);
    const std::size_t end = findOutside(text, ';');
    const std::string_view parameter = trim(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end);
    const std::size_t equals = parameter.find('=');
    if (!isToken(trim(parameter.substr(0, equals)))) return false;
    if (equals == std::string_view::npos) continue;
    const std::string_view value = trim(parameter.substr(equals + 1));
    const bool quoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
    if (!quoted && !isToken(value) && !isHost(value)) return false;
  }
  return true;
}

inline std::optional<Via> readVia(std::string_view text) {
  Via via;
  const std::size_t semicolon = findOutside(text, ';');
  if (semicolon != std::string_view::npos) via.parameters = text.substr(semicolon);
  std::string_view front = trim(text.substr(0, semicolon));
  // The three parts of the protocol may have blanks around their slashes.
  int part = 0;
  while (part < 3) {
    const std::size_t end = front.find_first_of(part < 2 ? "/" : " \t");
    if (end == std::string_view::npos || !isToken(trim(front.substr(0, end)))) return std::nullopt;
    via.protocol.append(trim(front.substr(0, end))).append(part < 2 ? "/" : "");
    front = trim(front.substr(end + (part < 2 ? 1 : 0)));
    ++part;
  }
  const std::size_t bracket = front.find(']');
  const std::size_t colon = front.find(':', bracket == std::string_view::npos ? 0 : bracket);
  via.host = trim(front.substr(0, colon));
  if (colon != std::string_view::npos) {
    via.port = trim(front.substr(colon + 1));
    if (!isDigits(via.port, 5)) return std::nullopt;
  }
  if (!isHost(via.host)) return std::nullopt;
  return via;
}

/// name-addr with its parameters, or addr-spec.
struct Address {
  std::string before;  ///< up to the URI, a bracket included
  std::string uri;
  std::string after;  ///< from the bracket on, or from the first semicolon
};

inline std::optional<Address> readAddress(std::string_view text) {
  Address address;
  const std::size_t open = findOutside(text, '<');
  if (open == std::string_view::npos) {
    const std::size_t semicolon = text.find(';');
    address.uri = text.substr(0, semicolon);
    if (semicolon != std::string_view::npos) address.after = text.substr(semicolon);
  } else {
    const std::size_t close = text.find('>', open);
    if (close == std::string_view::npos) return std::nullopt;
    address.before = text.substr(0, open + 1);
    address.uri = text.substr(open + 1, close - open - 1);
    address.after = text.substr(close);
  }
  const std::size_t colon = address.uri.find(':');
  if (colon == std::string::npos || !isToken(std::string_view(address.uri).substr(0, colon))) return std::nullopt;
  if (address.uri.find_first_of(" \t<>\"") != std::string::npos) return std::nullopt;
  return address;
}

/// sip or sips URI: scheme, user with its "@", host, port with its colon, the rest.
struct Uri {
  std::string scheme;
  std::string user;
  std::string host;
  std::string port;
  std::string rest;
};

inline std::optional<Uri> readUri(std::string_view text) {
  Uri uri;
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  uri.scheme = text.substr(0, colon);
  if (lower(uri.scheme) != "sip" && lower(uri.scheme) != "sips") return std::nullopt;
  text.remove_prefix(colon + 1);
  // A user part may hold ";" and "?", a parameter no "@".
  if (const std::size_t at = text.rfind('@'); at != std::string_view::npos) {
    uri.user = text.substr(0, at + 1);
    text.remove_prefix(at + 1);
  }
  const std::size_t end = text.find_first_of(";?");
  if (end != std::string_view::npos) uri.rest = text.substr(end);
  text = text.substr(0, end);
  const std::size_t bracket = text.find(']');
  const std::size_t port = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
  uri.host = text.substr(0, port);
  if (port != std::string_view::npos) {
    uri.port = text.substr(port);
    if (!isDigits(text.substr(port + 1), 5)) return std::nullopt;
  }
  if (!isHost(uri.host)) return std::nullopt;
  return uri;
}

/// Whether the values that routing rests on are what the grammar says; absent ones are not asked.
inline bool valuesHold(const Message& message) {
  for (const Line& line : message.lines) {
    if (line.name == "via") {
      for (const std::string& element : elements(line.value)) {
        const auto via = readVia(element);
        if (!via || !areParameters(via->parameters)) return false;
      }
    } else if (line.name == "from" || line.name == "to") {
      const auto address = readAddress(line.value);
      if (!address) return false;
      const std::string_view after = address->after;
      if (!areParameters(trim(after.starts_with('>') ? after.substr(1) : after))) return false;
    } else if (line.name == "contact" || line.name == "route" || line.name == "record-route") {
      if (line.value == "*" && line.name == "contact") continue;
      for (const std::string& element : elements(line.value))
        if (!readAddress(element)) return false;
    } else if (line.name == "cseq") {
      const std::size_t blank = line.value.find_first_of(" \t");
      if (blank == std::string::npos || !isDigits(std::string_view(line.value).substr(0, blank), 10)) return false;
      if (!isToken(trim(std::string_view(line.value).substr(blank)))) return false;
    } else if (line.name == "call-id") {
      if (line.value.empty() || line.value.find_first_of(" \t") != std::string::npos) return false;
    } else if (line.name == "max-forwards") {
      if (!isDigits(line.value, 3)) return false;
    }
  }
  return true;
}

}  // namespace strict
