// What leaves is what came, but for what the proxy must change: a terminal (terminal.h) whose every forwarded message
// is read by a second, strict reader (strict_sip.h) and compared, line by line, with what was put in. The input is
// steps between "\n%%"; one that is none is a message, which gets what makes each direction take it.
//
//   direction                may differ
//   UA to network, request   top Via: host, port, tags behind it; Contact: host, port, user, tags (none in a REGISTER);
//                            Zel-Profile-ID out; User-agent, the client's own headers, credentials in
//   network to UA, response  top Via: host, port, cut before the tags; Contact: tags in
//   network to UA, request   top Via: host, port, tags behind it, a branch where there was none; Contact: tags in
//   UA to network, response  top Via: host, port, cut before the tags, the branch that was none; Contact: tags in;
//                            Zel-Profile-ID out; User-agent in
//   UA to UA, request        top Via: port, tags behind it; Contact: tags; Record-Route in, or Route out
//   UA to UA, response       top Via: port, cut before the tags; Contact: tags
//   any, on a connection     Content-Length in, where the sender gave none
//
// All else is the same: start line, body, and every other header line byte for byte, in number and order. A message
// that the strict reader takes to hold good values still does when it leaves.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "strict_sip.h"
#include "terminal.h"

namespace {

using fuzz::Party;
using fuzz::Sent;
using fuzz::Terminal;
using fuzz::Way;

constexpr std::size_t kSteps = 30;

bool has(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// "NAME=VALUE" with a value in it, and no further parameter; cut off the front of the text.
bool cutTag(std::string_view& text, std::string_view mark) {
  if (!text.starts_with(mark)) return false;
  const std::size_t end = std::min(text.find(';', mark.size()), text.size());
  text.remove_prefix(end);
  return end > mark.size();
}
/// The tags that the proxy writes between a client and the network.
bool areDialogTags(std::string_view text) {
  cutTag(text, ";profile=");
  return (cutTag(text, ";mok=") || cutTag(text, ";mtk=")) && text.empty();
}
bool areViaTags(std::string_view text, bool local) {
  if (local) {
    // Over TCP the last one follows without a semicolon.
    return cutTag(text, ";scli=") && cutTag(text, ";dcli=") && (text.empty() || (cutTag(text, ";st=") && text.empty()));
  }
  cutTag(text, ";profile=");
  if (!cutTag(text, ";mok=") && !cutTag(text, ";mtk=")) return false;
  return text.empty() || (cutTag(text, ";st=") && text.empty());
}
bool isInserted(std::string_view before, std::string_view after, bool (*good)(std::string_view)) {
  if (after.size() < before.size()) return false;
  const std::string_view::size_type same = static_cast<std::size_t>(
      std::mismatch(before.begin(), before.end(), after.begin(), after.end()).first - before.begin());
  // The text may go on as what was put in begins, so any place up to there may be the one.
  for (std::size_t at = same + 1; at-- > 0;) {
    const std::string_view in = after.substr(at, after.size() - before.size());
    if (before.substr(at) == after.substr(at + in.size()) && good(in)) return true;
  }
  return false;
}

class Comparison {
 public:
  Comparison(const Terminal& terminal, const Sent& sent) : terminal_(terminal), sent_(sent) {
    from_local_ = terminal.who().local;
    to_local_ = sent.ip == fuzz::kLocalIp;
  }

  void make() {
    // What stands behind a NUL is never shown to the parser, nor passed on.
    std::string bytes = terminal_.received();
    if (const std::size_t nul = bytes.find('\0'); nul != std::string::npos)
      std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(nul), bytes.end(), '\0');
    const auto in = strict::read(bytes, terminal_.way() != Way::Datagram);
    HOLDS(in);
    const auto out = strict::read(sent_.text, false);
    HOLDS(out);
    if (in->is_request && !out->is_request) {
      // The registrar's answer, which came the proxy's way to itself.
      HOLDS(from_local_ && to_local_);
      return;
    }
    // What comes on a connection that the proxy opened is led as an answer, whatever it is.
    request_ = in->is_request && terminal_.way() != Way::Opened;
    HOLDS(!strict::valuesHold(*in) || strict::valuesHold(*out));
    HOLDS(in->start_line == out->start_line);
    HOLDS(in->body == out->body);
    compare(*in, *out);
  }

 private:
  void compare(const strict::Message& in, const strict::Message& out) {
    bool via = false;
    bool contact = false;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < in.lines.size() || j < out.lines.size()) {
      const strict::Line* const came = i < in.lines.size() ? &in.lines[i] : nullptr;
      const strict::Line* const left = j < out.lines.size() ? &out.lines[j] : nullptr;
      const bool both = came != nullptr && left != nullptr && came->name == left->name;
      if (both && came->name == "via" && !via) {
        compareTop(*came, *left, in, &Comparison::compareVia);
        via = true;
      } else if (both && came->name == "contact" && !contact) {
        if (came->raw != left->raw) compareTop(*came, *left, in, &Comparison::compareContact);
        contact = true;
      } else if (both && came->raw == left->raw) {
      } else if (left != nullptr && mayBePutIn(*left, in, out)) {
        ++j;
        continue;
      } else {
        HOLDS(came != nullptr && mayBeLeftOut(*came, in));
        ++i;
        continue;
      }
      ++i;
      ++j;
    }
    const bool named = user_agents_ == 1;
    HOLDS(named == (from_local_ && !to_local_));
  }

  bool mayBePutIn(const strict::Line& line, const strict::Message& in, const strict::Message& out) {
    if (line.name == "content-length") {
      return sent_.way != Way::Datagram && in.find("content-length") == nullptr &&
             line.value == std::to_string(out.body.size());
    }
    if (from_local_ && to_local_) {
      return request_ && line.raw == "Record-Route: <sip:127.0.0.1:5060>\r\n" && ++record_routes_ == 1;
    }
    if (!from_local_ || to_local_) return false;
    if (line.raw.starts_with("User-agent: ue-proxy/")) return ++user_agents_ == 1;
    if (!request_) return false;
    if (line.raw.starts_with("P-Own: of-")) return line.value.size() == 4 && ++own_headers_ == 1;
    return (line.name == "authorization" || line.name == "proxy-authorization") && line.value.starts_with("Digest ");
  }
  bool mayBeLeftOut(const strict::Line& line, const strict::Message& in) const {
    if (!from_local_) return false;
    if (to_local_) return line.name == "route" && request_ && has(in.uri, "scli=");
    if (line.name == "zel-profile-id") return !request_ || in.method == "REGISTER" || in.method == "SUBSCRIBE";
    return request_ && (line.name == "authorization" || line.name == "proxy-authorization");
  }

  using Compare = void (Comparison::*)(const std::string&, const std::string&, const strict::Message&);
  /// Of a line only the first element of its list may differ.
  void compareTop(const strict::Line& came, const strict::Line& left, const strict::Message& in, Compare compare_top) {
    HOLDS(came.raw.substr(0, came.raw.find(':') + 1) == left.raw.substr(0, left.raw.find(':') + 1));
    const std::vector<std::string> before = strict::elements(came.value);
    const std::vector<std::string> after = strict::elements(left.value);
    HOLDS(before.size() == after.size());
    HOLDS(std::equal(before.begin() + 1, before.end(), after.begin() + 1));
    (this->*compare_top)(before.front(), after.front(), in);
  }

  void compareVia(const std::string& came, const std::string& left, const strict::Message& /*in*/) {
    const auto before = strict::readVia(came);
    // What the grammar does not know is read in the proxy's own way, and only has to stay one value.
    if (!before) return;
    const auto after = strict::readVia(left);
    HOLDS(after);
    HOLDS(before->protocol == after->protocol);
    const bool local = from_local_ && to_local_;
    if (local) {
      HOLDS(before->host == after->host);
    } else if (request_ || to_local_) {
      HOLDS(after->host == (to_local_ ? fuzz::kLocalIp : fuzz::kNetworkIp));
    } else {
      HOLDS(isAProxy(*after));
    }
    if (request_) HOLDS(after->port == std::to_string(fuzz::kPort));
    if (!request_ && sent_.way == Way::Datagram) HOLDS(after->port == std::to_string(sent_.port));
    std::string_view was = before->parameters;
    std::string_view is = after->parameters;
    constexpr std::string_view kNoBranch = ";branch=z9hG4bK-nobranch";
    if (request_) {
      HOLDS(is.starts_with(was));
      is.remove_prefix(was.size());
      if (!from_local_ && is.starts_with(kNoBranch)) is.remove_prefix(kNoBranch.size());
      HOLDS(areViaTags(is, local));
      return;
    }
    std::string without(was);
    if (from_local_ && !to_local_) {
      if (const std::size_t at = without.find(kNoBranch); at != std::string::npos) without.erase(at, kNoBranch.size());
      was = without;
    }
    HOLDS(was.starts_with(is));
    was.remove_prefix(is.size());
    HOLDS(local ? was.starts_with(";scli=") : was.starts_with(";mok=") || was.starts_with(";mtk="));
  }

  bool isAProxy(const strict::Via& via) const {
    const auto& parties = terminal_.parties();
    return std::any_of(parties.begin(), parties.end(), [&](const Party& one) {
      return !one.local && !one.profile.empty() && one.ip == via.host && std::to_string(one.port) == via.port;
    });
  }

  void compareContact(const std::string& came, const std::string& left, const strict::Message& in) {
    if (from_local_ && to_local_) {
      // Earlier tags give way, with all that stands behind them.
      std::string without = came;
      if (const std::size_t at = came.find(";scli="); at != std::string::npos && has(came, ">")) {
        const std::size_t end = came.find('>');
        without.erase(at, end < at ? std::string::npos : end - at);
      }
      HOLDS(isInserted(without, left, [](std::string_view text) {
        return cutTag(text, ";scli=") && cutTag(text, ";dcli=") && text.empty();
      }));
      return;
    }
    if (!from_local_ || !request_) {
      HOLDS(isInserted(came, left, areDialogTags));
      return;
    }
    const auto before = strict::readAddress(came);
    if (!before) return;  // as with Via
    const auto after = strict::readAddress(left);
    HOLDS(after);
    // A URI that stood bare is written in brackets: parameters behind it stay the header's.
    const bool bare = before->before.empty();
    HOLDS((bare ? '>' + before->after : before->after) == after->after);
    const auto uri = strict::readUri(before->uri);
    if (!uri) return;
    const auto now = strict::readUri(after->uri);
    HOLDS(now);
    HOLDS(now->scheme == uri->scheme && now->user.empty() && now->host == fuzz::kNetworkIp);
    HOLDS(now->port == ':' + std::to_string(fuzz::kPort));
    // The first ">" may stand in a display name: then the tags do.
    if (has(before->before, ">")) return;
    HOLDS((bare ? "<" : before->before) == after->before);
    HOLDS(now->rest.starts_with(uri->rest));
    const std::string_view tags = std::string_view(now->rest).substr(uri->rest.size());
    HOLDS(in.method == "REGISTER" ? tags.empty() : areDialogTags(tags));
  }

  const Terminal& terminal_;
  const Sent& sent_;
  bool from_local_ = false;
  bool to_local_ = false;
  bool request_ = false;
  int user_agents_ = 0;
  int own_headers_ = 0;
  int record_routes_ = 0;
};

void step(Terminal& terminal, std::string_view text) {
  if (!terminal.step(text)) return;
  for (const Sent& sent : terminal.sent())
    if (!terminal.isOwn(sent) && !(sent.ip == fuzz::kLocalIp && sent.port == fuzz::kPort))
      Comparison(terminal, sent).make();
}

/// The message with header lines put before its first.
std::string dressed(const char* step, std::string_view message, std::string_view lines) {
  const std::size_t start = message.find("\r\n");
  if (start == std::string_view::npos) return {};
  return std::string(step).append("\n").append(message, 0, start + 2).append(lines).append(message, start + 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  Terminal terminal;
  const std::string_view input = fuzz::view(data, size);
  if (!Terminal::isStep(input) && input.find("\n%%") == std::string_view::npos) {
    constexpr std::string_view from_user = "Via: SIP/2.0/TCP 127.0.0.1:5071;branch=z9hG4bKu\r\n";
    constexpr std::string_view from_network =
        "Via: SIP/2.0/TCP 127.0.0.3:5080;branch=z9hG4bKn\r\nAccept-Contact: *;+g.of-a\r\n";
    constexpr std::string_view answer = "Via: SIP/2.0/TCP 127.0.0.2:5060;branch=z9hG4bKu;mok={a};st={ta}\r\n";
    constexpr std::string_view local_answer = "Via: SIP/2.0/TCP 127.0.0.1:5060;branch=z9hG4bKn;mtk={a};st={t1}\r\n";
    const bool response = input.starts_with("SIP/2.0 ");
    for (const char* who : {"au", "at"}) step(terminal, dressed(who, input, response ? local_answer : from_user));
    for (const char* who : {"1u", "1t"}) step(terminal, dressed(who, input, response ? answer : from_network));
    if (response) step(terminal, dressed("ao", input, local_answer));
    if (response) step(terminal, dressed("1o", input, answer));
    return 0;
  }
  std::size_t count = 0;
  for (const std::string_view one : fuzz::split(input, "\n%%")) {
    if (++count > kSteps) break;
    step(terminal, one);
  }
  return 0;
}
