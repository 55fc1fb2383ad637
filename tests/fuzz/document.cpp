// Configuration documents, and every other XML text that is read.
//
//   the document
//
// Promises: a document that is refused says why in one line and has no values; one that is taken has no declarations
// (so no entity leads to a file or a host), at most the size allowed, and its values are those that reading it again
// gives. No text makes the parser write to standard error or keep memory.

#include "framework/xml_document.h"

#include <libxml/tree.h>

#include <string>

#include "input.h"

namespace {

constexpr const char* kKeys[] = {"//operation-mode",
                                 "//impi",
                                 "//secret",
                                 "//reg/max-attempts",
                                 "//link/interval",
                                 "/sipstackinit/ue-proxy/max-connections",
                                 "/sipstackinit/ue-proxy/io-thread",
                                 "//srctransport",
                                 "/ua-info/aor/ua-specific-parameters/sip-headers/header",
                                 "/*",
                                 "//*[last()]",
                                 "not an expression ["};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* const text = reinterpret_cast<const char*>(data);
  framework::XmlDocument document;
  framework::XmlDocument again;
  std::string error;
  std::string error_again;
  const bool taken = document.parse(text, size, error);
  PROMISE(again.parse(text, size, error_again) == taken && error == error_again);
  PROMISE(taken == (document.get() != nullptr) && (taken || !error.empty()));
  if (taken) PROMISE(size <= framework::kMaxXml && document.get()->intSubset == nullptr);
  for (const char* const key : kKeys) {
    std::string value = "untouched";
    std::string value_again = "untouched";
    const bool found = document.first(key, value);
    PROMISE(again.first(key, value_again) == found && value == value_again);
    PROMISE(found ? taken : value == "untouched");
  }
  return 0;
}
