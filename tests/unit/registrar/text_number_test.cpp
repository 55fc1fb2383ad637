#include "registrar/text_number.h"

#include <gtest/gtest.h>

#include <climits>

TEST(TextNumber, ReadsTheLeadingNumber) {
  EXPECT_EQ(registrar::to_int("42"), 42);
  EXPECT_EQ(registrar::to_int(" 17 REGISTER"), 17);
  EXPECT_EQ(registrar::to_int("-5"), -5);
  EXPECT_EQ(registrar::to_int("abc"), 0);
  EXPECT_EQ(registrar::to_int(""), 0);
}

TEST(TextNumber, StopsAtTheEndsOfTheRange) {
  EXPECT_EQ(registrar::to_int("2147483648"), INT_MAX);
  EXPECT_EQ(registrar::to_int("99999999999999999999999999"), INT_MAX);
  EXPECT_EQ(registrar::to_int("-99999999999999999999999999"), INT_MIN);
}
