#include "siplib/random.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace {

TEST(RandomString, IsThirtyTwoLettersAndDigits) {
  SIPLIB_UTIL_RANDOM_STRING_T text;
  std::memset(text, '!', sizeof text);
  SIPLIB_UTIL_generateRandomString(text);
  ASSERT_EQ(text[32], '\0');
  EXPECT_EQ(std::strlen(text), 32u);
  EXPECT_EQ(std::string(text).find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz"), std::string::npos);
}

TEST(RandomString, NeverRepeatsAndUsesEveryLetter) {
  std::set<std::string> seen;
  std::set<char> letters;
  for (int i = 0; i < 1000; ++i) {
    SIPLIB_UTIL_RANDOM_STRING_T text;
    SIPLIB_UTIL_generateRandomString(text);
    EXPECT_TRUE(seen.insert(text).second);
    letters.insert(text, text + 32);
  }
  EXPECT_EQ(letters.size(), 36u);
}

}  // namespace
