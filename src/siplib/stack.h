// The stack: settings, start, and its connector. One per process through SIPLIB_SIPInit; tests may make their own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "siplib/connector.h"
#include "siplib/limits.h"

namespace siplib {
class Reactor;
}

/// Settings of the stack, with their defaults. Times in milliseconds unless named otherwise.
struct SIPLIB_SIPStackConfig {
  siplib::Limits limits;
  /// Open TCP connections of either kind; above it an accepted one that is still silent gives way, or the new one is
  /// closed at once, an opening one refused. The network's peers together get three quarters of them, all accepted ones
  /// seven eighths; places.h says who gives way to whom.
  std::size_t max_connections = 256;
  std::chrono::milliseconds connect_timeout{4000};
  /// A TCP connection on which nothing moved for so long is closed. 0: never.
  std::chrono::seconds idle_timeout{900};
  /// An accepted connection that has not delivered a whole head so long after its acceptance, or not finished a message
  /// so long after its first byte, is closed.
  std::chrono::seconds head_timeout{10};
  /// The user ids whose processes may send requests to the local endpoint's ordinary SIP processing (403 to others),
  /// and what SIPLIB_SIPConnector::mayControl is asked about; over TCP only, a datagram does not tell whose it is.
  /// Unset: everybody's, and nobody is asked.
  std::optional<std::vector<uid_t>> control_uids;
  /// RFC 3261 17.1.1.1, table 4.
  std::chrono::milliseconds t1{500};
  std::chrono::milliseconds t2{4000};
  std::chrono::milliseconds t4{5000};
  /// Where socket work runs. Null: SIPLIB_SIPInit fails. Must outlive the stack.
  siplib::Reactor* reactor = nullptr;
  /// Where log lines go: level 3 for faults, 4 for refusals, 5 for tracing; `where` is a function name. May be
  /// called on any thread. Empty: nothing is said.
  std::function<void(int level, const char* where, std::string_view text)> log;
  /// The log threshold, asked before a line is put together. Empty: every line.
  std::function<bool(int level)> log_enabled;
};

/// One stack. Its end closes everything at once, without notice; the reactor must not be running then.
class SIPLIB_SIPStack {
 public:
  /// Null when the configuration cannot work.
  static std::unique_ptr<SIPLIB_SIPStack> create(const SIPLIB_SIPStackConfig& config);
  virtual ~SIPLIB_SIPStack() = default;
  virtual SIPLIB_SIPConnector* connector() = 0;
  /// Frees what was closed in the turn that ends here. The user's loop calls it between two events, when nothing holds
  /// a closed connection any more. Cheap when there is nothing to free.
  virtual void endTurn() = 0;
  /// Between these two, what the user sends may wait; the second sends it, many messages with few system calls. What
  /// goes wrong then is in the log and, for a connection, its closing event; send() has said that it was taken. Not
  /// nested; both cheap when nothing is sent. The user's thread.
  virtual void holdSending() = 0;
  virtual void releaseSending() = 0;
  /// The process's stack; null before SIPLIB_SIPInit.
  static SIPLIB_SIPStack* instance();

 protected:
  SIPLIB_SIPStack() = default;
};

/// Makes the process's stack and sets the limits. 0 when done; not 0 when the configuration cannot work or there is
/// one.
int SIPLIB_SIPInit(const SIPLIB_SIPStackConfig& config);
