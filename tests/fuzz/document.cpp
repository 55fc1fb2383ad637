// Configuration documents, and every other XML text that is read.
//
//   the document
//
// Promises: a document that is refused says why in one line and has no values; one that is taken has no declarations
// (so no entity leads to a file or a host), at most the size allowed, and its values are those that reading it again
// gives, without white space around them. What stands in UTF-16 is read, or refused with the same words, as it is in
// UTF-8. No text makes the parser write to standard error or keep memory.

#include "framework/xml_document.h"

#include <libxml/tree.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "input.h"
#include "siplib/text.h"

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

/// Of ASCII only, and without a declaration of another encoding.
void sameInUtf16(const char* text, std::size_t size, const std::string& error, const framework::XmlDocument& document) {
  const std::string_view plain(text, size);
  const auto simple = [](char c) { return c > 0 && c < 0x7f; };
  if (size > 8000 || !std::all_of(plain.begin(), plain.end(), simple) || plain.starts_with("<?xml")) return;
  std::string wide = "\xff\xfe";
  for (const char c : plain) (wide += c) += '\0';
  framework::XmlDocument other;
  std::string other_error;
  PROMISE(other.parse(wide.data(), wide.size(), other_error) == error.empty() && other_error == error);
  for (const char* const key : kKeys) {
    std::string value;
    std::string other_value;
    PROMISE(document.first(key, value) == other.first(key, other_value) && value == other_value);
  }
}

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
    PROMISE(found ? taken && value == siplib::trim(value) : value == "untouched");
  }
  sameInUtf16(text, size, taken ? "" : error, document);
  return 0;
}
