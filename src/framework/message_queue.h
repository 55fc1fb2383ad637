// The one door to the loop: what happens elsewhere is put in here, the loop takes it out in order.
//
// Producers append to one buffer under a short lock; the loop takes that whole buffer in exchange for its own empty one
// and works through it without a lock. Both keep their memory, so nothing is allocated once the usual depth was
// reached; memory of an unusual burst is given back. The queue itself has no upper limit: its producers do (a
// transport's inbox, the control channel).
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "framework/user_agent.h"

namespace framework {

class MessageQueue {
 public:
  MessageQueue();
  /// Frees the texts that nobody took.
  ~MessageQueue();
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  /// Any thread. True when the loop has announced a sleep elsewhere (see announceSleep) and is to be woken by the
  /// caller; told once a sleep. Throws bad_alloc, the queue then is as before.
  bool push(const IMS_Queue_Message& message);
  /// Loop thread. False when there is none.
  bool pop(IMS_Queue_Message& message);
  /// Loop thread: how many wait.
  std::size_t size() const;

  /// Loop thread: it is about to wait in something else than this queue. False when it must not (a message or the stop
  /// is there). awake() ends the sleep.
  bool announceSleep();
  void awake();
  /// Loop thread: waits here until there is a message or the stop.
  void wait();

  /// Any thread; for ever. True as for push.
  bool stop();
  bool stopped() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable filled_;
  std::vector<IMS_Queue_Message> incoming_;
  bool waits_here_ = false;
  bool sleeps_elsewhere_ = false;
  bool stopped_ = false;
  // The loop thread's own.
  std::vector<IMS_Queue_Message> taken_;
  std::size_t next_ = 0;
};

}  // namespace framework
