// ue-proxyctl watch: subscribes to the registrar's "local-reg-events" as its one watcher and prints every NOTIFY.

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "command_support.h"
#include "commands.h"

namespace ctl {
namespace {

/// One line per element that has text or children, indented by depth.
void printTree(const xmlNode* node, int depth) {
  for (; node; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    std::string text;
    for (const xmlNode* child = node->children; child; child = child->next) {
      if (child->type == XML_TEXT_NODE && !xmlIsBlankNode(child)) text += reinterpret_cast<const char*>(child->content);
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    std::printf("%*s%s%s%s\n", 2 + depth * 2, "", reinterpret_cast<const char*>(node->name), text.empty() ? "" : ": ",
                text.c_str());
    printTree(node->children, depth + 1);
  }
}

void printReadable(const std::string& body) {
  xmlDoc* document = xmlReadMemory(body.data(), static_cast<int>(body.size()), "notify", nullptr,
                                   XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (!document) {
    std::printf("  (a body that is no XML, %zu bytes)\n", body.size());
    return;
  }
  printTree(xmlDocGetRootElement(document), 0);
  xmlFreeDoc(document);
}

}  // namespace

int watchCommand(const std::vector<std::string>& words) {
  const Command command = withProxyOptions(
      {"watch",
       "Watches the local registrations until ctrl-C, which unsubscribes. There is one watcher at a time.",
       {{"--xml", "", "print each body as it came", ""},
        {"--expires", "SECONDS", "subscription time; refreshed after half of it", "3600"},
        {"--count", "N", "end after N NOTIFYs (0: never)", "0"}}});
  Arguments arguments;
  if (const auto status = parseOrExit(command, words, arguments)) return *status;
  ProxyAddress proxy;
  std::string error;
  long expires = 0;
  long count = 0;
  if (!proxyAddress(arguments, proxy)) return 2;
  if (!arguments.number("--expires", 1, 0x7fffffff, expires, error) ||
      !arguments.number("--count", 0, 0x7fffffff, count, error)) {
    return fault(error, 2);
  }

  Session session;
  if (!session.open(error)) return fault(error);
  long seen = 0;
  bool terminated = false;
  bool stop = false;
  session.onRequest([&](SIPLIB_SIPServerConnection& request) {
    std::string state;
    std::string body;
    request.getHeader("Subscription-State", state);
    request.getContent(body);
    std::printf("%s %s%s\n", request.getMethod().c_str(), state.c_str(), body.empty() ? " (no body)" : "");
    if (arguments.has("--xml")) {
      std::fputs(body.c_str(), stdout);
    } else if (!body.empty()) {
      printReadable(body);
    }
    std::fflush(stdout);
    ++seen;
    terminated = terminated || state.starts_with("terminated");
  });
  session.reactor().onSignal(SIGINT, [&](int) { stop = true; });
  session.reactor().onSignal(SIGTERM, [&](int) { stop = true; });

  Request request{.method = "SUBSCRIBE",
                  .uri = "sip:registrar@" + proxy.ip,
                  .from = "<sip:regua@127.0.0.1>",
                  .to = "<sip:registrar@" + proxy.ip + ">",
                  .headers = {{"Event", "local-reg-events"}, {"Expires", std::to_string(expires)}},
                  .content_type = {},
                  .body = {}};
  const Answer answer = session.ask(proxy, request, {});
  if (answer.status == 0) return fault("no answer from the registrar");
  if (answer.status != 200) return fault("refused: " + std::to_string(answer.status) + " " + answer.reason);
  std::printf("watching as sip:regua@127.0.0.1 at %s\n", session.contact().c_str());
  std::fflush(stdout);

  const auto over = [&] { return stop || terminated || (count != 0 && seen >= count); };
  const auto half = std::chrono::milliseconds(expires * 500L);
  while (!session.wait(half, over)) {
    const Answer refreshed =
        session.askInDialog(session.dialog(), "SUBSCRIBE",
                            {{"Event", "local-reg-events"}, {"Expires", std::to_string(expires)}}, proxy.timeout);
    if (refreshed.status != 200) return fault("the subscription could not be refreshed; start watch again");
  }
  if (terminated) return fault("the registrar ended the subscription");
  const Answer ended = session.askInDialog(session.dialog(), "SUBSCRIBE",
                                           {{"Event", "local-reg-events"}, {"Expires", "0"}}, proxy.timeout);
  if (ended.status != 200) return fault("the registrar did not answer the unsubscription");
  session.wait(std::chrono::milliseconds(500), [&] { return terminated; });
  return 0;
}

}  // namespace ctl
