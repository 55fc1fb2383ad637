// A user agent whose handling of events is a table.
#pragma once

#include "framework/user_agent.h"

class IMS_UA_With_State_Machine;

/// A handler of an event; gets the queued message's data, returns 0.
using IMS_STATE_HANDLER_T = int (IMS_UA_With_State_Machine::*)(void* data);

/// One row: an event id and its handler. A state's rows end with { IMS_STATE_TBL_END, nullptr }.
struct IMS_STATE_TBL_T {
  unsigned int event_id;
  IMS_STATE_HANDLER_T handler;
};

constexpr unsigned int IMS_STATE_TBL_END = 0xff;

class IMS_UA_With_State_Machine : public IMS_User_Agent {
 public:
  /// `states` is an array of `count` pointers to the rows of each state, not owned, used until the process ends.
  void initialize_state_tbl(const IMS_STATE_TBL_T* const* states, unsigned int initial, unsigned int count);
  /// Looks (current state, event id) up and calls the handler with the data. An event without a row is ignored.
  void handle_event(unsigned int event_id, void* data) override;

 private:
  const IMS_STATE_TBL_T* const* states_ = nullptr;
  unsigned int count_ = 0;
  unsigned int current_ = 0;
};
