// A REGISTER of a party that is known: one operation for each of its meanings.

#include <algorithm>
#include <tuple>

#include "framework/bounds.h"
#include "framework/log.h"
#include "registrar/client_factory.h"
#include "registrar/domain.h"
#include "registrar/ext_client.h"
#include "registrar/registrar.h"
#include "routing/routing_table_intf.h"
#include "siplib/transaction.h"

namespace {

bool same(const std::vector<ClientAOR_T>& one, const std::vector<ClientAOR_T>& other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](const auto& a, const auto& b) {
    return std::tie(a.aor, a.feature_tags, a.events, a.methods, a.content_types) ==
           std::tie(b.aor, b.feature_tags, b.events, b.methods, b.content_types);
  });
}

}  // namespace

bool IMSE_Registrar::handle_existing_client_register(SIPLIB_SIPServerConnection* request, IMSE_Client* client) {
  const int register_class = client->process_register(request);
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_register %d", register_class);
  switch (register_class) {
    case IMSE_REGISTER_NEW:
      return handle_existing_client_registration(client);
    case IMSE_REGISTER_AGAIN:
      return handle_existing_client_reregistration(request, client);
    case IMSE_REGISTER_RETRANSMISSION:
      return handle_existing_client_retransmission(client);
    case IMSE_REGISTER_REFRESH:
      return handle_existing_client_refresh(client);
    case IMSE_REGISTER_DEREGISTRATION:
      return handle_existing_client_deregistration(client);
    default:
      return handle_existing_client_invalid(client);
  }
}

bool IMSE_Registrar::handle_existing_client_registration(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_registration");
  if (must_authenticate(*client)) {
    // No credentials ever match (match_credentails).
    client->reject(403);
    take_out(client);
    return false;
  }
  if (IMSE_Client* const previous = client->get_prev_client(); previous != nullptr) {
    IMS_log::loginfo(5, __func__, "IMSE_REG : RE-REG --> previous client exists");
    if (!process_re_register(client, previous)) {
      IMS_log::loginfo(4, __func__, "IMSE_REG: re-reg,client has changed domain prop");
      client->reject(403);
      take_out(client);
      return false;
    }
    IMS_log::loginfo(5, __func__, "IMSE_REG: removing the prev client from proxy");
    delete_entry(*previous);
    take_out(previous);
    add_entry(*client);  // prepared
    client->accept();    // answered already: this one sends nothing
    client->set_prev_client(nullptr);
    return true;
  }
  if (!admit(client)) {
    IMS_log::loginfo(4, __func__,
                     "IMSE_REG: Couldn't process the existing client object. Removing from the client list");
    take_out(client);
    return false;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: Successfully processed the Existing client object");
  return true;
}

bool IMSE_Registrar::process_re_register(IMSE_Client* new_client, IMSE_Client* old_client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::process_re_register");
  // Only external clients come here; an old one that was never admitted has no domain.
  auto* const client = static_cast<IMSE_ExtClient*>(new_client);
  IMSE_Domain* const domain = static_cast<IMSE_ExtClient*>(old_client)->get_domain();
  if (domain == nullptr || !domain->is_client_exist(client)) {
    IMS_log::loginfo(4, __func__, "IMSE_REG:client validate failed ");
    client->reject(403);
    return false;
  }
  // Before it is answered: what is refused leaves the old registration as it was.
  if (!prepare_entry(*client, *old_client)) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: the routing table does not take the new entry of a known user agent");
    client->reject(400);
    return false;
  }
  client->set_domain(domain);
  domain->add(client, false);
  if (client->accept() == 0) return true;
  ClientTable_Entry_T entry;
  old_client->get_client_info(entry);
  routing_table_->replaceClientField(CT_UA_PORT, entry.ua_port, entry.aors);
  return false;
}

bool IMSE_Registrar::prepare_entry(IMSE_Client& new_client, IMSE_Client& old_client) {
  ClientTable_Entry_T wanted, present, other;
  new_client.get_client_info(wanted);
  old_client.get_client_info(present);
  if (wanted.ua_port != present.ua_port && routing_table_->getClient(CT_UA_PORT, wanted.ua_port, other)) return false;
  if (!routing_table_->hasRoomFor(wanted, present.ua_port)) return false;
  return same(wanted.aors, present.aors) ||
         routing_table_->replaceClientField(CT_UA_PORT, present.ua_port, wanted.aors);
}

void IMSE_Registrar::replace_entry(IMSE_Client& new_client, IMSE_Client& old_client) {
  ClientTable_Entry_T wanted, present;
  new_client.get_client_info(wanted);
  old_client.get_client_info(present);
  if (wanted.ua_port == present.ua_port && wanted.uri == present.uri) return;
  delete_entry(old_client);
  add_entry(new_client);
}

bool IMSE_Registrar::handle_existing_client_reregistration(SIPLIB_SIPServerConnection* request, IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RE-REG on existing client ");
  if (client->is_external() != 1) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: not expecting re-reg for iclients");
    client->reject(403);
    return false;
  }
  std::unique_ptr<IMSE_Client> successor = IMSE_ClientFactory::create_client(request, client);
  if (successor == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Unable to create object for new client");
    reject(request, 400);
    return false;
  }
  const int register_class = successor->process_register(request);
  IMS_log::loginfo(5, __func__, "IMSE_REG: handle_existing_client: process register %d", register_class);
  if (successor->is_external() != client->is_external()) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Int client registering on a port where external UA is registered");
    successor->reject(400);
    return false;
  }
  if (register_class != IMSE_REGISTER_NEW) {
    // A de-registration under a Call-ID that registered nothing. Not answered here; the request ends with the turn.
    IMS_log::loginfo(4, __func__, "IMSE_REG: default handler RE-REG ,can't enter here");
    successor->forget_request(request);
    return false;
  }
  if (must_authenticate(*successor)) {
    if (clients_.size() >= framework::bounds().clients) {
      IMS_log::loginfo(4, __func__, "IMSE_REG: %d clients are registered, no further one is taken",
                       static_cast<int>(clients_.size()));
      successor->reject(400);
      return false;
    }
    successor->authorize();
    successor->set_prev_client(client);
    clients_.push_front(std::move(successor));
    return true;
  }
  successor->set_prev_client(client);
  if (!process_re_register(successor.get(), client)) {
    successor->reject(400);
    return false;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG:");
  replace_entry(*successor, *client);
  const std::unique_ptr<IMSE_Client> old_client = take_out(client);
  auto* const old_external = static_cast<IMSE_ExtClient*>(client);
  old_external->get_domain()->remove(old_external, false);
  imse_registrar_pre_client_replace(old_external, static_cast<IMSE_ExtClient*>(successor.get()));
  successor->set_prev_client(nullptr);
  clients_.push_back(std::move(successor));
  return true;
}

void IMSE_Registrar::imse_registrar_pre_client_replace(IMSE_ExtClient* old_client, IMSE_ExtClient* new_client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: imse_registrar_pre_client_replace");
  if (old_client->is_external() != 1 || new_client->is_external() != 1) return;
  IMS_log::loginfo(5, __func__, "IMSE_REG: Replacing %d with %d", static_cast<int>(new_client->get_ua_id()),
                   static_cast<int>(old_client->get_ua_id()));
  new_client->set_ua_id(old_client->get_ua_id());
}

bool IMSE_Registrar::handle_existing_client_retransmission(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_retransmission");
  return client->accept() == 0;
}

bool IMSE_Registrar::handle_existing_client_invalid(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_invalid");
  return client->reject(400) == 0;
}

bool IMSE_Registrar::handle_existing_client_refresh(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_refresh");
  if (must_authenticate(*client)) {
    client->authorize();
    return true;
  }
  return client->accept() == 0;
}

bool IMSE_Registrar::handle_existing_client_deregistration(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_existing_client_deregistration");
  if (must_authenticate(*client)) {
    client->authorize();
    return true;
  }
  const bool accepted = client->accept() == 0;
  delete_entry(*client);
  if (client->is_external() == 1) {
    auto* const external = static_cast<IMSE_ExtClient*>(client);
    if (external->get_domain() == nullptr) {
      IMS_log::loginfo(4, __func__, "IMSE_REG:client get domain failed ");
      take_out(client);
      return false;
    }
    external->get_domain()->remove(external, true);
  }
  take_out(client);
  return accepted;
}
