#include "framework/xml_document.h"

#include <libxml/encoding.h>
#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "siplib/text.h"

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

/// The encoding that a text gives itself, by its first bytes or its declaration; XML_CHAR_ENCODING_ERROR for one that
/// is not read. The system has converters for many more: it would load them from files by a name that a peer chose, and
/// several let one byte mean different things.
xmlCharEncoding encodingOf(std::string_view text) {
  constexpr std::string_view kMark = "\xef\xbb\xbf";
  const auto size = static_cast<int>(std::min<std::size_t>(text.size(), 4));
  const xmlCharEncoding seen = xmlDetectCharEncoding(reinterpret_cast<const unsigned char*>(text.data()), size);
  if (seen == XML_CHAR_ENCODING_UTF16LE || seen == XML_CHAR_ENCODING_UTF16BE) return seen;
  if (seen != XML_CHAR_ENCODING_UTF8 && seen != XML_CHAR_ENCODING_NONE) return XML_CHAR_ENCODING_ERROR;

  const std::size_t begin = text.starts_with(kMark) ? kMark.size() : 0;
  if (!text.substr(begin).starts_with("<?xml")) return XML_CHAR_ENCODING_UTF8;
  const std::string_view declaration = text.substr(begin, skipTo(text, begin, "?>") - begin);
  const std::size_t at = declaration.find("encoding");
  if (at == std::string_view::npos) return XML_CHAR_ENCODING_UTF8;
  const std::size_t open = declaration.find_first_of("\"'", at);
  if (open == std::string_view::npos) return XML_CHAR_ENCODING_ERROR;
  const std::size_t close = declaration.find(declaration[open], open + 1);
  if (close == std::string_view::npos) return XML_CHAR_ENCODING_ERROR;
  const std::string_view name = declaration.substr(open + 1, close - open - 1);
  if (siplib::equalsIgnoreCase(name, "UTF-8")) return XML_CHAR_ENCODING_UTF8;
  if (begin != 0) return XML_CHAR_ENCODING_ERROR;  // the mark says UTF-8
  if (siplib::equalsIgnoreCase(name, "US-ASCII")) return XML_CHAR_ENCODING_ASCII;
  if (siplib::equalsIgnoreCase(name, "ISO-8859-1")) return XML_CHAR_ENCODING_8859_1;
  return XML_CHAR_ENCODING_ERROR;
}

void appendUtf8(std::string& text, std::uint32_t value) {
  const auto put = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
  const auto rest = [&](unsigned shift) { put(0x80 | ((value >> shift) & 0x3f)); };
  if (value < 0x80) {
    put(value);
  } else if (value < 0x800) {
    put(0xc0 | (value >> 6));
    rest(0);
  } else if (value < 0x10000) {
    put(0xe0 | (value >> 12));
    rest(6);
    rest(0);
  } else {
    put(0xf0 | (value >> 18));
    rest(12);
    rest(6);
    rest(0);
  }
}

/// Takes the next character of a text in one of the encodings of one or two bytes. False when none begins at `at`.
bool takeCharacter(std::string_view text, xmlCharEncoding encoding, std::size_t& at, std::uint32_t& value) {
  const auto byte = [&](std::size_t i) -> std::uint32_t { return static_cast<unsigned char>(text[i]); };
  if (encoding == XML_CHAR_ENCODING_ASCII || encoding == XML_CHAR_ENCODING_8859_1) {
    value = byte(at++);
    return value < 0x80 || encoding == XML_CHAR_ENCODING_8859_1;
  }
  const std::size_t high = encoding == XML_CHAR_ENCODING_UTF16BE ? 0 : 1;
  const auto unit = [&](std::size_t i) { return (byte(i + high) << 8) | byte(i + 1 - high); };
  if (text.size() - at < 2) return false;
  value = unit(at);
  at += 2;
  if (value < 0xd800 || value > 0xdfff) return true;
  if (value > 0xdbff || text.size() - at < 2) return false;
  const std::uint32_t low = unit(at);
  at += 2;
  value = 0x10000 + ((value - 0xd800) << 10) + (low - 0xdc00);
  return low >= 0xdc00 && low <= 0xdfff;
}

/// Cuts the NULs at the end of `text` and makes it UTF-8, kept in `converted` when it was not: what is looked at
/// afterwards is what the parser reads, and no larger than any other document. False with the fault.
bool decode(std::string_view& text, std::string& converted, std::string& error) {
  const xmlCharEncoding encoding = encodingOf(text);
  if (encoding == XML_CHAR_ENCODING_ERROR) {
    say(error, 1, "an encoding other than UTF-8, UTF-16, US-ASCII and ISO-8859-1");
    return false;
  }
  std::size_t end = text.find_last_not_of('\0') + 1;
  const bool pairs = encoding == XML_CHAR_ENCODING_UTF16LE || encoding == XML_CHAR_ENCODING_UTF16BE;
  if (pairs) end = std::min(text.size(), end + end % 2);  // the last character's own
  text = text.substr(0, end);
  if (encoding == XML_CHAR_ENCODING_UTF8) return true;
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t value = 0;
    if (!takeCharacter(text, encoding, at, value)) {
      say(error, 1 + std::count(converted.begin(), converted.end(), '\n'), "a byte that is not of its encoding");
      return false;
    }
    appendUtf8(converted, value);
    if (converted.size() > kMaxXml) {
      error = "more than " + std::to_string(kMaxXml) + " bytes as UTF-8";
      return false;
    }
  }
  text = converted;
  return true;
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
  std::string_view whole(length == 0 ? "" : text, length);
  std::string converted;
  if (!decode(whole, converted, error)) return false;
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
  document_ = xmlCtxtReadMemory(parser.get(), whole.data(), static_cast<int>(whole.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_IGNORE_ENC);
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
  value = siplib::trim(content == nullptr ? "" : reinterpret_cast<const char*>(content));
  xmlFree(content);
  return true;
}

}  // namespace framework
