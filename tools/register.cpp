// ue-proxyctl register|deregister: registers the user agent at a port with the local registrar, on its behalf.

#include <cstdio>

#include "command_support.h"
#include "commands.h"

namespace ctl {
namespace {

Command registerOptions(const std::string& name, const std::string& summary) {
  return withProxyOptions({name,
                           summary,
                           {{"--port", "PORT", "the user agent's port on 127.0.0.1", ""},
                            {"--user", "NAME", "its local user: From is sip:NAME@127.0.0.1", "anonymous"},
                            {"--from", "URI", "its whole From instead of --user", ""},
                            {"--profile-name", "NAME", "network profile (external user agent)", ""},
                            {"--aor", "URI", "address of record; may be repeated", ""},
                            {"--feature-tag", "TAG", "feature tag of every --aor; may be repeated", ""},
                            {"--events", "LIST", "event packages of every --aor", ""},
                            {"--methods", "LIST", "methods of every --aor", ""},
                            {"--content-types", "LIST", "content types of every --aor", ""},
                            {"--header", "NAME:VALUE", "SIP header for the watcher; may be repeated", ""},
                            {"--reg-expires-pref", "SECONDS", "preferred network registration expiry", ""},
                            {"--packages", "LIST", "event packages (internal module, instead of --profile-name)", ""},
                            {"--expires", "SECONDS", "expiry of the registration", "3600"},
                            {"--call-id", "ID", "Call-ID (default: made of the port)", ""}}});
}

void addElement(std::string& xml, const std::string& name, const std::string& text) {
  if (!text.empty()) xml += "<" + name + ">" + xmlText(text) + "</" + name + ">";
}

/// The body that describes the user agent. No white space between elements: the registrar takes an address of record's
/// text as it stands.
std::string registrationBody(const Arguments& arguments) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  if (arguments.has("--packages")) {
    return xml + "<module-info><package-info>" + xmlText(arguments.get("--packages")) +
           "</package-info></module-info>\n";
  }
  xml += "<ua-info>";
  addElement(xml, "reg-expires-pref", arguments.get("--reg-expires-pref"));
  xml += "<profile-info><name>" + xmlText(arguments.get("--profile-name")) + "</name></profile-info>";
  bool first = true;
  for (const auto& aor : arguments.all("--aor")) {
    xml += "<aor>" + xmlText(aor) + "<ua-specific-parameters>";
    for (const auto& tag : arguments.all("--feature-tag")) addElement(xml, "feature-tag", tag);
    addElement(xml, "events", arguments.get("--events"));
    addElement(xml, "methods", arguments.get("--methods"));
    addElement(xml, "content-type", arguments.get("--content-types"));
    if (first && arguments.has("--header")) {
      xml += "<sip-headers>";
      for (const auto& header : arguments.all("--header")) addElement(xml, "header", header);
      xml += "</sip-headers>";
    }
    first = false;
    xml += "</ua-specific-parameters></aor>";
  }
  return xml + "</ua-info>\n";
}

int sendRegister(const Arguments& arguments, const std::string& expires) {
  std::string error;
  long port = 0;
  long seconds = 0;
  if (!arguments.number("--port", 1, 65535, port, error)) return fault(error, 2);
  if (!arguments.number("--expires", 0, 0x7fffffff, seconds, error)) return fault(error, 2);
  if (!arguments.has("--packages") && arguments.get("--profile-name").empty()) {
    return fault("needs --profile-name (external user agent) or --packages (internal module)", 2);
  }
  ProxyAddress proxy;
  if (!proxyAddress(arguments, proxy)) return 2;

  Session session;
  if (!session.open(error)) return fault(error);
  const long sequence = tick();
  const std::string from =
      arguments.has("--from") ? "<" + arguments.get("--from") + ">" : "<sip:" + arguments.get("--user") + "@127.0.0.1>";
  const std::string port_text = std::to_string(port);
  Request request{.method = "REGISTER",
                  .uri = "sip:127.0.0.1",
                  .from = from,
                  .to = from,
                  .headers = {{"Call-ID", arguments.has("--call-id") ? arguments.get("--call-id")
                                                                     : "ue-proxyctl-" + port_text + "@127.0.0.1"},
                              {"CSeq", std::to_string(sequence) + " REGISTER"},
                              {"Contact", "<sip:127.0.0.1:" + port_text + ">"},
                              {"Expires", expires}},
                  .content_type = "application/xml",
                  .body = registrationBody(arguments)};
  const Answer answer = session.ask(proxy, request, {"Expires", "Zel-Profile-ID"});
  leaveTick(sequence);
  if (answer.status == 0) {
    return fault("no answer from the registrar at " + proxy.ip + ":" + std::to_string(proxy.port) +
                 (answer.reason.empty() ? "" : " (" + answer.reason + ")"));
  }
  std::printf("%d %s\n", answer.status, answer.reason.c_str());
  for (const auto& [name, value] : answer.headers) std::printf("%s: %s\n", name.c_str(), value.c_str());
  return answer.status == 200 ? 0 : 1;
}

}  // namespace

int registerCommand(const std::vector<std::string>& words) {
  Arguments arguments;
  const Command command = registerOptions(
      "register", "Registers the user agent at a port of 127.0.0.1. Prints status, Expires and Zel-Profile-ID.");
  if (const auto status = parseOrExit(command, words, arguments)) return *status;
  return sendRegister(arguments, arguments.get("--expires"));
}

int deregisterCommand(const std::vector<std::string>& words) {
  Arguments arguments;
  const Command command = registerOptions(
      "deregister", "Ends a registration made by register; give the same options. Prints status and Expires.");
  if (const auto status = parseOrExit(command, words, arguments)) return *status;
  return sendRegister(arguments, "0");
}

}  // namespace ctl
