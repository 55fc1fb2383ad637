#include "framework/listeners.h"

#include "framework/log.h"
#include "framework/user_agent.h"
#include "siplib/connection.h"
#include "siplib/transaction.h"

void IMS_UA_SipServerConnListener::notifyRequest(SIPLIB_SIPConnectionNotifier* notifier) {
  if (notifier == nullptr) {
    IMS_log::loginfo(4, "notifyRequest", "Null SIPConnectionNotifier");
    return;
  }
  SIPLIB_SIPConnection* const connection = notifier->acceptAndOpen();
  if (connection == nullptr) {
    IMS_log::loginfo(4, "notifyRequest", "Null server connection");
    return;
  }
  user_agent_->fill_queue_and_send_signal(MSG_REGISTRAR_REQUEST, connection);
}

void IMS_UA_SipClientConnListener::notifyResponse(SIPLIB_SIPClientConnection* connection) {
  if (connection == nullptr) {
    IMS_log::loginfo(4, "notifyResponse", "Null client connection");
    return;
  }
  user_agent_->fill_queue_and_send_signal(MSG_REGISTRAR_RESPONSE, static_cast<SIPLIB_SIPConnection*>(connection));
}

void IMS_UA_SipDialogListener::notifyDialogTerminated(SIPLIB_SIPDialog* dialog) {
  IMS_log::loginfo(5, "notifyDialogTerminated", "dialog=%p of user agent %p is over", static_cast<void*>(dialog),
                   static_cast<void*>(user_agent_));
}
