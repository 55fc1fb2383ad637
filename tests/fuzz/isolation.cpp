// Who is outside stays outside, and nobody gets what was not for him: a terminal (terminal.h) with two profiles, and
// everybody around it free to send anything. The input is steps between "\n%%"; one that is none is a message, sent by
// everybody in turn.
//
// Promises, after each step, made from what was sent in, by whom, and what left to whom, never from what the proxy
// thinks:
//   from the network  nothing reaches the ordinary SIP processing, changes a table, or goes back into the network but a
//                     100 or 403 to who asked; a request goes to one local user agent at most and only when its Via is
//                     that of a profile's proxy, a response to one, the one that its Via names by key or by tag;
//                     nothing gets the marks of a message between local user agents
//   from a user agent one message at most goes on; to a profile's proxy only what is of that profile by its Via's port,
//                     by a Zel-Profile-ID, or by a key that stands in it
//   honest steps      an answer goes to who asked, or the proxy of one's own profile, or nowhere; so does a request
//                     within a dialog
//   everybody         no secret, no identity of another profile, no tag of a connection that neither the message came
//   on
//                     nor the message itself names, nothing of another party's earlier message, no memory that nobody
//                     wrote; a response on a connection that a peer opened goes nowhere

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "framework/digest.h"
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

/// What stands behind the mark, up to the end of a parameter; empty when the mark stands nowhere or more than once.
std::string onlyParameter(std::string_view text, std::string_view mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos || has(text.substr(at + 1), mark)) return {};
  text.remove_prefix(at + mark.size());
  return std::string(text.substr(0, text.find_first_of("; ")));
}

class Judge {
 public:
  explicit Judge(Terminal& terminal) : terminal_(terminal), first_(terminal.tables()), before_(first_) {}

  void step(std::string_view text) {
    if (!terminal_.step(text)) return;
    const std::string& bytes = terminal_.received();
    const SIPLIB_message received(bytes.data(), bytes.size());
    const auto read = strict::read(bytes, terminal_.way() != Way::Datagram);
    for (const Sent& sent : terminal_.sent()) {
      secrets(sent);
      tags(sent);
    }
    if (received.isResponse() && terminal_.way() == Way::Accepted) HOLDS(forwarded() == 0);
    if (terminal_.who().local)
      fromLocal(received, read);
    else
      fromNetwork(received, read);
    if (terminal_.honest()) honest();
    if (has(bytes, "uthenticate")) challenges_ += bytes;
    before_ = terminal_.tables();
  }

 private:
  bool toNetwork(const Sent& sent) const { return sent.ip != fuzz::kLocalIp; }
  /// Messages that were passed on, not made by the terminal itself.
  std::size_t forwarded() const {
    return static_cast<std::size_t>(std::count_if(terminal_.sent().begin(), terminal_.sent().end(),
                                                  [this](const Sent& sent) { return !terminal_.isOwn(sent); }));
  }

  void fromNetwork(const SIPLIB_message& received, const std::optional<strict::Message>& read) const {
    HOLDS(terminal_.processed() == 0);
    HOLDS(terminal_.tables() == before_);
    HOLDS(forwarded() <= 1);
    for (const Sent& sent : terminal_.sent()) {
      if (toNetwork(sent)) {
        HOLDS(received.isRequest());
        const bool asker = sent.to == &terminal_.who();
        if (sent.text.starts_with("SIP/2.0 403 ")) {
          HOLDS(asker && sent.way == Way::Processing);
        } else {
          // By datagram it goes to the proxy that the request's Via names.
          HOLDS(sent.text.starts_with("SIP/2.0 100 trying\r\n"));
          HOLDS(asker || (sent.way == Way::Datagram && sent.to != nullptr && !sent.to->profile.empty()));
        }
        continue;
      }
      HOLDS(sent.way != Way::Processing && sent.to != nullptr && sent.to->local);
      for (const char* mark : {";scli=", ";dcli=", "Record-Route: <sip:127.0.0.1:5060>"})
        HOLDS(!has(sent.text, mark) || has(terminal_.received(), mark));
      // A connection that the proxy opened carries answers: whatever comes there is led as one.
      if (received.isRequest() && terminal_.way() != Way::Opened) {
        HOLDS(sent.way != Way::Accepted && sent.to->name != 'w' && sent.to->name != 'z');
        if (read && unmoved()) HOLDS(fromAProxy(*read));
      } else {
        HOLDS(sent.way != Way::Opened);
        if (read && unmoved()) addressed(sent, *read);
      }
    }
  }
  bool fromAProxy(const strict::Message& request) const {
    const std::string value = request.value("via");
    const auto via = strict::readVia(strict::elements(value).front());
    if (!via) return true;  // the proxy may read more than the grammar allows; the tests say what
    return std::any_of(terminal_.parties().begin(), terminal_.parties().end(), [&](const Party& one) {
      return !one.local && !one.profile.empty() && one.ip == via->host && std::to_string(one.port) == via->port;
    });
  }
  void addressed(const Sent& sent, const strict::Message& response) const {
    const std::string via = strict::elements(response.value("via")).front();
    if (sent.way == Way::Accepted) {
      const std::string tag = onlyParameter(via, "st=");
      HOLDS(tag.empty() || tag == terminal_.tagOf(sent.to->accepted.get()));
      return;
    }
    const std::string key = onlyParameter(via, has(via, "mok=") ? "mok=" : "mtk=");
    HOLDS(key.empty() || key == terminal_.keyOf(*sent.to));
  }

  /// Whether the Via has one of the first two marks and not the third: between which sides the request went.
  static bool saysOnly(const strict::Message& response, const char* one, const char* other, const char* never) {
    const std::string via = strict::elements(response.value("via")).front();
    return (has(via, one) || has(via, other)) && !has(via, never);
  }
  void fromLocal(const SIPLIB_message& received, const std::optional<strict::Message>& read) const {
    HOLDS(forwarded() <= 1);
    for (const Sent& sent : terminal_.sent()) {
      if (!toNetwork(sent)) {
        if (read && received.isResponse() && sent.way != Way::Processing)
          HOLDS(!saysOnly(*read, "mok=", "mtk=", "scli="));
        continue;
      }
      HOLDS(sent.way != Way::Processing || received.isRequest());
      if (read && received.isResponse()) HOLDS(!saysOnly(*read, "scli=", "scli=", "mok="));
      if (sent.to == nullptr || sent.to->local) continue;  // a route that a program of the terminal has set
      if (unmoved() && !terminal_.honest() && terminal_.tables() == before_) HOLDS(isOfProfile(sent.to->profile));
    }
  }
  /// A program of the terminal may set any route and register as anybody: what follows is its own doing.
  bool unmoved() const { return before_ == first_; }
  /// Whether anything in what the user agent sent names the profile.
  bool isOfProfile(const std::string& profile) const {
    const std::string& text = terminal_.received();
    if (has(strict::lower(text), "zel-profile-id")) return true;
    return std::any_of(terminal_.parties().begin(), terminal_.parties().end(), [&](const Party& one) {
      if (!one.local || profile.empty() || one.profile != profile) return false;
      const std::string key = terminal_.keyOf(one);
      return has(text, ':' + std::to_string(one.port)) || has(text, "mok=" + key) || has(text, "mtk=" + key);
    });
  }

  void honest() const {
    const Party* const peer = terminal_.honestTo();
    if (peer == nullptr || namesAnother(*peer)) return;
    for (const Sent& sent : terminal_.sent()) {
      if (!unmoved() || terminal_.isOwn(sent) || sent.to == nullptr || sent.to == peer) continue;
      // What a stranger began in a proxy's name ends at the proxy.
      HOLDS(!peer->local && !sent.to->local && !sent.to->profile.empty() &&
            (sent.to->profile == terminal_.who().profile || sent.to->profile == peer->profile));
    }
  }

  /// Whether a request within a dialog carries the key of another user agent. A peer may have one in its Contact, as
  /// that of another terminal like this one has, and the tag that goes into it then counts only where it ends up in the
  /// URI: not behind a display name with a ">" in it.
  bool namesAnother(const Party& peer) const {
    const std::string& text = terminal_.received();
    // An answer goes by the Via, which the user agent's own request may have had another's key put into.
    const std::size_t at = text.starts_with("SIP/") ? text.find("\r\n") + 2 : 0;
    const std::string_view uri = std::string_view(text).substr(at, text.find("\r\n", at) - at);
    // The network goes on with whom the user agent's own request has named.
    const Party& ours = terminal_.who().local ? terminal_.who() : peer;
    const std::string own = ours.local ? terminal_.keyOf(ours) : std::string();
    const bool named = has(uri, "mok=") || has(uri, "mtk=");
    return named && !has(uri, "mok=" + own) && !has(uri, "mtk=" + own);
  }

  void secrets(const Sent& sent) const {
    const std::string& text = sent.text;
    for (std::size_t i = 0; i < std::size(fuzz::kSecrets); ++i) {
      const std::string profile = std::to_string(i + 1);
      HOLDS(!has(text, fuzz::kSecrets[i]));
      // The watcher is told whose profile it is; the network only its own, wherever its route leads.
      if (unmoved() && (sent.to == nullptr || (sent.to->profile != profile || sent.to->local))) {
        HOLDS(!has(text, fuzz::kIdentities[i]) || has(terminal_.received(), fuzz::kIdentities[i]) ||
              sent.way == Way::Processing);
      }
      for (const char* realm : {"home.net", "work.net"}) {
        DIGEST_HASH_HEX_T hash;
        DigestCalcHA1("MD5", std::string(fuzz::kIdentities[i]).c_str(), realm, std::string(fuzz::kSecrets[i]).c_str(),
                      "", "", hash);
        HOLDS(!has(text, hash));
      }
    }
    // What this step did not say, nobody hears now: each step's own texts differ.
    for (std::size_t at = text.find("mark"); at != std::string::npos; at = text.find("mark", at + 1)) {
      const std::size_t end = text.find('-', at);
      if (end == std::string::npos || end - at > 10) continue;
      const std::string mark = text.substr(at, end + 1 - at);
      HOLDS(sent.way == Way::Processing || has(terminal_.received(), mark) || fromChallenge(mark));
    }
    // AddressSanitizer fills what is allocated with this byte.
    HOLDS(!has(text, "\xbe\xbe\xbe\xbe") || has(terminal_.received(), "\xbe\xbe"));
  }
  /// A challenge of the network is repeated in what answers it.
  bool fromChallenge(const std::string& mark) const { return has(challenges_, mark); }
  void tags(const Sent& sent) const {
    for (const Party& one : terminal_.parties()) {
      const std::string tag = terminal_.tagOf(one.accepted.get());
      if (tag.empty() || !has(sent.text, tag) || has(terminal_.received(), tag) || fromChallenge(tag)) continue;
      HOLDS(terminal_.way() == Way::Accepted && &one == &terminal_.who());
    }
  }

  Terminal& terminal_;
  const std::string first_;
  std::string before_;
  std::string challenges_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  Terminal terminal;
  Judge judge(terminal);
  const std::string_view input = fuzz::view(data, size);
  if (!Terminal::isStep(input) && input.find("\n%%") == std::string_view::npos) {
    for (const char* who : {"au", "at", "co", "1u", "1t", "2o", "xu", "xt", "zu"})
      judge.step(std::string(who) + '\n' + std::string(input));
    return 0;
  }
  std::size_t count = 0;
  for (const std::string_view step : fuzz::split(input, "\n%%")) {
    if (++count > kSteps) break;
    judge.step(step);
  }
  return 0;
}
