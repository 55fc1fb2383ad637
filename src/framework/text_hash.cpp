#include "framework/text_hash.h"

#include <algorithm>
#include <random>

namespace framework {

namespace {

constexpr std::uint64_t kPrime = (std::uint64_t{1} << 61) - 1;

constexpr std::uint64_t reduced(std::uint64_t value) {
  value = (value & kPrime) + (value >> 61);
  return value >= kPrime ? value - kPrime : value;
}

/// Both below the prime.
constexpr std::uint64_t product(std::uint64_t a, std::uint64_t b) {
#ifdef __SIZEOF_INT128__
  __extension__ using Wide = unsigned __int128;
  const Wide whole = Wide{a} * b;
  return reduced((static_cast<std::uint64_t>(whole) & kPrime) + static_cast<std::uint64_t>(whole >> 61));
#else  // in halves
  constexpr std::uint64_t kLow31 = (std::uint64_t{1} << 31) - 1;
  constexpr std::uint64_t kLow30 = (std::uint64_t{1} << 30) - 1;
  const std::uint64_t a_high = a >> 31, a_low = a & kLow31, b_high = b >> 31, b_low = b & kLow31;
  const std::uint64_t middle = a_low * b_high + a_high * b_low;
  return reduced(a_high * b_high * 2 + (middle >> 30) + ((middle & kLow30) << 31) + a_low * b_low);
#endif
}
static_assert(product(kPrime - 1, kPrime - 1) == 1 && product(std::uint64_t{1} << 60, 4) == 2);

std::uint64_t base() {
  static const std::uint64_t drawn = [] {
    std::random_device source;
    return std::uniform_int_distribution<std::uint64_t>(1 << 16, kPrime - 2)(source);
  }();
  return drawn;
}

/// Of a text whose hash without its last byte is `hash`. No byte counts as 0, or leading zeros would not count.
std::uint64_t continued(std::uint64_t hash, std::uint64_t base, char byte) {
  return reduced(product(hash, base) + static_cast<unsigned char>(byte) + 1);
}

}  // namespace

std::uint64_t textHash(std::string_view text) {
  const std::uint64_t by = base();
  std::uint64_t hash = 0;
  for (const char byte : text) hash = continued(hash, by, byte);
  return hash;
}

void PieceHashes::read(std::string_view text, std::size_t longest) {
  const std::uint64_t by = base();
  prefixes_.resize(text.size() + 1);
  for (std::size_t i = 0; i < text.size(); ++i) prefixes_[i + 1] = continued(prefixes_[i], by, text[i]);
  if (powers_.empty()) powers_.push_back(1);
  while (powers_.size() <= std::min(longest, text.size())) powers_.push_back(product(powers_.back(), by));
}

std::uint64_t PieceHashes::of(std::size_t begin, std::size_t size) const {
  return reduced(prefixes_[begin + size] + kPrime - product(prefixes_[begin], powers_[size]));
}

}  // namespace framework
