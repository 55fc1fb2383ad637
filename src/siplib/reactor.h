// Readiness, timers, signals and posted work: the one place where this process waits. Asio stands behind it, in
// reactor.cpp only, so that no other file pays for its headers.
//
// Whoever runs it is "the I/O thread": a thread of its own, or the loop thread between two events. Callbacks run there
// and nowhere else, never inside the call that registers them. One turn: ready descriptors, due timers, posted work.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace siplib {

class Reactor {
 public:
  Reactor();
  ~Reactor();
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  /// Watches one descriptor. Destroying the Watch ends it: no callback runs afterwards. Owned by the caller, used and
  /// destroyed on the I/O thread only, before the descriptor is closed (which the caller does).
  class Watch {
   public:
    virtual ~Watch() = default;
    /// Calls `ready` each time the descriptor is readable (level-triggered: until everything is read) while on.
    virtual void wantRead(bool on) = 0;
    /// The same for writing.
    virtual void wantWrite(bool on) = 0;
  };
  /// Null when the system refuses to watch it.
  std::unique_ptr<Watch> watch(int descriptor, std::function<void()> readable, std::function<void()> writable);

  /// Calls `due` once after `delay`. Destroying or re-arming the Timer cancels it. I/O thread only.
  class Timer {
   public:
    virtual ~Timer() = default;
    virtual void start(std::chrono::milliseconds delay) = 0;
    virtual void stop() = 0;
  };
  std::unique_ptr<Timer> timer(std::function<void()> due);

  /// Calls `work` on the I/O thread, later. Any thread. Order is kept.
  void post(std::function<void()> work);
  /// Makes a blocked runOnce return. Any thread.
  void wake();
  /// Calls `caught` on the I/O thread for each arrival of the signal.
  void onSignal(int signal_number, std::function<void(int)> caught);

  /// Runs until stop.
  void run();
  /// Waits for something to do, does what there is, returns. Returns at once after stop.
  void runOnce();
  /// Does what there is without waiting, until the caller has enough.
  void poll(const std::function<bool()>& enough = [] { return false; });
  /// Any thread; for ever.
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace siplib
