#include "framework/bounds.h"

namespace framework {
namespace {

Bounds& inForce() {
  static Bounds only;
  return only;
}

}  // namespace

const Bounds& bounds() {
  return inForce();
}

void setBounds(const Bounds& bounds) {
  inForce() = bounds;
}

}  // namespace framework
