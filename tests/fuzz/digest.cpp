// The path of a challenge: from a 401 or 407 of the network into the headers of a client's next request.
//
//   lines: "w..." and "p..." a challenge (WWW-Authenticate, Proxy-Authenticate), "r" a request of the client, "a..."
//   and "b..." one with those credentials (Authorization, Proxy-Authorization), "u..." the Request-URI from now on
//
// Promises: whatever the network sends, the request stays a message that parses, everything in it but the two
// credentials headers stays as it was, every header made here can be read and has the domain's user name and a response
// of 32 hexadecimal digits, the password stands nowhere, and what is kept stays within its limits.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "framework/bounds.h"
#include "input.h"
#include "routing/routing_table_impl.h"
#include "siplib/header.h"
#include "siplib/limits.h"
#include "siplib/text.h"
#include "support/fake_siplib.h"

namespace {

constexpr std::size_t kSteps = 48;
constexpr const char* kPassword = "s3cr3t-0f-alice";

bool isHexadecimal(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return siplib::isDigit(c) || (c >= 'a' && c <= 'f'); });
}

/// A header of the request as it leaves. Those that the client wrote itself may be anything.
void check(const char* name, const std::string& value, const std::vector<std::string>& of_client) {
  PROMISE(value.find(kPassword) == std::string::npos);
  if (std::find(of_client.begin(), of_client.end(), value) != of_client.end()) return;
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, value));
  PROMISE(header != nullptr);
  // A challenge with as many parameters as a header may have leaves no room for more.
  if (static_cast<std::size_t>(std::count(value.begin(), value.end(), ',')) + 16 > siplib::limits().max_parameters)
    return;
  std::string text;
  PROMISE(header->getParameter("username", text) == 0 && text == "\"alice@home.net\"");
  PROMISE(header->getParameter("response", text) == 0 && text.size() == 34 && isHexadecimal(text.substr(1, 32)));
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
  entry.username = "alice@home.net";
  entry.password = kPassword;
  PROMISE(table.addDomain(entry));
  const std::string domain = table.findDomain(DT_PROFILE_ID, "1");

  FakeServerTcp connection;
  std::string uri = "sip:bob@home.net";
  std::size_t steps = 0;
  for (std::string_view line : fuzz::split(fuzz::view(data, size), "\n")) {
    if (line.empty() || ++steps > kSteps) continue;
    const char kind = line[0];
    const std::string argument(line.substr(1));
    if (kind == 'u') {
      uri = argument;
    } else if (kind == 'w' || kind == 'p') {
      connection.set(sipResponse(kind == 'w' ? 401 : 407, "Unauthorized",
                                 {{kind == 'w' ? "WWW-Authenticate" : "Proxy-Authenticate", argument}}));
      auth.update_auth_info_for_response(&connection, domain);
    } else if (kind == 'r' || kind == 'a' || kind == 'b') {
      FakeHeaders headers = {{"From", "<sip:alice@home.net>;tag=1"}, {"CSeq", std::to_string(steps) + " INVITE"}};
      if (kind != 'r') headers.emplace_back(kind == 'a' ? "Authorization" : "Proxy-Authorization", argument);
      connection.set(sipRequest("INVITE", uri, headers, "body"));
      const SIPLIB_SIPMessageHandle request = connection.getSipMessageHandle();
      if (!request->valid()) continue;
      std::vector<std::string> of_client;
      for (const char* name : {"Authorization", "Proxy-Authorization"})
        for (const std::string_view value : request->headers(name)) of_client.emplace_back(value);
      auth.update_auth_info_for_request(&connection, domain, "0");
      const std::string text = connection.current();
      SIPLIB_message sent(text.data(), text.size());
      PROMISE(sent.valid() || sent.parseError().find("limit") != std::string_view::npos);
      for (const char* name : {"Authorization", "Proxy-Authorization"}) {
        for (const std::string_view value : request->headers(name)) check(name, std::string(value), of_client);
        sent.removeHeaders(name);
      }
      for (auto& header : headers)
        if (sent.valid() && header.first.find("Auth") == std::string::npos)
          PROMISE(sent.header(header.first) == header.second);
      PROMISE(!sent.valid() || sent.body() == "body");
    }
  }
  if (const Auth_Info_T* info = auth.auth_info(domain)) {
    std::size_t bytes = 0;
    for (const Auth_Hdrs_T& challenge : info->auth_hdrs) bytes += challenge.auth_hdr.size();
    PROMISE(info->auth_hdrs.size() <= framework::bounds().challenges && bytes <= kMaxChallengeBytes &&
            info->clients.size() <= 1);
  }
  IMS_Proxy_Authenticate::rt_ptr = nullptr;
  IMS_User_Agent::ua_connector = nullptr;
  return 0;
}
