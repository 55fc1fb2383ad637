// Counts the allocations of a process: every malloc, calloc, realloc and aligned allocation, so operator new and the
// libraries' own too. Linked into the micro-benchmarks; preloaded into a server (LD_PRELOAD), where the environment
// variable BENCH_ALLOCATIONS names a file that the counters are shared through.
#pragma once

#include <atomic>
#include <cstdint>

namespace bench {

/// As it lies in the shared file: two native 64-bit numbers.
struct Allocations {
  std::atomic<std::uint64_t> count;
  std::atomic<std::uint64_t> bytes;  ///< asked for
};

/// Never null.
Allocations* allocations();

}  // namespace bench
