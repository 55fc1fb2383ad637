#include "siplib/transaction_head.h"

#include <arpa/inet.h>

#include <algorithm>
#include <memory>

#include "siplib/address.h"
#include "siplib/header.h"
#include "siplib/random.h"
#include "siplib/reason.h"
#include "siplib/text.h"

namespace siplib {
namespace {

constexpr std::string_view kCookie = "z9hG4bK";

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](char c) { return lower(c); });
  return out;
}

std::string random() {
  SIPLIB_UTIL_RANDOM_STRING_T text;
  SIPLIB_UTIL_generateRandomString(text);
  return text;
}

bool isLiteral(const std::string& host) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// "number method"; nothing else may be there.
const char* readCSeq(std::string_view text, Head& head) {
  std::size_t at = text.find_first_not_of("0123456789");
  if (at == 0 || at == std::string_view::npos || !isBlank(text[at])) return "CSeq is not a number and a method";
  const auto number = decimal(text.substr(0, at), 0x7fffffff);
  if (!number) return "CSeq number out of range";
  while (at < text.size() && isBlank(text[at])) ++at;
  const std::string_view method = text.substr(at);
  if (method.empty() || method.find_first_of(" \t") != std::string_view::npos) {
    return "CSeq is not a number and a method";
  }
  head.number = *number;
  head.method = method;
  return nullptr;
}

const char* readVia(std::string_view value, Head& head) {
  const std::unique_ptr<SIPLIB_SIPHeader> via(SIPLIB_SIPHeader::createSIPHeaderObject("Via", value));
  if (!via) return "Via cannot be read";
  head.via = value;
  if (via->getParameter("host", head.sent_by) != 0 || head.sent_by.empty()) return "Via cannot be read";
  std::string port;
  if (via->getParameter("port", port) == 0) {
    head.sent_by_port = via->getParameterNumber("port");
    if (head.sent_by_port < 1) return "Via port out of range";
  }
  via->getParameter("branch", head.branch);
  head.rport = via->getParameter("rport", port) == 0;
  return nullptr;
}

bool readTag(std::string_view name, std::string_view value, std::string& tag) {
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, value));
  if (header) header->getParameter("tag", tag);
  return header != nullptr;
}

}  // namespace

const char* readHead(const SIPLIB_message& message, Head& head) {
  const auto via = message.header("Via");
  if (!via) return "no Via";
  const char* wrong = readVia(*via, head);

  struct Once {
    const char* name;
    std::string* value;
    const char* missing;
    const char* twice;
  };
  std::string cseq;
  const Once once[] = {{"CSeq", &cseq, "no CSeq", "more than one CSeq"},
                       {"From", &head.from, "no From", "more than one From"},
                       {"To", &head.to, "no To", "more than one To"},
                       {"Call-ID", &head.call_id, "no Call-ID", "more than one Call-ID"}};
  for (const Once& header : once) {
    const auto value = message.header(header.name);
    if (value) *header.value = *value;
    if (wrong) continue;
    if (header.value->empty())
      wrong = header.missing;
    else if (message.headerCount(header.name) > 1)
      wrong = header.twice;
  }
  if (wrong) return wrong;

  wrong = readCSeq(cseq, head);
  if (wrong) return wrong;
  if (message.isRequest() && head.method != message.method()) return "CSeq of another method";
  // What cannot be read has no tag that a dialog could go by, and our own requests in it would carry it on.
  if (!readTag("From", head.from, head.from_tag)) return "From cannot be read";
  if (!readTag("To", head.to, head.to_tag)) return "To cannot be read";
  return nullptr;
}

std::string serverKey(const Head& head, std::string_view request_uri) {
  std::string key = "s\n" + head.method + '\n';
  if (head.branch.size() > kCookie.size() && equalsIgnoreCase(head.branch.substr(0, kCookie.size()), kCookie)) {
    return key + lowered(head.branch) + '\n' + lowered(head.sent_by) + ':' + std::to_string(head.sent_by_port);
  }
  key.append(request_uri).append("\n").append(head.via).append("\n").append(head.call_id).append("\n");
  return key + head.from_tag + '\n' + head.to_tag + '\n' + std::to_string(head.number);
}

std::string clientKey(const Head& head) {
  return "c\n" + head.method + '\n' + lowered(head.branch) + '\n' + std::to_string(head.number);
}

std::string newBranch() {
  return std::string(kCookie) + random();
}

std::string newTag() {
  return random();
}

std::string headerParameter(std::string_view name, std::string_view value, std::string_view parameter) {
  const std::unique_ptr<SIPLIB_SIPHeader> header(SIPLIB_SIPHeader::createSIPHeaderObject(name, value));
  std::string text;
  if (header) header->getParameter(parameter, text);
  return text;
}

std::string uriWithin(std::string_view value) {
  std::string_view uri;
  const std::size_t open = findUnquoted(value, '<');
  if (open != std::string_view::npos) {
    const std::size_t close = value.find('>', open);
    if (close == std::string_view::npos) return {};
    uri = value.substr(open + 1, close - open - 1);
  } else if (value.find('"') == std::string_view::npos) {
    uri = value.substr(0, value.find(';'));
  }
  return std::string(trim(uri.substr(0, uri.find('?'))));
}

Hop hopOf(std::string_view uri) {
  Hop hop;
  const std::unique_ptr<SIPLIB_SIPAddress> address(
      SIPLIB_SIPAddress::createSIPAddressObject("Contact", '<' + std::string(uri) + '>'));
  if (!address || !equalsIgnoreCase(address->getScheme(), "sip")) return hop;
  std::string host(address->getHost());
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (address->getPort() > 0) hop.port = address->getPort();
  if (address->getParameter("transport", hop.transport) == 0) hop.transport = lowered(hop.transport);
  if (isLiteral(host)) hop.ip = host;
  return hop;
}

std::string contactValue(std::string_view ip, int port, bool reliable) {
  std::string value = "<sip:";
  const bool v6 = ip.find(':') != std::string_view::npos;
  if (v6) value += '[';
  value += ip;
  if (v6) value += ']';
  value += ':' + std::to_string(port);
  return value + (reliable ? ";transport=tcp>" : ">");
}

SIPLIB_message* newAnswer(const SIPLIB_message& request, int status, std::string_view to_tag) {
  auto answer = std::make_unique<SIPLIB_message>(status, reasonPhrase(status));
  answer->appendLines("Via", request);
  if (const auto from = request.header("From")) answer->addHeader("From", *from);
  if (const auto to = request.header("To")) {
    std::string value(*to);
    if (status > 100 && headerParameter("To", value, "tag").empty()) value.append(";tag=").append(to_tag);
    answer->addHeader("To", value);
  }
  if (const auto call_id = request.header("Call-ID")) answer->addHeader("Call-ID", *call_id);
  if (const auto cseq = request.header("CSeq")) answer->addHeader("CSeq", *cseq);
  return answer.release();
}

}  // namespace siplib
