#include "registrar/notify_writer.h"

#include <libxml/chvalid.h>
#include <libxml/xmlwriter.h>

#include <cstring>
#include <string_view>

#include "framework/log.h"
#include "siplib/text.h"

namespace {

const xmlChar* xml(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

/// The length of the character at `at`, or 0 when no XML document can carry it: not UTF-8, or none of the characters of
/// XML 1.0, 2.2. libxml2's own decoder takes overlong forms and stray continuation bytes.
std::size_t character(std::string_view text, std::size_t at) {
  const siplib::Utf8 found = siplib::utf8At(text, at);
  return xmlIsCharQ(found.value) ? found.size : 0;
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
  xmlSetStructuredErrorFunc(nullptr, nullptr);
}

bool NotifyWriter::did(bool done) {
  ++step_;
  // What the writer still keeps to itself goes out, so that a failure and the size are known now.
  failed_ = failed_ || !done || (writer_ != nullptr && xmlTextWriterFlush(writer_) < 0) ||
            static_cast<std::size_t>(xmlBufferLength(buffer_)) > limit_;
  return !failed_;
}

bool NotifyWriter::begin() {
  // libxml2 reports lack of memory here, and would go on with a hole in the document; by itself it reports to standard
  // error. The handler is this thread's, and ours for as long as the writer lives.
  xmlSetStructuredErrorFunc(this, [](void* writer, auto*) { static_cast<NotifyWriter*>(writer)->failed_ = true; });
  buffer_ = xmlBufferCreate();
  if (!did(buffer_ != nullptr)) return false;
  writer_ = xmlNewTextWriterMemory(buffer_, 0);
  if (!did(writer_ != nullptr)) return false;
  return did(xmlTextWriterSetIndent(writer_, 1) >= 0) &&
         did(xmlTextWriterStartDocument(writer_, nullptr, "UTF-8", nullptr) >= 0);
}

bool NotifyWriter::start(const char* name) {
  return !failed_ && did(xmlTextWriterStartElement(writer_, xml(name)) >= 0);
}

bool NotifyWriter::end() {
  return !failed_ && did(xmlTextWriterEndElement(writer_) >= 0);
}

bool NotifyWriter::text(const std::string& text) {
  return !failed_ && did(xmlTextWriterWriteFormatString(writer_, "%s", carriable(text).c_str()) >= 0);
}

bool NotifyWriter::element(const char* name, const std::string& text) {
  return !failed_ && did(xmlTextWriterWriteFormatElement(writer_, xml(name), "%s", carriable(text).c_str()) >= 0);
}

bool NotifyWriter::element(const char* name, int number) {
  return !failed_ && did(xmlTextWriterWriteFormatElement(writer_, xml(name), "%d", number) >= 0);
}

bool NotifyWriter::finish() {
  return !failed_ && did(xmlTextWriterEndDocument(writer_) >= 0);
}

std::unique_ptr<char[]> NotifyWriter::release(int& length) {
  const auto size = static_cast<std::size_t>(xmlBufferLength(buffer_));
  auto text = std::make_unique<char[]>(size + 1);
  std::memcpy(text.get(), xmlBufferContent(buffer_), size);
  text[size] = '\0';
  length = static_cast<int>(size + 1);
  return text;
}
