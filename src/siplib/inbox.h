// What a transport has received and its user has not asked for yet. Filled on the I/O thread, emptied on the user's.
#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace siplib {

/// A bounded ring. It grows to its capacity as needed and keeps its room, so that the steady state allocates nothing.
template <class Item>
class Inbox {
 public:
  explicit Inbox(std::size_t capacity) : capacity_(capacity) {}

  /// False when it is full; the item is then dropped.
  bool push(Item&& item) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (count_ == capacity_) return false;
    if (count_ == ring_.size()) grow();
    ring_[(first_ + count_) % ring_.size()] = std::move(item);
    ++count_;
    return true;
  }

  /// True when it is full; the pop that makes it half empty then reports `drained`.
  bool pauseWhenFull() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (count_ == capacity_) paused_ = true;
    return paused_;
  }

  /// False when it is empty.
  bool pop(Item& item, bool& drained) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (count_ == 0) return false;
    item = std::exchange(ring_[first_], Item());
    first_ = (first_ + 1) % ring_.size();
    --count_;
    drained = paused_ && count_ <= capacity_ / 2;
    if (drained) paused_ = false;
    return true;
  }

  bool full() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_ == capacity_;
  }

  bool empty() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_ == 0;
  }

 private:
  void grow() {
    std::vector<Item> larger(std::min(capacity_, std::max<std::size_t>(4, ring_.size() * 2)));
    for (std::size_t i = 0; i < count_; ++i) larger[i] = std::move(ring_[(first_ + i) % ring_.size()]);
    ring_ = std::move(larger);
    first_ = 0;
  }

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::vector<Item> ring_;
  std::size_t first_ = 0;
  std::size_t count_ = 0;
  bool paused_ = false;
};

}  // namespace siplib
