// Reading XML that a peer or a file gives: at most 64 KiB (as it comes, and as UTF-8), no DOCTYPE, no network, no
// entities from outside, no HUGE. UTF-8, UTF-16, US-ASCII and ISO-8859-1 are read; NULs at the end do not count.
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

  /// False when the text is too large, of another encoding, not well-formed, or has a DOCTYPE: `error` then says why
  /// and at which line.
  bool parse(const char* text, std::size_t length, std::string& error);
  /// Null before a successful parse.
  _xmlDoc* get() const { return document_; }
  /// The text of the first node that the XPath expression finds, without the white space around it; false when there is
  /// none.
  bool first(const std::string& xpath, std::string& value) const;

 private:
  _xmlDoc* document_ = nullptr;
};

}  // namespace framework
