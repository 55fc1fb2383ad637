#include "framework/ua_with_state_machine.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

class Agent : public IMS_UA_With_State_Machine {
 public:
  int first(void* data) {
    calls.emplace_back(1, data);
    return 0;
  }
  int second(void* data) {
    calls.emplace_back(2, data);
    return 0;
  }
  std::vector<std::pair<int, void*>> calls;
};

template <typename Member>
constexpr IMS_STATE_HANDLER_T handler(Member member) {
  return static_cast<IMS_STATE_HANDLER_T>(member);
}

const IMS_STATE_TBL_T kIdle[] = {{0x9001, handler(&Agent::first)},
                                 {0x9002, handler(&Agent::second)},
                                 {0x9001, handler(&Agent::second)},
                                 {0x9003, nullptr},
                                 {IMS_STATE_TBL_END, nullptr}};
const IMS_STATE_TBL_T kBusy[] = {{0x9001, handler(&Agent::second)}, {IMS_STATE_TBL_END, nullptr}};
const IMS_STATE_TBL_T* const kStates[] = {kIdle, kBusy};

TEST(StateMachine, RowOfTheStateGetsTheData) {
  Agent agent;
  int data = 0;
  agent.initialize_state_tbl(kStates, 0, 2);
  agent.handle_event(0x9001, &data);
  agent.handle_event(0x9002, nullptr);
  EXPECT_EQ(agent.calls, (std::vector<std::pair<int, void*>>{{1, &data}, {2, nullptr}}));
}

TEST(StateMachine, EachStateHasItsOwnRows) {
  Agent agent;
  agent.initialize_state_tbl(kStates, 1, 2);
  agent.handle_event(0x9001, nullptr);
  agent.handle_event(0x9002, nullptr);
  EXPECT_EQ(agent.calls, (std::vector<std::pair<int, void*>>{{2, nullptr}}));
}

TEST(StateMachine, EventWithoutARowIsIgnored) {
  Agent agent;
  agent.handle_event(0x9001, nullptr);  // no table yet
  agent.initialize_state_tbl(kStates, 0, 2);
  agent.handle_event(0, nullptr);
  agent.handle_event(0x9003, nullptr);
  agent.handle_event(IMS_STATE_TBL_END, nullptr);
  agent.initialize_state_tbl(kStates, 2, 2);  // no such state
  agent.handle_event(0x9001, nullptr);
  EXPECT_TRUE(agent.calls.empty());
}

}  // namespace
