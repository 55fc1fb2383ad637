#include "siplib/reactor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "siplib/socket_fakes.h"

namespace {

using namespace std::chrono_literals;
using siplib::Reactor;

class ReactorTest : public testing::Test {
 protected:
  ReactorTest() { EXPECT_EQ(0, pipe2(pipe_.data(), O_NONBLOCK | O_CLOEXEC)); }
  ~ReactorTest() override {
    for (const int end : pipe_) close(end);
  }
  void write(const char* text) { EXPECT_GT(::write(pipe_[1], text, strlen(text)), 0); }
  bool readOne() {
    char byte = 0;
    return ::read(pipe_[0], &byte, 1) == 1;
  }
  /// For what happens: however slow the machine is.
  template <class Condition>
  void pollUntil(Condition reached) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!reached() && std::chrono::steady_clock::now() < end) {
      reactor.poll();
      std::this_thread::sleep_for(200us);
    }
  }
  /// For what must not happen.
  void pollFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      reactor.poll();
      std::this_thread::sleep_for(200us);
    }
  }

  Reactor reactor;
  std::array<int, 2> pipe_{};
};

TEST_F(ReactorTest, CallsUntilEverythingIsRead) {
  int calls = 0;
  const auto watch = reactor.watch(
      pipe_[0],
      [&] {
        EXPECT_TRUE(readOne());
        ++calls;
      },
      [] {});
  watch->wantRead(true);
  write("abc");
  for (int i = 0; i < 3; ++i) reactor.runOnce();
  EXPECT_EQ(3, calls);
  pollFor(10ms);
  EXPECT_EQ(3, calls);
}

TEST_F(ReactorTest, WhatIsNotWantedIsNotCalledAndWhatWaitsIsFoundLater) {
  int calls = 0;
  const auto watch = reactor.watch(
      pipe_[0],
      [&] {
        readOne();
        ++calls;
      },
      [] {});
  watch->wantRead(true);
  watch->wantRead(false);
  write("ab");
  pollFor(10ms);
  EXPECT_EQ(0, calls);
  watch->wantRead(true);
  pollUntil([&] { return calls == 2; });
  EXPECT_EQ(2, calls);
}

TEST_F(ReactorTest, NoCallbackRunsWithinTheCallThatRegistersIt) {
  bool called = false;
  write("a");
  const auto watch = reactor.watch(
      pipe_[0], [&] { called = true; }, [] {});
  watch->wantRead(true);
  const auto timer = reactor.timer([&] { called = true; });
  timer->start(0ms);
  reactor.post([&] { called = true; });
  EXPECT_FALSE(called);
}

TEST_F(ReactorTest, WritableIsToldWhileWanted) {
  int calls = 0;
  std::unique_ptr<Reactor::Watch> watch = reactor.watch(
      pipe_[1], [] {},
      [&] {
        if (++calls == 3) watch->wantWrite(false);
      });
  watch->wantWrite(true);
  pollUntil([&] { return calls == 3; });
  pollFor(10ms);
  EXPECT_EQ(3, calls);
}

TEST_F(ReactorTest, ACallbackThatThrowsIsCalledAgain) {
  int calls = 0;
  const auto watch = reactor.watch(
      pipe_[0],
      [&] {
        if (++calls == 1) throw std::bad_alloc();
        EXPECT_TRUE(readOne());
      },
      [] {});
  watch->wantRead(true);
  write("a");
  EXPECT_THROW(reactor.runOnce(), std::bad_alloc);
  reactor.runOnce();
  EXPECT_EQ(2, calls);
  EXPECT_FALSE(readOne());
}

TEST_F(ReactorTest, AWatchThatWaitsAgainTakesNoMemoryForIt) {
  constexpr std::size_t many = 100;
  std::vector<siplib::FileDescriptor> ends;
  std::vector<std::unique_ptr<Reactor::Watch>> watches(many);
  std::size_t calls = 0;
  for (std::size_t i = 0; i < many; ++i) {
    ends.emplace_back(dup(pipe_[0]));
    watches[i] = reactor.watch(
        ends.back().get(),
        [&, i] {
          ++calls;
          watches[i]->wantRead(false);
        },
        [] {});
    ASSERT_TRUE(watches[i]);
    watches[i]->wantRead(true);
  }
  reactor.poll();
  const std::size_t before = socket_fakes::allocatedBytes();
  write("a");
  pollUntil([&] { return calls == many; });
  ASSERT_TRUE(readOne());
  for (const auto& watch : watches) watch->wantRead(true);
  EXPECT_LT(socket_fakes::allocatedBytes(), before + 10 * many);
}

TEST_F(ReactorTest, AnEndedWatchIsNeverCalled) {
  bool called = false;
  auto watch = reactor.watch(
      pipe_[0], [&] { called = true; }, [] {});
  watch->wantRead(true);
  write("a");
  watch.reset();
  pollFor(10ms);
  EXPECT_FALSE(called);
}

TEST_F(ReactorTest, AWatchMayEndInItsOwnCallback) {
  int calls = 0;
  std::unique_ptr<Reactor::Watch> watch = reactor.watch(
      pipe_[0],
      [&] {
        ++calls;
        watch.reset();
      },
      [] {});
  watch->wantRead(true);
  write("a");
  pollUntil([&] { return calls == 1; });
  pollFor(10ms);
  EXPECT_EQ(1, calls);
  EXPECT_TRUE(readOne()) << "the descriptor stays the caller's";
}

TEST_F(ReactorTest, ADescriptorThatCannotBeWatchedGivesNoWatch) {
  EXPECT_EQ(nullptr, reactor.watch(
                         -1, [] {}, [] {}));
}

TEST_F(ReactorTest, ATimerFiresOnceAndCanBeStartedAgain) {
  int calls = 0;
  const auto timer = reactor.timer([&] { ++calls; });
  timer->start(5ms);
  pollUntil([&] { return calls == 1; });
  pollFor(10ms);
  EXPECT_EQ(1, calls);
  timer->start(1ms);
  pollUntil([&] { return calls == 2; });
  EXPECT_EQ(2, calls);
}

TEST_F(ReactorTest, ATimerThatWasStoppedStartedAnewOrEndedDoesNotFireItsOldTime) {
  int calls = 0;
  const auto stopped = reactor.timer([&] { ++calls; });
  stopped->start(1ms);
  stopped->stop();
  const auto delayed = reactor.timer([&] { ++calls; });
  delayed->start(1ms);
  delayed->start(1h);
  auto ended = reactor.timer([&] { ++calls; });
  ended->start(1ms);
  ended.reset();
  pollFor(20ms);
  EXPECT_EQ(0, calls);
}

TEST_F(ReactorTest, ATimerMayStartItselfAgain) {
  int calls = 0;
  std::unique_ptr<Reactor::Timer> timer = reactor.timer([&] {
    if (++calls < 3) timer->start(1ms);
  });
  timer->start(1ms);
  pollUntil([&] { return calls == 3; });
  pollFor(10ms);
  EXPECT_EQ(3, calls);
}

TEST_F(ReactorTest, PostedWorkKeepsItsOrderAlsoFromOtherThreads) {
  std::vector<int> order;
  std::thread other([&] {
    for (int i = 0; i < 1000; ++i) reactor.post([&order, i] { order.push_back(i); });
  });
  other.join();
  pollUntil([&] { return order.size() == 1000; });
  ASSERT_EQ(1000u, order.size());
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(i, order[static_cast<std::size_t>(i)]);
}

TEST_F(ReactorTest, RunOnceWaitsUntilItIsWoken) {
  std::atomic<bool> woken{false};
  std::thread other([&] {
    std::this_thread::sleep_for(30ms);
    woken = true;
    reactor.wake();
    reactor.wake();
  });
  reactor.runOnce();
  EXPECT_TRUE(woken);
  other.join();
}

TEST_F(ReactorTest, AWakeBeforeTheWaitIsNotLost) {
  reactor.wake();
  reactor.runOnce();  // would wait for ever
  reactor.wake();
  reactor.runOnce();
}

TEST_F(ReactorTest, WhatWasCancelledDoesNotEndTheWait) {
  auto timer = reactor.timer([] {});
  timer->start(1h);
  timer->stop();
  auto watch = reactor.watch(
      pipe_[0], [] {}, [] {});
  watch->wantRead(true);
  watch.reset();
  std::atomic<bool> woken{false};
  std::thread other([&] {
    std::this_thread::sleep_for(30ms);
    woken = true;
    reactor.wake();
  });
  reactor.runOnce();
  EXPECT_TRUE(woken);
  other.join();
}

TEST_F(ReactorTest, AnIdleReactorDoesNotWakeUp) {
  const auto watch = reactor.watch(
      pipe_[0], [] {}, [] {});
  watch->wantRead(true);
  std::atomic<long> switches{-1};
  std::thread runner([&] {
    reactor.post([] {});
    reactor.runOnce();
    rusage before{};
    getrusage(RUSAGE_THREAD, &before);
    reactor.run();
    rusage after{};
    getrusage(RUSAGE_THREAD, &after);
    switches = after.ru_nvcsw - before.ru_nvcsw;
  });
  std::this_thread::sleep_for(200ms);
  reactor.stop();
  runner.join();
  EXPECT_LE(switches, 3);
}

TEST_F(ReactorTest, AfterStopEverythingReturnsAtOnce) {
  reactor.stop();
  reactor.run();
  reactor.runOnce();
  reactor.poll();
}

TEST_F(ReactorTest, PollReturnsThoughWorkNeverEnds) {
  std::function<void()> again = [&] { reactor.post(again); };
  reactor.post(again);
  reactor.poll();
}

TEST_F(ReactorTest, EveryArrivalOfASignalIsTold) {
  int caught = 0;
  reactor.onSignal(SIGUSR1, [&](int number) { caught += number == SIGUSR1 ? 1 : 100; });
  raise(SIGUSR1);
  reactor.runOnce();
  EXPECT_EQ(1, caught);
  raise(SIGUSR1);
  reactor.runOnce();
  EXPECT_EQ(2, caught);
}

}  // namespace
