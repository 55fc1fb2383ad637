// A store beside a real routing table, whose domain "home" has credentials; the engine is a fake that opens nothing.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "framework/bounds.h"
#include "routing/routing_table_impl.h"
#include "siplib/header.h"
#include "support/fake_siplib.h"
#include "support/log_capture.h"

using Texts = std::vector<std::string>;

class Authenticate : public testing::Test {
 protected:
  Authenticate();
  ~Authenticate() override;

  std::string add_domain(const std::string& profile_id, const std::string& username, const std::string& password) {
    Domain_Entry_T entry;
    entry.profile_id = profile_id;
    entry.username = username;
    entry.password = password;
    entry.proxy_ip = "192.0.2.1";
    EXPECT_TRUE(table.addDomain(entry));
    return table.findDomain(DT_PROFILE_ID, profile_id);
  }

  /// A client of the domain "home"; its key.
  std::string add_client(const std::string& ua_port) {
    ClientTable_Entry_T entry;
    entry.ua_port = ua_port;
    entry.profile_id = "home";
    EXPECT_TRUE(table.addClient(entry));
    return table.findKey(CT_UA_PORT, ua_port);
  }

  /// A request as a client sends it, `headers` beside its CSeq. It stays the current message of the connection given.
  static void set_request(FakeServerTcp& connection, const FakeHeaders& headers = {},
                          const std::string& method = "INVITE", const std::string& cseq = "1") {
    FakeHeaders all = {{"From", "<sip:alice@home.example>;tag=1"}, {"To", "<sip:bob@home.example>"}};
    all.emplace_back("CSeq", cseq + " " + method);
    all.insert(all.end(), headers.begin(), headers.end());
    connection.set(sipRequest(method, "sip:bob@home.example", all));
    bool is_request = false;
    ASSERT_TRUE(connection.getSipMsgType(is_request) && is_request);
  }
  static void set_response(FakeServerTcp& connection, int status, const FakeHeaders& headers = {}) {
    FakeHeaders all = {{"From", "<sip:alice@home.example>;tag=1"}, {"To", "<sip:bob@home.example>;tag=2"}};
    all.emplace_back("CSeq", "1 INVITE");
    all.insert(all.end(), headers.begin(), headers.end());
    connection.set(sipResponse(status, "Unauthorized", all));
    bool is_request = true;
    ASSERT_TRUE(connection.getSipMsgType(is_request) && !is_request);
  }
  /// Lets the store record a challenge of the network for the domain.
  bool challenge(int status, const std::string& value) {
    set_response(response, status, {{status == 401 ? "WWW-Authenticate" : "Proxy-Authenticate", value}});
    return auth.update_auth_info_for_response(&response, home);
  }
  /// All values of a header of the current request, topmost first.
  Texts values(std::string_view name) const {
    Texts result;
    request.getHeaders(name, result);
    return result;
  }
  /// A parameter of the only header of that name.
  std::string parameter(std::string_view name, std::string_view parameter_name) const {
    const Texts all = values(name);
    EXPECT_EQ(all.size(), 1U);
    std::string text = "(absent)";
    if (all.empty()) return text;
    const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, all[0]));
    if (header) header->getParameter(parameter_name, text);
    return text;
  }
  const Nonce_Slot_T& slot(std::size_t challenge_index = 0, std::size_t slot_index = 0) const {
    return auth.auth_info(home)->auth_hdrs.at(challenge_index).nonces.at(slot_index);
  }

  IMS_Proxy_RoutingTable_Impl table;
  IMS_Proxy_Authenticate auth{&table};
  FakeServerTcp request;
  FakeServerTcp response;
  std::string home;       ///< key of the domain with alice's credentials
  std::string k, k1, k2;  ///< keys of clients of it
};

/// The client nonce that the last digest was computed with.
inline std::string generated_cnonce(const LogCapture& log) {
  constexpr std::string_view kPrefix = "Generating cnonce - ";
  std::string cnonce;
  for (const std::string& text : log.texts()) {
    if (text.starts_with(kPrefix)) cnonce = text.substr(kPrefix.size());
  }
  return cnonce;
}
