#include "siplib/limits.h"

namespace siplib {
namespace {
Limits in_force;
}

const Limits& limits() {
  return in_force;
}
void setLimits(const Limits& limits) {
  in_force = limits;
}

}  // namespace siplib
