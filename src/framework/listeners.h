// The framework's own listeners of the local endpoint: they queue registrar transactions for the loop.
#pragma once

#include "siplib/listener.h"

class IMS_User_Agent;

/// Queues each new request as MSG_REGISTRAR_REQUEST.
class IMS_UA_SipServerConnListener : public SIPLIB_SIPServerConnectionListener {
 public:
  /// `user_agent` is not owned and not null.
  explicit IMS_UA_SipServerConnListener(IMS_User_Agent* user_agent) : user_agent_(user_agent) {}
  void notifyRequest(SIPLIB_SIPConnectionNotifier* notifier) override;

 private:
  IMS_User_Agent* user_agent_;
};

/// Queues each answer as MSG_REGISTRAR_RESPONSE.
class IMS_UA_SipClientConnListener : public SIPLIB_SIPClientConnectionListener {
 public:
  explicit IMS_UA_SipClientConnListener(IMS_User_Agent* user_agent) : user_agent_(user_agent) {}
  void notifyResponse(SIPLIB_SIPClientConnection* connection) override;

 private:
  IMS_User_Agent* user_agent_;
};

/// Logs the end of a dialog.
class IMS_UA_SipDialogListener : public SIPLIB_SIPDialogListener {
 public:
  explicit IMS_UA_SipDialogListener(IMS_User_Agent* user_agent) : user_agent_(user_agent) {}
  void notifyDialogTerminated(SIPLIB_SIPDialog* dialog) override;

 private:
  IMS_User_Agent* user_agent_;
};
