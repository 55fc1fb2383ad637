#include "framework/xml_document.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

using framework::kMaxXml;
using framework::XmlDocument;

/// The fault of a text, or an empty one.
std::string fault(const std::string& text) {
  XmlDocument document;
  std::string error;
  const bool done = document.parse(text.data(), text.size(), error);
  EXPECT_EQ(done, document.get() != nullptr);
  EXPECT_EQ(done, error.empty());
  return error;
}

std::string first(const std::string& text, const std::string& xpath) {
  XmlDocument document;
  std::string error;
  EXPECT_TRUE(document.parse(text.data(), text.size(), error)) << error;
  std::string value;
  return document.first(xpath, value) ? value : "absent";
}

std::string repeat(const std::string& piece, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += piece;
  return text;
}

TEST(XmlDocument, FindsTheFirstNodesText) {
  const std::string text = "<r><a>1</a><b><a>2</a><c x='y'>p<d>q</d>r</c></b><e/></r>";
  EXPECT_EQ(first(text, "//a"), "1");
  EXPECT_EQ(first(text, "/r/b/a"), "2");
  EXPECT_EQ(first(text, "//c"), "pqr");
  EXPECT_EQ(first(text, "//c/@x"), "y");
  EXPECT_EQ(first(text, "//e"), "");
  EXPECT_EQ(first(text, "//b//a | //a"), "1");
}

TEST(XmlDocument, NoNodeIsAbsent) {
  EXPECT_EQ(first("<r/>", "//a"), "absent");
  EXPECT_EQ(first("<r/>", "count(//r)"), "absent");
}

TEST(XmlDocument, ReferencesAndCdataAreText) {
  EXPECT_EQ(first("<r>&lt;a&amp;&#65;<![CDATA[<b>=]]></r>", "/r"), "<a&A<b>=");
}

TEST(XmlDocument, FaultNamesReasonAndLine) {
  EXPECT_EQ(fault("<a>\n<b>\n</a>"), "line 3: Opening and ending tag mismatch: b line 2 and a");
  EXPECT_EQ(fault(""), "line 1: no XML document");
  EXPECT_EQ(fault("text"), "line 1: no XML document");
  EXPECT_EQ(fault("<a>\n\n<!DOCTYPE b></a>"), "line 3: a DOCTYPE or another declaration");
  EXPECT_NE(fault("<a>&undefined;</a>"), "");
  EXPECT_NE(fault("<a/><b/>"), "");
}

TEST(XmlDocument, NothingReachesStandardError) {
  testing::internal::CaptureStderr();
  fault("<a>\n<b>\n</a>");
  fault("<a b='1' b='2' xmlns:x='' y:z='1'>&e;</a>");
  first("<r/>", "//[");
  first("<r/>", "nothing(1)");
  first("<r/>", "//a:b");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(XmlDocument, DoctypeAndEntitiesAreRefused) {
  EXPECT_NE(fault("<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><a>&x;</a>"), "");
  EXPECT_NE(fault("<!DOCTYPE a SYSTEM 'http://127.0.0.1/x.dtd'><a/>"), "");
  EXPECT_NE(fault("<?xml version='1.0'?>\n<!-- x -->\n<!DOCTYPE a>\n<a/>"), "");
  EXPECT_EQ(fault("<a><!-- <!DOCTYPE b> --><![CDATA[<!DOCTYPE b>]]></a>"), "") << "text only";
}

TEST(XmlDocument, SizeIsBounded) {
  const std::string frame = "<a></a>";
  std::string text = frame;
  text.insert(3, std::string(kMaxXml - frame.size(), 'x'));
  EXPECT_EQ(fault(text), "");
  text.insert(3, "x");
  EXPECT_EQ(fault(text), "more than 65536 bytes");
}

TEST(XmlDocument, DepthIsBounded) {
  EXPECT_EQ(fault(repeat("<a>", 200) + repeat("</a>", 200)), "");
  EXPECT_NE(fault(repeat("<a>", 9000) + repeat("</a>", 9000)), "");
}

TEST(XmlDocument, OnlyEncodingsWithPlainMarkup) {
  EXPECT_EQ(fault("<?xml version='1.0' encoding='utf-8'?><a/>"), "");
  EXPECT_EQ(first("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xe4</a>", "/a"), "\xc3\xa4");
  EXPECT_EQ(fault("\xef\xbb\xbf<?xml version='1.0' encoding=\"UTF-8\"?><a/>"), "");
  EXPECT_NE(fault("<?xml version='1.0' encoding='UTF-7'?><a/>"), "");
  EXPECT_NE(fault("\xef\xbb\xbf<?xml version='1.0' encoding='UTF-7'?><a/>"), "");
  EXPECT_NE(fault("<?xml version='1.0' encoding=UTF-8?><a/>"), "");
  EXPECT_NE(fault(std::string("<\0a\0/\0>\0", 8)), "");
  EXPECT_NE(fault("\x4c\x6f\xa7\x94"), "");
  EXPECT_NE(fault("<a>\xff</a>"), "");
  EXPECT_EQ(fault(std::string("<a>\0</a>", 8)), "line 1: a NUL byte");
}

TEST(XmlDocument, CostlyShapesAreRefused) {
  std::string attributes = "<a";
  for (int i = 0; i < 6000; ++i) attributes += " a" + std::to_string(i) + "=''";
  EXPECT_EQ(fault(attributes + "/>"), "line 1: too many attributes in one tag");
  std::string namespaces = "<r>";
  for (int i = 0; i < 100; ++i) namespaces += "<a xmlns:n" + std::to_string(i) + "='u'>";
  EXPECT_EQ(fault(namespaces), "line 1: too many namespaces");
  EXPECT_EQ(fault("<a b='>' c=\"='='\">" + repeat("=", 500) + "<!--" + repeat("=", 500) + "--></a>"), "")
      << "signs in text, comments and values are no attributes";
}

TEST(XmlDocument, LargestDocumentsAreReadQuickly) {
  const std::string shapes[] = {
      "<r>" + repeat("<a/>", 16000) + "</r>",
      "<r>" + repeat("<a/>x", 13000) + "</r>",
      "<r>" + repeat("&lt;", 16000) + "</r>",
      "<r>" + repeat("<![CDATA[]]>x", 5000) + "</r>",
      "<r>" + repeat("<!---->", 9000) + "</r>",
      "<r>" + repeat("<?a?>", 13000) + "</r>",
      repeat("<a>", 250) + repeat("<b/>", 15000) + repeat("</a>", 250),
      "<r x='" + repeat("&#65;", 13000) + "'/>",
      "<r>" + repeat("<a", 32000),
      "<" + repeat("a:", 32000),
      repeat("<", 65000),
      "<r>" + repeat("&;", 32000) + "</r>",
      "<r>" + repeat("&a;", 21000) + "</r>",
      "<r>" + repeat("]]>", 21000) + "</r>",
      "<r><!--" + repeat(" --", 21000) + "--></r>",
      "<r>" + repeat("\x01", 65000) + "</r>",
      "<r>" + repeat("\xff", 65000) + "</r>",
      "<r>" + repeat("<a:b/>", 10000) + "</r>",
      "<r" + repeat(" a", 32000) + "/>",
      "<r/>" + repeat("<r/>", 16000),
      "<r>" + repeat("</a>", 16000) + "</r>",
      "<r>" + repeat("<?xml?>", 9000) + "</r>",
      "<r>" + repeat("&#0;", 16000) + "</r>",
      "<r a='" + repeat("<", 60000) + "'/>",
  };
  for (const std::string& text : shapes) {
    ASSERT_LE(text.size(), kMaxXml);
    const auto begin = std::chrono::steady_clock::now();
    XmlDocument document;
    std::string error;
    std::string value;
    if (document.parse(text.data(), text.size(), error)) document.first("//a", value);
    const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - begin;
    RecordProperty("ms", std::to_string(spent.count()));
    // 5 ms in a release build; room for sanitizers and a busy machine.
    EXPECT_LT(spent.count(), 150) << text.substr(0, 20);
  }
}

TEST(XmlDocument, UndeclaredPrefixIsTolerated) {
  EXPECT_EQ(first("<r><x:a>1</x:a><b>2</b></r>", "//b"), "2");
  EXPECT_NE(fault("<r>" + repeat("<x:a/>", 200) + "</r>"), "") << "but not any number of them";
}

TEST(XmlDocument, SecondParseReplacesTheFirst) {
  XmlDocument document;
  std::string error;
  std::string value;
  EXPECT_FALSE(document.first("//a", value));
  ASSERT_TRUE(document.parse("<a>1</a>", 8, error));
  ASSERT_TRUE(document.parse("<a>2</a>", 8, error));
  EXPECT_TRUE(document.first("//a", value));
  EXPECT_EQ(value, "2");
  EXPECT_FALSE(document.parse("<a>", 3, error));
  EXPECT_EQ(document.get(), nullptr);
  EXPECT_FALSE(document.parse(nullptr, 0, error));
}

}  // namespace
