#include "registrar/client_factory.h"

#include "framework/log.h"
#include "registrar/ext_client.h"
#include "registrar/int_client.h"
#include "registrar/notify_xml_data.h"
#include "siplib/transaction.h"

std::uint32_t IMSE_ClientFactory::ua_id_counter = 0;

std::unique_ptr<IMSE_Client> IMSE_ClientFactory::create_client(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: IMSE_ClientFactory::create_client");
  std::string type;
  if (request->getHeader("Content-Type", type) != 0) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Content-Type absent ");
    return nullptr;
  }
  if (type != "application/xml") {
    IMS_log::loginfo(5, __func__, "IMSE_REG: Invalid Content-Type");
    return nullptr;
  }
  std::string content;
  const int status = request->getContent(content);
  if (status != 0 || content.empty()) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: No content %d %d", status, static_cast<int>(content.size()));
    return nullptr;
  }
  // The body object looks at the text while it parses, and not later.
  auto body = std::make_unique<RegisterXmlData>(content.data(), static_cast<int>(content.size()));
  if (body->parseXml() != 0) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Invalid content");
    return nullptr;
  }
  switch (body->get_package_type()) {
    case RegisterXmlData::EXTERNAL: {
      const RegisterXmlData::AorList& aors = *body->aors();
      if (IMSE_NotifyXmlData::update_size(aors, body->sip_headers()) > IMSE_NotifyXmlData::kMaxSize) {
        IMS_log::loginfo(4, __func__, "IMSE_REG: Content too large for a NOTIFY: %d AORs, %d headers",
                         static_cast<int>(aors.size()), static_cast<int>(body->sip_headers().size()));
        return nullptr;
      }
      return std::make_unique<IMSE_ExtClient>(std::move(body), ++ua_id_counter);
    }
    case RegisterXmlData::INTERNAL:
      return std::make_unique<IMSE_IntClient>(std::move(body));
    default:
      IMS_log::loginfo(4, __func__, "IMSE_REG: Unknown content");
      return nullptr;
  }
}
