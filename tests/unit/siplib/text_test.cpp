#include "siplib/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "siplib/sip_text.h"

namespace siplib {
namespace {

constexpr std::size_t kNone = std::string_view::npos;

std::vector<std::string> divide(std::string_view text, List list) {
  const sip_test::Exact exact(text);
  std::vector<std::string> all;
  std::string_view element;
  for (std::size_t position = 0; nextElement(exact.view(), list, position, element);) all.emplace_back(element);
  return all;
}

using Pieces = std::vector<std::string>;

TEST(Text, Tokens) {
  EXPECT_TRUE(isToken("abcXYZ019-.!%*_+`'~"));
  EXPECT_FALSE(isToken(""));
  const std::string_view others("()<>@,;:\\\"/[]?={} \t\r\n\x7f\x80\xff\0", 25);
  for (const char c : others) {
    EXPECT_FALSE(isToken(std::string(1, c))) << static_cast<int>(c);
  }
}

TEST(Text, ComparesAsciiWithoutRegardToCase) {
  EXPECT_TRUE(equalsIgnoreCase("", ""));
  EXPECT_TRUE(equalsIgnoreCase("Via", "vIA"));
  EXPECT_FALSE(equalsIgnoreCase("Via", "Vi"));
  EXPECT_FALSE(equalsIgnoreCase("@[`{", "`{@["));
  EXPECT_FALSE(equalsIgnoreCase("\xc4", "\xe4"));
}

TEST(Text, TrimsFoldsToo) {
  EXPECT_EQ(trim("\r\n \ta b\t \r\n"), "a b");
  EXPECT_EQ(trim(" \t "), "");
  EXPECT_EQ(trim(""), "");
}

TEST(Text, NumbersNeitherWrapNorForgive) {
  EXPECT_EQ(decimal("0", 10), 0u);
  EXPECT_EQ(decimal("0000000000000000000000000000000000010", 10), 10u);
  EXPECT_EQ(decimal("4294967295", 4294967295u), 4294967295u);
  for (const char* bad : {"", "11", "4294967296", "18446744073709551616", "-1", "+1", " 1", "1 ", "1a", "0x1"}) {
    EXPECT_EQ(decimal(bad, 10), std::nullopt) << bad;
  }
}

TEST(Text, Utf8IsThatOfTheRfcAndNoOther) {
  struct Case {
    std::string_view text;
    std::uint32_t value;
    std::size_t size;
  };
  for (const Case& one :
       {Case{"a", 'a', 1}, Case{"\x7f", 0x7f, 1}, Case{"\xc2\x80", 0x80, 2}, Case{"\xdf\xbf", 0x7ff, 2},
        Case{"\xe0\xa0\x80", 0x800, 3}, Case{"\xed\x9f\xbf", 0xd7ff, 3}, Case{"\xee\x80\x80", 0xe000, 3},
        Case{"\xef\xbf\xbf", 0xffff, 3}, Case{"\xf0\x90\x80\x80", 0x10000, 4}, Case{"\xf4\x8f\xbf\xbf", 0x10ffff, 4}}) {
    const Utf8 found = utf8At(one.text, 0);
    EXPECT_EQ(found.value, one.value);
    EXPECT_EQ(found.size, one.size);
    // Whatever of it is missing, and with anything in the place of a continuation byte, it is none.
    for (std::size_t i = 1; i < one.size; ++i) {
      EXPECT_EQ(utf8At(one.text.substr(0, i), 0).size, 0u);
      std::string broken(one.text);
      broken[i] = 'a';
      EXPECT_EQ(utf8At(broken, 0).size, 0u);
      broken[i] = '\xc2';
      EXPECT_EQ(utf8At(broken, 0).size, 0u);
    }
  }
  for (const std::string_view bad :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"}) {
    EXPECT_EQ(utf8At(bad, 0).size, 0u) << bad;
  }
  EXPECT_EQ(utf8At("a\xc3\xa4", 1).value, 0xe4u);
}

TEST(Text, QuotedStrings) {
  EXPECT_EQ(skipQuoted("\"a\"b", 0), 3u);
  EXPECT_EQ(skipQuoted("\"a\\\"b\"", 0), 6u);
  EXPECT_EQ(skipQuoted("\"a\\\\\"b\"", 0), 5u);
  EXPECT_EQ(skipQuoted("\"", 0), kNone);
  EXPECT_EQ(skipQuoted("\"\\", 0), kNone);
  EXPECT_EQ(skipQuoted("\"\\\"", 0), kNone);
  EXPECT_TRUE(quotesBalanced("a \"b\" c"));
  EXPECT_TRUE(quotesBalanced(""));
  EXPECT_FALSE(quotesBalanced("a \"b"));
  EXPECT_FALSE(quotesBalanced("\"a\\\""));
}

TEST(Text, FindsOutsideOfQuotesAndBrackets) {
  EXPECT_EQ(findUnquoted("\";\";", ';'), 3u);
  EXPECT_EQ(findUnquoted("<;>;", ';'), 1u);
  EXPECT_EQ(findUnquoted("a", ';'), kNone);
  EXPECT_EQ(findUnquoted("\"a;", ';'), kNone);
  EXPECT_EQ(findUnquoted("a;b;", ';', 2), 3u);
  EXPECT_EQ(findUnquoted("a", ';', 7), kNone);
  EXPECT_EQ(findOutside("<;\";>;", ';'), 5u);
  EXPECT_EQ(findOutside("\"<\";>", ';'), 3u);
  EXPECT_EQ(findOutside("<a;", ';'), kNone);
}

TEST(Text, DividesLists) {
  EXPECT_EQ(divide("", List::Quoted), Pieces{});
  EXPECT_EQ(divide(" , ,", List::Quoted), Pieces{});
  EXPECT_EQ(divide("a", List::Quoted), Pieces{"a"});
  EXPECT_EQ(divide(" a ,\r\n b\t,c,", List::Quoted), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(divide("\",\" <,>;x=\",\",b", List::Quoted), (Pieces{"\",\" <,>;x=\",\"", "b"}));
  EXPECT_EQ(divide("sip:a(b@c,sip:d)@e", List::Quoted), (Pieces{"sip:a(b@c", "sip:d)@e"}));
  EXPECT_EQ(divide("\",a,b", List::Quoted), Pieces{"\",a,b"});
  EXPECT_EQ(divide("<,a,b", List::Quoted), Pieces{"<,a,b"});
  EXPECT_EQ(divide("\",<a,b", List::Plain), (Pieces{"\"", "<a", "b"}));
  EXPECT_EQ(divide(" a,b ", List::No), Pieces{"a,b"});
}

TEST(Text, LineBreakers) {
  EXPECT_TRUE(breaksLine("a\rb"));
  EXPECT_TRUE(breaksLine("\n"));
  EXPECT_TRUE(breaksLine(std::string_view("\0", 1)));
  EXPECT_FALSE(breaksLine("a\tb\x01\xff"));
}

TEST(Text, ABreakIsFoundWhereverItStands) {
  for (std::size_t size = 1; size < 40; ++size) {
    EXPECT_FALSE(breaksLine(std::string(size, '\t'))) << size;
    EXPECT_FALSE(breaksLine(std::string(size, '\x80'))) << size;
    for (std::size_t at = 0; at < size; ++at) {
      for (const char c : {'\r', '\n', '\0'}) {
        std::string text(size, 'a');
        text[at] = c;
        EXPECT_TRUE(breaksLine(text)) << size << " " << at;
      }
    }
  }
}

TEST(Text, LinesAreWholeWhenEveryEndIsCrLf) {
  EXPECT_TRUE(linesWhole(""));
  EXPECT_TRUE(linesWhole("a"));
  EXPECT_TRUE(linesWhole("\r\n"));
  EXPECT_TRUE(linesWhole("a\r\n\r\nb"));
  EXPECT_FALSE(linesWhole("\n"));
  EXPECT_FALSE(linesWhole("\r"));
  EXPECT_FALSE(linesWhole("\n\r"));
  EXPECT_FALSE(linesWhole("a\r\r\n"));
  EXPECT_FALSE(linesWhole("a\r\n\n"));
  for (std::size_t size = 1; size < 80; ++size) {
    for (std::size_t at = 0; at < size; ++at) {
      std::string text(size, 'a');
      text[at] = '\n';
      EXPECT_FALSE(linesWhole(text)) << size << " " << at;
      text[at] = '\r';
      EXPECT_FALSE(linesWhole(text)) << size << " " << at;
      if (at + 1 < size) text[at + 1] = '\n';
      EXPECT_EQ(at + 1 < size, linesWhole(text)) << size << " " << at;
    }
  }
}

TEST(Text, ComparesEveryLengthAndEveryPlace) {
  for (std::size_t size = 1; size < 40; ++size) {
    const std::string text(size, 'k');
    for (std::size_t at = 0; at < size; ++at) {
      std::string other = text;
      other[at] = 'K';
      EXPECT_TRUE(equalsIgnoreCase(text, other)) << size << " " << at;
      other[at] = 'l';
      EXPECT_FALSE(equalsIgnoreCase(text, other)) << size << " " << at;
    }
  }
}

}  // namespace
}  // namespace siplib
