#include "framework/message_queue.h"

#include <utility>

namespace framework {
namespace {

constexpr std::size_t kUsualDepth = 256;
constexpr std::size_t kKeptDepth = 4096;

void freeText(const IMS_Queue_Message& message) {
  if (message.type == MSG_FRAMEWORK_TEXT) delete[] static_cast<char*>(message.data);
}

}  // namespace

MessageQueue::MessageQueue() {
  incoming_.reserve(kUsualDepth);
  taken_.reserve(kUsualDepth);
}

MessageQueue::~MessageQueue() {
  for (; next_ < taken_.size(); ++next_) freeText(taken_[next_]);
  for (const IMS_Queue_Message& message : incoming_) freeText(message);
}

bool MessageQueue::push(const IMS_Queue_Message& message) {
  const std::lock_guard lock(mutex_);
  incoming_.push_back(message);
  if (waits_here_) filled_.notify_one();
  return std::exchange(sleeps_elsewhere_, false);
}

bool MessageQueue::pop(IMS_Queue_Message& message) {
  if (next_ == taken_.size()) {
    taken_.clear();
    next_ = 0;
    if (taken_.capacity() > kKeptDepth) std::vector<IMS_Queue_Message>().swap(taken_);
    const std::lock_guard lock(mutex_);
    if (incoming_.empty()) return false;
    taken_.swap(incoming_);
  }
  message = taken_[next_++];
  return true;
}

std::size_t MessageQueue::size() const {
  const std::lock_guard lock(mutex_);
  return taken_.size() - next_ + incoming_.size();
}

bool MessageQueue::announceSleep() {
  const std::lock_guard lock(mutex_);
  if (next_ < taken_.size() || !incoming_.empty() || stopped_) return false;
  sleeps_elsewhere_ = true;
  return true;
}

void MessageQueue::awake() {
  const std::lock_guard lock(mutex_);
  sleeps_elsewhere_ = false;
}

void MessageQueue::wait() {
  if (next_ < taken_.size()) return;
  std::unique_lock lock(mutex_);
  waits_here_ = true;
  filled_.wait(lock, [this] { return !incoming_.empty() || stopped_; });
  waits_here_ = false;
}

bool MessageQueue::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  filled_.notify_one();
  return std::exchange(sleeps_elsewhere_, false);
}

bool MessageQueue::stopped() const {
  const std::lock_guard lock(mutex_);
  return stopped_;
}

}  // namespace framework
