// ue-proxyctl route set|update|delete: sends a route command in a MESSAGE to the proxy itself.

#include <cstdio>

#include "command_support.h"
#include "commands.h"

namespace ctl {
namespace {

/// The text of the element in a route-info answer; empty when it is not there.
std::string elementText(const std::string& xml, const std::string& element) {
  const auto open = xml.find("<" + element + ">");
  if (open == std::string::npos) return {};
  const auto begin = open + element.size() + 2;
  const auto end = xml.find("</" + element + ">", begin);
  return end == std::string::npos ? std::string() : xml.substr(begin, end - begin);
}

}  // namespace

int routeCommand(const std::vector<std::string>& words) {
  const Command command = withProxyOptions(
      {"route set|update|delete",
       "Tells the proxy which network proxy serves a network profile. Prints the profile id that was answered.",
       {{"--profile", "ID", "the profile id (the Zel-Profile-ID of the registration)", ""},
        {"--proxy", "IP:TCP|UDP:PORT", "the profile's outbound proxy (set, update)", ""},
        {"--device", "NAME", "interface, ipv4, ipv6 or own address on the network side (set)", ""}}});
  Arguments arguments;
  const std::string verb = words.empty() ? "" : words.front();
  const bool known = verb == "set" || verb == "update" || verb == "delete";
  const std::vector<std::string> rest(words.begin() + (known ? 1 : 0), words.end());
  if (const auto status = parseOrExit(command, rest, arguments)) return *status;
  if (!known) return fault("route needs set, update or delete; see ue-proxyctl route --help", 2);
  if (arguments.get("--profile").empty()) return fault("route " + verb + " needs --profile", 2);
  if (verb != "delete" && arguments.get("--proxy").empty()) return fault("route " + verb + " needs --proxy", 2);
  if (verb == "set" && arguments.get("--device").empty()) return fault("route set needs --device", 2);
  ProxyAddress proxy;
  if (!proxyAddress(arguments, proxy)) return 2;

  Session session;
  std::string error;
  if (!session.open(error)) return fault(error);
  const std::string self = "sip:" + proxy.ip;
  Request request{.method = "MESSAGE",
                  .uri = self,
                  .from = "<sip:ue-proxyctl@127.0.0.1>",
                  .to = "<" + self + ">",
                  .headers = {},
                  .content_type = "application/xml",
                  .body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<route-info>\n  <action>" + verb +
                          "-route</action>\n  <profile-info>\n    <zel-profile-id>" +
                          xmlText(arguments.get("--profile")) +
                          "</zel-profile-id>\n  </profile-info>\n  <device-name>" + xmlText(arguments.get("--device")) +
                          "</device-name>\n  <ip-type-port>" + xmlText(arguments.get("--proxy")) +
                          "</ip-type-port>\n</route-info>\n"};
  const Answer answer = session.ask(proxy, request, {});
  if (answer.status == 0 || answer.status == 408) {
    return fault("no answer from the proxy at " + proxy.ip + ":" + std::to_string(proxy.port) +
                 " (a refused command is not answered; the proxy's log says why)");
  }
  if (answer.status != 200) return fault("answered " + std::to_string(answer.status) + " " + answer.reason);
  std::printf("%s\n", elementText(answer.body, "zel-profile-id").c_str());
  return 0;
}

}  // namespace ctl
