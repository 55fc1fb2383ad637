// Base of the XML bodies: a text and its length in bytes.
#pragma once

#include <memory>

class XmlData {
 public:
  XmlData() = default;
  /// Over a text of the caller's, which must stay while parseXml and its like run.
  XmlData(const char* text, int length) : text_(text), length_(length) {}
  virtual ~XmlData();
  XmlData(const XmlData&) = delete;
  XmlData& operator=(const XmlData&) = delete;

  /// Reads the text; 0 when done. The base does nothing.
  virtual int parseXml();
  /// Writes the text; 0 when done. The base does nothing.
  virtual int encodeXml();

  /// May be null. After encodeXml: NUL-terminated, and length() counts the NUL.
  const char* text() const { return text_; }
  int length() const { return length_; }

 protected:
  /// Takes over an encoded text.
  void take(std::unique_ptr<char[]> text, int length);
  const char* text_ = nullptr;
  int length_ = 0;

 private:
  std::unique_ptr<char[]> owned_;
};
