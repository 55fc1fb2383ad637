#include "framework/xml_data.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

namespace {

class Encoded : public XmlData {
 public:
  using XmlData::XmlData;
  int encodeXml() override {
    auto text = std::make_unique<char[]>(5);
    std::memcpy(text.get(), "<a/>", 5);
    take(std::move(text), 5);
    return 0;
  }
};

TEST(XmlData, BaseDoesNothing) {
  XmlData data("<a/>", 4);
  EXPECT_EQ(data.parseXml(), 0);
  EXPECT_EQ(data.encodeXml(), 0);
  EXPECT_STREQ(data.text(), "<a/>");
  EXPECT_EQ(data.length(), 4);
  EXPECT_EQ(XmlData().text(), nullptr);
}

TEST(XmlData, OwnsWhatItEncoded) {
  Encoded data("other", 5);
  EXPECT_EQ(data.encodeXml(), 0);
  EXPECT_EQ(data.encodeXml(), 0);
  EXPECT_STREQ(data.text(), "<a/>");
  EXPECT_EQ(data.length(), 5);
}

}  // namespace
