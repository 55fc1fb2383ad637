#include "registrar/client_factory.h"

#include <algorithm>

#include "framework/bounds.h"
#include "framework/log.h"
#include "registrar/ext_client.h"
#include "registrar/int_client.h"
#include "registrar/notify_xml_data.h"
#include "siplib/transaction.h"

namespace {

ClientAmount amount_of(SIPLIB_SIPServerConnection* request, const RegisterXmlData& body) {
  ClientAmount amount;
  amount.text_bytes = IMSE_Client::read_identity(request).from.size();
  if (body.packages() != nullptr) amount.text_bytes += body.packages()->size();
  if (body.aors() != nullptr) {
    for (const auto& aor : *body.aors()) amount.add(*aor);
  }
  return amount;
}

bool has_long_tag(const RegisterXmlData& body) {
  if (body.aors() == nullptr) return false;
  return std::any_of(body.aors()->begin(), body.aors()->end(), [](const auto& aor) {
    return std::any_of(aor->feature_tags.begin(), aor->feature_tags.end(),
                       [](const std::string& tag) { return tag.size() > framework::bounds().feature_tag_size; });
  });
}

/// The setting that the client is above, by itself or with the others; or null.
const char* bound_exceeded(const ClientAmount& amount, const RegisterXmlData& body, const IMSE_Client* replaced) {
  const framework::Bounds& most = framework::bounds();
  if (amount.aors > most.client_aors) return "max-client-aors";
  if (amount.feature_tags > most.client_feature_tags) return "max-client-feature-tags";
  if (has_long_tag(body)) return "max-feature-tag-size";
  if (amount.text_bytes > most.client_text) return "max-client-text";
  ClientAmount total = IMSE_Client::held_by_all();
  if (replaced != nullptr) total -= replaced->held();
  return (total += amount).bound_exceeded();
}

}  // namespace

std::uint32_t IMSE_ClientFactory::ua_id_counter = 0;

std::unique_ptr<IMSE_Client> IMSE_ClientFactory::create_client(SIPLIB_SIPServerConnection* request,
                                                               const IMSE_Client* replaced) {
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
  const ClientAmount amount = amount_of(request, *body);
  if (const char* const bound = bound_exceeded(amount, *body, replaced); bound != nullptr) {
    IMS_log::loginfo(4, __func__, "IMSE_REG: Content above %s: %d AORs, %d feature tags, %d bytes of other texts",
                     bound, static_cast<int>(amount.aors), static_cast<int>(amount.feature_tags),
                     static_cast<int>(amount.text_bytes));
    return nullptr;
  }
  std::unique_ptr<IMSE_Client> client;
  switch (body->get_package_type()) {
    case RegisterXmlData::EXTERNAL: {
      const RegisterXmlData::AorList& aors = *body->aors();
      if (IMSE_NotifyXmlData::update_size(aors, body->sip_headers()) > IMSE_NotifyXmlData::kMaxSize) {
        IMS_log::loginfo(4, __func__, "IMSE_REG: Content too large for a NOTIFY: %d AORs, %d headers",
                         static_cast<int>(aors.size()), static_cast<int>(body->sip_headers().size()));
        return nullptr;
      }
      client = std::make_unique<IMSE_ExtClient>(std::move(body), ++ua_id_counter);
      break;
    }
    case RegisterXmlData::INTERNAL:
      client = std::make_unique<IMSE_IntClient>(std::move(body));
      break;
    default:
      IMS_log::loginfo(4, __func__, "IMSE_REG: Unknown content");
      return nullptr;
  }
  client->hold(amount);
  return client;
}
