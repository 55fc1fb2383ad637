#include "framework/xml_document.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

namespace framework {
namespace {

// libxml2 compares each attribute of a tag, and each namespace in force, with every other: a tag of thousands takes a
// tenth of a second. No document here has more than a handful.
constexpr std::size_t kMaxAttributes = 64;
constexpr std::size_t kMaxNamespaces = 64;

void say(std::string& error, long line, std::string_view why) {
  error = "line " + std::to_string(line) + ": " + std::string(why);
}

std::size_t skipTo(std::string_view text, std::size_t at, std::string_view end) {
  const std::size_t found = text.find(end, at);
  return found == std::string_view::npos ? text.size() : found + end.size();
}

/// The end of the tag that begins at `at`, and how many attributes it has. A quoted value may hold ">".
std::size_t skipTag(std::string_view text, std::size_t at, std::size_t& attributes) {
  char quote = '\0';
  attributes = 0;
  for (; at < text.size(); ++at) {
    const char c = text[at];
    if (quote != '\0') {
      if (c == quote) quote = '\0';
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '=') {
      ++attributes;
    } else if (c == '>') {
      return at + 1;
    }
  }
  return at;
}

/// Only encodings in which markup is ASCII, so that looking at bytes is looking at markup.
bool knownEncoding(std::string_view declaration) {
  const std::size_t at = declaration.find("encoding");
  if (at == std::string_view::npos) return true;
  const std::size_t begin = declaration.find_first_of("\"'", at);
  if (begin == std::string_view::npos) return false;
  const std::size_t end = declaration.find(declaration[begin], begin + 1);
  if (end == std::string_view::npos) return false;
  std::string name(declaration.substr(begin + 1, end - begin - 1));
  std::transform(name.begin(), name.end(), name.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
  return name == "UTF-8" || name == "US-ASCII" || name == "ISO-8859-1";
}

/// Looks for what must not reach the parser. Null when there is nothing; else why, and where.
const char* findRefused(std::string_view text, std::size_t& at) {
  at = text.starts_with("\xef\xbb\xbf") ? 3 : 0;
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
    at = nul;
    return "a NUL byte";
  }
  const std::size_t begin = text.find_first_not_of(" \t\r\n", at);
  if (begin == std::string_view::npos || text[begin] != '<') return "no XML document";
  if (text.substr(at).starts_with("<?xml") && !knownEncoding(text.substr(at, skipTo(text, at, "?>") - at))) {
    return "an encoding other than UTF-8, US-ASCII and ISO-8859-1";
  }
  std::size_t namespaces = 0;
  while ((at = text.find('<', at)) != std::string_view::npos) {
    const std::string_view here = text.substr(at);
    if (here.starts_with("<!--")) {
      at = skipTo(text, at + 4, "-->");
    } else if (here.starts_with("<![CDATA[")) {
      at = skipTo(text, at + 9, "]]>");
    } else if (here.starts_with("<?")) {
      at = skipTo(text, at + 2, "?>");
    } else if (here.starts_with("<!")) {
      return "a DOCTYPE or another declaration";
    } else {
      std::size_t attributes = 0;
      const std::size_t end = skipTag(text, at + 1, attributes);
      const std::string_view tag = text.substr(at, end - at);
      for (std::size_t i = 0; (i = tag.find("xmlns", i)) != std::string_view::npos; i += 5) ++namespaces;
      if (attributes > kMaxAttributes) return "too many attributes in one tag";
      if (namespaces > kMaxNamespaces) return "too many namespaces";
      at = end;
    }
  }
  return nullptr;
}

// Reporting one fault costs microseconds, and a text can have one at every third byte.
constexpr int kMaxTolerated = 100;

/// What is wrong with the text being parsed. Faults that leave it well-formed (of namespaces) are counted only.
struct Faults {
  std::string* first;
  bool fatal = false;
  int tolerated = 0;
};

// libxml2 2.12 made the pointer const.
#if LIBXML_VERSION >= 21200
using ErrorPtr = const xmlError*;
#else
using ErrorPtr = xmlErrorPtr;
#endif

void keepFirst(void* user, ErrorPtr fault) {
  auto* const parser = static_cast<xmlParserCtxtPtr>(user);
  auto* const faults = static_cast<Faults*>(parser->_private);
  if (fault->level != XML_ERR_FATAL && ++faults->tolerated < kMaxTolerated) return;
  if (!faults->fatal) {
    std::string_view text = fault->message == nullptr ? "not well-formed" : fault->message;
    while (text.ends_with('\n')) text.remove_suffix(1);
    try {
      say(*faults->first, fault->line, text);
    } catch (const std::bad_alloc&) {
      faults->first->clear();  // nothing may be thrown through the C library
    }
  }
  faults->fatal = true;
  // Ends the parsing and silences what it still says. xmlStopParser would free the text under the parser's feet.
  parser->wellFormed = 0;
  parser->disableSAX = 1;
  parser->instate = XML_PARSER_EOF;
}

void ignoreFault(void*, ErrorPtr) {
}

__attribute__((format(printf, 2, 3))) void ignoreText(void*, const char*, ...) {
}

/// Another user of the library in this process may have shut it down since the last call; both calls are cheap.
void prepareLibrary() {
  xmlInitParser();
  xmlSetGenericErrorFunc(nullptr, ignoreText);
}

template <auto* Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

}  // namespace

XmlDocument::~XmlDocument() {
  if (document_ != nullptr) xmlFreeDoc(document_);
}

bool XmlDocument::parse(const char* text, std::size_t length, std::string& error) {
  if (document_ != nullptr) xmlFreeDoc(document_);
  document_ = nullptr;
  if (text == nullptr) length = 0;
  if (length > kMaxXml) {
    error = "more than " + std::to_string(kMaxXml) + " bytes";
    return false;
  }
  const std::string_view whole(length == 0 ? "" : text, length);
  std::size_t at = 0;
  if (const char* const why = findRefused(whole, at)) {
    say(error, 1 + std::count(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(at), '\n'), why);
    return false;
  }
  prepareLibrary();
  const std::unique_ptr<xmlParserCtxt, Deleter<xmlFreeParserCtxt>> parser(xmlNewParserCtxt());
  if (!parser) {
    error = "no memory";
    return false;
  }
  Faults faults{&error};
  parser->_private = &faults;
  parser->sax->serror = keepFirst;
  document_ =
      xmlCtxtReadMemory(parser.get(), whole.data(), static_cast<int>(whole.size()), nullptr, nullptr, XML_PARSE_NONET);
  if (document_ == nullptr) {
    if (!faults.fatal) error = "not well-formed";
    return false;
  }
  // Numbers the elements, so that ordering the nodes that an expression finds stays linear.
  xmlXPathOrderDocElems(document_);
  return true;
}

bool XmlDocument::first(const std::string& xpath, std::string& value) const {
  if (document_ == nullptr) return false;
  prepareLibrary();
  const std::unique_ptr<xmlXPathContext, Deleter<xmlXPathFreeContext>> context(xmlXPathNewContext(document_));
  if (!context) return false;
  context->error = ignoreFault;
  const std::unique_ptr<xmlXPathObject, Deleter<xmlXPathFreeObject>> found(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath.c_str()), context.get()));
  if (!found || found->type != XPATH_NODESET || xmlXPathNodeSetIsEmpty(found->nodesetval)) return false;
  xmlChar* const content = xmlNodeGetContent(found->nodesetval->nodeTab[0]);
  value = content == nullptr ? "" : reinterpret_cast<const char*>(content);
  xmlFree(content);
  return true;
}

}  // namespace framework
