#include "command_support.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace ctl {

Command withProxyOptions(Command command) {
  command.options.insert(command.options.end(), {{"--proxy-address", "IP", "where the proxy listens", "127.0.0.1"},
                                                 {"--proxy-port", "PORT", "the proxy's port", "5060"},
                                                 {"--transport", "UDP|TCP", "how to reach it", "UDP"},
                                                 {"--timeout", "SECONDS", "how long to wait for an answer", "5"},
                                                 {"--help", "", "this text", ""}});
  return command;
}

std::optional<int> parseOrExit(const Command& command, const std::vector<std::string>& words, Arguments& arguments) {
  if (std::find_if(words.begin(), words.end(), [](const auto& word) { return word == "--help" || word == "-h"; }) !=
      words.end()) {
    std::fputs(helpText(command).c_str(), stdout);
    return 0;
  }
  std::string error;
  if (!arguments.parse(command, words, error)) {
    return fault(error + "; see ue-proxyctl " + command.name + " --help", 2);
  }
  return std::nullopt;
}

bool proxyAddress(const Arguments& arguments, ProxyAddress& proxy) {
  std::string error;
  long port = 0;
  long seconds = 0;
  proxy.ip = arguments.get("--proxy-address");
  proxy.transport = arguments.get("--transport");
  std::transform(proxy.transport.begin(), proxy.transport.end(), proxy.transport.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  if (proxy.transport != "UDP" && proxy.transport != "TCP") error = "--transport needs UDP or TCP";
  if (!error.empty() || !arguments.number("--proxy-port", 1, 65535, port, error) ||
      !arguments.number("--timeout", 1, 3600, seconds, error)) {
    fault(error);
    return false;
  }
  proxy.port = static_cast<int>(port);
  proxy.timeout = std::chrono::seconds(seconds);
  return true;
}

int fault(const std::string& text, int status) {
  std::fprintf(stderr, "ue-proxyctl: %s\n", text.c_str());
  return status;
}

std::string xmlText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

namespace {
constexpr std::int64_t kEpoch2026 = 1767225600;
}

long tick() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count() / 250 - kEpoch2026 * 4);
}

void leaveTick(long used) {
  while (tick() == used) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace ctl
