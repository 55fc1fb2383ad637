// The state machines of non-INVITE transactions (RFC 3261 17.1.2 and 17.2.2) as libosip2 has them; the only place that
// knows libosip2.
//
// What a machine is given: that something was received, is to be sent, or that a timer fired. What it does: it changes
// its state and asks its user to transmit. It never sees the messages themselves: it prints them differently from how
// it read them, and reads bodies and foreign headers at a cost that grows with the square of their size. It is told
// only the headers that it works with. The times are its user's too: those of libosip2 are compiled in.
//
// Threads: all machines of one `Machines` are used by one thread at a time.
#pragma once

#include <functional>
#include <memory>

#include "siplib/transaction_head.h"

namespace siplib {

class Machine {
 public:
  enum class State { Fresh, Trying, Proceeding, Completed, Terminated };
  /// RFC 3261 17.1.2.2: E repeats a request, F gives up waiting for its answer, K ends the absorbing of repeated
  /// answers. 17.2.2: J ends the absorbing of repeated requests.
  enum class Timer { E, F, J, K };

  virtual ~Machine() = default;
  virtual State state() const = 0;
  /// A message was received or is to be sent: for a request `status` is 0. False when libosip2 cannot read the head:
  /// nothing has changed then. A message that the state has no use for is absorbed.
  virtual bool receive(const Head& head, int status) = 0;
  virtual bool send(const Head& head, int status) = 0;
  virtual void expire(Timer timer) = 0;
};

class Machines {
 public:
  static std::unique_ptr<Machines> create();
  virtual ~Machines() = default;
  /// A machine for one transaction; `transmit` is called within its operations for everything that goes out: the
  /// request or answer last sent, again or for the first time. Must not outlive this. Null when libosip2 cannot read
  /// the head.
  virtual std::unique_ptr<Machine> server(const Head& request, std::function<void()> transmit) = 0;
  virtual std::unique_ptr<Machine> client(const Head& request, std::function<void()> transmit) = 0;
};

}  // namespace siplib
