// The documents of a configuration directory, and the capability file.
//
//   config.xml \n%%\n a profile \n%%\n the name that a peer gives for one \n%%\n texts of the capability file, one a
//   line
//
// Promises: a stack setting is what its element says when that is a number in its range, and its default otherwise;
// checking gives one fault at least when one is not, and names only files of the directory; no name leads out of it; a
// value is that of the document as it is now; the capability file has one line for each pair, or stays as it was.

#include "framework/configuration.h"
#include "framework/bounds.h"

#include <array>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "framework/user_agent.h"
#include "framework/xml_document.h"
#include "input.h"
#include "siplib/stack.h"
#include "support/temp_dir.h"

namespace {

constexpr const char* kNode = "/sipstackinit/ue-proxy/";

struct Setting {
  const char* name;
  long least;
  long most;
  long (*get)(const SIPLIB_SIPStackConfig&);
};

long number(std::size_t value) {
  return static_cast<long>(value);
}

constexpr std::array kSettings{
    Setting{"max-connections", 1, 65536, [](const SIPLIB_SIPStackConfig& c) { return number(c.max_connections); }},
    Setting{"max-message-size", 1024, 65536,
            [](const SIPLIB_SIPStackConfig& c) { return number(c.limits.max_message); }},
    Setting{"max-header-size", 512, 65536, [](const SIPLIB_SIPStackConfig& c) { return number(c.limits.max_head); }},
    Setting{"connect-timeout-ms", 10, 600000,
            [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.connect_timeout.count()); }},
    Setting{"idle-timeout-s", 0, 604800,
            [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.idle_timeout.count()); }},
    Setting{"head-timeout-s", 1, 3600,
            [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.head_timeout.count()); }},
    Setting{"t1-ms", 10, 60000, [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.t1.count()); }},
    Setting{"t2-ms", 10, 600000, [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.t2.count()); }},
    Setting{"t4-ms", 10, 600000, [](const SIPLIB_SIPStackConfig& c) { return static_cast<long>(c.t4.count()); }},
};

/// Read here once more, without the code under test.
std::optional<long> numberOf(std::string text, const Setting& setting) {
  constexpr const char* kBlank = " \t\r\n";
  text.erase(0, text.find_first_not_of(kBlank));
  text.erase(text.find_last_not_of(kBlank) + 1);
  const std::size_t digits = text.starts_with('-') ? 1 : 0;
  if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos) return std::nullopt;
  const long value = std::strtol(text.c_str(), nullptr, 10);  // too large: the largest, which is out of range too
  return value >= setting.least && value <= setting.most ? std::optional(value) : std::nullopt;
}

void checkSettings(const TemporaryDir& dir, const framework::XmlDocument& config, bool faults) {
  const SIPLIB_SIPStackConfig defaults;
  SIPLIB_SIPStackConfig read;
  framework::Bounds bounds;
  bool io_thread = false;
  framework::readStackSettings(dir / "config.xml", kNode, read, bounds, io_thread);
  std::string value;
  for (const Setting& setting : kSettings) {
    const bool there = config.first(std::string(kNode) + setting.name, value);
    const std::optional<long> expected = there ? numberOf(value, setting) : std::nullopt;
    PROMISE(setting.get(read) == expected.value_or(setting.get(defaults)));
    PROMISE(!there || expected || faults);
  }
  const bool list = config.first(std::string(kNode) + "control-uids", value);
  const bool numbers = value.find_first_not_of("0123456789 \t\r\n") == std::string::npos;
  PROMISE(read.control_uids.has_value() == list && (!list || numbers || (read.control_uids->empty() && faults)));
  PROMISE(!io_thread || (config.first(std::string(kNode) + "io-thread", value) && value.find("yes") != value.npos));
}

void checkCapFile(const TemporaryDir& dir, const std::vector<std::string_view>& texts) {
  const std::string before = readAll(dir / "ue-proxy.cap");
  const std::string name(texts[0].substr(0, texts[0].find('\0')));
  const std::string value(texts.size() > 1 ? texts[1].substr(0, texts[1].find('\0')) : "");
  const bool clean = std::string(name + value).find_first_of("\r\n") == std::string::npos;
  IMS_User_Agent agent;
  const bool written = agent.create_cap_file(4, "Contact", "<sip:127.0.0.1:5060>", name.c_str(), value.c_str());
  PROMISE(clean || !written);
  const std::string now = readAll(dir / "ue-proxy.cap");
  PROMISE(now == (written ? "Contact: <sip:127.0.0.1:5060>\n" + name + ": " + value + "\n" : before));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const TemporaryDir dir;
  fuzz::logEverything();
  IMS_User_Agent::set_config_dir(dir.path());
  IMS_User_Agent::set_run_dir(dir.path());
  std::string_view rest = fuzz::view(data, size);
  const std::string config_text(fuzz::cut(rest, "\n%%\n"));
  const std::string profile_text(fuzz::cut(rest, "\n%%\n"));
  const std::string name(fuzz::cut(rest, "\n%%\n"));
  dir.write("config.xml", config_text);
  dir.write("profiles/home.xml", profile_text);

  const std::string path = framework::documentPath(dir.path(), name);
  if (!path.empty() && name != "config") {
    PROMISE(path.starts_with(dir / "profiles/") && path.find('/', (dir / "profiles/").size()) == std::string::npos);
    PROMISE(path.find('\0') == std::string::npos && path[(dir / "profiles/").size()] != '.');
  }

  const std::vector<std::string> faults = framework::checkConfiguration(dir.path());
  bool config_faults = false;
  bool profile_faults = false;
  for (const std::string& fault : faults) {
    const bool of_config = fault.starts_with(dir / "config.xml: ");
    const bool of_profile = fault.starts_with(dir / "profiles/home.xml: ");
    PROMISE(of_config || of_profile);
    config_faults = config_faults || of_config;
    profile_faults = profile_faults || of_profile;
  }
  framework::XmlDocument config;
  framework::XmlDocument profile;
  std::string error;
  PROMISE(config.parse(config_text.data(), config_text.size(), error) || config_faults);
  PROMISE(profile.parse(profile_text.data(), profile_text.size(), error) || profile_faults);
  checkSettings(dir, config, config_faults);

  for (const char* const key : {"//impi", "//secret", "//reg/max-attempts", "/*"}) {
    std::string expected;
    std::string value;
    PROMISE(profile.first(key, expected) == IMS_User_Agent::get_xml_parameter(key, value, "home"));
    PROMISE(value == expected);
    const bool known = name == "home" || name == "config";
    PROMISE(IMS_User_Agent::get_xml_parameter(key, value, name) ? known : value.empty());
  }
  checkCapFile(dir, fuzz::split(rest, "\n"));
  return 0;
}
