#include "registrar/registrar.h"

#include <algorithm>

#include "framework/bounds.h"
#include "framework/log.h"
#include "registrar/client_factory.h"
#include "registrar/domain.h"
#include "registrar/ext_client.h"
#include "registrar/reg_subscriber.h"
#include "registrar/text_number.h"
#include "routing/routing_table_intf.h"
#include "siplib/connector.h"
#include "siplib/transaction.h"

IMSE_Registrar* IMSE_Registrar::registrar = nullptr;

IMSE_Registrar* IMSE_Registrar::init_registrar(SIPLIB_SIPConnector* connector,
                                               IMS_Proxy_RoutingTable_Intf* routing_table,
                                               SIPLIB_SIPClientConnectionListener* listener) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::init_registrar");
  if (connector == nullptr || routing_table == nullptr || listener == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: init registrar failed");
    return nullptr;
  }
  if (registrar != nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: REGISTRAR:init failed. Re-initing the registrar");
    return nullptr;
  }
  registrar = new IMSE_Registrar(connector, routing_table, listener);
  IMS_log::loginfo(5, __func__, "IMSE_REG: REGISTRAR:initialized");
  return registrar;
}

IMSE_Registrar* IMSE_Registrar::get_instance() {
  return registrar;
}

void IMSE_Registrar::destroy() {
  delete registrar;
  registrar = nullptr;
}

IMSE_Registrar::IMSE_Registrar(SIPLIB_SIPConnector* connector, IMS_Proxy_RoutingTable_Intf* routing_table,
                               SIPLIB_SIPClientConnectionListener* listener)
    : connector_(connector), listener_(listener), routing_table_(routing_table) {
}

IMSE_Registrar::~IMSE_Registrar() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::~IMSE_Registrar");
  clients_.clear();
  domains_.clear();
  subscriber_.reset();
}

void IMSE_Registrar::handle_registrar_register_message(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_registrar_register_message");
  const IMSE_Client::Identity identity = IMSE_Client::read_identity(request);
  const auto existing = std::find_if(clients_.begin(), clients_.end(),
                                     [&identity](const auto& client) { return client->is_match(identity) == 1; });
  if (existing != clients_.end()) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: handle_registrar_register_message: client object match found");
    handle_existing_client_register(request, existing->get());
  } else if (clients_.size() >= framework::bounds().clients) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: %d clients are registered, no further one is taken",
                     static_cast<int>(clients_.size()));
    reject(request, 400);
    return;
  } else {
    std::unique_ptr<IMSE_Client> client = IMSE_ClientFactory::create_client(request);
    if (client == nullptr) {
      IMS_log::loginfo(4, __func__, "IMSE_REG: handle_registrar_register_message: object creation failed");
      reject(request, 400);
      return;
    }
    handle_new_client_register(request, std::move(client));
  }
  connector_->close(request);
  // The request dies with this turn. A client that did not answer it (the old one of a re-registration) lets go of it.
  for (const auto& client : clients_) client->forget_request(request);
}

void IMSE_Registrar::handle_new_client_register(SIPLIB_SIPServerConnection* request,
                                                std::unique_ptr<IMSE_Client> client) {
  const int register_class = client->process_register(request);
  IMS_log::loginfo(5, __func__, "IMSE_REG: REGISTER message type %d", register_class);
  if (register_class != IMSE_REGISTER_NEW) {
    IMS_log::loginfo(4, __func__, "IMSE_REG:default handler ");
    client->reject(400);
    return;
  }
  if (must_authenticate(*client)) {
    if (client->authorize() != 0) {
      IMS_log::loginfo(4, __func__, "IMSE_REG:Auth failed");
      client->reject(400);
      return;
    }
    IMS_log::loginfo(5, __func__, "IMSE_REG adding client to the list");
    clients_.push_back(std::move(client));
    return;
  }
  if (!admit(client.get())) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Client processing failed. Deleting the client object");
    return;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: Successfully processed client. Adding to local client list ");
  clients_.push_back(std::move(client));
}

bool IMSE_Registrar::admit(IMSE_Client* client) {
  return client->is_external() == 1 ? process_ext_client_new_register(static_cast<IMSE_ExtClient*>(client))
                                    : process_int_client_new_register(client);
}

bool IMSE_Registrar::process_ext_client_new_register(IMSE_ExtClient* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::process_ext_client_new_register");
  const std::string profile = client->get_nw_profile_name();
  if (profile.empty()) {
    IMS_log::loginfo(4, __func__, "IMSE_REG:Invalid network profile");
    client->reject(400);
    return false;
  }
  const auto found = std::find_if(domains_.begin(), domains_.end(),
                                  [&profile](const auto& domain) { return domain->is_match(profile); });
  IMSE_Domain* domain = found != domains_.end() ? found->get() : nullptr;
  if (domain != nullptr) {
    IMS_log::loginfo(5, __func__, "IMSE_REG:domain match found for");
    if (domain->is_client_exist(client)) {
      IMS_log::loginfo(4, __func__, "IMSE_REG:client validate failed ");
      client->reject(403);
      return false;
    }
  } else if (domains_.size() >= framework::bounds().profiles) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: %d network profiles are known, no further one is taken",
                     static_cast<int>(domains_.size()));
    client->reject(400);
    return false;
  } else {
    domains_.push_back(std::make_unique<IMSE_Domain>(profile, subscriber_.get()));
    domain = domains_.back().get();
    IMS_log::loginfo(5, __func__, "IMSE_REG: Domain list updated");
  }
  client->set_domain(domain);
  if (!add_entry(*client)) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: External Client table entry addition failed. Reject client");
    client->reject(400);
    return false;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: Added external client entry on the table ");
  if (domain->add(client, true) != 0) {
    // The entry stays: the port remains taken until its user agent registers and leaves in order.
    IMS_log::loginfo(4, __func__, "IMSE_REG: External Client addition to the domain failed. Reject client");
    client->reject(400);
    return false;
  }
  if (client->accept() != 0) {
    // The watcher is not told: the client leaves the domain without a word when it is deleted.
    delete_entry(*client);
    IMS_log::loginfo(4, __func__, "IMSE_REG: Unable to send 200ok.  Removing external client from routing table");
    return false;
  }
  return true;
}

bool IMSE_Registrar::process_int_client_new_register(IMSE_Client* client) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::process_int_client_new_register");
  if (!add_entry(*client)) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Internal client table entry addition failed");
    client->reject(400);
    return false;
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: Added an entry for the internal client in routing table");
  if (client->accept() != 0) {
    delete_entry(*client);
    IMS_log::loginfo(4, __func__, "IMSE_REG: Unable to send 200ok. Internal Client entry deleted from routing table");
    return false;
  }
  return true;
}

void IMSE_Registrar::handle_registrar_subscribe_message(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_registrar_subscribe_message");
  const bool created = subscriber_ == nullptr;
  if (created) subscriber_ = std::make_unique<IMSE_RegSubscriber>(connector_, local_name_, listener_);
  const int result = subscriber_->handle_subscribe(request);
  IMS_log::loginfo(5, __func__, "IMSE_REG: handle_registrar_subscribe_message %d", result);
  if (result != 0) {
    reject(request, 400);
    if (created) subscriber_.reset();
    return;
  }
  if (created) {
    for (const auto& domain : domains_) {
      IMS_log::loginfo(5, __func__, "IMSE_REG: setting subscriber");
      domain->set_subscriber(subscriber_.get());
    }
  }
  if (subscriber_->is_terminated()) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: deleting subscription");
    end_subscription();
  }
  connector_->close(request);
}

void IMSE_Registrar::handle_registrar_response_message(SIPLIB_SIPClientConnection* response) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_registrar_response_message");
  if (subscriber_ == nullptr) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: subscriber is NULL");
  } else if (response->getTransactionStatus() != 0) {
    // Handed on, it would end the subscription that there is now.
    IMS_log::loginfo(4, __func__, "IMSE_REG: answer to a NOTIFY of an ended subscription absorbed");
  } else if (subscriber_->received_response(response) == 1) {
    IMS_log::loginfo(5, __func__, "IMSE_REG:deleting subscription");
    end_subscription();
  } else if (const int status = response->getStatusCode(); status >= 100 && status < 200) {
    // Closed now, the transaction would take its final answer with it, and the queue would wait for ever.
    return;
  } else if (subscriber_->take_stale()) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: the watcher answers again and is told everything anew");
    for (const auto& domain : domains_) domain->tell_anew();
  }
  connector_->close(response);
}

void IMSE_Registrar::handle_registrar_refresh_message(std::string& /*text*/) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::handle_registrar_refresh_message");
}

int IMSE_Registrar::get_profile_credentials(const std::string& profile_id, std::string& first, std::string& second,
                                            std::string& third) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::get_profile_credentials %s", profile_id.c_str());
  const int id = registrar::to_int(profile_id);
  const auto domain =
      std::find_if(domains_.begin(), domains_.end(), [id](const auto& known) { return known->get_prof_id() == id; });
  if (domain == domains_.end()) return 0;
  (*domain)->get_profile_credentials(first, second, third);
  IMS_log::loginfo(5, __func__, "IMSE_REG: returning impi impu %s %s %s", first.c_str(), second.c_str(), third.c_str());
  return 1;
}

void IMSE_Registrar::reject(SIPLIB_SIPServerConnection* request, int status) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Registrar::reject %d ", status);
  if (request->initResponse(status) == 0) request->send();
  request->release();
}

bool IMSE_Registrar::must_authenticate(const IMSE_Client& client) const {
  return client.is_external() == 1 ? ext_clients_authenticate_ : int_clients_authenticate_;
}

bool IMSE_Registrar::add_entry(IMSE_Client& client) {
  if (entries_ >= framework::bounds().routing_entries) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: %d entries are in the routing table, no further one is taken",
                     static_cast<int>(entries_));
    return false;
  }
  ClientTable_Entry_T entry;
  client.get_client_info(entry);
  if (!routing_table_->addClient(entry)) return false;
  ++entries_;
  return true;
}

void IMSE_Registrar::delete_entry(const IMSE_Client& client) {
  if (routing_table_->deleteClient(CT_UA_PORT, std::to_string(client.get_port())) && entries_ > 0) --entries_;
}

std::unique_ptr<IMSE_Client> IMSE_Registrar::take_out(const IMSE_Client* client) {
  std::unique_ptr<IMSE_Client> taken;
  const auto found =
      std::find_if(clients_.begin(), clients_.end(), [client](const auto& known) { return known.get() == client; });
  if (found != clients_.end()) {
    taken = std::move(*found);
    clients_.erase(found);
  }
  for (const auto& other : clients_) {
    if (other->get_prev_client() == client) other->set_prev_client(nullptr);
  }
  return taken;
}

void IMSE_Registrar::end_subscription() {
  subscriber_.reset();
  for (const auto& domain : domains_) {
    IMS_log::loginfo(5, __func__, "IMSE_REG: setting subscriber");
    domain->unset_subscriber();
  }
}
