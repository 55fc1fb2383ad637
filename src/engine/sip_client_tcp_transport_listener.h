// What arrives on the TCP connections that the proxy itself opened.
#pragma once

#include "siplib/listener.h"

class IMS_User_Agent;

/// I/O thread. Reads no table of the engine; owns nothing.
class IMS_Proxy_SipClientTcpTransportListener : public SIPLIB_SIPClientTcpTransportListener {
 public:
  /// `user_agent` is not owned; null is noticed and logged at each event.
  explicit IMS_Proxy_SipClientTcpTransportListener(IMS_User_Agent* user_agent) : user_agent_(user_agent) {}

  void notifyResponse(SIPLIB_SIPClientTcpTransport* transport) override;
  void notifyConnectionClosed(SIPLIB_SIPClientTcpTransport* transport) override;
  bool handleIncomingMessage(char* text, unsigned int length, SIPLIB_message** message) override;

 private:
  IMS_User_Agent* user_agent_;
};
