// Bodies of REGISTER requests, and what the registrar makes of them.
//
//   the body
//
// Promises: a body is of one kind, and only that kind's readers answer; reading it twice gives the same; of a user
// agent that fits in a NOTIFY, the NOTIFY can be written and is XML of at most the size allowed; of one that does not
// fit, it cannot.

#include "registrar/register_xml_data.h"

#include <memory>
#include <string>
#include <utility>

#include "framework/xml_document.h"
#include "input.h"
#include "registrar/ext_client.h"
#include "registrar/notify_xml_data.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::logEverything();
  const std::string text(fuzz::view(data, size));
  auto body = std::make_unique<RegisterXmlData>(text.data(), static_cast<int>(text.size()));
  const int kind = body->get_package_type();
  const int parsed = body->parseXml();
  std::string packages;
  ClientTable_Entry_T entry;
  if (kind == RegisterXmlData::UNKNOWN) PROMISE(parsed == -1);
  if (parsed != 0) return 0;
  PROMISE(body->get_package_type() == kind);
  PROMISE(body->get_packages(packages) == (kind == RegisterXmlData::INTERNAL ? 0 : 1));
  PROMISE(body->get_client_info(entry) == (kind == RegisterXmlData::EXTERNAL ? 0 : 1));
  PROMISE((body->get_aor() != nullptr) == (kind == RegisterXmlData::EXTERNAL));
  const auto headers = body->get_sip_headers();
  for (const ClientHeader_T& header : headers)
    PROMISE(!header.name.empty() && header.name.find(':') == std::string::npos);
  print_structure_info(IMSE_REG_STRUCTURE_AOR_LIST, body->get_aor());

  PROMISE(body->parseXml() == 0 && body->get_sip_headers().size() == headers.size());
  if (kind != RegisterXmlData::EXTERNAL) return 0;
  ClientTable_Entry_T again;
  PROMISE(body->get_client_info(again) == 0 && again.aors.size() == entry.aors.size());

  const std::size_t counted = IMSE_NotifyXmlData::update_size(*body->get_aor(), headers);
  const IMSE_ExtClient client(std::move(body), 7);
  IMSE_UA_INFO_T info;
  client.get_ua_info(info);
  PROMISE(info.aors.size() == entry.aors.size() && info.sip_headers.size() == headers.size());
  client.match_routing_info(&client);
  IMSE_NotifyXmlData update("delete", 65535);
  if (update.add_ua_info(info) != 0) return 0;
  if (update.encodeXml() != 0) {
    PROMISE(counted > IMSE_NotifyXmlData::kMaxSize);
    return 0;
  }
  framework::XmlDocument document;
  std::string error;
  const auto length = static_cast<std::size_t>(update.length() - 1);
  PROMISE(length <= counted && length <= IMSE_NotifyXmlData::kMaxSize);
  PROMISE(document.parse(update.text(), length, error));
  return 0;
}
