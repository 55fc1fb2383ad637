#include "framework/message_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace {

using framework::MessageQueue;

void* number(std::uintptr_t value) {
  return reinterpret_cast<void*>(value);
}

TEST(MessageQueue, GivesMessagesInTheirOrder) {
  MessageQueue queue;
  IMS_Queue_Message message{};
  EXPECT_FALSE(queue.pop(message));
  std::uintptr_t in = 0;
  std::uintptr_t out = 0;
  // Uneven steps, so that both buffers are seen full, part full and empty.
  for (int round = 1; round < 300; ++round) {
    for (int i = 0; i < round % 7; ++i) queue.push({MSG_TCP_REQUEST, number(in++)});
    for (int i = 0; i < round % 5 && queue.pop(message); ++i) EXPECT_EQ(message.data, number(out++));
  }
  while (queue.pop(message)) EXPECT_EQ(message.data, number(out++));
  EXPECT_EQ(in, out);
}

TEST(MessageQueue, BurstIsKeptWhole) {
  MessageQueue queue;
  constexpr std::uintptr_t kBurst = 20000;
  IMS_Queue_Message message{};
  for (int twice = 0; twice < 2; ++twice) {
    for (std::uintptr_t i = 0; i < kBurst; ++i) queue.push({MSG_UDP_MESSAGE, number(i)});
    for (std::uintptr_t i = 0; i < kBurst; ++i) {
      ASSERT_TRUE(queue.pop(message));
      ASSERT_EQ(message.data, number(i));
    }
    EXPECT_FALSE(queue.pop(message));
  }
}

TEST(MessageQueue, WakeUpIsAskedForOncePerSleep) {
  MessageQueue queue;
  IMS_Queue_Message message{};
  EXPECT_FALSE(queue.push({1, nullptr}));
  EXPECT_FALSE(queue.announceSleep()) << "a message waits";
  EXPECT_TRUE(queue.pop(message));
  EXPECT_TRUE(queue.announceSleep());
  EXPECT_TRUE(queue.push({1, nullptr}));
  EXPECT_FALSE(queue.push({1, nullptr}));
  queue.awake();
  while (queue.pop(message)) continue;
  EXPECT_TRUE(queue.announceSleep());
  queue.awake();
  EXPECT_FALSE(queue.push({1, nullptr})) << "the loop is awake again";
}

TEST(MessageQueue, MessageOfTheTakenBufferKeepsTheLoopAwake) {
  MessageQueue queue;
  IMS_Queue_Message message{};
  queue.push({1, nullptr});
  queue.push({1, nullptr});
  EXPECT_TRUE(queue.pop(message));
  EXPECT_FALSE(queue.announceSleep());
  queue.wait();  // returns at once
  EXPECT_TRUE(queue.pop(message));
  EXPECT_TRUE(queue.announceSleep());
}

TEST(MessageQueue, StopEndsEveryWait) {
  MessageQueue queue;
  EXPECT_TRUE(queue.announceSleep());
  EXPECT_TRUE(queue.stop());
  EXPECT_TRUE(queue.stopped());
  EXPECT_FALSE(queue.announceSleep());
  queue.wait();
}

TEST(MessageQueue, ThreadsLoseNothing) {
  MessageQueue queue;
  constexpr std::uintptr_t kEach = 5000;
  std::vector<std::thread> producers;
  for (std::uint32_t type = 1; type <= 4; ++type) {
    producers.emplace_back([&queue, type] {
      for (std::uintptr_t i = 0; i < kEach; ++i) queue.push({type, number(i)});
    });
  }
  std::uintptr_t next[5] = {};
  IMS_Queue_Message message{};
  for (std::uintptr_t seen = 0; seen < 4 * kEach;) {
    queue.wait();
    while (queue.pop(message)) {
      ASSERT_EQ(message.data, number(next[message.type]++)) << "each producer's own order";
      ++seen;
    }
  }
  for (std::thread& thread : producers) thread.join();
}

TEST(MessageQueue, TextsThatNobodyTookAreFreed) {
  MessageQueue queue;
  for (int i = 0; i < 3; ++i) queue.push({MSG_FRAMEWORK_TEXT, ::strcpy(new char[2], "x")});
  IMS_Queue_Message message{};
  ASSERT_TRUE(queue.pop(message));
  delete[] static_cast<char*>(message.data);
}

}  // namespace
