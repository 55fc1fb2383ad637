// Lets the nth allocation with std::nothrow fail. The operators themselves are in failing_new.cpp.
#pragma once

#include <memory>
#include <vector>

#include "siplib/message.h"

/// While it lives, the `nth` nothrow allocation of this thread from now on gives null (1: the next one).
class FailingNew {
 public:
  explicit FailingNew(int nth);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

 private:
  /// All that is kept for the next messages, so that one asks for memory.
  std::vector<std::unique_ptr<SIPLIB_message>> messages_;
};
