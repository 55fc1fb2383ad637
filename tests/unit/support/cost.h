// What work costs, for tests of how the cost grows with the input. A machine that is busy, or a build with sanitizers,
// slows the small and the large alike: only their ratio means something.
#pragma once

#include <algorithm>
#include <ctime>
#include <limits>

/// Seconds of this thread's processor time that `work` takes at its quickest; what disturbs it can only make it slower.
/// Tried again until `enough` is reached, `rounds` times at most.
template <class Work>
double leastTime(const Work& work, double enough = 0, int rounds = 10) {
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  double least = std::numeric_limits<double>::max();
  for (int round = 0; round < rounds && least > enough; ++round) {
    const double begin = now();
    work();
    least = std::min(least, now() - begin);
  }
  return least;
}
