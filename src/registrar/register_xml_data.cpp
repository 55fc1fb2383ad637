#include "registrar/register_xml_data.h"

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "framework/log.h"
#include "framework/utility.h"
#include "framework/xml_document.h"
#include "registrar/text_number.h"
#include "siplib/text.h"

// The parser's process-wide state is left alone: other documents are read while this one ends, so a clean-up belongs to
// the end of the process only. Each document and result frees its own memory.

namespace {

struct FreeXPathObject {
  void operator()(_xmlXPathObject* object) const { xmlXPathFreeObject(object); }
};
using NodeSet = std::unique_ptr<_xmlXPathObject, FreeXPathObject>;

bool is_named(const _xmlNode* node, const char* name) {
  return node->name != nullptr && std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

/// The text directly inside a node, without that of child elements; none when there is no text at all. Entities are
/// text already: only the predefined ones pass the parser. Linear, where libxml2's own list operation is not.
std::optional<std::string> own_text(const _xmlNode* node) {
  std::optional<std::string> text;
  for (const _xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type != XML_TEXT_NODE && child->type != XML_CDATA_SECTION_NODE) continue;
    if (!text) text.emplace();
    if (child->content != nullptr) text->append(reinterpret_cast<const char*>(child->content));
  }
  return text;
}

/// A value: the node's text without the white space around it, which is layout. Text of nothing else is none; an empty
/// CDATA section is text all the same.
std::optional<std::string> value_of(const _xmlNode* node) {
  std::optional<std::string> text = own_text(node);
  if (!text || text->empty()) return text;
  const std::string_view value = siplib::trim(*text);
  return value.empty() ? std::nullopt : std::optional<std::string>(value);
}

std::optional<std::string> first_value(const NodeSet& nodes) {
  return value_of(nodes->nodesetval->nodeTab[0]);
}

/// Unless it has been parsed already.
bool parse(framework::XmlDocument& document, const char* text, int length) {
  if (document.get() != nullptr) return true;
  std::string error;
  if (document.parse(text, static_cast<std::size_t>(length), error)) return true;
  IMS_log::loginfo(5, __func__, "IMSE_REG: %s", error.c_str());
  return false;
}

}  // namespace

RegisterXmlData::RegisterXmlData(const char* text, int length) : XmlData(text, length) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXml Data Constructor");
}

RegisterXmlData::~RegisterXmlData() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXMlData Destructor ");
}

int RegisterXmlData::parseXml() {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::parseXml %d", package_type_);
  framework::XmlDocument document;
  if (package_type_ == UNKNOWN) package_type_ = package_type_of(document);
  switch (package_type_) {
    case INTERNAL:
      packages_ = std::make_unique<std::string>();
      aors_.reset();
      return parse_iclient_xml(document);
    case EXTERNAL:
      aors_ = std::make_unique<AorList>();
      packages_.reset();
      sip_headers_.clear();
      return parse_eclient_xml(document);
    default:
      return -1;
  }
}

int RegisterXmlData::get_package_type() const {
  framework::XmlDocument document;
  return package_type_of(document);
}

int RegisterXmlData::package_type_of(framework::XmlDocument& document) const {
  IMS_log::loginfo(5, "get_package_type", "IMSE_REG: RegisterXmlData::get_package_type %d", package_type_);
  if (package_type_ != UNKNOWN) return package_type_;
  if (!parse(document, text_, length_)) {
    IMS_log::loginfo(4, "get_package_type", "Error in get_package %d", 400);
    return UNKNOWN;
  }
  const _xmlNode* root = xmlDocGetRootElement(document.get());
  if (root == nullptr) return UNKNOWN;
  if (is_named(root, "ua-info")) return EXTERNAL;
  return is_named(root, "module-info") ? INTERNAL : UNKNOWN;
}

int RegisterXmlData::get_client_info(ClientTable_Entry_T& entry) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_client_info");
  if (package_type_ != EXTERNAL || !aors_) return 1;
  for (const auto& aor : *aors_) entry.aors.push_back(*aor);
  entry.profile_name = net_prof_name_;
  return 0;
}

int RegisterXmlData::get_packages(std::string& packages) const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_packages");
  if (package_type_ != INTERNAL || !packages_) return 1;
  packages = *packages_;
  return 0;
}

std::string RegisterXmlData::get_net_prof_name() const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_net_prof_name");
  return net_prof_name_;
}

int RegisterXmlData::get_nw_expiry_value() const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_nw_expiry_value");
  return nw_expiry_;
}

const RegisterXmlData::AorList* RegisterXmlData::get_aor() const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_aor");
  return aors_.get();
}

std::vector<ClientHeader_T> RegisterXmlData::get_sip_headers() const {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_sip_headers");
  return sip_headers_;
}

_xmlXPathObject* RegisterXmlData::get_nodeset(_xmlDoc* document, const char* xpath) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::get_nodeset %s", xpath);
  xmlXPathContextPtr context = xmlXPathNewContext(document);
  if (context == nullptr) {
    IMS_log::loginfo(4, __func__, "Error in get_nodeset %d", 345);
    return nullptr;
  }
  // libxml2 has a report of its own for an expression that it does not take; the line below is ours.
  context->error = [](void*, auto*) {};
  NodeSet result(xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath), context));
  xmlXPathFreeContext(context);
  if (!result) {
    IMS_log::loginfo(4, __func__, "Error in get_nodeset %d", 350);
    return nullptr;
  }
  if (xmlXPathNodeSetIsEmpty(result->nodesetval)) return nullptr;
  return result.release();
}

IMSE_REG_TAB_INDEX RegisterXmlData::map_node_name_to_index(const _xmlNode* node) {
  IMSE_REG_TAB_INDEX index = IMSE_REG_TAB_OTHER;
  if (is_named(node, "feature-tag")) index = IMSE_REG_TAB_FEATURE_TAG;
  if (is_named(node, "events")) index = IMSE_REG_TAB_EVENTS;
  if (is_named(node, "methods")) index = IMSE_REG_TAB_METHODS;
  if (is_named(node, "content-type")) index = IMSE_REG_TAB_CONTENT_TYPE;
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData:: map_node_name_to_index %d", index);
  return index;
}

void RegisterXmlData::tokenize(IMSE_REG_TAB_INDEX /*index*/, ClientAOR_T* /*aor*/, const char* text) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::tokenize");
  if (text == nullptr) return;
  std::vector<std::string> pieces;
  IMS_utility::tokenize(text, pieces, ":");
  if (pieces.empty()) return;  // nothing that could be a name
  sip_headers_.push_back({pieces[0], pieces.size() > 1 ? pieces[1] : std::string()});
}

void RegisterXmlData::dig_and_parse_aor(_xmlDoc* document) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::dig_and_parse_aor");
  if (!aors_) aors_ = std::make_unique<AorList>();
  const NodeSet nodes(get_nodeset(document, "/ua-info/aor"));
  if (!nodes) return;
  for (int i = 0; i < nodes->nodesetval->nodeNr; ++i) {
    _xmlNode* aor_node = nodes->nodesetval->nodeTab[i];
    // As it stands: white space alone is text too where only the place counts.
    const std::optional<std::string> aor_text = own_text(aor_node);
    auto aor = std::make_unique<ClientAOR_T>();
    if (aor_text) aor->aor = siplib::trim(*aor_text);
    for (const _xmlNode* node = process_aor_get_next_node(aor_text ? aor_text->c_str() : nullptr, aor_node);
         node != nullptr; node = node->next) {
      const IMSE_REG_TAB_INDEX index = map_node_name_to_index(node);
      if (index == IMSE_REG_TAB_OTHER) continue;
      std::optional<std::string> text = value_of(node);
      if (!text) continue;
      switch (index) {
        case IMSE_REG_TAB_FEATURE_TAG:
          aor->feature_tags.push_back(std::move(*text));
          break;
        case IMSE_REG_TAB_EVENTS:
          aor->events = std::move(*text);
          break;
        case IMSE_REG_TAB_METHODS:
          aor->methods = std::move(*text);
          break;
        default:
          aor->content_types = std::move(*text);
          break;
      }
    }
    aors_->push_back(std::move(aor));
  }
}

_xmlNode* RegisterXmlData::process_aor_get_next_node(const char* text, _xmlNode* aor_node) {
  IMS_log::loginfo(5, __func__, "ISME_REG: RegisterXmlData::process_aor_get_next_node %s.", text ? text : "");
  _xmlNode* parameters = aor_node->children;
  if (text != nullptr && parameters != nullptr) parameters = parameters->next;
  return parameters != nullptr && parameters->type == XML_ELEMENT_NODE ? parameters->children : nullptr;
}

int RegisterXmlData::parse_iclient_xml(framework::XmlDocument& document) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::parse_iclient_xml");
  if (!parse(document, text_, length_)) {
    IMS_log::loginfo(4, __func__, "Error in parsing iclient XML %d", 514);
    return -1;
  }
  const NodeSet package(get_nodeset(document.get(), "/module-info/package-info"));
  if (!package) {
    IMS_log::loginfo(4, __func__, "Error in parsing iclient XML %d", 518);
    return -1;
  }
  if (std::optional<std::string> text = first_value(package)) *packages_ = std::move(*text);
  return 0;
}

int RegisterXmlData::parse_eclient_xml(framework::XmlDocument& document) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: RegisterXmlData::parse_eclient_xml");
  if (!parse(document, text_, length_)) {
    IMS_log::loginfo(4, __func__, "Error in parsing eclient XML %d", 591);
    return -1;
  }
  if (const NodeSet expires{get_nodeset(document.get(), "/ua-info/reg-expires-pref")}) {
    if (const std::optional<std::string> text = first_value(expires)) nw_expiry_ = registrar::to_int(*text);
  }
  const NodeSet name(get_nodeset(document.get(), "/ua-info/profile-info/name"));
  if (!name) {
    IMS_log::loginfo(4, __func__, "Error in parsing eclient XML %d", 613);
    return -1;
  }
  std::optional<std::string> name_text = first_value(name);
  if (!name_text) {
    IMS_log::loginfo(4, __func__, "Error in parsing eclient XML %d", 622);
    return -1;
  }
  net_prof_name_ = std::move(*name_text);
  dig_and_parse_aor(document.get());
  if (const NodeSet headers{get_nodeset(document.get(), "/ua-info/aor/ua-specific-parameters/sip-headers/header")}) {
    for (int i = 0; i < headers->nodesetval->nodeNr; ++i) {
      const std::optional<std::string> text = value_of(headers->nodesetval->nodeTab[i]);
      tokenize(IMSE_REG_TAB_OTHER, nullptr, text ? text->c_str() : nullptr);
    }
  }
  IMS_log::loginfo(5, __func__, "Parsing eclient XML success");
  return 0;
}

void print_structure_info(IMSE_REG_STRUCTURE_IDENTIFIER_T identifier, const void* structure) {
  IMS_log::loginfo(5, __func__, "IMSE_REG: print strucure info %d", static_cast<int>(identifier));
  if (identifier != IMSE_REG_STRUCTURE_AOR_LIST || structure == nullptr) return;
  const auto& aors = *static_cast<const RegisterXmlData::AorList*>(structure);
  for (std::size_t i = 0; i < aors.size(); ++i) {
    const ClientAOR_T& aor = *aors[i];
    IMS_log::loginfo(5, __func__, "IMSE_REG: aor[%d]= %s", static_cast<int>(i), aor.aor.c_str());
    for (std::size_t tag = 0; tag < aor.feature_tags.size(); ++tag) {
      IMS_log::loginfo(5, __func__, "IMSE_REG: feature_tags [%d] = %s", static_cast<int>(tag),
                       aor.feature_tags[tag].c_str());
    }
    IMS_log::loginfo(5, __func__, "IMSE_REG: events_supported = %s", aor.events.c_str());
    IMS_log::loginfo(5, __func__, "IMSE_REG: methods_supported = %s", aor.methods.c_str());
    IMS_log::loginfo(5, __func__, "IMSE_REG: content_types_supported = %s", aor.content_types.c_str());
  }
}
