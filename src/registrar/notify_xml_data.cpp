#include "registrar/notify_xml_data.h"

#include <string_view>
#include <utility>

#include "framework/log.h"
#include "registrar/notify_writer.h"

// As in register_xml_data.cpp, the parser's process-wide state stays: each writer frees what is its own.

namespace {

int result(const NotifyWriter& writer, bool written, int& step) {
  if (!written) step = writer.step();
  return written ? 1 : 0;
}

// A document in pieces, as the writer lays it out, with the longest numbers and without the texts.
constexpr std::string_view kFrame =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<reg-info>\n <profile-info>\n  <name></name>\n"
    "  <zel-profile-id>65535</zel-profile-id>\n </profile-info>\n <action>UPDATE</action>\n</reg-info>\n";
constexpr std::string_view kUpdate = " <update-info></update-info>\n";
constexpr std::string_view kProfile =
    " <network-profile-info>\n  <operation-mode></operation-mode>\n  <retry-mechanism>\n   <reg>\n"
    "    <initial-retry-after></initial-retry-after>\n    <refresh-retry-after></refresh-retry-after>\n"
    "    <max-attempts></max-attempts>\n    <ignore-retry-after></ignore-retry-after>\n   </reg>\n   <link>\n"
    "    <max-attempts></max-attempts>\n    <interval></interval>\n   </link>\n  </retry-mechanism>\n"
    "  <reg-expiry></reg-expiry>\n  <compression></compression>\n  <policy></policy>\n"
    "  <nw-reg-event-support></nw-reg-event-support>\n  <ims-security>\n"
    "   <uicc-applications></uicc-applications>\n   <sa-in-algo></sa-in-algo>\n   <sa-enc-algo></sa-enc-algo>\n"
    "  </ims-security>\n  <http-digest-md5-credentials>\n   <credentials>\n    <impi></impi>\n    <impu></impu>\n"
    "   </credentials>\n  </http-digest-md5-credentials>\n  <network-logic>\n   <access-network></access-network>\n"
    "   <_3gpp>\n    <authorized-plmns></authorized-plmns>\n    <access-type></access-type>\n   </_3gpp>\n"
    "   <IEEE>\n    <authorized-AP></authorized-AP>\n    <access-type></access-type>\n"
    "    <AP-id-type></AP-id-type>\n   </IEEE>\n  </network-logic>\n  <ue-sip-port></ue-sip-port>\n"
    "  <ue-trans-pref></ue-trans-pref>\n  <ue-threshold-pref></ue-threshold-pref>\n"
    "  <registrar-address></registrar-address>\n  <registrar-realm></registrar-realm>\n"
    "  <domain-name></domain-name>\n  <proxy-discovery>\n   <disc-pref></disc-pref>\n   <dns-realm></dns-realm>\n"
    "   <dns-services></dns-services>\n   <ip-address></ip-address>\n  </proxy-discovery>\n"
    "  <napi-profile-name></napi-profile-name>\n  <initial-route-set></initial-route-set>\n"
    " </network-profile-info>\n";
constexpr std::string_view kUserAgent =
    " <ua-info>\n  <id>-2147483648</id>\n  <reg-expires-pref>-2147483648</reg-expires-pref>\n </ua-info>\n";
constexpr std::string_view kAddress = "  <aor>   <request-routing-support/>\n  </aor>\n";
constexpr std::string_view kTags = "\n   </request-routing-support";  ///< beyond the empty element
constexpr std::string_view kTag = "    <feature-tag></feature-tag>\n";
constexpr std::string_view kHeader = "   <sip-header>\n    <name></name>\n    <value></value>\n   </sip-header>\n";

/// Bytes that a text takes in a document.
std::size_t written_size(const std::string& text) {
  std::size_t size = 0;
  for (const char c : text) size += c == '"' ? 6U : c == '&' || c == '\r' ? 5U : c == '<' || c == '>' ? 4U : 1U;
  return size;
}

const ClientAOR_T& value(const std::unique_ptr<ClientAOR_T>& aor) {
  return *aor;
}
const IMSE_UA_AOR_T& value(const IMSE_UA_AOR_T& aor) {
  return aor;
}

/// Bytes of a user agent with these addresses and headers, whatever its numbers.
template <class Aors>
std::size_t user_agent_size(const Aors& aors, const std::vector<ClientHeader_T>& headers) {
  std::size_t headers_size = 0;
  for (const ClientHeader_T& header : headers) {
    headers_size += kHeader.size() + written_size(header.name) + written_size(header.value);
  }
  std::size_t size = kUserAgent.size();
  for (const auto& item : aors) {
    const auto& aor = value(item);
    size += kAddress.size() + written_size(aor.aor) + headers_size;
    if (!aor.feature_tags.empty()) size += kTags.size();
    for (const std::string& tag : aor.feature_tags) size += kTag.size() + written_size(tag);
  }
  return size;
}

}  // namespace

IMSE_NotifyXmlData::IMSE_NotifyXmlData(const std::string& name, const IMSE_REG_NW_PROFILE_T& profile,
                                       unsigned short profile_id)
    : kind_(CREATE),
      name_(name),
      profile_id_(profile_id),
      profile_(&profile),
      size_(kFrame.size() + kProfile.size() + written_size(name)) {
  for (const IMSE_NW_PROFILE_KEY_T& key : imse_nw_profile_keys()) size_ += written_size(profile.*key.field);
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData create %s %d", name_.c_str(),
                   profile_id_);
}

IMSE_NotifyXmlData::IMSE_NotifyXmlData(const std::string& update_info, unsigned short profile_id)
    : kind_(UPDATE),
      profile_id_(profile_id),
      update_info_(update_info),
      size_(kFrame.size() + kUpdate.size() + written_size(update_info)) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData update %s %d", update_info_.c_str(),
                   profile_id_);
}

IMSE_NotifyXmlData::IMSE_NotifyXmlData(unsigned short profile_id)
    : kind_(DELETE), profile_id_(profile_id), size_(kFrame.size()) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::IMSE_NotifyXmlData delete %d", profile_id_);
}

int IMSE_NotifyXmlData::add_ua_info(IMSE_UA_INFO_T info) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::add_ua_info %d", static_cast<int>(info.aors.size()));
  if (info.aors.empty()) return 1;
  size_ += user_agent_size(info.aors, info.sip_headers);
  ua_infos_.push_back(std::move(info));
  return 0;
}

bool IMSE_NotifyXmlData::has_room_for(const IMSE_UA_INFO_T& info) const {
  return size_ + user_agent_size(info.aors, info.sip_headers) <= max_size_;
}

int IMSE_NotifyXmlData::encodeXml() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::encodeXml %d", kind_);
  switch (kind_) {
    case CREATE:
      return encode_notify_create();
    case UPDATE:
      return encode_notify_update();
    case DELETE:
      return encode_notify_delete();
  }
  return -1;
}

std::size_t IMSE_NotifyXmlData::update_size(const std::vector<std::unique_ptr<ClientAOR_T>>& aors,
                                            const std::vector<ClientHeader_T>& headers) {
  return kFrame.size() + kUpdate.size() + std::string_view("delete").size() + user_agent_size(aors, headers);
}

int IMSE_NotifyXmlData::encode_notify_create() {
  NotifyWriter writer(max_size_);
  int step = 0;
  const bool written = result(writer, writer.begin(), step) && write_generic_notify(writer, "CREATE", step) &&
                       write_ua_info(writer, step) && write_nw_profile_retry_mech(writer, step) &&
                       write_nw_profile_till_md5(writer, step) && write_nw_profile_network_logic(writer, step) &&
                       write_nw_profile_till_domain_name(writer, step) && write_nw_profile_finish(writer, step);
  return conclude(writer, written, step, "CREATE", __func__);
}

int IMSE_NotifyXmlData::encode_notify_update() {
  NotifyWriter writer(max_size_);
  int step = 0;
  const bool written = result(writer, writer.begin(), step) && write_generic_notify(writer, "UPDATE", step) &&
                       result(writer, writer.element("update-info", update_info_), step) &&
                       write_ua_info(writer, step) && result(writer, writer.finish(), step);
  return conclude(writer, written, step, "UPDATE", __func__);
}

int IMSE_NotifyXmlData::encode_notify_delete() {
  NotifyWriter writer(max_size_);
  int step = 0;
  const bool written = result(writer, writer.begin(), step) && write_generic_notify(writer, "DELETE", step) &&
                       result(writer, writer.finish(), step);
  return conclude(writer, written, step, "delete", __func__);
}

int IMSE_NotifyXmlData::conclude(NotifyWriter& writer, bool written, int step, const char* document,
                                 const char* function) {
  if (!written) {
    IMS_log::loginfo(4, function, "Unable to write XML for %s %d", document, step);
    take(nullptr, 0);
    return -1;
  }
  int length = 0;
  std::unique_ptr<char[]> text = writer.release(length);
  take(std::move(text), length);
  IMS_log::loginfo(5, function, "IMSE_REG: Moving out of %s successfully %d %p", function, length - 1,
                   static_cast<const void*>(text_));
  return 0;
}

int IMSE_NotifyXmlData::write_generic_notify(NotifyWriter& writer, const char* action, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_generic_notify %s", action);
  return result(writer,
                writer.start("reg-info") && writer.start("profile-info") && writer.element("name", name_) &&
                    writer.element("zel-profile-id", profile_id_) && writer.end() && writer.element("action", action),
                step);
}

int IMSE_NotifyXmlData::write_ua_info(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_ua_info %d", static_cast<int>(ua_infos_.size()));
  bool written = true;
  for (const IMSE_UA_INFO_T& info : ua_infos_) {
    written = written && writer.start("ua-info") && writer.element("id", info.id) &&
              writer.element("reg-expires-pref", info.reg_expires_pref);
    for (const IMSE_UA_AOR_T& aor : info.aors) {
      written = written && writer.start("aor") && writer.text(aor.aor) && writer.start("request-routing-support");
      for (const std::string& tag : aor.feature_tags) written = written && writer.element("feature-tag", tag);
      written = written && writer.end();
      // The watcher reads the headers in each address of record, though they are the user agent's.
      for (const ClientHeader_T& header : info.sip_headers) {
        written = written && writer.start("sip-header") && writer.element("name", header.name) &&
                  writer.element("value", header.value) && writer.end();
        if (!written) break;
      }
      written = written && writer.end();
      if (!written) return result(writer, false, step);
    }
    written = written && writer.end();
  }
  return result(writer, written, step);
}

int IMSE_NotifyXmlData::write_nw_profile_retry_mech(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_nw_profile_retry_mech");
  const IMSE_REG_NW_PROFILE_T& p = *profile_;
  return result(writer,
                writer.start("network-profile-info") && writer.element("operation-mode", p.operation_mode) &&
                    writer.start("retry-mechanism") && writer.start("reg") &&
                    writer.element("initial-retry-after", p.reg_initial_retry_after) &&
                    writer.element("refresh-retry-after", p.reg_refresh_retry_after) &&
                    writer.element("max-attempts", p.reg_max_attempts) &&
                    writer.element("ignore-retry-after", p.reg_ignore_retry_after) && writer.end() &&
                    writer.start("link") && writer.element("max-attempts", p.link_max_attempts) &&
                    writer.element("interval", p.link_interval) && writer.end() && writer.end(),
                step);
}

int IMSE_NotifyXmlData::write_nw_profile_till_md5(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_nw_profile_till_md5");
  const IMSE_REG_NW_PROFILE_T& p = *profile_;
  return result(writer,
                writer.element("reg-expiry", p.reg_expiry) && writer.element("compression", p.compression) &&
                    writer.element("policy", p.policy) &&
                    writer.element("nw-reg-event-support", p.nw_reg_event_support) && writer.start("ims-security") &&
                    writer.element("uicc-applications", p.uicc_applications) &&
                    writer.element("sa-in-algo", p.sa_in_algo) && writer.element("sa-enc-algo", p.sa_enc_algo) &&
                    writer.end() && writer.start("http-digest-md5-credentials") && writer.start("credentials") &&
                    writer.element("impi", p.impi) && writer.element("impu", p.impu) && writer.end() && writer.end(),
                step);
}

int IMSE_NotifyXmlData::write_nw_profile_network_logic(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_nw_profile_network_logic");
  const IMSE_REG_NW_PROFILE_T& p = *profile_;
  return result(writer,
                writer.start("network-logic") && writer.element("access-network", p.access_network) &&
                    writer.start("_3gpp") && writer.element("authorized-plmns", p.authorized_plmns) &&
                    writer.element("access-type", p.access_type_3gpp) && writer.end() && writer.start("IEEE") &&
                    writer.element("authorized-AP", p.authorized_ap) &&
                    writer.element("access-type", p.ieee_access_type) && writer.element("AP-id-type", p.ap_id_type) &&
                    writer.end() && writer.end(),
                step);
}

int IMSE_NotifyXmlData::write_nw_profile_till_domain_name(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_nw_profile_till_domain_name");
  const IMSE_REG_NW_PROFILE_T& p = *profile_;
  return result(writer,
                writer.element("ue-sip-port", p.ue_sip_port) && writer.element("ue-trans-pref", p.ue_trans_pref) &&
                    writer.element("ue-threshold-pref", p.ue_threshold_pref) &&
                    writer.element("registrar-address", p.registrar_address) &&
                    writer.element("registrar-realm", p.registrar_realm) &&
                    writer.element("domain-name", p.domain_name),
                step);
}

int IMSE_NotifyXmlData::write_nw_profile_finish(NotifyWriter& writer, int& step) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_NotifyXmlData::write_nw_profile_finish");
  const IMSE_REG_NW_PROFILE_T& p = *profile_;
  return result(writer,
                writer.start("proxy-discovery") && writer.element("disc-pref", p.disc_pref) &&
                    writer.element("dns-realm", p.dns_realm) && writer.element("dns-services", p.dns_services) &&
                    writer.element("ip-address", p.ip_address) && writer.end() &&
                    writer.element("napi-profile-name", p.napi_profile_name) &&
                    writer.element("initial-route-set", p.initial_route_set) && writer.end() && writer.finish(),
                step);
}
