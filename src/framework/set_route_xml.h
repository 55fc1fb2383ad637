// The body of a route command.
//
//   <route-info><action>set-route</action><profile-info><zel-profile-id>1</zel-profile-id></profile-info>
//     <device-name>eth0</device-name><ip-type-port>192.0.2.10:TCP:5060</ip-type-port></route-info>
#pragma once

#include <string>

/// Any element may be absent (empty value); order is free; the first of each name counts. White space around a value
/// does not.
class IMSSetRouteXml {
 public:
  /// The text and its length including the terminating NUL; not owned, used by parseXml only.
  void set_text(const char* text, int length);
  /// 0 when the document is well-formed (all values then set, maybe empty), -1 otherwise (all values empty, one log
  /// line).
  int parseXml();

  const std::string& action() const { return action_; }
  const std::string& profile_id() const { return profile_id_; }
  const std::string& device_name() const { return device_name_; }
  const std::string& ip_type_port() const { return ip_type_port_; }

 private:
  const char* text_ = nullptr;
  int length_ = 0;
  std::string action_;
  std::string profile_id_;
  std::string device_name_;
  std::string ip_type_port_;
};
