#include "framework/xml_document.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/cost.h"

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
  EXPECT_NE(fault(std::string("<\0a\0/\0>\0", 8)), "") << "neither a mark nor a declaration tells what this is";
  EXPECT_NE(fault("\x4c\x6f\xa7\x94"), "");
  EXPECT_NE(fault("<a>\xff</a>"), "");
  EXPECT_EQ(fault(std::string("<a>\0</a>", 8)), "line 1: a NUL byte");
}

TEST(XmlDocument, NulsAtTheEndDoNotCount) {
  EXPECT_EQ(first(std::string("<a>1</a>\0", 9), "/a"), "1");
  EXPECT_EQ(first("<a>1</a>" + std::string(1000, '\0'), "/a"), "1");
  EXPECT_EQ(fault(std::string("<a>1</a>\0\n", 10)), "line 1: a NUL byte");
  EXPECT_EQ(fault(std::string(100, '\0')), "line 1: no XML document");
}

/// UTF-16 of a text of ASCII and U+00E4, with U+1F600 for each "~".
std::string utf16(const std::string& text, bool big) {
  std::string result;
  const auto put = [&](unsigned unit) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xff);
    result += big ? high : low;
    result += big ? low : high;
  };
  for (const char c : text) {
    if (c == '~') put(0xd83d);
    put(c == '~' ? 0xde00 : static_cast<unsigned char>(c));
  }
  return result;
}

TEST(XmlDocument, Utf16IsRead) {
  for (const bool big : {false, true}) {
    const std::string mark = big ? "\xfe\xff" : "\xff\xfe";
    EXPECT_EQ(first(mark + utf16("<a>\xe4~</a>", big), "/a"), "\xc3\xa4\xf0\x9f\x98\x80");
    const std::string declared = utf16("<?xml version='1.0' encoding='UTF-16'?>\n<a>1</a>", big);
    EXPECT_EQ(first(declared, "/a"), "1");
    EXPECT_EQ(first(mark + declared, "/a"), "1");
    for (std::size_t nuls = 1; nuls < 6; ++nuls) {
      EXPECT_EQ(first(declared + std::string(nuls, '\0'), "/a"), "1") << nuls;
    }
    EXPECT_EQ(fault(mark + utf16("<a>\n</b>", big)).substr(0, 7), "line 2:") << "lines are counted";
  }
}

TEST(XmlDocument, BrokenUtf16IsRefused) {
  for (const bool big : {false, true}) {
    const std::string mark = big ? "\xfe\xff" : "\xff\xfe";
    const std::string high = big ? "\xd8\x3d" : "\x3d\xd8";
    const std::string low = big ? std::string("\xde\0", 2) : std::string("\0\xde", 2);
    const std::string begin = mark + utf16("<a>\n", big);
    const std::string end = utf16("</a>", big);
    EXPECT_EQ(fault(begin + high + end), "line 2: a byte that is not of its encoding");
    EXPECT_EQ(fault(begin + low + end), "line 2: a byte that is not of its encoding");
    EXPECT_EQ(fault(begin + high), "line 2: a byte that is not of its encoding");
    EXPECT_EQ(fault(begin + end + "\n"), "line 2: a byte that is not of its encoding") << "half a character";
    EXPECT_EQ(fault(begin + utf16(std::string(1, '\0'), big) + end), "line 2: a NUL byte");
    EXPECT_EQ(fault(mark), "line 1: no XML document");
  }
}

TEST(XmlDocument, WhatIsRefusedIsRefusedInEveryEncoding) {
  for (const std::string text :
       {"<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>", "<a xmlns:b='c'><!DOCTYPE b></a>", "text"}) {
    for (const bool big : {false, true}) {
      const std::string other = (big ? "\xfe\xff" : "\xff\xfe") + utf16(text, big);
      EXPECT_EQ(fault(other), fault(text));
      EXPECT_NE(fault(other), "");
    }
  }
  const std::string wide = "<a" + repeat(" b='c'", 100) + "/>";
  EXPECT_EQ(fault("\xff\xfe" + utf16(wide, false)), "line 1: too many attributes in one tag");
  const std::string deep = repeat("<a>", 4000) + repeat("</a>", 4000);
  EXPECT_NE(fault("\xff\xfe" + utf16(deep, false)), "");
}

// UTF-7 writes "<!DOCTYPE" without one of its characters.
TEST(XmlDocument, EncodingsThatHideMarkupAreRefused) {
  const std::string hidden = "+ADwAIQ-DOCTYPE a+AD4-<a/>";
  for (const char* const name :
       {"UTF-7", "utf7", "UTF-16", "UTF-32", "ISO-2022-JP", "ISO-2022-KR", "HZ-GB-2312", "SCSU", "IBM037", "SHIFT_JIS",
        "GB18030", "ISO-8859-15", "windows-1252", "HTML", "nonsense", "", "../../lib", "UTF-8,x", "UTF-8 "}) {
    EXPECT_EQ(fault("<?xml version='1.0' encoding='" + std::string(name) + "'?>" + hidden),
              "line 1: an encoding other than UTF-8, UTF-16, US-ASCII and ISO-8859-1")
        << name;
  }
  EXPECT_NE(fault("\xef\xbb\xbf<?xml version='1.0' encoding='ISO-8859-1'?><a/>"), "") << "the mark says another";
  // Another reader of the declaration may find another name in it; the parser goes by none.
  EXPECT_EQ(first("<?xml version='1.0' encoding='UTF-8'?><a>+ADwAIQ-</a>", "/a"), "+ADwAIQ-");
  EXPECT_NE(fault("<?xml version='encoding=\"UTF-8\"' encoding='UTF-7'?>" + hidden), "");
  // UTF-32 and EBCDIC, by their first bytes.
  EXPECT_NE(fault(std::string("<\0\0\0?\0\0\0", 8)), "");
  EXPECT_NE(fault(std::string("\0\0\0<\0\0\0?", 8)), "");
  EXPECT_NE(fault(std::string("\xff\xfe\0\0<\0\0\0", 8)), "");
  EXPECT_NE(fault("\x4c\x6f\xa7\x94\x93\x40"), "");
}

TEST(XmlDocument, AsciiIsReadAndHasNoHighBytes) {
  EXPECT_EQ(first("<?xml version='1.0' encoding='US-ASCII'?><a>1</a>", "/a"), "1");
  EXPECT_EQ(first("<?xml version=\"1.0\" encoding=\"us-ascii\"?>\n<a>&#228;</a>", "/a"), "\xc3\xa4");
  EXPECT_EQ(fault("<?xml version='1.0' encoding='US-ASCII'?>\n<a>\xe4</a>"),
            "line 2: a byte that is not of its encoding");
}

TEST(XmlDocument, SizeIsBoundedAsUtf8Too) {
  const auto latin1 = [](std::size_t letters) {
    return "<?xml version='1.0' encoding='ISO-8859-1'?><a>" + std::string(letters, '\xe4') + "</a>";
  };
  EXPECT_EQ(fault(latin1(32000)), "");
  EXPECT_EQ(fault(latin1(33000)), "more than 65536 bytes as UTF-8");
  EXPECT_EQ(fault("\xff\xfe" + utf16("<a>" + std::string(32000, 'x') + "</a>", false)), "");
}

TEST(XmlDocument, WhiteSpaceAroundAValueDoesNotCount) {
  EXPECT_EQ(first("<r>\n  <a>\r\n\t 1 2\n</a></r>", "//a"), "1 2");
  EXPECT_EQ(first("<r><a b=' 1 '> \n</a></r>", "//a"), "");
  EXPECT_EQ(first("<r><a b=' 1 '/></r>", "//a/@b"), "1");
  EXPECT_EQ(first("<a>\xc2\xa0x</a>", "//a"), "\xc2\xa0x") << "what XML does not take for white space stays";
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

// The most that a document may hold of anything costs what it weighs: not the square of that.
TEST(XmlDocument, CostGrowsWithTheLengthOnly) {
  const auto shapes = [](std::size_t part) {
    return std::vector<std::string>{
        "<r>" + repeat("<a/>", 16000 / part) + "</r>",
        "<r>" + repeat("<a/>x", 13000 / part) + "</r>",
        "<r>" + repeat("&lt;", 16000 / part) + "</r>",
        "<r>" + repeat("<![CDATA[]]>x", 5000 / part) + "</r>",
        "<r>" + repeat("<!---->", 9000 / part) + "</r>",
        "<r>" + repeat("<?a?>", 13000 / part) + "</r>",
        repeat("<a>", 250 / part) + repeat("<b/>", 15000 / part) + repeat("</a>", 250 / part),
        "<r x='" + repeat("&#65;", 13000 / part) + "'/>",
        "<r>" + repeat("<a", 32000 / part),
        "<" + repeat("a:", 32000 / part),
        repeat("<", 65000 / part),
        "<r>" + repeat("&;", 32000 / part) + "</r>",
        "<r>" + repeat("&a;", 21000 / part) + "</r>",
        "<r>" + repeat("]]>", 21000 / part) + "</r>",
        "<r><!--" + repeat(" --", 21000 / part) + "--></r>",
        "<r>" + repeat("\x01", 65000 / part) + "</r>",
        "<r>" + repeat("\xff", 65000 / part) + "</r>",
        "<r>" + repeat("<a:b/>", 10000 / part) + "</r>",
        "<r" + repeat(" a", 32000 / part) + "/>",
        "<r/>" + repeat("<r/>", 16000 / part),
        "<r>" + repeat("</a>", 16000 / part) + "</r>",
        "<r>" + repeat("<?xml?>", 9000 / part) + "</r>",
        "<r>" + repeat("&#0;", 16000 / part) + "</r>",
        "<r a='" + repeat("<", 60000 / part) + "'/>",
        "\xff\xfe" + utf16("<r>" + repeat("<a/>", 8000 / part) + "</r>", false),
        "\xff\xfe" + utf16("<r>" + repeat("&#65;", 6000 / part) + "</r>", false),
        "\xff\xfe" + utf16("<r>" + repeat("~", 16000 / part) + "</r>", false),
        "\xff\xfe" + std::string(65000 / part, '\0') + "\n",
        "\xff\xfe" + repeat("\x3d\xd8", 32000 / part),
        "<?xml version='1.0' encoding='ISO-8859-1'?><r>" + repeat("\xe4", 32000 / part) + "</r>",
        "<?xml " + repeat("encoding ", 7000 / part) + "?>",
        std::string(65000 / part, '\0'),
    };
  };
  const auto read = [](const std::string& text) {
    return [&text] {
      XmlDocument document;
      std::string error;
      std::string value;
      if (document.parse(text.data(), text.size(), error)) document.first("//a", value);
    };
  };
  constexpr std::size_t kPart = 8;
  const std::vector<std::string> large = shapes(1), small = shapes(kPart);
  for (std::size_t i = 0; i < large.size(); ++i) {
    ASSERT_LE(large[i].size(), kMaxXml);
    ASSERT_GT(large[i].size(), small[i].size());
    const double bound = 3.0 * kPart * leastTime(read(small[i]));
    EXPECT_LT(leastTime(read(large[i]), bound), bound)
        << large[i].substr(0, 20) << ": the square would be " << kPart * kPart;
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
