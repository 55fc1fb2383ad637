#include "framework/xml_data.h"

#include <utility>

XmlData::~XmlData() = default;

int XmlData::parseXml() {
  return 0;
}

int XmlData::encodeXml() {
  return 0;
}

void XmlData::take(std::unique_ptr<char[]> text, int length) {
  owned_ = std::move(text);
  text_ = owned_.get();
  length_ = length;
}
