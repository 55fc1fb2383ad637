#include "registrar/ext_client.h"

#include <algorithm>

#include "framework/log.h"
#include "framework/utility.h"
#include "registrar/domain.h"
#include "registrar/wants.h"

namespace {

std::vector<std::string> split(const std::string& list) {
  std::vector<std::string> pieces;
  IMS_utility::tokenize(list, pieces, ",");
  return pieces;
}

}  // namespace

IMSE_ExtClient::IMSE_ExtClient(std::unique_ptr<RegisterXmlData> xml, std::uint32_t ua_id)
    : IMSE_Client(std::move(xml)), ua_id_(ua_id) {
}

IMSE_ExtClient::~IMSE_ExtClient() {
  if (domain_ != nullptr) domain_->forget(this);
}

int IMSE_ExtClient::get_client_info(ClientTable_Entry_T& entry) {
  IMSE_Client::get_client_info(entry);
  entry.ua_port = std::to_string(get_port());
  entry.uri = from();
  if (domain_ != nullptr) {
    entry.profile_id = std::to_string(domain_->get_prof_id());
    entry.profile_name = domain_->get_prof_name();
  }
  return 0;
}

int IMSE_ExtClient::accept() {
  const int result = send_response(200);
  if (result == 0) set_registered();
  return result;
}

int IMSE_ExtClient::send_response(int status) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_ExtClient::send_response");
  const std::string profile_id = domain_ != nullptr ? std::to_string(domain_->get_prof_id()) : std::string();
  return answer(status, "IMSE_REG: Extclient send_response failed", domain_ != nullptr ? &profile_id : nullptr);
}

int IMSE_ExtClient::get_ua_info(IMSE_UA_INFO_T& info) const {
  info.id = static_cast<int>(ua_id_);
  info.reg_expires_pref = body().get_nw_expiry_value();
  get_ua_aor(info.aors);
  info.sip_headers = body().get_sip_headers();
  return 0;
}

void IMSE_ExtClient::get_ua_aor(std::vector<IMSE_UA_AOR_T>& aors) const {
  const RegisterXmlData::AorList* own = get_aor();
  if (own == nullptr) return;
  for (const auto& aor : *own) aors.push_back({aor->aor, aor->feature_tags});
}

int IMSE_ExtClient::match_routing_info(const IMSE_ExtClient* other) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: ExtClient match_routing_info %p", static_cast<const void*>(other));
  IMSE_Wants own;
  own.add(aors());
  const bool match = own.has_any(other->get_aor());
  if (match) IMS_log::loginfo(5, __func__, "IMSE_REG: ExtClient match_rout_info aor match found");
  return match ? 1 : 0;
}

int IMSE_ExtClient::match_routing_info(const ClientAOR_T* aor) const {
  if (aors() == nullptr) return 0;
  std::set<std::string> events;
  const std::set<std::string> tags(aor->feature_tags.begin(), aor->feature_tags.end());
  for (const auto& own : *aors()) {
    if (own->aor == aor->aor && match_lists(tags, own->feature_tags) == 1) return 1;
    for (std::string& event : split(own->events)) events.insert(std::move(event));
  }
  return match_lists(events, aor->events);
}

int IMSE_ExtClient::match_lists(const std::set<std::string>& own, const std::vector<std::string>& other) {
  return std::any_of(other.begin(), other.end(), [&](const std::string& text) { return own.count(text) != 0; }) ? 1 : 0;
}

int IMSE_ExtClient::match_lists(const std::set<std::string>& own, const std::string& other) {
  return match_lists(own, split(other));
}
