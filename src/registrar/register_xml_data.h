// The body of a REGISTER: what the registering party is and what it handles.
//
//   <ua-info>      an external user agent: network profile, addresses of record with their capabilities, headers to add
//   <module-info>  a module of the terminal: the event packages it handles
//
// The capabilities of an `aor` are found by place: they are the children of the element that directly follows its text.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/xml_data.h"
#include "routing/client_records.h"

struct _xmlDoc;
struct _xmlNode;
struct _xmlXPathObject;

namespace framework {
class XmlDocument;
}

/// Where a capability of an address of record goes.
enum IMSE_REG_TAB_INDEX {
  IMSE_REG_TAB_FEATURE_TAG = 0,
  IMSE_REG_TAB_EVENTS = 1,
  IMSE_REG_TAB_METHODS = 2,
  IMSE_REG_TAB_CONTENT_TYPE = 3,
  IMSE_REG_TAB_OTHER = 5  ///< skipped in an address of record; what `tokenize` is called with
};

/// What print_structure_info is given.
enum IMSE_REG_STRUCTURE_IDENTIFIER_T : int { IMSE_REG_STRUCTURE_AOR_LIST = 0 };

class RegisterXmlData : public XmlData {
 public:
  using AorList = std::vector<std::unique_ptr<ClientAOR_T>>;
  /// The kind of the body.
  enum PackageType { INTERNAL = 0, EXTERNAL = 1, UNKNOWN = 2 };

  /// Over a text of the caller's, which must stay while parseXml runs; what was parsed stays afterwards.
  RegisterXmlData(const char* text, int length);
  ~RegisterXmlData() override;

  /// 0, or -1 with a line at level 4. Parsing again replaces what was parsed before.
  int parseXml() override;
  /// A PackageType; UNKNOWN for another root element and for what is no XML.
  int get_package_type() const;
  /// Appends the addresses of record and sets the profile name. 1, and nothing changed, for a body that is not
  /// external.
  int get_client_info(ClientTable_Entry_T& entry) const;
  /// 1, and nothing changed, for a body that is not internal.
  int get_packages(std::string& packages) const;
  std::string get_net_prof_name() const;
  /// Seconds; 0 when the body says nothing.
  int get_nw_expiry_value() const;
  /// Null for a body that is not external.
  const AorList* get_aor() const;
  std::vector<ClientHeader_T> get_sip_headers() const;
  // What get_aor, get_packages and get_sip_headers give, without a line in the log.
  const AorList* aors() const { return aors_.get(); }
  const std::string* packages() const { return packages_.get(); }
  const std::vector<ClientHeader_T>& sip_headers() const { return sip_headers_; }

  /// The nodes that the expression finds; null instead of an empty set. The caller frees it.
  static _xmlXPathObject* get_nodeset(_xmlDoc* document, const char* xpath);
  static IMSE_REG_TAB_INDEX map_node_name_to_index(const _xmlNode* node);
  /// Takes one "name:value" text as a header of the user agent. A value ends at a further colon. `text` may be null;
  /// index and address of record say where the text comes from and do not matter to a header.
  void tokenize(IMSE_REG_TAB_INDEX index, ClientAOR_T* aor, const char* text);
  void dig_and_parse_aor(_xmlDoc* document);
  /// The first capability node of an `aor` element whose own text is `text` (null: none); null when there is none.
  static _xmlNode* process_aor_get_next_node(const char* text, _xmlNode* aor_node);

 private:
  // What is parsed once to tell the kind is not parsed again to read it.
  int package_type_of(framework::XmlDocument& document) const;
  int parse_iclient_xml(framework::XmlDocument& document);
  int parse_eclient_xml(framework::XmlDocument& document);

  int nw_expiry_ = 0;
  std::unique_ptr<AorList> aors_;
  std::unique_ptr<std::string> packages_;
  std::string net_prof_name_;
  std::vector<ClientHeader_T> sip_headers_;
  int package_type_ = UNKNOWN;
};

/// Writes a structure into the log; for IMSE_REG_STRUCTURE_AOR_LIST a `const RegisterXmlData::AorList*`, null allowed.
void print_structure_info(IMSE_REG_STRUCTURE_IDENTIFIER_T identifier, const void* structure);
