#include "framework/ua_with_state_machine.h"

void IMS_UA_With_State_Machine::initialize_state_tbl(const IMS_STATE_TBL_T* const* states, unsigned int initial,
                                                     unsigned int count) {
  states_ = states;
  current_ = initial;
  count_ = count;
}

void IMS_UA_With_State_Machine::handle_event(unsigned int event_id, void* data) {
  if (states_ == nullptr || current_ >= count_) return;
  for (const IMS_STATE_TBL_T* row = states_[current_]; row->event_id != IMS_STATE_TBL_END; ++row) {
    if (row->event_id != event_id) continue;
    if (row->handler != nullptr) (this->*row->handler)(data);
    return;
  }
}
