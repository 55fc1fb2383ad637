// A hash of texts that nobody outside the process can aim at: polynomial modulo 2^61 - 1 under a base that is drawn at
// random when the process starts. Two different texts of n bytes have the same hash with a probability below n / 2^61,
// whoever chose them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace framework {

/// Any thread.
std::uint64_t textHash(std::string_view text);

/// The hash of every piece of one text, each in constant time. Its room stays for the next text. Not shared by threads.
class PieceHashes {
 public:
  /// `longest`: no piece that is asked for is longer.
  void read(std::string_view text, std::size_t longest);
  std::uint64_t of(std::size_t begin, std::size_t size) const;

 private:
  std::vector<std::uint64_t> prefixes_;  ///< of the first n bytes
  std::vector<std::uint64_t> powers_;    ///< of the base
};

}  // namespace framework
