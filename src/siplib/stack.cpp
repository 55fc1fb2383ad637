#include "siplib/stack.h"

#include "siplib/stack_impl.h"

namespace {

// Never freed: it ends with the process, and its reactor may end before.
SIPLIB_SIPStack* the_stack = nullptr;

}  // namespace

std::unique_ptr<SIPLIB_SIPStack> SIPLIB_SIPStack::create(const SIPLIB_SIPStackConfig& config) {
  return siplib::StackImpl::create(config, siplib::TransactionLayer::create);
}

SIPLIB_SIPStack* SIPLIB_SIPStack::instance() {
  return the_stack;
}

int SIPLIB_SIPInit(const SIPLIB_SIPStackConfig& config) {
  if (the_stack != nullptr) return -1;
  the_stack = SIPLIB_SIPStack::create(config).release();
  if (the_stack == nullptr) return -1;
  siplib::setLimits(config.limits);
  return 0;
}
