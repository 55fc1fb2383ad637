// What arrives at the proxy's server transports: one decision (registrar or proxy), then the engine's queue.
#pragma once

#include "siplib/listener.h"

class IMS_User_Agent;

/// I/O thread. Reads no table of the engine; owns nothing.
class IMS_Proxy_SipServerTransportListener : public SIPLIB_SIPServerTransportListener {
 public:
  /// `user_agent` is not owned; null is noticed and logged at each event.
  explicit IMS_Proxy_SipServerTransportListener(IMS_User_Agent* user_agent) : user_agent_(user_agent) {}

  void notifyIncomingConnection(SIPLIB_SIPTransportNotifier* notifier) override;
  void notifyConnectionClosed(SIPLIB_SIPServerTcpTransport* transport) override;
  void notifyRequest(SIPLIB_SIPServerTcpTransport* transport) override;
  void notifyUdpMsg(SIPLIB_SIPTransportNotifier* notifier) override;
  bool handleIncomingMessage(char* text, unsigned int length, SIPLIB_message** message) override;

 private:
  IMS_User_Agent* user_agent_;
};
