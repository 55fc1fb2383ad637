// NOTIFY documents.
//
//   fields between 0x1f: the kind (c, u or d); for c and u user agents, each "A" aor, "T" feature tag of the last aor,
//   "H" name, "V" value of the last header, "U" the next user agent; for c also "P" the next setting of the profile
//
// Promises: whatever bytes the fields have, a document that is written is well-formed, ends in a NUL that its length
// counts, stays within the size allowed, and plain texts read back from it as they went in.

#include "registrar/notify_xml_data.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "framework/xml_document.h"
#include "input.h"
#include "siplib/text.h"

namespace {

constexpr std::string IMSE_REG_NW_PROFILE_T::*kSettings[] = {
    &IMSE_REG_NW_PROFILE_T::operation_mode, &IMSE_REG_NW_PROFILE_T::reg_max_attempts,
    &IMSE_REG_NW_PROFILE_T::link_interval,  &IMSE_REG_NW_PROFILE_T::policy,
    &IMSE_REG_NW_PROFILE_T::impi,           &IMSE_REG_NW_PROFILE_T::access_network,
    &IMSE_REG_NW_PROFILE_T::domain_name,    &IMSE_REG_NW_PROFILE_T::initial_route_set};

bool isPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void expect(const framework::XmlDocument& document, const char* xpath, const std::string& written) {
  std::string read;
  // Blanks around a value do not count when it is read.
  PROMISE(document.first(xpath, read) && (!isPlain(written) || read == siplib::trim(written)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  const auto fields = fuzz::split(fuzz::view(data, size), "\x1f");
  const char kind = fields[0].empty() ? 'd' : fields[0][0];
  IMSE_REG_NW_PROFILE_T profile;
  std::string name;
  std::vector<IMSE_UA_INFO_T> infos(1);
  std::size_t setting = 0;
  for (std::size_t i = 1; i < fields.size(); ++i) {
    if (fields[i].empty()) continue;
    const std::string text(fields[i].substr(1));
    IMSE_UA_INFO_T& info = infos.back();
    switch (fields[i][0]) {
      case 'A':
        info.aors.push_back({text, {}});
        break;
      case 'T':
        if (!info.aors.empty()) info.aors.back().feature_tags.push_back(text);
        break;
      case 'H':
        info.sip_headers.push_back({text, {}});
        break;
      case 'V':
        if (!info.sip_headers.empty()) info.sip_headers.back().value = text;
        break;
      case 'U':
        infos.emplace_back();
        infos.back().id = static_cast<int>(infos.size());
        break;
      case 'P':
        profile.*kSettings[setting++ % std::size(kSettings)] = text;
        break;
      default:
        name = text;
        break;
    }
  }

  std::unique_ptr<IMSE_NotifyXmlData> notify;
  if (kind == 'c') {
    notify = std::make_unique<IMSE_NotifyXmlData>(name, profile, static_cast<unsigned short>(infos.size()));
  } else if (kind == 'u') {
    notify = std::make_unique<IMSE_NotifyXmlData>("add", static_cast<unsigned short>(infos.size()));
  } else {
    notify = std::make_unique<IMSE_NotifyXmlData>(static_cast<unsigned short>(infos.size()));
  }
  const IMSE_UA_INFO_T* first = nullptr;
  for (const IMSE_UA_INFO_T& info : infos) {
    PROMISE(notify->add_ua_info(info) == (info.aors.empty() ? 1 : 0));
    if (first == nullptr && !info.aors.empty()) first = &info;
  }
  if (notify->encodeXml() != 0) {
    PROMISE(notify->text() == nullptr && size > 2000);
    return 0;
  }
  const auto length = static_cast<std::size_t>(notify->length());
  PROMISE(length > 1 && notify->text()[length - 1] == '\0' && length - 1 <= IMSE_NotifyXmlData::kMaxSize);
  framework::XmlDocument document;
  std::string error;
  PROMISE(document.parse(notify->text(), length - 1, error));
  expect(document, "/reg-info/action", kind == 'c' ? "CREATE" : kind == 'u' ? "UPDATE" : "DELETE");
  expect(document, "/reg-info/profile-info/name", kind == 'c' ? name : std::string());
  if (kind == 'c') {
    expect(document, "/reg-info/network-profile-info/operation-mode", profile.operation_mode);
    expect(document, "//credentials/impi", profile.impi);
    expect(document, "//initial-route-set", profile.initial_route_set);
  }
  if ((kind != 'c' && kind != 'u') || first == nullptr) return 0;
  if (!first->sip_headers.empty()) {
    expect(document, "/reg-info/ua-info/aor/sip-header/name", first->sip_headers[0].name);
    expect(document, "/reg-info/ua-info/aor/sip-header/value", first->sip_headers[0].value);
  }
  if (!first->aors[0].feature_tags.empty())
    expect(document, "/reg-info/ua-info[1]/aor[1]/request-routing-support/feature-tag", first->aors[0].feature_tags[0]);
  return 0;
}
