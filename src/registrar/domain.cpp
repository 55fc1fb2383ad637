#include "registrar/domain.h"

#include <algorithm>
#include <new>

#include "framework/log.h"
#include "framework/user_agent.h"
#include "registrar/ext_client.h"
#include "registrar/notify_xml_data.h"
#include "registrar/reg_subscriber.h"

namespace {

const void* pointer(const void* p) {
  return p;
}

}  // namespace

std::uint32_t IMSE_Domain::profile_id_counter = 1;

IMSE_Domain::IMSE_Domain(const std::string& profile_name, IMSE_RegSubscriber* subscriber)
    : profile_name_(profile_name), profile_id_(profile_id_counter++), subscriber_(subscriber) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::IMSE_Domain %s %u", profile_name_.c_str(), profile_id_);
  read_nw_profile(profile_name_);
}

void IMSE_Domain::read_nw_profile(const std::string& document) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::read_nw_profile %s", document.c_str());
  for (const IMSE_NW_PROFILE_KEY_T& key : imse_nw_profile_keys())
    IMS_User_Agent::get_xml_parameter(key.key, nw_profile_.*key.field, document);
}

bool IMSE_Domain::is_client_exist(IMSE_ExtClient* client) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::is_client_exist %p %d", pointer(client),
                   static_cast<int>(clients_.size()));
  if (IMS_log::enabled(5)) {  // each comparison has its lines
    for (const IMSE_ExtClient* own : clients_) {
      if (own->match_routing_info(client) == 1) break;
    }
  }
  const bool exists = wants_.has_any(client->aors());
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::is_client_exist returns %d", exists);
  return exists;
}

int IMSE_Domain::add(IMSE_ExtClient* client, bool notify) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::add %p %d %p %d", pointer(client), notify, pointer(subscriber_),
                   notify_state_);
  if (subscriber_ == nullptr) {
    if (notify_state_ != NOTHING_SENT) return 1;
    take_in(client);
    return 0;
  }
  if (notify_state_ != CREATE_SENT) return send_notify_and_add(client, notify);
  const int result = send_notify_update_add(client, notify, "add");
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::add send_notify %d", result);
  if (result == 0) take_in(client);
  return result;
}

int IMSE_Domain::send_notify_and_add(IMSE_ExtClient* client, bool notify) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::send_notify_and_add %p %d", pointer(client), notify);
  int result = 0;
  // A silent one counts as told, unless there are others that the watcher has never heard of.
  bool told = clients_.empty();
  if (notify) {
    IMSE_UA_INFO_T info;
    client->get_ua_info(info);
    std::unique_ptr<IMSE_NotifyXmlData> document = create_document();
    if (document == nullptr) {
      IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify_and_add: memory allocation failed ");
      return 1;
    }
    told = can_be_told(*document);
    if (told) {
      // As a rule there are no others; those that a lost document has kept from the watcher come with this one.
      std::vector<IMSE_ExtClient*> untold = clients_;
      untold.push_back(client);
      result = send_create(std::move(document), untold, false, &info);
    }
  }
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain:add send_notify %d", result);
  if (result == 0) {
    if (told) notify_state_ = CREATE_SENT;
    take_in(client);
  }
  return result;
}

int IMSE_Domain::send_create(std::unique_ptr<IMSE_NotifyXmlData> document, const std::vector<IMSE_ExtClient*>& clients,
                             bool whole, IMSE_UA_INFO_T* last) {
  document->set_whole(whole);
  for (const IMSE_ExtClient* client : clients) {
    IMSE_UA_INFO_T info;
    if (last != nullptr && client == clients.back())
      info = std::move(*last);
    else
      client->get_ua_info(info);
    if (!document->has_room_for(info)) {
      const int result = subscriber_->send_notify(std::move(document), "active");
      if (result != 0) return result;
      document = update_document("add");
      if (document == nullptr) return 1;
      document->set_whole(whole);
    }
    document->add_ua_info(std::move(info));
  }
  return subscriber_->send_notify(std::move(document), "active");
}

bool IMSE_Domain::can_be_told(const IMSE_NotifyXmlData& document) const {
  if (document.fits()) return true;
  IMS_log::loginfo(4, __func__, "IMSE_REG: the settings of network profile %s are too large for a NOTIFY: %d bytes",
                   profile_name_.c_str(), static_cast<int>(document.size()));
  return false;
}

int IMSE_Domain::send_notify_update_add(IMSE_ExtClient* client, bool notify, const std::string& action) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::send_notify_update_add %d, %s, %p ", notify, action.c_str(),
                   pointer(client));
  if (!notify) return 0;
  std::unique_ptr<IMSE_NotifyXmlData> document = update_document(client, action);
  if (document == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: IMSE_Domain::add memory allocation failed ");
    return 1;
  }
  return subscriber_->send_notify(std::move(document), "active");
}

int IMSE_Domain::remove(IMSE_ExtClient* client, bool notify) {
  const auto found = std::find(clients_.begin(), clients_.end(), client);
  const std::size_t count = clients_.size();
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::remove %d %p %d %d %p", notify, pointer(client),
                   found != clients_.end(), static_cast<int>(count), pointer(subscriber_));
  if (found == clients_.end()) return 1;
  if (notify_state_ == CREATE_SENT && count == 1) {
    if (notify) send_notify_delete();
  } else if (notify_state_ == CREATE_SENT) {
    const int result = send_notify_update_delete(client, notify, "delete");
    IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::remove send_notify %d", result);
    if (result == 1) return 1;
  }
  let_go(client);
  return 0;
}

int IMSE_Domain::send_notify_update_delete(IMSE_ExtClient* client, bool notify, const std::string& action) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::send_notify_update_delete %d, %s, %p ", notify, action.c_str(),
                   pointer(client));
  if (!notify) return 0;
  if (subscriber_ == nullptr) return 1;
  std::unique_ptr<IMSE_NotifyXmlData> document = update_document(client, action);
  if (document == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG:IMSE_Domain::remove memory allocation failed ");
    return 1;
  }
  subscriber_->send_notify(std::move(document), "active");
  return 0;
}

int IMSE_Domain::send_notify_delete(bool whole) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::send_notify_delete %p.", pointer(subscriber_));
  if (subscriber_ == nullptr) return 1;
  std::unique_ptr<IMSE_NotifyXmlData> document(new (std::nothrow)
                                                   IMSE_NotifyXmlData(static_cast<unsigned short>(profile_id_)));
  if (document == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: send_notify_delete: memory allocation failed");
    return 1;
  }
  document->set_domain(this);
  document->set_whole(whole);
  subscriber_->send_notify(std::move(document), "active");
  notify_state_ = DELETE_SENT;
  return 0;
}

void IMSE_Domain::set_subscriber(IMSE_RegSubscriber* subscriber) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::set_subscriber %p %d %d", pointer(subscriber),
                   static_cast<int>(clients_.size()), notify_state_);
  if (subscriber == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: set_subscriber Returning without subscribing");
    return;
  }
  subscriber_ = subscriber;
  if (clients_.empty() || notify_state_ != NOTHING_SENT) return;
  std::unique_ptr<IMSE_NotifyXmlData> document = create_document();
  if (document == nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: set_subscriber: memory allocation failed");
    return;
  }
  if (can_be_told(*document) && send_create(std::move(document), clients_, true) == 0) notify_state_ = CREATE_SENT;
}

void IMSE_Domain::unset_subscriber() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::unset_subscriber");
  notify_state_ = NOTHING_SENT;
  known_ = false;
  subscriber_ = nullptr;
}

void IMSE_Domain::tell_anew() {
  if (clients_.empty() && known_) {
    send_notify_delete(true);
    return;
  }
  notify_state_ = NOTHING_SENT;
  set_subscriber(subscriber_);
}

void IMSE_Domain::document_sent(const IMSE_NotifyXmlData& document) {
  if (document.kind() != IMSE_NotifyXmlData::UPDATE) known_ = document.kind() == IMSE_NotifyXmlData::CREATE;
}

void IMSE_Domain::document_lost() {
  if (notify_state_ == CREATE_SENT) notify_state_ = NOTHING_SENT;
}

void IMSE_Domain::get_profile_credentials(std::string& first, std::string& second, std::string& third) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_Domain::get_profile_credentials");
  first = nw_profile_.impi;
  IMS_User_Agent::get_xml_parameter("//secret", second, profile_name_);
  third = nw_profile_.operation_mode;
}

void IMSE_Domain::forget(const IMSE_ExtClient* client) {
  let_go(client);
}

void IMSE_Domain::take_in(IMSE_ExtClient* client) {
  clients_.push_back(client);
  wants_.add(client->aors());
}

void IMSE_Domain::let_go(const IMSE_ExtClient* client) {
  for (std::size_t times = std::erase(clients_, client); times > 0; --times) wants_.remove(client->aors());
}

std::unique_ptr<IMSE_NotifyXmlData> IMSE_Domain::create_document() {
  std::unique_ptr<IMSE_NotifyXmlData> document(
      new (std::nothrow) IMSE_NotifyXmlData(profile_name_, nw_profile_, static_cast<unsigned short>(profile_id_)));
  if (document != nullptr) document->set_domain(this);
  return document;
}

std::unique_ptr<IMSE_NotifyXmlData> IMSE_Domain::update_document(const std::string& action) {
  std::unique_ptr<IMSE_NotifyXmlData> document(
      new (std::nothrow) IMSE_NotifyXmlData(action, static_cast<unsigned short>(profile_id_)));
  if (document != nullptr) document->set_domain(this);
  return document;
}

std::unique_ptr<IMSE_NotifyXmlData> IMSE_Domain::update_document(IMSE_ExtClient* client, const std::string& action) {
  IMSE_UA_INFO_T info;
  client->get_ua_info(info);
  std::unique_ptr<IMSE_NotifyXmlData> document = update_document(action);
  if (document == nullptr) return nullptr;
  document->add_ua_info(std::move(info));
  return document;
}
