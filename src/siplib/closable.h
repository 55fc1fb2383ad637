// What SIPLIB_SIPConnector::close ends.
#pragma once

namespace siplib {

class Closable {
 public:
  virtual ~Closable() = default;
  /// Ends the user's use. The second call does nothing.
  virtual void closeByUser() = 0;
};

}  // namespace siplib
