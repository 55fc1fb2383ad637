#include "framework/set_route_xml.h"

#include "framework/log.h"
#include "framework/xml_document.h"

void IMSSetRouteXml::set_text(const char* text, int length) {
  text_ = text;
  length_ = length;
}

int IMSSetRouteXml::parseXml() {
  action_.clear();
  profile_id_.clear();
  device_name_.clear();
  ip_type_port_.clear();
  const auto length = static_cast<std::size_t>(text_ != nullptr && length_ > 0 ? length_ : 0);
  framework::XmlDocument document;
  std::string error;
  if (!document.parse(text_, length, error)) {
    IMS_log::loginfo(4, "parseXml", "route command refused: %s", error.c_str());
    return -1;
  }
  document.first("//action", action_);
  document.first("//zel-profile-id", profile_id_);
  document.first("//device-name", device_name_);
  document.first("//ip-type-port", ip_type_port_);
  return 0;
}
