#include "siplib/header_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace siplib {
namespace {

std::string upper(std::string_view text) {
  std::string all(text);
  std::transform(all.begin(), all.end(), all.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  return all;
}

TEST(HeaderTable, EveryRowIsFoundByEitherFormInAnyCase) {
  std::set<char> letters;
  std::set<std::string> names;
  const auto rows = headerTable();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto id = static_cast<HeaderId>(i + 1);
    EXPECT_EQ(headerId(rows[i].name), id) << rows[i].name;
    EXPECT_EQ(headerId(upper(rows[i].name)), id) << rows[i].name;
    EXPECT_TRUE(names.insert(upper(rows[i].name)).second) << rows[i].name << " stands twice";
    EXPECT_THAT(std::string(rows[i].reference), testing::MatchesRegex("RFC [0-9]{4} [0-9]+(\\.[0-9]+)*"));
    EXPECT_TRUE(isToken(rows[i].name));
    EXPECT_EQ(headerList(id), rows[i].list);
    if (rows[i].compact == 0) continue;
    EXPECT_TRUE(letters.insert(rows[i].compact).second) << rows[i].compact << " stands twice";
    EXPECT_EQ(headerId(std::string(1, rows[i].compact)), id);
    EXPECT_EQ(headerId(upper(std::string(1, rows[i].compact))), id);
  }
}

TEST(HeaderTable, CompactForms) {
  const std::pair<const char*, const char*> forms[] = {{"i", "Call-ID"},
                                                       {"m", "Contact"},
                                                       {"e", "Content-Encoding"},
                                                       {"l", "Content-Length"},
                                                       {"c", "Content-Type"},
                                                       {"f", "From"},
                                                       {"k", "Supported"},
                                                       {"s", "Subject"},
                                                       {"t", "To"},
                                                       {"v", "Via"},
                                                       {"o", "Event"},
                                                       {"u", "Allow-Events"},
                                                       {"a", "Accept-Contact"},
                                                       {"j", "Reject-Contact"},
                                                       {"d", "Request-Disposition"},
                                                       {"b", "Referred-By"},
                                                       {"r", "Refer-To"},
                                                       {"x", "Session-Expires"},
                                                       {"y", "Identity"},
                                                       {"n", "Identity-Info"}};
  for (const auto& [compact, full] : forms) {
    EXPECT_NE(headerId(full), kUnknownHeader) << full;
    EXPECT_EQ(headerId(compact), headerId(full)) << compact;
  }
}

TEST(HeaderTable, UnknownNames) {
  for (const char* name : {"", "X-Own", "q", "g", "1", "-", "Vi", "Viaa", "Content-Lengt", "Content_Length"}) {
    EXPECT_EQ(headerId(name), kUnknownHeader) << name;
  }
  EXPECT_EQ(headerId(std::string_view("\xff", 1)), kUnknownHeader);
  EXPECT_EQ(headerId(std::string(70000, 'a')), kUnknownHeader);
  EXPECT_EQ(headerList(kUnknownHeader), List::No);
}

TEST(HeaderTable, ContentLengthHasItsPlace) {
  EXPECT_EQ(headerId("content-length"), kContentLength);
}

TEST(HeaderTable, ListsAreWhatTheGrammarSays) {
  for (const char* name : {"Via",
                           "Route",
                           "Record-Route",
                           "Contact",
                           "Accept",
                           "Accept-Encoding",
                           "Accept-Language",
                           "Accept-Contact",
                           "Reject-Contact",
                           "Allow",
                           "Allow-Events",
                           "Supported",
                           "Require",
                           "Proxy-Require",
                           "Unsupported",
                           "Alert-Info",
                           "Call-Info",
                           "Error-Info",
                           "In-Reply-To",
                           "Path",
                           "Service-Route",
                           "P-Asserted-Identity",
                           "P-Preferred-Identity",
                           "P-Associated-URI",
                           "History-Info",
                           "Security-Client",
                           "Security-Server",
                           "Security-Verify",
                           "Warning",
                           "Content-Encoding",
                           "Content-Language"}) {
    EXPECT_NE(headerList(headerId(name)), List::No) << name;
  }
  for (const char* name : {"Authorization", "WWW-Authenticate", "Proxy-Authenticate", "Proxy-Authorization", "Date",
                           "Subject", "User-Agent", "Server", "From", "To", "Call-ID", "CSeq", "Content-Type",
                           "Content-Length", "Event", "Expires", "Refer-To", "Subscription-State", "Organization"}) {
    EXPECT_NE(headerId(name), kUnknownHeader) << name;
    EXPECT_EQ(headerList(headerId(name)), List::No) << name;
  }
}

}  // namespace
}  // namespace siplib
