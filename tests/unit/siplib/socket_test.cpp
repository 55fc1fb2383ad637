#include "siplib/socket.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <vector>

namespace {

TEST(SendSlices, MorePiecesThanTheSystemTakesGoOutInOrder) {
  std::array<int, 2> ends{};
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
  const siplib::FileDescriptor here(ends[0]);
  const siplib::FileDescriptor there(ends[1]);
  std::string text;
  for (int i = 0; i < 3 * IOV_MAX; ++i) text += static_cast<char>('a' + i % 26);
  std::vector<iovec> slices;
  for (char& byte : text) slices.push_back({&byte, 1});
  ASSERT_EQ(static_cast<ssize_t>(text.size()), siplib::sendSlices(here.get(), slices));
  std::string read(text.size(), '\0');
  ASSERT_EQ(static_cast<ssize_t>(text.size()), ::recv(there.get(), read.data(), read.size(), MSG_WAITALL));
  EXPECT_EQ(text, read);
}

}  // namespace
