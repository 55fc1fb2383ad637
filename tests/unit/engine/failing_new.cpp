#include "engine/failing_new.h"

#include <cstddef>
#include <new>

namespace {

thread_local int countdown = 0;

bool fails() {
  return countdown > 0 && --countdown == 0;
}

}  // namespace

FailingNew::FailingNew(int nth) {
  for (int i = 0; i < 64; ++i) messages_.push_back(std::make_unique<SIPLIB_message>(100, "Trying"));
  countdown = nth;
}
FailingNew::~FailingNew() {
  countdown = 0;
}

// The ordinary operators behind them, so that the ordinary deletes fit.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (fails()) return nullptr;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (fails()) return nullptr;
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
