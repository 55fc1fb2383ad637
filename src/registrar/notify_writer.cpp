#include "registrar/notify_writer.h"

#include <libxml/chvalid.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlwriter.h>

#include <cstring>

#include "framework/log.h"

namespace {

const xmlChar* xml(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

/// The length of the character at `at`, or 0 when no XML document can carry it (XML 1.0, 2.2, or not UTF-8).
std::size_t character(const std::string& text, std::size_t at) {
  int length = static_cast<int>(std::min<std::size_t>(text.size() - at, 4));
  const int value = xmlGetUTF8Char(reinterpret_cast<const unsigned char*>(text.data() + at), &length);
  if (value <= 0 || !xmlIsCharQ(static_cast<unsigned>(value))) return 0;
  return static_cast<std::size_t>(length);
}

/// The text as a document can carry it: each other byte becomes "?". libxml2 would write them as they are, and no
/// receiver could read the document.
std::string carriable(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  bool replaced = false;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = character(text, at);
    if (length == 0) {
      replaced = true;
      result += '?';
      ++at;
    } else {
      result.append(text, at, length);
      at += length;
    }
  }
  if (replaced) IMS_log::loginfo(4, __func__, "IMSE_REG: replaced what XML cannot carry in %s", text.c_str());
  return result;
}

}  // namespace

NotifyWriter::~NotifyWriter() {
  if (writer_ != nullptr) xmlFreeTextWriter(writer_);
  if (buffer_ != nullptr) xmlBufferFree(buffer_);
}

bool NotifyWriter::did(int written) {
  ++step_;
  if (written < 0) {
    failed_ = true;
    return false;
  }
  size_ += static_cast<std::size_t>(written);
  if (size_ > limit_) failed_ = true;
  return !failed_;
}

bool NotifyWriter::begin() {
  // A failure is told by its step; libxml2's own report would go to standard error.
  xmlSetStructuredErrorFunc(nullptr, [](void*, xmlErrorPtr) {});
  buffer_ = xmlBufferCreate();
  if (!did(buffer_ != nullptr ? 0 : -1)) return false;
  writer_ = xmlNewTextWriterMemory(buffer_, 0);
  if (!did(writer_ != nullptr ? 0 : -1)) return false;
  return did(xmlTextWriterSetIndent(writer_, 1)) && did(xmlTextWriterStartDocument(writer_, nullptr, "UTF-8", nullptr));
}

bool NotifyWriter::start(const char* name) {
  return !failed_ && did(xmlTextWriterStartElement(writer_, xml(name)));
}

bool NotifyWriter::end() {
  return !failed_ && did(xmlTextWriterEndElement(writer_));
}

bool NotifyWriter::text(const std::string& text) {
  return !failed_ && did(xmlTextWriterWriteFormatString(writer_, "%s", carriable(text).c_str()));
}

bool NotifyWriter::element(const char* name, const std::string& text) {
  return !failed_ && did(xmlTextWriterWriteFormatElement(writer_, xml(name), "%s", carriable(text).c_str()));
}

bool NotifyWriter::element(const char* name, int number) {
  return !failed_ && did(xmlTextWriterWriteFormatElement(writer_, xml(name), "%d", number));
}

bool NotifyWriter::finish() {
  if (failed_ || !did(xmlTextWriterEndDocument(writer_))) return false;
  // What is still in the writer's own buffer goes out now, so that a failure is seen.
  if (!did(xmlTextWriterFlush(writer_) < 0 ? -1 : 0)) return false;
  xmlFreeTextWriter(writer_);
  writer_ = nullptr;
  return true;
}

std::unique_ptr<char[]> NotifyWriter::release(int& length) {
  const auto size = static_cast<std::size_t>(xmlBufferLength(buffer_));
  auto text = std::make_unique<char[]>(size + 1);
  std::memcpy(text.get(), xmlBufferContent(buffer_), size);
  text[size] = '\0';
  length = static_cast<int>(size + 1);
  return text;
}
