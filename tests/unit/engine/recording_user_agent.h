// A user agent that writes down what the listeners tell it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "framework/user_agent.h"

class RecordingUserAgent : public IMS_User_Agent {
 public:
  using Calls = std::vector<std::pair<std::string, const SIPLIB_SIPConnection*>>;
  Calls calls;

  void handle_notify_tcp_request(SIPLIB_SIPConnection* connection) override {
    calls.emplace_back("request", connection);
  }
  void handle_notify_tcp_response(SIPLIB_SIPConnection* connection) override {
    calls.emplace_back("response", connection);
  }
  void handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection* connection) override {
    calls.emplace_back("incoming", connection);
  }
  void handle_notify_tcp_conn_closed(SIPLIB_SIPConnection* connection) override {
    calls.emplace_back("closed", connection);
  }
  void handle_notify_udp_message(SIPLIB_SIPConnection* connection) override { calls.emplace_back("udp", connection); }
};
