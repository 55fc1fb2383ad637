// What a piece of work costs, whatever else the machine does.
#pragma once

#include <time.h>

#include <algorithm>

namespace sip_test {

/// Milliseconds of this thread's processor time; the best of three runs where one takes `enough` or more.
template <class Work>
double milliseconds(Work work, double enough) {
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
  };
  double best = 1e9;
  for (int i = 0; i < 3 && best >= enough; ++i) {
    const double begin = now();
    work();
    best = std::min(best, now() - begin);
  }
  return best;
}

}  // namespace sip_test
