// The state machines, step by step.
#include "siplib/machine.h"

#include <gtest/gtest.h>

namespace {

using siplib::Machine;
using State = siplib::Machine::State;
using Timer = siplib::Machine::Timer;

siplib::Head head(const std::string& from = "<sip:a@127.0.0.1>;tag=a") {
  siplib::Head head;
  head.via = "SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKx";
  head.from = from;
  head.to = "<sip:b@127.0.0.1>";
  head.call_id = "c";
  head.number = 1;
  head.method = "NOTIFY";
  return head;
}

class MachineTest : public testing::Test {
 protected:
  std::unique_ptr<siplib::Machines> machines = siplib::Machines::create();
  int sent = 0;
  std::function<void()> transmit = [this] { ++sent; };
};

TEST_F(MachineTest, AServerAnswersAndRepeats) {
  const auto machine = machines->server(head(), transmit);
  ASSERT_TRUE(machine);
  EXPECT_EQ(State::Fresh, machine->state());
  ASSERT_TRUE(machine->receive(head(), 0));
  EXPECT_EQ(State::Trying, machine->state());
  ASSERT_TRUE(machine->receive(head(), 0));
  EXPECT_EQ(0, sent);
  ASSERT_TRUE(machine->send(head(), 100));
  EXPECT_EQ(State::Proceeding, machine->state());
  ASSERT_TRUE(machine->receive(head(), 0));
  EXPECT_EQ(2, sent);
  ASSERT_TRUE(machine->send(head(), 403));
  EXPECT_EQ(State::Completed, machine->state());
  ASSERT_TRUE(machine->send(head(), 200));
  EXPECT_EQ(3, sent);
  ASSERT_TRUE(machine->receive(head(), 0));
  EXPECT_EQ(4, sent);
  machine->expire(Timer::J);
  EXPECT_EQ(State::Terminated, machine->state());
}

TEST_F(MachineTest, AClientRepeatsUntilAnswered) {
  const auto machine = machines->client(head(), transmit);
  ASSERT_TRUE(machine);
  ASSERT_TRUE(machine->send(head(), 0));
  EXPECT_EQ(State::Trying, machine->state());
  machine->expire(Timer::E);
  EXPECT_EQ(2, sent);
  ASSERT_TRUE(machine->receive(head(), 100));
  EXPECT_EQ(State::Proceeding, machine->state());
  machine->expire(Timer::E);
  EXPECT_EQ(3, sent);
  ASSERT_TRUE(machine->receive(head(), 200));
  EXPECT_EQ(State::Completed, machine->state());
  machine->expire(Timer::E);
  ASSERT_TRUE(machine->receive(head(), 500));
  EXPECT_EQ(State::Completed, machine->state());
  EXPECT_EQ(3, sent);
  machine->expire(Timer::K);
  EXPECT_EQ(State::Terminated, machine->state());
}

TEST_F(MachineTest, AClientGivesUp) {
  const auto machine = machines->client(head(), transmit);
  ASSERT_TRUE(machine->send(head(), 0));
  machine->expire(Timer::F);
  EXPECT_EQ(State::Terminated, machine->state());
  ASSERT_TRUE(machine->receive(head(), 200));
  EXPECT_EQ(State::Terminated, machine->state());
}

TEST_F(MachineTest, AHeadThatCannotBeReadMakesNone) {
  EXPECT_FALSE(machines->server(head("\"open <sip:a@b>"), transmit));
  EXPECT_FALSE(machines->client(head(""), transmit));
  const auto machine = machines->client(head(), transmit);
  ASSERT_TRUE(machine->send(head(), 0));
  EXPECT_FALSE(machine->receive(head("\"open <sip:a@b>"), 200));
  EXPECT_EQ(State::Trying, machine->state());
}

TEST_F(MachineTest, ATransactionMayEndInAnyState) {
  const auto fresh = machines->server(head(), transmit);
  const auto trying = machines->client(head(), transmit);
  trying->send(head(), 0);
  EXPECT_EQ(1, sent);
}

}  // namespace
