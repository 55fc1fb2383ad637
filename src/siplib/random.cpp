#include "siplib/random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

void SIPLIB_UTIL_generateRandomString(SIPLIB_UTIL_RANDOM_STRING_T& text) {
  constexpr char kLetters[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  constexpr unsigned kCount = sizeof kLetters - 1;
  // Bytes from here on would make the first letters likelier than the others.
  constexpr unsigned kFair = 256 / kCount * kCount;
  std::size_t written = 0;
  while (written < sizeof text - 1) {
    unsigned char bytes[40];
    const ssize_t got = getrandom(bytes, sizeof bytes, 0);
    if (got < 0 && errno != EINTR) std::abort();
    for (ssize_t i = 0; i < got && written < sizeof text - 1; ++i) {
      if (bytes[i] < kFair) text[written++] = kLetters[bytes[i] % kCount];
    }
  }
  text[written] = '\0';
}
