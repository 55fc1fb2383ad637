// The path of a challenge: from a 401 or 407 of the network into the headers of a client's next request.
//
//   lines: "w..." and "p..." a challenge (WWW-Authenticate, Proxy-Authenticate), "r" a request of the client, "a..."
//   and "b..." one with those credentials (Authorization, Proxy-Authorization), "u..." the Request-URI from now on
//
// Promises: whatever the network sends, the request stays a message that parses, everything in it but the two
// credentials headers stays as it was, every header made here can be read and has the domain's user name and a response
// of 32 hexadecimal digits over the Request-URI as it stands, what is written into it are whole values, the password
// stands nowhere, and what is kept stays within its limits. A challenge that was taken is answered in the next request,
// in which no realm is answered twice and at most eight answers are added; an answer of the client's own goes only for
// one of its realm, and without nonce only in place of one.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "framework/bounds.h"
#include "framework/digest.h"
#include "input.h"
#include "routing/routing_table_impl.h"
#include "siplib/header.h"
#include "siplib/limits.h"
#include "siplib/text.h"
#include "support/fake_siplib.h"

namespace {

constexpr std::size_t kSteps = 48;
constexpr const char* kPassword = "s3cr3t-0f-alice";
constexpr const char* kUserName = R"(al"ice, realm="x\@home.net)";
const std::string kNone = "\r";  // in no header
const std::vector<const char*> kNames = {"Authorization", "Proxy-Authorization"};

bool isHexadecimal(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return siplib::isDigit(c) || (c >= 'a' && c <= 'f'); });
}

/// What a value says, read by the letter: a quoted string, or a text without anything that could end it. False for
/// anything else.
bool readValue(const std::string& value, std::string& text) {
  text.clear();
  if (value.empty() || value[0] != '"') {
    text = value;
    return std::none_of(value.begin(), value.end(), [](char c) {
      return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '"' || c == ',' || c == '\\';
    });
  }
  std::size_t at = 1;
  for (; at < value.size() && value[at] != '"'; ++at) {
    if (value[at] == '\\') ++at;
    if (at < value.size()) text += value[at];
  }
  return at + 1 == value.size();
}

/// A header's parameter; kNone when there is none or it is not one value.
std::string parameter(const char* header_name, const std::string& value, const char* name) {
  std::string raw, text;
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(header_name, value));
  return header && header->getParameter(name, raw) == 0 && readValue(raw, text) ? text : kNone;
}

/// The digest of an answer without qop, where no escape in the challenge leaves a doubt what it is over.
void checkDigest(const char* name, const std::string& value, const std::string& uri) {
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, value));
  std::string raw;
  for (const char* of_challenge : {"realm", "nonce"})
    if (header->getParameter(of_challenge, raw) != 0 || raw.find('\\') != std::string::npos) return;
  const std::string realm = parameter(name, value, "realm");
  const std::string nonce = parameter(name, value, "nonce");
  const std::string algorithm = parameter(name, value, "algorithm");
  if (algorithm != kNone && algorithm != "MD5") return;
  if (parameter(name, value, "qop") != kNone) return;
  DIGEST_HASH_HEX_T key, response;
  DigestCalcHA1(algorithm.c_str(), kUserName, realm.c_str(), kPassword, nonce.c_str(), "", key);
  DigestCalcResponse(key, nonce.c_str(), "", "", "", "INVITE", uri.c_str(), "", response);
  PROMISE(parameter(name, value, "response") == response);
}

/// A header of the request as it leaves. Those that the client wrote itself may be anything.
void check(const char* name, const std::string& value, const std::string& uri) {
  PROMISE(value.find(kPassword) == std::string::npos);
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, value));
  PROMISE(header != nullptr);
  // A challenge with as many parameters as a header may have leaves no room for more.
  if (static_cast<std::size_t>(std::count(value.begin(), value.end(), ',')) + 16 > siplib::limits().max_parameters)
    return;
  PROMISE(parameter(name, value, "username") == kUserName);
  PROMISE(parameter(name, value, "uri") == uri);
  std::string text;
  const bool with_qop = parameter(name, value, "qop") == "auth";
  for (const char* own : {"realm", "nonce"}) PROMISE(parameter(name, value, own) != kNone);
  if (header->getParameter("opaque", text) == 0) PROMISE(parameter(name, value, "opaque") != kNone);
  if (with_qop)
    for (const char* own : {"cnonce", "nc"}) PROMISE(parameter(name, value, own) != kNone);
  PROMISE(header->getParameter("response", text) == 0 && text.size() == 34 && isHexadecimal(text.substr(1, 32)));
  checkDigest(name, value, uri);
}

/// The realms that the request answers, none twice.
std::vector<std::string> realms(const char* name, const std::vector<std::string>& values) {
  std::vector<std::string> found;
  for (const std::string& value : values) {
    const std::string realm = parameter(name, value, "realm");
    if (realm == kNone) continue;
    PROMISE(std::none_of(found.begin(), found.end(),
                         [&](const std::string& other) { return siplib::equalsIgnoreCase(other, realm); }));
    found.push_back(realm);
  }
  return found;
}

/// What came of an answer of the client's own, the only one that it brought, where so many challenges were known.
void checkOwn(const char* name, const std::string& own, const std::vector<std::string>& sent, std::size_t known) {
  if (std::find(sent.begin(), sent.end(), own) != sent.end()) return;
  if (known == 1) {
    std::string nonce;
    const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, own));
    PROMISE(header && header->getParameter("nonce", nonce) == 0 && !nonce.empty() && nonce != "\"\"");
    return;
  }
  const std::string realm = parameter(name, own, "realm");
  if (realm == kNone || realm.empty()) return;
  const std::vector<std::string> answered = realms(name, sent);
  PROMISE(std::any_of(answered.begin(), answered.end(),
                      [&](const std::string& other) { return siplib::equalsIgnoreCase(other, realm); }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The fuzzer guesses what is compared with.
  if (fuzz::view(data, size).find(kPassword) != std::string_view::npos) return 0;
  fuzz::logEverything();
  FakeConnector connector;
  IMS_User_Agent::ua_connector = &connector;
  IMS_engine_proxy::net_intf_ip = "127.0.0.2";
  IMS_engine_proxy::net_intf_port = "5060";
  IMS_engine_proxy::arg_dynport = nullptr;
  IMS_Proxy_RoutingTable_Impl table;
  IMS_Proxy_Authenticate auth(&table);
  Domain_Entry_T entry;
  entry.profile_id = "1";
  entry.username = kUserName;
  entry.password = kPassword;
  PROMISE(table.addDomain(entry));
  const std::string domain = table.findDomain(DT_PROFILE_ID, "1");
  ClientTable_Entry_T user_agent;
  user_agent.ua_port = "5071";
  PROMISE(table.addClient(user_agent));
  const std::string client = table.findKey(CT_UA_PORT, "5071");

  FakeServerTcp connection;
  std::string uri = "sip:bob@home.net";
  std::size_t steps = 0;
  const char* last_kind = nullptr;  // of the challenge that was taken last, and its realm
  std::string last_realm;
  for (std::string_view line : fuzz::split(fuzz::view(data, size), "\n")) {
    if (line.empty() || ++steps > kSteps) continue;
    const char kind = line[0];
    const std::string argument(line.substr(1));
    if (kind == 'u') {
      uri = argument;
    } else if (kind == 'w' || kind == 'p') {
      connection.set(sipResponse(kind == 'w' ? 401 : 407, "Unauthorized",
                                 {{kind == 'w' ? "WWW-Authenticate" : "Proxy-Authenticate", argument}}));
      if (!auth.update_auth_info_for_response(&connection, domain)) continue;
      last_kind = kNames[kind == 'w' ? 0 : 1];
      last_realm = parameter(last_kind, argument, "realm");
    } else if (kind == 'r' || kind == 'a' || kind == 'b') {
      FakeHeaders headers = {{"From", "<sip:alice@home.net>;tag=1"}, {"CSeq", std::to_string(steps) + " INVITE"}};
      if (kind != 'r') headers.emplace_back(kind == 'a' ? "Authorization" : "Proxy-Authorization", argument);
      connection.set(sipRequest("INVITE", uri, headers, "body"));
      const SIPLIB_SIPMessageHandle request = connection.getSipMessageHandle();
      if (!request->valid()) continue;
      std::vector<std::string> of_client;
      for (const char* name : kNames)
        for (const std::string_view value : request->headers(name)) of_client.emplace_back(value);
      const Auth_Info_T* before = auth.auth_info(domain);
      const std::size_t known = before == nullptr ? 0 : before->auth_hdrs.size();
      auth.update_auth_info_for_request(&connection, domain, client);
      const std::string text = connection.current();
      SIPLIB_message sent(text.data(), text.size());
      PROMISE(sent.valid() || sent.parseError().find("limit") != std::string_view::npos);
      std::size_t added = 0;
      for (const char* name : kNames) {
        std::vector<std::string> values;
        for (const std::string_view value : request->headers(name)) values.emplace_back(value);
        for (const std::string& value : values) {
          if (std::find(of_client.begin(), of_client.end(), value) != of_client.end()) continue;
          check(name, value, uri);
          ++added;
        }
        const std::vector<std::string> answered = realms(name, values);
        if (kind == 'r' && last_kind == name && last_realm != kNone)
          PROMISE(std::find(answered.begin(), answered.end(), last_realm) != answered.end());
        if (!of_client.empty() && name == kNames[kind == 'a' ? 0 : 1]) checkOwn(name, of_client[0], values, known);
        sent.removeHeaders(name);
      }
      PROMISE(added <= kMaxCredentials);
      for (auto& header : headers)
        if (sent.valid() && header.first.find("Auth") == std::string::npos)
          PROMISE(sent.header(header.first) == header.second);
      PROMISE(!sent.valid() || sent.body() == "body");
    }
  }
  if (const Auth_Info_T* info = auth.auth_info(domain)) {
    for (const Auth_Hdrs_T& challenge : info->auth_hdrs) PROMISE(challenge.auth_hdr.size() <= kMaxChallengeSize);
    PROMISE(info->auth_hdrs.size() <= framework::bounds().challenges && info->clients.size() <= 1);
  }
  IMS_Proxy_Authenticate::rt_ptr = nullptr;
  IMS_User_Agent::ua_connector = nullptr;
  return 0;
}
