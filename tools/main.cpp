// ue-proxyctl: sets routes, registers user agents and watches registrations of a running ue-proxy.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "command_support.h"
#include "commands.h"

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  const std::vector<std::string> rest(argv + std::min(argc, 2), argv + argc);
  if (verb == "route") return ctl::routeCommand(rest);
  if (verb == "register") return ctl::registerCommand(rest);
  if (verb == "deregister") return ctl::deregisterCommand(rest);
  if (verb == "watch") return ctl::watchCommand(rest);
  if (verb == "-V" || verb == "--version") {
    std::puts("ue-proxyctl " UE_PROXY_VERSION);
    return 0;
  }
  const bool help = verb == "-h" || verb == "--help";
  std::fputs(
      "usage: ue-proxyctl COMMAND [OPTION...]\n"
      "\n"
      "  route set|update|delete   tell the proxy which network proxy serves a network profile\n"
      "  register                  register a user agent with the local registrar\n"
      "  deregister                end a registration\n"
      "  watch                     print every change of the local registrations\n"
      "\n"
      "ue-proxyctl COMMAND --help tells the options. Exit status: 0 done, 1 refused or no answer, 2 wrong command "
      "line.\n",
      help ? stdout : stderr);
  if (!help && !verb.empty()) ctl::fault("unknown command '" + verb + "'", 2);
  return help ? 0 : 2;
}
