#include "siplib/reactor.h"

// The thread sanitizer does not know fences; asio's own locks order everything here.
#ifdef __SANITIZE_THREAD__
#define ASIO_DISABLE_FENCED_BLOCK
#endif

#include <atomic>
#include <cstddef>
#include <new>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

namespace siplib {

struct Reactor::State {
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
  std::vector<std::unique_ptr<asio::signal_set>> signals;
  /// True while a wake-up is on its way, so that many calls cost one.
  std::atomic<bool> waking{false};
  /// What runOnce waits for: set by everything that reached a callback or was a wake-up. Cancelled operations do not.
  bool done = false;
};

namespace {

/// Memory for one operation at a time: waiting must go on when there is no other.
class Room {
 public:
  void* take(std::size_t size) {
    if (taken_ || size > sizeof bytes_) return ::operator new(size);
    taken_ = true;
    return bytes_;
  }
  void give(void* place) {
    if (place == bytes_) {
      taken_ = false;
    } else {
      ::operator delete(place);
    }
  }

 private:
  alignas(std::max_align_t) std::byte bytes_[256];
  bool taken_ = false;
};

template <typename T>
struct RoomAllocator {
  using value_type = T;
  explicit RoomAllocator(Room& place) : room(&place) {}
  template <typename Other>
  RoomAllocator(const RoomAllocator<Other>& other) : room(other.room) {}
  T* allocate(std::size_t count) { return static_cast<T*>(room->take(count * sizeof(T))); }
  void deallocate(T* place, std::size_t /*count*/) { room->give(place); }
  template <typename Other>
  bool operator==(const RoomAllocator<Other>& other) const {
    return room == other.room;
  }

  Room* room;
};

// The handlers of an ended Watch or Timer still run once, with an error; the shared part is what they find then.
struct WatchState : std::enable_shared_from_this<WatchState> {
  struct Side {
    std::function<void()> ready;
    asio::posix::stream_descriptor::wait_type kind;
    bool wanted = false;
    bool waiting = false;
    Room room{};
  };

  WatchState(asio::io_context& io, bool& flag, std::function<void()> readable, std::function<void()> writable)
      : descriptor(io),
        done(flag),
        read{std::move(readable), asio::posix::stream_descriptor::wait_read},
        write{std::move(writable), asio::posix::stream_descriptor::wait_write} {}

  void want(Side& side, bool on) {
    side.wanted = on;
    if (on) arm(side);
  }

  /// Never fails for want of memory.
  void arm(Side& side) {
    if (!alive || !side.wanted || side.waiting) return;
    side.waiting = true;
    descriptor.async_wait(side.kind, Waiting{shared_from_this(), &side});
  }

  struct Waiting {
    using allocator_type = RoomAllocator<void>;
    allocator_type get_allocator() const noexcept { return allocator_type(side->room); }
    void operator()(const asio::error_code& error) const { watch->ended(*side, error); }

    std::shared_ptr<WatchState> watch;
    Side* side;
  };

  void ended(Side& side, const asio::error_code& error) {
    side.waiting = false;
    if (!alive || !side.wanted || error == asio::error::operation_aborted) return;
    done = true;
    try {
      side.ready();
    } catch (...) {  // out of memory, say: the watch goes on
      arm(side);
      throw;
    }
    arm(side);
  }

  asio::posix::stream_descriptor descriptor;
  bool& done;
  bool alive = true;
  Side read;
  Side write;
};

class DescriptorWatch final : public Reactor::Watch {
 public:
  explicit DescriptorWatch(std::shared_ptr<WatchState> state) : state_(std::move(state)) {}
  ~DescriptorWatch() override {
    state_->alive = false;
    state_->descriptor.release();  // the descriptor is the caller's to close
  }
  void wantRead(bool on) override { state_->want(state_->read, on); }
  void wantWrite(bool on) override { state_->want(state_->write, on); }

 private:
  std::shared_ptr<WatchState> state_;
};

struct TimerState : std::enable_shared_from_this<TimerState> {
  TimerState(asio::io_context& io, bool& flag, std::function<void()> callback)
      : timer(io), done(flag), due(std::move(callback)) {}

  void start(std::chrono::milliseconds delay) {
    timer.expires_after(delay);
    timer.async_wait(Waiting{shared_from_this(), ++generation});
  }

  struct Waiting {
    using allocator_type = RoomAllocator<void>;
    allocator_type get_allocator() const noexcept { return allocator_type(timer->room); }
    void operator()(const asio::error_code& /*error*/) const {
      if (timer->generation != mine) return;
      ++timer->generation;
      timer->done = true;
      timer->due();
    }

    std::shared_ptr<TimerState> timer;
    std::uint64_t mine;
  };

  void stop() {
    ++generation;
    timer.cancel();
  }

  asio::steady_timer timer;
  bool& done;
  std::function<void()> due;
  Room room{};
  std::uint64_t generation = 0;
};

class AsioTimer final : public Reactor::Timer {
 public:
  explicit AsioTimer(std::shared_ptr<TimerState> state) : state_(std::move(state)) {}
  ~AsioTimer() override {
    try {
      state_->stop();
    } catch (...) {  // it does not fire, cancelled or not
    }
  }
  void start(std::chrono::milliseconds delay) override { state_->start(delay); }
  void stop() override { state_->stop(); }

 private:
  std::shared_ptr<TimerState> state_;
};

void awaitSignal(asio::signal_set& set, bool& done, const std::shared_ptr<std::function<void(int)>>& caught) {
  set.async_wait([&set, &done, caught](const asio::error_code& error, int number) {
    if (error) return;
    done = true;
    (*caught)(number);
    awaitSignal(set, done, caught);
  });
}

}  // namespace

Reactor::Reactor() : state_(std::make_unique<State>()) {
}
Reactor::~Reactor() = default;

std::unique_ptr<Reactor::Watch> Reactor::watch(int descriptor, std::function<void()> readable,
                                               std::function<void()> writable) {
  auto state = std::make_shared<WatchState>(state_->io, state_->done, std::move(readable), std::move(writable));
  asio::error_code error;
  state->descriptor.assign(descriptor, error);
  if (error) return nullptr;
  return std::make_unique<DescriptorWatch>(std::move(state));
}

std::unique_ptr<Reactor::Timer> Reactor::timer(std::function<void()> due) {
  return std::make_unique<AsioTimer>(std::make_shared<TimerState>(state_->io, state_->done, std::move(due)));
}

void Reactor::post(std::function<void()> work) {
  asio::post(state_->io, [state = state_.get(), work = std::move(work)] {
    state->done = true;
    work();
  });
}

void Reactor::wake() {
  if (state_->waking.exchange(true)) return;
  try {
    asio::post(state_->io, [state = state_.get()] {
      state->waking = false;
      state->done = true;
    });
  } catch (...) {
    state_->waking = false;
    throw;
  }
}

void Reactor::onSignal(int signal_number, std::function<void(int)> caught) {
  state_->signals.push_back(std::make_unique<asio::signal_set>(state_->io, signal_number));
  awaitSignal(*state_->signals.back(), state_->done, std::make_shared<std::function<void(int)>>(std::move(caught)));
}

void Reactor::run() {
  state_->io.run();
}

// One callback at a time: the caller's loop handles the events of one before the next runs, and what is ready already
// is found without asking the kernel again.
void Reactor::runOnce() {
  state_->done = false;
  while (!state_->done && !state_->io.stopped()) state_->io.run_one();
}

// Bounded: a peer that never stops sending must not keep the caller here.
void Reactor::poll(const std::function<bool()>& enough) {
  constexpr int most = 64;
  for (int count = 0; count < most && !enough() && state_->io.poll_one() > 0; ++count) {
  }
}

void Reactor::stop() {
  state_->io.stop();
}

}  // namespace siplib
