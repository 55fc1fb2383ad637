// Reading XML that a peer or a file gives: at most 64 KiB, no DOCTYPE, no network, no entities from outside, no HUGE.
// libxml2's own messages never reach standard error; the first fault is kept for a log line of ours.
#pragma once

#include <cstddef>
#include <string>

struct _xmlDoc;

namespace framework {

constexpr std::size_t kMaxXml = std::size_t{64} * 1024;

/// Owns one parsed document.
class XmlDocument {
 public:
  XmlDocument() = default;
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  /// False when the text is too large, not well-formed, or has a DOCTYPE: `error` then says why and at which line.
  bool parse(const char* text, std::size_t length, std::string& error);
  /// Null before a successful parse.
  _xmlDoc* get() const { return document_; }
  /// The text of the first node that the XPath expression finds; false when there is none.
  bool first(const std::string& xpath, std::string& value) const;

 private:
  _xmlDoc* document_ = nullptr;
};

}  // namespace framework
